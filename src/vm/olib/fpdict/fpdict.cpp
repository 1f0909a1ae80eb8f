// Fingerprint dictionaries: ID trees keyed by 64-bit fingerprints cut into a
// five-symbol atom (12, 7, 7, 7 and 31 bits, lowest first), so that the
// first levels of the tree branch widely and the rest stay short.
#include "qwvm/idtree.h"
#include "vm/olib/common/checks.h"
#include "vm/olib/idtree/idtree_internal.h"

namespace {

struct Atom {
  uint32_t symbol[FPDICT_ATOM_LENGTH];
};

Atom Cut(uint64_t f) {
  return Atom{{uint32_t(f & 0xFFF), uint32_t((f >> 12) & 0x7F), uint32_t((f >> 19) & 0x7F),
               uint32_t((f >> 26) & 0x7F), uint32_t(f >> 33)}};
}

uint64_t Join(const uint32_t *s) {
  return uint64_t(s[0]) | uint64_t(s[1]) << 12 | uint64_t(s[2]) << 19 | uint64_t(s[3]) << 26 |
         uint64_t(s[4]) << 33;
}

}  // namespace

QW_API FPDict *FPDictNew(VMArena *arena, uint8_t **pathBuffer, const char *name, int *created, int locked) {
  return IDTreeNew(arena, pathBuffer, name, created, locked);
}
QW_API void FPDictFree(FPDict *dict) { IDTreeFree(dict); }
QW_API int FPDictCommit(FPDict *dict) { return IDTreeCommit(dict); }
QW_API int FPDictClear(FPDict *dict, uint32_t genID) { return IDTreeClear(dict, genID); }
QW_API int FPDictLockRegister(FPDict *dict, uint32_t lock, uint32_t genID) {
  return IDTreeLockRegister(dict, lock, genID);
}
QW_API FPDictThreadData *FPDictThreadDataNew(void) { return IDTreeThreadDataNew(); }
QW_API void FPDictThreadDataFree(FPDictThreadData *threadData) { IDTreeThreadDataFree(threadData); }
QW_API int FPDictSize(FPDict *dict, uint64_t *bound, uint64_t *count, uint32_t genID) {
  return IDTreeSize(dict, bound, count, genID);
}
QW_API int FPDictResetFreeList(FPDict *dict) { return IDTreeResetFreeList(dict); }
QW_API int FPDictSetHole(FPDict *dict, uint64_t id) { return IDTreeSetHole(dict, id); }

QW_API uint64_t FPDictFind(FPDict *dict, FPDictThreadData *threadData, uint64_t fingerprint, int *create,
                           int remove, int useFreeList, uint32_t genID) {
  const Atom atom = Cut(fingerprint);
  return IDTreeFind(dict, threadData, atom.symbol, FPDICT_ATOM_LENGTH, create, remove, useFreeList, genID);
}

QW_API int FPDictSet(FPDict *dict, FPDictThreadData *threadData, uint64_t fingerprint, uint64_t id) {
  const Atom atom = Cut(fingerprint);
  return IDTreeSet(dict, threadData, atom.symbol, FPDICT_ATOM_LENGTH, id);
}

QW_API FPDictEnumeration *FPDictEnumerationNew(void) { return IDTreeEnumerationNew(); }
QW_API void FPDictEnumerationFree(FPDictEnumeration *enumeration) { IDTreeEnumerationFree(enumeration); }

QW_API int FPDictEnumerationInit(FPDict *dict, FPDictEnumeration *enumeration, uint32_t genID) {
  return IDTreeEnumerationInit(dict, enumeration, nullptr, 0, PITREE_DEPTH_UNLIMITED, genID);
}

QW_API int FPDictEnumerationGetNext(FPDictEnumeration *enumeration, uint64_t *fingerprint, uint64_t *id) {
  const uint32_t *atom = nullptr;
  uint32_t keyLen = 0;
  if (!IDTreeEnumerationGetNext(enumeration, &atom, &keyLen, id)) return 0;
  if (keyLen != FPDICT_ATOM_LENGTH) {
    qw::olib::CorruptAssert(enumeration->tree->params.arena, "keyLen == 5", __FILE__, __LINE__);
  }
  *fingerprint = Join(atom);
  return 1;
}
