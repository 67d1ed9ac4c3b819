// Answers a query text that is an arithmetic expression or a unit or
// currency conversion, through libqalculate. Exchange rates come from the
// file libqalculate ships; nothing is fetched from the network.
#pragma once

#include <cstdint>
#include <optional>
#include <string>

namespace kx::searchd {

struct Calculation {
  uint32_t domain = 0;     // calculator (24) or conversion (25)
  std::string answer;      // "14", "6.2137119 mi"
  std::string expression;  // the expression as understood
};

// Text that is no expression ("firefox", "2", "pi") yields nothing. The
// first call loads libqalculate's definitions (a few hundred milliseconds);
// `Preload` lets a daemon pay that at start. Thread-safe: libqalculate has
// one global calculator, so evaluations are serialised.
std::optional<Calculation> Calculate(const std::string& text);
void PreloadCalculator();

}  // namespace kx::searchd
