// What reading one packed result stream may cost the process that reads it.
//
// A stream is the daemon's to write, and small records decode to objects
// many times their size (a result of a few bytes becomes a record of some
// 1,000 bytes and its place in the section; a property list of 70 KiB could
// stand for 240 MiB), so a stream's length alone bounds nothing: 64 MiB of
// small results once took 430 MiB to read. Every section is therefore
// charged before it is decoded, a fixed cost for the section and for each
// result plus its bytes (strings are copied out), and for each property
// list the most that the property-list reader lets it build (results decode
// their properties only when first asked, so the bound has to be known
// beforehand). The section that would take the stream past
// kResultStreamDecodeBudget fails like a damaged one, so the sections
// before it are kept. An ordinary batch (a dozen sections of 13 results,
// tens of KiB) spends a few percent of the budget; 10,000 one-result
// sections about a third of it.
#pragma once

#include <cstddef>
#include <cstdint>
#include <span>

namespace kx {

// Received streams longer than this are refused whole.
inline constexpr size_t kMaxReceivedResultStreamLength = size_t{2} << 20;
inline constexpr size_t kResultStreamDecodeBudget = size_t{64} << 20;
// Upper bounds of a decoded section and result object (280 and 952 bytes
// with g++ 12 on x86-64), their shared control blocks, allocation overhead
// and their places in lists and sets.
inline constexpr size_t kDecodedSectionCost = 1024;
inline constexpr size_t kDecodedResultCost = 1280;
// A property list (a result's properties, a section's hidden results) of n
// bytes builds at most n values and 16 n bytes of strings, plus what the
// reader allows any list (32 values, 4 KiB); a value with its place in an
// array or dictionary takes up to some 190 bytes. The common empty archives
// decode to nothing.
inline constexpr size_t kDecodedPropertyListCost = 8 * 1024;
inline constexpr size_t kDecodedPropertyListByteCost = 192 + 16;

struct SectionExtent {
  size_t results = 0;        // result fields
  size_t propertyLists = 0;  // property lists of the section and its results, but common ones
  size_t propertyListBytes = 0;
  size_t bytes = 0;  // up to and including the end mark, or to where the walk failed
};

// Walks the section at the start of `stream` without decoding it.
SectionExtent MeasureSection(std::span<const uint8_t> stream);

// What decoding the section at the start of `stream` is charged.
size_t SectionDecodeCost(std::span<const uint8_t> stream);

}  // namespace kx
