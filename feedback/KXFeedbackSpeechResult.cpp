#include "kx/KXFeedbackSpeechResult.h"
#include "feedback/coded_fields.h"

std::span<const kx::FieldSpec<KXFeedbackSpeechResult>> KXFeedbackSpeechResult::CodedFields() {
  using S = KXFeedbackSpeechResult;
  using kx::Field;
  static const kx::FieldSpec<S> kFields[] = {
      Field<&S::text, &S::setText>("text"),
      Field<&S::stable, &S::setStable>("stable"),
      Field<&S::timestamp, &S::setTimestamp>("timestamp"),
      Field<&S::webResultsSize, &S::setWebResultsSize>("webResultsSize"),
      Field<&S::skylumeResultsSize, &S::setSkylumeResultsSize>("skylumeResultsSize"),
  };
  return kFields;
}
