// Head-tree slots: reading, writing, allocating and freeing head nodes
// (layout in head_tree.h). Every reference is checked against its array's
// length before it is read, and every node against its slot's size.
#include "vm/olib/pitree/head_tree.h"

#include <algorithm>
#include <cstring>

#include "vm/arena/arena.h"

namespace qw::pit {
namespace {

constexpr uint32_t kArrayBlock = ARENA_MAX_BLOCK_SIZE;

uint32_t ClassFor(uint32_t size) {
  for (uint32_t c = 0; c < kClassCount; ++c)
    if (size <= kClassSize[c]) return c;
  return kClassCount;
}

void PutU32(uint8_t *p, uint32_t v) {
  for (int k = 0; k < 4; ++k) p[k] = uint8_t(v >> (8 * k));
}
uint32_t GetU32(const uint8_t *p) {
  return uint32_t(p[0]) | uint32_t(p[1]) << 8 | uint32_t(p[2]) << 16 | uint32_t(p[3]) << 24;
}

bool ParseSlotLeaf(const uint8_t *slot, uint32_t slotSize, HeadView *view) {
  view->isLeaf = true;
  view->leafLength = uint32_t(slot[0] & 1) << 8 | slot[1];
  view->leaf = slot + kSlotLeafHeader;
  return view->leafLength > 0 && view->leafLength <= slotSize - kSlotLeafHeader;
}

bool ParseHead(const uint8_t *slot, uint32_t slotSize, HeadView *view) {
  if ((slot[0] & ~1u) == kSlotLeaf) return ParseSlotLeaf(slot, slotSize, view);
  view->isLeaf = false;
  if ((slot[0] & ~kHasData) != 0) return false;
  view->hasData = (slot[0] & kHasData) != 0;
  view->skipLength = slot[1];
  view->count = uint32_t(slot[2]) | uint32_t(slot[3]) << 8;
  if (view->count > 256) return false;
  uint32_t at = 4;
  view->data = 0;
  if (view->hasData) {
    for (int k = 7; k >= 0; --k) view->data = (view->data << 8) | slot[at + k];
    at += 8;
  }
  if (at + view->skipLength + 5 * view->count > slotSize) return false;
  view->skip = slot + at;
  view->branches = view->skip + view->skipLength;
  view->refs = view->branches + view->count;
  return view->hasData || view->count > 0;
}

void Serialize(const HeadNode &node, uint8_t *slot) {
  slot[0] = node.hasData ? kHasData : 0;
  slot[1] = uint8_t(node.skip.size());
  slot[2] = uint8_t(node.refs.size());
  slot[3] = uint8_t(node.refs.size() >> 8);
  uint32_t at = 4;
  if (node.hasData) {
    for (int k = 0; k < 8; ++k) slot[at + k] = uint8_t(node.data >> (8 * k));
    at += 8;
  }
  std::copy(node.skip.begin(), node.skip.end(), slot + at);  // (no memcpy: the vectors may be empty)
  at += uint32_t(node.skip.size());
  std::copy(node.branches.begin(), node.branches.end(), slot + at);
  at += uint32_t(node.branches.size());
  for (uint32_t r : node.refs) {
    PutU32(slot + at, r);
    at += 4;
  }
}

// The slot of `ref` in `genID`, writable unless `read`. Null with an error.
uint8_t *AcquireSlot(const PITree *tree, uint32_t ref, uint32_t genID, bool read, uint32_t *array) {
  const uint32_t cls = ClassOf(ref), slot = SlotOf(ref);
  if (IsLeafRef(ref) || cls >= kClassCount) {
    Corrupted(tree, "a head reference names no node class", ref);
    return nullptr;
  }
  *array = tree->node[cls].id[genID];
  if (*array == VMA_NO_ARRAY || slot >= VMAArrayLength_(tree->arena, *array, genID)) {
    Corrupted(tree, "a head reference names no slot", ref);
    return nullptr;
  }
  uint32_t end = 0;
  auto *bytes = static_cast<uint8_t *>(VMAArrayRange_(tree->arena, *array, Locked(tree, genID), kArrayBlock, slot,
                                                      &end, genID, read ? 1 : 0, kClassSize[cls], 0));
  if (!bytes) QWErrorRethrow("cannot read head node %08x", ref);
  return bytes;
}

bool PopFreeSlot(const PITree *tree, uint32_t cls, uint32_t *slot) {
  if (!HeadIndexGet(tree, kFreeSlot0 + cls, NEWGEN, slot)) return false;
  if (*slot == kNoRef) return true;
  uint32_t array = 0;
  uint8_t *bytes = AcquireSlot(tree, HeadRef(cls, *slot), NEWGEN, true, &array);
  if (!bytes) return false;
  const bool isFree = bytes[0] == kFreeMark;
  const uint32_t next = GetU32(bytes + 4);
  VMAArrayRelease_(tree->arena, array, bytes, 1);
  if (!isFree) return Corrupted(tree, "a free-slot list names a live head node", HeadRef(cls, *slot));
  return WriteU32(tree, tree->headIndex, kFreeSlot0 + cls, next);
}

}  // namespace

uint32_t HeadView::Find(uint8_t b) const {
  const void *hit = std::memchr(branches, b, count);
  return hit ? uint32_t(static_cast<const uint8_t *>(hit) - branches) : count;
}

void HeadNode::Assign(const HeadView &view) {
  hasData = view.hasData;
  data = view.data;
  skip.assign(view.skip, view.skip + view.skipLength);
  branches.assign(view.branches, view.branches + view.count);
  refs.resize(view.count);
  for (uint32_t i = 0; i < view.count; ++i) refs[i] = view.Ref(i);
}

void HeadNode::InsertBranch(uint8_t b, uint32_t ref) {
  auto at = std::lower_bound(branches.begin(), branches.end(), b);
  refs.insert(refs.begin() + (at - branches.begin()), ref);
  branches.insert(at, b);
}

namespace {

// True when some byte of bytes[at + 1 .. at + 17) is not above the one
// before it: sixteen neighbours compared at once.
bool FallsWithin16(const uint8_t *bytes, uint32_t at) {
  using Bytes16 = uint8_t __attribute__((vector_size(16)));
  Bytes16 here, next;
  std::memcpy(&here, bytes + at, 16);
  std::memcpy(&next, bytes + at + 1, 16);
  const auto falls = next <= here;  // all ones where a byte does not rise
  uint64_t halves[2];
  std::memcpy(halves, &falls, 16);
  return (halves[0] | halves[1]) != 0;
}

// True when bytes[0 .. count) rise strictly. It runs at every step of every
// walk through the arena over up to 256 branch bytes, so it compares 16
// neighbours at a time, the last group overlapping the one before it.
bool StrictlyRising(const uint8_t *bytes, uint32_t count) {
  if (count < 17) {
    for (uint32_t i = 1; i < count; ++i)
      if (bytes[i] <= bytes[i - 1]) return false;
    return true;
  }
  for (uint32_t at = 0; at + 17 <= count; at += 16)
    if (FallsWithin16(bytes, at)) return false;
  return !FallsWithin16(bytes, count - 17);
}

// A step reads the node's header, then its branch bytes, then one reference:
// asking for the slot's first lines at once lets those wait for memory
// together instead of one after the other.
void PrefetchSlot(const uint8_t *slot, uint32_t slotSize) {
  constexpr uint32_t kLine = 64, kMost = 512;
  for (uint32_t at = 0; at < slotSize && at < kMost; at += kLine) __builtin_prefetch(slot + at);
}

}  // namespace

bool HeadParseCopy(const PITree *tree, uint32_t ref, const uint8_t *copy, HeadView *view) {
  return ParseHead(copy, kClassSize[ClassOf(ref)], view) || Corrupted(tree, "malformed head node", ref);
}

bool HeadParse(const PITree *tree, uint32_t ref, const uint8_t *slot, HeadView *view) {
  if (!HeadParseCopy(tree, ref, slot, view)) return false;
  // Branches must rise, or lookups could miss keys and writes duplicate them.
  return view->isLeaf || StrictlyRising(view->branches, view->count) ||
         Corrupted(tree, "unordered head node", ref);
}

bool HeadSlot::Acquire(uint32_t ref, HeadView *view) {
  Release();
  bytes_ = AcquireSlot(tree_, ref, genID_, read_, &array_);
  if (!bytes_) return false;
  PrefetchSlot(bytes_, kClassSize[ClassOf(ref)]);
  return HeadParse(tree_, ref, bytes_, view);
}

void HeadSlot::Release() {
  if (bytes_) VMAArrayRelease_(tree_->arena, array_, bytes_, read_ ? 1 : 0);
  bytes_ = nullptr;
}

bool HeadIndexGet(const PITree *tree, uint32_t index, uint32_t genID, uint32_t *value) {
  const uint32_t id = tree->headIndex.id[genID];
  const uint32_t length = id == VMA_NO_ARRAY ? 0 : VMAArrayLength_(tree->arena, id, genID);
  if (length == 0) {
    *value = index == kNextLeafSlot ? 0 : kNoRef;
    return true;
  }
  if (length != kHeadIndexLength) return Corrupted(tree, "the head index has a wrong length", length);
  return ReadU32(tree, tree->headIndex, index, genID, value);
}

bool HeadIndexRootAndNext(const PITree *tree, uint32_t genID, uint32_t *root, uint32_t *nextLeaf) {
  *root = kNoRef;
  *nextLeaf = 0;
  const uint32_t id = tree->headIndex.id[genID];
  const uint32_t length = id == VMA_NO_ARRAY ? 0 : VMAArrayLength_(tree->arena, id, genID);
  if (length == 0) return true;
  if (length != kHeadIndexLength) return Corrupted(tree, "the head index has a wrong length", length);
  uint32_t end = 0;
  auto *p = static_cast<const uint8_t *>(
      VMAArrayRange_(tree->arena, id, Locked(tree, genID), kArrayBlock, kRootSlot, &end, genID, 1, 4, 0));
  if (!p) return QWErrorRethrow("cannot read a symbol-sequence tree");
  static_assert(kNextLeafSlot == kRootSlot + 1, "both in one range");
  const bool inRange = end > kNextLeafSlot;
  if (inRange) {
    *root = GetU32(p + 4 * kRootSlot);
    *nextLeaf = GetU32(p + 4 * kNextLeafSlot);
  }
  VMAArrayRelease_(tree->arena, id, const_cast<uint8_t *>(p), 1);
  return inRange || Corrupted(tree, "the head index has a wrong length", end);
}

namespace {

// Appends the committed slot of `ref` to *to once HeadParse accepts it.
bool AppendCheckedSlot(const PITree *tree, uint32_t ref, std::vector<uint8_t> *to) {
  uint32_t array = 0;
  const uint8_t *bytes = AcquireSlot(tree, ref, OLDGEN, true, &array);
  if (!bytes) return false;
  HeadView view;
  const bool parsed = HeadParse(tree, ref, bytes, &view);
  if (parsed) to->insert(to->end(), bytes, bytes + kClassSize[ClassOf(ref)]);
  VMAArrayRelease_(tree->arena, array, const_cast<uint8_t *>(bytes), 1);
  return parsed;
}

}  // namespace

bool CommittedTopGet(const PITree *tree, CommittedTop *top, uint32_t *root, uint32_t *nextLeaf,
                     const uint8_t **rootSlot) {
  const uint64_t epoch = qw::vm::ShapeEpoch(tree->arena);
  uint32_t ids[1 + kClassCount] = {tree->headIndex.id[OLDGEN]};
  for (uint32_t c = 0; c < kClassCount; ++c) ids[1 + c] = tree->node[c].id[OLDGEN];
  if (top->tree != tree->serial || top->epoch != epoch || !std::equal(ids, std::end(ids), top->ids)) {
    top->tree = 0;  // kept only once whole
    if (!HeadIndexRootAndNext(tree, OLDGEN, &top->root, &top->nextLeaf)) return false;
    top->rootSlot.clear();
    top->childAt.clear();
    top->children.clear();
    if (top->root != kNoRef && !IsLeafRef(top->root) && !AppendCheckedSlot(tree, top->root, &top->rootSlot))
      return false;
    top->epoch = epoch;
    std::copy(ids, std::end(ids), top->ids);
    top->tree = tree->serial;
  }
  *root = top->root;
  *nextLeaf = top->nextLeaf;
  *rootSlot = top->rootSlot.empty() ? nullptr : top->rootSlot.data();
  return true;
}

bool CommittedChildGet(const PITree *tree, CommittedTop *top, uint32_t branch, uint32_t ref, const uint8_t **copy) {
  *copy = nullptr;
  if (IsLeafRef(ref) || ClassOf(ref) >= kClassCount || kClassSize[ClassOf(ref)] > kMostCopiedChild) return true;
  if (top->childAt.size() <= branch) top->childAt.resize(branch + 1, CommittedTop::kNotCopied);
  if (top->childAt[branch] == CommittedTop::kNotCopied) {
    const uint32_t at = uint32_t(top->children.size());
    if (!AppendCheckedSlot(tree, ref, &top->children)) return false;
    top->childAt[branch] = at;
  }
  *copy = top->children.data() + top->childAt[branch];
  return true;
}

bool HeadIndexEnsure(const PITree *tree) {
  const uint32_t id = tree->headIndex.id[NEWGEN];
  if (VMAArrayLength_(tree->arena, id, NEWGEN) != 0) return true;
  uint32_t initial[kHeadIndexLength];
  std::fill(std::begin(initial), std::end(initial), kNoRef);
  initial[kNextLeafSlot] = 0;
  return VMAArrayAppend_(tree->arena, id, Locked(tree, NEWGEN), kArrayBlock, initial, kHeadIndexLength, NEWGEN, 4);
}

bool HeadRead(const PITree *tree, uint32_t ref, uint32_t genID, HeadNode *node) {
  HeadSlot slot(tree, genID, true);
  HeadView view;
  if (!slot.Acquire(ref, &view)) return false;
  if (view.isLeaf) return Corrupted(tree, "a slot leaf where a head node belongs", ref);
  node->Assign(view);
  return true;
}

namespace {

// A slot of class `cls` for new contents: a freed one first, else a new one
// at the end of the class's array.
bool AllocateSlot(const PITree *tree, uint32_t cls, uint32_t *ref) {
  uint32_t slot = kNoRef;
  if (!PopFreeSlot(tree, cls, &slot)) return false;
  const uint32_t id = tree->node[cls].id[NEWGEN];
  if (slot == kNoRef) {
    slot = VMAArrayLength_(tree->arena, id, NEWGEN);
    if (slot > SlotOf(kNoRef) - 1) return QWErrorThrow(75, QW_ERROR_CLASS_GENERAL, "the head tree is full");
    uint8_t zero[2048] = {};
    if (!VMAArrayAppend_(tree->arena, id, Locked(tree, NEWGEN), kArrayBlock, zero, 1, NEWGEN, kClassSize[cls]))
      return QWErrorRethrow("cannot add a head node");
  }
  *ref = HeadRef(cls, slot);
  return true;
}

// Writes a slot's contents through `fill`, or into a new slot of the
// smallest class holding `size` bytes when *ref is kNoRef or its class is
// too small (the old slot is freed then, and *ref changes). With `tight`
// the contents also move down when a smaller class holds them: a slot leaf
// that shrank gives its room back. Head nodes stay where they are (a split
// shrinks one in place under the reference that names it).
template <typename Fill>
bool StoreInSlot(const PITree *tree, uint32_t size, bool tight, uint32_t *ref, Fill fill) {
  const uint32_t cls = ClassFor(size);
  qwassert_(cls < kClassCount);
  if (*ref == kNoRef || size > kClassSize[ClassOf(*ref)] || (tight && cls < ClassOf(*ref))) {
    uint32_t moved = kNoRef;
    if (!AllocateSlot(tree, cls, &moved) || (*ref != kNoRef && !HeadFree(tree, *ref))) return false;
    *ref = moved;
  }
  uint32_t array = 0;
  uint8_t *bytes = AcquireSlot(tree, *ref, NEWGEN, false, &array);
  if (!bytes) return false;
  fill(bytes);
  VMAArrayRelease_(tree->arena, array, bytes, 0);
  return true;
}

}  // namespace

bool HeadNew(const PITree *tree, const HeadNode &node, uint32_t *ref) {
  *ref = kNoRef;
  return HeadStore(tree, node, ref);
}

bool HeadStore(const PITree *tree, const HeadNode &node, uint32_t *ref) {
  qwassert_(node.skip.size() <= kMaxSkip);
  return StoreInSlot(tree, node.EncodedSize(), false, ref, [&](uint8_t *slot) { Serialize(node, slot); });
}

bool SlotLeafStore(const PITree *tree, const std::vector<uint8_t> &bytes, uint32_t *ref) {
  const uint32_t length = uint32_t(bytes.size());
  qwassert_(length > 0 && length <= kSlotLeafMost);
  return StoreInSlot(tree, kSlotLeafHeader + length, true, ref, [&](uint8_t *slot) {
    slot[0] = uint8_t(kSlotLeaf | length >> 8);
    slot[1] = uint8_t(length);
    std::memcpy(slot + kSlotLeafHeader, bytes.data(), length);
  });
}

bool HeadFree(const PITree *tree, uint32_t ref) {
  const uint32_t cls = ClassOf(ref);
  uint32_t head = kNoRef, array = 0;
  if (!HeadIndexGet(tree, kFreeSlot0 + cls, NEWGEN, &head)) return false;
  uint8_t *bytes = AcquireSlot(tree, ref, NEWGEN, false, &array);
  if (!bytes) return false;
  bytes[0] = kFreeMark;
  PutU32(bytes + 4, head);
  VMAArrayRelease_(tree->arena, array, bytes, 0);
  return WriteU32(tree, tree->headIndex, kFreeSlot0 + cls, SlotOf(ref));
}

}  // namespace qw::pit
