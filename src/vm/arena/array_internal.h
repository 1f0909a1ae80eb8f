// Helpers shared by the arena array files (array_*.cpp, block_array.cpp,
// range_cache.cpp): decoding an array of either generation, the checks every
// operation starts with, and block-list arithmetic.
//
// Layout invariants of an array record (new generation):
//  - EMPTY_ARRAY_TYPE: no blocks.
//  - FULL_ARRAY_TYPE: every block is a full block of 2^log2size bytes.
//  - TAIL_ARRAY_TYPE: every block but the last is full; the last is of the
//    smallest size class that held the rest when it was allocated.
//  - FULL_BLOCK_ARRAY_TYPE: block array; blocks of any class up to
//    2^log2size bytes, managed one by one (block_array.cpp).
//  - length elements fit in the blocks (LengthSet_ refuses more). Data read
//    from disk may break this; addressing then fails with an error (and the
//    arena is tagged corrupted) instead of touching memory outside a block.
//  - blockCache stays empty: the arena does not cache data addresses.
#pragma once

#include <cstdint>

#include "vm/arena/arena.h"

// Fails the assertion with `text` when `condition` is false. For the checks
// whose message names the table fields by their record-format names
// (rw_gen.array, r_gen.length) rather than by their names in VMArena.
#define QW_ASSERT_NAMED(condition, text) ((condition) ? (void)0 : QWAssertFail_((text), __FILE__, __LINE__))

namespace qw::vm {

inline ArrayRecord *ArrayDirectory::Find(uint32_t id) const noexcept {
  if (id >= count_.load(std::memory_order_acquire)) return nullptr;
  ArrayRecord *const *chunks = chunks_.load(std::memory_order_acquire);
  return chunks[id >> kArrayChunkShift] + (id & (kArrayChunkEntries - 1));
}

// An array as one generation sees it.
struct ArrayView {
  uint32_t length = 0;
  uint8_t type = EMPTY_ARRAY_TYPE;
  uint8_t log2size = 13;
  uint32_t blockCount = 0;
  const FArray *blockList = nullptr;    // NEWGEN: the record's blockID
  const uint64_t *oldBlocks = nullptr;    // OLDGEN: the array's run of the flat table

  uint64_t BlockId(uint32_t b) const {
    return blockList ? *static_cast<const uint64_t *>(FArrayNth(blockList, b)) : oldBlocks[b];
  }
};

// Generation argument: anything but NEWGEN or OLDGEN fails "FALSE".
inline void CheckGeneration(uint32_t genID) {
  if (genID != NEWGEN && genID != OLDGEN) qwassert_(FALSE);
}

// A write: new generation of a writable arena.
inline void CheckWrite(const VMArena *arena, uint32_t genID) {
  CheckGeneration(genID);
  qwassert_(genID == NEWGEN);
  qwassert_(!arena->readOnly);
}

// An array id beyond the new (old) generation's table: tags the arena
// corrupted when writable and fails the assertion.
[[gnu::cold]] void NoNewArray(VMArena *arena);
[[gnu::cold]] void NoOldArray(VMArena *arena);

// How many array ids generation `genID` has (ids 0 .. count-1).
inline uint32_t ArrayCountOf(const VMArena *arena, uint32_t genID) {
  return genID == NEWGEN ? uint32_t(arena->arrayState.directory.Count()) : uint32_t(ArrayLength(arena->view.lengths));
}

// Record of a new-generation array id (checked as above).
inline ArrayRecord *NewRecord(VMArena *arena, uint32_t arrayID) {
  ArrayRecord *array = arena->arrayState.directory.Find(arrayID);
  if (!array) [[unlikely]]
    NoNewArray(arena);
  return array;
}

// The array in `genID` (checked as above; OLDGEN through the committed
// view). Inline: it starts every element access.
inline ArrayView DecodeArray(VMArena *arena, uint32_t arrayID, uint32_t genID) {
  CheckGeneration(genID);
  ArrayView view;
  if (genID == NEWGEN) {
    const ArrayRecord *array = NewRecord(arena, arrayID);
    view.length = array->length;
    view.type = array->type;
    view.log2size = array->log2size;
    view.blockCount = uint32_t(FArrayLength(&array->blockID));
    view.blockList = &array->blockID;
    return view;
  }
  const OldView &old = arena->view;
  if (arrayID >= ArrayLength(old.lengths)) [[unlikely]]
    NoOldArray(arena);
  view.length = old.lengths[arrayID];
  view.type = old.types[arrayID];
  view.blockCount = old.starts[arrayID + 1] - old.starts[arrayID];
  view.oldBlocks = old.blockIds + old.starts[arrayID];
  return view;
}

// Tags the arena corrupted unless it is read-only.
void TagCorruptedIfWritable(VMArena *arena);

inline uint64_t BlockIdAt(const ArrayRecord *array, uint32_t b) {
  return *static_cast<const uint64_t *>(FArrayNth(&array->blockID, b));
}
inline uint32_t BlockCountOf(const ArrayRecord *array) { return uint32_t(FArrayLength(&array->blockID)); }
inline uint32_t ClassSizeOfId(uint64_t blockId) { return kClassSizes[blockId & 0xF]; }

// Elements the blocks of an ordinary array hold (types 0, 1, 2; type 4 as
// full blocks), for `elementSize` and full blocks of `blockSize` bytes.
uint64_t CapacityOf(const ArrayRecord *array, uint32_t blockSize, uint32_t elementSize);

// Frees every block of the array and empties its lists; length 0. Block
// arrays keep their type, others become EMPTY_ARRAY_TYPE.
void ClearBlocks(VMArena *arena, ArrayRecord *array);

// A range of one array acquired through VMAArrayRange_, released on scope
// exit. Used by the multi-range operations (append, insert, remove, copy).
class HeldRange {
 public:
  HeldRange(VMArena *arena, uint32_t arrayID, int read) : arena_(arena), arrayID_(arrayID), read_(read) {}
  HeldRange(const HeldRange &) = delete;
  HeldRange &operator=(const HeldRange &) = delete;
  ~HeldRange() { Release(); }
  // Acquires element `index`; false with an error.
  [[nodiscard]] bool Acquire(int arrayLocked, uint32_t blockSize, uint32_t index, uint32_t genID, uint32_t elementSize);
  void Release();
  // Takes over `other`'s range (releasing this one first).
  void MoveFrom(HeldRange &other);
  uint8_t *data() const { return data_; }
  uint32_t start() const { return start_; }
  uint32_t end() const { return end_; }

 private:
  VMArena *arena_;
  uint32_t arrayID_;
  int read_;
  uint8_t *data_ = nullptr;
  uint32_t start_ = 0;
  uint32_t end_ = 0;
};

// log2 of a power of two (the block sizes of block arrays).
uint32_t Log2(uint32_t value);

// Table and names (array_table.cpp, array_names.cpp). ArrayCreate needs the
// name mutex held.
uint32_t ArrayCreate(VMArena *arena, int isBlockArray, uint32_t blockSize, bool reuseFreeId);
// A freed id whose name was just looked up in NEWGEN belongs to that name
// again: it leaves the free-id stack (writable arenas; name mutex held).
void ReclaimFreedId(VMArena *arena, uint32_t arrayID);
// False with an error while a mounted generation's names are not read yet.
[[nodiscard]] bool NamesCurrent(const VMArena *arena);
[[nodiscard]] bool RebuildDirectory(VMArena *arena);
// Checks that both generations have a name array that holds its length (no
// I/O), so that reading the names cannot meet a missing block.
[[nodiscard]] bool CheckNameArrays(VMArena *arena, const OldView &committed);
// Reads the name slots from array 0 of the new generation (takes the name
// mutex); with onlyIfStale, only when they are not current.
[[nodiscard]] bool RebuildNames(VMArena *arena, bool onlyIfStale);
void ForgetNames(VMArena *arena);

// The name service's tree (name_tree.cpp). NameTreeOpen finds or makes the
// "#name/lookup" tree and the "#name/params" count and rebuilds the tree
// from array 0 when the count is empty (writable arenas only); it runs
// without the name mutex. False with an error when a writable arena cannot
// have its tree.
[[nodiscard]] bool NameTreeOpen(VMArena *arena);
void NameTreeClose(VMArena *arena);
// After a memory commit of the arena's own new generation.
void NameTreeCommitted(VMArena *arena);
// Lookup (and creation, NEWGEN) through the tree; name mutex held. Sets
// *answered to false when the tree cannot answer for genID (then scan);
// *created to true when the name was added.
uint32_t NameTreeFind(VMArena *arena, uint32_t genID, const uint8_t *name, uint32_t nameLength, bool create,
                      int isBlockArray, uint32_t blockSize, bool *answered, bool *created);
// Adds a name just created to the tree, when the tree is ready; a tree that
// cannot take it is given up (name mutex held).
void NameTreeAdd(VMArena *arena, const uint8_t *name, uint32_t nameLength, uint32_t arrayID);
// Appends the name of the next fresh id and makes its array (name mutex
// held); VMA_NO_ARRAY with an error.
uint32_t CreateNamed(VMArena *arena, const uint8_t *name, uint32_t nameLength, int isBlockArray, uint32_t blockSize);

}  // namespace qw::vm
