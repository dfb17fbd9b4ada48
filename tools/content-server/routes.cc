#include "routes.h"

#include <algorithm>
#include <charconv>
#include <cstring>
#include <nlohmann/json.hpp>
#include <regex>
#include <stdexcept>

#include "blob.h"
#include "byte_range.h"
#include "documents.h"
#include "sha256.h"

namespace sonorell::content {
namespace {

constexpr std::uint64_t kMaxBlobBytes = 64ULL << 30;
const std::regex kAudioPath(R"(/audio/([^/]+)/(\d+)/(\d+)\.mp3)");
const std::regex kBlobPath(R"(/blob/(\d+))");

std::optional<std::uint64_t> number(const std::string& text) {
  std::uint64_t value = 0;
  auto [end, ec] = std::from_chars(text.data(), text.data() + text.size(), value);
  if (ec != std::errc() || end != text.data() + text.size()) return std::nullopt;
  return value;
}

// One request on a route: the fault picked for it and where its answer is tallied.
struct Exchange {
  std::optional<Fault> fault;
  std::shared_ptr<SentResponse> sent;
};

Exchange begin(ServerState& state, Route route, const httplib::Request& req) {
  RecordedRequest record{route, req.method, req.path, {}, req.body};
  for (const auto& [name, value] : req.headers) {
    // httplib adds the peer's address as pseudo-headers; they were never sent.
    if (name == "REMOTE_ADDR" || name == "REMOTE_PORT" || name == "LOCAL_ADDR" ||
        name == "LOCAL_PORT") {
      continue;
    }
    record.headers.emplace_back(name, value);
  }
  auto sent = record.response;
  state.recorder.record(std::move(record));
  return Exchange{state.faults.pick(route, req.path), std::move(sent)};
}

void finish(ServerState& state, const httplib::Request& req, httplib::Response& res, Reply reply,
            const Exchange& exchange) {
  send(req, res, std::move(reply), exchange.fault, state.stop, exchange.sent);
}

// SHA-256 of what the file serves, read a piece at a time (a changed chapter may be 10 MB).
std::string digestOf(const ServedFile& file) {
  Sha256 digest;
  std::string piece;
  for (std::uint64_t at = 0; at < file.size; at += piece.size()) {
    piece.resize(std::min<std::uint64_t>(1 << 20, file.size - at));
    if (!file.read(at, piece.data(), piece.size())) {
      throw std::runtime_error("cannot read the served file");
    }
    digest.update(piece);
  }
  return digest.hex();
}

Reply jsonReply(int status, const nlohmann::json& doc) {
  return Reply{status, "application/json", {}, Body::of(doc.dump())};
}

Reply errorReply(int status, std::string message, std::string code, std::uint64_t number,
                 std::vector<std::pair<std::string, std::string>> fields) {
  return jsonReply(
      status, makeErrorDocument(std::move(message), std::move(code), number, std::move(fields)));
}

std::optional<std::string_view> headerOf(const httplib::Request& req, const char* name) {
  if (!req.has_header(name)) return std::nullopt;
  auto it = req.headers.find(name);
  return std::string_view(it->second);
}

void serveFile(ServerState& state, Route route, const httplib::Request& req,
               httplib::Response& res) {
  const Exchange exchange = begin(state, route, req);
  const auto& fault = exchange.fault;
  if (fault && fault->changeFile) state.versions.change(req.path);
  const auto file = servedFile(state, req.path);
  if (!file) {
    finish(state, req, res,
           errorReply(404, "No such file", "not_found", 4040, {{"path", "unknown"}}), exchange);
    return;
  }
  const RangeAnswer answer = fault && fault->ignoreRange
                                 ? RangeAnswer{RangeAnswer::Kind::kWhole, 0, file->size}
                                 : answerRange(headerOf(req, "Range"), headerOf(req, "If-Range"),
                                               file->etag, file->lastModified, file->size);
  const std::string type = route == Route::kAudio ? "audio/mpeg" : "application/octet-stream";
  Reply reply{
      200,
      type,
      {{"ETag", file->etag}, {"Last-Modified", file->lastModified}, {"Accept-Ranges", "bytes"}},
      {}};
  const auto read = file->read;
  auto slice = [read](std::uint64_t offset, std::uint64_t length) {
    return Body{length, [read, offset](std::uint64_t at, char* out, std::size_t n) {
                  return read(offset + at, out, n);
                }};
  };
  switch (answer.kind) {
    case RangeAnswer::Kind::kWhole:
      reply.body = slice(0, file->size);
      break;
    case RangeAnswer::Kind::kPartial:
      reply.status = 206;
      reply.headers.emplace_back("Content-Range",
                                 "bytes " + std::to_string(answer.offset) + "-" +
                                     std::to_string(answer.offset + answer.length - 1) + "/" +
                                     std::to_string(file->size));
      reply.body = slice(answer.offset, answer.length);
      break;
    case RangeAnswer::Kind::kUnsatisfiable:
      reply.status = 416;
      reply.headers.emplace_back("Content-Range", "bytes */" + std::to_string(file->size));
      reply.body = Body::of(std::string());
      break;
  }
  finish(state, req, res, std::move(reply), exchange);
}

void serveMetadata(ServerState& state, const httplib::Request& req, httplib::Response& res) {
  const Exchange exchange = begin(state, Route::kMetadata, req);
  const Book* book = state.catalogue.book(req.matches[1].str());
  if (!book) {
    finish(state, req, res,
           errorReply(404, "Audiobook not found", "not_found", 4040, {{"id", "not_found"}}),
           exchange);
    return;
  }
  finish(state, req, res, jsonReply(200, makeMetadataResponse(*book)), exchange);
}

void servePlaylist(ServerState& state, const httplib::Request& req, httplib::Response& res) {
  const Exchange exchange = begin(state, Route::kPlaylist, req);
  auto reply = [&]() -> Reply {
    if (req.get_header_value("Session-Key").empty()) {
      return errorReply(401, "A session key is required", "unauthorized", 4011,
                        {{"Session-Key", "missing"}});
    }
    const auto body = nlohmann::json::parse(req.body, nullptr, false);
    if (body.is_discarded() || !body.is_object()) {
      return errorReply(400, "The request body is not a JSON object", "invalid_request", 4000,
                        {{"license_id", "missing"}});
    }
    const auto license = body.find("license_id");
    if (license == body.end() || !license->is_string() || license->get<std::string>().empty()) {
      return errorReply(400, "A license_id is required", "invalid_license", 4001,
                        {{"license_id", license == body.end() ? "missing" : "invalid"}});
    }
    const Book* book = state.catalogue.book(req.matches[1].str());
    if (!book) {
      return errorReply(404, "Audiobook not found", "not_found", 4040, {{"id", "not_found"}});
    }
    const std::string token = "plt-" + book->id + "-" + std::to_string(++state.playlistSequence);
    const auto expires = std::chrono::system_clock::now() +
                         std::chrono::seconds(state.playlistLifetimeSeconds.load());
    return jsonReply(200, makePlaylistDocument(*book, state.baseURL, token, expires));
  }();
  finish(state, req, res, std::move(reply), exchange);
}

void serveAnalytics(ServerState& state, const httplib::Request& req, httplib::Response& res) {
  const Exchange exchange = begin(state, Route::kAnalytics, req);
  const auto body = nlohmann::json::parse(req.body, nullptr, false);
  std::vector<std::pair<std::string, std::string>> missing;
  if (body.is_discarded() || !body.is_object()) {
    missing.emplace_back("body", "invalid");
  } else {
    auto require = [&](const char* key, bool (nlohmann::json::*is)() const noexcept) {
      const auto it = body.find(key);
      if (it == body.end() || !((*it).*is)()) missing.emplace_back(key, "missing");
    };
    require("events", &nlohmann::json::is_array);
    require("udid", &nlohmann::json::is_string);
    require("system", &nlohmann::json::is_object);
    require("sonorell", &nlohmann::json::is_object);
  }
  if (!missing.empty()) {
    finish(state, req, res,
           errorReply(400, "The analytics body is incomplete", "invalid_request", 4000,
                      std::move(missing)),
           exchange);
    return;
  }
  finish(state, req, res, Reply{204, "application/json", {}, Body::of(std::string())}, exchange);
}

}  // namespace

std::optional<ServedFile> servedFile(const ServerState& state, std::string_view path) {
  const std::string p(path);
  std::smatch m;
  const std::uint64_t version = state.versions.current(path);
  if (std::regex_match(p, m, kAudioPath)) {
    const Book* book = state.catalogue.book(m[1].str());
    const auto part = number(m[2].str());
    const auto chapter = number(m[3].str());
    const Chapter* c = book && part && chapter ? book->chapter(*part, *chapter) : nullptr;
    if (!c) return std::nullopt;
    const auto source = c->bytes;
    ServedFile file{source->size(), {}, lastModifiedText(version), {}};
    file.read = [source, version](std::uint64_t offset, char* out, std::size_t n) {
      if (!source->read(offset, out, n)) return false;
      applyVersion(version, offset, out, n);
      return true;
    };
    file.etag = "\"" + (version == 0 ? c->sha256 : digestOf(file)).substr(0, 32) + "\"";
    return file;
  }
  if (std::regex_match(p, m, kBlobPath)) {
    const auto size = number(m[1].str());
    if (!size || *size > kMaxBlobBytes) return std::nullopt;
    ServedFile file{
        *size, "\"blob-" + std::to_string(*size) + "-v" + std::to_string(version) + "\"",
        lastModifiedText(version), [version](std::uint64_t offset, char* out, std::size_t n) {
          fillBlob(version, offset, out, n);
          return true;
        }};
    return file;
  }
  return std::nullopt;
}

void installRoutes(httplib::Server& server, ServerState& state) {
  // Ranges are answered by the routes themselves (with If-Range and the faults); httplib must
  // not slice the bodies a second time. The request object is not const where httplib owns it.
  server.set_pre_routing_handler([](const httplib::Request& req, httplib::Response&) {
    const_cast<httplib::Request&>(req).ranges.clear();
    return httplib::Server::HandlerResponse::Unhandled;
  });
  server.Get(R"(/v4/audiobooks/([^/]+))",
             [&state](const httplib::Request& req, httplib::Response& res) {
               serveMetadata(state, req, res);
             });
  server.Post(R"(/v4/audiobooks/([^/]+)/playlists)",
              [&state](const httplib::Request& req, httplib::Response& res) {
                servePlaylist(state, req, res);
              });
  server.Post("/v4/analytics", [&state](const httplib::Request& req, httplib::Response& res) {
    serveAnalytics(state, req, res);
  });
  server.Get(R"(/audio/[^/]+/\d+/\d+\.mp3)",
             [&state](const httplib::Request& req, httplib::Response& res) {
               serveFile(state, Route::kAudio, req, res);
             });
  server.Get(R"(/blob/\d+)", [&state](const httplib::Request& req, httplib::Response& res) {
    serveFile(state, Route::kBlob, req, res);
  });
}

}  // namespace sonorell::content
