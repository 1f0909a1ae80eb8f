// Growable arrays: an element pointer with a hidden header in front.
//
// Layout: [ArrayHeader][element 0][element 1]...; the caller's pointer points
// at element 0. The header is 32 bytes so that elements keep malloc's 16-byte
// alignment. Invariant: length <= capacity; bytes of elements in
// [length, capacity) are unspecified, and are zeroed when the length grows
// over them.
#include <algorithm>
#include <cstdlib>
#include <cstring>
#include <limits>

#include "qwvm/qwlib.h"

namespace {

struct alignas(16) ArrayHeader {
  size_t length;
  size_t capacity;
  size_t elementSize;
  size_t reserved;
};
static_assert(sizeof(ArrayHeader) == 32);

ArrayHeader *HeaderOf(const void *array) {
  return reinterpret_cast<ArrayHeader *>(const_cast<char *>(static_cast<const char *>(array)) - sizeof(ArrayHeader));
}

void **Slot(void *arrayPointer) { return static_cast<void **>(arrayPointer); }

char *ElementsOf(ArrayHeader *header) { return reinterpret_cast<char *>(header) + sizeof(ArrayHeader); }

// Moves the array to a block with room for `capacity` elements.
bool Reserve(void **slot, size_t capacity, const char *file, int line) {
  ArrayHeader *header = HeaderOf(*slot);
  if (capacity <= header->capacity) return true;
  size_t limit = (std::numeric_limits<size_t>::max() - sizeof(ArrayHeader)) / header->elementSize;
  if (capacity > limit) {
    QWErrorThrow(12, QW_ERROR_CLASS_SYSTEM, "array of %zu elements is too large at %s:%d", capacity, file, line);
    return false;
  }
  void *grown = Reallocate_(header, sizeof(ArrayHeader) + capacity * header->elementSize, file, line);
  if (!grown) return false;
  header = static_cast<ArrayHeader *>(grown);
  header->capacity = capacity;
  *slot = ElementsOf(header);
  return true;
}

bool SetLength(void **slot, size_t length, size_t capacity, const char *file, int line) {
  qwassert_(*slot != NULL);
  if (!Reserve(slot, capacity, file, line)) return false;
  ArrayHeader *header = HeaderOf(*slot);
  if (length > header->length)
    std::memset(ElementsOf(header) + header->length * header->elementSize, 0,
                (length - header->length) * header->elementSize);
  header->length = length;
  return true;
}

}  // namespace

extern "C" {

QW_API int ArrayInit_(void *arrayPointer, size_t elementSize, size_t capacity, const char *file, int line) {
  qwassert_(elementSize > 0);
  void **slot = Slot(arrayPointer);
  ArrayFree_(arrayPointer);
  void *memory = Allocate_(sizeof(ArrayHeader) + capacity * elementSize, file, line);
  if (!memory) return 0;
  ArrayHeader *header = static_cast<ArrayHeader *>(memory);
  header->length = 0;
  header->capacity = capacity;
  header->elementSize = elementSize;
  *slot = ElementsOf(header);
  return 1;
}

QW_API int ArrayGrow_(void *arrayPointer, size_t count, const char *file, int line) {
  void **slot = Slot(arrayPointer);
  qwassert_(*slot != NULL);
  ArrayHeader *header = HeaderOf(*slot);
  size_t length = header->length + count;
  size_t capacity = header->capacity;
  if (length > capacity) capacity = std::max(length, capacity + capacity / 2 + 4);
  return SetLength(slot, length, capacity, file, line) ? 1 : 0;
}

QW_API int ArrayGrowExact_(void *arrayPointer, size_t count, const char *file, int line) {
  void **slot = Slot(arrayPointer);
  qwassert_(*slot != NULL);
  size_t length = HeaderOf(*slot)->length + count;
  return SetLength(slot, length, length, file, line) ? 1 : 0;
}

QW_API int ArrayEnsureCapacity_(void *arrayPointer, size_t capacity, const char *file, int line) {
  void **slot = Slot(arrayPointer);
  qwassert_(*slot != NULL);
  return Reserve(slot, capacity, file, line) ? 1 : 0;
}

QW_API int ArrayLengthSet_(void *arrayPointer, size_t length, const char *file, int line) {
  void **slot = Slot(arrayPointer);
  qwassert_(*slot != NULL);
  size_t capacity = HeaderOf(*slot)->capacity;
  return SetLength(slot, length, std::max(capacity, length), file, line) ? 1 : 0;
}

QW_API void ArrayFree_(void *arrayPointer) {
  void **slot = Slot(arrayPointer);
  if (*slot) std::free(HeaderOf(*slot));
  *slot = nullptr;
}

QW_API size_t ArrayLength_(const void *array) { return array ? HeaderOf(array)->length : 0; }

QW_API size_t ArrayCapacity_(const void *array) { return array ? HeaderOf(array)->capacity : 0; }

QW_API size_t ArrayElementSize_(const void *array) { return array ? HeaderOf(array)->elementSize : 0; }

}  // extern "C"
