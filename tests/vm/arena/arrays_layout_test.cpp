// Arena arrays: layout choice on growth, the tail move, bounds, lengths, id
// reuse, and the assertions that guard them.
#include <algorithm>
#include <filesystem>

#include "arena_fixture.h"

namespace {

using namespace arenatest;

TEST_F(ArenaTest, GrowthChoosesTheLayoutFromTheCapacityAsked) {
  ASSERT_TRUE(Reopen(kCache, VM_FLAG_CREATE)) << QWErrorMessage();
  struct Case {
    uint32_t elementSize, capacity;
    uint8_t type;
    uint32_t blocks, lastBlockSize;
  };
  const Case cases[] = {
      {1, 1, TAIL_ARRAY_TYPE, 1, 64},           {1, 65, TAIL_ARRAY_TYPE, 1, 88},
      {1, 4096, TAIL_ARRAY_TYPE, 1, 4096},      {1, 4097, TAIL_ARRAY_TYPE, 1, 8192},
      {1, 8193, TAIL_ARRAY_TYPE, 2, 64},        {1, 3 * 8192 - 1, TAIL_ARRAY_TYPE, 3, 8192},
      {1, 3 * 8192, FULL_ARRAY_TYPE, 3, 8192},  {1, 3 * 8192 + 1, FULL_ARRAY_TYPE, 4, 8192},
      {8, 100, TAIL_ARRAY_TYPE, 1, 1024},       {8, 3 * 1024, FULL_ARRAY_TYPE, 3, 8192},
      {100, 81, TAIL_ARRAY_TYPE, 1, 8192},      {100, 82, TAIL_ARRAY_TYPE, 2, 112},
      {100, 242, TAIL_ARRAY_TYPE, 3, 8192},     {100, 243, FULL_ARRAY_TYPE, 3, 8192},
      {24, 10, TAIL_ARRAY_TYPE, 1, 256},
  };
  for (const Case &c : cases) {
    uint32_t id = VMAArrayNew(arena, 0, kBlock, NEWGEN);
    ASSERT_NE(id, VMA_NO_ARRAY);
    EXPECT_EQ(TypeOf(arena, id), EMPTY_ARRAY_TYPE);
    ASSERT_TRUE(VMAArrayEnsureCapacity_(arena, id, 0, kBlock, c.capacity, NEWGEN, 0, c.elementSize));
    EXPECT_EQ(TypeOf(arena, id), c.type) << c.elementSize << " x " << c.capacity;
    uint32_t blocks = VMABlockArrayBlockCount_(arena, id, NEWGEN);
    EXPECT_EQ(blocks, c.blocks) << c.elementSize << " x " << c.capacity;
    EXPECT_EQ(ClassSizeOf(VMABlockArrayBlockIDGet_(arena, id, blocks - 1, NEWGEN)), c.lastBlockSize)
        << c.elementSize << " x " << c.capacity;
    // Asking again for what fits allocates nothing.
    ASSERT_TRUE(VMAArrayEnsureCapacity_(arena, id, 0, kBlock, c.capacity, NEWGEN, 0, c.elementSize));
    EXPECT_EQ(VMABlockArrayBlockCount_(arena, id, NEWGEN), blocks);
    ExpectLayout(arena, id, c.elementSize);
  }
}

// Growing a tail array moves the tail's elements into the new blocks and
// frees the old tail (its id is the next one of its class handed out).
TEST_F(ArenaTest, GrowingATailArrayMovesTheTailAndFreesIt) {
  ASSERT_TRUE(Reopen(kCache, VM_FLAG_CREATE)) << QWErrorMessage();
  uint32_t id = VMAArrayNew(arena, 0, kBlock, NEWGEN);
  std::mt19937 rng(7);
  Bytes model;
  for (uint32_t target : {100u, 1000u, 8192u + 300u, 2 * 8192u + 5000u, 3 * 8192u + 10u}) {
    const Bytes more = RandomBytes(rng, target - model.size());
    uint32_t blocks = VMABlockArrayBlockCount_(arena, id, NEWGEN);
    uint64_t oldTail = blocks ? VMABlockArrayBlockIDGet_(arena, id, blocks - 1, NEWGEN) : INVALID_VMARENA_BLOCK_ID;
    ASSERT_TRUE(VMAArrayAppend_(arena, id, 0, kBlock, more.data(), uint32_t(more.size()), NEWGEN, 1));
    model.insert(model.end(), more.begin(), more.end());
    EXPECT_EQ(ReadAll(arena, id, NEWGEN, 1), model) << target;
    ExpectLayout(arena, id, 1);
    if (oldTail != INVALID_VMARENA_BLOCK_ID && ClassSizeOf(oldTail) < kBlock) {
      for (uint32_t b = 0; b < VMABlockArrayBlockCount_(arena, id, NEWGEN); ++b)
        EXPECT_NE(VMABlockArrayBlockIDGet_(arena, id, b, NEWGEN), oldTail);
      uint64_t reused = VMArenaBlockNew(arena, 0, ClassSizeOf(oldTail), nullptr, 0);
      EXPECT_EQ(reused, oldTail) << "the old tail went back to its class list";
      VMArenaBlockFree(arena, reused, 0);
    }
  }
  EXPECT_EQ(TypeOf(arena, id), FULL_ARRAY_TYPE);
}

TEST_F(ArenaTest, LengthsRemovalAndIdReuse) {
  ASSERT_TRUE(Reopen(kCache, VM_FLAG_CREATE)) << QWErrorMessage();
  uint32_t id = VMAArrayNew(arena, 0, kBlock, NEWGEN);
  const uint32_t values[] = {10, 20, 30};
  ASSERT_TRUE(VMAArrayAppend_(arena, id, 0, kBlock, values, 3, NEWGEN, 4));
  // Removing the last element only shortens the array.
  ASSERT_TRUE(VMAArrayRemove_(arena, id, 0, kBlock, 2, NEWGEN, 4));
  EXPECT_EQ(VMAArrayLength_(arena, id, NEWGEN), 2u);
  Bytes expected(reinterpret_cast<const uint8_t *>(values), reinterpret_cast<const uint8_t *>(values) + 8);
  EXPECT_EQ(ReadAll(arena, id, NEWGEN, 4), expected);
  // The length may come back within the capacity, not beyond it.
  ASSERT_TRUE(VMAArrayLengthSet_(arena, id, 3, NEWGEN, 4));
  uint32_t capacityElements = ClassSizeOf(VMABlockArrayBlockIDGet_(arena, id, 0, NEWGEN)) / 4;
  EXPECT_TRUE(VMAArrayLengthSet_(arena, id, capacityElements, NEWGEN, 4));
  EXPECT_FALSE(VMAArrayLengthSet_(arena, id, capacityElements + 1, NEWGEN, 4));
  EXPECT_EQ(QWErrorCode(), 22);
  EXPECT_EQ(VMAArrayLength_(arena, id, NEWGEN), capacityElements);
  EXPECT_FALSE(Tagged());
  // Out-of-range edits are errors, not crashes.
  EXPECT_FALSE(VMAArrayInsert_(arena, id, 0, kBlock, capacityElements + 1, values, NEWGEN, 4));
  EXPECT_FALSE(VMAArrayRemove_(arena, id, 0, kBlock, capacityElements, NEWGEN, 4));
  EXPECT_FALSE(VMAArraySetRange_(arena, id, 0, kBlock, capacityElements - 1, values, 2, NEWGEN, 4));
  // Clear returns an ordinary array to the empty layout.
  ASSERT_TRUE(VMAArrayClear_(arena, id, 0, NEWGEN));
  EXPECT_EQ(TypeOf(arena, id), EMPTY_ARRAY_TYPE);
  EXPECT_EQ(VMABlockArrayBlockCount_(arena, id, NEWGEN), 0u);
  EXPECT_EQ(VMAArrayLength_(arena, id, NEWGEN), 0u);
  // A freed id is the next one made, once.
  uint32_t other = VMAArrayNew(arena, 0, kBlock, NEWGEN);
  ASSERT_TRUE(VMAArrayFree(arena, id));
  EXPECT_FALSE(VMAArrayFree(arena, id));
  EXPECT_EQ(QWErrorCode(), 22);
  EXPECT_FALSE(VMAArrayFree(arena, 0));
  EXPECT_EQ(VMAArrayNew(arena, 0, kBlock, NEWGEN), id);
  EXPECT_EQ(VMAArrayNew(arena, 0, kBlock, NEWGEN), other + 1);
}

// The new generation refuses index == length; the old one admits it.
TEST_F(ArenaTest, RangeBoundsDifferBetweenGenerations) {
  GTEST_FLAG_SET(death_test_style, "fast");  // the child tags this test's directory
  ASSERT_TRUE(Reopen(kCache, VM_FLAG_CREATE)) << QWErrorMessage();
  uint32_t id = VMAArrayNew(arena, 0, kBlock, NEWGEN);
  const uint8_t bytes[5] = {1, 2, 3, 4, 5};
  ASSERT_TRUE(VMAArrayAppend_(arena, id, 0, kBlock, bytes, 5, NEWGEN, 1));
  ASSERT_TRUE(VMArenaCommit(arena, nullptr, nullptr, 0)) << QWErrorMessage();
  uint32_t end = 0;
  auto *at = static_cast<uint8_t *>(VMAArrayRange_(arena, id, 0, kBlock, 5, &end, OLDGEN, 1, 1, 0));
  ASSERT_NE(at, nullptr) << QWErrorMessage();
  EXPECT_EQ(end, 5u);
  EXPECT_EQ(at[-1], 5);
  VMAArrayRelease_(arena, id, at, 1);
  // A prefetch reports the same end and no address.
  EXPECT_EQ(VMAArrayRange_(arena, id, 0, kBlock, 2, &end, NEWGEN, 1, 1, 1), nullptr);
  EXPECT_EQ(end, 5u);
  const std::string arrayID = "arrayID = " + std::to_string(id);  // the name service's arrays come first
  EXPECT_DEATH(VMAArrayRange_(arena, id, 0, kBlock, 5, &end, NEWGEN, 1, 1, 0),
               "index = 5, length = 5, " + arrayID + ", gen = NEW(.|\n)*assertion failed: FALSE");
  EXPECT_TRUE(Tagged());
  std::filesystem::remove(path("arena/corrupted"));
  EXPECT_DEATH(VMAArrayRange_(arena, id, 0, kBlock, 6, &end, OLDGEN, 1, 1, 0),
               "index = 6, length = 5, " + arrayID + ", gen = OLD(.|\n)*assertion failed: FALSE");
  EXPECT_TRUE(Tagged());
  std::filesystem::remove(path("arena/corrupted"));
  // An empty committed array has no storage at its end: an error, no tag.
  uint32_t empty = VMAArrayNew(arena, 0, kBlock, NEWGEN);
  ASSERT_TRUE(VMArenaCommit(arena, nullptr, nullptr, 0)) << QWErrorMessage();
  EXPECT_EQ(VMAArrayRange_(arena, empty, 0, kBlock, 0, &end, OLDGEN, 1, 1, 0), nullptr);
  EXPECT_EQ(QWErrorCode(), 2);
  EXPECT_FALSE(Tagged());
}

class ArrayAssertions : public ArenaTest {
 protected:
  void SetUp() override {
    ArenaTest::SetUp();
    GTEST_FLAG_SET(death_test_style, "fast");  // the child tags this test's directory
    ASSERT_TRUE(Reopen(kCache, VM_FLAG_CREATE)) << QWErrorMessage();
    id = VMAArrayNew(arena, 0, kBlock, NEWGEN);
    const uint8_t bytes[10] = {};
    ASSERT_TRUE(VMAArrayAppend_(arena, id, 0, kBlock, bytes, 10, NEWGEN, 1));
    ASSERT_TRUE(VMArenaCommit(arena, nullptr, nullptr, 0)) << QWErrorMessage();
  }
  uint32_t id = 0;
  uint32_t end = 0;
};

// Stored lengths that the blocks cannot hold are reported as corruption,
// never read past a block.
TEST_F(ArrayAssertions, LengthBeyondTheBlocksIsCorruptionNotACrash) {
  id = VMAArrayNew(arena, 0, kBlock, NEWGEN);
  const uint8_t bytes[100] = {};
  ASSERT_TRUE(VMAArrayAppend_(arena, id, 0, kBlock, bytes, 100, NEWGEN, 1));
  auto *record = const_cast<qw::vm::ArrayRecord *>(Record(arena, id));
  record->length = 20000;  // as a damaged generation file would say
  EXPECT_EQ(VMAArrayRange_(arena, id, 0, kBlock, 150, &end, NEWGEN, 1, 1, 0), nullptr);
  EXPECT_EQ(QWErrorClass(), QW_ERROR_CLASS_DATA);
  EXPECT_EQ(VMAArrayRange_(arena, id, 0, kBlock, 9000, &end, NEWGEN, 1, 1, 0), nullptr);
  EXPECT_TRUE(Tagged());
  record->length = 100;
}

TEST_F(ArrayAssertions, GenerationsAndWrites) {
  const uint8_t byte = 1;
  EXPECT_DEATH(VMAArrayLength_(arena, id, 2), "assertion failed: FALSE");
  EXPECT_DEATH(VMAArrayRange_(arena, id, 0, kBlock, 0, &end, 7, 1, 1, 0), "assertion failed: FALSE");
  EXPECT_DEATH(VMAArrayNew(arena, 0, kBlock, OLDGEN), "assertion failed: FALSE");
  EXPECT_DEATH(VMAArrayLengthSet_(arena, id, 1, OLDGEN, 1), "assertion failed: FALSE");
  EXPECT_DEATH(VMAArrayRange_(arena, id, 0, kBlock, 0, &end, OLDGEN, 0, 1, 0), "assertion failed: genID == NEWGEN");
  EXPECT_DEATH(VMAArrayAppend_(arena, id, 0, kBlock, &byte, 1, OLDGEN, 1), "assertion failed: genID == NEWGEN");
  EXPECT_DEATH(VMAArrayEnsureCapacity_(arena, id, 0, kBlock, 100, NEWGEN, 1, 1), "assertion failed: !read");
  int create = 1;
  EXPECT_DEATH(VMAArrayFind(arena, OLDGEN, "x", 1, 1, &create, 0, kBlock), "assertion failed: !\\*create");
  EXPECT_FALSE(Tagged());
}

TEST_F(ArrayAssertions, ArrayIdsBeyondTheTablesTagTheArena) {
  const uint32_t beyond = 1000000;  // far past every array the arena has
  EXPECT_DEATH(VMAArrayLength_(arena, beyond, NEWGEN), "assertion failed: arrayID < FArrayLength\\(arena->rw_gen.array\\)");
  EXPECT_TRUE(Tagged());
  std::filesystem::remove(path("arena/corrupted"));
  EXPECT_DEATH(VMAArrayRange_(arena, beyond, 0, kBlock, 0, &end, OLDGEN, 1, 1, 0),
               "assertion failed: arrayID < ArrayLength\\(arena->r_gen.length\\)");
  EXPECT_TRUE(Tagged());
  std::filesystem::remove(path("arena/corrupted"));
  // An array made since the commit is not in the old generation yet.
  uint32_t fresh = VMAArrayNew(arena, 0, kBlock, NEWGEN);
  EXPECT_DEATH(VMAArrayLength_(arena, fresh, OLDGEN), "arrayID < ArrayLength\\(arena->r_gen.length\\)");
}

TEST_F(ArrayAssertions, LayoutAndBackgroundLock) {
  auto *record = const_cast<qw::vm::ArrayRecord *>(Record(arena, id));
  record->type = TWO_PART_ARRAY_TYPE;
  EXPECT_DEATH(VMAArrayRange_(arena, id, 0, kBlock, 0, &end, NEWGEN, 1, 1, 0),
               "assertion failed: array->type < TWO_PART_ARRAY_TYPE \\|\\| array->type == FULL_BLOCK_ARRAY_TYPE");
  EXPECT_DEATH(VMAArrayEnsureCapacity_(arena, id, 0, kBlock, 100000, NEWGEN, 0, 1), "assertion failed: FALSE");
  record->type = TAIL_ARRAY_TYPE;
  arena->bgLock = 1;  // as if a background flush held it
  EXPECT_DEATH(VMAArrayClear_(arena, id, 1, NEWGEN), "assertion failed: !\\(arrayLocked && arena->bgLock\\)");
  EXPECT_DEATH(VMAArrayEnsureCapacity_(arena, id, 1, kBlock, 100000, NEWGEN, 0, 1),
               "!\\(arrayLocked && arena->bgLock\\)");
  EXPECT_DEATH(VMAArrayCopy_(arena, id, 0, 0, 1, NEWGEN, kBlock, 1),
               "!\\(\\(destLocked \\|\\| srcLocked\\) && arena->bgLock\\)");
  EXPECT_TRUE(VMAArrayClear_(arena, id, 0, NEWGEN));  // not holding the array lock is fine
  arena->bgLock = 0;
  EXPECT_DEATH(VMAArrayNew(arena, 1, 3000, NEWGEN),
               "assertion failed: \\(UInt\\) \\(1 << array->log2size\\) == blockSize");
}

// A read-only arena reads and finds names, but neither writes nor creates.
TEST_F(ArenaTest, ReadOnlyArenaRefusesWrites) {
  ASSERT_TRUE(Reopen(kCache, VM_FLAG_CREATE)) << QWErrorMessage();
  VMAArrayHandle handle, found;
  ASSERT_TRUE(VMAArrayInitFromPath(&handle, arena, "p", "q"));
  const uint32_t id = handle.id[NEWGEN];
  const uint8_t bytes[3] = {7, 8, 9};
  ASSERT_TRUE(VMAArrayAppend_(arena, id, 0, kBlock, bytes, 3, NEWGEN, 1));
  ASSERT_TRUE(VMArenaCommit(arena, nullptr, nullptr, 0)) << QWErrorMessage();
  ASSERT_TRUE(Reopen(kCache, VM_FLAG_READ_ONLY)) << QWErrorMessage();
  EXPECT_EQ(ReadAll(arena, id, NEWGEN, 1), Bytes(bytes, bytes + 3));
  EXPECT_EQ(ReadAll(arena, id, OLDGEN, 1), Bytes(bytes, bytes + 3));
  ASSERT_TRUE(VMAArrayInitFromPath(&found, arena, "p", "q")) << QWErrorMessage();
  EXPECT_EQ(found.id[NEWGEN], id);
  EXPECT_EQ(found.id[OLDGEN], id);
  EXPECT_FALSE(VMAArrayInitFromPath(&found, arena, "p", "absent"));
  EXPECT_EQ(QWErrorCode(), 2);
  uint32_t end = 0;
  EXPECT_DEATH(VMAArrayRange_(arena, id, 0, kBlock, 0, &end, NEWGEN, 0, 1, 0), "assertion failed: !arena->readOnly");
  EXPECT_DEATH(VMAArrayNew(arena, 0, kBlock, NEWGEN), "assertion failed: !arena->readOnly");
  EXPECT_DEATH(VMAArrayFree(arena, id), "assertion failed: !arena->readOnly");
}

TEST_F(ArenaTest, CopyTakesEitherGeneration) {
  ASSERT_TRUE(Reopen(kCache, VM_FLAG_CREATE)) << QWErrorMessage();
  std::mt19937 rng(3);
  uint32_t src = VMAArrayNew(arena, 0, kBlock, NEWGEN), dest = VMAArrayNew(arena, 0, kBlock, NEWGEN);
  const Bytes first = RandomBytes(rng, 24 * 1000);
  ASSERT_TRUE(VMAArrayAppend_(arena, src, 0, kBlock, first.data(), 1000, NEWGEN, 24));
  ASSERT_TRUE(VMArenaCommit(arena, nullptr, nullptr, 0)) << QWErrorMessage();
  const Bytes second = RandomBytes(rng, 24 * 10);
  ASSERT_TRUE(VMAArraySetRange_(arena, src, 0, kBlock, 335, second.data(), 10, NEWGEN, 24));
  Bytes changed = first;
  std::copy(second.begin(), second.end(), changed.begin() + 335 * 24);
  const Bytes junk = RandomBytes(rng, 24 * 50);
  ASSERT_TRUE(VMAArrayAppend_(arena, dest, 0, kBlock, junk.data(), 50, NEWGEN, 24));
  ASSERT_TRUE(VMAArrayCopy_(arena, dest, 0, src, 0, NEWGEN, kBlock, 24));
  EXPECT_EQ(ReadAll(arena, dest, NEWGEN, 24), changed);
  ASSERT_TRUE(VMAArrayCopy_(arena, dest, 0, src, 0, OLDGEN, kBlock, 24));
  EXPECT_EQ(ReadAll(arena, dest, NEWGEN, 24), first);
  // Back to its own committed state.
  ASSERT_TRUE(VMAArrayCopy_(arena, src, 0, src, 0, OLDGEN, kBlock, 24));
  EXPECT_EQ(ReadAll(arena, src, NEWGEN, 24), first);
  EXPECT_EQ(ReadAll(arena, src, OLDGEN, 24), first);
  ExpectLayout(arena, dest, 24);
}

TEST_F(ArenaTest, LockRegistrationNamesTheArray) {
  ASSERT_TRUE(Reopen(kCache, VM_FLAG_CREATE)) << QWErrorMessage();
  uint32_t id = VMAArrayNew(arena, 0, kBlock, NEWGEN);
  std::vector<uint8_t> bytes(3 * kBlock, 9);
  ASSERT_TRUE(VMAArrayAppend_(arena, id, 0, kBlock, bytes.data(), uint32_t(bytes.size()), NEWGEN, 1));
  ASSERT_TRUE(VMArenaCommit(arena, nullptr, nullptr, 0)) << QWErrorMessage();
  ASSERT_TRUE(VMAArrayLockRegister_(arena, id, OLDGEN, 77)) << QWErrorMessage();
  ASSERT_FALSE(arena->lockRegistry.empty());
  const qw::vm::LockEntry &entry = arena->lockRegistry.back();
  EXPECT_EQ(entry.kind, 1u);
  EXPECT_EQ(entry.data, OLDGEN);
  EXPECT_EQ(entry.index, id);
  EXPECT_EQ(entry.argument, 77u);
  EXPECT_EQ(entry.skip, 0u);
  PageCacheStats stats{};
  PageCacheGetStats(cache, &stats);
  EXPECT_EQ(stats.pinned, 0u);  // made resident, not left pinned
  EXPECT_GE(stats.resident, 3u);
}

TEST_F(ArenaTest, RangeCacheServesABlockFromOneAcquire) {
  ASSERT_TRUE(Reopen(kCache, VM_FLAG_CREATE)) << QWErrorMessage();
  uint32_t id = VMAArrayNew(arena, 0, kBlock, NEWGEN);
  std::vector<uint32_t> values(5000);
  for (uint32_t i = 0; i < values.size(); ++i) values[i] = i * 7 + 1;
  ASSERT_TRUE(VMAArrayAppend_(arena, id, 0, kBlock, values.data(), uint32_t(values.size()), NEWGEN, 4));
  VMAArrayRangeCache *cache = VMAArrayRangeCacheNew(arena, id, kBlock, 4, NEWGEN, 0);
  ASSERT_NE(cache, nullptr);
  // Writes through the cache, backwards inside each block.
  for (uint32_t i = 0; i < values.size(); ++i) {
    uint32_t index = uint32_t(values.size()) - 1 - i, end = 0;
    auto *slot = static_cast<uint32_t *>(VMAArrayRangeAcquire_(cache, index, &end));
    ASSERT_NE(slot, nullptr) << QWErrorMessage();
    EXPECT_EQ(end, std::min<uint32_t>((index / 2048 + 1) * 2048, 5000));
    *slot += 1;
  }
  VMAArrayRangeRelease_(cache);
  ASSERT_TRUE(VMArenaCommit(arena, nullptr, nullptr, 0)) << QWErrorMessage();
  // The committed blocks come through the page cache: one lookup per block.
  PageCacheStats before{}, after{};
  PageCacheGetStats(this->cache, &before);
  VMAArrayRangeCacheSetTodo(cache, id, OLDGEN, 1);
  for (uint32_t i = 0; i < values.size(); ++i) {
    uint32_t end = 0;
    auto *slot = static_cast<uint32_t *>(VMAArrayRangeAcquire_(cache, i, &end));
    ASSERT_NE(slot, nullptr);
    EXPECT_EQ(*slot, values[i] + 1) << i;
  }
  VMAArrayRangeCacheFree(cache);
  PageCacheGetStats(this->cache, &after);
  EXPECT_EQ(after.hits + after.misses - before.hits - before.misses, VMABlockArrayBlockCount_(arena, id, OLDGEN));
  EXPECT_EQ(after.pinned, 0u);
}

}  // namespace
