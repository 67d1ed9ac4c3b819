// Command-line options of kx-search.
#pragma once

#include <chrono>
#include <optional>
#include <string>
#include <variant>

namespace kx::cli {

struct Options {
  std::string query;
  std::chrono::milliseconds delay{0};
  // How long to wait for the daemon to finish the query before giving up.
  std::chrono::milliseconds timeout{5000};
  std::optional<std::string> language;
  bool json = false;
  bool zkw = false;
  bool interactive = false;
  bool help = false;
  bool launch = true;
  // 1-based position of the result to engage, counted across sections.
  std::optional<size_t> open;
};

// A usage error: one line for standard error.
struct UsageError {
  std::string message;
};

std::variant<Options, UsageError> ParseOptions(int argc, const char* const* argv);

const char* UsageText();

}  // namespace kx::cli
