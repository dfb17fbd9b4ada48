// A second process for the process-death tests: the transfer_child program (transfer_child/),
// started with its settings in its environment. It reports lines on file descriptor 3, which the
// parent reads; the parent ends it with SIGKILL. Used from the test's thread only.
#pragma once

#include <chrono>
#include <memory>
#include <optional>
#include <string>
#include <utility>
#include <vector>

namespace sonorell::testing {

class ChildProcess {
 public:
  using Environment = std::vector<std::pair<std::string, std::string>>;
  static std::unique_ptr<ChildProcess> start(const Environment& environment);
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

// The child's side: the environment variable names.
inline constexpr const char* kChildURL = "SONORELL_TRANSFER_CHILD_URL";
inline constexpr const char* kChildCA = "SONORELL_TRANSFER_CHILD_CA";
inline constexpr const char* kChildSession = "SONORELL_TRANSFER_CHILD_SESSION";
inline constexpr const char* kChildDescription = "SONORELL_TRANSFER_CHILD_DESCRIPTION";
// "1": the child blocks inside didFinishDownloadingToURL instead of handling the file.
inline constexpr const char* kChildBlockInFinish = "SONORELL_TRANSFER_CHILD_BLOCK_IN_FINISH";

}  // namespace sonorell::testing
