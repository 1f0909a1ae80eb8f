// The log (qwlog) against the disk and against LevelDB:
//   BM_LogFlush/B       B records of 100 bytes appended with LogWrite, then
//                       one LogFlush (write + fdatasync)
//   BM_Floor/B          the floor: one write(2) of the same B x 100 bytes at
//                       the end of a plain file, then fdatasync
//   BM_LevelDB/B        LevelDB: one WriteBatch of B puts of 100-byte values
//                       with WriteOptions::sync (its log append + sync)
//   BM_GroupCommit      2 threads, each appending one record and flushing:
//                       the counter syncs_per_flush shows how many flushes
//                       shared a sync
//   BM_Replay           reads every record of a 256 MiB log (1 GiB with
//                       QWVM_BENCH_LARGE=1) through a read context, against
//   BM_SequentialRead   reading the same files with 1 MiB read(2) calls
// for B = 1 and 100. The summary prints the ratios to the floor and to
// LevelDB (time per batch, lower is better) and replay bandwidth over raw
// sequential bandwidth (higher is better). Files live in ./log-bench-data,
// on the disk the program runs on.
#include <benchmark/benchmark.h>
#include <fcntl.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <string>
#include <vector>

#include "bench_summary.h"
#include "platform/qwlib/fault.h"
#include "qwvm/qwvm.h"

#if QWVM_HAVE_LEVELDB
#include <leveldb/db.h>
#include <leveldb/write_batch.h>
#endif

namespace {

namespace fs = std::filesystem;

const std::string kRoot = "log-bench-data";
const std::string kRecord(100, 'r');

std::string Fresh(const std::string &name) {
  const std::string dir = kRoot + "/" + name;
  fs::remove_all(dir);
  fs::create_directories(dir);
  return dir;
}

void BM_LogFlush(benchmark::State &state) {
  const std::string dir = Fresh("flush");
  QWLog *log = LogOpen(dir.c_str(), 0);
  if (!log) return state.SkipWithError(QWErrorMessage());
  const int64_t batch = state.range(0);
  for (auto _ : state) {
    for (int64_t i = 0; i < batch; ++i) LogWrite(log, 3, kRecord.data(), uint32_t(kRecord.size()), 0);
    if (!LogFlush(log)) return state.SkipWithError(QWErrorMessage());
  }
  state.SetItemsProcessed(state.iterations() * batch);
  LogClose(log);
}

void BM_Floor(benchmark::State &state) {
  const std::string dir = Fresh("floor");
  const int fd = ::open((dir + "/plain").c_str(), O_WRONLY | O_CREAT | O_APPEND, 0644);
  if (fd < 0) return state.SkipWithError("open failed");
  const int64_t batch = state.range(0);
  const std::string bytes(size_t(batch) * kRecord.size(), 'r');
  for (auto _ : state) {
    if (::write(fd, bytes.data(), bytes.size()) != ssize_t(bytes.size()) || ::fdatasync(fd) != 0)
      return state.SkipWithError("write failed");
  }
  state.SetItemsProcessed(state.iterations() * batch);
  ::close(fd);
}

#if QWVM_HAVE_LEVELDB
void BM_LevelDB(benchmark::State &state) {
  const std::string dir = Fresh("leveldb");
  leveldb::Options options;
  options.create_if_missing = true;
  leveldb::DB *db = nullptr;
  if (!leveldb::DB::Open(options, dir, &db).ok()) return state.SkipWithError("leveldb open failed");
  leveldb::WriteOptions sync;
  sync.sync = true;
  const int64_t batch = state.range(0);
  uint64_t key = 0;
  for (auto _ : state) {
    leveldb::WriteBatch writes;
    for (int64_t i = 0; i < batch; ++i) writes.Put(std::to_string(key++), kRecord);
    if (!db->Write(sync, &writes).ok()) return state.SkipWithError("leveldb write failed");
  }
  state.SetItemsProcessed(state.iterations() * batch);
  delete db;
}
BENCHMARK(BM_LevelDB)->Arg(1)->Arg(100)->UseRealTime();
#endif

QWLog *sharedLog = nullptr;

void BM_GroupCommit(benchmark::State &state) {
  if (state.thread_index() == 0) {
    sharedLog = LogOpen(Fresh("group").c_str(), 0);
    qw::fault::Reset();  // counts syncs
  }
  uint64_t flushes = 0;
  for (auto _ : state) {
    LogWrite(sharedLog, 3, kRecord.data(), uint32_t(kRecord.size()), 0);
    LogFlush(sharedLog);
    ++flushes;
  }
  state.counters["flushes"] = benchmark::Counter(double(flushes), benchmark::Counter::kAvgThreads);
  if (state.thread_index() == 0) {
    state.counters["syncs_per_flush"] = double(qw::fault::SyncCount()) / double(flushes * state.threads());
    qw::fault::Disable();
    LogClose(sharedLog);
  }
}

uint64_t ReplayBytes() { return std::getenv("QWVM_BENCH_LARGE") ? uint64_t(1) << 30 : uint64_t(256) << 20; }

// A log of ReplayBytes() in 64 MiB files of 100-byte records, made once.
const std::string &ReplayLog() {
  static const std::string dir = [] {
    const std::string d = Fresh("replay");
    QWLog *log = LogOpen(d.c_str(), 0);
    for (uint64_t written = 0; log && written < ReplayBytes(); written += kRecord.size() + 24)
      LogWrite(log, 3, kRecord.data(), uint32_t(kRecord.size()), 0);
    LogClose(log);
    return d;
  }();
  return dir;
}

void BM_Replay(benchmark::State &state) {
  QWLog *log = LogOpen(ReplayLog().c_str(), 1);
  if (!log) return state.SkipWithError(QWErrorMessage());
  uint64_t bytes = 0;
  LogFiles(log, nullptr, nullptr, &bytes);
  for (auto _ : state) {
    LogReadContext *context = LogReadContextNew(log);
    uint64_t serial = 0, records = 0;
    char payload[128];
    LogFirstSerial(context, 0, &serial);
    for (const uint64_t last = LogLastSerial(log); serial <= last; ++records) {
      uint32_t type = 0, size = sizeof payload;
      if (!LogRead(context, serial, &type, payload, &size, &serial, nullptr)) return state.SkipWithError("read");
    }
    LogReadContextDelete(context);
    benchmark::DoNotOptimize(records);
  }
  state.SetBytesProcessed(int64_t(state.iterations() * bytes));
  LogClose(log);
}

void BM_SequentialRead(benchmark::State &state) {
  std::vector<char> buffer(1 << 20);
  uint64_t bytes = 0;
  for (auto _ : state) {
    bytes = 0;
    for (const auto &entry : fs::directory_iterator(ReplayLog())) {
      const int fd = ::open(entry.path().c_str(), O_RDONLY);
      for (ssize_t n; (n = ::read(fd, buffer.data(), buffer.size())) > 0;) bytes += uint64_t(n);
      ::close(fd);
    }
  }
  state.SetBytesProcessed(int64_t(state.iterations() * bytes));
}

BENCHMARK(BM_LogFlush)->Arg(1)->Arg(100)->UseRealTime();
BENCHMARK(BM_Floor)->Arg(1)->Arg(100)->UseRealTime();
BENCHMARK(BM_GroupCommit)->Threads(2)->UseRealTime();
// The raw read first: it also brings the log into the page cache, so that
// both read it from memory and the ratio is the reader's own cost.
BENCHMARK(BM_SequentialRead)->Unit(benchmark::kMillisecond)->UseRealTime();
BENCHMARK(BM_Replay)->Unit(benchmark::kMillisecond)->UseRealTime()->MinTime(2);

void Summary(const qwbench::SummaryReporter &reporter) {
  std::printf("\nratios (time per batch, lower is better):\n");
  for (const char *batch : {"1", "100"}) {
    const std::string label = std::string("log / floor, batch ") + batch;
    reporter.PrintRatio(label.c_str(), std::string("BM_LogFlush/") + batch, std::string("BM_Floor/") + batch, 1);
    const std::string peer = std::string("log / LevelDB, batch ") + batch;
    reporter.PrintRatio(peer.c_str(), std::string("BM_LogFlush/") + batch, std::string("BM_LevelDB/") + batch, 1);
  }
  const auto *replay = reporter.Find("BM_Replay"), *raw = reporter.Find("BM_SequentialRead");
  if (replay && raw)
    std::printf("replay bandwidth / sequential read bandwidth: %.3f\n", raw->nsPerOp / replay->nsPerOp);
  if (const auto *group = reporter.Find("BM_GroupCommit", 2))
    std::printf("group commit, 2 threads: %.3f syncs per flush\n", group->counters.at("syncs_per_flush"));
}

}  // namespace

int main(int argc, char **argv) {
  return qwbench::RunWithSummary(
      argc, argv, 28, [] { return true; }, Summary, [] { fs::remove_all(kRoot); }, [] { return ""; });
}
