#include "platform/net/http_client.h"

#include <future>

#include "platform/net/curl_loop.h"

namespace sonorell {

std::shared_ptr<HttpClient> HttpClient::shared() {
  static const auto* client = new std::shared_ptr<HttpClient>(create(CurlLoop::shared()));
  return *client;
}

std::pair<std::optional<HttpResponse>, ErrorPtr> HttpClient::sendSynchronously(
    HttpRequest request) {
  std::promise<std::pair<std::optional<HttpResponse>, ErrorPtr>> promise;
  auto future = promise.get_future();
  send(std::move(request), [&promise](std::optional<HttpResponse> response, ErrorPtr error) {
    promise.set_value({std::move(response), std::move(error)});
  });
  return future.get();
}

}  // namespace sonorell
