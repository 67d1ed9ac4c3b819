#include "kx/KXFeedback.h"

#include "kx/format.h"
#include "kx/KXSearchResult.h"
#include "kx/KXSearchResultSection.h"
#include "feedback/coded_fields.h"

KXFeedback::KXFeedback() : timestamp_(kx::Date::Now().secondsSinceReferenceDate) {}

std::span<const kx::FieldSpec<KXFeedback>> KXFeedback::CodedFields() {
  using F = KXFeedback;
  using kx::Field;
  static const kx::FieldSpec<F> kFields[] = {
      Field<&F::timestamp, &F::setTimestamp>("timestamp"),
      Field<&F::identifier, &F::setIdentifier>("identifier"),
      Field<&F::bundleID, &F::setBundleID>("bundleID", kx::kOmitWhenEmpty),
      Field<&F::protectionClass, &F::setProtectionClass>("protectionClass", kx::kOmitWhenEmpty),
      Field<&F::externalIdentifier, &F::setExternalIdentifier>("externalIdentifier",
                                                                kx::kOmitWhenEmpty),
      Field<&F::domain, &F::setDomain>("domain"),
      Field<&F::input, &F::setInput>("input"),
      Field<&F::results, &F::setResults>("results"),
      Field<&F::fbq, &F::setFbq>("fbq"),
      Field<&F::web_fbq, &F::setWeb_fbq>("web_fbq"),
      Field<&F::predictionIdentifier, &F::setPredictionIdentifier>("predictionIdentifier"),
      Field<&F::resultSetIdentifier, &F::setResultSetIdentifier>("resultSetIdentifier"),
      Field<&F::keyboardLanguage, &F::setKeyboardLanguage>("keyboardLanguage"),
      Field<&F::geoUserSessionIDString, &F::setGeoUserSessionIDString>("geoUserSessionIDString"),
      Field<&F::geoUserSequenceNumber, &F::setGeoUserSequenceNumber>("geoUserSequenceNumber"),
      Field<&F::geoUserSessionStartTime, &F::setGeoUserSessionStartTime>(
          "geoUserSessionStartTime"),
      Field<&F::geoPlaceData, &F::setGeoPlaceData>("geoPlaceData"),
  };
  return kFields;
}

namespace kx {

namespace {

// Server properties of a result are plain values; only strings are taken.
std::optional<std::string> StringValue(const Value& value) {
  if (const std::string* s = value.string()) return *s;
  return std::nullopt;
}

}  // namespace

void FillFeedbackFromSearchResult(KXFeedback& record, const KXSearchResult& result,
                                  const KXSearchResultSection& section) {
  record.setIdentifier(Format("%llu", result.identifier()));
  // The server may name the owning bundle itself.
  std::optional<std::string> bundleID = StringValue(result.valueForUndefinedKey("bundle_id"));
  record.setBundleID(bundleID ? bundleID : result.bundleID());
  record.setProtectionClass(result.protectionClass());
  record.setExternalIdentifier(result.externalIdentifier());
  record.setFbq(StringValue(result.fbq()));
  const uint32_t domain =
      result.hasSearchResultDomain() ? result.searchResultDomain() : section.domain();
  record.setDomain(domain);
  record.setPredictionIdentifier(result.predictionIdentifier());
  record.setResultSetIdentifier(section.resultSetIdentifier());

  auto feedbackResult = std::make_shared<KXFeedbackResult>();
  feedbackResult->setDomain(domain);
  feedbackResult->setFlags(section.flags());
  feedbackResult->setFbr(StringValue(result.valueForUndefinedKey("fbr")));
  // A top hit is whatever the top-hits section shows, whatever the result's
  // own domain.
  feedbackResult->setTopHit(section.domain() == 0);
  feedbackResult->setActivitybundleID(record.bundleID());
  feedbackResult->setHasAssociatedUserActivity(result.hasAssociatedUserActivity());
  feedbackResult->setActivityIsPublic(result.userActivityEligibleForPublicIndexing());
  if (result.userActivityRequiredString()) {
    feedbackResult->setActivitybundleID(result.bundleID());
    feedbackResult->setActivityIdentifier(result.externalIdentifier());
    feedbackResult->setActivityRequiredString(result.userActivityRequiredString());
    feedbackResult->setActivitySecondaryString(result.userActivitySecondaryString());
    feedbackResult->setActivityData(result.userActivityData());
    feedbackResult->setActivityTitle(result.title());
    feedbackResult->setActivityType(result.userActivityType());
  }
  feedbackResult->setUrl(result.url());
  record.setResults(KXFeedback::ResultList{std::move(feedbackResult)});
}

}  // namespace kx
