// The counter behind query IDs: 32 bits whose values are sign-extended into
// the 64-bit IDs, so that after 2^31 - 1 queries the IDs continue at -2^31
// and, after 2^32, at 0 again.
#pragma once

#include <atomic>
#include <cstdint>

namespace kx {

class QueryIDCounter {
 public:
  // `last` is the value the previous query took (0: none yet).
  constexpr explicit QueryIDCounter(uint32_t last = 0) : last_(last) {}

  // The next ID. The step happens in the atomic's own unsigned arithmetic,
  // which wraps; no signed value ever overflows.
  int32_t next() { return static_cast<int32_t>(++last_); }

 private:
  std::atomic<uint32_t> last_;
};

}  // namespace kx
