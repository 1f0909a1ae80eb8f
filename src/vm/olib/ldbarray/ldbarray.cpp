// Lifetime of a large-element array (finding or creating its block-directory
// array and flag array), commit, lock registration, thread data, the shared
// helpers, and the operations forwarded to the block-directory array.
#include <cstring>
#include <memory>

#include "vm/olib/ldbarray/ldbarray_internal.h"

#ifndef FALSE
#define FALSE 0
#endif

namespace qw::ldba {

bool Corrupted(const LDBArray *array, uint32_t bucket, uint32_t handle, const char *invariant) {
  if (!VMArenaIsReadOnly(array->arena)) VMArenaTagCorrupted(array->arena);
  return QWErrorThrow(kCorruptCode, QW_ERROR_CLASS_DATA,
                      "corrupted large-element array in \"%s\": bucket %u, handle %u: %s does not hold",
                      VMArenaPath(array->arena), bucket, handle, invariant);
}

void CheckGeneration(uint32_t genID) {
  if (genID != NEWGEN && genID != OLDGEN) qwassert_(FALSE);
}

void CheckWrite(uint32_t genID) {
  CheckGeneration(genID);
  qwassert_(genID == NEWGEN);
}

bool ResetScratch(uint64_t **list) {
  if (*list && ArrayCapacity(*list) > kScratchShrink) ArrayFree(*list);
  if (!*list) return ArrayInit(*list, sizeof(uint64_t), 64) != 0;
  (void)ArrayLengthSet(*list, 0);  // shrinking cannot fail
  return true;
}

namespace {

struct LDBArrayDeleter {
  void operator()(LDBArray *array) const {
    DBArrayFree(array->elements);
    if (array->flagLock) RWLockDestroy(array->flagLock);
    std::default_delete<LDBArray>()(array);
  }
};
using LDBArrayPtr = std::unique_ptr<LDBArray, LDBArrayDeleter>;

// A name built in a scratch buffer of our own (the caller's buffer is handed
// on to the block-directory array, which may move it while reading a path).
class OwnName {
 public:
  OwnName() = default;
  ~OwnName() { ArrayFree(bytes_); }
  OwnName(const OwnName &) = delete;
  OwnName &operator=(const OwnName &) = delete;

  // path + suffix, NUL-terminated.
  [[nodiscard]] bool Set(const char *path, const char *suffix) {
    const size_t a = std::strlen(path), b = std::strlen(suffix);
    if ((!bytes_ && !ArrayInit(bytes_, 1, a + b + 1)) || !ArrayLengthSet(bytes_, a + b + 1)) return false;
    std::memcpy(bytes_, path, a);
    std::memcpy(bytes_ + a, suffix, b + 1);
    return true;
  }
  const char *c_str() const { return reinterpret_cast<const char *>(bytes_); }
  uint32_t length() const { return uint32_t(ArrayLength(bytes_) - 1); }

 private:
  uint8_t *bytes_ = nullptr;
};

// The flag array's ids in both generations: found or made in NEWGEN, found in
// OLDGEN (absent when it is new since the last commit).
bool OpenFlagArray(LDBArray *array, const char *path, bool mayCreate, int locked, bool *created) {
  OwnName name;
  if (!name.Set(path, "/ldbarray/flag")) return false;
  VMAArrayHandle &flag = array->flag;
  flag.arena = array->arena;
  flag.locked[0] = flag.locked[1] = uint32_t(locked != 0);
  int create = mayCreate ? 1 : 0;
  flag.id[NEWGEN] = VMAArrayFind(array->arena, NEWGEN, name.c_str(), name.length(), 0, &create, 0,
                                 ARENA_MAX_BLOCK_SIZE);
  if (flag.id[NEWGEN] == VMA_NO_ARRAY) {
    if (QWErrorIsSet()) return QWErrorRethrow("cannot make array \"%s\"", name.c_str());
    return QWErrorThrow(2, QW_ERROR_CLASS_GENERAL, "no array \"%s\"", name.c_str());
  }
  if (create) *created = true;
  int noCreate = 0;
  flag.id[OLDGEN] = VMAArrayFind(array->arena, OLDGEN, name.c_str(), name.length(), 0, &noCreate, 0,
                                 ARENA_MAX_BLOCK_SIZE);
  return true;
}

// The arena's size classes, smallest first.
void LearnClassSizes(LDBArray *array) {
  uint32_t size = 1;
  for (uint32_t &classSize : array->classSizes) {
    classSize = size <= ARENA_MAX_BLOCK_SIZE ? VMABlockArrayBlockRound_(array->arena, size, ARENA_MAX_BLOCK_SIZE)
                                             : ARENA_MAX_BLOCK_SIZE;
    size = classSize + 1;
  }
}

}  // namespace
}  // namespace qw::ldba

using namespace qw::ldba;

extern "C" {

QW_API LDBArray *LDBArrayNew_(VMArena *arena, uint8_t **pathBuffer, const char *path, uint32_t reserved,
                              int *created, int locked, uint32_t bucketCount) {
  const bool mayCreate = created && *created && !VMArenaIsReadOnly(arena);
  if (created) *created = 0;
  if (reserved != 0) {
    QWErrorThrow(22, QW_ERROR_CLASS_GENERAL, "LDBArrayNew_: reserved must be 0");
    return nullptr;
  }
  qwassert_(bucketCount <= 65536);
  const uint32_t lockFlag = locked ? 1 : 0;
  LDBArrayPtr array(new (std::nothrow) LDBArray{arena, {lockFlag, lockFlag}, nullptr, nullptr, {}, 0, {}});
  if (!array) {
    QWErrorThrow(12, QW_ERROR_CLASS_SYSTEM, "out of memory for a large-element array");
    return nullptr;
  }
  OwnName prefix;
  int elementsCreated = mayCreate ? 1 : 0;
  bool flagCreated = false;
  if (!prefix.Set(path, "/ldbarray") ||
      !(array->elements = DBArrayNew_(arena, pathBuffer, prefix.c_str(), 0, &elementsCreated, locked, bucketCount)) ||
      !OpenFlagArray(array.get(), path, mayCreate, locked, &flagCreated) || !(array->flagLock = RWLockInit())) {
    QWErrorRethrow("cannot open large-element array \"%s\"", path);
    return nullptr;
  }
  array->bucketCount = DBArrayBucketCount(array->elements);
  LearnClassSizes(array.get());
  if (created) *created = (elementsCreated || flagCreated) ? 1 : 0;
  return array.release();
}

QW_API LDBArray *LDBArrayNew(VMArena *arena, uint8_t **pathBuffer, const char *path, int *created, int locked,
                             uint32_t bucketCount) {
  return LDBArrayNew_(arena, pathBuffer, path, 0, created, locked, bucketCount);
}

QW_API void LDBArrayFree(LDBArray *array) {
  if (array) LDBArrayDeleter()(array);
}

QW_API int LDBArrayCommit(LDBArray *array) {
  DBArrayCommit(array->elements);
  array->flag.id[OLDGEN] = array->flag.id[NEWGEN];
  return 1;
}

QW_API int LDBArrayLockRegister(LDBArray *array, uint32_t lock, uint32_t genID) {
  CheckGeneration(genID);
  // This arena has no background flush lock, so registering may always mark
  // the array locked.
  if (lock) array->locked[genID] = array->flag.locked[genID] = 1;
  if (array->flag.id[genID] != VMA_NO_ARRAY &&
      !VMAArrayLockRegister_(array->arena, array->flag.id[genID], genID, lock))
    return QWErrorRethrow("cannot register the lock of a flag array");
  return DBArrayLockRegister(array->elements, lock, genID);
}

QW_API void LDBArraySetCompact(LDBArray *array, uint32_t compact) { DBArraySetCompact(array->elements, compact); }

QW_API void LDBArraySetMaxBlocks(LDBArray *array, uint32_t maxBlocks) {
  DBArraySetMaxBlocks(array->elements, maxBlocks);
}

QW_API uint32_t LDBArrayBucketCount(LDBArray *array) { return array->bucketCount; }

QW_API uint32_t LDBArraySize(LDBArray *array, uint32_t bucket, uint32_t genID) {
  return DBArraySize(array->elements, bucket, genID);
}

QW_API const void *LDBArrayHintGet(LDBArray *array, uint32_t bucket, uint32_t handle, uint32_t genID) {
  return DBArrayHintGet(array->elements, bucket, handle, genID);
}

QW_API uint64_t LDBArrayUsage(LDBArray *array, uint32_t bucket, uint32_t genID, uint64_t *used) {
  return DBArrayUsage(array->elements, bucket, genID, used);
}

QW_API void LDBArrayPrefetch(LDBArray *array, uint32_t bucket, uint32_t handle, uint32_t genID) {
  DBArrayPrefetch(array->elements, bucket, handle, genID);
}

QW_API uint32_t LDBArrayCheck(LDBArray *array, uint32_t genID) { return DBArrayCheck(array->elements, genID); }

QW_API int LDBArrayMSync(LDBArray *array) { return DBArrayMSync(array->elements); }

QW_API LDBArrayThreadData *LDBArrayThreadDataNew(void) {
  auto *data = static_cast<LDBArrayThreadData *>(Allocate(sizeof(LDBArrayThreadData)));
  if (!data) return nullptr;
  if (!ResetScratch(&data->ids) || !ResetScratch(&data->list)) {
    LDBArrayThreadDataFree(data);
    return nullptr;
  }
  return data;
}

QW_API void LDBArrayThreadDataFree(LDBArrayThreadData *data) {
  if (!data) return;
  ArrayFree(data->ids);
  ArrayFree(data->list);
  UnAllocate(data);
}

QW_API int LDBArrayThreadDataReInit(LDBArrayThreadData *data) {
  return ResetScratch(&data->ids) && ResetScratch(&data->list);
}

}  // extern "C"
