// Node search and the combined lookup / insert / replace / remove.
//
// A descent keeps the separators of the parent it came from and checks the
// node it reaches against them (two comparisons), so a node whose keys
// contradict the path to it is reported instead of sending later changes
// astray.
//
// A descent of the new generation remembers the leaf it reached (the
// record's finger). The next one starts there when its key lies strictly
// between that leaf's separators and the arena's shape epoch has not moved:
// then the root element and the inner nodes are what they were, so the full
// descent would reach the same leaf through the same sons. An insert into a
// leaf with room and a replace in a leaf keep the epoch; every other write
// of a node (removals included), of the root element, a clear, a commit or
// a mount moves it.
#include <bit>
#include <initializer_list>

#include "vm/arena/arena.h"
#include "vm/olib/btree/btree_internal.h"

static_assert(std::endian::native == std::endian::little, "node keys are read in place as little-endian");

namespace qw::bt {

template <typename Key>
SearchResult Tree<Key>::Search(BTree *tree, const Node<Key> &node, Key key) {
  const uint32_t keyCount = node.keyCount();
  if (keyCount == 0) return {0, false};  // the empty root
  if (keyCount == 1) {
    const Key only = node.key(0);
    if (only == key) return {0, true};
    return {only < key ? 1u : 0u, false};
  }
  // Keys that go past the last one (appends in key order) skip the search.
  const Key last = node.key(keyCount - 1);
  if (last < key) return {keyCount, false};
  if (last == key) return {keyCount - 1, true};
  uint32_t start = 0, end = keyCount - 1;
  while (start < end - 1) {
    const uint32_t mid = (start + end) >> 1;
    const Key at = node.key(mid);
    if (at == key) return {mid, true};
    if (at < key) start = mid;
    else end = mid;
  }
  const Key low = node.key(start), high = node.key(end);
  if (low > key) {
    BT_ASSERT(tree, start == 0);
    return {0, false};
  }
  if (high < key) {
    BT_ASSERT(tree, end == (keyCount - 1));
    return {keyCount, false};
  }
  if (low == key) return {start, true};
  if (high == key) return {end, true};
  return {start + 1, false};
}

namespace {

// The four neighbour outs of a find.
struct Outs {
  uint64_t *lowerKey, *lowerValue, *upperKey, *upperValue;

  bool Wanted() const { return lowerKey || lowerValue || upperKey || upperValue; }
  void Reset() const {
    for (uint64_t *out : {lowerKey, lowerValue, upperKey, upperValue})
      if (out) *out = BTREE_NO_KEY;
  }
  void Lower(uint64_t key, uint64_t value) const {
    if (lowerKey) *lowerKey = key;
    if (lowerValue) *lowerValue = value;
  }
  void Upper(uint64_t key, uint64_t value) const {
    if (upperKey) *upperKey = key;
    if (upperValue) *upperValue = value;
  }
};

// Separators a node reached by a descent must lie between.
template <typename Key>
struct Bounds {
  bool hasLow = false, hasHigh = false;
  Key low{}, high{};

  bool Admit(const Node<Key> &node) const {
    const uint32_t n = node.keyCount();
    if (n == 0) return true;
    return !(hasLow && node.key(0) <= low) && !(hasHigh && node.key(n - 1) >= high);
  }
  bool Holds(Key key) const { return !(hasLow && key <= low) && !(hasHigh && key >= high); }
  void Narrow(const Node<Key> &node, uint32_t position) {
    if (position > 0) hasLow = true, low = node.key(position - 1);
    if (position < node.keyCount()) hasHigh = true, high = node.key(position);
  }
};

template <typename Key>
Bounds<Key> FingerBounds(const BTreeFinger &finger) {
  return Bounds<Key>{finger.hasLow, finger.hasHigh, Key(finger.low), Key(finger.high)};
}

// Starts a descent of the new generation at the finger's leaf when that is
// where the key lives: the shape epoch has not moved and the key lies
// strictly between the leaf's separators. The leaf is acquired into *ref
// and looked at quietly (a leaf, within its separators); when anything is
// off, the finger is dropped and the caller descends from the root, which
// judges the nodes it meets.
template <typename Key>
bool StartAtFinger(BTree *tree, Key key, NodeRef *ref, Bounds<Key> *bounds, uint32_t *depth) {
  BTreeFinger &finger = tree->finger;
  if (!finger.valid || finger.epoch != qw::vm::ShapeEpoch(tree->arena)) return false;
  const Bounds<Key> around = FingerBounds<Key>(finger);
  if (!around.Holds(key)) return false;
  const uint32_t at = finger.depth - 1;
  const uint32_t leaf = finger.path[at].blockID;
  const bool held = PlausibleBlock(tree, leaf) && ref->Hold(tree, leaf, NEWGEN, 1);
  if (!held) QWErrorClear();  // the descent from the root meets the same failure, if it lasts
  if (held) {
    const Node<Key> node(tree, ref->bytes());
    if (node.isLeaf() && node.keyCount() <= node.maxKeyCount() && (at == 0 || node.keyCount() > 0) &&
        around.Admit(node)) {
      *bounds = around;
      *depth = at;
      return true;
    }
    ref->Release();
  }
  finger.valid = false;
  return false;
}

// Remembers the leaf a descent of the new generation reached.
template <typename Key>
void TakeFinger(BTree *tree, uint32_t depth, const Bounds<Key> &bounds) {
  BTreeFinger &finger = tree->finger;
  finger.valid = true;
  finger.epoch = qw::vm::ShapeEpoch(tree->arena);
  finger.depth = depth + 1;
  finger.hasLow = bounds.hasLow;
  finger.hasHigh = bounds.hasHigh;
  finger.low = uint64_t(bounds.low);
  finger.high = uint64_t(bounds.high);
}

// The path of a change that starts at the finger: the inner nodes above it.
bool PushFingerPath(BTree *tree, uint32_t depth) {
  if (!ArrayLengthSet(tree->path, depth)) return false;
  std::memcpy(tree->path, tree->finger.path, depth * sizeof(BTreePathEntry));
  return true;
}

}  // namespace

template <typename Key>
bool Tree<Key>::AddRoot(BTree *tree, uint32_t genID) {
  CheckGeneration(genID);
  qwassert_(genID == NEWGEN);
  const uint32_t blockID = VMArenaDataBlockNew(tree->arena, 0, 0);
  if (blockID == INVALID_BLOCK_ID) {
    if (QWErrorIsSet()) return QWErrorRethrow("no block for a B-tree root");
    return QWErrorThrow(28, QW_ERROR_CLASS_SYSTEM, "no block for a B-tree root");  // ENOSPC
  }
  NodeRef ref;
  if (!ref.Acquire(tree, blockID, NEWGEN, 0)) return false;
  ref.bytes()[kFlagsOffset] = kLeafFlag;
  StoreLE(ref.bytes() + kCountOffset, 0, 2);
  ref.Release();
  if (!WriteRoot(tree, blockID)) {
    VMArenaDataBlockFree(tree->arena, blockID, 0);
    return false;
  }
  return true;
}

template <typename Key>
uint64_t Tree<Key>::Find(BTree *tree, Key key, uint64_t newValue, uint64_t notFoundValue, uint64_t *lowerKey,
                         uint64_t *lowerValue, uint64_t *upperKey, uint64_t *upperValue, int create, int replace,
                         int remove, uint32_t genID) {
  qwassert_(!create || !remove);
  CheckGeneration(genID);
  if (create || replace || remove) qwassert_(genID == NEWGEN);
  const Outs outs{lowerKey, lowerValue, upperKey, upperValue};
  outs.Reset();

  const bool tracking = create || remove;
  const bool fingered = genID == NEWGEN;  // this descent reads and updates the finger
  NodeRef ref;
  Bounds<Key> bounds;
  uint32_t depth = 0;
  uint32_t blockID = INVALID_BLOCK_ID;
  if (fingered && !outs.Wanted() && StartAtFinger(tree, key, &ref, &bounds, &depth)) {
    blockID = tree->finger.path[depth].blockID;
    if (tracking && !(ResetPath(tree) && PushFingerPath(tree, depth))) return notFoundValue;
  } else {
    bool present = false;
    if (!ReadRoot(tree, genID, &present, &blockID)) return notFoundValue;
    if (!present) {
      if (!create) return notFoundValue;
      if (!AddRoot(tree, genID) || !ReadRoot(tree, genID, &present, &blockID)) return notFoundValue;
    }
    if (tracking && !ResetPath(tree)) return notFoundValue;
    if (fingered) tree->finger.valid = false;  // this descent rewrites its path
  }

  bool found = false;
  uint64_t foundValue = notFoundValue;
  for (;; ++depth) {
    if (depth >= kMaxDepth) {
      Corrupted(tree, blockID, "path deeper than any tree");
      return notFoundValue;
    }
    if (!ref.bytes() && !ref.Acquire(tree, blockID, genID, 1)) return notFoundValue;
    const Node<Key> node(tree, ref.bytes());
    if (!NodeHeaderSound(tree, blockID, node)) return notFoundValue;
    if (depth > 0 && node.keyCount() == 0) {
      Corrupted(tree, blockID, "empty node below the root");
      return notFoundValue;
    }
    if (!bounds.Admit(node)) {
      Corrupted(tree, blockID, "keys outside their parent's separators");
      return notFoundValue;
    }
    const SearchResult at = Search(tree, node, key);
    if (tracking && !PushPath(tree, blockID, at.position)) return notFoundValue;
    if (fingered) tree->finger.path[depth] = BTreePathEntry{blockID, at.position};
    if (node.isLeaf() && fingered) TakeFinger(tree, depth, bounds);
    if (at.hit) {
      found = true;
      foundValue = node.value(at.position);
      outs.Lower(uint64_t(key), foundValue);
      outs.Upper(uint64_t(key), foundValue);
      if (replace) {
        const bool leaf = node.isLeaf();
        ref.Release();
        NodeRef writable;
        if (!(leaf ? writable.AcquireLeafForEdit(tree, blockID) : writable.Acquire(tree, blockID, genID, 0)))
          return notFoundValue;
        Node<Key>(tree, writable.bytes()).setValue(at.position, newValue);
      }
      break;
    }
    if (at.position > 0) outs.Lower(uint64_t(node.key(at.position - 1)), node.value(at.position - 1));
    if (at.position < node.keyCount()) outs.Upper(uint64_t(node.key(at.position)), node.value(at.position));
    if (node.isLeaf()) break;
    bounds.Narrow(node, at.position);
    blockID = node.son(at.position);
    ref.Release();
  }
  ref.Release();
  if (found) {
    // create never overwrites: only replace writes the value of a present key.
    if (remove && !Delete(tree)) return notFoundValue;
    return foundValue;
  }
  if (create && !Insert(tree, key, newValue, genID)) return notFoundValue;
  return notFoundValue;
}

#define BT_INSTANTIATE(Key)                                                                                  \
  template SearchResult Tree<Key>::Search(BTree *, const Node<Key> &, Key);                                  \
  template bool Tree<Key>::AddRoot(BTree *, uint32_t);                                                       \
  template uint64_t Tree<Key>::Find(BTree *, Key, uint64_t, uint64_t, uint64_t *, uint64_t *, uint64_t *,    \
                                    uint64_t *, int, int, int, uint32_t);
BT_INSTANTIATE(uint32_t)
BT_INSTANTIATE(uint64_t)

}  // namespace qw::bt
