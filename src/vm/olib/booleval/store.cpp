// The evaluator's record: open, free, clear, commit and statistics.
#include <algorithm>
#include <new>

#include "vm/olib/booleval/booleval_internal.h"
#include "vm/olib/common/checks.h"
#include "vm/olib/common/owner.h"
#include "vm/olib/common/path_buffer.h"

namespace qw::booleval {

bool ReadElement(LDBArray *array, uint32_t handle, uint8_t **bytes, uint32_t genID) {
  if (handle >= LDBArraySize(array, 0, genID))
    return *bytes != nullptr ? ArrayLengthSet(*bytes, 0) != 0 : ArrayInit(*bytes, 1, 256) != 0;
  return LDBArrayGetArray(array, 0, handle, bytes, 0, genID) != 0;
}

bool Corrupt(BoolEval *eval, const char *what, uint32_t id) {
  if (!VMArenaIsReadOnly(eval->arena)) VMArenaTagCorrupted(eval->arena);
  return QWErrorThrow(74, QW_ERROR_CLASS_DATA, "boolean evaluator \"%s\": malformed %s %u", eval->path.c_str(), what,
                      id) != 0;
}

namespace {

// Appends the one-varint elements [from, size) of `array` in OLDGEN.
bool LoadVarints(BoolEval *eval, LDBArray *array, const char *what, std::vector<uint32_t> *out,
                 uint32_t (*mapped)(uint32_t)) {
  const uint32_t size = LDBArraySize(array, 0, OLDGEN);
  for (uint32_t i = uint32_t(out->size()); i < size; ++i) {
    if (!ReadElement(array, i, &eval->bytes, OLDGEN)) return false;
    size_t pos = 0;
    uint32_t value = 0;
    if (!ReadVarint32(eval->bytes, ArrayLength(eval->bytes), &pos, &value) || pos != ArrayLength(eval->bytes)) {
      return Corrupt(eval, what, i);
    }
    out->push_back(mapped(value));
  }
  return true;
}

// Mirrors the values of conjunction `id` (OLDGEN).
bool LoadValues(BoolEval *eval, uint32_t id) {
  if (!ReadElement(eval->andNodes, id, &eval->bytes, OLDGEN)) return false;
  uint32_t total = 0;
  size_t start = 0;
  const size_t before = eval->memValues.size();
  if (!DecodeConjunctionHeader(eval->bytes, ArrayLength(eval->bytes), &total, &start) ||
      !DecodeValues(eval->bytes, ArrayLength(eval->bytes), start, &eval->memValues)) {
    return Corrupt(eval, "conjunction node", id);
  }
  if (id == eval->memValueStart.size()) {
    eval->memValueStart.push_back(0);
    eval->memValueCount.push_back(0);
  }
  eval->memValueStart[id] = uint32_t(before);
  eval->memValueCount[id] = uint32_t(eval->memValues.size() - before);
  return true;
}

// The values of conjunctions changed since the last load, then of the new
// ones.
bool LoadAllValues(BoolEval *eval) {
  std::sort(eval->changedValues.begin(), eval->changedValues.end());
  for (uint32_t id : eval->changedValues) {
    if (id < eval->memValueStart.size() && !LoadValues(eval, id)) return false;
  }
  eval->changedValues.clear();
  const uint32_t size = LDBArraySize(eval->andNodes, 0, OLDGEN);
  for (uint32_t id = uint32_t(eval->memValueStart.size()); id < size; ++id) {
    if (!LoadValues(eval, id)) return false;
  }
  return true;
}

void ClearMirror(BoolEval *eval) {
  for (auto *mirror : {&eval->memAndTotal, &eval->memAllNeg, &eval->memValueStart, &eval->memValueCount,
                       &eval->memValues, &eval->changedValues}) {
    mirror->clear();
  }
}

}  // namespace

bool LoadMirror(BoolEval *eval) {
  if (!eval->keepInMemory) return true;
  if (eval->reloadMirror) {
    ClearMirror(eval);
    eval->reloadMirror = false;
  }
  const bool ok = Guarded("BoolEvalOnCommit", [&] {
    return LoadVarints(eval, eval->andTotal, "conjunction total", &eval->memAndTotal,
                       [](uint32_t total) { return total; }) &&
           LoadVarints(eval, eval->allNeg, "all-negative entry", &eval->memAllNeg,
                       [](uint32_t id) { return LinkOf(id, kTagWeak); }) &&
           LoadAllValues(eval);
  });
  if (!ok) ClearMirror(eval);  // evaluations then read the arrays until a later commit reloads
  return ok;
}

}  // namespace qw::booleval

using namespace qw::booleval;

namespace {

// Opens the five structures under eval->path.
bool OpenParts(BoolEval *eval, uint8_t **pathBuffer, const char *prefix, bool mayCreate, bool *made) {
  LDBArray **arrays[] = {&eval->atomNodes, &eval->andTotal, &eval->allNeg, &eval->andNodes};
  const char *names[] = {"atomNodesAttr", "andTotalAttr", "allNegAttr", "andNodesAttr"};
  for (int i = 0; i < 4; ++i) {
    int created = mayCreate ? 1 : 0;
    *arrays[i] = LDBArrayNew(eval->arena, pathBuffer, (eval->path + names[i]).c_str(), &created, 0, 1);
    if (*arrays[i] == nullptr) return false;
    *made = *made || created;
  }
  int created = 0;
  qw::olib::PathScope scope(pathBuffer);
  if (!scope.ok() || !scope.Append(prefix + std::string("/"))) return false;
  eval->andLookup = IDTreeNew(eval->arena, pathBuffer, "andNodesLookup", &created, 0);
  if (eval->andLookup == nullptr) return false;
  *made = *made || created;
  return true;
}

}  // namespace

extern "C" {

QW_API BoolEval *BoolEvalNew(VMArena *arena, uint8_t **pathBuffer, const char *prefix, uint32_t genID, int *created,
                             int keepInMemory) {
  qw::olib::CheckGeneration(genID);
  if (created) *created = 0;
  if (prefix == nullptr || *prefix == 0) {
    QWErrorThrow(22, QW_ERROR_CLASS_GENERAL, "BoolEvalNew: empty prefix");
    return nullptr;
  }
  qw::olib::Owner<BoolEval, BoolEvalFree> eval(new (std::nothrow) BoolEval);
  qw::olib::PathScope scope(pathBuffer);
  if (!eval || !scope.ok()) {
    if (!eval) QWErrorThrow(12, QW_ERROR_CLASS_SYSTEM, "BoolEvalNew: out of memory");
    return nullptr;
  }
  eval->arena = arena;
  eval->keepInMemory = keepInMemory ? 1 : 0;
  bool made = false;
  const bool mayCreate = genID == NEWGEN && !VMArenaIsReadOnly(arena);
  const bool ok = Guarded("BoolEvalNew", [&] {
    eval->path = scope.Text() + prefix + "/";
    return OpenParts(eval.get(), pathBuffer, prefix, mayCreate, &made) &&
           (eval->cache = NodeEntryCacheInit(BOOLEVAL_CACHE_SLOTS)) && (eval->cacheLock = RWLockInit()) &&
           (eval->idScratch = IDTreeThreadDataNew()) && (eval->ldbScratch = LDBArrayThreadDataNew()) &&
           ArrayInit(eval->bytes, 1, 256) && LoadMirror(eval.get());
  });
  if (!ok) {
    QWErrorRethrow("BoolEvalNew: cannot open the boolean evaluator \"%s\"", eval->path.c_str());
    return nullptr;
  }
  if (created) *created = made ? 1 : 0;
  return eval.release();
}

QW_API void BoolEvalFree(BoolEval *eval) {
  if (eval == nullptr) return;
  LDBArrayFree(eval->atomNodes);
  LDBArrayFree(eval->andTotal);
  LDBArrayFree(eval->allNeg);
  LDBArrayFree(eval->andNodes);
  IDTreeFree(eval->andLookup);
  NodeEntryCacheFree(eval->cache);
  if (eval->cacheLock) RWLockDestroy(eval->cacheLock);
  IDTreeThreadDataFree(eval->idScratch);
  LDBArrayThreadDataFree(eval->ldbScratch);
  ArrayFree(eval->bytes);
  delete eval;
}

QW_API int BoolEvalClear(BoolEval *eval, uint32_t genID) {
  qw::olib::CheckGeneration(genID);
  OLIB_ASSERT_TEXT(genID == NEWGEN, "genID == NEWGEN");
  for (LDBArray *array : {eval->atomNodes, eval->andTotal, eval->allNeg, eval->andNodes}) {
    if (!LDBArrayClear(array, genID)) {
      return QWErrorRethrow("BoolEvalClear: cannot clear the boolean evaluator \"%s\"", eval->path.c_str());
    }
  }
  if (!IDTreeClear(eval->andLookup, genID)) {
    return QWErrorRethrow("BoolEvalClear: cannot clear the boolean evaluator \"%s\"", eval->path.c_str());
  }
  eval->reloadMirror = true;
  return 1;
}

QW_API int BoolEvalOnCommit(BoolEval *eval) {
  RWLockAcquireWrite_(eval->cacheLock);
  for (LDBArray *array : {eval->atomNodes, eval->andTotal, eval->allNeg, eval->andNodes}) LDBArrayCommit(array);
  IDTreeCommit(eval->andLookup);
  const bool ok = LoadMirror(eval);
  NodeEntryCacheReInit(eval->cache);
  RWLockRelease_(eval->cacheLock);
  return ok ? 1 : QWErrorRethrow("BoolEvalOnCommit: cannot load the boolean evaluator \"%s\"", eval->path.c_str());
}

QW_API int BoolEvalStat(BoolEval *eval, uint32_t genID, uint64_t *conjunctions, uint64_t *allNegative,
                        uint64_t *atomNodes, uint64_t *bytes) {
  qw::olib::CheckGeneration(genID);
  if (conjunctions) *conjunctions = LDBArraySize(eval->andNodes, 0, genID);
  if (allNegative) *allNegative = LDBArraySize(eval->allNeg, 0, genID);
  if (atomNodes) *atomNodes = LDBArraySize(eval->atomNodes, 0, genID);
  if (bytes) {
    *bytes = 0;
    for (LDBArray *array : {eval->atomNodes, eval->andTotal, eval->allNeg, eval->andNodes}) {
      uint64_t used = 0;
      LDBArrayUsage(array, 0, genID, &used);
      *bytes += used;
    }
  }
  return 1;
}

}  // extern "C"
