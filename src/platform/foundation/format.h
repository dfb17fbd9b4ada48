// printf-style formatting with "%@" for objects, as the engine's log lines and descriptions are
// written. Arguments are converted to FormatArg first, so any type with a description() member,
// a describe() overload, a string, a number or a pointer can be passed. Thread-safe (pure).
#pragma once

#include <cstdint>
#include <memory>
#include <optional>
#include <span>
#include <string>
#include <string_view>
#include <type_traits>
#include <variant>

#include "sonorell/value.h"

namespace sonorell {

struct FormatArg {
  struct Null {};
  std::variant<Null, int64_t, uint64_t, double, std::string, const void*> v;
};

namespace format_detail {
template <class T>
concept HasDescription = requires(const T& t) {
  { t.description() } -> std::convertible_to<std::string>;
};
template <class T>
concept HasDescribe = requires(const T& t) {
  { describe(t) } -> std::convertible_to<std::string>;
};
}  // namespace format_detail

template <class T>
FormatArg toFormatArg(const T& value) {
  using D = std::decay_t<T>;
  if constexpr (std::is_same_v<D, bool>) {
    return {static_cast<int64_t>(value)};
  } else if constexpr (std::is_enum_v<D>) {
    return {static_cast<int64_t>(value)};
  } else if constexpr (std::is_integral_v<D> && std::is_signed_v<D>) {
    return {static_cast<int64_t>(value)};
  } else if constexpr (std::is_integral_v<D>) {
    return {static_cast<uint64_t>(value)};
  } else if constexpr (std::is_floating_point_v<D>) {
    return {static_cast<double>(value)};
  } else if constexpr (std::is_convertible_v<const D&, std::string_view>) {
    if constexpr (std::is_pointer_v<T>) {  // a char pointer, not an array
      if (value == nullptr) return {FormatArg::Null{}};
    }
    return {std::string(std::string_view(value))};
  } else if constexpr (format_detail::HasDescription<D>) {
    return {std::string(value.description())};
  } else if constexpr (format_detail::HasDescribe<D>) {
    return {std::string(describe(value))};
  } else if constexpr (std::is_same_v<D, std::nullptr_t>) {
    return {FormatArg::Null{}};
  } else if constexpr (requires {
                         value.get();
                         *value;
                       }) {  // smart pointers
    if (!value) return {FormatArg::Null{}};
    return toFormatArg(*value);
  } else if constexpr (requires {
                         value.has_value();
                         *value;
                       }) {  // std::optional
    if (!value.has_value()) return {FormatArg::Null{}};
    return toFormatArg(*value);
  } else if constexpr (std::is_pointer_v<D>) {
    return {static_cast<const void*>(value)};
  } else {
    static_assert(sizeof(D) == 0, "no format conversion for this type");
  }
}

// Formats with printf rules for d i u x X o c f e g s p (length modifiers accepted and
// ignored), "%@" for any argument's text, "%%". Missing arguments print "(null)".
std::string formatWithArgs(std::string_view format, std::span<const FormatArg> args);

template <class... A>
std::string stringWithFormat(std::string_view format, const A&... args) {
  if constexpr (sizeof...(A) == 0) {
    return std::string(format);  // a format with no arguments is taken as it is
  } else {
    const FormatArg converted[] = {toFormatArg(args)...};
    return formatWithArgs(format, converted);
  }
}

}  // namespace sonorell
