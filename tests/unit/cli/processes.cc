// Runs the CLI through the server tests' ChildProgram, or on a pseudo-terminal with forkpty.
#include "processes.h"

#include "server_process.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <poll.h>
#include <pty.h>
#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <cstdlib>
#include <sstream>
#include <stdexcept>

namespace sonorell::cli::testing {

namespace {

using Clock = std::chrono::steady_clock;

[[noreturn]] void execWith(const std::string& program, const std::vector<std::string>& arguments,
                           const std::map<std::string, std::string>& env) {
  for (const auto& [name, value] : env) ::setenv(name.c_str(), value.c_str(), 1);
  std::vector<char*> argv;
  argv.push_back(const_cast<char*>(program.c_str()));
  for (const auto& a : arguments) argv.push_back(const_cast<char*>(a.c_str()));
  argv.push_back(nullptr);
  ::execv(program.c_str(), argv.data());
  ::_exit(127);
}

int remainingMs(Clock::time_point deadline) {
  const auto left = std::chrono::duration_cast<std::chrono::milliseconds>(deadline - Clock::now());
  return left.count() > 0 ? static_cast<int>(left.count()) : 0;
}

// Waits for the child; kills it at the deadline. The exit code, or -1.
int reap(int pid, Clock::time_point deadline) {
  int status = 0;
  for (;;) {
    const pid_t done = ::waitpid(pid, &status, WNOHANG);
    if (done == pid) break;
    if (Clock::now() >= deadline) {
      ::kill(pid, SIGKILL);
      ::waitpid(pid, &status, 0);
      return -1;
    }
    ::usleep(10'000);  // polling a child's exit; nothing to advance here
  }
  return WIFEXITED(status) ? WEXITSTATUS(status) : -1;
}

}  // namespace

std::vector<nlohmann::json> CommandResult::jsonLines() const {
  std::vector<nlohmann::json> lines;
  std::istringstream stream(out);
  for (std::string line; std::getline(stream, line);) {
    auto parsed = nlohmann::json::parse(line, nullptr, false);
    EXPECT_FALSE(parsed.is_discarded()) << "not JSON: " << line;
    if (!parsed.is_discarded()) lines.push_back(std::move(parsed));
  }
  return lines;
}

CommandResult runCommand(const std::string& program, const std::vector<std::string>& arguments,
                         const std::map<std::string, std::string>& env, Seconds limit) {
  std::vector<std::string> changes;
  for (const auto& [name, value] : env) changes.push_back(name + "=" + value);
  const auto stderrFile = content::testing::stderrFileFor("sonorell");
  content::testing::ChildProgram child(program, arguments, stderrFile, changes);
  const auto deadline = Clock::now() + limit;
  CommandResult result;
  result.out = child.readRest(deadline);
  const auto ended = child.wait(deadline);
  result.err = content::testing::readWholeFile(stderrFile);
  std::filesystem::remove(stderrFile);
  if (ended && ended->rfind("exit ", 0) == 0) result.exitCode = std::stoi(ended->substr(5));
  return result;
}

std::unique_ptr<PtyProcess> PtyProcess::start(const std::string& program,
                                              const std::vector<std::string>& arguments,
                                              const std::map<std::string, std::string>& env) {
  int fd = -1;
  winsize size{40, 160, 0, 0};
  const pid_t pid = ::forkpty(&fd, nullptr, nullptr, &size);
  if (pid < 0) throw std::runtime_error("forkpty");
  if (pid == 0) execWith(program, arguments, env);
  return std::unique_ptr<PtyProcess>(new PtyProcess(pid, fd));
}

PtyProcess::~PtyProcess() {
  if (!exited_) {
    ::kill(pid_, SIGKILL);
    ::waitpid(pid_, nullptr, 0);
  }
  ::close(fd_);
}

bool PtyProcess::readSome(Clock::time_point deadline) {
  pollfd p{fd_, POLLIN, 0};
  if (::poll(&p, 1, remainingMs(deadline)) <= 0) return false;
  char buffer[4096];
  const ssize_t n = ::read(fd_, buffer, sizeof buffer);
  if (n <= 0) return false;  // EIO once the child has gone
  output_.append(buffer, static_cast<std::size_t>(n));
  return true;
}

bool PtyProcess::waitForText(const std::string& text, Seconds limit) {
  const auto deadline = Clock::now() + limit;
  while (output_.find(text) == std::string::npos) {
    if (Clock::now() >= deadline || !readSome(deadline)) return false;
  }
  return true;
}

void PtyProcess::type(const std::string& keys) {
  ASSERT_EQ(::write(fd_, keys.data(), keys.size()), static_cast<ssize_t>(keys.size()));
}

int PtyProcess::wait(Seconds limit) {
  const auto deadline = Clock::now() + limit;
  while (Clock::now() < deadline && readSome(deadline)) {
  }
  exited_ = true;
  return reap(pid_, deadline);
}

}  // namespace sonorell::cli::testing
