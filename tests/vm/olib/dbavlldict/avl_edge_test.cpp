// The AVL dictionary's stated edge cases: the stored record format, keys of
// 2^32 and more, nearest-key queries at and between the ends, clearing,
// enumeration stopped early, defaults of absent keys, and the argument
// assertions.
#include "avl_fixture.h"

namespace {

using avltest::AVLTest;
using avltest::Record;

constexpr uint32_t kSkew = 0x80000000u;

TEST_F(AVLTest, RecordsHoldSonsSkewsKeysAndValuesAsStored) {
  Open();
  ASSERT_EQ(NodeCount(), 2u);  // node 0 and the header
  for (uint64_t key : {20, 10, 30, 40}) ASSERT_EQ(QWDBAVLLDictInsert(dict, key, key * 3, 0, NEWGEN), 0u);
  // Nodes in allocation order: 2 = 20 (root), 3 = 10, 4 = 30, 5 = 40.
  const Record header = ReadRecord(1), root = ReadRecord(2), ten = ReadRecord(3), thirty = ReadRecord(4),
               forty = ReadRecord(5);
  EXPECT_EQ(header.right, 2u);
  EXPECT_EQ(header.left, 0u);
  EXPECT_EQ(header.key, 0u);
  EXPECT_EQ(root.left, 3u);
  EXPECT_EQ(root.right, 4u | kSkew);  // right-heavy
  EXPECT_EQ(thirty.right, 5u | kSkew);
  EXPECT_EQ(thirty.left, 0u);
  EXPECT_EQ(ten.right | ten.left, 0u);
  EXPECT_EQ(forty.right | forty.left, 0u);
  EXPECT_EQ(forty.key, 40u);
  EXPECT_EQ(forty.value, 120u);
  // Params: two live-count and free-list elements.
  EXPECT_EQ(QWDBAVLLDictSize(dict, NEWGEN), 4u);
  // Removing 20 moves its in-order neighbour from the left (10) into node
  // 2 and frees node 3, which heads the free list, chained by n_right.
  ASSERT_EQ(QWDBAVLLDictRemove(dict, 20, 0, NEWGEN), 60u);
  EXPECT_EQ(ReadRecord(0).key, 20u);  // the sentinel
  // 10 was cut from node 2's left: it leaned right by two, so 30 rotates up.
  EXPECT_EQ(ReadRecord(1).right, 4u);
  const Record newRoot = ReadRecord(4), moved = ReadRecord(2);
  EXPECT_EQ(newRoot.left, 2u);
  EXPECT_EQ(newRoot.right, 5u);
  EXPECT_EQ(moved.key, 10u);
  EXPECT_EQ(moved.value, 30u);
  EXPECT_EQ(moved.right | moved.left, 0u);
  EXPECT_EQ(ReadRecord(3).right, 0u);  // free list: 3 -> end
  // The next insert reuses node 3.
  ASSERT_EQ(QWDBAVLLDictInsert(dict, 50, 1, 0, NEWGEN), 0u);
  EXPECT_EQ(NodeCount(), 6u);
  EXPECT_EQ(ReadRecord(5).right, 3u | kSkew);
  EXPECT_EQ(DBAVLLCheck(dict, NEWGEN), 1) << QWErrorMessage();
}

TEST_F(AVLTest, KeysOfTwoToTheThirtyTwoAndMoreAreStoredButNeverFound) {
  Open();
  const uint64_t big = (uint64_t(1) << 32) + 5;
  for (uint64_t key : {10, 20, 30}) ASSERT_EQ(QWDBAVLLDictInsert(dict, key, key, 0, NEWGEN), 0u);
  // Greater than every stored key: inserted each time, never replaced.
  EXPECT_EQ(QWDBAVLLDictInsert(dict, big, 0x1FFFFFFFFull, 77, NEWGEN), 77u);
  EXPECT_EQ(QWDBAVLLDictInsert(dict, big, 8, 77, NEWGEN), 77u);
  EXPECT_EQ(QWDBAVLLDictSize(dict, NEWGEN), 5u);
  EXPECT_EQ(QWDBAVLLDictFind(dict, big, 99, NEWGEN), 99u);
  EXPECT_EQ(QWDBAVLLDictRemove(dict, big, 98, NEWGEN), 98u);  // ends at node 0, not the sentinel
  EXPECT_EQ(QWDBAVLLDictFindNearest(dict, big, 1, NEWGEN), 0u);
  EXPECT_EQ(QWDBAVLLDictFindNearest(dict, big, 0, NEWGEN), 5u);  // reads as its low 32 bits
  // All 64 bits are stored; reads return the low 32.
  uint32_t rightmost = 0;
  for (uint32_t i = 2; i < NodeCount(); ++i)
    if (ReadRecord(i).key == big && ReadRecord(i).value == 0x1FFFFFFFFull) rightmost = i;
  EXPECT_NE(rightmost, 0u);
  const auto entries = Entries(NEWGEN);
  ASSERT_EQ(entries.size(), 5u);
  EXPECT_EQ(entries[3], std::make_pair(uint64_t(5), uint64_t(0xFFFFFFFF)));
  EXPECT_EQ(entries[4], std::make_pair(uint64_t(5), uint64_t(8)));
  EXPECT_EQ(DBAVLLCheck(dict, NEWGEN), 1) << QWErrorMessage();
}

TEST_F(AVLTest, NearestKeyInAllThreeDirections) {
  Open();
  for (uint64_t key : {10, 20, 40, 100}) ASSERT_EQ(QWDBAVLLDictInsert(dict, key, 1, 0, NEWGEN), 0u);
  struct Case {
    uint64_t key;
    uint64_t below, closest, above;
  };
  const Case cases[] = {
      {20, 20, 20, 20},    // present
      {15, 10, 20, 20},    // exactly between: the upper one
      {30, 20, 40, 40},    // exactly between
      {29, 20, 20, 40},    // closer below
      {31, 20, 40, 40},    // closer above
      {5, 0, 10, 10},      // below the first key
      {0, 0, 10, 10},
      {101, 100, 100, 0},  // beyond the last key
      {uint64_t(1) << 40, 100, 100, 0},
  };
  for (const Case &c : cases) {
    SCOPED_TRACE(c.key);
    EXPECT_EQ(QWDBAVLLDictFindNearest(dict, c.key, -1, NEWGEN), c.below);
    EXPECT_EQ(QWDBAVLLDictFindNearest(dict, c.key, 0, NEWGEN), c.closest);
    EXPECT_EQ(QWDBAVLLDictFindNearest(dict, c.key, 1, NEWGEN), c.above);
  }
  // A stored key 0 reads like a missing neighbour in the closest mode.
  ASSERT_EQ(QWDBAVLLDictInsert(dict, 0, 1, 0, NEWGEN), 0u);
  EXPECT_EQ(QWDBAVLLDictFindNearest(dict, 2, 0, NEWGEN), 10u);
  EXPECT_EQ(QWDBAVLLDictFindNearest(dict, 2, -1, NEWGEN), 0u);
  EXPECT_EQ(QWDBAVLLDictFindNearest(dict, 0, 0, NEWGEN), 0u);  // present
}

TEST_F(AVLTest, EnumerationBothWaysStopsWhenTheCallbackSaysSo) {
  Open();
  for (uint64_t key = 1; key <= 100; ++key) ASSERT_EQ(QWDBAVLLDictInsert(dict, key * 7 % 101, key, 0, NEWGEN), 0u);
  struct Walk {
    std::vector<uint64_t> keys;
    size_t stopAfter;
  };
  auto take = [](QWDBAVLLDict *, uint64_t key, uint64_t, void *context) {
    auto *walk = static_cast<Walk *>(context);
    walk->keys.push_back(key);
    return walk->keys.size() < walk->stopAfter ? 1 : 0;
  };
  for (int descending : {0, 1}) {
    for (size_t stopAfter : {size_t(1), size_t(37), size_t(100), size_t(1000)}) {
      Walk walk{{}, stopAfter};
      const int completed = QWDBAVLLDictEnumerate(dict, descending, take, &walk, NEWGEN);
      EXPECT_EQ(completed, stopAfter > 100 ? 1 : 0);
      EXPECT_FALSE(QWErrorIsSet());
      ASSERT_EQ(walk.keys.size(), std::min<size_t>(stopAfter, 100));
      for (size_t i = 0; i < walk.keys.size(); ++i)
        EXPECT_EQ(walk.keys[i], descending ? 100 - i : i + 1);
    }
  }
}

TEST_F(AVLTest, ClearAppendsTwoRecordsAndTheCommittedTreeStays) {
  Open();
  for (uint64_t key = 1; key <= 50; ++key) ASSERT_EQ(QWDBAVLLDictInsert(dict, key, key, 0, NEWGEN), 0u);
  ASSERT_TRUE(Commit()) << QWErrorMessage();
  ASSERT_EQ(NodeCount(), 52u);
  ASSERT_EQ(QWDBAVLLDictClear(dict, NEWGEN), 1) << QWErrorMessage();
  EXPECT_EQ(NodeCount(), 54u);
  EXPECT_EQ(QWDBAVLLDictSize(dict, NEWGEN), 0u);
  EXPECT_EQ(ReadRecord(1).right, 0u);
  EXPECT_TRUE(Entries(NEWGEN).empty());
  EXPECT_EQ(QWDBAVLLDictSize(dict, OLDGEN), 50u);
  EXPECT_EQ(Entries(OLDGEN).size(), 50u);
  ASSERT_EQ(QWDBAVLLDictInsert(dict, 9, 9, 0, NEWGEN), 0u);
  EXPECT_EQ(NodeCount(), 55u);  // appended after the junk
  EXPECT_EQ(QWDBAVLLDictFind(dict, 9, 0, OLDGEN), 9u);
  EXPECT_EQ(QWDBAVLLDictFind(dict, 10, 0, NEWGEN), 0u);
}

TEST_F(AVLTest, OldGenerationIsEmptyUntilTheFirstCommitAndSurvivesReopen) {
  Open();
  ASSERT_EQ(QWDBAVLLDictInsert(dict, 3, 4, 0, NEWGEN), 0u);
  EXPECT_EQ(QWDBAVLLDictSize(dict, OLDGEN), 0u);
  EXPECT_EQ(QWDBAVLLDictFind(dict, 3, 8, OLDGEN), 8u);
  EXPECT_EQ(QWDBAVLLDictFindNearest(dict, 5, 0, OLDGEN), 0u);
  EXPECT_TRUE(Entries(OLDGEN).empty());
  EXPECT_EQ(DBAVLLCheck(dict, OLDGEN), 1);
  ASSERT_TRUE(Commit());
  // The same record now finds the committed arrays.
  EXPECT_EQ(QWDBAVLLDictFind(dict, 3, 8, OLDGEN), 4u);
  ASSERT_EQ(QWDBAVLLDictInsert(dict, 3, 5, 0, NEWGEN), 4u);
  EXPECT_EQ(QWDBAVLLDictFind(dict, 3, 8, OLDGEN), 4u);
  Reopen();
  EXPECT_EQ(QWDBAVLLDictFind(dict, 3, 8, NEWGEN), 4u);
  // Read-only: an existing dictionary opens, a missing one does not.
  CloseAll();
  Open(VM_FLAG_READ_ONLY);
  EXPECT_EQ(QWDBAVLLDictFind(dict, 3, 8, OLDGEN), 4u);
  EXPECT_EQ(QWDBAVLLDictNew(arena, "elsewhere", nullptr, 0), nullptr);
  EXPECT_EQ(QWErrorCode(), 2);
}

TEST_F(AVLTest, ArgumentsAreChecked) {
  Open();
  EXPECT_EQ(QWDBAVLLDictNew_(arena, "x", "y", 1, 0), nullptr);
  EXPECT_EQ(QWErrorCode(), 22);
  QWDBAVLLDict *scanned = QWDBAVLLDictNew(arena, avltest::kPath, avltest::kName, 1);  // the same arrays, found by scanning
  ASSERT_NE(scanned, nullptr) << QWErrorMessage();
  ASSERT_EQ(QWDBAVLLDictInsert(dict, 1, 2, 0, NEWGEN), 0u);
  EXPECT_EQ(QWDBAVLLDictFind(scanned, 1, 0, NEWGEN), 2u);
  QWDBAVLLDictDelete(scanned);
  QWDBAVLLDictDelete(nullptr);
  EXPECT_DEATH(QWDBAVLLDictInsert(dict, 1, 1, 0, OLDGEN), "genID == NEWGEN");
  EXPECT_DEATH(QWDBAVLLDictRemove(dict, 1, 0, OLDGEN), "genID == NEWGEN");
  EXPECT_DEATH(QWDBAVLLDictClear(dict, OLDGEN), "genID == NEWGEN");
  EXPECT_DEATH(QWDBAVLLDictFind(dict, 1, 0, 2), "FALSE");
  EXPECT_DEATH(QWDBAVLLDictSize(dict, 2), "FALSE");
  EXPECT_DEATH(DBAVLLCheck(dict, 2), "FALSE");
}

}  // namespace
