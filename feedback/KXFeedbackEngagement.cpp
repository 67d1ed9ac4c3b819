#include "kx/KXFeedbackEngagement.h"
#include "feedback/coded_fields.h"

std::span<const kx::FieldSpec<KXFeedbackEngagement>> KXFeedbackEngagement::CodedFields() {
  using E = KXFeedbackEngagement;
  using kx::Field;
  static const kx::FieldSpec<E> kFields[] = {
      Field<&E::userReturnedToResultsList, &E::setUserReturnedToResultsList>(
          "userReturnedToResultsList"),
      Field<&E::engagementOnCard, &E::setEngagementOnCard>("engagementOnCard"),
      Field<&E::cardType, &E::setCardType>("cardType", kx::kUnrestricted),
      Field<&E::action_destination, &E::setAction_destination>("action_destination",
                                                                kx::kUnrestricted),
      Field<&E::lastSearchQuery, &E::setLastSearchQuery>("lastSearchQuery", kx::kUnrestricted),
      Field<&E::displayPosition, &E::setDisplayPosition>("displayPosition"),
      Field<&E::resultScore, &E::setResultScore>("resultScore"),
      Field<&E::sectionScore, &E::setSectionScore>("sectionScore"),
      Field<&E::actionTarget, &E::setActionTarget>("actionTarget", kx::kUnrestricted),
  };
  return kFields;
}

std::span<const kx::FieldSpec<KXFeedbackEngagementMaps>> KXFeedbackEngagementMaps::CodedFields() {
  using M = KXFeedbackEngagementMaps;
  static const kx::FieldSpec<M> kFields[] = {
      kx::Field<&M::feedbackType, &M::setFeedbackType>("maps_feedback_type"),
  };
  return kFields;
}
