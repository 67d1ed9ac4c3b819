// KXSearchAgent: creation, settings, observers, the query entry and the
// token callbacks. The update pipeline, the working list and zero-keyword
// work live in the files beside this one.
#include "kx/KXSearchAgent.h"

#include <chrono>
#include <mutex>

#include "agent/domain_numbers.h"
#include "agent/pending_update.h"
#include "agent/query_text.h"
#include "agent/search_agent_state.h"
#include "kx/KXSearchQuery.h"
#include "kx/format.h"
#include "kx/log.h"
#include "kx/log_init.h"
#include "kx/search_preferences.h"
#include "kx/queue.h"
#include "platform/notify/notification_center.h"
#include "platform/notify/notify.h"
#include "platform/prefs/preferences.h"
#include "platform/process/process_info.h"
#include "platform/services/statistics.h"

using kx::Value;

struct KXSearchAgent::QueryInput {
  std::optional<std::string> text;
  Value response;
  std::optional<std::string> keyboardLanguage;
  std::optional<std::string> keyboardPrimaryLanguage;
  bool isStable = false;
  bool allowInternet = true;
  uint32_t seqNo = 0;
};

namespace {

constexpr char kQueueLabel[] = "KXSearchAgent-Plugins";
constexpr auto kFirstUpdateDelay = std::chrono::milliseconds(500);
// Clear tags: only logged, they name the caller.
constexpr int kClearForEmptyText = 1073;
constexpr int kClearForChangedSettings = 1471;

constexpr char kTimeToFirstResultKey[] = "com.orvex.searchd.clientlatency.ttfr.%@";
constexpr char kCompletionLatencyKey[] = "com.orvex.searchd.clientlatency.%@";
constexpr char kCanceledLatencyKey[] = "com.orvex.searchd.clientlatency.canceled.%@";

// Set when the sole device profile is weak enough to go without default
// search; never on the platforms this library runs on.
constexpr bool sIsLowEndHardware = false;

bool DefaultsFlag(const char* key) {
  return kx::UserDefaults::ObjectForKey(key).isNil() || kx::UserDefaults::IntegerForKey(key) != 0;
}

bool IsNonEmptyDictionary(const Value& v) { return v.dictionary() && v.count() > 0; }

}  // namespace

// --- Creation ---------------------------------------------------------------

void KXSearchAgent::initialize() {
  static std::once_flag once;
  std::call_once(once, [] {
    kx::UserDefaults::RegisterDefaults(
        kx::MakeDictionary({{"KXDefaultSearch", true}, {"SkylumeIndexEnabled", true}}));
  });
}

std::shared_ptr<KXSearchAgent> KXSearchAgent::initWithZKWLevel(int32_t level, uint32_t options) {
  initialize();
  auto agent = std::make_shared<KXSearchAgent>(Passkey{}, level);
  agent->setUp(options);
  return agent;
}

std::shared_ptr<KXSearchAgent> KXSearchAgent::init() { return initWithZKWLevel(0, 0); }

KXSearchAgent::KXSearchAgent(Passkey, int32_t level)
    : currentZKWLevel_(level), deferredUpdate_(std::make_unique<kx::PendingUpdateSlot>()) {
  KXLogInit();
  queryProcessor_ = kx::Queue::Create(kQueueLabel);
  defaultSearchEnabled_ = !sIsLowEndHardware && DefaultsFlag("KXDefaultSearch");
  oneShotZKWSEnabled_ = DefaultsFlag("KXOneShotZKWS");
}

void KXSearchAgent::setUp(uint32_t options) {
  setOptions(options);
  setSearchDomains(std::nullopt);
  observeNotifications();
}

void KXSearchAgent::observeNotifications() {
  std::weak_ptr<KXSearchAgent> weak = self();
  const std::shared_ptr<kx::Queue> queue = queryProcessor();
  kx::NotificationCenter::Default().addObserver(
      kx::kRestrictionsChangedNotification, nullptr, nullptr,
      [weak](const kx::Notification&) {
        if (auto agent = weak.lock())
          agent->queryProcessor()->async([agent] { agent->stuffChanged(); });
      },
      this);
  kx::notify::AddObserver(
      std::string(kx::kCapabilityChangedNotification) + kx::kDisplayIdentifiersCapability, queue,
      [weak](const std::string&) {
        KXLOG(5, "Restrictions changed, clearing search results");
        if (auto agent = weak.lock()) agent->setSearchDomains(std::nullopt);
      },
      this);
  kx::notify::AddObserver(
      kKXSearchPreferencesChangedNotification, queue,
      [weak](const std::string&) {
        KXLOG(5, "Restrictions changed, clearing search results");
        if (auto agent = weak.lock())
          agent->queryProcessor()->async([agent] { agent->stuffChanged(); });
      },
      this);
}

KXSearchAgent::~KXSearchAgent() {
  {
    std::lock_guard lock(mu_);
    if (observersAdded_) kx::notify::Cancel(prefsToken_);
  }
  kx::notify::RemoveEveryObserver(this);
  kx::NotificationCenter::Default().removeEveryObserver(this);
  kx::RestrictionSettings::Shared()->removeObserver(this);
  topHitResultSection_.reset();
  // The query is left running at the daemon; only this agent stops
  // listening to it.
  if (currentToken_) currentToken_->setDelegate({});
}

std::shared_ptr<KXSearchAgent> KXSearchAgent::self() {
  return std::static_pointer_cast<KXSearchAgent>(shared_from_this());
}

void KXSearchAgent::activateDaemon() { KXDaemonConnection::sharedConnection()->activate(); }
void KXSearchAgent::deactivateDaemon() { KXDaemonConnection::sharedConnection()->deactivate(); }

// --- Settings ---------------------------------------------------------------

void KXSearchAgent::setOptions(uint32_t options) {
  const uint32_t old = options_.load(std::memory_order_acquire);
  const bool wanted = options & kOptionSearchThrough;
  const bool had = old & kOptionSearchThrough;
  auto restrictions = kx::RestrictionSettings::Shared();
  if (had && !wanted) {
    restrictions->removeObserver(this);
  } else if (wanted && !had) {
    restrictions->addObserver(std::shared_ptr<Observer>(self(), this));
    readSearchThroughAllowed();
  }
  options_.store(options, std::memory_order_release);
}

void KXSearchAgent::readSearchThroughAllowed() {
  searchThroughAllowed_.store(kx::RestrictionSettings::Shared()->effectiveBoolValue(
                                  kx::kAllowWebBrowserSetting) != kx::RestrictedBool::ExplicitNo,
                              std::memory_order_release);
}

void KXSearchAgent::restrictionSettingsDidChange(kx::RestrictionSettings&,
                                                 const std::optional<kx::Dictionary>&) {
  readSearchThroughAllowed();
}

KXSearchAgent::DomainList KXSearchAgent::searchDomains() const {
  std::lock_guard lock(mu_);
  return searchDomains_;
}

void KXSearchAgent::setSearchDomains(std::optional<DomainList> domains) {
  KXLOG(6, "Setting search domains");
  bool changed;
  {
    std::unique_lock lock(mu_);
    const DomainList old = searchDomains_;
    if (!domains) {
      searchDomains_ = KXSearchDomains();
      if (!observersAdded_) {
        observersAdded_ = true;
        prefsToken_ = kx::notify::RegisterCheck(kKXSearchPreferencesChangedNotification);
        kx::notify::Check(prefsToken_);  // consumes the initial state
        std::weak_ptr<KXSearchAgent> weak = self();
        kx::notify::AddObserver(
            kKXSearchInternetDomainsChangedNotification, queryProcessor_,
            [weak](const std::string&) {
              if (auto agent = weak.lock()) agent->internetDomainsChanged();
            },
            this);
        searchDomains_ = KXSearchDomains();
      }
    } else {
      searchDomains_ = std::move(*domains);
    }
    changed = searchDomains_ != old;
  }
  if (changed) queryProcessor()->async([agent = self()] { agent->stuffChanged(); });
}

void KXSearchAgent::internetDomainsChanged() {
  setSearchDomains(std::nullopt);
  queryProcessor()->async([agent = self()] { agent->updateResultsThroughDelegate(); });
}

void KXSearchAgent::stuffChanged() {
  clearInternal(kClearForChangedSettings);
  if (!delegateResponds(KXSearchAgentDelegate::Operation::ClearedResults)) return;
  if (currentZKWLevel_ == 2) kx::agent::sHasSeenZKWApps.store(false);
  kx::Queue::Main()->async([agent = self()] {
    if (auto delegate = agent->delegate()) delegate->searchAgentClearedResults(agent);
  });
}

void KXSearchAgent::checkPreferencesToken() {
  int32_t token;
  {
    std::lock_guard lock(mu_);
    if (!observersAdded_) return;
    token = prefsToken_;
  }
  if (kx::notify::Check(token).value_or(false)) setSearchDomains(std::nullopt);
}

std::shared_ptr<kx::Queue> KXSearchAgent::queryProcessor() const {
  std::lock_guard lock(mu_);
  return queryProcessor_;
}

void KXSearchAgent::setQueryProcessor(std::shared_ptr<kx::Queue> queue) {
  std::lock_guard lock(mu_);
  queryProcessor_ = std::move(queue);
}

std::shared_ptr<KXSearchAgentDelegate> KXSearchAgent::delegate() const {
  std::lock_guard lock(mu_);
  return delegate_.lock();
}

void KXSearchAgent::setDelegate(std::weak_ptr<KXSearchAgentDelegate> delegate) {
  std::lock_guard lock(mu_);
  delegate_ = std::move(delegate);
}

bool KXSearchAgent::delegateResponds(KXSearchAgentDelegate::Operation operation) const {
  std::shared_ptr<KXSearchAgentDelegate> d = delegate();
  return d && d->respondsTo(operation);
}

std::optional<std::string> KXSearchAgent::fbq() const {
  std::lock_guard lock(mu_);
  return fbq_;
}

std::optional<std::string> KXSearchAgent::web_fbq() const {
  std::lock_guard lock(mu_);
  return webFbq_;
}

void KXSearchAgent::activate() { isActivated_.store(true); }

void KXSearchAgent::deactivate() {
  isActivated_.store(false);
  queryProcessor()->async([agent = self()] { agent->releaseHeldBackResults(); });
}

void KXSearchAgent::releaseHeldBackResults() {
  assertOnQueryQueue();
  if (!shouldCacheResults_.load()) return;
  if (!mutableSections_.empty() && mutableSections_.front()->domain() == kx::kDomainZKWS)
    cachedZKWAvailable(false);
  liveAndCached_ = true;
  shouldCacheResults_.store(false);
  updateResultsThroughDelegate();
}

void KXSearchAgent::assertOnQueryQueue() const { KX_ASSERT_ON_QUEUE(queryProcessor()); }
void KXSearchAgent::assertOnMainQueue() const { KX_ASSERT_ON_QUEUE(kx::Queue::Main()); }

// --- The query entry ----------------------------------------------------------

bool KXSearchAgent::setQueryString(std::optional<std::string> text, Value response,
                                   std::optional<std::string> keyboardLanguage,
                                   std::optional<std::string> keyboardPrimaryLanguage,
                                   bool isStable, int32_t /*levelZKW*/, bool allowInternet) {
  uint32_t seqNo;
  std::shared_ptr<kx::Queue> queue;
  {
    std::lock_guard lock(mu_);
    // The exact untrimmed text: a keystroke that changes nothing costs no
    // queue hop.
    if (lastQueryString_ && text && *lastQueryString_ == *text) return true;
    lastQueryString_ = text;
    seqNo = seqNo_.fetch_add(1, std::memory_order_acq_rel) + 1;
    queue = queryProcessor_;
  }
  queue->async([agent = self(),
                input = QueryInput{std::move(text), std::move(response),
                                   std::move(keyboardLanguage), std::move(keyboardPrimaryLanguage),
                                   isStable, allowInternet, seqNo}]() mutable {
    agent->runQuery(std::move(input));
  });
  return true;
}

bool KXSearchAgent::setQueryString(std::optional<std::string> text,
                                   std::optional<std::string> keyboardLanguage, Value response,
                                   bool isStable) {
  return setQueryString(std::move(text), std::move(response), std::move(keyboardLanguage),
                        std::nullopt, isStable, 0, true);
}

bool KXSearchAgent::setQueryString(std::optional<std::string> text,
                                   std::optional<std::string> keyboardLanguage,
                                   std::optional<std::string> keyboardPrimaryLanguage,
                                   Value response, bool isStable) {
  return setQueryString(std::move(text), std::move(response), std::move(keyboardLanguage),
                        std::move(keyboardPrimaryLanguage), isStable, 0, true);
}

bool KXSearchAgent::setQueryString(std::optional<std::string> text,
                                   std::optional<std::string> keyboardLanguage, int32_t levelZKW,
                                   bool allowInternet) {
  return setQueryString(std::move(text), Value(), std::move(keyboardLanguage), std::nullopt,
                        false, levelZKW, allowInternet);
}

bool KXSearchAgent::setQueryString(std::optional<std::string> text,
                                   std::optional<std::string> keyboardLanguage,
                                   std::optional<std::string> keyboardPrimaryLanguage,
                                   int32_t levelZKW, bool allowInternet) {
  return setQueryString(std::move(text), Value(), std::move(keyboardLanguage),
                        std::move(keyboardPrimaryLanguage), false, levelZKW, allowInternet);
}

void KXSearchAgent::runQuery(QueryInput input) {
  assertOnQueryQueue();
  mutableSections_.clear();
  storedSeqNo_ = input.seqNo;
  const std::string text = kx::TrimWhiteSpace(input.text.value_or(""));
  Value response = std::move(input.response);
  const bool hasResponse = !response.isNil();
  KXLOG(6,
        "============^^^^^^ RAW QUERY INPUT model:%p query:%@ response:%p isStable:%d, zkws:%d "
        "active:%d levelZKW:%d",
        static_cast<const void*>(this), text,
        hasResponse ? static_cast<const void*>(&response) : nullptr, input.isStable,
        text.empty(), isActivated_.load(), currentZKWLevel_);
  if (text.empty()) {
    clearInternal(kClearForEmptyText);
    return;
  }
  liveAndCached_ = false;
  if (hasResponse && input.isStable && previousQuery_ == text && promoteCachedQuery()) return;

  const std::optional<std::string> previousText = previousQueryAnySession_;
  previousQuery_ = text;
  previousQueryAnySession_ = text;

  if (!hasResponse) {
    lastVoiceQuery_.reset();
    lastVantleResults_ = Value();
    hasCachedUpdate_ = false;
    voiceQueryHasBeenStable_ = false;
  } else if (response.count() == 0 && !lastVantleResults_.isNil() && lastVoiceQuery_ &&
             text.starts_with(*lastVoiceQuery_)) {
    // A longer dictation text without its own response keeps the last one.
    response = lastVantleResults_;
    KXLOG(7, "======^^^^^^ REPLACING VOICE SEARCH WITH OLDER RESULTS! ======");
  }

  checkPreferencesToken();
  std::vector<std::string> disabledBundles;
  for (const std::string& bundle : KXGetDisabledBundleSet()) disabledBundles.push_back(bundle);

  if (hasResponse) {
    if (lastVoiceQuery_ == text) {
      // The same dictation text again opens no query; it can only go stable.
      if (!voiceQueryHasBeenStable_ && input.isStable) {
        KXLOG(7, "======^^^^^^ NEVER STABLE WENT STABLE ======");
        voiceQueryHasBeenStable_ = true;
        if (hasCachedUpdate_) updateResultsThroughDelegate();
      }
      return;
    }
    invalidateCurrentQuery();
    voiceQueryHasBeenStable_ = input.isStable;
    lastVoiceQuery_ = text;
    if (IsNonEmptyDictionary(response) && !response.isIdenticalTo(lastVantleResults_))
      lastVantleResults_ = response;
  } else {
    invalidateCurrentQuery();
    voiceQueryHasBeenStable_ = false;
  }
  checkPreferencesToken();

  DomainList domains = searchDomains();
  if (!input.allowInternet) std::erase_if(domains, kx::IsServerDomain);
  auto query = KXSearchQuery::initWithSearchString(text, input.keyboardLanguage,
                                                   input.keyboardPrimaryLanguage,
                                                   std::move(domains), std::move(disabledBundles));
  query->setMaxCount(13);
  query->setGrouped(true);
  shouldCacheResults_.store(hasResponse && !input.isStable);
  liveAndCached_ = false;
  query->setContentFilters(contentFilters().value_or(0));
  openQuery(query, response, input.isStable);
  if (previousText != text) scheduleFirstUpdate(currentToken_);
}

void KXSearchAgent::openQuery(std::shared_ptr<KXSearchQuery> query, const Value& response,
                              bool isStable) {
  currentToken_ = KXDaemonConnection::sharedConnection()->startQuery(std::move(query), response,
                                                                     isStable, queryProcessor());
  newQuery_.store(true);
  currentToken_->setDelegate(std::weak_ptr<KXDaemonQueryDelegate>(self()));
}

void KXSearchAgent::scheduleFirstUpdate(const std::shared_ptr<KXDaemonQueryToken>& token) {
  // A new text gets a first update even before any result arrives.
  std::weak_ptr<KXSearchAgent> weak = self();
  std::weak_ptr<KXDaemonQueryToken> weakToken = token;
  queryProcessor()->asyncAfter(kFirstUpdateDelay, [weak, weakToken] {
    auto agent = weak.lock();
    auto token = weakToken.lock();
    if (!agent || !token || token != agent->currentToken_) return;
    if (agent->lastUpdateSeqNo_ != agent->storedSeqNo_) agent->updateResultsThroughDelegate();
  });
}

std::optional<std::string> KXSearchAgent::queryString() const {
  assertOnQueryQueue();
  if (!currentToken_) return std::nullopt;
  return currentToken_->query()->searchString();
}

std::optional<uint32_t> KXSearchAgent::queryId() const {
  assertOnQueryQueue();
  if (!currentToken_) return std::nullopt;
  return currentToken_->queryID();
}

bool KXSearchAgent::_shouldIgnoreQuery(const std::optional<std::string>& text) const {
  if (!text || (options() & kOptionNeverIgnoreRepeats) || text->empty()) return false;
  const std::optional<std::string> current = queryString();
  return current && kx::CaseInsensitiveEqual(*current, *text);
}

// --- Token callbacks ------------------------------------------------------------

void KXSearchAgent::pushLatency(const char* keyFormat, const KXDaemonQueryToken& token) {
  const std::string key = kx::Format(keyFormat, kx::BundleIdentifier());
  const uint64_t start = token.query()->creationStamp();
  kx::Statistics::Shared()->pushTimeIntervalSince(key, start);
  if (keyFormat != kTimeToFirstResultKey) {
    KXLOG(7, "- SearchAgent time %gs", (kx::MonotonicNanoseconds() - start) / 1e9);
  }
}

void KXSearchAgent::searchDaemonQuery(const std::shared_ptr<KXDaemonQueryToken>& token,
                                      const std::shared_ptr<KXSearchResultDeserializer>& results) {
  assertOnQueryQueue();
  if (token != currentToken_) return;
  addDeserializer(*results);
  if (newQuery_.exchange(false)) pushLatency(kTimeToFirstResultKey, *token);
  if (!kx::agent::sHasSeenZKWApps.load() && !mutableSections_.empty() &&
      mutableSections_.front()->domain() == kx::kDomainZKWS) {
    for (const auto& result : mutableSections_.front()->results()) {
      if (result->searchResultDomain() == kx::kDomainApplication) {
        kx::agent::sHasSeenZKWApps.store(true);
        break;
      }
    }
  }
  if (!shouldCacheResults_.load()) {
    updateResultsThroughDelegate();
    return;
  }
  // Held back: shown only while cached zero-keyword results are live, and
  // released by the first section that is not a zero-keyword one.
  if (!liveAndCached_ || mutableSections_.empty()) return;
  for (const SectionRef& section : mutableSections_) {
    if (section->domain() != kx::kDomainZKWS) {
      liveAndCached_ = false;
      shouldCacheResults_.store(false);
      break;
    }
    cachedZKWAvailable(section->flags() & 0x400);
  }
  updateResultsThroughDelegate();
}

void KXSearchAgent::searchDaemonQueryReset(const std::shared_ptr<KXDaemonQueryToken>& token) {
  assertOnQueryQueue();
  if (token == currentToken_) {
    queryComplete_.store(false);
    mutableSections_.clear();
    if (currentZKWLevel_ == 2) kx::agent::sHasSeenZKWApps.store(false);
  }
  if (!liveAndCached_) updateResultsThroughDelegate();
}

void KXSearchAgent::searchDaemonQueryCompleted(const std::shared_ptr<KXDaemonQueryToken>& token) {
  assertOnQueryQueue();
  KXLOG(7, "Query finished!");
  if (token != currentToken_) {
    pushLatency(kCanceledLatencyKey, *token);
    liveAndCached_ = false;
    return;
  }
  {
    std::lock_guard lock(mu_);
    fbq_ = token->fbq();
    webFbq_ = token->web_fbq();
  }
  cleanupObsoleteResults();
  const std::string text = token->query()->searchString();
  if (mutableSections_.empty()) prefixWithNoResults_ = kx::UppercaseString(text);
  if ((options() & kOptionSearchThrough) && searchThroughAllowed_.load() && !text.empty())
    addSearchThroughSectionWithQuery(text);
  if (currentZKWLevel_ == 2 && hasVantleNews())
    vantleNewsExpireTime_ = kx::Date{kx::Date::Now().secondsSinceReferenceDate + 600};
  queryComplete_.store(true);
  pushLatency(kCompletionLatencyKey, *token);
  if (!shouldCacheResults_.load()) {
    updateResultsThroughDelegate();
  } else if (!isActivated_.load()) {
    if (!mutableSections_.empty()) cachedZKWAvailable(false);
    shouldCacheResults_.store(false);
    updateResultsThroughDelegate();
  }
  liveAndCached_ = false;
}

void KXSearchAgent::searchDaemonQuery(const std::shared_ptr<KXDaemonQueryToken>& token,
                                      const kx::Error& error) {
  assertOnQueryQueue();
  if (token != currentToken_) return;
  KXLOG(3, "Received search error %@ for query %@", error.localizedDescription(), token);
}

// --- Clearing ---------------------------------------------------------------------

void KXSearchAgent::cancelCurrentQuery() {
  if (!currentToken_) return;
  currentToken_->setDelegate({});
  KXDaemonConnection::sharedConnection()->cancelQuery(currentToken_);
  currentToken_.reset();
}

void KXSearchAgent::invalidateCurrentQuery() {
  KXLOG(7, "Invalidating aggregate results");
  cancelCurrentQuery();
  topHitResultSection_.reset();
  prefixWithNoResults_.reset();
  queryComplete_.store(false);
  {
    std::lock_guard lock(mu_);
    fbq_.reset();
    webFbq_.reset();
  }
  lastVoiceQuery_.reset();
  hasCachedUpdate_ = false;
}

void KXSearchAgent::clearInternal(int tag) {
  KXLOG(6, "Clearing search results (%d)", tag);
  invalidateCurrentQuery();
  mutableSections_.clear();
  updateResultsThroughDelegate(true);
}

void KXSearchAgent::clearVantleResultsIfStale() {
  // The expiry time is query-queue state: the whole check runs there.
  queryProcessor()->async([agent = self()] {
    if (!agent->vantleNewsExpireTime_ ||
        kx::Date::Now().secondsSinceReferenceDate <=
            agent->vantleNewsExpireTime_->secondsSinceReferenceDate)
      return;
    agent->vantleNewsExpireTime_.reset();
    std::erase_if(agent->mutableSections_, [](const SectionRef& section) {
      return section->hasDomain() && kx::IsServerDomain(section->domain());
    });
    agent->updateResultsThroughDelegate();
  });
}

// --- Images -------------------------------------------------------------------------

void KXSearchAgent::retrieveImageDataForResult(const KXSearchResult& result,
                                               const KXSearchResultSection& section,
                                               kx::Size preferredSize,
                                               ImageCompletion completion) {
  KXDaemonConnection::sharedConnection()->retrieveImageDataForResult(
      result, section.domain(), preferredSize, std::move(completion));
}

void KXSearchAgent::retrieveImageDataForIdentifier(const std::string& identifier,
                                                   const KXSearchResultSection& section,
                                                   kx::Size preferredSize,
                                                   ImageCompletion completion) {
  KXDaemonConnection::sharedConnection()->retrieveImageDataWithIdentifier(
      identifier, section.domain(), preferredSize, std::move(completion));
}
