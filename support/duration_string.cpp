#include <cmath>
#include <cstdint>

#include "kx/date_strings.h"
#include "kx/format.h"

std::string KXStringForDuration(double milliseconds) {
  if (!std::isfinite(milliseconds)) return "00:00";
  // Floor arithmetic throughout, in double precision, so that negative
  // durations wrap instead of printing minus signs.
  const double totalSeconds = std::floor(milliseconds / 1000);
  const double totalMinutes = std::floor(totalSeconds / 60);
  const double seconds = totalSeconds - 60 * totalMinutes;
  const double hours = std::floor(totalMinutes / 60);
  const double minutes = totalMinutes - 60 * hours;
  // Beyond this the conversion to an integer is undefined.
  if (std::fabs(hours) >= 9.2e18) return "00:00";
  const auto h = static_cast<int64_t>(hours);
  const auto m = static_cast<int64_t>(minutes);
  const auto s = static_cast<int64_t>(seconds);
  return h > 0 ? kx::Format("%ld:%02ld:%02ld", h, m, s) : kx::Format("%ld:%02ld", m, s);
}
