#include "analytics/system_info.h"

#include <sys/utsname.h>

#include <fstream>
#include <mutex>

namespace sonorell {

namespace {

std::string firstLine(const char* path) {
  std::ifstream in(path);
  std::string line;
  if (!in || !std::getline(in, line)) return "";
  while (!line.empty() && (line.back() == ' ' || line.back() == '\r')) line.pop_back();
  return line;
}

SystemInfo readSystemInfo() {
  SystemInfo info;
  struct utsname names {};
  if (::uname(&names) == 0) {
    info.name = names.sysname;
    info.device = names.machine;
    info.osVersion = names.release;
  }
  // Virtual machines and many boards report placeholder text; only a real name replaces the
  // architecture.
  std::string product = firstLine("/sys/devices/virtual/dmi/id/product_name");
  if (!product.empty() && product != "To Be Filled By O.E.M." && product != "System Product Name") {
    info.device = product;
  }
  return info;
}

}  // namespace

const SystemInfo& SystemInfo::current() {
  static std::once_flag once;
  static SystemInfo info;
  std::call_once(once, [] { info = readSystemInfo(); });
  return info;
}

}  // namespace sonorell
