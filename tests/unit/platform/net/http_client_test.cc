// The data-request client against the reference server: what it sends, how every kind of
// transport failure reaches the caller (URL-loading codes, the libcurl error underneath), which
// CA bundle it trusts, and a wrapper that replaces one request while the rest stay real.
#include <gtest/gtest.h>

#include <atomic>
#include <future>

#include "platform/net/http_client.h"
#include "transfer_test_support.h"

namespace sonorell::testing {
namespace {

using content::Fault;
using content::Route;
using Result = std::pair<std::optional<HttpResponse>, ErrorPtr>;

class HttpClientTest : public TransferTest {
 protected:
  void SetUp() override {
    TransferTest::SetUp();
    client->setCABundle(server.caCertificatePath().string());
  }
  void TearDown() override {
    client.reset();  // closes its connections before the server stops
    TransferTest::TearDown();
  }
  Result get(HttpClient& via, std::chrono::milliseconds timeout = std::chrono::seconds(10)) {
    HttpRequest request;
    request.url = server.metadataURL("1001");
    request.timeout = timeout;
    return via.sendSynchronously(std::move(request));
  }
  std::shared_ptr<HttpClient> client = HttpClient::create();
};

TEST_F(HttpClientTest, APostCarriesItsHeadersInOrderAndItsBody) {
  HttpRequest request;
  request.method = "POST";
  request.url = server.playlistURL("1001");
  request.headers = {{"X-Request-Id", "R-1"}, {"Session-Key", "key"}};
  request.body = R"({"license_id": "L"})";
  auto [response, error] = client->sendSynchronously(request);
  ASSERT_EQ(error, nullptr) << error->description();
  EXPECT_EQ(response->status, 200);
  EXPECT_NE(response->body.find("playlist_token"), std::string::npos);
  EXPECT_TRUE(response->header("content-type").has_value()) << "names compare without case";
  auto seen = server.requests(Route::kPlaylist).at(0);
  EXPECT_EQ(seen.header("X-Request-Id"), "R-1");
  EXPECT_EQ(seen.header("Session-Key"), "key");
  EXPECT_EQ(seen.header("Cache-Control"), "no-cache");
  EXPECT_EQ(seen.body, request.body);
}

TEST_F(HttpClientTest, TransportFailuresReachTheCallerAsURLErrorsButStatusesAreAnswers) {
  server.faults().add(Route::kMetadata, Fault::statusCode(503));
  auto [answered, noError] = get(*client);
  EXPECT_EQ(noError, nullptr);
  ASSERT_TRUE(answered.has_value());
  EXPECT_EQ(answered->status, 503);

  server.faults().add(Route::kMetadata, Fault::delayed(std::chrono::seconds(30)));
  auto [late, timedOut] = get(*client, std::chrono::milliseconds(300));
  EXPECT_FALSE(late.has_value());
  expectURLError(timedOut, kURLErrorTimedOut);
  ASSERT_NE(timedOut->underlyingError(), nullptr);
  EXPECT_EQ(timedOut->underlyingError()->code, 28);  // CURLE_OPERATION_TIMEDOUT
  EXPECT_FALSE(timedOut->localizedDescription().empty());

  // A cancelled request completes once, with -999.
  server.faults().add(Route::kMetadata, Fault::delayed(std::chrono::seconds(30)));
  std::promise<Result> done;
  auto future = done.get_future();
  HttpRequest request;
  request.url = server.metadataURL("1001");
  auto task = client->send(request, [&done](std::optional<HttpResponse> r, ErrorPtr e) {
    done.set_value({std::move(r), std::move(e)});
  });
  task->cancel();
  ASSERT_EQ(future.wait_for(std::chrono::seconds(10)), std::future_status::ready);
  expectURLError(future.get().second, kURLErrorCancelled);
  task->cancel();  // a second cancel after completion does nothing
}

TEST_F(HttpClientTest, TrustsItsOwnBundleElseTheProcessDefaultButNeverAnUnknownCA) {
  DefaultCABundleGuard guard;
  auto plain = HttpClient::create();  // trusts only the system's CAs
  auto error = get(*plain).second;
  ASSERT_NE(error, nullptr);
  EXPECT_EQ(error->domain, kURLLoadingErrorDomain);
  EXPECT_TRUE(error->code == kURLErrorServerCertificateUntrusted ||
              error->code == kURLErrorSecureConnectionFailed)
      << error->description();

  // A default set after the client was made is trusted from then on.
  setDefaultCABundle(server.caCertificatePath().string());
  auto [response, trusted] = get(*plain);
  ASSERT_EQ(trusted, nullptr) << trusted->description();
  EXPECT_EQ(response->status, 200);

  client->setCABundle(kPublicRoots);  // the client's own wins over the default
  expectURLError(get(*client).second, kURLErrorServerCertificateUntrusted);
}

// Fails the first request with "not connected to the Internet" without touching the network,
// as a test of a caller's offline path would; later requests go to the real client.
class OfflineOnceClient : public HttpClientWrapper {
 public:
  using HttpClientWrapper::HttpClientWrapper;
  std::shared_ptr<HttpTask> send(HttpRequest request, Completion completion) override {
    if (failed_.exchange(true)) return HttpClientWrapper::send(std::move(request), completion);
    queue_->async([completion] {
      completion(std::nullopt, Error::make(std::string(kURLLoadingErrorDomain),
                                           kURLErrorNotConnectedToInternet, "offline", nullptr));
    });
    return std::make_shared<AnsweredTask>();
  }

 private:
  struct AnsweredTask : HttpTask {
    void cancel() override {}
  };
  std::atomic<bool> failed_{false};
  DispatchQueuePtr queue_ = DispatchQueue::create("test.offline-once");
};

TEST_F(HttpClientTest, AWrapperFailsOneRequestAndTheNextIsReal) {
  OfflineOnceClient wrapper(client);
  auto [firstResponse, firstError] = get(wrapper);
  EXPECT_FALSE(firstResponse.has_value());
  expectURLError(firstError, kURLErrorNotConnectedToInternet);
  EXPECT_EQ(server.requestCount(Route::kMetadata), 0u);

  auto [response, error] = get(wrapper);
  ASSERT_EQ(error, nullptr) << error->description();
  EXPECT_EQ(response->status, 200);
  EXPECT_NE(response->body.find("1001"), std::string::npos);
  EXPECT_EQ(server.requestCount(Route::kMetadata), 1u);
  // Settings go through to the real client.
  EXPECT_EQ(wrapper.caBundle(), server.caCertificatePath().string());
}

}  // namespace
}  // namespace sonorell::testing
