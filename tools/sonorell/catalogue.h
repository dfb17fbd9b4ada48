// The CLI as a host keeps a catalogue the way an application does: the audiobook's metadata
// document from the content service, added to the engine's object store the first time a book
// needs a title (the media-player widget shows it). The engine itself never fills that store.
#pragma once

#include <string>

#include "cli_context.h"

namespace sonorell::cli {

// The book's display title: the stored one, else the one the content service gives (stored for
// next time). Empty when neither answers (no service configured, unknown book, no network); it
// waits at most a few seconds for the service.
std::string catalogueTitle(const GlobalOptions& options, const std::string& audiobookID);

}  // namespace sonorell::cli
