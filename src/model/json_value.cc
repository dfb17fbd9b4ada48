#include "model/json_value.h"

#include <nlohmann/json.hpp>

namespace sonorell {

namespace {

Value convert(const nlohmann::json& json) {
  switch (json.type()) {
    case nlohmann::json::value_t::boolean:
      return Value(json.get<bool>());
    case nlohmann::json::value_t::number_integer:
      return Value(json.get<int64_t>());
    case nlohmann::json::value_t::number_unsigned: {
      // Small non-negative integers read as signed, the way the rest of the engine compares them.
      uint64_t n = json.get<uint64_t>();
      if (n <= static_cast<uint64_t>(INT64_MAX)) return Value(static_cast<int64_t>(n));
      return Value(n);
    }
    case nlohmann::json::value_t::number_float:
      return Value(json.get<double>());
    case nlohmann::json::value_t::string:
      return Value(json.get<std::string>());
    case nlohmann::json::value_t::array: {
      Array array;
      array.reserve(json.size());
      for (const auto& element : json) array.push_back(convert(element));
      return Value(std::move(array));
    }
    case nlohmann::json::value_t::object: {
      Dictionary dictionary;
      for (const auto& [key, element] : json.items()) dictionary.emplace(key, convert(element));
      return Value(std::move(dictionary));
    }
    default:
      return Value();
  }
}

}  // namespace

std::optional<Value> valueFromJSONText(std::string_view text) {
  nlohmann::json json = nlohmann::json::parse(text, nullptr, /*allow_exceptions=*/false);
  if (json.is_discarded()) return std::nullopt;
  return convert(json);
}

}  // namespace sonorell
