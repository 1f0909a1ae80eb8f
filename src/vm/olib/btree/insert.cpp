// Insertion along the path of the last find: in-node insert, redistribution
// with a sibling, split, and a new root when the root splits.
//
// Every block the insert may need (one per full node from the bottom of the
// path up, one more for a new root) is allocated before the first node
// changes, so running out of blocks fails the insert with the tree as it
// was.
#include "vm/olib/btree/btree_internal.h"

namespace qw::bt {
namespace {

// Blocks set aside for one insert.
class BlockReserve {
 public:
  explicit BlockReserve(BTree *tree) : tree_(tree) {}
  ~BlockReserve() {
    for (uint32_t i = taken_; i < count_; ++i) VMArenaDataBlockFree(tree_->arena, ids_[i], 0);
  }
  BlockReserve(const BlockReserve &) = delete;
  BlockReserve &operator=(const BlockReserve &) = delete;

  [[nodiscard]] bool Fill(uint32_t count) {
    while (count_ < count) {
      const uint32_t id = VMArenaDataBlockNew(tree_->arena, 0, 0);
      if (id == INVALID_BLOCK_ID) {
        if (QWErrorIsSet()) return QWErrorRethrow("no block for a B-tree node");
        return QWErrorThrow(28, QW_ERROR_CLASS_SYSTEM, "no block for a B-tree node");  // ENOSPC
      }
      ids_[count_++] = id;
    }
    return true;
  }
  // The blocks go out in the order they were made, so each split (and the
  // new root last) gets the block it would have made itself.
  uint32_t Take() {
    qwassert_(taken_ < count_);
    return ids_[taken_++];
  }

 private:
  BTree *tree_;
  uint32_t ids_[kMaxDepth + 1];
  uint32_t count_ = 0, taken_ = 0;
};

// Blocks an insert along the path can need: the full nodes from the bottom
// up, and a new root when all of them (the root included) are full.
template <typename Key>
bool BlocksNeeded(BTree *tree, uint32_t *count) {
  *count = 0;
  for (size_t level = ArrayLength(tree->path); level-- > 0;) {
    NodeRef ref;
    if (!ref.Acquire(tree, tree->path[level].blockID, NEWGEN, 1)) return false;
    const Node<Key> node(tree, ref.bytes());
    if (!NodeHeaderSound(tree, ref.blockID(), node)) return false;
    if (node.keyCount() < node.maxKeyCount()) return true;
    ++*count;
  }
  ++*count;  // the root is full too
  return true;
}

// The common part of a split: the node's upper half moves to `newBlock`.
template <typename Key>
bool SplitInto(BTree *tree, Key *key, uint64_t *value, uint32_t *son, uint32_t position, uint32_t blockID,
               int isLeaf, uint32_t newBlock) {
  NodeRef oldRef, newRef;
  if (!oldRef.Acquire(tree, blockID, NEWGEN, 0)) return false;
  Node<Key> old(tree, oldRef.bytes());
  if (!NodeHeaderSound(tree, blockID, old)) return false;
  if (old.isLeaf() != (isLeaf != 0)) return Corrupted(tree, blockID, "node kind contradicts its depth");
  BTree *btree = tree;
  const uint32_t keyCount = old.keyCount();
  BT_ASSERT(tree, BTreeMaxKeyCount(btree, isLeaf) == keyCount);
  if (position > keyCount) return Corrupted(tree, blockID, "path position beyond the node");
  const Key newKey = *key;
  uint32_t mid = keyCount / 2;
  if (old.key(mid) < newKey) ++mid;
  const Key upKey = old.key(mid);
  const Key *keyPtr = &upKey;
  BT_ASSERT(tree, *keyPtr != newKey);
  const uint64_t upValue = old.value(mid);

  if (!newRef.Acquire(tree, newBlock, NEWGEN, 0)) return false;
  newRef.bytes()[kFlagsOffset] = oldRef.bytes()[kFlagsOffset];
  Node<Key> right(tree, newRef.bytes());
  right.setLeaf(isLeaf != 0);
  const uint32_t moved = keyCount - mid - 1;
  std::memcpy(right.keyAt(0), old.keyAt(mid + 1), size_t(moved) * sizeof(Key));
  std::memcpy(right.valueAt(0), old.valueAt(mid + 1), size_t(moved) * tree->valueSize);
  if (!isLeaf) std::memcpy(right.sonAt(0), old.sonAt(mid + 1), size_t(moved + 1) * kSonSize);
  right.setKeyCount(moved);
  old.setKeyCount(mid);
  if (newKey < upKey) Tree<Key>::InsertAt(tree, old, position, newKey, *value, *son);
  else Tree<Key>::InsertAt(tree, right, position - mid - 1, newKey, *value, *son);
  *key = upKey;
  *value = upValue;
  *son = newBlock;
  return true;
}

// The root split: a new internal root over the old root and its new right
// sibling.
template <typename Key>
bool GrowRoot(BTree *tree, uint32_t oldRoot, Key key, uint64_t value, uint32_t upBID, uint32_t newRoot) {
  NodeRef ref;
  if (!ref.Acquire(tree, newRoot, NEWGEN, 0)) return false;
  ref.bytes()[kFlagsOffset] = 0;
  Node<Key> root(tree, ref.bytes());
  root.setLeaf(false);
  root.setKeyCount(1);
  root.setKey(0, key);
  root.setValue(0, value);
  root.setSon(0, oldRoot);
  BT_ASSERT(tree, upBID != INVALID_BLOCK_ID);
  root.setSon(1, upBID);
  ref.Release();
  return WriteRoot(tree, newRoot);
}

// The common case first: the leaf at the bottom of the path has room.
// *done tells whether the entry went in.
template <typename Key>
bool InsertIntoLeaf(BTree *tree, Key key, uint64_t value, bool *done) {
  const BTreePathEntry entry = ArrayLast(tree->path);
  NodeRef ref;
  if (!ref.AcquireLeafForEdit(tree, entry.blockID)) return false;
  Node<Key> node(tree, ref.bytes());
  if (!NodeHeaderSound(tree, entry.blockID, node)) return false;
  if (!node.isLeaf()) return Corrupted(tree, entry.blockID, "node kind contradicts its depth");
  if (entry.keyIndex > node.keyCount()) return Corrupted(tree, entry.blockID, "path position beyond the node");
  *done = node.keyCount() < node.maxKeyCount();
  if (*done) Tree<Key>::InsertAt(tree, node, entry.keyIndex, key, value, INVALID_BLOCK_ID);
  return true;
}

}  // namespace

template <typename Key>
void Tree<Key>::InsertAt(BTree *tree, Node<Key> &node, uint32_t position, Key key, uint64_t value, uint32_t son) {
  const uint32_t n = node.keyCount();
  const uint32_t tail = n - position;
  std::memmove(node.keyAt(position + 1), node.keyAt(position), size_t(tail) * sizeof(Key));
  std::memmove(node.valueAt(position + 1), node.valueAt(position), size_t(tail) * tree->valueSize);
  node.setKey(position, key);
  node.setValue(position, value);
  if (!node.isLeaf()) {
    const uint32_t bid = son;
    BT_ASSERT(tree, bid != INVALID_BLOCK_ID);
    uint8_t *from = node.sonAt(position + 1), *to = node.sonAt(position + 2);
    std::memmove(to, from, SonMoveLength(tail, tree->valueSize, from, to, node.bytes()));
    node.setSon(position + 1, bid);
  }
  node.setKeyCount(n + 1);
}

template <typename Key>
void Tree<Key>::RemoveAt(BTree *tree, Node<Key> &node, uint32_t i) {
  const uint32_t n = node.keyCount();
  const uint32_t tail = n - i - 1;
  std::memmove(node.keyAt(i), node.keyAt(i + 1), size_t(tail) * sizeof(Key));
  std::memmove(node.valueAt(i), node.valueAt(i + 1), size_t(tail) * tree->valueSize);
  if (!node.isLeaf()) {
    uint8_t *to = node.sonAt(i + 1), *from = node.sonAt(i + 2);
    std::memmove(to, from, SonMoveLength(tail, tree->valueSize, from, to, node.bytes()));
  }
  node.setKeyCount(n - 1);
}

template <typename Key>
bool Tree<Key>::SplitInsert(BTree *tree, Key *key, uint64_t *value, uint32_t *son, uint32_t position,
                            uint32_t blockID, int isLeaf, uint32_t genID) {
  CheckGeneration(genID);
  qwassert_(genID == NEWGEN);
  BlockReserve reserve(tree);
  if (!reserve.Fill(1)) return false;
  const uint32_t newBlock = reserve.Take();
  if (SplitInto(tree, key, value, son, position, blockID, isLeaf, newBlock)) return true;
  VMArenaDataBlockFree(tree->arena, newBlock, 0);
  return false;
}

template <typename Key>
bool Tree<Key>::Insert(BTree *tree, Key key, uint64_t value, uint32_t genID) {
  CheckGeneration(genID);
  qwassert_(genID == NEWGEN);
  const size_t depth = ArrayLength(tree->path);
  if (depth == 0) return QWErrorThrow(22, QW_ERROR_CLASS_GENERAL, "B-tree insert without the path of a find");
  bool done = false;
  if (!InsertIntoLeaf(tree, key, value, &done)) return false;
  if (done) return true;
  uint32_t needed = 0;
  BlockReserve reserve(tree);
  if (!BlocksNeeded<Key>(tree, &needed) || !reserve.Fill(needed)) return false;

  uint32_t son = INVALID_BLOCK_ID;
  for (size_t i = 0; i < depth; ++i) {
    const size_t level = depth - 1 - i;
    const BTreePathEntry entry = tree->path[level];
    const int isLeaf = i == 0;  // the bottom of a find's path is a leaf
    NodeRef ref;
    if (!ref.Acquire(tree, entry.blockID, NEWGEN, 0)) return false;
    Node<Key> node(tree, ref.bytes());
    if (!NodeHeaderSound(tree, entry.blockID, node)) return false;
    if (node.isLeaf() != (isLeaf != 0)) return Corrupted(tree, entry.blockID, "node kind contradicts its depth");
    if (entry.keyIndex > node.keyCount()) return Corrupted(tree, entry.blockID, "path position beyond the node");
    if (node.keyCount() < node.maxKeyCount()) {
      InsertAt(tree, node, entry.keyIndex, key, value, son);
      return true;
    }
    ref.Release();
    if (level > 0) {
      bool resolved = false;
      if (!Redistribute(tree, uint32_t(level - 1), true, key, value, son, &resolved)) return false;
      if (resolved) return true;
    }
    if (!SplitInto(tree, &key, &value, &son, entry.keyIndex, entry.blockID, isLeaf, reserve.Take())) return false;
    if (level == 0) return GrowRoot(tree, entry.blockID, key, value, son, reserve.Take());
  }
  return true;  // not reached: the root ends the loop
}

#define BT_INSTANTIATE(Key)                                                                                    \
  template void Tree<Key>::InsertAt(BTree *, Node<Key> &, uint32_t, Key, uint64_t, uint32_t);                  \
  template void Tree<Key>::RemoveAt(BTree *, Node<Key> &, uint32_t);                                                             \
  template bool Tree<Key>::SplitInsert(BTree *, Key *, uint64_t *, uint32_t *, uint32_t, uint32_t, int, uint32_t); \
  template bool Tree<Key>::Insert(BTree *, Key, uint64_t, uint32_t);
BT_INSTANTIATE(uint32_t)
BT_INSTANTIATE(uint64_t)

}  // namespace qw::bt
