// The arena's name service over its tree: names found in both generations
// and after reopening, an emptied index rebuilt, read-only arenas scanning.
#include <string>

#include "pitree_fixture.h"

namespace {

using pittest::PITreeTest;

uint32_t Lookup(VMArena *arena, uint32_t gen, const std::string &name, int scan) {
  return VMAArrayFind(arena, gen, name.data(), uint32_t(name.size()), scan, nullptr, 0, 8192);
}

uint32_t Make(VMArena *arena, const std::string &name, int scan = 0) {
  int create = 1;
  const uint32_t id = VMAArrayFind(arena, NEWGEN, name.data(), uint32_t(name.size()), scan, &create, 0, 8192);
  EXPECT_EQ(create, 1) << name;
  return id;
}

std::string NameOf(uint32_t i) { return "store/" + std::to_string(i * 7919u % 100003u) + "/part" + std::to_string(i % 13); }

// The name service's count of names.
uint32_t IndexedNames(VMArena *arena, uint32_t gen) {
  const uint32_t id = Lookup(arena, gen, "#name/params", 1);
  if (id == VMA_NO_ARRAY || VMAArrayLength_(arena, id, gen) == 0) return 0;
  uint32_t end = 0;
  auto *p = static_cast<const uint32_t *>(VMAArrayRange_(arena, id, 0, 8192, 0, &end, gen, 1, 4, 0));
  EXPECT_NE(p, nullptr);
  const uint32_t count = *p;
  VMAArrayRelease_(arena, id, const_cast<uint32_t *>(p), 1);
  return count;
}

TEST_F(PITreeTest, ManyNamesAreFoundThroughTheTreeInBothGenerations) {
  MustOpenArena();
  const uint32_t own = IndexedNames(arena, NEWGEN), count = 20000;
  EXPECT_GT(own, 190u);  // the name service's own arrays are named too
  std::vector<uint32_t> ids(count);
  for (uint32_t i = 0; i < count; ++i) ASSERT_NE(ids[i] = Make(arena, NameOf(i), i % 10 == 0), VMA_NO_ARRAY);
  EXPECT_EQ(IndexedNames(arena, NEWGEN), own + count);
  for (uint32_t i = 0; i < count; ++i) ASSERT_EQ(Lookup(arena, NEWGEN, NameOf(i), 0), ids[i]);
  EXPECT_EQ(Lookup(arena, NEWGEN, "store/none", 0), VMA_NO_ARRAY);
  EXPECT_FALSE(QWErrorIsSet());
  EXPECT_EQ(Lookup(arena, OLDGEN, NameOf(5), 0), VMA_NO_ARRAY);  // not committed yet
  ASSERT_TRUE(CommitArena()) << QWErrorMessage();
  const std::string later = "store/after/commit";
  const uint32_t laterId = Make(arena, later);
  for (uint32_t i = 0; i < count; i += 11) ASSERT_EQ(Lookup(arena, OLDGEN, NameOf(i), 0), ids[i]);
  EXPECT_EQ(Lookup(arena, OLDGEN, later, 0), VMA_NO_ARRAY);
  EXPECT_EQ(Lookup(arena, NEWGEN, later, 0), laterId);
  ASSERT_TRUE(ReopenArena(0)) << QWErrorMessage();
  for (uint32_t i = 0; i < count; i += 7) {
    ASSERT_EQ(Lookup(arena, NEWGEN, NameOf(i), 0), ids[i]);
    ASSERT_EQ(Lookup(arena, OLDGEN, NameOf(i), 0), ids[i]);
  }
  EXPECT_EQ(Lookup(arena, NEWGEN, later, 0), VMA_NO_ARRAY);  // never committed
  EXPECT_EQ(Make(arena, later), ids[count - 1] + 1);
}

// An index whose arrays were freed is rebuilt from array 0 at the next
// writable open; a read-only open scans instead.
TEST_F(PITreeTest, EmptiedIndexIsRebuiltAndReadOnlyArenaScans) {
  MustOpenArena();
  for (uint32_t i = 0; i < 300; ++i) ASSERT_NE(Make(arena, NameOf(i)), VMA_NO_ARRAY);
  const uint32_t indexed = IndexedNames(arena, NEWGEN);
  for (const char *name : {"#name/params", "#name/lookup/pitree/head/headIndex", "#name/lookup/pitree/head/node3",
                           "#name/lookup/pitree/leaf/dbarray/data0000", "#name/lookup/pitree/leaf/dbarray/index0000",
                           "#name/lookup/pitree/leaf/dbarray/firstHandle0000"})
    ASSERT_TRUE(VMAArrayFree(arena, Lookup(arena, NEWGEN, name, 1))) << name;
  ASSERT_TRUE(CommitArena()) << QWErrorMessage();
  ASSERT_TRUE(ReopenArena(VM_FLAG_READ_ONLY)) << QWErrorMessage();
  EXPECT_EQ(IndexedNames(arena, NEWGEN), 0u);
  EXPECT_EQ(Lookup(arena, NEWGEN, NameOf(17), 0), Lookup(arena, NEWGEN, NameOf(17), 1));
  EXPECT_NE(Lookup(arena, OLDGEN, NameOf(17), 0), VMA_NO_ARRAY);
  ASSERT_TRUE(ReopenArena(0)) << QWErrorMessage();  // writable: rebuilt
  EXPECT_EQ(IndexedNames(arena, NEWGEN), indexed);
  for (uint32_t i = 0; i < 300; ++i) ASSERT_EQ(Lookup(arena, NEWGEN, NameOf(i), 0), Lookup(arena, NEWGEN, NameOf(i), 1));
  ASSERT_NE(Make(arena, "store/new"), VMA_NO_ARRAY);
  EXPECT_EQ(IndexedNames(arena, NEWGEN), indexed + 1);
}

}  // namespace
