#include "feedback/feedback_archive.h"

#include <exception>
#include <mutex>

#include "kx/KXFeedback.h"
#include "kx/KXFeedbackContext.h"
#include "kx/KXFeedbackEngagement.h"
#include "kx/KXFeedbackRender.h"
#include "kx/KXFeedbackResult.h"
#include "kx/KXFeedbackSearch.h"
#include "kx/KXFeedbackSpeechResult.h"
#include "kx/KXFeedbackVoiceSearch.h"
#include "kx/log.h"
#include "support/keyed_archive_format.h"
#include "support/keyed_archiver.h"
#include "support/keyed_unarchiver.h"

namespace kx {

namespace {

template <class T>
void Register(std::string superclass = {}) {
  RegisterArchivableClass<T>(T::kClassName, std::move(superclass));
}

}  // namespace

void RegisterFeedbackClasses() {
  static std::once_flag once;
  std::call_once(once, [] {
    Register<KXFeedback>();
    Register<KXFeedbackSearch>(KXFeedback::kClassName);
    Register<KXFeedbackVoiceSearch>(KXFeedback::kClassName);
    Register<KXFeedbackRender>(KXFeedback::kClassName);
    Register<KXFeedbackEngagement>(KXFeedback::kClassName);
    Register<KXFeedbackEngagementMaps>(KXFeedbackEngagement::kClassName);
    Register<KXFeedbackAbandonment>(KXFeedback::kClassName);
    Register<KXFeedbackContext>(KXFeedback::kClassName);
    Register<KXFeedbackResult>();
    Register<KXFeedbackSpeechResult>();
  });
}

std::optional<std::vector<uint8_t>> ArchivedFeedbackData(
    const std::shared_ptr<KXFeedback>& record) {
  return KeyedArchiver::ArchivedDataWithRootObject(Value(ObjectRef(record)));
}

std::shared_ptr<KXFeedback> UnarchivedFeedbackWithData(std::span<const uint8_t> data) {
  RegisterFeedbackClasses();
  try {
    KeyedUnarchiver unarchiver(data);
    Value root =
        unarchiver.decodeObjectOfClass(KXFeedback::kClassName, archive_format::kRootKey);
    unarchiver.finishDecoding();
    if (unarchiver.failed()) {
      KXLOG(3, "feedback archive does not decode: %s", unarchiver.error());
      return nullptr;
    }
    std::shared_ptr<KXFeedback> record = root.objectAs<KXFeedback>();
    if (!record) {
      KXLOG(3, "feedback archive holds %s, not a feedback record",
            root.isNil() ? std::string("nothing") : ArchiveClassNameOf(root));
    }
    return record;
  } catch (const std::exception& e) {
    KXLOG(3, "feedback archive does not decode: %s", e.what());
    return nullptr;
  }
}

}  // namespace kx
