#include "connection.h"

#include <arpa/inet.h>
#include <dirent.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <sys/stat.h>

#include <cstdlib>

namespace sonorell::content {
namespace {

int portOf(const sockaddr_storage& addr) {
  if (addr.ss_family == AF_INET) {
    return ntohs(reinterpret_cast<const sockaddr_in&>(addr).sin_port);
  }
  if (addr.ss_family == AF_INET6) {
    return ntohs(reinterpret_cast<const sockaddr_in6&>(addr).sin6_port);
  }
  return -1;
}

// Plain HTTP hands the handler no socket: find the descriptor whose local and peer ports are the
// request's (a client in this same process has them the other way round).
int findSocket(int localPort, int remotePort) {
  DIR* dir = ::opendir("/proc/self/fd");
  if (!dir) return -1;
  int found = -1;
  while (dirent* entry = ::readdir(dir)) {
    char* end = nullptr;
    const long fd = std::strtol(entry->d_name, &end, 10);
    if (end == entry->d_name || *end != '\0' || fd == ::dirfd(dir)) continue;
    struct stat st {};
    if (::fstat(static_cast<int>(fd), &st) != 0 || !S_ISSOCK(st.st_mode)) continue;
    sockaddr_storage local{}, peer{};
    socklen_t localLen = sizeof local, peerLen = sizeof peer;
    if (::getsockname(static_cast<int>(fd), reinterpret_cast<sockaddr*>(&local), &localLen) != 0 ||
        ::getpeername(static_cast<int>(fd), reinterpret_cast<sockaddr*>(&peer), &peerLen) != 0) {
      continue;
    }
    if ((localPort < 0 || portOf(local) == localPort) && portOf(peer) == remotePort) {
      found = static_cast<int>(fd);
      break;
    }
  }
  ::closedir(dir);
  return found;
}

}  // namespace

bool shutdownConnection(const httplib::Request& request, Shutdown how) {
  int fd = -1;
  if (request.ssl) {
    fd = SSL_get_fd(request.ssl);
  } else {
    fd = findSocket(request.local_port, request.remote_port);
  }
  if (fd < 0) return false;
  return ::shutdown(fd, how == Shutdown::kBoth ? SHUT_RDWR : SHUT_WR) == 0;
}

}  // namespace sonorell::content
