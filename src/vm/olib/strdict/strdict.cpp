// String dictionaries: ID trees keyed by UTF-16 strings, each code unit
// recoded to its frequency rank (recode_table.cpp) so that common text makes
// small, dense symbols.
#include "qwvm/idtree.h"
#include "vm/olib/idtree/idtree_internal.h"
#include "vm/olib/strdict/recode_table.h"

using qw::idtree::SymbolScratch;

struct StrDictEnumeration {
  IDTreeEnumeration *walk;
  uint16_t *text;  // qwlib growable array: the decoded string
};

namespace {

// Recodes the string into the thread data's scratch.
const uint32_t *Recode(IDTreeThreadData *threadData, const uint16_t *string, uint32_t length) {
  uint32_t *symbols = SymbolScratch(threadData, length);
  if (symbols == nullptr) return nullptr;
  for (uint32_t i = 0; i < length; ++i) symbols[i] = qw::strdict::RecodeSymbol(string[i]);
  return symbols;
}

}  // namespace

QW_API StrDict *StrDictNew(VMArena *arena, uint8_t **pathBuffer, const char *name, int *created, int locked) {
  return IDTreeNew(arena, pathBuffer, name, created, locked);
}
QW_API void StrDictFree(StrDict *dict) { IDTreeFree(dict); }
QW_API int StrDictCommit(StrDict *dict) { return IDTreeCommit(dict); }
QW_API int StrDictClear(StrDict *dict, uint32_t genID) { return IDTreeClear(dict, genID); }
QW_API int StrDictLockRegister(StrDict *dict, uint32_t lock, uint32_t genID) {
  return IDTreeLockRegister(dict, lock, genID);
}
QW_API StrDictThreadData *StrDictThreadDataNew(void) { return IDTreeThreadDataNew(); }
QW_API void StrDictThreadDataReInit(StrDictThreadData *threadData) { IDTreeThreadDataReInit(threadData); }
QW_API void StrDictThreadDataFree(StrDictThreadData *threadData) { IDTreeThreadDataFree(threadData); }
QW_API int StrDictSize(StrDict *dict, uint64_t *bound, uint64_t *count, uint32_t genID) {
  return IDTreeSize(dict, bound, count, genID);
}

QW_API uint32_t StrDictRecode(uint16_t c) { return qw::strdict::RecodeSymbol(c); }

QW_API uint64_t StrDictFind(StrDict *dict, StrDictThreadData *threadData, const uint16_t *string, uint32_t length,
                            int *create, int remove, int useFreeList, uint32_t genID) {
  const uint32_t *atom = Recode(threadData, string, length);
  if (atom == nullptr) return IDTREE_NO_ID;
  return IDTreeFind(dict, threadData, atom, length, create, remove, useFreeList, genID);
}

QW_API int StrDictSet(StrDict *dict, StrDictThreadData *threadData, const uint16_t *string, uint32_t length,
                      uint64_t id) {
  const uint32_t *atom = Recode(threadData, string, length);
  return atom != nullptr && IDTreeSet(dict, threadData, atom, length, id);
}

QW_API StrDictEnumeration *StrDictEnumerationNew(void) {
  auto *enumeration = static_cast<StrDictEnumeration *>(Allocate(sizeof(StrDictEnumeration)));
  if (enumeration == nullptr) return nullptr;
  *enumeration = StrDictEnumeration{IDTreeEnumerationNew(), nullptr};
  if (enumeration->walk == nullptr) {
    UnAllocate(enumeration);
    return nullptr;
  }
  return enumeration;
}

QW_API void StrDictEnumerationFree(StrDictEnumeration *enumeration) {
  if (enumeration == nullptr) return;
  IDTreeEnumerationFree(enumeration->walk);
  ArrayFree(enumeration->text);
  UnAllocate(enumeration);
}

QW_API int StrDictEnumerationInit(StrDict *dict, StrDictEnumeration *enumeration, const uint16_t *prefix,
                                  uint32_t prefixLength, uint32_t genID) {
  uint32_t *symbols = nullptr;
  if (prefixLength != 0 && !ArrayInit(symbols, sizeof(uint32_t), prefixLength)) return 0;
  if (prefixLength != 0 && !ArrayLengthSet(symbols, prefixLength)) {
    ArrayFree(symbols);
    return 0;
  }
  for (uint32_t i = 0; i < prefixLength; ++i) symbols[i] = qw::strdict::RecodeSymbol(prefix[i]);
  const int ok = IDTreeEnumerationInit(dict, enumeration->walk, symbols, prefixLength, PITREE_DEPTH_UNLIMITED, genID);
  ArrayFree(symbols);
  return ok;
}

QW_API int StrDictEnumerationGetNext(StrDictEnumeration *enumeration, const uint16_t **string, uint32_t *length,
                                     uint64_t *id) {
  const uint32_t *atom = nullptr;
  uint32_t atomLength = 0;
  if (!IDTreeEnumerationGetNext(enumeration->walk, &atom, &atomLength, id)) return 0;
  if (enumeration->text == nullptr && !ArrayInit(enumeration->text, sizeof(uint16_t), 64)) return 0;
  if (!ArrayLengthSet(enumeration->text, atomLength)) return 0;
  for (uint32_t i = 0; i < atomLength; ++i) {
    if (atom[i] > 0xFFFF) {
      return QWErrorThrow(74, QW_ERROR_CLASS_DATA, "string dictionary holds symbol %u beyond UTF-16", atom[i]);
    }
    enumeration->text[i] = qw::strdict::DecodeSymbol(uint16_t(atom[i]));
  }
  *string = enumeration->text;
  *length = atomLength;
  return 1;
}
