// Time arithmetic of the feedback records.
//
// Records hold times as doubles (seconds since 2001-01-01 00:00:00 UTC); the
// server wants signed 64-bit whole numbers. Every conversion from double to
// integer in this folder goes through TruncateToInt64, so that values which
// do not fit have one defined answer instead of undefined behaviour.
#pragma once

#include <cstdint>

namespace kx {

// `value` truncated toward zero. NaN gives 0; values at or beyond the range
// of int64_t (infinities included) saturate at INT64_MIN or INT64_MAX.
int64_t TruncateToInt64(double value);

// Milliseconds from `from` to `to` (both in seconds): (to - from) * 1000 in
// double precision, then truncated as above.
int64_t MillisecondsBetween(double from, double to);

}  // namespace kx
