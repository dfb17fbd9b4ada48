#include "model/value_transformers.h"

#include <map>
#include <mutex>
#include <utility>

namespace sonorell {

namespace {

// Splits at every separator and keeps empty pieces, so that joining restores the text.
std::vector<std::string> splitKeepingEmpty(std::string_view text, char separator) {
  std::vector<std::string> pieces;
  size_t start = 0;
  while (true) {
    size_t cut = text.find(separator, start);
    if (cut == std::string_view::npos) {
      pieces.emplace_back(text.substr(start));
      return pieces;
    }
    pieces.emplace_back(text.substr(start, cut - start));
    start = cut + 1;
  }
}

std::string join(const std::vector<std::string>& pieces, std::string_view separator) {
  std::string joined;
  for (size_t i = 0; i < pieces.size(); ++i) {
    if (i > 0) joined += separator;
    joined += pieces[i];
  }
  return joined;
}

// Well-formed UTF-8 only: no overlong forms, no surrogates, nothing above U+10FFFF.
bool isValidUTF8(std::span<const uint8_t> bytes) {
  size_t i = 0;
  while (i < bytes.size()) {
    uint8_t lead = bytes[i];
    size_t length;
    uint32_t codePoint;
    if (lead < 0x80) {
      ++i;
      continue;
    } else if ((lead & 0xE0) == 0xC0) {
      length = 2;
      codePoint = lead & 0x1F;
    } else if ((lead & 0xF0) == 0xE0) {
      length = 3;
      codePoint = lead & 0x0F;
    } else if ((lead & 0xF8) == 0xF0) {
      length = 4;
      codePoint = lead & 0x07;
    } else {
      return false;
    }
    if (bytes.size() - i < length) return false;
    for (size_t k = 1; k < length; ++k) {
      uint8_t next = bytes[i + k];
      if ((next & 0xC0) != 0x80) return false;
      codePoint = (codePoint << 6) | (next & 0x3F);
    }
    static constexpr uint32_t kSmallest[] = {0, 0, 0x80, 0x800, 0x10000};
    if (codePoint < kSmallest[length] || codePoint > 0x10FFFF ||
        (codePoint >= 0xD800 && codePoint <= 0xDFFF)) {
      return false;
    }
    i += length;
  }
  return true;
}

std::optional<std::string> decodeUTF8(std::span<const uint8_t> bytes) {
  if (!isValidUTF8(bytes)) return std::nullopt;
  return std::string(bytes.begin(), bytes.end());
}

StoredBytes bytesOf(std::string_view text) { return StoredBytes(text.begin(), text.end()); }

struct Registry {
  std::mutex mutex;
  std::map<std::string, std::shared_ptr<const ValueTransformer>, std::less<>> byName;
};

Registry& registry() {
  static Registry* instance = new Registry();  // never destroyed: used until process exit
  return *instance;
}

// The object store refers to our transformers by name, so they must be known before any lookup,
// whoever looks first.
void registerBuiltInTransformersOnce() {
  static std::once_flag once;
  std::call_once(once, [] {
    Registry& r = registry();
    std::lock_guard lock(r.mutex);
    r.byName["SOTitleTransformer"] = std::make_shared<SOTitleTransformer>();
    r.byName["QSOStringToArrayTransformer"] = std::make_shared<QSOStringToArrayTransformer>();
  });
}

}  // namespace

std::shared_ptr<const ValueTransformer> ValueTransformer::valueTransformerForName(
    std::string_view name) {
  registerBuiltInTransformersOnce();
  Registry& r = registry();
  std::lock_guard lock(r.mutex);
  auto it = r.byName.find(name);
  return it == r.byName.end() ? nullptr : it->second;
}

void ValueTransformer::setValueTransformer(std::shared_ptr<const ValueTransformer> transformer,
                                           std::string name) {
  // Registering ours first means a caller's replacement is not overwritten later.
  registerBuiltInTransformersOnce();
  Registry& r = registry();
  std::lock_guard lock(r.mutex);
  if (transformer) {
    r.byName[std::move(name)] = std::move(transformer);
  } else {
    r.byName.erase(name);
  }
}

std::optional<StoredBytes> SOTitleTransformer::transformedValue(const Value& value) const {
  const std::string* title = value.getIf<std::string>();
  if (!title) return std::nullopt;
  return bytesOf(*title);
}

Value SOTitleTransformer::reverseTransformedValue(std::span<const uint8_t> bytes) const {
  auto title = decodeUTF8(bytes);
  if (!title) return Value(std::string());
  return Value(relocateTrailingCommas(*title));
}

std::string SOTitleTransformer::relocateTrailingCommas(const std::string& title) {
  std::vector<std::string> pieces = splitKeepingEmpty(title, ',');
  if (pieces.size() < 2) return title;

  // Only exactly " The" or " A" (blank, capitalised article) marks the sort form.
  const char* article = nullptr;
  if (pieces.back() == " The") {
    article = "The ";
  } else if (pieces.back() == " A") {
    article = "A ";
  } else {
    return title;
  }
  // Cannot hold after the guard above; stored titles have always been read this way.
  if (pieces.size() == 1) return std::string();

  std::string result = article + pieces.front();
  // Middle pieces keep their leading blank: "Foo, Bar, The" -> "The Foo, Bar".
  for (size_t i = 1; i + 1 < pieces.size(); ++i) {
    result += ",";
    result += pieces[i];
  }
  return result;
}

std::optional<StoredBytes> QSOStringToArrayTransformer::transformedValue(const Value& value) const {
  if (const std::string* text = value.getIf<std::string>()) {
    return bytesFromStrings(splitKeepingEmpty(*text, ','));
  }
  const Array* array = value.asArray();
  if (!array) return std::nullopt;
  std::vector<std::string> elements;
  elements.reserve(array->size());
  for (const Value& element : *array) {
    // Elements are taken as they are; a non-string is stored in its printed form.
    const std::string* text = element.getIf<std::string>();
    elements.push_back(text ? *text : element.description());
  }
  return bytesFromStrings(elements);
}

Value QSOStringToArrayTransformer::reverseTransformedValue(std::span<const uint8_t> bytes) const {
  Array array;
  for (std::string& element : stringsFromBytes(bytes)) array.emplace_back(std::move(element));
  return Value(std::move(array));
}

StoredBytes QSOStringToArrayTransformer::bytesFromStrings(const std::vector<std::string>& strings) {
  return bytesOf(join(strings, ","));
}

std::vector<std::string> QSOStringToArrayTransformer::stringsFromBytes(
    std::span<const uint8_t> bytes) {
  // No bytes is the empty list (so that an empty list survives a round trip), not [""].
  if (bytes.empty()) return {};
  auto text = decodeUTF8(bytes);
  if (!text) return {};
  return splitKeepingEmpty(*text, ',');
}

}  // namespace sonorell
