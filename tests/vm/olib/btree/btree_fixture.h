// Fixture of the B-tree tests: a tree on the shared arena fixture, a std::map model, readers of the tree and of raw
// nodes.
#pragma once

#include <map>
#include <utility>

#include "vm/olib/olib_fixture.h"

namespace bttest {

inline constexpr const char *kPath = "trees";
inline constexpr const char *kName = "numbers";

using Entries = std::vector<std::pair<uint64_t, uint64_t>>;
using Model = std::map<uint64_t, uint64_t>;

inline Entries Flatten(const Model &model) { return Entries(model.begin(), model.end()); }

// The low `bytes` bytes of a value: what a tree of that width keeps.
inline uint64_t Mask(uint64_t value, uint32_t bytes) {
  return bytes == 8 ? value : value & ((uint64_t(1) << (8 * bytes)) - 1);
}

class BTreeTest : public olibtest::ArenaTest {
 protected:
  void Open(uint32_t keySize, uint32_t valueSize, uint32_t flags = VM_FLAG_CREATE) {
    this->keySize = keySize;
    ASSERT_NO_FATAL_FAILURE(MustOpenArena(flags));
    tree = BTreeNew(arena, kPath, kName, 0, keySize, valueSize);
    ASSERT_NE(tree, nullptr) << QWErrorMessage();
  }
  void FreeStructures() override {
    if (tree) BTreeFree(tree, keySize);
    tree = nullptr;
  }
  bool Commit() { return CommitArena() && BTreeCommit(tree, keySize) == 1; }
  // Commits, closes and opens again asking for width 1 (the stored one wins).
  void Reopen() {
    ASSERT_TRUE(Commit()) << QWErrorMessage();
    const uint32_t k = keySize;
    CloseAll();
    Open(k, 1, 0);
  }

  uint64_t Find(uint64_t key, uint64_t notFound = BTREE_NO_KEY, uint32_t gen = NEWGEN) {
    return BTreeFind(tree, key, 0, notFound, 0, 0, 0, gen);
  }
  uint64_t Create(uint64_t key, uint64_t value) { return BTreeFind(tree, key, value, BTREE_NO_KEY, 1, 0, 0, NEWGEN); }
  uint64_t Replace(uint64_t key, uint64_t value) { return BTreeFind(tree, key, value, BTREE_NO_KEY, 0, 1, 0, NEWGEN); }
  uint64_t Remove(uint64_t key) { return BTreeFind(tree, key, 0, BTREE_NO_KEY, 0, 0, 1, NEWGEN); }

  static int Collect(uint64_t key, uint64_t value, void *context) {
    static_cast<Entries *>(context)->emplace_back(key, value);
    return 0;
  }
  // Every entry, by the callback walk and by the iterator; both must agree.
  Entries Contents(uint32_t gen = NEWGEN) {
    Entries walked;
    EXPECT_EQ(BTreeEnumerate(tree, Collect, &walked, gen), 1) << QWErrorMessage();
    Entries iterated;
    BTreeEnumeration *e = BTreeEnumerationNew(tree, keySize, gen);
    EXPECT_NE(e, nullptr);
    uint64_t key = 0, value = 0;
    int step;
    while ((step = BTreeEnumerationNext(e, &key, &value)) == 1) iterated.emplace_back(key, value);
    EXPECT_EQ(step, 0) << QWErrorMessage();
    EXPECT_EQ(BTreeEnumerationNext(e, &key, &value), 0);  // stays at the end
    BTreeEnumerationFree(e);
    EXPECT_EQ(walked, iterated);
    return walked;
  }

  BTreeStat Check(uint32_t gen = NEWGEN) {
    BTreeStat stat{};
    EXPECT_EQ(BTreeCheck(tree, gen, &stat), 1) << QWErrorMessage();
    return stat;
  }

  std::string NodeBytes(uint32_t blockID, uint32_t gen = NEWGEN) {
    auto *bytes = static_cast<const char *>(VMArenaDataBlockAcquire(arena, blockID, 0, gen, 1));
    EXPECT_NE(bytes, nullptr) << QWErrorMessage();
    if (!bytes) return "";
    std::string copy(bytes, 8192);
    VMArenaDataRelease(arena, (uint64_t(blockID) << 4) | 15, 1, const_cast<char *>(bytes), 0, 0);
    return copy;
  }
  void PokeNode(uint32_t blockID, uint32_t offset, const std::string &bytes) {
    auto *data = static_cast<char *>(VMArenaDataBlockAcquire(arena, blockID, 0, NEWGEN, 0));
    ASSERT_NE(data, nullptr) << QWErrorMessage();
    std::memcpy(data + offset, bytes.data(), bytes.size());
    VMArenaDataRelease(arena, (uint64_t(blockID) << 4) | 15, 0, data, 0, 0);
  }
  // The length of "root", and the root's block (INVALID_BLOCK_ID when none).
  uint32_t RootLength(uint32_t gen = NEWGEN) {
    const uint32_t id = Named(std::string(kPath) + "/" + kName + "/root", gen);
    return id == VMA_NO_ARRAY ? 0 : VMAArrayLength_(arena, id, gen);
  }
  uint32_t RootBlock(uint32_t gen = NEWGEN) {
    uint32_t first = INVALID_BLOCK_ID;
    BTreeBlockEnumerate(
        tree,
        [](uint32_t blockID, int, void *context) {
          *static_cast<uint32_t *>(context) = blockID;
          return 1;  // the root comes first
        },
        &first, gen, 1);
    return first;
  }
  BTree *tree = nullptr;
  uint32_t keySize = 8;
};

// Little-endian 16-bit key count and flags of a raw node.
inline uint32_t RawKeyCount(const std::string &node) {
  return uint32_t(uint8_t(node[8190])) | uint32_t(uint8_t(node[8191])) << 8;
}
inline bool RawIsLeaf(const std::string &node) { return (uint8_t(node[8189]) & 1) != 0; }
using olibtest::LE;

}  // namespace bttest
