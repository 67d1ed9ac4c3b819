// Test-only builders of results and sections for the merge and
// de-duplication tests.
#pragma once

#include <initializer_list>
#include <memory>
#include <optional>
#include <string>

#include "kx/KXSearchResult.h"
#include "kx/KXSearchResultSection.h"

namespace kx::test {

inline std::shared_ptr<KXSearchResult> MakeResult(std::optional<std::string> title,
                                                  std::optional<std::string> bundle = {}) {
  auto result = std::make_shared<KXSearchResult>();
  result->setTitle(std::move(title));
  result->setBundleID(std::move(bundle));
  return result;
}

inline std::shared_ptr<KXSearchResultSection> MakeSection(
    uint32_t domain, std::initializer_list<const char*> titles) {
  auto section = std::make_shared<KXSearchResultSection>();
  section->setDomain(domain);
  for (const char* title : titles) section->addResults(MakeResult(title));
  return section;
}

}  // namespace kx::test
