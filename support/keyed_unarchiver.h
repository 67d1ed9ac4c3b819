// KeyedUnarchiver: restores values and records from a keyed archive (the
// layout is in support/keyed_archive_format.h).
//
// Decoding never throws and never crashes on damaged input. Problems fall in
// two kinds: a missing key is no problem at all (objects decode as nil,
// numbers as 0, booleans as false), while damage (a reference out of range,
// a cycle through plain values, a scalar where an object belongs, an unknown
// class) or a refused class fails the whole unarchiver: failed() turns true,
// error() says why, and every later decode yields nil or 0.
//
// Secure coding. When it is required, every object decoded, at any depth,
// must be of a class allowed at that point: decodeObjectOfClasses sets the
// allowed classes for the object under its key and everything that object
// contains, and decodeObject keeps the classes allowed by the enclosing
// call (at the top level there are none, so decodeObject alone fails). A
// record's fields are decoded with whatever restrictions its initWithCoder
// asks for. Records must also declare supportsSecureCoding. Without secure
// coding the class restrictions are not enforced.
//
// Shared references decode to the same record object; a record referenced
// from inside its own fields receives the instance whose initWithCoder is
// still running, so cycles through records terminate.
#pragma once

#include <cstdint>
#include <map>
#include <memory>
#include <span>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "kx/value.h"
#include "support/archivable.h"

namespace kx {

class KeyedUnarchiver {
 public:
  // Reads the archive; a damaged archive leaves the unarchiver failed.
  explicit KeyedUnarchiver(std::span<const uint8_t> data);
  ~KeyedUnarchiver();
  KeyedUnarchiver(const KeyedUnarchiver&) = delete;
  KeyedUnarchiver& operator=(const KeyedUnarchiver&) = delete;

  void setRequiresSecureCoding(bool required) { secure_ = required; }
  bool requiresSecureCoding() const { return secure_; }

  bool containsValueForKey(std::string_view key) const;
  Value decodeObject(std::string_view key);
  Value decodeObjectOfClasses(const ArchiveClassSet& classes, std::string_view key);
  Value decodeObjectOfClass(std::string_view className, std::string_view key);
  // Numbers are converted as C converts them; a value that does not fit in
  // the requested width fails the unarchiver.
  int32_t decodeInt32(std::string_view key);
  int64_t decodeInt64(std::string_view key);
  double decodeDouble(std::string_view key);
  bool decodeBool(std::string_view key);

  // Fails the whole unarchiver (records call this for damage they detect).
  void failWithError(std::string message);
  bool failed() const { return failed_; }
  const std::string& error() const { return error_; }
  void finishDecoding() { finished_ = true; }

  // The object under "root" of `data`, or nil when it does not decode. With
  // `allowedClasses` secure coding is required and the root object is
  // restricted to them.
  static Value UnarchivedObjectWithData(std::span<const uint8_t> data,
                                        const ArchiveClassSet* allowedClasses = nullptr);

 private:
  struct RecordState {
    ObjectRef object;  // null once its initWithCoder declined
    bool complete = false;
  };

  const Value* lookup(std::string_view key) const;
  // Decodes the object referenced under `key` with the interned class set
  // `allowedId` in force.
  Value decodeReferenceUnder(std::string_view key, size_t allowedId);
  Value decodeEntry(uint64_t index);
  Value decodePlainEntry(uint64_t index, std::string_view className, const Value& entry);
  Value buildPlainValue(std::string_view className, const Dictionary& entry);
  Value decodeRecordEntry(uint64_t index, std::string_view className, const Value& entry);
  // A table index stored inside a plain entry, decoded.
  Value decodeIndexValue(const Value& index);
  // A number under `key`; null when absent or when it is not a number (which
  // fails the unarchiver).
  const Number* scalar(std::string_view key);
  // Small ids for class sets; id 0 stands for "unrestricted".
  size_t internClassSet(const ArchiveClassSet& classes);
  void fail(std::string message);

  bool secure_ = false;
  bool failed_ = false;
  bool finished_ = false;
  std::string error_;
  Value archive_;                   // keeps the parsed property list alive
  const Array* objects_ = nullptr;  // the object table
  // Keys of the levels being decoded: the top level, then one per record
  // whose initWithCoder is running. Never empty.
  std::vector<const Dictionary*> levels_;
  // Class sets in force, innermost last, as interned ids. Never empty.
  std::vector<size_t> allowedIds_;
  std::vector<ArchiveClassSet> internedSets_;
  int depth_ = 0;
  // Plain values already decoded, per table index and class set in force,
  // so that shared subgraphs are decoded once (a small table of shared
  // references could otherwise stand for an exponentially large tree).
  std::map<std::pair<uint64_t, size_t>, Value> plainMemo_;
  std::vector<bool> inProgress_;  // plain entries being decoded: cycle check
  std::map<uint64_t, RecordState> records_;
};

}  // namespace kx
