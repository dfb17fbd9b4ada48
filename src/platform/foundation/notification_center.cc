// Notification centre: a mutex-guarded observer list, snapshotted for each post so that
// observers may add or remove observers while being called.
#include "sonorell/notification_center.h"

#include <atomic>
#include <mutex>
#include <vector>

namespace sonorell {

namespace {
struct Entry {
  NotificationCenter::Token token;
  std::string name;
  NotificationCenter::Observer observer;
  std::atomic<bool> removed{false};
};
}  // namespace

struct NotificationCenter::State {
  std::mutex mutex;
  Token nextToken = 1;
  std::vector<std::shared_ptr<Entry>> entries;
};

NotificationCenter::NotificationCenter() : state_(std::make_unique<State>()) {}
NotificationCenter::~NotificationCenter() = default;

NotificationCenter& NotificationCenter::defaultCenter() {
  static NotificationCenter* center = new NotificationCenter();  // lives for the process
  return *center;
}

NotificationCenter::Token NotificationCenter::addObserver(std::string name, Observer observer) {
  auto entry = std::make_shared<Entry>();
  entry->name = std::move(name);
  entry->observer = std::move(observer);
  std::lock_guard lock(state_->mutex);
  entry->token = state_->nextToken++;
  state_->entries.push_back(entry);
  return entry->token;
}

void NotificationCenter::removeObserver(Token token) {
  std::lock_guard lock(state_->mutex);
  auto& entries = state_->entries;
  for (auto it = entries.begin(); it != entries.end(); ++it) {
    if ((*it)->token == token) {
      (*it)->removed = true;
      entries.erase(it);
      return;
    }
  }
}

void NotificationCenter::post(const std::string& name, std::shared_ptr<const void> object,
                              Dictionary userInfo) {
  std::vector<std::shared_ptr<Entry>> matching;
  {
    std::lock_guard lock(state_->mutex);
    for (const auto& entry : state_->entries) {
      if (entry->name.empty() || entry->name == name) matching.push_back(entry);
    }
  }
  if (matching.empty()) return;
  const Notification notification{name, std::move(object), std::move(userInfo)};
  for (const auto& entry : matching) {
    if (!entry->removed) entry->observer(notification);
  }
}

}  // namespace sonorell
