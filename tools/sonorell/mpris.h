// The play command's media-player object on the session D-Bus (MPRIS, bus name
// org.mpris.MediaPlayer2.sonorell): desktop media keys and player widgets pause, resume, skip and
// seek the playback engine, and see the book, the chapter, its length and the position.
// Served on a thread of its own (its own GLib main context); every D-Bus call and every property
// change runs there, and the engine's methods are safe from it.
#pragma once

#include <memory>
#include <string>

#include "sonorell/sonorell.h"

namespace sonorell::cli {

inline constexpr const char* kMprisBusName = "org.mpris.MediaPlayer2.sonorell";

class MprisPlayer {
 public:
  struct Book {
    std::string id;
    std::string title;  // shown as the album (the ID until known); the chapter is the track
  };

  // Registers the player; null when there is no session bus ($DBUS_SESSION_BUS_ADDRESS, or the
  // user's bus socket in $XDG_RUNTIME_DIR) or it refuses us. When another player already holds
  // the name, this one takes "<name>.instance<pid>", as MPRIS asks.
  static std::unique_ptr<MprisPlayer> start(std::shared_ptr<QSOPlaybackEngine> player, Book book);
  ~MprisPlayer();  // leaves the bus and joins the thread
  MprisPlayer(const MprisPlayer&) = delete;
  MprisPlayer& operator=(const MprisPlayer&) = delete;

  const std::string& busName() const;
  // The book's title, once the catalogue has it; listeners are told.
  void setAlbum(std::string title);

  struct State;  // the GLib side; defined with the implementation

 private:
  explicit MprisPlayer(std::unique_ptr<State> state);
  std::unique_ptr<State> state_;
};

}  // namespace sonorell::cli
