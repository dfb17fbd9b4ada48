// A second process for the process-death tests: the transfer_child program (transfer_child/),
// started with its settings as arguments. It reports lines on file descriptor 3, which the
// parent reads; the parent ends it with SIGKILL. Used from the test's thread only.
#pragma once

#include <chrono>
#include <memory>
#include <optional>
#include <string>
#include <vector>

namespace sonorell::testing {

class ChildProcess {
 public:
  // The child's arguments: Library directory, URL, CA bundle, session identifier, task
  // description, and "1" to block inside didFinishDownloadingToURL instead of handling the file.
  static std::unique_ptr<ChildProcess> start(const std::vector<std::string>& arguments);
  ~ChildProcess();  // kills it if it still runs

  // The next line the child wrote, or none at end of stream or after `limit`.
  std::optional<std::string> readLine(std::chrono::seconds limit = std::chrono::seconds(30));
  // SIGKILL, then waits; true when the child died of that signal.
  bool kill();

 private:
  ChildProcess(int pid, int fd) : pid_(pid), fd_(fd) {}
  int pid_;
  int fd_;
  std::string buffer_;
};

}  // namespace sonorell::testing
