// Helpers of the arena array tests: reading a whole array range by range
// (checking every range end against the block layout), layout inspection,
// and random element bytes.
#pragma once

#include <cstdint>
#include <random>
#include <vector>

#include "arena_fixture.h"
#include "qwvm/vmaarray.h"
#include "vm/arena/arena.h"

namespace arraytest {

constexpr uint32_t kBlock = ARENA_MAX_BLOCK_SIZE;
using Bytes = std::vector<uint8_t>;

inline const qw::vm::ArrayRecord *Record(VMArena *arena, uint32_t id) {
  return static_cast<const qw::vm::ArrayRecord *>(FArrayNth(&arena->arrays, id));
}
inline uint8_t TypeOf(VMArena *arena, uint32_t id) { return Record(arena, id)->type; }
inline uint32_t ClassSizeOf(uint64_t blockId) { return qw::vm::kClassSizes[blockId & 0xF]; }

// Bytes of the whole array in `gen`. Every range must end where its block's
// elements end, clipped to the length.
inline Bytes ReadAll(VMArena *arena, uint32_t id, uint32_t gen, uint32_t elementSize) {
  Bytes out;
  const uint32_t length = VMAArrayLength_(arena, id, gen);
  const uint32_t perBlock = kBlock / elementSize;
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
    if (end <= i) {
      ADD_FAILURE() << "empty range at " << i;
      VMAArrayRelease_(arena, id, data, 1);
      return out;
    }
    out.insert(out.end(), data, data + size_t(end - i) * elementSize);
    VMAArrayRelease_(arena, id, data, 1);
    i = end;
  }
  return out;
}

// The layout rules of an ordinary array: full blocks only (type 1), full
// blocks and a last one of any class (type 2), nothing (type 0); the blocks
// hold the length.
inline void ExpectLayout(VMArena *arena, uint32_t id, uint32_t elementSize) {
  const qw::vm::ArrayRecord *array = Record(arena, id);
  const uint32_t blocks = uint32_t(FArrayLength(&array->blockID));
  uint64_t capacity = 0;
  for (uint32_t b = 0; b < blocks; ++b) {
    uint32_t size = ClassSizeOf(*static_cast<const uint64_t *>(FArrayNth(&array->blockID, b)));
    bool mustBeFull = array->type == FULL_ARRAY_TYPE || b + 1 < blocks;
    if (mustBeFull) {
      EXPECT_EQ(size, kBlock) << "array " << id << " block " << b << " type " << int(array->type);
    }
    capacity += b + 1 < blocks ? kBlock / elementSize : size / elementSize;
  }
  if (array->type == EMPTY_ARRAY_TYPE) {
    EXPECT_EQ(blocks, 0u);
  }
  EXPECT_LE(array->length, capacity) << "array " << id;
  EXPECT_EQ(FArrayLength(&array->blockCache), 0u);  // no address caching
}

inline Bytes RandomBytes(std::mt19937 &rng, size_t n) {
  Bytes bytes(n);
  for (auto &b : bytes) b = uint8_t(rng());
  return bytes;
}

}  // namespace arraytest
