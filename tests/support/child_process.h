// A second process for the process-death tests (transfer_child, engine_child): started with its
// arguments, it reports lines on file descriptor 3, which the parent reads; its standard error
// may be appended to a log file; the parent ends it with SIGKILL. Used from the test's thread only.
#pragma once

#include <chrono>
#include <memory>
#include <optional>
#include <string>
#include <vector>

namespace sonorell::testing {

class ChildProcess {
 public:
  using Deadline = std::chrono::steady_clock::time_point;

  // `stderrLog` empty: the child's standard error is the parent's.
  static std::unique_ptr<ChildProcess> start(const char* program,
                                             const std::vector<std::string>& arguments,
                                             const std::string& stderrLog = "");
  ~ChildProcess();  // kills it if it still runs

  // The next line the child wrote, or none at end of stream or once the deadline passed.
  std::optional<std::string> readLine(Deadline deadline);
  std::optional<std::string> readLine(std::chrono::seconds limit = std::chrono::seconds(30)) {
    return readLine(std::chrono::steady_clock::now() + limit);
  }
  // The stream ended and every line was read.
  bool atEnd() const { return eof_ && buffer_.find('\n') == std::string::npos; }
  // SIGKILL, then waits; true when the child died of that signal.
  bool kill();
  // Waits for the child to end and says how: "exit <code>", "killed" or "signal <n>".
  std::string reap();

 private:
  ChildProcess(int pid, int fd) : pid_(pid), fd_(fd) {}
  int pid_;
  int fd_;
  bool eof_ = false;
  std::string buffer_;
};

}  // namespace sonorell::testing
