// fork/exec with pipes or a pseudo-terminal, and a libcurl client for the admin endpoints.
#include "processes.h"

#include <curl/curl.h>
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

std::size_t appendBody(char* data, std::size_t size, std::size_t count, void* out) {
  static_cast<std::string*>(out)->append(data, size * count);
  return size * count;
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
  int outPipe[2], errPipe[2];
  if (::pipe2(outPipe, O_CLOEXEC) != 0 || ::pipe2(errPipe, O_CLOEXEC) != 0) {
    throw std::runtime_error("pipe");
  }
  const pid_t pid = ::fork();
  if (pid == 0) {
    const int devNull = ::open("/dev/null", O_RDONLY);
    ::dup2(devNull, STDIN_FILENO);
    ::dup2(outPipe[1], STDOUT_FILENO);
    ::dup2(errPipe[1], STDERR_FILENO);
    execWith(program, arguments, env);
  }
  ::close(outPipe[1]);
  ::close(errPipe[1]);
  CommandResult result;
  const auto deadline = Clock::now() + limit;
  pollfd fds[2] = {{outPipe[0], POLLIN, 0}, {errPipe[0], POLLIN, 0}};
  std::string* sinks[2] = {&result.out, &result.err};
  int open = 2;
  while (open > 0 && Clock::now() < deadline) {
    if (::poll(fds, 2, remainingMs(deadline)) <= 0) continue;
    for (int i = 0; i < 2; ++i) {
      if (fds[i].fd < 0 || !(fds[i].revents & (POLLIN | POLLHUP))) continue;
      char buffer[65536];
      const ssize_t n = ::read(fds[i].fd, buffer, sizeof buffer);
      if (n > 0) {
        sinks[i]->append(buffer, static_cast<std::size_t>(n));
      } else if (n == 0 || errno != EINTR) {
        ::close(fds[i].fd);
        fds[i].fd = -1;
        --open;
      }
    }
  }
  for (auto& fd : fds) {
    if (fd.fd >= 0) ::close(fd.fd);
  }
  result.exitCode = reap(pid, deadline);
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

ServerProcess::ServerProcess(const std::string& dataDir) {
  int outPipe[2];
  if (::pipe2(outPipe, O_CLOEXEC) != 0) throw std::runtime_error("pipe");
  pid_ = ::fork();
  if (pid_ == 0) {
    ::dup2(outPipe[1], STDOUT_FILENO);
    std::vector<std::string> arguments{"--admin", "--print-ready", "--port", "0"};
    if (!dataDir.empty()) arguments.insert(arguments.end(), {"--data-dir", dataDir});
    execWith(SONORELL_CONTENT_SERVER, arguments, {});
  }
  ::close(outPipe[1]);
  // The first line says where it listens; rendering the catalogue may take a while the first time.
  std::string line;
  const auto deadline = Clock::now() + Seconds(120);
  char c;
  while (Clock::now() < deadline && ::read(outPipe[0], &c, 1) == 1 && c != '\n') line += c;
  ::close(outPipe[0]);
  const auto ready = nlohmann::json::parse(line, nullptr, false);
  if (ready.is_discarded() || !ready.contains("baseURL")) {
    throw std::runtime_error("content server not ready: " + line);
  }
  baseURL_ = ready.at("baseURL").get<std::string>();
  caCertificate_ = ready.at("caCertificate").get<std::string>();
}

ServerProcess::~ServerProcess() {
  if (pid_ <= 0) return;
  ::kill(pid_, SIGTERM);
  ::waitpid(pid_, nullptr, 0);
}

std::pair<long, nlohmann::json> ServerProcess::admin(const std::string& method,
                                                     const std::string& path,
                                                     const nlohmann::json& body) const {
  CURL* curl = curl_easy_init();
  const std::string url = baseURL_ + path;
  const std::string payload = body.is_null() ? std::string() : body.dump();
  std::string answer;
  curl_easy_setopt(curl, CURLOPT_URL, url.c_str());
  curl_easy_setopt(curl, CURLOPT_CAINFO, caCertificate_.c_str());
  curl_easy_setopt(curl, CURLOPT_CUSTOMREQUEST, method.c_str());
  curl_easy_setopt(curl, CURLOPT_NOSIGNAL, 1L);
  curl_easy_setopt(curl, CURLOPT_TIMEOUT, 30L);
  curl_easy_setopt(curl, CURLOPT_WRITEFUNCTION, appendBody);
  curl_easy_setopt(curl, CURLOPT_WRITEDATA, &answer);
  curl_slist* headers = nullptr;
  if (!payload.empty()) {
    headers = curl_slist_append(headers, "Content-Type: application/json");
    curl_easy_setopt(curl, CURLOPT_HTTPHEADER, headers);
    curl_easy_setopt(curl, CURLOPT_POSTFIELDS, payload.c_str());
    curl_easy_setopt(curl, CURLOPT_POSTFIELDSIZE, static_cast<long>(payload.size()));
  }
  long status = 0;
  if (curl_easy_perform(curl) == CURLE_OK) curl_easy_getinfo(curl, CURLINFO_RESPONSE_CODE, &status);
  curl_slist_free_all(headers);
  curl_easy_cleanup(curl);
  return {status, nlohmann::json::parse(answer, nullptr, false)};
}

}  // namespace sonorell::cli::testing
