// Engaging a result from the command line: the engagement record sent to
// the daemon, and the result's URL handed to the desktop.
#pragma once

#include <optional>
#include <string>

#include "tools/kx-search/section_output.h"

namespace kx::cli {

struct ChosenResult {
  std::shared_ptr<KXSearchResultSection> section;
  std::shared_ptr<KXSearchResult> result;
  size_t position = 0;  // 1-based across sections, as the listing numbers
};

// The `position`-th result counted across sections; nullopt beyond the end.
std::optional<ChosenResult> ResultAt(const SectionList& sections, size_t position);

// Builds the engagement feedback for `chosen` and sends it on the shared
// daemon connection. Returns once the daemon has received it (feedback
// has no reply, so a request behind it on the same connection proves
// delivery); false when that request went unanswered.
bool SendEngagement(const ChosenResult& chosen, const std::string& input,
                    const std::optional<std::string>& keyboardLanguage,
                    const std::optional<std::string>& fbq);

// Opens `url` with xdg-open; false (with one line on standard error) when
// it cannot be started or reports failure.
bool Launch(const std::string& url);

}  // namespace kx::cli
