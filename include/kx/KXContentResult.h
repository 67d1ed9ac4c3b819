// KXContentResult: a result donated by a client, carrying the external
// identifier of the donated item and its searchable text.
//
// Both added fields live in memory only: they are never encoded, so a
// content result read back from the wire is a plain KXSearchResult, and
// copy() gives a KXContentResult without them.
#pragma once

#include "kx/export.h"

#include <memory>
#include <optional>
#include <string>

#include "kx/KXSearchResult.h"

class KX_EXPORT KXContentResult : public KXSearchResult {
 public:
  KXContentResult();
  ~KXContentResult() override;

  // A content result holding the copyTo fields of `result`, then `extid`
  // and `content`.
  static std::shared_ptr<KXContentResult> resultWithSearchResult(
      const KXSearchResult& result, std::optional<std::string> extid,
      std::optional<std::string> content);
  // A content result with `extid` and `title` set as given (absent too); the
  // subtitle, summary and auxiliary lines only when present; `url` from the
  // action URL string and `content` as given.
  static std::shared_ptr<KXContentResult> resultWithIdentifier(
      std::optional<std::string> extid, std::optional<std::string> title,
      std::optional<std::string> subtitle, std::optional<std::string> summary,
      std::optional<std::string> auxiliaryTitle, std::optional<std::string> auxiliarySubtitle,
      std::optional<std::string> actionURL, std::optional<std::string> content);

  std::string className() const override { return "KXContentResult"; }

  const std::optional<std::string>& extid() const { return extid_; }
  void setExtid(std::optional<std::string> v) { extid_ = std::move(v); }
  const std::optional<std::string>& content() const { return content_; }
  void setContent(std::optional<std::string> v) { content_ = std::move(v); }

  // A KXContentResult with the fields of KXSearchResult::copy; extid and
  // content are not carried.
  std::shared_ptr<KXSearchResult> copy() const override;

 private:
  std::optional<std::string> extid_;
  std::optional<std::string> content_;
};
