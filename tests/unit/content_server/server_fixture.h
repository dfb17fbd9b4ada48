// A reference server started for one test (HTTPS on 127.0.0.1, ephemeral port, the machine's
// shared catalogue cache) and short-hands for requests to it. Used from the test's thread.
#pragma once

#include <gtest/gtest.h>

#include <ostream>
#include <string>
#include <string_view>

#include "content_server.h"
#include "http_fetch.h"
#include "sha256.h"

namespace sonorell::content::testing {

class ServerTest : public ::testing::Test {
 protected:
  void SetUp() override { server_.start(); }
  void TearDown() override { server_.stop(); }

  HttpRequest request(std::string_view path, std::string method = "GET") const {
    HttpRequest r;
    r.method = std::move(method);
    r.url = server_.baseURL() + std::string(path);
    r.caFile = server_.caCertificatePath();
    return r;
  }
  HttpResult get(std::string_view path, std::vector<std::string> headers = {}) const {
    HttpRequest r = request(path);
    r.headers = std::move(headers);
    return fetch(r);
  }
  HttpResult post(std::string_view path, std::vector<std::string> headers, std::string body) const {
    HttpRequest r = request(path, "POST");
    r.headers = std::move(headers);
    r.body = std::move(body);
    return fetch(r);
  }
  // A chapter's bytes as the server reads them, checked against the digest the catalogue took
  // when it made the file, so that what the server sends can be compared with them.
  std::string chapterBytes(const Chapter& c) const {
    std::string bytes = c.bytes->all();
    EXPECT_EQ(sha256Hex(bytes), c.sha256) << c.audioPath;
    return bytes;
  }
  const Book& book(std::string_view id) const {
    const Book* b = server_.catalogue().book(id);
    EXPECT_NE(b, nullptr) << id;
    return *b;
  }

  ContentServer server_;
};

// A chapter that tests of served audio run against: a short one that the server holds in memory,
// or a 10 MB one that it reads from its file.
struct ChapterCase {
  const char* name;
  std::string_view bookID;
  std::size_t index;
};
inline const ChapterCase kInMemoryChapter{"InMemory", kFourChapterBookID, 3};
inline const ChapterCase kOnDiskChapter{"OnDisk", kTenMegabyteChapterBookID, 19};
inline std::string chapterCaseName(const ::testing::TestParamInfo<ChapterCase>& info) {
  return info.param.name;
}
inline void PrintTo(const ChapterCase& c, std::ostream* out) { *out << c.name; }

// Byte strings compared without printing megabytes when they differ.
inline ::testing::AssertionResult sameBytes(const std::string& actual,
                                            const std::string& expected) {
  if (actual == expected) return ::testing::AssertionSuccess();
  std::size_t at = 0;
  while (at < actual.size() && at < expected.size() && actual[at] == expected[at]) ++at;
  return ::testing::AssertionFailure() << actual.size() << " bytes where " << expected.size()
                                       << " were expected, first difference at byte " << at;
}

}  // namespace sonorell::content::testing
