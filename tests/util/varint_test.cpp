// The program's varint and the little-endian codecs.
#include <cstdint>
#include <random>
#include <vector>

#include "support/test_support.h"
#include "util/endian.h"
#include "util/varint.h"

namespace {

TEST(Varint, ExactBytesOfKnownValues) {
  struct Case {
    uint64_t value;
    std::vector<uint8_t> bytes;
  };
  const Case cases[] = {
      {0, {0x00}},
      {1, {0x02}},
      {127, {0xFE}},
      {128, {0x01, 0x02}},        // group 0 with continuation, then group 1
      {300, {0x59, 0x04}},        // 300 = 0b10'0101100: (44<<1)|1, 2<<1
      {16383, {0xFF, 0xFE}},
      {16384, {0x01, 0x01, 0x02}},
  };
  for (const Case &c : cases) {
    uint8_t buffer[qw::kVarintMaxBytes];
    size_t n = qw::VarintEncode(buffer, c.value);
    EXPECT_EQ(std::vector<uint8_t>(buffer, buffer + n), c.bytes) << c.value;
    EXPECT_EQ(qw::VarintSize(c.value), n);
  }
}

TEST(Varint, RoundTripsEveryBitLengthAndRejectsTruncation) {
  std::mt19937_64 random(99);
  for (unsigned bits = 0; bits <= 64; ++bits) {
    for (int k = 0; k < 50; ++k) {
      uint64_t value = bits == 0 ? 0 : (random() | (uint64_t(1) << (bits - 1)));
      if (bits < 64) value &= (uint64_t(1) << bits) - 1;
      uint8_t buffer[qw::kVarintMaxBytes];
      size_t n = qw::VarintEncode(buffer, value);
      uint64_t decoded = 0;
      ASSERT_EQ(qw::VarintDecode(buffer, buffer + n, &decoded), n);
      ASSERT_EQ(decoded, value);
      // Any truncation is detected.
      for (size_t cut = 0; cut < n; ++cut) ASSERT_EQ(qw::VarintDecode(buffer, buffer + cut, &decoded), 0u);
    }
  }
}

TEST(Varint, RejectsOverlongAndOverflowingInput) {
  std::vector<uint8_t> eleven(11, 0x01);  // never terminates within 10 bytes
  uint64_t value;
  EXPECT_EQ(qw::VarintDecode(eleven.data(), eleven.data() + eleven.size(), &value), 0u);
  std::vector<uint8_t> overflow(9, 0xFF);
  overflow.push_back(0x04);  // tenth group = 2: bit 64
  EXPECT_EQ(qw::VarintDecode(overflow.data(), overflow.data() + overflow.size(), &value), 0u);
}

TEST(Endian, LittleAndBigEndianLayouts) {
  uint8_t buffer[8];
  qw::StoreLE(buffer, 0x0102030405ull, 5);
  EXPECT_EQ(std::vector<uint8_t>(buffer, buffer + 5), (std::vector<uint8_t>{5, 4, 3, 2, 1}));
  EXPECT_EQ(qw::LoadLE(buffer, 5), 0x0102030405ull);
  qw::StoreBE(buffer, 0xA1B2C3u, 3);
  EXPECT_EQ(std::vector<uint8_t>(buffer, buffer + 3), (std::vector<uint8_t>{0xA1, 0xB2, 0xC3}));
  EXPECT_EQ(qw::LoadBE(buffer, 3), 0xA1B2C3u);
}

}  // namespace
