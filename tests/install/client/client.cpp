// A program that knows kxsearch only through its installed headers and
// shared library: it builds a query, packs a section with two results into a
// result stream and reads it back.
#include <cstdio>
#include <memory>

#include "kx/kxsearch.h"

int main() {
  const auto query = KXSearchQuery::initWithSearchString("orvex");
  if (!query || query->searchString() != "orvex") {
    std::fprintf(stderr, "query not created\n");
    return 1;
  }

  auto section = std::make_shared<KXSearchResultSection>();
  section->setDomain(4);
  for (const char* title : {"Orvex Maps", "Orvex Mail"}) {
    auto result = std::make_shared<KXSearchResult>();
    result->setTitle(std::string(title));
    section->addResults(result);
  }

  const auto serializer = KXSearchResultSerializer::initWithInitialCapacity(0, /*inProc=*/true);
  serializer->appendSection(section);
  serializer->serialize();
  const auto deserializer = KXSearchResultDeserializer::initWithSerializer(*serializer);

  KXSearchResultSection decoded;
  if (!deserializer->deserializeNextSection(&decoded) || decoded.domain() != 4 ||
      decoded.resultsCount() != 2 || decoded.resultsAtIndex(1)->title() != "Orvex Mail") {
    std::fprintf(stderr, "section did not survive the round trip\n");
    return 1;
  }
  std::printf("ok: %zu results in domain %u\n", decoded.resultsCount(), decoded.domain());
  return 0;
}
