// HTTPS as a client with verification on sees it: trusted through the server's own CA only.
#include <fstream>

#include "server_fixture.h"

namespace sonorell::content::testing {
namespace {

class TlsTest : public ServerTest {};

TEST_F(TlsTest, VerifiedByAddressAndByNameWithTheServersCA) {
  EXPECT_EQ(server_.baseURL(), "https://127.0.0.1:" + std::to_string(server_.port()));
  const HttpResult byAddress = get("/v4/audiobooks/1001");
  EXPECT_EQ(byAddress.code, CURLE_OK) << byAddress.error;
  EXPECT_EQ(byAddress.status, 200);

  HttpRequest byName = request("/v4/audiobooks/1001");
  byName.url = "https://localhost:" + std::to_string(server_.port()) + "/v4/audiobooks/1001";
  const HttpResult named = fetch(byName);
  EXPECT_EQ(named.code, CURLE_OK) << named.error;
}

TEST_F(TlsTest, RejectedWithoutTheServersCA) {
  HttpRequest r = request("/v4/audiobooks/1001");
  r.caFile.clear();  // the system's bundle does not know our CA
  const HttpResult untrusted = fetch(r);
  EXPECT_EQ(untrusted.code, CURLE_PEER_FAILED_VERIFICATION) << untrusted.error;
  EXPECT_EQ(server_.requestCount(Route::kMetadata), 0u);
}

TEST_F(TlsTest, CaFileIsPemAndReusedByTheNextServer) {
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

TEST(PlainHttp, ServesWithoutTlsWhenAsked) {
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
  plain.stop();
}

}  // namespace
}  // namespace sonorell::content::testing
