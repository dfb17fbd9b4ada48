// QSOResourceLoaderDelegate: answers the loading requests of one player item whose URL is
// "qlso://<chapter file name>": from the chapter file when the chapter is downloaded (one
// QSOFileReadOperation per request), otherwise by a redirect to the chapter's streaming URL,
// refused on a cellular link when streaming is limited to Wi-Fi. Called on the engine's serial
// resource loader queue; the parse, the flags, the loader error and the list of read operations
// are guarded by mutex_.
#pragma once

#include <charconv>
#include <cstdint>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "platform/dispatch/operation_queue.h"
#include "platform/media/resource_loader.h"
#include "platform/net/reachability.h"
#include "sonorell/error.h"
#include "sonorell/value.h"

namespace sonorell {

class QSOFileReadOperation;
class QSOStreamingURLManager;

enum class QSOConnectionType : int {
  Unknown = 0,  // no reachability answer
  None = 1,
  Cellular = 2,
  WiFi = 3,
};

class QSOResourceLoaderDelegate : public ResourceLoaderDelegate,
                                  public std::enable_shared_from_this<QSOResourceLoaderDelegate> {
 public:
  static constexpr std::string_view kURLScheme = "qlso://";

  QSOResourceLoaderDelegate(std::string sessionKey, std::string licenseId, bool wifiOnly,
                            std::shared_ptr<QSOStreamingURLManager> streamingURLs,
                            std::shared_ptr<Reachability> reachability);

  bool shouldWaitForLoadingOfRequestedResource(
      ResourceLoader& loader, const std::shared_ptr<LoadingRequest>& request) override;
  void didCancelLoadingRequest(ResourceLoader& loader,
                               const std::shared_ptr<LoadingRequest>& request) override;

  bool wifiOnly() const;
  void setWifiOnly(bool wifiOnly);
  // True once any request of the item was sent to the network.
  bool isStreaming() const;
  // The error with which the last request was refused.
  ErrorPtr loaderError() const;
  QSOConnectionType currentConnectionType() const;
  // "QSOResourceLoaderDelegate <file name> (<part>, <chapter>)".
  std::string description() const;

  // The user info of a chapter failure: its description, and an error of the engine's domain
  // when a description is given.
  static Dictionary prepareDictionaryWithAudiobookID(const std::string& audiobookID, uint64_t part,
                                                     uint64_t chapter,
                                                     const std::optional<std::string>& description,
                                                     int64_t code, const ErrorPtr& error);

 private:
  // With mutex_ held: reads the URL once and checks the chapter against the disk.
  void parseURLIfNeeded(const std::string& url);
  void startFileRead(const std::shared_ptr<LoadingRequest>& request);
  void refuse(const std::shared_ptr<LoadingRequest>& request, ErrorPtr error);
  static void redirect(const std::shared_ptr<LoadingRequest>& request, const std::string& url,
                       int64_t offset, int64_t length);

  const std::string sessionKey_;
  const std::string licenseId_;
  const std::shared_ptr<QSOStreamingURLManager> streamingURLs_;
  const std::shared_ptr<Reachability> reachability_;
  const std::shared_ptr<OperationQueue> operationQueue_;

  mutable std::mutex mutex_;
  bool wifiOnly_;
  bool parsed_ = false;
  bool onDisk_ = false;
  std::string audiobookID_;
  int32_t partNumber_ = 0;
  int32_t chapterNumber_ = 0;
  std::string filePath_;
  std::string fileName_;
  uint64_t fileLength_ = 0;
  uint64_t chunkSize_ = 0;
  std::vector<std::weak_ptr<QSOFileReadOperation>> readOperations_;
  bool streaming_ = false;
  ErrorPtr loaderError_;
};

// What a player item's URL names: the chapter file name (the URL less "qlso://") and, when the
// name's stem (up to the first ".") has at least three "_" pieces, the chapter "ID_part_chapter".
// A number that does not begin with digits reading as int32 is 0. Inline: it needs nothing else
// of the delegate, so it can be exercised on its own.
struct QSOChapterURL {
  std::string fileName;
  bool namesChapter = false;
  std::string audiobookID;
  int32_t partNumber = 0;
  int32_t chapterNumber = 0;
};

inline QSOChapterURL parseChapterURL(std::string_view url) {
  auto number = [](std::string_view text) {
    int32_t value = 0;
    std::from_chars(text.data(), text.data() + text.size(), value);
    return value;
  };
  QSOChapterURL parsed;
  if (url.starts_with(QSOResourceLoaderDelegate::kURLScheme)) {
    url.remove_prefix(QSOResourceLoaderDelegate::kURLScheme.size());
  }
  parsed.fileName = std::string(url);
  std::string_view stem = url.substr(0, url.find('.'));
  std::vector<std::string_view> pieces;
  for (size_t start = 0;;) {
    size_t end = stem.find('_', start);
    pieces.push_back(stem.substr(start, end == std::string_view::npos ? end : end - start));
    if (end == std::string_view::npos) break;
    start = end + 1;
  }
  if (pieces.size() < 3) return parsed;
  parsed.namesChapter = true;
  parsed.audiobookID = std::string(pieces[0]);
  parsed.partNumber = number(pieces[1]);
  parsed.chapterNumber = number(pieces[2]);
  return parsed;
}

}  // namespace sonorell
