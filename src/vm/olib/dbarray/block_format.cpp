// Walks over the elements of one data block: locating an element by its
// position and counting the elements. Every offset is checked against
// dataSize, and dataSize against the block size, before it is used.
#include "vm/olib/dbarray/block_format.h"

#include <cstdint>

namespace qw::dba {

bool HeaderValid(const Where &where, const BlockView &block) {
  const uint32_t indexSize = block.indexSize(), dataSize = block.dataSize(), blockSize = block.size();
  DBA_REQUIRE(where, blockSize <= DBARRAY_MAX_BLOCK_SIZE);
  DBA_REQUIRE(where, (indexSize * sizeof(UShort) + dataSize + HEADER_SIZE) <= blockSize);
  return true;
}

namespace {

constexpr uint32_t kCacheLine = 64;

// Asks the processor for the cache lines of bytes [from, to) of a block, all
// at once, so that a walk over them waits for memory once rather than once
// per element.
inline void PrefetchSpan(const uint8_t *from, const uint8_t *to) {
  const uintptr_t end = reinterpret_cast<uintptr_t>(to);
  for (uintptr_t at = reinterpret_cast<uintptr_t>(from) & ~uintptr_t(kCacheLine - 1); at < end; at += kCacheLine)
    __builtin_prefetch(reinterpret_cast<const void *>(at));
}

// Where element `position` of a block of `count` elements probably lies:
// requests the lines from a little before the estimated start of its run of
// 8 to a little past its estimated end, taking the elements as equally long
// and the block as full. Wrong guesses cost memory bandwidth, never a
// result.
inline void PrefetchGuess(const BlockView &block, uint32_t position, uint32_t count) {
  constexpr uint32_t kMargin = 1 * kCacheLine;
  const uint32_t indexBytes = 2 * ((count - 1) / kIndexStride);
  if (block.size() < HEADER_SIZE + indexBytes) return;
  const uint64_t area = block.size() - HEADER_SIZE - indexBytes;
  const uint64_t runStart = area * (position - position % kIndexStride) / count;
  const uint64_t end = area * (position + 1) / count + kMargin;
  PrefetchSpan(block.data() + (runStart > kMargin ? runStart - kMargin : 0), block.data() + (end < area ? end : area));
}

}  // namespace

// A random lookup is bound by memory latency, not by instructions: the
// header, the index entry and the elements walked from it are usually all
// cache misses, each load depending on the one before. So the header, the
// entry and the lines where the element probably lies are requested
// together; once the entry is known, every line of the run of up to 8
// elements that starts at it (it ends at the next entry, or at dataSize) is
// requested before the walk reads any of them.
bool LocateElement(const Where &where, const BlockView &block, uint32_t position, bool lastBlock, Located *out,
                   uint32_t countHint) {
  *out = Located{};
  const uint32_t subIndex = position / kIndexStride;
  __builtin_prefetch(block.bytes());
  if (subIndex > 0 && 2 * uint64_t(subIndex) <= block.size())
    __builtin_prefetch(block.bytes() + block.size() - 2 * subIndex);
  if (countHint > position) PrefetchGuess(block, position, countHint);
  if (!HeaderValid(where, block)) return false;
  const uint32_t indexSize = block.indexSize(), dataSize = block.dataSize();
  if (lastBlock && subIndex > indexSize) return true;  // past the bucket's end
  DBA_REQUIRE(where, subIndex <= indexSize);
  uint32_t lastOffset = subIndex == 0 ? 0 : block.Entry(subIndex);
  if (lastOffset < dataSize) {
    const uint32_t runEnd = subIndex < indexSize ? block.Entry(subIndex + 1) : dataSize;
    PrefetchSpan(block.data() + lastOffset,
                 block.data() + (runEnd > lastOffset && runEnd <= dataSize ? runEnd : dataSize));
  }
  Element element;
  for (uint32_t skip = position % kIndexStride;; --skip) {
    if (lastBlock && lastOffset == dataSize) return true;  // past the bucket's end
    DBA_REQUIRE(where, lastOffset < dataSize);
    const bool elementFits = ReadElement(block.data(), dataSize, lastOffset, &element);
    DBA_REQUIRE(where, elementFits);
    if (skip == 0) break;
    lastOffset = element.End(lastOffset);
  }
  out->found = true;
  out->offset = lastOffset;
  out->element = element;
  return true;
}

bool CountElements(const Where &where, const BlockView &block, uint32_t *count) {
  if (!HeaderValid(where, block)) return false;
  const uint32_t indexSize = block.indexSize(), dataSize = block.dataSize();
  uint32_t lastOffset = 0, position = 0;
  if (indexSize > 0) {
    lastOffset = block.Entry(indexSize);
    position = indexSize * kIndexStride;
    DBA_REQUIRE(where, lastOffset < dataSize);
  }
  Element element;
  while (lastOffset < dataSize) {
    const bool elementFits = ReadElement(block.data(), dataSize, lastOffset, &element);
    DBA_REQUIRE(where, elementFits);
    lastOffset = element.End(lastOffset);
    ++position;
  }
  DBA_REQUIRE(where, lastOffset == dataSize);
  DBA_REQUIRE(where, position <= (indexSize + 1) * kIndexStride);  // one entry per 8 elements
  *count = position;
  return true;
}

bool VerifyBlock(const Where &where, const BlockView &block, uint32_t *count) {
  if (!HeaderValid(where, block)) return false;
  const uint32_t indexSize = block.indexSize(), dataSize = block.dataSize();
  uint32_t lastOffset = 0, position = 0;
  Element element;
  while (lastOffset < dataSize) {
    if (position > 0 && position % kIndexStride == 0) {
      const uint32_t subIndex = position / kIndexStride;
      DBA_REQUIRE(where, subIndex <= indexSize);
      DBA_REQUIRE(where, block.Entry(subIndex) == lastOffset);
    }
    const bool elementFits = ReadElement(block.data(), dataSize, lastOffset, &element);
    DBA_REQUIRE(where, elementFits);
    lastOffset = element.End(lastOffset);
    ++position;
  }
  DBA_REQUIRE(where, lastOffset == dataSize);
  DBA_REQUIRE(where, indexSize == (position == 0 ? 0 : (position - 1) / kIndexStride));
  *count = position;
  return true;
}

}  // namespace qw::dba
