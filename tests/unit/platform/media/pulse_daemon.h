// A private PulseAudio daemon for the audio-session tests: started by the test in a temporary
// runtime directory (never the user's or the system's server), with a "speakers" null sink, a
// "headphones" one (the default) and role-based corking, driven with pactl and pacat, killed with
// SIGKILL and started again on the same socket. Used from the test's thread only.
#pragma once

#include <fcntl.h>
#include <signal.h>
#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cctype>
#include <chrono>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <map>
#include <optional>
#include <sstream>
#include <string>
#include <thread>
#include <vector>

extern char** environ;

namespace sonorell::testing {

struct ProgramResult {
  int exitCode = -1;
  std::string out;
};

// Runs a program to its end with standard output captured (standard error to `errLog`, or
// discarded).
inline ProgramResult runProgram(const std::vector<std::string>& argv,
                                const std::string& errLog = "/dev/null") {
  int pipeFds[2];
  if (pipe(pipeFds) != 0) return {};
  posix_spawn_file_actions_t actions;
  posix_spawn_file_actions_init(&actions);
  posix_spawn_file_actions_adddup2(&actions, pipeFds[1], 1);
  posix_spawn_file_actions_addclose(&actions, pipeFds[0]);
  posix_spawn_file_actions_addopen(&actions, 2, errLog.c_str(), O_WRONLY | O_CREAT | O_APPEND,
                                   0600);
  posix_spawn_file_actions_addopen(&actions, 0, "/dev/null", O_RDONLY, 0);
  std::vector<char*> args;
  for (const auto& a : argv) args.push_back(const_cast<char*>(a.c_str()));
  args.push_back(nullptr);
  pid_t pid = -1;
  const int spawned = posix_spawnp(&pid, args[0], &actions, nullptr, args.data(), environ);
  posix_spawn_file_actions_destroy(&actions);
  close(pipeFds[1]);
  ProgramResult result;
  if (spawned != 0) {
    close(pipeFds[0]);
    return result;
  }
  char buffer[4096];
  for (ssize_t n; (n = read(pipeFds[0], buffer, sizeof buffer)) > 0;) result.out.append(buffer, n);
  close(pipeFds[0]);
  int status = 0;
  waitpid(pid, &status, 0);
  result.exitCode = WIFEXITED(status) ? WEXITSTATUS(status) : -1;
  return result;
}

// Starts a program in the background with the environment plus `env`; its output goes to `log`.
// -1 when it cannot be started.
inline pid_t startProgram(const std::vector<std::string>& argv, const std::string& log,
                          const std::map<std::string, std::string>& env = {}) {
  std::vector<std::string> variables;
  for (char** e = environ; *e; ++e) {
    const std::string entry(*e);
    if (!env.contains(entry.substr(0, entry.find('=')))) variables.push_back(entry);
  }
  for (const auto& [name, value] : env) variables.push_back(name + "=" + value);
  std::vector<char*> envp;
  for (auto& v : variables) envp.push_back(v.data());
  envp.push_back(nullptr);
  posix_spawn_file_actions_t actions;
  posix_spawn_file_actions_init(&actions);
  posix_spawn_file_actions_addopen(&actions, 0, "/dev/null", O_RDONLY, 0);
  posix_spawn_file_actions_addopen(&actions, 1, log.c_str(), O_WRONLY | O_CREAT | O_APPEND, 0600);
  posix_spawn_file_actions_adddup2(&actions, 1, 2);
  std::vector<char*> args;
  for (const auto& a : argv) args.push_back(const_cast<char*>(a.c_str()));
  args.push_back(nullptr);
  pid_t pid = -1;
  const int spawned = posix_spawnp(&pid, args[0], &actions, nullptr, args.data(), envp.data());
  posix_spawn_file_actions_destroy(&actions);
  return spawned == 0 ? pid : -1;
}

inline void killAndReap(pid_t& pid, int signal = SIGKILL) {
  if (pid <= 0) return;
  kill(pid, signal);
  int status = 0;
  waitpid(pid, &status, 0);
  pid = -1;
}

class PulseDaemon {
 public:
  PulseDaemon() {
    char pattern[] = "/tmp/sonorell-pulse-XXXXXX";
    if (!mkdtemp(pattern)) return;
    dir_ = pattern;
    std::filesystem::create_directories(dir_ / "runtime");
    std::filesystem::permissions(dir_ / "runtime", std::filesystem::perms::owner_all);
    std::ofstream script(dir_ / "default.pa");
    script << "load-module module-native-protocol-unix auth-anonymous=1 socket=" << socket() << "\n"
           << "load-module module-null-sink sink_name=speakers sink_properties=\""
              "device.description=Speakers device.form_factor=speaker\"\n"
           << "load-module module-null-sink sink_name=headphones sink_properties=\""
              "device.description=Headphones device.form_factor=headphone\"\n"
           // A stream of the phone role corks the music streams on its sink (a call).
           << "load-module module-role-cork trigger_roles=phone cork_roles=music\n"
           << "set-default-sink headphones\n";
  }
  ~PulseDaemon() {
    stop();
    std::error_code ignored;
    if (!dir_.empty()) std::filesystem::remove_all(dir_, ignored);
  }

  // Starts the daemon and waits until it answers; the reason when it does not.
  std::optional<std::string> start() {
    if (dir_.empty()) return "no temporary directory";
    // As root the daemon warns that it is meant for a user session, and runs.
    pid_ = startProgram(
        {"pulseaudio", "-n", "--daemonize=no", "--exit-idle-time=-1", "--use-pid-file=no",
         "--system=no", "--realtime=no", "--high-priority=no", "--disable-shm=yes",
         "--log-target=stderr", "-F", (dir_ / "default.pa").string()},
        log(),
        {{"HOME", dir_.string()},
         {"XDG_RUNTIME_DIR", (dir_ / "runtime").string()},
         {"PULSE_RUNTIME_PATH", (dir_ / "runtime").string()},
         {"XDG_CONFIG_HOME", (dir_ / "config").string()},
         {"DBUS_SESSION_BUS_ADDRESS", "disabled:"}});
    if (pid_ < 0) return "pulseaudio could not be started (is it installed?)";
    const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(15);
    while (std::chrono::steady_clock::now() < deadline) {
      if (pactl({"info"}).exitCode == 0) return std::nullopt;
      int status = 0;
      if (waitpid(pid_, &status, WNOHANG) == pid_) {
        pid_ = -1;
        return "pulseaudio exited: " + logText();
      }
      std::this_thread::sleep_for(std::chrono::milliseconds(20));
    }
    stop();
    return "pulseaudio did not answer within 15 s: " + logText();
  }
  void kill() { killAndReap(pid_); }
  void stop() { killAndReap(pid_, SIGTERM); }

  std::string server() const { return "unix:" + socket(); }
  std::string socket() const { return (dir_ / "native").string(); }
  std::string log() const { return (dir_ / "daemon.log").string(); }
  std::string logText() const {
    std::ifstream in(log());
    std::stringstream text;
    text << in.rdbuf();
    return text.str();
  }

  ProgramResult pactl(std::vector<std::string> arguments) const {
    arguments.insert(arguments.begin(), {"pactl", "--server=" + server()});
    return runProgram(arguments);
  }
  // A module's index, as pactl load-module prints it.
  std::optional<std::string> loadModule(std::vector<std::string> arguments) const {
    arguments.insert(arguments.begin(), "load-module");
    auto result = pactl(arguments);
    if (result.exitCode != 0) return std::nullopt;
    while (!result.out.empty() && std::isspace(static_cast<unsigned char>(result.out.back()))) {
      result.out.pop_back();
    }
    return result.out;
  }
  // The index of the module that made the sink, for unloading it (the device going away).
  std::optional<std::string> moduleOf(const std::string& sinkName) const {
    std::istringstream lines(pactl({"list", "modules", "short"}).out);
    const std::string wanted = "sink_name=" + sinkName;
    std::string line;
    while (std::getline(lines, line)) {
      std::istringstream fields(line);
      std::string index, word;
      fields >> index;
      while (fields >> word) {
        if (word == wanted) return index;
      }
    }
    return std::nullopt;
  }
  // "pactl list sink-inputs" as one record per stream: its index and property lines.
  std::map<std::string, std::string> sinkInputs() const {
    std::map<std::string, std::string> inputs;
    std::istringstream lines(pactl({"list", "sink-inputs"}).out);
    std::string line, current;
    while (std::getline(lines, line)) {
      if (line.rfind("Sink Input #", 0) == 0) {
        current = line.substr(12);
        inputs[current] = "";
      } else if (!current.empty()) {
        inputs[current] += line + "\n";
      }
    }
    return inputs;
  }
  // A client that plays silence with a media role, as a call would; ended with stopClient().
  pid_t startClient(const std::string& role, const std::string& sink) const {
    return startProgram({"pacat", "--server=" + server(), "--playback", "--device=" + sink,
                         "--property=media.role=" + role, "--raw", "/dev/zero"},
                        (dir_ / "client.log").string());
  }

 private:
  std::filesystem::path dir_;
  pid_t pid_ = -1;
};

}  // namespace sonorell::testing
