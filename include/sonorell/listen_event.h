/// The reason texts that listen-event validation reports. Constant data; safe from any thread.
/// The session-key text is published exactly as hosts have always matched it, "Ket" included.
/// @file
#pragma once

#include <string_view>

namespace sonorell {

/// @name Why a listen event was refused
/// A refused update is logged and announced by QSOListenEventFailureNotification; playback goes
/// on.
///@{
/// The chapter number was negative.
inline constexpr std::string_view QLInvalidChapterNumberReason = "Chapter Number was negative";
/// The part number was negative.
inline constexpr std::string_view QLInvalidPartNumberReason = "Part Number was negative";
/// The session key was empty.
inline constexpr std::string_view QLInvalidSessionKeyReason =
    "Session Ket was nil, empty, or not of type 'NSString'";
/// The playlist token was empty.
inline constexpr std::string_view QLInvalidPlaylistTokenReason =
    "Playlist Token was nil, empty, or not of type 'NSString'";
///@}

}  // namespace sonorell
