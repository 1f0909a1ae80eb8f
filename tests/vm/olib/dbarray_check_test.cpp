// Block-directory arrays with broken stored data: DBArrayCheck names each bad
// block with its exact message, reads of a malformed block fail cleanly (a
// data error, the arena tagged), random damage never crashes; the assertions.
#include "dbarray_fixture.h"

namespace {

using dbatest::DBArrayTest;
using dbatest::Pattern;
using Texts = std::vector<std::string>;

std::string Le16(uint32_t value) { return std::string{char(value & 0xFF), char(value >> 8)}; }

TEST_F(DBArrayTest, CheckOfASoundArrayReportsBlockCountsAndDone) {
  Open(2);
  for (uint32_t h = 0; h < 120; ++h) Add(0, Pattern(h, 70));
  const uint32_t blocks = BlockCount(0);
  qwtest::MessageCapture capture;
  EXPECT_EQ(DBArrayCheck(array, NEWGEN), 0u);
  std::vector<std::pair<int, std::string>> messages;
  for (const qwtest::CapturedMessage &m : capture.messages()) messages.emplace_back(m.level, m.text);
  EXPECT_EQ(messages, (std::vector<std::pair<int, std::string>>{
                          {QW_LEVEL_DEBUG, "bucketIndex = 0: blockCount = " + std::to_string(blocks) + "\n"},
                          {QW_LEVEL_DEBUG, "bucketIndex = 1: blockCount = 0\n"},
                          {QW_LEVEL_PROGRESS, "Done !\n"}}));
  capture.clear();  // the committed generation has no arrays yet: every bucket is empty there
  EXPECT_EQ(DBArrayCheck(array, OLDGEN), 0u);
  EXPECT_TRUE(capture.contains("bucketIndex = 0: blockCount = 0\n"));
}

// One kind of damage to a block (bytes at an offset of it, or, for an
// offset -1 - i, firstHandle entry i set to 5), the messages DBArrayCheck gives for it (with
// "%s" standing for the block's phys text), and a handle whose read must
// then fail naming the invariant.
struct Damage {
  const char *name;
  uint32_t bucket, block;
  int offset;
  std::string bytes;
  Texts messages;
  uint32_t handle;
  const char *invariant;
};

const char *const kSizes = "(indexSize * sizeof(UShort) + dataSize + HEADER_SIZE) <= blockSize";

const Damage kDamages[] = {
    {"data_size_past_block", 0, 0, 2, Le16(0xFFFF),
     {"bucketIndex = 0: Invalid block size in block number 0 ! indexSize = 2, dataSize = 65535, %s"}, 3, kSizes},
    {"index_size_past_block", 0, 0, 0, Le16(200),
     {"bucketIndex = 0: Invalid block size in block number 0 ! indexSize = 200, dataSize = 220, %s"}, 0, kSizes},
    {"prefix_longer_than_two_bytes", 0, 0, 4 + 55, std::string("\x01\x01\x01", 3),
     {"bucketIndex = 0: Invalid data in block number 0, %s"}, 5, "elementFits"},
    {"data_size_cuts_an_element", 0, 0, 2, Le16(217),
     {"bucketIndex = 0: Invalid data size in block number 0 ! lastOffset = 220, dataSize = 217, %s"}, 19,
     "elementFits"},
    {"index_entry_past_data", 0, 0, 256 - 2, Le16(0x7FFF),
     {"bucketIndex = 0: Invalid index in block number 0 ! subIndex = 1, %s"}, 9, "lastOffset < dataSize"},
    {"first_handle_not_zero", 0, 0, -1, "",
     {"bucketIndex = 0: handle0A is invalid in block 0", "bucketIndex = 0: Invalid directory entry 0 ! block = 0"},
     2, "handle >= handle0"},
    {"count_differs_from_next_first_handle", 1, 1, -3, "",
     {"bucketIndex = 1: Invalid element count in block number 1 ! handle = 4, handle0 = 2, %s"}, 4,
     "lastOffset < dataSize"},
};

class DBArrayDamage : public DBArrayTest, public ::testing::WithParamInterface<Damage> {};

TEST_P(DBArrayDamage, CheckNamesTheBlockAndReadsFailCleanly) {
  const Damage &d = GetParam();
  // Bucket 0: 20 elements of 10 bytes in one block (indexSize 2, dataSize
  // 220); bucket 1: 6 elements of 1502 bytes, two to a block.
  Open(2);
  for (uint32_t h = 0; h < 20; ++h) ASSERT_EQ(Add(0, Pattern(h, 10)), h);
  for (uint32_t h = 0; h < 6; ++h) ASSERT_EQ(Add(1, Pattern(h, 1500)), h);
  ASSERT_EQ(BlockCount(0), 1u);
  ASSERT_EQ(BlockCount(1), 3u);
  ASSERT_TRUE(CheckProblems().empty());
  if (d.offset >= 0) PokeBlock(d.bucket, d.block, uint32_t(d.offset), d.bytes);
  else Poke(ArrayId("firstHandle", d.bucket), uint32_t(-1 - d.offset), 4, 0, 5, 4);
  Texts expected = d.messages;
  for (std::string &m : expected)
    if (size_t at = m.find("%s"); at != std::string::npos) m.replace(at, 2, Phys(d.bucket, d.block));
  EXPECT_EQ(CheckProblems(), expected);
  EXPECT_FALSE(Tagged());  // checking changes nothing

  QWErrorClear();
  EXPECT_EQ(Read(d.bucket, d.handle), std::nullopt);
  ExpectDataError((std::string(d.invariant) + " does not hold").c_str(), true);
  ExpectDataError("corrupted block-directory array");
  EXPECT_EQ(DBArrayLengthSet(array, d.bucket, d.handle, NEWGEN, 3000), -1);
  EXPECT_EQ(QWErrorClass(), QW_ERROR_CLASS_DATA);
  QWErrorClear();
}

INSTANTIATE_TEST_SUITE_P(Kinds, DBArrayDamage, ::testing::ValuesIn(kDamages),
                         [](const auto &info) { return std::string(info.param.name); });

// Random damage to blocks and directories: every operation either works or
// fails with an error; none reads or writes outside a block (the sanitizer
// builds catch that) or crashes.
TEST_F(DBArrayTest, RandomDamageNeverCrashesAnyOperation) {
  Open(2);
  std::mt19937 rng(5);
  for (uint32_t h = 0; h < 300; ++h) Add(h % 2, Pattern(h, rng() % 2 ? rng() % 30 : rng() % 900));
  uint32_t failures = 0;
  for (int round = 0; round < 150; ++round) {
    const uint32_t bucket = rng() % 2, blocks = BlockCount(bucket), r = rng() % 10;
    if (r < 7 && blocks > 0) {
      const uint32_t n = rng() % blocks, size = uint32_t(BlockBytes(bucket, n).size());
      std::string garbage(1 + rng() % 4, '\0');
      for (char &c : garbage) c = char(rng());
      PokeBlock(bucket, n, rng() % (size - uint32_t(garbage.size()) + 1), garbage);
    } else {
      const uint32_t id = ArrayId(r < 9 ? "firstHandle" : "index", bucket);
      const uint32_t length = VMAArrayLength_(arena, id, NEWGEN);
      if (length > 0) Poke(id, rng() % length, 4, 0, rng() % 4 ? rng() % 400 : rng(), 4);
    }
    (void)CheckProblems();
    const uint32_t size = DBArraySize(array, bucket, NEWGEN);
    for (uint32_t h = 0; h < size + 2 && h < 200; ++h) {
      uint32_t length = 0;
      if (void *bytes = DBArrayGet(array, bucket, h, NEWGEN, 1, &length)) DBArrayRelease(array, NEWGEN, 1, bytes);
      if (const void *block = DBArrayHintGet(array, bucket, h, NEWGEN)) DBArrayRelease(array, NEWGEN, 1, block);
    }
    const uint32_t target = size > 0 ? rng() % size : 0;
    const std::string value = Pattern(round, rng() % 3000);
    const bool ok = DBArraySet(array, bucket, target, NEWGEN, value.data(), uint32_t(value.size())) &&
                    DBArrayAdd(array, bucket, value.data(), uint32_t(value.size()), NEWGEN) != DBARRAY_INVALID_HANDLE;
    failures += !ok;
    uint64_t used = 0;
    (void)DBArrayUsage(array, bucket, NEWGEN, &used);
    QWErrorClear();
  }
  EXPECT_GT(failures, 0u);  // the damage was noticed
  EXPECT_TRUE(Tagged());
}

using DBArrayDeathTest = DBArrayTest;

TEST_F(DBArrayDeathTest, ArgumentsOutsideTheLimitsFailTheirAssertions) {
  Open(2);
  ASSERT_EQ(Add(0, "x"), 0u);
  // A bad bucket tags the arena before the assertion fails.
  EXPECT_DEATH(Add(2, "x"), "bucketIndex < ArrayLength\\(array->bucket\\)");
  EXPECT_TRUE(Tagged());
  const std::string tooLong(DBARRAY_MAX_ELEMENT_SIZE + 1, 'a');
  EXPECT_DEATH(Add(0, tooLong), "dataLength <= DBARRAY_MAX_ELEMENT_SIZE");
  EXPECT_DEATH(DBArrayLengthSet(array, 0, 0, NEWGEN, DBARRAY_MAX_ELEMENT_SIZE + 1),
               "newDataLength <= DBARRAY_MAX_ELEMENT_SIZE");
  EXPECT_DEATH(DBArrayAdd(array, 0, "x", 1, OLDGEN), "genID == NEWGEN");
  EXPECT_DEATH(DBArrayClear(array, OLDGEN), "genID == NEWGEN");
  uint32_t length = 0;
  EXPECT_DEATH(DBArrayGet(array, 0, 0, 2, 1, &length), "FALSE");
  EXPECT_DEATH(DBArrayNew(arena, &pathBuffer, "big", nullptr, 0, 65537), "bucketCount <= 65536");
}

}  // namespace
