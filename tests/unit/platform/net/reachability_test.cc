// Reachability: the connection type read from route tables and sysfs trees built in a temp
// directory, changes of a source set by hand, and the kernel's routing notifications heard
// through netlink. Real route changes are made only in network namespaces of the test's own
// (the host's network is never touched); where the sandbox refuses a namespace, or the right
// to change its routes, those tests skip and say why.
#include <gtest/gtest.h>
#include <net/if.h>
#include <net/route.h>
#include <netinet/in.h>
#include <sched.h>
#include <stdlib.h>
#include <sys/ioctl.h>
#include <sys/socket.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <condition_variable>
#include <cstddef>
#include <cstdio>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <functional>
#include <memory>
#include <mutex>
#include <set>
#include <string>
#include <string_view>
#include <thread>
#include <vector>

#include "platform/dispatch/clock.h"
#include "platform/log/platform_log.h"
#include "platform/net/netlink_route_monitor.h"
#include "platform/net/reachability.h"
#include "support/platform_log_lines.h"

namespace sonorell {
namespace {

using namespace std::chrono_literals;
using SteadyClock = std::chrono::steady_clock;

std::string errnoText(int error) { return std::strerror(error); }

class TempDir {
 public:
  TempDir() {
    std::string pattern = (std::filesystem::temp_directory_path() / "sonorell-reach-XXXXXX");
    if (::mkdtemp(pattern.data())) path_ = pattern;
  }
  ~TempDir() {
    std::error_code ec;
    std::filesystem::remove_all(path_, ec);
  }
  const std::filesystem::path& path() const { return path_; }

 private:
  std::filesystem::path path_;
};

// ---- classification over fake trees

class RouteTableTest : public ::testing::Test {
 protected:
  void writeRoutes(const std::string& rows) {
    std::ofstream(dir_.path() / "route")
        << "Iface\tDestination\tGateway\tFlags\tRefCnt\tUse\tMetric\tMask\tMTU\tWindow\tIRTT\n"
        << rows;
  }
  // Rows "destination prefix source sourcePrefix nexthop metric refcnt use flags iface".
  void writeIPv6Routes(const std::string& rows) {
    std::ofstream(dir_.path() / "ipv6_route") << rows;
  }
  void makeInterface(const std::string& name, const std::string& marker,
                     const std::string& uevent = "") {
    std::filesystem::create_directories(dir_.path() / "net" / name);
    if (!marker.empty()) std::filesystem::create_directories(dir_.path() / "net" / name / marker);
    std::ofstream(dir_.path() / "net" / name / "uevent") << uevent;
  }
  ConnectionType read() {
    return LinuxRouteReachabilitySource(dir_.path(), dir_.path() / "net").read();
  }
  TempDir dir_;
};

constexpr const char* kAny6 = "00000000000000000000000000000000";
std::string ipv6Route(const std::string& destination, const std::string& prefix,
                      const std::string& metric, const std::string& flags,
                      const std::string& iface) {
  return destination + " " + prefix + " " + kAny6 + " 00 fe800000000000000000000000000001 " +
         metric + " 00000001 00000000 " + flags + " " + iface + "\n";
}

TEST_F(RouteTableTest, DefaultRouteInterfaceDecidesTheType) {
  makeInterface("wlp2s0", "wireless");
  makeInterface("wlan1", "", "DEVTYPE=wlan\n");
  makeInterface("wwan0", "", "DEVTYPE=wwan\n");
  makeInterface("usb0", "", "DEVTYPE=wwan\n");
  makeInterface("enp3s0", "");
  writeRoutes("wlp2s0\t0000A8C0\t00000000\t0001\t0\t0\t600\t00FFFFFF\t0\t0\t0\n");
  EXPECT_EQ(read(), ConnectionType::None);  // a subnet route is not a default route
  writeRoutes("wlp2s0\t00000000\t0100A8C0\t0003\t0\t0\t600\t00000000\t0\t0\t0\n");
  EXPECT_EQ(read(), ConnectionType::WiFi);
  writeRoutes(
      "wlp2s0\t00000000\t0100A8C0\t0003\t0\t0\t600\t00000000\t0\t0\t0\n"
      "usb0\t00000000\t0100A8C0\t0003\t0\t0\t100\t00000000\t0\t0\t0\n");
  EXPECT_EQ(read(), ConnectionType::Cellular);  // the lower metric wins
  writeRoutes(
      "wwan0\t00000000\t0100A8C0\t0003\t0\t0\t700\t00000000\t0\t0\t0\n"
      "wlan1\t00000000\t0100A8C0\t0003\t0\t0\t600\t00000000\t0\t0\t0\n");
  EXPECT_EQ(read(), ConnectionType::WiFi);  // DEVTYPE=wlan, ahead of the metered one
  writeRoutes("wwan0\t00000000\t0100A8C0\t0002\t0\t0\t10\t00000000\t0\t0\t0\n");
  EXPECT_EQ(read(), ConnectionType::None);  // not up
  writeRoutes("*\t00000000\t00000000\t0201\t0\t0\t0\t00000000\t0\t0\t0\n");
  EXPECT_EQ(read(), ConnectionType::None);  // "unreachable default" is a reject route
  // A VPN's 0.0.0.0/1 covers half the addresses but is not the default route.
  writeRoutes(
      "wwan0\t00000000\t00000000\t0001\t0\t0\t0\t00000080\t0\t0\t0\n"
      "wlp2s0\t00000000\t0100A8C0\t0003\t0\t0\t600\t00000000\t0\t0\t0\n");
  EXPECT_EQ(read(), ConnectionType::WiFi);
  writeRoutes("enp3s0\t00000000\t0100A8C0\t0003\t0\t0\t100\t00000000\t0\t0\t0\n");
  EXPECT_EQ(read(), ConnectionType::WiFi);  // wired is not metered
  writeRoutes("wwan1\t00000000\t0100A8C0\t0003\t0\t0\t100\t00000000\t0\t0\t0\n");
  EXPECT_EQ(read(), ConnectionType::Cellular);  // by its name, without a sysfs entry
  std::filesystem::remove(dir_.path() / "route");
  EXPECT_EQ(read(), ConnectionType::Unknown);
}

TEST_F(RouteTableTest, IPv6DefaultRoutesCountToo) {
  makeInterface("wlp2s0", "phy80211");
  makeInterface("wwan0", "", "DEVTYPE=wwan\n");
  writeRoutes("");
  // No ipv6_route file (a kernel without IPv6) and no IPv4 default: none.
  EXPECT_EQ(read(), ConnectionType::None);
  // The kernel's own unreachable default on lo is a reject route; a /64 is no default.
  writeIPv6Routes(
      ipv6Route(kAny6, "00", "ffffffff", "00200200", "lo") +
      ipv6Route("fd000000000000000000000000000000", "40", "00000100", "00000001", "wwan0"));
  EXPECT_EQ(read(), ConnectionType::None);
  // An IPv6-only default route.
  writeIPv6Routes(ipv6Route(kAny6, "00", "00000400", "00000003", "wlp2s0"));
  EXPECT_EQ(read(), ConnectionType::WiFi);
  writeIPv6Routes(ipv6Route(kAny6, "00", "00000400", "00000003", "wlp2s0") +
                  ipv6Route(kAny6, "00", "00000100", "00000003", "wwan0"));
  EXPECT_EQ(read(), ConnectionType::Cellular);  // metric 0x100 beats 0x400
  writeIPv6Routes(ipv6Route(kAny6, "00", "00000100", "00000003", "wlp2s0") +
                  ipv6Route(kAny6, "00", "00000400", "00000003", "wwan0"));
  EXPECT_EQ(read(), ConnectionType::WiFi);
  // Wi-Fi carries IPv4 while IPv6 goes out over WWAN: that traffic is metered.
  writeRoutes("wlp2s0\t00000000\t0100A8C0\t0003\t0\t0\t600\t00000000\t0\t0\t0\n");
  writeIPv6Routes(ipv6Route(kAny6, "00", "00000400", "00000003", "wwan0"));
  EXPECT_EQ(read(), ConnectionType::Cellular);
}

// ---- Reachability over a source set by hand

TEST(ReachabilityTest, ManualSourceChangesAreObserved) {
  ScopedVirtualClock clock;
  auto manual = std::make_shared<ManualReachabilitySource>(ConnectionType::WiFi);
  auto reachability = Reachability::create(manual);
  EXPECT_EQ(reachability->connectionType(), ConnectionType::WiFi);
  std::vector<ConnectionType> seen;
  auto token = reachability->observe(DispatchQueue::create("io.sonorell.test.reach"),
                                     [&](ConnectionType t) { seen.push_back(t); });
  testing::PlatformLogLines log;
  std::atomic<int> refusedCalls{0};
  auto refused = reachability->observe(nullptr, [&](ConnectionType) { ++refusedCalls; });
  ASSERT_NE(refused, nullptr);
  EXPECT_EQ(log.count("Reachability::observe", LogType::Error), 1u);
  manual->set(ConnectionType::Cellular);
  manual->set(ConnectionType::Cellular);  // no change, no notification
  manual->set(ConnectionType::None);
  ASSERT_TRUE(clock->runUntilIdle());
  EXPECT_EQ(seen, (std::vector<ConnectionType>{ConnectionType::Cellular, ConnectionType::None}));
  EXPECT_EQ(reachability->connectionType(), ConnectionType::None);
  EXPECT_EQ(refusedCalls, 0);  // the refused observer stays silent
}

TEST(ReachabilityTest, OnlyTheRealRootsAreWatchedAndTheWatchEndsAtOnce) {
  using Watch = LinuxRouteReachabilitySource::Watch;
  // Made for the real roots (as Reachability::shared() makes it), the source watches; each one
  // here is destroyed right after it was made, its thread idle in poll().
  const auto begin = SteadyClock::now();
  for (int i = 0; i < 20; ++i) {
    LinuxRouteReachabilitySource source;
    ASSERT_TRUE(source.watchesKernel()) << "netlink could not be opened here";
  }
  EXPECT_LT(SteadyClock::now() - begin, 2s);
  TempDir dir;
  EXPECT_FALSE(LinuxRouteReachabilitySource(dir.path(), dir.path()).watchesKernel());
  EXPECT_TRUE(LinuxRouteReachabilitySource(dir.path(), dir.path(), Watch::kAlways).watchesKernel());
  EXPECT_FALSE(LinuxRouteReachabilitySource(LinuxRouteReachabilitySource::kProcNet,
                                            LinuxRouteReachabilitySource::kSysClassNet,
                                            Watch::kNever)
                   .watchesKernel());
}

// ---- real route changes, in network namespaces of the test's own

// Changes links and IPv4 routes of the network namespace it was made in (its socket stays in
// that namespace whichever thread uses it). Each call returns 0 or the errno.
class LinkControl {
 public:
  LinkControl() : fd_(::socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0)) {}
  ~LinkControl() {
    if (fd_ >= 0) ::close(fd_);
  }
  LinkControl(const LinkControl&) = delete;
  LinkControl& operator=(const LinkControl&) = delete;

  int setUp(const char* name, bool up) {
    if (fd_ < 0) return EBADF;
    ifreq request{};
    std::strncpy(request.ifr_name, name, IFNAMSIZ - 1);
    if (::ioctl(fd_, SIOCGIFFLAGS, &request) != 0) return errno;
    if (up) {
      request.ifr_flags = static_cast<short>(request.ifr_flags | IFF_UP);
    } else {
      request.ifr_flags = static_cast<short>(request.ifr_flags & ~IFF_UP);
    }
    return ::ioctl(fd_, SIOCSIFFLAGS, &request) == 0 ? 0 : errno;
  }
  int addDefaultRoute(const char* device) { return route(SIOCADDRT, 0, 0, device); }
  int deleteDefaultRoute(const char* device) { return route(SIOCDELRT, 0, 0, device); }
  // A host route to 198.51.100.0 + n (TEST-NET-2), n < 256.
  int addHostRoute(unsigned n, const char* device) {
    return route(SIOCADDRT, testNet(n), ~0u, device);
  }
  int deleteHostRoute(unsigned n, const char* device) {
    return route(SIOCDELRT, testNet(n), ~0u, device);
  }

 private:
  int route(unsigned long request, in_addr_t destination, in_addr_t mask, const char* device) {
    if (fd_ < 0) return EBADF;
    rtentry entry{};
    auto put = [](sockaddr& where, in_addr_t address) {
      sockaddr_in in{};
      in.sin_family = AF_INET;
      in.sin_addr.s_addr = address;
      std::memcpy(&where, &in, sizeof in);
    };
    put(entry.rt_dst, destination);
    put(entry.rt_genmask, mask);
    put(entry.rt_gateway, 0);
    entry.rt_flags = RTF_UP | (mask == 0xffffffffu ? RTF_HOST : 0);
    std::string name = device;
    entry.rt_dev = name.data();
    return ::ioctl(fd_, request, &entry) == 0 ? 0 : errno;
  }

  static in_addr_t testNet(unsigned n) {
    return htonl((198u << 24) | (51u << 16) | (100u << 8) | n);
  }

  const int fd_;
};

// Runs `body` on a thread of its own that first moves into a new network namespace: sockets
// it opens, and threads it starts, stay in that namespace; the test's other threads do not.
// Returns why the namespace could not be made, or "".
std::string inNewNetworkNamespace(const std::function<void()>& body) {
  std::string why;
  std::thread([&] {
    if (::unshare(CLONE_NEWNET) != 0) {
      why = "unshare(CLONE_NEWNET): " + errnoText(errno);
      return;
    }
    body();
  }).join();
  return why;
}

// Why real route changes cannot be made here (no namespace, or no right to change its links
// and routes), or "".
std::string routeChangesUnavailable() {
  std::string why;
  const std::string failed = inNewNetworkNamespace([&] {
    LinkControl control;
    if (int error = control.setUp("lo", true)) {
      why = "bringing lo up: " + errnoText(error);
    } else if (int error = control.addDefaultRoute("lo")) {
      why = "adding a route: " + errnoText(error);
    }
  });
  return failed.empty() ? why : failed;
}

#define SKIP_WITHOUT_ROUTE_CHANGES()                                                   \
  if (const std::string why = routeChangesUnavailable(); !why.empty()) {               \
    GTEST_SKIP() << "needs a network namespace of its own whose routes it may change " \
                    "(CAP_SYS_ADMIN and CAP_NET_ADMIN); here: "                        \
                 << why;                                                               \
  }

// What a monitor's callback saw: how often it was called, and the type the namespace's route
// table gave at each call (read there, on the monitor's thread, which lives in the namespace).
class Calls {
 public:
  void record(ConnectionType type) {
    std::unique_lock lock(mutex_);
    types_.push_back(type);
    changed_.notify_all();
    if (holding_) {
      held_ = true;
      changed_.notify_all();
      changed_.wait_for(lock, 30s, [&] { return !holding_; });
    }
  }
  size_t count() {
    std::lock_guard lock(mutex_);
    return types_.size();
  }
  // Waits until a call after the first `after` saw `type`.
  bool waitForTypeAfter(size_t after, ConnectionType type, std::chrono::seconds limit = 10s) {
    std::unique_lock lock(mutex_);
    return changed_.wait_for(lock, limit, [&] {
      for (size_t i = after; i < types_.size(); ++i) {
        if (types_[i] == type) return true;
      }
      return false;
    });
  }
  // Waits until no call came for `quiet` (the settle read included); false after 10 s.
  bool waitQuiet(std::chrono::milliseconds quiet = 3 * NetlinkRouteMonitor::kSettleDelay) {
    const auto end = SteadyClock::now() + 10s;
    std::unique_lock lock(mutex_);
    size_t seen = types_.size();
    while (SteadyClock::now() < end) {
      if (!changed_.wait_for(lock, quiet, [&] { return types_.size() != seen; })) return true;
      seen = types_.size();
    }
    return false;
  }
  // The next call blocks inside the callback until release().
  void hold() {
    std::lock_guard lock(mutex_);
    holding_ = true;
    held_ = false;
  }
  bool waitHeld() {
    std::unique_lock lock(mutex_);
    return changed_.wait_for(lock, 10s, [&] { return held_; });
  }
  void release() {
    std::lock_guard lock(mutex_);
    holding_ = false;
    changed_.notify_all();
  }

 private:
  std::mutex mutex_;
  std::condition_variable changed_;
  std::vector<ConnectionType> types_;  // guarded by mutex_
  bool holding_ = false;               // guarded by mutex_
  bool held_ = false;                  // guarded by mutex_
};

// This process's route monitor threads (by their name).
std::set<pid_t> routeMonitorThreads() {
  std::set<pid_t> threads;
  std::error_code ec;
  for (const auto& task : std::filesystem::directory_iterator("/proc/self/task", ec)) {
    std::string name;
    std::getline(std::ifstream(task.path() / "comm"), name);
    if (name == "sonorell-route") threads.insert(std::stoi(task.path().filename().string()));
  }
  return threads;
}

// How often a thread of this process went to sleep.
long voluntaryContextSwitches(pid_t thread) {
  std::ifstream status("/proc/self/task/" + std::to_string(thread) + "/status");
  std::string line;
  while (std::getline(status, line)) {
    if (line.rfind("voluntary_ctxt_switches:", 0) == 0) return std::stol(line.substr(24));
  }
  return -1;
}

bool waitForRouteMonitorThreads(const std::set<pid_t>& expected) {
  const auto end = SteadyClock::now() + 10s;
  while (routeMonitorThreads() != expected) {
    if (SteadyClock::now() > end) return false;
    std::this_thread::sleep_for(5ms);
  }
  return true;
}

// The type of the calling thread's network namespace.
ConnectionType readThisNamespace() {
  return LinuxRouteReachabilitySource("/proc/thread-self/net", "/nonexistent",
                                      LinuxRouteReachabilitySource::Watch::kNever)
      .read();
}

TEST(NetlinkRouteMonitorTest, HearsDefaultRouteChangesGoesOnAfterAnOverrunAndMayEndItself) {
  SKIP_WITHOUT_ROUTE_CHANGES();
  testing::PlatformLogLines log;
  Calls calls;
  std::unique_ptr<LinkControl> control;
  std::unique_ptr<NetlinkRouteMonitor> monitor;
  std::atomic<bool> endInside{false};
  std::atomic<bool> ended{false};
  const std::set<pid_t> otherMonitors = routeMonitorThreads();
  const std::string why = inNewNetworkNamespace([&] {
    control = std::make_unique<LinkControl>();
    monitor = NetlinkRouteMonitor::start([&] {
      calls.record(readThisNamespace());
      if (endInside.load()) {
        monitor.reset();  // from its own callback: must neither deadlock nor call again
        ended = true;
      }
    });
  });
  ASSERT_EQ(why, "");
  ASSERT_TRUE(monitor) << log.all();
  // Whatever happens below, the callback is never left blocked.
  struct Release {
    Calls& calls;
    ~Release() { calls.release(); }
  } release{calls};

  std::set<pid_t> monitorThread = routeMonitorThreads();
  for (pid_t other : otherMonitors) monitorThread.erase(other);
  ASSERT_EQ(monitorThread.size(), 1u);

  // The loopback link coming up (link and address messages).
  ASSERT_EQ(control->setUp("lo", true), 0);
  ASSERT_TRUE(calls.waitForTypeAfter(0, ConnectionType::None));
  ASSERT_TRUE(calls.waitQuiet());

  // Idle, the thread sleeps in poll() without a time-out: it does not wake for over a second.
  const long switches = voluntaryContextSwitches(*monitorThread.begin());
  ASSERT_GT(switches, 0);
  ASSERT_TRUE(calls.waitQuiet(1500ms));
  EXPECT_EQ(voluntaryContextSwitches(*monitorThread.begin()), switches);

  // A route that is not a default route is not worth a read.
  size_t mark = calls.count();
  ASSERT_EQ(control->addHostRoute(1, "lo"), 0);
  EXPECT_TRUE(calls.waitQuiet());
  EXPECT_EQ(calls.count(), mark);

  // A default route is heard, and the table read then already holds it.
  mark = calls.count();
  const auto sent = SteadyClock::now();
  ASSERT_EQ(control->addDefaultRoute("lo"), 0);
  ASSERT_TRUE(calls.waitForTypeAfter(mark, ConnectionType::WiFi));
  EXPECT_LT(SteadyClock::now() - sent, 1s);
  ASSERT_TRUE(calls.waitQuiet());

  // An overrun: the callback is held while thousands of messages arrive, more than the
  // socket's buffer holds. The monitor reads again and goes on hearing.
  calls.hold();
  mark = calls.count();
  ASSERT_EQ(control->deleteDefaultRoute("lo"), 0);
  ASSERT_TRUE(calls.waitHeld());
  for (unsigned i = 2; i < 250; ++i) {
    for (int round = 0; round < 8; ++round) {
      ASSERT_EQ(control->addHostRoute(i, "lo"), 0);
      ASSERT_EQ(control->deleteHostRoute(i, "lo"), 0);
    }
  }
  calls.release();
  ASSERT_TRUE(calls.waitQuiet());
  EXPECT_EQ(log.count("overran", LogType::Info), 1u) << log.all();
  mark = calls.count();
  ASSERT_EQ(control->addDefaultRoute("lo"), 0);
  ASSERT_TRUE(calls.waitForTypeAfter(mark, ConnectionType::WiFi));
  ASSERT_TRUE(calls.waitQuiet());

  // Ended from inside its own callback: the thread lets go, and no call follows.
  endInside = true;
  ASSERT_EQ(control->deleteDefaultRoute("lo"), 0);
  ASSERT_TRUE(calls.waitForTypeAfter(mark, ConnectionType::None));
  ASSERT_TRUE(calls.waitQuiet());
  ASSERT_TRUE(ended);
  EXPECT_FALSE(monitor);
  EXPECT_TRUE(waitForRouteMonitorThreads(otherMonitors)) << "the monitor's thread did not end";
  mark = calls.count();
  ASSERT_EQ(control->addDefaultRoute("lo"), 0);
  EXPECT_TRUE(calls.waitQuiet());
  EXPECT_EQ(calls.count(), mark);
  EXPECT_EQ(log.count("Reachability", LogType::Error), 0u) << log.all();
}

TEST(NetlinkRouteMonitorTest, NoCallOnceTheMonitorIsGoneWhileMessagesArrive) {
  SKIP_WITHOUT_ROUTE_CHANGES();
  std::atomic<int> late{0};
  std::atomic<int> unheard{0};
  int loError = -1;
  const std::string why = inNewNetworkNamespace([&] {
    LinkControl control;
    if ((loError = control.setUp("lo", true)) != 0) return;
    std::atomic<bool> stop{false};
    std::thread churn([&] {
      while (!stop) {
        control.addDefaultRoute("lo");
        control.deleteDefaultRoute("lo");
      }
    });
    for (int round = 0; round < 30; ++round) {
      // What the callback uses goes right after the monitor; `gone` outlives both.
      auto gone = std::make_shared<std::atomic<bool>>(false);
      auto calls = std::make_unique<std::atomic<int>>(0);
      // The callback takes a while, so that the monitor is often destroyed during one: the
      // destructor must wait for it to return.
      auto monitor = NetlinkRouteMonitor::start([gone, &late, counter = calls.get()] {
        std::this_thread::sleep_for(std::chrono::microseconds(300));
        if (*gone) {
          ++late;
          return;
        }
        ++*counter;
      });
      const auto end = SteadyClock::now() + 10s;
      while (*calls == 0 && SteadyClock::now() < end) std::this_thread::sleep_for(1ms);
      if (*calls == 0) ++unheard;
      monitor.reset();
      *gone = true;
      calls.reset();
    }
    stop = true;
    churn.join();
  });
  ASSERT_EQ(why, "");
  ASSERT_EQ(loError, 0);
  EXPECT_EQ(unheard, 0);
  EXPECT_EQ(late, 0);
}

// The whole path as the process uses it (Reachability over a source made for the real roots),
// in a process of its own that moves into a new network namespace: there /proc/net is the new
// namespace's, so the source needs no special roots. The engine's clock is virtual and never
// moves, and no timer is armed: what is heard comes from the kernel.
[[noreturn]] void observeRouteChangesInAFreshNamespace() {
  auto fail = [](const std::string& why) {
    std::fprintf(stderr, "FAILED: %s\n", why.c_str());
    std::fflush(stderr);
    std::_Exit(1);
  };
  if (::unshare(CLONE_NEWNET) != 0) fail("unshare(CLONE_NEWNET): " + errnoText(errno));
  ScopedVirtualClock clock;
  auto source = std::make_shared<LinuxRouteReachabilitySource>();
  if (!source->watchesKernel()) fail("the source made for the real roots does not watch");
  auto reachability = Reachability::create(source);
  if (reachability->connectionType() != ConnectionType::None) {
    fail("a new namespace should have no default route");
  }
  std::mutex mutex;
  std::condition_variable changed;
  std::vector<ConnectionType> heard;
  auto token = reachability->observe(DispatchQueue::create("io.sonorell.test.reach"),
                                     [&](ConnectionType type) {
                                       std::lock_guard lock(mutex);
                                       heard.push_back(type);
                                       changed.notify_all();
                                     });
  LinkControl control;
  std::chrono::microseconds slowest{0};
  auto expectHeard = [&](const char* step, int error, std::vector<ConnectionType> expected) {
    const auto began = SteadyClock::now();
    if (error) fail(std::string(step) + ": " + errnoText(error));
    std::unique_lock lock(mutex);
    if (!changed.wait_for(lock, 10s, [&] { return heard == expected; })) {
      fail(std::string("nothing heard after ") + step + " (" + std::to_string(heard.size()) +
           " changes heard)");
    }
    slowest = std::max(
        slowest, std::chrono::duration_cast<std::chrono::microseconds>(SteadyClock::now() - began));
  };
  using enum ConnectionType;
  expectHeard("bringing lo up", control.setUp("lo", true), {});
  // lo is neither wireless nor WWAN: a default route through it counts as Wi-Fi.
  expectHeard("adding a default route", control.addDefaultRoute("lo"), {WiFi});
  expectHeard("deleting it", control.deleteDefaultRoute("lo"), {WiFi, None});
  expectHeard("adding it again", control.addDefaultRoute("lo"), {WiFi, None, WiFi});
  // The kernel drops lo's routes without a route message: the link's message tells.
  expectHeard("taking lo down", control.setUp("lo", false), {WiFi, None, WiFi, None});
  if (clock->pendingTimerCount() != 0) fail("a timer of the engine's clock is armed");
  if (reachability->connectionType() != None) fail("the type read last is not None");
  std::fprintf(stderr, "heard every change, the slowest after %lld us\n",
               static_cast<long long>(slowest.count()));
  std::fflush(stderr);
  std::_Exit(0);
}

// "DeathTest": GoogleTest's name for a suite whose tests run a statement in a child process.
TEST(KernelReachabilityDeathTest, ObserversHearRouteChangesWithoutRefreshOrClock) {
  SKIP_WITHOUT_ROUTE_CHANGES();
  // The child is a fresh run of this program (fork and exec), not a fork of this process and
  // its threads.
  GTEST_FLAG_SET(death_test_style, "threadsafe");
  EXPECT_EXIT(observeRouteChangesInAFreshNamespace(), ::testing::ExitedWithCode(0),
              "heard every change");
}

}  // namespace
}  // namespace sonorell
