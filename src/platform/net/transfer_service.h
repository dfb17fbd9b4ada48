// Background transfers that outlive the process: sessions by identifier, each adopting from the
// journal what an earlier process left. This is the interface the engine calls; create() makes
// the journaled service and TransferServiceWrapper forwards it, so a test can change one
// operation. Safe from any thread (the journaled service guards its registry with a mutex).
#pragma once

#include <filesystem>
#include <memory>
#include <string>
#include <utility>
#include <vector>

#include "platform/net/reachability.h"
#include "platform/net/transfer_delegate.h"
#include "platform/net/transfer_driver.h"
#include "platform/net/transfer_session.h"
#include "platform/net/transfer_task.h"
#include "platform/net/transfer_types.h"
#include "sonorell/error.h"

namespace sonorell {

class CurlLoop;

struct TransferServiceOptions {
  // Empty: <Library>/SonorellSupport/TransferJournal.sqlite.
  std::filesystem::path journalFile;
  // Empty: <Library>/SonorellSupport/TransferTemporaryFiles, beside the journal.
  std::filesystem::path temporaryDirectory;
  // Null: Reachability::shared().
  std::shared_ptr<Reachability> reachability;
  // Null: the file system's free blocks (statvfs).
  FreeSpaceProbe freeSpace;
  // Trusted besides the system's CAs by sessions that name no bundle; empty: the process-wide
  // bundle (setDefaultCABundle).
  std::string caBundle;
  // The event loop transfers run on, shared with other clients; null: one of the service's own.
  std::shared_ptr<CurlLoop> loop;
};

class TransferService {
 public:
  // The process-wide service with the default options, made on first use.
  static std::shared_ptr<TransferService> shared();
  // The journaled service; null (with `error`) when the journal or the directory cannot be made.
  static std::shared_ptr<TransferService> create(TransferServiceOptions options,
                                                 ErrorPtr* error = nullptr);

  virtual ~TransferService() = default;

  // The live session with this identifier, or a new one that adopts the journal's tasks for it.
  // The delegate is held weakly; a live session keeps the delegate it was made with.
  virtual TransferSessionPtr sessionWithConfiguration(
      const TransferSessionConfiguration& configuration,
      std::weak_ptr<TransferSessionDelegate> delegate) = 0;

  virtual std::filesystem::path journalFile() const = 0;
  virtual std::filesystem::path temporaryDirectory() const = 0;

  // Every session the journal holds transfers or settings for, live or not.
  virtual std::vector<std::string> journaledSessionIdentifiers() const = 0;
  // Drops a session nobody will make again: its transfers end without a word to any delegate
  // and their files go. A live session is left alone (false).
  virtual bool discardSession(const std::string& identifier) = 0;
};

// Forwards every operation to another service; a test overrides the one it wants to change.
class TransferServiceWrapper : public TransferService {
 public:
  explicit TransferServiceWrapper(std::shared_ptr<TransferService> target)
      : target_(std::move(target)) {}
  const std::shared_ptr<TransferService>& target() const { return target_; }

  TransferSessionPtr sessionWithConfiguration(
      const TransferSessionConfiguration& configuration,
      std::weak_ptr<TransferSessionDelegate> delegate) override {
    return target_->sessionWithConfiguration(configuration, std::move(delegate));
  }
  std::filesystem::path journalFile() const override { return target_->journalFile(); }
  std::filesystem::path temporaryDirectory() const override {
    return target_->temporaryDirectory();
  }
  std::vector<std::string> journaledSessionIdentifiers() const override {
    return target_->journaledSessionIdentifiers();
  }
  bool discardSession(const std::string& identifier) override {
    return target_->discardSession(identifier);
  }

 private:
  const std::shared_ptr<TransferService> target_;
};

}  // namespace sonorell
