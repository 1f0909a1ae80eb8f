// Byte-level helpers shared by the platform's file formats (file arrays,
// status files, the replication log): little-endian codecs, a CRC-32C, and a
// channel read that tells a clean end of file from an I/O error.
#pragma once

#include <cstddef>
#include <cstdint>
#include <cstring>

#include "qwvm/qwfile.h"

namespace qw {

// Error code of malformed stored data (class QW_ERROR_CLASS_DATA).
inline constexpr int kMalformedCode = 74;  // EBADMSG

// Stores the low `width` bytes of `value` little-endian at `out`.
inline void StoreLE(unsigned char *out, uint64_t value, unsigned width) {
  for (unsigned i = 0; i < width; ++i) out[i] = static_cast<unsigned char>(value >> (8 * i));
}

// Loads a `width`-byte little-endian unsigned integer.
inline uint64_t LoadLE(const unsigned char *in, unsigned width) {
  uint64_t value = 0;
  for (unsigned i = 0; i < width; ++i) value |= static_cast<uint64_t>(in[i]) << (8 * i);
  return value;
}

inline void StoreLE32(unsigned char *out, uint32_t value) { StoreLE(out, value, 4); }
inline void StoreLE64(unsigned char *out, uint64_t value) { StoreLE(out, value, 8); }
inline uint32_t LoadLE32(const unsigned char *in) { return static_cast<uint32_t>(LoadLE(in, 4)); }
inline uint64_t LoadLE64(const unsigned char *in) { return LoadLE(in, 8); }

// Native unsigned integer of `size` bytes (1, 2, 4 or 8) at `p`.
inline uint64_t LoadNative(const void *p, unsigned size) {
  switch (size) {
    case 1: return *static_cast<const uint8_t *>(p);
    case 2: { uint16_t v; std::memcpy(&v, p, 2); return v; }
    case 4: { uint32_t v; std::memcpy(&v, p, 4); return v; }
    default: { uint64_t v; std::memcpy(&v, p, 8); return v; }
  }
}

inline void StoreNative(void *p, unsigned size, uint64_t value) {
  switch (size) {
    case 1: *static_cast<uint8_t *>(p) = static_cast<uint8_t>(value); break;
    case 2: { auto v = static_cast<uint16_t>(value); std::memcpy(p, &v, 2); break; }
    case 4: { auto v = static_cast<uint32_t>(value); std::memcpy(p, &v, 4); break; }
    default: std::memcpy(p, &value, 8); break;
  }
}

inline constexpr bool kHostLittleEndian = __BYTE_ORDER__ == __ORDER_LITTLE_ENDIAN__;

// CRC-32C (Castagnoli) of `size` bytes, continuing from `crc` (0 to start).
[[nodiscard]] uint32_t Crc32c(uint32_t crc, const void *data, size_t size);

// Reads up to `size` bytes, looping over short reads; *got receives the count
// (less than `size` only at the end of the file). Returns 1, or 0 with the
// channel's error.
[[nodiscard]] int ChannelReadUpTo(QWChannel *channel, void *buffer, size_t size, size_t *got);

}  // namespace qw
