#include "support/secure_archiving.h"

#include <algorithm>

#include "support/archivable_images.h"
#include "support/keyed_archiver.h"
#include "support/keyed_unarchiver.h"

namespace kx {
namespace {

// Every result carries an archive of its property dictionary, and most of
// those dictionaries are empty or absent: their archives are made once and
// recognised by their bytes instead of going through the property-list
// codec each time.
struct CommonArchives {
  std::vector<uint8_t> absent;
  std::vector<uint8_t> emptyDictionary;
};

const CommonArchives& Common() {
  static const auto* common = [] {
    auto* c = new CommonArchives();
    c->absent = KeyedArchiver::ArchivedDataWithRootObject(Value(), true).value_or(
        std::vector<uint8_t>());
    c->emptyDictionary = KeyedArchiver::ArchivedDataWithRootObject(Value(Dictionary()), true)
                             .value_or(std::vector<uint8_t>());
    return c;
  }();
  return *common;
}

bool SameBytes(std::span<const uint8_t> a, const std::vector<uint8_t>& b) {
  return !b.empty() && std::equal(a.begin(), a.end(), b.begin(), b.end());
}

}  // namespace

const ArchiveClassSet& SecureArchivingAllowedClasses() {
  static const auto* classes = [] {
    RegisterArchivableImageClasses();
    namespace ac = archive_class;
    auto* set = new ArchiveClassSet{ac::kDictionary, ac::kArray, ac::kString,
                                    ac::kNumber,     ac::kData,  ac::kDate,
                                    ac::kURL,        ac::kValue, ac::kError,
                                    KXImage::kClassName, KXColor::kClassName};
    // The map placemark class belongs to a framework that may not be
    // present; it is admitted only when something registered it.
    if (IsArchivableClassRegistered("MQPlacemark")) set->add("MQPlacemark");
    set->add(VNTImage::kClassName);
    set->add(VNTMapsSearchCategoryImage::kClassName);
    set->add(VNTCalendarImage::kClassName);
    set->add(VNTSpriteImage::kClassName);
    set->add(KXImage::kClassName);
    return set;
  }();
  return *classes;
}

}  // namespace kx

std::optional<std::vector<uint8_t>> _kx_secureArchivedDataWithRootObject(const kx::Value& root) {
  if (root.isNil()) return kx::Common().absent;
  if (const kx::Dictionary* d = root.dictionary(); d && d->empty()) {
    return kx::Common().emptyDictionary;
  }
  return kx::KeyedArchiver::ArchivedDataWithRootObject(root, true);
}

kx::Value _kx_secureUnarchiveObjectWithData(std::span<const uint8_t> data) {
  if (kx::SameBytes(data, kx::Common().emptyDictionary)) return kx::Value(kx::Dictionary());
  if (kx::SameBytes(data, kx::Common().absent)) return kx::Value();
  return kx::KeyedUnarchiver::UnarchivedObjectWithData(data,
                                                       &kx::SecureArchivingAllowedClasses());
}
