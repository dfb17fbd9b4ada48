// How the transfer service is put together: which CA bundle a session trusts, a curl loop shared
// with the data client, and wrappers that replace one operation while the rest stay real.
#include <gtest/gtest.h>

#include <atomic>

#include "default_ca_bundle_guard.h"
#include "platform/net/curl_loop.h"
#include "platform/net/http_client.h"
#include "transfer_test_support.h"

namespace sonorell::testing {
namespace {

using Kind = TransferEvent::Kind;

class TransferServices : public TransferTest {
 protected:
  // Runs one chapter in a new session and returns its completion.
  TransferEvent runChapter(TransferService& on, TransferSessionConfiguration config) {
    auto delegate = std::make_shared<RecordingDelegate>();
    auto session = on.sessionWithConfiguration(config, delegate);
    session->downloadTask(get(server.audioURL(content::kThreeChapterBookID, 0, 1)))->resume();
    EXPECT_TRUE(delegate->waitForCompletions(1));
    auto completions = delegate->events(Kind::kComplete);
    return completions.empty() ? TransferEvent{} : completions[0];
  }
};

TEST_F(TransferServices, ASessionWithoutABundleTrustsTheServicesAndItsOwnWins) {
  TransferServiceOptions options;
  options.caBundle = server.caCertificatePath().string();
  startService(std::move(options));
  auto plain = configuration("QLSO_plain");
  plain.caBundle.clear();
  EXPECT_EQ(runChapter(*service, plain).error, nullptr);

  auto own = configuration("QLSO_own");
  own.caBundle = "/etc/ssl/certs/ca-certificates.crt";  // public roots only
  auto error = runChapter(*service, own).error;
  ASSERT_TRUE(error);
  EXPECT_EQ(error->code, kURLErrorServerCertificateUntrusted) << error->description();
}

TEST_F(TransferServices, WithNoBundleNamedTheProcessDefaultIsTrusted) {
  DefaultCABundleGuard guard;
  startService();
  auto config = configuration();
  config.caBundle.clear();
  auto untrusted = runChapter(*service, config).error;
  ASSERT_TRUE(untrusted);
  EXPECT_EQ(untrusted->code, kURLErrorServerCertificateUntrusted);

  // Set after the service exists, as a host may; later transfers trust it.
  setDefaultCABundle(server.caCertificatePath().string());
  config.identifier = "QLSO_after";
  EXPECT_EQ(runChapter(*service, config).error, nullptr);
}

TEST_F(TransferServices, TheDataClientGoingAwayLeavesTransfersOnTheLoopTheyShare) {
  auto loop = CurlLoop::create();
  auto client = HttpClient::create(loop);
  client->setCABundle(server.caCertificatePath().string());
  TransferServiceOptions options;
  options.loop = loop;
  startService(std::move(options));
  std::weak_ptr<CurlLoop> watch = loop;
  loop.reset();  // the client and the service keep it

  const auto& c = chapter(content::kLargeBookID, 1, 8);
  server.faults().add(content::Route::kAudio, content::Fault::bandwidth(40'000),
                      content::Trigger::next(1));
  auto delegate = std::make_shared<RecordingDelegate>();
  auto session = service->sessionWithConfiguration(configuration(), delegate);
  session->downloadTask(get(server.baseURL() + c.audioPath))->resume();
  ASSERT_TRUE(delegate->waitForWrites(1));

  HttpRequest request;
  request.url = server.metadataURL("1001");
  auto [response, error] = client->sendSynchronously(request);
  ASSERT_EQ(error, nullptr) << error->description();
  EXPECT_EQ(response->status, 200);
  client.reset();
  EXPECT_FALSE(watch.expired()) << "the service does not run on the loop it was given";

  ASSERT_TRUE(delegate->waitForCompletions(1));
  EXPECT_EQ(delegate->events(Kind::kComplete)[0].error, nullptr);
  ASSERT_EQ(delegate->events(Kind::kFinish).size(), 1u);
  EXPECT_EQ(delegate->events(Kind::kFinish)[0].sha256, c.sha256);
  EXPECT_EQ(server.requestCount(content::Route::kAudio), 1u) << "the transfer was interrupted";
}

// Refuses the first task, as an invalidated session does; later ones are the real session's.
class NoTaskOnceSession : public TransferSessionWrapper {
 public:
  using TransferSessionWrapper::TransferSessionWrapper;
  TransferTaskPtr downloadTask(TransferRequest request) override {
    if (!refused_.exchange(true)) return nullptr;
    return TransferSessionWrapper::downloadTask(std::move(request));
  }

 private:
  std::atomic<bool> refused_{false};
};

class WrappingService : public TransferServiceWrapper {
 public:
  using TransferServiceWrapper::TransferServiceWrapper;
  TransferSessionPtr sessionWithConfiguration(
      const TransferSessionConfiguration& configuration,
      std::weak_ptr<TransferSessionDelegate> delegate) override {
    return std::make_shared<NoTaskOnceSession>(
        TransferServiceWrapper::sessionWithConfiguration(configuration, std::move(delegate)));
  }
};

// Remembers the session each completion was told by.
class SessionRecordingDelegate : public RecordingDelegate {
 public:
  void didCompleteWithError(const TransferSessionPtr& session, const TransferTaskPtr& task,
                            ErrorPtr error) override {
    {
      std::lock_guard lock(mutex_);
      told_.push_back(session);
    }
    RecordingDelegate::didCompleteWithError(session, task, std::move(error));
  }
  std::vector<TransferSessionPtr> told() const {
    std::lock_guard lock(mutex_);
    return told_;
  }

 private:
  mutable std::mutex mutex_;
  std::vector<TransferSessionPtr> told_;  // guarded by mutex_
};

TEST_F(TransferServices, AWrappedSessionFailsOneTaskAndTheNextIsReal) {
  startService();
  auto wrapped = std::make_shared<WrappingService>(service);
  EXPECT_EQ(wrapped->journalFile(), service->journalFile());
  auto delegate = std::make_shared<SessionRecordingDelegate>();
  auto session = wrapped->sessionWithConfiguration(configuration("QLSO_wrapped"), delegate);
  const auto& c = chapter(content::kThreeChapterBookID, 0, 2);
  EXPECT_EQ(session->downloadTask(get(server.baseURL() + c.audioPath)), nullptr);
  auto task = session->downloadTask(get(server.baseURL() + c.audioPath));
  ASSERT_TRUE(task);
  task->resume();
  ASSERT_TRUE(delegate->waitForCompletions(1));
  ASSERT_EQ(delegate->events(Kind::kFinish).size(), 1u);
  EXPECT_EQ(delegate->events(Kind::kFinish)[0].sha256, c.sha256);
  EXPECT_EQ(server.requestCount(content::Route::kAudio), 1u);

  // The delegate is told by the service's own session, the one the wrapper forwards to.
  auto real = std::static_pointer_cast<TransferSessionWrapper>(session)->target();
  auto told = delegate->told();
  ASSERT_EQ(told.size(), 1u);
  EXPECT_EQ(told[0], real);
  EXPECT_EQ(told[0]->identifier(), session->identifier());
  EXPECT_TRUE(tasksOf(session).empty());
}

}  // namespace
}  // namespace sonorell::testing
