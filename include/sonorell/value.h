// Value and Dictionary: the loosely typed values of notification user info, error user info and
// decoded documents. Besides the basic kinds a Value can hold any describable value object (the
// engine puts chapter descriptions there). Plain values; not synchronised, copied between threads.
#pragma once

#include <chrono>
#include <cstdint>
#include <map>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <type_traits>
#include <variant>
#include <vector>

#include "sonorell/export.h"

namespace sonorell {

struct Error;
using ErrorPtr = std::shared_ptr<const Error>;
class Value;
using Array = std::vector<Value>;
using Dictionary = std::map<std::string, Value, std::less<>>;
using Date = std::chrono::system_clock::time_point;

// A value of some other type carried in a Value: it can describe itself and compare equal.
class SONORELL_EXPORT ValueObject {
 public:
  virtual ~ValueObject() = default;
  virtual std::string description() const = 0;
  virtual bool equals(const ValueObject& other) const = 0;
};

// Holds a copy of a T that has description() and operator==.
template <class T>
class SONORELL_EXPORT BoxedValue final : public ValueObject {
 public:
  explicit BoxedValue(T value) : value_(std::move(value)) {}
  const T& value() const { return value_; }
  std::string description() const override { return value_.description(); }
  bool equals(const ValueObject& other) const override {
    const auto* same = dynamic_cast<const BoxedValue*>(&other);
    return same && same->value_ == value_;
  }

 private:
  T value_;
};

class SONORELL_EXPORT Value {
 public:
  using ObjectPtr = std::shared_ptr<const ValueObject>;
  using Storage = std::variant<std::monostate, bool, int64_t, uint64_t, double, std::string, Date,
                               Array, Dictionary, ObjectPtr, ErrorPtr>;

 private:
  template <class T>
  static constexpr bool kIsStored =
      std::is_same_v<T, std::monostate> || std::is_same_v<T, bool> || std::is_same_v<T, int64_t> ||
      std::is_same_v<T, uint64_t> || std::is_same_v<T, double> || std::is_same_v<T, std::string> ||
      std::is_same_v<T, Date> || std::is_same_v<T, Array> || std::is_same_v<T, Dictionary> ||
      std::is_same_v<T, ObjectPtr> || std::is_same_v<T, ErrorPtr>;
  template <class T>
  static constexpr bool kIsObject = requires(const T& t) {
    { t.description() } -> std::convertible_to<std::string>;
    { t == t } -> std::convertible_to<bool>;
  }
  &&!kIsStored<T> && !std::is_convertible_v<T, std::string_view>;

 public:
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
  Value(ErrorPtr e) : v_(std::move(e)) {}
  // Any describable value (a chapter description, say), boxed.
  template <class T, std::enable_if_t<kIsObject<T>, int> = 0>
  Value(T object) : v_(ObjectPtr(std::make_shared<BoxedValue<T>>(std::move(object)))) {}

  const Storage& storage() const { return v_; }
  bool isNull() const { return std::holds_alternative<std::monostate>(v_); }
  // T is one of the stored kinds or the type of a boxed value object.
  template <class T>
  bool is() const {
    return getIf<T>() != nullptr;
  }
  template <class T>
  const T* getIf() const {
    if constexpr (kIsStored<T>) {
      return std::get_if<T>(&v_);
    } else {
      const auto* object = std::get_if<ObjectPtr>(&v_);
      const auto* boxed =
          object && *object ? dynamic_cast<const BoxedValue<T>*>(object->get()) : nullptr;
      return boxed ? &boxed->value() : nullptr;
    }
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
