// Decodes an MP3 file to its end with GStreamer's mpg123 decoder, as a player would, to learn how
// long the audio it holds lasts. For the server's tests; each call runs its own pipeline.
#pragma once

#include <cstdint>
#include <filesystem>

namespace sonorell::content::testing {

// The duration of the decoded audio in ms, or -1 when the file does not decode to its end (the
// reason is reported as a test failure).
std::int64_t decodedMs(const std::filesystem::path& file);

}  // namespace sonorell::content::testing
