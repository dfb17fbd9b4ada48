// The reason texts that listen-event validation reports. Constant data; safe from any thread.
// The session-key text is published exactly as hosts have always matched it, "Ket" included.
#pragma once

#include <string_view>

namespace sonorell {

inline constexpr std::string_view QLInvalidChapterNumberReason = "Chapter Number was negative";
inline constexpr std::string_view QLInvalidPartNumberReason = "Part Number was negative";
inline constexpr std::string_view QLInvalidSessionKeyReason =
    "Session Ket was nil, empty, or not of type 'NSString'";
inline constexpr std::string_view QLInvalidPlaylistTokenReason =
    "Playlist Token was nil, empty, or not of type 'NSString'";

}  // namespace sonorell
