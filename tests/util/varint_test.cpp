// The program's varint and the little- and big-endian codecs.

#include "support/test_support.h"
#include "util/endian.h"
#include "util/varint.h"

namespace {

using Bytes = std::vector<uint8_t>;

// Exact bytes of known values; every bit length round trips, every cut is caught; endless or overflowing input fails.
TEST(Varint, ExactBytesRoundTripsAndBadInput) {
  const std::pair<uint64_t, Bytes> cases[] = {
      {0, {0x00}},        {1, {0x02}},         {127, {0xFE}},
      {128, {0x01, 0x02}},                     // group 0 with continuation, then group 1
      {300, {0x59, 0x04}},                     // 300 = 0b10'0101100: (44<<1)|1, 2<<1
      {16383, {0xFF, 0xFE}}, {16384, {0x01, 0x01, 0x02}},
  };
  uint8_t buffer[qw::kVarintMaxBytes];
  for (const auto &[value, bytes] : cases) {
    const size_t n = qw::VarintEncode(buffer, value);
    EXPECT_EQ(Bytes(buffer, buffer + n), bytes) << value;
    EXPECT_EQ(qw::VarintSize(value), n);
  }
  std::mt19937_64 random(99);
  uint64_t decoded = 0;
  for (unsigned bits = 0; bits <= 64; ++bits) {
    for (int k = 0; k < 50; ++k) {
      uint64_t value = bits == 0 ? 0 : (random() | (uint64_t(1) << (bits - 1)));
      if (bits < 64) value &= (uint64_t(1) << bits) - 1;
      const size_t n = qw::VarintEncode(buffer, value);
      ASSERT_EQ(qw::VarintSize(value), n);
      ASSERT_EQ(qw::VarintDecode(buffer, buffer + n, &decoded), n);
      ASSERT_EQ(decoded, value);
      for (size_t cut = 0; cut < n; ++cut) ASSERT_EQ(qw::VarintDecode(buffer, buffer + cut, &decoded), 0u);
    }
  }
  Bytes overflow(9, 0xFF);
  overflow.push_back(0x04);  // tenth group = 2: bit 64
  for (const Bytes &bad : {Bytes(11, 0x01), overflow})  // the first never terminates within 10 bytes
    EXPECT_EQ(qw::VarintDecode(bad.data(), bad.data() + bad.size(), &decoded), 0u);
}

TEST(Endian, LittleAndBigEndianLayouts) {
  uint8_t buffer[8];
  qw::StoreLE(buffer, 0x0102030405ull, 5);
  EXPECT_EQ(Bytes(buffer, buffer + 5), (Bytes{5, 4, 3, 2, 1}));
  EXPECT_EQ(qw::LoadLE(buffer, 5), 0x0102030405ull);
  qw::StoreBE(buffer, 0xA1B2C3u, 3);
  EXPECT_EQ(Bytes(buffer, buffer + 3), (Bytes{0xA1, 0xB2, 0xC3}));
  EXPECT_EQ(qw::LoadBE(buffer, 3), 0xA1B2C3u);
}

}  // namespace
