// Keyed archives arrive from other processes (result properties, hidden
// results, feedback). Whatever the bytes, decoding must not crash, and what
// decodes must archive again and decode again.
#include <cstdint>
#include <cstdlib>
#include <span>

#include "support/keyed_archiver.h"
#include "support/keyed_unarchiver.h"
#include "support/secure_archiving.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  std::span<const uint8_t> bytes(data, size);

  // Secure first: it also registers the image classes for the plain pass.
  kx::Value secure = _kx_secureUnarchiveObjectWithData(bytes);
  if (!secure.isNil()) {
    auto again = _kx_secureArchivedDataWithRootObject(secure);
    if (!again || _kx_secureUnarchiveObjectWithData(*again).isNil()) std::abort();
  }

  kx::Value plain = kx::KeyedUnarchiver::UnarchivedObjectWithData(bytes);
  if (!plain.isNil()) {
    auto again = kx::KeyedArchiver::ArchivedDataWithRootObject(plain);
    if (!again || kx::KeyedUnarchiver::UnarchivedObjectWithData(*again).isNil()) std::abort();
  }
  return 0;
}
