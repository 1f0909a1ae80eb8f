// Exact behaviours of opening and splitting that the other suites leave
// open: the caller's value width on an existing tree.
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
}

}  // namespace
}  // namespace bttest
