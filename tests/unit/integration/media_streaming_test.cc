// Redirected items against the reference content server over HTTPS: the loader redirects to the
// server's audio URL and the GStreamer player's HTTP source reads it with the redirect's headers,
// trusting the server only through the CA bundle the host set. A server whose CA is not trusted
// fails the item at once, and trust follows the bundle when the host changes it.
#include <gtest/gtest.h>

#include <chrono>
#include <cstdlib>
#include <regex>
#include <set>

#include "content_server.h"
#include "platform/dispatch/dispatch_group.h"
#include "platform/media/gst/gst_queue_player.h"
#include "platform/media/media_errors.h"
#include "platform/net/curl_loop.h"

namespace sonorell {
namespace {

using namespace std::chrono_literals;

constexpr const char* kSystemBundle = "/etc/ssl/certs/ca-certificates.crt";

class RedirectingDelegate : public ResourceLoaderDelegate {
 public:
  explicit RedirectingDelegate(std::string url) : url_(std::move(url)) {}
  bool shouldWaitForLoadingOfRequestedResource(
      ResourceLoader&, const std::shared_ptr<LoadingRequest>& request) override {
    int64_t offset = request->dataRequest() ? request->dataRequest()->requestedOffset() : 0;
    int64_t length = request->dataRequest() ? request->dataRequest()->requestedLength() : 0;
    std::string range = "bytes=" + std::to_string(offset) + "-" + std::to_string(offset + length);
    {
      std::lock_guard lock(mutex_);
      ranges_.insert(range);
    }
    request->setRedirect(
        HttpRedirect{url_, {{"X-Request-Id", "media-streaming-test"}, {"Range", range}}});
    request->setResponseStatusCode(302);
    request->finishLoading();
    return true;
  }
  // The Range values this delegate put on its redirects.
  std::set<std::string> ranges() const {
    std::lock_guard lock(mutex_);
    return ranges_;
  }

 private:
  const std::string url_;
  mutable std::mutex mutex_;
  std::set<std::string> ranges_;
};

bool waitUntil(const std::function<bool()>& condition, std::chrono::milliseconds limit) {
  auto deadline = std::chrono::steady_clock::now() + limit;
  auto queue = DispatchQueue::create("io.sonorell.test.poll");
  while (!condition()) {
    if (std::chrono::steady_clock::now() > deadline) return false;
    Semaphore hop;  // one queue hop per check keeps the poll from spinning the CPU
    queue->async([&] { hop.signal(); });
    hop.wait();
  }
  return true;
}

class MediaStreaming : public ::testing::Test {
 protected:
  void SetUp() override {
    setenv("SONORELL_AUDIO_SINK", "fakesink sync=true", 1);
    server_.start();
    ASSERT_EQ(server_.baseURL().rfind("https://", 0), 0u);
    ASSERT_FALSE(server_.caCertificatePath().empty());
  }
  void TearDown() override {
    players_.clear();
    EXPECT_TRUE(DispatchQueue::waitUntilAllIdle(20s));  // pipelines torn down
    server_.stop();
    setDefaultCABundle("");
  }

  std::shared_ptr<GstQueuePlayer> player() {
    auto made = GstQueuePlayer::create();
    if (made) players_.push_back(made);
    return made;
  }
  std::shared_ptr<PlayerItem> redirectedItem(const std::shared_ptr<RedirectingDelegate>& delegate) {
    delegates_.push_back(delegate);  // the loader holds its delegate weakly
    auto item = PlayerItem::create("qlso://1001_0_1.mp3");
    item->resourceLoader().setDelegate(delegate, loaderQueue_);
    return item;
  }

  content::ContentServer server_;  // HTTPS, its own test CA
  DispatchQueuePtr loaderQueue_ = DispatchQueue::create("io.sonorell.test.loader");
  std::vector<std::shared_ptr<RedirectingDelegate>> delegates_;
  std::vector<std::shared_ptr<GstQueuePlayer>> players_;
};

TEST_F(MediaStreaming, RedirectedItemPlaysOverHttpsTrustingTheHostsBundle) {
  setDefaultCABundle(server_.caCertificatePath().string());
  auto p = player();
  ASSERT_TRUE(p);
  auto delegate = std::make_shared<RedirectingDelegate>(server_.audioURL("1001", 0, 1));
  auto item = redirectedItem(delegate);
  ASSERT_TRUE(p->insertItem(item, nullptr));
  p->play();
  ASSERT_TRUE(waitUntil([&] { return p->currentTime().seconds() > 0.5; }, 20s))
      << "status " << static_cast<int>(item->status()) << " "
      << (item->error() ? item->error()->localizedDescription() : "");
  EXPECT_EQ(item->status(), PlayerItemStatus::ReadyToPlay);
  EXPECT_GT(item->duration().seconds(), 2.0);

  std::atomic<int> seeked{-1};
  double target = item->duration().seconds() / 2;
  p->seekToTime(MediaTime::fromSeconds(target), [&](bool finished) { seeked = finished; });
  ASSERT_TRUE(waitUntil([&] { return seeked != -1; }, 20s));
  EXPECT_EQ(seeked, 1);
  EXPECT_NEAR(p->currentTime().seconds(), target, 0.5);

  // Every request carries the redirect's own header. Ranges are the HTTP source's: it asks from
  // where playback reads (open-ended), never with the Range the loader's redirect named.
  auto requests = server_.requests(content::Route::kAudio);
  ASSERT_FALSE(requests.empty());
  std::set<std::string> forwarded = delegate->ranges();
  ASSERT_FALSE(forwarded.empty());
  const std::regex openEnded("bytes=([0-9]+)-");
  int ranged = 0;
  for (const auto& r : requests) {
    EXPECT_EQ(r.header("X-Request-Id").value_or(""), "media-streaming-test");
    auto range = r.header("Range");
    if (!range) continue;
    ++ranged;
    EXPECT_EQ(forwarded.count(*range), 0u) << *range;
    std::smatch start;
    EXPECT_TRUE(std::regex_match(*range, start, openEnded)) << *range;
    if (!start.empty()) {
      EXPECT_GT(std::stoull(start[1]), 0u) << *range;
    }
  }
  EXPECT_GT(ranged, 0);  // the seek
}

TEST_F(MediaStreaming, ServerWhoseCAIsNotInTheBundleFailsTheItemPromptly) {
  // A bundle that holds real CAs (the system's own), but not the server's.
  setDefaultCABundle(kSystemBundle);
  auto p = player();
  ASSERT_TRUE(p);
  auto item = redirectedItem(std::make_shared<RedirectingDelegate>(server_.audioURL("1001", 0, 1)));
  std::atomic<int> seeked{-1};
  ASSERT_TRUE(p->insertItem(item, nullptr));
  p->seekToTime(MediaTime::fromSeconds(1), [&](bool finished) { seeked = finished; });
  p->play();
  auto started = std::chrono::steady_clock::now();
  ASSERT_TRUE(waitUntil([&] { return item->status() == PlayerItemStatus::Failed; }, 10s));
  EXPECT_LT(std::chrono::steady_clock::now() - started, 10s);
  ASSERT_TRUE(item->error());
  EXPECT_EQ(item->error()->domain, kMediaErrorDomain);
  EXPECT_EQ(item->error()->code, kMediaErrorNetworkReadFailed);
  // The seek waiting for the item is answered, not left hanging.
  ASSERT_TRUE(waitUntil([&] { return seeked != -1; }, 5s));
  EXPECT_EQ(seeked, 0);
  EXPECT_EQ(p->currentTime().seconds(), 0.0);
  // Refused during the handshake: no HTTP request reached the server.
  EXPECT_EQ(server_.requestCount(content::Route::kAudio), 0u);

  // The same server, once the host trusts its CA, streams to a new item.
  setDefaultCABundle(server_.caCertificatePath().string());
  auto next = player();
  ASSERT_TRUE(next);
  auto trusted =
      redirectedItem(std::make_shared<RedirectingDelegate>(server_.audioURL("1001", 0, 1)));
  ASSERT_TRUE(next->insertItem(trusted, nullptr));
  next->play();
  ASSERT_TRUE(waitUntil([&] { return next->currentTime().seconds() > 0.2; }, 20s));
  EXPECT_EQ(trusted->status(), PlayerItemStatus::ReadyToPlay);
  EXPECT_GT(server_.requestCount(content::Route::kAudio), 0u);
}

TEST_F(MediaStreaming, WithoutABundleTheServersPrivateCAIsNotTrusted) {
  setDefaultCABundle("");
  auto p = player();
  ASSERT_TRUE(p);
  auto item = redirectedItem(std::make_shared<RedirectingDelegate>(server_.audioURL("1001", 0, 1)));
  ASSERT_TRUE(p->insertItem(item, nullptr));
  p->play();
  ASSERT_TRUE(waitUntil([&] { return item->status() == PlayerItemStatus::Failed; }, 10s));
  ASSERT_TRUE(item->error());
  EXPECT_EQ(item->error()->code, kMediaErrorNetworkReadFailed);
  EXPECT_EQ(server_.requestCount(content::Route::kAudio), 0u);
}

}  // namespace
}  // namespace sonorell
