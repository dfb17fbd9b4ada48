#include "platform/net/reachability.h"

#include <fstream>
#include <limits>
#include <sstream>
#include <string>
#include <utility>

namespace sonorell {
namespace {

// From linux/route.h and linux/ipv6_route.h (the same values for both families).
constexpr unsigned long kRouteUp = 0x0001;
constexpr unsigned long kRouteReject = 0x0200;

// The best (lowest metric) default route of one family: its interface, empty if none.
struct DefaultRoute {
  std::string iface;
  unsigned long metric = std::numeric_limits<unsigned long>::max();
  void offer(const std::string& name, unsigned long routeMetric) {
    if (iface.empty() || routeMetric < metric) {
      iface = name;
      metric = routeMetric;
    }
  }
};

bool usable(unsigned long flags) { return (flags & kRouteUp) && !(flags & kRouteReject); }

// /proc/net/route: a header, then "Iface Destination Gateway Flags RefCnt Use Metric Mask ..."
// in hex (addresses in network order). A default route has destination and mask 0.
std::optional<DefaultRoute> readIPv4(const std::filesystem::path& file) {
  std::ifstream table(file);
  if (!table) return std::nullopt;
  DefaultRoute best;
  std::string line;
  std::getline(table, line);  // the header
  while (std::getline(table, line)) {
    std::istringstream fields(line);
    std::string iface, destination, gateway, mask;
    unsigned long flags = 0, refcnt = 0, use = 0, metric = 0;
    if (!(fields >> iface >> destination >> gateway >> std::hex >> flags >> std::dec >> refcnt >>
          use >> metric >> mask)) {
      continue;
    }
    if (destination != "00000000" || mask != "00000000" || !usable(flags)) continue;
    best.offer(iface, metric);
  }
  return best;
}

// /proc/net/ipv6_route: "Destination PrefixLength Source SourcePrefixLength NextHop Metric
// RefCnt Use Flags Iface", all hex. A default route is ::/0 from any source. The kernel lists
// its "unreachable" default on lo among them, as a reject route.
DefaultRoute readIPv6(const std::filesystem::path& file) {
  std::ifstream table(file);
  DefaultRoute best;
  std::string line;
  while (std::getline(table, line)) {
    std::istringstream fields(line);
    std::string destination, prefix, source, sourcePrefix, nextHop, iface;
    unsigned long metric = 0, refcnt = 0, use = 0, flags = 0;
    if (!(fields >> destination >> prefix >> source >> sourcePrefix >> nextHop >> std::hex >>
          metric >> refcnt >> use >> flags >> iface)) {
      continue;
    }
    if (destination != std::string(32, '0') || prefix != "00" || sourcePrefix != "00" ||
        !usable(flags)) {
      continue;
    }
    best.offer(iface, metric);
  }
  return best;
}

ConnectionType classify(const std::filesystem::path& sysClassNet, const std::string& name) {
  const std::filesystem::path dir = sysClassNet / name;
  std::error_code ec;
  if (std::filesystem::exists(dir / "wireless", ec) ||
      std::filesystem::exists(dir / "phy80211", ec)) {
    return ConnectionType::WiFi;
  }
  std::ifstream uevent(dir / "uevent");
  std::string line;
  while (std::getline(uevent, line)) {
    if (line == "DEVTYPE=wlan") return ConnectionType::WiFi;
    if (line == "DEVTYPE=wwan") return ConnectionType::Cellular;
  }
  if (name.rfind("wwan", 0) == 0) return ConnectionType::Cellular;
  return ConnectionType::WiFi;  // wired, or anything else: not metered
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

LinuxRouteReachabilitySource::LinuxRouteReachabilitySource(std::filesystem::path procNet,
                                                           std::filesystem::path sysClassNet,
                                                           Watch watch)
    : procNet_(std::move(procNet)), sysClassNet_(std::move(sysClassNet)) {
  const bool realRoots = procNet_ == kProcNet && sysClassNet_ == kSysClassNet;
  if (watch == Watch::kAlways || (watch == Watch::kIfRealRoots && realRoots)) {
    // Runs on the monitor's thread, which the destructor joins before any member goes.
    monitor_ = NetlinkRouteMonitor::start([this] { changed(); });
  }
}

LinuxRouteReachabilitySource::~LinuxRouteReachabilitySource() { monitor_.reset(); }

ConnectionType LinuxRouteReachabilitySource::read() {
  const auto ipv4 = readIPv4(procNet_ / "route");
  if (!ipv4) return ConnectionType::Unknown;
  const DefaultRoute ipv6 = readIPv6(procNet_ / "ipv6_route");
  ConnectionType type = ConnectionType::None;
  for (const DefaultRoute* route : {&*ipv4, &ipv6}) {
    if (route->iface.empty()) continue;
    if (classify(sysClassNet_, route->iface) == ConnectionType::Cellular) {
      return ConnectionType::Cellular;
    }
    type = ConnectionType::WiFi;
  }
  return type;
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
  // One read and its store at a time: the monitor's thread and callers refresh concurrently,
  // and a read taken before a change must not be stored after one taken since. Taken after
  // `source` was copied, so it is let go before a last reference to the source is (whose
  // destructor waits for its monitor's thread, which may be waiting here).
  std::lock_guard order(refreshMutex_);
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

ObservationToken Reachability::observe(DispatchQueuePtr queue, Callback callback) {
  return observers_.add(std::move(queue), std::move(callback), "Reachability::observe");
}

}  // namespace sonorell
