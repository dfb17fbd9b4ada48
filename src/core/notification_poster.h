// The one object through which the engine posts its notifications: it hops onto its serial
// "io.sonorell.notifications" queue (so observers see posting order, off the main thread), logs
// each post and builds the user-info dictionaries of failures. The queue reference is atomic;
// everything else is stateless.
#pragma once

#include <atomic>
#include <cstdint>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <string_view>

#include "sonorell/chapter_description.h"
#include "sonorell/download_request.h"
#include "sonorell/error.h"
#include "sonorell/value.h"

namespace sonorell {

class DispatchQueue;

class QSONotificationPoster : public std::enable_shared_from_this<QSONotificationPoster> {
 public:
  static std::shared_ptr<QSONotificationPoster> sharedPoster();

  // Posts on the poster's queue, or at once on the caller's thread after disableDispatch().
  void postNotificationWithName(std::string_view name,
                                std::optional<Dictionary> userInfo = std::nullopt);
  // Runs the block asynchronously on the queue, or at once when there is no queue.
  static void runOnQueue(const std::shared_ptr<DispatchQueue>& queue, std::function<void()> block);
  // Returns once the notifications posted before the call have been delivered.
  void waitForPosted();
  // From now on every notification is posted synchronously on the caller's thread.
  void disableDispatch();

  // Failure dictionaries. The error (domain QSOErrorDomain) is added only when a description is
  // given; identifiers only when present.
  static Dictionary prepareDictionaryWithAudiobookIdentifier(
      const std::optional<std::string>& audiobookID,
      const std::optional<std::string>& errorDescription, int64_t errorCode,
      const ErrorPtr& underlyingError);
  static Dictionary prepareDictionaryWithChapterDescription(
      const std::optional<QSOChapterDescription>& chapter,
      const std::optional<std::string>& errorDescription, int64_t errorCode,
      const ErrorPtr& underlyingError);
  static Dictionary prepareDictionaryWithChapterDescription(
      const std::optional<QSOChapterDescription>& chapter, const QSODownloadRequest* request,
      const std::optional<std::string>& errorDescription, int64_t errorCode,
      const ErrorPtr& underlyingError);
  static Dictionary prepareDictionaryWithDownloadRequest(
      const QSODownloadRequest* request, const std::optional<std::string>& errorDescription,
      int64_t errorCode, const ErrorPtr& underlyingError);

  // For failures that arrive as lower-level errors: the code is taken from an underlying error
  // of our own domain, mapped into the download (or playback) layer, and described from that
  // layer's table; the description passed in is ignored so that text and code always agree.
  static Dictionary transformDownloadDictErrorWithChapterDescription(
      const std::optional<QSOChapterDescription>& chapter, const QSODownloadRequest* request,
      const std::optional<std::string>& errorDescription, int64_t errorCode,
      const ErrorPtr& underlyingError);
  static Dictionary transformPlaybackDictErrorWithChapterDescription(
      const std::optional<QSOChapterDescription>& chapter,
      const std::optional<std::string>& errorDescription, int64_t errorCode,
      const ErrorPtr& underlyingError);

  // The error under the underlying-error key of the error's user info, or null.
  static ErrorPtr getUnderlyingError(const ErrorPtr& error);

  QSONotificationPoster();

 private:
  std::atomic<std::shared_ptr<DispatchQueue>> queue_;
};

}  // namespace sonorell
