#include "platform/net/transfer_task.h"

#include "platform/net/journaled_transfer_session.h"

namespace sonorell {

TransferTask::TransferTask(uint64_t taskIdentifier, TransferRequest request,
                           std::weak_ptr<JournaledTransferSession> session)
    : taskIdentifier_(taskIdentifier), request_(std::move(request)), session_(std::move(session)) {}

std::string TransferTask::taskDescription() const { return locked(description_); }

void TransferTask::setTaskDescription(std::string description) {
  {
    std::lock_guard lock(mutex_);
    description_ = description;
  }
  if (auto session = session_.lock()) session->describeTask(taskIdentifier_, description);
}

TransferTaskState TransferTask::state() const { return locked(state_); }

int64_t TransferTask::countOfBytesReceived() const { return locked(received_); }

int64_t TransferTask::countOfBytesExpectedToReceive() const { return locked(expected_); }

std::optional<TransferResponse> TransferTask::response() const { return locked(response_); }

ErrorPtr TransferTask::error() const { return locked(error_); }

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
