// The node layout byte by byte, the first split, and stored nodes that break
// the layout: the arena is tagged before the call fails or the assertion fires.
#include "btree_fixture.h"

namespace bttest {
namespace {

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
    // Ascending keys split at n / 2 + 1: an even n leaves the right part one
    // key short of half, which the check accepts.
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

// The first split's internal node: the key at n / 2 + 1 moves up, the old
// root is son 0, the rest and the new key go right.
TEST_F(BTreeFormat, FirstSplitAndInternalNodeBytes) {
  Open(8, 5);
  const uint32_t n = 629, innerMax = 481;
  const uint32_t oldRoot = (Create(0, 0), RootBlock());
  for (uint64_t k = 1; k <= n; ++k) Create(k * 10, k);
  const uint32_t root = RootBlock();
  ASSERT_NE(root, oldRoot);
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

TEST_F(BTreeFormat, StructuralAssertionsTagFirst) {
  Open(8, 4);
  for (uint64_t k = 0; k < 10; ++k) Create(k, k);
  const uint32_t root = RootBlock();
  uint64_t key = 100, value = 1;
  uint32_t son = INVALID_BLOCK_ID;
  EXPECT_DEATH(ULongBTreeSplitInsert(tree, &key, &value, &son, 10, root, 1, NEWGEN),
               "BTreeMaxKeyCount\\(btree, isLeaf\\) == keyCount");
  EXPECT_TRUE(Tagged());
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
