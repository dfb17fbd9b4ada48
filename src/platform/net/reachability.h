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

// The default route's interface from /proc/net/route: a wireless interface (a "wireless" or
// "phy80211" entry in sysfs) is Wi-Fi, a WWAN one (DEVTYPE=wwan or a wwan* name) is cellular, any
// other (wired) counts as Wi-Fi since it is not metered; no default route is none; an unreadable
// route table is unknown. The roots are parameters so that tests can build their own.
class LinuxRouteReachabilitySource : public ReachabilitySource {
 public:
  explicit LinuxRouteReachabilitySource(std::filesystem::path routeTable = "/proc/net/route",
                                        std::filesystem::path sysClassNet = "/sys/class/net");
  ConnectionType read() override;

 private:
  const std::filesystem::path routeTable_;
  const std::filesystem::path sysClassNet_;
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

  // The process-wide instance, reading the Linux route table until setSource().
  static std::shared_ptr<Reachability> shared();
  static std::shared_ptr<Reachability> create(std::shared_ptr<ReachabilitySource> source);

  // The type last read (reads once if nothing was read yet).
  ConnectionType connectionType();
  // Replaces the source and re-reads it.
  void setSource(std::shared_ptr<ReachabilitySource> source);
  // Re-reads the source; observers hear of a change.
  ConnectionType refresh();
  // Re-reads every `interval` of Clock::current() time, for sources without change handlers.
  void startMonitoring(Duration interval);
  void stopMonitoring();

  // Every change of type, on `queue`. A null queue is refused (see observation.h).
  ObservationToken observe(DispatchQueuePtr queue, Callback callback);

 private:
  explicit Reachability(std::shared_ptr<ReachabilitySource> source);
  void installHandler();

  std::mutex mutex_;
  std::shared_ptr<ReachabilitySource> source_;
  std::optional<ConnectionType> last_;
  std::shared_ptr<DispatchTimer> timer_;
  ObserverList<ConnectionType> observers_;
};

}  // namespace sonorell
