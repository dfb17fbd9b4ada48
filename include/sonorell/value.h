// Value and Dictionary: the loosely typed values of notification user info, error user info and
// decoded documents. Plain values; a Value is not synchronised and is copied between threads.
#pragma once

#include <chrono>
#include <cstdint>
#include <map>
#include <memory>
#include <optional>
#include <string>
#include <type_traits>
#include <variant>
#include <vector>

#include "sonorell/chapter_description.h"
#include "sonorell/export.h"

namespace sonorell {

struct Error;
using ErrorPtr = std::shared_ptr<const Error>;
class Value;
using Array = std::vector<Value>;
using Dictionary = std::map<std::string, Value, std::less<>>;
using Date = std::chrono::system_clock::time_point;

class SONORELL_EXPORT Value {
 public:
  using Storage = std::variant<std::monostate, bool, int64_t, uint64_t, double, std::string, Date,
                               Array, Dictionary, QSOChapterDescription, ErrorPtr>;

  Value() = default;
  Value(std::nullptr_t) {}
  Value(bool b) : v_(b) {}
  template <class T, std::enable_if_t<std::is_integral_v<T> && !std::is_same_v<T, bool>, int> = 0>
  Value(T n) {
    if constexpr (std::is_signed_v<T>) {
      v_ = static_cast<int64_t>(n);
    } else {
      v_ = static_cast<uint64_t>(n);
    }
  }
  Value(double d) : v_(d) {}
  Value(float f) : v_(static_cast<double>(f)) {}
  Value(std::string s) : v_(std::move(s)) {}
  Value(const char* s) : v_(std::string(s)) {}
  Value(std::string_view s) : v_(std::string(s)) {}
  Value(Date d) : v_(d) {}
  Value(Array a) : v_(std::move(a)) {}
  Value(Dictionary d) : v_(std::move(d)) {}
  Value(QSOChapterDescription c) : v_(std::move(c)) {}
  Value(ErrorPtr e) : v_(std::move(e)) {}

  const Storage& storage() const { return v_; }
  bool isNull() const { return std::holds_alternative<std::monostate>(v_); }
  template <class T>
  bool is() const {
    return std::holds_alternative<T>(v_);
  }
  template <class T>
  const T* getIf() const {
    return std::get_if<T>(&v_);
  }

  // Readers that convert between the numeric kinds; empty when the value is of another kind.
  std::optional<int64_t> asInt() const;
  std::optional<uint64_t> asUInt() const;
  std::optional<double> asDouble() const;
  std::optional<bool> asBool() const;
  std::optional<std::string> asString() const;  // strings only
  const Dictionary* asDictionary() const { return getIf<Dictionary>(); }
  const Array* asArray() const { return getIf<Array>(); }
  ErrorPtr asError() const;

  // Human-readable form, the one logs show for "%@".
  std::string description() const;

  friend SONORELL_EXPORT bool operator==(const Value& a, const Value& b);

 private:
  Storage v_;
};

SONORELL_EXPORT std::string describe(const Dictionary& dictionary);
SONORELL_EXPORT std::string describe(const Array& array);

}  // namespace sonorell
