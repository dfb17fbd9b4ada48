// Console output of Google Benchmark plus, at the end, the ratio of each of our measurements to
// its peer measured in the same run ("BM_Engine<X>" against "BM_Plain<...><X>" style pairs given
// explicitly by name). Single-threaded: used from the benchmark main only.
#pragma once

#include <benchmark/benchmark.h>

#include <cstdio>
#include <map>
#include <string>
#include <utility>
#include <vector>

namespace sonorell::bench {

class RatioReporter : public benchmark::ConsoleReporter {
 public:
  // Each pair: (ours, peer) benchmark names, e.g. {"BM_EngineBatchInsert",
  // "BM_PlainSqliteBatchInsert"}.
  explicit RatioReporter(std::vector<std::pair<std::string, std::string>> pairs)
      : pairs_(std::move(pairs)) {}

  void ReportRuns(const std::vector<Run>& runs) override {
    for (const auto& run : runs) {
      if (run.run_type == Run::RT_Iteration) {
        perIteration_[run.benchmark_name()] = run.GetAdjustedRealTime();
        unit_[run.benchmark_name()] = benchmark::GetTimeUnitString(run.time_unit);
      }
    }
    ConsoleReporter::ReportRuns(runs);
  }

  void Finalize() override {
    ConsoleReporter::Finalize();
    std::printf("\nRatios (ours / peer, wall time per iteration; below 1 is faster):\n");
    for (const auto& [ours, peer] : pairs_) {
      auto a = perIteration_.find(ours);
      auto b = perIteration_.find(peer);
      if (a == perIteration_.end() || b == perIteration_.end() || b->second == 0) continue;
      std::printf("  %-36s %10.3f %-2s vs %-36s %10.3f %-2s  ratio %.2f\n", ours.c_str(), a->second,
                  unit_[ours].c_str(), peer.c_str(), b->second, unit_[peer].c_str(),
                  a->second / b->second);
    }
  }

 private:
  std::vector<std::pair<std::string, std::string>> pairs_;
  std::map<std::string, double> perIteration_;
  std::map<std::string, std::string> unit_;
};

}  // namespace sonorell::bench
