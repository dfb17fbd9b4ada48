// Speaks text into a catalogue chapter: espeak-ng writes a WAV file, which the MP3 renderer
// encodes like the tones. espeak-ng runs as a child process, handed the text in a file, never
// through a shell. Each call works on its own files; safe from any thread.
#pragma once

#include <filesystem>
#include <optional>
#include <string>
#include <string_view>

namespace sonorell::content {

// espeak-ng as found on PATH, or none when it is not installed.
std::optional<std::filesystem::path> findEspeak();

// A file name stem for the rendition of `text`, different for every text and every change of the
// voice or pace it is spoken with, so that a cached rendition is only reused when it would be the
// same again.
std::string speechStem(std::string_view text);

// Writes `text`, spoken, to `path` as the catalogue's MP3, atomically; temporary files go beside
// it. Throws std::runtime_error when espeak-ng or the encoder fails.
void renderSpeechMp3(const std::filesystem::path& espeak, std::string_view text,
                     const std::filesystem::path& path);

}  // namespace sonorell::content
