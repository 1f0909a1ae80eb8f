// Shared helpers of the block-directory array: corruption reports, argument
// checks, and scoped access to arena arrays and data blocks.
#include "util/endian.h"
#include "vm/olib/dbarray/dbarray_internal.h"

#ifndef FALSE
#define FALSE 0
#endif

namespace qw::dba {

void TagCorrupted(VMArena *arena) {
  if (!VMArenaIsReadOnly(arena)) VMArenaTagCorrupted(arena);
}

bool Corrupted(const Where &where, const char *invariant) {
  VMArena *arena = where.array->arena;
  TagCorrupted(arena);
  if (where.block == kNone)
    return QWErrorThrow(kCorruptCode, QW_ERROR_CLASS_DATA,
                        "corrupted block-directory array in \"%s\": bucket %u: %s does not hold", VMArenaPath(arena),
                        where.bucket, invariant);
  return QWErrorThrow(kCorruptCode, QW_ERROR_CLASS_DATA,
                      "corrupted block-directory array in \"%s\": bucket %u, block %u: %s does not hold",
                      VMArenaPath(arena), where.bucket, where.block, invariant);
}

void CheckGeneration(uint32_t genID) {
  if (genID != NEWGEN && genID != OLDGEN) qwassert_(FALSE);
}

DBArrayBucket *BucketOf(DBArray *array, uint32_t bucketIndex) {
  DBA_ASSERT(array->arena, bucketIndex < ArrayLength(array->bucket));
  return &array->bucket[bucketIndex];
}

uint8_t *U32Cursor::At(uint32_t i) {
  if (held_ && i >= first_ && i < end_) return base_ + size_t(i - first_) * 4;
  Release();
  uint32_t end = 0;
  auto *address = static_cast<uint8_t *>(
      VMAArrayRange_(arena_, id_, locked_, kArrayBlockSize, i, &end, genID_, read_, 4, 0));
  if (!address) {
    QWErrorRethrow("cannot read element %u of array %u", i, id_);
    return nullptr;
  }
  // A range reaches back to the start of its arena block: blocks hold a
  // whole number of elements, so the block of i starts at a multiple of
  // the elements per block.
  const uint32_t perBlock = kArrayBlockSize / 4;
  held_ = address;
  first_ = i - i % perBlock;
  base_ = address - size_t(i - first_) * 4;
  end_ = end;
  return address;
}

bool U32Cursor::Get(uint32_t i, uint32_t *value) {
  const uint8_t *at = At(i);
  if (!at) return false;
  *value = LoadLE32(at);
  return true;
}

bool U32Cursor::Set(uint32_t i, uint32_t value) {
  uint8_t *at = At(i);
  if (!at) return false;
  StoreLE32(at, value);
  return true;
}

void U32Cursor::Release() {
  if (!held_) return;
  VMAArrayRelease_(arena_, id_, held_, read_);
  held_ = nullptr;
  base_ = nullptr;
  first_ = end_ = 0;
}

bool HeldBlock::Acquire(DBArray *array, const DBArrayBucket &bucket, uint32_t n, uint32_t genID, int read) {
  Release();
  arena_ = array->arena;
  arrayId_ = bucket.dataBlocks.id[genID];
  read_ = read;
  uint32_t size = 0;
  bytes_ = static_cast<uint8_t *>(VMABlockArrayGet_(arena_, arrayId_, array->locked[genID], n, genID, read, &size));
  size_ = size;
  if (!bytes_) {
    size_ = 0;
    return QWErrorRethrow("cannot read data block %u of array %u", n, arrayId_);
  }
  return true;
}

void HeldBlock::Release() {
  if (!bytes_) return;
  VMAArrayRelease_(arena_, arrayId_, bytes_, read_);
  bytes_ = nullptr;
  size_ = 0;
}

uint32_t NewBlockSize(const DBArray *array, uint32_t needed) {
  if (array->maxBlocks) return DBARRAY_MAX_BLOCK_SIZE;
  return needed < kSmallBlockSize ? kSmallBlockSize : needed;
}

}  // namespace qw::dba
