// Small file store: paths to handles, reading and writing file bytes, and
// listing paths.
#include <cstring>

#include "vm/olib/common/checks.h"
#include "vm/olib/sfs/sfs_internal.h"
#include "vm/olib/sfs/thread_pool.h"

using qw::sfs::FileOf;
using qw::sfs::GenerationOf;

namespace {

constexpr uint32_t kNoCandidate = 0xFFFFFFFEu;
constexpr uint32_t kFileBucket = 0;

// Makes sure bucket 0 has a record for `fileID`, adding empty ones.
bool EnsureRecord(SFS *store, LDBArrayThreadData *threadData, uint32_t fileID) {
  while (LDBArraySize(store->file, kFileBucket, NEWGEN) <= fileID) {
    if (LDBArrayAdd(store->file, threadData, kFileBucket, nullptr, 0, NEWGEN) == LDBARRAY_INVALID_HANDLE) {
      return QWErrorRethrow("cannot add the record of file %u", fileID);
    }
  }
  return true;
}

// The file ID a new path would get, or kNoCandidate.
bool Candidate(SFS *store, int create, uint32_t genID, uint32_t *candidate) {
  *candidate = kNoCandidate;
  if (!create || genID != NEWGEN) return true;
  if (!qw::sfs::FileIds(store).Peek(true, candidate)) return false;
  if (*candidate >= kNoCandidate / 2) {
    return QWErrorThrow(28, QW_ERROR_CLASS_GENERAL, "small file store \"%s\" has no file ID left",
                        VMArenaPath(store->arena));
  }
  return true;
}

}  // namespace

QW_API uint32_t SFSHandleGet(SFS *store, const char *path, uint32_t pathLength, int create, uint32_t genID) {
  qw::olib::CheckGeneration(genID);
  OLIB_ASSERT_TEXT(!(create && genID == OLDGEN), "!create");
  qw::sfs::PoolLease lease(SFS_POOL_LIMIT, SFS_POOL_TIMEOUT_MS);
  if (lease.get() == nullptr) return SFS_NO_HANDLE;
  uint32_t newID = kNoCandidate;
  if (!Candidate(store, create, genID, &newID)) return SFS_NO_HANDLE;
  const uint64_t nodeData = newID == kNoCandidate ? 0 : uint64_t(newID) + 1;
  const uint64_t found =
      PathDictFind(store->path, lease.get()->pathDict, path, pathLength, nodeData, genID, newID != kNoCandidate, 0);
  if (found == 0) return SFS_NO_HANDLE;
  if (found == nodeData) {  // the path is new: its ID is taken now
    uint32_t newID1 = 0;
    if (!qw::sfs::FileIds(store).Take(true, &newID1)) return SFS_NO_HANDLE;
    OLIB_ASSERT_TEXT(create && newID1 == newID, "newID1 == newID");
    if (!EnsureRecord(store, lease.get()->ldbArray, newID)) return SFS_NO_HANDLE;
  }
  return uint32_t((found - 1) << 1) | (genID == NEWGEN ? 1u : 0u);
}

QW_API const void *SFSGet(SFS *store, uint32_t handle, uint32_t offset, uint32_t *end, uint32_t *length) {
  const uint32_t genID = GenerationOf(handle);
  if (FileOf(handle) >= LDBArraySize(store->file, kFileBucket, genID)) {
    *end = 0;
    *length = 0;
    return nullptr;
  }
  return LDBArrayRange(store->file, kFileBucket, FileOf(handle), offset, end, length, genID, 1);
}

QW_API void SFSDataRelease(SFS *store, uint32_t handle, const void *data) {
  LDBArrayRelease(store->file, GenerationOf(handle), 1, const_cast<void *>(data));
}

// The record is checked once and the ranges read one after the other until
// the file's length (each range tells it), with the buffer grown once.
QW_API int SFSGetArray(SFS *store, uint32_t handle, uint8_t **array, int append) {
  if (*array == nullptr && !ArrayInit(*array, 1, 4096)) return 0;
  if (!append && !ArrayLengthSet(*array, 0)) return 0;
  QWErrorClear();
  const uint32_t genID = GenerationOf(handle);
  if (FileOf(handle) >= LDBArraySize(store->file, kFileBucket, genID)) return QWErrorIsSet() ? 0 : 1;
  uint32_t offset = 0, end = 0, total = 0;
  do {
    const void *data = LDBArrayRange(store->file, kFileBucket, FileOf(handle), offset, &end, &total, genID, 1);
    if (!data) break;
    const size_t at = ArrayLength(*array);
    const bool grown = (offset != 0 || ArrayEnsureCapacity(*array, at + total)) && ArrayGrow(*array, end - offset);
    if (grown) std::memcpy(*array + at, data, end - offset);
    LDBArrayRelease(store->file, genID, 1, const_cast<void *>(data));
    if (!grown) return 0;
    offset = end;
  } while (offset < total);
  return QWErrorIsSet() ? 0 : 1;
}

QW_API int SFSSet(SFS *store, uint32_t handle, const void *data, uint32_t length) {
  if (handle == SFS_NO_HANDLE) return 0;
  qw::olib::CheckNewGeneration(GenerationOf(handle));
  if (FileOf(handle) >= LDBArraySize(store->file, kFileBucket, NEWGEN)) return 0;
  qw::sfs::PoolLease lease(SFS_POOL_LIMIT, SFS_POOL_TIMEOUT_MS);
  if (lease.get() == nullptr) return 0;
  if (!LDBArrayDataSet(store->file, lease.get()->ldbArray, kFileBucket, FileOf(handle), data, length, NEWGEN)) {
    return QWErrorRethrow("cannot write file %u of the store in \"%s\"", FileOf(handle), VMArenaPath(store->arena));
  }
  return 1;
}

QW_API int SFSList(SFS *store, const char *prefix, uint32_t prefixLength, uint32_t genID, SFSListCallback callback,
                   void *context) {
  PathDictEnumeration *walk = PathDictEnumerationNew();
  if (walk == nullptr) return 0;
  // 0 without an error: no stored path has the prefix, the walk is already over.
  int ok = PathDictEnumerationInit(store->path, walk, prefix, prefixLength, PATHDICT_DEPTH_UNLIMITED, genID) ||
           !QWErrorIsSet();
  const char *path = nullptr;
  uint32_t length = 0;
  uint64_t value = 0;
  while (ok && PathDictEnumerationGetNext(walk, &path, &length, &value)) {
    const uint32_t handle = uint32_t((value - 1) << 1) | (genID == NEWGEN ? 1u : 0u);
    if (!callback(context, path, length, handle)) break;
  }
  ok = ok && !QWErrorIsSet();
  PathDictEnumerationFree(walk);
  return ok;
}
