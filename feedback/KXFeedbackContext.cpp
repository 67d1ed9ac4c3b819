#include "kx/KXFeedbackContext.h"
#include "feedback/coded_fields.h"

std::span<const kx::FieldSpec<KXFeedbackContext>> KXFeedbackContext::CodedFields() {
  using C = KXFeedbackContext;
  using kx::Field;
  static const kx::FieldSpec<C> kFields[] = {
      Field<&C::start_ts, &C::setStart_ts>("start_ts", kx::kAsInteger),
      Field<&C::start_method, &C::setStart_method>("start_method", kx::kUnrestricted),
      Field<&C::last_search, &C::setLast_search>("last_search", kx::kUnrestricted),
  };
  return kFields;
}
