// Media time as the player reports it: a rational value with validity flags, so that callers can
// tell an unknown or endless time from zero. A plain value type; safe to copy across threads.
#pragma once

#include <cmath>
#include <cstdint>

namespace sonorell {

struct MediaTime {
  enum class Kind { Invalid, Numeric, Indefinite, PositiveInfinity, NegativeInfinity };

  int64_t value = 0;
  int32_t timescale = 0;
  Kind kind = Kind::Invalid;

  static constexpr MediaTime invalid() { return {}; }
  static constexpr MediaTime indefinite() { return {0, 0, Kind::Indefinite}; }
  static constexpr MediaTime zero() { return {0, 1, Kind::Numeric}; }
  static constexpr MediaTime make(int64_t value, int32_t timescale) {
    return {value, timescale, Kind::Numeric};
  }
  // Nanosecond precision keeps seconds from sample-accurate positions exact enough.
  static MediaTime fromSeconds(double seconds) {
    if (std::isnan(seconds)) return invalid();
    if (std::isinf(seconds)) {
      return {0, 0, seconds > 0 ? Kind::PositiveInfinity : Kind::NegativeInfinity};
    }
    return make(static_cast<int64_t>(std::llround(seconds * 1e9)), 1'000'000'000);
  }
  static MediaTime fromNanoseconds(int64_t ns) { return make(ns, 1'000'000'000); }

  bool isValid() const { return kind != Kind::Invalid; }
  bool isNumeric() const { return kind == Kind::Numeric && timescale > 0; }
  bool isIndefinite() const { return kind == Kind::Indefinite; }
  double seconds() const {
    switch (kind) {
      case Kind::Numeric:
        return timescale > 0 ? static_cast<double>(value) / timescale : NAN;
      case Kind::PositiveInfinity:
        return INFINITY;
      case Kind::NegativeInfinity:
        return -INFINITY;
      default:
        return NAN;
    }
  }
  int64_t nanoseconds() const { return static_cast<int64_t>(std::llround(seconds() * 1e9)); }
};

}  // namespace sonorell
