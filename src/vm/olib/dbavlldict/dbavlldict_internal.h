// The AVL dictionary record and the node access its files share.
//
// Invariants of a dictionary (in each generation):
//  - "node" holds at least two records; node 0 is the null node (sons 0),
//    node 1 the header (key 0, left son 0, right son the root).
//  - Every reachable node's sons lie below the node array's length and the
//    reachable nodes form a tree of AVL shape: at each node the subtree
//    heights differ by at most one and the skew bits say which side is
//    higher (never both bits). Its depth is therefore at most kMaxDepth.
//  - "params" holds at least two elements: the live-node count and the
//    free-list head; free nodes are chained through n_right and are never
//    reachable from the root.
// Which side of its parent a node hangs on is decided by the path taken to
// it, never by comparing keys: a key stored from a search key of 2^32 or
// more reads as its low 32 bits and may be out of key order, and the
// rebalancing must still keep the shape.
#pragma once

#include <atomic>
#include <cstdint>
#include <string>

#include "qwvm/dbavlldict.h"
#include "qwvm/vmaarray.h"

#ifndef FALSE
#define FALSE 0
#endif

struct QWDBAVLLDict {
  VMArena *arena;
  uint32_t reserved0;
  VMAArrayHandle node;  // 24-byte node records
  uint32_t reserved1;
  VMAArrayHandle params;  // [0] live nodes, [1] free-list head
  uint32_t reserved2;
  std::string path;  // "<path>/<name>": finds the committed arrays after a commit
  int scan;          // name lookup mode of VMAArrayInitFromPath_
};

namespace qw::avl {

inline constexpr uint32_t kNodeSize = 24;
inline constexpr uint32_t kParamSize = 4;
inline constexpr uint32_t kBlockSize = ARENA_MAX_BLOCK_SIZE;
inline constexpr uint32_t SKEW_MASK = 0x80000000u;
inline constexpr uint32_t kSonMask = 0x7FFFFFFFu;
inline constexpr uint32_t ZERO = 0;    // the null node
inline constexpr uint32_t kHeader = 1;  // its right son is the root
inline constexpr int kCorruptCode = 74;  // EBADMSG
// An AVL tree of 2^31 nodes is at most 45 levels deep; anything deeper is a
// cycle in damaged data. Also the size of the path stacks.
inline constexpr uint32_t kMaxDepth = 64;

// Skew codes as stored.
enum Skew : uint32_t { RIGHT = 0, NONE = 1, LEFT = 2 };

// Sides of a node, as the walk records them.
enum Side : uint8_t { kLeft = 0, kRight = 1 };
inline Side Opposite(Side side) { return side == kLeft ? kRight : kLeft; }

// A node record decoded. n_right and n_left keep their skew bits; key and
// value are the full stored 64 bits (reads use the low 32).
struct Node {
  uint32_t n_right = 0;
  uint32_t n_left = 0;
  uint64_t key = 0;
  uint64_t value = 0;

  uint32_t Son(Side side) const { return (side == kLeft ? n_left : n_right) & kSonMask; }
  void SetSon(Side side, uint32_t index) {
    uint32_t &word = side == kLeft ? n_left : n_right;
    word = (word & SKEW_MASK) | index;
  }
  uint64_t Key() const { return uint32_t(key); }
  uint64_t Value() const { return uint32_t(value); }
};

// Tags the arena corrupted unless it is read-only.
void TagCorrupted(VMArena *arena);
// Tags the arena and raises a data error about the dictionary. Returns false.
bool Corrupted(const QWDBAVLLDict *dict, uint32_t genID, const char *format, ...) QW_PRINTF(3, 4);

// An internal invariant about stored data: tag the arena, then fail the
// assertion with the expression's text.
#define AVL_ASSERT(arena, expression)                 \
  do {                                                \
    if (!(expression)) {                              \
      qw::avl::TagCorrupted(arena);                   \
      QWAssertFail_(#expression, __FILE__, __LINE__); \
    }                                                 \
  } while (0)

// The generation argument: "FALSE" for anything but NEWGEN and OLDGEN.
void CheckGeneration(uint32_t genID);

// The skew of a node ("!(x_node->n_right & SKEW_MASK)" when both bits are
// set) and its change (clears the other bit).
Skew GetSkew(VMArena *arena, const Node *x_node);
void SetSkew(Node *node, Skew skew);

// The array id of `handle` in genID; for OLDGEN an array made since the
// handle was filled is looked up (once) by name. VMA_NO_ARRAY when the
// generation has none: the dictionary is then empty there.
uint32_t ArrayIdOf(QWDBAVLLDict *dict, VMAArrayHandle *handle, const char *name, uint32_t genID);

// Access to the node records of one generation for the length of one
// operation. Keeps up to kSlots blocks acquired, so that a walk whose nodes
// share blocks acquires each block once; a block read first and written
// later is re-acquired writable. Records are copied in and out.
class NodeAccess {
 public:
  // Fails (false, error set) when the generation's node array is missing
  // or shorter than the two reserved records.
  [[nodiscard]] bool Open(QWDBAVLLDict *dict, uint32_t genID);
  ~NodeAccess() { ReleaseAll(); }
  NodeAccess() = default;
  NodeAccess(const NodeAccess &) = delete;
  NodeAccess &operator=(const NodeAccess &) = delete;

  // Node `index`; an index beyond the array is corruption.
  [[nodiscard]] bool Read(uint32_t index, Node *node);
  [[nodiscard]] bool Write(uint32_t index, const Node &node);
  // Son of a node read before, checked against the array length.
  [[nodiscard]] bool SonOf(const Node &node, Side side, uint32_t *son);
  // The root (right son of the header); 0 for an empty tree and for a
  // generation without the array.
  [[nodiscard]] bool Root(uint32_t *root);
  // Fails with corruption when a walk has gone deeper than any AVL tree.
  [[nodiscard]] bool CheckDepth(uint32_t depth);

  // Appends a zeroed record (releases every held block first: growth may
  // move the array's last block). *index receives its index.
  [[nodiscard]] bool Append(uint32_t *index);
  void ReleaseAll();

  uint32_t count() const { return count_; }
  bool present() const { return arrayID_ != VMA_NO_ARRAY; }
  QWDBAVLLDict *dict() const { return dict_; }
  uint32_t genID() const { return genID_; }

 private:
  struct Slot {
    uint8_t *held = nullptr;  // from VMAArrayRange_, not yet released
    uint8_t *base = nullptr;  // address of element `first`
    uint32_t first = 0, end = 0;
    int read = 1;
  };
  static constexpr uint32_t kSlots = 4;
  static constexpr uint32_t kPerBlock = kBlockSize / kNodeSize;

  [[nodiscard]] uint8_t *At(uint32_t index, int read);
  void Release(Slot *slot);

  QWDBAVLLDict *dict_ = nullptr;
  VMArena *arena_ = nullptr;
  uint32_t arrayID_ = VMA_NO_ARRAY;
  uint32_t genID_ = NEWGEN;
  int locked_ = 0;
  uint32_t count_ = 0;  // records in the array
  Slot slots_[kSlots];
  uint32_t next_ = 0;  // slot replaced next (round robin)
};

// The "params" elements of one generation (the live-node count and the
// free-list head), acquired once for an operation. A generation without
// the array (OLDGEN before the first commit) reads as zeros.
class ParamsAccess {
 public:
  ParamsAccess() = default;
  ~ParamsAccess() { Release(); }
  ParamsAccess(const ParamsAccess &) = delete;
  ParamsAccess &operator=(const ParamsAccess &) = delete;

  // read 0: writable (NEWGEN). False with an error when the array is
  // shorter than its two elements or cannot be read.
  [[nodiscard]] bool Open(QWDBAVLLDict *dict, uint32_t genID, int read);
  uint32_t Get(uint32_t which) const;
  void Set(uint32_t which, uint32_t value);
  void Release();

 private:
  VMArena *arena_ = nullptr;
  uint32_t arrayID_ = VMA_NO_ARRAY;
  int read_ = 1;
  uint8_t *held_ = nullptr;
};
inline constexpr uint32_t kParamCount = 0;
inline constexpr uint32_t kParamFreeList = 1;

// Node allocation of the new generation (structure.cpp): a node from the
// free list or appended, the count raised; and its reverse. The record's
// fields are the caller's to set.
[[nodiscard]] bool NodeAllocate(NodeAccess *nodes, ParamsAccess *params, uint32_t *index);
[[nodiscard]] bool NodeFree(NodeAccess *nodes, ParamsAccess *params, uint32_t index);

// Rotation at `top`, the son of `parent` on `parentSide`: top's son on
// side `up` takes its place (up == kRight rotates left). Skews are the
// caller's; links keep their skew bits. *newTop receives the new top.
[[nodiscard]] bool Rotate(NodeAccess *nodes, uint32_t parent, Side parentSide, uint32_t top, Side up,
                          uint32_t *newTop);

inline Skew HeavyOn(Side side) { return side == kLeft ? LEFT : RIGHT; }

// One entry of a walk from the header down: the node and the side taken
// from it.
struct Step {
  uint32_t index;
  Side side;
};

}  // namespace qw::avl

// Free-list head of the dictionary in genID (the name the insert
// assertion reports); 0xFFFFFFFF with an error when it cannot be read.
uint32_t DictFreeListGet(QWDBAVLLDict *dict, uint32_t genID);
