// Decodes arbitrary bytes as an archived feedback record, the way the daemon
// reads one. Whatever decodes must archive again, restore from that archive
// to a record with the same archive, and convert to a server object;
// anything else is a bug.
#include <cmath>
#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <memory>
#include <optional>
#include <span>
#include <vector>

#include "kx/KXFeedback.h"
#include "feedback/feedback_archive.h"
#include "feedback/vnt_records.h"
#include "base/property_list.h"

namespace {

// Equality of archive contents where a NaN equals a NaN (decoded records
// may hold any double). Bytes cannot be compared: the binary encoder may
// share equal data objects in one run and not in another.
bool SameContent(const kx::Value& a, const kx::Value& b) {
  if (a.kind() != b.kind()) return false;
  if (const kx::Number* x = a.number()) {
    const kx::Number* y = b.number();
    if (x->isFloatingPoint() && y->isFloatingPoint() && std::isnan(x->doubleValue())) {
      return std::isnan(y->doubleValue());
    }
    return x->type() == y->type() && *x == *y;
  }
  if (const kx::Array* xs = a.array()) {
    const kx::Array& ys = *b.array();
    if (xs->size() != ys.size()) return false;
    for (size_t i = 0; i < xs->size(); ++i) {
      if (!SameContent((*xs)[i], ys[i])) return false;
    }
    return true;
  }
  if (const kx::Dictionary* xs = a.dictionary()) {
    const kx::Dictionary& ys = *b.dictionary();
    if (xs->size() != ys.size()) return false;
    for (auto x = xs->begin(), y = ys.begin(); x != xs->end(); ++x, ++y) {
      if (x->first != y->first || !SameContent(x->second, y->second)) return false;
    }
    return true;
  }
  return a == b;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  std::shared_ptr<KXFeedback> record = kx::UnarchivedFeedbackWithData(std::span(data, size));
  if (!record) return 0;
  std::optional<std::vector<uint8_t>> bytes = kx::ArchivedFeedbackData(record);
  if (!bytes) std::abort();
  std::shared_ptr<KXFeedback> again = kx::UnarchivedFeedbackWithData(*bytes);
  if (!again) std::abort();
  std::optional<std::vector<uint8_t>> bytesAgain = kx::ArchivedFeedbackData(again);
  if (!bytesAgain || !SameContent(kx::DecodeBinaryPropertyList(*bytes).value,
                                  kx::DecodeBinaryPropertyList(*bytesAgain).value)) {
    std::abort();
  }
  const VNTSession session(0.0, 1);
  record->vantleFeedbackFromSession(session);
  return 0;
}
