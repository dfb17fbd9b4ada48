// Status database costs next to the same work done with plain sqlite3 calls in the same run:
// a 1,000-row chapter batch insert, reading a book back sorted, and cached chapter look-ups.
#include <benchmark/benchmark.h>
#include <sqlite3.h>
#include <stdlib.h>

#include <filesystem>
#include <string>
#include <vector>

#include "persistence/chapter_status.h"
#include "persistence/database_manager.h"
#include "persistence/filesystem_helper.h"
#include "platform/foundation/library_directory.h"
#include "ratio_reporter.h"

namespace {

using namespace sonorell;
constexpr int kChapters = 1000;

std::filesystem::path makeLibrary() {
  std::string pattern = (std::filesystem::temp_directory_path() / "sonorell-bench-XXXXXX").string();
  return std::filesystem::path(::mkdtemp(pattern.data()));
}

std::vector<QSOChapterStatusPtr> makeBook(const std::string& id) {
  std::vector<QSOChapterStatusPtr> rows;
  for (int c = 0; c < kChapters; ++c) {
    rows.push_back(std::make_shared<QSOChapterStatus>(
        QSOChapterDescription(id, 0, static_cast<uint64_t>(kChapters - c)), 0, 0, 1000000,
        "playlist-token"));
  }
  return rows;
}

void BM_EngineBatchInsert(benchmark::State& state) {
  int book = 0;
  for (auto _ : state) {
    auto rows = makeBook("insert" + std::to_string(book++));
    benchmark::DoNotOptimize(QSOChapterStatus::saveToDatabase(rows));
  }
  state.SetItemsProcessed(state.iterations() * kChapters);
}

void BM_PlainSqliteBatchInsert(benchmark::State& state) {
  sqlite3* db = nullptr;
  sqlite3_open((FilesystemHelper::supportDirectory() / "plain.sqlite").c_str(), &db);
  sqlite3_exec(db, "PRAGMA journal_mode=WAL", nullptr, nullptr, nullptr);
  sqlite3_exec(db,
               "CREATE TABLE IF NOT EXISTS chapterStatus (id INTEGER PRIMARY KEY, audiobookID "
               "TEXT, partNumber INTEGER, chapterNumber INTEGER, downloadStatus INTEGER, "
               "downloadedSize INTEGER, totalSize INTEGER, playlistToken TEXT)",
               nullptr, nullptr, nullptr);
  // The same index the engine keeps, so both sides do the same work.
  sqlite3_exec(db, "CREATE INDEX IF NOT EXISTS byBook ON chapterStatus (audiobookID)", nullptr,
               nullptr, nullptr);
  int book = 0;
  for (auto _ : state) {
    auto rows = makeBook("plain" + std::to_string(book++));
    sqlite3_stmt* insert = nullptr;
    sqlite3_prepare_v2(db,
                       "INSERT INTO chapterStatus (audiobookID, partNumber, chapterNumber, "
                       "downloadStatus, downloadedSize, totalSize, playlistToken) VALUES (?, ?, "
                       "?, ?, ?, ?, ?)",
                       -1, &insert, nullptr);
    sqlite3_exec(db, "BEGIN TRANSACTION", nullptr, nullptr, nullptr);
    for (const auto& row : rows) {
      const auto& c = row->chapterDescription();
      sqlite3_bind_text(insert, 1, c.audiobookID().c_str(), -1, SQLITE_TRANSIENT);
      sqlite3_bind_int64(insert, 2, static_cast<int64_t>(c.partNumber()));
      sqlite3_bind_int64(insert, 3, static_cast<int64_t>(c.chapterNumber()));
      sqlite3_bind_int64(insert, 4, static_cast<int64_t>(row->downloadStatus()));
      sqlite3_bind_int64(insert, 5, static_cast<int64_t>(row->downloadedSize()));
      sqlite3_bind_int64(insert, 6, static_cast<int64_t>(row->totalSize()));
      std::string token = row->playlistToken();
      sqlite3_bind_text(insert, 7, token.c_str(), -1, SQLITE_TRANSIENT);
      sqlite3_step(insert);
      sqlite3_reset(insert);
    }
    sqlite3_exec(db, "COMMIT TRANSACTION", nullptr, nullptr, nullptr);
    sqlite3_finalize(insert);
  }
  sqlite3_close(db);
  state.SetItemsProcessed(state.iterations() * kChapters);
}

void BM_EngineReadSorted(benchmark::State& state) {
  QSOChapterStatus::saveToDatabase(makeBook("sorted"));
  auto& manager = *QSODatabaseManager::sharedManager();
  for (auto _ : state) {
    // Straight from the database each time (the cached path is measured below).
    auto rows = manager.getAllChapterStatusesForAudiobookIdentifier("sorted");
    std::stable_sort(rows.begin(), rows.end(), [](const auto& a, const auto& b) {
      return a->chapterDescription().chapterNumber() < b->chapterDescription().chapterNumber();
    });
    benchmark::DoNotOptimize(rows.data());
  }
  state.SetItemsProcessed(state.iterations() * kChapters);
}

void BM_PlainSqliteReadSorted(benchmark::State& state) {
  sqlite3* db = nullptr;
  sqlite3_open(FilesystemHelper::metadataDatabasePath().c_str(), &db);
  for (auto _ : state) {
    sqlite3_stmt* select = nullptr;
    sqlite3_prepare_v2(db,
                       "SELECT * FROM chapterStatus WHERE audiobookID=? ORDER BY partNumber, "
                       "chapterNumber",
                       -1, &select, nullptr);
    sqlite3_bind_text(select, 1, "sorted", -1, SQLITE_STATIC);
    std::vector<QSOChapterStatusPtr> rows;
    while (sqlite3_step(select) == SQLITE_ROW) {
      auto row = std::make_shared<QSOChapterStatus>(
          QSOChapterDescription(reinterpret_cast<const char*>(sqlite3_column_text(select, 1)),
                                static_cast<uint64_t>(sqlite3_column_int64(select, 2)),
                                static_cast<uint64_t>(sqlite3_column_int64(select, 3))),
          sqlite3_column_int64(select, 4), sqlite3_column_int64(select, 5),
          sqlite3_column_int64(select, 6),
          reinterpret_cast<const char*>(sqlite3_column_text(select, 7)));
      rows.push_back(std::move(row));
    }
    sqlite3_finalize(select);
    benchmark::DoNotOptimize(rows.data());
  }
  sqlite3_close(db);
  state.SetItemsProcessed(state.iterations() * kChapters);
}

void BM_EngineCachedChapterLookup(benchmark::State& state) {
  QSOChapterStatus::saveToDatabase(makeBook("cached"));
  std::vector<QSOChapterDescription> keys;
  for (int c = 1; c <= kChapters; ++c) keys.emplace_back("cached", 0, c);
  for (const auto& k : keys) QSOChapterStatus::fetchForChapterDescription(k);  // warm
  size_t i = 0;
  for (auto _ : state) {
    benchmark::DoNotOptimize(QSOChapterStatus::fetchForChapterDescription(keys[i++ % kChapters]));
  }
}

const bool kCompareInsert = bench::compare("BM_EngineBatchInsert", "BM_PlainSqliteBatchInsert");
const bool kCompareRead = bench::compare("BM_EngineReadSorted", "BM_PlainSqliteReadSorted");

BENCHMARK(BM_EngineBatchInsert)->Unit(benchmark::kMillisecond);
BENCHMARK(BM_PlainSqliteBatchInsert)->Unit(benchmark::kMillisecond);
BENCHMARK(BM_EngineReadSorted)->Unit(benchmark::kMillisecond);
BENCHMARK(BM_PlainSqliteReadSorted)->Unit(benchmark::kMillisecond);
BENCHMARK(BM_EngineCachedChapterLookup)->Iterations(100000)->Unit(benchmark::kNanosecond);

}  // namespace

int main(int argc, char** argv) {
  auto library = makeLibrary();
  LibraryDirectory::setPath(library);
  int rc = sonorell::bench::runBenchmarks(argc, argv);
  std::filesystem::remove_all(library);
  return rc;
}
