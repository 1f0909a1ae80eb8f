// Arena blocks: size classes, block ids, allocation and access.
//
// A global block id puts the bucket server index in the low `bucketBits`
// bits and the server's block id above. An arena block id puts the size
// class in bits 0-3, the slot within its server block in the next
// SlotBits(class) bits, and the global block id above.
#include "vm/arena/arena.h"
#include "vm/lbs/local_block_server.h"

namespace qw::vm {
namespace {

struct Decoded {
  uint32_t sizeClass;
  uint32_t slot;
  uint32_t global;
};

Decoded Decode(uint64_t id) {
  Decoded d;
  d.sizeClass = uint32_t(id & 0xF);
  uint32_t bits = SlotBits(d.sizeClass);
  d.slot = uint32_t((id >> 4) & ((uint64_t(1) << bits) - 1));
  d.global = uint32_t(id >> (4 + bits));
  return d;
}

uint64_t Encode(uint32_t global, uint32_t slot, uint32_t sizeClass) {
  return (uint64_t(global) << (4 + SlotBits(sizeClass))) | (uint64_t(slot) << 4) | sizeClass;
}

LocalBlockServer0 *ServerOf(const VMArena *arena, uint32_t global) {
  uint32_t index = global & ((1u << arena->bucketBits) - 1);
  qwassert_(index < arena->servers.size());
  return arena->servers[index];
}

uint32_t ServerBlockOf(const VMArena *arena, uint32_t global) { return global >> arena->bucketBits; }

void CheckGeneration(uint32_t generation) {
  if (generation != NEWGEN && generation != OLDGEN) qwassert_(FALSE);
}

// Raw block of a server block in `generation`, copying it first for a write.
uint32_t RawIdFor(const VMArena *arena, uint32_t global, uint32_t generation, int read) {
  LocalBlockServer0 *server = ServerOf(arena, global);
  uint32_t block = ServerBlockOf(arena, global);
  if (generation == OLDGEN || read) return LocalBlockServer0RawIdRead(server, block, generation);
  qwassert_(generation == NEWGEN);
  qwassert_(!arena->readOnly);
  return LocalBlockServer0RawIdWrite(server, block);
}

// Memory of a whole server block, or NULL with an error.
void *ServerBlockAcquire(VMArena *arena, uint32_t global, uint32_t generation, int read, uint32_t within = 0) {
  CheckGeneration(generation);
  uint32_t raw = RawIdFor(arena, global, generation, read);
  if (raw == INVALID_RAW_BLOCK_ID) {
    // A block that exists but has no raw block for writing failed its
    // copy-on-write copy: keep the cause (the disk's or the allocator's).
    const bool copyFailed = generation == NEWGEN && !read &&
                            LocalBlockServer0RawIdRead(ServerOf(arena, global), ServerBlockOf(arena, global),
                                                       NEWGEN) != INVALID_RAW_BLOCK_ID;
    if (copyFailed) {
      QWErrorRethrow("could not copy block %u of \"%s\" for writing", global, arena->directory.c_str());
    } else {
      QWErrorThrow(2, QW_ERROR_CLASS_GENERAL, "no block %u in generation %u of \"%s\"", global, generation,
                   arena->directory.c_str());
    }
    return nullptr;
  }
  return LocalBlockServer0RawBlockGet(ServerOf(arena, global), raw, within);
}

// A server block for the arena: round-robin bucket choice.
uint32_t NewServerBlock(VMArena *arena, uint32_t argument) {
  uint32_t index = arena->roundRobin;
  arena->roundRobin = (arena->roundRobin + 1) % arena->bucketCount;
  uint32_t block = LocalBlockServer0BlockNew(arena->servers[index], argument);
  if (block == INVALID_BLOCK_ID) return INVALID_BLOCK_ID;
  return (block << arena->bucketBits) | index;
}

}  // namespace

uint32_t SizeClassOf(uint32_t size) {
  for (uint32_t c = 0; c < ARENA_SIZE_CLASS_COUNT; ++c)
    if (size <= kClassSizes[c]) return c;
  return kLargestClass;
}

uint32_t SlotBits(uint32_t sizeClass) {
  uint32_t bits = 0;
  while ((kClassSizes[sizeClass] << bits) < ARENA_MAX_BLOCK_SIZE) ++bits;
  return bits;
}

void *ArenaDataAcquireWithin(VMArena *arena, uint64_t id, uint32_t generation, int read, uint32_t within,
                             uint32_t *size) {
  if (size) *size = 0;
  if (id == INVALID_VMARENA_BLOCK_ID) return nullptr;
  Decoded d = Decode(id);
  const size_t start = size_t(d.slot) * kClassSizes[d.sizeClass];
  auto *memory = static_cast<char *>(ServerBlockAcquire(arena, d.global, generation, read, uint32_t(start) + within));
  if (!memory) return nullptr;
  if (size) *size = kClassSizes[d.sizeClass];
  return memory + start;
}

}  // namespace qw::vm

using namespace qw::vm;

extern "C" {

QW_API void VMArenaBlockLock(VMArena *arena, uint32_t blockID, uint32_t generation) {
  qwassert_(blockID != INVALID_BLOCK_ID);
  CheckGeneration(generation);
  LocalBlockServer0 *server = ServerOf(arena, blockID);
  const uint32_t rawBlockID = LocalBlockServer0RawIdRead(server, ServerBlockOf(arena, blockID), generation);
  qwassert_(rawBlockID != INVALID_RAW_BLOCK_ID);
  if (arena->mapped) return;  // mapped memory stays where it is
  void *memory = LocalBlockServer0RawBlockGet(server, rawBlockID);
  if (memory) LocalBlockServer0RawBlockRelease(server, memory, 0, 1, 1);
  else QWErrorClear();
}

QW_API uint64_t VMArenaBlockNew(VMArena *arena, int lock, uint32_t size, uint32_t *actualSize, uint32_t reserved) {
  qwassert_(!arena->readOnly);
  if (reserved != 0) {
    qwassert_(reserved == 0);
    return INVALID_VMARENA_BLOCK_ID;
  }
  if (size > ARENA_MAX_BLOCK_SIZE) {
    VMArenaTagCorrupted(arena);
    qwassert_(size <= ARENA_MAX_BLOCK_SIZE);
  }
  uint32_t sizeClass = SizeClassOf(size);
  if (actualSize) *actualSize = kClassSizes[sizeClass];
  SizeClassState &state = arena->classes[sizeClass];
  MutexAcquire(arena->mutexes.newGen);
  size_t freeCount = ArrayLength(state.freeList);
  if (freeCount > 0) {
    uint64_t id = state.freeList[freeCount - 1];
    ArrayLengthSet(state.freeList, freeCount - 1);
    MutexRelease(arena->mutexes.newGen);
    if (lock) VMArenaBlockLock(arena, Decode(id).global, NEWGEN);
    return id;
  }
  if (state.currentBlock == INVALID_BLOCK_ID) {
    uint32_t global = NewServerBlock(arena, 0);
    if (global == INVALID_BLOCK_ID) {
      MutexRelease(arena->mutexes.newGen);
      return INVALID_VMARENA_BLOCK_ID;
    }
    state.currentBlock = global;
    state.slotsUsed = 0;
  }
  uint32_t global = state.currentBlock;
  const uint64_t vma_id = Encode(global, state.slotsUsed, sizeClass);
  if (++state.slotsUsed == ARENA_MAX_BLOCK_SIZE / kClassSizes[sizeClass]) {
    state.currentBlock = INVALID_BLOCK_ID;
    state.slotsUsed = 0;
  }
  MutexRelease(arena->mutexes.newGen);
  if (lock) VMArenaBlockLock(arena, global, NEWGEN);
  qwassert_(vma_id != INVALID_VMARENA_BLOCK_ID);
  return vma_id;
}

QW_API void VMArenaBlockFree(VMArena *arena, uint64_t id, uint32_t reserved) {
  qwassert_(reserved == 0);
  qwassert_(!arena->readOnly);
  Decoded d = Decode(id);
  if (d.sizeClass == kLargestClass) {
    LocalBlockServer0BlockFree(ServerOf(arena, d.global), ServerBlockOf(arena, d.global));
    return;
  }
  // Small blocks go back to their class list; their server block is never
  // returned, since slot occupancy is not tracked.
  MutexAcquire(arena->mutexes.newGen);
  bool ok = ArrayAppend(arena->classes[d.sizeClass].freeList, id);
  MutexRelease(arena->mutexes.newGen);
  if (!ok) QWErrorClear();  // out of memory: the block leaks rather than the call failing
}

QW_API void *VMArenaDataAcquire(VMArena *arena, uint64_t id, uint32_t /*hint*/, uint32_t generation, int read,
                                uint32_t *size, uint32_t *sizeClass) {
  void *memory = ArenaDataAcquireWithin(arena, id, generation, read, 0, size);
  if (memory && sizeClass) *sizeClass = Decode(id).sizeClass;
  return memory;
}

QW_API void VMArenaDataRelease(VMArena *arena, uint64_t id, int read, void *address, int hint1, int hint2) {
  if (arena->mapped || !address) return;
  qwassert_(arena->cache != NULL);
  LocalBlockServer0RawBlockRelease(ServerOf(arena, Decode(id).global), address, read ? 0 : 1, hint1, hint2);
}

QW_API void VMArenaDataPrefetch(VMArena *arena, uint64_t id, uint32_t /*hint*/, uint32_t generation) {
  if (id == INVALID_VMARENA_BLOCK_ID) return;
  CheckGeneration(generation);
  Decoded d = Decode(id);
  LocalBlockServer0 *server = ServerOf(arena, d.global);
  uint32_t raw = LocalBlockServer0RawIdRead(server, ServerBlockOf(arena, d.global), generation);
  if (raw == INVALID_RAW_BLOCK_ID) return;
  QWErrorSave();
  LocalBlockServer0RawBlockPrefetch(server, raw);  // a hint: failures do not matter
  QWErrorRestore();
}

QW_API uint32_t VMArenaDataBlockNew(VMArena *arena, uint32_t argument, uint32_t reserved) {
  qwassert_(reserved == 0);
  qwassert_(!arena->readOnly);
  MutexAcquire(arena->mutexes.newGen);
  uint32_t global = NewServerBlock(arena, argument);
  MutexRelease(arena->mutexes.newGen);
  return global;
}

QW_API void VMArenaDataBlockFree(VMArena *arena, uint32_t globalId, uint32_t /*argument*/) {
  qwassert_(!arena->readOnly);
  LocalBlockServer0BlockFree(ServerOf(arena, globalId), ServerBlockOf(arena, globalId));
}

QW_API void *VMArenaDataBlockAcquire(VMArena *arena, uint32_t globalId, uint32_t /*hint*/, uint32_t generation,
                                     int read) {
  if (globalId == INVALID_BLOCK_ID) return nullptr;
  return ServerBlockAcquire(arena, globalId, generation, read);
}

QW_API int VMABlockInfoGet(VMArena *arena, uint64_t id, uint32_t *sizeClass, uint32_t *bucket, uint32_t *serverBlock,
                           uint32_t *slot) {
  if (id == INVALID_VMARENA_BLOCK_ID)
    return QWErrorThrow(22, QW_ERROR_CLASS_GENERAL, "VMABlockInfoGet: invalid block id");
  Decoded d = Decode(id);
  if (sizeClass) *sizeClass = d.sizeClass;
  if (bucket) *bucket = d.global & ((1u << arena->bucketBits) - 1);
  if (serverBlock) *serverBlock = ServerBlockOf(arena, d.global);
  if (slot) *slot = d.slot;
  return 1;
}

QW_API void VMArenaOldGenAcquire(VMArena *arena) { RWLockAcquireRead_(arena->generationLock); }
QW_API void VMArenaOldGenRelease(VMArena *arena) { RWLockRelease_(arena->generationLock); }

QW_API void VMArenaNewGenAcquire(VMArena *arena, int old) {
  RWLockAcquireRead_(old ? arena->generationLock : arena->flushLock);
}

QW_API void VMArenaNewGenRelease(VMArena *arena, int old) {
  RWLockRelease_(old ? arena->generationLock : arena->flushLock);
}

QW_API int VMArenaMemoryAdvise(VMArena *arena, int advice) {
  int ok = 1;
  for (LocalBlockServer0 *server : arena->servers) ok &= LocalBlockServer0MemoryAdvise(server, advice);
  return ok;
}

QW_API int VMArenaMSync(VMArena *arena) {
  int ok = 1;
  for (LocalBlockServer0 *server : arena->servers) ok &= LocalBlockServer0MSync(server);
  return ok;
}

QW_API int VMArenaFreePrefetch(VMArena *arena) { return VMArenaMemoryAdvise(arena, QW_ADVICE_DONTNEED); }

}  // extern "C"
