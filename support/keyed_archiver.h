// KeyedArchiver: turns a graph of plain values and records into a keyed
// archive (the layout is in support/keyed_archive_format.h).
//
// Usage: encode values under keys (at the top level, or inside a record's
// encodeWithCoder, where they become the record's keys), then call
// finishEncoding once. With secure coding required, every record in the
// graph must declare supportsSecureCoding. A value that cannot be archived
// (a record that is not Archivable, a graph nested too deeply) fails the
// whole archive: finishEncoding then yields nothing. Never throws.
#pragma once

#include <cstdint>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <type_traits>
#include <unordered_map>
#include <vector>

#include "kx/value.h"
#include "support/archivable.h"

namespace kx {

class KeyedArchiver {
 public:
  KeyedArchiver();
  ~KeyedArchiver();
  KeyedArchiver(const KeyedArchiver&) = delete;
  KeyedArchiver& operator=(const KeyedArchiver&) = delete;

  void setRequiresSecureCoding(bool required) { secure_ = required; }
  bool requiresSecureCoding() const { return secure_; }

  // Encodes a value (nil included) under `key` of the current level; a later
  // encoding under the same key replaces the earlier one.
  void encodeObject(const Value& value, std::string_view key);
  template <class T>
    requires std::is_base_of_v<Object, T>
  void encodeObject(const std::shared_ptr<T>& object, std::string_view key) {
    encodeObject(Value(ObjectRef(object)), key);
  }
  void encodeInt32(int32_t value, std::string_view key);
  void encodeInt64(int64_t value, std::string_view key);
  void encodeDouble(double value, std::string_view key);
  void encodeBool(bool value, std::string_view key);

  // The archive, or nothing when encoding failed. Once only.
  std::optional<std::vector<uint8_t>> finishEncoding();
  bool failed() const { return failed_; }
  const std::string& error() const { return error_; }

  // An archive of `root` under the key "root".
  static std::optional<std::vector<uint8_t>> ArchivedDataWithRootObject(
      const Value& root, bool requiresSecureCoding = false);

 private:
  // Adds `value` to the object table; its index, 0 for nil or on failure.
  uint64_t encodeEntry(const Value& value);
  uint64_t encodeRecord(const ObjectRef& object);
  uint64_t reserveEntry();
  void setKey(std::string_view key, Value value);
  void fail(std::string message);

  bool secure_ = false;
  bool failed_ = false;
  bool finished_ = false;
  std::string error_;
  int depth_ = 0;
  // The object table; slots are reserved before their contents are encoded
  // so that a record can be referenced while it is being encoded.
  std::vector<Value> objects_;
  // Table index of every record encoded so far; the records are kept alive
  // so that their addresses stay unique while the archiver runs.
  std::unordered_map<const Object*, uint64_t> recordIndex_;
  std::vector<ObjectRef> records_;
  // Keys of the levels being encoded: the top level, then one per record
  // whose encodeWithCoder is running.
  std::vector<Dictionary> levels_;
};

}  // namespace kx
