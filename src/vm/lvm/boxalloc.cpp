// Deterministic block allocation and the recycle lists (see boxalloc.h).
#include "vm/lvm/boxalloc.h"

#include <utility>

#include "qwvm/qwlib.h"
#include "vm/lvm/boxrecord.h"

namespace qw::box {

namespace {

constexpr uint32_t kLastClass = BOXLVM_SIZE_CLASSES - 1;

// Step 1: the smallest fitting class that has a free block, split if larger.
bool TakeFromFreeLists(BlockSpace &space, uint32_t sizeClass, uint32_t *handle) {
  for (uint32_t k = space.FreeListCandidate(sizeClass); k <= kLastClass; k = space.FreeListCandidate(k + 1)) {
    if (!space.FreeListPop(k, handle)) return false;
    if (*handle == BOXLVM_NO_HANDLE) continue;
    if (k > sizeClass && !space.FreeListPush(k - sizeClass - 1, *handle + sizeClass + 1)) return false;
    return true;
  }
  return true;
}

// Grows the file so that one more page lies past `used`; *total is updated.
bool MakeRoom(BlockSpace &space, uint32_t used, bool replaying, uint32_t *total) {
  if (replaying)
    return QWErrorThrow(5, QW_ERROR_CLASS_DATA, "data file not extended yet. Total %i, lastUsed %i", int(*total),
                        int(used));
  const uint32_t dataPages = used;
  qwassert_((dataPages % BOXLVM_PAGEUNITS) == 0);
  uint32_t newPages = 0;
  if (!space.GrowDataFile(dataPages / BOXLVM_PAGEUNITS, &newPages)) {
    QWMessage(QW_LEVEL_WARNING, "BoxLVMExtendData failed");
    return false;
  }
  *total = newPages * BOXLVM_PAGEUNITS;
  if (!space.ParamSet(kParamTotalUnits, *total)) return false;
  if (!space.LogExtension(*total)) return QWErrorRethrow("could not log data file extension");
  if (*total < used + BOXLVM_PAGEUNITS)
    return QWErrorThrow(2, QW_ERROR_CLASS_DATA, "After extension, still do not have enough space");
  return true;
}

// Steps 2 and 3: a fresh page, its rest to the free list of the rest's class.
bool TakeFreshPage(BlockSpace &space, uint32_t sizeClass, bool replaying, uint32_t *handle) {
  uint32_t used = 0, total = 0;
  if (!space.ParamGet(kParamUsedUnits, &used) || !space.ParamGet(kParamTotalUnits, &total)) return false;
  if (total < used + BOXLVM_PAGEUNITS && !MakeRoom(space, used, replaying, &total)) return false;
  if (!space.ParamSet(kParamUsedUnits, used + BOXLVM_PAGEUNITS)) return false;
  *handle = used;
  if (sizeClass < kLastClass && !space.FreeListPush(kLastClass - 1 - sizeClass, used + sizeClass + 1)) return false;
  return true;
}

}  // namespace

bool AllocateBlock(BlockSpace &space, uint32_t sizeClass, bool replaying, uint32_t *handle) {
  qwassert_(sizeClass <= kLastClass);
  if (!TakeFromFreeLists(space, sizeClass, handle)) return QWErrorRethrow("fatal error while allocating a block");
  if (*handle != BOXLVM_NO_HANDLE) return true;
  if (!TakeFreshPage(space, sizeClass, replaying, handle)) {
    *handle = BOXLVM_NO_HANDLE;
    return QWErrorRethrow("fatal error while allocating new block");
  }
  return true;
}

bool AllocateEntry(BlockSpace &space, uint64_t size, bool replaying, std::vector<uint32_t> *handles,
                   std::vector<uint8_t> *classes) {
  const uint32_t parts = PartCount(size);
  handles->assign(parts, BOXLVM_NO_HANDLE);
  classes->assign(parts, 0);
  for (uint32_t part = 0; part < parts; ++part) {
    (*classes)[part] = uint8_t(PartClass(size, part));
    if (!AllocateBlock(space, (*classes)[part], replaying, &(*handles)[part]))
      return QWErrorRethrow(part + 1 < parts ? "a block allocation failed" : "last new block allocation failed");
  }
  return true;
}

RecycleLists::~RecycleLists() {
  for (uint32_t c = 0; c < BOXLVM_SIZE_CLASSES; ++c) {
    ArrayFree(freed_[c]);
    ArrayFree(setAside_[c]);
  }
}

bool RecycleLists::Free(uint32_t sizeClass, uint32_t handle) {
  uint32_t *&list = freed_[sizeClass];
  if (!list && !ArrayInit(list, sizeof(uint32_t), 16)) return false;
  return ArrayAppend(list, handle) != 0;
}

void RecycleLists::SetAside() {
  for (uint32_t c = 0; c < BOXLVM_SIZE_CLASSES; ++c) {
    uint32_t **freeListNew = &setAside_[c];
    qwassert_(ArrayLength(*freeListNew) == 0);
    std::swap(freed_[c], setAside_[c]);
  }
}

bool RecycleLists::Recycle(BlockSpace &space) {
  for (uint32_t c = 0; c < BOXLVM_SIZE_CLASSES; ++c) {
    uint32_t *&list = setAside_[c];
    if (!list) continue;
    size_t done = 0;
    for (; done < ArrayLength(list); ++done) {
      if (!space.FreeListPush(c, list[done])) break;
    }
    // Keep what was not appended, so that a retry appends each block once.
    const size_t left = ArrayLength(list) - done;
    for (size_t i = 0; i < left; ++i) list[i] = list[done + i];
    (void)ArrayLengthSet(list, left);
    if (left != 0) return false;
  }
  return true;
}

size_t RecycleLists::FreedCount(uint32_t sizeClass) const { return ArrayLength(freed_[sizeClass]); }
size_t RecycleLists::SetAsideCount(uint32_t sizeClass) const { return ArrayLength(setAside_[sizeClass]); }

}  // namespace qw::box
