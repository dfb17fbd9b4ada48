// The journaled TransferService: one journal file and one temporary directory, a driver for the
// transfers and the registry of live sessions. The registry is guarded by its own mutex, shared
// (weakly) with the sessions so that an invalidated session can leave it after the service went.
#include <map>
#include <mutex>
#include <set>
#include <system_error>

#include "platform/foundation/kept_aside.h"
#include "platform/foundation/library_directory.h"
#include "platform/net/journaled_transfer_session.h"
#include "platform/net/transfer_log.h"
#include "platform/net/transfer_service.h"

namespace sonorell {
namespace {

class JournaledTransferService final : public TransferService {
 public:
  JournaledTransferService(TransferServiceOptions options, std::shared_ptr<TransferJournal> journal)
      : journalFile_(options.journalFile),
        temporaryDirectory_(options.temporaryDirectory),
        caBundle_(options.caBundle),
        journal_(std::move(journal)),
        driver_(TransferDriver::create(std::move(options.freeSpace), std::move(options.loop))),
        reachability_(options.reachability ? options.reachability : Reachability::shared()) {
    removeOrphanFiles();
  }

  TransferSessionPtr sessionWithConfiguration(
      const TransferSessionConfiguration& configuration,
      std::weak_ptr<TransferSessionDelegate> delegate) override;

  std::filesystem::path journalFile() const override { return journalFile_; }
  std::filesystem::path temporaryDirectory() const override { return temporaryDirectory_; }
  std::vector<std::string> journaledSessionIdentifiers() const override {
    return journal_->sessionIdentifiers();
  }
  bool discardSession(const std::string& identifier) override;

 private:
  using Registry = std::map<std::string, TransferSessionPtr>;

  void removeOrphanFiles();

  const std::filesystem::path journalFile_;
  const std::filesystem::path temporaryDirectory_;
  const std::string caBundle_;
  const std::shared_ptr<TransferJournal> journal_;
  const std::shared_ptr<TransferDriver> driver_;
  const std::shared_ptr<Reachability> reachability_;

  // Live sessions, kept until invalidated (as the platform keeps background sessions).
  const std::shared_ptr<std::mutex> sessionsMutex_ = std::make_shared<std::mutex>();
  const std::shared_ptr<Registry> sessions_ =
      std::make_shared<Registry>();  // guarded by *sessionsMutex_
};

void JournaledTransferService::removeOrphanFiles() {
  std::set<std::filesystem::path> referenced;
  for (auto& file : journal_->referencedFiles()) referenced.insert(file);
  std::error_code ec;
  for (const auto& entry : std::filesystem::directory_iterator(temporaryDirectory_, ec)) {
    const auto name = entry.path().filename().string();
    if (!name.starts_with("transfer-") || referenced.count(entry.path())) continue;
    // A held name stays as long as its task's file is referenced (it may be all that is left).
    if (auto owner = entry.path();
        owner.extension() == ".held" && referenced.count(owner.replace_extension()) > 0) {
      continue;
    }
    std::error_code removeError;
    std::filesystem::remove(entry.path(), removeError);
  }
}

bool JournaledTransferService::discardSession(const std::string& identifier) {
  // Held throughout, so the session cannot be made live meanwhile.
  std::lock_guard lock(*sessionsMutex_);
  if (sessions_->count(identifier)) return false;
  for (const auto& file : journal_->referencedFiles(identifier)) {
    std::error_code ec;
    std::filesystem::remove(file, ec);
    std::filesystem::remove(heldNameFor(file), ec);
  }
  journal_->removeSession(identifier);
  transfer_log::info("[TransferService] discarded session %@", identifier);
  return true;
}

TransferSessionPtr JournaledTransferService::sessionWithConfiguration(
    const TransferSessionConfiguration& configuration,
    std::weak_ptr<TransferSessionDelegate> delegate) {
  std::lock_guard lock(*sessionsMutex_);
  if (auto it = sessions_->find(configuration.identifier); it != sessions_->end()) {
    transfer_log::error("[TransferService] a session named %@ is already live; reusing it",
                        configuration.identifier);
    return it->second;
  }
  JournaledTransferSession::Environment environment;
  environment.journal = journal_;
  environment.driver = driver_;
  environment.reachability = reachability_;
  environment.temporaryDirectory = temporaryDirectory_;
  environment.caBundle = caBundle_;
  std::weak_ptr<std::mutex> weakMutex = sessionsMutex_;
  std::weak_ptr<Registry> weakSessions = sessions_;
  // Called by the session without its own mutex held.
  environment.invalidated = [weakMutex, weakSessions](const std::string& identifier) {
    auto mutex = weakMutex.lock();
    auto sessions = weakSessions.lock();
    if (!mutex || !sessions) return;
    TransferSessionPtr released;
    std::lock_guard lock(*mutex);
    if (auto it = sessions->find(identifier); it != sessions->end()) {
      released = std::move(it->second);
      sessions->erase(it);
    }
    // `released` is destroyed after the lock is let go but still inside the session's call:
    // the caller holds its own reference, so this never destroys the session under its mutex.
  };
  TransferSessionPtr session =
      JournaledTransferSession::create(configuration, std::move(delegate), std::move(environment));
  sessions_->emplace(configuration.identifier, session);
  return session;
}

}  // namespace

std::shared_ptr<TransferService> TransferService::create(TransferServiceOptions options,
                                                         ErrorPtr* error) {
  if (options.journalFile.empty() || options.temporaryDirectory.empty()) {
    auto library = LibraryDirectory::path();
    if (!library) {
      if (error) *error = Error::posix(ENOENT, "no Library directory");
      return nullptr;
    }
    const auto support = *library / "SonorellSupport";
    if (options.journalFile.empty()) options.journalFile = support / "TransferJournal.sqlite";
    if (options.temporaryDirectory.empty()) {
      options.temporaryDirectory = support / "TransferTemporaryFiles";
    }
  }
  std::error_code ec;
  if (options.journalFile != ":memory:") {
    LibraryDirectory::createDirectories(options.journalFile.parent_path(), ec);
  }
  if (!LibraryDirectory::createDirectories(options.temporaryDirectory, ec)) {
    if (error)
      *error = Error::posix(ec.value() ? ec.value() : EIO, options.temporaryDirectory.string());
    return nullptr;
  }
  bool notADatabase = false;
  std::shared_ptr<TransferJournal> journal =
      TransferJournal::open(options.journalFile, error, &notADatabase, options.freeSpace);
  if (!journal && notADatabase) {
    // Its transfers are lost either way; a new journal keeps the ones started from now on, and
    // the old bytes stay for a person to look at.
    const KeptAside kept = keepUnreadableFileAside(options.journalFile);
    transfer_log::error("[TransferService] %@ is not a database; kept as %@, starting a new one",
                        options.journalFile.string(), kept.description());
    if (error) *error = nullptr;
    journal = TransferJournal::open(options.journalFile, error, nullptr, options.freeSpace);
  }
  if (!journal) return nullptr;
  return std::make_shared<JournaledTransferService>(std::move(options), std::move(journal));
}

}  // namespace sonorell
