// Posts a fetch's low-level error the way the engines report failures (through the poster's
// download or playback transform) and returns the error the observing host receives.
#pragma once

#include <optional>
#include <string>

#include "core/notification_poster.h"
#include "sonorell/notifications.h"
#include "support/notification_recorder.h"

namespace sonorell::testing {

enum class FailureLayer { Download, Playback };

inline ErrorPtr errorAsNotified(const ErrorPtr& lowError, FailureLayer layer) {
  const std::string name(layer == FailureLayer::Download ? QSODownloadRequestFailedNotification
                                                         : QSOPlaybackChapterFailedNotification);
  NotificationRecorder recorder(name);
  const QSOChapterDescription chapter("book", 0, 1);
  Dictionary info = layer == FailureLayer::Download
                        ? QSONotificationPoster::transformDownloadDictErrorWithChapterDescription(
                              chapter, nullptr, std::nullopt, 0, lowError)
                        : QSONotificationPoster::transformPlaybackDictErrorWithChapterDescription(
                              chapter, std::nullopt, 0, lowError);
  QSONotificationPoster::sharedPoster()->postNotificationWithName(name, std::move(info));
  if (!recorder.waitFor(1)) return nullptr;
  const Dictionary userInfo = recorder.received().at(0).userInfo;
  auto it = userInfo.find(QSOSonorellErrorUserInfoKey);
  return it == userInfo.end() ? nullptr : it->second.asError();
}

}  // namespace sonorell::testing
