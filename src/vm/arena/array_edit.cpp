// Element edits of arena arrays: append, insert, remove, overwrite, copy.
// Each walks the array range by range (one block at a time) through
// VMAArrayRange_; insert and remove cost one pass over the elements behind the
// index (there is no gap buffer).
//
// Append and set-range are all or nothing for the length: a failure while
// copying leaves the length as it was. Insert, remove and copy stop at the
// first failed range and leave what they moved so far.
#include <algorithm>
#include <cstring>
#include <vector>

#include "vm/arena/array_internal.h"

namespace qw::vm {
namespace {

// Room for one or two elements, on the stack when they are small.
class ElementBuffer {
 public:
  explicit ElementBuffer(size_t bytes) {
    if (bytes > sizeof small_) {
      large_.resize(bytes);
      data_ = large_.data();
    }
  }
  uint8_t *data() { return data_; }

 private:
  uint8_t small_[512];
  std::vector<uint8_t> large_;
  uint8_t *data_ = small_;
};

// Writes `count` elements from `data` at `index` (all below the length).
bool WriteElements(VMArena *arena, uint32_t arrayID, int arrayLocked, uint32_t blockSize, uint32_t index,
                   const uint8_t *data, uint32_t count, uint32_t elementSize) {
  HeldRange range(arena, arrayID, 0);
  const uint32_t stop = index + count;
  for (uint32_t i = index; i < stop;) {
    if (!range.Acquire(arrayLocked, blockSize, i, NEWGEN, elementSize)) return false;
    uint32_t n = std::min(range.end(), stop) - i;
    std::memcpy(range.data(), data + size_t(i - index) * elementSize, size_t(n) * elementSize);
    i += n;
  }
  return true;
}

bool OverflowError(const char *function, uint32_t arrayID) {
  return QWErrorThrow(75, QW_ERROR_CLASS_GENERAL, "%s: array %u would pass 2^32 - 1 elements", function, arrayID) != 0;
}

}  // namespace
}  // namespace qw::vm

using namespace qw::vm;

extern "C" {

QW_API int VMAArrayAppend_(VMArena *arena, uint32_t arrayID, int arrayLocked, uint32_t blockSize, const void *data,
                           uint32_t count, uint32_t genID, uint32_t elementSize) {
  CheckWrite(arena, genID);
  ArrayRecord *array = NewRecord(arena, arrayID);
  if (count == 0) return 1;
  const uint32_t old = array->length;
  if (uint64_t(old) + count > UINT32_MAX) return OverflowError("VMAArrayAppend_", arrayID);
  if (!VMAArrayEnsureCapacity_(arena, arrayID, arrayLocked, blockSize, old + count, NEWGEN, 0, elementSize))
    return 0;
  array->length = old + count;
  if (WriteElements(arena, arrayID, arrayLocked, blockSize, old, static_cast<const uint8_t *>(data), count,
                    elementSize))
    return 1;
  array->length = old;
  return 0;
}

QW_API int VMAArrayInsert_(VMArena *arena, uint32_t arrayID, int arrayLocked, uint32_t blockSize, uint32_t index,
                           const void *element, uint32_t genID, uint32_t elementSize) {
  CheckWrite(arena, genID);
  const uint32_t length = NewRecord(arena, arrayID)->length;
  if (index > length)
    return QWErrorThrow(22, QW_ERROR_CLASS_GENERAL, "VMAArrayInsert_: index %u beyond the length %u of array %u",
                        index, length, arrayID);
  if (!VMAArrayAppend_(arena, arrayID, arrayLocked, blockSize, element, 1, genID, elementSize)) return 0;
  // Shift [index, length) up by one, block by block: each range takes the
  // element carried in from below and hands its last one on.
  ElementBuffer buffer(2 * size_t(elementSize));
  uint8_t *carry = buffer.data();
  uint8_t *last = carry + elementSize;
  std::memcpy(carry, element, elementSize);
  HeldRange range(arena, arrayID, 0);
  for (uint32_t i = index; i < length + 1;) {
    if (!range.Acquire(arrayLocked, blockSize, i, NEWGEN, elementSize)) return 0;
    size_t n = range.end() - i;
    uint8_t *data = range.data();
    std::memcpy(last, data + (n - 1) * elementSize, elementSize);
    std::memmove(data + elementSize, data, (n - 1) * elementSize);
    std::memcpy(data, carry, elementSize);
    std::swap(carry, last);
    i = range.end();
  }
  return 1;
}

QW_API int VMAArrayRemove_(VMArena *arena, uint32_t arrayID, int arrayLocked, uint32_t blockSize, uint32_t index,
                           uint32_t genID, uint32_t elementSize) {
  CheckWrite(arena, genID);
  ArrayRecord *array = NewRecord(arena, arrayID);
  const uint32_t length = array->length;
  if (index >= length)
    return QWErrorThrow(22, QW_ERROR_CLASS_GENERAL, "VMAArrayRemove_: index %u beyond the length %u of array %u",
                        index, length, arrayID);
  // Shift (index, length) down by one; the first element of each range moves
  // into the last slot of the range before it.
  HeldRange range(arena, arrayID, 0), next(arena, arrayID, 0);
  if (!range.Acquire(arrayLocked, blockSize, index, NEWGEN, elementSize)) return 0;
  for (;;) {
    size_t n = range.end() - range.start();
    std::memmove(range.data(), range.data() + elementSize, (n - 1) * elementSize);
    if (range.end() >= length) break;
    if (!next.Acquire(arrayLocked, blockSize, range.end(), NEWGEN, elementSize)) return 0;
    std::memcpy(range.data() + (n - 1) * elementSize, next.data(), elementSize);
    range.MoveFrom(next);
  }
  range.Release();
  array->length = length - 1;
  return 1;
}

QW_API int VMAArraySetRange_(VMArena *arena, uint32_t arrayID, int arrayLocked, uint32_t blockSize, uint32_t index,
                             const void *data, uint32_t count, uint32_t genID, uint32_t elementSize) {
  CheckWrite(arena, genID);
  const uint32_t length = NewRecord(arena, arrayID)->length;
  if (uint64_t(index) + count > length)
    return QWErrorThrow(22, QW_ERROR_CLASS_GENERAL,
                        "VMAArraySetRange_: elements %u..%u lie beyond the length %u of array %u", index,
                        index + count, length, arrayID);
  return WriteElements(arena, arrayID, arrayLocked, blockSize, index, static_cast<const uint8_t *>(data), count,
                       elementSize);
}

QW_API int VMAArrayCopy_(VMArena *arena, uint32_t destID, int destLocked, uint32_t srcID, int srcLocked,
                         uint32_t srcGenID, uint32_t blockSize, uint32_t elementSize) {
  CheckWrite(arena, NEWGEN);
  qwassert_(!((destLocked || srcLocked) && arena->bgLock));
  if (destID == srcID && srcGenID == NEWGEN) return 1;  // already a copy of itself
  const uint32_t length = DecodeArray(arena, srcID, srcGenID).length;
  ArrayRecord *dest = NewRecord(arena, destID);
  // Blocks that the old generation shares stay readable there after the free.
  ClearBlocks(arena, dest);
  if (length == 0) return 1;
  if (!VMAArrayEnsureCapacity_(arena, destID, destLocked, blockSize, length, NEWGEN, 0, elementSize)) return 0;
  dest->length = length;
  HeldRange from(arena, srcID, 1), to(arena, destID, 0);
  for (uint32_t i = 0; i < length;) {
    if (!from.Acquire(srcLocked, blockSize, i, srcGenID, elementSize) ||
        !to.Acquire(destLocked, blockSize, i, NEWGEN, elementSize))
      return 0;
    uint32_t n = std::min(from.end(), to.end()) - i;
    std::memcpy(to.data(), from.data(), size_t(n) * elementSize);
    i += n;
  }
  return 1;
}

}  // extern "C"
