// Short texts for dates and durations shown beside results: "Today",
// "Yesterday", a clock time, a track length.
//
// Day and time texts follow the locale of the library's string tables (the
// one the application set, else the environment) and the host's time zone.
// All functions are safe to call from any thread.
#pragma once

#include <string>

#include "kx/export.h"
#include "kx/value.h"

// The localised "Today", "Tomorrow" or "Yesterday" for a date near the
// midnight that began the day of the first call, otherwise the locale's
// short date. That midnight is computed once per process and kept, also
// across midnight: a process that runs for days keeps comparing against the
// first day.
KX_EXPORT std::string KXDayStringForDate(const kx::Date& date);

// The locale's short clock time of `date`.
KX_EXPORT std::string KXTimeStringForDate(const kx::Date& date);

// Day text and time text joined by the localised day-and-time format.
KX_EXPORT std::string KXDayAndTimeStringForDate(const kx::Date& date);

// "m:ss", or "h:mm:ss" from one hour on, of a duration in milliseconds;
// "00:00" for NaN. Durations are floored to whole seconds (so negative ones
// wrap: -1500 gives "59:58"). An infinite duration, or one whose hours do not
// fit a 64-bit integer, also gives "00:00".
KX_EXPORT std::string KXStringForDuration(double milliseconds);

// Drops the cached time formatter so that the next KXTimeStringForDate
// builds one in the current time zone. For callers that observe time-zone
// changes; the day texts keep their calendar and first midnight.
KX_EXPORT void _resetCalTimeZone();
