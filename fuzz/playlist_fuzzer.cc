// A playlist response body as the content API might send it: decoded into a playlist (the
// streaming URLs and their expiry) or, for an error status, read as the API's error document.
// Every item a playlist keeps must be found again by its chapter.
#include <cstddef>
#include <cstdint>
#include <nlohmann/json.hpp>
#include <string>

#include "fuzz_support.h"
#include "model/api_error_response.h"
#include "model/playlist.h"

namespace {

using namespace sonorell;

void check(bool condition) {
  if (!condition) __builtin_trap();
}

}  // namespace

extern "C" int LLVMFuzzerInitialize(int*, char***) {
  sonorell::fuzz::setUpProcess();
  return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  const std::string body(reinterpret_cast<const char*>(data), size);
  // The expiry reader on its own, as a header or a log line might hand it any text.
  (void)QSOPlaylist::parseExpires(body.substr(0, 64));

  const nlohmann::json json = nlohmann::json::parse(body, nullptr, /*allow_exceptions=*/false);
  if (json.is_discarded()) return 0;
  if (json.is_object()) {
    if (auto playlist = QSOPlaylist::decodePlaylist(json, "fuzz-book")) {
      for (const QSOPlaylistItem& item : playlist->playlist()) {
        const QSOPlaylistItem* found = playlist->playlistItem(item.chapterDescription());
        check(found != nullptr && found->part() == item.part() &&
              found->chapter() == item.chapter());
        check(!item.url().empty());
      }
      (void)playlist->description();
    }
  }
  if (auto error = QSOAPIErrorResponse::errorResponseFromDictionary(json)) {
    (void)error->toNSError()->description();
  }
  return 0;
}
