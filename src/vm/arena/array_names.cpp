// The array name service: array 0 holds the names of arrays 1, 2, 3, ... in
// id order, each a byte string closed by a NUL. An array without a name has
// an empty string there, or no slot at all when no named array follows it.
//
// Lookups with scan set walk array 0 of the generation asked for, comparing
// name by name. Lookups with scan 0 ask the name index (name_tree.cpp) and
// fall back to this scan where the index cannot answer.
//
// Creation (new generation, under the name mutex) gives the name a fresh id k
// (never a reused one: a reused id's slot lies inside array 0, which only
// grows at its end), pads the slots of unnamed ids below k with empty names,
// appends the name and its NUL, then makes the array record. If the record
// cannot be made, array 0 is cut back to its previous length.
#include <cstring>
#include <string>

#include "vm/arena/array_internal.h"
#include "vm/lbs/names.h"

namespace qw::vm {
namespace {

constexpr uint32_t kMismatch = UINT32_MAX;

// Reads array 0 of `genID` range by range and calls visit(bytes, count,
// firstIndex) until it returns false. False with an error when a range
// cannot be read.
template <typename Visit>
bool WalkNames(VMArena *arena, uint32_t genID, Visit &&visit) {
  const uint32_t length = VMAArrayLength_(arena, 0, genID);
  for (uint32_t i = 0; i < length;) {
    uint32_t end = 0;
    auto *bytes = static_cast<const uint8_t *>(
        VMAArrayRange_(arena, 0, 0, ARENA_MAX_BLOCK_SIZE, i, &end, genID, 1, 1, 0));
    if (!bytes) return false;
    bool more = visit(bytes, end - i, i);
    VMAArrayRelease_(arena, 0, const_cast<uint8_t *>(bytes), 1);
    if (!more) break;
    i = end;
  }
  return true;
}

// Id of `name` among the names of array 0 in `genID` (VMA_NO_ARRAY when
// absent). False with an error when array 0 cannot be read.
bool ScanNames(VMArena *arena, uint32_t genID, const uint8_t *name, uint32_t nameLength, uint32_t *id) {
  *id = VMA_NO_ARRAY;
  uint32_t current = 1;  // the id whose name is being read
  uint32_t matched = 0;  // bytes of `name` matched so far, kMismatch once it differs
  return WalkNames(arena, genID, [&](const uint8_t *bytes, uint32_t count, uint32_t) {
    for (uint32_t k = 0; k < count; ++k) {
      if (matched == kMismatch) {  // skip to the end of this name
        const void *nul = std::memchr(bytes + k, 0, count - k);
        if (!nul) return true;
        k = uint32_t(static_cast<const uint8_t *>(nul) - bytes);
      }
      uint8_t c = bytes[k];
      if (c == 0) {
        if (matched == nameLength) {
          *id = current;
          return false;
        }
        ++current;
        matched = 0;
      } else {
        matched = matched < nameLength && name[matched] == c ? matched + 1 : kMismatch;
      }
    }
    return true;
  });
}

// Stored names that cannot be right. Found while opening or mounting, where
// the generation files are what is damaged: the open fails, nothing is tagged.
bool NameError(VMArena *arena, const std::string &what) {
  return QWErrorThrow(74, QW_ERROR_CLASS_DATA, "%s in \"%s\"", what.c_str(), arena->directory.c_str()) != 0;
}

// Whether the blocks of a name array hold its length (full 8192-byte blocks,
// a tail block last), so that walking it cannot meet a missing block.
bool NameArrayIsWhole(const ArrayView &array) {
  if (array.type == EMPTY_ARRAY_TYPE) return array.length == 0;
  if (array.type != FULL_ARRAY_TYPE && array.type != TAIL_ARRAY_TYPE) return false;
  uint64_t capacity = 0;
  for (uint32_t b = 0; b < array.blockCount; ++b) {
    uint32_t size = ClassSizeOfId(array.BlockId(b));
    if ((b + 1 < array.blockCount || array.type == FULL_ARRAY_TYPE) && size != ARENA_MAX_BLOCK_SIZE) return false;
    capacity += size;
  }
  return array.length <= capacity;
}

// Array 0 as the committed view `view` has it.
ArrayView CommittedNameArray(const OldView &view) {
  ArrayView array;
  array.length = view.lengths[0];
  array.type = view.types[0];
  array.blockCount = view.starts[1] - view.starts[0];
  array.oldBlocks = view.blockIds + view.starts[0];
  return array;
}

// path + "/" + name (path alone without a name).
std::string JoinPath(const char *path, const char *name) {
  std::string full(path);
  if (name) full.append("/").append(name);
  return full;
}

int InitHandle(VMAArrayHandle *handle, VMArena *arena, const char *path, const char *name, int scan,
               int isBlockArray, uint32_t blockSize) {
  handle->arena = arena;
  handle->id[0] = handle->id[1] = VMA_NO_ARRAY;
  handle->locked[0] = handle->locked[1] = 0;
  if (!path) return QWErrorThrow(22, QW_ERROR_CLASS_GENERAL, "VMAArrayInitFromPath_: no path");
  const std::string full = JoinPath(path, name);
  const uint32_t length = uint32_t(full.size());
  int create = arena->readOnly ? 0 : 1;
  uint32_t newId = VMAArrayFind(arena, NEWGEN, full.data(), length, scan, &create, isBlockArray, blockSize);
  if (newId == VMA_NO_ARRAY) {
    if (QWErrorIsSet()) return QWErrorRethrow("VMAArrayInitFromPath_: cannot make the array \"%s\"", full.c_str());
    return QWErrorThrow(2, QW_ERROR_CLASS_GENERAL,
                        "VMAArrayInitFromPath_: no array \"%s\" in the read-only arena \"%s\"", full.c_str(),
                        arena->directory.c_str());
  }
  if ((NewRecord(arena, newId)->type == FULL_BLOCK_ARRAY_TYPE) != (isBlockArray != 0))
    return QWErrorThrow(22, QW_ERROR_CLASS_GENERAL, "VMAArrayInitFromPath_: array \"%s\" is %s block array",
                        full.c_str(), isBlockArray ? "not a" : "a");
  uint32_t oldId = VMAArrayFind(arena, OLDGEN, full.data(), length, scan, nullptr, isBlockArray, blockSize);
  if (oldId == VMA_NO_ARRAY && QWErrorIsSet())
    return QWErrorRethrow("VMAArrayInitFromPath_: cannot look \"%s\" up in the old generation", full.c_str());
  handle->id[NEWGEN] = newId;
  handle->id[OLDGEN] = oldId;
  return 1;
}

}  // namespace

uint32_t CreateNamed(VMArena *arena, const uint8_t *name, uint32_t nameLength, int isBlockArray, uint32_t blockSize) {
  std::vector<uint32_t> &ends = arena->arrayState.nameEnds;
  const uint32_t id = arena->arrayState.directory.Count();
  if (!NamesCurrent(arena)) return VMA_NO_ARRAY;
  const uint32_t before = ends.empty() ? 0 : ends.back() + 1;
  if (VMAArrayLength_(arena, 0, NEWGEN) != before) {
    QWErrorThrow(22, QW_ERROR_CLASS_GENERAL, "VMAArrayFind: array 0 was changed outside the name service");
    return VMA_NO_ARRAY;
  }
  const uint32_t padding = id - 1 - uint32_t(ends.size());
  std::string slot(padding, '\0');
  slot.append(reinterpret_cast<const char *>(name), nameLength);
  slot.push_back('\0');
  if (!VMAArrayAppend_(arena, 0, 0, ARENA_MAX_BLOCK_SIZE, slot.data(), uint32_t(slot.size()), NEWGEN, 1)) {
    QWErrorRethrow("VMAArrayFind: cannot store the name of array %u", id);
    return VMA_NO_ARRAY;
  }
  const uint32_t created = ArrayCreate(arena, isBlockArray, blockSize, false);
  if (created == VMA_NO_ARRAY) {
    QWErrorSave();
    (void)VMAArrayLengthSet_(arena, 0, before, NEWGEN, 1);
    QWErrorRestore();
    return VMA_NO_ARRAY;
  }
  qwassert_(created == id);
  for (uint32_t k = 0; k < padding; ++k) ends.push_back(before + k);
  ends.push_back(before + uint32_t(slot.size()) - 1);
  return id;
}

bool CheckNameArrays(VMArena *arena, const OldView &committed) {
  if (arena->arrayState.directory.Count() == 0 || committed.ArrayCount() == 0)
    return NameError(arena, "no name array");
  if (!NameArrayIsWhole(DecodeArray(arena, 0, NEWGEN)) || !NameArrayIsWhole(CommittedNameArray(committed)))
    return NameError(arena, "the name array does not hold its length");
  return true;
}

bool RebuildNames(VMArena *arena, bool onlyIfStale) {
  ScopedMutex lock(arena->arrayState.nameMutex);
  if (onlyIfStale && arena->arrayState.namesCurrent) return true;
  std::vector<uint32_t> &ends = arena->arrayState.nameEnds;
  ends.clear();
  arena->arrayState.namesCurrent = false;
  bool stored = WalkNames(arena, NEWGEN, [&](const uint8_t *bytes, uint32_t count, uint32_t first) {
    for (const uint8_t *at = bytes; (at = static_cast<const uint8_t *>(std::memchr(at, 0, count - (at - bytes))));
         ++at)
      ends.push_back(first + uint32_t(at - bytes));
    return true;
  });
  if (!stored) return false;
  const uint32_t length = VMAArrayLength_(arena, 0, NEWGEN);
  const uint32_t arrays = arena->arrayState.directory.Count();
  if (length > 0 && (ends.empty() || ends.back() != length - 1))
    return NameError(arena, "the last name in array 0 (" + std::to_string(length) + " bytes) has no end");
  if (ends.size() >= arrays)
    return NameError(arena, "array 0 holds " + std::to_string(ends.size()) + " names for " + std::to_string(arrays) +
                                " arrays");
  arena->arrayState.namesCurrent = true;
  return true;
}

void ForgetNames(VMArena *arena) {
  ScopedMutex lock(arena->arrayState.nameMutex);
  arena->arrayState.nameEnds.clear();
  arena->arrayState.namesCurrent = false;
}

bool NamesCurrent(const VMArena *arena) {
  if (arena->arrayState.namesCurrent) return true;
  QWErrorThrow(16, QW_ERROR_CLASS_GENERAL, "the names of \"%s\" are not known until the mounted generation is current",
               arena->directory.c_str());
  return false;
}

}  // namespace qw::vm

using namespace qw::vm;

extern "C" {

QW_API uint32_t VMAArrayFind(VMArena *arena, uint32_t genID, const void *name, uint32_t nameLength, int scan,
                             int *create, int isBlockArray, uint32_t blockSize) {
  CheckGeneration(genID);
  if (genID == OLDGEN && create) qwassert_(!*create);
  const bool wantCreate = create && *create;
  if (create) *create = 0;
  QWErrorClear();  // absent is VMA_NO_ARRAY without an error
  const auto *bytes = static_cast<const uint8_t *>(name);
  if (nameLength == 0 || std::memchr(bytes, 0, nameLength)) {
    if (wantCreate)
      QWErrorThrow(22, QW_ERROR_CLASS_GENERAL, "VMAArrayFind: an array name is one or more bytes other than NUL");
    return VMA_NO_ARRAY;
  }
  uint32_t id = VMA_NO_ARRAY;
  if (!scan) {  // the tree answers when it is there for this generation
    ScopedMutex lock(arena->arrayState.nameMutex);
    bool answered = false, created = false;
    id = NameTreeFind(arena, genID, bytes, nameLength, wantCreate, isBlockArray, blockSize, &answered, &created);
    if (answered) {
      if (created) *create = 1;
      else if (genID == NEWGEN && id != VMA_NO_ARRAY) ReclaimFreedId(arena, id);
      return id;
    }
  }
  if (genID == OLDGEN) {
    if (!ScanNames(arena, OLDGEN, bytes, nameLength, &id)) return VMA_NO_ARRAY;
    // The committed names are checked against the committed table here, not
    // at open: a damaged file may name an array the generation lacks.
    if (id != VMA_NO_ARRAY && id >= ArrayCountOf(arena, OLDGEN)) {
      TagCorruptedIfWritable(arena);
      NameError(arena, "the committed name array names array " + std::to_string(id) + ", which does not exist");
      return VMA_NO_ARRAY;
    }
    return id;
  }
  ScopedMutex lock(arena->arrayState.nameMutex);
  if (!ScanNames(arena, NEWGEN, bytes, nameLength, &id)) return id;
  if (id != VMA_NO_ARRAY) {
    ReclaimFreedId(arena, id);
    return id;
  }
  if (!wantCreate) return id;
  qwassert_(!arena->readOnly);
  id = CreateNamed(arena, bytes, nameLength, isBlockArray, blockSize);
  if (id == VMA_NO_ARRAY) return id;
  *create = 1;
  NameTreeAdd(arena, bytes, nameLength, id);
  return id;
}

QW_API int VMAArrayLookupFromPath(VMArena *arena, uint32_t genID, uint8_t **scratch, const char *path,
                                  const char *name, int scan, uint32_t *id) {
  *id = VMA_NO_ARRAY;
  if (!path) return QWErrorThrow(22, QW_ERROR_CLASS_GENERAL, "VMAArrayLookupFromPath: no path");
  if (!*scratch && !ArrayInit(*scratch, 1, 64)) return 0;
  if (ArrayElementSize_(*scratch) != 1)
    return QWErrorThrow(22, QW_ERROR_CLASS_GENERAL, "VMAArrayLookupFromPath: the scratch buffer is not a byte array");
  const size_t keep = ArrayLength(*scratch);
  const std::string full = JoinPath(path, name);
  if (!ArrayGrow(*scratch, full.size())) return 0;
  std::memcpy(*scratch + keep, full.data(), full.size());
  uint32_t found = VMAArrayFind(arena, genID, *scratch + keep, uint32_t(full.size()), scan, nullptr, 0, 0);
  ArrayLengthSet(*scratch, keep);  // shrinking cannot fail
  if (found == VMA_NO_ARRAY) return 0;
  *id = found;
  return 1;
}

QW_API int VMAArrayInitFromPath_(VMAArrayHandle *handle, VMArena *arena, const char *path, const char *name,
                                 int scan) {
  return InitHandle(handle, arena, path, name, scan, 0, ARENA_MAX_BLOCK_SIZE);
}

QW_API int VMAArrayInitFromPath(VMAArrayHandle *handle, VMArena *arena, const char *path, const char *name) {
  return InitHandle(handle, arena, path, name, 0, 0, ARENA_MAX_BLOCK_SIZE);
}

QW_API int VMABlockArrayInitFromPath_(VMAArrayHandle *handle, VMArena *arena, const char *path, const char *name,
                                      int scan) {
  return InitHandle(handle, arena, path, name, scan, 1, ARENA_MAX_BLOCK_SIZE);
}

QW_API int VMABlockArrayInitFromPath(VMAArrayHandle *handle, VMArena *arena, const char *path, const char *name) {
  return InitHandle(handle, arena, path, name, 0, 1, ARENA_MAX_BLOCK_SIZE);
}

}  // extern "C"
