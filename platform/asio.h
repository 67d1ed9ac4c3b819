// The one place that includes standalone Asio, so its configuration is the
// same in every file that uses it.
#pragma once

// ThreadSanitizer does not model atomic_thread_fence, and Asio's fenced
// blocks only duplicate the ordering that its scheduler's mutex already
// gives; without them TSan sees the real happens-before edges.
#if defined(__SANITIZE_THREAD__) && !defined(ASIO_DISABLE_FENCED_BLOCK)
#define ASIO_DISABLE_FENCED_BLOCK 1
#endif

#include <asio.hpp>
