// The commands of the sonorell CLI. Each takes the session built from the global options and
// returns the process's exit code (kExitOK, kExitFailure, kExitUsage).
#pragma once

#include <cstdint>
#include <optional>
#include <string>

#include "cli_context.h"

namespace sonorell::cli {

// A chapter named on the command line, if any.
struct ChapterChoice {
  std::optional<uint64_t> part;
  std::optional<uint64_t> chapter;
};

struct DownloadArgs {
  std::string book;
  ChapterChoice at;
  bool toEnd = false;
  bool wifiOnly = false;
};
int runDownload(Session& session, const DownloadArgs& args);

// How a step ended, for commands made of several (the demo).
struct Outcome {
  int exitCode = kExitOK;
  std::optional<Failure> failure;
};
// The download itself, without the command's summary.
Outcome downloadBook(Session& session, const DownloadArgs& args);
int finishWith(Session& session, const std::string& command, const Outcome& outcome);
int runResume(Session& session);

int runStatus(Session& session, const std::string& book);
void printStatusTable(Session& session, const QSOAudiobookDownloadReport& report);
int runList(Session& session);

int runPause(Session& session, const std::string& book);
int runCancel(Session& session, const std::string& book, const ChapterChoice& at);
int runDelete(Session& session, const std::string& book, const ChapterChoice& at, bool all);

struct PlayArgs {
  std::string book;
  ChapterChoice at;
  double offset = 0;
  float rate = 1.0f;
  bool wifiOnly = false;
  bool untilEnd = false;
  std::optional<double> forSeconds;
};
int runPlay(Session& session, const PlayArgs& args);

struct DemoArgs {
  std::string library;
  bool keep = false;
};
int runDemo(const GlobalOptions& options, const DemoArgs& args);

// Prints a usage error ("sonorell: ...") on standard error; returns kExitUsage.
int usageError(const std::string& message);

}  // namespace sonorell::cli
