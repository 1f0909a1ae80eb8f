// Damaged node records and misuse of the free list: the arena is tagged
// corrupted first, then the call fails with a data error or the named
// assertion fails; nothing is read outside the node array.
#include "avl_fixture.h"

namespace {

using avltest::AVLTest;
using avltest::Record;

constexpr uint32_t kSkew = 0x80000000u;

class AVLCorruption : public AVLTest {
 protected:
  // Keys 20, 10, 30 in nodes 2 (root), 3 and 4.
  void OpenSmallTree() {
    Open();
    for (uint64_t key : {20, 10, 30}) ASSERT_EQ(QWDBAVLLDictInsert(dict, key, key, 0, NEWGEN), 0u);
    ASSERT_FALSE(Tagged());
  }
};

TEST_F(AVLCorruption, InsertWithNodesLeftOnTheFreeListAssertsAfterTagging) {
  OpenSmallTree();
  ASSERT_EQ(QWDBAVLLDictRemove(dict, 10, 0, NEWGEN), 10u);
  ASSERT_EQ(QWDBAVLLDictRemove(dict, 30, 0, NEWGEN), 30u);
  // Replacing needs no node and is fine.
  EXPECT_EQ(QWDBAVLLDictInsert(dict, 20, 1, 0, NEWGEN), 20u);
  EXPECT_DEATH(QWDBAVLLDictInsert(dict, 40, 40, 0, NEWGEN), "0 == DictFreeListGet\\(dict, genID\\)");
  EXPECT_TRUE(Tagged());
}

TEST_F(AVLCorruption, SonBeyondTheNodeArrayFailsEveryReader) {
  OpenSmallTree();
  Record ten = ReadRecord(3);
  ten.left = 1000;
  WriteRecord(3, ten);
  EXPECT_EQ(QWDBAVLLDictFind(dict, 5, 77, NEWGEN), 77u);
  ExpectDataError(nullptr, true);
  EXPECT_EQ(QWDBAVLLDictFind(dict, 30, 77, NEWGEN), 30u);  // the rest of the tree still reads
  EXPECT_FALSE(QWErrorIsSet());
  EXPECT_EQ(QWDBAVLLDictFindNearest(dict, 5, 0, NEWGEN), 0u);
  ExpectDataError();
  EXPECT_EQ(QWDBAVLLDictEnumerate(dict, 0, [](QWDBAVLLDict *, uint64_t, uint64_t, void *) { return 1; }, nullptr,
                                  NEWGEN),
            0);
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
  Record ten = ReadRecord(3);
  ten.left = 2;  // back to the root
  WriteRecord(3, ten);
  EXPECT_EQ(QWDBAVLLDictFind(dict, 5, 77, NEWGEN), 77u);
  ExpectDataError();
  EXPECT_EQ(QWDBAVLLDictEnumerate(dict, 1, [](QWDBAVLLDict *, uint64_t, uint64_t, void *) { return 1; }, nullptr,
                                  NEWGEN),
            0);
  ExpectDataError();
  // A loop on the right side of a leaf: the walk would repeat one node.
  ten.left = 0;
  ten.right = 3;
  WriteRecord(3, ten);
  EXPECT_EQ(QWDBAVLLDictEnumerate(dict, 0, [](QWDBAVLLDict *, uint64_t, uint64_t, void *) { return 1; }, nullptr,
                                  NEWGEN),
            0);
  ExpectDataError();
  EXPECT_EQ(DBAVLLCheck(dict, NEWGEN), 0);
  ExpectDataError();
}

TEST_F(AVLCorruption, BothSkewBitsAssertAfterTagging) {
  OpenSmallTree();
  Record root = ReadRecord(2);
  root.right |= kSkew;
  root.left |= kSkew;
  WriteRecord(2, root);
  EXPECT_EQ(QWDBAVLLDictFind(dict, 30, 0, NEWGEN), 30u);  // a search reads no skew
  EXPECT_DEATH(QWDBAVLLDictInsert(dict, 40, 40, 0, NEWGEN), "!\\(x_node->n_right & SKEW_MASK\\)");
  EXPECT_DEATH(DBAVLLCheck(dict, NEWGEN), "!\\(x_node->n_right & SKEW_MASK\\)");
  EXPECT_TRUE(Tagged());
}

TEST_F(AVLCorruption, CheckAssertsOnEachBrokenInvariant) {
  struct Case {
    const char *name;
    void (*damage)(AVLCorruption *);
    const char *assertion;
  };
  const Case cases[] = {
      {"left higher, skew none", [](AVLCorruption *t) {
         Record root = t->ReadRecord(2);
         root.right = 0;  // cut 30: the left is higher
         t->WriteRecord(2, root);
       }, "GET_SKEW\\(x\\) == LEFT"},
      {"right higher, skew none", [](AVLCorruption *t) {
         Record root = t->ReadRecord(2);
         root.left = 0;
         t->WriteRecord(2, root);
       }, "GET_SKEW\\(x\\) == RIGHT"},
      {"equal, skew left", [](AVLCorruption *t) {
         Record root = t->ReadRecord(2);
         root.left |= kSkew;
         t->WriteRecord(2, root);
       }, "GET_SKEW\\(x\\) == NONE"},
      {"heights differ by two", [](AVLCorruption *t) {
         ASSERT_EQ(QWDBAVLLDictInsert(t->dict, 40, 40, 0, NEWGEN), 0u);  // node 5 under 30
         Record root = t->ReadRecord(2);
         root.left = 0;
         t->WriteRecord(2, root);
       }, "FALSE"},
  };
  for (const Case &c : cases) {
    SCOPED_TRACE(c.name);
    OpenSmallTree();
    c.damage(this);
    EXPECT_DEATH(DBAVLLCheck(dict, NEWGEN), c.assertion);
    EXPECT_TRUE(Tagged());
    Wipe();
  }
}

TEST_F(AVLCorruption, LiveCountThatDisagreesWithTheTreeFailsTheCheck) {
  OpenSmallTree();
  ASSERT_EQ(DBAVLLCheck(dict, NEWGEN), 1);
  // Cut the leaf 30 without freeing it: the tree holds two nodes, the
  // count says three.
  Record root = ReadRecord(2);
  root.right = 0;
  root.left |= kSkew;
  WriteRecord(2, root);
  EXPECT_EQ(DBAVLLCheck(dict, NEWGEN), 0);
  ExpectDataError();
}

}  // namespace
