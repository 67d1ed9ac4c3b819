#include "searchd/query_request.h"

#include <algorithm>

namespace kx::searchd {

std::optional<QueryRequest> ReadQueryRequest(const Value& info) {
  if (!info.dictionary()) return std::nullopt;
  const Number* qid = info["QID"].number();
  if (!qid) return std::nullopt;
  QueryRequest request;
  request.queryID = qid->uint32Value();
  if (const std::string* text = info["QS"].string()) request.text = *text;
  if (const std::string* language = info["KL"].string()) request.language = *language;
  if (const Array* domains = info["DA"].array()) {
    request.domains.emplace();
    for (const Value& d : *domains)
      if (const Number* n = d.number()) request.domains->insert(n->uint32Value());
  }
  if (const Array* bundles = info["BA"].array())
    for (const Value& b : *bundles)
      if (const std::string* s = b.string()) request.excludedBundles.insert(*s);
  if (const Number* count = info["QC"].number(); count && count->int64Value() > 0)
    request.maxCount = std::min<size_t>(static_cast<size_t>(count->int64Value()), kMaxCountCeiling);
  return request;
}

}  // namespace kx::searchd
