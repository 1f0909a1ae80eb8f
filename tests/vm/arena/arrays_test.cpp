// Arena arrays: layout choice on growth, the tail move, bounds, lengths, id
// reuse, every assertion of the array and block code in one table; the name
// service: find-or-create by path, old-generation ids, the rule for freed named
// arrays, names across blocks of array 0, reopening, read-only arenas and
// damaged name lists (mounting: open_test).
#include <filesystem>
#include <functional>
#include <string>

#include "arena_fixture.h"

namespace {

using namespace arenatest;

TEST_F(ArenaTest, GrowthChoosesTheLayoutFromTheCapacityAsked) {
  ASSERT_TRUE(Reopen(kCache, VM_FLAG_CREATE)) << QWErrorMessage();
  const uint32_t F = FULL_ARRAY_TYPE, T = TAIL_ARRAY_TYPE;
  // element size, capacity, type, blocks, size of the last block
  const uint32_t cases[][5] = {
      {1, 1, T, 1, 64},          {1, 65, T, 1, 88},           {1, 4096, T, 1, 4096},    {1, 4097, T, 1, 8192},
      {1, 8193, T, 2, 64},       {1, 3 * 8192 - 1, T, 3, 8192}, {1, 3 * 8192, F, 3, 8192}, {1, 3 * 8192 + 1, F, 4, 8192},
      {8, 100, T, 1, 1024},      {8, 3 * 1024, F, 3, 8192},   {100, 81, T, 1, 8192},    {100, 82, T, 2, 112},
      {100, 242, T, 3, 8192},    {100, 243, F, 3, 8192},      {24, 10, T, 1, 256},
  };
  for (const auto &c : cases) {
    SCOPED_TRACE(std::to_string(c[0]) + " x " + std::to_string(c[1]));
    uint32_t id = VMAArrayNew(arena, 0, kBlock, NEWGEN);
    EXPECT_EQ(TypeOf(arena, id), EMPTY_ARRAY_TYPE);
    ASSERT_TRUE(VMAArrayEnsureCapacity_(arena, id, 0, kBlock, c[1], NEWGEN, 0, c[0]));
    EXPECT_EQ(TypeOf(arena, id), c[2]);
    uint32_t blocks = VMABlockArrayBlockCount_(arena, id, NEWGEN);
    EXPECT_EQ(blocks, c[3]);
    EXPECT_EQ(ClassSizeOf(VMABlockArrayBlockIDGet_(arena, id, blocks - 1, NEWGEN)), c[4]);
    // Asking again for what fits allocates nothing.
    ASSERT_TRUE(VMAArrayEnsureCapacity_(arena, id, 0, kBlock, c[1], NEWGEN, 0, c[0]));
    EXPECT_EQ(VMABlockArrayBlockCount_(arena, id, NEWGEN), blocks);
    ExpectLayout(arena, id, c[0]);
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
  ASSERT_TRUE(VMAArrayRemove_(arena, id, 0, kBlock, 2, NEWGEN, 4));  // the last: only shortens
  EXPECT_EQ(ReadAll(arena, id, NEWGEN, 4), Bytes(reinterpret_cast<const uint8_t *>(values),
                                                 reinterpret_cast<const uint8_t *>(values) + 8));
  // The length may come back within the capacity, not beyond it.
  ASSERT_TRUE(VMAArrayLengthSet_(arena, id, 3, NEWGEN, 4));
  uint32_t capacity = ClassSizeOf(VMABlockArrayBlockIDGet_(arena, id, 0, NEWGEN)) / 4;
  EXPECT_TRUE(VMAArrayLengthSet_(arena, id, capacity, NEWGEN, 4));
  EXPECT_FALSE(VMAArrayLengthSet_(arena, id, capacity + 1, NEWGEN, 4));
  EXPECT_EQ(QWErrorCode(), 22);
  EXPECT_EQ(VMAArrayLength_(arena, id, NEWGEN), capacity);
  EXPECT_FALSE(Tagged());
  // Out-of-range edits are errors, not crashes.
  EXPECT_FALSE(VMAArrayInsert_(arena, id, 0, kBlock, capacity + 1, values, NEWGEN, 4));
  EXPECT_FALSE(VMAArrayRemove_(arena, id, 0, kBlock, capacity, NEWGEN, 4));
  EXPECT_FALSE(VMAArraySetRange_(arena, id, 0, kBlock, capacity - 1, values, 2, NEWGEN, 4));
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

// A committed 10-byte array `id`; the death children tag this test's directory.
class ArrayAssertions : public ArenaTest {
 protected:
  void SetUp() override {
    ArenaTest::SetUp();
    GTEST_FLAG_SET(death_test_style, "fast");
    ASSERT_TRUE(Reopen(kCache, VM_FLAG_CREATE)) << QWErrorMessage();
    id = VMAArrayNew(arena, 0, kBlock, NEWGEN);
    const uint8_t bytes[10] = {1, 2, 3, 4, 5, 6, 7, 8, 9, 10};
    ASSERT_TRUE(VMAArrayAppend_(arena, id, 0, kBlock, bytes, 10, NEWGEN, 1));
    ASSERT_TRUE(Commit()) << QWErrorMessage();
  }
  void *Range(uint32_t array, uint32_t index, uint32_t gen, int read = 1) {
    return VMAArrayRange_(arena, array, 0, kBlock, index, &end, gen, read, 1, 0);
  }
  uint32_t id = 0, end = 0;
};

// The new generation refuses index == length; the old one admits it.
TEST_F(ArrayAssertions, RangeBoundsDifferBetweenGenerations) {
  auto *at = static_cast<uint8_t *>(Range(id, 10, OLDGEN));
  ASSERT_NE(at, nullptr) << QWErrorMessage();
  EXPECT_EQ(end, 10u);
  EXPECT_EQ(at[-1], 10);
  VMAArrayRelease_(arena, id, at, 1);
  // A prefetch reports the same end and no address.
  EXPECT_EQ(VMAArrayRange_(arena, id, 0, kBlock, 2, &end, NEWGEN, 1, 1, 1), nullptr);
  EXPECT_EQ(end, 10u);
  // An empty committed array has no storage at its end: an error, no tag.
  uint32_t empty = VMAArrayNew(arena, 0, kBlock, NEWGEN);
  ASSERT_TRUE(Commit()) << QWErrorMessage();
  EXPECT_EQ(Range(empty, 0, OLDGEN), nullptr);
  EXPECT_EQ(QWErrorCode(), 2);
  EXPECT_FALSE(Tagged());
  // A stored length that the blocks cannot hold is corruption, never a read past a block.
  uint32_t longer = VMAArrayNew(arena, 0, kBlock, NEWGEN);
  const uint8_t bytes[100] = {};
  ASSERT_TRUE(VMAArrayAppend_(arena, longer, 0, kBlock, bytes, 100, NEWGEN, 1));
  auto *damaged = const_cast<qw::vm::ArrayRecord *>(Record(arena, longer));
  damaged->length = 20000;  // as a damaged generation file would say
  EXPECT_EQ(Range(longer, 150, NEWGEN), nullptr);
  EXPECT_EQ(QWErrorClass(), QW_ERROR_CLASS_DATA);
  EXPECT_EQ(Range(longer, 9000, NEWGEN), nullptr);
  EXPECT_TRUE(Tagged());
  damaged->length = 100;
}

TEST_F(ArrayAssertions, EveryAssertionNamesItsCondition) {
  const uint8_t byte = 1;
  int create = 1;
  const std::string arrayID = "arrayID = " + std::to_string(id);  // the name service's arrays come first
  const uint32_t beyond = 1000000;                                  // past every array the arena has
  auto setType = [&](uint8_t type) { const_cast<qw::vm::ArrayRecord *>(Record(arena, id))->type = type; };
  auto blockArray = [&](uint32_t size) { return VMAArrayNew(arena, 1, size, NEWGEN); };
  const struct {
    std::function<void()> call;
    std::string pattern;
    bool tags;  // the arena is tagged corrupted
  } cases[] = {
      {[&] { Range(id, 10, NEWGEN); }, "index = 10, length = 10, " + arrayID + ", gen = NEW(.|\n)*assertion failed: FALSE", true},
      {[&] { Range(id, 11, OLDGEN); }, "index = 11, length = 10, " + arrayID + ", gen = OLD(.|\n)*assertion failed: FALSE", true},
      {[&] { VMAArrayLength_(arena, id, 2); }, "assertion failed: FALSE", false},
      {[&] { Range(id, 0, 7); }, "assertion failed: FALSE", false},
      {[&] { VMAArrayNew(arena, 0, kBlock, OLDGEN); }, "assertion failed: FALSE", false},
      {[&] { VMAArrayLengthSet_(arena, id, 1, OLDGEN, 1); }, "assertion failed: FALSE", false},
      {[&] { Range(id, 0, OLDGEN, 0); }, "assertion failed: genID == NEWGEN", false},
      {[&] { VMAArrayAppend_(arena, id, 0, kBlock, &byte, 1, OLDGEN, 1); }, "assertion failed: genID == NEWGEN", false},
      {[&] { VMAArrayEnsureCapacity_(arena, id, 0, kBlock, 100, NEWGEN, 1, 1); }, "assertion failed: !read", false},
      {[&] { VMAArrayFind(arena, OLDGEN, "x", 1, 1, &create, 0, kBlock); }, "assertion failed: !\\*create", false},
      {[&] { VMAArrayLength_(arena, beyond, NEWGEN); }, "assertion failed: arrayID < FArrayLength\\(arena->rw_gen.array\\)", true},
      {[&] { Range(beyond, 0, OLDGEN); }, "assertion failed: arrayID < ArrayLength\\(arena->r_gen.length\\)", true},
      // An array made since the commit is not in the old generation yet.
      {[&] { VMAArrayLength_(arena, VMAArrayNew(arena, 0, kBlock, NEWGEN), OLDGEN); }, "arrayID < ArrayLength\\(arena->r_gen.length\\)", true},
      {[&] { setType(TWO_PART_ARRAY_TYPE), Range(id, 0, NEWGEN); },
       "assertion failed: array->type < TWO_PART_ARRAY_TYPE \\|\\| array->type == FULL_BLOCK_ARRAY_TYPE", false},
      {[&] { setType(TWO_PART_ARRAY_TYPE), VMAArrayEnsureCapacity_(arena, id, 0, kBlock, 100000, NEWGEN, 0, 1); },
       "assertion failed: FALSE", false},
      // bgLock: as if a background flush held it.
      {[&] { arena->bgLock = 1, VMAArrayClear_(arena, id, 1, NEWGEN); }, "assertion failed: !\\(arrayLocked && arena->bgLock\\)", false},
      {[&] { arena->bgLock = 1, VMAArrayEnsureCapacity_(arena, id, 1, kBlock, 100000, NEWGEN, 0, 1); },
       "!\\(arrayLocked && arena->bgLock\\)", false},
      {[&] { arena->bgLock = 1, VMAArrayCopy_(arena, id, 0, 0, 1, NEWGEN, kBlock, 1); },
       "!\\(\\(destLocked \\|\\| srcLocked\\) && arena->bgLock\\)", false},
      {[&] { VMAArrayNew(arena, 1, 12000, NEWGEN); }, "assertion failed: \\(UInt\\) \\(1 << array->log2size\\) == blockSize", false},
      {[&] { VMArenaBlockNew(arena, 0, 8193, nullptr, 0); }, "size <= ARENA_MAX_BLOCK_SIZE", true},
      {[&] { VMArenaDataAcquire(arena, 0x10, 0, 2, 1, nullptr, nullptr); }, "FALSE", false},
      {[&] { VMArenaOpen(nullptr, VM_FLAG_CREATE, 1, STATUS_NO_SERIAL, STATUS_NO_SERIAL, nullptr, cache); },
       "assertion failed: dir != NULL", false},
      {[&] { VMArenaBlockLock(arena, INVALID_BLOCK_ID, NEWGEN); }, "assertion failed: blockID != INVALID_BLOCK_ID", false},
      {[&] { VMArenaBlockLock(arena, VMArenaDataBlockNew(arena, 0, 0), OLDGEN); },
       "assertion failed: rawBlockID != INVALID_RAW_BLOCK_ID", false},
      {[&] { VMABlockArrayBlockRound_(arena, 4097, 4096); }, "assertion failed: maxBlockSize >= sizes\\[s\\]", true},
      // A block array's new sizes are classes; its list holds max-size blocks.
      {[&] {
         const uint32_t blocks = blockArray(kBlock);
         VMABlockArrayInsert_(arena, blocks, 0, kBlock, 0, 100, NEWGEN);
         VMABlockArrayBlockGrowNth_(arena, blocks, 0, 100, 0, 0, NEWGEN);
       },
       "assertion failed: newBlockSize == actualSize", false},
      {[&] { VMABlockArrayInsert_(arena, blockArray(kBlock), 0, 4096, 0, 64, NEWGEN); },
       "assertion failed: array->log2size == Log2\\(maxBlockSize\\)", false},
      {[&] { VMABlockArrayInsert_(arena, id, 0, kBlock, 0, 64, NEWGEN); }, "assertion failed: array->type == FULL_BLOCK_ARRAY_TYPE", false},
  };
  for (const auto &c : cases) {
    SCOPED_TRACE(c.pattern);
    EXPECT_DEATH(c.call(), c.pattern);
    EXPECT_EQ(Tagged(), c.tags);
    std::filesystem::remove(path("arena/corrupted"));
  }
  arena->bgLock = 1;  // not holding the array lock is fine beside a background flush
  EXPECT_TRUE(VMAArrayClear_(arena, id, 0, NEWGEN));
  arena->bgLock = 0;
}

// A read-only arena reads and finds names, but neither writes nor creates.
TEST_F(ArrayAssertions, ReadOnlyArenaRefusesWrites) {
  VMAArrayHandle handle, found;
  ASSERT_TRUE(VMAArrayInitFromPath(&handle, arena, "p", "q"));
  const uint32_t named = handle.id[NEWGEN];
  const uint8_t bytes[3] = {7, 8, 9};
  ASSERT_TRUE(VMAArrayAppend_(arena, named, 0, kBlock, bytes, 3, NEWGEN, 1));
  ASSERT_TRUE(Commit()) << QWErrorMessage();
  ASSERT_TRUE(Reopen(kCache, VM_FLAG_READ_ONLY)) << QWErrorMessage();
  EXPECT_EQ(ReadAll(arena, named, NEWGEN, 1), Bytes(bytes, bytes + 3));
  EXPECT_EQ(ReadAll(arena, named, OLDGEN, 1), Bytes(bytes, bytes + 3));
  ASSERT_TRUE(VMAArrayInitFromPath(&found, arena, "p", "q")) << QWErrorMessage();
  EXPECT_EQ(found.id[NEWGEN], named);
  EXPECT_EQ(found.id[OLDGEN], named);
  EXPECT_FALSE(VMAArrayInitFromPath(&found, arena, "p", "absent"));
  EXPECT_EQ(QWErrorCode(), 2);
  EXPECT_DEATH(Range(named, 0, NEWGEN, 0), "assertion failed: !arena->readOnly");
  EXPECT_DEATH(VMAArrayNew(arena, 0, kBlock, NEWGEN), "assertion failed: !arena->readOnly");
  EXPECT_DEATH(VMAArrayFree(arena, named), "assertion failed: !arena->readOnly");
  EXPECT_DEATH(VMArenaBlockNew(arena, 0, 64, nullptr, 0), "!arena->readOnly");
}

TEST_F(ArenaTest, LockRegistrationAndTheRangeCache) {
  ASSERT_TRUE(Reopen(kCache, VM_FLAG_CREATE)) << QWErrorMessage();
  uint32_t id = VMAArrayNew(arena, 0, kBlock, NEWGEN);
  std::vector<uint32_t> values(5000);
  for (uint32_t i = 0; i < values.size(); ++i) values[i] = i * 7 + 1;
  ASSERT_TRUE(VMAArrayAppend_(arena, id, 0, kBlock, values.data(), uint32_t(values.size()), NEWGEN, 4));
  VMAArrayRangeCache *ranges = VMAArrayRangeCacheNew(arena, id, kBlock, 4, NEWGEN, 0);
  ASSERT_NE(ranges, nullptr);
  for (uint32_t i = 0; i < values.size(); ++i) {  // backwards inside each block
    uint32_t index = uint32_t(values.size()) - 1 - i, end = 0;
    auto *slot = static_cast<uint32_t *>(VMAArrayRangeAcquire_(ranges, index, &end));
    ASSERT_NE(slot, nullptr) << QWErrorMessage();
    EXPECT_EQ(end, std::min<uint32_t>((index / 2048 + 1) * 2048, 5000));
    *slot += 1;
  }
  VMAArrayRangeRelease_(ranges);
  ASSERT_TRUE(Commit()) << QWErrorMessage();
  // The committed blocks come through the page cache: one lookup per block.
  PageCacheStats before{}, after{};
  PageCacheGetStats(cache, &before);
  VMAArrayRangeCacheSetTodo(ranges, id, OLDGEN, 1);
  for (uint32_t i = 0; i < values.size(); ++i) {
    uint32_t end = 0;
    auto *slot = static_cast<uint32_t *>(VMAArrayRangeAcquire_(ranges, i, &end));
    ASSERT_NE(slot, nullptr);
    EXPECT_EQ(*slot, values[i] + 1) << i;
  }
  VMAArrayRangeCacheFree(ranges);
  PageCacheGetStats(cache, &after);
  EXPECT_EQ(after.hits + after.misses - before.hits - before.misses, VMABlockArrayBlockCount_(arena, id, OLDGEN));
  EXPECT_EQ(after.pinned, 0u);
  // Registration makes the array's blocks resident, not pinned.
  ASSERT_TRUE(VMAArrayLockRegister_(arena, id, OLDGEN, 77)) << QWErrorMessage();
  ASSERT_FALSE(arena->lockRegistry.empty());
  const qw::vm::LockEntry &entry = arena->lockRegistry.back();
  EXPECT_EQ(entry.kind, 1u);
  EXPECT_EQ(entry.data, OLDGEN);
  EXPECT_EQ(entry.index, id);
  EXPECT_EQ(entry.argument, 77u);
  EXPECT_EQ(entry.skip, 0u);
  PageCacheGetStats(cache, &after);
  EXPECT_EQ(after.pinned, 0u);
  EXPECT_GE(after.resident, 3u);
}

// The names kept in array 0 of `gen`, slot by slot (slot k is array k + 1),
// after those of the name service's own arrays, which every arena has first.
std::vector<std::string> Slots(VMArena *arena, uint32_t gen) {
  Bytes bytes = ReadAll(arena, 0, gen, 1);
  std::vector<std::string> slots;
  std::string current;
  for (uint8_t b : bytes) {
    if (b == 0) {
      slots.push_back(current);
      current.clear();
    } else {
      current.push_back(char(b));
    }
  }
  EXPECT_TRUE(current.empty()) << "unterminated name";
  size_t own = 0;
  while (own < slots.size() && slots[own].rfind("#name/", 0) == 0) ++own;
  EXPECT_GT(own, 0u) << "the name service's arrays come first";
  slots.erase(slots.begin(), slots.begin() + std::ptrdiff_t(own));
  return slots;
}

uint32_t Lookup(VMArena *arena, uint32_t gen, const std::string &name, int scan) {
  return VMAArrayFind(arena, gen, name.data(), uint32_t(name.size()), scan, nullptr, 0, kBlock);
}

TEST_F(ArenaTest, InitFromPathCreatesOnceAndFindsAfterCommitAndReopen) {
  ASSERT_TRUE(Reopen(kCacheSerial, VM_FLAG_CREATE)) << QWErrorMessage();
  VMAArrayHandle a, again, b;
  ASSERT_TRUE(VMAArrayInitFromPath(&a, arena, "dict/7", "keys")) << QWErrorMessage();
  EXPECT_EQ(a.arena, arena);
  EXPECT_EQ(a.id[OLDGEN], VMA_NO_ARRAY);  // not committed yet
  EXPECT_EQ(a.locked[0] + a.locked[1], 0u);
  ASSERT_TRUE(VMAArrayInitFromPath(&again, arena, "dict/7", "keys"));
  EXPECT_EQ(again.id[NEWGEN], a.id[NEWGEN]);
  ASSERT_TRUE(VMAArrayInitFromPath_(&b, arena, "dict/7", "values", 1));
  EXPECT_NE(b.id[NEWGEN], a.id[NEWGEN]);
  // Scanning and asking the service agree; the name is the whole path.
  EXPECT_EQ(Lookup(arena, NEWGEN, "dict/7/keys", 1), a.id[NEWGEN]);
  EXPECT_EQ(Lookup(arena, NEWGEN, "dict/7/keys", 0), a.id[NEWGEN]);
  EXPECT_EQ(Lookup(arena, NEWGEN, "dict/7/key", 1), VMA_NO_ARRAY);
  EXPECT_EQ(Lookup(arena, NEWGEN, "dict/7/keysx", 1), VMA_NO_ARRAY);
  EXPECT_FALSE(QWErrorIsSet());
  EXPECT_EQ(Lookup(arena, OLDGEN, "dict/7/keys", 1), VMA_NO_ARRAY);
  const uint32_t value = 42;
  ASSERT_TRUE(VMAArrayAppend_(arena, a.id[NEWGEN], 0, kBlock, &value, 1, NEWGEN, 4));
  ASSERT_TRUE(Commit()) << QWErrorMessage();
  ASSERT_TRUE(VMAArrayInitFromPath(&again, arena, "dict/7", "keys"));
  EXPECT_EQ(again.id[OLDGEN], a.id[NEWGEN]);
  ASSERT_TRUE(Reopen(kCacheSerial, 0)) << QWErrorMessage();
  ASSERT_TRUE(VMAArrayInitFromPath(&again, arena, "dict/7", "keys"));
  EXPECT_EQ(again.id[NEWGEN], a.id[NEWGEN]);
  EXPECT_EQ(again.id[OLDGEN], a.id[NEWGEN]);
  EXPECT_EQ(VMAArrayLength_(arena, again.id[NEWGEN], OLDGEN), 1u);
  // After the rebuild at open a new name still gets the next fresh id.
  VMAArrayHandle c;
  ASSERT_TRUE(VMAArrayInitFromPath(&c, arena, "dict/7", "more"));
  EXPECT_EQ(c.id[NEWGEN], b.id[NEWGEN] + 1);
  EXPECT_EQ(Slots(arena, NEWGEN), (std::vector<std::string>{"dict/7/keys", "dict/7/values", "dict/7/more"}));
  EXPECT_EQ(Slots(arena, OLDGEN), (std::vector<std::string>{"dict/7/keys", "dict/7/values"}));
  // Lookups by path leave the caller's scratch buffer as it was.
  uint8_t *scratch = nullptr;
  ASSERT_TRUE(ArrayInit(scratch, 1, 4));
  ASSERT_TRUE(ArrayAppend(scratch, uint8_t('q')));
  uint32_t id = 0;
  EXPECT_TRUE(VMAArrayLookupFromPath(arena, NEWGEN, &scratch, "dict/7", "more", 1, &id));
  EXPECT_EQ(id, c.id[NEWGEN]);
  EXPECT_FALSE(VMAArrayLookupFromPath(arena, OLDGEN, &scratch, "dict/7", "more", 0, &id));
  EXPECT_EQ(id, VMA_NO_ARRAY);
  EXPECT_FALSE(QWErrorIsSet());
  EXPECT_TRUE(VMAArrayLookupFromPath(arena, OLDGEN, &scratch, "dict/7/values", nullptr, 0, &id));
  EXPECT_EQ(id, b.id[NEWGEN]);
  EXPECT_EQ(ArrayLength(scratch), 1u);
  EXPECT_EQ(scratch[0], 'q');
  ArrayFree(scratch);
}

// Unnamed arrays take empty slots once a named array follows them; freed ids
// are reused, named or not, unless their name claims them back first.
TEST_F(ArenaTest, NameSlotsFollowIdsAndFreedIdsAreReused) {
  ASSERT_TRUE(Reopen(kCache, VM_FLAG_CREATE)) << QWErrorMessage();
  uint32_t u1 = VMAArrayNew(arena, 0, kBlock, NEWGEN), u2 = VMAArrayNew(arena, 0, kBlock, NEWGEN);
  VMAArrayHandle named;
  ASSERT_TRUE(VMAArrayInitFromPath(&named, arena, "n", "a"));
  EXPECT_EQ(named.id[NEWGEN], u2 + 1);
  EXPECT_EQ(Slots(arena, NEWGEN), (std::vector<std::string>{"", "", "n/a"}));
  EXPECT_EQ(Lookup(arena, NEWGEN, "", 1), VMA_NO_ARRAY);  // empty slots are not names
  int create = 1;
  EXPECT_EQ(VMAArrayFind(arena, NEWGEN, "", 0, 1, &create, 0, kBlock), VMA_NO_ARRAY);
  EXPECT_EQ(QWErrorCode(), 22);
  create = 1;
  EXPECT_EQ(VMAArrayFind(arena, NEWGEN, "a\0b", 3, 1, &create, 0, kBlock), VMA_NO_ARRAY);
  EXPECT_EQ(create, 0);

  const uint8_t bytes[300] = {1};
  ASSERT_TRUE(VMAArrayAppend_(arena, named.id[NEWGEN], 0, kBlock, bytes, 300, NEWGEN, 1));
  ASSERT_TRUE(VMAArrayFree(arena, named.id[NEWGEN]));
  ASSERT_TRUE(VMAArrayFree(arena, u1));
  // Freed ids come back last in, first out, a named one too; its name then
  // finds the array that took the id.
  EXPECT_EQ(VMAArrayNew(arena, 0, kBlock, NEWGEN), u1);
  EXPECT_EQ(VMAArrayNew(arena, 0, kBlock, NEWGEN), named.id[NEWGEN]);
  VMAArrayHandle found;
  ASSERT_TRUE(VMAArrayInitFromPath(&found, arena, "n", "a"));
  EXPECT_EQ(found.id[NEWGEN], named.id[NEWGEN]);
  EXPECT_EQ(VMAArrayLength_(arena, found.id[NEWGEN], NEWGEN), 0u);
  EXPECT_EQ(VMABlockArrayBlockCount_(arena, found.id[NEWGEN], NEWGEN), 0u);
  // A lookup of the name takes a freed id back before it is reused.
  EXPECT_TRUE(VMAArrayFree(arena, named.id[NEWGEN]));
  EXPECT_EQ(ArrayLength(arena->freeArrayIds), 1u);
  ASSERT_TRUE(VMAArrayInitFromPath(&found, arena, "n", "a"));
  EXPECT_EQ(ArrayLength(arena->freeArrayIds), 0u);
  EXPECT_EQ(VMAArrayNew(arena, 0, kBlock, NEWGEN), named.id[NEWGEN] + 1);
  // A block array under a name is found as one, and only as one.
  VMAArrayHandle blocks;
  ASSERT_TRUE(VMABlockArrayInitFromPath_(&blocks, arena, "n", "b", 1));
  EXPECT_EQ(TypeOf(arena, blocks.id[NEWGEN]), FULL_BLOCK_ARRAY_TYPE);
  EXPECT_FALSE(VMAArrayInitFromPath(&found, arena, "n", "b"));
  EXPECT_EQ(QWErrorCode(), 22);
  EXPECT_FALSE(VMABlockArrayInitFromPath(&found, arena, "n", "a"));
  // Freed named block arrays stay block arrays.
  ASSERT_TRUE(VMAArrayFree(arena, blocks.id[NEWGEN]));
  ASSERT_TRUE(VMABlockArrayInitFromPath(&found, arena, "n", "b")) << QWErrorMessage();
  EXPECT_EQ(found.id[NEWGEN], blocks.id[NEWGEN]);
}

// Enough names to fill several blocks of array 0, so that names straddle
// block boundaries; they survive a commit and a reopen.
TEST_F(ArenaTest, ManyNamesAcrossBlocksOfTheNameArray) {
  ASSERT_TRUE(Reopen(kMapped, VM_FLAG_CREATE)) << QWErrorMessage();
  std::vector<std::pair<std::string, uint32_t>> names;
  for (int i = 0; i < 1500; ++i) {
    std::string name = "structure/" + std::to_string(i * 7919 % 100000) + std::string(size_t(i % 23), 'x');
    int create = 1;
    uint32_t id = VMAArrayFind(arena, NEWGEN, name.data(), uint32_t(name.size()), 0, &create, 0, kBlock);
    ASSERT_NE(id, VMA_NO_ARRAY) << QWErrorMessage();
    ASSERT_EQ(create, 1) << name;
    names.emplace_back(name, id);
  }
  EXPECT_GT(VMAArrayLength_(arena, 0, NEWGEN), 3 * kBlock);
  ASSERT_TRUE(VMArenaCommit(arena, nullptr, nullptr, 0)) << QWErrorMessage();
  ASSERT_TRUE(Reopen(kMapped, 0)) << QWErrorMessage();
  for (size_t i = 0; i < names.size(); i += 7) {
    EXPECT_EQ(Lookup(arena, NEWGEN, names[i].first, 1), names[i].second) << names[i].first;
    EXPECT_EQ(Lookup(arena, OLDGEN, names[i].first, 0), names[i].second) << names[i].first;
  }
  int create = 1;
  EXPECT_EQ(VMAArrayFind(arena, NEWGEN, names[1000].first.data(), uint32_t(names[1000].first.size()), 1, &create, 0,
                         kBlock),
            names[1000].second);
  EXPECT_EQ(create, 0);
}

// A name list that names more arrays than exist cannot be trusted: the open
// fails, and nothing is tagged.
TEST_F(ArenaTest, NameListThatDisagreesWithTheTableFailsTheOpen) {
  ASSERT_TRUE(Reopen(kCache, VM_FLAG_CREATE)) << QWErrorMessage();
  VMAArrayHandle handle;
  ASSERT_TRUE(VMAArrayInitFromPath(&handle, arena, "x", "y"));
  const char extra[] = "ghost\0";
  ASSERT_TRUE(VMAArrayAppend_(arena, 0, 0, kBlock, extra, sizeof extra - 1, NEWGEN, 1));
  int create = 1;
  EXPECT_EQ(VMAArrayFind(arena, NEWGEN, "new", 3, 1, &create, 0, kBlock), VMA_NO_ARRAY);
  EXPECT_EQ(QWErrorCode(), 22);  // array 0 was written behind the name service's back
  ASSERT_TRUE(VMArenaCommit(arena, nullptr, nullptr, 0)) << QWErrorMessage();
  EXPECT_FALSE(Reopen(kCache));
  EXPECT_NE(std::string(QWErrorMessage()).find("cannot create name service"), std::string::npos) << QWErrorMessage();
  EXPECT_FALSE(Tagged());
  QWErrorClear();
}

}  // namespace
