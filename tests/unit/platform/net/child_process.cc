#include "child_process.h"

#include <fcntl.h>
#include <poll.h>
#include <signal.h>
#include <stdlib.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <string_view>
#include <vector>

namespace sonorell::testing {

std::unique_ptr<ChildProcess> ChildProcess::start(const Environment& environment) {
  // The build names the program's path (tests/CMakeLists.txt).
  const char* program = SONORELL_TRANSFER_CHILD;
  // Built before fork: the child may make only async-signal-safe calls until exec.
  std::vector<std::string> entries;
  for (char** e = environ; *e; ++e) {
    const std::string_view entry(*e);
    const bool replaced = std::any_of(environment.begin(), environment.end(), [&](const auto& v) {
      return entry.size() > v.first.size() && entry.starts_with(v.first) &&
             entry[v.first.size()] == '=';
    });
    if (!replaced) entries.emplace_back(entry);
  }
  for (const auto& [name, value] : environment) entries.push_back(name + "=" + value);
  std::vector<char*> envp;
  for (auto& entry : entries) envp.push_back(entry.data());
  envp.push_back(nullptr);
  char* argv[] = {const_cast<char*>(program), nullptr};

  int fds[2];
  if (::pipe2(fds, O_CLOEXEC) != 0) return nullptr;
  const int pid = ::fork();
  if (pid == 0) {
    ::dup2(fds[1], 3);  // dup2 clears close-on-exec on the copy
    int devnull = ::open("/dev/null", O_WRONLY);
    if (devnull >= 0) ::dup2(devnull, 1);
    ::execve(program, argv, envp.data());
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
