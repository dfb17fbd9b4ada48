#include "model/playlist.h"

#include <cstdio>
#include <ctime>

#include "model/json_reading.h"
#include "platform/foundation/format.h"

namespace sonorell {

namespace {
// A URL needs a scheme followed by ":" and something after it, and no blanks.
bool formsURL(const std::string& text) {
  auto colon = text.find(':');
  if (colon == std::string::npos || colon == 0 || colon + 1 >= text.size()) return false;
  if (!std::isalpha(static_cast<unsigned char>(text[0]))) return false;
  for (size_t i = 0; i < colon; ++i) {
    char c = text[i];
    if (!std::isalnum(static_cast<unsigned char>(c)) && c != '+' && c != '-' && c != '.') {
      return false;
    }
  }
  return text.find_first_of(" \t\r\n\"<>") == std::string::npos;
}
}  // namespace

std::optional<QSOPlaylistItem> QSOPlaylistItem::decodePlaylistItem(const nlohmann::json& dictionary,
                                                                   const std::string& audiobookId) {
  const auto* part = json_reading::member(dictionary, "part_number");
  const auto* chapter = json_reading::member(dictionary, "chapter_number");
  const auto* url = json_reading::member(dictionary, "url");
  if (!part || !part->is_number_integer() || !chapter || !chapter->is_number_integer() || !url ||
      !url->is_string() || !formsURL(url->get<std::string>())) {
    return std::nullopt;
  }
  return QSOPlaylistItem(audiobookId, part->get<uint64_t>(), chapter->get<uint64_t>(),
                         url->get<std::string>());
}

std::optional<Date> QSOPlaylist::parseExpires(const std::string& text) {
  int y, mo, d, h, mi, s;
  int consumed = 0;
  if (std::sscanf(text.c_str(), "%4d-%2d-%2dT%2d:%2d:%2d%n", &y, &mo, &d, &h, &mi, &s, &consumed) !=
      6) {
    return std::nullopt;
  }
  std::string zone = text.substr(static_cast<size_t>(consumed));
  long offset = 0;
  if (zone == "Z") {
    offset = 0;
  } else if (zone.size() >= 5 && (zone[0] == '+' || zone[0] == '-')) {
    std::string digits;
    for (char c : zone.substr(1)) {
      if (c != ':') digits.push_back(c);
    }
    if (digits.size() != 4 || digits.find_first_not_of("0123456789") != std::string::npos) {
      return std::nullopt;
    }
    offset = (std::stol(digits.substr(0, 2)) * 60 + std::stol(digits.substr(2))) * 60;
    if (zone[0] == '-') offset = -offset;
  } else {
    return std::nullopt;
  }
  std::tm tm{};
  tm.tm_year = y - 1900;
  tm.tm_mon = mo - 1;
  tm.tm_mday = d;
  tm.tm_hour = h;
  tm.tm_min = mi;
  tm.tm_sec = s;
  time_t utc = ::timegm(&tm) - offset;
  // A Date counts nanoseconds in 64 bits (about the years 1678 to 2261); a time outside that
  // cannot be one, so it does not parse either.
  constexpr time_t kLimit =
      std::chrono::duration_cast<std::chrono::seconds>(Date::duration::max()).count();
  if (utc >= kLimit || utc <= -kLimit) return std::nullopt;
  return std::chrono::system_clock::from_time_t(utc);
}

std::optional<QSOPlaylist> QSOPlaylist::decodePlaylist(const nlohmann::json& dictionary,
                                                       const std::string& audiobookId) {
  const auto* token = json_reading::member(dictionary, "playlist_token");
  const auto* expires = json_reading::member(dictionary, "expires");
  const auto* items = json_reading::member(dictionary, "playlist");
  if (!token || !token->is_string() || !expires || !expires->is_string() || !items ||
      !items->is_array()) {
    return std::nullopt;
  }
  // An expiry that does not parse makes no playlist: callers rely on it to drop stale URLs.
  auto expiry = parseExpires(expires->get<std::string>());
  if (!expiry) return std::nullopt;
  std::vector<QSOPlaylistItem> playlist;
  for (const auto& element : *items) {
    if (auto item = QSOPlaylistItem::decodePlaylistItem(element, audiobookId)) {
      playlist.push_back(std::move(*item));
    }
  }
  return QSOPlaylist(audiobookId, token->get<std::string>(), *expiry, std::move(playlist));
}

const QSOPlaylistItem* QSOPlaylist::playlistItem(const QSOChapterDescription& chapter) const {
  for (const auto& item : playlist_) {
    if (item.part() == chapter.partNumber() && item.chapter() == chapter.chapterNumber()) {
      return &item;
    }
  }
  return nullptr;
}

std::string QSOPlaylist::description() const {
  return stringWithFormat("(QSOPlaylist) audiobookId: %@ playlistToken: %@ expires: %@ items: %lu",
                          audiobookId_, playlistToken_, Value(expires_), playlist_.size());
}

}  // namespace sonorell
