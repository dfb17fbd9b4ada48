#include "platform/foundation/process_activity.h"

#include <condition_variable>
#include <map>
#include <mutex>

namespace sonorell {

namespace {

struct Activities {
  std::mutex mutex;
  std::condition_variable ended;
  std::map<ProcessActivity::Id, std::string> open;  // guarded by mutex
  ProcessActivity::Id next = 1;                     // guarded by mutex
};

Activities& activities() {
  static auto* all = new Activities();  // never destroyed: activities may end during exit
  return *all;
}

}  // namespace

ProcessActivity::Id ProcessActivity::begin(std::string reason) {
  auto& all = activities();
  std::lock_guard lock(all.mutex);
  const Id id = all.next++;
  all.open.emplace(id, std::move(reason));
  return id;
}

void ProcessActivity::end(Id id) {
  auto& all = activities();
  std::lock_guard lock(all.mutex);
  if (all.open.erase(id) > 0) all.ended.notify_all();
}

std::vector<std::string> ProcessActivity::openReasons() {
  auto& all = activities();
  std::lock_guard lock(all.mutex);
  std::vector<std::string> reasons;
  for (const auto& [id, reason] : all.open) reasons.push_back(reason);
  return reasons;
}

bool ProcessActivity::waitUntilNoneOpen(std::chrono::milliseconds limit) {
  auto& all = activities();
  std::unique_lock lock(all.mutex);
  return all.ended.wait_for(lock, limit, [&] { return all.open.empty(); });
}

}  // namespace sonorell
