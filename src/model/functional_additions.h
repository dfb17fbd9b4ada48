// The array helper `map`: a new array of the results of a function called on each element in
// order. Header-only and stateless; safe from any thread.
#pragma once

#include <cstddef>
#include <type_traits>
#include <vector>

namespace sonorell {

// Calls `transform(element, index, stop)` on each element in order and collects every result.
// A call that sets `stop` to true still has its result kept; no element after it is visited.
template <class T, class F>
auto map(const std::vector<T>& elements, F&& transform) {
  using Result = std::decay_t<std::invoke_result_t<F&, const T&, size_t, bool&>>;
  std::vector<Result> results;
  results.reserve(elements.size());
  bool stop = false;
  for (size_t index = 0; index < elements.size(); ++index) {
    results.push_back(transform(elements[index], index, stop));
    if (stop) break;
  }
  return results;
}

}  // namespace sonorell
