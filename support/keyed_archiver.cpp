#include "support/keyed_archiver.h"

#include "kx/log.h"
#include "support/keyed_archive_format.h"
#include "base/property_list.h"

namespace kx {

namespace af = archive_format;

namespace {

const char* NumberTypeName(Number::Type type) {
  switch (type) {
    case Number::Type::Bool: return "bool";
    case Number::Type::Char: return "char";
    case Number::Type::Int16: return "int16";
    case Number::Type::UInt16: return "uint16";
    case Number::Type::Int32: return "int32";
    case Number::Type::UInt32: return "uint32";
    case Number::Type::Int64: return "int64";
    case Number::Type::UInt64: return "uint64";
    case Number::Type::Float: return "float";
    case Number::Type::Double: return "double";
  }
  return "int64";
}

// The number as a property-list number of the widest kind of its type.
Value NumberPayload(const Number& n) {
  if (n.isBool()) return Value(n.boolValue());
  if (n.isFloatingPoint()) return Value(n.doubleValue());
  if (n.isUnsigned()) return Value(n.uint64Value());
  return Value(n.int64Value());
}

Value Reference(uint64_t index) {
  Dictionary d;
  d.emplace(af::kReferenceKey, Value(static_cast<int64_t>(index)));
  return Value(std::move(d));
}

}  // namespace

KeyedArchiver::KeyedArchiver() {
  objects_.emplace_back(af::kNullEntry);
  levels_.emplace_back();
}

KeyedArchiver::~KeyedArchiver() = default;

void KeyedArchiver::fail(std::string message) {
  if (failed_) return;
  failed_ = true;
  error_ = std::move(message);
  KXLOG(3, "keyed archiving failed: %s", error_);
}

void KeyedArchiver::setKey(std::string_view key, Value value) {
  if (finished_) {
    fail("encoding after finishEncoding");
    return;
  }
  levels_.back().insert_or_assign(af::EscapeKey(key), std::move(value));
}

void KeyedArchiver::encodeObject(const Value& value, std::string_view key) {
  if (failed_) return;
  uint64_t index = encodeEntry(value);
  setKey(key, Reference(index));
}

void KeyedArchiver::encodeInt32(int32_t value, std::string_view key) {
  setKey(key, Value(int64_t{value}));
}
void KeyedArchiver::encodeInt64(int64_t value, std::string_view key) { setKey(key, Value(value)); }
void KeyedArchiver::encodeDouble(double value, std::string_view key) { setKey(key, Value(value)); }
void KeyedArchiver::encodeBool(bool value, std::string_view key) { setKey(key, Value(value)); }

uint64_t KeyedArchiver::reserveEntry() {
  objects_.emplace_back();
  return objects_.size() - 1;
}

uint64_t KeyedArchiver::encodeEntry(const Value& value) {
  if (failed_ || value.isNil()) return 0;
  if (depth_ >= af::kMaxDepth) {
    fail("object graph nests too deeply");
    return 0;
  }
  struct DepthGuard {
    int& depth;
    explicit DepthGuard(int& d) : depth(d) { ++depth; }
    ~DepthGuard() { --depth; }
  } guard(depth_);

  using K = Value::Kind;
  switch (value.kind()) {
    case K::String:
    case K::Data:
      objects_.push_back(value);
      return objects_.size() - 1;
    case K::Object:
      return encodeRecord(*value.object());
    default:
      break;
  }

  uint64_t index = reserveEntry();
  Dictionary entry;
  entry.emplace(af::kClassKey, Value(ArchiveClassNameOf(value)));
  switch (value.kind()) {
    case K::Null:
      break;
    case K::Number:
      entry.emplace("type", Value(NumberTypeName(value.number()->type())));
      entry.emplace("value", NumberPayload(*value.number()));
      break;
    case K::Date:
      entry.emplace("time", Value(value.date()->secondsSinceReferenceDate));
      break;
    case K::URL:
      entry.emplace("string", Value(value.url()->absoluteString()));
      break;
    case K::Array: {
      Array indices;
      indices.reserve(value.array()->size());
      for (const Value& element : *value.array()) {
        indices.emplace_back(static_cast<int64_t>(encodeEntry(element)));
      }
      entry.emplace("objects", Value(std::move(indices)));
      break;
    }
    case K::Dictionary: {
      Dictionary entries;
      for (const auto& [key, element] : *value.dictionary()) {
        entries.emplace(key, Value(static_cast<int64_t>(encodeEntry(element))));
      }
      entry.emplace("entries", Value(std::move(entries)));
      break;
    }
    case K::Error: {
      const Error& e = *value.error();
      entry.emplace("domain", Value(e.domain));
      entry.emplace("code", Value(e.code));
      uint64_t info = e.userInfo ? encodeEntry(Value(*e.userInfo)) : 0;
      entry.emplace("userInfo", Value(static_cast<int64_t>(info)));
      break;
    }
    case K::Point:
      entry.emplace("type", Value("point"));
      entry.emplace("values", Value(Array{value.point()->x, value.point()->y}));
      break;
    case K::Size:
      entry.emplace("type", Value("size"));
      entry.emplace("values", Value(Array{value.size()->width, value.size()->height}));
      break;
    case K::Rect: {
      const Rect& r = *value.rect();
      entry.emplace("type", Value("rect"));
      entry.emplace("values",
                    Value(Array{r.origin.x, r.origin.y, r.size.width, r.size.height}));
      break;
    }
    default:
      fail("value cannot be archived");
      return 0;
  }
  objects_[index] = Value(std::move(entry));
  return failed_ ? 0 : index;
}

uint64_t KeyedArchiver::encodeRecord(const ObjectRef& object) {
  auto known = recordIndex_.find(object.get());
  if (known != recordIndex_.end()) return known->second;

  const auto* archivable = dynamic_cast<const Archivable*>(object.get());
  std::string className = object->className();
  if (!archivable) {
    fail("class " + className + " cannot be archived");
    return 0;
  }
  if (secure_ && !archivable->supportsSecureCoding()) {
    fail("class " + className + " does not support secure coding");
    return 0;
  }
  // The index is known before the fields are encoded, so a field that leads
  // back to this record refers to it instead of recursing.
  uint64_t index = reserveEntry();
  recordIndex_.emplace(object.get(), index);
  records_.push_back(object);
  levels_.emplace_back();
  levels_.back().emplace(af::kClassKey, Value(className));
  archivable->encodeWithCoder(*this);
  objects_[index] = Value(std::move(levels_.back()));
  levels_.pop_back();
  return failed_ ? 0 : index;
}

std::optional<std::vector<uint8_t>> KeyedArchiver::finishEncoding() {
  if (finished_) fail("finishEncoding called twice");
  finished_ = true;
  if (failed_) return std::nullopt;
  Dictionary archive;
  archive.emplace(af::kArchiverKey, Value(af::kArchiverName));
  archive.emplace(af::kVersionKey, Value(af::kVersion));
  archive.emplace(af::kTopKey, Value(std::move(levels_.front())));
  archive.emplace(af::kObjectsKey, Value(std::move(objects_)));
  std::string error;
  std::vector<uint8_t> bytes = EncodeBinaryPropertyList(Value(std::move(archive)), &error);
  if (!error.empty()) {
    fail("property list encoding failed: " + error);
    return std::nullopt;
  }
  return bytes;
}

std::optional<std::vector<uint8_t>> KeyedArchiver::ArchivedDataWithRootObject(
    const Value& root, bool requiresSecureCoding) {
  try {
    KeyedArchiver archiver;
    archiver.setRequiresSecureCoding(requiresSecureCoding);
    archiver.encodeObject(root, af::kRootKey);
    return archiver.finishEncoding();
  } catch (const std::exception& e) {
    KXLOG(3, "keyed archiving failed: %s", e.what());
    return std::nullopt;
  }
}

}  // namespace kx
