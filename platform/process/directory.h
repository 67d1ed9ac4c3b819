// Creating and vetting the directories the library keeps its files in.
//
// Both functions refuse rather than repair: a directory that exists with the
// wrong owner, the wrong kind or open permissions is reported, never chmod'ed
// or replaced, since another user may have planted it.
#pragma once

#include <string>

namespace kx {

// Creates `path` and every missing parent with mode 0700 (existing
// directories keep their mode). Returns false and sets `*error` to a
// sentence naming the offending path when a component is not a directory or
// cannot be created. `path` must be absolute.
bool MakeDirectories(const std::string& path, std::string* error);

// Makes `path` a private directory of the calling user: creates it (and its
// parents) 0700 when missing; otherwise requires that it is a real directory
// (not a symbolic link), owned by the effective user, with no permission bits
// for group or others.
bool MakePrivateDirectory(const std::string& path, std::string* error);

}  // namespace kx
