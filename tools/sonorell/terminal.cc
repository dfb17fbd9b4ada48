// Raw-mode keyboard input: no echo, no line buffering, signals still delivered (so Ctrl-C works
// as everywhere else); arrow keys arrive as escape sequences.
#include "terminal.h"

#include <poll.h>
#include <unistd.h>

namespace sonorell::cli {

RawTerminal::RawTerminal() {
  if (::isatty(STDIN_FILENO) != 1 || ::tcgetattr(STDIN_FILENO, &saved_) != 0) return;
  termios raw = saved_;
  raw.c_lflag &= static_cast<tcflag_t>(~(ICANON | ECHO));
  raw.c_cc[VMIN] = 1;
  raw.c_cc[VTIME] = 0;
  active_ = ::tcsetattr(STDIN_FILENO, TCSANOW, &raw) == 0;
}

RawTerminal::~RawTerminal() {
  if (active_) ::tcsetattr(STDIN_FILENO, TCSANOW, &saved_);
}

namespace {
bool readByte(char& c, int timeoutMs) {
  pollfd p{STDIN_FILENO, POLLIN, 0};
  return ::poll(&p, 1, timeoutMs) > 0 && ::read(STDIN_FILENO, &c, 1) == 1;
}
}  // namespace

Key RawTerminal::read(int timeoutMs) {
  char c = 0;
  if (!readByte(c, timeoutMs)) return Key::None;
  switch (c) {
    case ' ':
      return Key::Space;
    case 'n':
      return Key::Next;
    case 'p':
      return Key::Previous;
    case '+':
    case '=':
      return Key::Faster;
    case '-':
      return Key::Slower;
    case 'q':
      return Key::Quit;
    case '\x1b': {
      // ESC [ C (right) or ESC [ D (left); the rest of a sequence follows at once.
      char a = 0, b = 0;
      if (!readByte(a, 50) || a != '[' || !readByte(b, 50)) return Key::Other;
      if (b == 'C') return Key::Right;
      if (b == 'D') return Key::Left;
      return Key::Other;
    }
    default:
      return Key::Other;
  }
}

}  // namespace sonorell::cli
