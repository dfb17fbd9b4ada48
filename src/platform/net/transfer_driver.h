// The transfer service's network side: each job moves one resource straight into its file as a
// job on a CurlLoop (the driver's own, or one it shares with the data client). Jobs are started
// and stopped from any thread; files and job state are touched only on the loop's thread, which
// reports to each job's sink (held weakly) there.
#pragma once

#include <cstdint>
#include <filesystem>
#include <functional>
#include <memory>
#include <optional>
#include <string>

#include "platform/foundation/free_space.h"
#include "platform/net/transfer_types.h"
#include "sonorell/error.h"

namespace sonorell {

class CurlLoop;

struct TransferJobSpec {
  TransferRequest request;
  std::string caBundle;  // empty: the process-wide bundle
  std::filesystem::path file;
  // Bytes of `file` to keep and ask the rest for with Range/If-Range; 0 starts from nothing.
  int64_t offset = 0;
  std::string validator;
};

struct TransferJobResult {
  enum class Kind { kFinished, kFailed, kStopped };
  Kind kind = Kind::kFailed;
  TransferResponse response;
  int64_t bytesOnDisk = 0;  // size of the file now
  ErrorPtr error;           // for kFailed
};

// Receives a job's reports on the loop's thread; must return quickly.
class TransferJobSink {
 public:
  virtual ~TransferJobSink() = default;
  // The final response's headers arrived and its body is about to be written. `validator` names
  // the resource's version (empty if the server gave none); `restarted` says that bytes kept
  // from before were dropped (the server sent the whole resource).
  virtual void jobResponded(uint64_t job, const TransferResponse& response,
                            const std::string& validator, bool restarted) = 0;
  // At most about ten times a second (Clock::current() time), and once for the last bytes.
  virtual void jobProgressed(uint64_t job, int64_t totalOnDisk, int64_t expectedTotal) = 0;
  // Exactly once per job, after its file is closed.
  virtual void jobEnded(uint64_t job, TransferJobResult result) = 0;
};

class TransferDriver {
 public:
  // Runs its jobs on `loop`, or on a loop of its own when null: that loop goes with the driver,
  // and every job still running then ends as kStopped.
  static std::shared_ptr<TransferDriver> create(FreeSpaceProbe freeSpace = nullptr,
                                                std::shared_ptr<CurlLoop> loop = nullptr);

  // Returns the job's key (never 0).
  uint64_t start(TransferJobSpec plan, std::weak_ptr<TransferJobSink> sink);
  // The job ends as kStopped (its file keeps what arrived) unless it ended already.
  void stop(uint64_t job);

 private:
  TransferDriver(FreeSpaceProbe freeSpace, std::shared_ptr<CurlLoop> loop)
      : freeSpace_(std::move(freeSpace)), loop_(std::move(loop)) {}

  const FreeSpaceProbe freeSpace_;
  const std::shared_ptr<CurlLoop> loop_;
};

}  // namespace sonorell
