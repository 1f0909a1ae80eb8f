// A box bucket's metadata: its arrays, the entry mapping (primary handles
// and secondary block lists), the params and the free lists as the
// allocator sees them, and the in-memory lists of what was freed.
#include <bit>
#include <cstdio>
#include <cstring>
#include <utility>

#include "util/endian.h"
#include "vm/lvm/box_internal.h"
#include "vm/olib/common/cells.h"

using qw::olib::CellAppend;
using qw::olib::CellCount;
using qw::olib::CellGet;
using qw::olib::CellPop;
using qw::olib::CellSet;

namespace qw::box {
namespace {

constexpr uint32_t kParamCount = 3;

bool OpenArray(BoxLVMMetadata *meta, const char *nameSpace, const char *name, VMAArrayHandle *handle,
               const char *failure, bool *made) {
  uint32_t id = VMA_NO_ARRAY;
  uint8_t *scratch = nullptr;
  const int existed = VMAArrayLookupFromPath(meta->arena, NEWGEN, &scratch, nameSpace, name, 0, &id);
  ArrayFree(scratch);
  if (!existed && QWErrorIsSet()) return QWErrorRethrow(failure, name);
  if (!VMAArrayInitFromPath(handle, meta->arena, nameSpace, name)) return QWErrorRethrow(failure, name);
  if (!existed) *made = true;
  return true;
}

// Element `s` of "secMapping" as a list of handles.
bool ReadBlockList(BoxLVMBucket &bucket, uint32_t s, std::vector<uint32_t> *handles) {
  uint8_t *bytes = nullptr;
  const bool ok = LDBArrayGetArray(bucket.meta.secMapping, 0, s, &bytes, 0, NEWGEN) != 0;
  const size_t length = ArrayLength(bytes);
  if (ok) {
    handles->resize(length / 4);
    for (size_t i = 0; i < handles->size(); ++i) (*handles)[i] = LoadLE32(bytes + 4 * i);
  }
  ArrayFree(bytes);
  if (!ok) return false;
  const size_t count = handles->size();
  if (length % 4 != 0 || count <= 1) {
    if (!VMArenaIsReadOnly(bucket.meta.arena)) VMArenaTagCorrupted(bucket.meta.arena);
    return QWErrorThrow(74, QW_ERROR_CLASS_DATA, "ArrayLength(*handle) > 1 does not hold for secondary id %u", s);
  }
  return true;
}

// A secondary id for a new block list: the last one given back, else a new
// element of "secMapping".
bool StoreBlockList(BoxLVMBucket &bucket, const std::vector<uint32_t> &handles, uint32_t *s) {
  std::vector<uint8_t> bytes(handles.size() * 4);
  for (size_t i = 0; i < handles.size(); ++i) StoreLE32(bytes.data() + 4 * i, handles[i]);
  BoxLVMMetadata &meta = bucket.meta;
  if (CellCount(meta.secMappingFreeList, NEWGEN) > 0) {
    if (!CellPop(meta.secMappingFreeList, s)) return false;
    return LDBArrayDataSet(meta.secMapping, meta.secMappingThreadData, 0, *s, bytes.data(), uint32_t(bytes.size()),
                           NEWGEN) != 0;
  }
  *s = LDBArrayAdd(meta.secMapping, meta.secMappingThreadData, 0, bytes.data(), uint32_t(bytes.size()), NEWGEN);
  if (*s == LDBARRAY_INVALID_HANDLE) return false;
  if (*s >= kNoPrimary / 2) return QWErrorThrow(75, QW_ERROR_CLASS_GENERAL, "no secondary id left");
  return true;
}

bool GiveBackSecondary(BoxLVMBucket &bucket, uint32_t s) {
  uint32_t *&freed = bucket.meta.freeListSecMappingNew[1];
  if (!freed && !ArrayInit(freed, sizeof(uint32_t), 16)) return false;
  return ArrayAppend(freed, s) != 0;
}

}  // namespace

bool JoinPath(const std::string &a, const std::string &b, std::string *out) {
  *out = a + "/" + b;
  if (out->size() >= 260) return QWErrorThrow(22, QW_ERROR_CLASS_GENERAL, "filename too long");
  return true;
}

bool ParamGet(BoxLVMBucket &bucket, uint32_t index, uint32_t *value) {
  return CellGet(bucket.meta.params, index, NEWGEN, value);
}

bool ParamSet(BoxLVMBucket &bucket, uint32_t index, uint32_t value) {
  return CellSet(bucket.meta.params, index, value);
}

bool BoxLVMBucketHandleGet(BoxLVMBucket &bucket, uint32_t local, std::vector<uint32_t> *handles, bool *found) {
  handles->clear();
  *found = false;
  if (local >= CellCount(bucket.meta.primMapping, NEWGEN)) return true;
  uint32_t primary = kNoPrimary;
  if (!CellGet(bucket.meta.primMapping, local, NEWGEN, &primary)) return false;
  if (primary == kNoPrimary) return true;
  *found = true;
  if (primary == kEmptyPrimary) return true;
  if (primary % 2 == 0) {
    handles->push_back(primary / 2);
    return true;
  }
  return ReadBlockList(bucket, primary / 2, handles);
}

bool WriteMapping(BoxLVMBucket &bucket, uint32_t local, const std::vector<uint32_t> &handles, bool present) {
  BoxLVMMetadata &meta = bucket.meta;
  uint32_t length = CellCount(meta.primMapping, NEWGEN);
  uint32_t old = kNoPrimary;
  if (local < length && !CellGet(meta.primMapping, local, NEWGEN, &old)) return false;
  uint32_t primary = present ? kEmptyPrimary : kNoPrimary;
  if (handles.size() == 1) {
    qwassert_(handles[0] <= BOXLVM_HANDLE_MAXVALUE);
    primary = handles[0] * 2;
  } else if (handles.size() > 1) {
    uint32_t s = 0;
    if (!StoreBlockList(bucket, handles, &s)) return false;
    primary = s * 2 + 1;
  }
  // A new local index beyond the end grows the mapping with "no entry".
  for (; length <= local; ++length)
    if (!CellAppend(meta.primMapping, kNoPrimary)) return false;
  if (!CellSet(meta.primMapping, local, primary)) return false;
  return old % 2 == 0 || old == kNoPrimary || GiveBackSecondary(bucket, old / 2);
}

bool BucketSpace::FreeListPop(uint32_t sizeClass, uint32_t *handle) {
  *handle = BOXLVM_NO_HANDLE;
  uint64_t &emptyWord = bucket_.emptyFreeLists[sizeClass / 64];
  const uint64_t bit = uint64_t(1) << (sizeClass % 64);
  if (emptyWord & bit) return true;
  const VMAArrayHandle &list = bucket_.meta.freeList[sizeClass];
  if (CellCount(list, NEWGEN) == 0) {
    emptyWord |= bit;
    return true;
  }
  return CellPop(list, handle);
}

bool BucketSpace::FreeListPush(uint32_t sizeClass, uint32_t handle) {
  bucket_.emptyFreeLists[sizeClass / 64] &= ~(uint64_t(1) << (sizeClass % 64));
  return CellAppend(bucket_.meta.freeList[sizeClass], handle);
}

uint32_t BucketSpace::FreeListCandidate(uint32_t from) {
  for (uint32_t word = from / 64; word < BOXLVM_SIZE_CLASSES / 64; ++word) {
    uint64_t candidates = ~bucket_.emptyFreeLists[word];
    if (word == from / 64) candidates &= ~uint64_t(0) << (from % 64);
    if (candidates != 0) return word * 64 + uint32_t(std::countr_zero(candidates));
  }
  return BOXLVM_SIZE_CLASSES;
}

bool BucketSpace::GrowDataFile(uint32_t pages, uint32_t *newPages) {
  if (!bucket_.data) return QWErrorThrow(5, QW_ERROR_CLASS_DATA, "no data file open in %s", bucket_.dir.c_str());
  return BoxLVMDataGrow(bucket_.data, pages, newPages) != 0;
}

bool BucketSpace::LogExtension(uint32_t totalUnits) {
  uint8_t payload[4];
  StoreLE32(payload, totalUnits);
  return LogWrite(LoggedVMLogGet(bucket_.lvm), BOX_DATA_EXTEND, payload, sizeof payload, 0) != 0;
}

void SetAsideFreed(BoxLVMBucket &bucket) {
  BoxLVMMetadata &meta = bucket.meta;
  meta.blocks->lists.SetAside();
  qwassert_(ArrayLength(bucket.meta.freeListSecMappingNew[0]) == 0);
  std::swap(meta.freeListSecMappingNew[0], meta.freeListSecMappingNew[1]);
}

bool RecycleSetAside(BoxLVMBucket &bucket) {
  BoxLVMMetadata &meta = bucket.meta;
  BucketSpace space(bucket);
  if (!meta.blocks->lists.Recycle(space)) return false;
  uint32_t *&ids = meta.freeListSecMappingNew[0];
  size_t done = 0;
  for (; done < ArrayLength(ids); ++done)
    if (!CellAppend(meta.secMappingFreeList, ids[done])) break;
  const size_t left = ArrayLength(ids) - done;
  if (left != 0) std::memmove(ids, ids + done, left * sizeof(uint32_t));
  if (ids) (void)ArrayLengthSet(ids, left);
  return left == 0;
}

}  // namespace qw::box

using namespace qw::box;

extern "C" {

QW_API int BoxLVMMetadataInit(BoxLVMMetadata *meta, const char *nameSpace, int create, int readOnly, int *created) {
  if (created) *created = 0;
  // The arrays of a writable arena are made on any first open, `create` or
  // not: a bucket's arena and its metadata are made together.
  (void)create;
  bool made = false;
  char name[32];
  for (uint32_t c = 0; c < BOXLVM_SIZE_CLASSES; ++c) {
    std::snprintf(name, sizeof name, "%s%d", "freeList", int(c));
    if (!OpenArray(meta, nameSpace, name, &meta->freeList[c], "could not create freelist %s", &made)) return 0;
  }
  // The arrays are made in this order (a new arena numbers them so).
  if (!OpenArray(meta, nameSpace, "params", &meta->params, "could not create parameters array", &made) ||
      !OpenArray(meta, nameSpace, "primMapping", &meta->primMapping, "could not create primary mapping", &made))
    return 0;
  uint8_t *pathBuffer = nullptr;
  int ldbCreated = readOnly ? 0 : 1;
  const std::string secPath = std::string(nameSpace) + "/secMapping";
  meta->secMapping = LDBArrayNew(meta->arena, &pathBuffer, secPath.c_str(), &ldbCreated, 0, 1);
  ArrayFree(pathBuffer);
  if (!meta->secMapping) return QWErrorRethrow("could not create secondary mapping");
  made = made || ldbCreated;
  if (!OpenArray(meta, nameSpace, "secMappingFreeList", &meta->secMappingFreeList,
                 "could not create freelist for secondary mapping", &made))
    return 0;
  meta->secMappingThreadData = LDBArrayThreadDataNew();
  meta->blocks = new (std::nothrow) BoxRecycleLists();
  if (!meta->secMappingThreadData || !meta->blocks)
    return QWErrorThrow(12, QW_ERROR_CLASS_SYSTEM, "out of memory for box metadata");
  if (!readOnly && CellCount(meta->params, NEWGEN) == 0) {
    const uint32_t zeros[kParamCount] = {0, 0, 0};
    if (!VMAArrayAppend_(meta->arena, meta->params.id[NEWGEN], 0, ARENA_MAX_BLOCK_SIZE, zeros, kParamCount, NEWGEN,
                         4))
      return QWErrorRethrow("could not create parameters array");
    made = true;
  }
  if (created) *created = made ? 1 : 0;
  return 1;
}

QW_API void BoxLVMMetadataFree(BoxLVMMetadata *meta) {
  LDBArrayFree(meta->secMapping);
  LDBArrayThreadDataFree(meta->secMappingThreadData);
  delete meta->blocks;
  for (uint32_t *&ids : meta->freeListSecMappingNew) {
    ArrayFree(ids);
    ids = nullptr;
  }
  meta->secMapping = nullptr;
  meta->secMappingThreadData = nullptr;
  meta->blocks = nullptr;
}

}  // extern "C"
