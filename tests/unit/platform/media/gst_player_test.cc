// The GStreamer backend with real pipelines into fakesink (sync=true, so time runs): queues of
// chapters, seeking, pitch at other rates, and loaders that stall, fail or end early. Waits are
// on conditions with generous limits, never sleeps. Also the trust its HTTP source gets: one
// database of the system's CAs and the host's bundle, checked against real certificates.
#include <gtest/gtest.h>

#include <cmath>
#include <cstdlib>

#include "media_test_support.h"
#include "platform/media/gst/gst_queue_player.h"
#include "platform/media/gst/gst_tls.h"
#include "platform/media/media_errors.h"
#include "platform/net/curl_loop.h"

namespace sonorell {
namespace {

using namespace std::chrono_literals;
using testing::FileLoaderDelegate;
using testing::PlayerRecorder;

class GstPlayerTest : public ::testing::Test {
 protected:
  void SetUp() override {
    setenv("SONORELL_AUDIO_SINK", "fakesink sync=true", 1);
    player_ = GstQueuePlayer::create();
    ASSERT_TRUE(player_);
    recorder_ = std::make_unique<PlayerRecorder>(*player_);
  }
  void TearDown() override {
    // The player first, then its queued notifications and the pipeline's teardown (done on a
    // queue when released on a streaming thread), and only then the recorder they write to.
    player_.reset();
    EXPECT_TRUE(DispatchQueue::waitUntilAllIdle(std::chrono::seconds(20)));
    recorder_.reset();
  }

  std::shared_ptr<PlayerItem> item(const std::filesystem::path& file, const std::string& name) {
    return item(file, name, FileLoaderDelegate::Behaviour());
  }
  std::shared_ptr<PlayerItem> item(const std::filesystem::path& file, const std::string& name,
                                   FileLoaderDelegate::Behaviour behaviour) {
    auto delegate = std::make_shared<FileLoaderDelegate>(file, std::move(behaviour));
    delegates_.push_back(delegate);
    auto made = testing::makeItem("qlso://" + name, delegate, loaderQueue_);
    recorder_->watch(made);
    return made;
  }

  bool waitUntil(const std::function<bool()>& condition, std::chrono::milliseconds limit = 20s) {
    // Polls state the player exposes only by value; the observer queue is the clock here.
    auto deadline = std::chrono::steady_clock::now() + limit;
    auto queue = DispatchQueue::create("io.sonorell.test.poll");
    while (!condition()) {
      if (std::chrono::steady_clock::now() > deadline) return false;
      Semaphore hop;
      queue->async([&] { hop.signal(); });
      hop.wait();
      std::this_thread::yield();
    }
    return true;
  }

  testing::TempDir dir_;
  DispatchQueuePtr loaderQueue_ = DispatchQueue::create("io.sonorell.test.loader");
  std::vector<std::shared_ptr<FileLoaderDelegate>> delegates_;
  std::shared_ptr<GstQueuePlayer> player_;
  std::unique_ptr<PlayerRecorder> recorder_;
};

TEST_F(GstPlayerTest, QueueOfThreeChaptersPlaysThroughGapless) {
  std::vector<std::shared_ptr<PlayerItem>> items;
  for (int i = 0; i < 3; ++i) {
    auto file = testing::makeMp3(dir_.path(), "c" + std::to_string(i) + ".mp3", 1.5, 440 + 110 * i);
    items.push_back(item(file, "c" + std::to_string(i) + ".mp3"));
    ASSERT_TRUE(player_->insertItem(items.back(), nullptr));
  }
  player_->play();
  ASSERT_TRUE(recorder_->waitFor("end", 3, 30s));
  ASSERT_TRUE(recorder_->waitFor("current", 4));  // a, b, c, then the emptied queue

  std::vector<std::string> order;
  std::vector<std::shared_ptr<PlayerItem>> ended;
  std::vector<std::shared_ptr<PlayerItem>> currents;
  for (auto& e : recorder_->events()) {
    if (e.kind == "end") ended.push_back(e.item);
    if (e.kind == "current") currents.push_back(e.item);
  }
  EXPECT_EQ(ended, items);
  ASSERT_EQ(currents.size(), 4u);
  EXPECT_EQ(currents[1], items[1]);
  EXPECT_EQ(currents[2], items[2]);
  EXPECT_EQ(currents[3], nullptr);
  for (auto& i : items) {
    EXPECT_EQ(i->status(), PlayerItemStatus::ReadyToPlay);
    EXPECT_NEAR(i->duration().seconds(), 1.5, 0.1);
  }
  EXPECT_EQ(recorder_->count("failedToEnd"), 0u);
  EXPECT_EQ(recorder_->count("stalled"), 0u);
}

TEST_F(GstPlayerTest, SeekToTwoSecondsOfFourCompletesAndReadsTwo) {
  auto file = testing::makeMp3(dir_.path(), "four.mp3", 4.0);
  auto a = item(file, "four.mp3");
  player_->insertItem(a, nullptr);
  // Asked from a queue, the answer comes on that queue.
  auto caller = DispatchQueue::create("io.sonorell.test.caller");
  std::atomic<int> result{-1};
  std::atomic<DispatchQueue*> answeredOn{nullptr};
  caller->sync([&] {
    player_->seekToTime(MediaTime::make(2, 1), [&](bool finished) {
      answeredOn = DispatchQueue::current();
      result = finished;
    });
  });
  ASSERT_TRUE(waitUntil([&] { return result != -1; }));
  EXPECT_EQ(result, 1);
  EXPECT_EQ(answeredOn, caller.get());
  EXPECT_NEAR(player_->currentTime().seconds(), 2.0, 0.05);
  EXPECT_NEAR(a->duration().seconds(), 4.0, 0.15);
  EXPECT_EQ(a->status(), PlayerItemStatus::ReadyToPlay);
  // Asked from no queue, on the main queue.
  result = -1;
  std::atomic<bool> onMainThread{false};
  player_->seekToTime(MediaTime::make(1, 1), [&](bool finished) {
    answeredOn = DispatchQueue::current();
    onMainThread = DispatchQueue::isMainThread();
    result = finished;
  });
  ASSERT_TRUE(waitUntil([&] { return result != -1; }));
  EXPECT_EQ(result, 1);
  EXPECT_EQ(answeredOn, DispatchQueue::main().get());
  EXPECT_TRUE(onMainThread);
  EXPECT_NEAR(player_->currentTime().seconds(), 1.0, 0.05);
  // Playing on from there ends the item once, about three seconds later.
  player_->play();
  ASSERT_TRUE(recorder_->waitFor("end", 1));
}

// Zero crossings per second of running time: the pitch a listener hears. Crossings count with
// hysteresis, and only buffers that carry the tone (not the encoder's leading silence) count.
struct Pitch {
  std::mutex mutex;
  size_t crossings = 0;
  int64_t runningNs = 0;
  int sign = 0;
  void add(const float* s, size_t n, int64_t start, int64_t end) {
    double energy = 0;
    for (size_t i = 0; i < n; ++i) energy += s[i] * s[i];
    if (n == 0 || std::sqrt(energy / n) < 0.1) return;
    std::lock_guard lock(mutex);
    for (size_t i = 0; i < n; ++i) {
      int now = s[i] > 0.05f ? 1 : s[i] < -0.05f ? -1 : 0;
      if (now != 0 && sign != 0 && now != sign) ++crossings;
      if (now != 0) sign = now;
    }
    runningNs += end - start;
  }
  double hertz() {
    std::lock_guard lock(mutex);
    return runningNs > 0 ? crossings / 2.0 / (runningNs / 1e9) : 0;
  }
};

double measurePitch(GstPlayerTest* test, GstQueuePlayer& player, PlayerRecorder& recorder,
                    std::shared_ptr<PlayerItem> item, float rate) {
  Pitch pitch;
  player.setAudioTapForTesting([&](const float* s, size_t n, int, int64_t start, int64_t end) {
    pitch.add(s, n, start, end);
  });
  player.insertItem(item, nullptr);
  player.setRate(rate);
  EXPECT_TRUE(recorder.waitFor("end", 1));
  player.setAudioTapForTesting(nullptr);
  (void)test;
  return pitch.hertz();
}

TEST_F(GstPlayerTest, RateTwoKeepsTheTonesPitch) {
  auto file = testing::makeMp3(dir_.path(), "tone.mp3", 3.0, 440);
  double normal = measurePitch(this, *player_, *recorder_, item(file, "tone1.mp3"), 1.0f);
  auto second = GstQueuePlayer::create();
  PlayerRecorder secondRecorder(*second);
  auto fast = item(file, "tone2.mp3");
  secondRecorder.watch(fast);
  double doubled = measurePitch(this, *second, secondRecorder, fast, 2.0f);
  EXPECT_NEAR(normal, 440, 440 * 0.05);
  EXPECT_NEAR(doubled, normal, normal * 0.05);
}

TEST_F(GstPlayerTest, VarispeedAtRateTwoDoublesThePitch) {
  // The control for the test above: without time stretching the tone moves up an octave.
  auto file = testing::makeMp3(dir_.path(), "tone.mp3", 3.0, 440);
  auto a = item(file, "tone.mp3");
  a->setAudioTimePitchAlgorithm(TimePitchAlgorithm::Varispeed);
  double doubled = measurePitch(this, *player_, *recorder_, a, 2.0f);
  EXPECT_NEAR(doubled, 880, 880 * 0.05);
}

TEST_F(GstPlayerTest, LoaderThatStopsAnsweringLeadsToStalled) {
  auto file = testing::makeMp3(dir_.path(), "long.mp3", 20.0, 440, 320);
  auto a = item(file, "long.mp3");
  player_->insertItem(a, nullptr);
  player_->play();
  ASSERT_TRUE(waitUntil([&] { return player_->currentTime().seconds() > 0.5; }));
  delegates_[0]->stopAnswering();
  // On a loaded machine a stall can be declared while the decoder still holds a few buffers;
  // the pause then prerolls them and the item recovers. Playing on uses them up, and the next
  // stall is where the bytes really end.
  bool starved = false;
  for (size_t stalls = 1; stalls <= 5 && !starved; ++stalls) {
    ASSERT_TRUE(recorder_->waitFor("stalled", stalls));
    starved = a->isPlaybackBufferEmpty() && !a->isPlaybackLikelyToKeepUp();
    if (!starved) player_->play();
  }
  EXPECT_TRUE(starved);
  EXPECT_EQ(player_->rate(), 0.0f);
  EXPECT_LT(player_->currentTime().seconds(), 15.0);
  EXPECT_EQ(recorder_->count("end"), 0u);
}

TEST_F(GstPlayerTest, LoaderErrorFailsTheItemWithThatError) {
  auto file = testing::makeMp3(dir_.path(), "four.mp3", 4.0);
  FileLoaderDelegate::Behaviour fail;
  fail.failAt = 8000;
  fail.failError = Error::make(std::string(kURLLoadingErrorDomain),
                               kURLErrorUserAuthenticationRequired, "auth", nullptr);
  auto a = item(file, "four.mp3", fail);
  player_->insertItem(a, nullptr);
  player_->play();
  ASSERT_TRUE(waitUntil([&] { return a->status() == PlayerItemStatus::Failed; }));
  ASSERT_TRUE(a->error());
  EXPECT_EQ(a->error()->domain, kURLLoadingErrorDomain);
  EXPECT_EQ(a->error()->code, kURLErrorUserAuthenticationRequired);
  EXPECT_EQ(recorder_->count("end"), 0u);
}

TEST_F(GstPlayerTest, FileShorterThanStatedEndsEarlyAndIsReported) {
  auto file = testing::makeMp3(dir_.path(), "two.mp3", 2.0);
  FileLoaderDelegate::Behaviour shortFile;
  shortFile.statedLength = static_cast<int64_t>(std::filesystem::file_size(file)) + 16000;
  auto a = item(file, "two.mp3", shortFile);
  player_->insertItem(a, nullptr);
  player_->play();
  ASSERT_TRUE(recorder_->waitFor("failedToEnd", 1));
  EXPECT_EQ(recorder_->count("end"), 0u);
  for (auto& e : recorder_->events()) {
    if (e.kind != "failedToEnd") continue;
    ASSERT_TRUE(e.error);
    EXPECT_EQ(e.error->code, kMediaErrorContentEndedEarly);
  }
}

TEST_F(GstPlayerTest, OwnerRemovedOnItsQueueHearsNothingMoreWhileThePlayerRuns) {
  // Twice a round the other chapter becomes current (the pipeline reloads), the second time
  // while the owner is being removed, and the time observer ticks every millisecond of real
  // time; a thousand owners come and go.
  auto file = testing::makeMp3(dir_.path(), "short.mp3", 1.5);
  auto a = item(file, "a.mp3"), b = item(file, "b.mp3");
  ASSERT_TRUE(player_->insertItem(a, nullptr));
  ASSERT_TRUE(player_->insertItem(b, nullptr));
  player_->play();
  constexpr int kRounds = 1000;
  auto tally = testing::runOwnerTeardownRounds(*player_, kRounds, [&] {
    player_->advanceToNextItem();
    for (const auto& i : {a, b}) player_->insertItem(i, nullptr);
  });
  // Nothing produces events once the player is gone; whatever was queued has run after this.
  player_.reset();
  ASSERT_TRUE(DispatchQueue::waitUntilAllIdle(std::chrono::seconds(20)));
  EXPECT_EQ(tally->roundsHeard, kRounds);
  EXPECT_EQ(tally->late, 0);
  EXPECT_GE(tally->ticks, kRounds);
  EXPECT_GE(tally->changes, kRounds);
}

TEST_F(GstPlayerTest, DeclinedRequestFailsTheItem) {
  struct Declining : ResourceLoaderDelegate {
    bool shouldWaitForLoadingOfRequestedResource(ResourceLoader&,
                                                 const std::shared_ptr<LoadingRequest>&) override {
      return false;
    }
  };
  auto delegate = std::make_shared<Declining>();
  auto a = testing::makeItem("qlso://x.mp3", delegate, loaderQueue_);
  player_->insertItem(a, nullptr);
  ASSERT_TRUE(waitUntil([&] { return a->status() == PlayerItemStatus::Failed; }));
  EXPECT_EQ(a->error()->code, kMediaErrorResourceUnavailable);
}

// Two self-signed CAs that no system trusts, valid from 2000 to 2126.
constexpr const char* kAnchorA = R"(-----BEGIN CERTIFICATE-----
MIIBdDCCARugAwIBAgIBATAKBggqhkjOPQQDAjAhMR8wHQYDVQQDDBZTb25vcmVs
bCBUZXN0IEFuY2hvciBBMCAXDTAwMDEwMTAwMDAwMFoYDzIxMjYwMTAxMDAwMDAw
WjAhMR8wHQYDVQQDDBZTb25vcmVsbCBUZXN0IEFuY2hvciBBMFkwEwYHKoZIzj0C
AQYIKoZIzj0DAQcDQgAEib9OSiJMz8vnxCSXxHMeRgQBYmRWtlNyWGVspP2nX8JM
0H09qIffhYdy3F/7twk5t56tlbaG5FDz9U4tRAIvWKNCMEAwDwYDVR0TAQH/BAUw
AwEB/zAOBgNVHQ8BAf8EBAMCAgQwHQYDVR0OBBYEFN7oShQumUeX3H3weNb6ctGR
CQOPMAoGCCqGSM49BAMCA0cAMEQCIFgyJHQQSRuGmQoo34KqlQRfU/So5Oim+QFp
aygV/m2lAiB05I1vsBTKx77ErN2SULKkv5RSTME6VWQg8BI8PU/2aQ==
-----END CERTIFICATE-----
)";
constexpr const char* kAnchorB = R"(-----BEGIN CERTIFICATE-----
MIIBdTCCARugAwIBAgIBAjAKBggqhkjOPQQDAjAhMR8wHQYDVQQDDBZTb25vcmVs
bCBUZXN0IEFuY2hvciBCMCAXDTAwMDEwMTAwMDAwMFoYDzIxMjYwMTAxMDAwMDAw
WjAhMR8wHQYDVQQDDBZTb25vcmVsbCBUZXN0IEFuY2hvciBCMFkwEwYHKoZIzj0C
AQYIKoZIzj0DAQcDQgAEKL9HbUpvdjUVdHbSL6Jf2achTZS85IAQKRuzTRJNV4z8
fgXnbT3MDwJpm0JjUWNRY0PW0hDHgzGn7LGYaT3/Q6NCMEAwDwYDVR0TAQH/BAUw
AwEB/zAOBgNVHQ8BAf8EBAMCAgQwHQYDVR0OBBYEFGwInOBuV4r7NTugAu71Ct34
Rm3xMAoGCCqGSM49BAMCA0gAMEUCIHb/o3nKYa4jBEgVEY91MG6Vk1Jv+b+PFTic
h1auPjqXAiEAy2J677OAnCtRHAhLaywhm73b9lxEM6bnJC+40HWtT/A=
-----END CERTIFICATE-----
)";

class GstTrust : public ::testing::Test {
 protected:
  void TearDown() override { setDefaultCABundle(""); }

  std::string writeFile(const std::string& name, const std::string& text) {
    auto path = dir_.path() / name;
    std::ofstream(path, std::ios::binary | std::ios::trunc) << text;
    return path.string();
  }
  static GTlsCertificate* certificate(const char* pem) {
    GError* error = nullptr;
    GTlsCertificate* made = g_tls_certificate_new_from_pem(pem, -1, &error);
    EXPECT_NE(made, nullptr) << (error ? error->message : "");
    g_clear_error(&error);
    return made;
  }
  // What the database finds wrong with a server presenting `chain`; 0 when it trusts it.
  static GTlsCertificateFlags verify(GTlsDatabase* database, GTlsCertificate* chain) {
    GError* error = nullptr;
    GTlsCertificateFlags flags =
        g_tls_database_verify_chain(database, chain, G_TLS_DATABASE_PURPOSE_AUTHENTICATE_SERVER,
                                    nullptr, nullptr, G_TLS_DATABASE_VERIFY_NONE, nullptr, &error);
    EXPECT_EQ(error, nullptr) << error->message;
    g_clear_error(&error);
    return flags;
  }
  // A root of the system's own store that the system's default database trusts as it stands.
  static GTlsCertificate* systemRoot() {
    GTlsDatabase* system = g_tls_backend_get_default_database(g_tls_backend_get_default());
    GList* roots =
        g_tls_certificate_list_new_from_file("/etc/ssl/certs/ca-certificates.crt", nullptr);
    GTlsCertificate* found = nullptr;
    for (GList* l = roots; l && !found; l = l->next) {
      auto* root = G_TLS_CERTIFICATE(l->data);
      if (verify(system, root) == 0) found = G_TLS_CERTIFICATE(g_object_ref(root));
    }
    g_list_free_full(roots, g_object_unref);
    g_object_unref(system);
    return found;
  }

  testing::TempDir dir_;
};

TEST_F(GstTrust, MergedDatabaseTrustsTheSystemsCAsAndTheBundlesButNoOthers) {
  GTlsCertificate* root = systemRoot();
  ASSERT_NE(root, nullptr) << "no usable root in the system's store";
  GTlsCertificate* a = certificate(kAnchorA);
  GTlsCertificate* b = certificate(kAnchorB);
  ASSERT_TRUE(a && b);
  GTlsDatabase* system = g_tls_backend_get_default_database(g_tls_backend_get_default());
  EXPECT_NE(verify(system, a) & G_TLS_CERTIFICATE_UNKNOWN_CA, 0);  // not trusted by default

  GTlsDatabase* merged = gst_tls::databaseForBundle(writeFile("a.pem", kAnchorA));
  ASSERT_NE(merged, nullptr);
  EXPECT_EQ(verify(merged, a), 0);
  EXPECT_EQ(verify(merged, root), 0);
  EXPECT_NE(verify(merged, b) & G_TLS_CERTIFICATE_UNKNOWN_CA, 0);

  g_object_unref(merged);
  g_object_unref(system);
  g_object_unref(a);
  g_object_unref(b);
  g_object_unref(root);
}

TEST_F(GstTrust, DatabaseIsKeptForOneBundleAndRemadeWhenItChanges) {
  GTlsCertificate* a = certificate(kAnchorA);
  GTlsCertificate* b = certificate(kAnchorB);
  ASSERT_TRUE(a && b);
  std::string first = writeFile("first.pem", kAnchorA);
  GTlsDatabase* one = gst_tls::databaseForBundle(first);
  GTlsDatabase* again = gst_tls::databaseForBundle(first);
  ASSERT_NE(one, nullptr);
  EXPECT_EQ(one, again);

  // Another path: a database of its own, trusting that bundle's CA instead.
  GTlsDatabase* other = gst_tls::databaseForBundle(writeFile("second.pem", kAnchorB));
  ASSERT_NE(other, nullptr);
  EXPECT_NE(other, one);
  EXPECT_EQ(verify(other, b), 0);
  EXPECT_NE(verify(other, a), 0);

  // The same path rewritten with other certificates.
  writeFile("first.pem", std::string(kAnchorB) + "\n" + kAnchorB);
  GTlsDatabase* rewritten = gst_tls::databaseForBundle(first);
  ASSERT_NE(rewritten, nullptr);
  EXPECT_NE(rewritten, one);
  EXPECT_EQ(verify(rewritten, b), 0);
  EXPECT_NE(verify(rewritten, a), 0);
  // The one handed out earlier still holds what it trusted.
  EXPECT_EQ(verify(one, a), 0);

  for (GTlsDatabase* d : {one, again, other, rewritten}) g_object_unref(d);
  g_object_unref(a);
  g_object_unref(b);
}

TEST_F(GstTrust, NoBundleOrAnUnusableOneGivesNoDatabase) {
  testing::PlatformLogLines log;
  EXPECT_EQ(gst_tls::databaseForBundle(""), nullptr);
  std::string junk = writeFile("junk.pem", "not a certificate\n");
  EXPECT_EQ(gst_tls::databaseForBundle(junk), nullptr);
  EXPECT_EQ(gst_tls::databaseForBundle(junk), nullptr);
  EXPECT_EQ(gst_tls::databaseForBundle((dir_.path() / "missing.pem").string()), nullptr);
  EXPECT_EQ(log.count("junk.pem", LogType::Error), 1u);  // reported once, not at every source
  EXPECT_EQ(log.count("missing.pem", LogType::Error), 1u);
}

TEST_F(GstTrust, HttpSourceGetsTheDatabaseAndStaysStrict) {
  gst_init(nullptr, nullptr);
  GstElement* source = gst_element_factory_make("souphttpsrc", nullptr);
  ASSERT_NE(source, nullptr);
  gst_object_ref_sink(source);
  GTlsCertificate* a = certificate(kAnchorA);
  ASSERT_NE(a, nullptr);

  // No bundle: the source keeps its default, the system's CAs.
  gst_tls::applyTrust(source);
  GTlsDatabase* database = nullptr;
  gboolean strict = FALSE;
  g_object_get(source, "tls-database", &database, "ssl-strict", &strict, nullptr);
  EXPECT_EQ(database, nullptr);
  EXPECT_TRUE(strict);

  setDefaultCABundle(writeFile("host.pem", kAnchorA));
  g_object_set(source, "ssl-strict", FALSE, nullptr);
  gst_tls::applyTrust(source);
  g_object_get(source, "tls-database", &database, "ssl-strict", &strict, nullptr);
  ASSERT_NE(database, nullptr);
  EXPECT_TRUE(strict);
  EXPECT_EQ(verify(database, a), 0);
  g_object_unref(database);

  // An element with no TLS settings is left as it is.
  GstElement* other = gst_element_factory_make("fakesrc", nullptr);
  ASSERT_NE(other, nullptr);
  gst_object_ref_sink(other);
  gst_tls::applyTrust(other);
  gst_object_unref(other);
  gst_object_unref(source);
  g_object_unref(a);
}

}  // namespace
}  // namespace sonorell
