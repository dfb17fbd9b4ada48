// The data-request client against the reference server: what it sends, and how every kind of
// transport failure reaches the caller (URL-loading codes, the libcurl error underneath).
#include <gtest/gtest.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>

#include <future>

#include "content_server.h"
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

TEST(HttpClientSettings, HostSettingsWinOverTheEnvironment) {
  ::setenv("SONORELL_API_BASE_URL", "https://env.example", 1);
  EXPECT_EQ(HttpClient::apiBaseURL(), "https://env.example");
  EXPECT_EQ(HttpClient::analyticsURL(), "https://env.example/v4/analytics");
  ::setenv("SONORELL_ANALYTICS_URL", "https://stats.example/v4/analytics", 1);
  EXPECT_EQ(HttpClient::analyticsURL(), "https://stats.example/v4/analytics");
  HttpClient::setAPIBaseURL("https://host.example");
  HttpClient::setAnalyticsURL("https://host.example/a");
  EXPECT_EQ(HttpClient::apiBaseURL(), "https://host.example");
  EXPECT_EQ(HttpClient::analyticsURL(), "https://host.example/a");
}

}  // namespace
}  // namespace sonorell
