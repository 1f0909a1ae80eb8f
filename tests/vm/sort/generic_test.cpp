// Generic sorter and key/multi-value entries: the entry bytes, decoding
// limits, the writer's edge cases, random sorts against a model in every mode,
// and a compressed merge killed in a child after a checkpoint, then finished.
#include <algorithm>
#include <cstring>
#include <filesystem>
#include <map>
#include <random>

#include "platform/qwlib/fault.h"
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
  // Closes and opens an empty sorter.
  void Fresh(int reverse, int compareValues, int compress) {
    Close();
    std::filesystem::remove_all(dir() + "/meta");
    std::filesystem::remove_all(dir() + "/data");
    Open(reverse, compareValues, compress);
  }
  // Every entry of the single run left, as (key, value) pairs in order, the
  // entries' keys and each pair's entry number.
  std::vector<Pair> Result(std::vector<std::string> *keys = nullptr, std::vector<size_t> *entryOf = nullptr) {
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
        if (entryOf) entryOf->push_back(keys ? keys->size() : 0);
        at += entry->valueLengths[i];
      }
    }
    EXPECT_EQ(r, 0) << QWErrorMessage();
    KMVEntryDelete(entry);
    KMVReaderDelete(reader);
    return pairs;
  }
  // Writes random pairs (short keys over the bytes 0, 'a' and 255: many
  // duplicates and prefixes, some ending on either side of 8 and 16 bytes)
  // in runs of at most `perRun` pairs; returns them. Values are the pairs'
  // writing order, six digits.
  std::vector<Pair> WriteRandom(uint32_t count, uint32_t perRun, uint32_t seed, uint32_t maxKey = 4) {
    std::mt19937 random(seed);
    std::vector<Pair> pairs;
    GenericDBSorterWriter *writer = GenericDBSorterWriterNew(sorter, 1 << 20);
    for (uint32_t i = 0; i < count; ++i) {
      std::string key(random() % maxKey, 'a'), value = std::to_string(1000000 + i).substr(1);
      for (char &c : key) c = "\0a\xff"[random() % 3];
      if (random() % 4 == 0) key.insert(0, 6 + random() % 12, 'a');
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

// In every mode: merged down to three runs with a fan-in of five (nine runs
// become five, then three: the second merge takes only as many as that
// needs), a scan of them gives every key in order, as many records as were
// written, and the same again; then sorted to one run with a fan-in of three,
// keys in order, values of an entry in writing order or by value when asked
// (reversed with the keys), every pair once, never more entries of a key
// than runs.
TEST_F(GenericSorterTest, RandomSortsMatchTheModelInEveryMode) {
  for (int mode = 0; mode < 8; ++mode) {
    const int reverse = mode & 1, compareValues = (mode >> 1) & 1, compress = (mode >> 2) & 1;
    SCOPED_TRACE(mode);
    Fresh(reverse, compareValues, compress);
    std::vector<Pair> model = WriteRandom(6000, 700, 3 + mode);  // 9 runs
    auto keyOrder = [&](const auto &a, const auto &b) { return reverse ? a.first > b.first : a.first < b.first; };
    ASSERT_TRUE(GenericDBSorterSortDownTo(sorter, 5 * 8192, 250, 3)) << QWErrorMessage();
    uint32_t *runs = nullptr;
    EXPECT_TRUE(DBSorterGetRunToMerge(sorter->dbs, &runs, UINT64_MAX));
    EXPECT_EQ(ArrayLength(runs), 3u);
    ArrayFree(runs);
    using Scanned = std::vector<std::pair<std::string, uint64_t>>;
    Scanned first, second;
    for (Scanned *scan : {&first, &second})
      ASSERT_TRUE(GenericDBSorterScan(
          sorter,
          [](void *context, const KMVEntryView *entry) {
            static_cast<Scanned *>(context)->emplace_back(
                std::string(reinterpret_cast<const char *>(entry->key), entry->keyLength), entry->records);
            return 1;
          },
          scan))
          << QWErrorMessage();
    EXPECT_EQ(first, second);
    EXPECT_TRUE(std::is_sorted(first.begin(), first.end(), keyOrder));
    std::map<std::string, uint64_t> expected, scanned;
    for (const auto &pair : model) ++expected[pair.first];
    for (const auto &[key, records] : first) scanned[key] += records;
    EXPECT_EQ(scanned, expected);

    ASSERT_TRUE(GenericDBSorterSort(sorter, 3 * 8192, 250)) << QWErrorMessage();
    std::vector<std::string> keys;
    std::vector<size_t> entryOf;
    std::vector<Pair> got = Result(&keys, &entryOf);
    EXPECT_TRUE(std::is_sorted(got.begin(), got.end(), keyOrder));
    for (size_t i = 1; i < got.size(); ++i)
      EXPECT_TRUE(entryOf[i] != entryOf[i - 1] || (got[i - 1].second < got[i].second) == !(reverse && compareValues))
          << i;
    std::sort(got.begin(), got.end());
    std::sort(model.begin(), model.end());
    EXPECT_EQ(got, model);
    std::map<std::string, int> entriesPerKey;
    for (const auto &key : keys) ++entriesPerKey[key];
    for (const auto &[key, n] : entriesPerKey) EXPECT_LE(n, 9) << key;
  }
}

// A flush's run, byte for byte, against the plain algorithm: records sorted
// with the record comparator (equal records in writing order), equal keys
// grouped into one entry (field 0, key, values, lengths, counts of 1) by the
// entry encoder, each framed alone, or (compressing) appended until 1 MiB is
// pending, then deflated as one payload. The same entries written through
// KMVWriterWriteEntry make the same run, and the flush leaves the writer's
// entry holding its last one.
TEST_F(GenericSorterTest, FlushWritesTheEntriesOfTheRecordOrderByteForByte) {
  struct Record {
    std::string key, value;
  };
  for (int mode = 0; mode < 8; ++mode) {
    const int reverse = mode & 1, compareValues = (mode >> 1) & 1, compress = (mode >> 2) & 1;
    SCOPED_TRACE(mode);
    Fresh(reverse, compareValues, compress);
    std::mt19937 random(mode);
    std::vector<Record> records;
    GenericDBSorterWriter *writer = GenericDBSorterWriterNew(sorter, 1 << 20);
    for (int i = 0; i < (compress ? 1500 : 400); ++i) {
      Record r{std::string(random() % 11, 'a'), std::string(compress ? 1000 : random() % 3, 'v')};
      for (char &c : r.key) c = "\0a\xff"[random() % 3];
      for (char &c : r.value) c = "\0z\xff"[random() % 3];
      ASSERT_TRUE(GenericDBSorterWrite(writer, r.key.data(), uint32_t(r.key.size()), r.value.data(),
                                       uint32_t(r.value.size())));
      records.push_back(r);
    }
    ASSERT_EQ(GenericDBSorterFlush(writer), 1) << QWErrorMessage();
    const std::vector<uint8_t> lastEntry = Encode(writer->entry);
    DBSEntryWriter kmvRun;
    ASSERT_TRUE(DBSEntryWriterInit(&kmvRun, sorter->dbs, DBSorterNewRunID(sorter->dbs)));
    auto compare = [&](const Record &a, const Record &b) {
      int c = a.key.compare(b.key) < 0 ? -1 : a.key != b.key;  // std::string compares bytes unsigned
      if (c == 0 && compareValues) c = a.value.compare(b.value) < 0 ? -1 : a.value != b.value;
      return (reverse ? -c : c) < 0;
    };
    std::stable_sort(records.begin(), records.end(), compare);
    std::vector<uint8_t> expected, pending;
    auto frame = [&](const uint8_t *bytes, size_t length) {
      const uint8_t header[4] = {uint8_t(length), uint8_t(length >> 8), uint8_t(length >> 16), uint8_t(length >> 24)};
      expected.insert(expected.end(), header, header + 4);
      expected.insert(expected.end(), bytes, bytes + length);
    };
    ZFlow *flow = ZFlowNewCompress(2, 6);
    int payloads = 0;
    auto deflate = [&] {
      ++payloads;
      uint8_t *packed = nullptr;
      ASSERT_TRUE(ZFlowSetCompress(flow, 1, 2, 6) && ZFlowCompress(flow, pending.data(), pending.size(), &packed));
      frame(packed, ArrayLength(packed));
      ArrayFree(packed);
      pending.clear();
    };
    KMVEntry *entry = writer->entry;
    std::vector<uint8_t> bytes;
    for (size_t first = 0, next; first < records.size(); first = next) {
      ASSERT_TRUE(KMVEntryReInit(entry));
      ASSERT_TRUE(ArrayGrow(entry->key, records[first].key.size()));
      std::memcpy(entry->key, records[first].key.data(), records[first].key.size());
      for (next = first; next < records.size() && records[next].key == records[first].key; ++next) {
        const std::string &value = records[next].value;
        const size_t at = ArrayLength(entry->values);
        ASSERT_TRUE(ArrayGrow(entry->values, value.size()));
        std::memcpy(entry->values + at, value.data(), value.size());
        ASSERT_TRUE(ArrayAppend(entry->valueLengths, uint32_t(value.size())) && ArrayAppend(entry->counts, 1u));
      }
      bytes = Encode(entry);
      ASSERT_TRUE(KMVWriterWriteEntry(writer, &kmvRun)) << QWErrorMessage();
      if (!compress) frame(bytes.data(), bytes.size());
      pending.insert(pending.end(), bytes.begin(), bytes.end());
      if (compress && pending.size() >= COMPRESSOR_THRESHOLD) deflate();
    }
    if (compress && !pending.empty()) deflate();
    EXPECT_EQ(payloads, compress ? 2 : 0);  // 1.5 MB of values: cut once
    EXPECT_TRUE(lastEntry == bytes);
    ASSERT_TRUE(KMVWriterFlush(writer, &kmvRun) && DBSEntryWriterFlush(&kmvRun)) << QWErrorMessage();
    GenericDBSorterWriterDelete(writer);
    ZFlowDelete(flow);
    for (uint32_t run : {0u, kmvRun.runIndex}) {  // the flush's, then KMVWriterWriteEntry's
      ASSERT_EQ(DBSorterRunLength(sorter->dbs, run), expected.size()) << run;
      std::vector<uint8_t> got(expected.size());
      DBSEntryReader reader;
      ASSERT_TRUE(DBSEntryReaderInit(&reader, sorter->dbs, run, 0));
      EXPECT_EQ(DBSEntryReaderReadBytes(&reader, got.data(), uint32_t(got.size()), 0, 0), 1);
      DBSEntryReaderClose(&reader);
      EXPECT_TRUE(got == expected) << run;
    }
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
  // Each key then its value joins the pending bytes; one record per pair.
  const uint32_t pending[3][5] = {{0, 3, 3, 1, 1}, {4, 2, 6, 1, 1}, {7, 2, 9, 1, 1}};
  ASSERT_EQ(ArrayLength(writer->records), 3u);
  EXPECT_EQ(std::memcmp(writer->records, pending, sizeof pending), 0);
  EXPECT_EQ(std::string(reinterpret_cast<char *>(writer->bytes), ArrayLength(writer->bytes)), "abc1ab2ab3");
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

// Every millionth pair added reports "written = %d" (level 1) with the
// writer's pending bytes: two rounds of a million 2-byte pairs report once
// each, 2000000 bytes apart (the pair counter would be 1000000 apart). A
// merge that cannot read its runs reports "SORT ERROR" (level 2).
TEST_F(GenericSorterTest, MessagesOfTheWriterAndOfAFailedSort) {
  Open(0, 0, 0);
  constexpr uint32_t kPairs = 1000000;
  std::vector<uint32_t> offsets(kPairs + 1);
  for (uint32_t i = 0; i <= kPairs; ++i) offsets[i] = i;
  const std::string bytes(kPairs, 'k');
  const auto *data = reinterpret_cast<const uint8_t *>(bytes.data());
  GenericDBSorterWriter *writer = GenericDBSorterWriterNew(sorter, 4 * kPairs);
  std::vector<long> reported;
  for (int round = 0; round < 2; ++round) {
    qwtest::MessageCapture messages;
    ASSERT_EQ(GenericDBSorterMultiWrite(writer, data, offsets.data(), kPairs + 1, data, offsets.data(), kPairs + 1),
              int(kPairs));
    for (const auto &m : messages.messages())
      if (m.text.rfind("written = ", 0) == 0) {
        EXPECT_EQ(m.level, QW_LEVEL_DEBUG);
        reported.push_back(std::stol(m.text.substr(10)));
      }
  }
  GenericDBSorterWriterDelete(writer);
  ASSERT_EQ(reported.size(), 2u);
  EXPECT_EQ(reported[1] - reported[0], 2 * long(kPairs));
  EXPECT_EQ(reported[0] % 2, 0);
  WriteRandom(100, 50, 1);
  ASSERT_TRUE(GenericDBSorterCommit(sorter));
  qwtest::MessageCapture messages;
  qw::fault::Reset();
  qw::fault::FailPath("data/data", qw::fault::Bit(qw::fault::Op::Map));
  EXPECT_FALSE(GenericDBSorterSort(sorter, 1 << 20, 0));
  qw::fault::Disable();
  EXPECT_TRUE(messages.contains("SORT ERROR", QW_LEVEL_PROGRESS));
  EXPECT_FALSE(GenericDBSorterClose(sorter));  // its commit is refused: the failed merge is dropped
  sorter = nullptr;
  Open(0, 0, 0);
  EXPECT_TRUE(GenericDBSorterSort(sorter, 1 << 20, 0)) << QWErrorMessage();
  EXPECT_EQ(Result().size(), 100u);
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
