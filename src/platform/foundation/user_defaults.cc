#include "platform/foundation/user_defaults.h"

#include <unistd.h>

#include <cstdio>
#include <fstream>
#include <memory>
#include <nlohmann/json.hpp>

#include "platform/foundation/library_directory.h"

namespace sonorell {

namespace {
std::mutex gStandardMutex;
// Not destroyed at exit (work still running then may read it); replaced only by tests.
UserDefaults* gStandard = nullptr;

nlohmann::json toJson(const Value& value) {
  if (auto* b = value.getIf<bool>()) return *b;
  if (auto* i = value.getIf<int64_t>()) return *i;
  if (auto* u = value.getIf<uint64_t>()) return *u;
  if (auto* d = value.getIf<double>()) return *d;
  if (auto* s = value.getIf<std::string>()) return *s;
  return nullptr;
}

Value fromJson(const nlohmann::json& json) {
  if (json.is_boolean()) return Value(json.get<bool>());
  if (json.is_number_unsigned()) return Value(json.get<uint64_t>());
  if (json.is_number_integer()) return Value(json.get<int64_t>());
  if (json.is_number_float()) return Value(json.get<double>());
  if (json.is_string()) return Value(json.get<std::string>());
  return Value();
}
}  // namespace

UserDefaults& UserDefaults::standard() {
  std::lock_guard lock(gStandardMutex);
  if (!gStandard) {
    std::filesystem::path dir = LibraryDirectory::path().value_or("") / "SonorellSupport";
    std::error_code error;
    LibraryDirectory::createDirectories(dir, error);
    gStandard = new UserDefaults(dir / "UserDefaults.json");
  }
  return *gStandard;
}

void UserDefaults::resetStandardForTesting() {
  std::lock_guard lock(gStandardMutex);
  delete gStandard;
  gStandard = nullptr;
}

UserDefaults::UserDefaults(std::filesystem::path file) : file_(std::move(file)) { load(); }

void UserDefaults::load() {
  std::ifstream in(file_);
  if (!in) return;
  nlohmann::json json = nlohmann::json::parse(in, nullptr, /*allow_exceptions=*/false);
  if (!json.is_object()) return;  // unreadable file: start empty rather than fail
  for (auto it = json.begin(); it != json.end(); ++it) {
    Value value = fromJson(it.value());
    if (!value.isNull()) values_.emplace(it.key(), std::move(value));
  }
}

bool UserDefaults::save() const {
  nlohmann::json json = nlohmann::json::object();
  for (const auto& [key, value] : values_) json[key] = toJson(value);
  std::filesystem::path temp = file_;
  temp += ".tmp" + std::to_string(::getpid());
  {
    std::ofstream out(temp, std::ios::trunc);
    if (!out) return false;
    out << json.dump(2);
    out.flush();
    if (!out) return false;
  }
  std::error_code error;
  std::filesystem::rename(temp, file_, error);
  if (error) std::filesystem::remove(temp, error);
  return !error;
}

std::optional<Value> UserDefaults::objectForKey(std::string_view key) const {
  std::lock_guard lock(mutex_);
  auto it = values_.find(key);
  if (it == values_.end()) return std::nullopt;
  return it->second;
}

std::optional<std::string> UserDefaults::stringForKey(std::string_view key) const {
  auto value = objectForKey(key);
  return value ? value->asString() : std::nullopt;
}

int64_t UserDefaults::integerForKey(std::string_view key) const {
  auto value = objectForKey(key);
  return value ? value->asInt().value_or(0) : 0;
}

bool UserDefaults::boolForKey(std::string_view key) const {
  auto value = objectForKey(key);
  return value ? value->asBool().value_or(false) : false;
}

void UserDefaults::setObject(const Value& value, std::string_view key) {
  if (toJson(value).is_null()) {
    removeObjectForKey(key);
    return;
  }
  std::lock_guard lock(mutex_);
  values_.insert_or_assign(std::string(key), value);
  save();
}

void UserDefaults::removeObjectForKey(std::string_view key) {
  std::lock_guard lock(mutex_);
  auto it = values_.find(key);
  if (it == values_.end()) return;
  values_.erase(it);
  save();
}

}  // namespace sonorell
