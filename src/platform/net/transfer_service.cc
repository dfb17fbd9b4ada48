#include "platform/net/transfer_service.h"

#include <unistd.h>

#include <set>
#include <system_error>

#include "platform/foundation/library_directory.h"
#include "platform/net/transfer_log.h"

namespace sonorell {

std::shared_ptr<TransferService> TransferService::shared() {
  static const std::shared_ptr<TransferService> service = [] {
    ErrorPtr error;
    auto made = create({}, &error);
    if (!made) {
      // Without a Library directory transfers still run; they just do not outlive the process.
      transfer_log::error("[TransferService] no journal (%@); transfers are not kept",
                          error ? error->description() : std::string("?"));
      TransferServiceOptions options;
      options.journalFile = ":memory:";
      options.temporaryDirectory = std::filesystem::temp_directory_path() /
                                   ("sonorell-transfers-" + std::to_string(::getpid()));
      made = create(std::move(options), nullptr);
    }
    return made;
  }();
  return service;
}

std::shared_ptr<TransferService> TransferService::create(TransferServiceOptions options,
                                                         ErrorPtr* error) {
  std::shared_ptr<TransferService> service(new TransferService());
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
  auto journal = TransferJournal::open(options.journalFile, error);
  if (!journal) return nullptr;
  service->journalFile_ = options.journalFile;
  service->temporaryDirectory_ = options.temporaryDirectory;
  service->journal_ = std::move(journal);
  service->driver_ = TransferDriver::create(std::move(options.freeSpace));
  service->reachability_ = options.reachability ? options.reachability : Reachability::shared();
  service->removeOrphanFiles();
  return service;
}

TransferService::~TransferService() = default;

void TransferService::removeOrphanFiles() {
  std::set<std::filesystem::path> referenced;
  for (auto& file : journal_->referencedFiles()) referenced.insert(file);
  std::error_code ec;
  for (const auto& entry : std::filesystem::directory_iterator(temporaryDirectory_, ec)) {
    const auto name = entry.path().filename().string();
    if (!name.starts_with("transfer-") || referenced.count(entry.path())) continue;
    std::error_code removeError;
    std::filesystem::remove(entry.path(), removeError);
  }
}

std::shared_ptr<TransferSession> TransferService::sessionWithConfiguration(
    const TransferSessionConfiguration& configuration,
    std::weak_ptr<TransferSessionDelegate> delegate) {
  std::lock_guard lock(*sessionsMutex_);
  if (auto it = sessions_->find(configuration.identifier); it != sessions_->end()) {
    transfer_log::error("[TransferService] a session named %@ is already live; reusing it",
                        configuration.identifier);
    return it->second;
  }
  TransferSession::Environment environment;
  environment.journal = journal_;
  environment.driver = driver_;
  environment.reachability = reachability_;
  environment.temporaryDirectory = temporaryDirectory_;
  std::weak_ptr<std::mutex> weakMutex = sessionsMutex_;
  std::weak_ptr<std::map<std::string, std::shared_ptr<TransferSession>>> weakSessions = sessions_;
  // Called by the session without its own mutex held.
  environment.invalidated = [weakMutex, weakSessions](const std::string& identifier) {
    auto mutex = weakMutex.lock();
    auto sessions = weakSessions.lock();
    if (!mutex || !sessions) return;
    std::shared_ptr<TransferSession> released;
    std::lock_guard lock(*mutex);
    if (auto it = sessions->find(identifier); it != sessions->end()) {
      released = std::move(it->second);
      sessions->erase(it);
    }
    // `released` is destroyed after the lock is let go but still inside the session's call:
    // the caller holds its own reference, so this never destroys the session under its mutex.
  };
  auto session =
      TransferSession::create(configuration, std::move(delegate), std::move(environment));
  sessions_->emplace(configuration.identifier, session);
  return session;
}

}  // namespace sonorell
