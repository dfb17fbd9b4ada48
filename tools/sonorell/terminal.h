// The interactive player's keyboard: standard input in raw mode for as long as a RawTerminal
// lives, and keys read with a timeout. Used from one thread.
#pragma once

#include <termios.h>

namespace sonorell::cli {

enum class Key { None, Space, Next, Previous, Left, Right, Faster, Slower, Quit, Other };

class RawTerminal {
 public:
  RawTerminal();  // nothing changes when standard input is not a terminal
  ~RawTerminal();
  RawTerminal(const RawTerminal&) = delete;
  RawTerminal& operator=(const RawTerminal&) = delete;

  // The next key, or Key::None after `timeoutMs`.
  Key read(int timeoutMs);

 private:
  bool active_ = false;
  termios saved_{};
};

}  // namespace sonorell::cli
