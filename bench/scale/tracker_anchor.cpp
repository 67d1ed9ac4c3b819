#include "bench/scale/tracker_anchor.h"

#include <gio/gio.h>
#include <libtracker-sparql/tracker-sparql.h>

#include <cstdio>

namespace kx::bench {
namespace {

constexpr size_t kItemsPerUpdate = 500;

std::string Literal(const std::string& text) {
  gchar* escaped = tracker_sparql_escape_string(text.c_str());
  std::string literal = std::string("\"") + escaped + "\"";
  g_free(escaped);
  return literal;
}

bool Report(GError* error, const char* what) {
  if (!error) return true;
  std::fprintf(stderr, "tracker: %s: %s\n", what, error->message);
  g_error_free(error);
  return false;
}

}  // namespace

struct TrackerAnchor::State {
  TrackerSparqlConnection* connection = nullptr;
  TrackerSparqlStatement* query = nullptr;
  ~State() {
    if (query) g_object_unref(query);
    if (connection) {
      tracker_sparql_connection_close(connection);
      g_object_unref(connection);
    }
  }
};

TrackerAnchor::TrackerAnchor(std::unique_ptr<State> state) : state_(std::move(state)) {}
TrackerAnchor::~TrackerAnchor() = default;

std::unique_ptr<TrackerAnchor> TrackerAnchor::Create(const std::string& directory) {
  auto state = std::make_unique<State>();
  GFile* store = g_file_new_for_path(directory.c_str());
  GFile* ontology = tracker_sparql_get_ontology_nepomuk();
  GError* error = nullptr;
  // Unaccented like our index, so that the same prefixes find the same words.
  state->connection = tracker_sparql_connection_new(TRACKER_SPARQL_CONNECTION_FLAGS_FTS_ENABLE_UNACCENT,
                                                    store, ontology, nullptr, &error);
  g_object_unref(store);
  g_object_unref(ontology);
  if (!Report(error, "cannot open a store")) return nullptr;
  state->query = tracker_sparql_connection_query_statement(
      state->connection,
      "SELECT ?id WHERE { ?u fts:match ~match ; nie:generator ~domain ; nie:identifier ?id } "
      "ORDER BY DESC(fts:rank(?u)) LIMIT ~limit",
      nullptr, &error);
  if (!Report(error, "cannot prepare the query")) return nullptr;
  return std::unique_ptr<TrackerAnchor>(new TrackerAnchor(std::move(state)));
}

bool TrackerAnchor::insert(const std::vector<kx::searchd::Item>& items) {
  for (size_t start = 0; start < items.size(); start += kItemsPerUpdate) {
    std::string update = "INSERT DATA {\n";
    for (size_t i = start; i < std::min(items.size(), start + kItemsPerUpdate); ++i) {
      const kx::searchd::Item& item = items[i];
      update += "<urn:kx:" + item.identifier + "> a nfo:Document ; nie:identifier " + Literal(item.identifier) +
                " ; nie:generator " + Literal(std::to_string(item.domain)) + " ; nie:title " + Literal(item.title);
      if (!item.keywords.empty()) update += " ; nie:keyword " + Literal(item.keywords);
      if (!item.body.empty()) update += " ; nie:plainTextContent " + Literal(item.body);
      update += " .\n";
    }
    update += "}";
    GError* error = nullptr;
    tracker_sparql_connection_update(state_->connection, update.c_str(), nullptr, &error);
    if (!Report(error, "update failed")) return false;
  }
  return true;
}

std::optional<std::vector<std::string>> TrackerAnchor::search(const std::string& prefix,
                                                              const std::vector<uint32_t>& domains, int limit) {
  std::vector<std::string> ids;
  const std::string match = prefix + "*";
  for (uint32_t domain : domains) {
    tracker_sparql_statement_bind_string(state_->query, "match", match.c_str());
    tracker_sparql_statement_bind_string(state_->query, "domain", std::to_string(domain).c_str());
    tracker_sparql_statement_bind_int(state_->query, "limit", limit);
    GError* error = nullptr;
    TrackerSparqlCursor* cursor = tracker_sparql_statement_execute(state_->query, nullptr, &error);
    if (!Report(error, "query failed")) return std::nullopt;
    while (tracker_sparql_cursor_next(cursor, nullptr, &error))
      ids.emplace_back(tracker_sparql_cursor_get_string(cursor, 0, nullptr));
    g_object_unref(cursor);
    if (!Report(error, "cursor failed")) return std::nullopt;
  }
  return ids;
}

}  // namespace kx::bench
