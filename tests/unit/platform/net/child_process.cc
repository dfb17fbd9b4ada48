#include "child_process.h"

#include <fcntl.h>
#include <poll.h>
#include <signal.h>
#include <stdlib.h>
#include <sys/wait.h>
#include <unistd.h>

namespace sonorell::testing {

std::unique_ptr<ChildProcess> ChildProcess::start(const Environment& environment) {
  int fds[2];
  if (::pipe2(fds, O_CLOEXEC) != 0) return nullptr;
  char self[4096];
  ssize_t n = ::readlink("/proc/self/exe", self, sizeof self - 1);
  if (n <= 0) return nullptr;
  self[n] = '\0';
  const int pid = ::fork();
  if (pid == 0) {
    // Only async-signal-safe calls until exec.
    ::dup2(fds[1], 3);  // dup2 clears close-on-exec on the copy
    int devnull = ::open("/dev/null", O_WRONLY);
    if (devnull >= 0) ::dup2(devnull, 1);
    for (const auto& [name, value] : environment) ::setenv(name.c_str(), value.c_str(), 1);
    ::execl(self, self, "--gtest_filter=TransferChild.DISABLED_Run",
            "--gtest_also_run_disabled_tests", static_cast<char*>(nullptr));
    ::_exit(127);
  }
  ::close(fds[1]);
  if (pid < 0) {
    ::close(fds[0]);
    return nullptr;
  }
  return std::unique_ptr<ChildProcess>(new ChildProcess(pid, fds[0]));
}

ChildProcess::~ChildProcess() {
  if (pid_ > 0) kill();
  ::close(fd_);
}

std::optional<std::string> ChildProcess::readLine(std::chrono::seconds limit) {
  const auto deadline = std::chrono::steady_clock::now() + limit;
  for (;;) {
    if (auto end = buffer_.find('\n'); end != std::string::npos) {
      std::string line = buffer_.substr(0, end);
      buffer_.erase(0, end + 1);
      return line;
    }
    const auto left = std::chrono::duration_cast<std::chrono::milliseconds>(
        deadline - std::chrono::steady_clock::now());
    if (left.count() <= 0) return std::nullopt;
    pollfd p{fd_, POLLIN, 0};
    if (::poll(&p, 1, static_cast<int>(left.count())) <= 0) continue;
    char chunk[512];
    ssize_t got = ::read(fd_, chunk, sizeof chunk);
    if (got <= 0) return std::nullopt;
    buffer_.append(chunk, static_cast<size_t>(got));
  }
}

bool ChildProcess::kill() {
  if (pid_ <= 0) return false;
  ::kill(pid_, SIGKILL);
  int status = 0;
  ::waitpid(pid_, &status, 0);
  pid_ = -1;
  return WIFSIGNALED(status) && WTERMSIG(status) == SIGKILL;
}

}  // namespace sonorell::testing
