// Feedback records: what the user did with search (which query ran, which
// results were shown, which one was engaged with, whether dictation was used
// or the search abandoned, how the search surface was started). A search
// surface makes one record per event and hands it to the daemon connection,
// which archives it with the plain keyed archiver and sends it to the
// daemon; the daemon turns it into the server's feedback object.
//
// KXFeedback is the root of the record classes and holds what they share.
// Records are value objects with fixed coder keys; a restored record keeps
// the archived `timestamp`. Each class's keys are listed in its table in the
// .cpp; see feedback/coded_fields.h for how fields are coded and checked.
//
// Threads: a record belongs to the thread that builds it until it is handed
// over; the fields documented as atomic may be touched from any thread.
#pragma once

#include "kx/export.h"

#include <cstdint>
#include <memory>
#include <optional>
#include <span>
#include <string>
#include <string_view>
#include <vector>

#include "kx/KXFeedbackResult.h"
#include "kx/feedback_coding.h"
#include "kx/value.h"

class KXSearchResult;
class KXSearchResultSection;
class VNTFeedback;
class VNTSession;
class KXFeedback;

namespace kx {

struct VNTFeedbackClass;

// Fills `record` from a result and the section that holds it (the steps of
// feedbackForSearchResult after the record is made).
KX_EXPORT void FillFeedbackFromSearchResult(KXFeedback& record, const KXSearchResult& result,
                                  const KXSearchResultSection& section);

// Adds the factories every feedback class has, making records of `Self`.
template <class Self, class Base>
class FeedbackClass : public Coded<Self, Base> {
 public:
  // A record of `Self` filled from `result` and its `section`: identifier,
  // bundle and protection data, feedback tokens, domain, result set, and one
  // KXFeedbackResult in `results`. Input, keyboard language, the web token,
  // geo fields and the class's own fields are left to the caller.
  static std::shared_ptr<Self> feedbackForSearchResult(const KXSearchResult& result,
                                                       const KXSearchResultSection& section) {
    std::shared_ptr<Self> record = Self::feedback();
    FillFeedbackFromSearchResult(*record, result, section);
    return record;
  }
};

}  // namespace kx

class KX_EXPORT KXFeedback : public kx::FeedbackClass<KXFeedback, kx::CodedRoot> {
 public:
  static constexpr const char* kClassName = "KXFeedback";
  using ResultList = std::vector<std::shared_ptr<KXFeedbackResult>>;

  // Stamps `timestamp` with the current time. Decoding replaces the stamp
  // with the archived one.
  KXFeedback();

  // The search domain of the result concerned.
  uint32_t domain() const { return domain_; }
  void setDomain(uint32_t v) { domain_ = v; }
  // Creation time, seconds since 2001-01-01 00:00:00 UTC. Read-only.
  double timestamp() const { return timestamp_; }
  // The result's identifier as decimal text.
  const std::optional<std::string>& identifier() const { return identifier_; }
  void setIdentifier(std::optional<std::string> v) { identifier_ = std::move(v); }
  // The next three leave no key in the archive when absent or empty, so an
  // empty string is restored as absent.
  const std::optional<std::string>& bundleID() const { return bundleID_; }
  void setBundleID(std::optional<std::string> v) { bundleID_ = std::move(v); }
  const std::optional<std::string>& externalIdentifier() const { return externalIdentifier_; }
  void setExternalIdentifier(std::optional<std::string> v) { externalIdentifier_ = std::move(v); }
  const std::optional<std::string>& protectionClass() const { return protectionClass_; }
  void setProtectionClass(std::optional<std::string> v) { protectionClass_ = std::move(v); }
  // The query text the user had typed.
  const std::optional<std::string>& input() const { return input_; }
  void setInput(std::optional<std::string> v) { input_ = std::move(v); }
  const std::optional<ResultList>& results() const { return results_; }
  void setResults(std::optional<ResultList> v) { results_ = std::move(v); }
  // Server feedback tokens of the query and of the web query.
  const std::optional<std::string>& fbq() const { return fbq_; }
  void setFbq(std::optional<std::string> v) { fbq_ = std::move(v); }
  const std::optional<std::string>& web_fbq() const { return web_fbq_; }
  void setWeb_fbq(std::optional<std::string> v) { web_fbq_ = std::move(v); }
  const std::optional<std::string>& predictionIdentifier() const { return predictionIdentifier_; }
  void setPredictionIdentifier(std::optional<std::string> v) {
    predictionIdentifier_ = std::move(v);
  }
  const std::optional<std::string>& resultSetIdentifier() const { return resultSetIdentifier_; }
  void setResultSetIdentifier(std::optional<std::string> v) {
    resultSetIdentifier_ = std::move(v);
  }
  const std::optional<std::string>& keyboardLanguage() const { return keyboardLanguage_; }
  void setKeyboardLanguage(std::optional<std::string> v) { keyboardLanguage_ = std::move(v); }
  // Map service user session.
  const std::optional<std::string>& geoUserSessionIDString() const {
    return geoUserSessionIDString_;
  }
  void setGeoUserSessionIDString(std::optional<std::string> v) {
    geoUserSessionIDString_ = std::move(v);
  }
  uint32_t geoUserSequenceNumber() const { return geoUserSequenceNumber_; }
  void setGeoUserSequenceNumber(uint32_t v) { geoUserSequenceNumber_ = v; }
  double geoUserSessionStartTime() const { return geoUserSessionStartTime_; }
  void setGeoUserSessionStartTime(double v) { geoUserSessionStartTime_ = v; }
  const std::optional<kx::Array>& geoPlaceData() const { return geoPlaceData_; }
  void setGeoPlaceData(std::optional<kx::Array> v) { geoPlaceData_ = std::move(v); }

  // Server encoding (vantle_encoding.cpp).
  // The server feedback object for this record, or null. The root class has
  // none, so a record of the root class never reaches the server.
  virtual std::shared_ptr<VNTFeedback> vantleFeedbackFromSession(const VNTSession& session) const;
  // An object of `cls` made from `input` and the milliseconds from the
  // session start to `timestamp`, with this record's keyboard language.
  virtual std::shared_ptr<VNTFeedback> vantleFeedbackFromSession(
      const VNTSession& session, const kx::VNTFeedbackClass& cls) const;
  // "lah:<activitybundleID>" plus "/public" for a public activity, marked as
  // a top hit when the result is one. `attributes` is not used.
  static std::optional<std::string> localResultActivityStringFromResult(
      const KXFeedbackResult& result, const std::optional<kx::Dictionary>& attributes);
  // SHA-1 of the UTF-8 bytes as 40 lower-case hexadecimal digits; empty
  // only if the digest cannot be computed (logged).
  static std::string sha1(std::string_view string);
  // JSON summary of the result's activity and selected content attributes;
  // absent without attributes or when the attributes cannot be written as
  // JSON (logged as "Error serializing contentAttributes").
  static std::optional<std::string> serializedActivityInfoWithResult(
      const KXFeedbackResult& result, const std::optional<kx::Dictionary>& attributes);

 private:
  friend class kx::Coded<KXFeedback, kx::CodedRoot>;
  static std::span<const kx::FieldSpec<KXFeedback>> CodedFields();
  void setTimestamp(double v) { timestamp_ = v; }

  uint32_t domain_ = 0;
  double timestamp_;
  std::optional<std::string> identifier_;
  std::optional<std::string> bundleID_;
  std::optional<std::string> externalIdentifier_;
  std::optional<std::string> protectionClass_;
  std::optional<std::string> input_;
  std::optional<ResultList> results_;
  std::optional<std::string> fbq_;
  std::optional<std::string> web_fbq_;
  std::optional<std::string> predictionIdentifier_;
  std::optional<std::string> resultSetIdentifier_;
  std::optional<std::string> keyboardLanguage_;
  std::optional<std::string> geoUserSessionIDString_;
  uint32_t geoUserSequenceNumber_ = 0;
  double geoUserSessionStartTime_ = 0;
  std::optional<kx::Array> geoPlaceData_;
};
