#include "documents.h"

#include <ctime>

namespace sonorell::content {
namespace {

// "H:MM:SS", the way the service states a running time.
std::string runtimeText(std::uint64_t ms) {
  const std::uint64_t s = ms / 1000;
  char text[32];
  std::snprintf(text, sizeof text, "%llu:%02llu:%02llu", static_cast<unsigned long long>(s / 3600),
                static_cast<unsigned long long>(s / 60 % 60),
                static_cast<unsigned long long>(s % 60));
  return text;
}

}  // namespace

nlohmann::json makeMetadataResponse(const Book& book) {
  nlohmann::json chapters = nlohmann::json::array();
  for (const Chapter& c : book.chapters) {
    chapters.push_back(
        {{"part_number", c.part}, {"chapter_number", c.chapter}, {"duration", c.durationMs}});
  }
  // The signature changes whenever anything a client caches would change.
  const std::string signature = "sig-" + book.id + "-" + std::to_string(book.actualSize()) + "-" +
                                std::to_string(book.totalDurationMs());
  nlohmann::json doc = {
      {"id", book.id},
      {"abridgement", book.abridgement},
      {"actual_size", book.actualSize()},
      {"description", book.description},
      {"authors", book.authors},
      {"awards", book.awards},
      {"bisac_codes", book.bisacCodes},
      {"chapterized", true},
      {"copyright", book.copyright},
      {"cover_url", "https://covers.sonorell.invalid/" + book.id + ".jpg"},
      {"grade_level", book.gradeLevel},
      {"isbn_library", book.isbnLibrary},
      {"isbn_retail", book.isbnRetail},
      {"language", book.language},
      {"metadata_sig", signature},
      {"modified_date", book.modifiedDate},
      {"narrators", book.narrators},
      {"publisher", book.publisher},
      {"runtime", runtimeText(book.totalDurationMs())},
      {"sample_url", "https://samples.sonorell.invalid/" + book.id + ".mp3"},
      {"series", book.series},
      {"street_date", book.streetDate},
      {"sub_title", book.subTitle},
      {"title", book.title},
      {"chapters", std::move(chapters)},
  };
  return {{"audiobook", std::move(doc)}};
}

nlohmann::json makePlaylistDocument(const Book& book, std::string_view baseURL,
                                    std::string_view token,
                                    std::chrono::system_clock::time_point expires) {
  nlohmann::json items = nlohmann::json::array();
  for (const Chapter& c : book.chapters) {
    items.push_back({{"part_number", c.part},
                     {"chapter_number", c.chapter},
                     {"url", std::string(baseURL) + c.audioPath}});
  }
  return {{"playlist_token", std::string(token)},
          {"expires", formatPlaylistExpiry(expires)},
          {"playlist", std::move(items)}};
}

nlohmann::json makeErrorDocument(std::string message, std::string code, std::uint64_t errorNumber,
                                 std::vector<std::pair<std::string, std::string>> fieldErrors) {
  nlohmann::json errors = nlohmann::json::array();
  for (auto& [field, fieldCode] : fieldErrors) {
    errors.push_back({{"field", std::move(field)}, {"code", std::move(fieldCode)}});
  }
  return {{"message", std::move(message)},
          {"code", std::move(code)},
          {"error_number", errorNumber},
          {"errors", std::move(errors)}};
}

std::string formatPlaylistExpiry(std::chrono::system_clock::time_point when) {
  const std::time_t t = std::chrono::system_clock::to_time_t(when);
  std::tm utc{};
  gmtime_r(&t, &utc);
  char text[40];
  std::strftime(text, sizeof text, "%Y-%m-%dT%H:%M:%S+0000", &utc);
  return text;
}

std::string audioPath(std::string_view bookID, std::uint64_t part, std::uint64_t chapter) {
  return "/audio/" + std::string(bookID) + "/" + std::to_string(part) + "/" +
         std::to_string(chapter) + ".mp3";
}

}  // namespace sonorell::content
