// Start-up verification of 1,000 books of 10 downloaded chapters (10,000 status records, 10,000
// files) next to a plain loop in the same run that reads the same rows with sqlite3 and stats the
// same files: what verification costs over the least it has to do.
#include <benchmark/benchmark.h>
#include <sqlite3.h>
#include <stdlib.h>
#include <sys/stat.h>

#include <filesystem>
#include <fstream>
#include <string>
#include <vector>

#include "download/integrity_manager.h"
#include "persistence/audiobook_status.h"
#include "persistence/chapter_status.h"
#include "persistence/filesystem_helper.h"
#include "platform/dispatch/dispatch_queue.h"
#include "platform/foundation/library_directory.h"
#include "ratio_reporter.h"

namespace {

using namespace sonorell;
constexpr int kBooks = 1000;
constexpr int kChapters = 10;

void makeLibraryContents() {
  const std::string chapterBytes(1000, 'a');
  for (int b = 0; b < kBooks; ++b) {
    const std::string id = "book" + std::to_string(b);
    std::make_shared<QSOAudiobookStatus>(id, DownloadStatusDownloaded, kChapters * 1000,
                                         kChapters * 1000)
        ->saveToDatabase();
    std::vector<QSOChapterStatusPtr> rows;
    ErrorPtr error;
    FilesystemHelper::createAudiobookDirectory(id, &error);
    for (int c = 1; c <= kChapters; ++c) {
      QSOChapterDescription chapter(id, 0, static_cast<uint64_t>(c));
      rows.push_back(std::make_shared<QSOChapterStatus>(chapter, DownloadStatusDownloaded, 1000,
                                                        1000, "token"));
      std::ofstream(FilesystemHelper::filePath(chapter), std::ios::binary) << chapterBytes;
    }
    QSOChapterStatus::saveToDatabase(rows);
  }
}

void BM_Verification(benchmark::State& state) {
  for (auto _ : state) QSOIntegrityManager::verifyDatabaseNow(nullptr);
  state.SetItemsProcessed(state.iterations() * kBooks * kChapters);
}

void BM_PlainRowsAndStats(benchmark::State& state) {
  sqlite3* db = nullptr;
  sqlite3_open_v2(FilesystemHelper::metadataDatabasePath().c_str(), &db, SQLITE_OPEN_READONLY,
                  nullptr);
  const auto audio = FilesystemHelper::audioParentDirectory().string();
  for (auto _ : state) {
    sqlite3_stmt* statement = nullptr;
    sqlite3_prepare_v2(db,
                       "SELECT audiobookID, partNumber, chapterNumber, downloadStatus FROM "
                       "chapterStatus",
                       -1, &statement, nullptr);
    int64_t present = 0;
    while (sqlite3_step(statement) == SQLITE_ROW) {
      const std::string id = reinterpret_cast<const char*>(sqlite3_column_text(statement, 0));
      const std::string path = audio + "/" + id + "/" + id + "_" +
                               std::to_string(sqlite3_column_int64(statement, 1)) + "_" +
                               std::to_string(sqlite3_column_int64(statement, 2)) + "_audio.mp3";
      struct stat info {};
      present += ::stat(path.c_str(), &info) == 0 && info.st_size > 0;
    }
    sqlite3_finalize(statement);
    benchmark::DoNotOptimize(present);
  }
  sqlite3_close(db);
  state.SetItemsProcessed(state.iterations() * kBooks * kChapters);
}

const bool kCompare = bench::compare("BM_Verification", "BM_PlainRowsAndStats");

BENCHMARK(BM_Verification)->Iterations(3)->Unit(benchmark::kMillisecond);
BENCHMARK(BM_PlainRowsAndStats)->Iterations(3)->Unit(benchmark::kMillisecond);

}  // namespace

int main(int argc, char** argv) {
  std::string pattern = (std::filesystem::temp_directory_path() / "sonorell-bench-XXXXXX").string();
  const std::filesystem::path library(::mkdtemp(pattern.data()));
  LibraryDirectory::setPath(library);
  makeLibraryContents();
  int rc = sonorell::bench::runBenchmarks(argc, argv);
  DispatchQueue::waitUntilAllIdle(std::chrono::seconds(10));
  std::filesystem::remove_all(library);
  return rc;
}
