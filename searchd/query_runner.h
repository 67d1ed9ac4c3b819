// Runs one query against the index and the calculator and hands the
// results out in batches of sections.
//
// Batches: the calculator answers from the text alone and goes first, in a
// batch of its own. Under the stored-score rule the index domains then run
// from the smallest to the largest (the order the caller passes) and the
// first domain with results is sent at once, so the first non-empty batch
// waits only for the cheapest work; everything after it goes out in one
// final batch. The full-text rule makes one pass over the matches for all
// domains (answers remembered in a ResultCache) and sends one batch with
// the sections in the caller's order. An empty text is the zero-keyword query:
// recently engaged items, then the most used applications, each a batch of
// one domain-22 section.
#pragma once

#include <atomic>
#include <functional>
#include <memory>
#include <vector>

#include "kx/KXSearchResult.h"
#include "kx/KXSearchResultSection.h"
#include "searchd/index.h"
#include "searchd/query_request.h"

namespace kx::searchd {

using Sections = std::vector<std::shared_ptr<KXSearchResultSection>>;
// Sends one batch; returns false when the query was cancelled meanwhile.
using BatchSink = std::function<bool(const Sections&)>;

// The result the client sees for an indexed item; the title in the
// keyboard language when the item has one ("de_DE" falls back to "de").
std::shared_ptr<KXSearchResult> MakeResult(const IndexedItem& hit, const std::string& language);

// Runs `request`. Returns false when it was cancelled (by the sink or by an
// interrupted statement); true when every batch went out. SQLite errors
// other than an interruption propagate.
bool RunQuery(Index& index, const std::vector<uint32_t>& domainOrder, const QueryRequest& request,
              const BatchSink& sink);

}  // namespace kx::searchd
