// A test fixture with a fresh Library directory, the reference content server running on
// 127.0.0.1 over HTTPS, the engine's HTTP client pointed at it and trusting its CA, and a log
// listener that keeps every line.
#pragma once

#include <gtest/gtest.h>

#include <chrono>
#include <future>
#include <memory>

#include "content_server.h"
#include "core/service_urls.h"
#include "platform/net/curl_loop.h"
#include "platform/net/http_client.h"
#include "sonorell/log_engine.h"
#include "support/recording_listener.h"
#include "support/temp_library.h"

namespace sonorell::testing {

class ServerTest : public ::testing::Test {
 protected:
  void SetUp() override {
    QSOLogEngine::setListener(listener);
    server.start();
    setDefaultCABundle(server.caCertificatePath().string());
    ServiceURLs::setAPIBaseURL(server.baseURL());
    ServiceURLs::setAnalyticsURL(server.analyticsURL());
  }
  void TearDown() override {
    server.stop();
    QSOLogEngine::setListener(nullptr);
  }

  // Waits for a value delivered through a promise; fails the test after `limit`.
  template <class T>
  static T await(std::future<T>& future, std::chrono::seconds limit = std::chrono::seconds(15)) {
    if (future.wait_for(limit) != std::future_status::ready) {
      ADD_FAILURE() << "no answer within " << limit.count() << " s";
      return T{};
    }
    return future.get();
  }

  TempLibrary library;
  content::ContentServer server;
  std::shared_ptr<RecordingListener> listener = std::make_shared<RecordingListener>();
};

}  // namespace sonorell::testing
