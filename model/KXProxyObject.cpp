#include "kx/KXProxyObject.h"

#include <cctype>

#include "kx/KXCardClasses.h"
#include "kx/KXServerResult.h"
#include "kx/log.h"

namespace kx::vantle {
namespace {

// The platform's type encoding letters, which the log line names.
const char* TypeCode(Number::Type type) {
  switch (type) {
    case Number::Type::Bool: return "B";
    case Number::Type::Char: return "c";
    case Number::Type::Int16: return "s";
    case Number::Type::UInt16: return "S";
    case Number::Type::Int32: return "i";
    case Number::Type::UInt32: return "I";
    case Number::Type::Int64: return "q";
    case Number::Type::UInt64: return "Q";
    case Number::Type::Float: return "f";
    case Number::Type::Double: return "d";
  }
  return "?";
}

void LogUnsupported(Number::Type type) {
  KXLOG(3, "Unsupported number type: %s", TypeCode(type));
}

template <class Card>
std::shared_ptr<Card> AsCard(const Value& v) {
  if (const Dictionary* d = v.dictionary()) return Card::proxyObjectWithDictionary(*d);
  return v.objectAs<Card>();
}

}  // namespace

Number DeliveredNumber(const Number& number) {
  switch (number.type()) {
    case Number::Type::Bool:
      // Delivered, and still logged: the boolean test does not end the
      // chain of type tests.
      LogUnsupported(number.type());
      return number;
    case Number::Type::Char:
    case Number::Type::Int32:
    case Number::Type::Int64:
    case Number::Type::Float:
    case Number::Type::Double:
      return number;
    default:
      LogUnsupported(number.type());
      return Number(int64_t{0});
  }
}

Value DeliveredValue(const Value& value) {
  if (const Number* n = value.number()) return Value(DeliveredNumber(*n));
  return value;
}

PropertyCall PropertyCallForName(std::string_view name) {
  if (name.size() < 4 || name.substr(0, 3) != "set") return {false, std::string(name)};
  std::string key(name.substr(3));
  if (!key.empty() && key.back() == ':') key.pop_back();
  if (key.size() >= 2) {
    key[0] = static_cast<char>(std::tolower(static_cast<unsigned char>(key[0])));
  } else {
    for (char& c : key) c = static_cast<char>(std::tolower(static_cast<unsigned char>(c)));
  }
  return {true, std::move(key)};
}

std::optional<std::string> AsString(const Value& v) {
  if (const std::string* s = v.string()) return *s;
  return std::nullopt;
}

std::optional<URL> AsURL(const Value& v) {
  if (const URL* u = v.url()) return *u;
  if (const std::string* s = v.string()) return URL::WithString(*s);
  return std::nullopt;
}

Value AsImage(const Value& v) {
  switch (v.kind()) {
    case Value::Kind::Dictionary:
    case Value::Kind::Data:
    case Value::Kind::URL:
    case Value::Kind::Object:
      return v;
    default:
      return Value();
  }
}

std::optional<Array> AsArray(const Value& v) {
  if (const Array* a = v.array()) return *a;
  return std::nullopt;
}

std::optional<Value::Bytes> AsData(const Value& v) {
  if (const Value::Bytes* d = v.data()) return *d;
  return std::nullopt;
}

std::optional<bool> AsBoolean(const Value& v) {
  if (const Number* n = v.number()) return DeliveredNumber(*n).boolValue();
  return std::nullopt;
}

std::optional<int64_t> AsInteger(const Value& v) {
  if (const Number* n = v.number()) return DeliveredNumber(*n).int64Value();
  return std::nullopt;
}

std::optional<uint64_t> AsUInt64(const Value& v) {
  if (const Number* n = v.number()) return DeliveredNumber(*n).uint64Value();
  return std::nullopt;
}

std::optional<uint32_t> AsUInt32(const Value& v) {
  if (const Number* n = v.number()) return DeliveredNumber(*n).uint32Value();
  return std::nullopt;
}

std::optional<double> AsDouble(const Value& v) {
  if (const Number* n = v.number()) return DeliveredNumber(*n).doubleValue();
  return std::nullopt;
}

std::optional<float> AsFloat(const Value& v) {
  if (const Number* n = v.number()) return static_cast<float>(DeliveredNumber(*n).doubleValue());
  return std::nullopt;
}

std::shared_ptr<KXApp> AsApp(const Value& v) { return AsCard<KXApp>(v); }
std::shared_ptr<KXActionButton> AsActionButton(const Value& v) {
  return AsCard<KXActionButton>(v);
}
std::shared_ptr<KXAuxiliaryInfo> AsAuxiliaryInfo(const Value& v) {
  return AsCard<KXAuxiliaryInfo>(v);
}
std::shared_ptr<KXAlignmentSchema> AsAlignmentSchema(const Value& v) {
  return AsCard<KXAlignmentSchema>(v);
}
std::shared_ptr<KXMetaSchema> AsMetaResult(const Value& v) { return AsCard<KXMetaSchema>(v); }

}  // namespace kx::vantle

KXProxyObject::KXProxyObject(kx::Dictionary dictionary) : dictionary_(std::move(dictionary)) {}
KXProxyObject::~KXProxyObject() = default;

std::shared_ptr<KXProxyObject> KXProxyObject::proxyObjectWithDictionary(
    kx::Dictionary dictionary) {
  return std::make_shared<KXProxyObject>(std::move(dictionary));
}

kx::Value KXProxyObject::valueForUndefinedKey(std::string_view key) const {
  auto it = dictionary_.find(key);
  return it == dictionary_.end() ? kx::Value() : it->second;
}

void KXProxyObject::setValueForUndefinedKey(const kx::Value&, std::string_view) {}

namespace {

// The shared forwarding: `store` takes setters, `read` answers getters.
template <class Store, class Read>
kx::Value Forward(std::string_view operationName, const kx::Value& argument, Store store,
                  Read read) {
  const kx::vantle::PropertyCall call = kx::vantle::PropertyCallForName(operationName);
  if (call.isSetter) {
    store(argument, call.key);
    return kx::Value();
  }
  return kx::vantle::DeliveredValue(read(call.key));
}

}  // namespace

kx::Value KXProxyObject::forwardPropertyCall(std::string_view operationName,
                                             const kx::Value& argument) {
  return Forward(
      operationName, argument,
      [this](const kx::Value& value, const std::string& key) { setValueForUndefinedKey(value, key); },
      [this](const std::string& key) { return valueForUndefinedKey(key); });
}

kx::Value KXForwardPropertyCall(KXSearchResult& result, std::string_view operationName,
                                const kx::Value& argument) {
  return Forward(
      operationName, argument,
      [&result](const kx::Value& value, const std::string& key) { result.setValue(value, key); },
      [&result](const std::string& key) { return result.valueForUndefinedKey(key); });
}
