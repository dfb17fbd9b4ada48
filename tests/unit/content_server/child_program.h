// A program that a test runs as a child process: its standard output read through a pipe, its
// standard error kept in a file, its environment adjusted, and its end awaited with a deadline.
// Used from the test's thread only.
#pragma once

#include <chrono>
#include <filesystem>
#include <optional>
#include <string>
#include <utility>
#include <vector>

namespace sonorell::content::testing {

class ChildProgram {
 public:
  using Deadline = std::chrono::steady_clock::time_point;

  // `environment` holds "NAME=value" entries that replace or add to the test's own variables.
  // Throws std::runtime_error when the program cannot be started.
  ChildProgram(const std::filesystem::path& program, const std::vector<std::string>& arguments,
               const std::filesystem::path& stderrFile,
               const std::vector<std::string>& environment = {});
  ~ChildProgram();  // a child still running is killed and reaped
  ChildProgram(const ChildProgram&) = delete;
  ChildProgram& operator=(const ChildProgram&) = delete;

  // The next line of standard output without its newline; none once the output ended or the
  // deadline passed.
  std::optional<std::string> readLine(Deadline deadline);
  // The rest of standard output, up to its end or the deadline.
  std::string readRest(Deadline deadline);

  void signal(int number);
  // How the child ended: "exit <code>" or "signal <n>"; none when it still runs at the deadline.
  std::optional<std::string> wait(Deadline deadline);

 private:
  // Reads what is there, waiting until the deadline; false at the end of the output or deadline.
  bool fill(Deadline deadline);

  int pid_ = -1;
  int pidfd_ = -1;   // readable once the child has ended
  int stdout_ = -1;  // read end of the child's standard output
  bool outputEnded_ = false;
  std::string buffer_;
};

inline ChildProgram::Deadline after(std::chrono::milliseconds limit) {
  return std::chrono::steady_clock::now() + limit;
}

}  // namespace sonorell::content::testing
