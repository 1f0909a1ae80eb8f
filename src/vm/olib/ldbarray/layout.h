// The external form of a large element: how its data is cut into blocks,
// where a byte lies, and the descriptor (block list + trailer).
//
// Cutting rule for n data bytes: full = n / 8192 blocks of 8192 bytes, then
// one 4096-byte block when n % 8192 >= 4096, then one block for the rest
// (rest = n % 4096 bytes, of the arena's smallest class holding it) when
// rest > 0. Block k of the cut starts at byte 8192 * k for k < full; the half
// block at 8192 * full; the rest block after those.
//
// Descriptor: ids (8 bytes each, little-endian) then the trailer, total * 2 +
// level (8 bytes, little-endian, upper 32 bits 0). Level 0 lists the data
// blocks; level 1 lists the blocks of the data-block list, itself stored as
// 8 * dataBlocks bytes by the same cutting rule. A descriptor is always
// shorter than kListLimit (4091) bytes, so it fits a block-directory element.
//
// Freeing an element frees every block its cut names, at level 1 the last
// (remainder) data block included: counting only the full and half blocks,
// as a count by total / 8192 and total / 4096 would, leaks that block.
#pragma once

#include <cstdint>

#include "util/endian.h"
#include "vm/olib/ldbarray/ldbarray_internal.h"

namespace qw::ldba {

struct Cut {
  uint32_t full = 0;  // blocks of LDBARRAY_BLOCK_SIZE
  uint32_t half = 0;  // 0 or 1 block of LDBARRAY_HALF_BLOCK_SIZE
  uint32_t rest = 0;  // bytes of the last block (0: none)

  explicit Cut(uint64_t length)
      : full(uint32_t(length / LDBARRAY_BLOCK_SIZE)),
        half(length % LDBARRAY_BLOCK_SIZE >= LDBARRAY_HALF_BLOCK_SIZE ? 1u : 0u),
        rest(uint32_t(length % LDBARRAY_HALF_BLOCK_SIZE)) {}

  uint32_t Blocks() const { return full + half + (rest > 0 ? 1u : 0u); }
  // Data bytes held by block k (< Blocks()).
  uint32_t BytesOf(uint32_t k) const {
    if (k < full) return LDBARRAY_BLOCK_SIZE;
    if (k == full && half) return LDBARRAY_HALF_BLOCK_SIZE;
    return rest;
  }
  // First data byte of block k.
  uint64_t StartOf(uint32_t k) const {
    uint64_t start = uint64_t(k < full ? k : full) * LDBARRAY_BLOCK_SIZE;
    if (k > full && half) start += LDBARRAY_HALF_BLOCK_SIZE;
    return start;
  }
  // The block holding data byte `offset` (< the length).
  uint32_t BlockOf(uint64_t offset) const {
    const uint64_t fullBytes = uint64_t(full) * LDBARRAY_BLOCK_SIZE;
    if (offset < fullBytes) return uint32_t(offset / LDBARRAY_BLOCK_SIZE);
    if (half && offset < fullBytes + LDBARRAY_HALF_BLOCK_SIZE) return full;
    return full + half;
  }
};

// The size class a block must have to hold `bytes` bytes of one cut place:
// exactly 8192 and 4096 for the full and half blocks.
uint32_t PlaceSize(const LDBArray *array, uint32_t bytes);

// True when `id` is a block of `classSize` bytes that this arena can hold:
// its bucket exists, its class is that size and its slot lies inside its
// server block. Stored ids are checked before anything reads or frees them.
bool ValidBlockId(const LDBArray *array, uint64_t id, uint32_t classSize);

// Visits the data block ids of an external element in data order, each
// checked for the class its place requires; reads the list blocks at level
// 1. `visit(k, id)` returns false to stop with its error. `listVisit(id)`,
// when given, sees each list block id after its entries.
class DataBlockWalk {
 public:
  DataBlockWalk(LDBArray *array, uint32_t bucket, uint32_t handle, uint32_t genID)
      : array_(array), bucket_(bucket), handle_(handle), genID_(genID) {}

  template <typename Visit, typename ListVisit>
  [[nodiscard]] bool Run(const uint8_t *descriptor, const External &external, Visit &&visit,
                         ListVisit &&listVisit);
  // The entry at byte `at` of list block j (level 1).
  [[nodiscard]] bool ReadListEntry(const uint8_t *descriptor, const Cut &listCut, uint32_t j, uint32_t at,
                                   uint64_t *id);

 private:
  // Acquires list block j (checked) and gives its entries; false with an error.
  [[nodiscard]] bool ListBlock(const uint8_t *descriptor, const Cut &listCut, uint32_t j, uint64_t *id,
                               const uint8_t **bytes);
  void ReleaseList(uint64_t id, const uint8_t *bytes);
  [[nodiscard]] bool Corrupt(const char *invariant) const {
    return Corrupted(array_, bucket_, handle_, invariant);
  }

  LDBArray *array_;
  uint32_t bucket_, handle_, genID_;
};

template <typename Visit, typename ListVisit>
bool DataBlockWalk::Run(const uint8_t *descriptor, const External &external, Visit &&visit,
                        ListVisit &&listVisit) {
  const Cut cut(external.total);
  const uint32_t count = cut.Blocks();
  auto checked = [&](uint32_t k, uint64_t id) {
    if (!ValidBlockId(array_, id, PlaceSize(array_, cut.BytesOf(k))))
      return Corrupt("data block id of the size its place requires");
    return bool(visit(k, id));
  };
  if (external.level == 0) {
    for (uint32_t k = 0; k < count; ++k)
      if (!checked(k, LoadLE64(descriptor + 8 * size_t(k)))) return false;
    return true;
  }
  const Cut listCut(uint64_t(count) * 8);
  uint32_t k = 0;
  for (uint32_t j = 0; j < listCut.Blocks(); ++j) {
    uint64_t listId = 0;
    const uint8_t *entries = nullptr;
    if (!ListBlock(descriptor, listCut, j, &listId, &entries)) return false;
    const uint32_t n = listCut.BytesOf(j) / 8;
    bool ok = true;
    for (uint32_t e = 0; ok && e < n; ++e, ++k) ok = checked(k, LoadLE64(entries + 8 * size_t(e)));
    ReleaseList(listId, entries);
    if (!ok) return false;
    listVisit(listId);
  }
  return true;
}

}  // namespace qw::ldba
