// Trust for GStreamer's HTTP source (souphttpsrc): the system's CAs plus the host's PEM bundle
// (defaultCABundle()) in one GTlsDatabase, the one trust setting both libsoup APIs honour. The
// latest bundle's database is cached under this file's own mutex; safe from any thread.
#pragma once

#include <gio/gio.h>
#include <gst/gst.h>

#include <string>

namespace sonorell::gst_tls {

// A database (a new reference) trusting the system's CAs and the certificates in `bundle`; null
// when `bundle` is empty (the system's CAs are the source's default anyway) or holds no usable
// certificate (logged once). Made again only when the bundle's path, size or time changes.
GTlsDatabase* databaseForBundle(const std::string& bundle);

// Makes an HTTP source verify servers against the system's CAs plus defaultCABundle(), with
// strict checking on. An element that cannot take a TLS database is left as it is (logged once).
void applyTrust(GstElement* element);

}  // namespace sonorell::gst_tls
