// The /_admin/ endpoints, for tests that drive the server from another process: the fault plan
// (replaced whole or cleared), the recorded requests, the analytics batches received and the
// catalogue. Installed only on a server started with them; handlers run on httplib's workers.
#pragma once

#include <httplib.h>

#include "routes.h"

namespace sonorell::content {

// PUT and DELETE /_admin/faults, GET and DELETE /_admin/requests, GET /_admin/analytics and
// GET /_admin/catalogue, all answering JSON.
void installAdminRoutes(httplib::Server& server, ServerState& state);

}  // namespace sonorell::content
