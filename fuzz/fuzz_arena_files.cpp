// Fuzzes the readers of an arena's on-disk state: the two generation files
// and a bucket server's two index files. A valid arena is made once; each
// input replaces one of its files (chosen by the first byte) and the arena is
// opened read-only, in page-cache and in mapped mode. The open must fail
// cleanly or succeed; it must never crash or read out of bounds.
//
// QWVM_FUZZ_WRITE_SEEDS=<dir> writes the valid files as a seed corpus and
// exits.
#include <cstring>
#include <vector>

#include "fuzz_support.h"

namespace {

const char *const kFiles[] = {"arena.new", "arena.old", "block/index0.new", "block/index0.old"};
std::string arenaDir;
PageCache *cache;

void MakeArena() {
  arenaDir = qwfuzz::Start("arena") + "/arena";
  cache = PageCacheNew(1 << 20, 8192);
  VMArena *arena = VMArenaOpen(arenaDir.c_str(), VM_FLAG_CREATE, 1, STATUS_NO_SERIAL, STATUS_NO_SERIAL, nullptr, cache);
  if (!arena) std::abort();
  std::vector<uint64_t> ids;
  for (uint32_t size : {64u, 700u, 8192u, 8192u, 3000u}) ids.push_back(VMArenaBlockNew(arena, 0, size, nullptr, 0));
  for (uint64_t id : ids) {
    uint32_t size;
    void *data = VMArenaDataAcquire(arena, id, 0, NEWGEN, 0, &size, nullptr);
    std::memset(data, 0x5A, size);
    VMArenaDataRelease(arena, id, 0, data, 0, 0);
  }
  VMArenaBlockFree(arena, ids[3], 0);
  VMArenaBlockFree(arena, ids[0], 0);
  if (!VMArenaCommit(arena, nullptr, nullptr, 0)) std::abort();
  VMArenaClose(arena);
}

}  // namespace

extern "C" int LLVMFuzzerInitialize(int *, char ***) {
  MakeArena();
  if (const std::string seeds = qwfuzz::SeedDir(); !seeds.empty()) {
    for (size_t i = 0; i < std::size(kFiles); ++i)
      qwfuzz::WriteAll(seeds + "/seed" + std::to_string(i), std::string(1, char(i)) + qwfuzz::ReadAll(arenaDir + "/" + kFiles[i]));
    std::exit(0);
  }
  return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
  if (size == 0) return 0;
  std::string file = arenaDir + "/" + kFiles[data[0] % std::size(kFiles)];
  std::string original = qwfuzz::ReadAll(file);
  qwfuzz::WriteAll(file, data + 1, size - 1);
  for (uint32_t flags : {VM_FLAG_READ_ONLY, VM_FLAG_READ_ONLY | VM_FLAG_MAPPED}) {
    VMArena *arena = VMArenaOpen(arenaDir.c_str(), flags, 1, STATUS_NO_SERIAL, STATUS_NO_SERIAL, nullptr, cache);
    if (arena) {
      // Read every block the committed generation claims to have.
      for (uint32_t block = 0; block < 8; ++block) {
        void *memory = VMArenaDataBlockAcquire(arena, block, 0, OLDGEN, 1);
        if (memory) VMArenaDataRelease(arena, uint64_t(block) << 4 | 15, 1, memory, 0, 0);
      }
      VMArenaClose(arena);
    }
    QWErrorClear();
  }
  qwfuzz::WriteAll(file, original);
  return 0;
}
