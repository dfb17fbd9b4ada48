// QSOSonorell, the composition root: it builds the platform services (or takes a test's), hands
// them to the download and playback engines, and runs the once-per-process start-up steps.
#include "sonorell/facade.h"

#include <mutex>

#include "analytics/application_state.h"
#include "analytics/listen_event_handler.h"
#include "core/logging.h"
#include "core/notification_poster.h"
#include "core/service_urls.h"
#include "download/integrity_manager.h"
#include "engine/engine_composition.h"
#include "persistence/filesystem_helper.h"
#include "persistence/legacy_migration.h"
#include "platform/foundation/library_directory.h"
#include "platform/foundation/process_activity.h"
#include "platform/net/curl_loop.h"
#include "playback/streaming_url_manager.h"
#include "sonorell/notifications.h"
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
    engine = EngineComposition::create(Services::system());
    // Streaming URLs come from the playlists this engine fetches and caches.
    QSOStreamingURLManager::setSharedManager(
        QSOStreamingURLManager::create(engine->downloadEngine()->core()));
  });
  return engine;
}

std::shared_ptr<QSOSonorell> EngineComposition::create(ServicesPtr services) {
  return std::shared_ptr<QSOSonorell>(new QSOSonorell(std::move(services)));
}

std::string_view QSOSonorell::currentVersion() { return kSonorellVersion; }

void QSOSonorell::setLibraryDirectory(const std::filesystem::path& path) {
  LibraryDirectory::setPath(path);
}

void QSOSonorell::setContentAPIBaseURL(const std::string& url) { ServiceURLs::setAPIBaseURL(url); }

void QSOSonorell::setAnalyticsURL(const std::string& url) { ServiceURLs::setAnalyticsURL(url); }

void QSOSonorell::setTrustedCertificates(const std::filesystem::path& pemFile) {
  setDefaultCABundle(pemFile.string());
}

bool QSOSonorell::waitForOpenActivities(std::chrono::milliseconds limit) {
  return ProcessActivity::waitUntilNoneOpen(limit);
}

QSOSonorell::QSOSonorell(ServicesPtr services)
    : downloadEngine_(std::make_shared<QSODownloadEngine>(services)),
      playbackEngine_(std::make_shared<QSOPlaybackEngine>(services)) {}

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
  QSOIntegrityManager::verifyDatabase(downloadEngine_->core());
  QSOPersistenceEngine::sharedEngine()->setUpStore();
}

void QSOSonorell::didEnterBackground() {
  ApplicationStateTracker::set(ApplicationState::Background);
  Dictionary info;
  info.emplace("background", "YES");
  QSONotificationPoster::sharedPoster()->postNotificationWithName(QLBackgroundedNotification,
                                                                  std::move(info));
}

void QSOSonorell::willEnterForeground() {
  ApplicationStateTracker::set(ApplicationState::Foreground);
}

void QSOSonorell::willTerminate() { QLListenEventHandler::applicationWillTerminate(); }

bool QSOSonorell::flushListeningEvents(std::chrono::milliseconds limit) {
  auto handler = QLListenEventHandler::sharedHandler();
  const auto& poster = handler->eventPoster();
  // The archive write of the event completed here must land before the flush reads the queue.
  handler->flushListenEventQueue();
  if (!poster->waitForReadWrite(limit) || !poster->waitForNetworking(limit)) return false;
  return poster->waitingEventCount() == 0;
}

}  // namespace sonorell
