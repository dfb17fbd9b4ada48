#include "platform/net/transfer_task.h"

#include "platform/net/transfer_session.h"

namespace sonorell {

TransferTask::TransferTask(uint64_t taskIdentifier, TransferRequest request,
                           std::weak_ptr<TransferSession> session)
    : taskIdentifier_(taskIdentifier), request_(std::move(request)), session_(std::move(session)) {}

std::string TransferTask::taskDescription() const {
  std::lock_guard lock(mutex_);
  return description_;
}

void TransferTask::setTaskDescription(std::string description) {
  {
    std::lock_guard lock(mutex_);
    description_ = description;
  }
  if (auto session = session_.lock()) session->describeTask(taskIdentifier_, description);
}

TransferTaskState TransferTask::state() const {
  std::lock_guard lock(mutex_);
  return state_;
}

int64_t TransferTask::countOfBytesReceived() const {
  std::lock_guard lock(mutex_);
  return received_;
}

int64_t TransferTask::countOfBytesExpectedToReceive() const {
  std::lock_guard lock(mutex_);
  return expected_;
}

std::optional<TransferResponse> TransferTask::response() const {
  std::lock_guard lock(mutex_);
  return response_;
}

ErrorPtr TransferTask::error() const {
  std::lock_guard lock(mutex_);
  return error_;
}

void TransferTask::resume() {
  if (auto session = session_.lock()) session->resumeTask(taskIdentifier_);
}

void TransferTask::suspend() {
  if (auto session = session_.lock()) session->suspendTask(taskIdentifier_);
}

void TransferTask::cancel() {
  if (auto session = session_.lock()) session->cancelTask(taskIdentifier_);
}

}  // namespace sonorell
