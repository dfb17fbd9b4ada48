// Background transfers that outlive the process: sessions by identifier, each adopting from the
// journal what an earlier process left (see TransferSession). One service per journal file; its
// session registry is guarded by the service's mutex, transfers run on its driver thread.
#pragma once

#include <filesystem>
#include <map>
#include <memory>
#include <mutex>
#include <string>

#include "platform/media/reachability.h"
#include "platform/net/transfer_delegate.h"
#include "platform/net/transfer_driver.h"
#include "platform/net/transfer_journal.h"
#include "platform/net/transfer_session.h"
#include "platform/net/transfer_task.h"
#include "platform/net/transfer_types.h"
#include "sonorell/error.h"

namespace sonorell {

struct TransferServiceOptions {
  // Empty: <Library>/SonorellSupport/TransferJournal.sqlite.
  std::filesystem::path journalFile;
  // Empty: <Library>/SonorellSupport/TransferTemporaryFiles, beside the journal.
  std::filesystem::path temporaryDirectory;
  // Null: Reachability::shared().
  std::shared_ptr<Reachability> reachability;
  // Null: the file system's free blocks (statvfs).
  FreeSpaceProbe freeSpace;
};

class TransferService {
 public:
  // The process-wide service with the default options, made on first use.
  static std::shared_ptr<TransferService> shared();
  // Null (with `error`) when the journal or the directory cannot be made.
  static std::shared_ptr<TransferService> create(TransferServiceOptions options,
                                                 ErrorPtr* error = nullptr);
  ~TransferService();

  // The live session with this identifier, or a new one that adopts the journal's tasks for it.
  // The delegate is held weakly; a live session keeps the delegate it was made with.
  std::shared_ptr<TransferSession> sessionWithConfiguration(
      const TransferSessionConfiguration& configuration,
      std::weak_ptr<TransferSessionDelegate> delegate);

  const std::filesystem::path& journalFile() const { return journalFile_; }
  const std::filesystem::path& temporaryDirectory() const { return temporaryDirectory_; }

 private:
  TransferService() = default;
  void removeOrphanFiles();

  std::filesystem::path journalFile_;
  std::filesystem::path temporaryDirectory_;
  std::shared_ptr<TransferJournal> journal_;
  std::shared_ptr<TransferDriver> driver_;
  std::shared_ptr<Reachability> reachability_;

  // Live sessions, kept until invalidated (as the platform keeps background sessions).
  std::shared_ptr<std::mutex> sessionsMutex_ = std::make_shared<std::mutex>();
  std::shared_ptr<std::map<std::string, std::shared_ptr<TransferSession>>> sessions_ =
      std::make_shared<
          std::map<std::string, std::shared_ptr<TransferSession>>>();  // guarded by *sessionsMutex_
};

}  // namespace sonorell
