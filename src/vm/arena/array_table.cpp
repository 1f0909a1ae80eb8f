// The array table of the new generation: records, their lock-free
// directory, creation and freeing of array ids.
//
// Ids: VMAArrayFree puts every id it frees, named or not, on a stack saved
// with the new generation, and VMAArrayNew reuses the most recently freed id
// before it appends a record. Named arrays (array_names.cpp) are always made
// with a fresh id: the name list is positional (the k-th name belongs to id
// k) and append-only, so a name stays bound to its id for the life of the
// arena. A freed named id that VMAArrayNew reuses is therefore found by the
// old name; a freed named id that a lookup of its name finds while it is
// still on the stack is taken back off it (ReclaimFreedId), so that no id
// ever has two owners.
#include <algorithm>
#include <new>

#include "vm/arena/array_internal.h"
#include "vm/lbs/names.h"

namespace qw::vm {
namespace {

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

bool PublishLast(VMArena *arena) {
  uint32_t id = arena->arrayState.directory.Count();
  if (arena->arrayState.directory.Publish(RecordAt(arena, id & ~(kArrayChunkEntries - 1)))) return true;
  return QWErrorThrow(12, QW_ERROR_CLASS_SYSTEM, "out of memory publishing array %u", id) != 0;
}

// A record at the end of the table. Caller holds the new-generation mutex.
uint32_t AppendRecord(VMArena *arena, uint8_t type, uint8_t log2size) {
  uint64_t index;
  if (!FArrayAdd_(&arena->arrays, 1, &index)) return VMA_NO_ARRAY;
  bool ok = index < VMA_NO_ARRAY;
  if (!ok) QWErrorThrow(28, QW_ERROR_CLASS_GENERAL, "no array id left in \"%s\"", arena->directory.c_str());
  ok = ok && ArrayRecordInit(RecordAt(arena, uint32_t(index)), type, log2size);
  if (ok && PublishLast(arena)) return uint32_t(index);
  ArrayRecordFree(RecordAt(arena, uint32_t(index)));
  (void)FArrayLengthSet_(&arena->arrays, index);  // shrinking cannot fail
  return VMA_NO_ARRAY;
}

bool IsOnFreeStack(const VMArena *arena, uint32_t arrayID) {
  const uint32_t *ids = arena->freeArrayIds;
  return std::find(ids, ids + ArrayLength(ids), arrayID) != ids + ArrayLength(ids);
}

}  // namespace

bool ArrayDirectory::Publish(ArrayRecord *chunkStart) {
  uint32_t id = count_.load(std::memory_order_relaxed);
  size_t chunk = id >> kArrayChunkShift;
  ArrayRecord **table = chunks_.load(std::memory_order_relaxed);
  if (chunk >= slots_) {
    try {
      size_t slots = slots_ ? slots_ * 2 : 8;
      auto grown = std::make_unique<ArrayRecord *[]>(slots);
      std::copy(table, table + slots_, grown.get());
      tables_.reserve(tables_.size() + 1);
      table = grown.get();
      tables_.push_back(std::move(grown));
      slots_ = slots;
    } catch (const std::bad_alloc &) {
      return false;
    }
    chunks_.store(table, std::memory_order_release);
  }
  // Readers look at an entry only for published ids: a fresh chunk's entry is
  // not read before the count below says so.
  if (table[chunk] != chunkStart) table[chunk] = chunkStart;
  count_.store(id + 1, std::memory_order_release);
  return true;
}

void ArrayRecordFree(ArrayRecord *record) {
  FArrayFree(&record->blockCache);
  FArrayFree(&record->blockID);
}

bool ArrayTableInit(VMArena *arena) {
  arena->arrayState.directory.Reset();
  return FArrayInit_(&arena->arrays, sizeof(ArrayRecord), kArrayChunkEntries, nullptr) != 0;
}

void ArrayTableFree(VMArena *arena) {
  arena->arrayState.directory.Reset();
  if (!arena->arrays.initialised) return;
  for (uint64_t i = 0; i < FArrayLength(&arena->arrays); ++i) ArrayRecordFree(RecordAt(arena, uint32_t(i)));
  FArrayFree(&arena->arrays);
}

bool ArrayStateInit(VMArena *arena) {
  arena->arrayState.nameMutex = MutexInit();
  return arena->arrayState.nameMutex != nullptr;
}

bool RebuildDirectory(VMArena *arena) {
  ScopedMutex lock(arena->mutexes.newGen);
  arena->arrayState.directory.Reset();
  for (uint64_t i = 0; i < FArrayLength(&arena->arrays); ++i)
    if (!PublishLast(arena)) return false;
  return true;
}

bool ArraysOpened(VMArena *arena) {
  return RebuildDirectory(arena) && CheckNameArrays(arena, arena->view) && RebuildNames(arena, false) &&
         NameTreeOpen(arena);
}

// The mounted generation's blocks are readable only once it is current: the
// names are read at the memory commit.
bool ArraysMounted(VMArena *arena) {
  NameTreeClose(arena);
  ForgetNames(arena);
  return RebuildDirectory(arena) && CheckNameArrays(arena, arena->nextView);
}

// After the arena's own commit the tree's committed view moves on; after a
// mount the names and the tree are read afresh.
bool ArraysViewChanged(VMArena *arena) {
  bool wasCurrent = false;
  {
    ScopedMutex lock(arena->arrayState.nameMutex);
    wasCurrent = arena->arrayState.namesCurrent;
  }
  if (!RebuildNames(arena, true)) return false;
  if (!wasCurrent) return NameTreeOpen(arena);
  NameTreeCommitted(arena);
  return true;
}

void TagCorruptedIfWritable(VMArena *arena) {
  if (!arena->readOnly) VMArenaTagCorrupted(arena);
}

void NoNewArray(VMArena *arena) {
  TagCorruptedIfWritable(arena);
  QW_ASSERT_NAMED(false, "arrayID < FArrayLength(arena->rw_gen.array)");
}

void NoOldArray(VMArena *arena) {
  TagCorruptedIfWritable(arena);
  QW_ASSERT_NAMED(false, "arrayID < ArrayLength(arena->r_gen.length)");
}

void ReclaimFreedId(VMArena *arena, uint32_t arrayID) {
  if (arena->readOnly || !IsOnFreeStack(arena, arrayID)) return;
  ScopedMutex lock(arena->mutexes.newGen);
  uint32_t *ids = arena->freeArrayIds;
  const size_t count = ArrayLength(ids);
  std::remove(ids, ids + count, arrayID);
  ArrayLengthSet(arena->freeArrayIds, count - 1);  // shrinking cannot fail
}

uint32_t ArrayCreate(VMArena *arena, int isBlockArray, uint32_t blockSize, bool reuseFreeId) {
  uint8_t type = EMPTY_ARRAY_TYPE;
  uint8_t log2size = 13;
  if (isBlockArray) {
    // The power-of-two check comes first: any block size that is not one
    // fails it, whatever its magnitude.
    type = FULL_BLOCK_ARRAY_TYPE;
    log2size = uint8_t(CeilLog2(blockSize));
    QW_ASSERT_NAMED((uint64_t(1) << log2size) == blockSize, "(UInt) (1 << array->log2size) == blockSize");
    qwassert_(blockSize <= ARENA_MAX_BLOCK_SIZE);
  }
  ScopedMutex lock(arena->mutexes.newGen);
  size_t freeCount = ArrayLength(arena->freeArrayIds);
  if (!reuseFreeId || freeCount == 0) return AppendRecord(arena, type, log2size);
  uint32_t arrayId = arena->freeArrayIds[freeCount - 1];  // last freed, first reused
  ArrayRecord *record = RecordAt(arena, arrayId);
  ArrayRecordFree(record);
  if (!ArrayRecordInit(record, type, log2size)) return VMA_NO_ARRAY;
  ArrayLengthSet(arena->freeArrayIds, freeCount - 1);
  return arrayId;
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
  ScopedMutex names(arena->arrayState.nameMutex);
  return ArrayCreate(arena, isBlockArray, blockSize, true);
}

QW_API int VMAArrayFree(VMArena *arena, uint32_t arrayID) {
  qwassert_(!arena->readOnly);
  ArrayRecord *array = NewRecord(arena, arrayID);
  if (arrayID == 0)
    return QWErrorThrow(22, QW_ERROR_CLASS_GENERAL, "VMAArrayFree: array 0 holds the array names and cannot be freed");
  ScopedMutex names(arena->arrayState.nameMutex);
  if (IsOnFreeStack(arena, arrayID))
    return QWErrorThrow(22, QW_ERROR_CLASS_GENERAL, "VMAArrayFree: array %u is already free", arrayID);
  ClearBlocks(arena, array);
  ScopedMutex lock(arena->mutexes.newGen);
  if (!ArrayAppend(arena->freeArrayIds, arrayID))
    return QWErrorRethrow("VMAArrayFree: could not keep array %u for reuse", arrayID);
  return 1;
}

}  // extern "C"
