// A reference server started for one test (HTTPS on 127.0.0.1, ephemeral port, the machine's
// shared catalogue cache) and short-hands for requests to it. Used from the test's thread.
#pragma once

#include <gtest/gtest.h>

#include <string>
#include <string_view>

#include "content_server.h"
#include "http_fetch.h"

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
  const Book& book(std::string_view id) const {
    const Book* b = server_.catalogue().book(id);
    EXPECT_NE(b, nullptr) << id;
    return *b;
  }

  ContentServer server_;
};

}  // namespace sonorell::content::testing
