// The B-tree record, the node layout and the generic body shared by the
// 32-bit (UIntBTree) and 64-bit (ULongBTree) instantiations.
//
// Invariants of a tree in each generation (BTreeCheck verifies them):
//  - "root" is empty (empty tree) or holds the block id of the root node.
//  - Every node's keyCount is at most its kind's maxKeyCount; an internal
//    node holds at least one key and keyCount + 1 valid sons; every node but
//    the root holds at least maxKeyCount / 2 - 1 keys (a split of a full
//    node of even size leaves one side one key short of half; every
//    rebalancing after a delete restores at least half).
//  - Keys rise strictly in an in-order walk; all leaves lie at one depth.
// A change keeps every invariant whenever it returns; a failure in the
// middle of a change (no block for a new node) happens before the first
// write of the step that needed the block.
//
// Stored nodes are distrusted: a key count above its maximum, an internal
// node without keys, a son that is INVALID_BLOCK_ID or names no block, keys
// that contradict their parent's separators, a path deeper than any tree can
// be: each tags the arena corrupted and fails the call (code 74), so no
// access leaves a node's 8192 bytes.
#pragma once

#include <cstdint>
#include <cstring>

#include "qwvm/btree.h"
#include "qwvm/qwlib.h"
#include "qwvm/vmaarray.h"
#include "util/endian.h"

#ifndef FALSE
#define FALSE 0
#endif

namespace qw::bt {

inline constexpr uint32_t kNodeSize = ARENA_MAX_BLOCK_SIZE;
inline constexpr uint32_t kBlockLength = 8185;  // room for keys, values and sons
inline constexpr uint32_t kFlagsOffset = 8189;
inline constexpr uint32_t kCountOffset = 8190;
inline constexpr uint8_t kLeafFlag = 1;
inline constexpr uint32_t kSonSize = 4;
inline constexpr int kCorruptCode = 74;  // EBADMSG
// A path longer than this comes from a cycle of sons: even the smallest
// fan-out (V = 8, K = 8) reaches 2^64 keys within 12 levels.
inline constexpr uint32_t kMaxDepth = 48;
// The path stack is trimmed back to nothing past this many entries.
inline constexpr size_t kPathTrim = 10000;

inline constexpr int kInternal = 0;  // index of the layout constants
inline constexpr int kLeaf = 1;

}  // namespace qw::bt

// One step of a descent: the node and the entry index found or followed.
struct BTreePathEntry {
  uint32_t blockID;
  uint32_t keyIndex;
};

// Where the last descent in the new generation ended: the leaf, the inner
// nodes above it with the sons followed, and the separators around the
// leaf. A key strictly between those separators lives in that leaf for as
// long as no inner node, root or set of nodes changes, which the arena's
// shape epoch tells (vm/arena/arena.h). A descent for such a key starts at
// the leaf: in-order fills and clustered changes skip the root element and
// the inner nodes.
struct BTreeFinger {
  bool valid;
  uint64_t epoch;                              // the arena's shape epoch when taken
  uint32_t depth;                              // entries in path; the last is the leaf
  BTreePathEntry path[qw::bt::kMaxDepth];
  bool hasLow, hasHigh;
  uint64_t low, high;  // the separators (keys of the tree's width)
};

using BTreeFindFunction = uint64_t (*)(BTree *tree, uint64_t key, uint64_t newValue, uint64_t notFoundValue,
                                       uint64_t *lowerKey, uint64_t *lowerValue, uint64_t *upperKey,
                                       uint64_t *upperValue, int create, int replace, int remove, uint32_t genID);
using BTreeNextFunction = int (*)(BTreeEnumeration *enumeration, uint64_t *key, uint64_t *value);

namespace qw::bt {
// The rest of an instantiation's entry points, reached from the facade.
struct Ops {
  uint32_t keySize;
  BTreeNextFunction next;
  int (*enumerate)(BTree *, BTreeEntryCallback, void *, uint32_t);
  int (*blockEnumerate)(BTree *, BTreeBlockCallback, void *, uint32_t, int);
};
extern const Ops kUIntOps;
extern const Ops kULongOps;
}  // namespace qw::bt

struct BTree {
  BTreeFindFunction find;  // the instantiation's find, on 64-bit keys
  VMArena *arena;
  VMAArrayHandle root;    // one 32-bit element: the root's block id
  VMAArrayHandle params;  // 0, V
  uint32_t locked[2];     // per generation: set by BTreeLockRegister, passed on node access
  uint32_t maxKeyCount[2];  // index kInternal / kLeaf
  uint32_t valueOffset[2];
  uint32_t blockOffset[2];
  uint32_t valueSize;        // V
  BTreePathEntry *path;      // growable: the descent of the last create or remove
  uint64_t *scratchKeys;     // growable: redistribution buffers
  uint8_t *scratchValues;
  uint32_t *scratchSons;
  const qw::bt::Ops *ops;
  uint32_t bucketCount;      // of the arena, to validate block ids
  uint32_t bucketMask;
  uint32_t lockCount[2];     // registrations made, to undo at free
  BTreeFinger finger;
};

// A frame of an iterator: one acquired node.
struct BTreeFrame {
  uint32_t blockID;
  const uint8_t *data;
  uint32_t keyCount;
  int isLeaf;
  uint32_t keyIndex;  // next entry to return (or son to descend to)
  int sonDone;        // son keyIndex has been walked
};

struct BTreeEnumeration {
  BTreeNextFunction next;
  BTreeFrame *stack;  // growable
  BTree *tree;
  int finished;
  uint32_t genID;
};

namespace qw::bt {

// "FALSE" for anything but NEWGEN and OLDGEN.
inline void CheckGeneration(uint32_t genID) {
  if (genID != NEWGEN && genID != OLDGEN) qwassert_(FALSE);
}

// Tags the arena corrupted (unless it is read-only or tagged already).
void TagCorrupted(BTree *tree);

// Tags the arena and raises a data error naming the node and what is wrong.
// Returns false.
bool Corrupted(BTree *tree, uint32_t blockID, const char *what);

// An invariant of stored contents: tag the arena, then fail the assertion.
#define BT_ASSERT(tree, expression)                   \
  do {                                                \
    if (!(expression)) {                              \
      qw::bt::TagCorrupted(tree);                     \
      QWAssertFail_(#expression, __FILE__, __LINE__); \
    }                                                 \
  } while (0)

// The global block id's 8192-byte data block as an arena block id (class 15,
// no slot bits), for VMArenaDataRelease.
inline uint64_t DataBlockArenaId(uint32_t blockID) { return (uint64_t(blockID) << 4) | 15u; }

// True when the id may name a block of this arena (its bucket exists).
inline bool PlausibleBlock(const BTree *tree, uint32_t blockID) {
  return blockID != INVALID_BLOCK_ID && (blockID & tree->bucketMask) < tree->bucketCount;
}

// One node block held through the arena; released on destruction.
class NodeRef {
 public:
  NodeRef() = default;
  ~NodeRef() { Release(); }
  NodeRef(const NodeRef &) = delete;
  NodeRef &operator=(const NodeRef &) = delete;

  // Acquires the node for reading (read != 0) or writing. A block id that
  // names no block tags the arena (the caller got it from a stored son or
  // "root"). A write moves the arena's shape epoch, since the node may be an
  // inner one. False with an error.
  [[nodiscard]] bool Acquire(BTree *tree, uint32_t blockID, uint32_t genID, int read);
  // Acquires a leaf of the new generation for writing without moving the
  // shape epoch: the caller changes entries of that leaf only (no split, no
  // separator above it), and checks that the node is a leaf before it does.
  [[nodiscard]] bool AcquireLeafForEdit(BTree *tree, uint32_t blockID);
  // The plain acquisition, without judging a failure (the check's own).
  [[nodiscard]] bool Hold(BTree *tree, uint32_t blockID, uint32_t genID, int read);
  void Release();
  // Hands the hold to the caller, who releases it with VMArenaDataRelease.
  uint8_t *Detach() {
    uint8_t *bytes = bytes_;
    bytes_ = nullptr;
    return bytes;
  }
  uint8_t *bytes() const { return bytes_; }
  uint32_t blockID() const { return blockID_; }

 private:
  [[nodiscard]] bool AcquireQuietly(BTree *tree, uint32_t blockID, uint32_t genID, int read);

  VMArena *arena_ = nullptr;
  uint32_t blockID_ = INVALID_BLOCK_ID;
  int read_ = 1;
  uint8_t *bytes_ = nullptr;
};

// Typed access to a node's bytes for key type Key (uint32_t or uint64_t).
// Offsets come from the tree's layout constants of the node's kind.
template <typename Key>
class Node {
 public:
  static constexpr uint32_t K = sizeof(Key);

  Node(const BTree *tree, uint8_t *bytes)
      : bytes_(bytes), tree_(tree), leaf_(bytes[kFlagsOffset] & kLeafFlag ? kLeaf : kInternal) {}

  bool isLeaf() const { return leaf_ == kLeaf; }
  int kind() const { return leaf_; }
  uint32_t keyCount() const { return uint32_t(LoadLE(bytes_ + kCountOffset, 2)); }
  void setKeyCount(uint32_t n) { StoreLE(bytes_ + kCountOffset, n, 2); }
  uint32_t maxKeyCount() const { return tree_->maxKeyCount[leaf_]; }
  // Sets the leaf bit, keeping the other flag bits.
  void setLeaf(bool leaf) {
    bytes_[kFlagsOffset] = uint8_t((bytes_[kFlagsOffset] & ~kLeafFlag) | (leaf ? kLeafFlag : 0));
    leaf_ = leaf ? kLeaf : kInternal;
  }

  Key key(uint32_t i) const {
    Key k;
    std::memcpy(&k, bytes_ + size_t(i) * K, K);  // little-endian hosts only (static_assert in find.cpp)
    return k;
  }
  void setKey(uint32_t i, Key k) { std::memcpy(bytes_ + size_t(i) * K, &k, K); }
  uint8_t *keyAt(uint32_t i) const { return bytes_ + size_t(i) * K; }

  uint64_t value(uint32_t i) const { return LoadBE(valueAt(i), tree_->valueSize); }
  void setValue(uint32_t i, uint64_t v) { StoreBE(valueAt(i), v, tree_->valueSize); }
  uint8_t *valueAt(uint32_t i) const {
    return bytes_ + tree_->valueOffset[leaf_] + size_t(i) * tree_->valueSize;
  }

  uint32_t son(uint32_t i) const { return LoadLE32(sonAt(i)); }
  void setSon(uint32_t i, uint32_t bid) { StoreLE32(sonAt(i), bid); }
  uint8_t *sonAt(uint32_t i) const { return bytes_ + tree_->blockOffset[leaf_] + size_t(i) * kSonSize; }

  uint8_t *bytes() const { return bytes_; }

 private:
  uint8_t *bytes_;
  const BTree *tree_;
  int leaf_;
};

// The most keys a node of the kind holds (the name the assertion texts use).
inline uint32_t BTreeMaxKeyCount(const BTree *btree, int isLeaf) { return btree->maxKeyCount[isLeaf ? kLeaf : kInternal]; }

// Checks the header of a node just read: a key count within its maximum,
// and keys in an internal node. Tags and fails otherwise.
template <typename Key>
[[nodiscard]] inline bool NodeHeaderSound(BTree *tree, uint32_t blockID, const Node<Key> &node) {
  if (node.keyCount() > node.maxKeyCount()) return Corrupted(tree, blockID, "key count above its maximum");
  if (!node.isLeaf() && node.keyCount() == 0) return Corrupted(tree, blockID, "internal node without keys");
  return true;
}

// Where a key belongs in one node.
struct SearchResult {
  uint32_t position;  // the entry hit, or the son to follow
  bool hit;
};

// The generic body. Every function reports failure through the error chain
// and a false (or 0) result.
template <typename Key>
struct Tree {
  // find.cpp
  static SearchResult Search(BTree *tree, const Node<Key> &node, Key key);
  static uint64_t Find(BTree *tree, Key key, uint64_t newValue, uint64_t notFoundValue, uint64_t *lowerKey,
                       uint64_t *lowerValue, uint64_t *upperKey, uint64_t *upperValue, int create, int replace,
                       int remove, uint32_t genID);
  [[nodiscard]] static bool AddRoot(BTree *tree, uint32_t genID);
  // insert.cpp
  [[nodiscard]] static bool Insert(BTree *tree, Key key, uint64_t value, uint32_t genID);
  [[nodiscard]] static bool SplitInsert(BTree *tree, Key *key, uint64_t *value, uint32_t *son, uint32_t position,
                                        uint32_t blockID, int isLeaf, uint32_t genID);
  static void InsertAt(BTree *tree, Node<Key> &node, uint32_t position, Key key, uint64_t value, uint32_t son);
  static void RemoveAt(BTree *tree, Node<Key> &node, uint32_t i);
  // rebalance.cpp: redistribution with a sibling of the child below path
  // entry `level`. Insert mode carries (key, value, son) into the child;
  // *resolved tells whether the caller is done. A merge (delete mode) is
  // reported as not resolved.
  [[nodiscard]] static bool Redistribute(BTree *tree, uint32_t level, bool insertMode, Key key, uint64_t value,
                                         uint32_t son, bool *resolved);
  // remove.cpp: deletes the entry on top of the path and rebalances.
  [[nodiscard]] static bool Delete(BTree *tree);
  // walk.cpp
  static int Enumerate(BTree *tree, BTreeEntryCallback callback, void *context, uint32_t genID);
  static int BlockEnumerate(BTree *tree, BTreeBlockCallback callback, void *context, uint32_t genID, int full);
  static int Next_(BTreeEnumeration *enumeration, uint64_t *key, uint64_t *value);
  static int Next(BTreeEnumeration *enumeration, uint64_t *key, uint64_t *value);
};

// Key size arguments: 4 or 8, and the tree's own when a tree is given
// ("FALSE" otherwise).
void CheckKeySize(const BTree *tree, uint32_t keySize);
// The instantiations' find on 64-bit keys (the record's find function).
uint64_t UIntFind64(BTree *tree, uint64_t key, uint64_t newValue, uint64_t notFoundValue, uint64_t *lowerKey,
                    uint64_t *lowerValue, uint64_t *upperKey, uint64_t *upperValue, int create, int replace,
                    int remove, uint32_t genID);
uint64_t ULongFind64(BTree *tree, uint64_t key, uint64_t newValue, uint64_t notFoundValue, uint64_t *lowerKey,
                     uint64_t *lowerValue, uint64_t *upperKey, uint64_t *upperValue, int create, int replace,
                     int remove, uint32_t genID);
// Undoes the tree's memory-lock registrations (locks.cpp).
void UnregisterLocks(BTree *tree);

// The root's block id in genID: *present is false for an empty tree.
[[nodiscard]] bool ReadRoot(BTree *tree, uint32_t genID, bool *present, uint32_t *rootID);
// Makes `blockID` the root ("root" gets length 1).
[[nodiscard]] bool WriteRoot(BTree *tree, uint32_t blockID);
// The tree's shape in the new generation may have changed: fingers of every
// handle in the arena are void.
void ShapeChanged(BTree *tree);
// A fresh node block of the given kind with no keys; INVALID_BLOCK_ID with
// an error when none can be had.
uint32_t NewNode(BTree *tree, bool leaf, uint8_t flagsFrom);
// Empties the path stack, trimming it when it has grown past kPathTrim.
[[nodiscard]] bool ResetPath(BTree *tree);
[[nodiscard]] inline bool PushPath(BTree *tree, uint32_t blockID, uint32_t keyIndex) {
  return ArrayAppend(tree->path, (BTreePathEntry{blockID, keyIndex})) != 0;
}
// Makes the redistribution buffers hold `keys` keys and sons.
[[nodiscard]] bool ReserveScratch(BTree *tree, uint32_t keys);

// The son moves of node insert and remove shift `count` sons by one place
// using count * V bytes, as nodes written by other builds of this format do.
// The length is kept within the node (it never passes the flags byte) and
// never below the live sons (count * 4), so that widths other than 4 keep
// the son array whole.
inline size_t SonMoveLength(uint32_t count, uint32_t valueSize, const uint8_t *from, const uint8_t *to,
                            const uint8_t *node) {
  size_t length = size_t(count) * (valueSize > kSonSize ? valueSize : kSonSize);
  const uint8_t *far = from > to ? from : to;
  const size_t room = size_t(node + kFlagsOffset - far);
  return length < room ? length : room;
}

}  // namespace qw::bt
