// Network reachability for the Wi-Fi-only rule: the connection type of the default route. The
// source is replaceable (a test or a host sets cellular or Wi-Fi by hand) and observers hear of
// every change on their queue. State is guarded by the Reachability's own mutex.
#pragma once

#include <filesystem>
#include <functional>
#include <memory>
#include <mutex>
#include <optional>

#include "platform/dispatch/dispatch_group.h"
#include "platform/dispatch/observation.h"
#include "platform/net/netlink_route_monitor.h"

namespace sonorell {

enum class ConnectionType { Unknown = 0, None = 1, Cellular = 2, WiFi = 3 };

class ReachabilitySource {
 public:
  virtual ~ReachabilitySource() = default;
  virtual ConnectionType read() = 0;
  // A source that knows of its own changes calls this; Reachability installs it.
  void setChangeHandler(std::function<void()> handler);

 protected:
  void changed();

 private:
  std::mutex mutex_;
  std::function<void()> handler_;
};

// The connection type of the default routes in <procNet>/route and <procNet>/ipv6_route (the
// latter may be missing: a kernel without IPv6). Of each family the default route with the
// lowest metric counts (reject and unreachable routes do not); its interface is cellular when
// WWAN (DEVTYPE=wwan in its sysfs uevent, or a wwan* name), otherwise Wi-Fi: a wireless
// interface ("wireless" or "phy80211" in sysfs, or DEVTYPE=wlan) and a wired one alike, since
// neither is metered. If either family's route is cellular the link is cellular (that
// family's traffic is metered); without a default route it is none; an unreadable IPv4 table
// is unknown. The roots are parameters so that tests can build their own trees.
//
// Made for the real roots, the source watches the kernel's routing notifications (netlink,
// see netlink_route_monitor.h) and tells its change handler within milliseconds of a change;
// when netlink cannot be opened that is logged once and the source is read only when asked.
class LinuxRouteReachabilitySource : public ReachabilitySource {
 public:
  static constexpr const char* kProcNet = "/proc/net";
  static constexpr const char* kSysClassNet = "/sys/class/net";
  // kIfRealRoots watches only when both roots are the real ones: a fake tree does not follow
  // the kernel. kAlways also watches for other roots (a test's view of another namespace).
  enum class Watch { kIfRealRoots, kAlways, kNever };

  explicit LinuxRouteReachabilitySource(std::filesystem::path procNet = kProcNet,
                                        std::filesystem::path sysClassNet = kSysClassNet,
                                        Watch watch = Watch::kIfRealRoots);
  // Stops watching first: no change is told once it runs.
  ~LinuxRouteReachabilitySource() override;
  ConnectionType read() override;
  // Whether the kernel's notifications are heard (watching was asked for and netlink opened).
  bool watchesKernel() const { return monitor_ != nullptr; }

 private:
  const std::filesystem::path procNet_;
  const std::filesystem::path sysClassNet_;
  // Last, so that it is stopped before anything it reads goes.
  std::unique_ptr<NetlinkRouteMonitor> monitor_;
};

// A type set by hand, for tests and hosts that know better.
class ManualReachabilitySource : public ReachabilitySource {
 public:
  explicit ManualReachabilitySource(ConnectionType type = ConnectionType::WiFi) : type_(type) {}
  ConnectionType read() override;
  void set(ConnectionType type);

 private:
  std::mutex typeMutex_;
  ConnectionType type_;
};

class Reachability : public std::enable_shared_from_this<Reachability> {
 public:
  using Callback = std::function<void(ConnectionType type)>;

  // The process-wide instance: the Linux route tables, watched by netlink so that observers hear
  // of changes by themselves (see LinuxRouteReachabilitySource), until setSource().
  static std::shared_ptr<Reachability> shared();
  static std::shared_ptr<Reachability> create(std::shared_ptr<ReachabilitySource> source);

  // The type last read (reads once if nothing was read yet).
  ConnectionType connectionType();
  // Replaces the source and re-reads it.
  void setSource(std::shared_ptr<ReachabilitySource> source);
  // Re-reads the source; observers hear of a change.
  ConnectionType refresh();

  // Every change of type, on `queue`. A null queue is refused (see observation.h).
  ObservationToken observe(DispatchQueuePtr queue, Callback callback);

 private:
  explicit Reachability(std::shared_ptr<ReachabilitySource> source);
  void installHandler();

  std::mutex refreshMutex_;  // held across one refresh's read and store; taken before mutex_
  std::mutex mutex_;
  std::shared_ptr<ReachabilitySource> source_;
  std::optional<ConnectionType> last_;
  ObserverList<ConnectionType> observers_;
};

}  // namespace sonorell
