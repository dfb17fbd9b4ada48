#include "persistence/store_entities.h"

#include <chrono>

#include "core/logging.h"

namespace sonorell {

namespace {

std::shared_ptr<const ValueTransformer> transformerFor(const AttributeDescription& attribute) {
  auto transformer = ValueTransformer::valueTransformerForName(attribute.transformerName);
  if (!transformer) {
    LogEngineError("[QSOPersistenceEngine] No value transformer named %@ for %@",
                   attribute.transformerName, attribute.name);
  }
  return transformer;
}

std::span<const uint8_t> bytesOf(const StoredValue& value) {
  if (const auto* bytes = std::get_if<StoredBytes>(&value)) return *bytes;
  // A row written by hand may hold the text instead of bytes; it reads the same.
  if (const auto* text = std::get_if<std::string>(&value)) {
    return {reinterpret_cast<const uint8_t*>(text->data()), text->size()};
  }
  return {};
}

}  // namespace

std::optional<StoredBytes> storedBytesForAttribute(const AttributeDescription& attribute,
                                                   const Value& value) {
  auto transformer = transformerFor(attribute);
  if (!transformer) return std::nullopt;
  return transformer->transformedValue(value);
}

std::string QSOAudiobook::text(AudiobookAttribute a) const {
  const auto* s = std::get_if<std::string>(&values_[a]);
  return s ? *s : std::string();
}

std::optional<int64_t> QSOAudiobook::integer(AudiobookAttribute a) const {
  const auto* n = std::get_if<int64_t>(&values_[a]);
  return n ? std::optional<int64_t>(*n) : std::nullopt;
}

void QSOAudiobook::setInteger(AudiobookAttribute a, std::optional<int64_t> v) {
  values_[a] = v ? StoredValue(*v) : StoredValue();
}

std::optional<bool> QSOAudiobook::chapterized() const {
  auto n = integer(kChapterizedAttribute);
  return n ? std::optional<bool>(*n != 0) : std::nullopt;
}

void QSOAudiobook::setChapterized(std::optional<bool> v) {
  setInteger(kChapterizedAttribute, v ? std::optional<int64_t>(*v ? 1 : 0) : std::nullopt);
}

std::optional<Date> QSOAudiobook::date(AudiobookAttribute a) const {
  auto n = integer(a);
  if (!n) return std::nullopt;
  return Date(std::chrono::duration_cast<Date::duration>(std::chrono::nanoseconds(*n)));
}

void QSOAudiobook::setDate(AudiobookAttribute a, std::optional<Date> v) {
  if (!v) {
    values_[a] = std::monostate{};
    return;
  }
  auto nanos = std::chrono::duration_cast<std::chrono::nanoseconds>(v->time_since_epoch());
  values_[a] = static_cast<int64_t>(nanos.count());
}

std::vector<std::string> QSOAudiobook::strings(AudiobookAttribute a) const {
  if (std::holds_alternative<std::monostate>(values_[a])) return {};
  auto transformer = transformerFor(audiobookAttributes()[a]);
  if (!transformer) return {};
  Value value = transformer->reverseTransformedValue(bytesOf(values_[a]));
  std::vector<std::string> out;
  if (const Array* array = value.asArray()) {
    for (const Value& element : *array) out.push_back(element.asString().value_or(""));
  }
  return out;
}

void QSOAudiobook::setStrings(AudiobookAttribute a, const std::vector<std::string>& v) {
  Array array(v.begin(), v.end());
  auto bytes = storedBytesForAttribute(audiobookAttributes()[a], Value(std::move(array)));
  values_[a] = bytes ? StoredValue(std::move(*bytes)) : StoredValue();
}

std::string QSOAudiobook::title() const {
  if (std::holds_alternative<std::monostate>(values_[kTitleAttribute])) return "";
  auto transformer = transformerFor(audiobookAttributes()[kTitleAttribute]);
  if (!transformer) return "";
  return transformer->reverseTransformedValue(bytesOf(values_[kTitleAttribute]))
      .asString()
      .value_or("");
}

void QSOAudiobook::setTitle(std::string v) {
  auto bytes = storedBytesForAttribute(audiobookAttributes()[kTitleAttribute], Value(std::move(v)));
  values_[kTitleAttribute] = bytes ? StoredValue(std::move(*bytes)) : StoredValue();
}

}  // namespace sonorell
