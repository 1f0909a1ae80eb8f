// An injected I/O error at sampled file operations of a generic sort (runs
// written, merged with checkpoints, read back): the sort either succeeds
// or fails with an error, and a reopened sorter then always finishes with
// the model's result: an error never yields wrong or lost data.
#include <algorithm>
#include <filesystem>

#include "platform/qwlib/fault.h"
#include "qwvm/qwvm.h"
#include "support/test_support.h"

namespace {

namespace fs = std::filesystem;

// The sorted keys of the single run left, or {"<none>"}.
std::vector<std::string> Sorted(GenericDBSorter *sorter) {
  const uint32_t run = DBSorterMergedRunID(sorter->dbs);
  if (run == DBS_NO_RUN) return {"<none>"};
  std::vector<std::string> keys;
  KMVReader *reader = KMVReaderNew(sorter, run);
  KMVEntry *entry = KMVEntryNew();
  int r = reader ? 0 : -1;
  while (reader && (r = KMVReaderReadEntry(reader, entry)) == 1)
    for (size_t i = 0; i < ArrayLength(entry->valueLengths); ++i)
      keys.emplace_back(reinterpret_cast<char *>(entry->key), ArrayLength(entry->key));
  KMVEntryDelete(entry);
  KMVReaderDelete(reader);
  if (r != 0) return {"<unreadable>"};
  return keys;
}

// Opens, writes the keys in runs of 400 and merges with checkpoints; false
// at the first failure (the sorter is then closed without a commit).
bool Workload(const std::string &dir, const std::vector<std::string> &keys, std::vector<std::string> *result) {
  GenericDBSorter *sorter = GenericDBSorterNew(dir.c_str(), 2, 8192, 0, 0, 0, 0);
  if (!sorter) return false;
  GenericDBSorterWriter *writer = GenericDBSorterWriterNew(sorter, 1 << 16);
  bool ok = writer != nullptr;
  for (size_t i = 0; ok && i < keys.size(); ++i) {
    ok = GenericDBSorterWrite(writer, keys[i].data(), uint32_t(keys[i].size()), "", 0);
    if (ok && (i + 1) % 400 == 0) ok = GenericDBSorterFlush(writer) == 1 && GenericDBSorterCommit(sorter);
  }
  GenericDBSorterWriterDelete(writer);
  ok = ok && GenericDBSorterSort(sorter, 3 * 8192, 300);
  if (ok) *result = Sorted(sorter);
  if (ok && *result == std::vector<std::string>{"<unreadable>"}) ok = false;  // a clear read error
  ok = GenericDBSorterClose(sorter) && ok;
  return ok;
}

class GenericSorterFaultTest : public qwtest::TempDirTest {};

TEST_F(GenericSorterFaultTest, AnIOErrorAnywhereFailsClearlyAndNothingIsLost) {
  std::vector<std::string> keys;
  for (int i = 0; i < 2400; ++i) keys.push_back(std::to_string((i * 7919) % 1000) + std::string(i % 40, 'x'));
  std::vector<std::string> model = keys, result;
  std::sort(model.begin(), model.end());
  qw::fault::Reset();
  ASSERT_TRUE(Workload(path("count"), keys, &result)) << QWErrorMessage();
  const uint64_t operations = qw::fault::OperationCount();
  qw::fault::Disable();
  ASSERT_EQ(result, model);
  // Fails the n-th of the operations `mask` selects on paths holding `where`,
  // then finishes the sort from what was committed.
  auto failAndFinish = [&](uint64_t n, uint32_t mask, const char *where) {
    const std::string dir = path((*where ? "write" : "run") + std::to_string(n));
    qw::fault::Reset();
    qw::fault::FailNth(n, false, mask, where);
    std::vector<std::string> got;
    const bool ok = Workload(dir, keys, &got);
    qw::fault::Disable();
    if (ok) {
      EXPECT_EQ(got, model);
      return;
    }
    EXPECT_TRUE(QWErrorIsSet());
    // Finish from what was committed; runs the failed attempt did not
    // commit are written again.
    GenericDBSorter *sorter = GenericDBSorterNew(dir.c_str(), 2, 8192, 0, 0, 0, 0);
    ASSERT_NE(sorter, nullptr) << QWErrorMessage();
    ASSERT_TRUE(GenericDBSorterSort(sorter, 3 * 8192, 300)) << QWErrorMessage();
    std::vector<std::string> again = Sorted(sorter);
    ASSERT_TRUE(GenericDBSorterClose(sorter));
    // The committed runs hold a prefix of the keys in whole runs of 400.
    if (again == std::vector<std::string>{"<none>"}) again.clear();
    ASSERT_EQ(again.size() % 400, 0u);
    std::vector<std::string> prefix(keys.begin(), keys.begin() + long(again.size()));
    std::sort(prefix.begin(), prefix.end());
    EXPECT_EQ(again, prefix);
    fs::remove_all(dir);
  };
  const uint64_t step = std::max<uint64_t>(1, operations / 24) * qwtest::SweepStride(4);
  for (uint64_t n = 1; n <= operations; n += step) {
    SCOPED_TRACE(n);
    failAndFinish(n, qw::fault::kAllOps, "");
  }
  // Every early write of run blocks: a commit that failed on one of them
  // must not let a later commit (the one at close) publish the run.
  for (uint64_t n = 1; n <= 8; ++n) {
    SCOPED_TRACE("data write " + std::to_string(n));
    failAndFinish(n, qw::fault::Bit(qw::fault::Op::Write), "/data/data");
  }
}

}  // namespace
