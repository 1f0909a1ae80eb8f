// Exact behaviours of opening, creating and splitting that the other suites
// leave open: the caller's value width on an existing tree, create on a key
// whose value reads like a miss, and the order in which a split and a new
// root take their blocks.
#include "btree_fixture.h"

namespace bttest {
namespace {

using BTreeExact = BTreeTest;

// The stored width wins, so a width the tree could not be made with does
// not stop an existing tree from opening.
TEST_F(BTreeExact, ExistingTreeOpensWhateverWidthTheCallerGives) {
  Open(8, 5);
  Create(1, 0x0102030405ull);
  for (uint32_t width : {0u, 9u}) {
    BTree *again = BTreeNew(arena, kPath, kName, 0, 8, width);
    ASSERT_NE(again, nullptr) << width << ": " << QWErrorMessage();
    EXPECT_EQ(BTreeValueSize(again), 5u);
    EXPECT_EQ(BTreeFind(again, 1, 0, 0, 0, 0, 0, NEWGEN), 0x0102030405ull);
    BTreeFree(again, 8);
  }
  // Presence decides, not the value: create on a key whose value equals
  // the not-found value leaves the one entry as it is.
  EXPECT_EQ(BTreeFind(tree, 1, 9, 0x0102030405ull, 1, 0, 0, NEWGEN), 0x0102030405ull);
  EXPECT_EQ(Contents(), (Entries{{1, 0x0102030405ull}}));
}

// The first root split takes a block for the new right leaf, then one for
// the new root, in that order: a first run learns the two blocks the arena
// hands out next, an identical second run splits.
TEST_F(BTreeExact, SplitTakesItsBlockBeforeTheNewRoot) {
  uint32_t next[2];
  for (int run = 0; run < 2; ++run) {
    Wipe();
    Open(8, 4);
    for (uint64_t k = 0; k < 682; ++k) Create(k, k);
    if (run == 1) break;
    for (uint32_t &id : next) ASSERT_NE(id = VMArenaDataBlockNew(arena, 0, 0), INVALID_BLOCK_ID);
  }
  Create(682, 682);
  const uint32_t root = RootBlock();
  EXPECT_EQ(root, next[1]);
  EXPECT_EQ(uint32_t(LE(NodeBytes(root), 511 * 8 + 511 * 4 + 4, 4)), next[0]);
}

}  // namespace
}  // namespace bttest
