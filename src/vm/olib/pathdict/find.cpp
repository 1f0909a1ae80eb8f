// Path lookups: cutting a path into components, mapping components to atom
// handles (making new atoms on create), and the lookup of the handle
// sequence.
#include "vm/olib/common/checks.h"
#include "vm/olib/pathdict/pathdict_internal.h"

using qw::olib::CheckGeneration;

namespace qw::pathdict {
namespace {

constexpr size_t kScratchLimit = 10000;

bool Fresh(uint32_t **array) {
  if (*array != nullptr && ArrayCapacity(*array) > kScratchLimit) ArrayFree(*array);
  if (*array == nullptr) return ArrayInit(*array, sizeof(uint32_t), 64);
  return ArrayLengthSet(*array, 0);
}

bool AddSpan(PathDictThreadData *threadData, uint32_t start, uint32_t end) {
  if (end == start) return true;  // runs of "/" and the ends make no component
  if (end - start > PATHDICT_MAX_COMPONENT) {
    return QWErrorThrow(22, QW_ERROR_CLASS_GENERAL, "path component of %u bytes is longer than %u bytes",
                        end - start, PATHDICT_MAX_COMPONENT);
  }
  return ArrayAppend(threadData->spans, start) && ArrayAppend(threadData->spans, end - start);
}

// The bytes of one component as symbols, one per byte.
const uint32_t *ComponentSymbols(PathDictThreadData *threadData, const char *path, uint32_t component) {
  const uint32_t start = threadData->spans[2 * component], length = threadData->spans[2 * component + 1];
  if (!ArrayLengthSet(threadData->symbols, length)) return nullptr;
  for (uint32_t i = 0; i < length; ++i) threadData->symbols[i] = uint8_t(path[start + i]);
  return threadData->symbols;
}

inline uint32_t ComponentLength(const PathDictThreadData *threadData, uint32_t component) {
  return threadData->spans[2 * component + 1];
}

// Writes the text of a new handle into its slot of the text array.
bool StoreText(PathDict *dict, PathDictThreadData *threadData, uint32_t handle, const char *text,
               uint32_t length) {
  const uint32_t bucket = handle % kAtomBuckets, handle0 = handle / kAtomBuckets;
  const uint32_t size = LDBArraySize(dict->p_atom, bucket, NEWGEN);
  if (size > handle0) {
    return LDBArrayDataSet(dict->p_atom, threadData->ldbArray, bucket, handle0, text, length, NEWGEN) != 0;
  }
  if (size < handle0) {
    qw::olib::CorruptAssert(dict->arena, "LDBArraySize(pathDict->p_atom, bucket, genID) >= handle0", __FILE__,
                            __LINE__);
  }
  const uint32_t added = LDBArrayAdd(dict->p_atom, threadData->ldbArray, bucket, text, length, NEWGEN);
  if (added == LDBARRAY_INVALID_HANDLE) return false;
  if (added != handle0) qw::olib::CorruptAssert(dict->arena, "handle == handle0", __FILE__, __LINE__);
  return true;
}

// Finds or makes the atom of one component (NEWGEN).
bool MakeAtom(PathDict *dict, PathDictThreadData *threadData, const char *path, uint32_t component,
              uint32_t *handle) {
  auto atoms = Atoms(dict);
  uint32_t candidate = 0;
  if (!atoms.Peek(true, &candidate)) return false;
  if (candidate >= kNoAtomHandle) return QWErrorThrow(28, QW_ERROR_CLASS_GENERAL, "no atom handle left");
  const uint32_t length = ComponentLength(threadData, component);
  const uint32_t *symbols = ComponentSymbols(threadData, path, component);
  if (symbols == nullptr) return false;
  const uint64_t found = PITreeFind(dict->atomLookup, threadData->piTree, symbols, length, uint64_t(candidate) + 1,
                                    NEWGEN, 1, 0, 0);
  if (found == EMPTY_NODE_DATA) return false;
  *handle = uint32_t(found - 1);
  if (found != uint64_t(candidate) + 1) return true;
  uint32_t taken = 0;
  const char *text = path + threadData->spans[2 * component];
  if (!StoreText(dict, threadData, candidate, text, length) || !atoms.Take(true, &taken)) {
    // Without its text the atom must not stay findable.
    QWErrorSave();
    (void)PITreeFind(dict->atomLookup, threadData->piTree, symbols, length, 0, NEWGEN, 0, 1, 0);
    QWErrorRestore();
    return false;
  }
  OLIB_ASSERT_TEXT(taken == candidate, "newID == id");
  return true;
}

}  // namespace

bool ResetScratch(PathDictThreadData *threadData) {
  return Fresh(&threadData->spans) && Fresh(&threadData->handles) && Fresh(&threadData->symbols);
}

bool SplitPath(PathDictThreadData *threadData, const char *path, uint32_t pathLength) {
  if (!ArrayLengthSet(threadData->spans, 0)) return false;
  uint32_t start = 0;
  for (uint32_t i = 0; i < pathLength; ++i) {
    if (path[i] == '\\') {
      ++i;  // the next byte is literal; the backslash stays in the text
    } else if (path[i] == '/') {
      if (!AddSpan(threadData, start, i)) return false;
      start = i + 1;
    }
  }
  return AddSpan(threadData, start, pathLength < start ? start : pathLength);
}

bool ResolveComponents(PathDict *dict, PathDictThreadData *threadData, const char *path, uint32_t genID) {
  if (!ArrayLengthSet(threadData->handles, ComponentCount(threadData))) return false;
  for (uint32_t c = 0; c < ComponentCount(threadData); ++c) {
    const uint32_t *symbols = ComponentSymbols(threadData, path, c);
    if (symbols == nullptr) return false;
    const uint64_t found = PITreeFind(dict->atomLookup, threadData->piTree, symbols, ComponentLength(threadData, c),
                                      0, genID, 0, 0, 0);
    if (found == EMPTY_NODE_DATA) return false;  // unknown, or failed with the error set
    threadData->handles[c] = uint32_t(found - 1);
  }
  return true;
}

uint32_t EncodeHandles(PathDictThreadData *threadData) {
  const uint32_t count = uint32_t(ArrayLength(threadData->handles));
  if (!ArrayLengthSet(threadData->symbols, size_t(count) * ATOM_NODE_LENGTH)) return UINT32_MAX;
  for (uint32_t i = 0; i < count; ++i) {
    for (uint32_t k = 0; k < ATOM_NODE_LENGTH; ++k) {
      threadData->symbols[i * ATOM_NODE_LENGTH + k] = (threadData->handles[i] >> (7 * k)) & 127;
    }
  }
  return count * ATOM_NODE_LENGTH;
}

}  // namespace qw::pathdict

using namespace qw::pathdict;

QW_API uint64_t PathDictFind(PathDict *dict, PathDictThreadData *threadData, const char *path, uint32_t pathLength,
                             uint64_t value, uint32_t genID, int create, int remove) {
  CheckGeneration(genID);
  OLIB_ASSERT_TEXT(!(create && (genID == OLDGEN)), "!(create && (genID == OLDGEN))");
  if (remove) qw::olib::CheckNewGeneration(genID);
  QWErrorClear();
  if (!ResetScratch(threadData) || !SplitPath(threadData, path, pathLength)) return 0;
  if (ComponentCount(threadData) == 0) {
    return QWErrorThrow(22, QW_ERROR_CLASS_GENERAL, "path \"%.*s\" has no component", int(pathLength), path);
  }
  if (create) {
    if (!ArrayLengthSet(threadData->handles, ComponentCount(threadData))) return 0;
    for (uint32_t c = 0; c < ComponentCount(threadData); ++c) {
      if (!MakeAtom(dict, threadData, path, c, &threadData->handles[c])) return 0;
    }
  } else if (!ResolveComponents(dict, threadData, path, genID)) {
    return 0;
  }
  const uint32_t symbolCount = EncodeHandles(threadData);
  if (symbolCount == UINT32_MAX) return 0;
  return PITreeFind(dict->pathLookup, threadData->piTree, threadData->symbols, symbolCount, value, genID, create,
                    remove, 0);
}
