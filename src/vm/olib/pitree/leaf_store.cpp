// Leaves: reading, storing (in a slot or in the block-directory array),
// giving places back, and the explosion of an oversized leaf into head nodes.
//
// Leaf l of the array is element l / 64 of bucket l % 64. Fresh numbers come from
// headIndex[kNextLeafSlot] (bucket l % 64 then has exactly l / 64 elements,
// so DBArrayAdd hands out l / 64); numbers given back are kept in "free" and
// reused last-in first-out, their element emptied meanwhile.
//
// Explosion threshold: a leaf is rewritten whole on every change, so its
// size bounds the cost of an insert; 1 KiB keeps a change near a microsecond
// while leaving a leaf tens of keys to share the skips and the per-leaf
// overhead (the head branch and the array's element header) between.
#include <algorithm>

#include "vm/olib/pitree/leaf_codec.h"
#include "vm/olib/pitree/leaf_store.h"

namespace qw::pit {
namespace {

constexpr uint32_t kArrayBlock = ARENA_MAX_BLOCK_SIZE;

uint32_t BucketOf(uint32_t leaf) { return leaf % PITREE_LEAF_BUCKETS; }
uint32_t HandleOf(uint32_t leaf) { return leaf / PITREE_LEAF_BUCKETS; }

// Takes the last number from "free" (kNoRef when there is none).
bool PopFreeLeaf(const PITree *tree, uint32_t *leaf) {
  *leaf = kNoRef;
  const uint32_t id = tree->free.id[NEWGEN];
  const uint32_t length = VMAArrayLength_(tree->arena, id, NEWGEN);
  if (length == 0) return true;
  if (!ReadU32(tree, tree->free, length - 1, NEWGEN, leaf)) return false;
  return VMAArrayLengthSet_(tree->arena, id, length - 1, NEWGEN, 4) != 0;
}

// The bytes of array leaf `leaf`, made before the next fresh number `next`;
// null with an error when it is missing or unreadable.
const uint8_t *LeafAcquireBelow(const PITree *tree, uint32_t leaf, uint32_t next, uint32_t genID, uint32_t *length) {
  if (leaf >= next) {
    Corrupted(tree, "a reference names a leaf never made", leaf);
    return nullptr;
  }
  QWErrorClear();
  const void *bytes = DBArrayGet(tree->leaf, BucketOf(leaf), HandleOf(leaf), genID, 1, length);
  if (!bytes) {
    if (QWErrorIsSet())
      QWErrorRethrow("cannot read leaf %u", leaf);
    else
      Corrupted(tree, "a reference names an empty leaf", leaf);
  }
  return static_cast<const uint8_t *>(bytes);
}

void LeafRelease(const PITree *tree, uint32_t genID, const uint8_t *bytes) {
  if (bytes) DBArrayRelease(tree->leaf, genID, 1, bytes);
}

bool LeafWrite(const PITree *tree, uint32_t leaf, const std::vector<uint8_t> &bytes) {
  if (DBArraySet(tree->leaf, BucketOf(leaf), HandleOf(leaf), NEWGEN, bytes.data(), uint32_t(bytes.size())))
    return true;
  return QWErrorRethrow("cannot write leaf %u", leaf);
}

// Stores `bytes` as a new leaf of the array (a number from "free" first).
bool LeafNew(const PITree *tree, const std::vector<uint8_t> &bytes, uint32_t *leaf) {
  if (!PopFreeLeaf(tree, leaf)) return false;
  if (*leaf != kNoRef) return LeafWrite(tree, *leaf, bytes);
  uint32_t next = 0;
  if (!HeadIndexGet(tree, kNextLeafSlot, NEWGEN, &next)) return false;
  if (next >= kLeafFlag) return QWErrorThrow(75, QW_ERROR_CLASS_GENERAL, "a symbol-sequence tree has no leaf left");
  const uint32_t handle = DBArrayAdd(tree->leaf, BucketOf(next), bytes.data(), uint32_t(bytes.size()), NEWGEN);
  if (handle == DBARRAY_INVALID_HANDLE) return QWErrorRethrow("cannot add a leaf");
  if (handle != HandleOf(next)) return Corrupted(tree, "a leaf bucket holds more leaves than were made", next);
  *leaf = next;
  return WriteU32(tree, tree->headIndex, kNextLeafSlot, next + 1);
}

// Empties the leaf and gives its number back to "free".
bool LeafFree(const PITree *tree, uint32_t leaf) {
  if (!DBArraySet(tree->leaf, BucketOf(leaf), HandleOf(leaf), NEWGEN, nullptr, 0))
    return QWErrorRethrow("cannot empty leaf %u", leaf);
  return VMAArrayAppend_(tree->arena, tree->free.id[NEWGEN], Locked(tree, NEWGEN), kArrayBlock, &leaf, 1, NEWGEN,
                         4) != 0;
}

}  // namespace

LeafHold::~LeafHold() { LeafRelease(tree_, genID_, arrayBytes_); }

bool LeafHold::Acquire(uint32_t ref, uint32_t nextLeaf, const uint8_t **bytes, uint32_t *length) {
  if (IsLeafRef(ref)) {
    if (nextLeaf == kNoRef && !HeadIndexGet(tree_, kNextLeafSlot, genID_, &nextLeaf)) return false;
    arrayBytes_ = LeafAcquireBelow(tree_, LeafOf(ref), nextLeaf, genID_, length);
    *bytes = arrayBytes_;
    return arrayBytes_ != nullptr;
  }
  HeadView view;
  if (!slot_.Acquire(ref, &view)) return false;
  if (!view.isLeaf) return Corrupted(tree_, "a head node where a leaf belongs", ref);
  *bytes = view.leaf;
  *length = view.leafLength;
  return true;
}

bool LeafPut(const PITree *tree, const std::vector<uint8_t> &bytes, uint32_t *ref) {
  const bool inArray = *ref != kNoRef && IsLeafRef(*ref);
  if (bytes.size() <= kSlotLeafMost) {
    if (!inArray) return SlotLeafStore(tree, bytes, ref);
    const uint32_t old = *ref;
    *ref = kNoRef;
    return SlotLeafStore(tree, bytes, ref) && LeafDrop(tree, old);
  }
  if (inArray) return LeafWrite(tree, LeafOf(*ref), bytes);
  uint32_t leaf = kNoRef;
  if (!LeafNew(tree, bytes, &leaf) || (*ref != kNoRef && !HeadFree(tree, *ref))) return false;
  *ref = LeafRef(leaf);
  return true;
}

bool LeafDrop(const PITree *tree, uint32_t ref) {
  return IsLeafRef(ref) ? LeafFree(tree, LeafOf(ref)) : HeadFree(tree, ref);
}

bool BuildSubtree(const PITree *tree, PITreeThreadData *td, const EntryList &list, size_t lo, size_t hi,
                  size_t depth, uint32_t *ref) {
  std::vector<uint8_t> encoded;
  LeafEncode(list, lo, hi, depth, encoded, td->header, td->sizes);
  if (encoded.size() <= kExplodeBytes) {
    *ref = kNoRef;
    return LeafPut(tree, encoded, ref);
  }
  // Too large for one leaf: its top node becomes a head node.
  const Entry &first = list.entries[lo], &last = list.entries[hi - 1];
  const uint8_t *a = list.Key(first), *z = list.Key(last);
  size_t skip = 0;
  const size_t most = std::min<size_t>(kMaxSkip, std::min(first.length, last.length) - depth);
  while (skip < most && (lo + 1 == hi || a[depth + skip] == z[depth + skip])) ++skip;
  HeadNode node;
  node.skip.assign(a + depth, a + depth + skip);
  const size_t at = depth + skip;
  size_t g = lo;
  if (first.length == at) {
    node.hasData = true;
    node.data = first.value;
    ++g;
  }
  while (g < hi) {
    const uint8_t b = list.Key(list.entries[g])[at];
    size_t e = g + 1;
    while (e < hi && list.Key(list.entries[e])[at] == b) ++e;
    uint32_t child = kNoRef;
    if (!BuildSubtree(tree, td, list, g, e, at + 1, &child)) return false;
    node.branches.push_back(b);
    node.refs.push_back(child);
    g = e;
  }
  return HeadNew(tree, node, ref);
}

}  // namespace qw::pit
