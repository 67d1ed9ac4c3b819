// Day and time texts. One mutex guards the process-wide formatters, the
// calendar and the first midnight: the caches are filled on first use from
// whichever thread asks, and ICU formatters and calendars are not meant to be
// shared between threads without a lock (the calendar is even moved while
// measuring a difference).
#include <unicode/calendar.h>
#include <unicode/datefmt.h>

#include <cmath>
#include <memory>
#include <mutex>
#include <optional>

#include "kx/date_strings.h"
#include "kx/format.h"
#include "kx/log.h"
#include "platform/strings/localized_strings.h"
#include "support/date_environment.h"

namespace kx {
namespace {

constexpr double kTwoDaysInSeconds = 172800;
constexpr char kStringTable[] = "Search";

std::string ToUTF8(const icu::UnicodeString& text) {
  std::string out;
  text.toUTF8String(out);
  return out;
}

class DateCaches {
 public:
  static DateCaches& Shared() {
    static DateCaches* caches = new DateCaches;  // used until exit
    return *caches;
  }

  std::string dayString(const Date& date) {
    std::lock_guard lock(mutex_);
    const UDate when = ICUDateFromDate(date);
    const std::optional<UDate> midnight = midnightThisMorningLocked();
    if (midnight && std::fabs((when - *midnight) / 1000.0) < kTwoDaysInSeconds) {
      if (const char* key = relativeDayKeyLocked(*midnight, when))
        return LibraryLocalizedString(key, kStringTable);
    }
    return formatLocked(day_, icu::DateFormat::kShort, icu::DateFormat::kNone, when);
  }

  std::string timeString(const Date& date) {
    std::lock_guard lock(mutex_);
    return formatLocked(time_, icu::DateFormat::kNone, icu::DateFormat::kShort,
                        ICUDateFromDate(date));
  }

  void resetTimeFormatter() {
    std::lock_guard lock(mutex_);
    time_.reset();
  }

 private:
  // Requires mutex_. Null only when ICU cannot build a calendar.
  icu::Calendar* calendarLocked() {
    if (!calendar_) {
      UErrorCode status = U_ZERO_ERROR;
      calendar_.reset(icu::Calendar::createInstance(CurrentTimeZone().release(),
                                                    FormattingLocale(), status));
      if (U_FAILURE(status)) {
        KXLOG(3, "Cannot create a calendar: %s", u_errorName(status));
        calendar_.reset();
      }
    }
    return calendar_.get();
  }

  // Requires mutex_. 00:00:00 of the day of the first call, kept for the
  // life of the process on purpose (see the header).
  std::optional<UDate> midnightThisMorningLocked() {
    if (midnight_) return midnight_;
    icu::Calendar* calendar = calendarLocked();
    if (!calendar) return std::nullopt;
    UErrorCode status = U_ZERO_ERROR;
    calendar->setTime(ICUDateFromDate(CurrentDate()), status);
    for (UCalendarDateFields field : {UCAL_HOUR_OF_DAY, UCAL_MINUTE, UCAL_SECOND, UCAL_MILLISECOND})
      calendar->set(field, 0);
    const UDate midnight = calendar->getTime(status);
    if (U_FAILURE(status)) return std::nullopt;
    midnight_ = midnight;
    return midnight_;
  }

  // Requires mutex_. The key of the relative day word for `when`, nullptr
  // when the short date applies. The calendar's day, hour, minute and second
  // difference from midnight decides: one day ahead is tomorrow; within the
  // day, any negative part means the previous day; exactly one day back
  // (the previous midnight) is yesterday too.
  const char* relativeDayKeyLocked(UDate midnight, UDate when) {
    icu::Calendar* calendar = calendarLocked();
    UErrorCode status = U_ZERO_ERROR;
    calendar->setTime(midnight, status);
    // Each difference moves the calendar on, so the later fields measure
    // what the earlier ones left.
    const int32_t days = calendar->fieldDifference(when, UCAL_DATE, status);
    const int32_t hours = calendar->fieldDifference(when, UCAL_HOUR_OF_DAY, status);
    const int32_t minutes = calendar->fieldDifference(when, UCAL_MINUTE, status);
    const int32_t seconds = calendar->fieldDifference(when, UCAL_SECOND, status);
    if (U_FAILURE(status)) return nullptr;
    const bool anyNegative = hours < 0 || minutes < 0 || seconds < 0;
    const bool exactlyMidnight = hours == 0 && minutes == 0 && seconds == 0;
    if (days == 1) return "TOMORROW";
    if (days == 0) return anyNegative ? "YESTERDAY" : "TODAY";
    if (days == -1 && exactlyMidnight) return "YESTERDAY";
    return nullptr;
  }

  // Requires mutex_. Formats with `formatter`, building it on first use in
  // the current locale and time zone.
  std::string formatLocked(std::unique_ptr<icu::DateFormat>& formatter,
                           icu::DateFormat::EStyle dateStyle, icu::DateFormat::EStyle timeStyle,
                           UDate when) {
    if (!formatter) {
      formatter.reset(icu::DateFormat::createDateTimeInstance(dateStyle, timeStyle,
                                                              FormattingLocale()));
      if (!formatter) {
        KXLOG(3, "Cannot create a date formatter");
        return std::string();
      }
      formatter->adoptTimeZone(CurrentTimeZone().release());
    }
    icu::UnicodeString text;
    formatter->format(when, text);
    return ToUTF8(text);
  }

  std::mutex mutex_;
  std::unique_ptr<icu::DateFormat> day_;
  std::unique_ptr<icu::DateFormat> time_;
  std::unique_ptr<icu::Calendar> calendar_;
  std::optional<UDate> midnight_;
};

}  // namespace
}  // namespace kx

std::string KXDayStringForDate(const kx::Date& date) {
  return kx::DateCaches::Shared().dayString(date);
}

std::string KXTimeStringForDate(const kx::Date& date) {
  return kx::DateCaches::Shared().timeString(date);
}

std::string KXDayAndTimeStringForDate(const kx::Date& date) {
  const std::string format =
      kx::LibraryLocalizedString("TODAY_TOMORROW_YESTERDAY_DATE_FORMAT-%@-%@", kx::kStringTable);
  return kx::Format(format, KXDayStringForDate(date), KXTimeStringForDate(date));
}

void _resetCalTimeZone() { kx::DateCaches::Shared().resetTimeFormatter(); }
