#include "analytics/listen_event_archive.h"

#include <errno.h>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cstdio>
#include <cstring>
#include <fstream>
#include <iterator>
#include <map>
#include <sstream>
#include <unordered_map>

#include "core/logging.h"
#include "platform/foundation/library_directory.h"

namespace sonorell {

namespace {

namespace fs = std::filesystem;
using json = nlohmann::json;

constexpr std::string_view kHeader = "SONORELL-LISTEN-EVENTS 1\n";
// Beyond this many dead records over the live ones, a change compacts the file.
constexpr size_t kDeadRecordSlack = 64;
constexpr size_t kChecksumDigits = 16;

uint64_t fnv1a(std::string_view bytes) {
  uint64_t hash = 0xcbf29ce484222325ULL;
  for (unsigned char c : bytes) {
    hash ^= c;
    hash *= 0x100000001b3ULL;
  }
  return hash;
}

// One line: the payload's checksum in hex, a space, the payload (JSON, which never holds a raw
// newline). A line cut short by a kill lacks its newline or fails its checksum.
std::string recordLine(const json& payload) {
  std::string text = payload.dump();
  char sum[kChecksumDigits + 1];
  std::snprintf(sum, sizeof sum, "%016llx", static_cast<unsigned long long>(fnv1a(text)));
  std::string line(sum, kChecksumDigits);
  line += ' ';
  line += text;
  line += '\n';
  return line;
}

json addRecord(const ListenEventArchive::Entry& entry) {
  return json{
      {"add",
       {{"seq", entry.seq}, {"object", entry.object}, {"event", entry.event->encodeWithCoder()}}}};
}

// The payload of one line, or discarded JSON when the line is damaged.
json parseLine(std::string_view line) {
  if (line.size() <= kChecksumDigits + 1 || line[kChecksumDigits] != ' ')
    return json::value_t::discarded;
  std::string_view text = line.substr(kChecksumDigits + 1);
  char sum[kChecksumDigits + 1];
  std::snprintf(sum, sizeof sum, "%016llx", static_cast<unsigned long long>(fnv1a(text)));
  if (line.substr(0, kChecksumDigits) != std::string_view(sum, kChecksumDigits)) {
    return json::value_t::discarded;
  }
  return json::parse(text, nullptr, false);
}

bool writeAll(int fd, std::string_view bytes) {
  while (!bytes.empty()) {
    ssize_t n = ::write(fd, bytes.data(), bytes.size());
    if (n < 0 && errno == EINTR) continue;
    if (n <= 0) return false;
    bytes.remove_prefix(static_cast<size_t>(n));
  }
  return true;
}

void syncDirectory(const fs::path& dir) {
  int fd = ::open(dir.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC);
  if (fd < 0) return;
  ::fsync(fd);
  ::close(fd);
}

struct Loaded {
  std::map<uint64_t, uint64_t> live;          // seq -> object, in queue order
  std::unordered_map<uint64_t, json> latest;  // object -> its most recent encoding
  std::string problem;                        // why reading stopped early, if it did
};

// Applies one record; false when it is not a record this format knows.
bool applyRecord(const json& record, Loaded& loaded) {
  if (!record.is_object() || record.size() != 1) return false;
  if (auto add = record.find("add"); add != record.end()) {
    if (!add->is_object()) return false;
    auto seq = add->find("seq");
    auto object = add->find("object");
    auto event = add->find("event");
    if (seq == add->end() || object == add->end() || event == add->end() ||
        !seq->is_number_unsigned() || !object->is_number_unsigned() || !event->is_object()) {
      return false;
    }
    loaded.live[seq->get<uint64_t>()] = object->get<uint64_t>();
    loaded.latest[object->get<uint64_t>()] = *event;
    return true;
  }
  if (auto remove = record.find("remove"); remove != record.end()) {
    if (!remove->is_array()) return false;
    for (const json& seq : *remove) {
      if (!seq.is_number_unsigned()) return false;
      loaded.live.erase(seq.get<uint64_t>());
    }
    return true;
  }
  return false;
}

}  // namespace

ListenEventArchive::ListenEventArchive(fs::path file) : file_(std::move(file)) {}

ListenEventArchive::~ListenEventArchive() { closeJournal(); }

void ListenEventArchive::closeJournal() {
  if (fd_ >= 0) ::close(fd_);
  fd_ = -1;
}

void ListenEventArchive::ensureDirectory() const {
  // Only the last level is made: the support directory above it belongs to start-up, and until
  // it exists nothing is written.
  fs::path dir = file_.parent_path();
  if (dir.empty()) return;
  if (::mkdir(dir.c_str(), 0700) == 0) LibraryDirectory::excludeFromBackup(dir);
}

std::vector<ListenEventArchive::Entry> ListenEventArchive::read(const fs::path& file,
                                                                std::string* problem) {
  auto report = [problem](std::string text) {
    if (problem) *problem = std::move(text);
  };
  std::error_code error;
  if (fs::exists(file, error) && !fs::is_regular_file(file, error)) {
    report("it is not a file");
    return {};
  }
  std::ifstream in(file, std::ios::binary);
  if (!in) return {};
  std::string content;
  try {
    content.assign(std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>());
  } catch (const std::ios_base::failure& failure) {
    // The stream reports a failing read(2) (EIO, EISDIR) by throwing, whatever its mask says.
    report(std::string("it could not be read: ") + failure.what());
    return {};
  }
  if (content.compare(0, kHeader.size(), kHeader) != 0) {
    report("it is not a listen event archive");
    return {};
  }
  Loaded loaded;
  size_t pos = kHeader.size();
  while (pos < content.size()) {
    size_t end = content.find('\n', pos);
    if (end == std::string::npos) {
      report("a record was cut short");
      break;
    }
    json record = parseLine(std::string_view(content).substr(pos, end - pos));
    if (record.is_discarded() || !applyRecord(record, loaded)) {
      report("a record is damaged");
      break;
    }
    pos = end + 1;
  }

  std::unordered_map<uint64_t, QLListenEventPtr> objects;
  std::vector<Entry> queue;
  queue.reserve(loaded.live.size());
  size_t unreadable = 0;
  for (const auto& [seq, object] : loaded.live) {
    auto found = objects.find(object);
    if (found == objects.end()) {
      found = objects.emplace(object, QLListenEvent::initWithCoder(loaded.latest[object])).first;
    }
    if (!found->second) {
      ++unreadable;
      continue;
    }
    queue.push_back(Entry{seq, object, found->second});
  }
  if (unreadable > 0) report(std::to_string(unreadable) + " events are unreadable");
  return queue;
}

std::vector<ListenEventArchive::Entry> ListenEventArchive::load() {
  closeJournal();
  needsRewrite_ = true;
  if (file_.empty()) return {};
  ensureDirectory();
  std::error_code error;
  if (!fs::exists(file_, error)) return {};

  std::string problem;
  std::vector<Entry> queue = read(file_, &problem);
  if (!problem.empty()) {
    LogEngineError(
        "[ListenEventPoster] The listen event archive at %@ could not be read whole "
        "(%@); kept %lu events",
        file_.string(), problem, queue.size());
  }
  // Start from a compact file, which also cuts off whatever could not be read.
  rewrite(queue);
  return queue;
}

bool ListenEventArchive::rewrite(const std::vector<Entry>& queue) {
  closeJournal();
  needsRewrite_ = true;
  if (file_.empty()) return false;
  ensureDirectory();

  std::string content(kHeader);
  for (const Entry& entry : queue) content += recordLine(addRecord(entry));

  fs::path temp = file_;
  temp += ".tmp";
  int fd = ::open(temp.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0600);
  if (fd < 0) return false;
  bool written = writeAll(fd, content) && ::fsync(fd) == 0;
  written = ::close(fd) == 0 && written;
  if (!written || ::rename(temp.c_str(), file_.c_str()) != 0) {
    ::unlink(temp.c_str());
    LogEngineError("[ListenEventPoster] Could not write the listen event archive at %@: %@",
                   file_.string(), std::string(std::strerror(errno)));
    return false;
  }
  syncDirectory(file_.parent_path());

  fd_ = ::open(file_.c_str(), O_WRONLY | O_APPEND | O_CLOEXEC);
  needsRewrite_ = fd_ < 0;
  liveRecords_ = queue.size();
  deadRecords_ = 0;
  return true;
}

ListenEventArchive::Outcome ListenEventArchive::append(const std::string& record,
                                                       const std::vector<Entry>& queue) {
  if (needsRewrite_ || fd_ < 0) return rewrite(queue) ? Outcome::Rewritten : Outcome::Failed;
  off_t end = ::lseek(fd_, 0, SEEK_END);
  if (end < 0 || !writeAll(fd_, record) || ::fdatasync(fd_) != 0) {
    // Never leave a partial record for later ones to follow: cut it off, then start afresh.
    if (end >= 0 && ::ftruncate(fd_, end) != 0) {
      LogEngineError("[ListenEventPoster] Could not cut a partial record off %@", file_.string());
    }
    return rewrite(queue) ? Outcome::Rewritten : Outcome::Failed;
  }
  return Outcome::Appended;
}

bool ListenEventArchive::recordAdd(const Entry& added, const std::vector<Entry>& queue) {
  Outcome outcome = append(recordLine(addRecord(added)), queue);
  if (outcome == Outcome::Appended) ++liveRecords_;
  return outcome != Outcome::Failed;
}

bool ListenEventArchive::recordRemove(const std::vector<uint64_t>& seqs,
                                      const std::vector<Entry>& queue) {
  if (seqs.empty()) return true;
  Outcome outcome = append(recordLine(json{{"remove", seqs}}), queue);
  if (outcome != Outcome::Appended) return outcome != Outcome::Failed;
  liveRecords_ -= std::min(liveRecords_, seqs.size());
  deadRecords_ += seqs.size() + 1;
  if (deadRecords_ > liveRecords_ + kDeadRecordSlack) return rewrite(queue);
  return true;
}

}  // namespace sonorell
