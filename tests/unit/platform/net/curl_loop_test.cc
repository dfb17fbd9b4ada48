// The event loop on its own, with jobs that record what they hear: a refused job hears nothing
// more, and the loop goes away safely when its last owner lets go from a job's call on the
// loop's own thread, still stopping the jobs it holds.
#include <gtest/gtest.h>

#include <atomic>
#include <future>

#include "transfer_test_support.h"

namespace sonorell::testing {
namespace {

using content::Fault;
using content::Route;
using namespace std::chrono_literals;

// What a job heard; outlives the job, which the loop destroys.
struct Heard {
  std::atomic<bool> configured{false};
  std::atomic<int> calls{0};  // done and stopped together
  std::promise<CURLcode> done;
  std::promise<void> stopped;
};

class RecordingJob : public CurlJob {
 public:
  RecordingJob(std::string url, std::string caBundle, std::shared_ptr<Heard> heard)
      : url_(std::move(url)), caBundle_(std::move(caBundle)), heard_(std::move(heard)) {}

  bool refuse = false;
  // Let go of inside done(), on the loop's thread.
  std::shared_ptr<CurlLoop> owner;

  std::string caBundle() const override { return caBundle_; }
  bool configure(CURL* easy) override {
    heard_->configured = true;
    if (refuse) return false;
    curl_easy_setopt(easy, CURLOPT_URL, url_.c_str());
    curl_easy_setopt(
        easy, CURLOPT_WRITEFUNCTION,
        +[](char*, size_t size, size_t count, void*) { return size * count; });
    return true;
  }
  void done(CURL*, CURLcode code, const char*) override {
    ++heard_->calls;
    owner.reset();
    heard_->done.set_value(code);
  }
  void stopped() override {
    ++heard_->calls;
    heard_->stopped.set_value();
  }

 private:
  const std::string url_;
  const std::string caBundle_;
  const std::shared_ptr<Heard> heard_;
};

class CurlLoopTest : public TransferTest {
 protected:
  std::unique_ptr<RecordingJob> job(const std::string& url, const std::shared_ptr<Heard>& heard) {
    return std::make_unique<RecordingJob>(url, server.caCertificatePath().string(), heard);
  }
  static CURLcode doneCode(const std::shared_ptr<Heard>& heard) {
    auto done = heard->done.get_future();
    if (done.wait_for(30s) == std::future_status::ready) return done.get();
    ADD_FAILURE() << "the job never completed";
    return CURL_LAST;
  }
};

TEST_F(CurlLoopTest, ARefusedJobHearsNothingAndTheLastOwnerMayLetGoOnTheLoopsThread) {
  server.faults().add(Route::kAudio, Fault::delayed(30s));
  auto loop = CurlLoop::create();
  std::weak_ptr<CurlLoop> watch = loop;
  auto refused = std::make_shared<Heard>();
  auto refusedJob = job(server.metadataURL("1001"), refused);
  refusedJob->refuse = true;
  const uint64_t refusedId = loop->add(std::move(refusedJob));
  auto slow = std::make_shared<Heard>();
  loop->add(job(server.audioURL(content::kThreeChapterBookID, 0, 1), slow));
  auto next = std::make_shared<Heard>();
  loop->add(job(server.metadataURL("1001"), next));
  EXPECT_EQ(doneCode(next), CURLE_OK) << "a refused job stopped the loop";
  EXPECT_TRUE(refused->configured);
  loop->stop(refusedId);  // no longer the loop's: ignored

  // The quick job becomes the loop's only owner before the loop sees it.
  auto quick = std::make_shared<Heard>();
  auto quickJob = job(server.metadataURL("1001"), quick);
  CurlLoop* raw = loop.get();
  quickJob->owner = std::move(loop);
  raw->add(std::move(quickJob));
  EXPECT_EQ(doneCode(quick), CURLE_OK);
  EXPECT_TRUE(watch.expired());
  // The loop's thread, left to finish on its own, still stops what it holds.
  auto stopped = slow->stopped.get_future();
  ASSERT_EQ(stopped.wait_for(30s), std::future_status::ready);
  EXPECT_EQ(slow->calls, 1);
  EXPECT_EQ(quick->calls, 1);
  EXPECT_EQ(refused->calls, 0);
  EXPECT_EQ(server.requestCount(Route::kMetadata), 2u);
}

}  // namespace
}  // namespace sonorell::testing
