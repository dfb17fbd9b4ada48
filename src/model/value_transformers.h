// Named value transformers: how the object store turns record values into stored bytes and back
// (titles, string lists). The process-wide name table is guarded by its own mutex; the
// transformers themselves are stateless and shared between threads.
#pragma once

#include <cstdint>
#include <memory>
#include <optional>
#include <span>
#include <string>
#include <string_view>
#include <vector>

#include "sonorell/value.h"

namespace sonorell {

using StoredBytes = std::vector<uint8_t>;

class ValueTransformer {
 public:
  virtual ~ValueTransformer() = default;

  // Both of ours store bytes and can be reversed.
  virtual bool allowsReverseTransformation() const { return true; }
  // Record value to stored bytes; empty when the value is absent or of a kind the transformer
  // does not take (nothing is stored then).
  virtual std::optional<StoredBytes> transformedValue(const Value& value) const = 0;
  // Stored bytes to record value. Never fails: undecodable bytes give an empty value.
  virtual Value reverseTransformedValue(std::span<const uint8_t> bytes) const = 0;

  // The transformer registered under `name`, or null. Ours ("SOTitleTransformer",
  // "QSOStringToArrayTransformer") are registered on first use of this table.
  static std::shared_ptr<const ValueTransformer> valueTransformerForName(std::string_view name);
  // Registers (or, with null, removes) a transformer under `name`, replacing any earlier one.
  static void setValueTransformer(std::shared_ptr<const ValueTransformer> transformer,
                                  std::string name);
};

// Titles: stored as their UTF-8 bytes; read back in display form.
class SOTitleTransformer : public ValueTransformer {
 public:
  std::optional<StoredBytes> transformedValue(const Value& value) const override;
  Value reverseTransformedValue(std::span<const uint8_t> bytes) const override;

  // Display form of a title kept in sort form: "Hobbit, The" -> "The Hobbit",
  // "Tale, A" -> "A Tale". Anything else comes back unchanged.
  static std::string relocateTrailingCommas(const std::string& title);
};

// String lists (authors, narrators, ...): stored as the elements joined with ",". Elements that
// contain "," come back split; that is accepted.
class QSOStringToArrayTransformer : public ValueTransformer {
 public:
  std::optional<StoredBytes> transformedValue(const Value& value) const override;
  Value reverseTransformedValue(std::span<const uint8_t> bytes) const override;

  // The same mapping on typed values, for record code that holds std::vector<std::string>.
  static StoredBytes bytesFromStrings(const std::vector<std::string>& strings);
  static std::vector<std::string> stringsFromBytes(std::span<const uint8_t> bytes);
};

}  // namespace sonorell
