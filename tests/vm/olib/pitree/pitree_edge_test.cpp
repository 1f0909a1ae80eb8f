// Edge cases of symbol-sequence trees the model does not reach: prefix results, bad requests, atoms ending at head
// nodes, slots reused, clear, read-only arenas, assertions; damaged leaves and head nodes; the arena's name service
// over its tree.
#include <filesystem>
#include <string>

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
  EXPECT_TRUE(olibtest::Fails(Insert(z, 0), 0u, 22));
  EXPECT_TRUE(olibtest::Fails(PITreeFind(tree, td, z.data(), uint32_t(z.size()), 5, NEWGEN, 1, 1, 0), 0u, 22));
  EXPECT_EQ(PITreeGetSize(tree, NEWGEN), 2u);
}

// An atom that ends where a head node branches keeps its data in that node; removing everything empties the head tree,
// and the next pass reuses the freed slots and leaves.
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

// Length of leaf `leaf` of the tree "words" in its leaf array (0 when empty), read through an array record of its own.
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

// Trees written before small leaves moved into head slots keep them in the leaf array: such a leaf reads as before, and
// its next change moves it into a slot and gives its number back.
TEST_F(PITreeTest, SmallLeafInTheLeafArrayReadsAndMovesToASlotOnChange) {
  Open();
  const std::string tail(300, 'x');  // two of them pass a slot's room
  ASSERT_EQ(Insert(FromText("ab" + tail), 1), 1u);
  ASSERT_EQ(Insert(FromText("ac" + tail), 2), 2u);
  // Leaf 0, the root, rewritten to hold "ab" -> 1 and "ac" -> 2: a node with skip "a" and branches b, c (first child 2
  // bytes), each child a value. Varints hold value << 1.
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

// A slot leaf lives in the smallest slot class that holds it: it moves up as it grows and back down as it shrinks,
// giving the larger slot back.
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

// Found by fuzzing: a store whose leaf array lost some of its buckets sent leaf reads past the array's end; open must
// refuse it as corrupted.
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

// The head slot that `ref` names (a head node or a slot leaf) in the new generation, writable; *slotSize receives its
// size. Release with VMAArrayRelease_.
uint8_t *SlotOfRef(VMArena *arena, uint32_t ref, uint32_t *array, uint32_t *slotSize) {
  EXPECT_EQ(ref >> 31, 0u) << "the reference names a slot";
  uint8_t *scratch = nullptr;
  uint32_t end = 0;
  EXPECT_TRUE(VMAArrayLookupFromPath(arena, NEWGEN, &scratch, "dict/words/pitree/head",
                                     ("node" + std::to_string(ref >> 28)).c_str(), 0, array));
  ArrayFree(scratch);
  *slotSize = 32u << (2 * (ref >> 28));
  return static_cast<uint8_t *>(
      VMAArrayRange_(arena, *array, 0, 8192, ref & 0x0FFFFFFF, &end, NEWGEN, 0, *slotSize, 0));
}

uint8_t *RootSlot(VMArena *arena, uint32_t *array, uint32_t *slotSize) {
  return SlotOfRef(arena, HeadIndexAt(arena, 0), array, slotSize);
}

TEST_F(PITreeTest, MalformedLeavesFailWithADataErrorAndTagTheArena) {
  // Bytes that cannot be the one leaf of a tree holding "a" + b + tail and "a" + c + tail, kept in a slot (short tails)
  // or in the leaf array as leaf 0 (tails long enough to pass a slot's room).
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
      EXPECT_TRUE(olibtest::Fails(Insert(FromText("ad"), 3), 0u, 74));
      WalkAll(tree);
      EXPECT_EQ(QWErrorCode(), 74);
      CloseAll();
    }
  }
}

// The slot that the root head node's branch at `position` names, writable.
uint8_t *ChildSlot(VMArena *arena, uint32_t position, uint32_t *array, uint32_t *slotSize) {
  uint32_t rootArray = 0, rootSize = 0, ref = 0;
  uint8_t *root = RootSlot(arena, &rootArray, &rootSize);
  if (!root) return nullptr;
  const uint32_t count = root[2] | uint32_t(root[3]) << 8;
  std::memcpy(&ref, root + 4 + ((root[0] & 1) ? 8 : 0) + root[1] + count + 4 * position, 4);
  VMAArrayRelease_(arena, rootArray, root, 0);
  return SlotOfRef(arena, ref, array, slotSize);
}

TEST_F(PITreeTest, HeadNodeBranchesOutOfOrderFailWithADataError) {
  // A root head node with 40 branches whose bytes rise from 0x6C across 0x7F / 0x80 to 0x93 (symbols from 0x80 on start
  // with a byte >= 0x80); below each branch a node of 100 branches 0 .. 99 (the keys' tails pass a leaf's room). Each
  // case swaps two neighbours of the root or of its first child: at the start, around 16-byte groups and the sign bit,
  // at the end. Walks of the committed generation read both nodes from copies the thread keeps: the copies must be
  // checked as the arena's slots are.
  constexpr uint32_t kBranches = 40;
  auto symbol = [](uint32_t b) { return b < 20 ? 0x6C + b : 0x80 + 256 * (b - 20); };
  auto firstByte = [](uint32_t b) { return b < 20 ? 0x6C + b : 0x80 + (b - 20); };
  auto atom = [&](uint32_t b, uint32_t i) { return Atom{symbol(b), i, 500 + i, 1000, 1001, 1002, 1003}; };
  const std::vector<std::pair<bool, uint32_t>> cases = {{false, 0},  {false, 14}, {false, 15}, {false, 16},
                                                        {false, 19}, {false, 31}, {false, 38}, {true, 0},
                                                        {true, 16},  {true, 83},  {true, 98}};
  for (const auto &[inChild, swapAt] : cases) {
    SCOPED_TRACE(testing::Message() << (inChild ? "child " : "root ") << swapAt);
    std::filesystem::remove_all(arenaDir());
    Open();
    for (uint32_t b = 0; b < kBranches; ++b)
      for (uint32_t i = 0; i < 100; ++i) ASSERT_NE(Insert(atom(b, i), 1 + b * 100 + i), 0u);
    EXPECT_EQ(Find(atom(kBranches - 1, 99)), kBranches * 100);
    EXPECT_EQ(Find(atom(20, 0)), 2001u);
    uint32_t nodes = 0, classSize = 0;
    uint8_t *node = inChild ? ChildSlot(arena, 0, &nodes, &classSize) : RootSlot(arena, &nodes, &classSize);
    ASSERT_NE(node, nullptr);
    ASSERT_EQ(node[1], 0u);                          // no skip
    ASSERT_EQ(node[2], inChild ? 100 : kBranches);  // count
    uint8_t *branches = node + 4 + ((node[0] & 1) ? 8 : 0);
    ASSERT_EQ(branches[swapAt], inChild ? swapAt : firstByte(swapAt));
    std::swap(branches[swapAt], branches[swapAt + 1]);
    VMAArrayRelease_(arena, nodes, node, 0);
    ASSERT_TRUE(Commit()) << QWErrorMessage();
    for (const uint32_t gen : {OLDGEN, NEWGEN}) {
      EXPECT_EQ(Find(atom(0, 0), gen), 0u);
      ExpectDataError("unordered head node");
    }
    CloseAll();
  }
}

uint32_t Lookup(VMArena *arena, uint32_t gen, const std::string &name, int scan) {
  return VMAArrayFind(arena, gen, name.data(), uint32_t(name.size()), scan, nullptr, 0, 8192);
}

uint32_t Make(VMArena *arena, const std::string &name, int scan = 0) {
  int create = 1;
  const uint32_t id = VMAArrayFind(arena, NEWGEN, name.data(), uint32_t(name.size()), scan, &create, 0, 8192);
  EXPECT_EQ(create, 1) << name;
  return id;
}

std::string NameOf(uint32_t i) { return "store/" + std::to_string(i * 7919u % 100003u) + "/part" + std::to_string(i % 13); }

// The name service's count of names.
uint32_t IndexedNames(VMArena *arena, uint32_t gen) {
  const uint32_t id = Lookup(arena, gen, "#name/params", 1);
  if (id == VMA_NO_ARRAY || VMAArrayLength_(arena, id, gen) == 0) return 0;
  uint32_t end = 0;
  auto *p = static_cast<const uint32_t *>(VMAArrayRange_(arena, id, 0, 8192, 0, &end, gen, 1, 4, 0));
  EXPECT_NE(p, nullptr);
  const uint32_t count = *p;
  VMAArrayRelease_(arena, id, const_cast<uint32_t *>(p), 1);
  return count;
}

// One thread data walks the committed tree before, between and after the arena's commit and the tree's, in either
// order: what it keeps of the committed root between walks must follow both.
TEST_F(PITreeTest, CommittedWalksFollowTheArenaAndTheTreeCommits) {
  Open();
  const Atom alpha = FromText("alpha"), beta = FromText("beta");
  ASSERT_EQ(Insert(alpha, 7), 7u);
  EXPECT_EQ(Find(alpha, OLDGEN), 0u);
  ASSERT_TRUE(CommitArena()) << QWErrorMessage();
  EXPECT_EQ(Find(alpha, OLDGEN), 0u);  // the tree's handles name no committed arrays yet
  ASSERT_TRUE(PITreeCommit(tree));
  EXPECT_EQ(Find(alpha, OLDGEN), 7u);
  ASSERT_EQ(Insert(beta, 8), 8u);
  ASSERT_EQ(Remove(alpha), 7u);
  EXPECT_EQ(Find(alpha, OLDGEN), 7u);
  ASSERT_TRUE(PITreeCommit(tree) && CommitArena()) << QWErrorMessage();
  EXPECT_EQ(Find(alpha, OLDGEN), 0u);
  EXPECT_EQ(Find(beta, OLDGEN), 8u);
  EXPECT_FALSE(QWErrorIsSet()) << QWErrorMessage();
}

TEST_F(PITreeTest, ManyNamesAreFoundThroughTheTreeInBothGenerations) {
  MustOpenArena();
  const uint32_t own = IndexedNames(arena, NEWGEN), count = 20000;
  EXPECT_GT(own, 190u);  // the name service's own arrays are named too
  std::vector<uint32_t> ids(count);
  for (uint32_t i = 0; i < count; ++i) ASSERT_NE(ids[i] = Make(arena, NameOf(i), i % 10 == 0), VMA_NO_ARRAY);
  EXPECT_EQ(IndexedNames(arena, NEWGEN), own + count);
  for (uint32_t i = 0; i < count; ++i) ASSERT_EQ(Lookup(arena, NEWGEN, NameOf(i), 0), ids[i]);
  EXPECT_EQ(Lookup(arena, NEWGEN, "store/none", 0), VMA_NO_ARRAY);
  EXPECT_FALSE(QWErrorIsSet());
  EXPECT_EQ(Lookup(arena, OLDGEN, NameOf(5), 0), VMA_NO_ARRAY);  // not committed yet
  ASSERT_TRUE(CommitArena()) << QWErrorMessage();
  const std::string later = "store/after/commit";
  const uint32_t laterId = Make(arena, later);
  for (uint32_t i = 0; i < count; i += 11) ASSERT_EQ(Lookup(arena, OLDGEN, NameOf(i), 0), ids[i]);
  EXPECT_EQ(Lookup(arena, OLDGEN, later, 0), VMA_NO_ARRAY);
  EXPECT_EQ(Lookup(arena, NEWGEN, later, 0), laterId);
  ASSERT_TRUE(ReopenArena(0)) << QWErrorMessage();
  for (uint32_t i = 0; i < count; i += 7) {
    ASSERT_EQ(Lookup(arena, NEWGEN, NameOf(i), 0), ids[i]);
    ASSERT_EQ(Lookup(arena, OLDGEN, NameOf(i), 0), ids[i]);
  }
  EXPECT_EQ(Lookup(arena, NEWGEN, later, 0), VMA_NO_ARRAY);  // never committed
  EXPECT_EQ(Make(arena, later), ids[count - 1] + 1);
}

// An index whose arrays were freed is rebuilt from array 0 at the next writable open; a read-only open scans instead.
TEST_F(PITreeTest, EmptiedIndexIsRebuiltAndReadOnlyArenaScans) {
  MustOpenArena();
  for (uint32_t i = 0; i < 300; ++i) ASSERT_NE(Make(arena, NameOf(i)), VMA_NO_ARRAY);
  const uint32_t indexed = IndexedNames(arena, NEWGEN);
  for (const char *name : {"#name/params", "#name/lookup/pitree/head/headIndex", "#name/lookup/pitree/head/node3",
                           "#name/lookup/pitree/leaf/dbarray/data0000", "#name/lookup/pitree/leaf/dbarray/index0000",
                           "#name/lookup/pitree/leaf/dbarray/firstHandle0000"})
    ASSERT_TRUE(VMAArrayFree(arena, Lookup(arena, NEWGEN, name, 1))) << name;
  ASSERT_TRUE(CommitArena()) << QWErrorMessage();
  ASSERT_TRUE(ReopenArena(VM_FLAG_READ_ONLY)) << QWErrorMessage();
  EXPECT_EQ(IndexedNames(arena, NEWGEN), 0u);
  EXPECT_EQ(Lookup(arena, NEWGEN, NameOf(17), 0), Lookup(arena, NEWGEN, NameOf(17), 1));
  EXPECT_NE(Lookup(arena, OLDGEN, NameOf(17), 0), VMA_NO_ARRAY);
  ASSERT_TRUE(ReopenArena(0)) << QWErrorMessage();  // writable: rebuilt
  EXPECT_EQ(IndexedNames(arena, NEWGEN), indexed);
  for (uint32_t i = 0; i < 300; ++i) ASSERT_EQ(Lookup(arena, NEWGEN, NameOf(i), 0), Lookup(arena, NEWGEN, NameOf(i), 1));
  ASSERT_NE(Make(arena, "store/new"), VMA_NO_ARRAY);
  EXPECT_EQ(IndexedNames(arena, NEWGEN), indexed + 1);
}

}  // namespace
