// Range cache: keeps the last range acquired from one array, so that a walk
// over consecutive elements acquires each block once.
//
// Invariant: `held` is NULL, or it is an address from VMAArrayRange_ not yet
// released, `base` the address of element `first` (the first element of that
// block) and [first, end) the elements the block holds within the length at
// the time it was acquired. A change of the array's blocks (growth, clear,
// insert or remove) invalidates the cache: release it first.
#include "vm/arena/array_internal.h"

struct VMAArrayRangeCache {
  VMArena *arena;
  uint32_t arrayID;
  uint32_t blockSize;
  uint32_t elementSize;
  uint32_t genID;
  int read;
  uint8_t *held;
  uint8_t *base;
  uint32_t first;
  uint32_t end;
};

using namespace qw::vm;

extern "C" {

QW_API VMAArrayRangeCache *VMAArrayRangeCacheNew(VMArena *arena, uint32_t arrayID, uint32_t blockSize,
                                                 uint32_t elementSize, uint32_t genID, int read) {
  CheckGeneration(genID);
  qwassert_(elementSize != 0 && elementSize <= blockSize);
  auto *cache = static_cast<VMAArrayRangeCache *>(Allocate(sizeof(VMAArrayRangeCache)));
  if (!cache) return nullptr;
  *cache = {arena, arrayID, blockSize, elementSize, genID, read, nullptr, nullptr, 0, 0};
  return cache;
}

QW_API void VMAArrayRangeRelease_(VMAArrayRangeCache *cache) {
  if (!cache->held) return;
  if (!cache->read) qwassert_(!cache->arena->readOnly);
  VMAArrayRelease_(cache->arena, cache->arrayID, cache->held, cache->read);
  cache->held = nullptr;
}

QW_API void VMAArrayRangeCacheFree(VMAArrayRangeCache *cache) {
  if (!cache) return;
  VMAArrayRangeRelease_(cache);
  UnAllocate(cache);
}

QW_API void VMAArrayRangeCacheSetTodo(VMAArrayRangeCache *cache, uint32_t arrayID, uint32_t genID, int read) {
  CheckGeneration(genID);
  VMAArrayRangeRelease_(cache);
  cache->arrayID = arrayID;
  cache->genID = genID;
  cache->read = read;
}

QW_API void *VMAArrayRangeAcquire_(VMAArrayRangeCache *cache, uint32_t index, uint32_t *end) {
  const uint32_t elementSize = cache->elementSize;
  if (cache->held && index >= cache->first && index < cache->end) {
    *end = cache->end;
    return cache->base + size_t(index - cache->first) * elementSize;
  }
  VMAArrayRangeRelease_(cache);
  uint32_t rangeEnd = 0;
  auto *data = static_cast<uint8_t *>(VMAArrayRange_(cache->arena, cache->arrayID, 0, cache->blockSize, index,
                                                     &rangeEnd, cache->genID, cache->read, elementSize, 0));
  if (!data) return nullptr;
  const uint32_t perBlock = cache->blockSize / elementSize;
  cache->held = data;
  cache->first = index - index % perBlock;
  cache->base = data - size_t(index - cache->first) * elementSize;
  cache->end = rangeEnd;
  *end = rangeEnd;
  return data;
}

}  // extern "C"
