// The process-wide diagnostic log.
//
// Every call site is guarded by the file threshold: KXLOG(level, ...) costs
// one relaxed load and a branch while logging is off. Levels are on the
// system-log scale: 2 critical, 3 error, 5 notice, 6 info, 7 debug.
#pragma once

#include "kx/export.h"

#include <atomic>
#include <cstdint>
#include <span>
#include <string_view>

#include "kx/format.h"

// File threshold; also the guard read by every logging site.
extern KX_EXPORT std::atomic<int32_t> gKXLogLevel;

// The core: formats once per sink and writes the console and file lines.
KX_EXPORT void KXLogV(const char* path, int line, int level, std::string_view format,
            std::span<const kx::FormatArg> args);

template <class... Args>
void _KXLog(const char* path, int line, int level, std::string_view format,
            const Args&... args) {
  const kx::FormatArg captured[] = {kx::FormatArg(args)..., kx::FormatArg(0)};
  KXLogV(path, line, level, format, std::span<const kx::FormatArg>(captured, sizeof...(Args)));
}

KX_EXPORT void setKXLogLevel(int level);
KX_EXPORT void setKXLogOutputLevel(int level);

#define KXLOG(level, ...)                                                        \
  do {                                                                           \
    if (gKXLogLevel.load(std::memory_order_relaxed) >= (level)) [[unlikely]]     \
      _KXLog(__FILE__, __LINE__, (level), __VA_ARGS__);                          \
  } while (0)
