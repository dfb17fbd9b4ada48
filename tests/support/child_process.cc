#include "support/child_process.h"

#include <fcntl.h>
#include <poll.h>
#include <signal.h>
#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

namespace sonorell::testing {

std::unique_ptr<ChildProcess> ChildProcess::start(const char* program,
                                                  const std::vector<std::string>& arguments,
                                                  const std::string& stderrLog) {
  std::vector<char*> argv{const_cast<char*>(program)};
  for (const auto& argument : arguments) argv.push_back(const_cast<char*>(argument.c_str()));
  argv.push_back(nullptr);
  int fds[2];
  if (::pipe2(fds, O_CLOEXEC) != 0) return nullptr;
  posix_spawn_file_actions_t actions;
  ::posix_spawn_file_actions_init(&actions);
  ::posix_spawn_file_actions_adddup2(&actions, fds[1], 3);  // the copy is not close-on-exec
  ::posix_spawn_file_actions_addopen(&actions, 1, "/dev/null", O_WRONLY, 0);
  if (!stderrLog.empty()) {
    ::posix_spawn_file_actions_addopen(&actions, 2, stderrLog.c_str(),
                                       O_WRONLY | O_CREAT | O_APPEND, 0600);
  }
  pid_t pid = -1;
  const int failed = ::posix_spawn(&pid, program, &actions, nullptr, argv.data(), environ);
  ::posix_spawn_file_actions_destroy(&actions);
  ::close(fds[1]);
  if (failed != 0) {
    ::close(fds[0]);
    return nullptr;
  }
  return std::unique_ptr<ChildProcess>(new ChildProcess(pid, fds[0]));
}

ChildProcess::~ChildProcess() {
  if (pid_ > 0) kill();
  ::close(fd_);
}

std::optional<std::string> ChildProcess::readLine(Deadline deadline) {
  for (;;) {
    if (auto end = buffer_.find('\n'); end != std::string::npos) {
      std::string line = buffer_.substr(0, end);
      buffer_.erase(0, end + 1);
      return line;
    }
    if (eof_) return std::nullopt;
    const auto left =
        std::chrono::ceil<std::chrono::milliseconds>(deadline - std::chrono::steady_clock::now());
    if (left.count() <= 0) return std::nullopt;
    pollfd p{fd_, POLLIN, 0};
    if (::poll(&p, 1, static_cast<int>(left.count())) <= 0) continue;
    char chunk[4096];
    const ssize_t got = ::read(fd_, chunk, sizeof chunk);
    if (got <= 0) {
      eof_ = true;
      continue;
    }
    buffer_.append(chunk, static_cast<size_t>(got));
  }
}

bool ChildProcess::kill() {
  if (pid_ <= 0) return false;
  ::kill(pid_, SIGKILL);
  return reap() == "killed";
}

std::string ChildProcess::reap() {
  if (pid_ <= 0) return "reaped";
  int status = 0;
  ::waitpid(pid_, &status, 0);
  pid_ = -1;
  if (WIFEXITED(status)) return "exit " + std::to_string(WEXITSTATUS(status));
  if (WIFSIGNALED(status) && WTERMSIG(status) == SIGKILL) return "killed";
  return "signal " + std::to_string(WTERMSIG(status));
}

}  // namespace sonorell::testing
