// The sonorell CLI as other programs see it: run to completion with its output captured, or
// under a pseudo-terminal for the interactive paths. Used from the test's thread only. (The
// server binary is run by the content server tests' ServerProcess.)
#pragma once

#include <nlohmann/json.hpp>

#include <chrono>
#include <map>
#include <memory>
#include <string>
#include <vector>

namespace sonorell::cli::testing {

using Seconds = std::chrono::seconds;

struct CommandResult {
  int exitCode = -1;  // -1: killed at the time limit, or died of a signal
  std::string out;
  std::string err;
  // Standard output's lines parsed as JSON; a line that is not JSON fails the test.
  std::vector<nlohmann::json> jsonLines() const;
};

// Runs the program with `arguments`, the environment plus `env`, standard input empty.
CommandResult runCommand(const std::string& program, const std::vector<std::string>& arguments,
                         const std::map<std::string, std::string>& env = {},
                         Seconds limit = Seconds(60));

// A program on a pseudo-terminal: what it writes is collected; keys are typed into it.
class PtyProcess {
 public:
  static std::unique_ptr<PtyProcess> start(const std::string& program,
                                           const std::vector<std::string>& arguments,
                                           const std::map<std::string, std::string>& env);
  ~PtyProcess();  // kills it if it still runs
  // Reads until `text` appears in everything written since start; false after `limit`.
  bool waitForText(const std::string& text, Seconds limit = Seconds(30));
  void type(const std::string& keys);
  // Reads to the end and waits for the exit code (-1 after `limit`: killed).
  int wait(Seconds limit = Seconds(30));
  const std::string& output() const { return output_; }
  // Output from `from` on.
  std::string outputSince(std::size_t from) const { return output_.substr(from); }

 private:
  PtyProcess(int pid, int fd) : pid_(pid), fd_(fd) {}
  bool readSome(std::chrono::steady_clock::time_point deadline);
  int pid_;
  int fd_;
  bool exited_ = false;
  std::string output_;
};

}  // namespace sonorell::cli::testing
