// Fingerprint dictionaries over an integer B-tree: fingerprint -> WID, with
// the counter and hole stack of id_allocator.h in u32.
#include <memory>
#include <string>

#include "qwvm/btree.h"
#include "qwvm/fpbdict.h"
#include "vm/olib/common/checks.h"
#include "vm/olib/common/named_array.h"
#include "vm/olib/common/owner.h"
#include "vm/olib/common/id_allocator.h"
#include "vm/olib/common/path_buffer.h"

using qw::olib::CheckGeneration;
using qw::olib::CheckNewGeneration;

namespace {
constexpr uint32_t kKeySize = 8;
constexpr uint32_t kValueSize = 4;
}  // namespace

struct FPBDict {
  BTree *lookup;           // fingerprint -> WID
  VMAArrayHandle freeWID;  // u32 stack of holes
  VMAArrayHandle params;   // u32 counter
};

struct FPBDictEnumeration {
  BTreeEnumeration *btenum;
};

namespace {

qw::olib::IdAllocator<uint32_t> Allocator(const FPBDict *dict) {
  return qw::olib::IdAllocator<uint32_t>(dict->params, dict->freeWID);
}


// Takes the WID that Peek named, refusing to hand out the "absent" value.
bool TakeWID(FPBDict *dict, bool useFreeList, uint32_t peeked) {
  uint32_t wid = 0;
  if (!Allocator(dict).Take(useFreeList, &wid)) return false;
  OLIB_ASSERT_TEXT(wid == peeked, "newID == id");
  return true;
}

}  // namespace

QW_API FPBDict *FPBDictNew(VMArena *arena, uint8_t **pathBuffer, const char *name, int *created, int locked) {
  if (created) *created = 0;
  if (name == nullptr || *name == 0) {
    QWErrorThrow(22, QW_ERROR_CLASS_GENERAL, "FPBDictNew: empty name");
    return nullptr;
  }
  qw::olib::PathScope path(pathBuffer);
  if (!path.ok()) return nullptr;
  const std::string base = path.Text() + name;
  qw::olib::Owner<FPBDict, FPBDictFree> dict(static_cast<FPBDict *>(Allocate(sizeof(FPBDict))));
  if (!dict) return nullptr;
  *dict = FPBDict{nullptr, {}, {}};
  const uint32_t namesBefore = VMAArrayLength_(arena, 0, NEWGEN);
  bool made = false;
  if ((dict->lookup = BTreeNew(arena, base.c_str(), "lookup", 0, kKeySize, kValueSize)) == nullptr ||
      !qw::olib::OpenNamedArray(arena, base, "params", 0, locked, &dict->params, &made) ||
      !qw::olib::OpenNamedArray(arena, base, "freeWID", 0, locked, &dict->freeWID, &made) ||
      !qw::olib::EnsureCounter<uint32_t>(dict->params)) {
    QWErrorRethrow("FPBDictNew: cannot open dictionary \"%s\"", base.c_str());
    return nullptr;
  }
  if (created) *created = int(VMAArrayLength_(arena, 0, NEWGEN) != namesBefore);
  return dict.release();
}

QW_API void FPBDictFree(FPBDict *dict) {
  if (dict == nullptr) return;
  if (dict->lookup) BTreeFree(dict->lookup, kKeySize);
  UnAllocate(dict);
}

QW_API int FPBDictCommit(FPBDict *dict) {
  BTreeCommit(dict->lookup, kKeySize);
  dict->params.id[OLDGEN] = dict->params.id[NEWGEN];
  dict->freeWID.id[OLDGEN] = dict->freeWID.id[NEWGEN];
  return 1;
}

QW_API int FPBDictClear(FPBDict *dict, uint32_t genID) {
  CheckGeneration(genID);
  CheckNewGeneration(genID);
  if (!BTreeClear(dict->lookup, genID) || !Allocator(dict).Reset()) {
    return QWErrorRethrow("FPBDictClear: cannot clear the dictionary");
  }
  return 1;
}

QW_API int FPBDictLockRegister(FPBDict *dict, int full, uint32_t genID) {
  CheckGeneration(genID);
  if (!BTreeLockRegister(dict->lookup, kKeySize, full, genID)) return 0;
  for (VMAArrayHandle *array : {&dict->params, &dict->freeWID}) {
    if (array->id[genID] == VMA_NO_ARRAY) continue;
    if (!VMAArrayLockRegister_(array->arena, array->id[genID], genID, 1)) return 0;
    array->locked[genID] = 1;
  }
  return 1;
}

QW_API uint32_t FPBDictFind(FPBDict *dict, uint64_t fingerprint, int *create, int remove, int useFreeList,
                            uint32_t genID) {
  CheckGeneration(genID);
  const bool wantCreate = create != nullptr && *create != 0;
  OLIB_ASSERT_TEXT(!(wantCreate && remove), "!(create && remove)");
  if (create) *create = 0;
  if (wantCreate || remove) CheckNewGeneration(genID);
  uint32_t peeked = FPBDICT_NO_WID;
  if (wantCreate) {
    if (!Allocator(dict).Peek(useFreeList != 0, &peeked)) return FPBDICT_NO_WID;
    if (peeked == FPBDICT_NO_WID) {
      QWErrorThrow(28, QW_ERROR_CLASS_GENERAL, "FPBDictFind: no WID left");
      return FPBDICT_NO_WID;
    }
  }
  QWErrorClear();
  const uint64_t found =
      BTreeFind(dict->lookup, fingerprint, peeked, FPBDICT_NO_WID, int(wantCreate), 0, remove, genID);
  if (QWErrorIsSet()) return FPBDICT_NO_WID;
  if (found != FPBDICT_NO_WID) {
    if (remove && !Allocator(dict).PushHole(uint32_t(found))) return FPBDICT_NO_WID;
    return uint32_t(found);
  }
  if (!wantCreate) return FPBDICT_NO_WID;
  if (!TakeWID(dict, useFreeList != 0, peeked)) return FPBDICT_NO_WID;
  *create = 1;
  return peeked;
}

QW_API int FPBDictSet(FPBDict *dict, uint64_t fingerprint, uint32_t wid, int check) {
  if (wid == FPBDICT_NO_WID) return QWErrorThrow(22, QW_ERROR_CLASS_GENERAL, "FPBDictSet: WID %u cannot be stored", wid);
  if (check) {
    int create = 0;
    const uint32_t existing = FPBDictFind(dict, fingerprint, &create, 0, 0, NEWGEN);
    if (existing == FPBDICT_NO_WID && QWErrorIsSet()) return 0;
    OLIB_ASSERT_TEXT(existing == FPBDICT_NO_WID, "FPBDictFind(fpDict, fp, &create, FALSE, FALSE, NEWGEN) == UINT_MAX_VALUE");
  }
  QWErrorClear();
  const uint64_t ret = BTreeFind(dict->lookup, fingerprint, wid, FPBDICT_NO_WID, 1, 1, 0, NEWGEN);
  if (QWErrorIsSet()) return 0;
  OLIB_ASSERT_TEXT(ret == FPBDICT_NO_WID, "ret == UINT_MAX_VALUE");
  return Allocator(dict).RaiseTo(wid) ? 1 : 0;
}

QW_API int FPBDictSetHole(FPBDict *dict, uint32_t wid) { return Allocator(dict).PushHole(wid) ? 1 : 0; }

QW_API int FPBDictResetFreeList(FPBDict *dict) { return Allocator(dict).ResetHoles() ? 1 : 0; }

QW_API int FPBDictSize(FPBDict *dict, uint32_t *bound, uint32_t *count, uint32_t genID) {
  CheckGeneration(genID);
  return Allocator(dict).Size(genID, bound, count) ? 1 : 0;
}

QW_API FPBDictEnumeration *FPBDictEnumerationNew(FPBDict *dict, uint32_t genID) {
  auto *enumeration = static_cast<FPBDictEnumeration *>(Allocate(sizeof(FPBDictEnumeration)));
  if (enumeration == nullptr) return nullptr;
  // The B-tree's walk fails only when memory runs out: that is fatal here.
  enumeration->btenum = BTreeEnumerationNew(dict->lookup, kKeySize, genID);
  OLIB_ASSERT_TEXT(enumeration->btenum != nullptr, "enumeration->btenum != NULL");
  return enumeration;
}

QW_API int FPBDictEnumerationNext(FPBDictEnumeration *enumeration, uint64_t *fingerprint, uint32_t *wid) {
  uint64_t value = 0;
  if (!BTreeEnumerationNext(enumeration->btenum, fingerprint, &value)) return 0;
  *wid = uint32_t(value);
  return 1;
}

QW_API void FPBDictEnumerationFree(FPBDictEnumeration *enumeration) {
  if (enumeration == nullptr) return;
  BTreeEnumerationFree(enumeration->btenum);
  UnAllocate(enumeration);
}
