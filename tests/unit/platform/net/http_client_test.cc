// The data-request client against the reference server: what it sends, how every kind of
// transport failure reaches the caller (URL-loading codes, the libcurl error underneath), which
// CA bundle it trusts, and a wrapper that replaces one request while the rest stay real.
#include <gtest/gtest.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>

#include <atomic>
#include <future>

#include "content_server.h"
#include "default_ca_bundle_guard.h"
#include "platform/dispatch/dispatch_queue.h"
#include "platform/net/curl_loop.h"
#include "platform/net/http_client.h"
#include "support/temp_library.h"

namespace sonorell {
namespace {

using content::Fault;
using content::Route;
using Result = std::pair<std::optional<HttpResponse>, ErrorPtr>;

class HttpClientTest : public ::testing::Test {
 protected:
  void SetUp() override {
    server.start();
    client->setCABundle(server.caCertificatePath().string());
  }
  Result get(const std::string& url, std::chrono::milliseconds timeout = std::chrono::seconds(10)) {
    HttpRequest request;
    request.url = url;
    request.timeout = timeout;
    return client->sendSynchronously(std::move(request));
  }
  testing::TempLibrary library;
  content::ContentServer server;
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

TEST_F(HttpClientTest, StatusesAreAnswersNotErrors) {
  server.faults().add(Route::kMetadata, Fault::statusCode(503));
  auto [response, error] = get(server.metadataURL("1001"));
  EXPECT_EQ(error, nullptr);
  ASSERT_TRUE(response.has_value());
  EXPECT_EQ(response->status, 503);
}

TEST_F(HttpClientTest, ATimeOutIs1001WithLibcurlsErrorUnderneath) {
  server.faults().add(Route::kMetadata, Fault::delayed(std::chrono::seconds(30)));
  auto [response, error] = get(server.metadataURL("1001"), std::chrono::milliseconds(300));
  ASSERT_NE(error, nullptr);
  EXPECT_FALSE(response.has_value());
  EXPECT_EQ(error->domain, kURLLoadingErrorDomain);
  EXPECT_EQ(error->code, kURLErrorTimedOut);
  ASSERT_NE(error->underlyingError(), nullptr);
  EXPECT_EQ(error->underlyingError()->code, 28);  // CURLE_OPERATION_TIMEDOUT
  EXPECT_FALSE(error->localizedDescription().empty());
}

TEST_F(HttpClientTest, AnUntrustedCertificateIsRefused) {
  auto stranger = HttpClient::create();  // trusts only the system's CAs
  HttpRequest request;
  request.url = server.metadataURL("1001");
  auto [response, error] = stranger->sendSynchronously(request);
  ASSERT_NE(error, nullptr);
  EXPECT_EQ(error->domain, kURLLoadingErrorDomain);
  EXPECT_TRUE(error->code == kURLErrorServerCertificateUntrusted ||
              error->code == kURLErrorSecureConnectionFailed)
      << error->description();
}

TEST_F(HttpClientTest, NobodyListeningIsCannotConnect) {
  int probe = ::socket(AF_INET, SOCK_STREAM, 0);
  sockaddr_in address{};
  address.sin_family = AF_INET;
  address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  ASSERT_EQ(::bind(probe, reinterpret_cast<sockaddr*>(&address), sizeof address), 0);
  socklen_t length = sizeof address;
  ::getsockname(probe, reinterpret_cast<sockaddr*>(&address), &length);
  ::close(probe);
  auto [response, error] =
      get("https://127.0.0.1:" + std::to_string(ntohs(address.sin_port)) + "/v4/audiobooks/1");
  ASSERT_NE(error, nullptr);
  EXPECT_EQ(error->code, kURLErrorCannotConnectToHost);
}

TEST_F(HttpClientTest, ACancelledRequestCompletesOnceWith999) {
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
  auto [response, error] = future.get();
  ASSERT_NE(error, nullptr);
  EXPECT_EQ(error->code, kURLErrorCancelled);
  task->cancel();  // a second cancel after completion does nothing
}

TEST_F(HttpClientTest, ADroppedConnectionIsConnectionLost) {
  server.faults().add(Route::kMetadata, Fault::droppedConnection());
  auto [response, error] = get(server.metadataURL("1001"));
  ASSERT_NE(error, nullptr);
  EXPECT_EQ(error->code, kURLErrorNetworkConnectionLost);
}

TEST_F(HttpClientTest, AClientWithoutItsOwnBundleTrustsTheProcessDefault) {
  testing::DefaultCABundleGuard guard;
  setDefaultCABundle(server.caCertificatePath().string());
  auto plain = HttpClient::create();  // made after the default was set or before: both trust it
  HttpRequest request;
  request.url = server.metadataURL("1001");
  auto [response, error] = plain->sendSynchronously(request);
  ASSERT_EQ(error, nullptr) << error->description();
  EXPECT_EQ(response->status, 200);
}

TEST_F(HttpClientTest, TheClientsOwnBundleWinsOverTheProcessDefault) {
  testing::DefaultCABundleGuard guard;
  setDefaultCABundle(server.caCertificatePath().string());
  // Public roots only, none of which signed the test certificate.
  client->setCABundle("/etc/ssl/certs/ca-certificates.crt");
  auto [response, error] = get(server.metadataURL("1001"));
  ASSERT_NE(error, nullptr);
  EXPECT_EQ(error->code, kURLErrorServerCertificateUntrusted) << error->description();
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
  auto wrapper = std::make_shared<OfflineOnceClient>(client);
  HttpRequest request;
  request.url = server.metadataURL("1001");
  auto [firstResponse, firstError] = wrapper->sendSynchronously(request);
  ASSERT_NE(firstError, nullptr);
  EXPECT_FALSE(firstResponse.has_value());
  EXPECT_EQ(firstError->domain, kURLLoadingErrorDomain);
  EXPECT_EQ(firstError->code, kURLErrorNotConnectedToInternet);
  EXPECT_EQ(server.requestCount(Route::kMetadata), 0u);

  auto [response, error] = wrapper->sendSynchronously(request);
  ASSERT_EQ(error, nullptr) << error->description();
  EXPECT_EQ(response->status, 200);
  EXPECT_NE(response->body.find("1001"), std::string::npos);
  EXPECT_EQ(server.requestCount(Route::kMetadata), 1u);
  // Settings go through to the real client.
  EXPECT_EQ(wrapper->caBundle(), server.caCertificatePath().string());
}

}  // namespace
}  // namespace sonorell
