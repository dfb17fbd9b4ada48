// Shared by the benchmark programs: pairs of benchmarks (ours, a peer measured in the same run)
// whose time ratio is printed after the run, and the main that runs them. Used from the
// benchmark thread only.
#pragma once

#include <benchmark/benchmark.h>

#include <cstdio>
#include <map>
#include <string>
#include <utility>
#include <vector>

namespace sonorell::bench {

struct Comparison {
  std::string subject;
  std::string peer;
};

inline std::vector<Comparison>& comparisons() {
  static std::vector<Comparison> list;
  return list;
}

// Registers a pair (benchmark function names) whose time ratio is printed after the run.
inline bool compare(std::string subject, std::string peer) {
  comparisons().push_back({std::move(subject), std::move(peer)});
  return true;
}

// Prints as usual and remembers each benchmark's real time per iteration, pooled over its
// repetitions.
class RecordingReporter : public benchmark::ConsoleReporter {
 public:
  void ReportRuns(const std::vector<Run>& runs) override {
    for (const Run& run : runs) {
      if (run.run_type != Run::RT_Iteration || run.error_occurred || run.iterations == 0) continue;
      Total& total = totals_[run.run_name.function_name];
      total.seconds += run.real_accumulated_time;
      total.iterations += static_cast<double>(run.iterations);
    }
    ConsoleReporter::ReportRuns(runs);
  }

  void printComparisons() const {
    std::printf("\nRatios (ours / peer, real time per iteration; below 1 is faster):\n");
    for (const Comparison& c : comparisons()) {
      auto subject = totals_.find(c.subject);
      auto peer = totals_.find(c.peer);
      if (subject == totals_.end() || peer == totals_.end()) continue;
      double subjectNs = subject->second.nanosPerIteration();
      double peerNs = peer->second.nanosPerIteration();
      std::printf("  %s: %.0f ns vs %s: %.0f ns -> ratio %.2f\n", c.subject.c_str(), subjectNs,
                  c.peer.c_str(), peerNs, subjectNs / peerNs);
    }
  }

 private:
  struct Total {
    double seconds = 0;
    double iterations = 0;
    double nanosPerIteration() const { return seconds * 1e9 / iterations; }
  };
  std::map<std::string, Total> totals_;
};

// The body of every benchmark program's main.
inline int runBenchmarks(int argc, char** argv) {
  benchmark::Initialize(&argc, argv);
  if (benchmark::ReportUnrecognizedArguments(argc, argv)) return 1;
  RecordingReporter reporter;
  benchmark::RunSpecifiedBenchmarks(&reporter);
  reporter.printComparisons();
  benchmark::Shutdown();
  return 0;
}

}  // namespace sonorell::bench
