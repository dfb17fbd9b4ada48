// A dropped-connection fault ends the connection it hit and no other, while clients in this same
// process keep closing sockets and opening new ones, so descriptor numbers are reused all along.
// Over plain HTTP and over HTTPS.
#include <curl/curl.h>
#include <gtest/gtest.h>

#include <latch>
#include <set>
#include <string>
#include <thread>
#include <vector>

#include "blob.h"
#include "content_server.h"
#include "http_fetch.h"

namespace sonorell::content::testing {
namespace {

// What one client that kept a single connection open saw.
struct KeepAliveLog {
  int requests = 0;
  int complete = 0;       // status 200 and every byte of the blob
  long connectsMade = 0;  // connections libcurl had to open, summed over all requests
  std::set<long> localPorts;
};

// What one client that opened a fresh connection for every request saw.
struct ChurnLog {
  int dropped = 0;  // faulted requests that got nothing back, as a dropped connection gives
  int complete = 0;
  std::vector<std::string> surprises;  // anything else, for the failure message
};

std::size_t appendBody(char* data, std::size_t size, std::size_t count, void* out) {
  static_cast<std::string*>(out)->append(data, size * count);
  return size * count;
}

// One libcurl handle reused for every request, so all of them go over one keep-alive connection
// unless the server closes it. Counts `opened` down once the connection is up; asks while the
// others churn (no more than the server answers on one connection), then once more after.
KeepAliveLog keepAliveClient(const HttpRequest& request, const std::string& expected,
                             std::latch& opened, std::latch& churned) {
  constexpr int kMaxWhileChurning = 200;  // well under the server's 1000 per connection
  KeepAliveLog log;
  CURL* curl = curl_easy_init();
  std::string body;
  curl_easy_setopt(curl, CURLOPT_URL, request.url.c_str());
  if (!request.caFile.empty()) curl_easy_setopt(curl, CURLOPT_CAINFO, request.caFile.c_str());
  curl_easy_setopt(curl, CURLOPT_NOSIGNAL, 1L);
  curl_easy_setopt(curl, CURLOPT_TIMEOUT_MS, 60'000L);
  curl_easy_setopt(curl, CURLOPT_WRITEFUNCTION, appendBody);
  curl_easy_setopt(curl, CURLOPT_WRITEDATA, &body);
  auto ask = [&] {
    body.clear();
    const CURLcode code = curl_easy_perform(curl);
    long status = 0, connects = 0, port = 0;
    curl_easy_getinfo(curl, CURLINFO_RESPONSE_CODE, &status);
    curl_easy_getinfo(curl, CURLINFO_NUM_CONNECTS, &connects);
    curl_easy_getinfo(curl, CURLINFO_LOCAL_PORT, &port);
    ++log.requests;
    log.complete += code == CURLE_OK && status == 200 && body == expected;
    log.connectsMade += connects;
    log.localPorts.insert(port);
  };
  ask();
  opened.count_down();
  while (!churned.try_wait() && log.requests < kMaxWhileChurning) ask();
  // The connection may have sat idle through the rest of the faults: it must still be there.
  churned.wait();
  ask();
  curl_easy_cleanup(curl);
  return log;
}

// What a client sees of a connection closed under its request: nothing at all over plain HTTP;
// over TLS, a connection that ends without the TLS close.
bool droppedUnderIt(const HttpResult& result) {
  return result.status == 0 &&
         (result.code == CURLE_GOT_NOTHING || result.code == CURLE_RECV_ERROR);
}

class DroppedConnectionFault : public ::testing::TestWithParam<bool> {};

INSTANTIATE_TEST_SUITE_P(Transports, DroppedConnectionFault, ::testing::Values(false, true),
                         [](const auto& info) { return info.param ? "Https" : "PlainHttp"; });

TEST_P(DroppedConnectionFault, EndsOnlyItsOwnConnectionWhileClientsInThisProcessReopenTheirs) {
  ServerOptions options;
  options.https = GetParam();
  // Far beyond any gap between two requests of a client starved of CPU, so that a keep-alive
  // connection can only end by being closed wrongly.
  options.keepAliveTimeout = std::chrono::seconds(300);
  ContentServer server(options);
  server.start();

  constexpr std::uint64_t kGoodSize = 100'000;  // several writes per answer
  const std::string expected = blobBytes(kGoodSize);
  HttpRequest good;
  good.url = server.blobURL(kGoodSize);
  good.caFile = server.caCertificatePath();
  HttpRequest faulted = good;
  faulted.url = server.blobURL(777);
  const auto rule =
      server.faults().add(Route::kBlob, Fault::droppedConnection(), Trigger::always(), "/blob/777");

  constexpr int kKeepAliveClients = 4;
  constexpr int kChurners = 4;
  constexpr int kRounds = 40;
  std::latch opened(kKeepAliveClients);
  std::latch churned(kChurners);
  std::vector<KeepAliveLog> keepAlive(kKeepAliveClients);
  std::vector<ChurnLog> churn(kChurners);
  std::vector<std::thread> keepAliveThreads, churnThreads;
  for (int i = 0; i < kKeepAliveClients; ++i) {
    keepAliveThreads.emplace_back(
        [&, i] { keepAlive[i] = keepAliveClient(good, expected, opened, churned); });
  }
  for (int i = 0; i < kChurners; ++i) {
    churnThreads.emplace_back([&, i] {
      opened.wait();  // every keep-alive connection is open before the first fault
      ChurnLog& log = churn[i];
      for (int round = 0; round < kRounds; ++round) {
        // Each fetch opens its own connection and closes it before returning.
        const HttpResult cut = fetch(faulted);
        if (droppedUnderIt(cut)) {
          ++log.dropped;
        } else {
          log.surprises.push_back("faulted: " + std::to_string(cut.code) + " " + cut.error);
        }
        const HttpResult whole = fetch(good);
        if (whole.code == CURLE_OK && whole.status == 200 && whole.body == expected) {
          ++log.complete;
        } else {
          log.surprises.push_back("good: " + std::to_string(whole.code) + " " + whole.error +
                                  " status " + std::to_string(whole.status) + ", " +
                                  std::to_string(whole.body.size()) + " bytes");
        }
      }
      churned.count_down();
    });
  }
  for (auto& t : churnThreads) t.join();
  for (auto& t : keepAliveThreads) t.join();

  for (const ChurnLog& log : churn) {
    EXPECT_EQ(log.dropped, kRounds);
    EXPECT_EQ(log.complete, kRounds);
    EXPECT_TRUE(log.surprises.empty()) << log.surprises.front();
  }
  EXPECT_EQ(server.faults().hits(rule), std::uint64_t{kChurners * kRounds});
  for (const KeepAliveLog& log : keepAlive) {
    EXPECT_GE(log.requests, 2);
    EXPECT_EQ(log.complete, log.requests);
    // One connection, opened for the first request and never lost.
    EXPECT_EQ(log.connectsMade, 1);
    EXPECT_EQ(log.localPorts.size(), 1u);
  }
  server.stop();
}

}  // namespace
}  // namespace sonorell::content::testing
