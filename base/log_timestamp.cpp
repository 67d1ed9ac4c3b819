// Invariant: the result is byte for byte what ICU's formatter gives for the
// full pattern. ICU formatting dominates the cost of a log line, so each
// thread formats once per second and patches the milliseconds in, which is
// exact because a time zone's offset never changes within a second. Where
// the locale's digits are not ASCII the patch is impossible and every call
// formats in full.
#include "base/log_timestamp.h"

#include <cmath>
#include <cstdint>
#include <memory>

#include <unicode/calendar.h>
#include <unicode/smpdtfmt.h>
#include <unicode/unistr.h>

namespace kx {
namespace {

// ICU formatters are not thread-safe, and building one costs far more than
// a line: one per thread.
class ThreadTimestampFormatter {
 public:
  std::string Format(double unixMilliseconds) {
    if (!formatter_ && !Create()) return std::string();
    const double whole = std::floor(unixMilliseconds);
    const int64_t second = static_cast<int64_t>(std::floor(whole / 1000));
    if (second != second_) {
      second_ = second;
      prefix_ = Full(static_cast<double>(second) * 1000);
      // "....:ss.000" in ASCII: keep "....:ss." for patching.
      if (prefix_.size() >= 4 && prefix_.compare(prefix_.size() - 4, 4, ".000") == 0) {
        prefix_.resize(prefix_.size() - 3);
      } else {
        prefix_.clear();
      }
    }
    if (prefix_.empty()) return Full(whole);
    const int millis = static_cast<int>(whole - static_cast<double>(second) * 1000);
    std::string result = prefix_;
    result += static_cast<char>('0' + millis / 100);
    result += static_cast<char>('0' + millis / 10 % 10);
    result += static_cast<char>('0' + millis % 10);
    return result;
  }

 private:
  bool Create() {
    UErrorCode status = U_ZERO_ERROR;
    auto created = std::make_unique<icu::SimpleDateFormat>(
        icu::UnicodeString(u"yyyy-MM-dd HH:mm:ss.SSS"), status);
    // Without ICU data the line still goes out, with an empty timestamp.
    if (U_FAILURE(status)) return false;
    formatter_ = std::move(created);
    return true;
  }

  std::string Full(double unixMilliseconds) {
    icu::UnicodeString text;
    formatter_->format(unixMilliseconds, text);
    std::string utf8;
    text.toUTF8String(utf8);
    return utf8;
  }

  std::unique_ptr<icu::SimpleDateFormat> formatter_;
  int64_t second_ = INT64_MIN;  // the second prefix_ belongs to
  std::string prefix_;          // empty: patching impossible
};

thread_local ThreadTimestampFormatter threadFormatter;

}  // namespace

std::string LogTimestamp(double unixMilliseconds) {
  return threadFormatter.Format(unixMilliseconds);
}

std::string LogTimestampNow() { return LogTimestamp(icu::Calendar::getNow()); }

}  // namespace kx
