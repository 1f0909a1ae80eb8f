// Large-element arrays: the direct, one- and two-level forms with their descriptors and block sizes, ranges at block
// boundaries, replacing in both directions, clearing without losing or doubling a block.
#include "ldbarray_fixture.h"

namespace {

using ldbatest::Allocation;
using ldbatest::AllocationOf;
using ldbatest::Descriptor;
using ldbatest::Pattern;

constexpr uint32_t kBlock = LDBARRAY_BLOCK_SIZE;
// 510 data blocks still fit a level-0 list (8 * 510 + 8 = 4088 < 4091); one byte more needs 511 and a second level.
constexpr uint32_t kLevelZeroLargest = 510 * kBlock;

// Expected block sizes of a level-0 element, and its level.
struct LayoutCase {
  uint32_t length;
  bool external;
  uint32_t level;
  std::vector<uint32_t> blockSizes;  // level 0: the data blocks' class sizes
};

// Blocks of n bytes by the cutting rule.
uint32_t BlocksFor(uint32_t n) { return n / kBlock + (n % kBlock >= 4096 ? 1 : 0) + (n % 4096 > 0 ? 1 : 0); }

std::vector<uint32_t> Repeat(uint32_t count, uint32_t size, std::vector<uint32_t> tail = {}) {
  std::vector<uint32_t> sizes(count, size);
  sizes.insert(sizes.end(), tail.begin(), tail.end());
  return sizes;
}

const LayoutCase kLayouts[] = {
    {0, false, 0, {}},
    {1, false, 0, {}},
    {4089, false, 0, {}},
    {4090, false, 0, {}},
    {4091, true, 0, {4096}},  // no full or half block: the remainder block
    {4096, true, 0, {4096}},  // exactly one half block
    {4097, true, 0, {4096, 64}},
    {8192, true, 0, {8192}},
    {8193, true, 0, {8192, 64}},
    {12288, true, 0, {8192, 4096}},
    {20000, true, 0, {8192, 8192, 4096}},  // remainder of 3616 bytes in a 4096-byte class
    {100000, true, 0, Repeat(12, 8192, {2048})},  // remainder of 1696 bytes
    {kLevelZeroLargest, true, 0, Repeat(510, 8192)},
    {kLevelZeroLargest + 1, true, 1, {}},
    {5 * 1024 * 1024 + 4321, true, 1, {}},
};

using LDBArrayLayout = ldbatest::LDBArrayTest;

TEST_F(LDBArrayLayout, ElementsRoundTripAndAreCutAsSpecified) {
  Open(3);
  std::vector<std::string> values;
  for (const LayoutCase &c : kLayouts) {
    SCOPED_TRACE(c.length);
    values.push_back(Pattern(c.length, c.length));
    const uint32_t bucket = uint32_t(values.size() - 1) % 3;
    const uint32_t handle = Add(bucket, values.back());
    ASSERT_EQ(handle, (values.size() - 1) / 3) << QWErrorMessage();
    EXPECT_EQ(FlagBit(bucket, handle), c.external ? 1 : 0);
    const std::string raw = RawElement(bucket, handle);
    if (!c.external) {
      EXPECT_EQ(raw, values.back());
      continue;
    }
    const Descriptor d = Decode(raw);
    EXPECT_EQ(d.total, c.length);
    EXPECT_EQ(d.level, c.level);
    EXPECT_LT(d.bytes, 4091u);
    if (c.level == 0) {
      ASSERT_EQ(d.ids.size(), c.blockSizes.size());
      for (size_t k = 0; k < d.ids.size(); ++k) EXPECT_EQ(BlockSize(d.ids[k]), c.blockSizes[k]) << k;
    } else {
      // The list of data blocks is itself stored by the cutting rule.
      const uint32_t listBytes = 8 * BlocksFor(c.length);
      ASSERT_EQ(d.ids.size(), BlocksFor(listBytes));
      for (size_t j = 0; j < listBytes / kBlock; ++j) EXPECT_EQ(BlockSize(d.ids[j]), 8192u);
    }
  }
  EXPECT_EQ(Decode(RawElement(4 % 3, 4 / 3)).bytes, 16u);  // 4091 bytes: one id and the trailer
  for (size_t i = 0; i < values.size(); ++i) {
    SCOPED_TRACE(values[i].size());
    EXPECT_EQ(Read(uint32_t(i % 3), uint32_t(i / 3)), values[i]);
    EXPECT_EQ(ReadByRanges(uint32_t(i % 3), uint32_t(i / 3)), values[i]);
  }
  EXPECT_EQ(VMArenaCheck(arena), 0);
}

TEST_F(LDBArrayLayout, RangesEndAtBlockBoundariesAndAtTheLength) {
  Open(1);
  const uint32_t lengths[] = {3000, 20000, 2 * kBlock + 4096 + 10, kLevelZeroLargest + 4096 + 100};
  for (uint32_t length : lengths) {
    SCOPED_TRACE(length);
    const std::string value = Pattern(length, length);
    const uint32_t handle = Add(0, value);
    ASSERT_NE(handle, LDBARRAY_INVALID_HANDLE) << QWErrorMessage();
    const bool external = length > LDBARRAY_MAX_DIRECT_SIZE;
    const uint32_t full = length / kBlock * kBlock;
    const bool half = length % kBlock >= 4096;
    auto expectedEnd = [&](uint32_t offset) -> uint32_t {
      if (!external) return length;
      if (offset < full) return (offset / kBlock + 1) * kBlock;
      if (half && offset < full + 4096) return full + 4096;
      return length;
    };
    for (uint32_t offset :
         {0u, 1u, kBlock - 1, kBlock, kBlock + 1, full - 1, full, full + 4095, full + 4096, length - 1}) {
      if (offset >= length) continue;
      uint32_t end = 0, total = 0;
      auto *bytes = static_cast<const char *>(LDBArrayRange(array, 0, handle, offset, &end, &total, NEWGEN, 1));
      ASSERT_NE(bytes, nullptr) << offset << ": " << QWErrorMessage();
      EXPECT_EQ(total, length);
      EXPECT_EQ(end, expectedEnd(offset)) << offset;
      EXPECT_EQ(std::string(bytes, end - offset), value.substr(offset, end - offset)) << offset;
      LDBArrayRelease(array, NEWGEN, 1, const_cast<char *>(bytes));
    }
    for (uint32_t offset : {length, length + 1, 0xFFFFFFFFu}) {
      uint32_t end = 7, total = 0;
      EXPECT_EQ(LDBArrayRange(array, 0, handle, offset, &end, &total, NEWGEN, 1), nullptr);
      EXPECT_EQ(end, offset);
      EXPECT_EQ(total, length);
      EXPECT_FALSE(QWErrorIsSet());
    }
  }
  // An absent handle reads as nothing, without an error.
  uint32_t end = 9, total = 9;
  EXPECT_EQ(LDBArrayRange(array, 0, 100, 0, &end, &total, NEWGEN, 1), nullptr);
  EXPECT_EQ(end, 0u);
  EXPECT_EQ(total, 0u);
  EXPECT_FALSE(QWErrorIsSet());
}

TEST_F(LDBArrayLayout, WritableRangesChangeTheElementInPlace) {
  Open(1);
  std::string value = Pattern(1, 30000);
  const uint32_t handle = Add(0, value);
  for (uint32_t offset : {0u, 8191u, 8192u, 29999u}) {
    uint32_t end = 0;
    auto *bytes = static_cast<char *>(LDBArrayRange(array, 0, handle, offset, &end, nullptr, NEWGEN, 0));
    ASSERT_NE(bytes, nullptr) << QWErrorMessage();
    bytes[0] = 'X';
    value[offset] = 'X';
    LDBArrayRelease(array, NEWGEN, 0, bytes);
  }
  EXPECT_EQ(Read(0, handle), value);
}

// DataSet between every pair of forms, keeping the other elements intact.
TEST_F(LDBArrayLayout, DataSetMovesBetweenFormsBothWays) {
  Open(2);
  const uint32_t lengths[] = {0, 10, 4090, 4091, 20000, kLevelZeroLargest + 1, 7};
  std::vector<std::string> model;
  for (uint32_t i = 0; i < 4; ++i) {
    model.push_back(Pattern(i, 100 * i));
    ASSERT_EQ(Add(0, model.back()), i);
  }
  // Twice the same changes: the second pass must end on exactly the blocks the first one ended on (the first warms the
  // size-class lists).
  Allocation afterPass[2];
  for (int pass = 0; pass < 2; ++pass) {
    uint32_t seed = 50;
    for (uint32_t from : lengths)
      for (uint32_t to : lengths) {
        SCOPED_TRACE(std::to_string(from) + " -> " + std::to_string(to));
        model[1] = Pattern(seed++, from);
        ASSERT_TRUE(Set(0, 1, model[1])) << QWErrorMessage();
        model[1] = Pattern(seed++, to);
        ASSERT_TRUE(Set(0, 1, model[1])) << QWErrorMessage();
        EXPECT_EQ(FlagBit(0, 1), to > LDBARRAY_MAX_DIRECT_SIZE ? 1 : 0);
        for (uint32_t h = 0; h < model.size(); ++h) ASSERT_EQ(Read(0, h), model[h]);
      }
    afterPass[pass] = AllocationOf(arena);
    EXPECT_EQ(VMArenaCheck(arena), 0);
  }
  EXPECT_EQ(afterPass[1], afterPass[0]);
  // An absent handle is not created by a set.
  EXPECT_TRUE(olibtest::Fails(Set(0, 4, "x"), 0, 2));
  EXPECT_EQ(LDBArraySize(array, 0, NEWGEN), 4u);
}

TEST_F(LDBArrayLayout, ClearingGivesEveryBlockBackExactlyOnce) {
  Open(2);
  const uint32_t lengths[] = {100, 4091, 20000, 100000, kLevelZeroLargest, kLevelZeroLargest + 1,
                              6 * 1024 * 1024 + 5000};
  ASSERT_EQ(Add(0, "keep"), 0u);
  for (uint32_t length : lengths) {
    SCOPED_TRACE(length);
    const std::string value = Pattern(length, length);
    const uint32_t handle = Add(1, value);
    ASSERT_NE(handle, LDBARRAY_INVALID_HANDLE) << QWErrorMessage();
    // Once to warm the size-class lists, then the cycle comes back to the same allocation: no block lost, none freed
    // twice.
    ASSERT_EQ(LDBArrayClearElement(array, 1, handle, NEWGEN), 1) << QWErrorMessage();
    const Allocation cleared = AllocationOf(arena);
    ASSERT_TRUE(Set(1, handle, value)) << QWErrorMessage();
    EXPECT_NE(AllocationOf(arena), cleared);
    EXPECT_EQ(ReadByRanges(1, handle), value);
    ASSERT_EQ(LDBArrayClearElement(array, 1, handle, NEWGEN), 1) << QWErrorMessage();
    EXPECT_EQ(AllocationOf(arena), cleared);
    EXPECT_EQ(VMArenaCheck(arena), 0);
    EXPECT_EQ(Read(1, handle), "");
    EXPECT_EQ(FlagBit(1, handle), 0);
    EXPECT_EQ(RawElement(1, handle), "");
  }
  EXPECT_EQ(Read(0, 0), "keep");
  EXPECT_TRUE(olibtest::Fails(LDBArrayClearElement(array, 1, 100, NEWGEN), 0, 2));
}

TEST_F(LDBArrayLayout, ClearEmptiesTheArrayAndItIsReusable) {
  Open(3);
  Allocation afterFirst;
  for (int round = 0; round < 3; ++round) {
    SCOPED_TRACE(round);
    for (uint32_t i = 0; i < 30; ++i) {
      const std::string value = Pattern(i + 100 * uint32_t(round), i % 4 == 0 ? 9000 * i + 4091 : 50 * i);
      ASSERT_EQ(Add(i % 3, value), i / 3) << QWErrorMessage();
      ASSERT_EQ(Read(i % 3, i / 3), value);
    }
    const size_t flagBytes = Elements(std::string(ldbatest::kPath) + "/ldbarray/flag", 1).size();
    ASSERT_EQ(LDBArrayClear(array, NEWGEN), 1) << QWErrorMessage();
    for (uint32_t b = 0; b < 3; ++b) EXPECT_EQ(LDBArraySize(array, b, NEWGEN), 0u);
    // The flag bits are cleared; the flag array keeps its bytes.
    EXPECT_EQ(Elements(std::string(ldbatest::kPath) + "/ldbarray/flag", 1), std::vector<uint64_t>(flagBytes, 0));
    EXPECT_EQ(VMArenaCheck(arena), 0);
    if (round == 0) afterFirst = AllocationOf(arena);  // warms the size-class lists
    else EXPECT_EQ(AllocationOf(arena), afterFirst);
  }
}

}  // namespace
