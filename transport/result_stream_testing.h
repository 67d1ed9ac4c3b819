// Helpers shared by the packed-stream tests: small records and the
// consumer loop that a client runs over a deserializer.
#pragma once

#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "kx/KXSearchResult.h"
#include "kx/KXSearchResultSection.h"
#include "kx/KXSearchResultDeserializer.h"

namespace kx::test {

inline std::shared_ptr<KXSearchResult> MakeResult(std::string title, uint64_t identifier) {
  auto result = std::make_shared<KXSearchResult>();
  result->setTitle(std::move(title));
  result->setIdentifier(identifier);
  return result;
}

inline std::shared_ptr<KXSearchResultSection> MakeSection(
    uint32_t domain, const std::vector<std::shared_ptr<KXSearchResult>>& results = {}) {
  auto section = std::make_shared<KXSearchResultSection>();
  section->setDomain(domain);
  for (const auto& r : results) section->addResults(r);
  return section;
}

// The client's loop: sections while deserializeNextSection succeeds; the
// section of the failing call is dropped.
inline std::vector<std::shared_ptr<KXSearchResultSection>> ReadAllSections(
    KXSearchResultDeserializer& reader) {
  std::vector<std::shared_ptr<KXSearchResultSection>> sections;
  while (true) {
    auto section = std::make_shared<KXSearchResultSection>();
    if (!reader.deserializeNextSection(section.get())) return sections;
    sections.push_back(std::move(section));
  }
}

inline std::vector<std::optional<std::string>> Titles(const KXSearchResultSection& section) {
  std::vector<std::optional<std::string>> titles;
  for (const auto& r : section.results()) titles.push_back(r->title());
  return titles;
}

}  // namespace kx::test
