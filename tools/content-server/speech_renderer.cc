#include "speech_renderer.h"

#include <fcntl.h>
#include <signal.h>
#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <stdexcept>
#include <vector>

#include "data_dir.h"
#include "mp3_renderer.h"
#include "sha256.h"

extern char** environ;

namespace sonorell::content {
namespace {

// A clear British English voice at a listening pace a little slower than espeak-ng's 175.
constexpr std::string_view kVoice = "en";
constexpr std::string_view kWordsPerMinute = "160";

// Runs the program to its end with no standard input or output (stdout may be a caller's data,
// e.g. a JSON line), its errors going to ours. Returns its exit status; throws when it cannot run.
int runQuietly(const std::filesystem::path& program, const std::vector<std::string>& args) {
  std::vector<char*> argv;
  for (const std::string& a : args) argv.push_back(const_cast<char*>(a.c_str()));
  argv.push_back(nullptr);

  posix_spawn_file_actions_t files;
  posix_spawn_file_actions_init(&files);
  posix_spawn_file_actions_addopen(&files, STDIN_FILENO, "/dev/null", O_RDONLY, 0);
  posix_spawn_file_actions_addopen(&files, STDOUT_FILENO, "/dev/null", O_WRONLY, 0);
  // The server blocks its stop signals in every thread; the child must not inherit that.
  posix_spawnattr_t attributes;
  posix_spawnattr_init(&attributes);
  sigset_t none;
  sigemptyset(&none);
  posix_spawnattr_setsigmask(&attributes, &none);
  posix_spawnattr_setflags(&attributes, POSIX_SPAWN_SETSIGMASK);

  pid_t pid = 0;
  const int failed =
      ::posix_spawn(&pid, program.c_str(), &files, &attributes, argv.data(), environ);
  posix_spawnattr_destroy(&attributes);
  posix_spawn_file_actions_destroy(&files);
  if (failed != 0) {
    throw std::runtime_error("cannot run " + program.string() + ": " + std::strerror(failed));
  }
  int status = 0;
  while (::waitpid(pid, &status, 0) < 0) {
    if (errno != EINTR) throw std::runtime_error("lost " + program.string());
  }
  return WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
}

// Removes the file when it goes out of scope, whatever happened meanwhile.
struct TempFile {
  std::filesystem::path path;
  ~TempFile() {
    std::error_code ignored;
    std::filesystem::remove(path, ignored);
  }
};

}  // namespace

std::optional<std::filesystem::path> findEspeak() {
  const char* path = std::getenv("PATH");
  if (!path) return std::nullopt;
  std::string_view dirs(path);
  while (!dirs.empty()) {
    const auto colon = dirs.find(':');
    const std::string_view dir = dirs.substr(0, colon);
    dirs = colon == std::string_view::npos ? std::string_view() : dirs.substr(colon + 1);
    if (dir.empty()) continue;
    const auto candidate = std::filesystem::path(dir) / "espeak-ng";
    std::error_code ec;
    if (std::filesystem::is_regular_file(candidate, ec) && ::access(candidate.c_str(), X_OK) == 0) {
      return candidate;
    }
  }
  return std::nullopt;
}

std::string speechStem(std::string_view text) {
  const std::string settings =
      "espeak-ng -v " + std::string(kVoice) + " -s " + std::string(kWordsPerMinute) + "\n";
  return "speech-" + sha256Hex(settings + std::string(text)).substr(0, 16);
}

void renderSpeechMp3(const std::filesystem::path& espeak, std::string_view text,
                     const std::filesystem::path& path) {
  static std::atomic<unsigned> sequence{0};
  const std::string stem = path.filename().string() + ".tmp-" + std::to_string(::getpid()) + "-" +
                           std::to_string(sequence++);
  const TempFile textFile{path.parent_path() / (stem + ".txt")};
  const TempFile wavFile{path.parent_path() / (stem + ".wav")};
  writeFileAtomically(textFile.path, text);
  const int status = runQuietly(
      espeak, {"espeak-ng", "-v", std::string(kVoice), "-s", std::string(kWordsPerMinute), "-f",
               textFile.path.string(), "-w", wavFile.path.string()});
  if (status != 0) {
    throw std::runtime_error(espeak.string() + " exited with status " + std::to_string(status));
  }
  renderWavMp3(wavFile.path, path);
  try {
    mp3FrameBoundaries(readFile(path));  // whole frames, as every chapter is
  } catch (...) {
    std::filesystem::remove(path);
    throw;
  }
}

}  // namespace sonorell::content
