// Where the date texts take the current time and the time zone from.
//
// By default the wall clock and the host's zone (TZ, else /etc/localtime,
// read afresh whenever a formatter or calendar is built). Tests replace
// either source before the first date text is asked for; the formatting code
// is the same either way.
#pragma once

#include <unicode/locid.h>
#include <unicode/timezone.h>

#include <functional>
#include <memory>
#include <optional>
#include <string>

#include "kx/value.h"

namespace kx {

struct DateEnvironment {
  std::function<Date()> now;            // empty: Date::Now()
  std::optional<std::string> timeZone;  // an Olson identifier; absent: the host's
};

// Replaces the sources for every later call. Safe to call from any thread.
void SetDateEnvironmentForTesting(DateEnvironment environment);

// The current time from the installed source.
Date CurrentDate();

// A new time-zone object for the installed zone.
std::unique_ptr<icu::TimeZone> CurrentTimeZone();

// The locale that date formats follow: the one of the string tables.
icu::Locale FormattingLocale();

// Milliseconds since 1970 as ICU counts them.
inline double ICUDateFromDate(const Date& date) { return date.unixTime() * 1000.0; }

}  // namespace kx
