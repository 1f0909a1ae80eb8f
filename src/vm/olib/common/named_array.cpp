// Opening a named arena array for the small structures of vm/olib.
#include <cstring>

#include "vm/olib/common/named_array.h"

namespace qw::olib {

bool OpenNamedArray(VMArena *arena, uint8_t **pathBuffer, const char *path, const char *suffix, int scan,
                    bool mayCreate, int locked, VMAArrayHandle *handle, bool *created) {
  if (!*pathBuffer && !ArrayInit(*pathBuffer, 1, 64)) return false;
  const size_t saved = ArrayLength(*pathBuffer);
  const size_t a = std::strlen(path), b = std::strlen(suffix);
  if (!ArrayGrow(*pathBuffer, a + b)) return false;
  std::memcpy(*pathBuffer + saved, path, a);
  std::memcpy(*pathBuffer + saved + a, suffix, b);
  const uint8_t *name = *pathBuffer + saved;
  const uint32_t length = uint32_t(a + b);
  handle->arena = arena;
  handle->locked[0] = handle->locked[1] = uint32_t(locked != 0);
  int create = mayCreate ? 1 : 0;
  handle->id[NEWGEN] = VMAArrayFind(arena, NEWGEN, name, length, scan, &create, 0, ARENA_MAX_BLOCK_SIZE);
  bool ok = true;
  if (handle->id[NEWGEN] == VMA_NO_ARRAY) {
    if (QWErrorIsSet()) QWErrorRethrow("cannot make array \"%.*s\"", int(length), name);
    else QWErrorThrow(2, QW_ERROR_CLASS_GENERAL, "no array \"%.*s\"", int(length), name);
    ok = false;
  } else {
    if (create && created) *created = true;
    int noCreate = 0;
    handle->id[OLDGEN] = VMAArrayFind(arena, OLDGEN, name, length, scan, &noCreate, 0, ARENA_MAX_BLOCK_SIZE);
  }
  (void)ArrayLengthSet(*pathBuffer, saved);  // shrinking cannot fail
  return ok;
}

bool OpenNamedArray(VMArena *arena, const std::string &base, const char *name, int scan, int locked,
                    VMAArrayHandle *handle, bool *made) {
  uint8_t *scratch = nullptr;
  const std::string suffix = name ? std::string("/") + name : std::string();
  const bool ok = OpenNamedArray(arena, &scratch, base.c_str(), suffix.c_str(), scan, !VMArenaIsReadOnly(arena), locked,
                                 handle, made);
  ArrayFree(scratch);
  return ok;
}

}  // namespace qw::olib
