// Where everything the engine keeps on disk lives (support directory, audio tree, chapter file
// names, database files) and the few file operations that depend on that layout.
// Stateless: safe from any thread; deletion notifications are posted on the calling thread.
#pragma once

#include <cstdint>
#include <filesystem>
#include <optional>
#include <string>
#include <string_view>

#include "sonorell/chapter_description.h"
#include "sonorell/error.h"

namespace sonorell {

class FilesystemHelper {
 public:
  // Ends every chapter file name. Part of the on-disk format: files written by one version are
  // found by the next only if this never changes.
  static constexpr std::string_view kChapterFileSuffix = "_audio.mp3";

  // Library/"SonorellSupport"; an empty path when there is no Library directory. Every path
  // below is then empty too, so that nothing is ever read or written relative to the working
  // directory.
  static std::filesystem::path supportDirectory();
  static std::filesystem::path audioParentDirectory();
  // Empty as well for an identifier that could leave the audio directory ("", ".", "..", or one
  // containing "/").
  static std::filesystem::path audiobookDirectory(const std::string& audiobookID);
  static std::filesystem::path metadataDatabasePath();
  static std::filesystem::path persistenceEngineDatabasePath();
  static std::filesystem::path listenEventsArchivePath();

  // Create the directory (mode 0700, with parents) and exclude it from backup. Failures are
  // printed to standard error; the path is returned in any case.
  static std::filesystem::path createSupportDirectory();
  // Also marks the audio tree as cache data (CACHEDIR.TAG).
  static std::filesystem::path createAudioDirectory();
  // On failure: nothing, with a POSIX-domain error in `error` (if given).
  static std::optional<std::filesystem::path> createAudiobookDirectory(
      const std::string& audiobookID, ErrorPtr* error);

  // "ID_part_chapter" followed by kChapterFileSuffix.
  static std::string filename(const QSOChapterDescription& description);
  // The inverse; any name of the shape ID_part_chapter_anything parses. Empty pieces are
  // skipped, so an ID containing "_" is not read back whole.
  static std::optional<QSOChapterDescription> chapterDescription(std::string_view filename);
  static std::filesystem::path filePath(const QSOChapterDescription& description);
  static bool fileExists(const QSOChapterDescription& description);
  // The chapter file's size; 0 when it cannot be read.
  static uint64_t sizeOnDisk(const QSOChapterDescription& description);

  // Removes the chapter file and, if `notify`, posts QSOChapterDeleteSuccessNotification even
  // when the removal failed: the notification means the chapter is not on disk.
  static void deleteFile(const QSOChapterDescription& description, bool notify);
  // Removes the audiobook's directory tree; always posts QSOAudiobookDeleteSuccessNotification.
  static void deleteAllFiles(const std::string& audiobookID);
};

}  // namespace sonorell
