// The directory of a bucket: finding the block of a handle through the index
// array and the first handles, and keeping the index array right when blocks
// are merged or split.
#include "vm/olib/dbarray/block_format.h"
#include "vm/olib/dbarray/dbarray_internal.h"

namespace qw::dba {

bool ReadShape(const Where &where, const DBArrayBucket &record, uint32_t genID, BucketShape *shape) {
  *shape = BucketShape{};
  if (!BucketPresent(record, genID)) return true;  // no committed part yet: empty
  const DBArrayBucket *bucket = &record;
  uint32_t blockCount = ArrayLengthOf(bucket->firstHandle, genID);
  DBA_REQUIRE(where, blockCount == VMABlockArrayBlockCount(bucket->dataBlocks, genID));
  uint32_t indexLength = ArrayLengthOf(bucket->index, genID);
  DBA_REQUIRE(where, (indexLength == 0) == (blockCount == 0));
  shape->blockCount = blockCount;
  shape->indexLength = indexLength;
  return true;
}

bool FirstHandleOf(DBArray *array, const DBArrayBucket &bucket, uint32_t genID, uint32_t b, uint32_t *handle0) {
  // Callers take b from the data block count; the two lengths may differ
  // only in a corrupted bucket.
  const uint32_t firstHandleLength = ArrayLengthOf(bucket.firstHandle, genID);
  if (!(b < firstHandleLength))
    return Corrupted(Where{array, uint32_t(&bucket - array->bucket), b}, "b < firstHandleLength");
  U32Cursor cursor(bucket.firstHandle, array->locked[genID], genID, 1);
  return cursor.Get(b, handle0);
}

bool FindBlock(DBArray *array, uint32_t bucketIndex, const DBArrayBucket &bucket, uint32_t genID, uint32_t handle,
               uint32_t *block, uint32_t *firstOfBlock, BucketShape *shape, uint32_t *nextFirst) {
  Where where{array, bucketIndex, kNone};
  *block = kNone;
  if (nextFirst) *nextFirst = kNone;
  if (!ReadShape(where, bucket, genID, shape)) return false;
  const uint32_t i = handle / kDirectoryStride;
  if (i >= shape->indexLength) return true;
  uint32_t startBlock = 0;
  {
    U32Cursor index(bucket.index, array->locked[genID], genID, 1);
    if (!index.Get(i, &startBlock)) return false;
  }
  const uint32_t blockCount = shape->blockCount;
  DBA_REQUIRE(where, startBlock < blockCount);
  // The entry is a starting point at or before the right block: walk
  // forward to the last block whose first handle is <= handle.
  U32Cursor firstHandles(bucket.firstHandle, array->locked[genID], genID, 1);
  uint32_t b = startBlock, handle0 = 0, next = 0;
  if (!firstHandles.Get(b, &handle0)) return false;
  where.block = b;
  DBA_REQUIRE(where, handle >= handle0);
  while (b + 1 < blockCount) {
    if (!firstHandles.Get(b + 1, &next)) return false;
    if (next > handle) {
      if (nextFirst) *nextFirst = next;
      break;
    }
    where.block = ++b;
    DBA_REQUIRE(where, next > handle0);  // first handles rise strictly
    handle0 = next;
  }
  *block = b;
  *firstOfBlock = handle0;
  return true;
}

bool DirectoryAfterMerge(DBArray *array, uint32_t bucketIndex, const DBArrayBucket &bucket, uint32_t b) {
  Where where{array, bucketIndex, kNone};
  const uint32_t blockIndexLength = ArrayLengthOf(bucket.index, NEWGEN);
  // Entries rise with i, so those naming b + 1 or later form a suffix: walk
  // it backward, lowering each by one.
  U32Cursor index(bucket.index, array->locked[NEWGEN], NEWGEN, 0);
  uint32_t upBound = blockIndexLength;
  while (upBound > 0) {
    uint32_t entry = 0;
    if (!index.Get(upBound - 1, &entry)) return false;
    if (entry <= b) break;
    if (!index.Set(upBound - 1, entry - 1)) return false;
    --upBound;
  }
  DBA_REQUIRE(where, upBound <= blockIndexLength);
  return true;
}

bool DirectoryAfterSplit(DBArray *array, const DBArrayBucket &bucket, uint32_t b, uint32_t splitHandle) {
  const uint32_t length = ArrayLengthOf(bucket.index, NEWGEN);
  U32Cursor index(bucket.index, array->locked[NEWGEN], NEWGEN, 0);
  // Entries for handles at or past the split point that named the split
  // block (or an earlier one) now start at the new block. Entries already
  // past it stay: after the insertion they name one block early, which a
  // lookup's forward walk makes up.
  for (uint32_t i = (splitHandle - 1) / kDirectoryStride + 1; i < length; ++i) {
    uint32_t entry = 0;
    if (!index.Get(i, &entry)) return false;
    if (entry > b) break;
    if (!index.Set(i, b + 1)) return false;
  }
  return true;
}

}  // namespace qw::dba
