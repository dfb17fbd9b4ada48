#include "download/progress.h"

#include "platform/foundation/format.h"

namespace sonorell {

namespace {

double shareOf(const QSOProgress::Work& work) {
  if (work.second == 0) return 0.0;
  return static_cast<double>(work.first) / static_cast<double>(work.second);
}

// A root counts fully; a child counts by its weight against the parent's total at assignment.
double ratioOf(const std::optional<QSOProgress::WorkRatio>& workRatio) {
  if (!workRatio) return 1.0;
  if (workRatio->second == 0) return 0.0;
  return static_cast<double>(workRatio->first) / static_cast<double>(workRatio->second);
}

}  // namespace

QSOProgress::QSOProgress(uint64_t completedWork, uint64_t totalWork)
    : mutationQueue_(DispatchQueue::create("io.sonorell.sdk.progress")),
      work_(completedWork, totalWork) {}

void QSOProgress::setCompletedUnitCount(uint64_t completed) {
  mutationQueue_->sync([&] { work_.first = completed; });
  recomputeFractionCompleted();
}

void QSOProgress::setTotalUnitCount(uint64_t total) {
  mutationQueue_->sync([&] { work_.second = total; });
  recomputeFractionCompleted();
}

void QSOProgress::assignChild(const std::shared_ptr<QSOProgress>& child, uint64_t work) {
  // A node under itself would recompute itself as its own parent for ever.
  if (!child || child.get() == this) return;
  uint64_t ownTotal = 0;
  mutationQueue_->sync([&] { ownTotal = work_.second; });
  // The child's fields are set on its queue and ours afterwards, never one inside the other.
  std::weak_ptr<QSOProgress> self = weak_from_this();
  child->mutationQueue_->sync([&] {
    child->workRatio_ = WorkRatio(work, ownTotal);
    child->parent_ = self;
  });
  mutationQueue_->sync([&] { children_.push_back(child); });
  recomputeFractionCompleted();
}

std::shared_ptr<QSOProgress> QSOProgress::recomputeOwnFraction() {
  std::shared_ptr<QSOProgress> parent;
  // Our queue stays held while the children are read, so recomputations of one node are
  // serialised and the last one sees every child update that preceded it. The nesting is only
  // ever node then child: a node leaves its own queue before its parent is recomputed.
  mutationQueue_->sync([&] {
    double sum = shareOf(work_);
    for (const auto& child : children_) {
      child->mutationQueue_->sync(
          [&] { sum += shareOf(child->work_) * ratioOf(child->workRatio_); });
    }
    fractionCompleted_.store(sum, std::memory_order_release);
    parent = parent_.lock();
  });
  return parent;
}

void QSOProgress::recomputeFractionCompleted() {
  // Iterative, so a change at a leaf reaches the root with one recomputation per level.
  std::shared_ptr<QSOProgress> next = recomputeOwnFraction();
  while (next) next = next->recomputeOwnFraction();
}

QSOProgress::Work QSOProgress::work() const {
  Work result;
  mutationQueue_->sync([&] { result = work_; });
  return result;
}

std::optional<QSOProgress::WorkRatio> QSOProgress::workRatio() const {
  std::optional<WorkRatio> result;
  mutationQueue_->sync([&] { result = workRatio_; });
  return result;
}

std::shared_ptr<QSOProgress> QSOProgress::parent() const {
  std::shared_ptr<QSOProgress> result;
  mutationQueue_->sync([&] { result = parent_.lock(); });
  return result;
}

std::vector<std::shared_ptr<QSOProgress>> QSOProgress::children() const {
  std::vector<std::shared_ptr<QSOProgress>> result;
  mutationQueue_->sync([&] { result = children_; });
  return result;
}

std::string QSOProgress::description() const {
  std::string text;
  mutationQueue_->sync([&] {
    std::string ratio = workRatio_
                            ? stringWithFormat("%lu/%lu", workRatio_->first, workRatio_->second)
                            : std::string("(null)");
    text = stringWithFormat(
        "(QSOProgress) completedWork: %lu, totalWork: %lu, workRatio: %@, fractionCompleted: %f, "
        "children: %lu",
        work_.first, work_.second, ratio, fractionCompleted_.load(std::memory_order_acquire),
        children_.size());
  });
  return text;
}

}  // namespace sonorell
