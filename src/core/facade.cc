#include "sonorell/facade.h"

#include <mutex>

#include "analytics/application_state.h"
#include "analytics/listen_event_handler.h"
#include "persistence/filesystem_helper.h"
#include "persistence/legacy_migration.h"
#include "platform/foundation/library_directory.h"
#include "platform/net/http_client.h"
#include "sonorell/log_engine.h"
#include "sonorell/notification_poster.h"
#include "sonorell/persistence_engine.h"
#include "sonorell/version.h"

namespace sonorell {

std::shared_ptr<QSOSonorell> QSOSonorell::sharedEngine() {
  static std::once_flag once;
  // Never destroyed: queued work may still reach it while the process exits.
  static std::shared_ptr<QSOSonorell>& engine = *new std::shared_ptr<QSOSonorell>();
  std::call_once(once, [] {
    // The migrations run before either sub-engine exists, on whichever thread asked first.
    LegacyMigration::migrateFromCoreData();
    FilesystemMigration::migrate();
    engine = std::make_shared<QSOSonorell>();
  });
  return engine;
}

std::string_view QSOSonorell::currentVersion() { return kSonorellVersion; }

void QSOSonorell::setLibraryDirectory(const std::filesystem::path& path) {
  LibraryDirectory::setPath(path);
}

void QSOSonorell::setContentAPIBaseURL(const std::string& url) { HttpClient::setAPIBaseURL(url); }

void QSOSonorell::setAnalyticsURL(const std::string& url) { HttpClient::setAnalyticsURL(url); }

void QSOSonorell::setTrustedCertificates(const std::filesystem::path& pemFile) {
  HttpClient::shared()->setCABundle(pemFile.string());
}

QSOSonorell::QSOSonorell()
    : downloadEngine_(std::make_shared<QSODownloadEngine>()),
      playbackEngine_(std::make_shared<QSOPlaybackEngine>()) {}

void QSOSonorell::didFinishLaunching() {
  static std::once_flag once;
  std::call_once(once, [this] {
    setUpLogging();
    setUpDBs();
  });
}

void QSOSonorell::setUpLogging() {
  QSOLogEngine::setLogger(UnifiedLog::create("io.sonorell", "sdk"));
}

void QSOSonorell::setUpDBs() {
  FilesystemHelper::createSupportDirectory();
  QSOPersistenceEngine::sharedEngine()->setUpStore();
}

void QSOSonorell::didEnterBackground() {
  ApplicationStateTracker::set(ApplicationState::Background);
  Dictionary info;
  info.emplace("background", "YES");
  QSONotificationPoster::sharedPoster()->postNotificationWithName("QLBackgrounded",
                                                                  std::move(info));
}

void QSOSonorell::willEnterForeground() {
  ApplicationStateTracker::set(ApplicationState::Foreground);
}

void QSOSonorell::willTerminate() { QLListenEventHandler::applicationWillTerminate(); }

}  // namespace sonorell
