// A metadata response body as the content API might send it: read by the metadata fetch (status
// records and expected sizes) and by the record builder the object store uses (here making
// detached records), as the engine does with every 200 answer.
#include <cstddef>
#include <cstdint>
#include <memory>
#include <string>
#include <vector>

#include <nlohmann/json.hpp>

#include "fuzz_support.h"
#include "model/audiobook_api_fetch.h"
#include "model/audiobook_json_helper.h"
#include "model/json_reading.h"
#include "model/json_value.h"
#include "model/value_transformers.h"

namespace {

using namespace sonorell;

// Takes what the fetch records, as the status database would, and lets it go on.
class Recorder final : public QSOMetadataRecorder {
 public:
  ErrorPtr recordAudiobook(const std::string& audiobookID, uint64_t) override {
    if (audiobookID.empty()) __builtin_trap();  // the fetch must refuse a book without an ID
    return nullptr;
  }
  ErrorPtr recordChapters(const std::string&,
                          const std::vector<QSOChapterSize>& chapters) override {
    for (const auto& size : chapters) (void)size.chapter.toString();
    return nullptr;
  }
};

// Answers every request with the fuzz input, as a content API would with a 200.
class Answering final : public HttpClient {
 public:
  explicit Answering(std::string body) : body_(std::move(body)) {}
  std::shared_ptr<HttpTask> send(HttpRequest, Completion completion) override {
    HttpResponse response;
    response.status = 200;
    response.body = body_;
    completion(std::move(response), nullptr);
    return nullptr;
  }
  void setCABundle(std::string) override {}
  std::string caBundle() const override { return {}; }

 private:
  const std::string body_;
};

// The fetch records only the book it asked for: it asks for the one the body names, so that the
// records and sizes are read whatever the document says.
std::string requestedID(const std::string& body) {
  const auto json = nlohmann::json::parse(body, nullptr, /*allow_exceptions=*/false);
  const auto* book = json.is_discarded() ? nullptr : json_reading::member(json, "audiobook");
  const auto* id = book ? json_reading::member(*book, "id") : nullptr;
  return id && id->is_string() ? id->get<std::string>() : "x";
}

void readWithTheFetch(const std::string& body) {
  auto fetch = std::make_shared<QSOAudiobookAPIFetch>("session", std::make_shared<Answering>(body),
                                                      std::make_shared<Recorder>());
  fetch->fetchAudiobook(requestedID(body), [](ErrorPtr) {});
}

void buildTheRecord(const std::string& body) {
  auto value = valueFromJSONText(body);
  if (!value) return;
  const Dictionary* response = value->asDictionary();
  const Dictionary* document = nullptr;
  if (response) {
    auto it = response->find("audiobook");
    if (it != response->end()) document = it->second.asDictionary();
  }
  auto book =
      QSOAudiobookJSONHelper::detachedAudiobookFromDictionary(document ? *document : Dictionary{});
  // What the store keeps and hands back: lists joined and split, the title in display form.
  for (const auto& list : {book->authors(), book->narrators(), book->series(), book->awards()}) {
    (void)QSOStringToArrayTransformer::stringsFromBytes(
        QSOStringToArrayTransformer::bytesFromStrings(list));
  }
  auto copy = QSOConcreteAudiobook::initWithAudiobook(*book);
  for (const auto& chapter : copy->sortedChapters()) {
    (void)copy->chapterForPartNumber(static_cast<int32_t>(chapter->partNumber().value_or(0)),
                                     static_cast<int32_t>(chapter->chapterNumber().value_or(0)));
  }
}

}  // namespace

extern "C" int LLVMFuzzerInitialize(int*, char***) {
  sonorell::fuzz::setUpProcess();
  return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  const std::string body(reinterpret_cast<const char*>(data), size);
  readWithTheFetch(body);
  buildTheRecord(body);
  return 0;
}
