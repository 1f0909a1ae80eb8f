// Walks over the elements of one data block: locating an element by its
// position and counting the elements. Every offset is checked against
// dataSize, and dataSize against the block size, before it is used.
#include "vm/olib/dbarray/block_format.h"

namespace qw::dba {

bool HeaderValid(const Where &where, const BlockView &block) {
  const uint32_t indexSize = block.indexSize(), dataSize = block.dataSize(), blockSize = block.size();
  DBA_REQUIRE(where, blockSize <= DBARRAY_MAX_BLOCK_SIZE);
  DBA_REQUIRE(where, (indexSize * sizeof(UShort) + dataSize + HEADER_SIZE) <= blockSize);
  return true;
}

bool LocateElement(const Where &where, const BlockView &block, uint32_t position, bool lastBlock, Located *out) {
  *out = Located{};
  if (!HeaderValid(where, block)) return false;
  const uint32_t indexSize = block.indexSize(), dataSize = block.dataSize();
  const uint32_t subIndex = position / kIndexStride;
  if (lastBlock && subIndex > indexSize) return true;  // past the bucket's end
  DBA_REQUIRE(where, subIndex <= indexSize);
  uint32_t lastOffset = subIndex == 0 ? 0 : block.Entry(subIndex);
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
