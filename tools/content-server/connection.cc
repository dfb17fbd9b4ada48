#include "connection.h"

#include <netdb.h>
#include <netinet/in.h>
#include <openssl/ssl.h>
#include <poll.h>
#include <sys/socket.h>
#include <sys/time.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <chrono>
#include <climits>
#include <cstring>
#include <string>

namespace sonorell::content {
namespace {

using SteadyClock = std::chrono::steady_clock;

// The request this thread is serving and its connection's socket; set by ConnectionServer for
// the length of one request (handler and content provider included).
struct ServedRequest {
  const httplib::Request* request = nullptr;
  int fd = -1;
};
thread_local ServedRequest tServed;

// >0 ready (or hung up, or failed: the next call on the socket says which), 0 timed out, <0 error.
int pollFor(int fd, short events, int timeoutMs) {
  pollfd p{fd, events, 0};
  int n;
  do {
    n = ::poll(&p, 1, timeoutMs);
  } while (n < 0 && errno == EINTR);
  return n;
}

int millisecondsOf(time_t sec, time_t usec) { return static_cast<int>(sec * 1000 + usec / 1000); }

void addressOf(int fd, bool peer, std::string& ip, int& port) {
  sockaddr_storage addr{};
  socklen_t len = sizeof addr;
  auto* sa = reinterpret_cast<sockaddr*>(&addr);
  if ((peer ? ::getpeername(fd, sa, &len) : ::getsockname(fd, sa, &len)) != 0) return;
  std::array<char, NI_MAXHOST> host{};
  if (::getnameinfo(sa, len, host.data(), host.size(), nullptr, 0, NI_NUMERICHOST) == 0) {
    ip = host.data();
  }
  if (addr.ss_family == AF_INET) {
    port = ntohs(reinterpret_cast<const sockaddr_in&>(addr).sin_port);
  } else if (addr.ss_family == AF_INET6) {
    port = ntohs(reinterpret_cast<const sockaddr_in6&>(addr).sin6_port);
  }
}

// One connection as httplib's request parser reads it and its response writer writes it: the
// socket itself, or TLS over it. The read buffer lives as long as the connection, so bytes of a
// pipelined next request are kept for it.
class ConnectionStream final : public httplib::Stream {
 public:
  ConnectionStream(int fd, SSL* ssl, int readTimeoutMs, int writeTimeoutMs)
      : fd_(fd), ssl_(ssl), readTimeoutMs_(readTimeoutMs), writeTimeoutMs_(writeTimeoutMs) {}

  // Bytes already received (here or inside TLS) that the socket would not report as readable.
  bool hasBuffered() const { return begin_ < end_ || (ssl_ && SSL_has_pending(ssl_) == 1); }

  bool is_readable() const override {
    return hasBuffered() || pollFor(fd_, POLLIN, readTimeoutMs_) > 0;
  }

  // Writable, and the peer has not closed its end: nothing is sent to a client that went away.
  bool is_writable() const override {
    if (pollFor(fd_, POLLOUT, writeTimeoutMs_) <= 0) return false;
    const int readable = pollFor(fd_, POLLIN, 0);
    if (readable == 0) return true;
    char byte;
    return readable > 0 && ::recv(fd_, &byte, 1, MSG_PEEK | MSG_DONTWAIT) > 0;
  }

  ssize_t read(char* out, size_t size) override {
    if (begin_ == end_) {
      if (!is_readable()) return -1;
      const ssize_t got = receive(buffer_.data(), buffer_.size());
      if (got <= 0) return got;
      begin_ = 0;
      end_ = static_cast<std::size_t>(got);
    }
    const std::size_t n = std::min(size, end_ - begin_);
    std::memcpy(out, buffer_.data() + begin_, n);
    begin_ += n;
    return static_cast<ssize_t>(n);
  }

  ssize_t write(const char* data, size_t size) override {
    if (!is_writable()) return -1;
    if (ssl_) {
      const int n = SSL_write(ssl_, data, static_cast<int>(std::min<size_t>(size, INT_MAX)));
      return n > 0 ? n : -1;
    }
    ssize_t n;
    do {
      n = ::send(fd_, data, size, MSG_NOSIGNAL);
    } while (n < 0 && errno == EINTR);
    return n;
  }

  void get_remote_ip_and_port(std::string& ip, int& port) const override {
    addressOf(fd_, true, ip, port);
  }
  void get_local_ip_and_port(std::string& ip, int& port) const override {
    addressOf(fd_, false, ip, port);
  }
  socket_t socket() const override { return fd_; }

 private:
  // 0 at the end of the stream, <0 on failure.
  ssize_t receive(char* out, std::size_t size) {
    if (ssl_) {
      const int n = SSL_read(ssl_, out, static_cast<int>(std::min<size_t>(size, INT_MAX)));
      if (n > 0) return n;
      return SSL_get_error(ssl_, n) == SSL_ERROR_ZERO_RETURN ? 0 : -1;
    }
    ssize_t n;
    do {
      n = ::recv(fd_, out, size, 0);
    } while (n < 0 && errno == EINTR);
    return n;
  }

  const int fd_;
  SSL* const ssl_;  // null for plain HTTP
  const int readTimeoutMs_;
  const int writeTimeoutMs_;
  std::array<char, 4096> buffer_{};
  std::size_t begin_ = 0;
  std::size_t end_ = 0;
};

struct SslCtxFree {
  void operator()(SSL_CTX* ctx) const { SSL_CTX_free(ctx); }
};
using SslContext = std::unique_ptr<SSL_CTX, SslCtxFree>;

struct SslFree {
  void operator()(SSL* ssl) const { SSL_free(ssl); }
};

class ConnectionServer final : public httplib::Server {
 public:
  explicit ConnectionServer(SslContext tls) : tls_(std::move(tls)) {}

 private:
  // How often a connection waiting for its next request looks whether the server is stopping.
  static constexpr int kStopCheckMs = 50;

  // Runs on a worker thread for the connection's whole life; the socket is this function's. It is
  // closed here, not inside httplib, whose own calls ThreadSanitizer is told to ignore: a close it
  // never saw would make the next user of the descriptor number look like a race with this one.
  bool process_and_close_socket(socket_t sock) override {
    const int readMs = millisecondsOf(read_timeout_sec_, read_timeout_usec_);
    const int writeMs = millisecondsOf(write_timeout_sec_, write_timeout_usec_);
    // Blocking calls (the TLS handshake, a write to a client that stopped reading) give up too.
    const timeval readTimeout{read_timeout_sec_, static_cast<suseconds_t>(read_timeout_usec_)};
    const timeval writeTimeout{write_timeout_sec_, static_cast<suseconds_t>(write_timeout_usec_)};
    ::setsockopt(sock, SOL_SOCKET, SO_RCVTIMEO, &readTimeout, sizeof readTimeout);
    ::setsockopt(sock, SOL_SOCKET, SO_SNDTIMEO, &writeTimeout, sizeof writeTimeout);

    bool ok = false;
    if (!tls_) {
      ConnectionStream stream(sock, nullptr, readMs, writeMs);
      ok = serve(stream, nullptr);
    } else if (std::unique_ptr<SSL, SslFree> ssl(SSL_new(tls_.get()));
               ssl && SSL_set_fd(ssl.get(), sock) == 1 && SSL_accept(ssl.get()) == 1) {
      ConnectionStream stream(sock, ssl.get(), readMs, writeMs);
      ok = serve(stream, ssl.get());
      if (ok) SSL_shutdown(ssl.get());  // close_notify, when the connection is still sound
    }
    ::shutdown(sock, SHUT_RDWR);
    ::close(sock);
    return ok;
  }

  // The connection's requests, one after another, until it closes, fails or idles out.
  bool serve(ConnectionStream& stream, const SSL* ssl) {
    const int fd = stream.socket();
    bool ok = false;
    // The first request gets as long as any read; a busy client may be slow to send it.
    auto idleLimit =
        std::chrono::milliseconds(millisecondsOf(read_timeout_sec_, read_timeout_usec_));
    for (std::size_t left = keep_alive_max_count_;
         left > 0 && nextRequestArrives(stream, idleLimit); --left) {
      idleLimit = std::chrono::seconds(keep_alive_timeout_sec_);
      bool closed = false;
      struct Forget {
        ~Forget() { tServed = {}; }
      } forget;
      ok = process_request(stream, left == 1, closed, [fd, ssl](httplib::Request& request) {
        request.ssl = ssl;
        tServed = {&request, fd};
      });
      if (!ok || closed) break;
    }
    return ok;
  }

  // False when the connection stays idle past `limit` or the server stops first.
  bool nextRequestArrives(const ConnectionStream& stream, std::chrono::milliseconds limit) const {
    if (stream.hasBuffered()) return true;
    const auto deadline = SteadyClock::now() + limit;
    while (svr_sock_ != INVALID_SOCKET) {
      const auto left =
          std::chrono::duration_cast<std::chrono::milliseconds>(deadline - SteadyClock::now());
      if (left.count() <= 0) return false;
      const int ready =
          pollFor(stream.socket(), POLLIN,
                  static_cast<int>(std::min<std::int64_t>(left.count(), kStopCheckMs)));
      if (ready != 0) return ready > 0;
    }
    return false;
  }

  const SslContext tls_;  // null for plain HTTP; only read once serving
};

SslContext makeTlsContext(const TlsIdentity& tls) {
  SslContext ctx(SSL_CTX_new(TLS_server_method()));
  if (!ctx) return nullptr;
  SSL_CTX_set_options(ctx.get(), SSL_OP_NO_COMPRESSION);
  if (SSL_CTX_set_min_proto_version(ctx.get(), TLS1_2_VERSION) != 1 ||
      SSL_CTX_use_certificate_chain_file(ctx.get(), tls.serverCertificate.c_str()) != 1 ||
      SSL_CTX_use_PrivateKey_file(ctx.get(), tls.serverKey.c_str(), SSL_FILETYPE_PEM) != 1 ||
      SSL_CTX_check_private_key(ctx.get()) != 1) {
    return nullptr;
  }
  return ctx;
}

}  // namespace

std::unique_ptr<httplib::Server> makeServer(const TlsIdentity* tls) {
  SslContext ctx;
  if (tls) {
    ctx = makeTlsContext(*tls);
    if (!ctx) return nullptr;
  }
  return std::make_unique<ConnectionServer>(std::move(ctx));
}

bool shutdownConnection(const httplib::Request& request, Shutdown how) {
  if (tServed.request != &request) return false;
  return ::shutdown(tServed.fd, how == Shutdown::kBoth ? SHUT_RDWR : SHUT_WR) == 0;
}

}  // namespace sonorell::content
