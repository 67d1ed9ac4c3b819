#include "tools/kx-search/raw_terminal.h"

#include <unistd.h>

#include <utility>

namespace kx::cli {

std::optional<RawTerminal> RawTerminal::Enter(int fd) {
  termios saved{};
  if (!isatty(fd) || tcgetattr(fd, &saved) != 0) return std::nullopt;
  termios raw = saved;
  raw.c_lflag &= ~static_cast<tcflag_t>(ICANON | ECHO | ISIG | IEXTEN);
  raw.c_iflag &= ~static_cast<tcflag_t>(ICRNL | IXON);
  raw.c_cc[VMIN] = 1;
  raw.c_cc[VTIME] = 0;
  if (tcsetattr(fd, TCSAFLUSH, &raw) != 0) return std::nullopt;
  return RawTerminal(fd, saved);
}

RawTerminal::RawTerminal(RawTerminal&& other) noexcept
    : fd_(std::exchange(other.fd_, -1)), saved_(other.saved_) {}

RawTerminal::~RawTerminal() { restore(); }

void RawTerminal::restore() {
  if (fd_ < 0) return;
  tcsetattr(fd_, TCSAFLUSH, &saved_);
  fd_ = -1;
}

}  // namespace kx::cli
