// The interactive mode of SearchSession: keystrokes from the terminal go to
// the agent as they are typed, the sections are redrawn whenever the agent
// posts, arrows choose a result and Enter engages it.
//
// One thread does everything: it waits in poll() on the terminal and on the
// main queue's descriptor, so keystrokes and the agent's posts are handled
// in the order they come, without a second thread.
#include <poll.h>
#include <signal.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>

#include "kx/main_loop.h"
#include "tools/kx-search/key_decoder.h"
#include "tools/kx-search/raw_terminal.h"
#include "tools/kx-search/search_session.h"

namespace kx::cli {
namespace {

// How long a lone escape waits for the rest of a sequence before it counts
// as the Escape key.
constexpr int kEscapeWaitMs = 50;

constexpr const char* kPrompt = "Search: ";

}  // namespace

void SearchSession::redraw() {
  std::string screen = "\x1b[H\x1b[J";
  screen += kPrompt + typed_ + "\n";
  if (!typed_.empty()) screen += Listing(lastSections_, colour_, selected_);
  // Back to the end of the prompt line, where typing goes on. The column
  // counts code points, like the listing's alignment.
  size_t column = std::strlen(kPrompt) + 1;
  for (char c : typed_) column += (static_cast<unsigned char>(c) & 0xC0) != 0x80;
  screen += "\x1b[1;" + std::to_string(column) + "H";
  std::fputs(screen.c_str(), out_);
  std::fflush(out_);
}

int SearchSession::runInteractive() {
  auto terminal = RawTerminal::Enter(STDIN_FILENO);
  if (!terminal || !isatty(fileno(out_))) {
    std::fprintf(stderr, "kx-search: --interactive needs a terminal\n");
    return 2;
  }
  // A hang-up shows as the end of input below, so the tool leaves through
  // its error path instead of dying silently.
  signal(SIGHUP, SIG_IGN);
  KeyDecoder decoder;
  bool escapePending = false;
  redraw();
  for (;;) {
    pollfd fds[] = {{STDIN_FILENO, POLLIN, 0}, {main_loop::fd(), POLLIN, 0}};
    const int ready = poll(fds, 2, escapePending ? kEscapeWaitMs : -1);
    if (ready < 0 && errno != EINTR) break;
    std::vector<Key> keys;
    if (ready == 0) keys = decoder.flush();
    if (fds[0].revents & (POLLIN | POLLHUP | POLLERR)) {
      char buffer[256];
      const ssize_t n = read(STDIN_FILENO, buffer, sizeof buffer);
      if (n <= 0 && !(n < 0 && (errno == EINTR || errno == EAGAIN))) break;
      if (n > 0) keys = decoder.feed(std::string_view(buffer, static_cast<size_t>(n)));
      escapePending = n > 0 && buffer[n - 1] == '\x1b';
    }
    if (fds[1].revents & POLLIN) main_loop::drain();
    for (const Key& key : keys) {
      const size_t count = ResultCount(lastSections_);
      switch (key.kind) {
        case Key::Kind::Quit:
          terminal->restore();
          std::fputs("\x1b[H\x1b[J", out_);
          return 0;
        case Key::Kind::Enter:
          if (selected_ == 0) break;
          terminal->restore();
          std::fputs("\x1b[H\x1b[J", out_);
          return engage(selected_);
        case Key::Kind::Up:
          if (selected_ > 1) --selected_;
          break;
        case Key::Kind::Down:
          if (selected_ < count) ++selected_;
          break;
        case Key::Kind::Text:
        case Key::Kind::Backspace:
          if (!ApplyToText(key, typed_)) break;
          agent_->setQueryString(typed_, options_.language, 0, false);
          selected_ = 0;
          break;
      }
      redraw();
    }
  }
  terminal->restore();
  std::fprintf(stderr, "kx-search: the terminal closed\n");
  return 1;
}

}  // namespace kx::cli
