// Chapter file names as the engine meets them: names found on disk (start-up verification, the
// legacy migration), names asked for by the player, and "qlso://" player item URLs. Besides not
// crashing, a name the engine makes must read back as the chapter it was made for.
#include <cstddef>
#include <cstdint>
#include <string>
#include <string_view>

#include "fuzz_support.h"
#include "persistence/filesystem_helper.h"
#include "playback/resource_loader_delegate.h"

namespace {

using namespace sonorell;

void check(bool condition) {
  if (!condition) __builtin_trap();
}

// The engine writes chapter files under names made by FilesystemHelper::filename and plays them
// as "qlso://" + that name: both readers must give the chapter back.
void checkRoundTrip(const QSOChapterDescription& chapter) {
  const std::string name = FilesystemHelper::filename(chapter);
  auto read = FilesystemHelper::chapterDescription(name);
  check(read.has_value() && *read == chapter);

  const auto url = parseChapterURL(std::string(QSOResourceLoaderDelegate::kURLScheme) + name);
  check(url.fileName == name);
  // The URL reader stops the stem at the first "." and reads numbers as int32.
  if (chapter.audiobookID().find('.') == std::string::npos && chapter.partNumber() <= INT32_MAX &&
      chapter.chapterNumber() <= INT32_MAX) {
    check(url.namesChapter && url.audiobookID == chapter.audiobookID() &&
          static_cast<uint64_t>(url.partNumber) == chapter.partNumber() &&
          static_cast<uint64_t>(url.chapterNumber) == chapter.chapterNumber());
  }
}

}  // namespace

extern "C" int LLVMFuzzerInitialize(int*, char***) {
  sonorell::fuzz::setUpProcess();
  return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  const std::string_view text(reinterpret_cast<const char*>(data), size);

  if (auto chapter = FilesystemHelper::chapterDescription(text)) {
    // Empty pieces are skipped, so the ID read is never empty and never holds "_".
    check(!chapter->audiobookID().empty() && chapter->audiobookID().find('_') == std::string::npos);
    checkRoundTrip(*chapter);
  }

  const auto url = parseChapterURL(text);
  check(url.fileName.size() <= text.size());
  if (url.namesChapter) {
    check(url.audiobookID.find('_') == std::string::npos);
    (void)QSOChapterDescription(url.audiobookID, static_cast<uint64_t>(url.partNumber),
                                static_cast<uint64_t>(url.chapterNumber))
        .description();
  }

  // Any text, with "_" taken out, is a possible audiobook ID: the engine's own names for it must
  // read back.
  std::string id(text.substr(0, 64));
  std::erase(id, '_');
  if (!id.empty() && size >= 16) {
    uint64_t part = 0, number = 0;
    __builtin_memcpy(&part, data + size - 16, 8);
    __builtin_memcpy(&number, data + size - 8, 8);
    checkRoundTrip(QSOChapterDescription(id, part, number));
    checkRoundTrip(QSOChapterDescription(id, part % 100, number % 1000));
  }
  return 0;
}
