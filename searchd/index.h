// The daemon's full-text index: a SQLite database in WAL mode holding
//   files        one row per indexed file: its source and modification stamp
//   items        one row per item (domain, bundle, texts, engagement count)
//   items_text   FTS5 over title, keywords, body and `words` (the ICU words
//                of text in scripts written without spaces, which unicode61
//                cannot split); diacritics removed. No FTS prefix index: the
//                prefixes that match much are answered from word_prefix, and
//                a prefix index doubled the cost of a build
//   word_prefix  the first one to five letters of every title and keyword
//                word, and the whole word when it is longer, with the item's
//                stored score, keyed in rank order
//
// Ranking. Two rules, chosen per query text:
//  - Stored score: the items with a title or keyword word starting with the
//    (folded) prefix, by stored score (descending), then item id. The stored
//    score is engagement count + 1 / (1 + letters in the title): every
//    engagement outweighs any title length, and shorter titles come first.
//    It answers a one-word query of at most kShortPrefixLength letters, and
//    a longer one-word query when more than rankedMatchLimit() items have a
//    title or keyword word starting with it or more than that many items
//    match it in the full text. Up to kStoredScorePrefixLength letters the
//    prefix's own rows are the answer; a longer prefix merges the ranges of
//    the whole words it starts (at most kStoredScoreWordLimit of them, else
//    the full-text rule answers).
//  - Full text: every word is a prefix phrase in FTS5; the candidates are
//    the matching items, but only the rankedMatchLimit() most recent (highest
//    id) when more match; candidates rank by
//    bm25(title 10, keywords 4, body 1, words 6) * (1 + engagement count),
//    then item id (bm25 is negative, so engagement makes a match better).
// bm25 has to score every candidate, so the limit bounds the work of a
// query: without it, the prefix of a word that most items contain costs a
// scoring pass over most of the index. Short prefixes of frequent words,
// the common case while typing, keep an exact best-first answer from the
// word_prefix range, which is read in rank order and stops at the limit.
// Longer prefixes of frequent words need it as much: FTS5 has no prefix
// index here and merges the posting list of every term with the prefix
// before it returns a first row, which at a million items is most of the
// index for the commonest words.
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

// Queries of at most this many letters always use the stored-score rule.
inline constexpr size_t kShortPrefixLength = 2;
// The longest prefix word_prefix holds (longer words have a row of their own).
inline constexpr size_t kStoredScorePrefixLength = 5;
// The most whole words the stored-score rule merges for a longer prefix.
inline constexpr size_t kStoredScoreWordLimit = 64;
// Candidates the full-text rule ranks at most.
inline constexpr size_t kDefaultRankedMatchLimit = 1000;

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
  // Always the stored-score rule (`match` is then empty).
  bool shortPrefix = false;
  // Folded, when the stored-score rule may answer (one word); empty
  // otherwise.
  std::string prefix;
  // The FTS5 match expression of the full-text rule.
  std::string match;
  bool empty() const { return prefix.empty() && match.empty(); }
};
QueryPlan PlanQuery(const std::string& text);

// The stored score of an item; see the header comment.
double StoredScore(int64_t engagement, const std::string& title);

class Index {
 public:
  class Batch;

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
  // The best `limit` items of one domain by the rule the plan calls for (see
  // the header comment). A set cancel flag stops the statement (SqliteError
  // with interrupted()).
  std::vector<IndexedItem> search(const QueryPlan& plan, const SearchRequest& request);
  // The same for several domains at once, in one pass over the full-text
  // candidates; the request's domain is ignored. Domains without a match
  // are left out.
  using DomainHits = std::map<uint32_t, std::vector<IndexedItem>>;
  DomainHits searchDomains(const QueryPlan& plan, const std::set<uint32_t>& domains,
                           const SearchRequest& request);
  // How many candidates the full-text rule ranks at most.
  size_t rankedMatchLimit() const { return rankedMatchLimit_; }
  void setRankedMatchLimit(size_t limit) { rankedMatchLimit_ = limit; }
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
  struct Candidate;
  // What an item's word_prefix rows are derived from.
  struct StoredText {
    uint32_t domain;
    std::string title;
    int64_t engagement;
    std::string keywords;  // the keywords column: keywords and localised titles
  };
  std::optional<StoredText> storedText(int64_t id);
  std::vector<IndexedItem> readItems(Statement& statement);
  std::optional<IndexedItem> firstItem(Statement& statement);
  void throwIfCancelled() const;
  // The word_prefix keys whose ranges hold the items of `prefix`: the
  // prefix itself up to kStoredScorePrefixLength letters, else the whole
  // words starting with it; nullopt when there are more than
  // kStoredScoreWordLimit such words.
  std::optional<std::vector<std::string>> storedScoreKeys(const std::string& prefix);
  // The stored-score rule in one domain: the best of the keys' ranges.
  std::vector<IndexedItem> searchStoredScore(const std::vector<std::string>& keys, uint32_t domain,
                                             const SearchRequest& request);
  // The full-text candidates, most recent first; nullopt when more than the
  // limit match and `storedScoreMayAnswer`: the stored-score rule answers.
  std::optional<std::vector<Candidate>> fullTextCandidates(const QueryPlan& plan, bool storedScoreMayAnswer);
  void migrate();
  // Writes the buffered word_prefix rows (see Batch).
  void flushPrefixes();
  void deleteItem(int64_t id);
  // Removes the item's text and prefix rows (before it changes or goes).
  void deleteIndexedText(int64_t id);
  void insertText(int64_t id, const Item& item);
  void writePrefixes(int64_t id, uint32_t domain, const std::string& title,
                     const std::string& keywordsColumn, double score, bool insert);

  Database db_;
  size_t rankedMatchLimit_ = kDefaultRankedMatchLimit;
  // word_prefix rows written at the end of the open Batch, if any.
  struct PrefixRow {
    std::string prefix;
    uint32_t domain;
    double score;
    int64_t item;
    bool operator<(const PrefixRow& o) const;  // the table's key order
  };
  bool batching_ = false;
  std::vector<PrefixRow> pendingPrefixes_;
  std::atomic<const std::atomic<bool>*> cancel_{nullptr};
};

// A write transaction on the index that buffers the word_prefix rows of new
// items and writes them in key order at commit: sorted, each lands next to
// the one before on a page already in the cache, which takes about half the
// time of random inserts into a large B-tree. Left without commit, it rolls
// back. One at a time per Index.
class Index::Batch {
 public:
  explicit Batch(Index& index);
  ~Batch();
  Batch(const Batch&) = delete;
  Batch& operator=(const Batch&) = delete;
  void commit();

 private:
  Index& index_;
  Transaction transaction_;
};

}  // namespace kx::searchd
