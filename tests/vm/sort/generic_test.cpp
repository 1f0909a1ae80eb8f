// Generic sorter and key/multi-value entries: the entry bytes, decoding
// limits, the writer's edge cases, random sorts against a model in every mode,
// and a compressed merge killed in a child after a checkpoint, then finished.
#include <algorithm>
#include <cstring>
#include <filesystem>
#include <map>
#include <random>

#include "qwvm/qwvm.h"
#include "support/test_support.h"

namespace {

using Pair = std::pair<std::string, std::string>;

std::vector<uint8_t> Encode(const KMVEntry *entry) {
  uint8_t *buffer = nullptr;
  EXPECT_TRUE(KMVEntryWriteToBuff(entry, &buffer));
  std::vector<uint8_t> bytes(buffer, buffer + ArrayLength(buffer));
  ArrayFree(buffer);
  return bytes;
}

TEST(KMVEntryTest, EncodingIsTheVarintListsAndDecodesOnlyWhole) {
  KMVEntry *entry = KMVEntryNew(), *back = KMVEntryNew();
  ASSERT_TRUE(ArrayGrow(entry->key, 2) && ArrayGrow(entry->values, 3));
  std::memcpy(entry->key, "ab", 2);
  std::memcpy(entry->values, "xyz", 3);
  ASSERT_TRUE(ArrayAppend(entry->valueLengths, 2u) && ArrayAppend(entry->valueLengths, 200u));
  ASSERT_TRUE(ArrayAppend(entry->counts, 1u));
  entry->field = 5;
  const std::vector<uint8_t> bytes = Encode(entry);
  // field, key length + bytes, values length + bytes, 2 lengths (200 takes two
  // bytes: 0x48 << 1 | 1, 1 << 1), 1 count.
  EXPECT_EQ(bytes, (std::vector<uint8_t>{10, 4, 'a', 'b', 6, 'x', 'y', 'z', 4, 4, 0x91, 2, 2, 2}));
  ASSERT_TRUE(KMVEntryReadFromBuff(back, bytes.data(), uint32_t(bytes.size())));
  EXPECT_EQ(Encode(back), bytes);
  std::vector<uint8_t> longer = bytes;
  longer.push_back(0);
  EXPECT_FALSE(KMVEntryReadFromBuff(back, longer.data(), uint32_t(longer.size())));
  for (size_t cut = 0; cut < bytes.size(); ++cut) EXPECT_FALSE(KMVEntryReadFromBuff(back, bytes.data(), uint32_t(cut)));
  ASSERT_TRUE(KMVEntryReInit(back));
  EXPECT_EQ(Encode(back), (std::vector<uint8_t>{0, 0, 0, 0, 0}));
  KMVEntryDelete(entry);
  KMVEntryDelete(back);
}

class GenericSorterTest : public qwtest::TempDirTest {
 protected:
  void TearDown() override {
    Close();
    TempDirTest::TearDown();
  }
  void Open(int reverse, int compareValues, int compress) {
    sorter = GenericDBSorterNew(dir().c_str(), 2, 8192, 0, reverse, compareValues, compress);
    ASSERT_NE(sorter, nullptr) << QWErrorMessage();
  }
  void Close() {
    EXPECT_TRUE(!sorter || GenericDBSorterClose(sorter));
    sorter = nullptr;
  }
  // Every entry of the single run left, as (key, value) pairs in order, and
  // the entries' keys.
  std::vector<Pair> Result(std::vector<std::string> *keys = nullptr) {
    std::vector<Pair> pairs;
    const uint32_t run = DBSorterMergedRunID(sorter->dbs);
    if (run == DBS_NO_RUN) return pairs;
    KMVReader *reader = KMVReaderNew(sorter, run);
    KMVEntry *entry = KMVEntryNew();
    int r;
    while ((r = KMVReaderReadEntry(reader, entry)) == 1) {
      const std::string key(reinterpret_cast<char *>(entry->key), ArrayLength(entry->key));
      if (keys) keys->push_back(key);
      size_t at = 0;
      for (size_t i = 0; i < ArrayLength(entry->valueLengths); ++i) {
        EXPECT_EQ(entry->counts[i], 1u);
        pairs.emplace_back(key, std::string(reinterpret_cast<char *>(entry->values) + at, entry->valueLengths[i]));
        at += entry->valueLengths[i];
      }
    }
    EXPECT_EQ(r, 0) << QWErrorMessage();
    KMVEntryDelete(entry);
    KMVReaderDelete(reader);
    return pairs;
  }
  // Writes random pairs (short keys over a small alphabet: many duplicates
  // and prefixes) in runs of at most `perRun` pairs; returns them.
  std::vector<Pair> WriteRandom(uint32_t count, uint32_t perRun, uint32_t seed, uint32_t maxKey = 4) {
    std::mt19937 random(seed);
    std::vector<Pair> pairs;
    GenericDBSorterWriter *writer = GenericDBSorterWriterNew(sorter, 1 << 20);
    for (uint32_t i = 0; i < count; ++i) {
      std::string key(random() % maxKey, 'a'), value = std::to_string(random() % 1000);
      for (char &c : key) c = char('a' + random() % 3);
      if (random() % 50 == 0) key.append(300, 'q');
      EXPECT_TRUE(GenericDBSorterWrite(writer, key.data(), uint32_t(key.size()), value.data(), uint32_t(value.size())));
      pairs.emplace_back(key, value);
      EXPECT_TRUE((i + 1) % perRun != 0 || GenericDBSorterFlush(writer) == 1) << QWErrorMessage();
    }
    EXPECT_GE(GenericDBSorterFlush(writer), 0);
    GenericDBSorterWriterDelete(writer);
    return pairs;
  }
  GenericDBSorter *sorter = nullptr;
};

TEST_F(GenericSorterTest, RandomSortsMatchTheModelInEveryMode) {
  for (int mode = 0; mode < 8; ++mode) {
    const int reverse = mode & 1, compareValues = (mode >> 1) & 1, compress = (mode >> 2) & 1;
    SCOPED_TRACE(mode);
    Close();
    std::filesystem::remove_all(dir() + "/meta");
    std::filesystem::remove_all(dir() + "/data");
    Open(reverse, compareValues, compress);
    std::vector<Pair> model = WriteRandom(6000, 700, 3 + mode);
    ASSERT_TRUE(GenericDBSorterSort(sorter, 3 * 8192, 250)) << QWErrorMessage();  // fan-in 3: several passes
    std::vector<std::string> keys;
    std::vector<Pair> got = Result(&keys);
    auto keyOrder = [&](const Pair &a, const Pair &b) { return reverse ? a.first > b.first : a.first < b.first; };
    EXPECT_TRUE(std::is_sorted(got.begin(), got.end(), keyOrder));
    std::vector<Pair> sortedGot = got, sortedModel = model;
    std::sort(sortedGot.begin(), sortedGot.end());
    std::sort(sortedModel.begin(), sortedModel.end());
    EXPECT_EQ(sortedGot, sortedModel);
    // One entry per key and run: never more entries of a key than runs.
    std::map<std::string, int> entriesPerKey;
    for (const auto &key : keys) ++entriesPerKey[key];
    for (const auto &[key, n] : entriesPerKey) EXPECT_LE(n, 9) << key;
  }
}

TEST_F(GenericSorterTest, WriterEdgeCases) {
  Open(0, 1, 0);
  GenericDBSorterWriter *writer = GenericDBSorterWriterNew(sorter, 4096);
  // Nothing pending: no run (a run id taken here would keep the one real
  // run from being the merged run that Result reads).
  EXPECT_EQ(GenericDBSorterFlush(writer), 0);
  const uint8_t keys[] = "abcabab", values[] = "123";
  const uint32_t keyIdx[] = {0, 3, 5, 7}, valueIdx[] = {0, 1, 2, 3};
  EXPECT_EQ(GenericDBSorterMultiWrite(writer, keys, keyIdx, 1, values, valueIdx, 1), 0);
  EXPECT_EQ(GenericDBSorterMultiWrite(writer, keys, keyIdx, 4, values, valueIdx, 4), 3);
  EXPECT_DEATH(GenericDBSorterMultiWrite(writer, keys, keyIdx, 4, values, valueIdx, 3), "keyIdx_len == valueIdx_len");
  EXPECT_EQ(GenericDBSorterFlush(writer), 1);
  GenericDBSorterWriterDelete(writer);
  EXPECT_DEATH(GenericDBSorterWriterNew(sorter, 1ull << 32), "maxRunLength <= UINT_MAX_VALUE");
  ASSERT_TRUE(GenericDBSorterSort(sorter, 1 << 20, 0));
  std::vector<std::string> entryKeys;
  // "ab" (twice, one entry, values in order) before its extension "abc".
  EXPECT_EQ(Result(&entryKeys), (std::vector<Pair>{{"ab", "2"}, {"ab", "3"}, {"abc", "1"}}));
  EXPECT_EQ(entryKeys, (std::vector<std::string>{"ab", "abc"}));
}

TEST_F(GenericSorterTest, CompressedMergeKilledAfterACheckpointResumes) {
  Open(0, 0, 1);
  std::vector<Pair> model = WriteRandom(20000, 5000, 9, 12);  // mostly distinct keys
  Close();
  // The first checkpoint's commit is durable before its memory step, where
  // the child stops.
  const qwtest::ChildResult child = qwtest::RunInChild([&] {
    QWSetEnvironmentVariable("QWEXIT", "arenaflushcommitmemory1");
    QWSetEnvironmentVariable("QWVMEXIT", (dir() + "/meta").c_str());
    GenericDBSorter *own = GenericDBSorterNew(dir().c_str(), 2, 8192, 0, 0, 0, 1);
    if (own) (void)GenericDBSorterSort(own, 1 << 20, 3000);
  });
  ASSERT_TRUE(child.exited);
  ASSERT_EQ(child.exitStatus, 1);
  Open(0, 0, 1);
  ASSERT_TRUE(DBSorterMergePending(sorter->dbs));
  ASSERT_TRUE(GenericDBSorterSort(sorter, 1 << 20, 3000));
  std::vector<Pair> got = Result();
  std::stable_sort(model.begin(), model.end(), [](const Pair &a, const Pair &b) { return a.first < b.first; });
  ASSERT_EQ(got.size(), model.size());
  for (size_t i = 0; i < got.size(); ++i) ASSERT_EQ(got[i].first, model[i].first) << i;
}

}  // namespace
