// Growth and clearing of arena arrays.
//
// Layout choice on growth: a block array stays FULL_BLOCK_ARRAY_TYPE; any
// other array becomes FULL_ARRAY_TYPE once it is asked for three full blocks'
// worth of elements or more, and TAIL_ARRAY_TYPE below that, so that small
// arrays end in a right-sized block. A tail block is never grown in place:
// growth takes it off, allocates full blocks and (for a tail layout) a new
// tail, moves the tail's live elements into the first new block and frees the
// old tail.
//
// Growth is all or nothing: every new block is allocated and the tail's
// elements are copied before the block list changes, so a failure (no block
// to be had, no memory) leaves the array as it was.
#include <cstring>
#include <vector>

#include "vm/arena/array_internal.h"

namespace qw::vm {
namespace {

void FreeBlocks(VMArena *arena, const std::vector<uint64_t> &ids) {
  for (uint64_t id : ids) VMArenaBlockFree(arena, id, 0);
}

// Allocates the blocks that take the array from `capacity` (elements of the
// kept blocks) to at least `wanted`. False with an error; nothing is kept.
bool AllocateGrowth(VMArena *arena, uint32_t arrayID, int lock, uint8_t type, uint32_t blockSize,
                    uint32_t elementSize, uint64_t capacity, uint64_t wanted, std::vector<uint64_t> *ids) {
  const uint64_t perBlock = blockSize / elementSize;
  auto allocate = [&](uint32_t bytes) {
    uint32_t actual = 0;
    uint64_t id = VMArenaBlockNew(arena, lock, bytes, &actual, 0);
    if (id == INVALID_VMARENA_BLOCK_ID) {
      QWErrorRethrow("VMAArrayEnsureCapacity_: no block of %u bytes for array %u in \"%s\"", bytes, arrayID,
                     arena->directory.c_str());
      return false;
    }
    ids->push_back(id);
    capacity += actual / elementSize;
    return true;
  };
  bool ok = true;
  if (type == TAIL_ARRAY_TYPE) {
    while (ok && capacity + perBlock < wanted) ok = allocate(blockSize);
    if (ok && capacity < wanted) ok = allocate(uint32_t((wanted - capacity) * elementSize));
  } else {
    while (ok && capacity < wanted) ok = allocate(blockSize);
  }
  if (!ok) FreeBlocks(arena, *ids);
  return ok;
}

// Copies `count` elements from the old tail block into the first new block.
bool MoveTail(VMArena *arena, uint32_t arrayID, uint64_t oldTail, uint64_t target, size_t bytes) {
  uint32_t size = 0;
  void *from = VMArenaDataAcquire(arena, oldTail, 0, NEWGEN, 1, &size, nullptr);
  if (!from) return QWErrorRethrow("VMAArrayEnsureCapacity_: cannot read the tail block of array %u", arrayID);
  void *to = VMArenaDataAcquire(arena, target, 0, NEWGEN, 0, &size, nullptr);
  if (!to) {
    QWErrorSave();
    VMArenaDataRelease(arena, oldTail, 1, from, 0, 0);
    QWErrorRestore();
    return QWErrorRethrow("VMAArrayEnsureCapacity_: cannot write a new block of array %u", arrayID);
  }
  std::memcpy(to, from, bytes);
  VMArenaDataRelease(arena, target, 0, to, 0, 0);
  VMArenaDataRelease(arena, oldTail, 1, from, 0, 0);
  return true;
}

}  // namespace

void ClearBlocks(VMArena *arena, ArrayRecord *array) {
  (void)FArrayClear(&array->blockCache);
  for (uint32_t b = 0; b < BlockCountOf(array); ++b) VMArenaBlockFree(arena, BlockIdAt(array, b), 0);
  (void)FArrayClear(&array->blockID);
  array->length = 0;
  if (array->type != FULL_BLOCK_ARRAY_TYPE) array->type = EMPTY_ARRAY_TYPE;
}

}  // namespace qw::vm

using namespace qw::vm;

extern "C" {

QW_API int VMAArrayEnsureCapacity_(VMArena *arena, uint32_t arrayID, int arrayLocked, uint32_t blockSize,
                                   uint32_t capacity, uint32_t genID, int read, uint32_t elementSize) {
  CheckWrite(arena, genID);
  qwassert_(!read);
  qwassert_(!(arrayLocked && arena->bgLock));
  ArrayRecord *array = NewRecord(arena, arrayID);
  if (array->type == TWO_PART_ARRAY_TYPE) qwassert_(FALSE);
  qwassert_(elementSize != 0 && elementSize <= blockSize && blockSize <= ARENA_MAX_BLOCK_SIZE);
  qwassert_((1u << array->log2size) == blockSize);
  if (CapacityOf(array, blockSize, elementSize) >= capacity) return 1;

  const uint64_t perBlock = blockSize / elementSize;
  const uint8_t oldType = array->type;
  uint8_t newType = FULL_BLOCK_ARRAY_TYPE;
  if (oldType != FULL_BLOCK_ARRAY_TYPE) newType = capacity >= 3 * perBlock ? FULL_ARRAY_TYPE : TAIL_ARRAY_TYPE;

  // A tail block is replaced, not kept.
  const uint32_t blocks = BlockCountOf(array);
  const bool dropTail = oldType == TAIL_ARRAY_TYPE && blocks > 0;
  const uint32_t kept = dropTail ? blocks - 1 : blocks;
  const uint64_t keptCapacity = kept * perBlock;
  std::vector<uint64_t> ids;
  if (!AllocateGrowth(arena, arrayID, arrayLocked, newType, blockSize, elementSize, keptCapacity, capacity, &ids))
    return 0;
  const uint64_t oldTail = dropTail ? BlockIdAt(array, blocks - 1) : INVALID_VMARENA_BLOCK_ID;
  const uint64_t live = dropTail && array->length > keptCapacity ? array->length - keptCapacity : 0;
  if ((live > 0 && !MoveTail(arena, arrayID, oldTail, ids[0], size_t(live) * elementSize)) ||
      !FArrayEnsureCapacity_(&array->blockID, kept + ids.size())) {
    QWErrorSave();
    FreeBlocks(arena, ids);
    QWErrorRestore();
    return 0;
  }
  (void)FArrayLengthSet_(&array->blockID, kept);  // shrinking cannot fail
  uint64_t first = 0;
  bool success = FArrayAdd_(&array->blockID, ids.size(), &first) != 0;  // within the ensured capacity
  qwassert_(success);
  for (size_t i = 0; i < ids.size(); ++i) *static_cast<uint64_t *>(FArrayNth(&array->blockID, first + i)) = ids[i];
  array->type = newType;
  if (dropTail) VMArenaBlockFree(arena, oldTail, 0);
  return 1;
}

QW_API int VMAArrayClear_(VMArena *arena, uint32_t arrayID, int arrayLocked, uint32_t genID) {
  CheckWrite(arena, genID);
  qwassert_(!(arrayLocked && arena->bgLock));
  ClearBlocks(arena, NewRecord(arena, arrayID));
  return 1;
}

}  // extern "C"
