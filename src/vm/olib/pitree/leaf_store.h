// Leaves, named by their reference: a leaf of the block-directory array
// (IsLeafRef: its number is ref & 0x7FFFFFFF) or a slot leaf (head_tree.h).
// Where a leaf lives follows from its size alone: at most kSlotLeafMost bytes
// in a slot, more in the leaf array; LeafPut moves a leaf whose size crosses
// that line, and the caller repoints the reference above it.
#pragma once

#include <cstdint>
#include <vector>

#include "vm/olib/pitree/head_tree.h"

namespace qw::pit {

// Holds a leaf's bytes from Acquire until it is destroyed.
class LeafHold {
 public:
  LeafHold(const PITree *tree, uint32_t genID) : tree_(tree), genID_(genID), slot_(tree, genID, true) {}
  ~LeafHold();
  LeafHold(const LeafHold &) = delete;
  LeafHold &operator=(const LeafHold &) = delete;
  // The bytes of the leaf `ref` names. `nextLeaf` is the next fresh leaf
  // number of the generation when known (kNoRef: read it). False with an
  // error when the leaf is missing, unreadable or no leaf.
  [[nodiscard]] bool Acquire(uint32_t ref, uint32_t nextLeaf, const uint8_t **bytes, uint32_t *length);

 private:
  const PITree *tree_;
  uint32_t genID_;
  HeadSlot slot_;
  const uint8_t *arrayBytes_ = nullptr;
};

// Stores 1 .. kExplodeBytes leaf bytes at *ref (kNoRef: a new leaf), in a slot
// or in the leaf array by their size; *ref changes when the leaf moves (its
// old place is given back). NEWGEN.
[[nodiscard]] bool LeafPut(const PITree *tree, const std::vector<uint8_t> &bytes, uint32_t *ref);
// Gives the leaf's place back (its slot, or its number to "free").
[[nodiscard]] bool LeafDrop(const PITree *tree, uint32_t ref);
// Builds the head subtree (or single leaf) holding entries [lo, hi) of
// `list`, keys taken from byte `depth` on; *ref receives its reference.
[[nodiscard]] bool BuildSubtree(const PITree *tree, PITreeThreadData *td, const EntryList &list, size_t lo,
                                size_t hi, size_t depth, uint32_t *ref);

}  // namespace qw::pit
