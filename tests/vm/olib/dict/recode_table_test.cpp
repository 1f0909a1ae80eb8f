// The string dictionary's recoding table: a permutation with the fixed ranks.
#include <gtest/gtest.h>

#include <vector>

#include "vm/olib/strdict/recode_table.h"

namespace {

TEST(RecodeTable, IsAPermutationWithItsInverse) {
  const uint16_t *table = qw::strdict::RecodeTable();
  std::vector<bool> seen(65536, false);
  for (uint32_t c = 0; c < 65536; ++c) {
    ASSERT_FALSE(seen[table[c]]) << "rank " << table[c] << " given twice, again to " << c;
    seen[table[c]] = true;
    ASSERT_EQ(qw::strdict::DecodeSymbol(table[c]), c);
  }
}

TEST(RecodeTable, FixedRanks) {
  const char letters[] = "eairsnotlcmduhpgbkfyvwzxjq";
  for (uint32_t rank = 0; rank < 26; ++rank) EXPECT_EQ(qw::strdict::RecodeSymbol(letters[rank]), rank);
  for (uint32_t d = 0; d < 10; ++d) EXPECT_EQ(qw::strdict::RecodeSymbol('0' + d), 26 + d);
  EXPECT_EQ(qw::strdict::RecodeSymbol('A'), 0xFD39);
  EXPECT_EQ(qw::strdict::RecodeSymbol(' '), 0xB09B);
  EXPECT_EQ(qw::strdict::RecodeSymbol('/'), 0xB0B4);
  // Letters with diacritics come right after the digits: frequent text stays
  // in small symbols.
  EXPECT_LT(qw::strdict::RecodeSymbol(0x00E9), 200u);  // é
  EXPECT_GT(qw::strdict::RecodeSymbol(0x0007), qw::strdict::RecodeSymbol(0x4E00));  // controls last
}

}  // namespace
