/// Value and Dictionary: the loosely typed values of notification user info, error user info and
/// decoded documents. Besides the basic kinds a Value can hold any describable value object (the
/// engine puts chapter descriptions there). Plain values; not synchronised, copied between threads.
/// @file
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
/// How errors are handed around: shared, and constant once made (sonorell/error.h).
using ErrorPtr = std::shared_ptr<const Error>;
class Value;
/// A list of values.
using Array = std::vector<Value>;
/// Named values: notification and error user info. Looked up with std::string_view keys too
/// (`find(QSOAudiobookIDUserInfoKey)`).
using Dictionary = std::map<std::string, Value, std::less<>>;
/// A point in time.
using Date = std::chrono::system_clock::time_point;

/// A value of some other type carried in a Value: it can describe itself and compare equal.
class SONORELL_EXPORT ValueObject {
 public:
  /// Owned through Value::ObjectPtr.
  virtual ~ValueObject() = default;
  /// Readable form, for logs.
  virtual std::string description() const = 0;
  /// Whether `other` holds an equal value of the same type.
  virtual bool equals(const ValueObject& other) const = 0;
};

/// Holds a copy of a T that has description() and operator==.
template <class T>
class SONORELL_EXPORT BoxedValue final : public ValueObject {
 public:
  /// Boxes `value`.
  explicit BoxedValue(T value) : value_(std::move(value)) {}
  /// The boxed value.
  const T& value() const { return value_; }
  std::string description() const override { return value_.description(); }
  bool equals(const ValueObject& other) const override {
    const auto* same = dynamic_cast<const BoxedValue*>(&other);
    return same && same->value_ == value_;
  }

 private:
  T value_;
};

/// One loosely typed value: null, a boolean, a signed or unsigned integer, a double, a string, a
/// date, an Array, a Dictionary, a boxed value object (a QSOChapterDescription, say) or an
/// ErrorPtr. Read it with the typed accessors (is(), getIf(), asInt()...). A plain value: copies
/// are independent (boxed objects and errors are shared, and constant).
class SONORELL_EXPORT Value {
 public:
  /// A boxed value object.
  using ObjectPtr = std::shared_ptr<const ValueObject>;
  /// What a value holds.
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
  /// Null.
  Value() = default;
  /// Null.
  Value(std::nullptr_t) {}
  /// A boolean.
  Value(bool b) : v_(b) {}
  /// An integer: signed types are stored as int64_t, unsigned ones as uint64_t.
  template <class T, std::enable_if_t<std::is_integral_v<T> && !std::is_same_v<T, bool>, int> = 0>
  Value(T n) {
    if constexpr (std::is_signed_v<T>) {
      v_ = static_cast<int64_t>(n);
    } else {
      v_ = static_cast<uint64_t>(n);
    }
  }
  /// A double.
  Value(double d) : v_(d) {}
  /// A double.
  Value(float f) : v_(static_cast<double>(f)) {}
  /// A string.
  Value(std::string s) : v_(std::move(s)) {}
  /// A string (copied).
  Value(const char* s) : v_(std::string(s)) {}
  /// A string (copied).
  Value(std::string_view s) : v_(std::string(s)) {}
  /// A date.
  Value(Date d) : v_(d) {}
  /// A list.
  Value(Array a) : v_(std::move(a)) {}
  /// A dictionary.
  Value(Dictionary d) : v_(std::move(d)) {}
  /// An error (shared).
  Value(ErrorPtr e) : v_(std::move(e)) {}
  /// Any describable value (a chapter description, say), boxed.
  template <class T, std::enable_if_t<kIsObject<T>, int> = 0>
  Value(T object) : v_(ObjectPtr(std::make_shared<BoxedValue<T>>(std::move(object)))) {}

  /// What the value holds, for std::visit.
  const Storage& storage() const { return v_; }
  /// Whether the value is null.
  bool isNull() const { return std::holds_alternative<std::monostate>(v_); }
  /// T is one of the stored kinds or the type of a boxed value object.
  template <class T>
  bool is() const {
    return getIf<T>() != nullptr;
  }
  /// The held T, or null when the value holds something else; valid while the value lives.
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

  /// Readers that convert between the numeric kinds; empty when the value is of another kind.
  std::optional<int64_t> asInt() const;
  ///@{
  /// Converted to this type; empty when the value is of another kind.
  std::optional<uint64_t> asUInt() const;
  std::optional<double> asDouble() const;
  std::optional<bool> asBool() const;
  ///@}
  std::optional<std::string> asString() const;  ///< strings only
  /// The dictionary held, or null.
  const Dictionary* asDictionary() const { return getIf<Dictionary>(); }
  /// The list held, or null.
  const Array* asArray() const { return getIf<Array>(); }
  /// The error held, or null.
  ErrorPtr asError() const;

  /// Human-readable form, the one logs show for "%@".
  std::string description() const;

  /// Same kind and equal contents (boxed objects through ValueObject::equals).
  friend SONORELL_EXPORT bool operator==(const Value& a, const Value& b);

 private:
  Storage v_;
};

/// Readable form of a dictionary, for logs.
SONORELL_EXPORT std::string describe(const Dictionary& dictionary);
/// Readable form of a list, for logs.
SONORELL_EXPORT std::string describe(const Array& array);

}  // namespace sonorell
