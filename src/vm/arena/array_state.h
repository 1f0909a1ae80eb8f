// What the arena arrays keep beside the array table, derived from it and
// from array 0 when an arena is opened or mounted (ArraysOpened,
// ArraysMounted, ArraysViewChanged).
//
// Invariants:
//  - directory: ids below Count() are published; the record of a published id
//    is at a fixed address until the table is freed (array table chunks never
//    move). A record is fully initialised before its id is published.
//  - While namesCurrent: nameEnds[k - 1] is the offset in array 0 of the NUL that ends the name of
//    array k; array 0 is exactly the bytes those entries describe (its length
//    is nameEnds.back() + 1, or 0 without names). Array 0 only ever grows at
//    its end, so the name of an id never changes once written.
//  - nameEnds.size() < the number of array records: array 0 has no name, and
//    the ids behind the last name have no slot yet (they are unnamed).
//  - While treeReady[g]: the "#name/lookup" tree maps every non-empty name of
//    array 0 in generation g to its id + 1, and "#name/params" element 0 is
//    their count (name_tree.cpp keeps both in step under the name mutex).
#pragma once

#include <atomic>
#include <cstddef>
#include <cstdint>
#include <memory>
#include <vector>

#include "qwvm/pitree.h"
#include "qwvm/qwlib.h"
#include "qwvm/vmaarray.h"

namespace qw::vm {

struct ArrayRecord;

// The array table is a file array of 256 records per chunk.
inline constexpr uint32_t kArrayChunkShift = 8;
inline constexpr uint32_t kArrayChunkEntries = 1u << kArrayChunkShift;

// Lock-free lookup of array records by id. The table itself (an FArray) may
// reallocate its chunk pointers while an array is created; readers of other
// arrays must not see that, so they go through this directory, whose chunk
// tables are replaced (never changed in place) and kept until the arena is
// freed. Writers are serialised by the arena's new-generation mutex.
class ArrayDirectory {
 public:
  // Record of a published id, or nullptr when the id is not published
  // (defined in array_internal.h, where the record type is complete).
  inline ArrayRecord *Find(uint32_t id) const noexcept;
  uint32_t Count() const noexcept { return count_.load(std::memory_order_acquire); }

  // Publishes id Count(), whose chunk of the table starts at `chunkStart`.
  // False (no error raised: out of memory) when the chunk table cannot grow.
  [[nodiscard]] bool Publish(ArrayRecord *chunkStart);
  // Forgets every id (the table is about to be freed or replaced).
  void Reset() noexcept { count_.store(0, std::memory_order_release); }

 private:
  std::atomic<ArrayRecord **> chunks_{nullptr};
  std::atomic<uint32_t> count_{0};
  size_t slots_ = 0;
  // The current chunk table is the last; earlier ones stay for readers that
  // may still hold them.
  std::vector<std::unique_ptr<ArrayRecord *[]>> tables_;
};

struct ArrayState {
  ArrayState() = default;
  ArrayState(const ArrayState &) = delete;
  ArrayState &operator=(const ArrayState &) = delete;
  ~ArrayState() {
    PITreeFree(nameTree);
    PITreeThreadDataFree(nameThreadData);
    if (nameMutex) MutexDestroy(nameMutex);
  }

  ArrayDirectory directory;
  // Guards array 0, nameEnds, the choice of new ids and the free-id stack
  // decisions. Lock order: name mutex, then the arena's new-generation mutex.
  QWMutex *nameMutex = nullptr;
  std::vector<uint32_t> nameEnds;
  // nameEnds describes array 0 (false from a mount until its memory commit).
  bool namesCurrent = false;
  // The name service's index (name_tree.cpp): null on a read-only arena
  // written before it existed, and while a mounted generation is not current.
  PITree *nameTree = nullptr;
  PITreeThreadData *nameThreadData = nullptr;
  VMAArrayHandle nameParams{};
  bool treeReady[2] = {false, false};
  std::vector<uint32_t> nameSymbols;  // a name widened to symbols
};

}  // namespace qw::vm
