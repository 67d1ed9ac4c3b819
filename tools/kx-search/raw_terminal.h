// A terminal switched to raw input for as long as this object lives: no
// line buffering, no echo, no signals from Ctrl-C (the tool reads it as a
// key and leaves cleanly). Output processing stays on, so "\n" still
// starts a new line.
#pragma once

#include <termios.h>

#include <optional>

namespace kx::cli {

class RawTerminal {
 public:
  // nullopt when `fd` is not a terminal.
  static std::optional<RawTerminal> Enter(int fd);
  RawTerminal(RawTerminal&& other) noexcept;
  RawTerminal& operator=(RawTerminal&&) = delete;
  ~RawTerminal();
  // Puts the terminal back as it was; idempotent.
  void restore();

 private:
  RawTerminal(int fd, const termios& saved) : fd_(fd), saved_(saved) {}
  int fd_ = -1;  // -1 once restored
  termios saved_{};
};

}  // namespace kx::cli
