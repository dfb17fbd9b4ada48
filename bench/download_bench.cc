// Downloads one whole audiobook through the engine's download engine, for download_vs_curl.sh to
// time beside curl. Usage: download_bench <content API base URL> <CA file> <audiobook ID>.
// The Library directory comes from $SONORELL_LIBRARY_DIR. Exit 0 once the request succeeded.
#include <condition_variable>
#include <cstdio>
#include <mutex>
#include <string>

#include "sonorell/sonorell.h"

using namespace sonorell;

int main(int argc, char** argv) {
  if (argc != 4) {
    std::fprintf(stderr, "usage: %s <api base URL> <CA file> <audiobook ID>\n", argv[0]);
    return 2;
  }
  QSOSonorell::setContentAPIBaseURL(argv[1]);
  QSOSonorell::setTrustedCertificates(argv[2]);
  QSODownloadRequest request(argv[3], DownloadTypeFullAudiobook, "bench-session", "bench-license",
                             false);
  std::mutex mutex;
  std::condition_variable ended;
  std::string outcome;
  auto token = NotificationCenter::defaultCenter().addObserver("", [&](const Notification& n) {
    auto id = n.userInfo.find(QSODownloadRequestIDUserInfoKey);
    if (id == n.userInfo.end() || id->second.asString() != request.requestIdentifier()) return;
    if (n.name != QSODownloadRequestSuccessNotification &&
        n.name != QSODownloadRequestFailedNotification) {
      return;
    }
    std::lock_guard lock(mutex);
    if (outcome.empty()) outcome = n.name;
    ended.notify_all();
  });
  auto engine = QSOSonorell::sharedEngine();
  engine->downloadEngine()->startDownloadWithRequest(request);
  std::unique_lock lock(mutex);
  ended.wait(lock, [&] { return !outcome.empty(); });
  lock.unlock();
  NotificationCenter::defaultCenter().removeObserver(token);
  if (outcome != QSODownloadRequestSuccessNotification) {
    std::fprintf(stderr, "download failed: %s\n", outcome.c_str());
    return 1;
  }
  return 0;
}
