#include "kx/KXContentResult.h"

KXContentResult::KXContentResult() = default;
KXContentResult::~KXContentResult() = default;

std::shared_ptr<KXContentResult> KXContentResult::resultWithSearchResult(
    const KXSearchResult& result, std::optional<std::string> extid,
    std::optional<std::string> content) {
  auto r = std::make_shared<KXContentResult>();
  result.copyTo(*r);
  r->setExtid(std::move(extid));
  r->setContent(std::move(content));
  return r;
}

std::shared_ptr<KXContentResult> KXContentResult::resultWithIdentifier(
    std::optional<std::string> extid, std::optional<std::string> title,
    std::optional<std::string> subtitle, std::optional<std::string> summary,
    std::optional<std::string> auxiliaryTitle, std::optional<std::string> auxiliarySubtitle,
    std::optional<std::string> actionURL, std::optional<std::string> content) {
  auto r = std::make_shared<KXContentResult>();
  r->setExtid(std::move(extid));
  r->setTitle(std::move(title));
  if (subtitle) r->setSubtitle(std::move(subtitle));
  if (summary) r->setSummary(std::move(summary));
  if (auxiliaryTitle) r->setAuxiliaryTitle(std::move(auxiliaryTitle));
  if (auxiliarySubtitle) r->setAuxiliarySubtitle(std::move(auxiliarySubtitle));
  r->setUrl(std::move(actionURL));
  r->setContent(std::move(content));
  return r;
}

std::shared_ptr<KXSearchResult> KXContentResult::copy() const {
  auto r = std::make_shared<KXContentResult>();
  copyFieldsForCopy(*r);
  return r;
}
