// The data block format of block-directory arrays.
//
// A data block of `size` bytes (an arena size class, 64 to 4096):
//
//   offset 0   u16 indexSize   entries in the block index
//   offset 2   u16 dataSize    bytes used in the data area
//   offset 4   data area       the elements, one after another
//   ...        (free)
//   size - 2k  u16 entry k     data-area offset of element 8k (k = 1..indexSize):
//                              the index grows downward from the block's end
//
// Element 0 sits at offset 0 and has no entry. An element is its length in
// the program's varint (low-bit continuation, at most 2 bytes for lengths up
// to 4090) followed by the bytes.
//
// Invariant: HEADER_SIZE + 2 * indexSize + dataSize <= size, and indexSize
// == (elements - 1) / 8. Everything read from a block is checked against its
// size and dataSize before use, so a malformed block is never read past.
#pragma once

#include <cstdint>
#include <cstring>

#include "util/endian.h"
#include "util/varint.h"
#include "vm/olib/dbarray/dbarray_internal.h"

namespace qw::dba {

// Bytes of the length prefix of an element of `length` bytes.
inline uint32_t PrefixSize(uint32_t length) { return uint32_t(VarintSize(length)); }

// Writes the prefix; returns its byte count.
inline uint32_t WritePrefix(uint8_t *out, uint32_t length) { return uint32_t(VarintEncode(out, length)); }

// One element as found in a data area.
struct Element {
  uint32_t length = 0;       // bytes of the element
  uint32_t prefixBytes = 0;  // bytes of its length prefix
  uint32_t End(uint32_t offset) const { return offset + prefixBytes + length; }
};

// Decodes the element at `offset` (< dataSize) of a data area. False when
// the prefix is malformed (longer than 2 bytes, a length above
// DBARRAY_MAX_ELEMENT_SIZE) or the element runs past dataSize.
inline bool ReadElement(const uint8_t *data, uint32_t dataSize, uint32_t offset, Element *element) {
  if (offset >= dataSize) return false;
  const uint8_t *in = data + offset;
  const uint32_t room = dataSize - offset;
  uint64_t length = 0;
  size_t bytes = VarintDecode(in, in + (room < 2 ? room : 2), &length);
  if (bytes == 0 || length > DBARRAY_MAX_ELEMENT_SIZE || bytes + length > room) return false;
  element->length = uint32_t(length);
  element->prefixBytes = uint32_t(bytes);
  return true;
}

// A view of the bytes of one data block; does not own them.
class BlockView {
 public:
  BlockView(uint8_t *bytes, uint32_t size) : bytes_(bytes), size_(size) {}

  uint32_t size() const { return size_; }
  uint8_t *bytes() const { return bytes_; }
  uint32_t indexSize() const { return uint32_t(LoadLE(bytes_, 2)); }
  uint32_t dataSize() const { return uint32_t(LoadLE(bytes_ + 2, 2)); }
  uint8_t *data() const { return bytes_ + HEADER_SIZE; }
  // Bytes the header, the data and the index take.
  uint32_t Used() const { return HEADER_SIZE + 2 * indexSize() + dataSize(); }
  // The header describes data and an index that fit in the block.
  bool HeaderFits() const { return size_ >= HEADER_SIZE && Used() <= size_; }

  void SetHeader(uint32_t indexSize, uint32_t dataSize) const {
    StoreLE(bytes_, indexSize, 2);
    StoreLE(bytes_ + 2, dataSize, 2);
  }
  // Index entry k (1 .. indexSize): at 16-bit slot size / 2 - k.
  uint32_t Entry(uint32_t k) const { return uint32_t(LoadLE(bytes_ + size_ - 2 * k, 2)); }
  void SetEntry(uint32_t k, uint32_t offset) const { StoreLE(bytes_ + size_ - 2 * k, offset, 2); }
  // The index as one byte run: entries indexSize .. 1, lowest address first.
  uint8_t *IndexBytes(uint32_t indexSize) const { return bytes_ + size_ - 2 * indexSize; }

 private:
  uint8_t *bytes_;
  uint32_t size_;
};

// Rebuilds the index of a data area that holds whole elements: an entry for
// every element whose position is a non-zero multiple of 8. `lastOffset`
// receives where the walk stopped (dataSize for a well-formed area) and
// `count` the elements walked. False when the index would run into the data
// (more elements than the caller sized the block for); entries are written
// only where they cannot overlap the data.
inline bool RebuildIndex(const BlockView &block, uint32_t dataSize, uint32_t *indexSize, uint32_t *lastOffset,
                         uint32_t *count) {
  uint32_t offset = 0, position = 0, entries = 0;
  Element element;
  while (offset < dataSize && ReadElement(block.data(), dataSize, offset, &element)) {
    if (position > 0 && position % kIndexStride == 0) {
      if (HEADER_SIZE + dataSize + 2 * (entries + 1) > block.size()) return false;
      block.SetEntry(++entries, offset);
    }
    offset = element.End(offset);
    ++position;
  }
  *indexSize = entries;
  *lastOffset = offset;
  *count = position;
  return true;
}

// The header fits the block and the block is at most
// DBARRAY_MAX_BLOCK_SIZE; otherwise reports corruption.
[[nodiscard]] bool HeaderValid(const Where &where, const BlockView &block);

// Where an element lies in its block.
struct Located {
  bool found = false;
  uint32_t offset = 0;  // data-area offset of its prefix
  Element element;
};

// Finds the element at `position` (handle - handle0) of the block. In the
// bucket's last block a position past its elements is not found (no error);
// in any other block that is corruption. `countHint`, the block's element
// count as the directory gives it (0 when unknown), only steers prefetching.
[[nodiscard]] bool LocateElement(const Where &where, const BlockView &block, uint32_t position, bool lastBlock,
                                 Located *out, uint32_t countHint = 0);

// Counts the elements of a block, walking from its last index entry to
// dataSize ("lastOffset == dataSize").
[[nodiscard]] bool CountElements(const Where &where, const BlockView &block, uint32_t *count);

// Walks the whole block and checks every index entry against the walk:
// blocks are verified so before a split or merge rewrites them.
[[nodiscard]] bool VerifyBlock(const Where &where, const BlockView &block, uint32_t *count);

// An element found in a bucket (elements.cpp): its block, held in `held`
// with the given access, and where it lies.
struct FoundElement {
  uint32_t block = kNone;
  uint32_t handle0 = 0;
  Located at;
};

// Finds `handle` of the bucket and holds its block. found.at.found is false
// (nothing held) when the handle does not exist.
[[nodiscard]] bool FindElement(DBArray *array, uint32_t bucketIndex, const DBArrayBucket &bucket, uint32_t genID,
                               int read, uint32_t handle, HeldBlock *held, FoundElement *found);

}  // namespace qw::dba
