// Single-element access to small arena arrays: the counters, free stacks and
// parameter words that the dictionaries keep beside their index structures.
// Elements are unsigned integers stored little-endian, one per slot, in
// ordinary arrays of 8192-byte blocks.
#pragma once

#include <cstdint>
#include <type_traits>

#include "qwvm/vmaarray.h"
#include "qwvm/vmarena.h"
#include "util/endian.h"

namespace qw::olib {

inline constexpr uint32_t kCellBlockSize = ARENA_MAX_BLOCK_SIZE;

// Number of elements of the array in genID; an array absent from that
// generation (new since the last commit) is empty there.
inline uint32_t CellCount(const VMAArrayHandle &array, uint32_t genID) {
  if (array.id[genID] == VMA_NO_ARRAY) return 0;
  return VMAArrayLength_(array.arena, array.id[genID], genID);
}

// Reads element `index` (the caller checked index < CellCount).
template <class T>
[[nodiscard]] bool CellGet(const VMAArrayHandle &array, uint32_t index, uint32_t genID, T *value) {
  static_assert(std::is_unsigned_v<T>);
  uint32_t end = 0;
  auto *at = static_cast<uint8_t *>(VMAArrayRange_(array.arena, array.id[genID], array.locked[genID],
                                                   kCellBlockSize, index, &end, genID, 1, sizeof(T), 0));
  if (at == nullptr) return false;
  *value = T(LoadLE(at, sizeof(T)));
  VMAArrayRelease_(array.arena, array.id[genID], at, 1);
  return true;
}

// Overwrites element `index` of the NEWGEN array.
template <class T>
[[nodiscard]] bool CellSet(const VMAArrayHandle &array, uint32_t index, T value) {
  uint32_t end = 0;
  auto *at = static_cast<uint8_t *>(VMAArrayRange_(array.arena, array.id[NEWGEN], array.locked[NEWGEN],
                                                   kCellBlockSize, index, &end, NEWGEN, 0, sizeof(T), 0));
  if (at == nullptr) return false;
  StoreLE(at, value, sizeof(T));
  VMAArrayRelease_(array.arena, array.id[NEWGEN], at, 0);
  return true;
}

// Appends one element to the NEWGEN array.
template <class T>
[[nodiscard]] bool CellAppend(const VMAArrayHandle &array, T value) {
  uint8_t bytes[sizeof(T)];
  StoreLE(bytes, value, sizeof(T));
  return VMAArrayAppend_(array.arena, array.id[NEWGEN], array.locked[NEWGEN], kCellBlockSize, bytes, 1, NEWGEN,
                         sizeof(T)) != 0;
}

// Removes the last element of the NEWGEN array, reading it first.
template <class T>
[[nodiscard]] bool CellPop(const VMAArrayHandle &array, T *value) {
  uint32_t count = CellCount(array, NEWGEN);
  if (count == 0 || !CellGet(array, count - 1, NEWGEN, value)) return false;
  return VMAArrayLengthSet_(array.arena, array.id[NEWGEN], count - 1, NEWGEN, sizeof(T)) != 0;
}

}  // namespace qw::olib
