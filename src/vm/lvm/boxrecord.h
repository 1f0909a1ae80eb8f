// Log records of a box bucket and the sizing of an entry's blocks.
//
// BOX_UPDATE (type 16): u32 id (little-endian); varint (oldCount * 2 +
// remove); oldCount bytes, the size classes of the entry's previous blocks in
// order; varint sizeNew (the new value's length, 0 for a removal). The
// varints are the program's own (util/varint.h).
// BoxDataExtend (type 17): u32, the data file's new total units (its page
// count times 256).
//
// The decoder is strict: a record must be exactly as long as its fields say,
// a removal carries no new size, and sizeNew fits 32 bits; anything else is
// malformed (code 4, class 3).
#pragma once

#include <cstddef>
#include <cstdint>
#include <string>
#include <vector>

#include "qwvm/box.h"

namespace qw::box {

inline constexpr uint32_t kBoxUpdateRecord = 16;
inline constexpr uint32_t kBoxDataExtendRecord = 17;

struct BoxUpdate {
  uint32_t id = 0;
  bool remove = false;
  std::vector<uint8_t> oldClasses;  // size classes of the previous blocks
  uint32_t sizeNew = 0;
};

// Replaces `out` with the payload of a BOX_UPDATE record.
void EncodeBoxUpdate(const BoxUpdate &update, std::vector<uint8_t> *out);
// Reads a BOX_UPDATE payload; false with an error when it is malformed.
[[nodiscard]] bool DecodeBoxUpdate(const uint8_t *payload, size_t size, BoxUpdate *update);

void EncodeBoxDataExtend(uint32_t totalUnits, std::vector<uint8_t> *out);
[[nodiscard]] bool DecodeBoxDataExtend(const uint8_t *payload, size_t size, uint32_t *totalUnits);

// The debug text of a box record: BOX_UPDATE as "BoxUpdate id %u, sizeNew =
// %u, gSizeOldLength = %u", then, with old blocks, ", gSizeOld = [ " with
// each class followed by a space and "]", then a newline; BoxDataExtend as
// "BoxDataExtend %d\n". Returns 1; 0 with an error when the payload is
// malformed; -1 for other types (the caller hands them on).
[[nodiscard]] int FormatBoxRecord(uint32_t type, const uint8_t *payload, size_t size, std::string *text);

// The class of a block for `bytes` bytes (1 .. BOXLVM_MAX_BLOCK_SIZE):
// classes 0 .. 255 hold 32 .. 8192 bytes.
inline uint32_t SizeClassFor(uint32_t bytes) { return (bytes + BOXLVM_UNIT_SIZE - 1) / BOXLVM_UNIT_SIZE - 1; }

// A value is cut into parts of BOXLVM_MAX_BLOCK_DATA bytes, the last one
// shorter; each part takes one block. An empty value has no parts.
inline uint32_t PartCount(uint64_t size) {
  return uint32_t((size + BOXLVM_MAX_BLOCK_DATA - 1) / BOXLVM_MAX_BLOCK_DATA);
}
inline uint32_t PartLength(uint64_t size, uint32_t part) {
  const uint64_t start = uint64_t(part) * BOXLVM_MAX_BLOCK_DATA;
  return uint32_t(size - start < BOXLVM_MAX_BLOCK_DATA ? size - start : BOXLVM_MAX_BLOCK_DATA);
}
// The class of part `part` of a value of `size` bytes (header included).
inline uint32_t PartClass(uint64_t size, uint32_t part) {
  return SizeClassFor(PartLength(size, part) + BOXLVM_BLOCK_HEADER_SIZE);
}

}  // namespace qw::box
