// The JSON documents of the content API as this server writes them: audiobook metadata, playlists
// and error documents. Pure functions of their arguments; safe from any thread.
#pragma once

#include <chrono>
#include <cstdint>
#include <nlohmann/json.hpp>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "catalogue.h"

namespace sonorell::content {

// {"audiobook": {...}} with every field of the metadata format.
nlohmann::json makeMetadataResponse(const Book& book);

// {"playlist_token", "expires", "playlist": [{"part_number", "chapter_number", "url"}]}.
nlohmann::json makePlaylistDocument(const Book& book, std::string_view baseURL,
                                    std::string_view token,
                                    std::chrono::system_clock::time_point expires);

// {"message", "code", "error_number", "errors": [{"field", "code"}]}.
nlohmann::json makeErrorDocument(std::string message, std::string code, std::uint64_t errorNumber,
                                 std::vector<std::pair<std::string, std::string>> fieldErrors);

// "yyyy-MM-dd'T'HH:mm:ssZ" in UTC, e.g. 2024-03-01T17:05:09+0000.
std::string formatPlaylistExpiry(std::chrono::system_clock::time_point when);

// Path of a chapter's audio on this server: /audio/{id}/{part}/{chapter}.mp3.
std::string audioPath(std::string_view bookID, std::uint64_t part, std::uint64_t chapter);

}  // namespace sonorell::content
