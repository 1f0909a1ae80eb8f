// Arena blocks (size classes, ids, allocation) and block arrays (insert,
// remove, grow and round against a model of block sizes and contents, across
// commits and reopenings; their errors). Copy-on-write across commits and
// reopenings: ArraysModel (every mode), the crash matrix and the campaign.
#include "arena_fixture.h"

namespace {

using namespace arenatest;

TEST_F(ArenaTest, SizeClassesAndIds) {
  ASSERT_TRUE(Reopen(kCache, VM_FLAG_CREATE, 1)) << QWErrorMessage();
  const struct {
    uint32_t request, classSize, sizeClass;
  } cases[] = {{0, 64, 0},       {1, 64, 0},       {64, 64, 0},     {65, 88, 1},
               {2728, 2728, 13}, {2729, 4096, 14}, {4097, 8192, 15}, {8192, 8192, 15}};
  for (const auto &c : cases) {
    uint32_t actual = 0, sizeClass = 99, size = 0, infoClass, bucket;
    const uint64_t id = VMArenaBlockNew(arena, 0, c.request, &actual, 0);
    ASSERT_NE(id, INVALID_VMARENA_BLOCK_ID);
    EXPECT_EQ(actual, c.classSize) << c.request;
    void *data = VMArenaDataAcquire(arena, id, 0, NEWGEN, 0, &size, &sizeClass);
    ASSERT_NE(data, nullptr);
    EXPECT_EQ(size, c.classSize);
    EXPECT_EQ(sizeClass, c.sizeClass);
    VMArenaDataRelease(arena, id, 0, data, 0, 0);
    ASSERT_TRUE(VMABlockInfoGet(arena, id, &infoClass, &bucket, nullptr, nullptr));
    EXPECT_EQ(infoClass, c.sizeClass);
    EXPECT_EQ(bucket, 0u);
  }
  // With one bucket a whole block's global id is the server block id.
  const uint32_t global = VMArenaDataBlockNew(arena, 0, 0);
  uint32_t serverBlock = 0, size = 7;
  ASSERT_TRUE(VMABlockInfoGet(arena, (uint64_t(global) << 4) | 15, nullptr, nullptr, &serverBlock, nullptr));
  EXPECT_EQ(serverBlock, global);
  // The invalid id reads as nothing.
  EXPECT_EQ(VMArenaDataAcquire(arena, INVALID_VMARENA_BLOCK_ID, 0, NEWGEN, 1, &size, nullptr), nullptr);
  EXPECT_EQ(size, 0u);
}

TEST_F(ArenaTest, FreedSmallBlockIsReusedFirstAndSlotsShareAServerBlock) {
  ASSERT_TRUE(Reopen(kCache, VM_FLAG_CREATE)) << QWErrorMessage();
  const uint64_t a = VMArenaBlockNew(arena, 0, 64, nullptr, 0), b = VMArenaBlockNew(arena, 0, 64, nullptr, 0);
  uint32_t blockA, blockB, slotA, slotB, bucketA;
  VMABlockInfoGet(arena, a, nullptr, &bucketA, &blockA, &slotA);
  VMABlockInfoGet(arena, b, nullptr, nullptr, &blockB, &slotB);
  EXPECT_EQ(blockA, blockB);
  EXPECT_EQ(slotB, slotA + 1);
  VMArenaBlockFree(arena, a, 0);
  EXPECT_EQ(VMArenaBlockNew(arena, 0, 64, nullptr, 0), a);
  // 128 slots of 64 bytes fill a server block (the name service may hold
  // some); the next comes from the other bucket (round robin).
  uint32_t bucketNext = bucketA, blockNext = blockA;
  for (int i = 0; i < 128 && bucketNext == bucketA && blockNext == blockA; ++i)
    VMABlockInfoGet(arena, VMArenaBlockNew(arena, 0, i % 2 ? 50 : 64, nullptr, 0), nullptr, &bucketNext, &blockNext,
                    nullptr);
  EXPECT_NE(bucketA, bucketNext);
}

struct ModelBlock {
  uint32_t size;
  uint32_t tag;
};

uint8_t PatternByte(uint32_t tag, uint32_t i) { return uint8_t(tag * 31u + i * 7u + (i >> 8)); }

// Writes the pattern of `tag` over the whole n-th block.
void FillBlock(VMArena *arena, uint32_t id, uint32_t n, uint32_t tag) {
  uint32_t size = 0;
  auto *data = static_cast<uint8_t *>(VMABlockArrayGet_(arena, id, 0, n, NEWGEN, 0, &size));
  ASSERT_NE(data, nullptr) << QWErrorMessage();
  for (uint32_t i = 0; i < size; ++i) data[i] = PatternByte(tag, i);
  VMAArrayRelease_(arena, id, data, 0);
}

// The first `bytes` bytes of the n-th block hold the pattern of `tag`.
void ExpectBlock(VMArena *arena, uint32_t id, uint32_t n, uint32_t gen, uint32_t size, uint32_t tag, uint32_t bytes) {
  uint32_t actual = 0;
  auto *data = static_cast<uint8_t *>(VMABlockArrayGet_(arena, id, 0, n, gen, 1, &actual));
  ASSERT_NE(data, nullptr) << QWErrorMessage();
  EXPECT_EQ(actual, size) << "block " << n;
  uint32_t bad = 0;
  for (uint32_t i = 0; i < bytes; ++i) bad += data[i] != PatternByte(tag, i);
  EXPECT_EQ(bad, 0u) << "block " << n << " gen " << gen;
  VMAArrayRelease_(arena, id, data, 1);
}

void ExpectModel(VMArena *arena, uint32_t id, uint32_t gen, const std::vector<ModelBlock> &model) {
  ASSERT_EQ(VMABlockArrayBlockCount_(arena, id, gen), model.size());
  for (uint32_t n = 0; n < model.size(); ++n)
    ASSERT_NO_FATAL_FAILURE(ExpectBlock(arena, id, n, gen, model[n].size, model[n].tag, model[n].size));
}

class BlockArrays : public ArenaTest, public ::testing::WithParamInterface<Mode> {};

TEST_P(BlockArrays, RandomBlockEditsMatchTheModel) {
  ASSERT_TRUE(Reopen(GetParam(), VM_FLAG_CREATE, 2)) << QWErrorMessage();
  VMAArrayHandle handle;
  ASSERT_TRUE(VMABlockArrayInitFromPath(&handle, arena, "blocks", "list")) << QWErrorMessage();
  const uint32_t id = handle.id[NEWGEN];
  EXPECT_EQ(TypeOf(arena, id), FULL_BLOCK_ARRAY_TYPE);
  std::vector<ModelBlock> model, committed;
  std::mt19937 rng(99);
  uint32_t nextTag = 1;
  for (int step = 0; step < 1200; ++step) {
    const uint32_t op = rng() % 100;
    const uint32_t count = uint32_t(model.size());
    if (op < 40 || count == 0) {
      uint32_t n = rng() % (count + 1);
      uint32_t size = VMABlockArrayBlockRound_(arena, 1 + rng() % kBlock, kBlock);
      ASSERT_TRUE(VMABlockArrayInsert_(arena, id, 0, kBlock, n, size, NEWGEN)) << QWErrorMessage();
      model.insert(model.begin() + n, {size, nextTag});
      ASSERT_NO_FATAL_FAILURE(FillBlock(arena, id, n, nextTag++));
    } else if (op < 65) {
      uint32_t n = rng() % count;
      ASSERT_TRUE(VMABlockArrayRemove_(arena, id, 0, kBlock, n, NEWGEN)) << QWErrorMessage();
      model.erase(model.begin() + n);
    } else if (op < 90) {
      // Grow (or shrink) the n-th block: the bytes that fit survive.
      uint32_t n = rng() % count;
      uint32_t size = VMABlockArrayBlockRound_(arena, 1 + rng() % kBlock, kBlock);
      uint64_t before = VMABlockArrayBlockIDGet_(arena, id, n, NEWGEN);
      ASSERT_TRUE(VMABlockArrayBlockGrowNth_(arena, id, 0, size, 0, n, NEWGEN)) << QWErrorMessage();
      EXPECT_NE(VMABlockArrayBlockIDGet_(arena, id, n, NEWGEN), before);
      ASSERT_NO_FATAL_FAILURE(ExpectBlock(arena, id, n, NEWGEN, size, model[n].tag, std::min(size, model[n].size)));
      model[n] = {size, nextTag};
      ASSERT_NO_FATAL_FAILURE(FillBlock(arena, id, n, nextTag++));
    } else if (op < 96) {
      uint32_t n = rng() % count;
      model[n].tag = nextTag;
      ASSERT_NO_FATAL_FAILURE(FillBlock(arena, id, n, nextTag++));
    } else if (op < 98) {
      ASSERT_TRUE(Commit()) << QWErrorMessage();
      committed = model;
      ASSERT_NO_FATAL_FAILURE(ExpectModel(arena, id, OLDGEN, committed));
    } else {
      ASSERT_TRUE(Reopen(GetParam(), 0, 2)) << QWErrorMessage();
      ASSERT_TRUE(VMABlockArrayInitFromPath(&handle, arena, "blocks", "list")) << QWErrorMessage();
      ASSERT_EQ(handle.id[NEWGEN], id);
      model = committed;
    }
    if (step % 50 == 0) {
      ASSERT_NO_FATAL_FAILURE(ExpectModel(arena, id, NEWGEN, model));
    }
  }
  ASSERT_NO_FATAL_FAILURE(ExpectModel(arena, id, NEWGEN, model));
  // Clear keeps a block array a block array.
  ASSERT_TRUE(VMAArrayClear_(arena, id, 0, NEWGEN));
  EXPECT_EQ(VMABlockArrayBlockCount_(arena, id, NEWGEN), 0u);
  EXPECT_EQ(TypeOf(arena, id), FULL_BLOCK_ARRAY_TYPE);
}

INSTANTIATE_TEST_SUITE_P(Modes, BlockArrays, ::testing::Values(kCache, kMappedSerial), ModeName);

// Rounding gives the smallest class up to the array's block size; edits out
// of range are refused.
TEST_F(ArenaTest, BlockArrayRoundingAndErrors) {
  ASSERT_TRUE(Reopen(kCache, VM_FLAG_CREATE)) << QWErrorMessage();
  const uint32_t cases[][3] = {{0, 8192, 64},       {1, 8192, 64},       {64, 8192, 64},   {65, 8192, 88},
                               {1025, 8192, 1632},  {2729, 4096, 4096},  {4096, 4096, 4096}, {4097, 8192, 8192},
                               {8192, 8192, 8192}};
  for (const auto &c : cases) EXPECT_EQ(VMABlockArrayBlockRound_(arena, c[0], c[1]), c[2]) << c[0];
  uint32_t id = VMAArrayNew(arena, 1, kBlock, NEWGEN);
  ASSERT_TRUE(VMABlockArrayInsert_(arena, id, 0, kBlock, 0, 100, NEWGEN));
  EXPECT_FALSE(VMABlockArrayInsert_(arena, id, 0, kBlock, 2, 100, NEWGEN));
  EXPECT_EQ(QWErrorCode(), 22);
  EXPECT_FALSE(VMABlockArrayRemove_(arena, id, 0, kBlock, 1, NEWGEN));
  EXPECT_FALSE(VMABlockArrayBlockGrowNth_(arena, id, 0, 256, 0, 1, NEWGEN));
  EXPECT_EQ(VMABlockArrayBlockIDGet_(arena, id, 1, NEWGEN), INVALID_VMARENA_BLOCK_ID);
  uint32_t size = 9;
  EXPECT_EQ(VMABlockArrayGet_(arena, id, 0, 1, NEWGEN, 1, &size), nullptr);
  EXPECT_EQ(size, 0u);
  EXPECT_EQ(VMABlockArrayBlockCount_(arena, id, NEWGEN), 1u);
  VMABlockArrayPrefetch(arena, id, 5, NEWGEN);  // nothing to prefetch: no effect
  // A small-block array of 4096-byte blocks takes blocks up to that size.
  uint32_t small = VMAArrayNew(arena, 1, 4096, NEWGEN);
  ASSERT_TRUE(VMABlockArrayInsert_(arena, small, 0, 4096, 0, 4096, NEWGEN));
  EXPECT_FALSE(VMABlockArrayInsert_(arena, small, 0, 4096, 0, 5000, NEWGEN));
  EXPECT_EQ(VMABlockArrayBlockCount_(arena, small, NEWGEN), 1u);
}

}  // namespace
