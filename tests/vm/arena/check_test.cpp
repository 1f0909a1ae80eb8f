// Arena check: clashes between arrays and free lists, in both generations.
#include <algorithm>

#include "arena_fixture.h"

namespace {

using namespace arenatest;

class ArenaCheck : public ArenaTest {
 protected:
  void SetUp() override {
    ArenaTest::SetUp();
    ASSERT_TRUE(Reopen(kCache, VM_FLAG_CREATE, 1)) << QWErrorMessage();
  }
  // Lists a block in an array's block list behind the array code, as a damaged table would.
  void ListBlock(uint32_t arrayId, uint64_t id) {
    auto *record = static_cast<qw::vm::ArrayRecord *>(FArrayNth(&arena->arrays, arrayId));
    uint64_t index;
    ASSERT_TRUE(FArrayAdd_(&record->blockID, 1, &index));
    *static_cast<uint64_t *>(FArrayNth(&record->blockID, index)) = id;
  }
  int CountStartingWith(const std::string &prefix, const std::string &part = "") {
    int count = 0;
    for (const auto &m : capture.messages())
      count += m.text.rfind(prefix, 0) == 0 && m.text.find(part) != std::string::npos;
    return count;
  }
  uint32_t NewArray() { return VMAArrayNew(arena, 0, 8192, NEWGEN); }
  uint64_t NewBlock(uint32_t size) { return VMArenaBlockNew(arena, 0, size, nullptr, 0); }
  qwtest::MessageCapture capture;
};

TEST_F(ArenaCheck, CleanArenaPrintsNothing) {
  CloseArena();
  std::filesystem::remove_all(arenaDir());
  ASSERT_TRUE(Reopen(kCache, VM_FLAG_CREATE, 2)) << QWErrorMessage();
  EXPECT_EQ(VMArenaCheck(arena), 0);
  EXPECT_EQ(VMArenaCheckR(arena), 0);
  // Distinct blocks in several arrays and on a free list are no clash.
  const uint32_t a = NewArray(), b = NewArray();
  for (int i = 0; i < 5; ++i) {
    ListBlock(a, NewBlock(64));
    ListBlock(b, NewBlock(8192));
  }
  VMArenaBlockFree(arena, NewBlock(64), 0);
  EXPECT_EQ(VMArenaCheck(arena), 0);
  ASSERT_TRUE(Commit()) << QWErrorMessage();
  EXPECT_EQ(VMArenaCheckR(arena), 0);
  for (const char *prefix : {"enum", "##", "hard block clash", "r block clash"})
    EXPECT_EQ(CountStartingWith(prefix), 0) << prefix;
}

TEST_F(ArenaCheck, StatPrintNamesOnlyTheNameServiceArraysInItsEstablishedShape) {
  int create = 1;
  const uint32_t plain = VMAArrayFind(arena, NEWGEN, "plain", 5, 0, &create, 0, 8192);
  ASSERT_NE(plain, VMA_NO_ARRAY) << QWErrorMessage();
  ListBlock(plain, NewBlock(64));
  (void)NewArray();  // empty, and the last one
  const std::string out = qwtest::RunInChild([&] { VMAArenaStatPrint(arena, NEWGEN); }).out;
  // A name's closing quote and an empty array's sizes end no line.
  EXPECT_NE(out.find("# id = "), std::string::npos) << out;
  EXPECT_NE(out.find("\nname = \"#name/params\"length = 1\nblock count = 1, max block size = "), std::string::npos) << out;
  EXPECT_EQ(out.find("name = \"plain\""), std::string::npos) << out;
  EXPECT_NE(out.find("block count = 1, max block size = 64, average per block = 64\nsize = 64, touched = "),
            std::string::npos) << out;
  EXPECT_NE(out.find("block count = 0, max block size = 0, size = 0, touched = 0totalSize = "), std::string::npos)
      << out;
  const size_t freeLists = out.find("Dumping free lists\nsize = 64, free = ");
  ASSERT_NE(freeLists, std::string::npos) << out;
  EXPECT_EQ(std::count(out.begin() + long(freeLists), out.end(), '\n'), 17) << out;
}

TEST_F(ArenaCheck, SameBlockInTwoArraysIsAHardClashInBothGenerations) {
  const uint32_t a = NewArray(), b = NewArray();
  const uint64_t shared = NewBlock(100);
  ListBlock(a, NewBlock(100));
  ListBlock(a, shared);
  ListBlock(b, shared);
  EXPECT_EQ(VMArenaCheck(arena), 1);
  EXPECT_GE(CountStartingWith("hard block clash !!!"), 1);  // from the sort
  uint32_t block, slot;
  VMABlockInfoGet(arena, shared, nullptr, nullptr, &block, &slot);
  // The two references tie in the ordering, so either may come first.
  char text[512];
  auto hardClash = [&](uint32_t first, int firstIndex, uint32_t second, int secondIndex) {
    std::snprintf(text, sizeof text,
                  "enum hard block clash !!!\n blockID = %u, %u\n arrayIndex = %u, %u\n blockIndex = %d, %d\n index = "
                  "%u, %u\n, r = 2, 2\n",
                  block, block, first, second, firstIndex, secondIndex, slot, slot);
    return capture.contains(text, QW_LEVEL_DEBUG);
  };
  EXPECT_TRUE(hardClash(a, 1, b, 0) || hardClash(b, 0, a, 1));
  capture.clear();
  ASSERT_TRUE(Commit()) << QWErrorMessage();
  EXPECT_EQ(VMArenaCheckR(arena), 1);
  auto oldClash = [&](uint32_t first, int firstIndex, uint32_t second, int secondIndex) {
    std::snprintf(text, sizeof text, "## block clash !!! arrayIndex = %u, %u, blockIndex = %d, %d", first, second,
                  firstIndex, secondIndex);
    return capture.contains(text, QW_LEVEL_DEBUG);
  };
  EXPECT_TRUE(oldClash(a, 1, b, 0) || oldClash(b, 0, a, 1));
}

// A freed block still listed clashes with array index -1 (the free list);
// two classes in one server block are an r clash.
TEST_F(ArenaCheck, FreeListAndClassClashes) {
  const uint32_t a = NewArray();
  const uint64_t id = NewBlock(300);
  ListBlock(a, id);
  VMArenaBlockFree(arena, id, 0);
  EXPECT_EQ(VMArenaCheck(arena), 1);
  EXPECT_EQ(CountStartingWith("enum hard block clash", "-1\n blockIndex"), 1);
  capture.clear();
  VMArenaBlockNew(arena, 0, 300, nullptr, 0);  // takes the freed block back
  const uint64_t small = NewBlock(64);
  ListBlock(a, small);
  ListBlock(a, (small & ~uint64_t(0xF)) | 1);  // the same bits read as class 1
  EXPECT_GE(VMArenaCheck(arena), 1);
  EXPECT_GE(CountStartingWith("enum r block clash !!!"), 1);
}

}  // namespace
