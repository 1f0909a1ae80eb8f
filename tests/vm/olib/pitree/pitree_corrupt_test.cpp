// Damaged stored trees: malformed leaves and head nodes out of order give a
// data error and tag the arena (random damage: the structures fuzz target).
#include <filesystem>

#include "pitree_fixture.h"

namespace {

using pittest::FromText;
using pittest::PITreeTest;

// Enumerates everything, ignoring what comes out.
void WalkAll(PITree *tree) {
  PITreeEnumeration *e = PITreeEnumerationNew();
  const uint32_t *atom;
  uint32_t length;
  uint64_t data;
  if (PITreeEnumerationInit(tree, e, nullptr, 0, PITREE_DEPTH_UNLIMITED, NEWGEN))
    while (PITreeEnumerationGetNext(e, &atom, &length, &data)) {
    }
  PITreeEnumerationFree(e);
}

// The root's slot, writable (the root must be a slot: a head node or a slot
// leaf); *slotSize receives its size. Release with ReleaseSlot.
uint8_t *RootSlot(VMArena *arena, uint32_t *array, uint32_t *slotSize) {
  uint8_t *scratch = nullptr;
  uint32_t index = 0, root = 0, end = 0;
  EXPECT_TRUE(VMAArrayLookupFromPath(arena, NEWGEN, &scratch, "dict/words/pitree/head", "headIndex", 0, &index));
  auto *rootRef = static_cast<uint8_t *>(VMAArrayRange_(arena, index, 0, 8192, 0, &end, NEWGEN, 1, 4, 0));
  if (!rootRef) return nullptr;
  std::memcpy(&root, rootRef, 4);
  VMAArrayRelease_(arena, index, rootRef, 1);
  EXPECT_EQ(root >> 31, 0u) << "the root is a slot";
  const uint32_t cls = root >> 28;
  *slotSize = 32u << (2 * cls);
  EXPECT_TRUE(VMAArrayLookupFromPath(arena, NEWGEN, &scratch, "dict/words/pitree/head",
                                     ("node" + std::to_string(cls)).c_str(), 0, array));
  ArrayFree(scratch);
  return static_cast<uint8_t *>(
      VMAArrayRange_(arena, *array, 0, 8192, root & 0x0FFFFFFF, &end, NEWGEN, 0, *slotSize, 0));
}

TEST_F(PITreeTest, MalformedLeavesFailWithADataErrorAndTagTheArena) {
  // Bytes that cannot be the one leaf of a tree holding "a" + b + tail and
  // "a" + c + tail, kept in a slot (short tails) or in the leaf array as
  // leaf 0 (tails long enough to pass a slot's room).
  const std::vector<std::vector<uint8_t>> badLeaves = {
      {},                                    // referenced leaves hold keys
      {0x00},                                // a node with neither value nor children
      {0xF1, 0xFF, 0xFF, 0xFF, 0xFF, 0x7F},  // a skip longer than the leaf
      {0x05, 'a', 0x01, 'c', 'b', 0x04},     // branches out of order
      {0x05, 'a', 0x01, 'b', 'c', 0x7E},     // a child size past the end
      {0x05, 'a', 0xFF, 'b'},                // more branches than bytes
      {0x06, 'a', 0x81, 0x81, 0x81, 0x81, 0x81, 0x81, 0x81, 0x81, 0x81, 0x81},  // a varint past 64 bits
  };
  for (const bool inArray : {false, true}) {
    const std::string tail(inArray ? 300 : 0, 'x');
    for (size_t c = 0; c < badLeaves.size(); ++c) {
      SCOPED_TRACE(testing::Message() << (inArray ? "array leaf " : "slot leaf ") << c);
      std::filesystem::remove_all(arenaDir());
      Open();
      ASSERT_EQ(Insert(FromText("ab" + tail), 1), 1u);
      ASSERT_EQ(Insert(FromText("ac" + tail), 2), 2u);
      const std::vector<uint8_t> &bad = badLeaves[c];
      if (inArray) {
        ASSERT_TRUE(PITreeFillLeaf(tree, 0, bad.data(), uint32_t(bad.size()), NEWGEN)) << QWErrorMessage();
      } else {
        uint32_t array = 0, slotSize = 0;
        uint8_t *slot = RootSlot(arena, &array, &slotSize);
        ASSERT_NE(slot, nullptr);
        ASSERT_EQ(slot[0], 0x40) << "the root is a slot leaf";
        ASSERT_LE(bad.size() + 2, slotSize);
        slot[1] = uint8_t(bad.size());
        std::copy(bad.begin(), bad.end(), slot + 2);  // (no memcpy: `bad` may be empty)
        VMAArrayRelease_(arena, array, slot, 0);
      }
      EXPECT_EQ(Find(FromText("ac" + tail)), 0u);
      ExpectDataError(nullptr, true);
      EXPECT_EQ(Insert(FromText("ad"), 3), 0u);
      EXPECT_EQ(QWErrorCode(), 74);
      WalkAll(tree);
      EXPECT_EQ(QWErrorCode(), 74);
      CloseAll();
    }
  }
}

TEST_F(PITreeTest, HeadNodeBranchesOutOfOrderFailWithADataError) {
  // A root head node with 40 branches whose bytes rise from 0x6C across
  // 0x7F / 0x80 to 0x93 (symbols from 0x80 on start with a byte >= 0x80);
  // each case swaps two neighbours: at the start, around 16-byte groups and
  // the sign bit, at the end.
  constexpr uint32_t kBranches = 40;
  auto symbol = [](uint32_t b) { return b < 20 ? 0x6C + b : 0x80 + 256 * (b - 20); };
  auto firstByte = [](uint32_t b) { return b < 20 ? 0x6C + b : 0x80 + (b - 20); };
  for (uint32_t swapAt : {0u, 14u, 15u, 16u, 19u, 31u, kBranches - 2}) {
    SCOPED_TRACE(swapAt);
    std::filesystem::remove_all(arenaDir());
    Open();
    for (uint32_t b = 0; b < kBranches; ++b)
      for (uint32_t i = 0; i < 100; ++i) ASSERT_NE(Insert({symbol(b), i, 500 + i}, 1 + b * 100 + i), 0u);
    EXPECT_EQ(Find({symbol(kBranches - 1), 99, 599}), kBranches * 100);
    EXPECT_EQ(Find({symbol(20), 0, 500}), 2001u);
    uint32_t nodes = 0, classSize = 0;
    uint8_t *node = RootSlot(arena, &nodes, &classSize);
    ASSERT_NE(node, nullptr);
    ASSERT_EQ(node[1], 0u);         // no skip
    ASSERT_EQ(node[2], kBranches);  // count
    uint8_t *branches = node + 4 + ((node[0] & 1) ? 8 : 0);
    ASSERT_EQ(branches[swapAt], firstByte(swapAt));
    std::swap(branches[swapAt], branches[swapAt + 1]);
    VMAArrayRelease_(arena, nodes, node, 0);
    EXPECT_EQ(Find({symbol(0), 0, 500}), 0u);
    ExpectDataError("unordered head node");
    CloseAll();
  }
}

}  // namespace
