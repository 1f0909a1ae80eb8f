// Internal FArray helpers shared by the core (farray.cpp) and the readers and
// writers (farray_io.cpp).
#pragma once

#include "qwvm/qwutil.h"

// Element address without the length check, for indexes the caller has
// already bounded by the capacity.
inline char *FArrayNthUnchecked(const FArray *array, uint64_t index) {
  return array->chunks[index >> array->chunkShift] + size_t(index & (array->chunkEntries - 1u)) * array->elementSize;
}

namespace qw {

// Grows the length to `length` without zero-filling the new elements: for
// readers that overwrite every one of them at once. Keeps the `untouched`
// invariant. Returns 1, or 0 with an error.
[[nodiscard]] int FArrayGrowUninitialised(FArray *array, uint64_t length);

}  // namespace qw
