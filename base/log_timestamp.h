// Timestamps of log lines: "yyyy-MM-dd HH:mm:ss.SSS" in the local time zone
// and the default locale, formatted by ICU.
#pragma once

#include <string>

namespace kx {

// Formats `unixMilliseconds` (milliseconds since 1970-01-01 UTC; fractions
// of a millisecond are dropped). Safe to call from any thread.
std::string LogTimestamp(double unixMilliseconds);

// LogTimestamp of the current time.
std::string LogTimestampNow();

}  // namespace kx
