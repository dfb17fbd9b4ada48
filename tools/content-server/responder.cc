#include "responder.h"

#include <algorithm>
#include <cstring>

#include "connection.h"

namespace sonorell::content {
namespace {

constexpr std::uint64_t kChunk = 64 * 1024;

void eraseHeader(Reply& reply, std::string_view name) {
  std::erase_if(reply.headers, [name](const auto& h) { return h.first == name; });
}

// Fault knobs that replace what is sent rather than how it is sent.
void applyReplacements(Reply& reply, const Fault& fault) {
  if (fault.body) {
    reply.body = Body::of(*fault.body);
    reply.contentType = fault.contentType;
    eraseHeader(reply, "Content-Range");
  }
  if (fault.status) {
    reply.status = *fault.status;
    const bool success = reply.status >= 200 && reply.status < 300;
    if (!fault.body && !success) {
      reply.body = Body::of(std::string());
      eraseHeader(reply, "Content-Range");
    }
  }
}

struct Pacing {
  std::uint64_t bytesPerSecond = 0;
  std::optional<std::chrono::steady_clock::time_point> start;
};

}  // namespace

bool StopSignal::waitUntil(std::chrono::steady_clock::time_point deadline) {
  std::unique_lock lock(mutex_);
  return !cv_.wait_until(lock, deadline, [this] { return stopped_; });
}

void StopSignal::stop() {
  {
    std::lock_guard lock(mutex_);
    stopped_ = true;
  }
  cv_.notify_all();
}

void StopSignal::reset() {
  std::lock_guard lock(mutex_);
  stopped_ = false;
}

Body Body::of(std::shared_ptr<const std::string> bytes, std::uint64_t offset,
              std::uint64_t length) {
  return Body{length,
              [bytes = std::move(bytes), offset](std::uint64_t at, char* out, std::size_t n) {
                std::memcpy(out, bytes->data() + offset + at, n);
                return true;
              }};
}

Body Body::of(std::string text) {
  auto shared = std::make_shared<const std::string>(std::move(text));
  const std::uint64_t size = shared->size();
  return of(std::move(shared), 0, size);
}

void send(const httplib::Request& request, httplib::Response& response, Reply reply,
          const std::optional<Fault>& fault, StopSignal& stop, std::shared_ptr<SentResponse> sent) {
  if (!sent) sent = std::make_shared<SentResponse>();
  const Fault none;
  const Fault& f = fault ? *fault : none;
  if (f.delay.count() > 0 && !stop.waitFor(f.delay)) {
    shutdownConnection(request, Shutdown::kBoth);
    return;
  }
  if (f.dropConnection) {
    // Nothing reaches the client: httplib's own write of the response fails on the dead socket.
    shutdownConnection(request, Shutdown::kBoth);
    response.status = 500;
    return;
  }
  applyReplacements(reply, f);

  response.status = reply.status;
  sent->status = reply.status;
  for (const auto& [name, value] : reply.headers) response.set_header(name, value);
  const Body body = std::move(reply.body);
  if (body.size == 0 && !f.declaredLength) {
    // 204 and 304 carry no body and no Content-Length.
    if (reply.status != 204 && reply.status != 304) {
      response.set_content(std::string(), reply.contentType);
    }
    return;
  }

  const std::uint64_t declared = f.declaredLength.value_or(body.size);
  const std::uint64_t limit = std::min(body.size, f.cutAfterBytes.value_or(body.size));
  auto pacing = std::make_shared<Pacing>(Pacing{f.bytesPerSecond, std::nullopt});
  const httplib::Request* req = &request;  // outlives the response it belongs to

  response.set_content_provider(
      declared, reply.contentType,
      [body, limit, declared, pacing, req, sent, &stop](std::size_t offset, std::size_t,
                                                        httplib::DataSink& sink) {
        // Closing here, with the body short of what Content-Length promised, is the fault.
        if (offset >= limit) return false;
        std::uint64_t end = limit;
        if (declared >= body.size) end = std::min<std::uint64_t>(end, offset + kChunk);
        if (pacing->bytesPerSecond > 0) {
          if (!pacing->start) pacing->start = std::chrono::steady_clock::now();
          const std::uint64_t step = std::max<std::uint64_t>(1, pacing->bytesPerSecond / 20);
          end = std::min<std::uint64_t>(end, offset + std::min(step, kChunk));
        }
        std::vector<char> buffer(std::min<std::uint64_t>(kChunk, end - offset));
        for (std::uint64_t at = offset; at < end;) {
          const std::size_t n = std::min<std::uint64_t>(buffer.size(), end - at);
          if (!body.read(at, buffer.data(), n)) return false;
          // Counted before the write, so that a client holding the whole body never reads a
          // smaller count; taken back when the write fails.
          sent->bodyBytes += n;
          if (!sink.write(buffer.data(), n)) {
            sent->bodyBytes -= n;
            return false;
          }
          at += n;
        }
        if (pacing->bytesPerSecond > 0) {
          const auto due =
              *pacing->start + std::chrono::microseconds(end * 1'000'000 / pacing->bytesPerSecond);
          if (!stop.waitUntil(due)) return false;
        }
        // A Content-Length smaller than the body: the surplus went out too, so the connection
        // cannot carry another response.
        if (declared < body.size && end >= std::min(limit, declared))
          shutdownConnection(*req, Shutdown::kWrite);
        return true;
      });
}

}  // namespace sonorell::content
