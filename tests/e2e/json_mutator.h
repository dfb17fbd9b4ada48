// A seeded mutator of JSON documents for the end-to-end fuzz runs: it damages a valid metadata or
// playlist document the way broken servers and proxies do (values of the wrong type or range,
// missing and renamed keys, hostile strings, cut-off and spliced text). Same seed, same output.
// Not thread-safe; one per test.
#pragma once

#include <nlohmann/json.hpp>

#include <cstdint>
#include <random>
#include <string>
#include <vector>

namespace sonorell::e2e {

class JsonMutator {
 public:
  // `victims` are strings worth planting as values (another book's identifier, say).
  JsonMutator(uint64_t seed, std::vector<std::string> victims);

  // One to four mutations of `document` (one with a `focus`), as text. The text is ASCII (every
  // non-ASCII or control character escaped), so any JSON string can carry it. With a `focus`, only
  // the value there is damaged, and the text stays JSON: the rest of the document still reads.
  std::string mutate(const nlohmann::json& document) {
    return mutate(document, nlohmann::json::json_pointer());
  }
  std::string mutate(const nlohmann::json& document, const nlohmann::json::json_pointer& focus);

 private:
  uint64_t below(uint64_t n) {
    return n == 0 ? 0 : std::uniform_int_distribution<uint64_t>(0, n - 1)(random_);
  }
  nlohmann::json hostileValue();
  std::string hostileString();
  void mutateTree(nlohmann::json& node, int depth);
  void mutateText(std::string& text);

  std::mt19937_64 random_;
  std::vector<std::string> victims_;
};

// The seed of case `index` of a run with `seed`, so that each case can be replayed alone.
uint64_t caseSeed(uint64_t seed, uint64_t index);

}  // namespace sonorell::e2e
