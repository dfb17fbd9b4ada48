// The service's own sessions: tasks recorded in the journal, their scheduling (at most
// `maximumConnections` at once, the rest in creation order; Wi-Fi-only sessions wait while the
// link is cellular) and the delivery of their events to the delegate, held weakly, on the
// session's serial delegate queue. Task bookkeeping is guarded by the session's mutex, which is
// never held while a delegate runs; the journal and the driver are called with it held.
#pragma once

#include <cstdint>
#include <filesystem>
#include <functional>
#include <map>
#include <memory>
#include <mutex>
#include <string>
#include <vector>

#include "platform/dispatch/dispatch_queue.h"
#include "platform/net/reachability.h"
#include "platform/net/transfer_delegate.h"
#include "platform/net/transfer_driver.h"
#include "platform/net/transfer_journal.h"
#include "platform/net/transfer_session.h"
#include "platform/net/transfer_task.h"
#include "platform/net/transfer_types.h"

namespace sonorell {

// While a finished file is handed to the delegate, which moves it away, its bytes keep a second
// name beside it until the journal has forgotten the task: a process that dies in between (the
// file moved, the delegate's own records not yet written) finds them there and delivers the file
// again instead of losing it.
std::filesystem::path heldNameFor(const std::filesystem::path& file);

class JournaledTransferSession final
    : public TransferSession,
      public std::enable_shared_from_this<JournaledTransferSession> {
 public:
  ~JournaledTransferSession() override;

  const TransferSessionConfiguration& configuration() const override { return configuration_; }
  const DispatchQueuePtr& delegateQueue() const override { return delegateQueue_; }
  TransferTaskPtr downloadTask(TransferRequest request) override;
  void getTasks(std::function<void(std::vector<TransferTaskPtr>)> completion) override;
  void finishTasksAndInvalidate() override;
  void invalidateAndCancel() override;

  // What a session needs from its service.
  struct Environment {
    std::shared_ptr<TransferJournal> journal;
    std::shared_ptr<TransferDriver> driver;
    std::shared_ptr<Reachability> reachability;
    std::filesystem::path temporaryDirectory;
    std::string caBundle;  // for a configuration that names none; empty: the process default
    std::function<void(const std::string& identifier)> invalidated;
  };
  // Adopts what the journal holds for the identifier: running tasks resume (partial bytes with
  // Range/If-Range), finished or failed ones are delivered again, cancelling ones complete.
  static std::shared_ptr<JournaledTransferSession> create(
      TransferSessionConfiguration configuration, std::weak_ptr<TransferSessionDelegate> delegate,
      Environment environment);

 private:
  friend class TransferTask;
  class Sink;

  struct Record {
    TransferTaskPtr task;
    std::filesystem::path file;
    TransferPhase phase = TransferPhase::kPending;
    std::string validator;
    uint64_t job = 0;  // the driver job moving its bytes, 0 when none
    int64_t lastReported = 0;
  };

  JournaledTransferSession(TransferSessionConfiguration configuration,
                           std::weak_ptr<TransferSessionDelegate> delegate,
                           Environment environment);
  void adopt(std::vector<JournalTask> rows);

  // Task commands (from TransferTask).
  void resumeTask(uint64_t id);
  void suspendTask(uint64_t id);
  void cancelTask(uint64_t id);
  void describeTask(uint64_t id, const std::string& description);

  // Driver reports (from Sink, on the loop's thread).
  void jobResponded(uint64_t job, const TransferResponse& response, const std::string& validator,
                    bool restarted);
  void jobProgressed(uint64_t job, int64_t total, int64_t expected);
  void jobEnded(uint64_t job, TransferJobResult result);

  void linkChanged(ConnectionType type);

  // With mutex_ held.
  bool blockedLocked() const;
  void pumpLocked();
  void startLocked(Record& record);
  Record* recordForJobLocked(uint64_t job);
  void endCancelledLocked(uint64_t id);
  void endFailedLocked(uint64_t id, ErrorPtr error);
  void endDownloadedLocked(uint64_t id, const TransferResponse& response, int64_t received);

  // On the delegate queue.
  void deliverFinished(uint64_t id);
  void deliverCompletion(uint64_t id, ErrorPtr error, bool rowKeptUntilDelivered);
  void deliverLast(const std::shared_ptr<TransferSessionDelegate>& delegate,
                   const TransferTaskPtr& task, ErrorPtr error);
  // Nobody is listening: the task's record goes (its journal row and file wait for the next
  // session with this identifier) and the session may thereby become invalid.
  void forgetRecord(uint64_t id);
  // True when the session has just become invalid; the caller then announces it, unlocked.
  bool invalidateIfDoneLocked();
  void announceInvalidated();

  const TransferSessionConfiguration configuration_;
  const std::weak_ptr<TransferSessionDelegate> delegate_;
  const Environment environment_;
  const DispatchQueuePtr delegateQueue_;
  const DispatchQueuePtr controlQueue_;
  std::shared_ptr<Sink> sink_;  // what the driver reports to (held weakly there)

  std::mutex mutex_;
  std::map<uint64_t, Record> records_;             // by task id = creation order; guarded by mutex_
  std::map<uint64_t, uint64_t> jobs_;              // driver job -> task id; guarded by mutex_
  uint64_t nextTaskId_ = 1;                        // guarded by mutex_
  ConnectionType link_ = ConnectionType::Unknown;  // guarded by mutex_
  bool invalidating_ = false;                      // guarded by mutex_
  bool invalidated_ = false;                       // guarded by mutex_
  ObservationToken linkObservation_;               // guarded by mutex_
};

}  // namespace sonorell
