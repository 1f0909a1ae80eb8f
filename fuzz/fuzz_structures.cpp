// Fuzzes the readers of stored structure nodes: a committed arena holds a
// DBArray, an 8-byte-key B-tree and a PITree; each input replaces the start
// of one raw 8192-byte block of a bucket's data file (first byte: bucket,
// next two: block), and the arena is opened read-only and every structure
// checked and read in the committed generation. Reads must fail cleanly or
// succeed; they must never crash or read out of bounds.
//
// QWVM_FUZZ_WRITE_SEEDS=<dir> writes the stored blocks as a seed corpus.
#include <cstring>
#include <vector>

#include "fuzz_support.h"

namespace {

constexpr uint32_t kBlock = 8192;
constexpr uint32_t kBuckets = 2;
std::string arenaDir;
PageCache *cache;
uint8_t *pathBuffer;

std::string DataPath(uint32_t bucket) { return arenaDir + "/block/data" + std::to_string(bucket); }

std::vector<uint32_t> Atom(uint32_t i) {
  const std::string text = "host" + std::to_string(i % 7) + "/path/" + std::to_string(i * 7919 % 1000);
  return std::vector<uint32_t>(text.begin(), text.end());
}

void MakeArena() {
  arenaDir = qwfuzz::Start("structures") + "/arena";
  VMArena *arena = VMArenaOpen(arenaDir.c_str(), VM_FLAG_CREATE, kBuckets, STATUS_NO_SERIAL, STATUS_NO_SERIAL,
                               nullptr, cache);
  int created = 1;
  DBArray *array = arena ? DBArrayNew(arena, &pathBuffer, "fz/dbarray", &created, 0, 1) : nullptr;
  BTree *tree = arena ? BTreeNew(arena, "fz", "btree", 0, 8, 4) : nullptr;
  PITreeThreadData *td = PITreeThreadDataNew();
  ArrayLengthSet(pathBuffer, 0);
  PITree *atoms = arena ? PITreeNew_(arena, &pathBuffer, "atoms", 0, &created, 0) : nullptr;
  if (!array || !tree || !atoms || !td) std::abort();
  for (uint32_t i = 0; i < 150; ++i) {
    const std::string bytes(1 + i * 37 % 500, char('a' + i % 26));
    DBArrayAdd(array, 0, bytes.data(), uint32_t(bytes.size()), NEWGEN);
  }
  for (uint64_t i = 0; i < 1200; ++i) BTreeFind(tree, i * 2654435761u, 1 + i, BTREE_NO_KEY, 1, 0, 0, NEWGEN);
  for (uint32_t i = 0; i < 300; ++i) {
    const std::vector<uint32_t> atom = Atom(i);
    PITreeFind(atoms, td, atom.data(), uint32_t(atom.size()), i + 1, NEWGEN, 1, 0, 0);
  }
  if (!VMArenaCommit(arena, nullptr, nullptr, 0)) std::abort();
  PITreeFree(atoms);
  PITreeThreadDataFree(td);
  BTreeFree(tree, 8);
  DBArrayFree(array);
  VMArenaClose(arena);
}

int CountEntry(uint64_t, uint64_t, void *context) {
  ++*static_cast<uint64_t *>(context);
  return 0;
}

int CountAtom(void *context, const uint32_t *, uint32_t, uint64_t) {
  ++*static_cast<uint64_t *>(context);
  return 1;
}

void ReadDBArray(VMArena *arena) {
  DBArray *array = DBArrayNew(arena, &pathBuffer, "fz/dbarray", nullptr, 0, 1);
  if (!array) return;
  if (DBArrayCheck(array, OLDGEN) == 0) {
    for (uint32_t h = 0; h < DBArraySize(array, 0, OLDGEN); ++h) {
      uint32_t length = 0;
      const void *bytes = DBArrayGet(array, 0, h, OLDGEN, 1, &length);
      if (bytes) DBArrayRelease(array, OLDGEN, 1, bytes);
    }
  }
  DBArrayFree(array);
}

void ReadBTree(VMArena *arena) {
  BTree *tree = BTreeNew(arena, "fz", "btree", 0, 8, 4);
  if (!tree) return;
  if (BTreeCheck(tree, OLDGEN, nullptr) == 1) {
    uint64_t count = 0;
    BTreeEnumerate(tree, CountEntry, &count, OLDGEN);
    for (uint64_t i = 0; i < 1200; i += 97) BTreeFind(tree, i * 2654435761u, 0, BTREE_NO_KEY, 0, 0, 0, OLDGEN);
  }
  BTreeFree(tree, 8);
}

void ReadPITree(VMArena *arena) {
  ArrayLengthSet(pathBuffer, 0);
  PITree *atoms = PITreeNew_(arena, &pathBuffer, "atoms", 0, nullptr, 0);
  PITreeThreadData *td = PITreeThreadDataNew();
  if (atoms && td) {
    uint64_t count = 0;
    PITreeEnumerate(atoms, OLDGEN, nullptr, 0, UINT32_MAX, CountAtom, &count);
    for (uint32_t i = 0; i < 300; i += 37) {
      const std::vector<uint32_t> atom = Atom(i);
      PITreeFind(atoms, td, atom.data(), uint32_t(atom.size()), 0, OLDGEN, 0, 0, 0);
    }
  }
  PITreeThreadDataFree(td);
  PITreeFree(atoms);
}

}  // namespace

extern "C" int LLVMFuzzerInitialize(int *, char ***) {
  cache = PageCacheNew(4 << 20, kBlock);
  if (!ArrayInit(pathBuffer, 1, 64)) std::abort();
  MakeArena();
  if (const std::string seeds = qwfuzz::SeedDir(); !seeds.empty()) {
    for (uint32_t bucket = 0; bucket < kBuckets; ++bucket) {
      const std::string data = qwfuzz::ReadAll(DataPath(bucket));
      for (uint32_t block = 0; block * kBlock < data.size(); ++block) {
        std::string seed{char(bucket), char(block & 0xFF), char(block >> 8)};
        seed += data.substr(size_t(block) * kBlock, kBlock);
        qwfuzz::WriteAll(seeds + "/seed-" + std::to_string(bucket) + "-" + std::to_string(block), seed);
      }
    }
    std::exit(0);
  }
  return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
  if (size < 3) return 0;
  const std::string path = DataPath(data[0] % kBuckets);
  const std::string original = qwfuzz::ReadAll(path);
  const size_t blocks = original.size() / kBlock;
  if (blocks == 0) return 0;
  const size_t block = (data[1] | size_t(data[2]) << 8) % blocks;
  std::string damaged = original;
  std::memcpy(&damaged[block * kBlock], data + 3, std::min<size_t>(size - 3, kBlock));
  qwfuzz::WriteAll(path, damaged);
  VMArena *arena = VMArenaOpen(arenaDir.c_str(), VM_FLAG_READ_ONLY, kBuckets, STATUS_NO_SERIAL, STATUS_NO_SERIAL,
                               nullptr, cache);
  if (arena) {
    ReadDBArray(arena);
    ReadBTree(arena);
    ReadPITree(arena);
    VMArenaClose(arena);
  }
  QWErrorClear();
  qwfuzz::WriteAll(path, original);
  return 0;
}
