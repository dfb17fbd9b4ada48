// How the transfer service is put together: which CA bundle a session trusts, a curl loop shared
// with the data client, and wrappers that replace one operation while the rest stay real.
#include <gtest/gtest.h>

#include <atomic>

#include "platform/net/http_client.h"
#include "transfer_test_support.h"

namespace sonorell::testing {
namespace {

class TransferServices : public TransferTest {
 protected:
  // Runs one chapter in a new session and returns its completion error.
  ErrorPtr runChapter(std::string identifier, std::string caBundle) {
    auto config = configuration(std::move(identifier));
    config.caBundle = std::move(caBundle);
    auto delegate = std::make_shared<RecordingDelegate>();
    auto session = service->sessionWithConfiguration(config, delegate);
    session->downloadTask(get(server.audioURL(content::kThreeChapterBookID, 0, 1)))->resume();
    EXPECT_TRUE(delegate->waitForCompletions(1));
    auto completions = delegate->events(Kind::kComplete);
    return completions.empty() ? Error::make("test", 0, "no completion", nullptr)
                               : completions[0].error;
  }
};

TEST_F(TransferServices, ASessionTrustsItsOwnBundleElseTheServicesElseTheProcessDefault) {
  DefaultCABundleGuard guard;
  const std::string ours = server.caCertificatePath().string();
  startService();
  expectURLError(runChapter("QLSO_none", ""), kURLErrorServerCertificateUntrusted);
  // Set after the service exists, as a host may; later transfers trust it.
  setDefaultCABundle(ours);
  EXPECT_EQ(runChapter("QLSO_default", ""), nullptr);

  service.reset();
  TransferServiceOptions options;
  options.caBundle = kPublicRoots;
  startService(std::move(options));
  expectURLError(runChapter("QLSO_service", ""), kURLErrorServerCertificateUntrusted);
  EXPECT_EQ(runChapter("QLSO_own", ours), nullptr);
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

  slowAudio();
  auto delegate = std::make_shared<RecordingDelegate>();
  auto session = service->sessionWithConfiguration(configuration(), delegate);
  session->downloadTask(getChapter(longChapter()))->resume();
  ASSERT_TRUE(delegate->waitFor(Kind::kWrite));

  HttpRequest request;
  request.url = server.metadataURL("1001");
  auto [response, error] = client->sendSynchronously(request);
  ASSERT_EQ(error, nullptr) << error->description();
  EXPECT_EQ(response->status, 200);
  client.reset();
  EXPECT_FALSE(watch.expired()) << "the service does not run on the loop it was given";

  ASSERT_TRUE(delegate->waitForCompletions(1));
  EXPECT_EQ(delegate->events(Kind::kComplete)[0].error, nullptr);
  EXPECT_EQ(delegate->finished().sha256, longChapter().sha256);
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

TEST_F(TransferServices, AWrappedSessionFailsOneTaskAndTheNextIsReal) {
  startService();
  auto wrapped = std::make_shared<WrappingService>(service);
  EXPECT_EQ(wrapped->journalFile(), service->journalFile());
  auto delegate = std::make_shared<RecordingDelegate>();
  auto session = wrapped->sessionWithConfiguration(configuration("QLSO_wrapped"), delegate);
  const auto& c = chapter(content::kThreeChapterBookID, 0, 2);
  EXPECT_EQ(session->downloadTask(getChapter(c)), nullptr);
  auto task = session->downloadTask(getChapter(c));
  ASSERT_TRUE(task);
  task->resume();
  ASSERT_TRUE(delegate->waitForCompletions(1));
  EXPECT_EQ(delegate->finished().sha256, c.sha256);
  EXPECT_EQ(server.requestCount(content::Route::kAudio), 1u);

  // The delegate is told by the service's own session, the one the wrapper forwards to.
  auto real = std::static_pointer_cast<TransferSessionWrapper>(session)->target();
  EXPECT_EQ(delegate->events(Kind::kComplete)[0].session, real.get());
  EXPECT_EQ(real->identifier(), session->identifier());
  EXPECT_TRUE(tasksOf(session).empty());
}

}  // namespace
}  // namespace sonorell::testing
