#include "kx/KXFeedbackResult.h"
#include "feedback/coded_fields.h"

std::span<const kx::FieldSpec<KXFeedbackResult>> KXFeedbackResult::CodedFields() {
  using R = KXFeedbackResult;
  using kx::Field;
  static const kx::FieldSpec<R> kFields[] = {
      Field<&R::domain, &R::setDomain>("domain"),
      Field<&R::flags, &R::setFlags>("flags"),
      Field<&R::fbr, &R::setFbr>("fbr"),
      Field<&R::activitybundleID, &R::setActivitybundleID>("activitybundleID"),
      Field<&R::activityIdentifier, &R::setActivityIdentifier>("activityIdentifier"),
      Field<&R::activityRequiredString, &R::setActivityRequiredString>("activityRequiredString"),
      Field<&R::activityTitle, &R::setActivityTitle>("activityTitle"),
      Field<&R::activityIsPublic, &R::setActivityIsPublic>("activityIsPublic"),
      Field<&R::activitySecondaryString, &R::setActivitySecondaryString>(
          "activitySecondaryString"),
      Field<&R::activityData, &R::setActivityData>("activityData"),
      Field<&R::topHit, &R::setTopHit>("topHit"),
      Field<&R::activityType, &R::setActivityType>("activityType"),
      Field<&R::hasAssociatedUserActivity, &R::setHasAssociatedUserActivity>(
          "hasAssociatedUserActivity"),
      Field<&R::lastSearchQuery, &R::setLastSearchQuery>("lastSearchQuery"),
      Field<&R::url, &R::setUrl>("url"),
  };
  return kFields;
}
