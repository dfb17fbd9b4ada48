// The exception the listen event handler throws for an invalid session key or playlist token.
// It carries one of the reason texts of sonorell/listen_event.h; the playback engine, the
// handler's only caller, catches it, so it never reaches a host. Immutable once thrown.
#pragma once

#include <stdexcept>
#include <string>
#include <string_view>

namespace sonorell {

class QLInvalidListenEventArgument : public std::invalid_argument {
 public:
  explicit QLInvalidListenEventArgument(std::string_view reason)
      : std::invalid_argument(std::string(reason)) {}
  std::string_view reason() const { return what(); }
};

}  // namespace sonorell
