#include "kx/KXFeedbackSearch.h"
#include "feedback/coded_fields.h"

std::shared_ptr<KXFeedbackSearch> KXFeedbackSearch::feedbackForQueryId(
    std::optional<kx::Number> queryId) {
  std::shared_ptr<KXFeedbackSearch> record = feedback();
  record->setQueryId(queryId);
  return record;
}

std::span<const kx::FieldSpec<KXFeedbackSearch>> KXFeedbackSearch::CodedFields() {
  using S = KXFeedbackSearch;
  static const kx::FieldSpec<S> kFields[] = {
      kx::Field<&S::queryId, &S::setQueryId>("queryId"),
  };
  return kFields;
}

std::span<const kx::FieldSpec<KXFeedbackAbandonment>> KXFeedbackAbandonment::CodedFields() {
  using A = KXFeedbackAbandonment;
  static const kx::FieldSpec<A> kFields[] = {
      kx::Field<&A::reason, &A::setReason>("reason"),
  };
  return kFields;
}
