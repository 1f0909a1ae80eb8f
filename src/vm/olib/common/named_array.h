// Opening the named arena arrays that small structures keep their state in.
#pragma once

#include <cstdint>
#include <string>

#include "qwvm/qwlib.h"
#include "qwvm/vmaarray.h"

namespace qw::olib {

// Fills a handle for the array `path` + `suffix` (NUL-terminated name built
// in the caller's buffer, whose length is restored): found or created in
// NEWGEN (when *created allows, on a writable arena), found in OLDGEN
// (VMA_NO_ARRAY when new since the last commit). *created (may be NULL) is
// set to 1 when the array was made. False with an error; code 2 when it is
// missing and may not be made.
[[nodiscard]] bool OpenNamedArray(VMArena *arena, uint8_t **pathBuffer, const char *path, const char *suffix,
                                  int scan, bool mayCreate, int locked, VMAArrayHandle *handle, bool *created);

// Finds or makes the array base + "/" + name (base alone when name is NULL)
// with both lock flags set to `locked`: made in NEWGEN unless the arena is
// read-only, looked up in OLDGEN. *made becomes true when the array was made.
// False with an error (code 2 when it is missing on a read-only arena).
[[nodiscard]] bool OpenNamedArray(VMArena *arena, const std::string &base, const char *name, int scan, int locked,
                                  VMAArrayHandle *handle, bool *made);

}  // namespace qw::olib
