// Block-directory arrays: the stored format (exact block bytes, length prefixes, index entries, directory), edge cases
// the model does not reach, the auxiliary calls; DBArrayCheck's exact messages for broken blocks, clean failures of
// reads, random damage, and the assertions.
#include "dbarray_fixture.h"

namespace {

using dbatest::DBArrayTest;
using dbatest::Pattern;
using U = std::vector<uint64_t>;

std::string Bytes(std::initializer_list<int> values) {
  std::string out;
  for (int v : values) out.push_back(char(v));
  return out;
}

TEST_F(DBArrayTest, FirstAddMakesOneBlockAndTheDirectoryEntryZero) {
  for (uint32_t maxBlocks : {0u, 1u}) {  // a 64-byte block, or the 4096-byte maximum at once
    SCOPED_TRACE(maxBlocks);
    Wipe();
    Open(2);
    DBArraySetMaxBlocks(array, maxBlocks);
    EXPECT_EQ(DBArraySize(array, 0, NEWGEN), 0u);
    EXPECT_EQ(Add(0, "abc"), 0u);
    EXPECT_EQ(Entries("index", 0), U{0});
    EXPECT_EQ(Entries("firstHandle", 0), U{0});
    ASSERT_EQ(BlockCount(0), 1u);
    std::string block = BlockBytes(0, 0);
    ASSERT_EQ(block.size(), maxBlocks ? 4096u : 64u);
    EXPECT_EQ(block.substr(0, 8), Bytes({0, 0, 4, 0, 6, 'a', 'b', 'c'}));
    EXPECT_EQ(DBArraySize(array, 0, NEWGEN), 1u);
    EXPECT_EQ(BlockCount(1), 0u);  // buckets are independent
    EXPECT_EQ(DBArraySize(array, 1, NEWGEN), 0u);
    EXPECT_EQ(Add(1, "z"), 0u);
  }
  // Elements follow each other with their length prefixes.
  EXPECT_EQ(Add(0, "bb"), 1u);
  EXPECT_EQ(Add(0, ""), 2u);
  EXPECT_EQ(BlockBytes(0, 0).substr(0, 12), Bytes({0, 0, 8, 0, 6, 'a', 'b', 'c', 4, 'b', 'b', 0}));
  EXPECT_EQ(Read(0, 1), "bb");
  // An empty element and a missing handle both read as absent, without an error; a set makes no handle.
  QWErrorClear();
  for (uint32_t absent : {2u, 3u, 64u, 0xFFFFFFFEu}) EXPECT_EQ(Read(0, absent), std::nullopt) << absent;
  EXPECT_EQ(DBArrayHintGet(array, 0, 3, NEWGEN), nullptr);
  EXPECT_FALSE(QWErrorIsSet()) << QWErrorMessage();
  EXPECT_TRUE(olibtest::Fails(DBArraySet(array, 0, 3, NEWGEN, "x", 1), 0, 2));
  QWErrorClear();
}

// The largest element (4090 bytes) fills a fresh maximal block; the next one takes a second block.
TEST_F(DBArrayTest, LengthPrefixKeepsTheContinuationFlagInTheLowBit) {
  const std::pair<uint32_t, std::string> cases[] = {
      {0, Bytes({0x00})},         {1, Bytes({0x02})},         {127, Bytes({0xFE})},
      {128, Bytes({0x01, 0x02})}, {300, Bytes({0x59, 0x04})}, {DBARRAY_MAX_ELEMENT_SIZE, Bytes({0xF5, 0x3E})},
  };
  Open(uint32_t(std::size(cases)));
  for (uint32_t i = 0; i < std::size(cases); ++i) {
    const auto &[length, prefix] = cases[i];
    SCOPED_TRACE(length);
    const std::string value = Pattern(i, length);
    ASSERT_EQ(Add(i, value), 0u) << QWErrorMessage();
    EXPECT_EQ(BlockBytes(i, 0).substr(4, prefix.size() + length), prefix + value);
    EXPECT_EQ(ReadOrEmpty(i, 0), value);
  }
  const std::string block = BlockBytes(5, 0), big = Pattern(5, DBARRAY_MAX_ELEMENT_SIZE);
  ASSERT_EQ(block.size(), 4096u);
  EXPECT_EQ(block.substr(0, 4), Bytes({0, 0, 0xFC, 0x0F}));  // dataSize 4092
  ASSERT_EQ(Add(5, big), 1u);
  EXPECT_EQ(Entries("firstHandle", 5), (U{0, 1}));
  EXPECT_EQ(Read(5, 1), big);
  EXPECT_TRUE(CheckProblems().empty());
}

TEST_F(DBArrayTest, EveryEighthElementAddsAnIndexEntryAtTheBlockEnd) {
  Open(1);
  for (uint32_t h = 0; h < 8; ++h) ASSERT_EQ(Add(0, "xyz"), h);
  EXPECT_EQ(BlockBytes(0, 0).substr(0, 4), Bytes({0, 0, 32, 0}));  // no entry for 8 elements
  ASSERT_EQ(Add(0, "xyz"), 8u);                                    // position 8: the first entry
  std::string block = BlockBytes(0, 0);
  ASSERT_EQ(block.size(), 64u);
  EXPECT_EQ(block.substr(0, 4), Bytes({1, 0, 36, 0}));
  EXPECT_EQ(block.substr(62, 2), Bytes({32, 0}));  // element 8 at data offset 32
  for (uint32_t h = 9; h < 17; ++h) ASSERT_EQ(Add(0, "xyz"), h);
  // 4 + 68 data + 2 entries = 76 bytes: the block grew to 88, its index moved along to the new end.
  block = BlockBytes(0, 0);
  ASSERT_EQ(block.size(), 88u);
  EXPECT_EQ(block.substr(0, 4), Bytes({2, 0, 68, 0}));
  EXPECT_EQ(block.substr(84, 4), Bytes({64, 0, 32, 0}));
  for (uint32_t h = 0; h < 17; ++h) EXPECT_EQ(Read(0, h), "xyz") << h;
  EXPECT_TRUE(CheckProblems().empty());
}

// 40 elements of 101 bytes fill one block; growing element 20 splits it at the middle (the end of element 19);
// shrinking it merges the blocks again.
TEST_F(DBArrayTest, GrowingAnElementOfAFullBlockSplitsItAndShrinkingMerges) {
  Open(1);
  for (uint32_t h = 0; h < 40; ++h) ASSERT_EQ(Add(0, Pattern(h, 100)), h);
  ASSERT_EQ(BlockBytes(0, 0).size(), 4096u);
  ASSERT_EQ(DBArrayLengthSet(array, 0, 20, NEWGEN, 1000), 0) << QWErrorMessage();
  EXPECT_EQ(Entries("firstHandle", 0), (U{0, 20}));
  for (uint32_t h = 0; h < 40; ++h) EXPECT_EQ(Read(0, h), Pattern(h, 100) + std::string(h == 20 ? 900 : 0, '\0')) << h;
  EXPECT_TRUE(CheckProblems().empty());
  EXPECT_EQ(DBArrayLengthSet(array, 0, 20, NEWGEN, 10), 1);
  EXPECT_EQ(BlockCount(0), 1u);
  EXPECT_EQ(Entries("index", 0), U{0});
  EXPECT_EQ(DBArrayLengthSet(array, 0, 20, NEWGEN, 10), 0);  // same length: nothing to do
  EXPECT_EQ(Read(0, 20), Pattern(20, 10));
  EXPECT_EQ(Read(0, 39), Pattern(39, 100));
  EXPECT_TRUE(CheckProblems().empty());
}

TEST_F(DBArrayTest, ReopenFindsTheStoredBucketCount) {
  Open(3);
  ASSERT_EQ(Add(2, "kept"), 0u);
  ASSERT_TRUE(Commit()) << QWErrorMessage();
  CloseAll();
  ASSERT_TRUE(ArrayLengthSet(pathBuffer, 3));  // bytes of the caller's own stay untouched
  std::memcpy(pathBuffer, "abc", 3);
  MustOpenArena(0);
  int created = 1;
  ASSERT_NE(array = DBArrayNew(arena, &pathBuffer, dbatest::kPath, &created, 0, 7), nullptr) << QWErrorMessage();
  EXPECT_EQ(created, 0);
  EXPECT_EQ(DBArrayBucketCount(array), 3u);
  EXPECT_EQ(std::string(reinterpret_cast<char *>(pathBuffer), ArrayLength(pathBuffer)), "abc");
  EXPECT_EQ(Read(2, 0, OLDGEN), "kept");
  EXPECT_EQ(Read(2, 0, NEWGEN), "kept");
  // Another path holds nothing, and may not be created here.
  created = 0;
  EXPECT_TRUE(olibtest::Fails(DBArrayNew(arena, &pathBuffer, "other", &created, 0, 1), nullptr, 2));
  EXPECT_TRUE(olibtest::Fails(DBArrayNew(arena, &pathBuffer, "other", nullptr, 0, 0), nullptr, 22));
  EXPECT_TRUE(olibtest::Fails(DBArrayNew_(arena, &pathBuffer, "other", 1, &created, 0, 1), nullptr, 22));
  QWErrorClear();
}

// Usage counts the blocks' bytes and the bytes in use; a clear empties every bucket of the new generation, the
// committed one stays.
TEST_F(DBArrayTest, UsageAndClear) {
  Open(2);
  uint64_t used = 7;
  EXPECT_EQ(DBArrayUsage(array, 0, NEWGEN, &used), 0u);
  EXPECT_EQ(used, 0u);
  for (uint32_t h = 0; h < 300; ++h) Add(h % 2, Pattern(h, h % 90));
  uint64_t total = 0, inUse = 0;
  for (uint32_t b = 0; b < BlockCount(0); ++b) {
    const std::string block = BlockBytes(0, b);
    total += block.size();
    inUse += 4 + 2 * olibtest::LE(block, 0, 2) + olibtest::LE(block, 2, 2);
  }
  EXPECT_EQ(DBArrayUsage(array, 0, NEWGEN, &used), total);
  EXPECT_EQ(used, inUse);
  EXPECT_EQ(DBArrayUsage(array, 0, OLDGEN, &used), 0u);  // nothing committed
  ASSERT_TRUE(Commit());
  EXPECT_EQ(DBArrayUsage(array, 0, OLDGEN, &used), total);
  EXPECT_EQ(used, inUse);
  ASSERT_TRUE(DBArrayClear(array, NEWGEN)) << QWErrorMessage();
  for (uint32_t b = 0; b < 2; ++b) {
    EXPECT_EQ(DBArraySize(array, b, NEWGEN), 0u);
    EXPECT_EQ(BlockCount(b), 0u);
    EXPECT_EQ(DBArraySize(array, b, OLDGEN), 150u);
  }
  EXPECT_EQ(Add(1, "again"), 0u);
  EXPECT_EQ(Read(1, 0), "again");
  EXPECT_TRUE(CheckProblems().empty());
}

// Hint reads hold the whole block; prefetches load it and leave the caller's lock as it was; lock registration leaves
// the array usable.
TEST_F(DBArrayTest, HintPrefetchAndLockRegistration) {
  Open(2);
  for (uint32_t h = 0; h < 100; ++h) Add(0, Pattern(h, 60));
  const U first = Entries("firstHandle", 0);
  ASSERT_GT(first.size(), 1u);
  const void *block = DBArrayHintGet(array, 0, uint32_t(first[1] + 1), NEWGEN);
  ASSERT_NE(block, nullptr) << QWErrorMessage();
  const std::string expected = BlockBytes(0, 1);
  EXPECT_EQ(std::string(static_cast<const char *>(block), expected.size()), expected);
  DBArrayRelease(array, NEWGEN, 1, block);

  ASSERT_TRUE(Commit());
  DBArrayPrefetch(array, 0, 10, NEWGEN);
  DBArrayPrefetch(array, 0, 10, OLDGEN);
  DBArrayPrefetch(array, 0, 5000, NEWGEN);  // missing: ignored
  QWRWLock *lock = RWLockInit();
  RWLockAcquireRead_(lock);
  EXPECT_EQ(DBArrayPrefetchLocked(array, 0, 10, lock, 0, OLDGEN), 1) << QWErrorMessage();
  EXPECT_EQ(DBArrayPrefetchLocked(array, 0, 5000, lock, 0, NEWGEN), 1);
  EXPECT_EQ(DBArrayPrefetchLocked(array, 0, 99, nullptr, 0, NEWGEN), 1);
  RWLockRelease_(lock);  // held exactly once again
  RWLockAcquireWrite_(lock);
  RWLockRelease_(lock);
  RWLockDestroy(lock);
  EXPECT_EQ(DBArrayMSync(array), 1);

  EXPECT_EQ(DBArrayLockRegister(array, 1, NEWGEN), 1) << QWErrorMessage();
  EXPECT_EQ(DBArrayLockRegister(array, 1, OLDGEN), 1) << QWErrorMessage();
  EXPECT_EQ(Add(0, "after"), 100u);
  EXPECT_EQ(Read(0, 100), "after");
  EXPECT_EQ(Read(0, 10, OLDGEN), Pattern(10, 60));
}

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

// One kind of damage to a block (bytes at an offset of it, or, for an offset -1 - i, firstHandle entry i set to 5), the
// messages DBArrayCheck gives for it (with "%s" standing for the block's phys text), and a handle whose read must then
// fail naming the invariant.
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
  // Bucket 0: 20 elements of 10 bytes in one block (indexSize 2, dataSize 220); bucket 1: 6 elements of 1502 bytes, two
  // to a block.
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

// Random damage to blocks and directories: every operation either works or fails with an error; none reads or writes
// outside a block (the sanitizer builds catch that) or crashes.
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
