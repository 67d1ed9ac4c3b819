#include "searchd/calculator.h"

#include <libqalculate/qalculate.h>

#include <mutex>

#include "searchd/item.h"

namespace kx::searchd {
namespace {

// A calculation that takes longer than this is no answer a search can show.
constexpr int kTimeoutMs = 250;
// Inputs longer than this are prose, not expressions; libqalculate's
// parser is not fed them.
constexpr size_t kMaxExpressionLength = 200;

std::mutex gCalculatorMutex;

// Under gCalculatorMutex.
::Calculator* LoadedCalculator() {
  static ::Calculator* calculator = [] {
    auto* c = new ::Calculator();  // owned by libqalculate's global CALCULATOR
    c->loadGlobalDefinitions();
    c->loadExchangeRates();
    c->setExchangeRatesWarningEnabled(false);
    return c;
  }();
  return calculator;
}

bool HasDigit(const std::string& text) {
  for (char c : text)
    if (c >= '0' && c <= '9') return true;
  return false;
}

bool AsksConversion(const std::string& text) {
  for (const char* word : {" to ", " in ", "->", "→"})
    if (text.find(word) != std::string::npos) return true;
  return false;
}

// Drops what libqalculate said; true when any of it was an error.
bool DrainMessages(::Calculator* c) {
  bool error = false;
  for (CalculatorMessage* m = c->message(); m; m = c->nextMessage())
    error |= m->type() == MESSAGE_ERROR;
  return error;
}

}  // namespace

void PreloadCalculator() {
  std::lock_guard lock(gCalculatorMutex);
  LoadedCalculator();
}

std::optional<Calculation> Calculate(const std::string& text) {
  if (text.size() > kMaxExpressionLength || !HasDigit(text)) return std::nullopt;
  const bool conversion = AsksConversion(text);
  std::lock_guard lock(gCalculatorMutex);
  ::Calculator* c = LoadedCalculator();
  DrainMessages(c);

  EvaluationOptions eo;
  eo.approximation = APPROXIMATION_APPROXIMATE;
  eo.parse_options.unknowns_enabled = false;
  // "6.21 mi", not "6 mi + 376 yd + 0.4 ft".
  eo.mixed_units_conversion = MIXED_UNITS_CONVERSION_NONE;
  MathStructure result, parsed;
  const std::string expression = c->unlocalizeExpression(text, eo.parse_options);
  if (!c->calculate(&result, expression, kTimeoutMs, eo, &parsed)) {
    DrainMessages(c);
    return std::nullopt;
  }
  if (DrainMessages(c)) return std::nullopt;
  // A lone number is what the user typed, not a question.
  if (parsed.isNumber() || result.containsUnknowns() || result.containsType(STRUCT_SYMBOLIC) ||
      result.isAborted() || result.isUndefined())
    return std::nullopt;
  const bool hasUnit = result.containsType(STRUCT_UNIT) > 0;
  if (!hasUnit && !result.isNumber()) return std::nullopt;
  if (conversion && !hasUnit) return std::nullopt;

  PrintOptions po;
  po.number_fraction_format = FRACTION_DECIMAL;
  po.use_unicode_signs = false;
  po.abbreviate_names = true;
  Calculation calculation;
  calculation.domain = conversion ? kDomainConversion : kDomainCalculator;
  calculation.answer = c->print(result, kTimeoutMs, po);
  calculation.expression = c->print(parsed, kTimeoutMs, po);
  DrainMessages(c);
  if (calculation.answer.empty()) return std::nullopt;
  return calculation;
}

}  // namespace kx::searchd
