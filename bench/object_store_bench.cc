// Object store costs next to the same work done with plain sqlite3 calls in the same run, on
// 10,000 audiobooks of 30 chapters: adding them all (one transaction per book, duplicate check
// first), paging through all of them sorted by title, and counting with a predicate.
#include <benchmark/benchmark.h>
#include <sqlite3.h>
#include <stdlib.h>

#include <filesystem>
#include <string>
#include <vector>

#include "persistence/filesystem_helper.h"
#include "persistence/store_migrations.h"
#include "platform/dispatch/dispatch_queue.h"
#include "platform/foundation/library_directory.h"
#include "ratio_reporter.h"
#include "sonorell/persistence_engine.h"

namespace {

using namespace sonorell;
constexpr int kBooks = 10000;
constexpr int kChapters = 30;
constexpr uint64_t kPageSize = 100;

const std::vector<Dictionary>& documents() {
  static const std::vector<Dictionary> docs = [] {
    std::vector<Dictionary> out(kBooks);
    for (int b = 0; b < kBooks; ++b) {
      Array chapters(kChapters);
      for (int c = 0; c < kChapters; ++c) {
        Dictionary chapter;
        chapter["duration"] = Value(int64_t{60000 + c});
        chapter["part_number"] = Value(int64_t{c / 10});
        chapter["chapter_number"] = Value(int64_t{c % 10});
        chapters[static_cast<size_t>(c)] = Value(std::move(chapter));
      }
      Dictionary& d = out[static_cast<size_t>(b)];
      d["id"] = Value(std::to_string(1000000 + b));
      // Titles in an order unrelated to insertion, so the sort has work to do.
      d["title"] = Value("Book " + std::to_string((b * 7919) % kBooks));
      d["actual_size"] = Value(int64_t{1000 * b});
      d["authors"] = Value(Array{"Author " + std::to_string(b % 97), "Editor"});
      d["narrators"] = Value(Array{"Narrator"});
      d["publisher"] = Value("Publisher");
      d["street_date"] = Value("2017-03-04");
      d["chapters"] = Value(std::move(chapters));
    }
    return out;
  }();
  return docs;
}

QSOPredicate countPredicate() {
  return QSOAttribute("actualSize").greaterThan(2500000) &&
         QSOAttribute("title").beginsWith("book 1", true);
}

// --- Ours ---

void addAllToEngine() {
  auto store = QSOPersistenceEngine::sharedEngine();
  for (const Dictionary& doc : documents()) store->addAudiobook(doc);
}

void BM_EngineAddAll(benchmark::State& state) {
  auto store = QSOPersistenceEngine::sharedEngine();
  for (auto _ : state) {
    state.PauseTiming();
    store->removeAllAudiobooks();
    state.ResumeTiming();
    addAllToEngine();
  }
  state.SetItemsProcessed(state.iterations() * kBooks);
}

void BM_EnginePageAllByTitle(benchmark::State& state) {
  auto store = QSOPersistenceEngine::sharedEngine();
  if (store->audiobooksCount() != kBooks) {
    store->removeAllAudiobooks();
    addAllToEngine();
  }
  store->setAudiobooksPageSize(kPageSize);
  for (auto _ : state) {
    size_t seen = 0;
    for (uint64_t page = 0; page * kPageSize < kBooks; ++page) {
      auto books = store->audiobooksForPredicate({}, {{"title", true, false}}, page);
      seen += books.size();
      benchmark::DoNotOptimize(books.data());
    }
    if (seen != kBooks) state.SkipWithError("paging lost audiobooks");
  }
  state.SetItemsProcessed(state.iterations() * kBooks);
}

void BM_EngineCountWithPredicate(benchmark::State& state) {
  auto store = QSOPersistenceEngine::sharedEngine();
  QSOPredicate predicate = countPredicate();
  for (auto _ : state) benchmark::DoNotOptimize(store->audiobooksCountForPredicate(predicate));
}

// --- Plain sqlite3: the same schema, statements and per-book transactions ---

sqlite3* plainDB() {
  static sqlite3* db = [] {
    sqlite3* handle = nullptr;
    sqlite3_open((FilesystemHelper::supportDirectory() / "plain.sqlite").c_str(), &handle);
    sqlite3_exec(handle,
                 "PRAGMA journal_mode=WAL; PRAGMA synchronous=NORMAL; "
                 "PRAGMA foreign_keys=ON;",
                 nullptr, nullptr, nullptr);
    sqlite3_exec(handle, std::string(StoreMigrations::version4Schema()).c_str(), nullptr, nullptr,
                 nullptr);
    sqlite3_exec(handle,
                 "CREATE INDEX a_id ON QSOAudiobook (audiobookID);"
                 "CREATE INDEX a_title ON QSOAudiobook (title);"
                 "CREATE INDEX c_book ON QSOChapter (audiobook);",
                 nullptr, nullptr, nullptr);
    return handle;
  }();
  return db;
}

std::string joined(const Value& value) {
  std::string out;
  if (const Array* array = value.asArray()) {
    for (size_t i = 0; i < array->size(); ++i) {
      out += (i ? "," : "") + (*array)[i].asString().value_or("");
    }
  }
  return out;
}

void bindBlob(sqlite3_stmt* s, int index, const std::string& bytes) {
  sqlite3_bind_blob(s, index, bytes.data(), static_cast<int>(bytes.size()), SQLITE_TRANSIENT);
}

void addAllPlain() {
  sqlite3* db = plainDB();
  sqlite3_stmt* exists = nullptr;
  sqlite3_stmt* book = nullptr;
  sqlite3_stmt* chapter = nullptr;
  sqlite3_prepare_v2(db, "SELECT COUNT(*) FROM QSOAudiobook WHERE audiobookID = ?", -1, &exists,
                     nullptr);
  sqlite3_prepare_v2(db,
                     "INSERT INTO QSOAudiobook (audiobookID, title, actualSize, authors, "
                     "narrators, publisher, streetDate, chapterized, awards, series, bisacCodes) "
                     "VALUES (?, ?, ?, ?, ?, ?, ?, 0, x'', x'', x'')",
                     -1, &book, nullptr);
  sqlite3_prepare_v2(db,
                     "INSERT INTO QSOChapter (audiobook, chapterNumber, duration, partNumber) "
                     "VALUES (?, ?, ?, ?)",
                     -1, &chapter, nullptr);
  for (const Dictionary& doc : documents()) {
    std::string id = *doc.at("id").asString();
    sqlite3_bind_text(exists, 1, id.c_str(), -1, SQLITE_TRANSIENT);
    sqlite3_step(exists);
    bool duplicate = sqlite3_column_int64(exists, 0) > 0;
    sqlite3_reset(exists);
    if (duplicate) continue;
    sqlite3_exec(db, "BEGIN IMMEDIATE", nullptr, nullptr, nullptr);
    sqlite3_bind_text(book, 1, id.c_str(), -1, SQLITE_TRANSIENT);
    bindBlob(book, 2, *doc.at("title").asString());
    sqlite3_bind_int64(book, 3, *doc.at("actual_size").asInt());
    bindBlob(book, 4, joined(doc.at("authors")));
    bindBlob(book, 5, joined(doc.at("narrators")));
    sqlite3_bind_text(book, 6, doc.at("publisher").asString()->c_str(), -1, SQLITE_TRANSIENT);
    sqlite3_bind_int64(book, 7, 1488585600LL * 1000000000LL);
    sqlite3_step(book);
    sqlite3_reset(book);
    int64_t pk = sqlite3_last_insert_rowid(db);
    for (const Value& c : *doc.at("chapters").asArray()) {
      const Dictionary& fields = *c.asDictionary();
      sqlite3_bind_int64(chapter, 1, pk);
      sqlite3_bind_int64(chapter, 2, *fields.at("chapter_number").asInt());
      sqlite3_bind_int64(chapter, 3, *fields.at("duration").asInt());
      sqlite3_bind_int64(chapter, 4, *fields.at("part_number").asInt());
      sqlite3_step(chapter);
      sqlite3_reset(chapter);
    }
    sqlite3_exec(db, "COMMIT", nullptr, nullptr, nullptr);
  }
  sqlite3_finalize(exists);
  sqlite3_finalize(book);
  sqlite3_finalize(chapter);
}

void BM_PlainSqliteAddAll(benchmark::State& state) {
  for (auto _ : state) {
    state.PauseTiming();
    sqlite3_exec(plainDB(), "DELETE FROM QSOChapter; DELETE FROM QSOAudiobook;", nullptr, nullptr,
                 nullptr);
    state.ResumeTiming();
    addAllPlain();
  }
  state.SetItemsProcessed(state.iterations() * kBooks);
}

struct PlainBook {
  int64_t pk;
  std::vector<std::string> columns;
  std::vector<std::array<int64_t, 3>> chapters;
};

void BM_PlainSqlitePageAllByTitle(benchmark::State& state) {
  sqlite3* db = plainDB();
  sqlite3_stmt* check = nullptr;
  sqlite3_prepare_v2(db, "SELECT COUNT(*) FROM QSOAudiobook", -1, &check, nullptr);
  sqlite3_step(check);
  if (sqlite3_column_int64(check, 0) != kBooks) addAllPlain();
  sqlite3_finalize(check);
  for (auto _ : state) {
    size_t seen = 0;
    for (uint64_t page = 0; page * kPageSize < kBooks; ++page) {
      sqlite3_stmt* select = nullptr;
      sqlite3_prepare_v2(db,
                         "SELECT pk, audiobookID, abridgement, actualSize, audiobookDescription, "
                         "authors, awards, chapterized, copyright, coverURL, gradeLevel, "
                         "isbnLibrary, isbnRetail, language, metadataSig, modifiedDate, "
                         "narrators, publisher, runtime, sampleURL, series, streetDate, subTitle, "
                         "title, bisacCodes FROM QSOAudiobook ORDER BY title ASC, pk ASC LIMIT ? "
                         "OFFSET ?",
                         -1, &select, nullptr);
      sqlite3_bind_int64(select, 1, static_cast<int64_t>(kPageSize));
      sqlite3_bind_int64(select, 2, static_cast<int64_t>(page * kPageSize));
      std::vector<PlainBook> books;
      std::string marks;
      while (sqlite3_step(select) == SQLITE_ROW) {
        // Every column, as the engine reads every attribute.
        PlainBook b;
        b.pk = sqlite3_column_int64(select, 0);
        for (int column = 1; column < 25; ++column) {
          const auto* bytes = static_cast<const char*>(sqlite3_column_blob(select, column));
          b.columns.emplace_back(bytes ? bytes : "",
                                 static_cast<size_t>(sqlite3_column_bytes(select, column)));
        }
        books.push_back(std::move(b));
        marks += marks.empty() ? "?" : ", ?";
      }
      sqlite3_finalize(select);
      sqlite3_stmt* chapters = nullptr;
      sqlite3_prepare_v2(db,
                         ("SELECT audiobook, chapterNumber, duration, partNumber FROM QSOChapter "
                          "WHERE audiobook IN (" +
                          marks + ") ORDER BY pk")
                             .c_str(),
                         -1, &chapters, nullptr);
      for (size_t i = 0; i < books.size(); ++i) {
        sqlite3_bind_int64(chapters, static_cast<int>(i + 1), books[i].pk);
      }
      while (sqlite3_step(chapters) == SQLITE_ROW) {
        int64_t owner = sqlite3_column_int64(chapters, 0);
        for (auto& b : books) {
          if (b.pk == owner) {
            b.chapters.push_back({sqlite3_column_int64(chapters, 1),
                                  sqlite3_column_int64(chapters, 2),
                                  sqlite3_column_int64(chapters, 3)});
            break;
          }
        }
      }
      sqlite3_finalize(chapters);
      seen += books.size();
      benchmark::DoNotOptimize(books.data());
    }
    if (seen != kBooks) state.SkipWithError("paging lost audiobooks");
  }
  state.SetItemsProcessed(state.iterations() * kBooks);
}

void BM_PlainSqliteCountWithPredicate(benchmark::State& state) {
  sqlite3* db = plainDB();
  for (auto _ : state) {
    sqlite3_stmt* count = nullptr;
    sqlite3_prepare_v2(db,
                       "SELECT COUNT(*) FROM QSOAudiobook WHERE actualSize > ? AND "
                       "lower(substr(CAST(title AS TEXT), 1, length(?))) = lower(?)",
                       -1, &count, nullptr);
    sqlite3_bind_int64(count, 1, 2500000);
    sqlite3_bind_text(count, 2, "book 1", -1, SQLITE_STATIC);
    sqlite3_bind_text(count, 3, "book 1", -1, SQLITE_STATIC);
    sqlite3_step(count);
    benchmark::DoNotOptimize(sqlite3_column_int64(count, 0));
    sqlite3_finalize(count);
  }
}

const bool kCompareAdd = bench::compare("BM_EngineAddAll", "BM_PlainSqliteAddAll");
const bool kComparePage = bench::compare("BM_EnginePageAllByTitle", "BM_PlainSqlitePageAllByTitle");
const bool kCompareCount =
    bench::compare("BM_EngineCountWithPredicate", "BM_PlainSqliteCountWithPredicate");

BENCHMARK(BM_EngineAddAll)->Iterations(1)->Repetitions(3)->Unit(benchmark::kMillisecond);
BENCHMARK(BM_PlainSqliteAddAll)->Iterations(1)->Repetitions(3)->Unit(benchmark::kMillisecond);
BENCHMARK(BM_EnginePageAllByTitle)->Iterations(3)->Unit(benchmark::kMillisecond);
BENCHMARK(BM_PlainSqlitePageAllByTitle)->Iterations(3)->Unit(benchmark::kMillisecond);
BENCHMARK(BM_EngineCountWithPredicate)->Unit(benchmark::kMicrosecond);
BENCHMARK(BM_PlainSqliteCountWithPredicate)->Unit(benchmark::kMicrosecond);

}  // namespace

int main(int argc, char** argv) {
  std::string pattern = (std::filesystem::temp_directory_path() / "sonorell-bench-XXXXXX").string();
  std::filesystem::path library(::mkdtemp(pattern.data()));
  LibraryDirectory::setPath(library);
  FilesystemHelper::createSupportDirectory();
  DispatchQueue::main()->sync([] { QSOPersistenceEngine::sharedEngine()->setUpStore(); });
  int result = bench::runBenchmarks(argc, argv);
  std::error_code ignored;
  std::filesystem::remove_all(library, ignored);
  return result;
}
