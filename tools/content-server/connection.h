// Reaches the socket under a request that httplib is serving, for the faults that must end a
// connection in ways httplib itself never would. Called on the worker thread that serves the
// request, while that connection is alive.
#pragma once

#include <httplib.h>

namespace sonorell::content {

enum class Shutdown { kWrite, kBoth };

// Shuts the request's connection down (no RST, no close: httplib still owns the descriptor).
// Returns false when the socket could not be found.
bool shutdownConnection(const httplib::Request& request, Shutdown how);

}  // namespace sonorell::content
