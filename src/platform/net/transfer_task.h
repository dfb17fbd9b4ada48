// One download task of a transfer session: what a host reads about it and the commands it
// gives. The readable fields are guarded by the task's own mutex (the session writes them from
// its threads); commands go to the journaled session that made it, held weakly, and do nothing
// once it is gone.
#pragma once

#include <cstdint>
#include <memory>
#include <mutex>
#include <optional>
#include <string>

#include "platform/net/transfer_types.h"
#include "sonorell/error.h"

namespace sonorell {

class JournaledTransferSession;

class TransferTask {
 public:
  TransferTask(uint64_t taskIdentifier, TransferRequest request,
               std::weak_ptr<JournaledTransferSession> session);

  // Unique within its session and kept across processes; later tasks have larger ones.
  uint64_t taskIdentifier() const { return taskIdentifier_; }
  const TransferRequest& originalRequest() const { return request_; }

  // Free text the host keeps with the task (the download engine stores the chapter key). Kept
  // in the journal, so an adopted task still carries it.
  std::string taskDescription() const;
  void setTaskDescription(std::string description);

  TransferTaskState state() const;
  // Bytes of the resource in hand, including those kept from before a resume.
  int64_t countOfBytesReceived() const;
  // The resource's full length; -1 until the server declares it.
  int64_t countOfBytesExpectedToReceive() const;
  // The final response, once its headers arrived.
  std::optional<TransferResponse> response() const;
  // Set when the task completed with an error.
  ErrorPtr error() const;

  // A new task starts suspended; resume() queues it behind the session's running transfers.
  void resume();
  // Stops the transfer and keeps its bytes; a later resume() asks only for the rest.
  void suspend();
  // The task completes with URL-loading -999 and its file is removed.
  void cancel();

 private:
  friend class JournaledTransferSession;

  template <class T>
  T locked(const T& field) const {
    std::lock_guard lock(mutex_);
    return field;
  }

  const uint64_t taskIdentifier_;
  const TransferRequest request_;
  const std::weak_ptr<JournaledTransferSession> session_;

  mutable std::mutex mutex_;
  std::string description_;                                  // guarded by mutex_
  TransferTaskState state_ = TransferTaskState::kSuspended;  // guarded by mutex_
  int64_t received_ = 0;                                     // guarded by mutex_
  int64_t expected_ = -1;                                    // guarded by mutex_
  std::optional<TransferResponse> response_;                 // guarded by mutex_
  ErrorPtr error_;                                           // guarded by mutex_
};

using TransferTaskPtr = std::shared_ptr<TransferTask>;

}  // namespace sonorell
