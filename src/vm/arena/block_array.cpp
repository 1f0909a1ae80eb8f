// Block arrays (FULL_BLOCK_ARRAY_TYPE): arrays whose elements are whole arena
// blocks of any size class up to the array's block size, inserted, removed
// and resized one by one. Their `length` belongs to the caller; these
// operations change only the block list.
//
// Every operation that changes the list either completes or leaves the list
// as it was (room is reserved before a block is allocated).
#include <algorithm>
#include <cstring>

#include "vm/arena/array_internal.h"

namespace qw::vm {
namespace {

uint64_t &BlockSlot(ArrayRecord *array, uint32_t n) { return *static_cast<uint64_t *>(FArrayNth(&array->blockID, n)); }

// The block-array record for a structural change in the new generation.
ArrayRecord *BlockArrayForChange(VMArena *arena, uint32_t arrayID, int arrayLocked, uint32_t genID) {
  CheckWrite(arena, genID);
  qwassert_(!(arrayLocked && arena->bgLock));
  ArrayRecord *array = NewRecord(arena, arrayID);
  qwassert_(array->type == FULL_BLOCK_ARRAY_TYPE);
  return array;
}

// The block list holds room for a count of blockCount - 1 entries before an
// insert and after a remove. (No address cache is kept beside it: the arena
// does not cache data addresses, so blockCache stays empty.)
void CheckListRoom(const ArrayRecord *array, uint32_t blockCount) {
  QW_ASSERT_NAMED(blockCount - 1 <= FArrayCapacity(&array->blockID),
                  "blockCount - 1 <= ((array->blockID).t.capacity0 + (array->blockID).t.capacity)");
}

bool NoSuchBlock(const char *function, uint32_t arrayID, uint32_t n, uint32_t count) {
  return QWErrorThrow(22, QW_ERROR_CLASS_GENERAL, "%s: array %u has %u blocks, no block %u", function, arrayID, count,
                      n) != 0;
}

}  // namespace
}  // namespace qw::vm

using namespace qw::vm;

extern "C" {

QW_API uint32_t VMABlockArrayBlockCount_(VMArena *arena, uint32_t arrayID, uint32_t genID) {
  return DecodeArray(arena, arrayID, genID).blockCount;
}

QW_API uint64_t VMABlockArrayBlockIDGet_(VMArena *arena, uint32_t arrayID, uint32_t n, uint32_t genID) {
  const ArrayView array = DecodeArray(arena, arrayID, genID);
  if (n < array.blockCount) return array.BlockId(n);
  NoSuchBlock("VMABlockArrayBlockIDGet_", arrayID, n, array.blockCount);
  return INVALID_VMARENA_BLOCK_ID;
}

QW_API void *VMABlockArrayGet_(VMArena *arena, uint32_t arrayID, int arrayLocked, uint32_t n, uint32_t genID,
                               int read, uint32_t *size) {
  if (!read) CheckWrite(arena, genID);
  if (size) *size = 0;
  uint64_t blockId = VMABlockArrayBlockIDGet_(arena, arrayID, n, genID);
  if (blockId == INVALID_VMARENA_BLOCK_ID) return nullptr;
  void *data = VMArenaDataAcquire(arena, blockId, uint32_t(arrayLocked), genID, read, size, nullptr);
  if (!data) QWErrorRethrow("VMABlockArrayGet_: cannot access block %u of array %u (gen %u)", n, arrayID, genID);
  return data;
}

QW_API void VMABlockArrayPrefetch(VMArena *arena, uint32_t arrayID, uint32_t n, uint32_t genID) {
  const ArrayView array = DecodeArray(arena, arrayID, genID);
  if (n < array.blockCount) VMArenaDataPrefetch(arena, array.BlockId(n), 0, genID);
}

QW_API int VMABlockArrayInsert_(VMArena *arena, uint32_t arrayID, int arrayLocked, uint32_t maxBlockSize, uint32_t n,
                                uint32_t blockSize, uint32_t genID) {
  ArrayRecord *array = BlockArrayForChange(arena, arrayID, arrayLocked, genID);
  qwassert_(array->log2size == Log2(maxBlockSize));
  const uint32_t count = BlockCountOf(array);
  if (n > count) return NoSuchBlock("VMABlockArrayInsert_", arrayID, n, count);
  if (blockSize > maxBlockSize)
    return QWErrorThrow(22, QW_ERROR_CLASS_GENERAL,
                        "VMABlockArrayInsert_: block of %u bytes in array %u of %u-byte blocks", blockSize, arrayID,
                        maxBlockSize);
  if (!FArrayEnsureCapacity_(&array->blockID, uint64_t(count) + 1)) return 0;
  uint64_t blockId = VMArenaBlockNew(arena, arrayLocked, blockSize, nullptr, 0);
  if (blockId == INVALID_VMARENA_BLOCK_ID)
    return QWErrorRethrow("VMABlockArrayInsert_: no block of %u bytes for array %u", blockSize, arrayID);
  bool success = FArrayAdd_(&array->blockID, 1, nullptr) != 0;  // within the reserved room
  qwassert_(success);
  CheckListRoom(array, count + 1);
  for (uint32_t i = count; i > n; --i) BlockSlot(array, i) = BlockSlot(array, i - 1);
  BlockSlot(array, n) = blockId;
  return 1;
}

QW_API int VMABlockArrayRemove_(VMArena *arena, uint32_t arrayID, int arrayLocked, uint32_t maxBlockSize, uint32_t n,
                                uint32_t genID) {
  ArrayRecord *array = BlockArrayForChange(arena, arrayID, arrayLocked, genID);
  qwassert_(array->log2size == Log2(maxBlockSize));
  const uint32_t blockCount = BlockCountOf(array);
  if (n >= blockCount) return NoSuchBlock("VMABlockArrayRemove_", arrayID, n, blockCount);
  CheckListRoom(array, blockCount);
  const uint64_t blockId = BlockSlot(array, n);
  for (uint32_t i = n; i + 1 < blockCount; ++i) BlockSlot(array, i) = BlockSlot(array, i + 1);
  (void)FArrayLengthSet_(&array->blockID, blockCount - 1);  // shrinking cannot fail
  VMArenaBlockFree(arena, blockId, 0);
  return 1;
}

QW_API int VMABlockArrayBlockGrowNth_(VMArena *arena, uint32_t arrayID, int arrayLocked, uint32_t newBlockSize,
                                      uint32_t /*reserved*/, uint32_t n, uint32_t genID) {
  ArrayRecord *array = BlockArrayForChange(arena, arrayID, arrayLocked, genID);
  const uint32_t count = BlockCountOf(array);
  if (n >= count) return NoSuchBlock("VMABlockArrayBlockGrowNth_", arrayID, n, count);
  const uint64_t oldId = BlockSlot(array, n);
  uint32_t oldSize = 0;
  void *from = VMArenaDataAcquire(arena, oldId, uint32_t(arrayLocked), NEWGEN, 1, &oldSize, nullptr);
  if (!from) return QWErrorRethrow("VMABlockArrayBlockGrowNth_: cannot read block %u of array %u", n, arrayID);
  uint32_t actualSize = 0;
  const uint64_t newId = VMArenaBlockNew(arena, arrayLocked, newBlockSize, &actualSize, 0);
  void *to = nullptr;
  if (newId != INVALID_VMARENA_BLOCK_ID) {
    qwassert_(newBlockSize == actualSize);
    uint32_t size = 0;
    to = VMArenaDataAcquire(arena, newId, uint32_t(arrayLocked), NEWGEN, 0, &size, nullptr);
    if (!to) {
      QWErrorSave();
      VMArenaBlockFree(arena, newId, 0);
      QWErrorRestore();
    }
  }
  if (!to) {
    QWErrorSave();
    VMArenaDataRelease(arena, oldId, 1, from, 0, 0);
    QWErrorRestore();
    return QWErrorRethrow("VMABlockArrayBlockGrowNth_: no block of %u bytes for block %u of array %u", newBlockSize,
                          n, arrayID);
  }
  std::memcpy(to, from, std::min(oldSize, actualSize));
  VMArenaDataRelease(arena, newId, 0, to, 0, 0);
  VMArenaDataRelease(arena, oldId, 1, from, 0, 0);
  VMArenaBlockFree(arena, oldId, 0);
  BlockSlot(array, n) = newId;
  return 1;
}

QW_API uint32_t VMABlockArrayBlockRound_(VMArena *arena, uint32_t size, uint32_t maxBlockSize) {
  const uint32_t *sizes = kClassSizes;
  const uint32_t s = SizeClassOf(size);
  if (size > sizes[s] || maxBlockSize < sizes[s]) {
    TagCorruptedIfWritable(arena);  // sizes come from stored data
    qwassert_(maxBlockSize >= sizes[s]);
    qwassert_(size <= sizes[s]);
  }
  return sizes[s];
}

}  // extern "C"
