// Walks over the paths under a prefix: the prefix's handles name a subtree
// of "pathLookup"; each atom found there is decoded back to handles and the
// handles' texts are joined with "/".
#include "vm/olib/common/checks.h"
#include "vm/olib/pathdict/pathdict_internal.h"

using namespace qw::pathdict;

struct PathDictEnumeration {
  PathDict *dict;
  PITreeEnumeration *walk;
  PathDictThreadData *threadData;
  uint8_t *text;  // qwlib growable: the path being returned, NUL-terminated
  uint32_t genID;
  bool finished;
};

namespace {

bool Corrupted(PathDict *dict, const char *what) {
  if (!VMArenaIsReadOnly(dict->arena)) VMArenaTagCorrupted(dict->arena);
  return QWErrorThrow(74, QW_ERROR_CLASS_DATA, "path dictionary: %s", what);
}

// Joins the texts of the handles encoded in `atom` into enumeration->text.
bool BuildPath(PathDictEnumeration *enumeration, const uint32_t *atom, uint32_t atomLength) {
  if (!ArrayLengthSet(enumeration->text, 0)) return false;
  for (uint32_t i = 0; i < atomLength; i += ATOM_NODE_LENGTH) {
    uint32_t handle = 0;
    for (uint32_t k = 0; k < ATOM_NODE_LENGTH; ++k) {
      if (atom[i + k] > 127) return Corrupted(enumeration->dict, "a path symbol is not 7 bits");
      handle |= atom[i + k] << (7 * k);
    }
    if (i != 0 && !ArrayAppend(enumeration->text, uint8_t('/'))) return false;
    if (!LDBArrayGetArray(enumeration->dict->p_atom, handle % kAtomBuckets, handle / kAtomBuckets, &enumeration->text,
                          1, enumeration->genID)) {
      return QWErrorRethrow("path dictionary: cannot read the text of atom %u", handle);
    }
  }
  return ArrayAppend(enumeration->text, uint8_t(0));
}

}  // namespace

QW_API PathDictEnumeration *PathDictEnumerationNew(void) {
  auto *enumeration = static_cast<PathDictEnumeration *>(Allocate(sizeof(PathDictEnumeration)));
  if (enumeration == nullptr) return nullptr;
  *enumeration = PathDictEnumeration{nullptr, PITreeEnumerationNew(), PathDictThreadDataNew(), nullptr, NEWGEN, true};
  if (enumeration->walk == nullptr || enumeration->threadData == nullptr ||
      !ArrayInit(enumeration->text, 1, 256)) {
    PathDictEnumerationFree(enumeration);
    return nullptr;
  }
  return enumeration;
}

QW_API void PathDictEnumerationFree(PathDictEnumeration *enumeration) {
  if (enumeration == nullptr) return;
  PITreeEnumerationFree(enumeration->walk);
  PathDictThreadDataFree(enumeration->threadData);
  ArrayFree(enumeration->text);
  UnAllocate(enumeration);
}

QW_API int PathDictEnumerationInit(PathDict *dict, PathDictEnumeration *enumeration, const char *prefix,
                                   uint32_t prefixLength, uint32_t depth, uint32_t genID) {
  qw::olib::CheckGeneration(genID);
  enumeration->dict = dict;
  enumeration->genID = genID;
  enumeration->finished = true;
  PathDictThreadData *threadData = enumeration->threadData;
  QWErrorClear();
  if (!ResetScratch(threadData) || !SplitPath(threadData, prefix, prefixLength)) return 0;
  if (!ResolveComponents(dict, threadData, prefix, genID)) return 0;  // unknown (no error set): finished
  const uint32_t symbolCount = EncodeHandles(threadData);
  if (symbolCount == UINT32_MAX) return 0;
  const uint32_t symbolDepth = depth >= PATHDICT_DEPTH_UNLIMITED ? PITREE_DEPTH_UNLIMITED : depth * ATOM_NODE_LENGTH;
  if (!PITreeEnumerationInit(dict->pathLookup, enumeration->walk, threadData->symbols, symbolCount, symbolDepth,
                             genID)) {
    return 0;
  }
  enumeration->finished = false;
  return 1;
}

QW_API int PathDictEnumerationGetNext(PathDictEnumeration *enumeration, const char **path, uint32_t *length,
                                      uint64_t *value) {
  while (!enumeration->finished) {
    const uint32_t *atom = nullptr;
    uint32_t atomLength = 0;
    if (!PITreeEnumerationGetNext(enumeration->walk, &atom, &atomLength, value)) {
      enumeration->finished = true;
      return 0;
    }
    if (atomLength % ATOM_NODE_LENGTH != 0) continue;  // not a whole handle sequence
    if (!BuildPath(enumeration, atom, atomLength)) return 0;
    *path = reinterpret_cast<const char *>(enumeration->text);
    *length = uint32_t(ArrayLength(enumeration->text) - 1);
    return 1;
  }
  return 0;
}
