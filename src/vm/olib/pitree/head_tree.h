// The head tree: the upper levels of the trie, in fixed-size slots of four
// arena arrays ".../pitree/head/node0" .. "node3" (slots of 32, 128, 512 and
// 2048 bytes: a node sits in the smallest class that holds it, so one head
// step reads one slot, inside one 8192-byte block).
//
// Head node, little-endian, at the start of its slot:
//
//   offset  size        field
//   0       1           flags: bit 0 hasData; 0x80 marks a free slot
//   1       1           skipLen: key bytes every key below shares (0 .. 255)
//   2       2           count: branches (0 .. 256)
//   4       8           data, when hasData (the atom ending after the skip)
//   ..      skipLen     skip bytes
//   ..      count       branch bytes, strictly ascending
//   ..      4 * count   references, in branch order
//
// A reference is 32 bits: bit 31 set names leaf (ref & 0x7FFFFFFF) of the
// leaf array; else bits 28..30 are the slot class and bits 0..27 the slot. A
// free slot holds 0x80 and, at offset 4, the next free slot of its class
// (0xFFFFFFFF ends it).
//
// Small leaves live in slots too (a slot leaf): flags 0x40 (bit 0 carrying
// the length's ninth bit), the leaf's length and its bytes in the leaf codec
// (leaf_codec.h):
//
//   offset  size        field
//   0       1           flags: 0x40 | (length >> 8)
//   1       1           length & 0xFF (length 1 .. slot size - 2)
//   2       length      the leaf
//
// A leaf of up to kSlotLeafMost (510) bytes is kept in the smallest slot
// that holds it (classes 0 to 2); larger ones go to the leaf array. Why: a
// slot is one arena access away from the reference that names it, where a
// leaf of the array is three (the bucket's directory entry, its first
// handle, then the data block and the block's own index). A leaf that
// explodes leaves one smaller leaf per branch behind, so in a large tree
// nearly every leaf is well under the explosion limit: one or two keys when
// keys share little, a few hundred bytes when they share long runs (URLs,
// paths), and most finds end in a slot leaf. The price is the room a slot
// leaves empty: a leaf of 127 to 510 bytes takes a 512-byte slot, where the
// leaf array stored it at its length (measured on a million URL-like keys:
// 50 bytes on disk per key instead of 32, for finds 10 to 25% faster; keys
// that share little barely change). The header is two bytes so that a leaf
// of one short key (about 25 bytes when the key has 24 symbols and three of
// them went to the head levels) fits a 32-byte slot.
//
// The arena array ".../pitree/head/headIndex" (32-bit elements) holds the
// root reference (0xFFFFFFFF: no atom), the next fresh leaf number and the
// head of each class's free-slot list. The largest node (256 branches, a
// 255-byte skip and data) takes 1547 bytes and fits class 3.
#pragma once

#include <cstdint>
#include <vector>

#include "vm/olib/pitree/pitree_internal.h"

namespace qw::pit {

inline constexpr uint8_t kHasData = 1, kSlotLeaf = 0x40, kFreeMark = 0x80;
inline constexpr uint32_t kMaxSkip = 255;
inline constexpr uint32_t kSlotLeafHeader = 2;
inline constexpr uint32_t kSlotLeafMost = kClassSize[2] - kSlotLeafHeader;
static_assert(kSlotLeafMost <= 511, "a slot leaf's length is nine bits");

// A head node read in place (pointers into the slot), or a slot leaf.
struct HeadView {
  bool isLeaf;  // a slot leaf: only leaf and leafLength below are set
  const uint8_t *leaf;
  uint32_t leafLength;
  bool hasData;
  uint64_t data;
  uint32_t skipLength;
  const uint8_t *skip;
  uint32_t count;
  const uint8_t *branches;
  const uint8_t *refs;
  uint32_t Ref(uint32_t i) const {
    const uint8_t *p = refs + 4 * i;
    return uint32_t(p[0]) | uint32_t(p[1]) << 8 | uint32_t(p[2]) << 16 | uint32_t(p[3]) << 24;
  }
  // Position of branch byte b, or count when absent.
  uint32_t Find(uint8_t b) const;
};

// A head node copied out, for changes.
struct HeadNode {
  bool hasData = false;
  uint64_t data = 0;
  std::vector<uint8_t> skip;
  std::vector<uint8_t> branches;
  std::vector<uint32_t> refs;
  uint32_t EncodedSize() const { return 4 + (hasData ? 8 : 0) + uint32_t(skip.size()) + 5 * uint32_t(refs.size()); }
  bool Empty() const { return !hasData && refs.empty(); }
  void Assign(const HeadView &view);
  void InsertBranch(uint8_t b, uint32_t ref);
};

// A slot held while its node (or slot leaf) is read; releases on
// destruction.
class HeadSlot {
 public:
  HeadSlot(const PITree *tree, uint32_t genID, bool read) : tree_(tree), genID_(genID), read_(read) {}
  ~HeadSlot() { Release(); }
  HeadSlot(const HeadSlot &) = delete;
  HeadSlot &operator=(const HeadSlot &) = delete;
  // Acquires the slot of `ref` and parses it into *view. False with an error
  // (damaged data: arena tagged) when it cannot be read or does not parse.
  [[nodiscard]] bool Acquire(uint32_t ref, HeadView *view);
  uint8_t *bytes() const { return bytes_; }
  void Release();

 private:
  const PITree *tree_;
  uint32_t genID_;
  bool read_;
  uint32_t array_ = 0;
  uint8_t *bytes_ = nullptr;
};

// The tree's headIndex element in `genID`; kNoRef / 0 when the tree has no
// head yet. False with an error when it cannot be read.
[[nodiscard]] bool HeadIndexGet(const PITree *tree, uint32_t index, uint32_t genID, uint32_t *value);
// The root reference and the next fresh leaf number together, through one
// access of headIndex (a walk needs both).
[[nodiscard]] bool HeadIndexRootAndNext(const PITree *tree, uint32_t genID, uint32_t *root, uint32_t *nextLeaf);
// The committed generation's root reference, next fresh leaf number and root
// slot (null when the root names no head slot: a leaf of the array, or no
// atom), from *top when it still holds them for this tree (CommittedTop),
// else read, checked (HeadParse) and kept there. False with an error when
// they cannot be read or do not parse.
[[nodiscard]] bool CommittedTopGet(const PITree *tree, CommittedTop *top, uint32_t *root, uint32_t *nextLeaf,
                                   const uint8_t **rootSlot);
// The copy in *top of the slot `ref` that the committed root's branch
// `branch` names (a head node or a slot leaf), read, checked (HeadParse) and
// kept when missing; null when that slot is not copied (a leaf of the array,
// or a slot larger than kMostCopiedChild). Call only right after
// CommittedTopGet with the same *top. False with an error when the slot
// cannot be read or does not parse.
[[nodiscard]] bool CommittedChildGet(const PITree *tree, CommittedTop *top, uint32_t branch, uint32_t ref,
                                     const uint8_t **copy);
// Parses the slot of `ref` at `slot` into *view.
// False with an error (damaged data: arena tagged) when it does not parse.
[[nodiscard]] bool HeadParse(const PITree *tree, uint32_t ref, const uint8_t *slot, HeadView *view);
// HeadParse for a copy kept in CommittedTop: the copy was checked whole by
// HeadParse when it was made, so the branch order is not checked again.
[[nodiscard]] bool HeadParseCopy(const PITree *tree, uint32_t ref, const uint8_t *copy, HeadView *view);
// Makes headIndex whole in NEWGEN (first change of an empty tree).
[[nodiscard]] bool HeadIndexEnsure(const PITree *tree);

// Reads the head node of `ref`; a slot leaf there is damage.
[[nodiscard]] bool HeadRead(const PITree *tree, uint32_t ref, uint32_t genID, HeadNode *node);
// Writes `node` into a new slot of the smallest class that holds it.
[[nodiscard]] bool HeadNew(const PITree *tree, const HeadNode &node, uint32_t *ref);
// Writes `node` at *ref, moving it to a larger class when it no longer fits
// (*ref then changes and the old slot is freed).
[[nodiscard]] bool HeadStore(const PITree *tree, const HeadNode &node, uint32_t *ref);
// Gives a slot (head node or slot leaf) back to its class's free list.
[[nodiscard]] bool HeadFree(const PITree *tree, uint32_t ref);
// Stores leaf bytes (1 .. kSlotLeafMost of them) as a slot leaf: at *ref, a
// slot leaf, when its class is the smallest that holds them; else in a new
// slot of that class (*ref then changes and the old slot, if *ref named one,
// is freed). *ref may be kNoRef for a new leaf.
[[nodiscard]] bool SlotLeafStore(const PITree *tree, const std::vector<uint8_t> &bytes, uint32_t *ref);

}  // namespace qw::pit
