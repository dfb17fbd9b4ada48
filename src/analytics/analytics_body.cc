#include "analytics/analytics_body.h"

#include <nlohmann/json.hpp>

#include "analytics/listen_event_serializer.h"
#include "analytics/system_info.h"
#include "model/functional_additions.h"
#include "platform/foundation/user_defaults.h"
#include "platform/foundation/uuid.h"
#include "sonorell/version.h"

namespace sonorell {

namespace {

using json = nlohmann::json;

// The kinds a serialized event holds; anything else (never produced) becomes null.
json jsonFromValue(const Value& value) {
  return std::visit(
      [](const auto& v) -> json {
        using T = std::decay_t<decltype(v)>;
        if constexpr (std::is_same_v<T, bool> || std::is_same_v<T, int64_t> ||
                      std::is_same_v<T, uint64_t> || std::is_same_v<T, double> ||
                      std::is_same_v<T, std::string>) {
          return json(v);
        } else if constexpr (std::is_same_v<T, Array>) {
          json array = json::array();
          for (const Value& element : v) array.push_back(jsonFromValue(element));
          return array;
        } else if constexpr (std::is_same_v<T, Dictionary>) {
          json object = json::object();
          for (const auto& [key, element] : v) object[key] = jsonFromValue(element);
          return object;
        } else {
          return json(nullptr);
        }
      },
      value.storage());
}

}  // namespace

std::string analyticsInstallIdentifier() {
  UserDefaults& defaults = UserDefaults::standard();
  if (auto stored = defaults.stringForKey("uuid")) return *stored;
  std::string made = makeUUIDString();
  defaults.setObject(Value(made), "uuid");
  return made;
}

std::string analyticsBody(const std::vector<QLListenEventPtr>& events) {
  std::vector<Dictionary> serialized =
      map(events, [](const QLListenEventPtr& event, size_t, bool&) {
        return QLListenEventSerializer::serializeListeningEvent(*event);
      });
  json list = json::array();
  for (const Dictionary& event : serialized) list.push_back(jsonFromValue(Value(event)));

  const SystemInfo& system = SystemInfo::current();
  json body = {
      {"events", std::move(list)},
      {"udid", analyticsInstallIdentifier()},
      {"system",
       {{"name", system.name}, {"device", system.device}, {"os_version", system.osVersion}}},
      {"sonorell", {{"sdk_version", std::string(kSonorellVersion)}, {"api_version", "v4"}}},
  };
  return body.dump();
}

}  // namespace sonorell
