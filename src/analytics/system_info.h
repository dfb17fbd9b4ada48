// What the analytics body reports about the machine: the system's name, the device model and
// the operating system version. Read once per process (guarded by a once-flag), then immutable.
#pragma once

#include <string>

namespace sonorell {

struct SystemInfo {
  std::string name;       // uname's system name, e.g. "Linux"
  std::string device;     // the DMI product name when the firmware gives one, else the machine
  std::string osVersion;  // the kernel release

  static const SystemInfo& current();
};

}  // namespace sonorell
