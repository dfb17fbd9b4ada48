#include "persistence/legacy_migration.h"

#include <filesystem>
#include <system_error>
#include <vector>

#include "core/logging.h"
#include "persistence/filesystem_helper.h"

namespace sonorell {

namespace fs = std::filesystem;

void LegacyMigration::migrateFromCoreData() {
  fs::path support = FilesystemHelper::supportDirectory();
  std::error_code error;
  if (support.empty() || !fs::exists(support / "DownloadInfo.sqlite", error)) {
    LogEngineInfo("[Migration] No legacy download information found; nothing to migrate");
    return;
  }
  LogEngineWarning(
      "[Migration] Legacy download information found at %@; this version cannot read it and "
      "leaves it in place",
      (support / "DownloadInfo.sqlite").string());
}

size_t FilesystemMigration::migrate() {
  fs::path audio = FilesystemHelper::audioParentDirectory();
  std::error_code error;
  std::vector<fs::path> files;  // listed first: the loop below changes the directory
  if (!audio.empty() && fs::is_directory(audio, error)) {
    for (const auto& entry : fs::directory_iterator(audio, error)) {
      if (entry.is_regular_file(error)) files.push_back(entry.path());
    }
  }
  size_t moved = 0;
  for (const auto& file : files) {
    auto chapter = FilesystemHelper::chapterDescription(file.filename().string());
    if (!chapter) continue;
    ErrorPtr createError;
    if (!FilesystemHelper::createAudiobookDirectory(chapter->audiobookID(), &createError)) continue;
    fs::path target = FilesystemHelper::filePath(*chapter);
    fs::rename(file, target, error);
    if (error) {
      LogEngineError("[FilesystemMigration] Could not move %@ to %@: %@", file.string(),
                     target.string(), error.message());
      continue;
    }
    ++moved;
  }
  if (moved == 0) {
    LogEngineInfo("[FilesystemMigration] No legacy chapter files found; nothing to migrate");
  } else {
    LogEngineInfo("[FilesystemMigration] Moved %lu chapter files into audiobook directories",
                  moved);
  }
  return moved;
}

}  // namespace sonorell
