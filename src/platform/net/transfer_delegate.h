// What a transfer session tells its delegate. Every call of one session runs on that session's
// serial delegate queue, one at a time and in order; the session holds its delegate weakly.
#pragma once

#include <cstdint>
#include <filesystem>
#include <memory>

#include "sonorell/error.h"

namespace sonorell {

class TransferSession;
class TransferTask;

class TransferSessionDelegate {
 public:
  virtual ~TransferSessionDelegate() = default;

  // About ten times a second per task, and once more for the last bytes. Totals count the whole
  // resource, including bytes received before a resume; the expected total is -1 when unknown.
  virtual void didWriteData(const std::shared_ptr<TransferSession>& session,
                            const std::shared_ptr<TransferTask>& task, int64_t bytesWritten,
                            int64_t totalBytesWritten, int64_t totalBytesExpectedToWrite);

  // The whole body is in the file at `location` (the task's response and byte counts are set).
  // The file is removed when this returns, unless the delegate moved it away. If the process
  // ends before this returns, the next session with the same identifier gets the call again.
  virtual void didFinishDownloadingToURL(const std::shared_ptr<TransferSession>& session,
                                         const std::shared_ptr<TransferTask>& task,
                                         const std::filesystem::path& location);

  // The task's last event: no error after a finished download, URL-loading -999 after a
  // cancel, otherwise the transfer's failure.
  virtual void didCompleteWithError(const std::shared_ptr<TransferSession>& session,
                                    const std::shared_ptr<TransferTask>& task, ErrorPtr error);

  // Every task the session had has delivered its last event.
  virtual void didFinishEventsForBackgroundURLSession(
      const std::shared_ptr<TransferSession>& session);
};

}  // namespace sonorell
