// The server's connections: an httplib server whose accepted connections, plain or TLS, are
// served by our own loop, so that the worker thread serving a request knows its socket (httplib
// never tells a handler which one it runs on) and a fault can only ever reach its own connection.
// Each connection lives on one worker thread; nothing here is shared between connections.
#pragma once

#include <httplib.h>

#include <memory>

#include "tls_identity.h"

namespace sonorell::content {

// HTTPS with the identity's certificate and key, or plain HTTP when `tls` is null. A connection
// waits for its next request for at most the server's keep-alive timeout, and no longer than
// until the server stops. Null when the certificate or key cannot be used.
std::unique_ptr<httplib::Server> makeServer(const TlsIdentity* tls);

enum class Shutdown { kWrite, kBoth };

// Shuts the request's connection down (no RST, no close: the server still owns the descriptor
// and closes it once the request is done). Call it on the worker thread serving the request,
// from its handler or its content provider. False for a request this thread is not serving.
bool shutdownConnection(const httplib::Request& request, Shutdown how);

}  // namespace sonorell::content
