// The one place that includes standalone Asio, so its configuration is the
// same in every file that uses it.
#pragma once

// ThreadSanitizer does not model atomic_thread_fence, and Asio's fenced
// blocks only duplicate the ordering that its scheduler's mutex already
// gives; without them TSan sees the real happens-before edges.
// GCC announces the sanitizer with a macro, clang through a feature test.
#if defined(__SANITIZE_THREAD__)
#define KX_THREAD_SANITIZER 1
#elif defined(__has_feature)
#if __has_feature(thread_sanitizer)
#define KX_THREAD_SANITIZER 1
#endif
#endif
#if defined(KX_THREAD_SANITIZER) && !defined(ASIO_DISABLE_FENCED_BLOCK)
#define ASIO_DISABLE_FENCED_BLOCK 1
#endif

#include <asio.hpp>
