// The array name service: find-or-create by path, old-generation ids, the
// rule for freed named arrays, names across blocks of array 0, reopening,
// read-only arenas and damaged name lists (mounting: lifecycle_test).
#include <filesystem>
#include <string>

#include "arena_fixture.h"

namespace {

using namespace arenatest;


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
