// The arena's memory-lock registry: which generations (or caller objects) a
// process wants kept resident. Applying an arena entry makes every server
// block of that generation resident with the keep hints; custom object
// entries are kept and replayed for their owners but pin nothing here, since
// the arena does not know what an object id covers.
#include <vector>

#include "vm/arena/arena.h"
#include "vm/lbs/local_block_server.h"

namespace qw::vm {
namespace {

constexpr uint32_t kKindArena = 1;
constexpr uint32_t kKindCustom = 0;
constexpr uint32_t kWhole = 0xFFFFFFFFu;

bool ApplyEntry(VMArena *arena, const LockEntry &entry) {
  if (entry.kind != kKindArena || arena->mapped) return true;
  if (entry.index != kWhole) return ArrayLockApply(arena, entry.index, entry.data);  // one array
  for (uint32_t index = 0; index < arena->servers.size(); ++index) {
    LocalBlockServer0 *server = arena->servers[index];
    uint32_t count = entry.data == OLDGEN ? LocalBlockServer0OldBlockCount(server) : LocalBlockServer0BlockCount(server);
    for (uint32_t block = 0; block < count; ++block) {
      uint32_t raw = LocalBlockServer0RawIdRead(server, block, entry.data);
      if (raw == INVALID_RAW_BLOCK_ID) continue;
      void *memory = LocalBlockServer0RawBlockGet(server, raw);
      if (!memory) return false;
      LocalBlockServer0RawBlockRelease(server, memory, 0, 1, 1);
    }
  }
  return true;
}

std::vector<LockEntry> SnapshotRegistry(VMArena *arena) {
  MutexAcquire(arena->mutexes.locks);
  std::vector<LockEntry> entries = arena->lockRegistry;
  MutexRelease(arena->mutexes.locks);
  return entries;
}

void Register(VMArena *arena, const LockEntry &entry) {
  MutexAcquire(arena->mutexes.locks);
  arena->lockRegistry.push_back(entry);
  MutexRelease(arena->mutexes.locks);
}

}  // namespace

void ArenaReapplyLocks(VMArena *arena) {
  for (const LockEntry &entry : SnapshotRegistry(arena)) {
    if (entry.skip) continue;
    if (!ApplyEntry(arena, entry)) {
      QWMessage(QW_LEVEL_WARNING, "Lock failure");
      QWErrorClear();
    }
  }
}

int ArenaMemoryEnumerate(void *context) {
  auto *arena = static_cast<VMArena *>(context);
  for (const LockEntry &entry : SnapshotRegistry(arena)) {
    if (!ApplyEntry(arena, entry)) return 0;
    if (!MemoryLockPeriodicRelease(0)) break;
  }
  return 1;
}

}  // namespace qw::vm

using namespace qw::vm;

extern "C" {

QW_API int VMArenaLockRegister(VMArena *arena, uint32_t argument) {
  Register(arena, {kKindArena, OLDGEN, arena->mapped ? 1u : 0u, 0, 0, kWhole, argument});
  if (arena->mapped) return 1;
  Register(arena, {kKindArena, NEWGEN, 1, 0, 0, kWhole, argument});
  int ok = 1;
  for (const LockEntry &entry : SnapshotRegistry(arena))
    if (!entry.skip && !ApplyEntry(arena, entry)) ok = 0;
  return ok;
}

QW_API int VMObjectCustomLockRegister(VMArena *arena, uint32_t object, uint32_t argument, uint32_t data,
                                      uint32_t extra) {
  LockEntry entry{kKindCustom, data, arena->mapped ? 1u : 0u, object, extra, 0, argument};
  Register(arena, entry);
  if (!arena->mapped && data != 0) return ApplyEntry(arena, entry) ? 1 : 0;
  return 1;
}

QW_API void VMObjectCustomLockUnRegister(VMArena *arena, uint32_t object, uint32_t argument, uint32_t extra) {
  MutexAcquire(arena->mutexes.locks);
  auto &entries = arena->lockRegistry;
  for (auto it = entries.begin(); it != entries.end(); ++it) {
    if (it->object == object && it->argument == argument && it->extra == extra) {
      entries.erase(it);  // keeps the order of the rest
      break;
    }
  }
  MutexRelease(arena->mutexes.locks);
}

}  // extern "C"
