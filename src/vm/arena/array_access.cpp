// Element access of arena arrays: decoding an array of either generation,
// VMAArrayRange_ (the hot path of every structure built on arrays), release,
// length, and the array memory-lock registration.
//
// Bounds: the new generation admits index < length; the old generation admits
// index <= length (an end position may be asked for). Out of bounds is
// reported, tags the arena corrupted when it is writable and fails the
// assertion "FALSE". Stored data that does not hold the elements its length
// claims (a block missing, an offset outside its block) fails with an error
// of class QW_ERROR_CLASS_DATA instead of reading outside the block.
#include <bit>
#include <cinttypes>

#include "vm/arena/array_internal.h"
#include "vm/lbs/names.h"

namespace qw::vm {
namespace {

constexpr uint32_t kKindArena = 1;

// Elements stored in a block of the given class, from its first index on.
inline uint32_t ElementsIn(uint32_t classSize, uint32_t elementSize) { return classSize / elementSize; }

// Index beyond the length: reported as the stored data being wrong.
[[gnu::cold]] void OutOfBounds(VMArena *arena, uint32_t arrayID, uint32_t genID, const ArrayView *array,
                               uint32_t index) {
  QWMessage(QW_LEVEL_ERROR, genID == NEWGEN ? "index = %d, length = %d, arrayID = %d, gen = NEW"
                                            : "index = %d, length = %d, arrayID = %d, gen = OLD",
            int(index), int(array->length), int(arrayID));
  TagCorruptedIfWritable(arena);
  qwassert_(FALSE);
  qwassert_(index < array->length);
}

// No storage behind `index`: corruption below the length; at the length (old
// generation) simply nothing to address.
[[gnu::cold]] void *NoStorage(VMArena *arena, uint32_t arrayID, uint32_t genID, const ArrayView *array,
                              uint32_t index) {
  if (index < array->length) {
    TagCorruptedIfWritable(arena);
    QWErrorThrow(74, QW_ERROR_CLASS_DATA, "array %u of \"%s\" (gen %u) has no storage for element %u of %u",
                 arrayID, arena->directory.c_str(), genID, index, array->length);
  } else {
    QWErrorThrow(2, QW_ERROR_CLASS_GENERAL, "array %u (gen %u): no element is stored at its end %u", arrayID, genID,
                 index);
  }
  return nullptr;
}

}  // namespace

uint64_t CapacityOf(const ArrayRecord *array, uint32_t blockSize, uint32_t elementSize) {
  uint64_t perBlock = blockSize / elementSize;
  uint32_t blocks = BlockCountOf(array);
  if (array->type == EMPTY_ARRAY_TYPE || blocks == 0) return 0;
  if (array->type == TAIL_ARRAY_TYPE)
    return (blocks - 1) * perBlock + ElementsIn(ClassSizeOfId(BlockIdAt(array, blocks - 1)), elementSize);
  return blocks * perBlock;
}

uint32_t Log2(uint32_t value) {
  uint32_t bits = 0;
  while ((1u << bits) < value) ++bits;
  return bits;
}

bool HeldRange::Acquire(int arrayLocked, uint32_t blockSize, uint32_t index, uint32_t genID, uint32_t elementSize) {
  Release();
  data_ = static_cast<uint8_t *>(VMAArrayRange_(arena_, arrayID_, arrayLocked, blockSize, index, &end_, genID, read_,
                                                elementSize, 0));
  start_ = index;
  return data_ != nullptr;
}

void HeldRange::Release() {
  if (data_) VMAArrayRelease_(arena_, arrayID_, data_, read_);
  data_ = nullptr;
}

void HeldRange::MoveFrom(HeldRange &other) {
  Release();
  data_ = other.data_;
  start_ = other.start_;
  end_ = other.end_;
  read_ = other.read_;
  other.data_ = nullptr;
}

bool ArrayLockApply(VMArena *arena, uint32_t arrayID, uint32_t genID) {
  if (arena->mapped) return true;  // mapped memory stays where it is
  const ArrayView view = DecodeArray(arena, arrayID, genID);
  for (uint32_t b = 0; b < view.blockCount; ++b) {
    uint64_t blockId = view.BlockId(b);
    uint32_t size = 0;
    void *data = VMArenaDataAcquire(arena, blockId, 1, genID, 1, &size, nullptr);
    if (!data) return QWErrorRethrow("cannot lock block %u of array %u (gen %u)", b, arrayID, genID) != 0;
    VMArenaDataRelease(arena, blockId, 1, data, 1, 1);  // the keep hints hold the page
  }
  return true;
}

}  // namespace qw::vm

using namespace qw::vm;

extern "C" {

QW_API void *VMAArrayRange_(VMArena *arena, uint32_t arrayID, int /*arrayLocked*/, uint32_t blockSize, uint32_t index,
                            uint32_t *end, uint32_t genID, int read, uint32_t elementSize, int prefetchOnly) {
  const ArrayView decoded = DecodeArray(arena, arrayID, genID);
  const ArrayView *array = &decoded;
  if (!read) CheckWrite(arena, genID);
  if (genID == NEWGEN ? index >= array->length : index > array->length)
    OutOfBounds(arena, arrayID, genID, array, index);
  qwassert_(array->type < TWO_PART_ARRAY_TYPE || array->type == FULL_BLOCK_ARRAY_TYPE);
  qwassert_(elementSize != 0 && elementSize <= blockSize);

  // Divisions cost more than the rest of the addressing: powers of two
  // shift, and a full block holds perBlock elements.
  uint32_t perBlock, b;
  const bool powers = (elementSize & (elementSize - 1)) == 0 && (blockSize & (blockSize - 1)) == 0;
  if (powers) {
    perBlock = blockSize >> std::countr_zero(elementSize);
    b = index >> std::countr_zero(perBlock);
  } else {
    perBlock = blockSize / elementSize;
    b = index / perBlock;
  }
  const uint32_t offset = index - b * perBlock;
  if (b >= array->blockCount) return NoStorage(arena, arrayID, genID, array, index);
  const uint64_t blockId = array->BlockId(b);
  const uint32_t classSize = ClassSizeOfId(blockId);
  const uint32_t stored = classSize == blockSize ? perBlock
                          : powers               ? classSize >> std::countr_zero(elementSize)
                                                 : ElementsIn(classSize, elementSize);
  if (offset >= stored) return NoStorage(arena, arrayID, genID, array, index);
  const uint64_t blockEnd = uint64_t(b) * perBlock + stored;
  *end = blockEnd < array->length ? uint32_t(blockEnd) : array->length;

  if (prefetchOnly) {
    VMArenaDataPrefetch(arena, blockId, 0, genID);
    return nullptr;
  }
  uint32_t size = 0;
  const uint32_t within = offset * elementSize;  // below the block size: offset < stored
  auto *data = static_cast<uint8_t *>(ArenaDataAcquireWithin(arena, blockId, genID, read, within, &size));
  if (!data) {
    QWErrorRethrow("VMAArrayRange_: cannot access block %u of array %u (gen %u) in \"%s\"", b, arrayID, genID,
                   arena->directory.c_str());
    return nullptr;
  }
  return data + size_t(offset) * elementSize;
}

QW_API void VMAArrayRelease_(VMArena *arena, uint32_t /*arrayID*/, void *address, int read) {
  // No address caching: every range holds its page until released here.
  // Only page-cache pages are pinned; mapped and read-write memory is not.
  if (arena->mapped || !address) return;
  qwassert_(arena->cache != NULL);
  if (PageCacheContains(arena->cache, address)) PageCacheRelease(arena->cache, address, read ? 0 : 1, 0, 0);
}

QW_API uint32_t VMAArrayLength_(VMArena *arena, uint32_t arrayID, uint32_t genID) {
  return DecodeArray(arena, arrayID, genID).length;
}

QW_API int VMAArrayLengthSet_(VMArena *arena, uint32_t arrayID, uint32_t length, uint32_t genID,
                              uint32_t elementSize) {
  CheckGeneration(genID);
  if (genID != NEWGEN) qwassert_(FALSE);
  qwassert_(!arena->readOnly);
  ArrayRecord *array = NewRecord(arena, arrayID);
  if (array->type != FULL_BLOCK_ARRAY_TYPE && length > array->length) {
    qwassert_(elementSize != 0);
    uint64_t capacity = CapacityOf(array, 1u << array->log2size, elementSize);
    if (length > capacity)
      return QWErrorThrow(22, QW_ERROR_CLASS_GENERAL,
                          "VMAArrayLengthSet_: length %u exceeds the capacity %" PRIu64 " of array %u", length,
                          capacity, arrayID);
  }
  array->length = length;
  return 1;
}

QW_API int VMAArrayLockRegister_(VMArena *arena, uint32_t arrayID, uint32_t genID, uint32_t argument) {
  (void)DecodeArray(arena, arrayID, genID);  // the id must exist in the generation
  // Entry words: kind, generation, skip, object, extra, index (the array;
  // 0xFFFFFFFF would be the whole arena), argument.
  LockEntry entry{kKindArena, genID, arena->mapped ? 1u : 0u, 0, 0, arrayID, argument};
  {
    ScopedMutex lock(arena->mutexes.locks);
    arena->lockRegistry.push_back(entry);
  }
  return ArrayLockApply(arena, arrayID, genID) ? 1 : 0;
}

}  // extern "C"
