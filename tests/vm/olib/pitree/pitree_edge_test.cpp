// Edge cases of symbol-sequence trees the model does not reach: prefix
// results, bad requests, atoms ending at head nodes and slots reused,
// clear, read-only arenas, the named assertions and regressions.
#include "pitree_fixture.h"

namespace {

using pittest::Atom;
using pittest::FromText;
using pittest::PITreeTest;

TEST_F(PITreeTest, PrefixResultsAndBadRequests) {
  Open();
  EXPECT_EQ(lastCreated, 1);
  const Atom a = FromText("alpha"), b = FromText("alp"), z = FromText("zeta"), longer = FromText("alphabet");
  ASSERT_EQ(Insert(a, 11), 11u);
  ASSERT_EQ(Insert(b, 3), 3u);
  // The results list: every stored prefix, then the atom itself.
  uint64_t *results = nullptr;
  EXPECT_EQ(PITreeFindAll(tree, td, a.data(), uint32_t(a.size()), 0, NEWGEN, 0, 0, 0, &results), 11u);
  EXPECT_EQ(std::vector<uint64_t>(results, results + ArrayLength(results)), (std::vector<uint64_t>{3, 11}));
  EXPECT_EQ(PITreeFindAll(tree, td, longer.data(), uint32_t(longer.size()), 0, NEWGEN, 0, 0, 0, &results), 0u);
  EXPECT_EQ(ArrayLength(results), 2u);
  ArrayFree(results);
  // Bad requests fail cleanly and change nothing.
  EXPECT_EQ(Insert(z, 0), 0u);
  EXPECT_EQ(QWErrorCode(), 22);
  EXPECT_EQ(PITreeFind(tree, td, z.data(), uint32_t(z.size()), 5, NEWGEN, 1, 1, 0), 0u);
  EXPECT_EQ(QWErrorCode(), 22);
  EXPECT_EQ(PITreeGetSize(tree, NEWGEN), 2u);
}

// An atom that ends where a head node branches keeps its data in that node;
// removing everything empties the head tree, and the next pass reuses the
// freed slots and leaves.
TEST_F(PITreeTest, AtomsEndingAtHeadNodesAndSlotReuse) {
  Open();
  Atom stem;
  for (uint32_t k = 0; k < 600; ++k) stem.push_back('a' + k % 26);
  auto below = [&](uint32_t j) {
    Atom atom = stem;
    atom.insert(atom.end(), {j, j * 3});
    return atom;
  };
  for (int pass = 0; pass < 2; ++pass) {
    ASSERT_EQ(Insert(stem, 1), 1u);
    for (uint32_t j = 0; j < 300; ++j) ASSERT_EQ(Insert(below(j), j + 2), j + 2) << QWErrorMessage();
    uint64_t *results = nullptr;
    const Atom seven = below(7);
    EXPECT_EQ(PITreeFindAll(tree, td, seven.data(), uint32_t(seven.size()), 0, NEWGEN, 0, 0, 0, &results), 9u);
    EXPECT_EQ(std::vector<uint64_t>(results, results + ArrayLength(results)), (std::vector<uint64_t>{1, 9}));
    ArrayFree(results);
    EXPECT_EQ(Enumerate(stem, 0).size(), 1u);
    EXPECT_EQ(Enumerate(stem, 2).size(), 301u);
    for (uint32_t j = 0; j < 300; ++j) ASSERT_EQ(Remove(below(j)), j + 2);
    EXPECT_EQ(PITreeGetSize(tree, NEWGEN), 1u);
    EXPECT_EQ(Remove(stem), 1u);
    EXPECT_EQ(PITreeEmpty(tree, NEWGEN), 1) << QWErrorMessage();
  }
}

// Length of leaf `leaf` of the tree "words" in its leaf array (0 when empty),
// read through an array record of its own.
uint32_t ArrayLeafLength(VMArena *arena, uint32_t leaf) {
  uint8_t *scratch = nullptr;
  int mayCreate = 0;
  DBArray *leaves = DBArrayNew(arena, &scratch, "dict/words/pitree/leaf", &mayCreate, 0, PITREE_LEAF_BUCKETS);
  ArrayFree(scratch);
  EXPECT_NE(leaves, nullptr) << QWErrorMessage();
  if (!leaves) return UINT32_MAX;
  uint32_t length = 0;
  const void *bytes = DBArrayGet(leaves, leaf % PITREE_LEAF_BUCKETS, leaf / PITREE_LEAF_BUCKETS, NEWGEN, 1, &length);
  DBArrayRelease(leaves, NEWGEN, 1, bytes);
  DBArrayFree(leaves);
  return length;
}

// Trees written before small leaves moved into head slots keep them in the
// leaf array: such a leaf reads as before, and its next change moves it into
// a slot and gives its number back.
TEST_F(PITreeTest, SmallLeafInTheLeafArrayReadsAndMovesToASlotOnChange) {
  Open();
  const std::string tail(300, 'x');  // two of them pass a slot's room
  ASSERT_EQ(Insert(FromText("ab" + tail), 1), 1u);
  ASSERT_EQ(Insert(FromText("ac" + tail), 2), 2u);
  // Leaf 0, the root, rewritten to hold "ab" -> 1 and "ac" -> 2: a node with
  // skip "a" and branches b, c (first child 2 bytes), each child a value.
  // Varints hold value << 1.
  const std::vector<uint8_t> small = {((1 << 2) | 1) << 1, 'a', 0x01, 'b', 'c', 2 << 1, 2 << 1, 1 << 1, 2 << 1, 2 << 1};
  ASSERT_TRUE(PITreeFillLeaf(tree, 0, small.data(), uint32_t(small.size()), NEWGEN)) << QWErrorMessage();
  EXPECT_EQ(Find(FromText("ab")), 1u);
  EXPECT_EQ(Find(FromText("ab" + tail)), 0u);
  EXPECT_EQ(ArrayLeafLength(arena, 0), small.size());
  ASSERT_EQ(Insert(FromText("ad"), 3), 3u) << QWErrorMessage();
  EXPECT_EQ(ArrayLeafLength(arena, 0), 0u) << "leaf 0 was emptied";
  ASSERT_TRUE(Commit());
  Reopen();
  EXPECT_EQ(Enumerate({}, PITREE_DEPTH_UNLIMITED),
            (pittest::Listing{{FromText("ab"), 1}, {FromText("ac"), 2}, {FromText("ad"), 3}}));
  // The number given back is used again by the next leaf too large for a slot.
  const std::string longTail(600, 'x');
  ASSERT_EQ(Insert(FromText("b" + longTail), 4), 4u);
  EXPECT_GT(ArrayLeafLength(arena, 0), 600u);
  EXPECT_EQ(Find(FromText("b" + longTail)), 4u);
}

// Element `i` of the tree "words"' head index in the new generation.
uint32_t HeadIndexAt(VMArena *arena, uint32_t i) {
  uint8_t *scratch = nullptr;
  uint32_t index = VMA_NO_ARRAY, end = 0, value = UINT32_MAX;
  const bool found =
      VMAArrayLookupFromPath(arena, NEWGEN, &scratch, "dict/words/pitree/head", "headIndex", 0, &index) != 0;
  ArrayFree(scratch);
  EXPECT_TRUE(found) << QWErrorMessage();
  if (!found) return value;
  const void *p = VMAArrayRange_(arena, index, 0, 8192, i, &end, NEWGEN, 1, 4, 0);
  EXPECT_NE(p, nullptr) << QWErrorMessage();
  if (p) std::memcpy(&value, p, 4);
  VMAArrayRelease_(arena, index, const_cast<void *>(p), 1);
  return value;
}

// A slot leaf lives in the smallest slot class that holds it: it moves up
// as it grows and back down as it shrinks, giving the larger slot back.
TEST_F(PITreeTest, SlotLeavesMoveBetweenClassesAsTheyGrowAndShrink) {
  Open();
  auto key = [](uint32_t i) { return FromText("k" + std::string(20, char('a' + i))); };
  auto rootClass = [&] { return HeadIndexAt(arena, 0) >> 28; };
  ASSERT_EQ(Insert(key(0), 1), 1u);
  EXPECT_EQ(rootClass(), 0u) << "one short key fits 32 bytes";
  for (uint32_t i = 1; i < 12; ++i) ASSERT_EQ(Insert(key(i), i + 1), i + 1u);
  EXPECT_EQ(rootClass(), 2u) << "twelve keys pass 128 bytes";
  const uint32_t bigSlot = HeadIndexAt(arena, 0) & 0x0FFFFFFF;
  for (uint32_t i = 1; i < 12; ++i) ASSERT_EQ(Remove(key(i)), i + 1u);
  EXPECT_EQ(rootClass(), 0u);
  EXPECT_EQ(HeadIndexAt(arena, 2 + 2), bigSlot) << "the 512-byte slot is on its class's free list";
  ASSERT_TRUE(Commit());
  Reopen();
  EXPECT_EQ(Enumerate({}, PITREE_DEPTH_UNLIMITED), (pittest::Listing{{key(0), 1}}));
}

TEST_F(PITreeTest, ClearReopenAndReadOnlyArena) {
  Open();
  for (uint32_t i = 1; i <= 500; ++i) ASSERT_EQ(Insert({i, i * 7, 0xFFFFFFFFu}, i), i);
  ASSERT_TRUE(Commit());
  ASSERT_TRUE(PITreeClear(tree, NEWGEN)) << QWErrorMessage();
  EXPECT_EQ(PITreeEmpty(tree, NEWGEN), 1);
  EXPECT_EQ(PITreeGetSize(tree, NEWGEN), 0u);
  EXPECT_EQ(Find({5, 35, 0xFFFFFFFFu}), 0u);
  EXPECT_EQ(Find({5, 35, 0xFFFFFFFFu}, OLDGEN), 5u);
  EXPECT_EQ(Insert({1}, 4), 4u);
  Reopen();
  EXPECT_EQ(lastCreated, 0);
  EXPECT_EQ(Find({5, 35, 0xFFFFFFFFu}), 5u);  // the clear was never committed
  EXPECT_EQ(Find({1}), 0u);
  CloseAll();
  Open(VM_FLAG_READ_ONLY);
  EXPECT_EQ(PITreeGetSize(tree, OLDGEN), 500u);
  EXPECT_EQ(Find({500, 3500, 0xFFFFFFFFu}, OLDGEN), 500u);
  EXPECT_DEATH(Insert({1}, 1), "assertion failed: !create");
}

TEST_F(PITreeTest, NamedAssertions) {
  Open();
  PITree *scanned = OpenTree(arena, "scanned", 1);
  ASSERT_NE(scanned, nullptr) << QWErrorMessage();
  EXPECT_DEATH(PITreeGetSize(scanned, NEWGEN), "assertion failed: FALSE");
  EXPECT_TRUE(PITreeUpdateSize(scanned, 1, 1, 0, NEWGEN));  // nothing to count
  PITreeFree(scanned);
  const uint32_t s = 1;
  EXPECT_DEATH(PITreeFind(tree, td, &s, 0, 0, NEWGEN, 0, 0, 0), "assertion failed: nodeLen != 0");
  EXPECT_DEATH(PITreeFind(tree, nullptr, &s, 1, 0, NEWGEN, 0, 0, 0), "assertion failed: threadData != NULL");
  EXPECT_DEATH(PITreeFind(tree, td, &s, 1, 1, OLDGEN, 1, 0, 0), "assertion failed: genID == NEWGEN");
  EXPECT_DEATH(PITreeFillLeaf(tree, 0, "x", 1, OLDGEN), "assertion failed: genID == NEWGEN");
  EXPECT_DEATH(PITreeFind(tree, td, &s, 1, 0, 2, 0, 0, 0), "assertion failed: FALSE");
}

// Found by fuzzing: a store whose leaf array lost some of its buckets sent
// leaf reads past the array's end; open must refuse it as corrupted.
TEST_F(PITreeTest, LeafArrayWithTheWrongBucketCountIsCorrupted) {
  ASSERT_NO_FATAL_FAILURE(MustOpenArena(VM_FLAG_CREATE));
  uint8_t *scratch = nullptr;
  int created = 1;
  DBArray *leaves = DBArrayNew(arena, &scratch, "dict/words/pitree/leaf", &created, 0, 3);
  ASSERT_NE(leaves, nullptr) << QWErrorMessage();
  DBArrayFree(leaves);
  ArrayFree(scratch);
  EXPECT_EQ(OpenTree(arena), nullptr);
  EXPECT_EQ(QWErrorClass(), QW_ERROR_CLASS_DATA);
  EXPECT_NE(std::string(QWErrorMessage()).find("the leaf array has the wrong number of buckets (3)"), std::string::npos)
      << QWErrorMessage();
}

}  // namespace
