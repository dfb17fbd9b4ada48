/// QSOSonorell: the one engine object a host obtains. It owns the download and playback engines,
/// runs the legacy migrations on first use and sets up logging and the stores at launch. Both
/// run-once steps are guarded by their own once-flags; the engine pointers never change.
/// @file
#pragma once

#include <chrono>
#include <filesystem>
#include <memory>
#include <string>
#include <string_view>

#include "sonorell/download_engine.h"
#include "sonorell/export.h"
#include "sonorell/playback_engine.h"

namespace sonorell {

struct Services;

/// The facade: the one engine object of the process, from which a host reaches the download
/// and playback engines, and through which it configures the engine and reports the
/// application's life cycle.
///
/// Order of use: the static setters (Library directory, content API, CAs) before anything else;
/// then sharedEngine(), observers on NotificationCenter::defaultCenter(), and
/// didFinishLaunching() once. Every member is safe from any thread.
///
/// Ownership: the engine is created on first use and never destroyed (work still queued at exit
/// may reach it); the std::shared_ptr handed out only shares it.
class SONORELL_EXPORT QSOSonorell {
 public:
  /// The one engine, created on the first call (after the legacy migrations ran, once).
  static std::shared_ptr<QSOSonorell> sharedEngine();
  /// The version of the loaded library ("6.5.8"); compare kSonorellVersion, the headers'.
  static std::string_view currentVersion();
  /// Where the engine keeps its files; only honoured before anything used the Library directory.
  /// Without it: $SONORELL_LIBRARY_DIR, else $XDG_DATA_HOME (default ~/.local/share) + the
  /// program's name.
  static void setLibraryDirectory(const std::filesystem::path& path);
  /// The content API's base URL (resources under /v4/audiobooks); what a host sets wins over
  /// $SONORELL_API_BASE_URL.
  static void setContentAPIBaseURL(const std::string& url);
  /// The analytics endpoint listening events are posted to; what a host sets wins over
  /// $SONORELL_ANALYTICS_URL (default: the content API's base URL + /v4/analytics).
  static void setAnalyticsURL(const std::string& url);
  /// A PEM bundle of certificate authorities trusted besides the system's (private deployments).
  static void setTrustedCertificates(const std::filesystem::path& pemFile);
  /// Waits (at most `limit`) until no work the engine must not be cut short in is under way
  /// (transfers being created, finished files being moved into place); for a host about to
  /// exit. False when the limit passed first.
  static bool waitForOpenActivities(std::chrono::milliseconds limit);

  /// The download engine; the same object for the life of the process.
  std::shared_ptr<QSODownloadEngine> downloadEngine() const { return downloadEngine_; }
  /// The playback engine; the same object for the life of the process.
  std::shared_ptr<QSOPlaybackEngine> playbackEngine() const { return playbackEngine_; }

  /// Sets up logging, then the stores; runs once per process however often it is called.
  /// Start-up verification then runs on the engine's queues: it makes the status database agree
  /// with the files on disk (posting an audit notification for each repair), takes up the
  /// download requests an earlier run left, and posts
  /// QSODatabaseVerificationCompleteNotification. Observe it before calling this.
  void didFinishLaunching();
  /// The application went to the background: listen events completed from now on say so.
  /// Posts "QLBackgrounded" with { "background": "YES" }.
  void didEnterBackground();
  /// The application is coming back to the foreground; listen events say so again.
  void willEnterForeground();
  /// Completes the open listen event and waits up to 2 seconds for it to reach the archive.
  void willTerminate();
  /// Completes the open listen event and posts every waiting one to the analytics service now
  /// rather than on the poster's timer; waits (at most `limit`) for the answers. False when the
  /// limit passed first or events are still waiting (the service refused them, say).
  bool flushListeningEvents(std::chrono::milliseconds limit);

 private:
  friend class EngineComposition;
  /// Creates the two sub-engines on these services.
  explicit QSOSonorell(std::shared_ptr<const Services> services);
  void setUpLogging();
  void setUpDBs();

  const std::shared_ptr<QSODownloadEngine> downloadEngine_;
  const std::shared_ptr<QSOPlaybackEngine> playbackEngine_;
};

}  // namespace sonorell
