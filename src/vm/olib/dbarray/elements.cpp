// Elements of a block-directory array: add, get, set, size and the block
// hint.
//
// An add writes the element's bytes (and its index entry) beyond the block's
// used part first, then the directory entry, and makes the element visible
// last by rewriting the block header, so that a failure on the way leaves
// the bucket as it was.
#include <cstring>

#include "vm/olib/dbarray/block_format.h"

namespace qw::dba {

bool FindElement(DBArray *array, uint32_t bucketIndex, const DBArrayBucket &bucket, uint32_t genID, int read,
                 uint32_t handle, HeldBlock *held, FoundElement *found) {
  *found = FoundElement{};
  BucketShape shape;
  uint32_t block = kNone, handle0 = 0, nextFirst = kNone;
  if (!FindBlock(array, bucketIndex, bucket, genID, handle, &block, &handle0, &shape, &nextFirst)) return false;
  if (block == kNone) return true;
  if (!held->Acquire(array, bucket, block, genID, read)) return false;
  Where where{array, bucketIndex, block};
  DBA_REQUIRE(where, handle >= handle0);
  BlockView view(held->bytes(), held->size());
  const uint32_t countHint = nextFirst != kNone && nextFirst > handle0 ? nextFirst - handle0 : 0;
  if (!LocateElement(where, view, handle - handle0, block + 1 == shape.blockCount, &found->at, countHint))
    return false;
  if (!found->at.found) held->Release();
  found->block = block;
  found->handle0 = handle0;
  return true;
}

bool BucketSize(DBArray *array, uint32_t bucketIndex, const DBArrayBucket &bucket, uint32_t genID, uint32_t *size) {
  *size = 0;
  BucketShape shape;
  if (!ReadShape(Where{array, bucketIndex, kNone}, bucket, genID, &shape)) return false;
  if (shape.blockCount == 0) return true;
  const uint32_t last = shape.blockCount - 1;
  uint32_t handle0 = 0, count = 0;
  HeldBlock held;
  if (!FirstHandleOf(array, bucket, genID, last, &handle0) || !held.Acquire(array, bucket, last, genID, 1) ||
      !CountElements(Where{array, bucketIndex, last}, BlockView(held.bytes(), held.size()), &count))
    return false;
  *size = handle0 + count;
  return true;
}

namespace {

// The last block of a bucket, held writable, with what an add needs of it.
struct Tail {
  uint32_t block = kNone;  // kNone: the bucket has no block
  uint32_t handle0 = 0;
  uint32_t count = 0;  // elements in it
  HeldBlock held;
};

bool LoadTail(DBArray *array, uint32_t bucketIndex, const DBArrayBucket &bucket, uint32_t block, Tail *tail) {
  tail->block = block;
  tail->count = 0;
  return FirstHandleOf(array, bucket, NEWGEN, block, &tail->handle0) &&
         tail->held.Acquire(array, bucket, block, NEWGEN, 0) &&
         CountElements(Where{array, bucketIndex, block}, BlockView(tail->held.bytes(), tail->held.size()),
                       &tail->count);
}

bool AppendU32(const VMAArrayHandle &handle, int locked, uint32_t value) {
  uint8_t bytes[4];
  StoreLE32(bytes, value);
  return VMAArrayAppend_(handle.arena, handle.id[NEWGEN], locked, kArrayBlockSize, bytes, 1, NEWGEN, 4) != 0;
}

// Drops the last block (and its first handle) that an add made and could not
// fill; keeps the first error.
void DropNewBlock(DBArray *array, const DBArrayBucket &bucket, uint32_t block, bool firstHandleAdded) {
  QWErrorSave();
  const int locked = int(array->locked[NEWGEN]);
  if (firstHandleAdded)
    (void)VMAArrayLengthSet_(array->arena, bucket.firstHandle.id[NEWGEN], block, NEWGEN, 4);
  (void)VMABlockArrayRemove_(array->arena, bucket.dataBlocks.id[NEWGEN], locked, DBARRAY_MAX_BLOCK_SIZE, block,
                             NEWGEN);
  QWErrorRestore();
}

// Appends an empty block holding handles from `handle0` on.
bool AppendBlock(DBArray *array, const DBArrayBucket &bucket, uint32_t block, uint32_t handle0, uint32_t needed,
                 Tail *tail) {
  const int locked = int(array->locked[NEWGEN]);
  if (!VMABlockArrayInsert_(array->arena, bucket.dataBlocks.id[NEWGEN], locked, DBARRAY_MAX_BLOCK_SIZE, block,
                            NewBlockSize(array, needed), NEWGEN))
    return QWErrorRethrow("cannot add a data block");
  if (!tail->held.Acquire(array, bucket, block, NEWGEN, 0)) {
    DropNewBlock(array, bucket, block, false);
    return false;
  }
  BlockView(tail->held.bytes(), tail->held.size()).SetHeader(0, 0);
  if (!AppendU32(bucket.firstHandle, locked, handle0)) {
    tail->held.Release();
    DropNewBlock(array, bucket, block, false);
    return false;
  }
  tail->block = block;
  tail->handle0 = handle0;
  tail->count = 0;
  return true;
}

// Runs the compaction step at the end of the bucket until nothing merges.
void CompactTail(DBArray *array, uint32_t bucketIndex, const DBArrayBucket &bucket) {
  for (;;) {
    const uint32_t blockCount = VMABlockArrayBlockCount(bucket.dataBlocks, NEWGEN);
    if (blockCount < 2 || !CompactOrWarn(array, bucketIndex, bucket, blockCount - 2)) return;
  }
}

uint32_t Add(DBArray *array, uint32_t bucketIndex, const uint8_t *data, uint32_t dataLength) {
  const DBArrayBucket &bucket = *BucketOf(array, bucketIndex);
  BucketShape shape;
  if (!ReadShape(Where{array, bucketIndex, kNone}, bucket, NEWGEN, &shape)) return kNone;
  Tail tail;
  uint32_t blockCount = shape.blockCount;
  if (blockCount > 0 && !LoadTail(array, bucketIndex, bucket, blockCount - 1, &tail)) return kNone;
  const uint32_t lastHandleTh = tail.block == kNone ? 0 : tail.handle0 + tail.count;
  const uint32_t prefixBytes = PrefixSize(dataLength);
  uint32_t addedBlockCounter = 0;
  bool newEntry = false;
  for (;;) {
    if (tail.block != kNone) {
      BlockView block(tail.held.bytes(), tail.held.size());
      newEntry = tail.count > 0 && tail.count % kIndexStride == 0;
      const uint32_t needed = block.Used() + prefixBytes + (newEntry ? 2 : 0) + dataLength;
      if (needed <= block.size()) break;
      tail.held.Release();
      bool tooBig = false;
      if (!ResizeBlock(array, bucketIndex, bucket, tail.block, needed, true, &tooBig)) return kNone;
      if (!tooBig) {
        if (!tail.held.Acquire(array, bucket, tail.block, NEWGEN, 0)) return kNone;
        continue;
      }
    }
    // A block made for the element holds it: a second one is never needed.
    ++addedBlockCounter;
    DBA_ASSERT(array->arena, addedBlockCounter < 2);
    if (!AppendBlock(array, bucket, blockCount, lastHandleTh, HEADER_SIZE + prefixBytes + dataLength, &tail))
      return kNone;
    ++blockCount;
  }
  const uint32_t lastHandle = tail.handle0 + tail.count;
  DBA_ASSERT(array->arena, lastHandle == lastHandleTh);

  BlockView block(tail.held.bytes(), tail.held.size());
  const uint32_t indexSize = block.indexSize(), dataSize = block.dataSize();
  uint8_t *at = block.data() + dataSize;
  at += WritePrefix(at, dataLength);
  if (dataLength > 0) std::memcpy(at, data, dataLength);
  if (newEntry) block.SetEntry(indexSize + 1, dataSize);
  if (lastHandle / kDirectoryStride >= shape.indexLength &&
      !AppendU32(bucket.index, int(array->locked[NEWGEN]), blockCount - 1)) {
    tail.held.Release();
    if (addedBlockCounter > 0) DropNewBlock(array, bucket, blockCount - 1, true);
    return kNone;
  }
  block.SetHeader(indexSize + (newEntry ? 1 : 0), dataSize + prefixBytes + dataLength);
  tail.held.Release();
  if (array->compact) CompactTail(array, bucketIndex, bucket);
  return lastHandle;
}

}  // namespace
}  // namespace qw::dba

using namespace qw::dba;

extern "C" {

QW_API uint32_t DBArrayAdd(DBArray *array, uint32_t bucket, const void *data, uint32_t dataLength, uint32_t genID) {
  qwassert_(dataLength <= DBARRAY_MAX_ELEMENT_SIZE);
  CheckGeneration(genID);
  qwassert_(genID == NEWGEN);
  uint32_t handle = Add(array, bucket, static_cast<const uint8_t *>(data), dataLength);
  if (handle == kNone) QWErrorRethrow("cannot add to bucket %u of a block-directory array", bucket);
  return handle;
}

QW_API uint32_t DBArraySize(DBArray *array, uint32_t bucket, uint32_t genID) {
  CheckGeneration(genID);
  uint32_t size = 0;
  if (!BucketSize(array, bucket, *BucketOf(array, bucket), genID, &size)) return 0;
  return size;
}

QW_API void *DBArrayGet(DBArray *array, uint32_t bucket, uint32_t handle, uint32_t genID, int read,
                        uint32_t *length) {
  *length = 0;
  CheckGeneration(genID);
  if (!read) qwassert_(genID == NEWGEN);
  HeldBlock held;
  FoundElement found;
  if (!FindElement(array, bucket, *BucketOf(array, bucket), genID, read, handle, &held, &found)) return nullptr;
  if (!found.at.found || found.at.element.length == 0) return nullptr;  // the hold ends with `held`
  *length = found.at.element.length;
  return held.Detach() + HEADER_SIZE + found.at.offset + found.at.element.prefixBytes;
}

QW_API void DBArrayRelease(DBArray *array, uint32_t genID, int read, const void *address) {
  if (!address) return;
  CheckGeneration(genID);
  // Releases go by address (the page that holds it); any array of this
  // structure names the arena.
  const DBArrayBucket &bucket = array->bucket[0];
  uint32_t arrayId = bucket.dataBlocks.id[genID] != VMA_NO_ARRAY ? bucket.dataBlocks.id[genID]
                                                                  : bucket.dataBlocks.id[NEWGEN];
  VMAArrayRelease_(array->arena, arrayId, const_cast<void *>(address), read);
}

QW_API int DBArraySet(DBArray *array, uint32_t bucket, uint32_t handle, uint32_t genID, const void *data,
                      uint32_t length) {
  if (DBArrayLengthSet(array, bucket, handle, genID, length) < 0) return 0;
  if (length == 0) return 1;
  HeldBlock held;
  FoundElement found;
  if (!FindElement(array, bucket, *BucketOf(array, bucket), genID, 0, handle, &held, &found)) return 0;
  const uint32_t dataLength = found.at.found ? found.at.element.length : 0, newDataLength = length;
  if (!(dataLength == newDataLength))
    return Corrupted(Where{array, bucket, found.block}, "dataLength == newDataLength");
  std::memcpy(held.bytes() + HEADER_SIZE + found.at.offset + found.at.element.prefixBytes, data, length);
  return 1;
}

QW_API const void *DBArrayHintGet(DBArray *array, uint32_t bucket, uint32_t handle, uint32_t genID) {
  CheckGeneration(genID);
  HeldBlock held;
  FoundElement found;
  if (!FindElement(array, bucket, *BucketOf(array, bucket), genID, 1, handle, &held, &found)) return nullptr;
  if (!found.at.found) return nullptr;
  return held.Detach();
}

}  // extern "C"
