// The file that keeps unsent listen events across restarts: an append-only journal of "add" and
// "remove" records behind a header, each record one checksummed line, compacted by an atomic
// rewrite (temporary file, fsync, rename). Not synchronised: its owner, the poster, uses it only
// on its read/write queue.
#pragma once

#include <cstdint>
#include <filesystem>
#include <string>
#include <vector>

#include "analytics/listen_event.h"

namespace sonorell {

class ListenEventArchive {
 public:
  // One place in the queue. `seq` names the place; `object` names the event object, so that an
  // object queued twice is read back as one object queued twice.
  struct Entry {
    uint64_t seq = 0;
    uint64_t object = 0;
    QLListenEventPtr event;
  };

  explicit ListenEventArchive(std::filesystem::path file);
  ~ListenEventArchive();
  ListenEventArchive(const ListenEventArchive&) = delete;
  ListenEventArchive& operator=(const ListenEventArchive&) = delete;

  // The queue the file holds, oldest first. A record cut short by a kill, and anything after a
  // damaged record, is dropped with a log line; a file that is not an archive gives an empty
  // queue and a log line. A file that existed is then rewritten compact.
  std::vector<Entry> load();

  // What the file at `file` holds, read without changing it; `problem` (if given) says why
  // reading stopped early or found no archive, and stays empty otherwise.
  static std::vector<Entry> read(const std::filesystem::path& file, std::string* problem = nullptr);

  // Record one change; `queue` is the whole queue after it, written out instead when the journal
  // cannot be appended to or has grown mostly dead. False when nothing could be written (the
  // file then keeps its previous, consistent contents).
  bool recordAdd(const Entry& added, const std::vector<Entry>& queue);
  bool recordRemove(const std::vector<uint64_t>& seqs, const std::vector<Entry>& queue);

  // Replaces the file with exactly `queue`, atomically.
  bool rewrite(const std::vector<Entry>& queue);

  const std::filesystem::path& path() const { return file_; }

 private:
  enum class Outcome { Appended, Rewritten, Failed };
  Outcome append(const std::string& record, const std::vector<Entry>& queue);
  void closeJournal();
  void ensureDirectory() const;

  std::filesystem::path file_;
  int fd_ = -1;               // the journal open for appending, or -1
  bool needsRewrite_ = true;  // the next change writes the whole file
  size_t liveRecords_ = 0;
  size_t deadRecords_ = 0;  // records that no longer describe a queued entry
};

}  // namespace sonorell
