// The sonorell command-line host: drives the engine the way an application would.
#include <CLI/CLI.hpp>
#include <condition_variable>
#include <cstdio>
#include <iostream>
#include <mutex>

#include "sonorell/sonorell.h"

namespace {

using namespace sonorell;

// Prints every engine log line, whatever its level, the way a host captures them.
class PrintingListener : public QSOLogListener {
 public:
  void logError(const std::string& line) override { print("error", line); }
  void logWarning(const std::string& line) override { print("warning", line); }
  void logInfo(const std::string& line) override { print("info", line); }
  void logVerbose(const std::string& line) override { print("verbose", line); }

 private:
  void print(const char* level, const std::string& line) {
    std::lock_guard lock(mutex_);
    std::printf("  log %-7s %s\n", level, line.c_str());
    std::fflush(stdout);
  }
  std::mutex mutex_;
};

int runDemo() {
  QSOLogEngine::setListener(std::make_shared<PrintingListener>());
  std::printf("Sonorell engine %s\n", std::string(QSOSonorell::currentVersion()).c_str());

  std::mutex mutex;
  std::condition_variable cv;
  bool backgrounded = false;
  auto token =
      NotificationCenter::defaultCenter().addObserver("QLBackgrounded", [&](const Notification& n) {
        std::printf("notification %s %s\n", n.name.c_str(), describe(n.userInfo).c_str());
        std::lock_guard lock(mutex);
        backgrounded = true;
        cv.notify_all();
      });

  auto engine = QSOSonorell::sharedEngine();
  engine->didFinishLaunching();
  engine->didEnterBackground();
  {
    std::unique_lock lock(mutex);
    cv.wait_for(lock, std::chrono::seconds(5), [&] { return backgrounded; });
  }
  NotificationCenter::defaultCenter().removeObserver(token);
  QSOLogEngine::setListener(nullptr);
  return backgrounded ? 0 : 1;
}

}  // namespace

int main(int argc, char** argv) {
  CLI::App app{"sonorell: download and play audiobooks with the Sonorell engine"};
  app.require_subcommand(1);
  auto* demo = app.add_subcommand("demo", "Launch the engine and show what it does");
  auto* version = app.add_subcommand("version", "Print the engine version");
  CLI11_PARSE(app, argc, argv);

  if (*version) {
    std::cout << QSOSonorell::currentVersion() << "\n";
    return 0;
  }
  if (*demo) return runDemo();
  return 0;
}
