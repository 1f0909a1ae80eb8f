// The symbol-sequence tree record and what its files share.
//
// The tree is a byte trie. An atom's symbols are first turned into bytes by
// an order-preserving, prefix-free code (key_codec.h), so that every node
// has at most 256 branches and byte order is symbol order. The upper levels
// live in the head tree (head_tree.h: fixed-size slots in arena arrays, one
// block touch per head node); everything below a head branch lives in one
// leaf, a compacted sub-trie (leaf_codec.h): in the block-directory array, or,
// when it is small, in a head slot of its own (leaf_store.h).
//
// Invariants (in each generation):
//  - headIndex is empty (no atom yet) or holds kHeadIndexLength elements:
//    the root reference, the next fresh leaf number and one free-slot list
//    head per node class.
//  - Every reference reachable from the root names a live head node, a slot
//    leaf, or a leaf of the leaf array below the next fresh leaf number; a
//    leaf's bytes decode and hold at least one entry; no leaf number is both
//    reachable and in "free".
//  - A leaf of at most kSlotLeafMost bytes is a slot leaf, a larger one is in
//    the leaf array (leaf_store.h).
//  - A head node has data or at least one branch (empty nodes are unlinked).
//  - A leaf's encoding is at most kExplodeBytes long (larger ones explode).
//  - With params, params[0] is the number of atoms stored.
#pragma once

#include <cstdint>
#include <vector>

#include "qwvm/dbarray.h"
#include "qwvm/pitree.h"
#include "qwvm/vmaarray.h"

// The name the generation and "no params" assertions report.
#ifndef FALSE
#define FALSE 0
#endif

namespace qw::pit {

inline constexpr int kCorruptCode = 74;  // EBADMSG, as the arrays use
inline constexpr uint32_t kNoRef = 0xFFFFFFFFu;
inline constexpr uint32_t kLeafFlag = 0x80000000u;
inline constexpr uint32_t kClassCount = 4;
inline constexpr uint32_t kClassSize[kClassCount] = {32, 128, 512, 2048};
inline constexpr uint32_t kHeadIndexLength = 2 + kClassCount;
inline constexpr uint32_t kRootSlot = 0, kNextLeafSlot = 1, kFreeSlot0 = 2;
// A leaf whose encoding passes this many bytes explodes into the head tree.
inline constexpr uint32_t kExplodeBytes = 1024;
// Scratch buffers past this many entries are given back.
inline constexpr size_t kScratchLimit = 10000;

inline bool IsLeafRef(uint32_t ref) { return (ref & kLeafFlag) != 0; }
inline uint32_t LeafOf(uint32_t ref) { return ref & ~kLeafFlag; }
inline uint32_t LeafRef(uint32_t leaf) { return leaf | kLeafFlag; }
inline uint32_t ClassOf(uint32_t ref) { return ref >> 28; }
inline uint32_t SlotOf(uint32_t ref) { return ref & 0x0FFFFFFFu; }
inline uint32_t HeadRef(uint32_t cls, uint32_t slot) { return (cls << 28) | slot; }

// One leaf entry while a leaf is rewritten: key bytes in the pool.
struct Entry {
  uint32_t offset;
  uint32_t length;
  uint64_t value;
};

// Decoded leaf: entries in ascending key order over one byte pool.
struct EntryList {
  std::vector<uint8_t> pool;
  std::vector<Entry> entries;
  void Clear() {
    pool.clear();
    entries.clear();
  }
  const uint8_t *Key(const Entry &e) const { return pool.data() + e.offset; }
};

// What every walk of one tree's committed generation starts with: the head
// index's root and next leaf numbers, a copy of the root's slot and copies
// of the slots its branches name. The committed generation changes only
// when the arena's shape epoch moves (a commit or a mount swaps the old
// view, and moves it), or when the tree's own handles are committed (its
// old-generation array ids change): a thread keeps these while the tree, the
// epoch and the ids are the ones it saw.
//
// Every find crosses the root and one of its children, so those two steps
// read the thread's copies instead of the arena: no block access, no page
// pinned. A child is copied on first use, and only from slots of up to
// kMostCopiedChild bytes, so the copies stay under 256 such slots (128 KiB)
// per thread data; a child in a larger slot is read through the arena.
inline constexpr uint32_t kMostCopiedChild = kClassSize[2];
struct CommittedTop {
  static constexpr uint32_t kNotCopied = 0xFFFFFFFFu;
  uint64_t tree = 0;  // the tree's serial; 0: nothing kept
  uint64_t epoch = 0;
  uint32_t ids[1 + kClassCount] = {};  // headIndex and node arrays, old generation
  uint32_t root = kNoRef;
  uint32_t nextLeaf = 0;
  std::vector<uint8_t> rootSlot;     // empty unless the root names a head slot
  std::vector<uint32_t> childAt;     // by the root's branch position: offset in children, or kNotCopied
  std::vector<uint8_t> children;     // the copied children's slots, one after the other
};

}  // namespace qw::pit

struct PITreeThreadData {
  std::vector<uint8_t> key;       // the atom in bytes
  qw::pit::EntryList leaf;        // a leaf being rewritten
  std::vector<uint8_t> encoded;   // a leaf being encoded
  std::vector<uint8_t> header;    // a node header being encoded
  std::vector<uint32_t> sizes;    // child sizes while a leaf is encoded
  std::vector<uint8_t> walkKey;   // the key while a leaf is decoded
  std::vector<uint32_t> path;     // head references crossed (with branch positions)
  qw::pit::CommittedTop top;      // the last committed tree walked (head_tree.h)
};

struct PITree {
  VMArena *arena;
  VMAArrayHandle headIndex;
  VMAArrayHandle node[qw::pit::kClassCount];
  DBArray *leaf;
  VMAArrayHandle free;
  uint32_t hasParams;
  VMAArrayHandle params;
  uint32_t locked[2];
  uint64_t serial;  // unique in the process, so thread data never mistakes one tree for another
};

namespace qw::pit {

// Tags the arena corrupted (unless read-only) and raises a data error.
// Returns false.
bool Corrupted(const PITree *tree, const char *what, uint32_t detail);

// Scratch buffers that grew past kScratchLimit are given back.
void TrimScratch(PITreeThreadData *threadData);

// Arena-array helpers over one generation's id of a handle.
[[nodiscard]] bool ReadU32(const PITree *tree, const VMAArrayHandle &array, uint32_t index, uint32_t genID,
                           uint32_t *value);
[[nodiscard]] bool WriteU32(const PITree *tree, const VMAArrayHandle &array, uint32_t index, uint32_t value);
inline int Locked(const PITree *tree, uint32_t genID) { return int(tree->locked[genID]); }

// The generation argument: "FALSE" for anything but NEWGEN and OLDGEN.
inline void CheckGeneration(uint32_t genID) {
  if (genID != NEWGEN && genID != OLDGEN) qwassert_(FALSE);
}

}  // namespace qw::pit
