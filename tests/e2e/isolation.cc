#include "isolation.h"

#include <fcntl.h>
#include <sched.h>
#include <sys/mount.h>
#include <sys/statvfs.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>

#include "processes.h"

namespace sonorell::e2e {

namespace fs = std::filesystem;

namespace {

std::string failed(const std::string& what) { return what + ": " + std::strerror(errno); }

}  // namespace

bool enterPrivateMountNamespace(std::string& why) {
  if (::unshare(CLONE_NEWNS) != 0) {
    why = failed("unshare(CLONE_NEWNS)");
    return false;
  }
  // Without this, mounts made here would still propagate to the machine's namespace.
  if (::mount(nullptr, "/", nullptr, MS_REC | MS_PRIVATE, nullptr) != 0) {
    why = failed("making / private in the new mount namespace");
    return false;
  }
  return true;
}

std::unique_ptr<TmpfsMount> TmpfsMount::mount(const fs::path& directory, uint64_t bytes,
                                              std::string& why) {
  const std::string options = "size=" + std::to_string(bytes) + ",mode=0700";
  if (::mount("tmpfs", directory.c_str(), "tmpfs", MS_NOSUID | MS_NODEV, options.c_str()) != 0) {
    why = failed("mount -t tmpfs -o " + options + " " + directory.string());
    return nullptr;
  }
  return std::unique_ptr<TmpfsMount>(new TmpfsMount(directory));
}

TmpfsMount::~TmpfsMount() { ::umount2(directory_.c_str(), MNT_DETACH); }

uint64_t TmpfsMount::available() const {
  struct statvfs info {};
  if (::statvfs(directory_.c_str(), &info) != 0) return 0;
  return uint64_t(info.f_bavail) * uint64_t(info.f_frsize);
}

std::unique_ptr<NetworkNamespace> NetworkNamespace::enter(std::string& why) {
  const int original = ::open("/proc/thread-self/ns/net", O_RDONLY | O_CLOEXEC);
  if (original < 0) {
    why = failed("opening /proc/thread-self/ns/net");
    return nullptr;
  }
  if (::unshare(CLONE_NEWNET) != 0) {
    why = failed("unshare(CLONE_NEWNET)");
    ::close(original);
    return nullptr;
  }
  return std::unique_ptr<NetworkNamespace>(new NetworkNamespace(original));
}

NetworkNamespace::~NetworkNamespace() {
  // Later tests in the same process (a run of the binary without ctest) get the machine's
  // network back.
  ::setns(original_, CLONE_NEWNET);
  ::close(original_);
}

bool ip(const std::vector<std::string>& arguments, std::string& output) {
  for (const char* program : {"/usr/sbin/ip", "/sbin/ip", "/usr/bin/ip", "/bin/ip"}) {
    if (::access(program, X_OK) != 0) continue;
    const auto result = cli::testing::runCommand(program, arguments, {}, std::chrono::seconds(10));
    output = result.out + result.err;
    return result.exitCode == 0;
  }
  output = "iproute2's ip is not installed";
  return false;
}

}  // namespace sonorell::e2e
