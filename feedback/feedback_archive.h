// Feedback records in keyed archives.
//
// Records travel with the plain keyed archiver (they are not in the secure
// archiving allowed set). Decoding runs in plain mode, where the unarchiver
// enforces no class restrictions; the records check the class of every
// field themselves (feedback/coded_fields.h) and the root must be a
// feedback record.
#pragma once

#include <cstdint>
#include <memory>
#include <optional>
#include <span>
#include <vector>

#include "support/archivable.h"

class KXFeedback;

namespace kx {

// Registers every feedback record class (KXFeedback and its subclasses,
// KXFeedbackResult, KXFeedbackSpeechResult) with the archive class
// registry. Once per process; any thread. A process must call it (directly
// or through UnarchivedFeedbackWithData) before decoding feedback.
void RegisterFeedbackClasses();

// The plain keyed archive of `record` under "root"; nothing when the record
// holds a value that cannot be archived.
std::optional<std::vector<uint8_t>> ArchivedFeedbackData(const std::shared_ptr<KXFeedback>& record);

// The feedback record under "root" of `data`; null (logged at level 3) when
// the data is damaged, a field holds a class it does not admit, or the root
// is not a feedback record. Registers the classes first.
std::shared_ptr<KXFeedback> UnarchivedFeedbackWithData(std::span<const uint8_t> data);

}  // namespace kx
