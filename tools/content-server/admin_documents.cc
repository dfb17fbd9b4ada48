#include "admin_documents.h"

namespace sonorell::content {

using nlohmann::json;

json makeCatalogueDocument(const Catalogue& catalogue) {
  json books = json::array();
  for (const Book& b : catalogue.books()) {
    json chapters = json::array();
    for (const Chapter& c : b.chapters) {
      chapters.push_back({{"part", c.part},
                          {"chapter", c.chapter},
                          {"path", c.audioPath},
                          {"size", c.size},
                          {"sha256", c.sha256}});
    }
    books.push_back({{"id", b.id}, {"title", b.title}, {"chapters", std::move(chapters)}});
  }
  return {{"books", std::move(books)}};
}

json makeRequestsDocument(const std::vector<RecordedRequest>& requests) {
  json list = json::array();
  for (const RecordedRequest& r : requests) {
    json headers = json::object();
    for (const auto& [name, value] : r.headers) {
      auto it = headers.find(name);
      if (it == headers.end()) {
        headers[name] = value;
      } else {
        *it = it->get<std::string>() + ", " + value;
      }
    }
    list.push_back({{"method", r.method},
                    {"path", r.path},
                    {"headers", std::move(headers)},
                    {"status", r.status()},
                    {"bytesSent", r.bytesSent()}});
  }
  return {{"requests", std::move(list)}};
}

json makeAnalyticsDocument(const std::vector<RecordedRequest>& analyticsRequests) {
  json batches = json::array();
  for (const RecordedRequest& r : analyticsRequests) {
    json body = json::parse(r.body, nullptr, false);
    batches.push_back(body.is_discarded() ? json(r.body) : std::move(body));
  }
  return {{"batches", std::move(batches)}};
}

}  // namespace sonorell::content
