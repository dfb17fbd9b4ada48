#include "platform/net/netlink_route_monitor.h"

#include <linux/if_link.h>
#include <linux/netlink.h>
#include <linux/rtnetlink.h>
#include <poll.h>
#include <pthread.h>
#include <sys/eventfd.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <cstdint>
#include <cstring>
#include <string>
#include <system_error>
#include <utility>

#include "platform/log/platform_log.h"

namespace sonorell {
namespace {

using SteadyClock = std::chrono::steady_clock;

constexpr uint32_t kGroups =
    RTMGRP_LINK | RTMGRP_IPV4_IFADDR | RTMGRP_IPV4_ROUTE | RTMGRP_IPV6_IFADDR | RTMGRP_IPV6_ROUTE;

std::string errnoText(int error) { return std::system_category().message(error); }

// A wireless-extension event (scan results, association news) rides on RTM_NEWLINK with an
// IFLA_WIRELESS attribute; it says nothing about routes and a busy radio sends many of them.
bool isWirelessEvent(const nlmsghdr& header) {
  const size_t start = NLMSG_LENGTH(sizeof(ifinfomsg));
  if (header.nlmsg_len < start) return false;
  const auto* bytes = reinterpret_cast<const unsigned char*>(&header);
  size_t offset = NLMSG_ALIGN(start);
  while (offset + sizeof(rtattr) <= header.nlmsg_len) {
    rtattr attribute;
    std::memcpy(&attribute, bytes + offset, sizeof attribute);
    if (attribute.rta_len < sizeof(rtattr) || offset + attribute.rta_len > header.nlmsg_len) break;
    if (attribute.rta_type == IFLA_WIRELESS) return true;
    offset += RTA_ALIGN(attribute.rta_len);
  }
  return false;
}

// Whether a message may change which interface carries the default route.
bool mayChangeDefaultRoute(const nlmsghdr& header) {
  switch (header.nlmsg_type) {
    case RTM_NEWLINK:
      return !isWirelessEvent(header);
    case RTM_DELLINK:
    // Removing an address silently drops the IPv4 routes that went through it.
    case RTM_NEWADDR:
    case RTM_DELADDR:
      return true;
    case RTM_NEWROUTE:
    case RTM_DELROUTE: {
      if (header.nlmsg_len < NLMSG_LENGTH(sizeof(rtmsg))) return true;  // cannot tell: re-read
      rtmsg route;
      std::memcpy(&route, reinterpret_cast<const unsigned char*>(&header) + NLMSG_HDRLEN,
                  sizeof route);
      return route.rtm_dst_len == 0;  // a default route (of any table or family)
    }
    default:
      return false;
  }
}

}  // namespace

struct NetlinkRouteMonitor::State {
  int socket = -1;
  int wake = -1;  // eventfd, written once to stop
  std::function<void()> onChange;
  std::atomic<bool> stopping{false};
  bool overrunLogged = false;  // the thread's own

  ~State() {
    if (socket >= 0) ::close(socket);
    if (wake >= 0) ::close(wake);
  }

  enum class Drained { kNothing, kRelevant, kBroken };

  // Reads every message queued on the socket.
  Drained drain() {
    alignas(nlmsghdr) unsigned char buffer[32 * 1024];
    bool relevant = false;
    for (;;) {
      sockaddr_nl sender{};
      iovec io{buffer, sizeof buffer};
      msghdr message{};
      message.msg_name = &sender;
      message.msg_namelen = sizeof sender;
      message.msg_iov = &io;
      message.msg_iovlen = 1;
      const ssize_t got = ::recvmsg(socket, &message, MSG_DONTWAIT);
      if (got < 0) {
        const int error = errno;
        if (error == EINTR) continue;
        if (error == EAGAIN || error == EWOULDBLOCK) break;
        if (error == ENOBUFS) {
          // The kernel dropped messages it could not queue: what they said is unknown, so the
          // routes are read afresh. The socket goes on working.
          if (!overrunLogged) {
            overrunLogged = true;
            platform_log::info(
                "[Reachability] the routing notifications overran their buffer; re-reading");
          }
          relevant = true;
          continue;
        }
        platform_log::error(
            "[Reachability] reading the kernel's routing notifications failed (%@); changes are "
            "no longer watched",
            errnoText(error));
        return Drained::kBroken;
      }
      if (sender.nl_pid != 0) continue;  // only the kernel speaks for the routing tables
      if (message.msg_flags & MSG_TRUNC) {
        relevant = true;
        continue;
      }
      size_t offset = 0;
      const auto length = static_cast<size_t>(got);
      while (offset + sizeof(nlmsghdr) <= length) {
        const auto* header = reinterpret_cast<const nlmsghdr*>(buffer + offset);
        if (header->nlmsg_len < sizeof(nlmsghdr) || offset + header->nlmsg_len > length) break;
        if (mayChangeDefaultRoute(*header)) relevant = true;
        offset += NLMSG_ALIGN(header->nlmsg_len);
      }
    }
    return relevant ? Drained::kRelevant : Drained::kNothing;
  }

  void run() {
    bool settling = false;
    SteadyClock::time_point settleAt;
    for (;;) {
      int timeout = -1;
      if (settling) {
        const auto left =
            std::chrono::ceil<std::chrono::milliseconds>(settleAt - SteadyClock::now());
        timeout = static_cast<int>(std::max<int64_t>(0, left.count()));
      }
      pollfd fds[2] = {{socket, POLLIN, 0}, {wake, POLLIN, 0}};
      const int ready = ::poll(fds, 2, timeout);
      if (stopping.load(std::memory_order_acquire)) return;
      if (ready < 0) {
        const int error = errno;
        if (error == EINTR) continue;
        platform_log::error(
            "[Reachability] waiting for the kernel's routing notifications failed (%@); changes "
            "are no longer watched",
            errnoText(error));
        return;
      }
      if (ready == 0) {  // the settle time passed without news
        settling = false;
        onChange();
        continue;
      }
      if (fds[0].revents & POLLNVAL) return;
      if (fds[0].revents == 0) continue;
      const Drained drained = drain();
      if (drained == Drained::kBroken) return;
      if (drained == Drained::kRelevant) {
        if (stopping.load(std::memory_order_acquire)) return;
        onChange();
        settling = true;
        settleAt = SteadyClock::now() + kSettleDelay;
      }
    }
  }
};

std::unique_ptr<NetlinkRouteMonitor> NetlinkRouteMonitor::start(std::function<void()> onChange) {
  auto state = std::make_shared<State>();
  state->onChange = std::move(onChange);
  auto refuse = [](const char* step, int error) {
    platform_log::error(
        "[Reachability] cannot watch the kernel's routing notifications (%@: %@); the connection "
        "type is read only when asked",
        step, errnoText(error));
    return nullptr;
  };
  state->socket = ::socket(AF_NETLINK, SOCK_RAW | SOCK_CLOEXEC | SOCK_NONBLOCK, NETLINK_ROUTE);
  if (state->socket < 0) return refuse("netlink socket", errno);
  sockaddr_nl address{};
  address.nl_family = AF_NETLINK;
  address.nl_groups = kGroups;
  if (::bind(state->socket, reinterpret_cast<const sockaddr*>(&address), sizeof address) != 0) {
    return refuse("netlink bind", errno);
  }
  state->wake = ::eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK);
  if (state->wake < 0) return refuse("eventfd", errno);
  std::unique_ptr<NetlinkRouteMonitor> monitor(new NetlinkRouteMonitor(state));
  try {
    monitor->thread_ = std::thread([state] { state->run(); });
    // Named from here, so that it carries its name as soon as start() returns.
    ::pthread_setname_np(monitor->thread_.native_handle(), "sonorell-route");
  } catch (const std::system_error& e) {
    return refuse("thread", e.code().value());
  }
  return monitor;
}

NetlinkRouteMonitor::NetlinkRouteMonitor(std::shared_ptr<State> state) : state_(std::move(state)) {}

NetlinkRouteMonitor::~NetlinkRouteMonitor() {
  state_->stopping.store(true, std::memory_order_release);
  const uint64_t one = 1;
  if (::write(state_->wake, &one, sizeof one) < 0) {
    // Cannot fail on a fresh eventfd; the thread also checks `stopping` after every wake-up.
  }
  if (!thread_.joinable()) return;
  if (thread_.get_id() == std::this_thread::get_id()) {
    thread_.detach();  // inside onChange: the thread ends when it returns (it holds the state)
  } else {
    thread_.join();
  }
}

}  // namespace sonorell
