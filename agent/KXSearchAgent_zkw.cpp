// KXSearchAgent: zero-keyword queries (run ahead and held back, or live)
// and the search-through section that ends a typed query's list.
#include <algorithm>

#include "agent/domain_numbers.h"
#include "agent/query_text.h"
#include "agent/result_dedupe.h"
#include "agent/search_agent_state.h"
#include "base/log_sink.h"
#include "kx/KXSearchAgent.h"
#include "kx/KXSearchQuery.h"
#include "kx/log.h"
#include "kx/search_preferences.h"
#include "kx/queue.h"
#include "platform/strings/localized_strings.h"

namespace {

constexpr int32_t kSearchThroughFlags = 0x2000;
constexpr char kSearchResultsTable[] = "Search Results";

std::vector<std::string> DisabledBundles() {
  std::set<std::string> bundles = KXGetDisabledBundleSet();
  return std::vector<std::string>(bundles.begin(), bundles.end());
}

std::shared_ptr<KXSearchResult> SearchThroughRow(const char* titleKey, const char* fbr) {
  auto row = std::make_shared<KXSearchResult>();
  row->setTitle(kx::LibraryLocalizedString(titleKey, kSearchResultsTable));
  row->setValue(kx::Value(fbr), "fbr");
  return row;
}

}  // namespace

bool KXSearchAgent::hasSeenZKWApps() { return kx::agent::sHasSeenZKWApps.load(); }

void KXSearchAgent::cachedZKWAvailable(bool /*available*/) {}

void KXSearchAgent::cacheZKWQueryLive(bool live, bool allowInternet) {
  queryProcessor()->async([agent = self(), live, allowInternet] {
    agent->cancelCurrentQuery();
    agent->mutableSections_.clear();
    agent->liveAndCached_ = live;
    agent->shouldCacheResults_.store(true);
    auto query = KXSearchQuery::initWithSearchString("", std::string(), std::nullopt,
                                                     KXZKWSearchDomains(allowInternet),
                                                     DisabledBundles());
    query->setMaxCount(13);
    query->setGrouped(true);
    query->setInternal(!live);
    agent->openQuery(std::move(query), kx::Value(), false);
  });
}

bool KXSearchAgent::promoteCachedQuery() {
  assertOnQueryQueue();
  if (!shouldCacheResults_.load()) return false;
  if (queryComplete_.load()) {
    liveAndCached_ = false;
    shouldCacheResults_.store(false);
  } else {
    // Still running: the rest of the results are shown as they come.
    liveAndCached_ = true;
  }
  updateResultsThroughDelegate();
  return true;
}

void KXSearchAgent::performZKWQueryWithKeyboardLanguage(
    std::optional<std::string> keyboardLanguage, bool allowInternet) {
  assertOnMainQueue();
  auto agent = self();
  if (shouldCacheResults_.load()) {
    queryProcessor()->async([agent] { agent->updateResultsThroughDelegate(); });
    return;
  }
  // Server news on screen stay until they go stale.
  if (hasVantleNewsHigh()) return;
  queryComplete_.store(false);
  if (currentZKWLevel_ != 2 || !allowInternet) {
    newQuery_.store(false);
    queryComplete_.store(true);
    queryProcessor()->async([agent] { agent->updateResultsThroughDelegate(); });
    return;
  }
  DomainList domains = KXZKWSearchDomains(allowInternet);
  std::erase_if(domains, [](uint32_t domain) { return !kx::IsServerDomain(domain); });
  if (domains.empty()) return;
  queryProcessor()->async([agent, domains = std::move(domains),
                           keyboardLanguage = std::move(keyboardLanguage)]() mutable {
    auto query = KXSearchQuery::initWithSearchString("", std::move(keyboardLanguage),
                                                     std::nullopt, std::move(domains),
                                                     std::vector<std::string>());
    query->setMaxCount(13);
    query->setGrouped(true);
    // Replaces the current token without cancelling it: its callbacks are
    // ignored from now on.
    agent->openQuery(std::move(query), kx::Value(), false);
    agent->liveAndCached_ = false;
    agent->shouldCacheResults_.store(false);
  });
}

void KXSearchAgent::addSearchThroughSectionWithQuery(const std::string& text) {
  assertOnQueryQueue();
  KXLOG(7, "Appending search-thru");
  auto section = std::make_shared<KXSearchResultSection>();
  section->setDomain(kx::kDomainOther);
  section->setFlags(kSearchThroughFlags);
  if (!webSearchThroughResult_) {
    webSearchThroughResult_ = SearchThroughRow("SEARCH_WEB", "search_web");
    appStoreSearchThroughResult_ = SearchThroughRow("SEARCH_APP_STORE", "search_app_store");
    mapsSearchThroughResult_ = SearchThroughRow("SEARCH_MAPS", "search_maps");
  }
  updateSearchThroughSectionWithQuery(text);
  // The section holds copies: the rows kept here are rewritten for the next
  // query while the main queue may still read the published ones.
  section->addResults(webSearchThroughResult_->copy());
  section->addResults(appStoreSearchThroughResult_->copy());
  const bool mapsHasMoreRow =
      std::any_of(mutableSections_.begin(), mutableSections_.end(),
                  [](const SectionRef& s) { return kx::SectionNeedsMoreMapsOption(*s); });
  if (!mapsHasMoreRow) section->addResults(mapsSearchThroughResult_->copy());
  // addSections drops the previous domain-1 section: never two of them.
  addSections({section});
}

void KXSearchAgent::updateSearchThroughSectionWithQuery(const std::string& text) {
  assertOnQueryQueue();
  const std::string encoded = kx::PercentEncodeForURLQuery(text);
  if (webSearchThroughResult_) webSearchThroughResult_->setUrl("x-web-search://?" + encoded);
  if (appStoreSearchThroughResult_)
    appStoreSearchThroughResult_->setUrl("qmrt-apps://?action=search&term=" + encoded);
  // The maps application's search address on this platform: a geo URI
  // with the text as its query, as Linux and Android map applications read.
  if (mapsSearchThroughResult_) mapsSearchThroughResult_->setUrl("geo:0,0?q=" + encoded);
}

// --- Test hooks -----------------------------------------------------------------

void KXSearchAgent::testPermuteSection(KXSearchResultSection& section, uint32_t domain,
                                       int64_t count) {
  const std::vector<KXSearchResultSection::ResultRef> results = section.results();
  int64_t matching = 0;
  size_t first = results.size();
  for (size_t i = 0; i < results.size(); ++i) {
    if (results[i]->searchResultDomain() != domain) continue;
    if (matching++ == 0) first = i;
  }
  if (matching == 0) return;
  const KXSearchResultSection::ResultRef moved = results[first];
  section.removeResultsAtIndex(first);
  const size_t target = std::min(first + static_cast<size_t>(std::min(matching, count)),
                                 section.resultsCount());
  section.addResults(moved, target);
}

void KXSearchAgent::testSaveCachedZKWPermUsers(int64_t users, int64_t appLinks, int64_t apps) {
  assertOnMainQueue();
  SectionList saved = sections_;
  if (!saved.empty() && saved.front()->domain() == kx::kDomainZKWS) {
    SectionRef copy = saved.front()->copy();
    testPermuteSection(*copy, kx::kDomainPerson, users);
    testPermuteSection(*copy, kx::kDomainCoreSkylume, appLinks);
    testPermuteSection(*copy, kx::kDomainApplication, apps);
    saved.front() = copy;
  } else {
    kx::EmitToConsole("Test section permute did not find ZKW at index 0!");
  }
  std::lock_guard lock(mu_);
  cachedZKW2_ = std::move(cachedZKW1_);
  cachedZKW1_ = std::move(saved);
}

void KXSearchAgent::testRestoreCacheZKW() {
  bool useFirst;
  {
    std::lock_guard lock(mu_);
    activeCachedZKW_ = !activeCachedZKW_;
    useFirst = activeCachedZKW_;
  }
  queryProcessor()->async([agent = self(), useFirst] {
    {
      std::lock_guard lock(agent->mu_);
      agent->mutableSections_ = useFirst ? agent->cachedZKW1_ : agent->cachedZKW2_;
    }
    agent->updateResultsThroughDelegate();
  });
}
