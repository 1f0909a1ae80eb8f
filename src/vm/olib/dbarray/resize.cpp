// Resizing: a data block to another size class (its index moves to the new
// end), and an element in place (DBArrayLengthSet), splitting the block when
// it cannot grow enough.
#include <cstring>

#include "vm/olib/dbarray/block_format.h"

namespace qw::dba {

bool ResizeBlock(DBArray *array, uint32_t bucketIndex, const DBArrayBucket &bucket, uint32_t b, uint32_t total,
                 bool growing, bool *tooBig) {
  *tooBig = total > DBARRAY_MAX_BLOCK_SIZE;
  if (*tooBig) return true;
  Where where{array, bucketIndex, b};
  const uint32_t round = VMABlockArrayBlockRound_(array->arena, total, DBARRAY_MAX_BLOCK_SIZE);
  // The index sits at the block's end: keep a copy to put at the new end
  // (a shrinking copy keeps only the block's start).
  uint8_t index[DBARRAY_MAX_BLOCK_SIZE];
  uint32_t indexSize = 0, oldBlockSize = 0;
  {
    HeldBlock old;
    if (!old.Acquire(array, bucket, b, NEWGEN, 1)) return false;
    BlockView block(old.bytes(), old.size());
    oldBlockSize = block.size();
    DBA_REQUIRE(where, oldBlockSize <= DBARRAY_MAX_BLOCK_SIZE);
    if (growing ? round <= oldBlockSize : round >= oldBlockSize) return true;  // already the right class
    if (!HeaderValid(where, block)) return false;
    DBA_REQUIRE(where, block.Used() <= round);
    indexSize = block.indexSize();
    std::memcpy(index, block.IndexBytes(indexSize), 2 * indexSize);
  }
  if (!VMABlockArrayBlockGrowNth_(array->arena, bucket.dataBlocks.id[NEWGEN], int(array->locked[NEWGEN]), round, 0,
                                  b, NEWGEN))
    return QWErrorRethrow("cannot resize block %u to %u bytes", b, round);
  HeldBlock fresh;
  if (!fresh.Acquire(array, bucket, b, NEWGEN, 0)) return false;
  const uint32_t actualNewTotalSize = fresh.size(), newBlockSize = fresh.size();
  DBA_ASSERT(array->arena, round == actualNewTotalSize);
  if (growing) DBA_ASSERT(array->arena, actualNewTotalSize >= oldBlockSize);
  DBA_ASSERT(array->arena, newBlockSize <= DBARRAY_MAX_BLOCK_SIZE);
  BlockView block(fresh.bytes(), fresh.size());
  std::memcpy(block.IndexBytes(indexSize), index, 2 * indexSize);
  return true;
}

namespace {

// An element being resized, located in its block (held writable).
struct Resizing {
  BlockView block;
  uint32_t position;  // handle - handle0
  uint32_t offset;    // of its prefix
  Element old;
  uint32_t newLength;
  uint32_t NewPrefix() const { return PrefixSize(newLength); }
  int32_t Delta() const {
    return int32_t(newLength + NewPrefix()) - int32_t(old.length + old.prefixBytes);
  }
};

// Moves the index entries of the elements behind the resized one.
void ShiftEntries(const Resizing &r, int32_t delta) {
  const uint32_t indexSize = r.block.indexSize();
  for (uint32_t k = r.position / kIndexStride + 1; k <= indexSize; ++k)
    r.block.SetEntry(k, uint32_t(int32_t(r.block.Entry(k)) + delta));
}

// Shrinks the element: keeps its first newLength bytes and moves the
// elements behind it down.
void ShrinkInPlace(const Resizing &r) {
  uint8_t *data = r.block.data();
  const uint32_t dataSize = r.block.dataSize(), newPrefix = r.NewPrefix();
  const uint32_t tail = r.old.End(r.offset);
  const int32_t delta = r.Delta();
  std::memmove(data + r.offset + newPrefix, data + r.offset + r.old.prefixBytes, r.newLength);
  std::memmove(data + r.offset + newPrefix + r.newLength, data + tail, dataSize - tail);
  WritePrefix(data + r.offset, r.newLength);
  ShiftEntries(r, delta);
  r.block.SetHeader(r.block.indexSize(), uint32_t(int32_t(dataSize) + delta));
}

// Grows the element where the block has room: the elements behind it move
// up, the added bytes read as zero.
void GrowInPlace(const Resizing &r) {
  uint8_t *data = r.block.data();
  const uint32_t dataSize = r.block.dataSize(), newPrefix = r.NewPrefix();
  const uint32_t tail = r.old.End(r.offset);
  const int32_t delta = r.Delta();
  std::memmove(data + tail + delta, data + tail, dataSize - tail);
  std::memmove(data + r.offset + newPrefix, data + r.offset + r.old.prefixBytes, r.old.length);
  std::memset(data + r.offset + newPrefix + r.old.length, 0, r.newLength - r.old.length);
  WritePrefix(data + r.offset, r.newLength);
  ShiftEntries(r, delta);
  r.block.SetHeader(r.block.indexSize(), uint32_t(int32_t(dataSize) + delta));
}

// Splits happen at most once per halving of a 4096-byte block; a few
// resizes besides. More rounds mean the bucket changes under us.
constexpr uint32_t kMaxRounds = 32;

// Returns 1 merged, 0 not, -1 failure.
int LengthSet(DBArray *array, uint32_t bucketIndex, uint32_t handle, uint32_t newDataLength) {
  const DBArrayBucket &bucket = *BucketOf(array, bucketIndex);
  uint32_t b = kNone;
  for (uint32_t round = 0;; ++round) {
    Where where{array, bucketIndex, b};
    if (!(round < kMaxRounds)) {
      (void)Corrupted(where, "round < kMaxRounds");
      return -1;
    }
    HeldBlock held;
    FoundElement found;
    if (!FindElement(array, bucketIndex, bucket, NEWGEN, 0, handle, &held, &found)) return -1;
    if (!found.at.found) {
      QWErrorThrow(2, QW_ERROR_CLASS_GENERAL, "no handle %u in bucket %u", handle, bucketIndex);
      return -1;
    }
    b = found.block;
    if (found.at.element.length == newDataLength) return 0;
    Resizing r{BlockView(held.bytes(), held.size()), handle - found.handle0, found.at.offset, found.at.element,
               newDataLength};
    const uint32_t used = r.block.Used();
    if (newDataLength < r.old.length) {
      ShrinkInPlace(r);
      const uint32_t total = r.block.Used();
      held.Release();
      bool tooBig = false;
      if (!ResizeBlock(array, bucketIndex, bucket, b, total, false, &tooBig)) return -1;
      break;
    }
    const uint32_t needed = used + uint32_t(r.Delta());
    if (needed <= r.block.size()) {
      GrowInPlace(r);
      break;
    }
    held.Release();
    bool tooBig = false;
    if (!ResizeBlock(array, bucketIndex, bucket, b, needed, true, &tooBig)) return -1;
    if (tooBig && !SplitBlock(array, bucketIndex, bucket, b)) return -1;
  }
  return CompactOrWarn(array, bucketIndex, bucket, b) ? 1 : 0;
}

}  // namespace
}  // namespace qw::dba

using namespace qw::dba;

extern "C" {

QW_API int DBArrayLengthSet(DBArray *array, uint32_t bucket, uint32_t handle, uint32_t genID,
                            uint32_t newDataLength) {
  qwassert_(newDataLength <= DBARRAY_MAX_ELEMENT_SIZE);
  CheckGeneration(genID);
  qwassert_(genID == NEWGEN);
  int result = LengthSet(array, bucket, handle, newDataLength);
  if (result < 0) QWErrorRethrow("cannot resize handle %u of bucket %u of a block-directory array", handle, bucket);
  return result;
}

}  // extern "C"
