// Edge cases of the AVL dictionary the model does not reach (the record format, keys of 2^32 and more, nearest keys,
// early stops, read-only opens), damaged records and misuse: the arena is tagged first, then the call fails with a data
// error or the named assertion fails.
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
  auto sons = [&](uint32_t node) { return std::make_pair(ReadRecord(node).right, ReadRecord(node).left); };
  EXPECT_EQ(sons(1), std::make_pair(2u, 0u));
  EXPECT_EQ(ReadRecord(1).key, 0u);
  EXPECT_EQ(sons(2), std::make_pair(4u | kSkew, 3u));  // right-heavy
  EXPECT_EQ(sons(3), std::make_pair(0u, 0u));
  EXPECT_EQ(sons(4), std::make_pair(5u | kSkew, 0u));
  EXPECT_EQ(sons(5), std::make_pair(0u, 0u));
  EXPECT_EQ(std::make_pair(ReadRecord(5).key, ReadRecord(5).value), std::make_pair(uint64_t(40), uint64_t(120)));
  // Removing 20 moves its in-order neighbour from the left (10) into node 2 and frees node 3, which heads the free
  // list, chained by n_right.
  ASSERT_EQ(QWDBAVLLDictRemove(dict, 20, 0, NEWGEN), 60u);
  EXPECT_EQ(ReadRecord(0).key, 20u);  // the sentinel
  // 10 was cut from node 2's left: it leaned right by two, so 30 rotates up.
  EXPECT_EQ(ReadRecord(1).right, 4u);
  EXPECT_EQ(sons(4), std::make_pair(5u, 2u));
  EXPECT_EQ(sons(2), std::make_pair(0u, 0u));
  EXPECT_EQ(std::make_pair(ReadRecord(2).key, ReadRecord(2).value), std::make_pair(uint64_t(10), uint64_t(30)));
  EXPECT_EQ(ReadRecord(3).right, 0u);  // free list: 3 -> end
  ASSERT_EQ(QWDBAVLLDictInsert(dict, 50, 1, 0, NEWGEN), 0u);  // reuses node 3
  EXPECT_EQ(NodeCount(), 6u);
  EXPECT_EQ(ReadRecord(5).right, 3u | kSkew);
  EXPECT_EQ(DBAVLLCheck(dict, NEWGEN), 1) << QWErrorMessage();
}

TEST_F(AVLTest, KeysOfTwoToTheThirtyTwoAndMoreAreStoredButNeverFound) {
  Open();
  const uint64_t big = (uint64_t(1) << 32) + 5;
  for (uint64_t key : {10, 20, 30}) ASSERT_EQ(QWDBAVLLDictInsert(dict, key, key, 0, NEWGEN), 0u);
  EXPECT_EQ(QWDBAVLLDictFindNearest(dict, uint64_t(1) << 40, -1, NEWGEN), 30u);  // beyond the last key
  EXPECT_EQ(QWDBAVLLDictFindNearest(dict, uint64_t(1) << 40, 0, NEWGEN), 30u);
  EXPECT_EQ(QWDBAVLLDictFindNearest(dict, 31, 1, NEWGEN), 0u);
  // Greater than every stored key: inserted each time, never replaced.
  EXPECT_EQ(QWDBAVLLDictInsert(dict, big, 0x1FFFFFFFFull, 77, NEWGEN), 77u);
  EXPECT_EQ(QWDBAVLLDictInsert(dict, big, 8, 77, NEWGEN), 77u);
  EXPECT_EQ(QWDBAVLLDictSize(dict, NEWGEN), 5u);
  EXPECT_EQ(QWDBAVLLDictFind(dict, big, 99, NEWGEN), 99u);
  EXPECT_EQ(QWDBAVLLDictRemove(dict, big, 98, NEWGEN), 98u);  // ends at node 0, not the sentinel
  EXPECT_EQ(QWDBAVLLDictFindNearest(dict, big, 1, NEWGEN), 0u);
  EXPECT_EQ(QWDBAVLLDictFindNearest(dict, big, 0, NEWGEN), 5u);  // reads as its low 32 bits
  // All 64 bits are stored; reads return the low 32.
  bool stored = false;
  for (uint32_t i = 2; i < NodeCount(); ++i)
    stored |= ReadRecord(i).key == big && ReadRecord(i).value == 0x1FFFFFFFFull;
  EXPECT_TRUE(stored);
  const auto entries = Entries(NEWGEN);
  ASSERT_EQ(entries.size(), 5u);
  EXPECT_EQ(entries[3], std::make_pair(uint64_t(5), uint64_t(0xFFFFFFFF)));
  EXPECT_EQ(entries[4], std::make_pair(uint64_t(5), uint64_t(8)));
  EXPECT_EQ(DBAVLLCheck(dict, NEWGEN), 1) << QWErrorMessage();
  // A stored key 0 reads like a missing neighbour in the closest mode.
  ASSERT_EQ(QWDBAVLLDictInsert(dict, 0, 1, 0, NEWGEN), 0u);
  EXPECT_EQ(QWDBAVLLDictFindNearest(dict, 2, 0, NEWGEN), 10u);
  EXPECT_EQ(QWDBAVLLDictFindNearest(dict, 2, -1, NEWGEN), 0u);
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
  for (int descending : {0, 1})
    for (size_t stopAfter : {size_t(1), size_t(37), size_t(100), size_t(1000)}) {
      Walk walk{{}, stopAfter};
      EXPECT_EQ(QWDBAVLLDictEnumerate(dict, descending, take, &walk, NEWGEN), stopAfter > 100 ? 1 : 0);
      ASSERT_EQ(walk.keys.size(), std::min<size_t>(stopAfter, 100));
      for (size_t i = 0; i < walk.keys.size(); ++i) EXPECT_EQ(walk.keys[i], descending ? 100 - i : i + 1);
    }
}

TEST_F(AVLTest, OldGenerationIsEmptyUntilTheFirstCommitAndReadOnlyOpens) {
  Open();
  ASSERT_EQ(QWDBAVLLDictInsert(dict, 3, 4, 0, NEWGEN), 0u);
  EXPECT_EQ(QWDBAVLLDictSize(dict, OLDGEN), 0u);
  EXPECT_EQ(QWDBAVLLDictFind(dict, 3, 8, OLDGEN), 8u);
  EXPECT_EQ(QWDBAVLLDictFindNearest(dict, 5, 0, OLDGEN), 0u);
  EXPECT_TRUE(Entries(OLDGEN).empty());
  EXPECT_EQ(DBAVLLCheck(dict, OLDGEN), 1);
  ASSERT_TRUE(Commit());
  EXPECT_EQ(QWDBAVLLDictFind(dict, 3, 8, OLDGEN), 4u);  // the same record now finds the committed arrays
  CloseAll();
  Open(VM_FLAG_READ_ONLY);
  EXPECT_EQ(QWDBAVLLDictFind(dict, 3, 8, OLDGEN), 4u);
  EXPECT_TRUE(olibtest::Fails(QWDBAVLLDictNew(arena, "elsewhere", nullptr, 0), nullptr, 2));
}

TEST_F(AVLTest, ArgumentsAreChecked) {
  Open();
  EXPECT_TRUE(olibtest::Fails(QWDBAVLLDictNew_(arena, "x", "y", 1, 0), nullptr, 22));
  QWDBAVLLDict *scanned = QWDBAVLLDictNew(arena, avltest::kPath, avltest::kName, 1);  // the same arrays, by scanning
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

int KeepGoing(QWDBAVLLDict *, uint64_t, uint64_t, void *) { return 1; }

class AVLCorruption : public avltest::AVLTest {
 protected:
  // Keys 20, 10, 30 in nodes 2 (root), 3 and 4.
  void OpenSmallTree() {
    Open();
    for (uint64_t key : {20, 10, 30}) ASSERT_EQ(QWDBAVLLDictInsert(dict, key, key, 0, NEWGEN), 0u);
    ASSERT_FALSE(Tagged());
  }
  // Sets the sons of `node` (kKeep leaves one as it is).
  static constexpr uint32_t kKeep = 0xFFFFFFFFu;
  void SetSons(uint32_t node, uint32_t right, uint32_t left) {
    Record r = ReadRecord(node);
    r.right = right == kKeep ? r.right : right;
    r.left = left == kKeep ? r.left : left;
    WriteRecord(node, r);
  }
};

TEST_F(AVLCorruption, InsertWithNodesLeftOnTheFreeListAssertsAfterTagging) {
  OpenSmallTree();
  ASSERT_EQ(QWDBAVLLDictRemove(dict, 10, 0, NEWGEN), 10u);
  ASSERT_EQ(QWDBAVLLDictRemove(dict, 30, 0, NEWGEN), 30u);
  EXPECT_EQ(QWDBAVLLDictInsert(dict, 20, 1, 0, NEWGEN), 20u);  // replacing needs no node
  EXPECT_DEATH(QWDBAVLLDictInsert(dict, 40, 40, 0, NEWGEN), "0 == DictFreeListGet\\(dict, genID\\)");
  EXPECT_TRUE(Tagged());
}

TEST_F(AVLCorruption, SonBeyondTheNodeArrayOrALiveCountTheTreeDisagreesWithFails) {
  OpenSmallTree();
  SetSons(3, kKeep, 1000);
  EXPECT_EQ(QWDBAVLLDictFind(dict, 5, 77, NEWGEN), 77u);
  ExpectDataError(nullptr, true);
  EXPECT_EQ(QWDBAVLLDictFind(dict, 30, 77, NEWGEN), 30u);  // the rest of the tree still reads
  EXPECT_FALSE(QWErrorIsSet());
  EXPECT_EQ(QWDBAVLLDictFindNearest(dict, 5, 0, NEWGEN), 0u);
  ExpectDataError();
  EXPECT_EQ(QWDBAVLLDictEnumerate(dict, 0, KeepGoing, nullptr, NEWGEN), 0);
  ExpectDataError();
  EXPECT_EQ(QWDBAVLLDictInsert(dict, 5, 5, 66, NEWGEN), 66u);
  ExpectDataError();
  EXPECT_EQ(QWDBAVLLDictRemove(dict, 5, 55, NEWGEN), 55u);
  ExpectDataError();
  EXPECT_EQ(DBAVLLCheck(dict, NEWGEN), 0);
  ExpectDataError();
  // 30 cut without being freed: two nodes, the count says three.
  Wipe();
  OpenSmallTree();
  ASSERT_EQ(DBAVLLCheck(dict, NEWGEN), 1);
  SetSons(2, 0, 3 | kSkew);
  EXPECT_EQ(DBAVLLCheck(dict, NEWGEN), 0);
  ExpectDataError();
}

TEST_F(AVLCorruption, CycleIsReportedInsteadOfWalkedForever) {
  OpenSmallTree();
  SetSons(3, kKeep, 2);  // back to the root
  EXPECT_EQ(QWDBAVLLDictFind(dict, 5, 77, NEWGEN), 77u);
  ExpectDataError();
  EXPECT_EQ(QWDBAVLLDictEnumerate(dict, 1, KeepGoing, nullptr, NEWGEN), 0);
  ExpectDataError();
  SetSons(3, 3, 0);  // a loop on the right side of a leaf: the walk would repeat one node
  EXPECT_EQ(QWDBAVLLDictEnumerate(dict, 0, KeepGoing, nullptr, NEWGEN), 0);
  ExpectDataError();
  EXPECT_EQ(DBAVLLCheck(dict, NEWGEN), 0);
  ExpectDataError();
}

TEST_F(AVLCorruption, BrokenSkewsAndHeightsAssertAfterTagging) {
  OpenSmallTree();
  SetSons(2, 4 | kSkew, 3 | kSkew);  // both skew bits
  EXPECT_EQ(QWDBAVLLDictFind(dict, 30, 0, NEWGEN), 30u);  // a search reads no skew
  EXPECT_DEATH(QWDBAVLLDictInsert(dict, 40, 40, 0, NEWGEN), "!\\(x_node->n_right & SKEW_MASK\\)");
  EXPECT_DEATH(DBAVLLCheck(dict, NEWGEN), "!\\(x_node->n_right & SKEW_MASK\\)");
  EXPECT_TRUE(Tagged());
  // The root's sons (right, left), each breaking one invariant of the check.
  const struct {
    uint32_t right, left;
    bool deeper;  // 40 inserted under 30 first
    const char *assertion;
  } cases[] = {
      {0, kKeep, false, "GET_SKEW\\(x\\) == LEFT"},  // left higher, skew none
      {kKeep, 0, false, "GET_SKEW\\(x\\) == RIGHT"},
      {kKeep, 3 | kSkew, false, "GET_SKEW\\(x\\) == NONE"},  // equal, skew left
      {kKeep, 0, true, "FALSE"},                             // heights differ by two
  };
  for (const auto &c : cases) {
    SCOPED_TRACE(c.assertion);
    Wipe();
    OpenSmallTree();
    ASSERT_TRUE(!c.deeper || QWDBAVLLDictInsert(dict, 40, 40, 0, NEWGEN) == 0);
    SetSons(2, c.right, c.left);
    EXPECT_DEATH(DBAVLLCheck(dict, NEWGEN), c.assertion);
    EXPECT_TRUE(Tagged());
  }
}

}  // namespace
