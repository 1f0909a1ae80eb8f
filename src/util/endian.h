// Little-endian codecs: the one place that knows the byte order of stored
// integers.
#pragma once

#include <bit>
#include <cstdint>
#include <cstring>

namespace qw {

// Stores the low `bytes` bytes of `value`, least significant first.
inline void StoreLE(uint8_t *out, uint64_t value, unsigned bytes) {
  for (unsigned i = 0; i < bytes; ++i) out[i] = uint8_t(value >> (8 * i));
}

// Loads `bytes` bytes, least significant first.
inline uint64_t LoadLE(const uint8_t *in, unsigned bytes) {
  uint64_t value = 0;
  for (unsigned i = 0; i < bytes; ++i) value |= uint64_t(in[i]) << (8 * i);
  return value;
}

inline void StoreLE32(uint8_t *out, uint32_t value) { StoreLE(out, value, 4); }
inline void StoreLE64(uint8_t *out, uint64_t value) { StoreLE(out, value, 8); }
inline uint32_t LoadLE32(const uint8_t *in) { return uint32_t(LoadLE(in, 4)); }
inline uint64_t LoadLE64(const uint8_t *in) { return LoadLE(in, 8); }

// Big-endian, for the few stored values that are kept most significant first.
inline void StoreBE(uint8_t *out, uint64_t value, unsigned bytes) {
  for (unsigned i = 0; i < bytes; ++i) out[bytes - 1 - i] = uint8_t(value >> (8 * i));
}

inline uint64_t LoadBE(const uint8_t *in, unsigned bytes) {
  // The common widths in one load and a byte swap (B-tree values are read
  // once per entry of a scan).
  if constexpr (std::endian::native == std::endian::little) {
    if (bytes == 4) {
      uint32_t v;
      std::memcpy(&v, in, 4);
      return __builtin_bswap32(v);
    }
    if (bytes == 8) {
      uint64_t v;
      std::memcpy(&v, in, 8);
      return __builtin_bswap64(v);
    }
  }
  uint64_t value = 0;
  for (unsigned i = 0; i < bytes; ++i) value = (value << 8) | in[i];
  return value;
}

}  // namespace qw
