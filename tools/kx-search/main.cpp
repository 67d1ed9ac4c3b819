// kx-search: types a query into a search agent and prints what the search
// daemon answers. See --help.
#include <signal.h>

#include <cstdio>

#include "tools/kx-search/options.h"
#include "tools/kx-search/search_session.h"

int main(int argc, char** argv) {
  // A closed output shows up as a write error, reported once, instead of
  // killing the tool silently.
  signal(SIGPIPE, SIG_IGN);
  auto parsed = kx::cli::ParseOptions(argc, argv);
  if (auto* error = std::get_if<kx::cli::UsageError>(&parsed)) {
    std::fprintf(stderr, "kx-search: %s\n", error->message.c_str());
    return 2;
  }
  auto& options = std::get<kx::cli::Options>(parsed);
  if (options.help) {
    std::fputs(kx::cli::UsageText(), stdout);
    return 0;
  }
  auto session = std::make_shared<kx::cli::SearchSession>(std::move(options), stdout);
  return session->run();
}
