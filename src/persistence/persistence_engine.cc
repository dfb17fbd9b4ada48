#include "sonorell/persistence_engine.h"

#include <atomic>
#include <filesystem>
#include <limits>
#include <mutex>

#include "core/logging.h"
#include "model/audiobook_json_helper.h"
#include "model/safe_dictionary.h"
#include "persistence/filesystem_helper.h"
#include "persistence/persistence_testing.h"
#include "persistence/predicate_compiler.h"
#include "persistence/store_connection.h"
#include "persistence/store_context.h"
#include "persistence/store_entities.h"
#include "persistence/store_migrations.h"
#include "persistence/store_model.h"
#include "platform/dispatch/dispatch_group.h"
#include "platform/dispatch/dispatch_queue.h"
#include "platform/foundation/format.h"
#include "platform/foundation/kept_aside.h"

namespace sonorell {

namespace {

std::mutex gWaitObserverMutex;
std::function<void()>& gWaitObserver() {  // guarded by gWaitObserverMutex
  static auto* observer = new std::function<void()>();
  return *observer;
}

std::function<void()> storeSetUpWaitObserver() {
  std::lock_guard lock(gWaitObserverMutex);
  return gWaitObserver();
}

constexpr std::string_view kNotInitialised =
    "[AudiobookDonwloadInfo] Attempted to use Sonorell without fully initializing. Make sure to "
    "call [[Sonorell sharedEngine] didFinishLaunching]. %@, %@";
constexpr size_t kChapterBatch = 500;  // identifiers per IN list when loading chapters

const std::string& selectAudiobookColumns() {
  static const std::string columns = [] {
    std::string out = "pk";
    for (const AttributeDescription& a : audiobookAttributes()) out += ", " + std::string(a.name);
    return out;
  }();
  return columns;
}

std::shared_ptr<QSOAudiobook> audiobookFromRow(const StoreStatement& row) {
  auto audiobook = std::make_shared<QSOAudiobook>();
  audiobook->setObjectID(row.int64(0));
  for (size_t i = 0; i < kAudiobookAttributeCount; ++i) {
    audiobook->setStoredValue(static_cast<AudiobookAttribute>(i),
                              row.column(static_cast<int>(i + 1)));
  }
  return audiobook;
}

std::optional<int64_t> optionalInteger(const StoredValue& value) {
  const auto* n = std::get_if<int64_t>(&value);
  return n ? std::optional<int64_t>(*n) : std::nullopt;
}

// Gives every audiobook its chapters, in the order they were inserted. False on a failed read.
bool loadChapters(StoreConnection& connection,
                  const std::vector<std::shared_ptr<QSOAudiobook>>& audiobooks) {
  std::unordered_map<int64_t, std::shared_ptr<QSOAudiobook>> byID;
  std::unordered_map<int64_t, QSOChapterSet> chapters;
  for (const auto& audiobook : audiobooks) byID.emplace(*audiobook->objectID(), audiobook);
  for (size_t start = 0; start < audiobooks.size(); start += kChapterBatch) {
    size_t end = std::min(audiobooks.size(), start + kChapterBatch);
    std::string marks;
    std::vector<StoredValue> ids;
    for (size_t i = start; i < end; ++i) {
      marks += marks.empty() ? "?" : ", ?";
      ids.emplace_back(*audiobooks[i]->objectID());
    }
    std::string sql =
        "SELECT audiobook, chapterNumber, duration, partNumber FROM QSOChapter WHERE audiobook IN "
        "(" +
        marks + ") ORDER BY pk";
    // One book (the look-up by identifier) is the common case; keep its statement.
    StoreStatement select = ids.size() == 1 ? connection.cached(sql) : connection.prepare(sql);
    select.bind(ids);
    while (select.step()) {
      int64_t owner = select.int64(0);
      auto chapter = std::make_shared<QSOChapter>();
      chapter->setChapterNumber(optionalInteger(select.column(1)));
      chapter->setDuration(optionalInteger(select.column(2)));
      chapter->setPartNumber(optionalInteger(select.column(3)));
      chapter->setAudiobook(byID[owner]);
      chapters[owner].push_back(std::move(chapter));
    }
    if (!select.ok()) return false;
  }
  for (auto& [id, list] : chapters) byID[id]->setChapters(std::move(list));
  return true;
}

}  // namespace

// Hidden: the class it belongs to is exported, and members of a nested type would follow it.
struct __attribute__((visibility("hidden"))) QSOPersistenceEngine::Impl
    : std::enable_shared_from_this<Impl> {
  // Guards `connection`: every use of the store holds it for the whole operation.
  std::mutex mutex;
  std::unique_ptr<StoreConnection> connection;

  // Set-up state, read and written from any thread.
  std::atomic<bool> initialized{false};
  std::atomic<int> waiters{0};
  Semaphore setUpDone{0};
  std::once_flag mainSetUpRequested;
  std::atomic<uint64_t> pageSize{0};

  void setUpStore();
  void buildOnMain();
  void createStore();
  // `notADatabase`: see StoreConnection::open.
  std::unique_ptr<StoreConnection> openAndMigrate(const std::filesystem::path& path,
                                                  StoreMigrationResult* result,
                                                  bool* notADatabase = nullptr);
  static void removeStoreFiles(const std::filesystem::path& path);

  // Runs `body` with the store under the lock, or logs why it cannot and gives `fallback`.
  template <class R, class F>
  R withStore(std::string_view operation, R fallback, F&& body) {
    if (!initialized.load()) {
      LogEngineError(kNotInitialised, "QSOPersistenceEngine", operation);
      return fallback;
    }
    std::lock_guard lock(mutex);
    if (!connection) {
      LogEngineError("[QSOPersistenceEngine] %@: the store could not be opened", operation);
      return fallback;
    }
    return body(*connection);
  }

  bool runInNewContextAndSave(
      StoreConnection& connection,
      const std::function<void(const std::shared_ptr<QSOStoreContext>&)>& block);
  std::vector<std::shared_ptr<QSOAudiobook>> fetch(StoreConnection& connection,
                                                   const std::string& where,
                                                   const std::vector<StoredValue>& params,
                                                   const std::string& orderBy, int64_t limit,
                                                   int64_t offset, bool* ok);
  uint64_t count(StoreConnection& connection, const std::string& where,
                 const std::vector<StoredValue>& params);
};

void QSOPersistenceEngine::Impl::setUpStore() {
  if (!DispatchQueue::isMainThread()) {
    if (initialized.load()) return;
    waiters.fetch_add(1);
    // Counted before this second look, so the main thread either sees us or we see it done.
    if (initialized.load()) return;
    // Nobody may ever call it on the main queue (a host launching from another thread): ask
    // the main queue once, so waiting always ends.
    std::weak_ptr<Impl> weak = weak_from_this();
    std::call_once(mainSetUpRequested, [weak] {
      DispatchQueue::main()->async([weak] {
        if (auto self = weak.lock()) self->setUpStore();
      });
    });
    if (auto observer = storeSetUpWaitObserver()) observer();
    setUpDone.wait();
    return;
  }
  buildOnMain();
}

void QSOPersistenceEngine::Impl::buildOnMain() {
  if (initialized.load()) return;
  {
    std::lock_guard lock(mutex);
    if (!connection) createStore();
  }
  initialized.store(true);
  // Release every thread that waited for the set-up (a spare signal to one that did not end up
  // waiting is harmless: nothing waits once the set-up is done).
  for (int n = waiters.exchange(0); n > 0; --n) setUpDone.signal();
}

std::unique_ptr<StoreConnection> QSOPersistenceEngine::Impl::openAndMigrate(
    const std::filesystem::path& path, StoreMigrationResult* result, bool* notADatabase) {
  std::string error;
  auto opened = StoreConnection::open(path, &error, notADatabase);
  if (!opened) {
    *result = {false, 0, error};
    return nullptr;
  }
  *result = StoreMigrations::migrate(*opened);
  if (!result->ok) return nullptr;
  return opened;
}

void QSOPersistenceEngine::Impl::removeStoreFiles(const std::filesystem::path& path) {
  std::error_code ignored;
  for (const char* suffix : {"", "-wal", "-shm"}) {
    std::filesystem::remove(path.string() + suffix, ignored);
  }
}

void QSOPersistenceEngine::Impl::createStore() {
  std::filesystem::path path = FilesystemHelper::persistenceEngineDatabasePath();
  if (path.empty()) {
    LogEngineError("[Sonorell] Error creating persistence engine store: %@",
                   "there is no Library directory");
    return;
  }
  FilesystemHelper::createSupportDirectory();
  StoreMigrationResult result;
  bool notADatabase = false;
  connection = openAndMigrate(path, &result, &notADatabase);
  if (connection) return;
  if (notADatabase) {
    // It may not be ours, or hold something a person wants back: kept, not deleted.
    const KeptAside kept = keepUnreadableFileAside(path);
    LogEngineError(
        "[QSOPersistenceEngine] %@ is not a database; kept as %@, starting a new one "
        "(%@)",
        path.string(), kept.description(), result.description);
    connection = openAndMigrate(path, &result);
    if (!connection) {
      LogEngineError("[Sonorell] Error creating persistence engine store: %@", result.description);
    }
    return;
  }
  LogEngineError("[Sonorell] Error creating persistence engine store: %@", result.description);
  if (result.code != kStoreIncompatibleVersionError &&
      result.code != kStoreMissingSourceModelError) {
    return;
  }
  // Metadata can always be fetched again; a store we cannot read would only block every add.
  LogEngineWarning("[QSOPersistenceEngine] Deleting the store at %@ and creating it again",
                   path.string());
  removeStoreFiles(path);
  connection = openAndMigrate(path, &result);
  if (!connection) {
    LogEngineError("[Sonorell] Error creating persistence engine store: %@", result.description);
  }
}

bool QSOPersistenceEngine::Impl::runInNewContextAndSave(
    StoreConnection& store,
    const std::function<void(const std::shared_ptr<QSOStoreContext>&)>& block) {
  auto context = std::make_shared<QSOStoreContext>();
  block(context);
  std::string error;
  if (!context->save(store, &error)) {
    LogEngineError("Save error persistence engine %@", error);
    return false;
  }
  return true;
}

std::vector<std::shared_ptr<QSOAudiobook>> QSOPersistenceEngine::Impl::fetch(
    StoreConnection& store, const std::string& where, const std::vector<StoredValue>& params,
    const std::string& orderBy, int64_t limit, int64_t offset, bool* ok) {
  std::string sql = "SELECT " + selectAudiobookColumns() + " FROM QSOAudiobook WHERE " + where +
                    " ORDER BY " + orderBy + " LIMIT ? OFFSET ?";
  StoreStatement select = store.prepare(sql);
  select.bind(params);
  select.bind(static_cast<int>(params.size() + 1), limit);
  select.bind(static_cast<int>(params.size() + 2), offset);
  std::vector<std::shared_ptr<QSOAudiobook>> audiobooks;
  while (select.step()) audiobooks.push_back(audiobookFromRow(select));
  *ok = select.ok() && loadChapters(store, audiobooks);
  if (!select.ok()) {
    LogEngineError("[QSOPersistenceEngine] Fetch failed: %@", select.error());
  }
  return audiobooks;
}

uint64_t QSOPersistenceEngine::Impl::count(StoreConnection& store, const std::string& where,
                                           const std::vector<StoredValue>& params) {
  StoreStatement select = store.prepare("SELECT COUNT(*) FROM QSOAudiobook WHERE " + where);
  select.bind(params);
  if (!select.step()) {
    LogEngineError("[QSOPersistenceEngine] Count failed: %@", select.error());
    return 0;
  }
  return static_cast<uint64_t>(select.int64(0));
}

std::shared_ptr<QSOPersistenceEngine> QSOPersistenceEngine::sharedEngine() {
  static std::shared_ptr<QSOPersistenceEngine> engine = std::make_shared<QSOPersistenceEngine>();
  return engine;
}

QSOPersistenceEngine::QSOPersistenceEngine() : impl_(std::make_shared<Impl>()) {}

QSOPersistenceEngine::~QSOPersistenceEngine() = default;

void QSOPersistenceEngine::setUpStore() { impl_->setUpStore(); }

bool QSOPersistenceEngine::isInitialized() const { return impl_->initialized.load(); }

void QSOPersistenceEngine::addAudiobook(const Dictionary& metadata) {
  impl_->withStore("addAudiobook:", false, [&](StoreConnection& store) {
    std::string audiobookID = QSOSafeDictionary::safeStringForKey(metadata, "id");
    if (impl_->count(store, "audiobookID = ?", {audiobookID}) > 0) {
      LogEngineWarning("[PersistenceEngine] Cannot add duplicate audiobook");
      return false;
    }
    return impl_->runInNewContextAndSave(
        store, [&](const std::shared_ptr<QSOStoreContext>& context) {
          auto helper = QSOAudiobookJSONHelper::initWithDictionary(metadata, context);
          helper->populateAudiobook(context->insertNewAudiobook());
        });
  });
}

std::shared_ptr<QSOConcreteAudiobook> QSOPersistenceEngine::audiobookForID(
    const std::string& audiobookID) {
  return impl_->withStore(
      "audiobookForID:", std::shared_ptr<QSOConcreteAudiobook>(),
      [&](StoreConnection& store) -> std::shared_ptr<QSOConcreteAudiobook> {
        bool ok = false;
        auto found = impl_->fetch(store, "audiobookID = ?", {audiobookID}, "pk ASC", 1, 0, &ok);
        if (found.empty()) {
          LogEngineWarning("[QSOPersistenceEngine] Unable to find audiobook for %@", audiobookID);
          return nullptr;
        }
        return QSOConcreteAudiobook::initWithAudiobook(*found.front());
      });
}

uint64_t QSOPersistenceEngine::audiobookCountForID(const std::string& audiobookID) {
  return impl_->withStore("audiobookCountForID:", uint64_t{0}, [&](StoreConnection& store) {
    return impl_->count(store, "audiobookID = ?", {audiobookID});
  });
}

std::vector<std::shared_ptr<QSOConcreteAudiobook>> QSOPersistenceEngine::audiobooksForPredicate(
    const std::optional<QSOPredicate>& predicate,
    const std::vector<QSOSortDescriptor>& sortDescriptors, uint64_t page) {
  using Result = std::vector<std::shared_ptr<QSOConcreteAudiobook>>;
  return impl_->withStore(
      "audiobooksForPredicate:usingSortDescriptors:page:", Result{},
      [&](StoreConnection& store) -> Result {
        CompiledSql where = predicate ? compileWhere(*predicate) : CompiledSql{"1", {}, {}};
        CompiledSql order = compileOrderBy(sortDescriptors);
        Result result;
        if (!where.ok() || !order.ok()) {
          LogEngineError("[QSOPersistenceEngine] Refused fetch %@: %@",
                         predicate ? predicate->description() : std::string("(all)"),
                         where.ok() ? order.error : where.error);
        } else {
          // An unset page size fetches everything, as an unlimited fetch does.
          uint64_t size = impl_->pageSize.load();
          constexpr uint64_t kMax = std::numeric_limits<int64_t>::max();
          bool beyond = size > 0 && page > kMax / size;
          if (!beyond) {
            int64_t limit = size == 0 ? -1 : static_cast<int64_t>(std::min(size, kMax));
            int64_t offset = static_cast<int64_t>(page * size);
            bool ok = false;
            for (const auto& audiobook :
                 impl_->fetch(store, where.sql, where.params, order.sql, limit, offset, &ok)) {
              result.push_back(QSOConcreteAudiobook::initWithAudiobook(*audiobook));
            }
            if (!ok) result.clear();
          }
        }
        if (result.empty()) {
          LogEngineWarning("[QSOPersistenceEngine] Unable to find audiobooks for predicate");
        }
        return result;
      });
}

uint64_t QSOPersistenceEngine::audiobooksCount() {
  return impl_->withStore("audiobooksCount", uint64_t{0},
                          [&](StoreConnection& store) { return impl_->count(store, "1", {}); });
}

uint64_t QSOPersistenceEngine::audiobooksCountForPredicate(
    const std::optional<QSOPredicate>& predicate) {
  return impl_->withStore(
      "audiobooksCountForPredicate:", uint64_t{0}, [&](StoreConnection& store) -> uint64_t {
        CompiledSql where = predicate ? compileWhere(*predicate) : CompiledSql{"1", {}, {}};
        if (!where.ok()) {
          LogEngineError("[QSOPersistenceEngine] Refused count %@: %@", predicate->description(),
                         where.error);
          return 0;
        }
        return impl_->count(store, where.sql, where.params);
      });
}

std::vector<std::string> QSOPersistenceEngine::audiobookIDs() {
  using Result = std::vector<std::string>;
  return impl_->withStore("audiobookIDs", Result{}, [&](StoreConnection& store) -> Result {
    StoreStatement select = store.cached(
        "SELECT audiobookID FROM QSOAudiobook WHERE audiobookID IS NOT NULL GROUP BY audiobookID "
        "ORDER BY MIN(pk)");
    Result ids;
    while (select.step()) {
      StoredValue id = select.column(0);
      if (const auto* text = std::get_if<std::string>(&id)) ids.push_back(*text);
    }
    if (!select.ok()) {
      LogEngineWarning("[QSOPersistenceEngine] Unable to find audiobook Ids for predicate");
      return {};
    }
    return ids;
  });
}

void QSOPersistenceEngine::removeAudiobookForID(const std::string& audiobookID) {
  impl_->withStore("removeAudiobookForID:", false, [&](StoreConnection& store) {
    StoreStatement find =
        store.cached("SELECT pk FROM QSOAudiobook WHERE audiobookID = ? ORDER BY pk LIMIT 1");
    find.bind({audiobookID});
    if (!find.step()) {
      LogEngineWarning("[PersistenceEngine] Unable to find audiobook for %@", audiobookID);
      return false;
    }
    int64_t pk = find.int64(0);
    // Its chapters go with it (the chapter rows cascade).
    StoreStatement remove = store.cached("DELETE FROM QSOAudiobook WHERE pk = ?");
    remove.bind({pk});
    remove.step();
    if (!remove.ok()) {
      LogEngineError("Save error persistence engine %@", remove.error());
      return false;
    }
    return true;
  });
}

void QSOPersistenceEngine::removeAllAudiobooks() {
  impl_->withStore("removeAllAudiobooks", false, [&](StoreConnection& store) {
    std::string error;
    bool ok = store.exec(
        "BEGIN IMMEDIATE; DELETE FROM QSOChapter; DELETE FROM QSOAudiobook; COMMIT", &error);
    if (!ok) {
      int code = store.errorCode();
      store.exec("ROLLBACK");
      LogEngineError("[PersistenceEngine] Delete all error code:%d underlying problem:%@", code,
                     error);
    }
    return ok;
  });
}

void QSOPersistenceEngine::deletePersistentStore() {
  std::lock_guard lock(impl_->mutex);
  std::filesystem::path path = FilesystemHelper::persistenceEngineDatabasePath();
  bool wasOpen = impl_->connection != nullptr;
  impl_->connection.reset();  // closed first: SQLite must not write to the removed file
  std::error_code ignored;
  if (!path.empty() && std::filesystem::exists(path, ignored)) Impl::removeStoreFiles(path);
  LogEngineInfo("[QSOPersistenceEngine] Deleted the persistent store at %@", path.string());
  if (wasOpen) impl_->createStore();
}

uint64_t QSOPersistenceEngine::audiobooksPageSize() const { return impl_->pageSize.load(); }

void QSOPersistenceEngine::setAudiobooksPageSize(uint64_t pageSize) {
  impl_->pageSize.store(pageSize);
}

void setStoreSetUpWaitObserverForTesting(std::function<void()> observer) {
  std::lock_guard lock(gWaitObserverMutex);
  gWaitObserver() = std::move(observer);
}

}  // namespace sonorell
