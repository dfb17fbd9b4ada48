#include "core/notification_poster.h"

#include <mutex>

#include "core/error_descriptions.h"
#include "core/error_transformer.h"
#include "core/logging.h"
#include "platform/dispatch/dispatch_queue.h"
#include "sonorell/errors.h"
#include "sonorell/notification_center.h"
#include "sonorell/notifications.h"

namespace sonorell {

namespace {

void addAudiobookID(Dictionary& dict, const std::optional<std::string>& audiobookID) {
  if (audiobookID) dict.insert_or_assign(std::string(QSOAudiobookIDUserInfoKey), *audiobookID);
}

void addChapter(Dictionary& dict, const std::optional<QSOChapterDescription>& chapter) {
  if (chapter) dict.insert_or_assign(std::string(QSOChapterDescriptionUserInfoKey), *chapter);
}

void addRequestID(Dictionary& dict, const QSODownloadRequest* request) {
  if (request) {
    dict.insert_or_assign(std::string(QSODownloadRequestIDUserInfoKey),
                          request->requestIdentifier());
  }
}

void addError(Dictionary& dict, const std::optional<std::string>& description, int64_t code,
              const ErrorPtr& underlying) {
  if (!description) return;  // a code alone adds nothing
  dict.insert_or_assign(std::string(QSOSonorellErrorUserInfoKey),
                        Error::make(std::string(QSOErrorDomain), code, *description, underlying));
}

// Replaces code and underlying error by those of an underlying error of our own domain.
void unwrapOwnError(int64_t& code, ErrorPtr& underlying) {
  if (underlying && underlying->domain == QSOErrorDomain) {
    code = underlying->code;
    underlying = QSONotificationPoster::getUnderlyingError(underlying);
  }
}

}  // namespace

QSONotificationPoster::QSONotificationPoster()
    : queue_(DispatchQueue::create("io.sonorell.notifications")) {}

std::shared_ptr<QSONotificationPoster> QSONotificationPoster::sharedPoster() {
  static std::once_flag once;
  // Never destroyed: queued work may still reach it while the process exits.
  static std::shared_ptr<QSONotificationPoster>& poster =
      *new std::shared_ptr<QSONotificationPoster>();
  std::call_once(once, [] { poster = std::make_shared<QSONotificationPoster>(); });
  return poster;
}

void QSONotificationPoster::waitForPosted() {
  if (auto queue = queue_.load()) queue->sync([] {});
}

void QSONotificationPoster::postNotificationWithName(std::string_view name,
                                                     std::optional<Dictionary> userInfo) {
  std::weak_ptr<QSONotificationPoster> weakSelf = weak_from_this();
  runOnQueue(queue_.load(),
             [weakSelf, name = std::string(name), userInfo = std::move(userInfo)]() mutable {
               std::shared_ptr<const void> sender = weakSelf.lock();
               std::string shown = userInfo ? describe(*userInfo) : std::string("(null)");
               NotificationCenter::defaultCenter().post(
                   name, std::move(sender), userInfo ? std::move(*userInfo) : Dictionary{});
               LogEngineVerbose("[Sonorell] %@ Notification Posted: [%@]", name, shown);
             });
}

void QSONotificationPoster::runOnQueue(const std::shared_ptr<DispatchQueue>& queue,
                                       std::function<void()> block) {
  if (queue) {
    queue->async(std::move(block));
  } else {
    block();
  }
}

void QSONotificationPoster::disableDispatch() { queue_.store(nullptr); }

Dictionary QSONotificationPoster::prepareDictionaryWithAudiobookIdentifier(
    const std::optional<std::string>& audiobookID,
    const std::optional<std::string>& errorDescription, int64_t errorCode,
    const ErrorPtr& underlyingError) {
  Dictionary dict;
  addAudiobookID(dict, audiobookID);
  addError(dict, errorDescription, errorCode, underlyingError);
  return dict;
}

Dictionary QSONotificationPoster::prepareDictionaryWithChapterDescription(
    const std::optional<QSOChapterDescription>& chapter,
    const std::optional<std::string>& errorDescription, int64_t errorCode,
    const ErrorPtr& underlyingError) {
  Dictionary dict;
  addChapter(dict, chapter);
  addError(dict, errorDescription, errorCode, underlyingError);
  return dict;
}

Dictionary QSONotificationPoster::prepareDictionaryWithChapterDescription(
    const std::optional<QSOChapterDescription>& chapter, const QSODownloadRequest* request,
    const std::optional<std::string>& errorDescription, int64_t errorCode,
    const ErrorPtr& underlyingError) {
  Dictionary dict;
  addChapter(dict, chapter);
  addRequestID(dict, request);
  addError(dict, errorDescription, errorCode, underlyingError);
  return dict;
}

Dictionary QSONotificationPoster::prepareDictionaryWithDownloadRequest(
    const QSODownloadRequest* request, const std::optional<std::string>& errorDescription,
    int64_t errorCode, const ErrorPtr& underlyingError) {
  Dictionary dict;
  addRequestID(dict, request);
  if (request) addAudiobookID(dict, request->audiobookID());
  addError(dict, errorDescription, errorCode, underlyingError);
  return dict;
}

Dictionary QSONotificationPoster::transformDownloadDictErrorWithChapterDescription(
    const std::optional<QSOChapterDescription>& chapter, const QSODownloadRequest* request,
    const std::optional<std::string>& /*errorDescription*/, int64_t errorCode,
    const ErrorPtr& underlyingError) {
  int64_t code = errorCode;
  ErrorPtr underlying = underlyingError;
  unwrapOwnError(code, underlying);
  code = QSOErrorTransformer::sharedTransformer()->transformErrorToDownloadFailure(code);
  std::string description(downloadDescriptionForErrorCode(code));
  if (!chapter) return prepareDictionaryWithDownloadRequest(request, description, code, underlying);
  return prepareDictionaryWithChapterDescription(chapter, request, description, code, underlying);
}

Dictionary QSONotificationPoster::transformPlaybackDictErrorWithChapterDescription(
    const std::optional<QSOChapterDescription>& chapter,
    const std::optional<std::string>& /*errorDescription*/, int64_t errorCode,
    const ErrorPtr& underlyingError) {
  int64_t code = errorCode;
  ErrorPtr underlying = underlyingError;
  unwrapOwnError(code, underlying);
  code = QSOErrorTransformer::sharedTransformer()->transformErrorToPlaybackFailure(code);
  std::string description(playbackDescriptionForErrorCode(code));
  return prepareDictionaryWithChapterDescription(chapter, description, code, underlying);
}

ErrorPtr QSONotificationPoster::getUnderlyingError(const ErrorPtr& error) {
  return error ? error->underlyingError() : nullptr;
}

}  // namespace sonorell
