// Edge cases of lookups and changes the model does not reach, the facade's arguments, walks, the iterator and lock
// registration; the node layout byte by byte, the first split, and damaged nodes (the arena is tagged first).
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
  // Create and replace together write; a value equal to the not-found value reads like a miss, and still goes; only the
  // low V bytes are kept.
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
  EXPECT_TRUE(olibtest::Fails(Create(0x100000000ull, 1), BTREE_NO_KEY, 22));
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
  for (uint32_t width : {0u, 9u}) {  // no tree could be made with these, an existing one opens
    BTree *again = BTreeNew(arena, kPath, kName, 0, 8, width);
    ASSERT_NE(again, nullptr) << width << ": " << QWErrorMessage();
    EXPECT_EQ(BTreeValueSize(again), 3u);
    EXPECT_EQ(BTreeFind(again, 1, 0, 0, 0, 0, 0, NEWGEN), 0xABCDEFu);
    BTreeFree(again, 8);
  }
  // Presence decides, not the value: create on a key holding the not-found value changes nothing.
  EXPECT_EQ(BTreeFind(tree, 1, 9, 0xABCDEF, 1, 0, 0, NEWGEN), 0xABCDEFu);
  EXPECT_EQ(Contents(), (Entries{{1, 0xABCDEF}}));
  EXPECT_TRUE(olibtest::Fails(BTreeNew_(arena, kPath, "other", 1, 0, 8, 4), nullptr, 22));
  EXPECT_TRUE(olibtest::Fails(BTreeNew(arena, kPath, "other", 0, 8, 0), nullptr, 22));
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
  EXPECT_TRUE(olibtest::Fails(ULongBTreeInsert(tree, 1, 1, NEWGEN), 0, 22));  // no find made a path
  // A split of a node that is not full: the arena is tagged before the assertion fails.
  for (uint64_t k = 0; k < 10; ++k) Create(k, k);
  uint64_t key = 100, value = 1;
  uint32_t son = INVALID_BLOCK_ID;
  ASSERT_FALSE(Tagged());
  EXPECT_DEATH(ULongBTreeSplitInsert(tree, &key, &value, &son, 10, RootBlock(), 1, NEWGEN),
               "BTreeMaxKeyCount\\(btree, isLeaf\\) == keyCount");
  EXPECT_TRUE(Tagged());
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

using BTreeFormat = BTreeTest;

struct LayoutCase {
  uint32_t keySize, valueSize, leafMax;
};

TEST_F(BTreeFormat, LeafBytesAndFanOuts) {
  const LayoutCase cases[] = {{8, 4, 682}, {8, 5, 629}, {4, 4, 1023}, {8, 1, 909}, {4, 8, 682}, {8, 8, 511}};
  Open(8, 4);
  BTreeFree(tree, 8);
  uint32_t n = 0;
  for (const LayoutCase &c : cases) {
    SCOPED_TRACE(testing::Message() << "K=" << c.keySize << " V=" << c.valueSize);
    keySize = c.keySize;
    ASSERT_NE(tree = BTreeNew(arena, kPath, ("t" + std::to_string(n++)).c_str(), 0, c.keySize, c.valueSize), nullptr);
    const uint64_t mask = c.keySize == 4 ? 0xFFFFFFFFull : ~0ull;
    const uint64_t keys[] = {0x0102030405060708ull & mask, 0x1112131415161718ull & mask};
    Create(keys[1], 0xA1A2A3A4A5A6A7A8ull);
    Create(keys[0], 0xB1B2B3B4B5B6B7B8ull);
    const std::string node = NodeBytes(RootBlock());
    EXPECT_TRUE(RawIsLeaf(node));
    EXPECT_EQ(RawKeyCount(node), 2u);
    EXPECT_EQ(LE(node, 0, c.keySize), keys[0]);  // ascending, little-endian
    EXPECT_EQ(LE(node, c.keySize, c.keySize), keys[1]);
    std::string expect;  // the low V bytes, most significant first
    for (uint32_t i = 0; i < c.valueSize; ++i) expect += char(0xB1 + 8 - c.valueSize + i);
    for (uint32_t i = 0; i < c.valueSize; ++i) expect += char(0xA1 + 8 - c.valueSize + i);
    EXPECT_EQ(node.substr(size_t(c.leafMax) * c.keySize, 2 * c.valueSize), expect);
    // Fill one leaf exactly, then split it: the fan-outs of both kinds.
    for (uint64_t k = 2; k < c.leafMax; ++k) Create(keys[1] + k, k);
    EXPECT_EQ(Check().depth, 1u);
    Create(keys[1] + c.leafMax, 1);
    EXPECT_EQ(Check().depth, 2u);
    // Ascending keys split at n / 2 + 1: an even n leaves the right part one key short of half, which the check
    // accepts.
    std::vector<uint32_t> leaves;
    auto collect = [](uint32_t blockID, int isLeaf, void *out) {
      if (isLeaf) static_cast<std::vector<uint32_t> *>(out)->push_back(blockID);
      return 0;
    };
    BTreeBlockEnumerate(tree, collect, &leaves, NEWGEN, 1);
    ASSERT_EQ(leaves.size(), 2u);
    EXPECT_EQ(RawKeyCount(NodeBytes(leaves[0])), c.leafMax / 2 + 1);
    EXPECT_EQ(RawKeyCount(NodeBytes(leaves[1])), c.leafMax - c.leafMax / 2 - 1);
    BTreeFree(tree, keySize);
    tree = nullptr;
  }
}

// The first split's internal node: the key at n / 2 + 1 moves up, the old root is son 0, the rest and the new key go
// right. The split takes a block for the new right leaf, then one for the new root: a first run learns the two blocks
// the arena hands out next, an identical second run splits.
TEST_F(BTreeFormat, FirstSplitTakesItsBlocksInOrderAndInternalNodeBytes) {
  const uint32_t n = 629, innerMax = 481;
  uint32_t next[2], oldRoot = 0;
  for (int run = 0; run < 2; ++run) {
    Wipe();
    Open(8, 5);
    oldRoot = (Create(0, 0), RootBlock());
    for (uint64_t k = 1; k < n; ++k) Create(k * 10, k);
    if (run == 1) break;
    for (uint32_t &id : next) ASSERT_NE(id = VMArenaDataBlockNew(arena, 0, 0), INVALID_BLOCK_ID);
  }
  Create(uint64_t(n) * 10, n);
  const uint32_t root = RootBlock();
  EXPECT_EQ(root, next[1]);
  const std::string top = NodeBytes(root);
  EXPECT_FALSE(RawIsLeaf(top));
  EXPECT_EQ(uint8_t(top[8189]), 0u);
  EXPECT_EQ(RawKeyCount(top), 1u);
  const uint32_t mid = n / 2 + 1;
  EXPECT_EQ(LE(top, 0, 8), uint64_t(mid) * 10);
  const size_t valueOffset = size_t(innerMax) * 8, sonOffset = valueOffset + size_t(innerMax) * 5;
  EXPECT_EQ(top.substr(valueOffset, 5), std::string("\0\0\0", 3) + char(mid >> 8) + char(mid & 0xFF));
  EXPECT_EQ(LE(top, sonOffset, 4), oldRoot);
  const uint32_t right = uint32_t(LE(top, sonOffset + 4, 4));
  EXPECT_EQ(right, next[0]);
  EXPECT_EQ(RawKeyCount(NodeBytes(oldRoot)), mid);
  EXPECT_EQ(RawKeyCount(NodeBytes(right)), n - mid);
  EXPECT_EQ(LE(NodeBytes(right), 0, 8), uint64_t(mid + 1) * 10);
}

// Stored nodes that break the layout, each with what a lookup reports.
TEST_F(BTreeFormat, DamagedNodesTagTheArenaAndFailTheCall) {
  struct Damage {
    const char *what;
    bool leaf;  // poke the last key of the first leaf instead of the root
    uint32_t offset;
    std::string bytes;
  };
  const uint32_t sonOffset = 511 * 8 + 511 * 4;
  const Damage damages[] = {
      {"key count above its maximum", false, 8190, std::string("\xFF\x0F", 2)},
      {"son names no block", false, sonOffset, std::string("\xFF\xFF\xFF\xFF", 4)},
      {"son names a block that does not exist", false, sonOffset, std::string("\x00\x00\xF0\x0F", 4)},
      {"keys outside their parent's separators", true, 0, std::string(8, '\x7F')},
      {"internal node without keys", false, 8190, std::string("\0\0", 2)},
  };
  for (const Damage &d : damages) {
    SCOPED_TRACE(d.what);
    Wipe();
    Open(8, 4);
    for (uint64_t k = 0; k < 1000; ++k) Create(k, k);
    const uint32_t root = RootBlock();
    const uint32_t firstLeaf = uint32_t(LE(NodeBytes(root), sonOffset, 4));
    const uint32_t offset = d.leaf ? (RawKeyCount(NodeBytes(firstLeaf)) - 1) * 8 : d.offset;
    PokeNode(d.leaf ? firstLeaf : root, offset, d.bytes);
    EXPECT_EQ(Find(0, 12345), 12345u);
    ExpectDataError(d.what);
    EXPECT_EQ(BTreeCheck(tree, NEWGEN, nullptr), 0);
  }
}

TEST_F(BTreeFormat, CheckReportsWithoutTagging) {
  Open(4, 4);
  for (uint64_t k = 0; k < 100; ++k) Create(k, k);
  PokeNode(RootBlock(), 4, std::string("\0\0\0\0", 4));  // key 1 becomes 0
  EXPECT_EQ(BTreeCheck(tree, NEWGEN, nullptr), 0);
  EXPECT_NE(std::string(QWErrorMessage()).find("keys out of order"), std::string::npos) << QWErrorMessage();
  EXPECT_FALSE(Tagged());
}

}  // namespace
}  // namespace bttest
