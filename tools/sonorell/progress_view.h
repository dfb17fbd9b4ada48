// Progress bars on a terminal: one for the audiobook and one per chapter in flight, with bytes,
// rate and time left, redrawn in place; event lines scroll above them. Guarded by its own mutex:
// the command's loop draws while notifications add lines.
#pragma once

#include <chrono>
#include <cstdint>
#include <map>
#include <mutex>
#include <string>
#include <utility>

#include "sonorell/download_report.h"
#include "sonorell/download_status.h"

namespace sonorell::cli {

class ProgressView {
 public:
  void draw(const QSOAudiobookDownloadReport& report);
  // A line above the bars.
  void note(const std::string& text);
  // Leaves the last bars on screen and moves below them.
  void close();

 private:
  struct Rate {
    uint64_t bytes = 0;
    std::chrono::steady_clock::time_point at;
    double perSecond = 0;  // smoothed
  };
  double update(Rate& rate, uint64_t bytes, std::chrono::steady_clock::time_point now);
  void eraseLocked();

  std::mutex mutex_;
  int drawnLines_ = 0;                                      // guarded by mutex_
  std::string lastFrame_;                                   // guarded by mutex_
  Rate book_;                                               // guarded by mutex_
  std::map<std::pair<uint64_t, uint64_t>, Rate> chapters_;  // guarded by mutex_
};

// "12.3 MB", "980 KB".
std::string formatBytes(uint64_t bytes);
// "1:05", "1:02:03"; "--:--" for an unknown time.
std::string formatDuration(double seconds);
// A bar of `width` cells for a fraction from 0 to 1.
std::string bar(double fraction, int width);

}  // namespace sonorell::cli
