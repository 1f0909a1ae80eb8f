// Arena check: clashes between arrays and free lists, in both generations.
#include "arena_fixture.h"
#include "vm/arena/arena.h"

namespace {

using arenatest::ArenaTest;
using arenatest::kModes;

// Appends an arena block id to array `arrayId`'s block list, bypassing the
// array code: how a damaged table would look.
void ListBlock(VMArena *arena, uint32_t arrayId, uint64_t id) {
  auto *record = static_cast<qw::vm::ArrayRecord *>(FArrayNth(&arena->arrays, arrayId));
  uint64_t index;
  ASSERT_TRUE(FArrayAdd_(&record->blockID, 1, &index));
  *static_cast<uint64_t *>(FArrayNth(&record->blockID, index)) = id;
}

int CountStartingWith(const qwtest::MessageCapture &capture, const std::string &prefix) {
  int count = 0;
  for (const auto &m : capture.messages()) count += m.text.rfind(prefix, 0) == 0;
  return count;
}

TEST_F(ArenaTest, CleanArenaPrintsNothing) {
  VMArena *arena = Open(kModes[0], VM_FLAG_CREATE, 2);
  ASSERT_NE(arena, nullptr);
  qwtest::MessageCapture capture;
  EXPECT_EQ(VMArenaCheck(arena), 0);
  EXPECT_EQ(VMArenaCheckR(arena), 0);
  // Distinct blocks in several arrays and on a free list are no clash.
  uint32_t a = VMAArrayNew(arena, 0, 8192, NEWGEN), b = VMAArrayNew(arena, 0, 8192, NEWGEN);
  for (int i = 0; i < 5; ++i) {
    ListBlock(arena, a, VMArenaBlockNew(arena, 0, 64, nullptr, 0));
    ListBlock(arena, b, VMArenaBlockNew(arena, 0, 8192, nullptr, 0));
  }
  VMArenaBlockFree(arena, VMArenaBlockNew(arena, 0, 64, nullptr, 0), 0);
  EXPECT_EQ(VMArenaCheck(arena), 0);
  ASSERT_TRUE(VMArenaCommit(arena, nullptr, nullptr, 0)) << QWErrorMessage();
  EXPECT_EQ(VMArenaCheckR(arena), 0);
  EXPECT_EQ(CountStartingWith(capture, "enum"), 0);
  EXPECT_EQ(CountStartingWith(capture, "##"), 0);
  EXPECT_EQ(CountStartingWith(capture, "hard block clash"), 0);
  EXPECT_EQ(CountStartingWith(capture, "r block clash"), 0);
  VMArenaClose(arena);
}

TEST_F(ArenaTest, SameBlockInTwoArraysIsAHardClashInBothGenerations) {
  VMArena *arena = Open(kModes[0], VM_FLAG_CREATE, 1);
  ASSERT_NE(arena, nullptr);
  uint32_t a = VMAArrayNew(arena, 0, 8192, NEWGEN), b = VMAArrayNew(arena, 0, 8192, NEWGEN);
  uint64_t shared = VMArenaBlockNew(arena, 0, 100, nullptr, 0);
  ListBlock(arena, a, VMArenaBlockNew(arena, 0, 100, nullptr, 0));
  ListBlock(arena, a, shared);
  ListBlock(arena, b, shared);
  qwtest::MessageCapture capture;
  EXPECT_EQ(VMArenaCheck(arena), 1);
  EXPECT_GE(CountStartingWith(capture, "hard block clash !!!"), 1);  // from the sort
  uint32_t sharedBlock, slot;
  VMABlockInfoGet(arena, shared, nullptr, nullptr, &sharedBlock, &slot);
  // The two references tie in the ordering, so either may come first.
  auto hardClash = [&](uint32_t first, int firstIndex, uint32_t second, int secondIndex) {
    char text[512];
    std::snprintf(text, sizeof text,
                  "enum hard block clash !!!\n blockID = %u, %u\n arrayIndex = %u, %u\n blockIndex = %d, %d\n index = "
                  "%u, %u\n, r = 2, 2\n",
                  sharedBlock, sharedBlock, first, second, firstIndex, secondIndex, slot, slot);
    return capture.contains(text, QW_LEVEL_DEBUG);
  };
  EXPECT_TRUE(hardClash(a, 1, b, 0) || hardClash(b, 0, a, 1));

  capture.clear();
  ASSERT_TRUE(VMArenaCommit(arena, nullptr, nullptr, 0)) << QWErrorMessage();
  EXPECT_EQ(VMArenaCheckR(arena), 1);
  auto oldClash = [&](uint32_t first, int firstIndex, uint32_t second, int secondIndex) {
    char text[256];
    std::snprintf(text, sizeof text, "## block clash !!! arrayIndex = %u, %u, blockIndex = %d, %d", first, second,
                  firstIndex, secondIndex);
    return capture.contains(text, QW_LEVEL_DEBUG);
  };
  EXPECT_TRUE(oldClash(a, 1, b, 0) || oldClash(b, 0, a, 1));
  VMArenaClose(arena);
}

TEST_F(ArenaTest, FreeListEntryUsedByAnArrayClashesWithArrayIndexMinusOne) {
  VMArena *arena = Open(kModes[0], VM_FLAG_CREATE, 1);
  ASSERT_NE(arena, nullptr);
  uint32_t a = VMAArrayNew(arena, 0, 8192, NEWGEN);
  uint64_t id = VMArenaBlockNew(arena, 0, 300, nullptr, 0);
  ListBlock(arena, a, id);
  VMArenaBlockFree(arena, id, 0);  // freed but still listed
  qwtest::MessageCapture capture;
  EXPECT_EQ(VMArenaCheck(arena), 1);
  bool found = false;
  for (const auto &m : capture.messages())
    found |= m.text.rfind("enum hard block clash", 0) == 0 && m.text.find("-1\n blockIndex") != std::string::npos;
  EXPECT_TRUE(found);
  VMArenaClose(arena);
}

TEST_F(ArenaTest, TwoClassesInOneServerBlockIsAnRClash) {
  VMArena *arena = Open(kModes[0], VM_FLAG_CREATE, 1);
  ASSERT_NE(arena, nullptr);
  uint32_t a = VMAArrayNew(arena, 0, 8192, NEWGEN);
  uint64_t small = VMArenaBlockNew(arena, 0, 64, nullptr, 0);  // slot 0 of some server block, class 0
  ListBlock(arena, a, small);
  ListBlock(arena, a, (small & ~uint64_t(0xF)) | 1);  // the same bits read as class 1
  qwtest::MessageCapture capture;
  EXPECT_GE(VMArenaCheck(arena), 1);
  EXPECT_GE(CountStartingWith(capture, "enum r block clash !!!"), 1);
  VMArenaClose(arena);
}

}  // namespace
