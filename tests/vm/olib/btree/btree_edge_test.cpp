// Edge cases of lookups and changes the model does not reach, the facade's
// arguments, walks, the iterator's steps and the memory-lock registration.
#include "btree_fixture.h"

namespace bttest {
namespace {

using BTreeEdge = BTreeTest;

TEST_F(BTreeEdge, LookupOutsAndNotFoundValues) {
  Open(8, 4);
  // An empty tree: the outs are all ones; neither a lookup nor a remove makes a root.
  uint64_t outs[4] = {1, 2, 3, 4}, value = 0;
  EXPECT_EQ(ULongBTreeFind(tree, 5, 0, 77, &outs[0], &outs[1], &outs[2], &outs[3], 0, 0, 0, NEWGEN), 77u);
  for (uint64_t out : outs) EXPECT_EQ(out, BTREE_NO_KEY);
  EXPECT_EQ(Remove(5), BTREE_NO_KEY);
  EXPECT_EQ(RootLength(), 0u);
  EXPECT_EQ(BTreePrevKey(tree, 5, &value, NEWGEN), BTREE_NO_KEY);
  EXPECT_EQ(value, BTREE_NO_KEY);
  EXPECT_EQ(Contents(OLDGEN), Entries{});  // a tree new since the last commit is empty there
  // The outs give the neighbours, or the hit on both sides.
  for (uint64_t key : {10, 20, 30}) Create(key, key * 100);
  const uint64_t cases[][3] = {{5, BTREE_NO_KEY, 10}, {10, 10, 10}, {15, 10, 20}, {30, 30, 30}, {31, 30, BTREE_NO_KEY}};
  auto valueOf = [](uint64_t key) { return key == BTREE_NO_KEY ? BTREE_NO_KEY : key * 100; };
  for (const auto &[key, lower, upper] : cases) {
    uint64_t lk, lv, uk, uv;
    ULongBTreeFind(tree, key, 0, 0, &lk, &lv, &uk, &uv, 0, 0, 0, NEWGEN);
    const std::vector<uint64_t> got = {lk, lv, uk, uv};
    EXPECT_EQ(got, std::vector<uint64_t>({lower, valueOf(lower), upper, valueOf(upper)})) << key;
    EXPECT_EQ(BTreePrevKey(tree, key, &value, NEWGEN), lower);
    EXPECT_EQ(BTreeNextKey(tree, key, &value, NEWGEN), upper);
  }
  // Create and replace together write; a value equal to the not-found value
  // reads like a miss, and still goes; only the low V bytes are kept.
  EXPECT_EQ(Create(1, 10), BTREE_NO_KEY);
  EXPECT_EQ(BTreeFind(tree, 1, 12, BTREE_NO_KEY, 1, 1, 0, NEWGEN), 10u);
  EXPECT_EQ(Find(1), 12u);
  Create(3, 99);
  EXPECT_EQ(Find(3, 99), 99u);
  EXPECT_EQ(BTreeFind(tree, 3, 0, 99, 0, 0, 1, NEWGEN), 99u);
  EXPECT_EQ(Find(3), BTREE_NO_KEY);
  Create(4, 0x1122334455667788ull);
  EXPECT_EQ(Find(4), 0x55667788u);
}

TEST_F(BTreeEdge, ThirtyTwoBitKeysComeBackWidenedAndWideKeysAreRefused) {
  Open(4, 4);
  for (uint64_t key : {0ull, 7ull, 0xFFFFFFFFull}) Create(key, 1);
  EXPECT_EQ(Contents(), (Entries{{0, 1}, {7, 1}, {0xFFFFFFFF, 1}}));
  uint64_t value = 0, lk = 0;
  EXPECT_EQ(BTreePrevKey(tree, 0x100000000ull, &value, NEWGEN), 0xFFFFFFFFull);
  EXPECT_EQ(BTreeNextKey(tree, 0x100000000ull, &value, NEWGEN), BTREE_NO_KEY);
  EXPECT_EQ(Find(0x100000007ull), BTREE_NO_KEY);  // not 7: no truncation
  EXPECT_EQ(Create(0x100000000ull, 1), BTREE_NO_KEY);
  EXPECT_EQ(QWErrorCode(), 22);
  EXPECT_EQ(Contents().size(), 3u);
  UIntBTreeFind(tree, 8, 0, 0, &lk, nullptr, nullptr, nullptr, 0, 0, 0, NEWGEN);
  EXPECT_EQ(lk, 7u);
}

TEST_F(BTreeEdge, EmptiedTreeKeepsItsRootLeafAndClearEmptiesRoot) {
  Open(8, 4);
  for (uint64_t key = 0; key < 2000; ++key) Create(key, key);
  for (uint64_t key = 0; key < 2000; ++key) ASSERT_EQ(Remove(key), key);
  const std::string root = NodeBytes(RootBlock());
  EXPECT_TRUE(RawIsLeaf(root));
  EXPECT_EQ(RawKeyCount(root), 0u);
  for (uint64_t key = 0; key < 2000; ++key) Create(key, key);
  ASSERT_EQ(BTreeClear(tree, NEWGEN), 1) << QWErrorMessage();
  EXPECT_EQ(RootLength(), 0u);
  EXPECT_EQ(Contents(), Entries{});
  EXPECT_EQ(Create(5, 6), BTREE_NO_KEY);  // usable again
  EXPECT_EQ(Contents(), (Entries{{5, 6}}));
}

TEST_F(BTreeEdge, StoredValueWidthWinsAndArgumentsAreChecked) {
  Open(8, 3);
  Create(1, 0xABCDEF);
  ASSERT_NO_FATAL_FAILURE(Reopen());
  EXPECT_EQ(BTreeValueSize(tree), 3u);
  EXPECT_EQ(BTreeKeySize(tree), 8u);
  EXPECT_EQ(Find(1), 0xABCDEFu);
  EXPECT_EQ(BTreeNew_(arena, kPath, "other", 1, 0, 8, 4), nullptr);
  EXPECT_EQ(QWErrorCode(), 22);
  EXPECT_EQ(BTreeNew(arena, kPath, "other", 0, 8, 0), nullptr);
  EXPECT_EQ(QWErrorCode(), 22);
  EXPECT_EQ(BTreeNew(arena, kPath, "other", 0, 8, 9), nullptr);
  CloseAll();
  ASSERT_NO_FATAL_FAILURE(MustOpenArena(VM_FLAG_READ_ONLY));
  EXPECT_EQ(BTreeNew(arena, kPath, "absent", 0, 8, 4), nullptr);
  ASSERT_NE(tree = BTreeNew(arena, kPath, kName, 0, 8, 4), nullptr) << QWErrorMessage();
  EXPECT_EQ(BTreeFind(tree, 1, 0, 0, 0, 0, 0, OLDGEN), 0xABCDEFu);
}

TEST_F(BTreeEdge, MisuseFailsTheNamedAssertions) {
  Open(8, 4);
  EXPECT_DEATH(BTreeFind(tree, 1, 0, 0, 1, 0, 1, NEWGEN), "!create \\|\\| !remove");
  EXPECT_DEATH(BTreeFind(tree, 1, 0, 0, 1, 0, 0, OLDGEN), "genID == NEWGEN");
  EXPECT_DEATH(BTreeFind(tree, 1, 0, 0, 0, 0, 0, 2), "FALSE");
  EXPECT_DEATH(BTreeNew(arena, kPath, "x", 0, 5, 4), "FALSE");
  EXPECT_DEATH(BTreeCommit(tree, 4), "FALSE");  // not the width it was made with
  EXPECT_DEATH(UIntBTreeFind(tree, 1, 0, 0, nullptr, nullptr, nullptr, nullptr, 0, 0, 0, NEWGEN), "FALSE");
  EXPECT_DEATH(BTreeClear(tree, OLDGEN), "genID == NEWGEN");
  EXPECT_EQ(ULongBTreeInsert(tree, 1, 1, NEWGEN), 0);  // no find made a path
  EXPECT_EQ(QWErrorCode(), 22);
}

struct WalkCount {
  uint32_t calls = 0, leaves = 0, stopAt = 0;
};

TEST_F(BTreeEdge, WalksVisitEverythingOnceAndStopWhenAsked) {
  Open(4, 4);
  for (uint64_t key = 0; key < 5000; ++key) Create(key * 2, key);
  const BTreeStat stat = Check();
  ASSERT_EQ(stat.depth, 2u);
  auto countBlocks = [](uint32_t, int isLeaf, void *context) {
    auto *count = static_cast<WalkCount *>(context);
    count->leaves += isLeaf;
    return ++count->calls == count->stopAt ? 7 : 0;
  };
  WalkCount all, inner, stopped{0, 0, 3};
  EXPECT_EQ(BTreeBlockEnumerate(tree, countBlocks, &all, NEWGEN, 1), 0);
  EXPECT_EQ(all.calls, stat.leafCount + stat.internalCount);
  EXPECT_EQ(all.leaves, stat.leafCount);
  EXPECT_EQ(BTreeBlockEnumerate(tree, countBlocks, &inner, NEWGEN, 0), 0);
  EXPECT_EQ(inner.calls, stat.internalCount);
  EXPECT_EQ(inner.leaves, 0u);
  EXPECT_EQ(BTreeBlockEnumerate(tree, countBlocks, &stopped, NEWGEN, 1), 7);
  EXPECT_EQ(stopped.calls, 3u);
  uint32_t seen = 0;
  auto stopAtTen = [](uint64_t, uint64_t, void *context) { return int(++*static_cast<uint32_t *>(context) == 10); };
  EXPECT_EQ(BTreeEnumerate(tree, stopAtTen, &seen, NEWGEN), 1);
  EXPECT_EQ(seen, 10u);
  // The single steps: some only move, and every entry comes out once.
  BTreeEnumeration *e = BTreeEnumerationNew(tree, 4, NEWGEN);
  ASSERT_NE(e, nullptr);
  uint32_t entries = 0, moves = 0;
  uint64_t key = 0, value = 0;
  for (int step; (step = UIntBTreeNext_(e, &key, &value)) != 0;) {
    ASSERT_NE(step, -1) << QWErrorMessage();
    if (step == 1) EXPECT_EQ(key, uint64_t(entries++) * 2);
    else ++moves;
  }
  EXPECT_EQ(entries, 5000u);
  EXPECT_GE(moves, 2 * stat.leafCount);  // down to and back from every leaf
  BTreeEnumerationFree(e);
  BTreeEnumerationFree(BTreeEnumerationNew(tree, 4, NEWGEN));  // freed before use
}

TEST_F(BTreeEdge, LockRegistrationLocksTheFullTree) {
  Open(8, 4);
  for (uint64_t key = 0; key < 3000; ++key) Create(key, key);
  ASSERT_TRUE(Commit()) << QWErrorMessage();
  {
    qwtest::MessageCapture capture;
    EXPECT_EQ(BTreeLockRegister(tree, 8, 0, OLDGEN), 1) << QWErrorMessage();
    EXPECT_TRUE(capture.contains("Only full btree lock is supported for pagecache locking", QW_LEVEL_ERROR));
    capture.clear();
    EXPECT_EQ(BTreeLockRegister(tree, 8, 1, NEWGEN), 1) << QWErrorMessage();
    EXPECT_TRUE(capture.messages().empty());
  }
  EXPECT_EQ(Find(2999, 0, OLDGEN), 2999u);  // locked generations read and change as before
  EXPECT_EQ(Create(5000, 1), BTREE_NO_KEY);
  EXPECT_EQ(Check().entryCount, 3001u);
}

}  // namespace
}  // namespace bttest
