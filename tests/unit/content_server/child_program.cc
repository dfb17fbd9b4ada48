#include "child_program.h"

#include <fcntl.h>
#include <poll.h>
#include <signal.h>
#include <spawn.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <stdexcept>

extern char** environ;

namespace sonorell::content::testing {
namespace {

std::string nameOf(const std::string& entry) { return entry.substr(0, entry.find('=')); }

std::vector<std::string> environmentWith(const std::vector<std::string>& changes) {
  std::vector<std::string> out;
  for (char** e = environ; *e; ++e) {
    const std::string entry(*e);
    bool replaced = false;
    for (const auto& change : changes) replaced = replaced || nameOf(change) == nameOf(entry);
    if (!replaced) out.push_back(entry);
  }
  out.insert(out.end(), changes.begin(), changes.end());
  return out;
}

std::vector<char*> pointersTo(std::vector<std::string>& strings) {
  std::vector<char*> out;
  for (auto& s : strings) out.push_back(s.data());
  out.push_back(nullptr);
  return out;
}

// Milliseconds left until the deadline, for poll(); 0 once it passed.
int millisecondsUntil(ChildProgram::Deadline deadline) {
  const auto left =
      std::chrono::ceil<std::chrono::milliseconds>(deadline - std::chrono::steady_clock::now());
  return static_cast<int>(std::max<std::int64_t>(0, left.count()));
}

}  // namespace

ChildProgram::ChildProgram(const std::filesystem::path& program,
                           const std::vector<std::string>& arguments,
                           const std::filesystem::path& stderrFile,
                           const std::vector<std::string>& environment) {
  std::vector<std::string> args{program.string()};
  args.insert(args.end(), arguments.begin(), arguments.end());
  std::vector<std::string> env = environmentWith(environment);
  std::vector<char*> argv = pointersTo(args);
  std::vector<char*> envp = pointersTo(env);

  int fds[2];
  if (::pipe2(fds, O_CLOEXEC) != 0)
    throw std::runtime_error("pipe: " + std::string(strerror(errno)));
  posix_spawn_file_actions_t actions;
  ::posix_spawn_file_actions_init(&actions);
  ::posix_spawn_file_actions_addopen(&actions, STDIN_FILENO, "/dev/null", O_RDONLY, 0);
  ::posix_spawn_file_actions_adddup2(&actions, fds[1], STDOUT_FILENO);
  ::posix_spawn_file_actions_addopen(&actions, STDERR_FILENO, stderrFile.c_str(),
                                     O_WRONLY | O_CREAT | O_TRUNC, 0600);
  pid_t pid = -1;
  const int failed =
      ::posix_spawn(&pid, program.c_str(), &actions, nullptr, argv.data(), envp.data());
  ::posix_spawn_file_actions_destroy(&actions);
  ::close(fds[1]);
  if (failed != 0) {
    ::close(fds[0]);
    throw std::runtime_error("cannot start " + program.string() + ": " + strerror(failed));
  }
  pid_ = pid;
  stdout_ = fds[0];
  pidfd_ = static_cast<int>(::syscall(SYS_pidfd_open, pid, 0));
  if (pidfd_ < 0) {
    ::kill(pid_, SIGKILL);
    ::waitpid(pid_, nullptr, 0);
    pid_ = -1;
    throw std::runtime_error("pidfd_open: " + std::string(strerror(errno)));
  }
}

ChildProgram::~ChildProgram() {
  if (pid_ > 0) {
    ::kill(pid_, SIGKILL);
    ::waitpid(pid_, nullptr, 0);
  }
  if (pidfd_ >= 0) ::close(pidfd_);
  if (stdout_ >= 0) ::close(stdout_);
}

bool ChildProgram::fill(Deadline deadline) {
  if (outputEnded_) return false;
  pollfd p{stdout_, POLLIN, 0};
  int ready;
  do {
    ready = ::poll(&p, 1, millisecondsUntil(deadline));
  } while (ready < 0 && errno == EINTR);
  if (ready <= 0) return false;
  char chunk[4096];
  const ssize_t got = ::read(stdout_, chunk, sizeof chunk);
  if (got <= 0) {
    outputEnded_ = true;
    return false;
  }
  buffer_.append(chunk, static_cast<std::size_t>(got));
  return true;
}

std::optional<std::string> ChildProgram::readLine(Deadline deadline) {
  for (;;) {
    if (const auto end = buffer_.find('\n'); end != std::string::npos) {
      std::string line = buffer_.substr(0, end);
      buffer_.erase(0, end + 1);
      return line;
    }
    if (!fill(deadline)) return std::nullopt;
  }
}

std::string ChildProgram::readRest(Deadline deadline) {
  while (fill(deadline)) {
  }
  return std::exchange(buffer_, std::string());
}

void ChildProgram::signal(int number) {
  if (pid_ > 0) ::kill(pid_, number);
}

std::optional<std::string> ChildProgram::wait(Deadline deadline) {
  if (pid_ <= 0) return std::nullopt;
  pollfd p{pidfd_, POLLIN, 0};
  int ready;
  do {
    ready = ::poll(&p, 1, millisecondsUntil(deadline));
  } while (ready < 0 && errno == EINTR);
  if (ready <= 0) return std::nullopt;
  int status = 0;
  if (::waitpid(pid_, &status, 0) != pid_) return std::nullopt;
  pid_ = -1;
  if (WIFEXITED(status)) return "exit " + std::to_string(WEXITSTATUS(status));
  return "signal " + std::to_string(WTERMSIG(status));
}

}  // namespace sonorell::content::testing
