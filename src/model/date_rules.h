// The two date rules of the metadata document: patterns in the platform's date-pattern notation,
// read in the device's time zone (the TZ environment, as localtime reads it). Pure functions,
// safe from any thread.
#pragma once

#include <optional>
#include <string_view>

#include "sonorell/value.h"

namespace sonorell {

// "modified_date". "SS" is fraction-of-second digits, not seconds: "10:20:30" reads as 10:20 and
// 0.30 s. The service has always been read this way, so the quirk is part of the format.
inline constexpr std::string_view kModifiedDateFormat = "yyyy-MM-dd'T'HH:mm:SS";
// "street_date": midnight of that day in the device's time zone.
inline constexpr std::string_view kStreetDateFormat = "yyyy-MM-dd";

// The date `text` names under `pattern`, or empty when the whole text does not match or names no
// real date. Supported letters: y (year), M (month), d (day), H (hour 0-23), m (minute),
// s (second), S (fraction of a second); 'quoted' text and other characters match themselves.
std::optional<Date> dateFromString(std::string_view text, std::string_view pattern);

// The date of time value 0 (1970-01-01 00:00:00 UTC), the default of a missing date.
inline Date referenceDate1970() { return Date{}; }

}  // namespace sonorell
