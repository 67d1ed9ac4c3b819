#include "kx/KXFeedbackRender.h"
#include "feedback/coded_fields.h"

std::span<const kx::FieldSpec<KXFeedbackRender>> KXFeedbackRender::CodedFields() {
  using R = KXFeedbackRender;
  using kx::Field;
  static const kx::FieldSpec<R> kFields[] = {
      Field<&R::triggerTimestamp, &R::setTriggerTimestamp>("trigger_timestamp"),
      Field<&R::hiddentExtResults, &R::setHiddentExtResults>("hiddentExtResults"),
      Field<&R::leftOfHome, &R::setLeftOfHome>("leftOfHome"),
      Field<&R::sections, &R::setSections>("sections"),
  };
  return kFields;
}
