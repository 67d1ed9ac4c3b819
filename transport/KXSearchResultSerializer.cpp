#include "kx/KXSearchResultSerializer.h"

#include <cstdlib>
#include <cstring>
#include <limits>
#include <typeinfo>

#include "kx/assert.h"
#include "kx/exception.h"
#include "kx/log.h"
#include "kx/search_domains.h"
#include "kx/KXSearchResult.h"
#include "kx/KXSearchResultSection.h"
#include "kx/WireWriter.h"
#include "platform/message/shared_memory.h"
#include "kx/KXSearchResultProtocol.h"

namespace {

// An empty stream still gets a region, so that the message layer always has
// something to attach.
constexpr size_t kEmptyStreamCapacity = 8192;

// A result whose flags carry this bit absorbs the score of an equivalent
// duplicate appended after it: the duplicate is still dropped, but the kept
// result's score becomes the OR of both scores and kMergedScoreBit.
constexpr int32_t kMergesDuplicateScoresFlag = 0x20;
constexpr uint64_t kMergedScoreBit = 0x40000000;

// A foreign result that shows a badge is marked with this flag.
constexpr int32_t kBadgeFlag = 2;

size_t CapacityFor(size_t length) {
  return length == 0 ? kEmptyStreamCapacity : kx::RoundToPages(length);
}

}  // namespace

std::shared_ptr<KXSearchResultSerializer> KXSearchResultSerializer::init() {
  throw kx::InternalInconsistencyException(
      "should never call -init on KXSearchResultSerializer");
}

std::shared_ptr<KXSearchResultSerializer> KXSearchResultSerializer::initWithInitialCapacity(
    uint32_t /*capacity*/, bool inProc) {
  return std::shared_ptr<KXSearchResultSerializer>(new KXSearchResultSerializer(inProc));
}

KXSearchResultSerializer::KXSearchResultSerializer(bool inProc) : inProc_(inProc) {}

KXSearchResultSerializer::~KXSearchResultSerializer() { releaseRegion(); }

bool KXSearchResultSerializer::appendSection(
    const std::shared_ptr<KXSearchResultSection>& section) {
  std::lock_guard<std::recursive_mutex> lock(mutex_);
  if (!section) return true;  // nothing to add
  const uint32_t domain = section->domain();
  for (const auto& existing : sections_) {
    if (existing->domain() != domain) continue;
    // Only the results survive the fold; the first section's presentation
    // (icon, category, scheme, flags, hidden results) wins.
    for (const auto& result : section->results()) lockedAppendResult(result, existing);
    return true;
  }
  sections_.push_back(section);
  return true;
}

bool KXSearchResultSerializer::appendResult(const kx::ObjectRef& result) {
  std::lock_guard<std::recursive_mutex> lock(mutex_);
  std::shared_ptr<KXSearchResultSection> last = sections_.empty() ? nullptr : sections_.back();
  KX_ASSERT(last != nullptr, "Appending results without any sections");
  return lockedAppendResult(result, last);
}

bool KXSearchResultSerializer::lockedAppendResult(
    const kx::ObjectRef& object, const std::shared_ptr<KXSearchResultSection>& section) {
  std::shared_ptr<KXSearchResult> result = std::dynamic_pointer_cast<KXSearchResult>(object);
  if (!result) {
    const auto* foreign = dynamic_cast<const KXSearchResultProtocol*>(object.get());
    KX_ASSERT(foreign != nullptr, "Appending a result that isn't a result");
    if (!foreign) return true;
    result = convertConformingResult(*object, *foreign);
  }
  if (!section) return true;

  const auto index = section->indexOfResult(*result);
  if (index != KXSearchResultSection::kNotFound) {
    std::shared_ptr<KXSearchResult> present = section->resultsAtIndex(index);
    if ((present->flags() & kMergesDuplicateScoresFlag) && result->isEquivalentToResult(*present)) {
      present->setScore(present->score() | result->score() | kMergedScoreBit);
      return true;
    }
  }
  section->addResults(result);
  return true;
}

std::shared_ptr<KXSearchResult> KXSearchResultSerializer::convertConformingResult(
    const kx::Object& object, const KXSearchResultProtocol& foreign) {
  const std::type_index type(typeid(object));
  if (lastResultClass_ != type) {
    const uint32_t offered = foreign.offeredOperations();
    auto offers = [offered](uint32_t op) { return (offered & op) != 0; };
    // Secondary lines only fit the tablet's wider rows; elsewhere they are
    // dropped here rather than by every producer.
    const bool tablet = KXIsTabula();
    capabilities_.titleUTF8String = offers(KXSearchResultProtocol::kTitleUTF8String);
    capabilities_.subtitleUTF8String =
        tablet && offers(KXSearchResultProtocol::kSubtitleUTF8String);
    capabilities_.auxiliaryTitleUTF8String =
        tablet && offers(KXSearchResultProtocol::kAuxiliaryTitleUTF8String);
    capabilities_.auxiliarySubtitleUTF8String =
        tablet && offers(KXSearchResultProtocol::kAuxiliarySubtitleUTF8String);
    capabilities_.summaryUTF8String = offers(KXSearchResultProtocol::kSummaryUTF8String);
    capabilities_.identifier = offers(KXSearchResultProtocol::kIdentifier);
    capabilities_.url = offers(KXSearchResultProtocol::kURLUTF8String);
    capabilities_.badgeValue = offers(KXSearchResultProtocol::kGetBadgeValue);
    lastResultClass_ = type;
  }

  auto result = std::make_shared<KXSearchResult>();
  const ForeignCapabilities& can = capabilities_;
  if (can.titleUTF8String) {
    if (auto s = foreign.titleUTF8String()) result->setTitle(std::string(*s));
  }
  if (can.subtitleUTF8String) {
    if (auto s = foreign.subtitleUTF8String()) result->setSubtitle(std::string(*s));
  }
  if (can.summaryUTF8String) {
    if (auto s = foreign.summaryUTF8String()) result->setSummary(std::string(*s));
  }
  if (can.auxiliaryTitleUTF8String) {
    if (auto s = foreign.auxiliaryTitleUTF8String()) result->setAuxiliaryTitle(std::string(*s));
  }
  if (can.auxiliarySubtitleUTF8String) {
    if (auto s = foreign.auxiliarySubtitleUTF8String())
      result->setAuxiliarySubtitle(std::string(*s));
  }
  if (can.identifier) result->setIdentifier(foreign.identifier());
  if (can.url) {
    if (auto s = foreign.URLUTF8String()) result->setUrl(std::string(*s));
  }
  if (can.badgeValue) {
    kx::Value badge;
    if (foreign.getBadgeValue(&badge)) result->setFlags(kBadgeFlag);
  }
  return result;
}

void KXSearchResultSerializer::serialize() {
  KX_ASSERT(!completed_, "Should not serialize twice");
  if (completed_) return;
  if (forForwarding_) {
    completed_ = true;
    return;
  }
  WireWriter writer;
  for (const auto& section : sections_) section->serializeTo(writer);
  if (!storeBytes(writer.bytes())) {
    KXLOG(3, "outgoing message creation failed.");
    return;
  }
  completed_ = true;
}

bool KXSearchResultSerializer::appendSerializer(std::span<const uint8_t> encodedStream) {
  forForwarding_ = true;
  if (!storeBytes(encodedStream)) {
    KXLOG(3, "outgoing message creation failed.");
    return false;
  }
  return true;
}

bool KXSearchResultSerializer::storeBytes(std::span<const uint8_t> bytes) {
  // Shareable regions come from the process-wide allocator, which remembers
  // the memfd behind each address: the message layer attaches the region by
  // address and sends a sealed duplicate of that descriptor.
  // The count travels as 32 bits; a larger stream cannot be described.
  if (bytes.size() > std::numeric_limits<uint32_t>::max()) return false;
  const size_t capacity = CapacityFor(bytes.size());
  if (capacity == 0 || capacity > std::numeric_limits<uint32_t>::max()) return false;
  uint8_t* region = inProc_ ? static_cast<uint8_t*>(std::malloc(capacity))
                            : static_cast<uint8_t*>(kx::SharedMemoryAllocator::Allocate(capacity));
  if (!region) return false;
  if (!bytes.empty()) std::memcpy(region, bytes.data(), bytes.size());
  releaseRegion();
  byteVector_ = region;
  byteVectorCnt_ = static_cast<uint32_t>(bytes.size());
  byteVectorCapacity_ = static_cast<uint32_t>(capacity);
  return true;
}

void KXSearchResultSerializer::releaseRegion() {
  if (!byteVector_) return;
  if (inProc_) {
    std::free(byteVector_);
  } else {
    kx::SharedMemoryAllocator::Free(byteVector_);
  }
  byteVector_ = nullptr;
  byteVectorCnt_ = 0;
  byteVectorCapacity_ = 0;
}

size_t KXSearchResultSerializer::sectionCount() const {
  if (forForwarding_ && byteVectorCnt_ != 0) return 1;
  return sections_.size();
}

std::vector<std::shared_ptr<KXSearchResultSection>> KXSearchResultSerializer::getSections()
    const {
  return sections_;
}
