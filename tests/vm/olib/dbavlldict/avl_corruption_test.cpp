// Damaged node records and misuse of the free list: the arena is tagged
// corrupted first, then the call fails with a data error or the named
// assertion fails; nothing is read outside the node array.
#include "avl_fixture.h"

namespace {

using avltest::Record;

constexpr uint32_t kSkew = 0x80000000u;

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

TEST_F(AVLCorruption, SonBeyondTheNodeArrayFailsEveryReader) {
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

TEST_F(AVLCorruption, LiveCountThatDisagreesWithTheTreeFailsTheCheck) {
  OpenSmallTree();
  ASSERT_EQ(DBAVLLCheck(dict, NEWGEN), 1);
  SetSons(2, 0, 3 | kSkew);  // 30 cut without being freed: two nodes, the count says three
  EXPECT_EQ(DBAVLLCheck(dict, NEWGEN), 0);
  ExpectDataError();
}

}  // namespace
