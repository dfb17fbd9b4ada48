// Work the process should not be cut short in (transfers being created, a finished file being
// moved into place): begun with a reason and ended by its identifier. Open activities are
// counted so that a host can wait for them before it exits. Process-wide, guarded by one mutex.
#pragma once

#include <chrono>
#include <cstdint>
#include <string>
#include <vector>

namespace sonorell {

class ProcessActivity {
 public:
  using Id = uint64_t;

  static Id begin(std::string reason);
  // An identifier that is unknown or already ended is ignored.
  static void end(Id id);
  static std::vector<std::string> openReasons();
  // Waits (real time) until no activity is open; false when the limit passed first.
  static bool waitUntilNoneOpen(std::chrono::milliseconds limit);
};

}  // namespace sonorell
