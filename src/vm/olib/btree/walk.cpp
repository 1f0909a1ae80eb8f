// Walks over a tree: the in-order entry walk with a callback, the block walk
// (parents before sons), and the iterator, a step machine over a stack of
// acquired nodes.
#include "vm/olib/btree/btree_internal.h"

namespace qw::bt {
namespace {

enum class Walk { kGoOn, kStopped, kFailed };

template <typename Key>
Walk EntryWalk(BTree *tree, uint32_t blockID, uint32_t depth, BTreeEntryCallback callback, void *context,
               uint32_t genID) {
  if (depth >= kMaxDepth) {
    Corrupted(tree, blockID, "path deeper than any tree");
    return Walk::kFailed;
  }
  NodeRef ref;
  if (!ref.Acquire(tree, blockID, genID, 1)) return Walk::kFailed;
  const Node<Key> node(tree, ref.bytes());
  if (!NodeHeaderSound(tree, blockID, node)) return Walk::kFailed;
  const uint32_t n = node.keyCount();
  for (uint32_t i = 0; i <= n; ++i) {
    if (!node.isLeaf()) {
      const Walk below = EntryWalk<Key>(tree, node.son(i), depth + 1, callback, context, genID);
      if (below != Walk::kGoOn) return below;
    }
    if (i < n && callback(uint64_t(node.key(i)), node.value(i), context) != 0) return Walk::kStopped;
  }
  return Walk::kGoOn;
}

// `skipDepth`: nodes at this depth (the leaves) are neither reported nor
// read; kMaxDepth when every node is reported.
template <typename Key>
int BlockWalk(BTree *tree, uint32_t blockID, uint32_t depth, uint32_t skipDepth, BTreeBlockCallback callback,
              void *context, uint32_t genID) {
  if (depth >= kMaxDepth) {
    Corrupted(tree, blockID, "path deeper than any tree");
    return 1;
  }
  NodeRef ref;
  if (!ref.Acquire(tree, blockID, genID, 1)) return 1;
  const Node<Key> node(tree, ref.bytes());
  if (!NodeHeaderSound(tree, blockID, node)) return 1;
  if (node.isLeaf() && skipDepth != kMaxDepth) {  // leaves lie at skipDepth only
    Corrupted(tree, blockID, "leaves at different depths");
    return 1;
  }
  if (const int stop = callback(blockID, node.isLeaf(), context)) return stop;
  if (node.isLeaf() || depth + 1 >= skipDepth) return 0;
  for (uint32_t i = 0; i <= node.keyCount(); ++i)
    if (const int stop = BlockWalk<Key>(tree, node.son(i), depth + 1, skipDepth, callback, context, genID))
      return stop;
  return 0;
}

// Levels of the tree, found along its leftmost path.
template <typename Key>
bool Height(BTree *tree, uint32_t blockID, uint32_t genID, uint32_t *height) {
  for (*height = 1;; ++*height) {
    if (*height > kMaxDepth) return Corrupted(tree, blockID, "path deeper than any tree");
    NodeRef ref;
    if (!ref.Acquire(tree, blockID, genID, 1)) return false;
    const Node<Key> node(tree, ref.bytes());
    if (!NodeHeaderSound(tree, blockID, node)) return false;
    if (node.isLeaf()) return true;
    blockID = node.son(0);
  }
}

void ReleaseFrame(BTree *tree, const BTreeFrame &frame) {
  VMArenaDataRelease(tree->arena, DataBlockArenaId(frame.blockID), 1, const_cast<uint8_t *>(frame.data), 0, 0);
}

// Pops the top frame; the parent's son is done. Returns the step's result.
int PopFrame(BTreeEnumeration *enumeration) {
  ReleaseFrame(enumeration->tree, ArrayLast(enumeration->stack));
  const size_t left = ArrayLength(enumeration->stack) - 1;
  (void)ArrayLengthSet(enumeration->stack, left);
  if (left == 0) {
    enumeration->finished = 1;
    return 0;
  }
  ArrayLast(enumeration->stack).sonDone = 1;
  return BTREE_NEXT_STEPPED;
}

void ReleaseAll(BTreeEnumeration *enumeration) {
  for (size_t i = 0; i < ArrayLength(enumeration->stack); ++i) ReleaseFrame(enumeration->tree, enumeration->stack[i]);
  (void)ArrayLengthSet(enumeration->stack, 0);
}

int Fail(BTreeEnumeration *enumeration) {
  ReleaseAll(enumeration);
  enumeration->finished = 1;
  return -1;
}

template <typename Key>
int PushFrame(BTreeEnumeration *enumeration, uint32_t blockID) {
  BTree *tree = enumeration->tree;
  if (ArrayLength(enumeration->stack) >= kMaxDepth) {
    Corrupted(tree, blockID, "path deeper than any tree");
    return Fail(enumeration);
  }
  NodeRef ref;
  if (!ref.Acquire(tree, blockID, enumeration->genID, 1)) return Fail(enumeration);
  const Node<Key> node(tree, ref.bytes());
  if (!NodeHeaderSound(tree, blockID, node)) return Fail(enumeration);
  const BTreeFrame frame{blockID, ref.bytes(), node.keyCount(), node.isLeaf(), 0, 0};
  if (!ArrayAppend(enumeration->stack, frame)) return Fail(enumeration);
  (void)ref.Detach();  // the frame holds the node until it is popped
  return BTREE_NEXT_STEPPED;
}

}  // namespace

template <typename Key>
int Tree<Key>::Enumerate(BTree *tree, BTreeEntryCallback callback, void *context, uint32_t genID) {
  CheckGeneration(genID);
  bool present = false;
  uint32_t root = INVALID_BLOCK_ID;
  if (!ReadRoot(tree, genID, &present, &root)) return 0;
  if (!present) return 1;
  return EntryWalk<Key>(tree, root, 0, callback, context, genID) == Walk::kFailed ? 0 : 1;
}

template <typename Key>
int Tree<Key>::BlockEnumerate(BTree *tree, BTreeBlockCallback callback, void *context, uint32_t genID, int full) {
  CheckGeneration(genID);
  bool present = false;
  uint32_t root = INVALID_BLOCK_ID;
  if (!ReadRoot(tree, genID, &present, &root)) return 1;
  if (!present) return 0;
  uint32_t skipDepth = kMaxDepth;
  if (!full && !Height<Key>(tree, root, genID, &skipDepth)) return 1;
  if (!full) --skipDepth;  // depth of the leaves
  if (!full && skipDepth == 0) return 0;  // a root leaf: no internal node
  return BlockWalk<Key>(tree, root, 0, skipDepth, callback, context, genID);
}

template <typename Key>
int Tree<Key>::Next_(BTreeEnumeration *enumeration, uint64_t *key, uint64_t *value) {
  if (enumeration->finished) return 0;
  BTree *tree = enumeration->tree;
  if (ArrayLength(enumeration->stack) == 0) {
    bool present = false;
    uint32_t root = INVALID_BLOCK_ID;
    if (!ReadRoot(tree, enumeration->genID, &present, &root)) return Fail(enumeration);
    if (!present) {
      enumeration->finished = 1;
      return 0;
    }
    return PushFrame<Key>(enumeration, root);
  }
  BTreeFrame *stack = &ArrayLast(enumeration->stack);
  const Node<Key> node(tree, const_cast<uint8_t *>(stack->data));
  if (!stack->isLeaf && !stack->sonDone) {
    BT_ASSERT(tree, stack->keyIndex <= stack->keyCount);
    return PushFrame<Key>(enumeration, node.son(stack->keyIndex));
  }
  if (stack->keyIndex >= stack->keyCount) return PopFrame(enumeration);
  if (key) *key = uint64_t(node.key(stack->keyIndex));
  if (value) *value = node.value(stack->keyIndex);
  stack->sonDone = 0;
  ++stack->keyIndex;
  return 1;
}

template <typename Key>
int Tree<Key>::Next(BTreeEnumeration *enumeration, uint64_t *key, uint64_t *value) {
  int step;
  do step = Next_(enumeration, key, value);
  while (step == BTREE_NEXT_STEPPED);
  return step;
}

#define BT_INSTANTIATE(Key)                                                                     \
  template int Tree<Key>::Enumerate(BTree *, BTreeEntryCallback, void *, uint32_t);            \
  template int Tree<Key>::BlockEnumerate(BTree *, BTreeBlockCallback, void *, uint32_t, int); \
  template int Tree<Key>::Next_(BTreeEnumeration *, uint64_t *, uint64_t *);                  \
  template int Tree<Key>::Next(BTreeEnumeration *, uint64_t *, uint64_t *);
BT_INSTANTIATE(uint32_t)
BT_INSTANTIATE(uint64_t)

}  // namespace qw::bt
