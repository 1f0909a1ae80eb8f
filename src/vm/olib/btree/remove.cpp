// Deletion of the entry on top of the path: in a leaf it goes; in an
// internal node its in-order successor (the first entry of the leftmost
// leaf under the next son) takes its place. Then the path is walked up,
// redistributing or merging every node that fell below half.
#include "vm/olib/btree/btree_internal.h"

namespace qw::bt {
namespace {

// Extends the path from the internal entry on top down to the leftmost leaf
// under its next son, each step at position 0.
template <typename Key>
bool DescendToSuccessor(BTree *tree, uint32_t blockID) {
  for (;;) {
    if (ArrayLength(tree->path) >= kMaxDepth) return Corrupted(tree, blockID, "path deeper than any tree");
    NodeRef ref;
    if (!ref.Acquire(tree, blockID, NEWGEN, 1)) return false;
    const Node<Key> node(tree, ref.bytes());
    if (!NodeHeaderSound(tree, blockID, node)) return false;
    if (!PushPath(tree, blockID, 0)) return false;
    if (node.isLeaf()) return true;
    blockID = node.son(0);
  }
}

}  // namespace

template <typename Key>
bool Tree<Key>::Delete(BTree *tree) {
  const size_t top = ArrayLength(tree->path) - 1;
  const BTreePathEntry entry = tree->path[top];
  NodeRef ref;
  if (!ref.Acquire(tree, entry.blockID, NEWGEN, 0)) return false;
  Node<Key> node(tree, ref.bytes());
  if (entry.keyIndex >= node.keyCount()) return Corrupted(tree, entry.blockID, "path position beyond the node");
  if (node.isLeaf()) {
    RemoveAt(tree, node, entry.keyIndex);
  } else {
    tree->path[top].keyIndex = entry.keyIndex + 1;
    if (!DescendToSuccessor<Key>(tree, node.son(entry.keyIndex + 1))) return false;
    const uint32_t leafID = ArrayLast(tree->path).blockID;
    NodeRef leafRef;
    if (!leafRef.Acquire(tree, leafID, NEWGEN, 0)) return false;
    Node<Key> leaf(tree, leafRef.bytes());
    const uint32_t sonKeyCount = leaf.keyCount();
    BT_ASSERT(tree, sonKeyCount != 0);
    const Key successor = leaf.key(0);
    const uint64_t successorValue = leaf.value(0);
    RemoveAt(tree, leaf, 0);
    node.setKey(entry.keyIndex, successor);
    node.setValue(entry.keyIndex, successorValue);
  }
  ref.Release();

  for (size_t level = ArrayLength(tree->path) - 1; level >= 1; --level) {
    const uint32_t blockID = tree->path[level].blockID;
    NodeRef below;
    if (!below.Acquire(tree, blockID, NEWGEN, 1)) return false;
    const Node<Key> child(tree, below.bytes());
    if (child.keyCount() >= child.maxKeyCount() / 2) break;
    below.Release();
    bool resolved = false;
    if (!Redistribute(tree, uint32_t(level - 1), false, Key{}, 0, INVALID_BLOCK_ID, &resolved)) return false;
    if (resolved) break;
  }
  return true;
}

#define BT_INSTANTIATE(Key) template bool Tree<Key>::Delete(BTree *);
BT_INSTANTIATE(uint32_t)
BT_INSTANTIATE(uint64_t)

}  // namespace qw::bt
