// A download engine on the real services (status database in a temp Library, transfer service,
// libcurl) against the reference server, and a record of every notification it posts, so that a
// test can wait for a request's end and read what happened in order.
#pragma once

#include <chrono>
#include <condition_variable>
#include <fstream>
#include <iterator>
#include <mutex>
#include <string>
#include <vector>

#include "download/download_engine_core.h"
#include "persistence/chapter_status.h"
#include "persistence/filesystem_helper.h"
#include "platform/services.h"
#include "sha256.h"
#include "sonorell/download_engine.h"
#include "sonorell/notification_center.h"
#include "sonorell/notifications.h"
#include "support/server_fixture.h"

namespace sonorell::testing {

struct Posted {
  std::string name;
  Dictionary info;

  std::string text(std::string_view key) const {
    auto it = info.find(key);
    return it == info.end() ? std::string() : it->second.asString().value_or("");
  }
  std::optional<QSOChapterDescription> chapter() const {
    auto it = info.find(QSOChapterDescriptionUserInfoKey);
    if (it == info.end()) return std::nullopt;
    const auto* chapter = it->second.getIf<QSOChapterDescription>();
    return chapter ? std::optional(*chapter) : std::nullopt;
  }
  ErrorPtr error() const {
    auto it = info.find(QSOSonorellErrorUserInfoKey);
    return it == info.end() ? nullptr : it->second.asError();
  }
};

class DownloadEngineTest : public ServerTest {
 protected:
  void SetUp() override {
    ServerTest::SetUp();
    token_ = NotificationCenter::defaultCenter().addObserver("", [this](const Notification& n) {
      std::lock_guard lock(mutex_);
      posted_.push_back({n.name, n.userInfo});
      changed_.notify_all();
    });
    services = Services::systemCopy();
    services->reachability =
        Reachability::create(std::make_shared<ManualReachabilitySource>(ConnectionType::WiFi));
  }
  void TearDown() override {
    NotificationCenter::defaultCenter().removeObserver(token_);
    ServerTest::TearDown();
  }

  std::shared_ptr<QSODownloadEngine> makeEngine() {
    engine = std::make_shared<QSODownloadEngine>(services);
    return engine;
  }

  // Starts the request and waits for its success or failure notification; returns its name.
  std::string download(const QSODownloadRequest& request,
                       std::chrono::seconds limit = std::chrono::seconds(120)) {
    if (!engine) makeEngine();
    engine->startDownloadWithRequest(request);
    return waitForEnd(request.requestIdentifier(), limit);
  }

  std::string waitForEnd(const std::string& requestID,
                         std::chrono::seconds limit = std::chrono::seconds(120)) {
    std::string ended;
    std::unique_lock lock(mutex_);
    changed_.wait_for(lock, limit, [&] {
      for (const auto& p : posted_) {
        if (p.text(QSODownloadRequestIDUserInfoKey) != requestID) continue;
        if (p.name == QSODownloadRequestSuccessNotification ||
            p.name == QSODownloadRequestFailedNotification) {
          ended = p.name;
          return true;
        }
      }
      return false;
    });
    lock.unlock();
    // What is posted with the end (audiobook failed after request failed) arrives right behind.
    DispatchQueue::waitUntilAllIdle(std::chrono::seconds(10));
    return ended;
  }

  // Waits until a notification with this name (about this chapter, when given) was posted.
  bool waitFor(std::string_view name,
               const std::optional<QSOChapterDescription>& chapter = std::nullopt,
               std::chrono::seconds limit = std::chrono::seconds(60)) {
    std::unique_lock lock(mutex_);
    return changed_.wait_for(lock, limit, [&] {
      return std::any_of(posted_.begin(), posted_.end(), [&](const Posted& p) {
        return p.name == name && (!chapter || p.chapter() == chapter);
      });
    });
  }

  std::vector<Posted> posted() {
    std::lock_guard lock(mutex_);
    return posted_;
  }
  // Names of the notifications about one chapter (or, for none, about no chapter), in order.
  std::vector<std::string> namesFor(const std::optional<QSOChapterDescription>& chapter,
                                    const std::string& prefix = "") {
    std::vector<std::string> names;
    for (const auto& p : posted()) {
      if (p.chapter() == chapter && p.name.starts_with(prefix)) names.push_back(p.name);
    }
    return names;
  }

  static std::string fileBytes(const QSOChapterDescription& chapter) {
    std::ifstream in(FilesystemHelper::filePath(chapter), std::ios::binary);
    return std::string((std::istreambuf_iterator<char>(in)), std::istreambuf_iterator<char>());
  }
  // The chapter's file is on disk and byte-identical to what the server serves.
  bool identicalToServer(const content::Book& book, const content::Chapter& chapter) {
    const QSOChapterDescription description(book.id, chapter.part, chapter.chapter);
    return FilesystemHelper::fileExists(description) &&
           content::sha256Hex(fileBytes(description)) == chapter.sha256;
  }

  std::shared_ptr<Services> services;
  std::shared_ptr<QSODownloadEngine> engine;

 private:
  NotificationCenter::Token token_ = 0;
  std::mutex mutex_;
  std::condition_variable changed_;
  std::vector<Posted> posted_;  // guarded by mutex_
};

}  // namespace sonorell::testing
