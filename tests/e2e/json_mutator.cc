#include "json_mutator.h"

#include <limits>
#include <utility>

namespace sonorell::e2e {

using nlohmann::json;
using namespace std::string_literals;

namespace {

// splitmix64: spreads neighbouring indexes over unrelated seeds.
uint64_t mix(uint64_t x) {
  x += 0x9e3779b97f4a7c15ULL;
  x = (x ^ (x >> 30)) * 0xbf58476d1ce4e5b9ULL;
  x = (x ^ (x >> 27)) * 0x94d049bb133111ebULL;
  return x ^ (x >> 31);
}

}  // namespace

uint64_t caseSeed(uint64_t seed, uint64_t index) { return mix(seed ^ mix(index)); }

JsonMutator::JsonMutator(uint64_t seed, std::vector<std::string> victims)
    : random_(seed), victims_(std::move(victims)) {}

std::string JsonMutator::hostileString() {
  static const std::vector<std::string> kStrings = {
      "",
      " ",
      "../",
      "..",
      "../../../../../tmp/sonorell-escape",
      "'); DROP TABLE audiobookStatus; --",
      "\"",
      "1001\0../x"s,
      std::string(10'000, 'A'),
      "%00",
      "%2e%2e%2f",
      "1001_0_1",
      "https://",
      "https://127.0.0.1:1/nothing.mp3",
      "qlso://1001_0_1",
      "\xc3\xbc\xe2\x82\xac\xf0\x9f\x98\x80",  // a few characters beyond ASCII
      "2099-13-45T99:99:99+9999",
      "1970-01-01T00:00:00+0000",
      "-1",
      "18446744073709551616",
  };
  if (!victims_.empty() && below(4) == 0) return victims_[below(victims_.size())];
  return kStrings[below(kStrings.size())];
}

json JsonMutator::hostileValue() {
  switch (below(16)) {
    case 0:
      return nullptr;
    case 1:
      return below(2) == 0;
    case 2:
      return 0;
    case 3:
      return -1;
    case 4:
      return std::numeric_limits<int64_t>::max();
    case 5:
      return std::numeric_limits<uint64_t>::max();
    case 6:
      return std::numeric_limits<int64_t>::min();
    case 7:
      return 1e308;
    case 8:
      return -0.5;
    case 9:
      return json::array();
    case 10:
      return json::object();
    case 11: {
      json deep = json::array();
      for (int i = 0; i < 200; ++i) deep = json::array({deep});
      return deep;
    }
    case 12: {
      json many = json::array();
      for (int i = 0; i < 2000; ++i) many.push_back(i);
      return many;
    }
    case 13:
      return json{{hostileString(), hostileString()}};
    default:
      return hostileString();
  }
}

void JsonMutator::mutateTree(json& node, int depth) {
  const bool container = (node.is_object() || node.is_array()) && !node.empty();
  if (container && depth < 8 && below(3) != 0) {
    auto it = node.begin();
    std::advance(it, static_cast<long>(below(node.size())));
    mutateTree(*it, depth + 1);
    return;
  }
  if (node.is_object() && !node.empty()) {
    auto it = node.begin();
    std::advance(it, static_cast<long>(below(node.size())));
    const std::string key = it.key();
    switch (below(4)) {
      case 0:
        node.erase(key);
        return;
      case 1: {  // renamed: the reader no longer finds it
        json value = *it;
        node.erase(key);
        node[key + (below(2) == 0 ? "_" : "X")] = std::move(value);
        return;
      }
      case 2:
        *it = hostileValue();
        return;
      default:
        node[hostileString()] = hostileValue();
        return;
    }
  }
  if (node.is_array() && !node.empty()) {
    const auto at = below(node.size());
    switch (below(5)) {
      case 0:
        node.erase(at);
        return;
      case 1:
        node.push_back(node[at]);
        return;
      case 2:
        node = json::array();
        return;
      case 3:
        node[at] = hostileValue();
        return;
      default:
        node.push_back(hostileValue());
        return;
    }
  }
  node = hostileValue();
}

void JsonMutator::mutateText(std::string& text) {
  if (text.empty()) return;
  static const std::string kAlphabet = "{}[]\":,.-+eE0123456789 truenulfas\\/u";
  const auto at = below(text.size());
  const auto span = 1 + below(std::min<uint64_t>(64, text.size() - at));
  switch (below(6)) {
    case 0:
      text.resize(at);
      return;
    case 1:
      text.erase(at, span);
      return;
    case 2:
      for (auto n = 1 + below(8); n > 0; --n) {
        text.insert(text.begin() + static_cast<long>(at), kAlphabet[below(kAlphabet.size())]);
      }
      return;
    case 3:
      text.insert(at, text.substr(at, span));
      return;
    case 4:
      text[at] = "0123456789-"[below(11)];
      return;
    default:
      std::swap(text[at], text[below(text.size())]);
      return;
  }
}

std::string JsonMutator::mutate(const json& document, const json::json_pointer& focus) {
  json copy = document;
  const bool focused = !focus.empty() && copy.contains(focus);
  // Mutations compound; a focused one is single, so that what it spares is still used.
  const auto mutations = focused ? 1 : 1 + below(4);
  const auto textual = !focused && below(5) < 2 ? 1 + below(mutations) : 0;
  for (uint64_t i = textual; i < mutations; ++i) mutateTree(focused ? copy[focus] : copy, 0);
  std::string text = copy.dump(-1, ' ', /*ensure_ascii=*/true, json::error_handler_t::replace);
  for (uint64_t i = 0; i < textual; ++i) mutateText(text);
  return text;
}

}  // namespace sonorell::e2e
