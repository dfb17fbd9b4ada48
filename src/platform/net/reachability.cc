#include "platform/net/reachability.h"

#include <fstream>
#include <limits>
#include <sstream>
#include <string>
#include <utility>

namespace sonorell {
namespace {

constexpr unsigned kRouteFlagUp = 0x1;

bool isWwan(const std::filesystem::path& dir, const std::string& name) {
  if (name.rfind("wwan", 0) == 0) return true;
  std::ifstream uevent(dir / "uevent");
  std::string line;
  while (std::getline(uevent, line)) {
    if (line == "DEVTYPE=wwan") return true;
  }
  return false;
}

}  // namespace

void ReachabilitySource::setChangeHandler(std::function<void()> handler) {
  std::lock_guard lock(mutex_);
  handler_ = std::move(handler);
}

void ReachabilitySource::changed() {
  std::function<void()> handler;
  {
    std::lock_guard lock(mutex_);
    handler = handler_;
  }
  if (handler) handler();
}

LinuxRouteReachabilitySource::LinuxRouteReachabilitySource(std::filesystem::path routeTable,
                                                           std::filesystem::path sysClassNet)
    : routeTable_(std::move(routeTable)), sysClassNet_(std::move(sysClassNet)) {}

ConnectionType LinuxRouteReachabilitySource::read() {
  std::ifstream table(routeTable_);
  if (!table) return ConnectionType::Unknown;
  std::string line;
  std::getline(table, line);  // the header
  std::string best;
  unsigned long bestMetric = std::numeric_limits<unsigned long>::max();
  while (std::getline(table, line)) {
    std::istringstream fields(line);
    std::string iface, destination, gateway;
    unsigned flags = 0;
    unsigned long refcnt = 0, use = 0, metric = 0;
    if (!(fields >> iface >> destination >> gateway >> std::hex >> flags >> std::dec >> refcnt >>
          use >> metric)) {
      continue;
    }
    if (destination != "00000000" || !(flags & kRouteFlagUp)) continue;
    if (metric < bestMetric) {
      best = iface;
      bestMetric = metric;
    }
  }
  if (best.empty()) return ConnectionType::None;
  std::filesystem::path dir = sysClassNet_ / best;
  std::error_code ec;
  if (std::filesystem::exists(dir / "wireless", ec) ||
      std::filesystem::exists(dir / "phy80211", ec)) {
    return ConnectionType::WiFi;
  }
  if (isWwan(dir, best)) return ConnectionType::Cellular;
  return ConnectionType::WiFi;
}

ConnectionType ManualReachabilitySource::read() {
  std::lock_guard lock(typeMutex_);
  return type_;
}

void ManualReachabilitySource::set(ConnectionType type) {
  {
    std::lock_guard lock(typeMutex_);
    type_ = type;
  }
  changed();
}

std::shared_ptr<Reachability> Reachability::shared() {
  static std::shared_ptr<Reachability> shared =
      create(std::make_shared<LinuxRouteReachabilitySource>());
  return shared;
}

std::shared_ptr<Reachability> Reachability::create(std::shared_ptr<ReachabilitySource> source) {
  std::shared_ptr<Reachability> reachability(new Reachability(std::move(source)));
  reachability->installHandler();
  return reachability;
}

Reachability::Reachability(std::shared_ptr<ReachabilitySource> source)
    : source_(std::move(source)) {}

void Reachability::installHandler() {
  std::shared_ptr<ReachabilitySource> source;
  {
    std::lock_guard lock(mutex_);
    source = source_;
  }
  std::weak_ptr<Reachability> weak = weak_from_this();
  if (source) {
    source->setChangeHandler([weak] {
      if (auto self = weak.lock()) self->refresh();
    });
  }
}

ConnectionType Reachability::connectionType() {
  {
    std::lock_guard lock(mutex_);
    if (last_) return *last_;
  }
  return refresh();
}

void Reachability::setSource(std::shared_ptr<ReachabilitySource> source) {
  std::shared_ptr<ReachabilitySource> old;
  {
    std::lock_guard lock(mutex_);
    old = std::exchange(source_, std::move(source));
  }
  if (old) old->setChangeHandler(nullptr);
  installHandler();
  refresh();
}

ConnectionType Reachability::refresh() {
  std::shared_ptr<ReachabilitySource> source;
  {
    std::lock_guard lock(mutex_);
    source = source_;
  }
  ConnectionType type = source ? source->read() : ConnectionType::Unknown;
  bool changed;
  {
    std::lock_guard lock(mutex_);
    changed = last_.has_value() && *last_ != type;
    last_ = type;
    // Notified under the lock so that observers see changes in the order they were read.
    if (changed) observers_.notify(type);
  }
  return type;
}

void Reachability::startMonitoring(Duration interval) {
  std::weak_ptr<Reachability> weak = weak_from_this();
  auto timer = DispatchTimer::create(DispatchQueue::create("io.sonorell.reachability"), interval,
                                     Duration{0}, [weak] {
                                       if (auto self = weak.lock()) self->refresh();
                                     });
  timer->resume();
  std::shared_ptr<DispatchTimer> old;
  {
    std::lock_guard lock(mutex_);
    old = std::exchange(timer_, timer);
  }
  if (old) old->cancel();
}

void Reachability::stopMonitoring() {
  std::shared_ptr<DispatchTimer> old;
  {
    std::lock_guard lock(mutex_);
    old = std::exchange(timer_, nullptr);
  }
  if (old) old->cancel();
}

ObservationToken Reachability::observe(DispatchQueuePtr queue, Callback callback) {
  return observers_.add(std::move(queue), std::move(callback), "Reachability::observe");
}

}  // namespace sonorell
