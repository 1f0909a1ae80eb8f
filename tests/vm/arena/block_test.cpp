// Arena blocks: size classes, ids, allocation, and a model test of
// copy-on-write across commits and reopenings in every access mode.
#include <map>

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

// Random allocations, writes, frees, commits and reopenings against a model.
class ArenaModes : public ArenaTest, public ::testing::WithParamInterface<Mode> {};

TEST_P(ArenaModes, RandomBlocksMatchTheModelAcrossCommitsAndReopens) {
  const Mode &mode = GetParam();
  std::mt19937 random(2024);
  std::map<uint64_t, uint32_t> committed, current;  // id -> tag
  ASSERT_TRUE(Reopen(mode, VM_FLAG_CREATE, 3)) << QWErrorMessage();
  uint32_t tag = 1;
  for (int round = 0; round < 12; ++round) {
    for (int step = 0; step < 150; ++step) {
      const int op = int(random() % 10);
      if (op < 5 || current.empty()) {
        const uint64_t id = VMArenaBlockNew(arena, 0, random() % 3 == 0 ? 8192 : 1 + random() % 8192, nullptr, 0);
        ASSERT_NE(id, INVALID_VMARENA_BLOCK_ID) << QWErrorMessage();
        ASSERT_EQ(current.count(id), 0u) << "id handed out twice";
        Fill(arena, id, ++tag);
        current[id] = tag;
        continue;
      }
      auto it = std::next(current.begin(), long(random() % current.size()));
      if (op < 8) {
        Fill(arena, it->first, ++tag);
        it->second = tag;
        if (committed.count(it->first)) {
          ASSERT_TRUE(Holds(arena, it->first, OLDGEN, committed[it->first])) << "a write reached the old generation";
        }
      } else {
        VMArenaBlockFree(arena, it->first, 0);
        current.erase(it);
      }
    }
    for (const auto &[id, t] : current) ASSERT_TRUE(Holds(arena, id, NEWGEN, t)) << round;
    for (const auto &[id, t] : committed) ASSERT_TRUE(Holds(arena, id, OLDGEN, t)) << "old generation changed";
    if (round % 3 == 2) {  // drop the uncommitted round
      ASSERT_TRUE(Reopen(mode, 0, 3)) << QWErrorMessage();
      current = committed;
      continue;
    }
    ASSERT_TRUE(Commit()) << QWErrorMessage();
    committed = current;
    if (round % 4 == 3) {
      ASSERT_TRUE(Reopen(mode, 0, 3)) << QWErrorMessage();
    }
    for (const auto &[id, t] : committed) ASSERT_TRUE(Holds(arena, id, OLDGEN, t)) << round;
  }
}

INSTANTIATE_TEST_SUITE_P(AllModes, ArenaModes, ::testing::ValuesIn(kModes), ModeName);

}  // namespace
