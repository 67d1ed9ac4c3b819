// KXSearchAgent: the client-facing search session, one per search surface.
//
// The application feeds the agent its query text on every keystroke or
// dictation update. The agent turns each new text into a KXSearchQuery,
// opens it at the search daemon through the shared KXDaemonConnection, keeps
// the returned token as its one current query, merges the arriving sections
// into its working list (options, de-duplication, search-through rows) and
// posts the list to its delegate on the main queue.
//
// Threads and ownership:
// - Main queue: clear, disableUpdates, enableUpdates, pushAndPostUpdates,
//   performZKWQuery..., the published list (sections, sectionCount,
//   sectionAtIndex, hasResults) and the delegate calls. Each asserts it.
// - Query queue ("KXSearchAgent-Plugins", serial, owned): the body of every
//   query text, every token callback, the working list, merging and
//   clearing. Operations documented "query queue" assert it.
// - The query entry runs on the caller's thread and touches only the last
//   accepted text and the sequence number before it hands over; it never
//   waits for a queue.
// - The only hand-over between the query queue and the main queue is one
//   pending update, exchanged atomically: a newer update replaces an unread
//   older one, and the main queue is asked at most once per run of updates.
// - Staleness is decided by sequence numbers, never by time: an update is
//   posted only when no newer text was accepted after it was handed over.
//
// The agent does not cancel its query at the daemon when it is destroyed;
// it only detaches itself from the token.
#pragma once

#include <atomic>
#include <cstdint>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <vector>

#include "kx/KXDaemonConnection.h"
#include "kx/KXDaemonQueryToken.h"
#include "kx/KXSearchAgentDelegate.h"
#include "kx/KXSearchResult.h"
#include "kx/KXSearchResultSection.h"
#include "kx/export.h"
#include "kx/value.h"
#include "kx/restrictions.h"

namespace kx {
class PendingUpdateSlot;
namespace notify {
class Observation;
}
}  // namespace kx

class KX_EXPORT KXSearchAgent : public kx::Object,
                                public KXDaemonQueryDelegate,
                                public kx::RestrictionSettings::Observer {
  struct Passkey {};

 public:
  using SectionRef = std::shared_ptr<KXSearchResultSection>;
  using SectionList = std::vector<SectionRef>;
  using DomainList = std::vector<uint32_t>;
  using ImageCompletion = KXDaemonConnection::ImageCompletion;

  // Option bits.
  // Search-through rows wanted: the agent follows the restriction settings
  // and ends a completed query's list with the search-through section.
  static constexpr uint32_t kOptionSearchThrough = 2;
  // A repeated query text is never ignored by _shouldIgnoreQuery.
  static constexpr uint32_t kOptionNeverIgnoreRepeats = 4;

  // --- Creation --------------------------------------------------------------
  // Initialises logging, registers the user-defaults fallbacks once per
  // process, creates the query queue and starts observing preference and
  // restriction changes.
  static std::shared_ptr<KXSearchAgent> initWithZKWLevel(int32_t level, uint32_t options);
  static std::shared_ptr<KXSearchAgent> init();
  KXSearchAgent(Passkey, int32_t level);
  ~KXSearchAgent() override;

  // The class initialiser: "KXDefaultSearch" and "SkylumeIndexEnabled"
  // default to YES. Run once per process by the first creation.
  static void initialize();
  // Forwarded to the shared daemon connection.
  static void activateDaemon();
  static void deactivateDaemon();

  // --- Settings ----------------------------------------------------------------
  uint32_t options() const { return options_.load(std::memory_order_acquire); }
  void setOptions(uint32_t options);
  DomainList searchDomains() const;
  // nullopt: the enabled domains of the search preferences, following
  // their changes from then on.
  void setSearchDomains(std::optional<DomainList> domains);
  std::shared_ptr<kx::Queue> queryProcessor() const;
  void setQueryProcessor(std::shared_ptr<kx::Queue> queue);
  std::shared_ptr<KXSearchAgentDelegate> delegate() const;
  void setDelegate(std::weak_ptr<KXSearchAgentDelegate> delegate);
  void activate();
  // Releases held-back results (on the query queue).
  void deactivate();

  int32_t currentZKWLevel() const { return currentZKWLevel_; }
  int32_t levelZKW() const { return currentZKWLevel_; }
  bool queryComplete() const { return queryComplete_.load(std::memory_order_acquire); }
  std::optional<std::string> fbq() const;
  std::optional<std::string> web_fbq() const;
  bool defaultSearchEnabled() const { return defaultSearchEnabled_; }
  bool oneShotZKWSEnabled() const { return oneShotZKWSEnabled_; }

  // --- The query entry (any thread); always returns true --------------------
  // `response` is the dictation response (a dictionary) or nil. `levelZKW`
  // is accepted and deliberately unused: the level is fixed at creation.
  bool setQueryString(std::optional<std::string> text, kx::Value response,
                      std::optional<std::string> keyboardLanguage,
                      std::optional<std::string> keyboardPrimaryLanguage, bool isStable,
                      int32_t levelZKW, bool allowInternet);
  bool setQueryString(std::optional<std::string> text,
                      std::optional<std::string> keyboardLanguage, kx::Value response,
                      bool isStable);
  bool setQueryString(std::optional<std::string> text,
                      std::optional<std::string> keyboardLanguage,
                      std::optional<std::string> keyboardPrimaryLanguage, kx::Value response,
                      bool isStable);
  bool setQueryString(std::optional<std::string> text,
                      std::optional<std::string> keyboardLanguage, int32_t levelZKW,
                      bool allowInternet);
  bool setQueryString(std::optional<std::string> text,
                      std::optional<std::string> keyboardLanguage,
                      std::optional<std::string> keyboardPrimaryLanguage, int32_t levelZKW,
                      bool allowInternet);

  // The number of texts the entry accepted.
  uint32_t currentQuerySeqNo() const { return seqNo_.load(std::memory_order_acquire); }
  // The current query's text and token id (query queue).
  std::optional<std::string> queryString() const;
  std::optional<uint32_t> queryId() const;
  // Always absent: the agent filters nothing.
  std::optional<int64_t> contentFilters() const { return std::nullopt; }
  // True for a non-empty text equal, ignoring case, to the current query's,
  // unless kOptionNeverIgnoreRepeats is set (query queue).
  bool _shouldIgnoreQuery(const std::optional<std::string>& text) const;

  // --- The published list (main queue) -------------------------------------
  const SectionList& sections() const;
  size_t sectionCount() const;
  // Null when `index` is not below the count.
  SectionRef sectionAtIndex(uint32_t index) const;
  // False for an empty list or when the first section is not a result
  // section (flag 0x2000, e.g. search-through rows alone).
  bool hasResults() const;
  std::vector<size_t> _indexesOfCompatibleSection(const KXSearchResultSection& section) const;
  // A published section carries a server domain.
  bool hasVantleNewsHigh() const;

  // --- Update control (main queue) --------------------------------------------
  void disableUpdates();
  // Stops the process unless it matches an earlier disableUpdates.
  void enableUpdates();
  // Drops the results; posted as an update with an empty list.
  void clear();
  // Publishes the pending update and tells the delegate, unless updates are
  // disabled (the update then waits) or a newer text was accepted since it
  // was handed over (published, not posted).
  void pushAndPostUpdates();

  // --- Images ------------------------------------------------------------------
  void retrieveImageDataForResult(const KXSearchResult& result,
                                  const KXSearchResultSection& section, kx::Size preferredSize,
                                  ImageCompletion completion);
  void retrieveImageDataForIdentifier(const std::string& identifier,
                                      const KXSearchResultSection& section,
                                      kx::Size preferredSize, ImageCompletion completion);

  // --- Working list (query queue) ---------------------------------------------
  // Reads every section of the batch and adds them.
  void addDeserializer(KXSearchResultDeserializer& deserializer);
  // Options and de-duplication, removal of the first domain-1 section,
  // append and merge.
  void addSections(SectionList sections);
  void mergeSections();
  bool cleanupObsoleteResults();
  bool hasVantleNews() const;
  bool sectionNeedsMoreMapsOption(const KXSearchResultSection& section) const;
  // Hands a snapshot of the working list to the main queue.
  void updateResultsThroughDelegate(bool isClear = false);
  void cancelCurrentQuery();
  void invalidateCurrentQuery();
  // An internal clear, posted as a clear; `tag` only names the caller in
  // the log.
  void clearInternal(int tag);
  // Drops the server results once the news they carry went stale.
  void clearVantleResultsIfStale();

  // --- Zero-keyword and search-through ----------------------------------------
  // Any thread; runs a zero-keyword query on the query queue whose results
  // are held back until promoted, or shown as they come when `live`.
  void cacheZKWQueryLive(bool live, bool allowInternet);
  // Query queue: shows held-back results; false when there are none.
  bool promoteCachedQuery();
  // Main queue.
  void performZKWQueryWithKeyboardLanguage(std::optional<std::string> keyboardLanguage,
                                           bool allowInternet);
  // A hook for surfaces that show cached zero-keyword suggestions; does
  // nothing here.
  virtual void cachedZKWAvailable(bool available);
  static bool hasSeenZKWApps();
  void addSearchThroughSectionWithQuery(const std::string& text);
  void updateSearchThroughSectionWithQuery(const std::string& text);
  // Manual experiments with the zero-keyword ordering.
  void testSaveCachedZKWPermUsers(int64_t users, int64_t appLinks, int64_t apps);  // main
  static void testPermuteSection(KXSearchResultSection& section, uint32_t domain,
                                 int64_t count);
  void testRestoreCacheZKW();

  // --- Token callbacks (query queue) -------------------------------------------
  void searchDaemonQueryReset(const std::shared_ptr<KXDaemonQueryToken>& token) override;
  void searchDaemonQuery(const std::shared_ptr<KXDaemonQueryToken>& token,
                         const std::shared_ptr<KXSearchResultDeserializer>& results) override;
  void searchDaemonQueryCompleted(const std::shared_ptr<KXDaemonQueryToken>& token) override;
  void searchDaemonQuery(const std::shared_ptr<KXDaemonQueryToken>& token,
                         const kx::Error& error) override;

  // --- Restriction settings ---------------------------------------------------
  void restrictionSettingsDidChange(kx::RestrictionSettings& settings,
                                    const std::optional<kx::Dictionary>& userInfo) override;

  std::string className() const override { return "KXSearchAgent"; }

 private:
  struct QueryInput;
  std::shared_ptr<KXSearchAgent> self();
  void setUp(uint32_t options);
  void observeNotifications();
  // The query body on the query queue.
  void runQuery(QueryInput input);
  void openQuery(std::shared_ptr<KXSearchQuery> query, const kx::Value& response, bool isStable);
  void scheduleFirstUpdate(const std::shared_ptr<KXDaemonQueryToken>& token);
  void checkPreferencesToken();
  void stuffChanged();
  void internetDomainsChanged();
  void releaseHeldBackResults();
  void postSearchAgentUpdatedResultsToDelegate();
  void postSearchAgentClearedResultsToDelegate();
  bool delegateResponds(KXSearchAgentDelegate::Operation operation) const;
  void readSearchThroughAllowed();
  void pushLatency(const char* keyFormat, const KXDaemonQueryToken& token);
  void assertOnQueryQueue() const;
  void assertOnMainQueue() const;

  // Current token and working state: query queue only.
  std::shared_ptr<KXDaemonQueryToken> currentToken_;
  std::optional<std::string> prefixWithNoResults_;
  SectionList mutableSections_;
  SectionRef topHitResultSection_;
  std::shared_ptr<KXSearchResult> webSearchThroughResult_;
  std::shared_ptr<KXSearchResult> appStoreSearchThroughResult_;
  std::shared_ptr<KXSearchResult> mapsSearchThroughResult_;
  std::optional<std::string> lastVoiceQuery_;
  bool voiceQueryHasBeenStable_ = false;
  bool hasCachedUpdate_ = false;
  kx::Value lastVantleResults_;
  std::optional<std::string> previousQuery_;
  std::optional<std::string> previousQueryAnySession_;
  uint32_t storedSeqNo_ = 0;
  uint32_t lastUpdateSeqNo_ = 0;
  std::optional<kx::Date> vantleNewsExpireTime_;
  bool liveAndCached_ = false;
  bool activeCachedZKW_ = false;
  SectionList cachedZKW1_;
  SectionList cachedZKW2_;

  // Main queue only.
  SectionList sections_;
  int32_t updatesDisabled_ = 0;

  // Shared between threads.
  const int32_t currentZKWLevel_;
  std::atomic<uint32_t> options_{0};
  std::atomic<bool> searchThroughAllowed_{false};
  std::atomic<bool> isActivated_{false};
  std::atomic<bool> queryComplete_{false};
  std::atomic<bool> newQuery_{false};
  std::atomic<bool> shouldCacheResults_{false};
  std::atomic<uint32_t> seqNo_{0};
  bool defaultSearchEnabled_ = false;
  bool oneShotZKWSEnabled_ = false;
  const std::unique_ptr<kx::PendingUpdateSlot> deferredUpdate_;

  mutable std::mutex mu_;
  // Guarded by mu_.
  std::optional<std::string> lastQueryString_;
  DomainList searchDomains_;
  bool observersAdded_ = false;
  int32_t prefsToken_ = 0;
  std::shared_ptr<kx::Queue> queryProcessor_;
  std::weak_ptr<KXSearchAgentDelegate> delegate_;
  std::optional<std::string> fbq_;
  std::optional<std::string> webFbq_;
};
