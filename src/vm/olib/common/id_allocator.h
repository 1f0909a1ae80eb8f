// Dense identifiers with a free stack: the allocation rule shared by the ID
// tree, the fingerprint B-tree dictionary, the path dictionary's atom handles
// and the small file store's file numbers.
//
// State, in two arena arrays of T (u32 or u64):
//  - `counter`: one element, one more than the largest id ever handed out or
//    set;
//  - `holes`: a stack of freed ids, last element on top.
// Rule: an id is first peeked, the caller's index insert runs with it, and it
// is taken only once the insert proved the key new; so a failed or
// duplicate insert never consumes an id. Holes are reused last-in first-out,
// and only when the caller asks for it (useFreeList); otherwise new ids come
// from the counter even while holes exist.
#pragma once

#include <cstdint>

#include "vm/olib/common/cells.h"

namespace qw::olib {

template <class T>
class IdAllocator {
 public:
  IdAllocator(const VMAArrayHandle &counter, const VMAArrayHandle &holes) : counter_(counter), holes_(holes) {}

  // The id the next Take would hand out (NEWGEN).
  [[nodiscard]] bool Peek(bool useFreeList, T *id) const {
    uint32_t holeCount = CellCount(holes_, NEWGEN);
    if (useFreeList && holeCount != 0) return CellGet(holes_, holeCount - 1, NEWGEN, id);
    return CellGet(counter_, 0, NEWGEN, id);
  }

  // Hands out the id that Peek named.
  [[nodiscard]] bool Take(bool useFreeList, T *id) {
    if (useFreeList && CellCount(holes_, NEWGEN) != 0) return CellPop(holes_, id);
    return CellGet(counter_, 0, NEWGEN, id) && CellSet(counter_, 0, T(*id + 1));
  }

  // Makes `id` a hole: the next Take with useFreeList returns it.
  [[nodiscard]] bool PushHole(T id) { return CellAppend(holes_, id); }

  [[nodiscard]] bool ResetHoles() {
    return VMAArrayLengthSet_(holes_.arena, holes_.id[NEWGEN], 0, NEWGEN, sizeof(T)) != 0;
  }

  // After an id was set from outside: the counter moves past it.
  [[nodiscard]] bool RaiseTo(T id) {
    T bound = 0;
    if (!CellGet(counter_, 0, NEWGEN, &bound)) return false;
    return id < bound || CellSet(counter_, 0, T(id + 1));
  }

  // bound = the counter, count = bound minus the holes (0, 0 when the
  // counter does not exist in genID).
  [[nodiscard]] bool Size(uint32_t genID, T *bound, T *count) const {
    T value = 0;
    if (CellCount(counter_, genID) != 0 && !CellGet(counter_, 0, genID, &value)) return false;
    T holes = T(CellCount(holes_, genID));
    if (bound != nullptr) *bound = value;
    if (count != nullptr) *count = value >= holes ? T(value - holes) : 0;
    return true;
  }

  // Empties both: the counter back to 0, no holes.
  [[nodiscard]] bool Reset() { return ResetHoles() && CellSet(counter_, 0, T(0)); }

 private:
  VMAArrayHandle counter_;
  VMAArrayHandle holes_;
};

// Makes sure the counter array holds its element (a new array receives 0).
template <class T>
[[nodiscard]] inline bool EnsureCounter(const VMAArrayHandle &counter) {
  if (CellCount(counter, NEWGEN) != 0) return true;
  if (VMArenaIsReadOnly(counter.arena)) return true;
  return CellAppend(counter, T(0));
}

}  // namespace qw::olib
