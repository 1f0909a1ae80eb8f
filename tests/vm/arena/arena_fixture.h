// Arena tests: arenas in each access mode, blocks filled from (tag, id), and
// whole-array reads that check every range end against the block layout.
#pragma once

#include <algorithm>
#include <filesystem>
#include <random>

#include "qwvm/vmaarray.h"
#include "qwvm/vmarena.h"
#include "support/arena_support.h"
#include "vm/arena/arena.h"

namespace arenatest {

// serialised: serials 0,0 at creation instead of STATUS_NO_SERIAL.
struct Mode {
  const char *name;
  uint32_t flags;
  bool serialised;
};
inline const Mode kCache{"cache", 0, false}, kCacheSerial{"cache_serial", 0, true}, kMapped{"mapped", VM_FLAG_MAPPED, false},
    kMappedSerial{"mapped_serial", VM_FLAG_MAPPED, true}, kExtents{"extents", VM_FLAG_MAPPED | VM_FLAG_EXTENTS, false};
inline const Mode kModes[] = {kCache, kCacheSerial, kMapped, kMappedSerial, kExtents};
inline std::string ModeName(const ::testing::TestParamInfo<Mode> &info) { return info.param.name; }

constexpr uint32_t kBlock = ARENA_MAX_BLOCK_SIZE;
using Bytes = std::vector<uint8_t>;

inline uint8_t PatternByte(uint32_t tag, uint64_t id, uint32_t i) {
  return uint8_t((tag * 131u) ^ (id * 2654435761u >> 7) ^ (i * 31u));
}

inline void Fill(VMArena *arena, uint64_t id, uint32_t tag) {
  uint32_t size = 0;
  auto *bytes = static_cast<uint8_t *>(VMArenaDataAcquire(arena, id, 0, NEWGEN, 0, &size, nullptr));
  ASSERT_NE(bytes, nullptr) << QWErrorMessage();
  for (uint32_t i = 0; i < size; ++i) bytes[i] = PatternByte(tag, id, i);
  VMArenaDataRelease(arena, id, 0, bytes, 0, 0);
}

inline bool Holds(VMArena *arena, uint64_t id, uint32_t generation, uint32_t tag) {
  uint32_t size = 0;
  auto *bytes = static_cast<uint8_t *>(VMArenaDataAcquire(arena, id, 0, generation, 1, &size, nullptr));
  if (!bytes) return false;
  bool same = true;
  for (uint32_t i = 0; i < size && same; ++i) same = bytes[i] == PatternByte(tag, id, i);
  VMArenaDataRelease(arena, id, 1, bytes, 0, 0);
  return same;
}

inline size_t CountHolding(VMArena *arena, const std::vector<uint64_t> &ids, uint32_t generation, uint32_t tag) {
  return size_t(std::count_if(ids.begin(), ids.end(), [&](uint64_t id) { return Holds(arena, id, generation, tag); }));
}

// ArenaDirTest with the arena's own modes and serials kept across commits.
class ArenaTest : public qwtest::ArenaDirTest {
 protected:
  ArenaTest() { cacheBytes = 4 << 20; }  // small enough that pages get evicted
  VMArena *Open(const Mode &mode, uint32_t flags = VM_FLAG_CREATE, uint32_t buckets = 2,
                const std::string &directory = "") {
    const uint64_t o = mode.serialised ? serialOld : STATUS_NO_SERIAL, n = mode.serialised ? serialNew : STATUS_NO_SERIAL;
    return VMArenaOpen((directory.empty() ? arenaDir() : directory).c_str(), mode.flags | flags, buckets, o, n, nullptr,
                       cache);
  }
  bool Reopen(const Mode &mode, uint32_t flags = 0, uint32_t buckets = 2) {
    CloseArena();
    return (arena = Open(mode, flags, buckets)) != nullptr;
  }
  bool Commit(VMArena *on = nullptr) {
    uint64_t o = 0, n = 0;
    if (!VMArenaCommit(on ? on : arena, &o, &n, 0)) return false;
    if (o != STATUS_NO_SERIAL) serialOld = o, serialNew = n;
    return true;
  }
  bool Tagged() const { return FileExists(path("arena/corrupted").c_str()); }

  uint64_t serialOld = 0, serialNew = 0;
};

inline const qw::vm::ArrayRecord *Record(VMArena *arena, uint32_t id) {
  return static_cast<const qw::vm::ArrayRecord *>(FArrayNth(&arena->arrays, id));
}
inline uint8_t TypeOf(VMArena *arena, uint32_t id) { return Record(arena, id)->type; }
inline uint32_t ClassSizeOf(uint64_t blockId) { return qw::vm::kClassSizes[blockId & 0xF]; }

// The whole array in `gen`; every range must end where its block ends.
inline Bytes ReadAll(VMArena *arena, uint32_t id, uint32_t gen, uint32_t elementSize) {
  Bytes out;
  const uint32_t length = VMAArrayLength_(arena, id, gen), perBlock = kBlock / elementSize;
  for (uint32_t i = 0; i < length;) {
    uint32_t end = 0;
    auto *data = static_cast<uint8_t *>(VMAArrayRange_(arena, id, 0, kBlock, i, &end, gen, 1, elementSize, 0));
    if (!data) {
      ADD_FAILURE() << "range " << i << " of array " << id << ": " << QWErrorMessage();
      return out;
    }
    const uint32_t block = i / perBlock;
    const uint64_t blockEnd =
        uint64_t(block) * perBlock + ClassSizeOf(VMABlockArrayBlockIDGet_(arena, id, block, gen)) / elementSize;
    EXPECT_EQ(end, std::min<uint64_t>(blockEnd, length)) << "array " << id << " index " << i;
    if (end > i) out.insert(out.end(), data, data + size_t(end - i) * elementSize);
    VMAArrayRelease_(arena, id, data, 1);
    if (end <= i) {
      ADD_FAILURE() << "empty range at " << i;
      return out;
    }
    i = end;
  }
  return out;
}

// Layout rules: full blocks only (type 1), full blocks and a last one of any
// class (type 2), nothing (type 0); the blocks hold the length.
inline void ExpectLayout(VMArena *arena, uint32_t id, uint32_t elementSize) {
  const qw::vm::ArrayRecord *array = Record(arena, id);
  const uint32_t blocks = uint32_t(FArrayLength(&array->blockID));
  uint64_t capacity = 0;
  for (uint32_t b = 0; b < blocks; ++b) {
    uint32_t size = ClassSizeOf(*static_cast<const uint64_t *>(FArrayNth(&array->blockID, b)));
    if (array->type == FULL_ARRAY_TYPE || b + 1 < blocks) {
      EXPECT_EQ(size, kBlock) << "array " << id << " block " << b << " type " << int(array->type);
    }
    capacity += b + 1 < blocks ? kBlock / elementSize : size / elementSize;
  }
  if (array->type == EMPTY_ARRAY_TYPE) { EXPECT_EQ(blocks, 0u); }
  EXPECT_LE(array->length, capacity) << "array " << id;
  EXPECT_EQ(FArrayLength(&array->blockCache), 0u);  // no address caching
}

inline Bytes RandomBytes(std::mt19937 &rng, size_t n) {
  Bytes bytes(n);
  for (auto &b : bytes) b = uint8_t(rng());
  return bytes;
}

}  // namespace arenatest
