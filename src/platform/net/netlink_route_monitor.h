// The kernel's routing notifications, heard on a NETLINK_ROUTE socket: links, IPv4 and IPv6
// addresses and routes. One thread per monitor waits in poll() with no time-out (a shutdown is
// an eventfd write), so nothing wakes while the network stands still. After each batch of
// messages that may change the default route (a link or address change, a default route added
// or removed, or an overrun of the socket's buffer, which loses messages) it calls `onChange`
// on that thread, and once more kSettleDelay after the last such batch: the kernel tells of a
// link going down a moment before it drops the link's IPv4 routes, and a reader woken by the
// first message may still see them.
//
// The monitor only watches the network namespace of the thread that starts it.
#pragma once

#include <chrono>
#include <functional>
#include <memory>
#include <thread>

namespace sonorell {

class NetlinkRouteMonitor {
 public:
  // Real time (poll's time-out), not the engine's Clock: it only waits out the kernel, once
  // after each burst of messages.
  static constexpr std::chrono::milliseconds kSettleDelay{100};

  // Opens and subscribes the socket and starts the thread. Null when the socket cannot be
  // opened or subscribed (no netlink in a sandbox, out of descriptors); that is logged as one
  // error through the platform log.
  static std::unique_ptr<NetlinkRouteMonitor> start(std::function<void()> onChange);

  // Wakes the thread and joins it: when this returns, `onChange` is not running and is never
  // called again. Called from inside `onChange` (on the monitor's own thread) it cannot wait
  // for itself: the thread then ends as soon as `onChange` returns, without calling it again.
  ~NetlinkRouteMonitor();
  NetlinkRouteMonitor(const NetlinkRouteMonitor&) = delete;
  NetlinkRouteMonitor& operator=(const NetlinkRouteMonitor&) = delete;

 private:
  struct State;
  explicit NetlinkRouteMonitor(std::shared_ptr<State> state);

  // Shared with the thread, which may outlive this object when it destroyed it (see above).
  const std::shared_ptr<State> state_;
  std::thread thread_;
};

}  // namespace sonorell
