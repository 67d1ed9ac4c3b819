// File URLs from file-system identifiers.
//
// Document results carry no paths, only the identifiers of the item: its file
// identifier, its parent directory's identifier and its name, and its
// document identifier. Identifiers survive renames and moves, and the
// document identifier also survives a safe save that replaces the file, so
// resolving them finds where the document is now.
#pragma once

#include "kx/export.h"

#include <cstdint>
#include <optional>
#include <string>

#include "kx/value.h"

// The current location of a document, tried in order: by file identifier, by
// parent identifier and name, by document identifier. Every candidate must
// report `documentID`. Nothing (logged) when `documentID` is absent or no
// step finds the document. Safe to call from any thread; blocks on file
// system access.
KX_EXPORT std::optional<kx::URL> kx_URLFromFileID(std::optional<uint64_t> fileID,
                                        const std::optional<std::string>& filename,
                                        std::optional<uint64_t> parentFileID,
                                        std::optional<uint32_t> documentID);
