// The programs under test as other programs see them: the sonorell CLI run to completion with
// its output captured, or under a pseudo-terminal for the interactive paths; and the reference
// server binary started with --admin --print-ready and driven through its admin endpoints.
// Each object is used from the test's thread only.
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

// sonorell-content-server on an ephemeral loopback port with its admin endpoints.
class ServerProcess {
 public:
  // An empty `dataDir`: the server's default, shared by the machine.
  explicit ServerProcess(const std::string& dataDir);
  ~ServerProcess();  // SIGTERM, then waits
  const std::string& baseURL() const { return baseURL_; }
  const std::string& caCertificate() const { return caCertificate_; }
  // The admin endpoints; the answer's status and body.
  std::pair<long, nlohmann::json> admin(const std::string& method, const std::string& path,
                                        const nlohmann::json& body = nullptr) const;

 private:
  int pid_ = -1;
  std::string baseURL_;
  std::string caCertificate_;
};

}  // namespace sonorell::cli::testing
