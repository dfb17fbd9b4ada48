#include "admin_routes.h"

#include <nlohmann/json.hpp>
#include <stdexcept>

#include "admin_documents.h"
#include "fault_plan_json.h"

namespace sonorell::content {
namespace {

using nlohmann::json;

void answer(httplib::Response& res, int status, const json& doc) {
  res.status = status;
  res.set_content(doc.dump(), "application/json");
}

}  // namespace

// These handlers never record their requests: a test that reads the recorded requests wants the
// traffic of the client it tests, not its own calls to this API.
void installAdminRoutes(httplib::Server& server, ServerState& state) {
  server.Put("/_admin/faults", [&state](const httplib::Request& req, httplib::Response& res) {
    std::vector<FaultRule> rules;
    try {
      rules = parseFaultPlan(req.body);
    } catch (const std::invalid_argument& e) {
      // Nothing was changed: the plan is replaced only once all of it reads.
      answer(res, 400, {{"error", e.what()}});
      return;
    }
    answer(res, 200, {{"ids", state.faults.replace(std::move(rules))}});
  });
  server.Delete("/_admin/faults", [&state](const httplib::Request&, httplib::Response& res) {
    state.faults.clear();
    answer(res, 200, json::object());
  });
  server.Get("/_admin/requests", [&state](const httplib::Request&, httplib::Response& res) {
    answer(res, 200, makeRequestsDocument(state.recorder.requests()));
  });
  server.Delete("/_admin/requests", [&state](const httplib::Request&, httplib::Response& res) {
    state.recorder.clear();
    answer(res, 200, json::object());
  });
  // The batches are the recorded analytics requests, so DELETE /_admin/requests forgets them too.
  server.Get("/_admin/analytics", [&state](const httplib::Request&, httplib::Response& res) {
    answer(res, 200, makeAnalyticsDocument(state.recorder.requests(Route::kAnalytics)));
  });
  server.Get("/_admin/catalogue", [&state](const httplib::Request&, httplib::Response& res) {
    answer(res, 200, makeCatalogueDocument(state.catalogue));
  });
}

}  // namespace sonorell::content
