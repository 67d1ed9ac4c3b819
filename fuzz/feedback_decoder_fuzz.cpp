// Decodes arbitrary bytes as an archived feedback record, the way the daemon
// reads one. Whatever decodes must archive again, restore from that archive
// to a record that archives to the same bytes, and convert to a server
// object; anything else is a bug.
#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <memory>
#include <optional>
#include <span>
#include <vector>

#include "feedback/KXFeedback.h"
#include "feedback/feedback_archive.h"
#include "feedback/vnt_records.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  std::shared_ptr<KXFeedback> record = kx::UnarchivedFeedbackWithData(std::span(data, size));
  if (!record) return 0;
  std::optional<std::vector<uint8_t>> bytes = kx::ArchivedFeedbackData(record);
  if (!bytes) std::abort();
  std::shared_ptr<KXFeedback> again = kx::UnarchivedFeedbackWithData(*bytes);
  if (!again || kx::ArchivedFeedbackData(again) != bytes) std::abort();
  const VNTSession session(0.0, 1);
  record->vantleFeedbackFromSession(session);
  return 0;
}
