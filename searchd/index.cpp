#include "searchd/index.h"

#include <nlohmann/json.hpp>

#include <algorithm>

#include "searchd/result_cache.h"
#include "searchd/text.h"

namespace kx::searchd {
namespace {

constexpr const char* kSchema = R"sql(
PRAGMA journal_mode = WAL;
PRAGMA synchronous = NORMAL;
-- A build touches the same FTS and prefix pages again and again: keep them
-- in memory, and checkpoint (fsync) less often than every 1000 pages.
PRAGMA cache_size = -65536;
PRAGMA wal_autocheckpoint = 8192;
CREATE TABLE IF NOT EXISTS files(
  path TEXT PRIMARY KEY, source TEXT NOT NULL, stamp INTEGER NOT NULL);
CREATE TABLE IF NOT EXISTS items(
  id INTEGER PRIMARY KEY, path TEXT NOT NULL, key TEXT NOT NULL UNIQUE,
  domain INTEGER NOT NULL, bundle TEXT NOT NULL, identifier TEXT NOT NULL,
  title TEXT NOT NULL, subtitle TEXT, summary TEXT, url TEXT, extra TEXT,
  engagement INTEGER NOT NULL DEFAULT 0, last_engaged REAL);
CREATE INDEX IF NOT EXISTS items_path ON items(path);
-- No index on url or identifier: card and image requests are rare and a
-- scan is cheaper than slowing down every build.
CREATE INDEX IF NOT EXISTS items_engaged ON items(last_engaged) WHERE last_engaged IS NOT NULL;
CREATE VIRTUAL TABLE IF NOT EXISTS items_text USING fts5(
  title, keywords, body, words,
  tokenize = 'unicode61 remove_diacritics 2');
-- Keyed in rank order, so a prefix's best items are the first rows of its
-- range. No index by item: an item's rows are found again from its stored
-- title and keywords, which saves a B-tree write per row on every build.
CREATE TABLE IF NOT EXISTS word_prefix(
  prefix TEXT NOT NULL, domain INTEGER NOT NULL, score REAL NOT NULL, item INTEGER NOT NULL,
  PRIMARY KEY(prefix, domain, score DESC, item)) WITHOUT ROWID;
)sql";

// Databases older than this hold the one- and two-letter table instead of
// word_prefix (before 2) or word_prefix without whole-word rows (2); opening
// one fills word_prefix anew from the stored texts.
constexpr int64_t kSchemaVersion = 3;

#define KX_ITEM_COLUMNS \
  "i.id, i.domain, i.bundle, i.identifier, i.title, i.subtitle, i.summary, i.url, i.extra, " \
  "i.engagement"

std::string ExtraJson(const Item& item) {
  nlohmann::json extra = nlohmann::json::object();
  if (!item.localizedTitles.empty()) extra["titles"] = item.localizedTitles;
  if (!item.icon.empty()) extra["icon"] = item.icon;
  if (!item.launchCommand.empty()) extra["exec"] = item.launchCommand;
  if (!item.contactIdentifiers.empty()) extra["contacts"] = item.contactIdentifiers;
  if (item.date) extra["date"] = item.date->secondsSinceReferenceDate;
  if (item.allDay) extra["allDay"] = true;
  if (const std::optional<FileLocation>& file = item.fileLocation)
    extra["file"] = {file->fileIdentifier, file->parentFileIdentifier, file->filename, file->documentIdentifier};
  return extra.dump();
}

void ReadExtra(const std::string& text, Item& item) {
  const nlohmann::json extra = nlohmann::json::parse(text, nullptr, /*allow_exceptions=*/false);
  if (!extra.is_object()) return;
  if (auto t = extra.find("titles"); t != extra.end() && t->is_object())
    for (auto& [language, title] : t->items())
      if (title.is_string()) item.localizedTitles[language] = title.get<std::string>();
  if (auto i = extra.find("icon"); i != extra.end() && i->is_string()) item.icon = *i;
  if (auto e = extra.find("exec"); e != extra.end() && e->is_string()) item.launchCommand = *e;
  if (auto c = extra.find("contacts"); c != extra.end() && c->is_array())
    for (const auto& id : *c)
      if (id.is_string()) item.contactIdentifiers.push_back(id.get<std::string>());
  if (auto d = extra.find("date"); d != extra.end() && d->is_number()) item.date = Date{d->get<double>()};
  if (auto a = extra.find("allDay"); a != extra.end() && a->is_boolean()) item.allDay = *a;
  if (auto f = extra.find("file"); f != extra.end() && f->is_array() && f->size() == 4 &&
                                   (*f)[0].is_number_unsigned() && (*f)[1].is_number_unsigned() &&
                                   (*f)[2].is_string() && (*f)[3].is_number_unsigned())
    item.fileLocation = FileLocation{(*f)[0].get<uint64_t>(), (*f)[1].get<uint64_t>(),
                                     (*f)[2].get<std::string>(), (*f)[3].get<uint32_t>()};
}

// The keywords column of items_text: keywords and every localised title.
std::string KeywordsColumn(const Item& item) {
  std::string keywords = item.keywords;
  for (const auto& [language, title] : item.localizedTitles) keywords += " " + title;
  return keywords;
}

// The keys word_prefix files an item under: the prefixes of its words up to
// kStoredScorePrefixLength letters and the longer words whole.
std::set<std::string> StoredPrefixes(const std::string& title, const std::string& keywordsColumn) {
  std::set<std::string> prefixes;
  for (const std::string& word : Words(Fold(title + " " + keywordsColumn))) {
    for (size_t n = 1; n <= kStoredScorePrefixLength; ++n) prefixes.insert(CodePointPrefix(word, n));
    if (CodePointCount(word) > kStoredScorePrefixLength) prefixes.insert(word);
  }
  return prefixes;
}

bool IsLongPrefix(const std::string& prefix) { return CodePointCount(prefix) > kStoredScorePrefixLength; }

// Above every key that starts with `prefix`: 0xFF never occurs in UTF-8, and
// keys compare bytewise.
std::string PrefixRangeEnd(const std::string& prefix) { return prefix + '\xff'; }

// A word as an FTS5 prefix phrase: quoted, inner quotes doubled.
std::string PrefixPhrase(const std::string& word) {
  std::string phrase = "\"";
  for (char c : word) phrase += c == '"' ? std::string("\"\"") : std::string(1, c);
  return phrase + "\"*";
}

std::string ExcludedJson(const std::set<std::string>& excluded) {
  return nlohmann::json(excluded).dump();
}

// Text for the `words` column: ICU's words of the parts written without
// spaces, which unicode61 would keep as one long token.
std::string UnspacedWords(const Item& item) {
  std::string words;
  for (const std::string* text : {&item.title, &item.keywords, &item.body}) {
    if (!HasUnspacedScript(*text)) continue;
    for (const std::string& word : Words(*text)) words += word + " ";
  }
  return words;
}

int ProgressHandler(void* context) {
  auto* cancel = static_cast<std::atomic<const std::atomic<bool>*>*>(context);
  const std::atomic<bool>* flag = cancel->load(std::memory_order_acquire);
  return flag && flag->load(std::memory_order_acquire) ? 1 : 0;
}

}  // namespace

QueryPlan PlanQuery(const std::string& text) {
  QueryPlan plan;
  const std::vector<std::string> folded = Words(Fold(text));
  if (folded.empty()) return plan;
  if (folded.size() == 1) {
    plan.prefix = folded[0];
    if (CodePointCount(folded[0]) <= kShortPrefixLength) {
      plan.shortPrefix = true;
      return plan;
    }
  }
  // FTS5 folds the phrases with the tokenizer that indexed the text, so the
  // words go in as typed.
  for (const std::string& word : Words(text)) plan.match += (plan.match.empty() ? "" : " ") + PrefixPhrase(word);
  return plan;
}

double StoredScore(int64_t engagement, const std::string& title) {
  return static_cast<double>(engagement) + 1.0 / (1.0 + static_cast<double>(CodePointCount(title)));
}

Index::Index(const std::string& path, bool readOnly) : db_(path, readOnly) {
  if (!readOnly) {
    db_.exec(kSchema);
    migrate();
  }
  // Checked every 1000 virtual machine steps: a cancelled query stops within
  // microseconds without slowing the others measurably.
  sqlite3_progress_handler(db_.handle(), 1000, ProgressHandler, &cancel_);
}

void Index::migrate() {
  Statement version = db_.prepare("PRAGMA user_version");
  if (version.step() && version.integer(0) >= kSchemaVersion) return;
  version.reset();
  Transaction transaction(db_);
  db_.exec("DROP TABLE IF EXISTS short_prefix; DELETE FROM word_prefix;");
  {
    Statement s = db_.prepare(
        "SELECT i.id, i.domain, i.title, i.engagement, t.keywords FROM items i "
        "JOIN items_text t ON t.rowid = i.id");
    while (s.step())
      writePrefixes(s.integer(0), static_cast<uint32_t>(s.integer(1)), s.text(2), s.text(4),
                    StoredScore(s.integer(3), s.text(2)), /*insert=*/true);
  }
  db_.exec(("PRAGMA user_version = " + std::to_string(kSchemaVersion)).c_str());
  transaction.commit();
}

void Index::setCancelFlag(const std::atomic<bool>* flag) {
  cancel_.store(flag, std::memory_order_release);
}

std::map<std::string, int64_t> Index::fileStamps(const std::string& source) {
  std::map<std::string, int64_t> stamps;
  Statement s = db_.prepare("SELECT path, stamp FROM files WHERE source = ?1");
  s.bind(1, source);
  while (s.step()) stamps[s.text(0)] = s.integer(1);
  return stamps;
}

std::map<std::string, int64_t> Index::fileStampsUnder(const std::string& source, const std::string& path) {
  std::map<std::string, int64_t> stamps;
  // Below `path`: from "path/" up to "path0" ('0' follows '/'), a range of
  // the primary key.
  Statement s = db_.prepare(
      "SELECT path, stamp FROM files WHERE source = ?1 AND (path = ?2 OR (path > ?2 || '/' AND path < ?2 || '0'))");
  s.bind(1, source).bind(2, path);
  while (s.step()) stamps[s.text(0)] = s.integer(1);
  return stamps;
}

void Index::replaceFile(const std::string& source, const std::string& path, int64_t stamp,
                        const std::vector<Item>& items) {
  std::map<std::string, int64_t> previous;  // key -> id
  {
    Statement s = db_.prepare("SELECT key, id FROM items WHERE path = ?1");
    s.bind(1, path);
    while (s.step()) previous[s.text(0)] = s.integer(1);
  }
  for (const Item& item : items) {
    const std::string key = path + '\x1f' + item.identifier;
    Statement upsert = db_.prepare(
        "INSERT INTO items(path, key, domain, bundle, identifier, title, subtitle, summary, url, "
        "extra) VALUES(?1, ?2, ?3, ?4, ?5, ?6, ?7, ?8, ?9, ?10) "
        "ON CONFLICT(key) DO UPDATE SET domain = excluded.domain, bundle = excluded.bundle, "
        "title = excluded.title, subtitle = excluded.subtitle, summary = excluded.summary, "
        "url = excluded.url, extra = excluded.extra RETURNING id, engagement");
    upsert.bind(1, path).bind(2, key).bind(3, int64_t{item.domain}).bind(4, item.bundle);
    upsert.bind(5, item.identifier).bind(6, item.title).bind(7, item.subtitle);
    upsert.bind(8, item.summary).bind(9, item.url).bind(10, ExtraJson(item));
    // The old rows are found from the old texts: drop them before the
    // upsert replaces those.
    if (auto old = previous.find(key); old != previous.end()) {
      deleteIndexedText(old->second);
      previous.erase(old);
    }
    if (!upsert.step()) continue;
    const int64_t id = upsert.integer(0);
    const int64_t engagement = upsert.integer(1);
    upsert.run();
    insertText(id, item);
    writePrefixes(id, item.domain, item.title, KeywordsColumn(item), StoredScore(engagement, item.title),
                  /*insert=*/true);
  }
  for (const auto& [key, id] : previous) deleteItem(id);
  db_.prepare("INSERT INTO files(path, source, stamp) VALUES(?1, ?2, ?3) "
              "ON CONFLICT(path) DO UPDATE SET source = excluded.source, stamp = excluded.stamp")
      .bind(1, path).bind(2, source).bind(3, stamp).run();
}

void Index::removeFile(const std::string& path) {
  std::vector<int64_t> ids;
  {
    Statement s = db_.prepare("SELECT id FROM items WHERE path = ?1");
    s.bind(1, path);
    while (s.step()) ids.push_back(s.integer(0));
  }
  for (int64_t id : ids) deleteItem(id);
  db_.prepare("DELETE FROM files WHERE path = ?1").bind(1, path).run();
}

void Index::deleteItem(int64_t id) {
  deleteIndexedText(id);
  db_.prepare("DELETE FROM items WHERE id = ?1").bind(1, id).run();
}

std::optional<Index::StoredText> Index::storedText(int64_t id) {
  Statement s = db_.prepare(
      "SELECT i.domain, i.title, i.engagement, t.keywords FROM items i, items_text t "
      "WHERE i.id = ?1 AND t.rowid = ?1");
  s.bind(1, id);
  if (!s.step()) return std::nullopt;
  return StoredText{static_cast<uint32_t>(s.integer(0)), s.text(1), s.integer(2), s.text(3)};
}

void Index::deleteIndexedText(int64_t id) {
  if (std::optional<StoredText> old = storedText(id))
    writePrefixes(id, old->domain, old->title, old->keywords, StoredScore(old->engagement, old->title),
                  /*insert=*/false);
  db_.prepare("DELETE FROM items_text WHERE rowid = ?1").bind(1, id).run();
}

void Index::insertText(int64_t id, const Item& item) {
  db_.prepare("INSERT INTO items_text(rowid, title, keywords, body, words) VALUES(?1, ?2, ?3, ?4, ?5)")
      .bind(1, id).bind(2, item.title).bind(3, KeywordsColumn(item)).bind(4, item.body)
      .bind(5, UnspacedWords(item)).run();
}

void Index::writePrefixes(int64_t id, uint32_t domain, const std::string& title,
                          const std::string& keywordsColumn, double score, bool insert) {
  // The score is recomputed from the same inputs as when the rows went in,
  // so it is bit for bit the key they were filed under.
  const std::set<std::string> prefixes = StoredPrefixes(title, keywordsColumn);
  if (insert && batching_) {
    for (const std::string& prefix : prefixes) pendingPrefixes_.push_back({prefix, domain, score, id});
    return;
  }
  // A buffered row of this item may be the one to delete.
  if (!insert) flushPrefixes();
  const char* sql = insert ? "INSERT INTO word_prefix(prefix, domain, score, item) VALUES(?1, ?2, ?3, ?4)"
                           : "DELETE FROM word_prefix WHERE prefix = ?1 AND domain = ?2 AND score = ?3 "
                             "AND item = ?4";
  for (const std::string& prefix : prefixes)
    db_.prepare(sql).bind(1, prefix).bind(2, int64_t{domain}).bind(3, score).bind(4, id).run();
}

bool Index::PrefixRow::operator<(const PrefixRow& o) const {
  if (prefix != o.prefix) return prefix < o.prefix;  // both UTF-8: byte order, as SQLite's BINARY
  if (domain != o.domain) return domain < o.domain;
  if (score != o.score) return score > o.score;
  return item < o.item;
}

void Index::flushPrefixes() {
  if (pendingPrefixes_.empty()) return;
  std::sort(pendingPrefixes_.begin(), pendingPrefixes_.end());
  for (const PrefixRow& row : pendingPrefixes_)
    db_.prepare("INSERT INTO word_prefix(prefix, domain, score, item) VALUES(?1, ?2, ?3, ?4)")
        .bind(1, row.prefix).bind(2, int64_t{row.domain}).bind(3, row.score).bind(4, row.item).run();
  pendingPrefixes_.clear();
}

Index::Batch::Batch(Index& index) : index_(index), transaction_(index.db_) {
  index_.batching_ = true;
}

Index::Batch::~Batch() {
  index_.batching_ = false;
  index_.pendingPrefixes_.clear();
}

void Index::Batch::commit() {
  index_.flushPrefixes();
  index_.batching_ = false;
  transaction_.commit();
}

bool Index::recordEngagement(int64_t id, double when) {
  std::optional<StoredText> text = storedText(id);
  if (!text) return false;
  const int64_t engagement = text->engagement + 1;
  db_.prepare("UPDATE items SET engagement = ?2, last_engaged = ?3 WHERE id = ?1")
      .bind(1, id).bind(2, engagement).bind(3, when).run();
  writePrefixes(id, text->domain, text->title, text->keywords, StoredScore(text->engagement, text->title),
                /*insert=*/false);
  writePrefixes(id, text->domain, text->title, text->keywords, StoredScore(engagement, text->title),
                /*insert=*/true);
  BumpIndexGeneration();
  return true;
}

std::vector<IndexedItem> Index::readItems(Statement& s) {
  std::vector<IndexedItem> items;
  while (s.step()) {
    IndexedItem hit;
    hit.id = s.integer(0);
    hit.item.domain = static_cast<uint32_t>(s.integer(1));
    hit.item.bundle = s.text(2);
    hit.item.identifier = s.text(3);
    hit.item.title = s.text(4);
    hit.item.subtitle = s.text(5);
    hit.item.summary = s.text(6);
    hit.item.url = s.text(7);
    ReadExtra(s.text(8), hit.item);
    hit.engagement = s.integer(9);
    hit.rank = s.real(10);
    items.push_back(std::move(hit));
  }
  return items;
}

std::optional<IndexedItem> Index::firstItem(Statement& statement) {
  std::vector<IndexedItem> items = readItems(statement);
  if (items.empty()) return std::nullopt;
  return std::move(items.front());
}

void Index::throwIfCancelled() const {
  // The progress handler only looks every thousand steps; a query cancelled
  // before it starts must not run at all.
  if (const std::atomic<bool>* flag = cancel_.load(std::memory_order_acquire); flag && *flag)
    throw SqliteError(SQLITE_INTERRUPT, "interrupted");
}

std::vector<IndexedItem> Index::search(const QueryPlan& plan, const SearchRequest& request) {
  DomainHits hits = searchDomains(plan, {request.domain}, request);
  auto it = hits.find(request.domain);
  return it == hits.end() ? std::vector<IndexedItem>{} : std::move(it->second);
}

std::optional<std::vector<std::string>> Index::storedScoreKeys(const std::string& prefix) {
  if (!IsLongPrefix(prefix)) return std::vector<std::string>{prefix};
  // One seek per word: the next key above a word is the next word, however
  // many rows the word has.
  std::vector<std::string> words;
  Statement first = db_.prepare("SELECT prefix FROM word_prefix WHERE prefix >= ?1 AND prefix < ?2 LIMIT 1");
  Statement next = db_.prepare("SELECT prefix FROM word_prefix WHERE prefix > ?1 AND prefix < ?2 LIMIT 1");
  const std::string end = PrefixRangeEnd(prefix);
  first.bind(1, prefix).bind(2, end);
  for (Statement* seek = &first; seek->step(); seek = &next) {
    if (words.size() == kStoredScoreWordLimit) return std::nullopt;
    words.push_back(seek->text(0));
    next.reset();
    next.bind(1, words.back()).bind(2, end);
  }
  return words;
}

std::vector<IndexedItem> Index::searchStoredScore(const std::vector<std::string>& keys, uint32_t domain,
                                                  const SearchRequest& request) {
  Statement s = db_.prepare(
      "SELECT " KX_ITEM_COLUMNS ", p.score FROM word_prefix p JOIN items i ON i.id = p.item "
      "WHERE p.prefix = ?1 AND p.domain = ?2 "
      "AND i.bundle NOT IN (SELECT value FROM json_each(?3)) "
      "ORDER BY p.score DESC, p.item LIMIT ?4");
  std::vector<IndexedItem> best;
  for (const std::string& key : keys) {
    s.reset();
    s.bind(1, key).bind(2, int64_t{domain}).bind(3, ExcludedJson(request.excludedBundles));
    s.bind(4, static_cast<int64_t>(request.limit));
    std::vector<IndexedItem> range = readItems(s);
    best.insert(best.end(), std::make_move_iterator(range.begin()), std::make_move_iterator(range.end()));
  }
  if (keys.size() > 1) {
    // Each range is in rank order; an item with two of the words is in both.
    std::sort(best.begin(), best.end(), [](const IndexedItem& a, const IndexedItem& b) {
      return a.rank != b.rank ? a.rank > b.rank : a.id < b.id;
    });
    best.erase(std::unique(best.begin(), best.end(),
                           [](const IndexedItem& a, const IndexedItem& b) { return a.id == b.id; }),
               best.end());
    if (best.size() > request.limit) best.resize(request.limit);
  }
  return best;
}

struct Index::Candidate {
  int64_t id;
  uint32_t domain;
  std::string bundle;
  double rank;
  bool operator<(const Candidate& o) const { return rank != o.rank ? rank < o.rank : id < o.id; }
};

std::optional<std::vector<Index::Candidate>> Index::fullTextCandidates(const QueryPlan& plan,
                                                                       bool storedScoreMayAnswer) {
  const auto limit = static_cast<int64_t>(rankedMatchLimit_);
  if (storedScoreMayAnswer) {
    // The prefix's own range is the cheaper count; counting rowids costs a
    // fraction of scoring them. A longer prefix spans several words, and an
    // item with two of them has two rows.
    auto exceeds = [&](Statement& count) {
      count.bind(2, limit + 1);
      return count.step() && count.integer(0) > limit;
    };
    bool exceeded = false;
    if (IsLongPrefix(plan.prefix)) {
      Statement titles = db_.prepare(
          "SELECT count(*) FROM (SELECT DISTINCT item FROM word_prefix WHERE prefix >= ?1 AND prefix < ?3 "
          "LIMIT ?2)");
      titles.bind(1, plan.prefix).bind(3, PrefixRangeEnd(plan.prefix));
      exceeded = exceeds(titles);
    } else {
      Statement titles = db_.prepare("SELECT count(*) FROM (SELECT item FROM word_prefix WHERE prefix = ?1 LIMIT ?2)");
      titles.bind(1, plan.prefix);
      exceeded = exceeds(titles);
    }
    if (!exceeded) {
      Statement matches = db_.prepare(
          "SELECT count(*) FROM (SELECT rowid FROM items_text WHERE items_text MATCH ?1 LIMIT ?2)");
      matches.bind(1, plan.match);
      exceeded = exceeds(matches);
    }
    if (exceeded) return std::nullopt;
  }
  // FTS5 walks the matches in rowid order, so the subquery stops after the
  // limit and bm25 scores only what it returns.
  Statement s = db_.prepare(
      "SELECT c.id, i.domain, i.bundle, c.r * (1 + i.engagement) FROM "
      "(SELECT rowid AS id, bm25(items_text, 10.0, 4.0, 1.0, 6.0) AS r FROM items_text "
      "WHERE items_text MATCH ?1 ORDER BY rowid DESC LIMIT ?2) c JOIN items i ON i.id = c.id");
  s.bind(1, plan.match).bind(2, limit);
  std::vector<Candidate> candidates;
  while (s.step())
    candidates.push_back({s.integer(0), static_cast<uint32_t>(s.integer(1)), s.text(2), s.real(3)});
  return candidates;
}

Index::DomainHits Index::searchDomains(const QueryPlan& plan, const std::set<uint32_t>& domains,
                                       const SearchRequest& request) {
  throwIfCancelled();
  DomainHits hits;
  if (plan.empty() || request.limit == 0) return hits;
  std::optional<std::vector<std::string>> keys;
  if (!plan.prefix.empty()) keys = storedScoreKeys(plan.prefix);
  std::optional<std::vector<Candidate>> candidates;
  if (!plan.shortPrefix) candidates = fullTextCandidates(plan, keys.has_value());
  if (!candidates) {
    for (uint32_t domain : domains)
      if (std::vector<IndexedItem> found = searchStoredScore(*keys, domain, request); !found.empty())
        hits[domain] = std::move(found);
    return hits;
  }
  std::map<uint32_t, std::vector<Candidate>> ranked;
  for (Candidate& c : *candidates)
    if (domains.count(c.domain) && !request.excludedBundles.count(c.bundle))
      ranked[c.domain].push_back(std::move(c));
  for (auto& [domain, list] : ranked) {
    const size_t keep = std::min(list.size(), request.limit);
    std::partial_sort(list.begin(), list.begin() + static_cast<std::ptrdiff_t>(keep), list.end());
    for (size_t i = 0; i < keep; ++i) {
      std::optional<IndexedItem> item = itemById(list[i].id);
      if (!item) continue;
      item->rank = list[i].rank;
      hits[domain].push_back(std::move(*item));
    }
  }
  return hits;
}

std::optional<IndexedItem> Index::itemById(int64_t id) {
  Statement s = db_.prepare("SELECT " KX_ITEM_COLUMNS ", 0.0 FROM items i WHERE i.id = ?1");
  s.bind(1, id);
  return firstItem(s);
}

std::optional<IndexedItem> Index::itemByUrl(const std::string& url) {
  Statement s = db_.prepare("SELECT " KX_ITEM_COLUMNS ", 0.0 FROM items i WHERE i.url = ?1 LIMIT 1");
  s.bind(1, url);
  return firstItem(s);
}

std::optional<IndexedItem> Index::itemByIdentifier(const std::string& identifier) {
  Statement s = db_.prepare("SELECT " KX_ITEM_COLUMNS ", 0.0 FROM items i WHERE i.identifier = ?1 "
                            "ORDER BY i.id LIMIT 1");
  s.bind(1, identifier);
  return firstItem(s);
}

std::vector<IndexedItem> Index::recentlyEngaged(size_t limit, const std::set<std::string>& excluded) {
  Statement s = db_.prepare(
      "SELECT " KX_ITEM_COLUMNS ", i.last_engaged FROM items i WHERE i.last_engaged IS NOT NULL "
      "AND i.bundle NOT IN (SELECT value FROM json_each(?1)) "
      "ORDER BY i.last_engaged DESC, i.id LIMIT ?2");
  s.bind(1, ExcludedJson(excluded)).bind(2, static_cast<int64_t>(limit));
  return readItems(s);
}

std::vector<IndexedItem> Index::mostUsedApplications(size_t limit,
                                                     const std::set<std::string>& excluded) {
  Statement s = db_.prepare(
      "SELECT " KX_ITEM_COLUMNS ", i.engagement FROM items i WHERE i.domain = ?1 "
      "AND i.bundle NOT IN (SELECT value FROM json_each(?2)) "
      "ORDER BY i.engagement DESC, i.title, i.id LIMIT ?3");
  s.bind(1, int64_t{kDomainApplications}).bind(2, ExcludedJson(excluded));
  s.bind(3, static_cast<int64_t>(limit));
  return readItems(s);
}

std::map<uint32_t, int64_t> Index::domainCounts() {
  std::map<uint32_t, int64_t> counts;
  Statement s = db_.prepare("SELECT domain, count(*) FROM items GROUP BY domain");
  while (s.step()) counts[static_cast<uint32_t>(s.integer(0))] = s.integer(1);
  return counts;
}

int64_t Index::itemCount() {
  Statement s = db_.prepare("SELECT count(*) FROM items");
  return s.step() ? s.integer(0) : 0;
}

}  // namespace kx::searchd
