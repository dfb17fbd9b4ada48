// JSON text to the engine's Value, for documents of the content API (objects become
// Dictionary, arrays Array; integers keep their signedness, null is the null Value).
// Pure functions; safe from any thread.
#pragma once

#include <optional>
#include <string_view>

#include "sonorell/value.h"

namespace sonorell {

// Empty when the text is not one complete JSON value (syntax error, invalid UTF-8, trailing
// text).
std::optional<Value> valueFromJSONText(std::string_view text);

}  // namespace sonorell
