// The array table of the new generation and array creation: the part of
// the arena arrays that the arena itself needs (array 0 exists in every
// arena).
#include <mutex>

#include "vm/arena/arena.h"

namespace qw::vm {
namespace {

constexpr uint32_t kArrayChunkEntries = 256;

ArrayRecord *RecordAt(VMArena *arena, uint32_t arrayId) {
  return static_cast<ArrayRecord *>(FArrayNth(&arena->arrays, arrayId));
}

// Makes `record` an empty array of the given layout.
bool ArrayRecordInit(ArrayRecord *record, uint8_t type, uint8_t log2size) {
  if (!FArrayInit_(&record->blockCache, 4, kArrayChunkEntries, nullptr) ||
      !FArrayInit_(&record->blockID, 8, kArrayChunkEntries, nullptr))
    return false;
  record->length = 0;
  record->type = type;
  record->log2size = log2size;
  return true;
}

}  // namespace

void ArrayRecordFree(ArrayRecord *record) {
  FArrayFree(&record->blockCache);
  FArrayFree(&record->blockID);
}

bool ArrayTableInit(VMArena *arena) {
  return FArrayInit_(&arena->arrays, sizeof(ArrayRecord), kArrayChunkEntries, nullptr) != 0;
}

void ArrayTableFree(VMArena *arena) {
  if (!arena->arrays.initialised) return;
  for (uint64_t i = 0; i < FArrayLength(&arena->arrays); ++i) ArrayRecordFree(RecordAt(arena, uint32_t(i)));
  FArrayFree(&arena->arrays);
}

}  // namespace qw::vm

using namespace qw::vm;

extern "C" {

QW_API uint32_t VMAArrayNew(VMArena *arena, int isBlockArray, uint32_t blockSize, uint32_t genID) {
  if (genID != NEWGEN) {
    qwassert_(FALSE);
    return VMA_NO_ARRAY;
  }
  qwassert_(!arena->readOnly);
  uint8_t type = EMPTY_ARRAY_TYPE;
  uint8_t log2size = 13;
  if (isBlockArray) {
    type = FULL_BLOCK_ARRAY_TYPE;
    log2size = uint8_t(CeilLog2(blockSize));
    qwassert_((uint32_t)(1u << log2size) == blockSize);
  }
  MutexAcquire(arena->mutexes.newGen);
  uint32_t arrayId;
  size_t freeCount = ArrayLength(arena->freeArrayIds);
  if (freeCount > 0) {
    arrayId = arena->freeArrayIds[freeCount - 1];  // last freed, first reused
    ArrayLengthSet(arena->freeArrayIds, freeCount - 1);
    ArrayRecordFree(RecordAt(arena, arrayId));
  } else {
    uint64_t index;
    if (!FArrayAdd_(&arena->arrays, 1, &index)) {
      MutexRelease(arena->mutexes.newGen);
      return VMA_NO_ARRAY;
    }
    arrayId = uint32_t(index);
  }
  bool ok = ArrayRecordInit(RecordAt(arena, arrayId), type, log2size);
  MutexRelease(arena->mutexes.newGen);
  return ok ? arrayId : VMA_NO_ARRAY;
}

}  // extern "C"
