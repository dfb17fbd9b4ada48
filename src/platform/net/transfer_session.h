// A transfer session: the download tasks made under one identifier and the delivery of their
// events to a delegate (transfer_delegate.h). This is the interface the engine calls; the
// service's journaled sessions implement it (journaled_transfer_session.h) and
// TransferSessionWrapper forwards it, so a test can change one operation. Safe from any thread.
#pragma once

#include <functional>
#include <memory>
#include <string>
#include <utility>
#include <vector>

#include "platform/dispatch/dispatch_queue.h"
#include "platform/net/transfer_task.h"
#include "platform/net/transfer_types.h"

namespace sonorell {

class TransferSession {
 public:
  virtual ~TransferSession() = default;

  virtual const TransferSessionConfiguration& configuration() const = 0;
  const std::string& identifier() const { return configuration().identifier; }
  // Where delegate events run: "io.sonorell.transfer.<identifier>".
  virtual const DispatchQueuePtr& delegateQueue() const = 0;

  // A new task, suspended, recorded in the journal; null once the session is invalidated.
  virtual TransferTaskPtr downloadTask(TransferRequest request) = 0;
  // The session's tasks in creation order, including completed ones whose last event has not
  // been delivered. Answered on the session's own control queue, never on the delegate queue,
  // so a caller may wait for it while a delegate event is blocked on that caller.
  virtual void getTasks(std::function<void(std::vector<TransferTaskPtr>)> completion) = 0;

  // No new tasks; once every task has delivered its last event the service forgets the session.
  virtual void finishTasksAndInvalidate() = 0;
  // Cancels every task, then invalidates as above.
  virtual void invalidateAndCancel() = 0;
};

using TransferSessionPtr = std::shared_ptr<TransferSession>;

// Forwards every operation to another session. A delegate is always handed the service's own
// session, never a wrapper around it: a delegate that must tell sessions apart compares
// identifier(), and what it calls on the session it is handed skips the wrapper.
class TransferSessionWrapper : public TransferSession {
 public:
  explicit TransferSessionWrapper(TransferSessionPtr target) : target_(std::move(target)) {}
  const TransferSessionPtr& target() const { return target_; }

  const TransferSessionConfiguration& configuration() const override {
    return target_->configuration();
  }
  const DispatchQueuePtr& delegateQueue() const override { return target_->delegateQueue(); }
  TransferTaskPtr downloadTask(TransferRequest request) override {
    return target_->downloadTask(std::move(request));
  }
  void getTasks(std::function<void(std::vector<TransferTaskPtr>)> completion) override {
    target_->getTasks(std::move(completion));
  }
  void finishTasksAndInvalidate() override { target_->finishTasksAndInvalidate(); }
  void invalidateAndCancel() override { target_->invalidateAndCancel(); }

 private:
  const TransferSessionPtr target_;
};

}  // namespace sonorell
