// The daemon's full-text index: a SQLite database in WAL mode holding
//   files        one row per indexed file: its source and modification stamp
//   items        one row per item (domain, bundle, texts, engagement count)
//   items_text   FTS5 over title, keywords, body and `words` (the ICU words
//                of text in scripts written without spaces, which unicode61
//                cannot split); diacritics removed, prefix indexes
//   short_prefix the first one and two letters of every title and keyword
//                word, with the item's stored score, for the shortest queries
//
// Ranking. A query of one word of at most kShortPrefixLength letters uses
// the stored-score rule: the items with a title or keyword word starting
// with that prefix, by stored score (descending), then item id. The stored
// score is engagement count + 1 / (1 + letters in the title): every
// engagement outweighs any title length, and shorter titles come first. All
// other queries match every word as a prefix in FTS5 and rank by
// bm25(title 10, keywords 4, body 1, words 6) * (1 + engagement count), then
// item id (bm25 is negative, so engagement makes a match better). bm25 has
// to score every match, which is what makes one-letter prefixes slow on a
// large index; the short_prefix index is read in rank order and stops after
// the limit.
//
// Threads: an Index is one connection and belongs to one thread at a time.
// The daemon keeps one writer (the indexer and feedback) and one reader per
// query worker; WAL lets readers run while the writer commits.
#pragma once

#include <atomic>
#include <cstdint>
#include <map>
#include <memory>
#include <optional>
#include <set>
#include <string>
#include <vector>

#include "searchd/item.h"
#include "searchd/sqlite.h"

namespace kx::searchd {

inline constexpr size_t kShortPrefixLength = 2;

struct IndexedItem {
  int64_t id = 0;
  Item item;
  int64_t engagement = 0;
  double rank = 0;  // the ranking value of the rule that found it
};

struct SearchRequest {
  uint32_t domain = 0;
  size_t limit = 13;
  std::set<std::string> excludedBundles;
  static SearchRequest InDomain(uint32_t domain) {
    SearchRequest request;
    request.domain = domain;
    return request;
  }
};

// How a query text is answered.
struct QueryPlan {
  bool shortPrefix = false;
  std::string prefix;  // folded, for the stored-score rule
  std::string match;   // FTS5 match expression otherwise
  bool empty() const { return prefix.empty() && match.empty(); }
};
QueryPlan PlanQuery(const std::string& text);

// The stored score of an item; see the header comment.
double StoredScore(int64_t engagement, const std::string& title);

class Index {
 public:
  // Opens or creates the index database at `path`. Throws SqliteError.
  Index(const std::string& path, bool readOnly);

  // --- Writer side ---
  // Modification stamps of the files of `source`, by path.
  std::map<std::string, int64_t> fileStamps(const std::string& source);
  // The same for the files of `source` at or below `path`.
  std::map<std::string, int64_t> fileStampsUnder(const std::string& source, const std::string& path);
  // Replaces the items of `path` by `items`, keeping the id and the
  // engagement of every item whose identifier stays; records the stamp.
  void replaceFile(const std::string& source, const std::string& path, int64_t stamp,
                   const std::vector<Item>& items);
  void removeFile(const std::string& path);
  // Counts one engagement of the item; false when there is no such item.
  bool recordEngagement(int64_t id, double when);
  Database& database() { return db_; }

  // --- Reader side ---
  // The best `limit` items of one domain; `cancelled`, when set, stops the
  // statement (SqliteError with interrupted()).
  std::vector<IndexedItem> search(const QueryPlan& plan, const SearchRequest& request);
  // The full-text rule for several domains in one pass over the matches
  // (bm25 scores every match, so one pass instead of one per domain); the
  // request's domain is ignored. Domains without a match are left out.
  using DomainHits = std::map<uint32_t, std::vector<IndexedItem>>;
  DomainHits searchFullText(const QueryPlan& plan, const std::set<uint32_t>& domains,
                            const SearchRequest& request);
  std::optional<IndexedItem> itemById(int64_t id);
  std::optional<IndexedItem> itemByUrl(const std::string& url);
  // The first item with this identifier (a desktop id, a contact's UID).
  std::optional<IndexedItem> itemByIdentifier(const std::string& identifier);
  // Engaged items, most recent first.
  std::vector<IndexedItem> recentlyEngaged(size_t limit, const std::set<std::string>& excluded);
  // Applications by engagement count, then title.
  std::vector<IndexedItem> mostUsedApplications(size_t limit, const std::set<std::string>& excluded);
  // Items per domain.
  std::map<uint32_t, int64_t> domainCounts();
  int64_t itemCount();

  // Makes every running and later statement fail as interrupted while
  // `*flag` is true; null stops checking. Any thread may set the flag.
  void setCancelFlag(const std::atomic<bool>* flag);

 private:
  std::vector<IndexedItem> readItems(Statement& statement);
  std::optional<IndexedItem> firstItem(Statement& statement);
  void deleteItem(int64_t id);
  void insertText(int64_t id, const Item& item);
  void insertPrefixes(int64_t id, const Item& item, double score);

  Database db_;
  std::atomic<const std::atomic<bool>*> cancel_{nullptr};
};

}  // namespace kx::searchd
