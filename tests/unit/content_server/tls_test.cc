// HTTPS as a client with verification on sees it: trusted through the server's own CA only. And
// plain HTTP when a test asks for it, faults included.
#include <fstream>

#include "server_fixture.h"

namespace sonorell::content::testing {
namespace {

class TlsTest : public ServerTest {};

TEST_F(TlsTest, VerifiedByAddressAndNameThroughTheServersOwnCAWhichTheNextServerReuses) {
  EXPECT_EQ(server_.baseURL(), "https://127.0.0.1:" + std::to_string(server_.port()));
  const HttpResult byAddress = get("/v4/audiobooks/1001");
  EXPECT_EQ(byAddress.code, CURLE_OK) << byAddress.error;
  EXPECT_EQ(byAddress.status, 200);
  HttpRequest r = request("/v4/audiobooks/1001");
  r.url = "https://localhost:" + std::to_string(server_.port()) + "/v4/audiobooks/1001";
  const HttpResult byName = fetch(r);
  EXPECT_EQ(byName.code, CURLE_OK) << byName.error;

  r.caFile.clear();  // the system's bundle does not know our CA
  const HttpResult untrusted = fetch(r);
  EXPECT_EQ(untrusted.code, CURLE_PEER_FAILED_VERIFICATION) << untrusted.error;
  EXPECT_EQ(server_.requestCount(Route::kMetadata), 2u);

  std::ifstream in(server_.caCertificatePath());
  std::string first;
  std::getline(in, first);
  EXPECT_EQ(first, "-----BEGIN CERTIFICATE-----");
  ContentServer next;
  next.start();
  EXPECT_EQ(next.caCertificatePath(), server_.caCertificatePath());
  EXPECT_NE(next.port(), server_.port());
  next.stop();
}

TEST(PlainHttp, ServesWithoutTlsWhenAskedAndItsFaultsWorkToo) {
  ServerOptions options;
  options.https = false;
  ContentServer plain(options);
  plain.start();
  EXPECT_TRUE(plain.caCertificatePath().empty());
  EXPECT_EQ(plain.baseURL().rfind("http://127.0.0.1:", 0), 0u);
  HttpRequest r;
  r.url = plain.metadataURL(kThreeChapterBookID);
  const HttpResult ok = fetch(r);
  EXPECT_EQ(ok.code, CURLE_OK) << ok.error;
  EXPECT_EQ(ok.status, 200);

  plain.faults().add(Route::kAudio, Fault::droppedConnection());
  plain.faults().add(Route::kAudio, Fault::cutShort(10), Trigger::nth(2));
  r.url = plain.audioURL(kFourChapterBookID, 0, 4);
  const HttpResult dropped = fetch(r);
  EXPECT_EQ(dropped.code, CURLE_GOT_NOTHING) << dropped.error;
  const HttpResult cut = fetch(r);
  EXPECT_EQ(cut.code, CURLE_PARTIAL_FILE) << cut.error;
  EXPECT_EQ(cut.body.size(), 10u);
  plain.stop();
}

}  // namespace
}  // namespace sonorell::content::testing
