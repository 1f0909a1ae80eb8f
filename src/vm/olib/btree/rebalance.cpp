// Redistribution of a child's entries with a sibling, and the merge that
// replaces it in delete mode when everything fits in one node.
//
// The child is the path entry below `level`; its parent is path entry
// `level`, where the child hangs as son j. All siblings and the parent are
// read first and the decision made before any node is acquired writable,
// so giving up (insert mode, both siblings full) changes nothing.
#include <initializer_list>

#include "vm/olib/btree/btree_internal.h"

namespace qw::bt {
namespace {

// What the decision needs of one node.
struct Shape {
  uint32_t keyCount = 0;
  int isLeaf = 0;
};

template <typename Key>
bool ReadShape(BTree *tree, uint32_t blockID, Shape *shape) {
  NodeRef ref;
  if (!ref.Acquire(tree, blockID, NEWGEN, 1)) return false;
  const Node<Key> node(tree, ref.bytes());
  if (!NodeHeaderSound(tree, blockID, node)) return false;
  shape->keyCount = node.keyCount();
  shape->isLeaf = node.isLeaf();
  return true;
}

// The gathered sequence of a redistribution: keys, values and sons of the
// left node, the separator, the right node, in key order.
template <typename Key>
class Gathered {
 public:
  explicit Gathered(BTree *tree)
      : keys_(reinterpret_cast<uint8_t *>(tree->scratchKeys)), values_(tree->scratchValues),
        sons_(tree->scratchSons), v_(tree->valueSize) {}

  void Append(const Node<Key> &node, bool internal) {
    const uint32_t n = node.keyCount();
    std::memcpy(keys_ + size_t(count_) * K, node.keyAt(0), size_t(n) * K);
    std::memcpy(values_ + size_t(count_) * v_, node.valueAt(0), size_t(n) * v_);
    if (internal) std::memcpy(sons_ + sonCount_, node.sonAt(0), size_t(n + 1) * kSonSize);
    count_ += n;
    sonCount_ += n + 1;
  }
  void AppendSeparator(const Node<Key> &parent, uint32_t s) {
    std::memcpy(keys_ + size_t(count_) * K, parent.keyAt(s), K);
    std::memcpy(values_ + size_t(count_) * v_, parent.valueAt(s), v_);
    ++count_;
  }
  // Puts (key, value) at `at` and its right son at at + 1.
  void Insert(uint32_t at, Key key, uint64_t value, uint32_t son, bool internal) {
    std::memmove(keys_ + size_t(at + 1) * K, keys_ + size_t(at) * K, size_t(count_ - at) * K);
    std::memmove(values_ + size_t(at + 1) * v_, values_ + size_t(at) * v_, size_t(count_ - at) * v_);
    std::memcpy(keys_ + size_t(at) * K, &key, K);
    StoreBE(values_ + size_t(at) * v_, value, v_);
    if (internal) {
      std::memmove(sons_ + at + 2, sons_ + at + 1, size_t(sonCount_ - at - 1) * kSonSize);
      StoreLE32(reinterpret_cast<uint8_t *>(sons_ + at + 1), son);
    }
    ++count_;
    ++sonCount_;
  }
  // Writes entries [from, from + n) (and their n + 1 sons) into `node`.
  void Emit(Node<Key> &node, uint32_t from, uint32_t n, bool internal) const {
    std::memcpy(node.keyAt(0), keys_ + size_t(from) * K, size_t(n) * K);
    std::memcpy(node.valueAt(0), values_ + size_t(from) * v_, size_t(n) * v_);
    if (internal) std::memcpy(node.sonAt(0), sons_ + from, size_t(n + 1) * kSonSize);
    node.setKeyCount(n);
  }
  void EmitSeparator(Node<Key> &parent, uint32_t s, uint32_t at) const {
    std::memcpy(parent.keyAt(s), keys_ + size_t(at) * K, K);
    std::memcpy(parent.valueAt(s), values_ + size_t(at) * v_, v_);
  }
  uint32_t count() const { return count_; }

 private:
  static constexpr uint32_t K = sizeof(Key);
  uint8_t *keys_;
  uint8_t *values_;
  uint32_t *sons_;  // stored little-endian, as in the nodes
  uint32_t v_;
  uint32_t count_ = 0, sonCount_ = 0;
};

}  // namespace

template <typename Key>
bool Tree<Key>::Redistribute(BTree *tree, uint32_t level, bool insertMode, Key key, uint64_t value, uint32_t son,
                             bool *resolved) {
  *resolved = false;
  const BTreePathEntry parentEntry = tree->path[level];
  const BTreePathEntry entry = tree->path[level + 1];
  const uint32_t j = parentEntry.keyIndex;
  uint32_t leftBID = INVALID_BLOCK_ID, rightBID = INVALID_BLOCK_ID;
  {
    NodeRef ref;
    if (!ref.Acquire(tree, parentEntry.blockID, NEWGEN, 1)) return false;
    const Node<Key> parent(tree, ref.bytes());
    if (!NodeHeaderSound(tree, parentEntry.blockID, parent)) return false;
    if (parent.isLeaf() || j > parent.keyCount() || parent.son(j) != entry.blockID)
      return Corrupted(tree, parentEntry.blockID, "parent does not lead to the node below it");
    if (j > 0) leftBID = parent.son(j - 1);
    if (j < parent.keyCount()) rightBID = parent.son(j + 1);
  }
  Shape child, left, right;
  if (!ReadShape<Key>(tree, entry.blockID, &child)) return false;
  for (uint32_t sonBID : {leftBID, rightBID}) {
    if (sonBID == INVALID_BLOCK_ID) continue;
    BT_ASSERT(tree, sonBID != entry.blockID);
  }
  if (leftBID != INVALID_BLOCK_ID && !ReadShape<Key>(tree, leftBID, &left)) return false;
  if (rightBID != INVALID_BLOCK_ID && !ReadShape<Key>(tree, rightBID, &right)) return false;

  const uint32_t maxKeyCount = tree->maxKeyCount[child.isLeaf ? kLeaf : kInternal];
  const bool hasLeft = leftBID != INVALID_BLOCK_ID, hasRight = rightBID != INVALID_BLOCK_ID;
  bool takeLeft;
  if (insertMode) {
    takeLeft = hasLeft && left.keyCount < maxKeyCount;
    const bool takeRight = hasRight && right.keyCount < maxKeyCount && (!takeLeft || right.keyCount < left.keyCount);
    if (!takeLeft && !takeRight) return true;  // both full: the caller splits
    if (takeRight) takeLeft = false;
  } else {
    takeLeft = hasLeft && !(hasRight && right.keyCount > left.keyCount);
  }
  const int isLeaf0 = takeLeft ? left.isLeaf : child.isLeaf;
  const int isLeaf1 = takeLeft ? child.isLeaf : right.isLeaf;
  BT_ASSERT(tree, isLeaf0 == isLeaf1);
  const bool internal = !child.isLeaf;
  if (insertMode && entry.keyIndex > child.keyCount)
    return Corrupted(tree, entry.blockID, "path position beyond the node");

  const uint32_t s = takeLeft ? j - 1 : j;
  const uint32_t leftID = takeLeft ? leftBID : entry.blockID;
  const uint32_t rightID = takeLeft ? entry.blockID : rightBID;
  const uint32_t total = (takeLeft ? left.keyCount : right.keyCount) + child.keyCount + 1 + (insertMode ? 1 : 0);
  if (!ReserveScratch(tree, total + 1)) return false;
  NodeRef parentRef, leftRef, rightRef;
  if (!parentRef.Acquire(tree, parentEntry.blockID, NEWGEN, 0) || !leftRef.Acquire(tree, leftID, NEWGEN, 0) ||
      !rightRef.Acquire(tree, rightID, NEWGEN, 0))
    return false;
  Node<Key> parent(tree, parentRef.bytes()), leftNode(tree, leftRef.bytes()), rightNode(tree, rightRef.bytes());

  Gathered<Key> all(tree);
  all.Append(leftNode, internal);
  all.AppendSeparator(parent, s);
  all.Append(rightNode, internal);
  if (insertMode) {
    const uint32_t childBase = takeLeft ? leftNode.keyCount() + 1 : 0;
    all.Insert(childBase + entry.keyIndex, key, value, son, internal);
  }
  const uint32_t t = all.count();

  if (!insertMode && t <= maxKeyCount) {
    // Merge: everything into the left node, the right one and its separator go.
    all.Emit(leftNode, 0, t, internal);
    RemoveAt(tree, parent, s);
    rightRef.Release();
    VMArenaDataBlockFree(tree->arena, rightID, 0);
    if (level == 0 && parent.keyCount() == 0) {
      parentRef.Release();
      if (!WriteRoot(tree, leftID)) return false;
      VMArenaDataBlockFree(tree->arena, parentEntry.blockID, 0);
    }
    return true;
  }
  const uint32_t leftCount = t / 2;
  const uint32_t rightCount = t - 1 - t / 2;
  BT_ASSERT(tree, leftCount >= (maxKeyCount / 2));
  BT_ASSERT(tree, leftCount <= maxKeyCount);
  BT_ASSERT(tree, rightCount >= (maxKeyCount / 2));
  BT_ASSERT(tree, rightCount <= maxKeyCount);
  all.Emit(leftNode, 0, leftCount, internal);
  all.EmitSeparator(parent, s, leftCount);
  all.Emit(rightNode, leftCount + 1, rightCount, internal);
  *resolved = true;
  return true;
}

#define BT_INSTANTIATE(Key) \
  template bool Tree<Key>::Redistribute(BTree *, uint32_t, bool, Key, uint64_t, uint32_t, bool *);
BT_INSTANTIATE(uint32_t)
BT_INSTANTIATE(uint64_t)

}  // namespace qw::bt
