// The listen-event archive as a new process finds it: the input is written as the archive and
// loaded as the poster does at start-up (read, then rewritten compact). Whatever the file held,
// the compact file must then read back whole as the same queue, and a removal recorded after it
// must read back too. Each input is tried twice: as it is, and with every line after the header
// given its valid checksum, so that the records behind the checksums are reached as well.
#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <string>
#include <string_view>
#include <vector>

#include "analytics/listen_event_archive.h"
#include "fuzz_support.h"

namespace {

using namespace sonorell;

constexpr std::string_view kHeader = "SONORELL-LISTEN-EVENTS 1\n";

void check(bool condition) {
  if (!condition) __builtin_trap();
}

// The archive's line checksum (FNV-1a 64 of the payload, 16 hex digits): part of the file format.
std::string checksummed(std::string_view payload) {
  uint64_t hash = 0xcbf29ce484222325ULL;
  for (unsigned char c : payload) {
    hash ^= c;
    hash *= 0x100000001b3ULL;
  }
  char sum[17];
  std::snprintf(sum, sizeof sum, "%016llx", static_cast<unsigned long long>(hash));
  return std::string(sum) + " " + std::string(payload) + "\n";
}

// The input's lines as records: a line that already starts with a checksum keeps only its
// payload; the last line may be left cut short, as a kill leaves it.
std::string withValidChecksums(std::string_view input) {
  if (input.starts_with(kHeader)) input.remove_prefix(kHeader.size());
  std::string file(kHeader);
  while (!input.empty()) {
    size_t end = input.find('\n');
    if (end == std::string_view::npos) {
      file += input;
      break;
    }
    std::string_view line = input.substr(0, end);
    if (line.size() > 17 && line[16] == ' ') line.remove_prefix(17);
    file += checksummed(line);
    input.remove_prefix(end + 1);
  }
  return file;
}

bool sameQueue(const std::vector<ListenEventArchive::Entry>& a,
               const std::vector<ListenEventArchive::Entry>& b) {
  if (a.size() != b.size()) return false;
  for (size_t i = 0; i < a.size(); ++i) {
    if (a[i].seq != b[i].seq || a[i].object != b[i].object ||
        a[i].event->encodeWithCoder() != b[i].event->encodeWithCoder()) {
      return false;
    }
  }
  return true;
}

void loadArchive(std::string_view bytes) {
  const auto file = sonorell::fuzz::scratchDirectory() / "listening_events.archive";
  sonorell::fuzz::writeFile(file, bytes);

  ListenEventArchive archive(file);
  std::vector<ListenEventArchive::Entry> queue = archive.load();
  for (const auto& entry : queue) (void)entry.event->description();

  std::string problem;
  check(sameQueue(ListenEventArchive::read(file, &problem), queue) && problem.empty());

  if (!queue.empty()) {
    const uint64_t removed = queue.front().seq;
    queue.erase(queue.begin());
    check(archive.recordRemove({removed}, queue));
    check(sameQueue(ListenEventArchive::read(file, &problem), queue) && problem.empty());
  }
}

}  // namespace

extern "C" int LLVMFuzzerInitialize(int*, char***) {
  sonorell::fuzz::setUpProcess();
  return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  const std::string_view input(reinterpret_cast<const char*>(data), size);
  loadArchive(input);
  loadArchive(withValidChecksums(input));
  return 0;
}
