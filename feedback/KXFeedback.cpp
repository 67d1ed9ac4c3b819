#include "feedback/KXFeedback.h"

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
