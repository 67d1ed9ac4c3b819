#include "agent/result_dedupe.h"

#include <deque>
#include <optional>
#include <string_view>
#include <unordered_map>
#include <unordered_set>
#include <utility>

#include "agent/address_table.h"
#include "agent/domain_numbers.h"
#include "kx/KXCardClasses.h"
#include "kx/KXDomainManager.h"
#include "kx/KXServerResult.h"
#include "kx/format.h"
#include "model/result_set.h"

namespace kx {
namespace {

using ResultRef = KXSearchResultSection::ResultRef;

// What on-device sections already show, each key mapped to the shown result.
// Keys view the results' own strings (the sections keep the results alive
// for the whole call); computed ones are kept in ownedKeys.
struct ShownResults {
  explicit ShownResults(size_t count) : byAddress(count) {}
  AddressTable byAddress;
  std::unordered_map<std::string, const KXSearchResult*> byStoreItem;
  // Bundle, activity type and required string joined by NUL bytes, which
  // none of them holds.
  std::unordered_map<std::string, const KXSearchResult*> byActivity;
  std::deque<std::string> ownedKeys;
};

std::optional<std::string> ActivityKey(const KXSearchResult& result) {
  const std::optional<std::string>& required = result.userActivityRequiredString();
  const std::optional<std::string>& type = result.userActivityType();
  if (!required || !type) return std::nullopt;
  std::optional<std::string> bundle = KXServerResult(result).bundle_id();
  if (!bundle) bundle = result.bundleID();
  if (!bundle) return std::nullopt;
  return *bundle + '\0' + *type + '\0' + *required;
}

std::string_view StrippedView(std::string_view url) {
  static constexpr std::pair<std::string_view, size_t> kPrefixes[] = {
      {"http://www.", 11}, {"https://www.", 12}, {"https://", 8}, {"http://", 7}};
  for (const auto& [prefix, length] : kPrefixes)
    if (url.starts_with(prefix)) url.remove_prefix(length);
  while (!url.empty() && url.front() == '/') url.remove_prefix(1);
  while (!url.empty() && url.back() == '/') url.remove_suffix(1);
  return url;
}

void AddShownResults(const KXSearchResultSection& section, ShownResults& shown) {
  if (IsServerDomain(section.domain())) return;
  const kx::ResultSet* results = section.resultSet();
  if (!results) return;
  for (size_t i = 0; i < results->count(); ++i) {
    const KXSearchResult* result = results->at(i).get();
    if (const std::optional<std::string>& url = result->url()) {
      shown.byAddress.insert(StrippedView(*url), result);
    } else if (std::optional<std::string> content = result->contentURL()) {
      shown.byAddress.insert(StrippedView(shown.ownedKeys.emplace_back(std::move(*content))), result);
    }
    if (std::optional<std::string> item = KXServerResult(*result).adam_id())
      shown.byStoreItem[*item] = result;
    if (std::optional<std::string> key = ActivityKey(*result)) shown.byActivity[*key] = result;
  }
}

const KXSearchResult* ShownResultHiding(const KXSearchResult& result, const ShownResults& shown) {
  if (const std::optional<std::string>& url = result.url()) {
    const KXSearchResult* found = shown.byAddress.find(StrippedView(*url));
    // One server result never hides another.
    if (found && !(result.searchResultDomain() == kDomainVantle &&
                   found->searchResultDomain() == kDomainVantle))
      return found;
  }
  if (std::optional<std::string> item = KXServerResult(result).adam_id()) {
    auto found = shown.byStoreItem.find(*item);
    if (found != shown.byStoreItem.end()) return found->second;
  }
  if (std::optional<std::string> key = ActivityKey(result)) {
    auto found = shown.byActivity.find(*key);
    if (found != shown.byActivity.end()) return found->second;
  }
  return nullptr;
}

void RecordHiddenResult(const KXSearchResult& hidden, const KXSearchResult& shown,
                        KXSearchResultSection& section) {
  Dictionary record;
  if (std::optional<std::string> fbr = KXServerResult(hidden).fbr()) record["fbr"] = *fbr;
  record["type"] = "dup";
  const uint32_t shownDomain = shown.searchResultDomain();
  if (!IsServerDomain(shownDomain)) {
    auto manager = KXDomainManager::defaultManager();
    std::optional<std::string_view> bundle = manager->getBundleIdForDomainNumber(shownDomain);
    record["id"] = Format("local:%@", bundle ? Value(*bundle) : Value());
  } else {
    record["id"] = Format("server:%@", KXServerResult(shown).fbr());
  }
  section.addHiddenExtResult(Value(std::move(record)));
}

// The trailing "more" row of a section: a maps category's own more row, or
// the single row card of a web ("bing") result.
void AddMoreRow(KXSearchResultSection& section) {
  const ResultRef first = section.resultsAtIndex(0);
  if (!first) return;
  const KXServerResult server(*first);
  std::optional<std::string> title;
  std::optional<URL> address;
  if (SectionNeedsMoreMapsOption(section)) {
    title = server.more();
    address = server.more_url();
  } else {
    if (server.type() != "bing") return;
    const std::optional<Array> cards = server.card_sections();
    if (!cards || cards->size() != 1) return;
    const Dictionary* card = cards->front().dictionary();
    if (!card || KXSection::proxyObjectWithDictionary(*card)->type() != "row") return;
    auto row = KXRowSection::proxyObjectWithDictionary(*card);
    title = row->key();
    address = row->url();
  }
  if (!title || !address) return;
  auto more = std::make_shared<KXSearchResult>();
  more->setTitle(std::move(title));
  more->setUrl(address->absoluteString());
  section.addResults(more);
}

// A group of a server section while its results are being sorted: made
// into a section only if it survives. Making every group at once would copy
// the duplicate records gathered so far into each of them, a cost that
// grows with the square of the batch when most results open groups.
struct PendingGroup {
  // How many duplicate records the section held when the group opened (it
  // carries those), and whether the list existed at all then.
  size_t hiddenCount = 0;
  bool hiddenPresent = false;
  // Each result with the group's domain when it was added.
  std::vector<std::pair<ResultRef, uint32_t>> results;
  uint32_t domain = 0;
};

SectionRef MakeGroupSection(const KXSearchResultSection& section, const PendingGroup& pending) {
  SectionRef group = section.copy();
  if (!pending.hiddenPresent) {
    group->setHiddenExtResults(std::nullopt);
  } else {
    const Array& all = *section.hiddenExtResultsIfPresent();
    group->setHiddenExtResults(Array(all.begin(), all.begin() + static_cast<ptrdiff_t>(pending.hiddenCount)));
  }
  for (const auto& [result, domain] : pending.results) {
    // A result without a domain takes the group's domain of that moment.
    group->setDomain(domain);
    group->addResults(result);
  }
  group->setDomain(pending.domain);
  return group;
}

// Splits the server section `section` (results taken out) into groups by
// section header, hiding duplicates on the way; returns the groups to keep.
SectionList SplitServerSection(KXSearchResultSection& section, const ShownResults& shown) {
  const std::vector<ResultRef> results = section.results();
  section.clearResults();
  std::deque<PendingGroup> groups;
  std::unordered_map<std::string, PendingGroup*> groupByKey;
  // Keys in the order their groups were opened, repeated when a group
  // replaced an earlier one; a key-less group (no header, no bundle) is
  // listed by itself.
  std::vector<std::pair<std::optional<std::string>, PendingGroup*>> keysInOrder;
  for (const ResultRef& result : results) {
    if (const KXSearchResult* shownResult = ShownResultHiding(*result, shown)) {
      RecordHiddenResult(*result, *shownResult, section);
      continue;
    }
    const KXServerResult server(*result);
    const std::optional<std::string> header = server.section_header();
    PendingGroup* group = nullptr;
    if (header) {
      auto found = groupByKey.find(*header);
      if (found != groupByKey.end()) group = found->second;
    }
    if (!group) {
      // The group carries the duplicate records appended so far. A result
      // without a header always opens a new group, filed under its bundle in
      // place of an earlier group of that bundle.
      const Array* hidden = section.hiddenExtResultsIfPresent();
      group = &groups.emplace_back(
          PendingGroup{hidden ? hidden->size() : 0, hidden != nullptr, {}, section.domain()});
      const std::optional<std::string> key = header ? header : result->bundleID();
      if (key) groupByKey[*key] = group;
      keysInOrder.emplace_back(key, group);
    }
    group->results.emplace_back(result, group->domain);
    if (group->domain == kDomainWebSearch && server.type() != "bing")
      group->domain = kDomainVantle;
  }
  SectionList output;
  std::unordered_set<const PendingGroup*> taken;
  for (const auto& [key, listed] : keysInOrder) {
    // A replaced group is gone; its key now names the newer group, which is
    // taken once.
    const PendingGroup* pending = key ? groupByKey[*key] : listed;
    if (!taken.insert(pending).second) continue;
    SectionRef group = MakeGroupSection(section, *pending);
    if (!group->hasResults()) continue;
    AddMoreRow(*group);
    if (group->hasResults()) output.push_back(group);
  }
  return output;
}

}  // namespace

std::string StrippedURL(std::string_view url) { return std::string(StrippedView(url)); }

void HandleOptionsForNewSections(const SectionList& working, SectionList& incoming) {
  if (incoming.empty()) return;
  size_t total = 0;
  for (const SectionRef& section : working) total += section->resultsCount();
  for (const SectionRef& section : incoming) total += section->resultsCount();
  ShownResults shown(total);
  for (const SectionRef& section : working) AddShownResults(*section, shown);
  for (const SectionRef& section : incoming) AddShownResults(*section, shown);

  for (size_t i = incoming.size(); i-- > 0;) {
    KXSearchResultSection& section = *incoming[i];
    const auto at = incoming.begin() + static_cast<ptrdiff_t>(i);
    if (!IsServerDomain(section.domain())) {
      if (!section.hasResults()) incoming.erase(at);
    } else if (!section.hasResults()) {
      AddMoreRow(section);
    } else {
      SectionList groups = SplitServerSection(section, shown);
      incoming.erase(at);
      incoming.insert(incoming.begin() + static_cast<ptrdiff_t>(i), groups.begin(), groups.end());
    }
  }
}

bool SectionNeedsMoreMapsOption(const KXSearchResultSection& section) {
  const ResultRef first = section.resultsAtIndex(0);
  if (!first) return false;
  const KXServerResult server(*first);
  return server.type() == "maps" && server.maps_result_type() == "category";
}

bool HasVantleNews(const SectionList& sections) {
  for (const SectionRef& section : sections)
    if (section->hasDomain() && IsServerDomain(section->domain())) return true;
  return false;
}

}  // namespace kx
