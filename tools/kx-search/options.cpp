#include "tools/kx-search/options.h"

#include <charconv>
#include <string_view>

namespace kx::cli {
namespace {

std::optional<long> ParseCount(std::string_view text) {
  long value = 0;
  const auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), value);
  if (error != std::errc() || end != text.data() + text.size() || value < 0) return std::nullopt;
  return value;
}

}  // namespace

const char* UsageText() {
  return "usage: kx-search [options] QUERY\n"
         "       kx-search --zkw [options]\n"
         "       kx-search --interactive [--language L] [--no-launch]\n"
         "Types QUERY into a search agent one character at a time and prints the\n"
         "sections the search daemon answers with.\n"
         "\n"
         "  --delay MS      pause between keystrokes (default 0)\n"
         "  --language L    keyboard language (default from the locale)\n"
         "  --json          one JSON object per update instead of a listing\n"
         "  --open N        engage the N-th result: send the engagement and open it\n"
         "  --no-launch     with --open, send the engagement but open nothing\n"
         "  --zkw           show the zero-keyword results\n"
         "  --interactive   type in the terminal: arrows choose, Enter engages,\n"
         "                  Escape leaves\n"
         "  --timeout MS    give up when the daemon has not finished (default 5000)\n"
         "  --help          this text\n";
}

std::variant<Options, UsageError> ParseOptions(int argc, const char* const* argv) {
  Options options;
  std::optional<std::string> query;
  for (int i = 1; i < argc; ++i) {
    const std::string_view arg = argv[i];
    // Flags that take a value read the next argument.
    auto value = [&]() -> std::optional<std::string_view> {
      if (i + 1 >= argc) return std::nullopt;
      return std::string_view(argv[++i]);
    };
    auto count = [&](std::string_view flag) -> std::variant<long, UsageError> {
      const auto text = value();
      if (!text) return UsageError{std::string(flag) + " needs a value"};
      const auto n = ParseCount(*text);
      if (!n) return UsageError{std::string(flag) + ": not a non-negative number: " + std::string(*text)};
      return *n;
    };
    if (arg == "--help" || arg == "-h") {
      options.help = true;
    } else if (arg == "--json") {
      options.json = true;
    } else if (arg == "--interactive") {
      options.interactive = true;
    } else if (arg == "--zkw") {
      options.zkw = true;
    } else if (arg == "--no-launch") {
      options.launch = false;
    } else if (arg == "--delay" || arg == "--timeout" || arg == "--open") {
      auto n = count(arg);
      if (auto* error = std::get_if<UsageError>(&n)) return *error;
      const long v = std::get<long>(n);
      if (arg == "--delay") options.delay = std::chrono::milliseconds(v);
      if (arg == "--timeout") options.timeout = std::chrono::milliseconds(v);
      if (arg == "--open") {
        if (v == 0) return UsageError{"--open counts results from 1"};
        options.open = static_cast<size_t>(v);
      }
    } else if (arg == "--language") {
      const auto text = value();
      if (!text) return UsageError{"--language needs a value"};
      options.language = std::string(*text);
    } else if (arg == "--") {
      if (i + 1 < argc && !query) query = argv[++i];
      if (i + 1 < argc) return UsageError{"more than one query"};
    } else if (arg.size() > 1 && arg[0] == '-') {
      return UsageError{"unknown option: " + std::string(arg)};
    } else if (query) {
      return UsageError{"more than one query (quote a query of several words)"};
    } else {
      query = std::string(arg);
    }
  }
  if (options.help) return options;
  if (options.interactive && (options.zkw || options.json || options.open || query))
    return UsageError{"--interactive takes no query, --zkw, --json or --open"};
  if (options.zkw && query) return UsageError{"--zkw takes no query"};
  if (!options.zkw && !options.interactive && (!query || query->empty())) return UsageError{"no query given (see --help)"};
  options.query = query.value_or("");
  return options;
}

}  // namespace kx::cli
