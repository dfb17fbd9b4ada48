#include "platform/net/journaled_transfer_session.h"

#include <system_error>
#include <utility>

#include "platform/foundation/process_activity.h"
#include "platform/foundation/uuid.h"
#include "platform/net/transfer_errors.h"
#include "platform/net/transfer_log.h"

namespace sonorell {
namespace {

int64_t fileSize(const std::filesystem::path& file) {
  std::error_code ec;
  auto size = std::filesystem::file_size(file, ec);
  return ec ? -1 : static_cast<int64_t>(size);
}

void removeFile(const std::filesystem::path& file) {
  std::error_code ec;
  std::filesystem::remove(file, ec);
}

// Gives the finished file its held name; where the file system has no hard links it goes without.
void holdFile(const std::filesystem::path& file) {
  const auto held = heldNameFor(file);
  removeFile(held);
  std::error_code ec;
  std::filesystem::create_hard_link(file, held, ec);
}

}  // namespace

std::filesystem::path heldNameFor(const std::filesystem::path& file) {
  auto held = file;
  held += ".held";
  return held;
}

// Forwards driver reports to the session while it lives.
class JournaledTransferSession::Sink final : public TransferJobSink {
 public:
  explicit Sink(std::weak_ptr<JournaledTransferSession> session) : session_(std::move(session)) {}
  void jobResponded(uint64_t job, const TransferResponse& response, const std::string& validator,
                    bool restarted) override {
    if (auto s = session_.lock()) s->jobResponded(job, response, validator, restarted);
  }
  void jobProgressed(uint64_t job, int64_t total, int64_t expected) override {
    if (auto s = session_.lock()) s->jobProgressed(job, total, expected);
  }
  void jobEnded(uint64_t job, TransferJobResult result) override {
    if (auto s = session_.lock()) s->jobEnded(job, std::move(result));
  }

 private:
  std::weak_ptr<JournaledTransferSession> session_;
};

JournaledTransferSession::JournaledTransferSession(TransferSessionConfiguration configuration,
                                                   std::weak_ptr<TransferSessionDelegate> delegate,
                                                   Environment environment)
    : configuration_(std::move(configuration)),
      delegate_(std::move(delegate)),
      environment_(std::move(environment)),
      delegateQueue_(DispatchQueue::create("io.sonorell.transfer." + configuration_.identifier)),
      controlQueue_(
          DispatchQueue::create("io.sonorell.transfer.control." + configuration_.identifier)) {}

JournaledTransferSession::~JournaledTransferSession() {
  // Jobs still running report to nobody; their bytes stay for the next session.
  for (const auto& [job, id] : jobs_) environment_.driver->stop(job);
}

std::shared_ptr<JournaledTransferSession> JournaledTransferSession::create(
    TransferSessionConfiguration configuration, std::weak_ptr<TransferSessionDelegate> delegate,
    Environment environment) {
  std::shared_ptr<JournaledTransferSession> session(new JournaledTransferSession(
      std::move(configuration), std::move(delegate), std::move(environment)));
  session->sink_ = std::make_shared<Sink>(session);
  auto rows = session->environment_.journal->adoptSession(session->configuration_);
  std::weak_ptr<JournaledTransferSession> weak = session;
  std::lock_guard lock(session->mutex_);
  if (auto reachability = session->environment_.reachability) {
    session->link_ = reachability->connectionType();
    session->linkObservation_ =
        reachability->observe(session->controlQueue_, [weak](ConnectionType type) {
          if (auto s = weak.lock()) s->linkChanged(type);
        });
  }
  session->nextTaskId_ =
      session->environment_.journal->nextTaskId(session->configuration_.identifier);
  session->adopt(std::move(rows));
  session->pumpLocked();
  return session;
}

void JournaledTransferSession::adopt(std::vector<JournalTask> rows) {
  for (auto& row : rows) {
    auto task = std::make_shared<TransferTask>(row.taskId, row.request, weak_from_this());
    Record record;
    record.task = task;
    record.file = row.file;
    record.phase = row.phase;
    record.validator = row.validator;
    int64_t onDisk = fileSize(row.file);
    {
      std::lock_guard taskLock(task->mutex_);
      task->description_ = row.description;
      task->state_ = row.state;
      task->expected_ = row.expected;
      task->received_ = row.phase == TransferPhase::kPartial && onDisk > 0 ? onDisk : 0;
    }
    record.lastReported = task->received_;
    const uint64_t id = row.taskId;
    records_.emplace(id, std::move(record));
    transfer_log::info("[TransferSession] %@ adopts task %lu (%@, phase %d)",
                       configuration_.identifier, id, transferTaskStateName(row.state),
                       static_cast<int>(row.phase));
    if (row.phase == TransferPhase::kDownloaded) {
      if (onDisk != row.received && fileSize(heldNameFor(row.file)) == row.received) {
        std::error_code ec;
        std::filesystem::rename(heldNameFor(row.file), row.file, ec);
        if (!ec) onDisk = row.received;
      }
      if (onDisk != row.received) {
        endFailedLocked(id, transferLostError("the finished file of the transfer is gone"));
        continue;
      }
      endDownloadedLocked(id, row.response, row.received);
    } else if (row.phase == TransferPhase::kFailed) {
      endFailedLocked(id, row.error ? row.error : transferLostError("the transfer failed"));
    } else if (row.state == TransferTaskState::kCancelling) {
      endCancelledLocked(id);
    } else if (row.state == TransferTaskState::kCompleted) {
      endFailedLocked(id, transferLostError("the transfer ended without a result"));
    }
  }
}

TransferTaskPtr JournaledTransferSession::downloadTask(TransferRequest request) {
  std::lock_guard lock(mutex_);
  if (invalidating_) return nullptr;
  const uint64_t id = nextTaskId_++;
  auto task = std::make_shared<TransferTask>(id, std::move(request), weak_from_this());
  Record record;
  record.task = task;
  record.file = environment_.temporaryDirectory / ("transfer-" + makeUUIDString() + ".tmp");
  JournalTask row;
  row.session = configuration_.identifier;
  row.taskId = id;
  row.request = task->originalRequest();
  row.state = TransferTaskState::kSuspended;
  row.file = record.file;
  environment_.journal->insertTask(row);
  records_.emplace(id, std::move(record));
  return task;
}

void JournaledTransferSession::getTasks(
    std::function<void(std::vector<TransferTaskPtr>)> completion) {
  std::vector<TransferTaskPtr> tasks;
  {
    std::lock_guard lock(mutex_);
    for (const auto& [id, record] : records_) tasks.push_back(record.task);
  }
  controlQueue_->async(
      [tasks = std::move(tasks), completion = std::move(completion)] { completion(tasks); });
}

void JournaledTransferSession::finishTasksAndInvalidate() {
  bool done;
  {
    std::lock_guard lock(mutex_);
    invalidating_ = true;
    done = invalidateIfDoneLocked();
  }
  if (done) announceInvalidated();
}

void JournaledTransferSession::invalidateAndCancel() {
  std::vector<TransferTaskPtr> tasks;
  bool done;
  {
    std::lock_guard lock(mutex_);
    invalidating_ = true;
    for (const auto& [id, record] : records_) tasks.push_back(record.task);
    done = invalidateIfDoneLocked();
  }
  if (done) announceInvalidated();
  for (const auto& task : tasks) task->cancel();
}

bool JournaledTransferSession::invalidateIfDoneLocked() {
  if (!invalidating_ || invalidated_ || !records_.empty()) return false;
  invalidated_ = true;
  linkObservation_.reset();
  return true;
}

void JournaledTransferSession::announceInvalidated() {
  // Outside the session's mutex: the service takes its own.
  if (environment_.invalidated) environment_.invalidated(configuration_.identifier);
}

// ---- task commands

void JournaledTransferSession::resumeTask(uint64_t id) {
  std::lock_guard lock(mutex_);
  auto it = records_.find(id);
  if (it == records_.end()) return;
  {
    std::lock_guard taskLock(it->second.task->mutex_);
    if (it->second.task->state_ != TransferTaskState::kSuspended) return;
    it->second.task->state_ = TransferTaskState::kRunning;
  }
  environment_.journal->setState(configuration_.identifier, id, TransferTaskState::kRunning);
  pumpLocked();
}

void JournaledTransferSession::suspendTask(uint64_t id) {
  std::lock_guard lock(mutex_);
  auto it = records_.find(id);
  if (it == records_.end()) return;
  {
    std::lock_guard taskLock(it->second.task->mutex_);
    if (it->second.task->state_ != TransferTaskState::kRunning) return;
    it->second.task->state_ = TransferTaskState::kSuspended;
  }
  environment_.journal->setState(configuration_.identifier, id, TransferTaskState::kSuspended);
  if (it->second.job) environment_.driver->stop(it->second.job);
}

void JournaledTransferSession::cancelTask(uint64_t id) {
  std::lock_guard lock(mutex_);
  auto it = records_.find(id);
  if (it == records_.end()) return;
  {
    std::lock_guard taskLock(it->second.task->mutex_);
    auto state = it->second.task->state_;
    if (state == TransferTaskState::kCancelling || state == TransferTaskState::kCompleted) return;
    it->second.task->state_ = TransferTaskState::kCancelling;
  }
  if (it->second.job) {
    // The driver's report of the stopped job finishes the cancel.
    environment_.journal->setState(configuration_.identifier, id, TransferTaskState::kCancelling);
    environment_.driver->stop(it->second.job);
  } else {
    endCancelledLocked(id);
  }
}

void JournaledTransferSession::describeTask(uint64_t id, const std::string& description) {
  std::lock_guard lock(mutex_);
  if (records_.count(id))
    environment_.journal->setDescription(configuration_.identifier, id, description);
}

// ---- scheduling

bool JournaledTransferSession::blockedLocked() const {
  return !configuration_.allowsCellularAccess && link_ == ConnectionType::Cellular;
}

void JournaledTransferSession::pumpLocked() {
  if (blockedLocked()) {
    // Wi-Fi only on a cellular link: running jobs stop and keep their bytes for later.
    for (auto& [id, record] : records_) {
      if (record.job) environment_.driver->stop(record.job);
    }
    return;
  }
  int active = 0;
  for (const auto& [id, record] : records_) active += record.job != 0;
  for (auto& [id, record] : records_) {
    if (active >= std::max(1, configuration_.maximumConnections)) break;
    if (record.job || record.task->state() != TransferTaskState::kRunning) continue;
    startLocked(record);
    ++active;
  }
}

void JournaledTransferSession::startLocked(Record& record) {
  TransferJobSpec plan;
  plan.request = record.task->originalRequest();
  plan.caBundle = configuration_.caBundle.empty() ? environment_.caBundle : configuration_.caBundle;
  plan.file = record.file;
  if (record.phase == TransferPhase::kPartial && !record.validator.empty()) {
    plan.offset = std::max<int64_t>(0, fileSize(record.file));
    plan.validator = record.validator;
  }
  record.job = environment_.driver->start(std::move(plan), sink_);
  jobs_[record.job] = record.task->taskIdentifier();
}

void JournaledTransferSession::linkChanged(ConnectionType type) {
  std::lock_guard lock(mutex_);
  link_ = type;
  pumpLocked();
}

JournaledTransferSession::Record* JournaledTransferSession::recordForJobLocked(uint64_t job) {
  auto it = jobs_.find(job);
  if (it == jobs_.end()) return nullptr;
  auto record = records_.find(it->second);
  return record == records_.end() ? nullptr : &record->second;
}

// ---- driver reports

void JournaledTransferSession::jobResponded(uint64_t job, const TransferResponse& response,
                                            const std::string& validator, bool restarted) {
  std::lock_guard lock(mutex_);
  Record* record = recordForJobLocked(job);
  if (!record) return;
  record->validator = validator;
  record->phase = validator.empty() ? TransferPhase::kPending : TransferPhase::kPartial;
  if (restarted) record->lastReported = 0;
  environment_.journal->setPartial(configuration_.identifier, record->task->taskIdentifier(),
                                   validator, response.expectedContentLength);
  std::lock_guard taskLock(record->task->mutex_);
  record->task->response_ = response;
  record->task->expected_ = response.expectedContentLength;
  if (restarted) record->task->received_ = 0;
}

void JournaledTransferSession::jobProgressed(uint64_t job, int64_t total, int64_t expected) {
  std::lock_guard lock(mutex_);
  Record* record = recordForJobLocked(job);
  if (!record) return;
  TransferTaskPtr task = record->task;
  {
    std::lock_guard taskLock(task->mutex_);
    task->received_ = total;
    task->expected_ = expected;
  }
  const int64_t written = total - record->lastReported;
  record->lastReported = total;
  std::weak_ptr<JournaledTransferSession> weak = weak_from_this();
  delegateQueue_->async([weak, task, written, total, expected] {
    auto self = weak.lock();
    if (!self) return;
    if (task->state() == TransferTaskState::kCancelling) return;
    if (auto delegate = self->delegate_.lock()) {
      delegate->didWriteData(self, task, written, total, expected);
    }
  });
}

void JournaledTransferSession::jobEnded(uint64_t job, TransferJobResult result) {
  std::lock_guard lock(mutex_);
  Record* record = recordForJobLocked(job);
  jobs_.erase(job);
  if (!record) return;
  record->job = 0;
  const uint64_t id = record->task->taskIdentifier();
  const TransferTaskState state = record->task->state();
  if (state == TransferTaskState::kCancelling) {
    endCancelledLocked(id);
  } else if (result.kind == TransferJobResult::Kind::kFinished) {
    endDownloadedLocked(id, result.response, result.bytesOnDisk);
  } else if (result.kind == TransferJobResult::Kind::kFailed) {
    endFailedLocked(id, result.error);
  }
  // A stopped job (suspended, or parked on a cellular link) keeps its bytes and its record.
  pumpLocked();
}

// ---- endings

void JournaledTransferSession::endCancelledLocked(uint64_t id) {
  Record& record = records_.at(id);
  removeFile(record.file);
  removeFile(heldNameFor(record.file));
  environment_.journal->removeTask(configuration_.identifier, id);
  ErrorPtr error = transferCancelledError();
  {
    std::lock_guard taskLock(record.task->mutex_);
    record.task->state_ = TransferTaskState::kCompleted;
    record.task->error_ = error;
  }
  std::weak_ptr<JournaledTransferSession> weak = weak_from_this();
  delegateQueue_->async([weak, id, error] {
    if (auto self = weak.lock()) self->deliverCompletion(id, error, false);
  });
}

void JournaledTransferSession::endFailedLocked(uint64_t id, ErrorPtr error) {
  Record& record = records_.at(id);
  removeFile(record.file);
  removeFile(heldNameFor(record.file));
  environment_.journal->setFailed(configuration_.identifier, id, error);
  {
    std::lock_guard taskLock(record.task->mutex_);
    record.task->state_ = TransferTaskState::kCompleted;
    record.task->error_ = error;
  }
  transfer_log::error("[TransferSession] %@ task %lu failed: %@", configuration_.identifier, id,
                      error ? error->description() : std::string("?"));
  std::weak_ptr<JournaledTransferSession> weak = weak_from_this();
  delegateQueue_->async([weak, id, error] {
    if (auto self = weak.lock()) self->deliverCompletion(id, error, true);
  });
}

void JournaledTransferSession::endDownloadedLocked(uint64_t id, const TransferResponse& response,
                                                   int64_t received) {
  Record& record = records_.at(id);
  record.phase = TransferPhase::kDownloaded;
  JournalTask row;
  row.session = configuration_.identifier;
  row.taskId = id;
  row.response = response;
  row.received = received;
  row.expected = response.expectedContentLength;
  // Recorded before anyone hears of it: a process that dies from here on delivers it next time.
  environment_.journal->setDownloaded(row);
  {
    std::lock_guard taskLock(record.task->mutex_);
    record.task->state_ = TransferTaskState::kCompleted;
    record.task->response_ = response;
    record.task->received_ = received;
    record.task->expected_ = response.expectedContentLength;
  }
  std::weak_ptr<JournaledTransferSession> weak = weak_from_this();
  delegateQueue_->async([weak, id] {
    if (auto self = weak.lock()) self->deliverFinished(id);
  });
}

// ---- delivery (delegate queue)

void JournaledTransferSession::deliverFinished(uint64_t id) {
  TransferTaskPtr task;
  std::filesystem::path file;
  {
    std::lock_guard lock(mutex_);
    auto it = records_.find(id);
    if (it == records_.end()) return;
    task = it->second.task;
    file = it->second.file;
  }
  auto delegate = delegate_.lock();
  if (!delegate) {
    forgetRecord(id);
    return;
  }
  auto self = shared_from_this();
  // Open until the journal has forgotten the transfer: a process that waits for its open
  // activities before it exits then leaves neither the row nor the held name behind.
  const auto activity =
      ProcessActivity::begin("delivering a transfer of " + configuration_.identifier);
  holdFile(file);
  delegate->didFinishDownloadingToURL(self, task, file);
  // The row goes first: a process killed in between leaves orphan files, swept at start-up.
  environment_.journal->removeTask(configuration_.identifier, id);
  removeFile(file);
  removeFile(heldNameFor(file));
  ProcessActivity::end(activity);
  deliverLast(delegate, task, nullptr);
}

void JournaledTransferSession::deliverCompletion(uint64_t id, ErrorPtr error,
                                                 bool rowKeptUntilDelivered) {
  TransferTaskPtr task;
  {
    std::lock_guard lock(mutex_);
    auto it = records_.find(id);
    if (it == records_.end()) return;
    task = it->second.task;
  }
  auto delegate = delegate_.lock();
  if (!delegate) {
    forgetRecord(id);
    return;
  }
  if (rowKeptUntilDelivered) environment_.journal->removeTask(configuration_.identifier, id);
  deliverLast(delegate, task, std::move(error));
}

void JournaledTransferSession::forgetRecord(uint64_t id) {
  bool done;
  {
    std::lock_guard lock(mutex_);
    records_.erase(id);
    done = invalidateIfDoneLocked();
  }
  if (done) announceInvalidated();
}

void JournaledTransferSession::deliverLast(const std::shared_ptr<TransferSessionDelegate>& delegate,
                                           const TransferTaskPtr& task, ErrorPtr error) {
  bool allDelivered;
  {
    // Gone from the session before the delegate hears of its end, so that what the delegate
    // (or anyone it wakes) asks of the session already reflects it.
    std::lock_guard lock(mutex_);
    records_.erase(task->taskIdentifier());
    allDelivered = records_.empty();
  }
  auto self = shared_from_this();
  delegate->didCompleteWithError(self, task, std::move(error));
  if (allDelivered) delegate->didFinishEventsForBackgroundURLSession(self);
  bool done;
  {
    std::lock_guard lock(mutex_);
    done = invalidateIfDoneLocked();
  }
  if (done) announceInvalidated();
}

}  // namespace sonorell
