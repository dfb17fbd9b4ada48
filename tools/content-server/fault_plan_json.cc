#include "fault_plan_json.h"

#include <algorithm>
#include <initializer_list>
#include <nlohmann/json.hpp>
#include <stdexcept>
#include <string>

namespace sonorell::content {
namespace {

using nlohmann::json;

// Longer delays would only ever be a mistake, and they must fit a count of milliseconds.
constexpr std::uint64_t kMaxDelayMs = 24ULL * 3600 * 1000;

[[noreturn]] void fail(const std::string& where, const std::string& what) {
  throw std::invalid_argument(where + ": " + what);
}

void onlyKnownKeys(const json& object, std::initializer_list<std::string_view> known,
                   const std::string& where) {
  for (const auto& [key, value] : object.items()) {
    if (std::find(known.begin(), known.end(), key) == known.end()) {
      fail(where, "unknown field \"" + key + "\"");
    }
  }
}

// The member, or null when it is missing.
const json& member(const json& object, const char* key) {
  static const json kNull;
  const auto it = object.find(key);
  return it == object.end() ? kNull : *it;
}

std::uint64_t unsignedValue(const json& value, const std::string& where) {
  if (!value.is_number_unsigned()) fail(where, "must be a non-negative integer");
  return value.get<std::uint64_t>();
}

bool boolValue(const json& value, const std::string& where) {
  if (!value.is_boolean()) fail(where, "must be true or false");
  return value.get<bool>();
}

std::string stringValue(const json& value, const std::string& where) {
  if (!value.is_string()) fail(where, "must be a string");
  return value.get<std::string>();
}

Fault parseFault(const json& object, const std::string& where) {
  if (!object.is_object()) fail(where, "must be an object");
  onlyKnownKeys(object,
                {"status", "body", "contentType", "delayMs", "dropConnection", "cutAfterBytes",
                 "declaredLength", "bytesPerSecond", "ignoreRange", "changeFile"},
                where);
  Fault f;
  auto at = [&where](const char* key) { return where + "." + key; };
  if (const json& v = member(object, "status"); !v.is_null()) {
    const std::uint64_t status = unsignedValue(v, at("status"));
    if (status < 100 || status > 599) fail(at("status"), "must be an HTTP status (100-599)");
    f.status = static_cast<int>(status);
  }
  if (const json& v = member(object, "body"); !v.is_null()) f.body = stringValue(v, at("body"));
  if (const json& v = member(object, "contentType"); !v.is_null()) {
    f.contentType = stringValue(v, at("contentType"));
  }
  if (const json& v = member(object, "delayMs"); !v.is_null()) {
    const std::uint64_t ms = unsignedValue(v, at("delayMs"));
    if (ms > kMaxDelayMs) fail(at("delayMs"), "must be at most " + std::to_string(kMaxDelayMs));
    f.delay = std::chrono::milliseconds(ms);
  }
  if (const json& v = member(object, "dropConnection"); !v.is_null()) {
    f.dropConnection = boolValue(v, at("dropConnection"));
  }
  if (const json& v = member(object, "cutAfterBytes"); !v.is_null()) {
    f.cutAfterBytes = unsignedValue(v, at("cutAfterBytes"));
  }
  if (const json& v = member(object, "declaredLength"); !v.is_null()) {
    f.declaredLength = unsignedValue(v, at("declaredLength"));
  }
  if (const json& v = member(object, "bytesPerSecond"); !v.is_null()) {
    f.bytesPerSecond = unsignedValue(v, at("bytesPerSecond"));
  }
  if (const json& v = member(object, "ignoreRange"); !v.is_null()) {
    f.ignoreRange = boolValue(v, at("ignoreRange"));
  }
  if (const json& v = member(object, "changeFile"); !v.is_null()) {
    f.changeFile = boolValue(v, at("changeFile"));
  }
  return f;
}

FaultRule parseRule(const json& object, const std::string& where) {
  if (!object.is_object()) fail(where, "must be an object");
  onlyKnownKeys(object, {"route", "path", "skip", "count", "fault"}, where);
  auto at = [&where](const char* key) { return where + "." + key; };
  FaultRule rule;
  const json& route = member(object, "route");
  if (route.is_null()) fail(at("route"), "is required");
  const std::string name = stringValue(route, at("route"));
  const auto known = routeNamed(name);
  if (!known) {
    fail(at("route"),
         "unknown route \"" + name + "\" (metadata, playlist, audio, analytics or blob)");
  }
  rule.route = *known;
  if (const json& v = member(object, "path"); !v.is_null()) rule.path = stringValue(v, at("path"));
  if (const json& v = member(object, "skip"); !v.is_null()) {
    rule.trigger.skip = unsignedValue(v, at("skip"));
  }
  // Missing and null differ here: missing keeps the default of one request, null means all.
  if (const auto it = object.find("count"); it != object.end()) {
    rule.trigger.count =
        it->is_null() ? std::nullopt : std::optional(unsignedValue(*it, at("count")));
  }
  const json& fault = member(object, "fault");
  if (fault.is_null()) fail(at("fault"), "is required");
  rule.fault = parseFault(fault, at("fault"));
  return rule;
}

}  // namespace

std::vector<FaultRule> parseFaultPlan(std::string_view text) {
  const json doc = json::parse(text, nullptr, false);
  if (doc.is_discarded()) fail("body", "is not JSON");
  if (!doc.is_object()) fail("body", "must be a JSON object");
  onlyKnownKeys(doc, {"rules"}, "body");
  const json& rules = member(doc, "rules");
  if (!rules.is_array()) fail("rules", "must be an array");
  std::vector<FaultRule> plan;
  for (std::size_t i = 0; i < rules.size(); ++i) {
    plan.push_back(parseRule(rules[i], "rules[" + std::to_string(i) + "]"));
  }
  return plan;
}

}  // namespace sonorell::content
