// Answers compared by what a person sees: per search domain, the results'
// titles and identifiers in order.
#pragma once

#include <chrono>
#include <cstdint>
#include <map>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "kx/KXSearchResultSection.h"

namespace kx::soak {

using Answer = std::map<uint32_t, std::vector<std::string>>;

Answer AnswerOf(const std::vector<std::shared_ptr<KXSearchResultSection>>& sections);
std::string Describe(const Answer& answer);
// Every domain of `part` holds a leading part of the same domain in `whole`.
bool IsPartOf(const Answer& part, const Answer& whole);

// The answer of `text` from the daemon `service` through a connection of
// its own, opened for this query and closed after it; nullopt when the
// query did not complete within `timeout`.
std::optional<Answer> FreshAnswer(const std::string& service, const std::string& text,
                                  const std::vector<uint32_t>& domains,
                                  std::chrono::milliseconds timeout);

}  // namespace kx::soak
