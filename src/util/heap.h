// Binary min-heap over an array of fixed-size items (children of i at 2i + 1
// and 2i + 2), ordered by a caller's comparison.
//
// Sifting down keeps two tie rules that fix the order in which equal keys
// leave a merge: a parent equal to its left child moves down, and between
// two equal children the left one moves up.
#pragma once

#include <cstddef>
#include <cstdint>
#include <cstring>

namespace qw {

using HeapCompare = int (*)(const void *a, const void *b, void *context);

// Swaps two items 4, 2 or 1 bytes at a time, as the item size allows.
inline void HeapSwap(uint8_t *a, uint8_t *b, size_t size) {
  const size_t unit = size % 4 == 0 ? 4 : size % 2 == 0 ? 2 : 1;
  for (size_t at = 0; at < size; at += unit) {
    uint8_t t[4];
    std::memcpy(t, a + at, unit);
    std::memcpy(a + at, b + at, unit);
    std::memcpy(b + at, t, unit);
  }
}

inline void HeapSiftDown(uint8_t *base, size_t count, size_t size, size_t i, HeapCompare compare, void *context) {
  for (;;) {
    const size_t left = 2 * i + 1, right = left + 1;
    if (left >= count) return;
    uint8_t *parent = base + i * size, *l = base + left * size, *r = base + right * size;
    const bool hasRight = right < count;
    size_t next;
    if (compare(parent, l, context) < 0) {
      if (!hasRight || compare(parent, r, context) < 0) return;
      next = right;
    } else {
      next = (!hasRight || compare(l, r, context) <= 0) ? left : right;
    }
    HeapSwap(parent, base + next * size, size);
    i = next;
  }
}

// The item at index count - 1 was just appended: moves it up to its place.
inline void HeapSiftUp(uint8_t *base, size_t count, size_t size, HeapCompare compare, void *context) {
  for (size_t i = count - 1; i > 0;) {
    const size_t parent = (i - 1) / 2;
    if (compare(base + parent * size, base + i * size, context) <= 0) return;
    HeapSwap(base + parent * size, base + i * size, size);
    i = parent;
  }
}

// Removes the root: the last item takes its place and sifts down. Returns the
// new count.
inline size_t HeapPop(uint8_t *base, size_t count, size_t size, HeapCompare compare, void *context) {
  if (count == 0) return 0;
  if (--count > 0) {
    std::memcpy(base, base + count * size, size);
    HeapSiftDown(base, count, size, 0, compare, context);
  }
  return count;
}

}  // namespace qw
