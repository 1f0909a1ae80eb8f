// Arena blocks: size classes, ids, allocation, copy-on-write across commits,
// and a randomized model test with reopenings in every access mode.
#include <filesystem>
#include <map>
#include <random>

#include "arena_fixture.h"

namespace {

using arenatest::ArenaTest;
using arenatest::Fill;
using arenatest::Holds;
using arenatest::kModes;

TEST_F(ArenaTest, SizeClassesAndIds) {
  VMArena *arena = Open(kModes[0], VM_FLAG_CREATE, 1);
  ASSERT_NE(arena, nullptr) << QWErrorMessage();
  struct Case {
    uint32_t request, classSize, sizeClass;
  };
  const Case cases[] = {{0, 64, 0},       {1, 64, 0},      {64, 64, 0},     {65, 88, 1},    {2728, 2728, 13},
                        {2729, 4096, 14}, {4097, 8192, 15}, {8192, 8192, 15}};
  for (const Case &c : cases) {
    uint32_t actual = 0, sizeClass = 99, size = 0;
    uint64_t id = VMArenaBlockNew(arena, 0, c.request, &actual, 0);
    ASSERT_NE(id, INVALID_VMARENA_BLOCK_ID);
    EXPECT_EQ(actual, c.classSize) << c.request;
    void *data = VMArenaDataAcquire(arena, id, 0, NEWGEN, 0, &size, &sizeClass);
    ASSERT_NE(data, nullptr);
    EXPECT_EQ(size, c.classSize);
    EXPECT_EQ(sizeClass, c.sizeClass);
    VMArenaDataRelease(arena, id, 0, data, 0, 0);
    uint32_t infoClass, bucket, serverBlock, slot;
    ASSERT_TRUE(VMABlockInfoGet(arena, id, &infoClass, &bucket, &serverBlock, &slot));
    EXPECT_EQ(infoClass, c.sizeClass);
    EXPECT_EQ(bucket, 0u);
  }
  // With one bucket a whole block's global id is the server block id.
  uint32_t global = VMArenaDataBlockNew(arena, 0, 0);
  uint64_t asArenaId = (uint64_t(global) << 4) | 15;
  uint32_t serverBlock = 0;
  ASSERT_TRUE(VMABlockInfoGet(arena, asArenaId, nullptr, nullptr, &serverBlock, nullptr));
  EXPECT_EQ(serverBlock, global);
  // The invalid id reads as nothing.
  uint32_t size = 7;
  EXPECT_EQ(VMArenaDataAcquire(arena, INVALID_VMARENA_BLOCK_ID, 0, NEWGEN, 1, &size, nullptr), nullptr);
  EXPECT_EQ(size, 0u);
  VMArenaClose(arena);
}

TEST_F(ArenaTest, FreedSmallBlockIsReusedFirstAndSlotsShareAServerBlock) {
  VMArena *arena = Open(kModes[0], VM_FLAG_CREATE, 2);
  ASSERT_NE(arena, nullptr);
  uint64_t a = VMArenaBlockNew(arena, 0, 64, nullptr, 0);
  uint64_t b = VMArenaBlockNew(arena, 0, 64, nullptr, 0);
  uint32_t blockA, blockB, slotA, slotB;
  VMABlockInfoGet(arena, a, nullptr, nullptr, &blockA, &slotA);
  VMABlockInfoGet(arena, b, nullptr, nullptr, &blockB, &slotB);
  EXPECT_EQ(blockA, blockB);
  EXPECT_EQ(slotB, slotA + 1);
  VMArenaBlockFree(arena, a, 0);
  EXPECT_EQ(VMArenaBlockNew(arena, 0, 64, nullptr, 0), a);
  // 128 slots of 64 bytes fill one server block (the name service may hold
  // some of them already); the next one comes from the other bucket (round
  // robin).
  uint32_t bucketA, bucketNext = 0, blockNext = blockA;
  VMABlockInfoGet(arena, a, nullptr, &bucketA, nullptr, nullptr);
  bucketNext = bucketA;
  for (int i = 0; i < 128 && bucketNext == bucketA && blockNext == blockA; ++i) {
    uint64_t next = VMArenaBlockNew(arena, 0, i % 2 ? 50 : 64, nullptr, 0);
    VMABlockInfoGet(arena, next, nullptr, &bucketNext, &blockNext, nullptr);
  }
  EXPECT_NE(bucketA, bucketNext);
  VMArenaClose(arena);
}

TEST_F(ArenaTest, OversizedRequestTagsCorruptedBeforeTheAssertion) {
  GTEST_FLAG_SET(death_test_style, "fast");  // the child must tag this test's directory
  VMArena *arena = Open(kModes[0], VM_FLAG_CREATE, 1);
  ASSERT_NE(arena, nullptr);
  EXPECT_DEATH(VMArenaBlockNew(arena, 0, 8193, nullptr, 0), "size <= ARENA_MAX_BLOCK_SIZE");
  EXPECT_TRUE(std::filesystem::exists(path("arena/corrupted")));
  EXPECT_DEATH(VMArenaDataAcquire(arena, 0x10, 0, 2, 1, nullptr, nullptr), "FALSE");
  VMArenaClose(arena);
}

TEST_F(ArenaTest, ReadOnlyArenaRefusesWrites) {
  GTEST_FLAG_SET(death_test_style, "threadsafe");
  VMArena *arena = Open(kModes[0], VM_FLAG_CREATE, 1);
  ASSERT_NE(arena, nullptr);
  VMArenaClose(arena);
  arena = Open(kModes[0], VM_FLAG_READ_ONLY, 1);
  ASSERT_NE(arena, nullptr) << QWErrorMessage();
  EXPECT_DEATH(VMArenaBlockNew(arena, 0, 64, nullptr, 0), "!arena->readOnly");
  VMArenaClose(arena);
}

// The old generation keeps the committed bytes while the new one changes.
class ArenaModes : public ArenaTest, public ::testing::WithParamInterface<arenatest::Mode> {};

TEST_P(ArenaModes, OldGenerationStaysIntactUntilTheNextCommit) {
  const arenatest::Mode &mode = GetParam();
  VMArena *arena = Open(mode);
  ASSERT_NE(arena, nullptr) << QWErrorMessage();
  uint64_t id = VMArenaBlockNew(arena, 0, 8192, nullptr, 0);
  Fill(arena, id, 1);
  EXPECT_FALSE(Holds(arena, id, OLDGEN, 1));  // not committed yet
  ASSERT_TRUE(arenatest::Commit(arena, &serialOld, &serialNew)) << QWErrorMessage();
  EXPECT_TRUE(Holds(arena, id, OLDGEN, 1));
  Fill(arena, id, 2);  // copy-on-write
  EXPECT_TRUE(Holds(arena, id, NEWGEN, 2));
  EXPECT_TRUE(Holds(arena, id, OLDGEN, 1));
  ASSERT_TRUE(arenatest::Commit(arena, &serialOld, &serialNew)) << QWErrorMessage();
  EXPECT_TRUE(Holds(arena, id, OLDGEN, 2));
  VMArenaClose(arena);
}

// Random allocations, writes, frees and commits against a model, with
// reopenings (uncommitted changes are dropped by a close).
TEST_P(ArenaModes, RandomBlocksMatchTheModelAcrossCommitsAndReopens) {
  const arenatest::Mode &mode = GetParam();
  std::mt19937 random(2024);
  std::map<uint64_t, uint32_t> committed, current;  // id -> tag
  VMArena *arena = Open(mode, VM_FLAG_CREATE, 3);
  ASSERT_NE(arena, nullptr) << QWErrorMessage();
  uint32_t tag = 1;
  for (int round = 0; round < 12; ++round) {
    for (int step = 0; step < 150; ++step) {
      int op = int(random() % 10);
      if (op < 5 || current.empty()) {
        uint32_t size = random() % 3 == 0 ? 8192 : 1 + random() % 8192;
        uint64_t id = VMArenaBlockNew(arena, 0, size, nullptr, 0);
        ASSERT_NE(id, INVALID_VMARENA_BLOCK_ID) << QWErrorMessage();
        ASSERT_EQ(current.count(id), 0u) << "id handed out twice";
        Fill(arena, id, ++tag);
        current[id] = tag;
      } else {
        auto it = std::next(current.begin(), long(random() % current.size()));
        if (op < 8) {
          Fill(arena, it->first, ++tag);
          it->second = tag;
        } else {
          VMArenaBlockFree(arena, it->first, 0);
          current.erase(it);
        }
      }
    }
    for (const auto &[id, t] : current) ASSERT_TRUE(Holds(arena, id, NEWGEN, t)) << round;
    for (const auto &[id, t] : committed) ASSERT_TRUE(Holds(arena, id, OLDGEN, t)) << "old generation changed";
    if (round % 3 == 2) {  // drop the uncommitted round
      VMArenaClose(arena);
      arena = Open(mode, 0, 3);
      ASSERT_NE(arena, nullptr) << QWErrorMessage();
      current = committed;
      continue;
    }
    ASSERT_TRUE(arenatest::Commit(arena, &serialOld, &serialNew)) << QWErrorMessage();
    committed = current;
    if (round % 4 == 3) {
      VMArenaClose(arena);
      arena = Open(mode, 0, 3);
      ASSERT_NE(arena, nullptr) << QWErrorMessage();
    }
    for (const auto &[id, t] : committed) ASSERT_TRUE(Holds(arena, id, OLDGEN, t)) << round;
  }
  VMArenaClose(arena);
}

INSTANTIATE_TEST_SUITE_P(AllModes, ArenaModes, ::testing::ValuesIn(kModes),
                         [](const auto &info) { return std::string(info.param.name); });

}  // namespace
