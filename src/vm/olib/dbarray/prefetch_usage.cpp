// Prefetch (plain and out from under the caller's lock), space usage and
// memory-lock registration of a block-directory array.
#include <algorithm>

#include "vm/olib/dbarray/block_format.h"

namespace qw::dba {
namespace {

// The arena block id of the data block holding `handle`, or
// INVALID_VMARENA_BLOCK_ID when the handle lies past the directory.
bool BlockIdOf(DBArray *array, uint32_t bucketIndex, uint32_t handle, uint32_t genID, uint64_t *id) {
  *id = INVALID_VMARENA_BLOCK_ID;
  const DBArrayBucket &bucket = *BucketOf(array, bucketIndex);
  BucketShape shape;
  uint32_t block = kNone, handle0 = 0;
  if (!FindBlock(array, bucketIndex, bucket, genID, handle, &block, &handle0, &shape)) return false;
  if (block != kNone) *id = VMABlockArrayBlockIDGet_(array->arena, bucket.dataBlocks.id[genID], block, genID);
  return true;
}

uint32_t BucketBits(VMArena *arena) {
  uint32_t bits = 0;
  while ((1u << bits) < VMArenaBucketCount(arena)) ++bits;
  return bits;
}

// Reads the whole server block that holds arena block `id` so that its
// pages are resident.
bool LoadServerBlock(VMArena *arena, uint64_t id, uint32_t genID) {
  uint32_t bucket = 0, serverBlock = 0;
  if (!VMABlockInfoGet(arena, id, nullptr, &bucket, &serverBlock, nullptr)) return false;
  const uint32_t global = (serverBlock << BucketBits(arena)) | bucket;
  auto *bytes = static_cast<const volatile uint8_t *>(VMArenaDataBlockAcquire(arena, global, 0, genID, 1));
  if (!bytes) return QWErrorRethrow("cannot load server block %u", global);
  uint32_t sum = 0;
  for (uint32_t i = 0; i < ARENA_MAX_BLOCK_SIZE; i += 64) sum += bytes[i];
  (void)sum;
  VMArenaDataRelease(arena, id, 1, const_cast<uint8_t *>(bytes), 0, 0);
  return true;
}

}  // namespace
}  // namespace qw::dba

using namespace qw::dba;

extern "C" {

QW_API void DBArrayPrefetch(DBArray *array, uint32_t bucket, uint32_t handle, uint32_t genID) {
  CheckGeneration(genID);
  const DBArrayBucket &record = *BucketOf(array, bucket);
  BucketShape shape;
  uint32_t block = kNone, handle0 = 0;
  QWErrorSave();  // a prefetch is a hint: its failures do not matter
  if (FindBlock(array, bucket, record, genID, handle, &block, &handle0, &shape) && block != kNone)
    VMABlockArrayPrefetch(array->arena, record.dataBlocks.id[genID], block, genID);
  QWErrorRestore();
}

QW_API int DBArrayPrefetchLocked(DBArray *array, uint32_t bucket, uint32_t handle, QWRWLock *lock, uint32_t reserved,
                                 uint32_t genID) {
  CheckGeneration(genID);
  qwassert_(reserved == 0);
  uint64_t id = INVALID_VMARENA_BLOCK_ID;
  if (!BlockIdOf(array, bucket, handle, genID, &id)) return 0;
  if (id == INVALID_VMARENA_BLOCK_ID) return 1;
  // The page load happens without the caller's lock, so that other readers
  // and writers are not held up by a disk read.
  if (lock) RWLockRelease_(lock);
  const bool loaded = LoadServerBlock(array->arena, id, genID);
  if (lock) RWLockAcquireRead_(lock);
  return loaded ? 1 : 0;
}

QW_API int DBArrayMSync(DBArray * /*array*/) { return 1; }

QW_API uint64_t DBArrayUsage(DBArray *array, uint32_t bucket, uint32_t genID, uint64_t *used) {
  CheckGeneration(genID);
  if (used) *used = 0;
  const DBArrayBucket &record = *BucketOf(array, bucket);
  if (!BucketPresent(record, genID)) return 0;
  // The count comes from the new generation whatever genID says.
  uint32_t blockCount = VMABlockArrayBlockCount(record.dataBlocks, NEWGEN);
  if (genID == OLDGEN) blockCount = std::min(blockCount, VMABlockArrayBlockCount(record.dataBlocks, OLDGEN));
  uint64_t total = 0, inUse = 0;
  for (uint32_t b = 0; b < blockCount; ++b) {
    HeldBlock held;
    if (!held.Acquire(array, record, b, genID, 1)) return 0;
    BlockView block(held.bytes(), held.size());
    total += block.size();
    inUse += block.Used();
  }
  if (used) *used = inUse;
  return total;
}

QW_API int DBArrayLockRegister(DBArray *array, uint32_t lock, uint32_t genID) {
  CheckGeneration(genID);
  // This arena has no background flush lock, so registering may always mark
  // the array locked.
  if (lock) array->locked[genID] = 1;
  for (size_t n = 0; n < ArrayLength(array->bucket); ++n) {
    DBArrayBucket &bucket = array->bucket[n];
    for (VMAArrayHandle *handle : {&bucket.dataBlocks, &bucket.index, &bucket.firstHandle}) {
      if (lock) handle->locked[genID] = 1;
      if (handle->id[genID] == VMA_NO_ARRAY) continue;
      if (!VMAArrayLockRegister_(array->arena, handle->id[genID], genID, lock))
        return QWErrorRethrow("cannot register the locks of bucket %zu", n);
    }
  }
  return 1;
}

}  // extern "C"
