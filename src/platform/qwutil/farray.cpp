// Chunked file arrays: chunk management, growth and element access.
//
// Invariants of an initialised FArray:
//   - chunks[0 .. chunkCount) are live chunks of elementSize * chunkEntries
//     bytes from the array's allocator; chunkCount <= chunkSlots.
//   - length <= capacity = chunkCount << chunkShift.
//   - length <= untouched <= capacity, and every element at an index
//     >= untouched is exactly as the allocator returned it (so zero when the
//     allocator promises FARRAY_ALLOCATOR_ZEROED). Growth zero-fills only the elements
//     below `untouched` (or all new ones for an allocator that does not zero).
//   - Chunks are only ever appended to the table and released all at once
//     (clear/free), which is what keeps element addresses stable.
//   - A chunk table is never freed while the array lives: growth copies it
//     into a larger one and links the old one behind the new one (the word
//     before chunks[0]); clear/free release the whole chain. So a reader
//     that holds no lock (FArrayNthConcurrent) may still use a table it
//     loaded before a growth.
//   - `chunks`, the table's slots and `length` are stored atomically, each
//     new chunk and zeroed element before the length that covers it
//     (release), so such a reader that sees a length sees what lies below it.
#include <cerrno>
#include <cstring>

#include "platform/qwutil/farray_internal.h"
#include "qwvm/qwutil.h"

namespace {

void *DefaultAllocate(void *, size_t bytes) { return Allocate(bytes); }

int DefaultRelease(void *, void *chunk, size_t) {
  UnAllocate(chunk);
  return 1;
}

constexpr FArrayAllocator kDefaultAllocator = {DefaultAllocate, DefaultRelease, nullptr, FARRAY_ALLOCATOR_ZEROED};

size_t ChunkBytes(const FArray *array) { return size_t(array->elementSize) * array->chunkEntries; }

// The word before a chunk table links the table it replaced (or holds NULL).
char **RetiredTableOf(char **table) { return reinterpret_cast<char **>(table[-1]); }

// Makes room for one more chunk pointer, growing the table by half. The old
// table stays readable (see the invariants).
[[nodiscard]] int GrowChunkTable(FArray *array) {
  if (array->chunkCount < array->chunkSlots) return 1;
  uint64_t slots = array->chunkSlots < 8 ? 8 : array->chunkSlots + array->chunkSlots / 2;
  auto *block = static_cast<char **>(Allocate(size_t(slots + 1) * sizeof(char *)));
  if (block == nullptr) return QWErrorRethrow("FArray: could not grow the chunk table to %llu chunks",
                                              static_cast<unsigned long long>(slots));
  char **table = block + 1;
  table[-1] = reinterpret_cast<char *>(array->chunks);
  if (array->chunkCount > 0) std::memcpy(table, array->chunks, size_t(array->chunkCount) * sizeof(char *));
  __atomic_store_n(&array->chunks, table, __ATOMIC_RELEASE);
  array->chunkSlots = slots;
  return 1;
}

// Frees a chunk table and every table it replaced.
void FreeChunkTables(char **table) {
  while (table != nullptr) {
    char **retired = RetiredTableOf(table);
    UnAllocate(table - 1);
    table = retired;
  }
}

// Sets the length for readers without a lock: after everything below it.
void PublishLength(FArray *array, uint64_t length) { __atomic_store_n(&array->length, length, __ATOMIC_RELEASE); }

// Releases every chunk (all of them, even after a failure) and empties the
// array; returns 1, or 0 with the first release error.
[[nodiscard]] int ReleaseChunks(FArray *array) {
  int ok = 1;
  const size_t bytes = ChunkBytes(array);
  for (uint64_t i = 0; i < array->chunkCount; ++i) {
    if (ok) {
      ok = array->allocator.release(array->allocator.context, array->chunks[i], bytes);
    } else {
      QWErrorSave();
      (void)array->allocator.release(array->allocator.context, array->chunks[i], bytes);
      QWErrorRestore();
    }
  }
  FreeChunkTables(array->chunks);
  array->chunks = nullptr;
  array->chunkCount = array->chunkSlots = 0;
  PublishLength(array, 0);
  array->untouched = 0;
  if (!ok) QWErrorRethrow("FArray: could not release a chunk of %zu bytes", bytes);
  return ok;
}

// Zero-fills the elements [from, to), which lie within the capacity.
void ZeroElements(FArray *array, uint64_t from, uint64_t to) {
  const uint64_t mask = array->chunkEntries - 1u;
  while (from < to) {
    uint64_t inChunk = array->chunkEntries - (from & mask);
    uint64_t n = to - from < inChunk ? to - from : inChunk;
    std::memset(FArrayNthUnchecked(array, from), 0, size_t(n) * array->elementSize);
    from += n;
  }
}

}  // namespace

namespace qw {

int FArrayGrowUninitialised(FArray *array, uint64_t length) {
  if (length <= array->length) return 1;
  if (!FArrayEnsureCapacity_(array, length))
    return QWErrorRethrow("FArray: could not grow to %llu elements", static_cast<unsigned long long>(length));
  if (array->untouched < length) array->untouched = length;
  PublishLength(array, length);
  return 1;
}

}  // namespace qw

int FArrayInit_(FArray *array, uint32_t elementSize, uint32_t chunkEntries, const FArrayAllocator *allocator) {
  std::memset(array, 0, sizeof *array);
  if (elementSize == 0) return QWErrorThrow(EINVAL, QW_ERROR_CLASS_GENERAL, "FArrayInit_: element size 0");
  if (chunkEntries == 0 || (chunkEntries & (chunkEntries - 1u)) != 0)
    return QWErrorThrow(EINVAL, QW_ERROR_CLASS_GENERAL, "FArrayInit_: chunk size %u is not a power of two",
                        chunkEntries);
  if (allocator != nullptr && (allocator->allocate == nullptr || allocator->release == nullptr))
    return QWErrorThrow(EINVAL, QW_ERROR_CLASS_GENERAL, "FArrayInit_: allocator without allocate or release");
  array->elementSize = elementSize;
  array->chunkEntries = chunkEntries;
  array->chunkShift = static_cast<uint32_t>(__builtin_ctz(chunkEntries));
  array->allocator = allocator != nullptr ? *allocator : kDefaultAllocator;
  array->initialised = 1;
  return 1;
}

int FArrayFree(FArray *array) {
  if (!array->initialised) return 1;
  int ok = ReleaseChunks(array);
  std::memset(array, 0, sizeof *array);
  return ok;
}

int FArrayClear(FArray *array) {
  if (!array->initialised) return 1;
  return ReleaseChunks(array);
}

int FArrayEnsureCapacity_(FArray *array, uint64_t capacity) {
  qwassert_(array->initialised);
  // Capacity is counted in elements and chunks are addressed through size_t;
  // a request whose bytes cannot be addressed can only fail.
  if (capacity > (SIZE_MAX / array->elementSize))
    return QWErrorThrow(ENOMEM, QW_ERROR_CLASS_SYSTEM, "FArray: %llu elements of %u bytes cannot be addressed",
                        static_cast<unsigned long long>(capacity), array->elementSize);
  const size_t bytes = ChunkBytes(array);
  while (FArrayCapacity(array) < capacity) {
    if (!GrowChunkTable(array)) return 0;
    void *chunk = array->allocator.allocate(array->allocator.context, bytes);
    if (chunk == nullptr) return QWErrorRethrow("FArray: could not allocate a chunk of %zu bytes", bytes);
    __atomic_store_n(&array->chunks[array->chunkCount++], static_cast<char *>(chunk), __ATOMIC_RELAXED);
  }
  return 1;
}

int FArrayLengthSet_(FArray *array, uint64_t length) {
  qwassert_(array->initialised);
  if (length <= array->length) {
    PublishLength(array, length);
    return 1;
  }
  const uint64_t from = array->length;
  qwassert_(array->untouched >= from);
  const uint64_t dirtyEnd = (array->allocator.flags & FARRAY_ALLOCATOR_ZEROED) ? array->untouched : length;
  if (!qw::FArrayGrowUninitialised(array, length)) return 0;
  ZeroElements(array, from, dirtyEnd < length ? dirtyEnd : length);
  return 1;
}

int FArrayAdd_(FArray *array, uint64_t count, uint64_t *firstIndex) {
  const uint64_t first = array->length;
  if (count > UINT64_MAX - first)
    return QWErrorThrow(ENOMEM, QW_ERROR_CLASS_SYSTEM, "FArrayAdd_: length overflow");
  if (!FArrayLengthSet_(array, first + count)) return 0;
  if (firstIndex != nullptr) *firstIndex = first;
  return 1;
}

void *FArrayRange_(const FArray *array, uint64_t start, uint64_t count, uint32_t *available) {
  qwassert_(count >= 1 && start < array->length && count <= array->length - start);
  const uint64_t inChunk = array->chunkEntries - (start & (array->chunkEntries - 1u));
  *available = static_cast<uint32_t>(count < inChunk ? count : inChunk);
  return FArrayNthUnchecked(array, start);
}

int FArrayExec_(const FArray *array, uint64_t start, uint64_t count, FArrayExecFunction fn, void *context) {
  qwassert_(start <= array->length && count <= array->length - start);
  while (count > 0) {
    uint32_t n = 0;
    void *elements = FArrayRange_(array, start, count, &n);
    if (!fn(context, elements, n, start)) return 0;
    start += n;
    count -= n;
  }
  return 1;
}
