// The program's own varint: 7-bit groups, lowest first; each byte holds
// (group << 1), with bit 0 set when more bytes follow. A 64-bit value takes at
// most 10 bytes.
#pragma once

#include <cstddef>
#include <cstdint>

namespace qw {

inline constexpr size_t kVarintMaxBytes = 10;

// Writes `value` at `out` (room for kVarintMaxBytes); returns the byte count.
inline size_t VarintEncode(uint8_t *out, uint64_t value) {
  size_t n = 0;
  while (value >= 0x80) {
    out[n++] = uint8_t(((value & 0x7F) << 1) | 1);
    value >>= 7;
  }
  out[n++] = uint8_t(value << 1);
  return n;
}

// Bytes VarintEncode would write.
inline size_t VarintSize(uint64_t value) {
  size_t n = 1;
  while (value >= 0x80) {
    value >>= 7;
    ++n;
  }
  return n;
}

// Reads one varint from [in, end). Returns the bytes consumed, or 0 when the
// input ends inside the varint or it does not fit in 64 bits.
inline size_t VarintDecode(const uint8_t *in, const uint8_t *end, uint64_t *value) {
  uint64_t result = 0;
  for (size_t n = 0; n < kVarintMaxBytes && in + n < end; ++n) {
    uint64_t group = in[n] >> 1;
    unsigned shift = unsigned(7 * n);
    if (shift == 63 && group > 1) return 0;  // bits beyond 64
    result |= group << shift;
    if ((in[n] & 1) == 0) {
      *value = result;
      return n + 1;
    }
  }
  return 0;
}

}  // namespace qw
