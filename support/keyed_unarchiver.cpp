#include "support/keyed_unarchiver.h"

#include <cfloat>
#include <cmath>
#include <exception>
#include <limits>

#include "kx/log.h"
#include "support/keyed_archive_format.h"
#include "base/property_list.h"

namespace kx {

namespace af = archive_format;

namespace {

const Dictionary& EmptyDictionary() {
  static const auto* empty = new Dictionary();
  return *empty;
}

const Value* Find(const Dictionary& d, std::string_view key) {
  auto it = d.find(key);
  return it == d.end() ? nullptr : &it->second;
}

const std::string* FindString(const Dictionary& d, std::string_view key) {
  const Value* v = Find(d, key);
  return v ? v->string() : nullptr;
}

const Number* FindNumber(const Dictionary& d, std::string_view key) {
  const Value* v = Find(d, key);
  return v ? v->number() : nullptr;
}

// A non-negative whole number: a table index or an integer payload.
bool AsIndex(const Number& n, uint64_t* out) {
  if (n.isFloatingPoint() || n.isBool()) return false;
  if (!n.isUnsigned() && n.int64Value() < 0) return false;
  *out = n.uint64Value();
  return true;
}

// An integer of a number entry, checked against [lo, hi].
bool SignedPayload(const Number& n, int64_t lo, int64_t hi, int64_t* out) {
  if (n.isFloatingPoint()) return false;
  if (n.isUnsigned() && n.uint64Value() > uint64_t(std::numeric_limits<int64_t>::max()))
    return false;
  int64_t v = n.int64Value();
  if (v < lo || v > hi) return false;
  *out = v;
  return true;
}

bool UnsignedPayload(const Number& n, uint64_t hi, uint64_t* out) {
  if (n.isFloatingPoint()) return false;
  if (!n.isUnsigned() && n.int64Value() < 0) return false;
  uint64_t v = n.uint64Value();
  if (v > hi) return false;
  *out = v;
  return true;
}

// The number entry's value in its archived type; nullopt when the payload
// does not fit that type.
std::optional<Number> MakeNumber(std::string_view type, const Number& payload) {
  int64_t i;
  uint64_t u;
  if (type == "bool") return Number::Bool(payload.boolValue());
  if (type == "double") return Number::Double(payload.doubleValue());
  if (type == "float") {
    double d = payload.doubleValue();
    if (std::isfinite(d) && std::fabs(d) > FLT_MAX) return std::nullopt;
    return Number::Float(static_cast<float>(d));
  }
  if (type == "char" && SignedPayload(payload, INT8_MIN, INT8_MAX, &i))
    return Number::Char(static_cast<int8_t>(i));
  if (type == "int16" && SignedPayload(payload, INT16_MIN, INT16_MAX, &i))
    return Number::Int16(static_cast<int16_t>(i));
  if (type == "int32" && SignedPayload(payload, INT32_MIN, INT32_MAX, &i))
    return Number::Int32(static_cast<int32_t>(i));
  if (type == "int64" && SignedPayload(payload, INT64_MIN, INT64_MAX, &i))
    return Number::Int64(i);
  if (type == "uint16" && UnsignedPayload(payload, UINT16_MAX, &u))
    return Number::UInt16(static_cast<uint16_t>(u));
  if (type == "uint32" && UnsignedPayload(payload, UINT32_MAX, &u))
    return Number::UInt32(static_cast<uint32_t>(u));
  if (type == "uint64" && UnsignedPayload(payload, UINT64_MAX, &u)) return Number::UInt64(u);
  return std::nullopt;
}

// What an error's user info may hold when secure coding is required.
const ArchiveClassSet& UserInfoClasses() {
  namespace ac = archive_class;
  static const auto* classes = new ArchiveClassSet{
      ac::kDictionary, ac::kArray, ac::kString, ac::kNumber, ac::kData,
      ac::kDate,       ac::kURL,   ac::kValue,  ac::kError,  ac::kNull};
  return *classes;
}

}  // namespace

KeyedUnarchiver::KeyedUnarchiver(std::span<const uint8_t> data) {
  levels_.push_back(&EmptyDictionary());
  allowedIds_.push_back(0);
  internedSets_.emplace_back();  // id 0: unrestricted

  PropertyListResult parsed = DecodeBinaryPropertyList(data);
  if (!parsed.ok()) {
    fail("not a property list: " + parsed.error);
    return;
  }
  archive_ = std::move(parsed.value);
  const Dictionary* archive = archive_.dictionary();
  const std::string* archiver = archive ? FindString(*archive, af::kArchiverKey) : nullptr;
  if (!archiver || *archiver != af::kArchiverName) {
    fail("not a keyed archive");
    return;
  }
  const Number* version = FindNumber(*archive, af::kVersionKey);
  uint64_t v = 0;
  if (!version || !AsIndex(*version, &v) || v != uint64_t(af::kVersion)) {
    fail("unsupported keyed archive version");
    return;
  }
  const Value* top = Find(*archive, af::kTopKey);
  const Value* objects = Find(*archive, af::kObjectsKey);
  if (!top || !top->dictionary() || !objects || !objects->array() ||
      objects->array()->empty() || !(*objects->array())[0].string() ||
      *(*objects->array())[0].string() != af::kNullEntry) {
    fail("damaged keyed archive");
    return;
  }
  levels_[0] = top->dictionary();
  objects_ = objects->array();
  inProgress_.assign(objects_->size(), false);
}

KeyedUnarchiver::~KeyedUnarchiver() = default;

void KeyedUnarchiver::fail(std::string message) {
  if (failed_) return;
  failed_ = true;
  error_ = std::move(message);
  KXLOG(3, "keyed unarchiving failed: %s", error_);
}

void KeyedUnarchiver::failWithError(std::string message) { fail(std::move(message)); }

const Value* KeyedUnarchiver::lookup(std::string_view key) const {
  if (af::NeedsEscape(key)) return Find(*levels_.back(), af::EscapeKey(key));
  return Find(*levels_.back(), key);
}

bool KeyedUnarchiver::containsValueForKey(std::string_view key) const {
  return !failed_ && lookup(key) != nullptr;
}

size_t KeyedUnarchiver::internClassSet(const ArchiveClassSet& classes) {
  for (size_t id = 1; id < internedSets_.size(); ++id) {
    if (internedSets_[id] == classes) return id;
  }
  internedSets_.push_back(classes);
  return internedSets_.size() - 1;
}

Value KeyedUnarchiver::decodeObject(std::string_view key) {
  return decodeReferenceUnder(key, allowedIds_.back());
}

Value KeyedUnarchiver::decodeObjectOfClasses(const ArchiveClassSet& classes,
                                             std::string_view key) {
  if (failed_) return {};
  // Without secure coding restrictions are not enforced; sharing id 0 lets
  // every reference to a plain value reuse one decoding.
  return decodeReferenceUnder(key, secure_ ? internClassSet(classes) : 0);
}

Value KeyedUnarchiver::decodeObjectOfClass(std::string_view className, std::string_view key) {
  return decodeObjectOfClasses(ArchiveClassSet{className}, key);
}

Value KeyedUnarchiver::decodeReferenceUnder(std::string_view key, size_t allowedId) {
  if (failed_) return {};
  const Value* stored = lookup(key);
  if (!stored) return {};
  const Dictionary* ref = stored->dictionary();
  const Number* index = ref ? FindNumber(*ref, af::kReferenceKey) : nullptr;
  uint64_t i = 0;
  if (!index || !AsIndex(*index, &i)) {
    fail("value for key " + std::string(key) + " is not an object");
    return {};
  }
  allowedIds_.push_back(allowedId);
  Value result = decodeEntry(i);
  allowedIds_.pop_back();
  return failed_ ? Value() : result;
}

Value KeyedUnarchiver::decodeIndexValue(const Value& index) {
  uint64_t i = 0;
  if (!index.number() || !AsIndex(*index.number(), &i)) {
    fail("damaged object reference");
    return {};
  }
  return decodeEntry(i);
}

Value KeyedUnarchiver::decodeEntry(uint64_t index) {
  if (failed_ || index == 0) return {};
  if (index >= objects_->size()) {
    fail("object reference out of range");
    return {};
  }
  const Value& entry = (*objects_)[index];
  std::string_view className;
  if (entry.string()) {
    className = archive_class::kString;
  } else if (entry.data()) {
    className = archive_class::kData;
  } else if (const Dictionary* d = entry.dictionary()) {
    const std::string* name = FindString(*d, af::kClassKey);
    if (!name) {
      fail("object without a class");
      return {};
    }
    className = *name;
  } else {
    fail("damaged object table entry");
    return {};
  }

  if (secure_) {
    size_t allowedId = allowedIds_.back();
    if (allowedId == 0) {
      fail("secure decoding of " + std::string(className) + " without allowed classes");
      return {};
    }
    if (!internedSets_[allowedId].allows(className)) {
      fail("object of class " + std::string(className) + " is not allowed");
      return {};
    }
  }
  if (depth_ >= af::kMaxDepth) {
    fail("archive nests too deeply");
    return {};
  }
  ++depth_;
  Value result = archive_class::IsPlainValueClass(className)
                     ? decodePlainEntry(index, className, entry)
                     : decodeRecordEntry(index, className, entry);
  --depth_;
  return failed_ ? Value() : result;
}

Value KeyedUnarchiver::decodePlainEntry(uint64_t index, std::string_view className,
                                        const Value& entry) {
  if (entry.string() || entry.data()) return entry;
  if (!entry.dictionary()) {
    fail("damaged " + std::string(className));
    return {};
  }
  std::pair<uint64_t, size_t> memoKey{index, allowedIds_.back()};
  if (auto it = plainMemo_.find(memoKey); it != plainMemo_.end()) return it->second;
  if (inProgress_[index]) {
    fail("cycle through plain values");
    return {};
  }
  inProgress_[index] = true;
  Value result = buildPlainValue(className, *entry.dictionary());
  inProgress_[index] = false;
  if (failed_) return {};
  plainMemo_.emplace(memoKey, result);
  return result;
}

Value KeyedUnarchiver::buildPlainValue(std::string_view className, const Dictionary& entry) {
  namespace ac = archive_class;
  auto damaged = [&]() {
    fail("damaged " + std::string(className));
    return Value();
  };

  if (className == ac::kNull) return Value::Null();
  if (className == ac::kString || className == ac::kData) return damaged();
  if (className == ac::kNumber) {
    const std::string* type = FindString(entry, "type");
    const Number* payload = FindNumber(entry, "value");
    if (!type || !payload) return damaged();
    std::optional<Number> n = MakeNumber(*type, *payload);
    return n ? Value(*n) : damaged();
  }
  if (className == ac::kDate) {
    const Number* time = FindNumber(entry, "time");
    return time ? Value(Date{time->doubleValue()}) : damaged();
  }
  if (className == ac::kURL) {
    const std::string* s = FindString(entry, "string");
    std::optional<URL> url = s ? URL::WithString(*s) : std::nullopt;
    return url ? Value(*url) : damaged();
  }
  if (className == ac::kArray) {
    const Value* objects = Find(entry, "objects");
    if (!objects || !objects->array()) return damaged();
    Array out;
    out.reserve(objects->array()->size());
    for (const Value& index : *objects->array()) {
      out.push_back(decodeIndexValue(index));
      if (failed_) return {};
    }
    return Value(std::move(out));
  }
  if (className == ac::kDictionary) {
    const Value* entries = Find(entry, "entries");
    if (!entries || !entries->dictionary()) return damaged();
    Dictionary out;
    for (const auto& [key, index] : *entries->dictionary()) {
      Value v = decodeIndexValue(index);
      if (failed_) return {};
      out.emplace_hint(out.end(), key, std::move(v));
    }
    return Value(std::move(out));
  }
  if (className == ac::kError) {
    const std::string* domain = FindString(entry, "domain");
    const Number* code = FindNumber(entry, "code");
    const Value* info = Find(entry, "userInfo");
    if (!domain || !code || !info) return damaged();
    Error e;
    e.domain = *domain;
    e.code = code->int64Value();
    allowedIds_.push_back(secure_ ? internClassSet(UserInfoClasses()) : 0);
    Value userInfo = decodeIndexValue(*info);
    allowedIds_.pop_back();
    if (failed_) return {};
    if (!userInfo.isNil()) {
      if (!userInfo.dictionary()) return damaged();
      e.userInfo = std::make_shared<const Dictionary>(*userInfo.dictionary());
    }
    return Value(e);
  }
  if (className == ac::kValue) {
    const std::string* type = FindString(entry, "type");
    const Value* values = Find(entry, "values");
    if (!type || !values || !values->array()) return damaged();
    std::vector<double> v;
    for (const Value& x : *values->array()) {
      if (!x.number()) return damaged();
      v.push_back(x.number()->doubleValue());
    }
    if (*type == "point" && v.size() == 2) return Value(Point{v[0], v[1]});
    if (*type == "size" && v.size() == 2) return Value(Size{v[0], v[1]});
    if (*type == "rect" && v.size() == 4) return Value(Rect{{v[0], v[1]}, {v[2], v[3]}});
    return damaged();
  }
  return damaged();
}

Value KeyedUnarchiver::decodeRecordEntry(uint64_t index, std::string_view className,
                                         const Value& entry) {
  if (auto it = records_.find(index); it != records_.end()) {
    // Decoded already, or still decoding (a cycle): the same instance.
    return it->second.object ? Value(it->second.object) : Value();
  }
  const Dictionary* keys = entry.dictionary();
  ObjectRef object = CreateArchivableInstance(className);
  if (!object) {
    fail("unknown class " + std::string(className));
    return {};
  }
  auto* archivable = dynamic_cast<Archivable*>(object.get());
  if (!archivable) {
    fail("class " + std::string(className) + " is not archivable");
    return {};
  }
  if (secure_ && !archivable->supportsSecureCoding()) {
    fail("class " + std::string(className) + " does not support secure coding");
    return {};
  }
  records_[index] = RecordState{object, false};
  levels_.push_back(keys);
  bool ok = false;
  try {
    ok = archivable->initWithCoder(*this);
  } catch (const std::exception& e) {
    fail("decoding " + std::string(className) + " threw: " + e.what());
  }
  levels_.pop_back();
  RecordState& state = records_[index];
  state.complete = true;
  if (!ok) state.object = nullptr;
  if (failed_ || !ok) return {};
  return Value(object);
}

const Number* KeyedUnarchiver::scalar(std::string_view key) {
  if (failed_) return nullptr;
  const Value* v = lookup(key);
  if (!v) return nullptr;
  if (!v->number()) {
    fail("value for key " + std::string(key) + " is not a number");
    return nullptr;
  }
  return v->number();
}

int64_t KeyedUnarchiver::decodeInt64(std::string_view key) {
  const Number* n = scalar(key);
  if (!n) return 0;
  if (n->isFloatingPoint()) {
    double d = n->doubleValue();
    // -2^63 and 2^63 are exact doubles; NaN fails both comparisons.
    if (!(d >= -9223372036854775808.0 && d < 9223372036854775808.0)) {
      fail("value for key " + std::string(key) + " does not fit in an integer");
      return 0;
    }
    return static_cast<int64_t>(d);
  }
  return n->int64Value();
}

int32_t KeyedUnarchiver::decodeInt32(std::string_view key) {
  int64_t v = decodeInt64(key);
  if (v < INT32_MIN || v > INT32_MAX) {
    fail("value for key " + std::string(key) + " does not fit in a 32-bit integer");
    return 0;
  }
  return static_cast<int32_t>(v);
}

double KeyedUnarchiver::decodeDouble(std::string_view key) {
  const Number* n = scalar(key);
  return n ? n->doubleValue() : 0.0;
}

bool KeyedUnarchiver::decodeBool(std::string_view key) {
  const Number* n = scalar(key);
  if (!n) return false;
  return n->isFloatingPoint() ? n->doubleValue() != 0.0 : n->boolValue();
}

Value KeyedUnarchiver::UnarchivedObjectWithData(std::span<const uint8_t> data,
                                                const ArchiveClassSet* allowedClasses) {
  try {
    KeyedUnarchiver unarchiver(data);
    Value root;
    if (allowedClasses) {
      unarchiver.setRequiresSecureCoding(true);
      root = unarchiver.decodeObjectOfClasses(*allowedClasses, af::kRootKey);
    } else {
      root = unarchiver.decodeObject(af::kRootKey);
    }
    unarchiver.finishDecoding();
    return unarchiver.failed() ? Value() : root;
  } catch (const std::exception& e) {
    KXLOG(3, "keyed unarchiving failed: %s", e.what());
    return {};
  }
}

}  // namespace kx
