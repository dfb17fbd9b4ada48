#include "persistence/filesystem_helper.h"

#include <charconv>
#include <cstdio>
#include <system_error>
#include <vector>

#include "platform/foundation/library_directory.h"
#include "sonorell/notification_center.h"
#include "sonorell/notifications.h"

namespace sonorell {

namespace fs = std::filesystem;

namespace {

// An empty parent stays empty: appending to it would give a path relative to the working
// directory.
fs::path under(const fs::path& parent, const fs::path& child) {
  if (parent.empty()) return {};
  return parent / child;
}

bool isSafePathComponent(const std::string& name) {
  return !name.empty() && name != "." && name != ".." &&
         name.find_first_of(std::string_view("/\0", 2)) == std::string::npos;
}

// Creates `dir` with our rules. On failure prints `consoleText` and the error to standard
// error and returns the error.
ErrorPtr createExcludedDirectory(const fs::path& dir, const char* consoleText) {
  std::error_code code;
  if (!LibraryDirectory::createDirectories(dir, code)) {
    ErrorPtr error = Error::posix(code.value(), dir.string());
    std::fprintf(stderr, "%s%s\n", consoleText, error->description().c_str());
    return error;
  }
  LibraryDirectory::excludeFromBackup(dir);
  return nullptr;
}

std::optional<uint64_t> parseUnsigned(std::string_view piece) {
  uint64_t value = 0;
  auto [end, ec] = std::from_chars(piece.data(), piece.data() + piece.size(), value);
  if (ec != std::errc() || end != piece.data() + piece.size()) return std::nullopt;
  return value;
}

}  // namespace

fs::path FilesystemHelper::supportDirectory() {
  // No Library directory is deliberately not an error here: callers get an empty path.
  auto library = LibraryDirectory::path();
  if (!library) return {};
  return *library / "SonorellSupport";
}

fs::path FilesystemHelper::audioParentDirectory() { return under(supportDirectory(), "Audio"); }

fs::path FilesystemHelper::audiobookDirectory(const std::string& audiobookID) {
  if (!isSafePathComponent(audiobookID)) return {};
  return under(audioParentDirectory(), audiobookID);
}

fs::path FilesystemHelper::metadataDatabasePath() {
  return under(supportDirectory(), "SDKMetadata.sqlite");
}

fs::path FilesystemHelper::persistenceEngineDatabasePath() {
  return under(supportDirectory(), "PersistenceEngine.sqlite");
}

fs::path FilesystemHelper::listenEventsArchivePath() {
  return under(supportDirectory(), fs::path("ListenEvents") / "listening_events.archive");
}

fs::path FilesystemHelper::createSupportDirectory() {
  fs::path dir = supportDirectory();
  createExcludedDirectory(dir, "Exception creating support directory: ");
  return dir;
}

fs::path FilesystemHelper::createAudioDirectory() {
  fs::path dir = audioParentDirectory();
  // The same console text as the support directory, as it has always been.
  if (!createExcludedDirectory(dir, "Exception creating support directory: ")) {
    LibraryDirectory::writeCacheDirTag(dir);
  }
  return dir;
}

std::optional<fs::path> FilesystemHelper::createAudiobookDirectory(const std::string& audiobookID,
                                                                   ErrorPtr* error) {
  fs::path dir = audiobookDirectory(audiobookID);
  ErrorPtr failure;
  if (dir.empty()) {
    failure = Error::posix(EINVAL, "audiobook directory for \"" + audiobookID + "\"");
    std::fprintf(stderr, "Exception creating audiobook directory: %s\n",
                 failure->description().c_str());
  } else {
    failure = createExcludedDirectory(dir, "Exception creating audiobook directory: ");
  }
  if (failure) {
    if (error) *error = failure;
    return std::nullopt;
  }
  // The audio directory may have just been made as a parent; mark it as cache data too.
  LibraryDirectory::writeCacheDirTag(audioParentDirectory());
  return dir;
}

std::string FilesystemHelper::filename(const QSOChapterDescription& description) {
  return description.toString() + std::string(kChapterFileSuffix);
}

std::optional<QSOChapterDescription> FilesystemHelper::chapterDescription(
    std::string_view filename) {
  std::vector<std::string_view> pieces;
  size_t start = 0;
  while (start <= filename.size()) {
    size_t cut = filename.find('_', start);
    if (cut == std::string_view::npos) cut = filename.size();
    if (cut > start) pieces.push_back(filename.substr(start, cut - start));
    start = cut + 1;
  }
  if (pieces.size() < 2) return std::nullopt;
  auto part = parseUnsigned(pieces[1]);
  if (!part) return std::nullopt;
  if (pieces.size() < 3) return std::nullopt;
  auto chapter = parseUnsigned(pieces[2]);
  if (!chapter) return std::nullopt;
  return QSOChapterDescription(std::string(pieces[0]), *part, *chapter);
}

fs::path FilesystemHelper::filePath(const QSOChapterDescription& description) {
  return under(audiobookDirectory(description.audiobookID()), filename(description));
}

bool FilesystemHelper::fileExists(const QSOChapterDescription& description) {
  fs::path path = filePath(description);
  std::error_code error;
  return !path.empty() && fs::exists(path, error);
}

uint64_t FilesystemHelper::sizeOnDisk(const QSOChapterDescription& description) {
  fs::path path = filePath(description);
  if (path.empty()) return 0;
  std::error_code error;
  uintmax_t size = fs::file_size(path, error);
  return error ? 0 : static_cast<uint64_t>(size);
}

void FilesystemHelper::deleteFile(const QSOChapterDescription& description, bool notify) {
  fs::path path = filePath(description);
  std::error_code ignored;  // the outcome does not change what callers are told
  if (!path.empty()) fs::remove(path, ignored);
  if (!notify) return;
  NotificationCenter::defaultCenter().post(
      std::string(QSOChapterDeleteSuccessNotification), nullptr,
      Dictionary{{std::string(QSOChapterDescriptionUserInfoKey), Value(description)}});
}

void FilesystemHelper::deleteAllFiles(const std::string& audiobookID) {
  fs::path dir = audiobookDirectory(audiobookID);
  std::error_code ignored;
  if (!dir.empty()) fs::remove_all(dir, ignored);
  NotificationCenter::defaultCenter().post(
      std::string(QSOAudiobookDeleteSuccessNotification), nullptr,
      Dictionary{{std::string(QSOAudiobookIDUserInfoKey), Value(audiobookID)}});
}

}  // namespace sonorell
