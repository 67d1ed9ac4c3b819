#include "searchd/query_request.h"

#include <algorithm>

namespace kx::searchd {

std::optional<QueryRequest> ReadQueryRequest(const Value& info) {
  if (!info.dictionary()) return std::nullopt;
  const Number* qid = info["QID"].number();
  if (!qid) return std::nullopt;
  QueryRequest request;
  request.queryID = qid->uint32Value();
  const std::string* text = info["QS"].string();
  const Array* domains = info["DA"].array();
  const Array* bundles = info["BA"].array();
  if (text && text->size() > kMaxQueryTextBytes) {
    request.refusal = "text of " + std::to_string(text->size()) + " bytes";
  } else if (domains && domains->size() > kMaxQueryDomains) {
    request.refusal = std::to_string(domains->size()) + " domains";
  } else if (bundles && bundles->size() > kMaxExcludedBundles) {
    request.refusal = std::to_string(bundles->size()) + " excluded bundles";
  }
  if (!request.refusal.empty()) return request;
  if (text) request.text = *text;
  // A language tag or bundle identifier longer than any real one matches
  // nothing, so it is ignored rather than copied.
  if (const std::string* language = info["KL"].string(); language && language->size() <= kMaxNameBytes)
    request.language = *language;
  if (domains) {
    request.domains.emplace();
    for (const Value& d : *domains)
      if (const Number* n = d.number()) request.domains->insert(n->uint32Value());
  }
  if (bundles)
    for (const Value& b : *bundles)
      if (const std::string* s = b.string(); s && s->size() <= kMaxNameBytes) request.excludedBundles.insert(*s);
  if (const Number* count = info["QC"].number(); count && count->int64Value() > 0)
    request.maxCount = std::min<size_t>(static_cast<size_t>(count->int64Value()), kMaxCountCeiling);
  return request;
}

}  // namespace kx::searchd
