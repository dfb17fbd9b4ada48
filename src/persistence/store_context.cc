#include "persistence/store_context.h"

#include "persistence/store_model.h"

namespace sonorell {

namespace {

std::string makeInsertSQL(std::string_view table, std::span<const AttributeDescription> columns,
                          std::string_view extraColumn) {
  std::string names, marks;
  if (!extraColumn.empty()) {
    names = std::string(extraColumn);
    marks = "?";
  }
  for (const AttributeDescription& column : columns) {
    if (!names.empty()) {
      names += ", ";
      marks += ", ";
    }
    names += column.name;
    marks += "?";
  }
  return "INSERT INTO " + std::string(table) + " (" + names + ") VALUES (" + marks + ")";
}

StoredValue integerOrNull(std::optional<int64_t> n) { return n ? StoredValue(*n) : StoredValue(); }

}  // namespace

const std::string& QSOStoreContext::insertAudiobookSQL() {
  static const std::string sql = makeInsertSQL(kAudiobookEntityName, audiobookAttributes(), "");
  return sql;
}

const std::string& QSOStoreContext::insertChapterSQL() {
  static const std::string sql =
      makeInsertSQL(kChapterEntityName, chapterAttributes(), "audiobook");
  return sql;
}

std::shared_ptr<QSOAudiobookInterface> QSOStoreContext::insertNewAudiobook() {
  auto audiobook = std::make_shared<QSOAudiobook>();
  audiobooks_.push_back(audiobook);
  return audiobook;
}

std::shared_ptr<QSOChapterInterface> QSOStoreContext::insertNewChapter() {
  auto chapter = std::make_shared<QSOChapter>();
  chapters_.push_back(chapter);
  return chapter;
}

bool QSOStoreContext::save(StoreConnection& connection, std::string* error) {
  if (!hasChanges()) return true;
  bool ok = connection.exec("BEGIN IMMEDIATE", error) && write(connection, error) &&
            connection.exec("COMMIT", error);
  if (!ok) connection.exec("ROLLBACK");
  audiobooks_.clear();
  chapters_.clear();
  return ok;
}

bool QSOStoreContext::write(StoreConnection& connection, std::string* error) {
  for (const auto& audiobook : audiobooks_) {
    StoreStatement insert = connection.cached(insertAudiobookSQL());
    for (size_t i = 0; i < kAudiobookAttributeCount; ++i) {
      insert.bind(static_cast<int>(i + 1),
                  audiobook->storedValue(static_cast<AudiobookAttribute>(i)));
    }
    insert.step();
    if (!insert.ok()) {
      *error = insert.error();
      return false;
    }
    // The permanent identifier, known before any chapter refers to it.
    audiobook->setObjectID(connection.lastInsertRowID());
  }
  for (const auto& chapter : chapters_) {
    auto owner = std::dynamic_pointer_cast<QSOAudiobook>(chapter->audiobook().lock());
    StoreStatement insert = connection.cached(insertChapterSQL());
    insert.bind({owner && owner->objectID() ? StoredValue(*owner->objectID()) : StoredValue(),
                 integerOrNull(chapter->chapterNumber()), integerOrNull(chapter->duration()),
                 integerOrNull(chapter->partNumber())});
    insert.step();
    if (!insert.ok()) {
      *error = insert.error();
      return false;
    }
  }
  return true;
}

}  // namespace sonorell
