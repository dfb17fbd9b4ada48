// What a test changes about the machine, kept to itself: a mount namespace of its own (where a
// small tmpfs can stand in for a nearly full disk) and a network namespace of its own (where it
// decides which interface the default route goes through). Namespaces are entered by the calling
// thread; the processes it starts afterwards inherit them. Test thread only.
#pragma once

#include <cstdint>
#include <filesystem>
#include <memory>
#include <string>
#include <vector>

namespace sonorell::e2e {

// Leaves the machine's mount namespace for a private one, so that what the test mounts is seen
// by it and its children only and goes away with them. False, with the reason in `why`, when
// the system does not allow it (no CAP_SYS_ADMIN, a sandbox).
bool enterPrivateMountNamespace(std::string& why);

// A tmpfs of a given size mounted over a directory until destroyed (then lazily unmounted).
class TmpfsMount {
 public:
  // Null, with the reason in `why`, when the mount fails.
  static std::unique_ptr<TmpfsMount> mount(const std::filesystem::path& directory, uint64_t bytes,
                                           std::string& why);
  ~TmpfsMount();
  TmpfsMount(const TmpfsMount&) = delete;
  TmpfsMount& operator=(const TmpfsMount&) = delete;

  // Bytes an unprivileged writer may still use on it.
  uint64_t available() const;

 private:
  explicit TmpfsMount(std::filesystem::path directory) : directory_(std::move(directory)) {}
  std::filesystem::path directory_;
};

// A fresh network namespace (only a loopback link, down) entered by the calling thread; the
// namespace it was in is entered again when this is destroyed.
class NetworkNamespace {
 public:
  // Null, with the reason in `why`, when no namespace can be made or entered.
  static std::unique_ptr<NetworkNamespace> enter(std::string& why);
  ~NetworkNamespace();
  NetworkNamespace(const NetworkNamespace&) = delete;
  NetworkNamespace& operator=(const NetworkNamespace&) = delete;

 private:
  explicit NetworkNamespace(int original) : original_(original) {}
  int original_;  // descriptor of the namespace to go back to
};

// iproute2's `ip` with these arguments, in the calling thread's network namespace. False, with
// its output (or why it could not run) in `output`, when it did not exit 0.
bool ip(const std::vector<std::string>& arguments, std::string& output);

}  // namespace sonorell::e2e
