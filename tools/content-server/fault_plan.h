// Faults that the server injects into its own answers, chosen per route and per request count.
// FaultPlan is safe for concurrent use: the server's worker threads pick faults while a test adds
// or clears rules; one mutex guards the rule list and every rule's request counter.
#pragma once

#include <chrono>
#include <cstdint>
#include <mutex>
#include <optional>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

namespace sonorell::content {

enum class Route { kMetadata, kPlaylist, kAudio, kAnalytics, kBlob };

std::string_view routeName(Route route);
// The route of that name ("metadata", "audio", ...), or none.
std::optional<Route> routeNamed(std::string_view name);

// What to do to one answer. Knobs combine; an unset knob leaves that aspect of the answer alone.
struct Fault {
  // Replaces the status. Without `body`, a 2xx status keeps the route's own body and any other
  // status is sent with an empty body.
  std::optional<int> status;
  // Replaces the body (and its Content-Type).
  std::optional<std::string> body;
  std::string contentType = "application/json";
  // Waited before anything is sent.
  std::chrono::milliseconds delay{0};
  // Closes the connection without sending a single byte of response.
  bool dropConnection = false;
  // Headers promise the whole body; only this many body bytes are sent, then the connection closes.
  std::optional<std::uint64_t> cutAfterBytes;
  // Content-Length states this while the real body is sent; the connection closes afterwards.
  std::optional<std::uint64_t> declaredLength;
  // Paces the body to this many bytes per second (0: unlimited).
  std::uint64_t bytesPerSecond = 0;
  // Answers 200 with the full body although the request asked for a range.
  bool ignoreRange = false;
  // The file is replaced by a new version (new bytes, new ETag) before this request is served;
  // it stays changed for later requests.
  bool changeFile = false;

  static Fault statusCode(int status);
  static Fault errorDocument(int status, std::string message, std::string code,
                             std::uint64_t errorNumber,
                             std::vector<std::pair<std::string, std::string>> fieldErrors = {});
  static Fault customBody(int status, std::string body,
                          std::string contentType = "application/json");
  static Fault invalidJson(int status = 200);
  static Fault delayed(std::chrono::milliseconds delay);
  static Fault droppedConnection();
  static Fault cutShort(std::uint64_t bytesSent);
  static Fault wrongContentLength(std::uint64_t declared);
  static Fault bandwidth(std::uint64_t bytesPerSecond);
  static Fault rangeIgnored();
  static Fault fileChanged();
};

// Which requests of a route a rule hits, counted from the moment the rule is added.
struct Trigger {
  std::uint64_t skip = 0;                  // requests let through first
  std::optional<std::uint64_t> count = 1;  // requests hit after that; none: all of them

  static Trigger nth(std::uint64_t n);   // only the n-th request (1-based)
  static Trigger next(std::uint64_t n);  // the next n requests
  static Trigger always();               // every request
};

// One rule of a plan given whole (see FaultPlan::replace).
struct FaultRule {
  Route route = Route::kMetadata;
  Fault fault;
  Trigger trigger;
  std::optional<std::string> path;
};

class FaultPlan {
 public:
  using RuleId = std::uint64_t;

  // `path`, when given, limits the rule to requests for exactly that path (e.g. one chapter).
  RuleId add(Route route, Fault fault, Trigger trigger = Trigger::next(1),
             std::optional<std::string> path = std::nullopt);
  void remove(RuleId id);
  void clear();
  // Swaps the whole plan for `rules` at once, so that no request sees half of each, and returns
  // the new rules' ids in the same order. Their counts start from this moment.
  std::vector<RuleId> replace(std::vector<FaultRule> rules);
  // How many requests the rule has hit so far.
  std::uint64_t hits(RuleId id) const;

  // Counts this request against every rule of its route and returns the fault of the first rule
  // (in the order added) that hits it.
  std::optional<Fault> pick(Route route, std::string_view path);

 private:
  struct Rule {
    RuleId id;
    Route route;
    Fault fault;
    Trigger trigger;
    std::optional<std::string> path;
    std::uint64_t seen = 0;
    std::uint64_t hits = 0;
  };

  mutable std::mutex mutex_;
  std::vector<Rule> rules_;  // guarded by mutex_
  RuleId nextId_ = 1;        // guarded by mutex_
};

}  // namespace sonorell::content
