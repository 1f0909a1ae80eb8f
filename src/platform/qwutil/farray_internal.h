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

// Address of element `index` for a reader that holds no lock while the
// array's owner grows it under its own lock, or NULL when `index` is not
// below the length the reader sees. Chunks and chunk tables stay where they
// are until the array is cleared or freed, which the owner must not do
// while such readers run; elements the owner changes meanwhile are the
// caller's to read atomically.
inline void *FArrayNthConcurrent(const FArray *array, uint64_t index) {
  if (index >= __atomic_load_n(&array->length, __ATOMIC_ACQUIRE)) return nullptr;
  char **table = __atomic_load_n(&array->chunks, __ATOMIC_ACQUIRE);
  char *chunk = __atomic_load_n(&table[index >> array->chunkShift], __ATOMIC_RELAXED);
  return chunk + size_t(index & (array->chunkEntries - 1u)) * array->elementSize;
}

// Grows the length to `length` without zero-filling the new elements: for
// readers that overwrite every one of them at once. Keeps the `untouched`
// invariant. Returns 1, or 0 with an error.
[[nodiscard]] int FArrayGrowUninitialised(FArray *array, uint64_t length);

}  // namespace qw
