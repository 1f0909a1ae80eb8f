// CRC-32C and the looping channel read of bytes.h.
#include "platform/qwutil/bytes.h"

#include <array>

namespace qw {
namespace {

// Slicing-by-8 tables: eight bytes per step keep an 8 KiB replication record
// cheap to checksum without depending on SSE 4.2.
using CrcTables = std::array<std::array<uint32_t, 256>, 8>;

constexpr CrcTables MakeCrcTables() {
  CrcTables t{};
  for (uint32_t i = 0; i < 256; ++i) {
    uint32_t c = i;
    for (int k = 0; k < 8; ++k) c = (c & 1) ? (c >> 1) ^ 0x82F63B78u : c >> 1;
    t[0][i] = c;
  }
  for (uint32_t i = 0; i < 256; ++i)
    for (int s = 1; s < 8; ++s) t[s][i] = (t[s - 1][i] >> 8) ^ t[0][t[s - 1][i] & 0xFF];
  return t;
}

constexpr CrcTables kCrc = MakeCrcTables();

}  // namespace

uint32_t Crc32c(uint32_t crc, const void *data, size_t size) {
  const auto *p = static_cast<const unsigned char *>(data);
  crc = ~crc;
  while (size >= 8) {
    uint32_t lo = crc ^ LoadLE32(p);
    uint32_t hi = LoadLE32(p + 4);
    crc = kCrc[7][lo & 0xFF] ^ kCrc[6][(lo >> 8) & 0xFF] ^ kCrc[5][(lo >> 16) & 0xFF] ^ kCrc[4][lo >> 24] ^
          kCrc[3][hi & 0xFF] ^ kCrc[2][(hi >> 8) & 0xFF] ^ kCrc[1][(hi >> 16) & 0xFF] ^ kCrc[0][hi >> 24];
    p += 8;
    size -= 8;
  }
  while (size-- > 0) crc = (crc >> 8) ^ kCrc[0][(crc ^ *p++) & 0xFF];
  return ~crc;
}

int ChannelReadUpTo(QWChannel *channel, void *buffer, size_t size, size_t *got) {
  auto *out = static_cast<unsigned char *>(buffer);
  size_t total = 0;
  while (total < size) {
    size_t n = 0;
    if (!ChannelReadSome(channel, out + total, size - total, &n)) {
      *got = total;
      return 0;
    }
    if (n == 0) break;
    total += n;
  }
  *got = total;
  return 1;
}

}  // namespace qw
