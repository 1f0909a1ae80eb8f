// Block-directory arrays: the stored format (exact block bytes, length
// prefixes, index entries, directory), the edge cases of add, get, set,
// resize, clear and open the model does not reach, and the auxiliary calls.
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
  // An empty element and a missing handle both read as absent, without an
  // error; a set makes no handle.
  QWErrorClear();
  for (uint32_t absent : {2u, 3u, 64u, 0xFFFFFFFEu}) EXPECT_EQ(Read(0, absent), std::nullopt) << absent;
  EXPECT_EQ(DBArrayHintGet(array, 0, 3, NEWGEN), nullptr);
  EXPECT_FALSE(QWErrorIsSet()) << QWErrorMessage();
  EXPECT_FALSE(DBArraySet(array, 0, 3, NEWGEN, "x", 1));
  EXPECT_EQ(QWErrorCode(), 2);
  QWErrorClear();
}

TEST_F(DBArrayTest, LengthPrefixKeepsTheContinuationFlagInTheLowBit) {
  const std::pair<uint32_t, std::string> cases[] = {
      {0, Bytes({0x00})},         {1, Bytes({0x02})},         {127, Bytes({0xFE})},
      {128, Bytes({0x01, 0x02})}, {300, Bytes({0x59, 0x04})}, {4090, Bytes({0xF5, 0x3E})},
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
  // 4 + 68 data + 2 entries = 76 bytes: the block grew to 88, its index
  // moved along to the new end.
  block = BlockBytes(0, 0);
  ASSERT_EQ(block.size(), 88u);
  EXPECT_EQ(block.substr(0, 4), Bytes({2, 0, 68, 0}));
  EXPECT_EQ(block.substr(84, 4), Bytes({64, 0, 32, 0}));
  for (uint32_t h = 0; h < 17; ++h) EXPECT_EQ(Read(0, h), "xyz") << h;
  EXPECT_TRUE(CheckProblems().empty());
}

TEST_F(DBArrayTest, LargestElementFitsAFreshMaximalBlock) {
  Open(1);
  const std::string big = Pattern(7, DBARRAY_MAX_ELEMENT_SIZE);
  ASSERT_EQ(Add(0, big), 0u) << QWErrorMessage();
  ASSERT_EQ(BlockCount(0), 1u);
  const std::string block = BlockBytes(0, 0);
  ASSERT_EQ(block.size(), 4096u);
  EXPECT_EQ(block.substr(0, 6), Bytes({0, 0, 0xFC, 0x0F, 0xF5, 0x3E}));  // dataSize 4092
  ASSERT_EQ(Add(0, big), 1u);
  EXPECT_EQ(BlockCount(0), 2u);
  EXPECT_EQ(Entries("firstHandle", 0), (U{0, 1}));
  EXPECT_EQ(Read(0, 0), big);
  EXPECT_EQ(Read(0, 1), big);
  EXPECT_TRUE(CheckProblems().empty());
}

// 40 elements of 101 bytes fill one block; growing element 20 splits it at
// the middle (the end of element 19); shrinking it merges the blocks again.
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
  EXPECT_EQ(DBArrayNew(arena, &pathBuffer, "other", &created, 0, 1), nullptr);
  EXPECT_EQ(QWErrorCode(), 2);
  EXPECT_EQ(DBArrayNew(arena, &pathBuffer, "other", nullptr, 0, 0), nullptr);
  EXPECT_EQ(QWErrorCode(), 22);
  EXPECT_EQ(DBArrayNew_(arena, &pathBuffer, "other", 1, &created, 0, 1), nullptr);
  EXPECT_EQ(QWErrorCode(), 22);
  QWErrorClear();
}

// Usage counts the blocks' bytes and the bytes in use; a clear empties every
// bucket of the new generation, the committed one stays.
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

// Hint reads hold the whole block; prefetches load it and leave the caller's
// lock as it was; lock registration leaves the array usable.
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

}  // namespace
