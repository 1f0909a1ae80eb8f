// Arena blocks: size classes, ids, allocation. Copy-on-write across commits
// and reopenings: ArraysModel (every mode), the crash matrix and the campaign.
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

}  // namespace
