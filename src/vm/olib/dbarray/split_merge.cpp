// Splitting a data block that cannot grow enough, and merging neighbouring
// blocks that fit together (compaction).
//
// Both write the new block contents before the first handles and the
// directory change, so that a lookup between the steps still finds every
// handle: after a split's firstHandle insert the new block is complete;
// after a merge's copy the absorbed block still holds its elements until it
// is removed.
#include <cstring>

#include "vm/olib/dbarray/block_format.h"

namespace qw::dba {
namespace {

// A split point: the data-area offset and the element position where the
// second half starts.
struct SplitPoint {
  uint32_t eltOffset = 0;
  uint32_t position = 0;
};

// The last index entry whose offset is <= half (entries rise with k).
uint32_t LastEntryAtOrBefore(const BlockView &block, uint32_t indexSize, uint32_t half) {
  uint32_t lo = 1, hi = indexSize, found = 0;
  while (lo <= hi) {
    uint32_t mid = lo + (hi - lo) / 2;
    if (block.Entry(mid) <= half) {
      found = mid;
      lo = mid + 1;
    } else {
      hi = mid - 1;
    }
  }
  return found;
}

// Finds the element boundary nearest to the middle of the data: the element
// that reaches the middle is split off before or after it, whichever is
// nearer (before on a tie, after when before would be offset 0).
bool ChooseSplit(const Where &where, const BlockView &block, SplitPoint *point) {
  const uint32_t dataSize = block.dataSize(), half = dataSize / 2;
  const uint32_t k = LastEntryAtOrBefore(block, block.indexSize(), half);
  uint32_t eltOffset = k == 0 ? 0 : block.Entry(k), position = k * kIndexStride, end = 0;
  Element element;
  for (;;) {
    DBA_REQUIRE(where, eltOffset < dataSize);
    const bool elementFits = ReadElement(block.data(), dataSize, eltOffset, &element);
    DBA_REQUIRE(where, elementFits);
    end = element.End(eltOffset);
    if (end >= half) break;
    eltOffset = end;
    ++position;
  }
  if (eltOffset == 0 || end - half < half - eltOffset) {
    eltOffset = end;
    ++position;
  }
  DBA_REQUIRE(where, eltOffset != 0);
  DBA_REQUIRE(where, eltOffset < dataSize);  // the second half is not empty
  point->eltOffset = eltOffset;
  point->position = position;
  return true;
}

bool InsertFirstHandle(DBArray *array, const DBArrayBucket &bucket, uint32_t at, uint32_t value) {
  uint8_t bytes[4];
  StoreLE32(bytes, value);
  return VMAArrayInsert_(array->arena, bucket.firstHandle.id[NEWGEN], int(array->locked[NEWGEN]), kArrayBlockSize,
                         at, bytes, NEWGEN, 4) != 0;
}

void DropBlock(DBArray *array, const DBArrayBucket &bucket, uint32_t b) {
  QWErrorSave();
  (void)VMABlockArrayRemove_(array->arena, bucket.dataBlocks.id[NEWGEN], int(array->locked[NEWGEN]),
                             DBARRAY_MAX_BLOCK_SIZE, b, NEWGEN);
  QWErrorRestore();
}

// Headers of blocks b and b + 1 checked, and their element counts.
struct Pair {
  uint32_t handle0[2] = {0, 0};
  uint32_t count[2] = {0, 0};
  uint32_t indexSize[2] = {0, 0};
  uint32_t dataSize[2] = {0, 0};
  uint32_t size0 = 0;  // block b's size
};

// Reads the headers of blocks b and b + 1 (checked against their sizes).
bool ReadHeaders(DBArray *array, uint32_t bucketIndex, const DBArrayBucket &bucket, uint32_t b, Pair *pair) {
  for (uint32_t i = 0; i < 2; ++i) {
    HeldBlock held;
    if (!held.Acquire(array, bucket, b + i, NEWGEN, 1)) return false;
    BlockView block(held.bytes(), held.size());
    if (!HeaderValid(Where{array, bucketIndex, b + i}, block)) return false;
    pair->indexSize[i] = block.indexSize();
    pair->dataSize[i] = block.dataSize();
    if (i == 0) pair->size0 = block.size();
  }
  return true;
}

// Counts the elements of both blocks (verifying them whole) and reads their
// first handles: only blocks that are sound are merged.
bool ReadCounts(DBArray *array, uint32_t bucketIndex, const DBArrayBucket &bucket, uint32_t b, Pair *pair) {
  for (uint32_t i = 0; i < 2; ++i) {
    HeldBlock held;
    if (!held.Acquire(array, bucket, b + i, NEWGEN, 1) ||
        !VerifyBlock(Where{array, bucketIndex, b + i}, BlockView(held.bytes(), held.size()), &pair->count[i]) ||
        !FirstHandleOf(array, bucket, NEWGEN, b + i, &pair->handle0[i]))
      return false;
  }
  return true;
}

// Merges block b with b + 1 when compaction is on and they fit in one block.
bool Merge(DBArray *array, uint32_t bucketIndex, const DBArrayBucket &bucket, uint32_t b, bool *merged) {
  *merged = false;
  if (!array->compact || b + 1 >= VMABlockArrayBlockCount(bucket.dataBlocks, NEWGEN)) return true;
  Pair pair;
  if (!ReadHeaders(array, bucketIndex, bucket, b, &pair)) return false;
  const uint32_t mergedSize =
      HEADER_SIZE + pair.dataSize[0] + pair.dataSize[1] + 2 * (pair.indexSize[0] + pair.indexSize[1] + 2);
  if (mergedSize > DBARRAY_MAX_BLOCK_SIZE) return true;
  if (!ReadCounts(array, bucketIndex, bucket, b, &pair)) return false;
  Where where{array, bucketIndex, b};
  const uint32_t handle0A = pair.handle0[0], handle0B = pair.handle0[1];
  DBA_REQUIRE(where, handle0A + pair.count[0] == handle0B);
  if (mergedSize > pair.size0) {
    bool tooBig = false;
    if (!ResizeBlock(array, bucketIndex, bucket, b, mergedSize, true, &tooBig)) return false;
    const bool check = !tooBig;
    DBA_ASSERT(array->arena, check);
  }
  {
    HeldBlock a, c;
    if (!a.Acquire(array, bucket, b, NEWGEN, 0) || !c.Acquire(array, bucket, b + 1, NEWGEN, 1)) return false;
    BlockView target(a.bytes(), a.size()), source(c.bytes(), c.size());
    const uint32_t newDataSize = pair.dataSize[0] + pair.dataSize[1];
    std::memcpy(target.data() + pair.dataSize[0], source.data(), pair.dataSize[1]);
    uint32_t indexSize = 0, eltOffset = 0, count = 0;
    const bool indexFits = RebuildIndex(target, newDataSize, &indexSize, &eltOffset, &count);
    DBA_REQUIRE(where, indexFits);
    DBA_REQUIRE(where, eltOffset == newDataSize);
    target.SetHeader(indexSize, newDataSize);
  }
  const int locked = int(array->locked[NEWGEN]);
  if (!VMABlockArrayRemove_(array->arena, bucket.dataBlocks.id[NEWGEN], locked, DBARRAY_MAX_BLOCK_SIZE, b + 1,
                            NEWGEN) ||
      !VMAArrayRemove_(array->arena, bucket.firstHandle.id[NEWGEN], locked, kArrayBlockSize, b + 1, NEWGEN, 4) ||
      !DirectoryAfterMerge(array, bucketIndex, bucket, b))
    return QWErrorRethrow("cannot merge blocks %u and %u", b, b + 1);
  *merged = true;
  return true;
}

}  // namespace

bool SplitBlock(DBArray *array, uint32_t bucketIndex, const DBArrayBucket &bucket, uint32_t b) {
  Where where{array, bucketIndex, b};
  HeldBlock first;
  uint32_t handle0 = 0, count = 0;
  if (!FirstHandleOf(array, bucket, NEWGEN, b, &handle0) || !first.Acquire(array, bucket, b, NEWGEN, 0)) return false;
  BlockView block(first.bytes(), first.size());
  SplitPoint point;
  if (!VerifyBlock(where, block, &count) || !ChooseSplit(where, block, &point)) return false;
  const uint32_t newHandle0 = handle0 + point.position;
  DBA_REQUIRE(where, newHandle0 != handle0);
  const uint32_t moved = block.dataSize() - point.eltOffset;
  const uint32_t newIndexSize = (count - point.position - 1) / kIndexStride;
  const uint32_t needed = HEADER_SIZE + moved + 2 * newIndexSize;
  if (!VMABlockArrayInsert_(array->arena, bucket.dataBlocks.id[NEWGEN], int(array->locked[NEWGEN]),
                            DBARRAY_MAX_BLOCK_SIZE, b + 1, NewBlockSize(array, needed), NEWGEN))
    return QWErrorRethrow("cannot split block %u", b);
  HeldBlock second;
  if (!second.Acquire(array, bucket, b + 1, NEWGEN, 0)) {
    DropBlock(array, bucket, b + 1);
    return false;
  }
  BlockView target(second.bytes(), second.size());
  std::memcpy(target.data(), block.data() + point.eltOffset, moved);
  uint32_t indexSize = 0, eltOffset = 0, movedCount = 0;
  const bool indexFits = RebuildIndex(target, moved, &indexSize, &eltOffset, &movedCount);
  DBA_REQUIRE(where, indexFits);
  target.SetHeader(indexSize, moved);
  if (!InsertFirstHandle(array, bucket, b + 1, newHandle0)) {
    second.Release();
    DropBlock(array, bucket, b + 1);
    return false;
  }
  // The first block keeps the elements before the split and their entries.
  block.SetHeader((point.position - 1) / kIndexStride, point.eltOffset);
  first.Release();
  second.Release();
  return DirectoryAfterSplit(array, bucket, b, newHandle0);
}

bool CompactAround(DBArray *array, uint32_t bucketIndex, const DBArrayBucket &bucket, uint32_t b, bool *merged) {
  *merged = false;
  bool once = false;
  if (b >= 1) {
    do {
      if (!Merge(array, bucketIndex, bucket, b - 1, &once)) return false;
      *merged |= once;
    } while (once);
  }
  do {
    if (!Merge(array, bucketIndex, bucket, b, &once)) return false;
    *merged |= once;
  } while (once);
  return true;
}

bool CompactOrWarn(DBArray *array, uint32_t bucketIndex, const DBArrayBucket &bucket, uint32_t b) {
  bool merged = false;
  if (!array->compact) return false;
  if (!CompactAround(array, bucketIndex, bucket, b, &merged)) {
    QWMessage(QW_LEVEL_WARNING, "block-directory array: compaction of bucket %u failed: %s", bucketIndex,
              QWErrorMessage());
    QWErrorClear();
  }
  return merged;
}

}  // namespace qw::dba
