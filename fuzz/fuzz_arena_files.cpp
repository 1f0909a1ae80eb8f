// Fuzzes the readers of an arena's on-disk state: the two generation files
// and a bucket server's two index files. A valid arena is made once; each
// input replaces one of its files (chosen by the first byte) and the arena is
// opened read-only, in page-cache and in mapped mode. The open must fail
// cleanly or succeed; it must never crash or read out of bounds.
//
// QWVM_FUZZ_WRITE_SEEDS=<dir> writes the valid files as a seed corpus and
// exits.
#include <unistd.h>

#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <string>
#include <vector>

#include "qwvm/qwvm.h"

namespace {

const char *const kFiles[] = {"arena.new", "arena.old", "block/index0.new", "block/index0.old"};
std::string arenaDir;
PageCache *cache;

void Quiet(void *, int, const char *, int, const char *) {}

std::string ReadAll(const std::string &path) {
  std::ifstream in(path, std::ios::binary);
  return std::string(std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>());
}

void WriteAll(const std::string &path, const void *data, size_t size) {
  std::ofstream out(path, std::ios::binary | std::ios::trunc);
  out.write(static_cast<const char *>(data), std::streamsize(size));
}

void MakeArena() {
  char pattern[] = "/tmp/qwvm-fuzz-XXXXXX";
  arenaDir = std::string(mkdtemp(pattern)) + "/arena";
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
  QWSetMessageHandler(Quiet, nullptr, nullptr);
  MakeArena();
  if (const char *seeds = std::getenv("QWVM_FUZZ_WRITE_SEEDS")) {
    std::filesystem::create_directories(seeds);
    for (size_t i = 0; i < std::size(kFiles); ++i) {
      std::string content = std::string(1, char(i)) + ReadAll(arenaDir + "/" + kFiles[i]);
      WriteAll(std::string(seeds) + "/seed" + std::to_string(i), content.data(), content.size());
    }
    std::exit(0);
  }
  return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
  if (size == 0) return 0;
  std::string file = arenaDir + "/" + kFiles[data[0] % std::size(kFiles)];
  std::string original = ReadAll(file);
  WriteAll(file, data + 1, size - 1);
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
  WriteAll(file, original.data(), original.size());
  return 0;
}
