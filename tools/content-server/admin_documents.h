// The JSON documents the admin endpoints answer with: the catalogue as tests address it, the
// recorded requests and the analytics batches received. Pure functions of their arguments.
#pragma once

#include <nlohmann/json.hpp>
#include <vector>

#include "catalogue.h"
#include "request_recorder.h"

namespace sonorell::content {

// {"books": [{"id", "title", "chapters": [{"part", "chapter", "path", "size", "sha256"}]}]}, every
// book; "path" is the chapter's audio path on the server, as a fault rule's "path" names it.
// Sizes and digests are those of the files as rendered, before any changeFile fault.
nlohmann::json makeCatalogueDocument(const Catalogue& catalogue);

// {"requests": [{"method", "path", "headers": {name: value}, "status", "bytesSent"}]}, in the
// order received. A header sent more than once has its values joined by ", "; "status" is 0 for
// a request answered with no response at all (a dropped connection) or not answered yet, and
// "bytesSent" counts the body bytes handed to the connection.
nlohmann::json makeRequestsDocument(const std::vector<RecordedRequest>& requests);

// {"batches": [...]}: the body of each analytics request, parsed when it is JSON and as a string
// when it is not, in the order received.
nlohmann::json makeAnalyticsDocument(const std::vector<RecordedRequest>& analyticsRequests);

}  // namespace sonorell::content
