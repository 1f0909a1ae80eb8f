// External elements: writing data to blocks, the descriptor that lists them,
// and reading the descriptor back with every stored value checked before it
// is used (a malformed descriptor tags the arena and fails; it never leads
// to a read outside a block or to freeing a block of the wrong size).
#include <cstring>

#include "vm/olib/ldbarray/layout.h"

namespace qw::ldba {

uint32_t PlaceSize(const LDBArray *array, uint32_t bytes) {
  for (uint32_t size : array->classSizes)
    if (size >= bytes) return size;
  return LDBARRAY_BLOCK_SIZE;
}

bool ValidBlockId(const LDBArray *array, uint64_t id, uint32_t classSize) {
  if (id == INVALID_VMARENA_BLOCK_ID) return false;
  uint32_t sizeClass = 0, bucket = 0, serverBlock = 0, slot = 0;
  if (!VMABlockInfoGet(array->arena, id, &sizeClass, &bucket, &serverBlock, &slot)) {
    QWErrorClear();
    return false;
  }
  return bucket < VMArenaBucketCount(array->arena) && sizeClass < ARENA_SIZE_CLASS_COUNT &&
         array->classSizes[sizeClass] == classSize && uint64_t(slot + 1) * classSize <= ARENA_MAX_BLOCK_SIZE;
}

bool DataBlockWalk::ListBlock(const uint8_t *descriptor, const Cut &listCut, uint32_t j, uint64_t *id,
                              const uint8_t **bytes) {
  *id = LoadLE64(descriptor + 8 * size_t(j));
  const uint32_t placeSize = PlaceSize(array_, listCut.BytesOf(j));
  if (!ValidBlockId(array_, *id, placeSize)) return Corrupt("list block id of the size its place requires");
  uint32_t size = 0;
  *bytes = static_cast<const uint8_t *>(VMArenaDataAcquire(array_->arena, *id, 0, genID_, 1, &size, nullptr));
  if (!*bytes) return QWErrorRethrow("cannot read list block %u of a large element", j);
  return true;
}

bool DataBlockWalk::ReadListEntry(const uint8_t *descriptor, const Cut &listCut, uint32_t j, uint32_t at,
                                  uint64_t *id) {
  uint64_t listId = 0;
  const uint8_t *entries = nullptr;
  if (!ListBlock(descriptor, listCut, j, &listId, &entries)) return false;
  *id = LoadLE64(entries + at);
  ReleaseList(listId, entries);
  return true;
}

void DataBlockWalk::ReleaseList(uint64_t id, const uint8_t *bytes) {
  VMArenaDataRelease(array_->arena, id, 1, const_cast<uint8_t *>(bytes), 0, 0);
}

namespace {

// Bytes to store: plain data, or a list of block ids written little-endian.
struct Source {
  const uint8_t *data = nullptr;
  const uint64_t *ids = nullptr;

  // Copies `count` bytes from byte `from` on (both multiples of 8 for ids).
  void CopyTo(uint8_t *out, uint64_t from, uint32_t count) const {
    if (data) {
      std::memcpy(out, data + from, count);
      return;
    }
    for (uint32_t i = 0; i < count / 8; ++i) StoreLE64(out + 8 * size_t(i), ids[from / 8 + i]);
  }
};

// Allocates the blocks of `length` bytes by the cutting rule, appending each
// id to *ids, and copies the bytes in. False with an error; the ids listed
// so far are the caller's to free.
bool WriteBlocks(LDBArray *array, const Source &source, uint64_t length, uint64_t **ids) {
  const Cut cut(length);
  uint64_t dataLength = length;
  for (uint32_t k = 0; k < cut.Blocks(); ++k) {
    const uint32_t bytes = cut.BytesOf(k);
    uint32_t actualSize = 0;
    const uint64_t id = VMArenaBlockNew(array->arena, int(array->locked[NEWGEN]), bytes, &actualSize, 0);
    if (id == INVALID_VMARENA_BLOCK_ID)
      return QWErrorRethrow("cannot allocate a block of %u bytes for a large element", bytes);
    if (!ArrayAppend(*ids, id)) {
      VMArenaBlockFree(array->arena, id, 0);
      return false;
    }
    if (k < cut.full) qwassert_(actualSize == LDBARRAY_BLOCK_SIZE);
    else if (k == cut.full && cut.half) qwassert_(actualSize == LDBARRAY_HALF_BLOCK_SIZE);
    uint32_t size = 0;
    auto *out = static_cast<uint8_t *>(VMArenaDataAcquire(array->arena, id, 0, NEWGEN, 0, &size, nullptr));
    if (!out) return QWErrorRethrow("cannot write a block of a large element");
    source.CopyTo(out, cut.StartOf(k), bytes);
    VMArenaDataRelease(array->arena, id, 0, out, 0, 0);
    dataLength -= bytes;
  }
  qwassert_(dataLength == 0);
  return true;
}

// The list plus trailer as the element's bytes.
uint32_t EncodeDescriptor(const uint64_t *ids, uint32_t total, uint32_t level, uint8_t *descriptor) {
  const uint32_t n = uint32_t(ArrayLength(ids));
  for (uint32_t i = 0; i < n; ++i) StoreLE64(descriptor + 8 * size_t(i), ids[i]);
  const uint64_t totalDataLength = uint64_t(total) * 2 + level;
  qwassert_(sizeof(totalDataLength) == sizeof(VMABlockID));
  StoreLE64(descriptor + 8 * size_t(n), totalDataLength);
  return 8 * n + kTrailerSize;
}

}  // namespace

bool StoreExternal(LDBArray *array, LDBArrayThreadData *threadData, const uint8_t *data, uint32_t length,
                   uint8_t *descriptor, uint32_t *descriptorLength) {
  if (!ResetScratch(&threadData->ids) || !ResetScratch(&threadData->list)) return false;
  uint32_t level = 0;
  bool ok = WriteBlocks(array, Source{data, nullptr}, length, &threadData->ids);
  const uint64_t *listed = threadData->ids;
  if (ok && 8 * ArrayLength(listed) + kTrailerSize >= kListLimit) {
    // The list is too long for the element: store it as data (level 1).
    qwassert_(level == 0);
    ok = WriteBlocks(array, Source{nullptr, threadData->ids}, 8 * ArrayLength(threadData->ids),
                     &threadData->list);
    listed = threadData->list;
    level = 1;
    if (ok && 8 * ArrayLength(listed) + kTrailerSize >= kListLimit) qwassert_(level == 0);
  }
  if (!ok) {
    DropStored(array, threadData);
    return false;
  }
  *descriptorLength = EncodeDescriptor(listed, length, level, descriptor);
  return true;
}

void DropStored(LDBArray *array, LDBArrayThreadData *threadData) {
  QWErrorSave();
  FreeBlocks(array, threadData->ids);
  FreeBlocks(array, threadData->list);
  (void)ArrayLengthSet(threadData->ids, 0);
  (void)ArrayLengthSet(threadData->list, 0);
  QWErrorRestore();
}

void FreeBlocks(LDBArray *array, const uint64_t *ids) {
  for (size_t i = 0; i < ArrayLength(ids); ++i) VMArenaBlockFree(array->arena, ids[i], 0);
}

bool ParseExternal(const LDBArray *array, uint32_t bucket, uint32_t handle, const uint8_t *bytes, uint32_t length,
                   External *external) {
  const uint32_t descriptorLength = length;
  LDBA_REQUIRE(array, bucket, handle, descriptorLength >= kTrailerSize && descriptorLength % 8 == 0);
  const uint64_t trailer = LoadLE64(bytes + descriptorLength - kTrailerSize);
  LDBA_REQUIRE(array, bucket, handle, (trailer >> 32) == 0);
  const uint32_t total = uint32_t(trailer >> 1), level = uint32_t(trailer & 1);
  LDBA_REQUIRE(array, bucket, handle, total > LDBARRAY_MAX_DIRECT_SIZE);
  const uint32_t idCount = (descriptorLength - kTrailerSize) / 8;
  const uint32_t dataBlocks = Cut(total).Blocks();
  const uint64_t levelZeroLength = 8 * uint64_t(dataBlocks) + kTrailerSize;
  if (level == 0) {
    LDBA_REQUIRE(array, bucket, handle, idCount == dataBlocks);
  } else {
    LDBA_REQUIRE(array, bucket, handle, levelZeroLength >= kListLimit);
    const uint32_t listBlocks = Cut(8 * uint64_t(dataBlocks)).Blocks();
    LDBA_REQUIRE(array, bucket, handle, idCount == listBlocks);
  }
  external->total = total;
  external->level = level;
  external->idCount = idCount;
  return true;
}

bool CollectBlocks(LDBArray *array, uint32_t bucket, uint32_t handle, const uint8_t *bytes,
                   const External &external, uint32_t genID, uint64_t **ids) {
  DataBlockWalk walk(array, bucket, handle, genID);
  uint64_t *lists = nullptr;  // list blocks go after the data blocks
  if ((!*ids && !ArrayInit(*ids, sizeof(uint64_t), 16)) || !ArrayInit(lists, sizeof(uint64_t), 4)) return false;
  bool listsOk = true;
  bool ok = walk.Run(
      bytes, external, [&](uint32_t, uint64_t id) { return ArrayAppend(*ids, id) != 0; },
      [&](uint64_t id) { listsOk = listsOk && ArrayAppend(lists, id) != 0; });
  ok = ok && listsOk;
  for (size_t i = 0; ok && i < ArrayLength(lists); ++i) ok = ArrayAppend(*ids, lists[i]) != 0;
  ArrayFree(lists);
  return ok;
}

bool DataBlockId(LDBArray *array, uint32_t bucket, uint32_t handle, const uint8_t *bytes, const External &external,
                 uint32_t k, uint32_t genID, uint64_t *id) {
  const Cut cut(external.total);
  if (external.level == 0) {
    *id = LoadLE64(bytes + 8 * size_t(k));
  } else {
    const Cut listCut(8 * uint64_t(cut.Blocks()));
    const uint64_t at = 8 * uint64_t(k);
    const uint32_t j = listCut.BlockOf(at);
    DataBlockWalk walk(array, bucket, handle, genID);
    if (!walk.ReadListEntry(bytes, listCut, j, uint32_t(at - listCut.StartOf(j)), id)) return false;
  }
  if (!ValidBlockId(array, *id, PlaceSize(array, cut.BytesOf(k))))
    return Corrupted(array, bucket, handle, "data block id of the size its place requires");
  return true;
}

}  // namespace qw::ldba
