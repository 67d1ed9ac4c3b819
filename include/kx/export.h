// Symbol visibility of the library. The library is built with hidden
// visibility; only what carries KX_EXPORT is part of its ABI.
#pragma once

#if defined(KX_STATIC_DEFINE)
#define KX_EXPORT
#else
#define KX_EXPORT __attribute__((visibility("default")))
#endif
