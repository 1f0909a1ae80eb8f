// Block-directory arrays with broken stored data: DBArrayCheck names each
// bad block with its exact message, reads of a malformed block fail cleanly
// (the arena tagged corrupted, an error of class DATA, no read outside the
// block), and random damage never crashes any operation. Also the argument
// assertions.
#include <filesystem>
#include <functional>
#include <random>

#include "dbarray_fixture.h"

namespace {

using dbatest::DBArrayTest;
using dbatest::Pattern;

std::string Le16(uint32_t value) { return std::string{char(value & 0xFF), char(value >> 8)}; }

// Overwrites element i of one of the bucket's 32-bit arrays.
void PokeU32(VMArena *arena, uint32_t id, uint32_t i, uint32_t value) {
  uint32_t end = 0;
  auto *at = static_cast<uint8_t *>(VMAArrayRange_(arena, id, 0, 8192, i, &end, NEWGEN, 0, 4, 0));
  ASSERT_NE(at, nullptr) << QWErrorMessage();
  for (int k = 0; k < 4; ++k) at[k] = uint8_t(value >> (8 * k));
  VMAArrayRelease_(arena, id, at, 0);
}

TEST_F(DBArrayTest, CheckOfASoundArrayReportsBlockCountsAndDone) {
  Open(2);
  for (uint32_t h = 0; h < 120; ++h) Add(0, Pattern(h, 70));
  const uint32_t blocks = BlockCount(0);
  qwtest::MessageCapture capture;
  EXPECT_EQ(DBArrayCheck(array, NEWGEN), 0u);
  const std::vector<qwtest::CapturedMessage> messages = capture.messages();
  ASSERT_EQ(messages.size(), 3u);
  EXPECT_EQ(messages[0].text, "bucketIndex = 0: blockCount = " + std::to_string(blocks) + "\n");
  EXPECT_EQ(messages[0].level, QW_LEVEL_DEBUG);
  EXPECT_EQ(messages[1].text, "bucketIndex = 1: blockCount = 0\n");
  EXPECT_EQ(messages[2].text, "Done !\n");
  EXPECT_EQ(messages[2].level, QW_LEVEL_PROGRESS);
  // The committed generation has no arrays yet: every bucket is empty there.
  capture.clear();
  EXPECT_EQ(DBArrayCheck(array, OLDGEN), 0u);
  EXPECT_TRUE(capture.contains("bucketIndex = 0: blockCount = 0\n"));
}

// One kind of damage to a block of a bucket, the messages DBArrayCheck gives
// for it, and a handle whose read must then fail.
struct Damage {
  const char *name;
  uint32_t bucket, block;
  std::function<void(DBArrayTest *, VMArena *)> apply;
  std::function<std::vector<std::string>(const std::string &phys)> messages;
  uint32_t handle;
  const char *invariant;  // named by the error of a read of `handle`
};

class DBArrayDamage : public DBArrayTest, public ::testing::WithParamInterface<Damage> {
 protected:
  // Bucket 0: 20 elements of 10 bytes in one block (indexSize 2, dataSize
  // 220); bucket 1: two blocks.
  void Build() {
    Open(2);
    for (uint32_t h = 0; h < 20; ++h) ASSERT_EQ(Add(0, Pattern(h, 10)), h);
    for (uint32_t h = 0; h < 6; ++h) ASSERT_EQ(Add(1, Pattern(h, 1500)), h);
    ASSERT_EQ(BlockCount(0), 1u);
    ASSERT_EQ(BlockCount(1), 3u);  // 2 + 2 + 2 elements of 1502 bytes
  }
};

TEST_P(DBArrayDamage, CheckNamesTheBlockAndReadsFailCleanly) {
  const Damage &d = GetParam();
  Build();
  ASSERT_TRUE(CheckProblems().empty());
  d.apply(this, arena);
  const uint32_t bucket = d.bucket;
  EXPECT_EQ(CheckProblems(), d.messages(Phys(bucket, d.block)));
  EXPECT_FALSE(std::filesystem::exists(path("arena/corrupted")));  // checking changes nothing

  QWErrorClear();
  uint32_t length = 5;
  EXPECT_EQ(DBArrayGet(array, bucket, d.handle, NEWGEN, 1, &length), nullptr);
  EXPECT_EQ(length, 0u);
  EXPECT_EQ(QWErrorClass(), QW_ERROR_CLASS_DATA) << QWErrorMessage();
  EXPECT_EQ(QWErrorCode(), 74);
  const std::string error = QWErrorMessage();
  EXPECT_NE(error.find("corrupted block-directory array"), std::string::npos) << error;
  EXPECT_NE(error.find(std::string(d.invariant) + " does not hold"), std::string::npos) << error;
  EXPECT_TRUE(std::filesystem::exists(path("arena/corrupted")));
  QWErrorClear();
  EXPECT_EQ(DBArrayLengthSet(array, bucket, d.handle, NEWGEN, 3000), -1);
  EXPECT_EQ(QWErrorClass(), QW_ERROR_CLASS_DATA);
  QWErrorClear();
}

using Texts = std::vector<std::string>;

const Damage kDamages[] = {
    {"data_size_past_block", 0, 0, [](DBArrayTest *t, VMArena *) { t->PokeBlock(0, 0, 2, Le16(0xFFFF)); },
     [](const std::string &phys) {
       return Texts{"bucketIndex = 0: Invalid block size in block number 0 ! indexSize = 2, dataSize = 65535, " +
                    phys};
     },
     3, "(indexSize * sizeof(UShort) + dataSize + HEADER_SIZE) <= blockSize"},
    {"index_size_past_block", 0, 0, [](DBArrayTest *t, VMArena *) { t->PokeBlock(0, 0, 0, Le16(200)); },
     [](const std::string &phys) {
       return Texts{"bucketIndex = 0: Invalid block size in block number 0 ! indexSize = 200, dataSize = 220, " +
                    phys};
     },
     0, "(indexSize * sizeof(UShort) + dataSize + HEADER_SIZE) <= blockSize"},
    {"prefix_longer_than_two_bytes", 0, 0,
     [](DBArrayTest *t, VMArena *) { t->PokeBlock(0, 0, 4 + 55, std::string("\x01\x01\x01", 3)); },
     [](const std::string &phys) { return Texts{"bucketIndex = 0: Invalid data in block number 0, " + phys}; }, 5,
     "elementFits"},
    {"data_size_cuts_an_element", 0, 0, [](DBArrayTest *t, VMArena *) { t->PokeBlock(0, 0, 2, Le16(217)); },
     [](const std::string &phys) {
       return Texts{"bucketIndex = 0: Invalid data size in block number 0 ! lastOffset = 220, dataSize = 217, " +
                    phys};
     },
     19, "elementFits"},
    {"index_entry_past_data", 0, 0, [](DBArrayTest *t, VMArena *) { t->PokeBlock(0, 0, 256 - 2, Le16(0x7FFF)); },
     [](const std::string &phys) {
       return Texts{"bucketIndex = 0: Invalid index in block number 0 ! subIndex = 1, " + phys};
     },
     9, "lastOffset < dataSize"},
    {"first_handle_not_zero", 0, 0,
     [](DBArrayTest *t, VMArena *arena) { PokeU32(arena, t->ArrayId("firstHandle", 0), 0, 5); },
     [](const std::string &) {
       return Texts{"bucketIndex = 0: handle0A is invalid in block 0",
                    "bucketIndex = 0: Invalid directory entry 0 ! block = 0"};
     },
     2, "handle >= handle0"},
    {"count_differs_from_next_first_handle", 1, 1,
     [](DBArrayTest *t, VMArena *arena) { PokeU32(arena, t->ArrayId("firstHandle", 1), 2, 5); },
     [](const std::string &phys) {
       return Texts{"bucketIndex = 1: Invalid element count in block number 1 ! handle = 4, handle0 = 2, " + phys};
     },
     4, "lastOffset < dataSize"},
};

INSTANTIATE_TEST_SUITE_P(Kinds, DBArrayDamage, ::testing::ValuesIn(kDamages),
                         [](const auto &info) { return std::string(info.param.name); });

// Random damage to blocks and directories: every operation either works or
// fails with an error; none reads or writes outside a block (the sanitizer
// builds catch that) or crashes.
TEST_F(DBArrayTest, RandomDamageNeverCrashesAnyOperation) {
  Open(2);
  std::mt19937 rng(5);
  for (uint32_t h = 0; h < 300; ++h) Add(h % 2, Pattern(h, rng() % 2 ? rng() % 30 : rng() % 900));
  uint32_t failures = 0, successes = 0;
  for (int round = 0; round < 150; ++round) {
    const uint32_t bucket = rng() % 2;
    const uint32_t blocks = BlockCount(bucket);
    const uint32_t r = rng() % 10;
    if (r < 7 && blocks > 0) {
      const uint32_t n = rng() % blocks;
      const uint32_t size = uint32_t(BlockBytes(bucket, n).size());
      std::string garbage(1 + rng() % 4, '\0');
      for (char &c : garbage) c = char(rng());
      PokeBlock(bucket, n, rng() % (size - uint32_t(garbage.size()) + 1), garbage);
    } else {
      const char *word = r < 9 ? "firstHandle" : "index";
      const uint32_t id = ArrayId(word, bucket);
      const uint32_t length = VMAArrayLength_(arena, id, NEWGEN);
      if (length > 0) PokeU32(arena, id, rng() % length, rng() % 4 ? rng() % 400 : rng());
    }
    (void)CheckProblems();
    const uint32_t size = DBArraySize(array, bucket, NEWGEN);
    for (uint32_t h = 0; h < size + 2 && h < 200; ++h) {
      uint32_t length = 0;
      void *bytes = DBArrayGet(array, bucket, h, NEWGEN, 1, &length);
      if (bytes) DBArrayRelease(array, NEWGEN, 1, bytes);
      const void *block = DBArrayHintGet(array, bucket, h, NEWGEN);
      if (block) DBArrayRelease(array, NEWGEN, 1, block);
    }
    const uint32_t target = size > 0 ? rng() % size : 0;
    const std::string value = Pattern(round, rng() % 3000);
    const bool ok = DBArraySet(array, bucket, target, NEWGEN, value.data(), uint32_t(value.size())) &&
                    DBArrayAdd(array, bucket, value.data(), uint32_t(value.size()), NEWGEN) != DBARRAY_INVALID_HANDLE;
    ok ? ++successes : ++failures;
    uint64_t used = 0;
    (void)DBArrayUsage(array, bucket, NEWGEN, &used);
    QWErrorClear();
  }
  EXPECT_GT(failures, 0u);  // the damage was noticed
  EXPECT_TRUE(std::filesystem::exists(path("arena/corrupted")));
}

using DBArrayDeathTest = DBArrayTest;

TEST_F(DBArrayDeathTest, BadBucketTagsTheArenaAndFailsTheAssertion) {
  Open(2);
  EXPECT_DEATH(Add(2, "x"), "bucketIndex < ArrayLength\\(array->bucket\\)");
  EXPECT_TRUE(std::filesystem::exists(path("arena/corrupted")));
}

TEST_F(DBArrayDeathTest, ArgumentsOutsideTheLimitsFailTheirAssertions) {
  Open(1);
  ASSERT_EQ(Add(0, "x"), 0u);
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
