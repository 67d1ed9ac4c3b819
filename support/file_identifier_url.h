// Internals of kx_URLFromFileID.
#pragma once

#include <cstdint>

#include "kx/file_identifier_url.h"
#include "platform/files/file_id_service.h"

namespace kx {

// Opens the object (DeviceID(), low 32 bits of `fileID`) read-only without
// following a final symbolic link. Logs the failure and returns an invalid
// descriptor when it cannot be opened.
FileDescriptor openbyid(uint64_t fileID);

}  // namespace kx
