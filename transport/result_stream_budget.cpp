#include "transport/result_stream_budget.h"

#include "kx/WireReader.h"
#include "model/property_archive.h"
#include "model/record_fields.h"

namespace kx {

namespace {

constexpr uint64_t LengthDelimitedKey(uint64_t field) {
  return (field << 3) | static_cast<uint64_t>(WireType::LengthDelimited);
}
constexpr uint64_t kSectionHiddenResultsKey = LengthDelimitedKey(8);
constexpr uint64_t kSectionResultKey = LengthDelimitedKey(7);
constexpr uint64_t kResultPropertiesKey = LengthDelimitedKey(10);

void AddPropertyList(std::span<const uint8_t> list, SectionExtent& extent) {
  if (IsCommonPropertyArchive(list)) return;
  ++extent.propertyLists;
  extent.propertyListBytes += list.size();
}

// The property lists of one result's bytes (the last of a repeated field
// is the one kept, but each is decoded).
void MeasureResult(std::span<const uint8_t> record, SectionExtent& extent) {
  WireReader reader(record.data(), record.size());
  uint64_t key;
  while (NextRecordKey(reader, &key)) {
    if (key == kResultPropertiesKey) {
      const std::span<const uint8_t> list = reader.readDataView();
      if (!reader.hasError()) AddPropertyList(list, extent);
    } else if (!reader.skipField(key)) {
      return;
    }
  }
}

}  // namespace

SectionExtent MeasureSection(std::span<const uint8_t> stream) {
  WireReader reader(stream.data(), stream.size());
  SectionExtent extent;
  uint64_t key;
  while (NextRecordKey(reader, &key)) {
    if (key == kSectionResultKey || key == kSectionHiddenResultsKey) {
      const std::span<const uint8_t> field = reader.readDataView();
      if (reader.hasError()) break;
      if (key == kSectionResultKey) {
        ++extent.results;
        MeasureResult(field, extent);
      } else {
        AddPropertyList(field, extent);
      }
    } else if (!reader.skipField(key)) {
      break;
    }
  }
  extent.bytes = reader.position();
  return extent;
}

size_t SectionDecodeCost(std::span<const uint8_t> stream) {
  const SectionExtent extent = MeasureSection(stream);
  // No term can overflow: a stream is far shorter than SIZE_MAX / 8 KiB.
  return kDecodedSectionCost + extent.results * kDecodedResultCost + extent.bytes +
         extent.propertyLists * kDecodedPropertyListCost +
         extent.propertyListBytes * kDecodedPropertyListByteCost;
}

}  // namespace kx
