#include "fault_plan.h"

#include <algorithm>

#include "documents.h"

namespace sonorell::content {

std::string_view routeName(Route route) {
  switch (route) {
    case Route::kMetadata:
      return "metadata";
    case Route::kPlaylist:
      return "playlist";
    case Route::kAudio:
      return "audio";
    case Route::kAnalytics:
      return "analytics";
    case Route::kBlob:
      return "blob";
  }
  return "unknown";
}

std::optional<Route> routeNamed(std::string_view name) {
  for (Route route :
       {Route::kMetadata, Route::kPlaylist, Route::kAudio, Route::kAnalytics, Route::kBlob}) {
    if (routeName(route) == name) return route;
  }
  return std::nullopt;
}

Fault Fault::statusCode(int status) {
  Fault f;
  f.status = status;
  return f;
}

Fault Fault::errorDocument(int status, std::string message, std::string code,
                           std::uint64_t errorNumber,
                           std::vector<std::pair<std::string, std::string>> fieldErrors) {
  return customBody(status, makeErrorDocument(std::move(message), std::move(code), errorNumber,
                                              std::move(fieldErrors))
                                .dump());
}

Fault Fault::customBody(int status, std::string body, std::string contentType) {
  Fault f;
  f.status = status;
  f.body = std::move(body);
  f.contentType = std::move(contentType);
  return f;
}

Fault Fault::invalidJson(int status) {
  // Cut off inside an object: no JSON reader accepts it.
  return customBody(status, R"({"audiobook": {"id": "1001", "chapters": [{"duration": )");
}

Fault Fault::delayed(std::chrono::milliseconds delay) {
  Fault f;
  f.delay = delay;
  return f;
}

Fault Fault::droppedConnection() {
  Fault f;
  f.dropConnection = true;
  return f;
}

Fault Fault::cutShort(std::uint64_t bytesSent) {
  Fault f;
  f.cutAfterBytes = bytesSent;
  return f;
}

Fault Fault::wrongContentLength(std::uint64_t declared) {
  Fault f;
  f.declaredLength = declared;
  return f;
}

Fault Fault::bandwidth(std::uint64_t bytesPerSecond) {
  Fault f;
  f.bytesPerSecond = bytesPerSecond;
  return f;
}

Fault Fault::rangeIgnored() {
  Fault f;
  f.ignoreRange = true;
  return f;
}

Fault Fault::fileChanged() {
  Fault f;
  f.changeFile = true;
  return f;
}

Trigger Trigger::nth(std::uint64_t n) { return Trigger{n > 0 ? n - 1 : 0, 1}; }
Trigger Trigger::next(std::uint64_t n) { return Trigger{0, n}; }
Trigger Trigger::always() { return Trigger{0, std::nullopt}; }

FaultPlan::RuleId FaultPlan::add(Route route, Fault fault, Trigger trigger,
                                 std::optional<std::string> path) {
  std::lock_guard lock(mutex_);
  const RuleId id = nextId_++;
  rules_.push_back(Rule{id, route, std::move(fault), trigger, std::move(path)});
  return id;
}

void FaultPlan::remove(RuleId id) {
  std::lock_guard lock(mutex_);
  std::erase_if(rules_, [id](const Rule& r) { return r.id == id; });
}

void FaultPlan::clear() {
  std::lock_guard lock(mutex_);
  rules_.clear();
}

std::vector<FaultPlan::RuleId> FaultPlan::replace(std::vector<FaultRule> rules) {
  std::lock_guard lock(mutex_);
  rules_.clear();
  std::vector<RuleId> ids;
  for (FaultRule& r : rules) {
    ids.push_back(nextId_++);
    rules_.push_back(Rule{ids.back(), r.route, std::move(r.fault), r.trigger, std::move(r.path)});
  }
  return ids;
}

std::uint64_t FaultPlan::hits(RuleId id) const {
  std::lock_guard lock(mutex_);
  for (const Rule& r : rules_) {
    if (r.id == id) return r.hits;
  }
  return 0;
}

std::optional<Fault> FaultPlan::pick(Route route, std::string_view path) {
  std::lock_guard lock(mutex_);
  std::optional<Fault> chosen;
  for (Rule& r : rules_) {
    if (r.route != route || (r.path && *r.path != path)) continue;
    // Every matching rule counts the request, so "the 2nd request" means the same to all rules.
    const std::uint64_t index = r.seen++;
    const bool inWindow =
        index >= r.trigger.skip && (!r.trigger.count || index - r.trigger.skip < *r.trigger.count);
    if (inWindow && !chosen) {
      ++r.hits;
      chosen = r.fault;
    }
  }
  return chosen;
}

}  // namespace sonorell::content
