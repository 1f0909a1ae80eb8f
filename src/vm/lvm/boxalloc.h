// Block allocation in a box bucket's data file.
//
// A bucket's free space is a free list per size class (persistent, last in,
// first out) and the untouched pages past params[0]. A block of class c is
// taken from the first non-empty list of class c .. 255; a larger block is
// split, its tail going to the list of the tail's class. With every list
// empty, the next page is taken whole (the file grows first when it has no
// page left) and the rest of it goes to a free list. Blocks so never cross a
// page, and the same sequence of allocations and recycled frees always picks
// the same blocks: replaying the log rebuilds the same mapping.
//
// Freed blocks are not reused at once: they wait in the in-memory lists of
// RecycleLists until a checkpoint has made the data file durable and the
// readers that might still read them have left (see RecycleLists).
//
// Invariant (checked by the tests): every unit below params[0] is in exactly
// one live block, persistent free list entry or recycle list entry.
#pragma once

#include <cstddef>
#include <cstdint>
#include <vector>

#include "qwvm/box.h"

namespace qw::box {

// Indexes of the bucket's "params" array.
inline constexpr uint32_t kParamUsedUnits = 0;   // units used from the start (whole pages)
inline constexpr uint32_t kParamTotalUnits = 1;  // units of the data file (its pages * 256)
inline constexpr uint32_t kParamEntries = 2;     // number of entries

// The persistent state the allocator works on, kept by the bucket in its
// arena, and the growth of the data file. Every call returns false with an
// error on failure.
class BlockSpace {
 public:
  virtual ~BlockSpace() = default;
  // Takes the last handle off class `sizeClass`'s free list, or sets
  // *handle to BOXLVM_NO_HANDLE when the list is empty.
  [[nodiscard]] virtual bool FreeListPop(uint32_t sizeClass, uint32_t *handle) = 0;
  [[nodiscard]] virtual bool FreeListPush(uint32_t sizeClass, uint32_t handle) = 0;
  // The first class from `from` on whose free list may hold a block
  // (BOXLVM_SIZE_CLASSES when none): the classes skipped are known to have
  // empty lists. The default knows nothing and returns `from`.
  virtual uint32_t FreeListCandidate(uint32_t from) { return from; }
  [[nodiscard]] virtual bool ParamGet(uint32_t index, uint32_t *value) = 0;
  [[nodiscard]] virtual bool ParamSet(uint32_t index, uint32_t value) = 0;
  // Grows the data file from `pages` pages (BoxLVMDataGrow).
  [[nodiscard]] virtual bool GrowDataFile(uint32_t pages, uint32_t *newPages) = 0;
  // Logs the data file's new total units (a BoxDataExtend record).
  [[nodiscard]] virtual bool LogExtension(uint32_t totalUnits) = 0;
};

// Allocates one block of class `sizeClass` into *handle. While `replaying`
// the file never grows here: its growth has a record of its own, replayed
// before the allocations that needed it, so a missing page is an error
// (code 5, class 3, "data file not extended yet. Total %i, lastUsed %i").
[[nodiscard]] bool AllocateBlock(BlockSpace &space, uint32_t sizeClass, bool replaying, uint32_t *handle);

// Allocates the blocks of a value of `size` bytes (classes by PartClass), in
// part order, into `handles` and `classes` (replaced).
[[nodiscard]] bool AllocateEntry(BlockSpace &space, uint64_t size, bool replaying, std::vector<uint32_t> *handles,
                                 std::vector<uint8_t> *classes);

// Blocks freed since the last checkpoint, and those set aside by it until
// its recycle step puts them on the persistent free lists. Callers
// serialise the calls (the bucket's log mutex and bucket lock).
class RecycleLists {
 public:
  RecycleLists() = default;
  ~RecycleLists();
  RecycleLists(const RecycleLists &) = delete;
  RecycleLists &operator=(const RecycleLists &) = delete;

  // A block freed by an update.
  [[nodiscard]] bool Free(uint32_t sizeClass, uint32_t handle);
  // Checkpoint: the blocks freed so far are set aside; new frees collect in
  // the lists that the previous recycle step emptied (asserted).
  void SetAside();
  // Recycle step: appends the set-aside blocks to the persistent free lists,
  // class by class in the order they were freed, and forgets them. On
  // failure the blocks not yet appended stay set aside.
  [[nodiscard]] bool Recycle(BlockSpace &space);
  // Blocks of class `sizeClass` freed since the checkpoint / set aside.
  size_t FreedCount(uint32_t sizeClass) const;
  size_t SetAsideCount(uint32_t sizeClass) const;
  // Calls visit(sizeClass, handle) for every block of both lists.
  template <class Visit>
  void ForEach(Visit &&visit) const {
    for (uint32_t c = 0; c < BOXLVM_SIZE_CLASSES; ++c)
      for (uint32_t *const *list : {&freed_[c], &setAside_[c]})
        for (size_t i = 0; i < ArrayLength(*list); ++i) visit(c, (*list)[i]);
  }

 private:
  uint32_t *freed_[BOXLVM_SIZE_CLASSES] = {};     // qwlib growable arrays
  uint32_t *setAside_[BOXLVM_SIZE_CLASSES] = {};
};

}  // namespace qw::box
