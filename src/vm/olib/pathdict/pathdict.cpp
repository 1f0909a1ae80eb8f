// Path dictionaries: lifetime, commit, clear, locks and thread data.
#include <memory>
#include <string>

#include "vm/olib/common/cells.h"
#include "vm/olib/common/named_array.h"
#include "vm/olib/common/owner.h"
#include "vm/olib/common/checks.h"
#include "vm/olib/common/path_buffer.h"
#include "vm/olib/pathdict/pathdict_internal.h"

using qw::olib::CheckGeneration;

namespace {

// Opens the two trees and the text array under the buffer's "N/pathdict/".
bool OpenParts(PathDict *dict, uint8_t **pathBuffer, const std::string &base, int locked, int *made) {
  int treeMade = 0, textMade = VMArenaIsReadOnly(dict->arena) ? 0 : 1, pathMade = 0;
  if ((dict->atomLookup = PITreeNew(dict->arena, pathBuffer, "atomLookup", &treeMade, locked)) == nullptr) return false;
  uint8_t *scratch = nullptr;
  dict->p_atom = LDBArrayNew(dict->arena, &scratch, (base + "/atom").c_str(), &textMade, locked, kAtomBuckets);
  ArrayFree(scratch);
  if (dict->p_atom == nullptr) return false;
  if ((dict->pathLookup = PITreeNew(dict->arena, pathBuffer, "pathLookup", &pathMade, locked)) == nullptr) {
    return false;
  }
  *made = treeMade | textMade | pathMade;
  return true;
}

}  // namespace

QW_API PathDict *PathDictNew(VMArena *arena, uint8_t **pathBuffer, const char *name, int *created, int locked) {
  if (created) *created = 0;
  if (name == nullptr || *name == 0) {
    QWErrorThrow(22, QW_ERROR_CLASS_GENERAL, "PathDictNew: empty name");
    return nullptr;
  }
  qw::olib::PathScope path(pathBuffer);
  if (!path.ok() || !path.Append(std::string(name) + "/pathdict/")) return nullptr;
  const std::string base = path.Text().substr(0, path.Text().size() - 1);  // without the last "/"
  qw::olib::Owner<PathDict, PathDictFree> dict(static_cast<PathDict *>(Allocate(sizeof(PathDict))));
  if (!dict) return nullptr;
  *dict = PathDict{arena, {}, nullptr, nullptr, nullptr, {}};
  bool arraysMade = false;
  int partsMade = 0;
  if (!qw::olib::OpenNamedArray(arena, base, "params", 0, locked, &dict->params, &arraysMade) ||
      !OpenParts(dict.get(), pathBuffer, base, locked, &partsMade) ||
      !qw::olib::OpenNamedArray(arena, base, "freeAtom", 0, locked, &dict->freeAtom, &arraysMade) ||
      !qw::olib::EnsureCounter<uint32_t>(dict->params)) {
    QWErrorRethrow("PathDictNew: cannot open path dictionary \"%s\"", base.c_str());
    return nullptr;
  }
  if (created) *created = int(arraysMade || partsMade);
  return dict.release();
}

QW_API void PathDictFree(PathDict *dict) {
  if (dict == nullptr) return;
  PITreeFree(dict->atomLookup);
  LDBArrayFree(dict->p_atom);
  PITreeFree(dict->pathLookup);
  UnAllocate(dict);
}

QW_API int PathDictCommit(PathDict *dict) {
  PITreeCommit(dict->atomLookup);
  LDBArrayCommit(dict->p_atom);
  PITreeCommit(dict->pathLookup);
  for (VMAArrayHandle *array : {&dict->params, &dict->freeAtom}) array->id[OLDGEN] = array->id[NEWGEN];
  return 1;
}

QW_API int PathDictClear(PathDict *dict, uint32_t genID) {
  CheckGeneration(genID);
  qw::olib::CheckNewGeneration(genID);
  if (!PITreeClear(dict->pathLookup, genID) || !PITreeClear(dict->atomLookup, genID) ||
      !LDBArrayClear(dict->p_atom, genID) || !qw::pathdict::Atoms(dict).Reset()) {
    return QWErrorRethrow("PathDictClear: cannot clear the path dictionary");
  }
  return 1;
}

QW_API int PathDictLockRegister(PathDict *dict, uint32_t lock, uint32_t genID) {
  CheckGeneration(genID);
  if (!PITreeLockRegister(dict->atomLookup, lock, genID) || !PITreeLockRegister(dict->pathLookup, lock, genID) ||
      !LDBArrayLockRegister(dict->p_atom, lock, genID)) {
    return 0;
  }
  for (VMAArrayHandle *array : {&dict->params, &dict->freeAtom}) {
    if (array->id[genID] == VMA_NO_ARRAY) continue;
    if (!VMAArrayLockRegister_(dict->arena, array->id[genID], genID, 1)) return 0;
    if (lock) array->locked[genID] = 1;
  }
  return 1;
}

QW_API PathDictThreadData *PathDictThreadDataNew(void) {
  auto *data = static_cast<PathDictThreadData *>(Allocate(sizeof(PathDictThreadData)));
  if (data == nullptr) return nullptr;
  *data = PathDictThreadData{PITreeThreadDataNew(), LDBArrayThreadDataNew(), nullptr, nullptr, nullptr};
  if (data->piTree == nullptr || data->ldbArray == nullptr || !qw::pathdict::ResetScratch(data)) {
    PathDictThreadDataFree(data);
    return nullptr;
  }
  return data;
}

QW_API void PathDictThreadDataReInit(PathDictThreadData *threadData) {
  PITreeThreadDataReInit(threadData->piTree);
  (void)LDBArrayThreadDataReInit(threadData->ldbArray);
  (void)qw::pathdict::ResetScratch(threadData);
}

QW_API void PathDictThreadDataFree(PathDictThreadData *threadData) {
  if (threadData == nullptr) return;
  PITreeThreadDataFree(threadData->piTree);
  LDBArrayThreadDataFree(threadData->ldbArray);
  ArrayFree(threadData->spans);
  ArrayFree(threadData->handles);
  ArrayFree(threadData->symbols);
  UnAllocate(threadData);
}
