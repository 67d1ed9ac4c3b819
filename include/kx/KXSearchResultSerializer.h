// KXSearchResultSerializer: collects sections and results on the producing
// side and encodes them once into the packed result stream, a page-rounded
// region that the message layer hands to the client without copying.
//
// Stream layout: every section's fields as the section's writeTo emits them,
// each followed by the single byte 0x04 (a key of field 0, wire type 4, which
// ends a record reader). No header, count or checksum; the length travels with
// the message. Sections appear in the order they were first appended.
//
// Invariants:
//   - Sections of one domain are folded on append: `_sections` never holds
//     two sections whose domains are equal.
//   - byteVector() is null until serialize or appendSerializer succeeded;
//     then byteVectorCount() <= byteVectorCapacity(), the capacity is a whole
//     number of pages (8192 for an empty stream) and the region is owned here
//     until destruction.
//   - Without inProc the region comes from kx::SharedMemoryAllocator, so the
//     message layer can attach it by address and send its descriptor.
//
// Threads: appendSection and appendResult take the serializer's recursive
// lock, so several producers may append at once; lockedAppendResult expects
// the caller to hold it (lock()/unlock(), or a std::lock_guard on this
// object). serialize, sectionCount and getSections take no lock: call them
// once the producers have finished.
#pragma once

#include "kx/export.h"

#include <cstddef>
#include <cstdint>
#include <memory>
#include <mutex>
#include <optional>
#include <span>
#include <typeindex>
#include <vector>

#include "kx/value.h"

class KXSearchResult;
class KXSearchResultSection;
class KXSearchResultProtocol;

class KX_EXPORT KXSearchResultSerializer : public kx::Object {
 public:
  // A serializer needs to know where its region lives; there is no default.
  // Always throws kx::InternalInconsistencyException with the reason
  // "should never call -init on KXSearchResultSerializer".
  [[noreturn]] static std::shared_ptr<KXSearchResultSerializer> init();

  // The capacity is accepted for compatibility and ignored: serialize sizes
  // the region. With `inProc` the region is heap memory for a reader in this
  // process; otherwise it is shareable memory.
  static std::shared_ptr<KXSearchResultSerializer> initWithInitialCapacity(uint32_t capacity,
                                                                           bool inProc = false);

  ~KXSearchResultSerializer() override;
  KXSearchResultSerializer(const KXSearchResultSerializer&) = delete;
  KXSearchResultSerializer& operator=(const KXSearchResultSerializer&) = delete;

  std::string className() const override { return "KXSearchResultSerializer"; }

  // Adds a section, or folds it into the section already here with the same
  // domain: its results go there and the rest of it (icon, category, scheme,
  // flags, hidden results) is dropped. Returns true.
  bool appendSection(const std::shared_ptr<KXSearchResultSection>& section);

  // Appends a result (a KXSearchResult record, or any object implementing
  // KXSearchResultProtocol) to the last section. Without a section this is
  // the assertion "Appending results without any sections" and the result is
  // lost. Returns true.
  bool appendResult(const kx::ObjectRef& result);

  // appendResult's core; the caller holds the lock. A result equal to one
  // already in the section is dropped, except that when the present one has
  // flag 0x20 and the new one is equivalent to it, the present one's score
  // becomes (old | new | 0x40000000). `section` may be null (the result is
  // then lost). Returns true.
  bool lockedAppendResult(const kx::ObjectRef& result,
                          const std::shared_ptr<KXSearchResultSection>& section);

  // Encodes the sections into a new region, once: a second call is the
  // assertion "Should not serialize twice" and changes nothing. When the
  // shareable region cannot be made, logs "outgoing message creation
  // failed." and leaves the serializer incomplete.
  void serialize();

  // Takes an already encoded stream instead of encoding sections (a daemon
  // forwarding another producer's stream). False when the region cannot be
  // made.
  bool appendSerializer(std::span<const uint8_t> encodedStream);

  // The serializer's recursive lock, for callers of lockedAppendResult.
  void lock() { mutex_.lock(); }
  void unlock() { mutex_.unlock(); }

  // 1 for a non-empty forwarded stream, otherwise the number of sections.
  size_t sectionCount() const;
  // A copy of the section list.
  std::vector<std::shared_ptr<KXSearchResultSection>> getSections() const;

  const uint8_t* byteVector() const { return byteVector_; }
  uint32_t byteVectorCount() const { return byteVectorCnt_; }
  uint32_t byteVectorCapacity() const { return byteVectorCapacity_; }
  bool inProc() const { return inProc_; }
  bool completed() const { return completed_; }

 private:
  explicit KXSearchResultSerializer(bool inProc);

  // Which optional operations the serializer uses from the current foreign
  // class; re-evaluated when the class changes.
  struct ForeignCapabilities {
    bool titleUTF8String = false;
    bool subtitleUTF8String = false;
    bool auxiliaryTitleUTF8String = false;
    bool auxiliarySubtitleUTF8String = false;
    bool summaryUTF8String = false;
    bool identifier = false;
    bool url = false;
    bool badgeValue = false;
  };

  std::shared_ptr<KXSearchResult> convertConformingResult(const kx::Object& object,
                                                          const KXSearchResultProtocol& foreign);

  // Copies `bytes` into a new region, replacing any previous one; false when
  // the region cannot be made.
  bool storeBytes(std::span<const uint8_t> bytes);
  void releaseRegion();

  std::recursive_mutex mutex_;
  std::vector<std::shared_ptr<KXSearchResultSection>> sections_;

  // Guarded by mutex_ (touched only from lockedAppendResult).
  std::optional<std::type_index> lastResultClass_;
  ForeignCapabilities capabilities_;

  uint8_t* byteVector_ = nullptr;
  uint32_t byteVectorCnt_ = 0;
  uint32_t byteVectorCapacity_ = 0;
  const bool inProc_;
  bool completed_ = false;
  bool forForwarding_ = false;
};
