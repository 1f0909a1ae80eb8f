// Run sorter: merges of random runs against std::sort in several passes, the
// heap's tie rules, the choice of runs and run ids, reopening, and merges
// killed in a child (at each commit stop of a checkpoint, at entry counts)
// then finished by a reopened sorter, and a run block whose write was lost.
// (The fault campaign's sort workload fails every file operation in turn.)
#include <algorithm>
#include <cstring>
#include <filesystem>
#include <random>
#include <string>

#include "platform/qwlib/fault.h"
#include "qwvm/qwvm.h"
#include "support/test_support.h"
#include "util/heap.h"
#include "vm/sort/dbs_internal.h"

namespace {

constexpr uint32_t kBlock = 4096;

// Entries are 8-byte keys; a heap item is the input number and its key.
struct Item {
  uint32_t input, pad;
  uint64_t key;
};

struct KeyMerge {
  int64_t crashAfter = -1;  // a child ends itself after this many entries
  const char *stop = nullptr;  // or arms this arena stop after 1500 entries
  std::string meta;
  int64_t emitted = 0;

  static int ReadFirst(void *, DBSEntryReader *reader, uint32_t input, void *item) {
    auto *it = static_cast<Item *>(item);
    it->input = input;
    return DBSEntryReaderReadBytes(reader, &it->key, 8, 1, 1);
  }
  // The saved state is the item itself, pushed back as it is on restore.
  static int Save(void *, const void *item, uint32_t *input, uint8_t **buffer) {
    *input = static_cast<const Item *>(item)->input;
    const size_t at = ArrayLength(*buffer);
    if (!ArrayGrow(*buffer, sizeof(Item))) return 0;
    std::memcpy(*buffer + at, item, sizeof(Item));
    return 1;
  }
  static int Compare(const void *a, const void *b, void *) {
    const uint64_t x = static_cast<const Item *>(a)->key, y = static_cast<const Item *>(b)->key;
    return x < y ? -1 : x > y;
  }
  static int Advance(void *context, void *item, DBSEntryReader *readers, DBSEntryWriter *writer) {
    auto *self = static_cast<KeyMerge *>(context);
    if (self->crashAfter >= 0 && self->emitted == self->crashAfter) _exit(1);
    if (self->stop && self->emitted == 1500) {
      QWSetEnvironmentVariable("QWEXIT", self->stop);
      QWSetEnvironmentVariable("QWVMEXIT", self->meta.c_str());
    }
    ++self->emitted;
    auto *it = static_cast<Item *>(item);
    if (!DBSEntryWriterWriteBytes(writer, &it->key, 8)) return -1;
    return DBSEntryReaderReadBytes(&readers[it->input], &it->key, 8, 1, 1);
  }
  DBSMergeCallbacks Callbacks() {
    DBSMergeCallbacks callbacks{};  // no restoreState, saveWriter, restoreWriter, final
    callbacks.readFirst = ReadFirst;
    callbacks.saveState = Save;
    callbacks.compare = Compare;
    callbacks.advance = Advance;
    callbacks.context = this;
    callbacks.itemSize = sizeof(Item);
    return callbacks;
  }
};

class DBSorterTest : public qwtest::TempDirTest {
 protected:
  void TearDown() override {
    Close();
    TempDirTest::TearDown();
  }
  void Open(uint32_t blockSize = kBlock) {
    ASSERT_NE(dbs = DBSorterNew(dir().c_str(), 2, blockSize, 0), nullptr) << QWErrorMessage();
  }
  void Close() {
    DBSorterClose(dbs);
    dbs = nullptr;
  }
  uint32_t AddRun(std::vector<uint64_t> keys) {
    std::sort(keys.begin(), keys.end());
    const uint32_t id = DBSorterRunAdd(dbs, keys.data(), keys.size() * 8);
    EXPECT_NE(id, DBS_NO_RUN) << QWErrorMessage();
    return id;
  }
  std::vector<uint64_t> ReadRun(uint32_t id) {
    std::vector<uint64_t> keys(DBSorterRunLength(dbs, id) / 8);
    DBSEntryReader reader;
    EXPECT_TRUE(DBSEntryReaderInit(&reader, dbs, id, 0));
    for (auto &key : keys) EXPECT_EQ(DBSEntryReaderReadBytes(&reader, &key, 8, 0, 0), 1) << QWErrorMessage();
    uint8_t byte;
    EXPECT_EQ(DBSEntryReaderReadByte(&reader, &byte, 0, 0), 0);
    DBSEntryReaderClose(&reader);
    return keys;
  }
  // Random runs of 1 .. maxKeys keys (duplicates frequent); returns all keys.
  std::vector<uint64_t> AddRandomRuns(uint32_t runs, uint32_t maxKeys, uint32_t seed) {
    std::mt19937_64 random(seed);
    std::vector<uint64_t> all;
    for (uint32_t r = 0; r < runs; ++r) {
      std::vector<uint64_t> keys(1 + random() % maxKeys);
      for (auto &key : keys) key = random() % 5000;
      all.insert(all.end(), keys.begin(), keys.end());
      AddRun(keys);
    }
    return all;
  }
  // Merges until the run sorter chooses nothing; returns the last run.
  uint32_t MergeAll(uint64_t budget, uint64_t interval, KeyMerge *context) {
    DBSMergeCallbacks callbacks = context->Callbacks();
    uint32_t *runs = nullptr, output = DBS_NO_RUN;
    EXPECT_TRUE(DBSorterMerge(dbs, nullptr, 0, &output, &callbacks, interval)) << QWErrorMessage();
    while (DBSorterGetRunToMerge(dbs, &runs, budget))
      EXPECT_TRUE(DBSorterMerge(dbs, runs, uint32_t(ArrayLength(runs)), &output, &callbacks, interval))
          << QWErrorMessage();
    ArrayFree(runs);
    ArrayFree(callbacks.heap);
    return DBSorterMergedRunID(dbs);
  }
  DBSorter *dbs = nullptr;
};

TEST_F(DBSorterTest, MergingRandomRunsInManyPassesMatchesTheModel) {
  Open();
  std::vector<uint64_t> all = AddRandomRuns(23, 3000, 7);
  ASSERT_TRUE(DBSorterCommit(dbs));
  KeyMerge context;
  const uint32_t result = MergeAll(3 * kBlock, 500, &context);  // fan-in 3
  ASSERT_NE(result, DBS_NO_RUN);
  std::sort(all.begin(), all.end());
  EXPECT_EQ(ReadRun(result), all);
  // Merged inputs gave their blocks back: about two copies of the data, not one per pass.
  EXPECT_LT(DRBServerBlockCount(dbs->server), 3 * all.size() * 8 / kBlock);
  Close();
  Open();
  EXPECT_EQ(ReadRun(DBSorterMergedRunID(dbs)), all);
}

TEST_F(DBSorterTest, HeapSiftsTheParentDownOnTiesAndPrefersTheLeftChild) {
  // (key, tag): a parent equal to its left child moves down; of equal
  // children the left one rises.
  const struct {
    std::vector<std::pair<uint64_t, uint32_t>> heap;
    std::vector<uint32_t> tagsAfter;
  } cases[] = {
      {{{5, 0}, {5, 1}, {7, 2}}, {1, 0, 2}},
      {{{9, 0}, {4, 1}, {4, 2}}, {1, 0, 2}},
      {{{4, 0}, {6, 1}, {4, 2}}, {2, 1, 0}},
      {{{3, 0}, {6, 1}, {4, 2}}, {0, 1, 2}},
  };
  for (const auto &c : cases) {
    std::vector<Item> items;
    for (auto [key, tag] : c.heap) items.push_back({tag, 0, key});
    qw::HeapSiftDown(reinterpret_cast<uint8_t *>(items.data()), items.size(), sizeof(Item), 0, KeyMerge::Compare,
                     nullptr);
    std::vector<uint32_t> tags;
    for (const auto &it : items) tags.push_back(it.input);
    EXPECT_EQ(tags, c.tagsAfter);
  }
}

TEST_F(DBSorterTest, RunChoiceRunIdsAndReopening) {
  Open();
  uint32_t *runs = nullptr;
  AddRun(std::vector<uint64_t>(1500, 1));
  EXPECT_FALSE(DBSorterGetRunToMerge(dbs, &runs, 100 * kBlock));  // one live run
  const uint32_t b = AddRun({1, 2, 3});
  const uint32_t c = AddRun(std::vector<uint64_t>(700, 2));
  EXPECT_FALSE(DBSorterGetRunToMerge(dbs, &runs, 2 * kBlock - 1));  // below two blocks
  ASSERT_TRUE(DBSorterGetRunToMerge(dbs, &runs, 2 * kBlock));     // the two shortest
  ASSERT_EQ(ArrayLength(runs), 2u);
  EXPECT_EQ(runs[0], b);
  EXPECT_EQ(runs[1], c);
  KeyMerge context;
  DBSMergeCallbacks callbacks = context.Callbacks();
  uint32_t output = 0;
  ASSERT_TRUE(DBSorterMerge(dbs, runs, 2, &output, &callbacks, 0)) << QWErrorMessage();
  EXPECT_EQ(DBSorterRunLength(dbs, output), 703u * 8);
  // The last id freed by the merge is the next handed out; an id off the
  // free list with length 0 still keeps the merged id from being "the" run.
  const uint32_t reused = DBSorterNewRunID(dbs);
  EXPECT_EQ(reused, c);
  EXPECT_EQ(DBSorterMergedRunID(dbs), DBS_NO_RUN);
  ASSERT_TRUE(DBSorterCommit(dbs));
  Close();
  Open(8 * kBlock);  // reopening keeps the block size it was made with
  EXPECT_EQ(DBSorterBlockSize(dbs), kBlock);
  EXPECT_EQ(DBSorterRunLength(dbs, output), 703u * 8);
  testing::internal::CaptureStdout();
  DBSorterPrint(dbs);
  const std::string printed = testing::internal::GetCapturedStdout();
  for (const char *line : {"Printing dbs info\n", "blockSize = 4096\n", "run list length = 4\n",
                           "Run id = 0, size = 12000\n", "free list length = 1\n", "free  = 1\n"})
    EXPECT_NE(printed.find(line), std::string::npos) << line << printed;
  ArrayFree(runs);
  ArrayFree(callbacks.heap);
}

// A merge with checkpoints, killed in a child at each stop of the first
// checkpoint's arena commit (the second checkpoint), or at an entry count, is finished by a reopened
// sorter with exactly the model's result, and says "RESTORE MERGE".
TEST_F(DBSorterTest, MergeInterruptedByACrashResumesToTheSameResult) {
  struct Crash {
    const char *stop;
    int64_t afterEntries;
  } crashes[] = {{"arenaflushstart0", -1},        {"arenaflushexec1", -1},         {"arenaflushcommitdisk1", -1},
                 {"arenaflushcommitdisk3", -1},   {"arenaflushcommitmemory1", -1}, {nullptr, 0},
                 {nullptr, 1999},                 {nullptr, 2000},                 {nullptr, 4444}};
  for (const Crash &crash : crashes) {
    SCOPED_TRACE(crash.stop ? crash.stop : std::to_string(crash.afterEntries));
    Close();
    std::filesystem::remove_all(path("meta"));
    std::filesystem::remove_all(path("data"));
    Open();
    std::vector<uint64_t> all = AddRandomRuns(6, 2500, 11);
    ASSERT_TRUE(DBSorterCommit(dbs));
    Close();
    // The child opens the sorter itself: a forked process has no copy of the
    // parent's server threads.
    const std::string meta = dir() + "/meta";
    const qwtest::ChildResult child = qwtest::RunInChild([&] {
      DBSorter *own = DBSorterNew(dir().c_str(), 2, kBlock, 0);
      uint32_t *runs = nullptr;
      if (!own || !DBSorterGetRunToMerge(own, &runs, 100 * kBlock)) _exit(3);
      KeyMerge context;
      context.crashAfter = crash.afterEntries;
      context.stop = crash.stop;
      context.meta = meta;
      DBSMergeCallbacks callbacks = context.Callbacks();
      uint32_t output = 0;
      (void)DBSorterMerge(own, runs, uint32_t(ArrayLength(runs)), &output, &callbacks, 1000);
    });
    ASSERT_TRUE(child.exited);
    ASSERT_EQ(child.exitStatus, 1);
    Open();
    // Stops are armed after the first checkpoint (1000 entries) and hit at
    // the second.
    const bool pending = crash.stop || crash.afterEntries >= 1000;
    EXPECT_EQ(DBSorterMergePending(dbs), pending ? 1 : 0);
    qwtest::MessageCapture messages;
    KeyMerge context;
    testing::internal::CaptureStdout();
    const uint32_t result = MergeAll(100 * kBlock, 1000, &context);
    EXPECT_EQ(testing::internal::GetCapturedStdout(), pending ? "RESTORE MERGE\n" : "");
    EXPECT_EQ(messages.contains("RESTORE MERGE", QW_LEVEL_PROGRESS), pending);
    std::sort(all.begin(), all.end());
    ASSERT_NE(result, DBS_NO_RUN);
    EXPECT_EQ(ReadRun(result), all);
  }
}

// The first write of a run block fails once: the commit fails, the block is
// not read back, and no later commit publishes the run.
TEST_F(DBSorterTest, ALostRunBlockWriteIsNeitherReadNorPublished) {
  Open();
  qw::fault::Reset();
  qw::fault::FailNth(1, false, qw::fault::Bit(qw::fault::Op::Write), "/data/data");
  const uint32_t run = AddRun(std::vector<uint64_t>(1500, 7));
  EXPECT_FALSE(DBSorterCommit(dbs));
  EXPECT_NE(std::string(QWErrorMessage()).find("injected I/O error"), std::string::npos) << QWErrorMessage();
  qw::fault::Disable();
  QWErrorClear();
  DBSEntryReader reader;
  uint64_t key = 0;
  ASSERT_TRUE(DBSEntryReaderInit(&reader, dbs, run, 0));
  EXPECT_EQ(DBSEntryReaderReadBytes(&reader, &key, 8, 0, 0), -1);
  EXPECT_NE(std::string(QWErrorMessage()).find("was not written back"), std::string::npos) << QWErrorMessage();
  DBSEntryReaderClose(&reader);
  QWErrorClear();
  EXPECT_FALSE(DBSorterCommit(dbs));  // refused until reopened
  Close();
  Open();
  EXPECT_EQ(DBSorterRunLength(dbs, run), 0u);
}

// A run whose files cannot grow fails; every commit is then refused, with
// "Commit failed !!" last, until the sorter is reopened at its last commit.
TEST_F(DBSorterTest, AFailedWriteRefusesCommitsUntilReopened) {
  Open();
  qw::fault::Reset();
  qw::fault::FailPath("data/data0", qw::fault::Bit(qw::fault::Op::SetSize));
  EXPECT_EQ(DBSorterRunAdd(dbs, "abc", 3), DBS_NO_RUN);
  qw::fault::Disable();
  EXPECT_NE(std::string(QWErrorMessage()).find("Could not extend file"), std::string::npos) << QWErrorMessage();
  for (int attempt = 0; attempt < 2; ++attempt) {
    EXPECT_FALSE(DBSorterCommit(dbs));
    const std::string message = QWErrorMessage();
    EXPECT_EQ(message.substr(message.rfind('\n') + 1), "Commit failed !!") << message;
  }
  Close();
  Open();
  EXPECT_NE(DBSorterRunAdd(dbs, "abc", 3), DBS_NO_RUN);
  EXPECT_TRUE(DBSorterCommit(dbs)) << QWErrorMessage();
}

TEST_F(DBSorterTest, MisuseFailsItsAssertions) {
  Open();
  const uint32_t a = AddRun({1, 2}), b = AddRun({3});
  KeyMerge context;
  DBSMergeCallbacks callbacks = context.Callbacks();
  uint32_t output = 0;
  EXPECT_DEATH(DBSorterRangeAcquire(dbs, 99, 0, &output, nullptr, nullptr, 1), "runIndex < RArrayLength");
  const uint32_t ids[] = {a, b};
  ASSERT_NE(DBSorterMergeStart(dbs, ids, 2), DBS_NO_RUN);
  EXPECT_DEATH(DBSorterMerge(dbs, ids, 2, &output, &callbacks, 0), "runs == NULL");
  EXPECT_DEATH(DBSorterMergeStart(dbs, ids, 2), "VMAArrayLength\\(dbs->runMergePos, NEWGEN\\) == 0");
  ArrayFree(callbacks.heap);
}

}  // namespace
