// One node of an audiobook's download progress tree: bytes done and bytes in all, its weight in
// its parent, and the fraction completed, recomputed upwards on every change. Each node owns a
// serial "io.sonorell.sdk.progress" queue that guards all of its fields; the cached fraction is
// written on that queue and may be read from any thread.
#pragma once

#include <atomic>
#include <cstdint>
#include <memory>
#include <optional>
#include <string>
#include <utility>
#include <vector>

#include "platform/dispatch/dispatch_queue.h"

namespace sonorell {

class QSOProgress : public std::enable_shared_from_this<QSOProgress> {
 public:
  // (completed work, total work), in bytes.
  using Work = std::pair<uint64_t, uint64_t>;
  // (work assigned to this node, the parent's total work at assignment).
  using WorkRatio = std::pair<uint64_t, uint64_t>;

  // A root node with the given counts.
  QSOProgress(uint64_t completedWork, uint64_t totalWork);
  QSOProgress(const QSOProgress&) = delete;
  QSOProgress& operator=(const QSOProgress&) = delete;

  // Each sets the count on this node's queue and then recomputes this node and its ancestors
  // before returning, so the root's fraction is current when the call returns.
  void setCompletedUnitCount(uint64_t completed);
  void setTotalUnitCount(uint64_t total);

  // Makes `child` part of this node with weight `work` against this node's total as it is now;
  // later changes of this node's total do not change the weight.
  void assignChild(const std::shared_ptr<QSOProgress>& child, uint64_t work);

  // The result of the last recomputation; above 1 when counts exceed totals (callers cap it).
  double fractionCompleted() const { return fractionCompleted_.load(std::memory_order_acquire); }

  Work work() const;
  std::optional<WorkRatio> workRatio() const;
  std::shared_ptr<QSOProgress> parent() const;
  std::vector<std::shared_ptr<QSOProgress>> children() const;
  std::string description() const;

 private:
  // Recomputes this node on its queue and returns its parent (null for a root), which the
  // caller recomputes next, outside this node's queue.
  std::shared_ptr<QSOProgress> recomputeOwnFraction();
  // This node and then every ancestor, one level at a time.
  void recomputeFractionCompleted();

  const std::shared_ptr<DispatchQueue> mutationQueue_;
  // All guarded by mutationQueue_.
  Work work_;
  std::optional<WorkRatio> workRatio_;
  std::weak_ptr<QSOProgress> parent_;
  std::vector<std::shared_ptr<QSOProgress>> children_;
  // Written on mutationQueue_, read from any thread.
  std::atomic<double> fractionCompleted_{0.0};
};

using QSOProgressPtr = std::shared_ptr<QSOProgress>;

}  // namespace sonorell
