// Shared by the object store tests: a temporary Library, a log recorder, set-up on the main queue
// and metadata documents built in code.
#pragma once

#include <gtest/gtest.h>

#include <filesystem>
#include <memory>
#include <string>

#include "persistence/filesystem_helper.h"
#include "platform/dispatch/dispatch_queue.h"
#include "sonorell/log_engine.h"
#include "sonorell/persistence_engine.h"
#include "support/recording_listener.h"
#include "support/temp_library.h"

namespace sonorell::testing {

class ObjectStoreTest : public ::testing::Test {
 protected:
  void SetUp() override {
    listener_ = std::make_shared<RecordingListener>();
    QSOLogEngine::setListener(listener_);
  }
  void TearDown() override { QSOLogEngine::setListener(nullptr); }

  static std::shared_ptr<QSOPersistenceEngine> store() {
    return QSOPersistenceEngine::sharedEngine();
  }
  static void setUpOnMain(const std::shared_ptr<QSOPersistenceEngine>& engine = store()) {
    DispatchQueue::main()->sync([engine] { engine->setUpStore(); });
  }
  static std::filesystem::path storePath() {
    return FilesystemHelper::persistenceEngineDatabasePath();
  }
  size_t logged(std::string_view text) const { return listener_->count(text); }

  static Dictionary book(const std::string& id, const std::string& title, int chapters = 2) {
    // Sized up front and filled in place: growing a vector of Values trips a false
    // maybe-uninitialized warning in GCC 12.
    Array list(static_cast<size_t>(chapters));
    for (int c = 0; c < chapters; ++c) {
      Dictionary chapter;
      chapter["duration"] = Value(int64_t{1000 * (c + 1)});
      chapter["part_number"] = Value(int64_t{c / 10});
      chapter["chapter_number"] = Value(int64_t{c % 10});
      list[static_cast<size_t>(c)] = Value(std::move(chapter));
    }
    Dictionary doc;
    doc["id"] = Value(id);
    doc["title"] = Value(title);
    doc["chapters"] = Value(std::move(list));
    return doc;
  }

  TempLibrary library_;
  std::shared_ptr<RecordingListener> listener_;
};

}  // namespace sonorell::testing
