// Where a user may fetch each chapter's audio, and until when: the content API's playlist and
// its items, decoded from the playlist document. Immutable values, shared freely.
#pragma once

#include <cstdint>
#include <nlohmann/json.hpp>
#include <optional>
#include <string>
#include <vector>

#include "sonorell/chapter_description.h"
#include "sonorell/value.h"

namespace sonorell {

class QSOPlaylistItem {
 public:
  QSOPlaylistItem(std::string audiobookId, uint64_t part, uint64_t chapter, std::string url)
      : audiobookId_(std::move(audiobookId)),
        part_(part),
        chapter_(chapter),
        url_(std::move(url)) {}

  // Needs integer "part_number" and "chapter_number" and a "url" string that forms a URL.
  static std::optional<QSOPlaylistItem> decodePlaylistItem(const nlohmann::json& dictionary,
                                                           const std::string& audiobookId);

  const std::string& audiobookId() const { return audiobookId_; }
  uint64_t part() const { return part_; }
  uint64_t chapter() const { return chapter_; }
  const std::string& url() const { return url_; }
  QSOChapterDescription chapterDescription() const { return {audiobookId_, part_, chapter_}; }

 private:
  std::string audiobookId_;
  uint64_t part_;
  uint64_t chapter_;
  std::string url_;
};

class QSOPlaylist {
 public:
  QSOPlaylist(std::string audiobookId, std::string playlistToken, Date expires,
              std::vector<QSOPlaylistItem> playlist)
      : audiobookId_(std::move(audiobookId)),
        playlistToken_(std::move(playlistToken)),
        expires_(expires),
        playlist_(std::move(playlist)) {}

  // Needs "playlist_token", "expires" (yyyy-MM-dd'T'HH:mm:ssZ) and a "playlist" array; elements
  // that do not decode are dropped, the playlist stays.
  static std::optional<QSOPlaylist> decodePlaylist(const nlohmann::json& dictionary,
                                                   const std::string& audiobookId);
  // Reads "yyyy-MM-dd'T'HH:mm:ssZ" with a zone of "Z", "+HHMM" or "+HH:MM".
  static std::optional<Date> parseExpires(const std::string& text);

  const std::string& audiobookId() const { return audiobookId_; }
  const std::string& playlistToken() const { return playlistToken_; }
  Date expires() const { return expires_; }
  const std::vector<QSOPlaylistItem>& playlist() const { return playlist_; }

  // The first item with the description's part and chapter (the audiobook is not compared).
  const QSOPlaylistItem* playlistItem(const QSOChapterDescription& chapter) const;
  std::string description() const;

 private:
  std::string audiobookId_;
  std::string playlistToken_;
  Date expires_;
  std::vector<QSOPlaylistItem> playlist_;
};

}  // namespace sonorell
