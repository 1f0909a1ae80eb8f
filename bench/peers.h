// What the store benchmarks that measure qwvm against LevelDB, RocksDB and
// LMDB share: the peers' headers (included here before any qwvm header:
// qwvm/qwlib.h defines macros, Allocate and others, that their declarations
// would run into), one API description per LSM peer so that a single
// template drives both, wall and CPU time, disk usage, and the table of
// rates and ratios that closes a run.
#pragma once

#include <sys/resource.h>
#include <sys/stat.h>

#include <algorithm>
#include <chrono>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <functional>
#include <memory>
#include <numeric>
#include <random>
#include <string>
#include <string_view>
#include <system_error>
#include <vector>

#if QWVM_HAVE_LEVELDB
#include <leveldb/db.h>
#include <leveldb/write_batch.h>
#endif
#if QWVM_HAVE_ROCKSDB
#include <rocksdb/db.h>
#endif
#if QWVM_HAVE_LMDB
#include <lmdb.h>
#endif

#include "bench_summary.h"

namespace qwbench {

// Wall time and the process's CPU time (user + system, every thread: the
// peers' background compactions count), in seconds.
struct Times {
  double wall = 0, cpu = 0;
  static Times Now() {
    struct rusage usage;
    getrusage(RUSAGE_SELF, &usage);
    const auto seconds = [](const timeval &t) { return double(t.tv_sec) + double(t.tv_usec) / 1e6; };
    return {std::chrono::duration<double>(std::chrono::steady_clock::now().time_since_epoch()).count(),
            seconds(usage.ru_utime) + seconds(usage.ru_stime)};
  }
  Times Since() const {
    const Times now = Now();
    return {now.wall - wall, now.cpu - cpu};
  }
};

// Bytes allocated on disk by the regular files under `directory`.
inline uint64_t DiskBytes(const std::string &directory) {
  uint64_t bytes = 0;
  std::error_code error;
  for (const auto &entry : std::filesystem::recursive_directory_iterator(directory, error)) {
    struct stat info;
    if (lstat(entry.path().c_str(), &info) == 0 && S_ISREG(info.st_mode)) bytes += uint64_t(info.st_blocks) * 512;
  }
  return bytes;
}

// The directory every store of a run sits in: MakeRunRoot makes
// $TMPDIR/qwvm-<program>-XXXXXX (or under /tmp), RemoveRunRoot removes it
// with all it holds.
inline std::string &RunRoot() {
  static std::string root;
  return root;
}
inline bool MakeRunRoot(const char *program) {
  const char *tmp = std::getenv("TMPDIR");
  std::string pattern = std::string(tmp && *tmp ? tmp : "/tmp") + "/qwvm-" + program + "-XXXXXX";
  if (!mkdtemp(pattern.data())) return false;
  RunRoot() = pattern;
  return true;
}
inline void RemoveRunRoot() {
  std::error_code ignored;
  if (!RunRoot().empty()) std::filesystem::remove_all(RunRoot(), ignored);
}

// The base of a store under test: a fresh directory under the run's root,
// removed with the store.
class StoreDirectory {
 public:
  virtual ~StoreDirectory() {
    std::error_code ignored;
    std::filesystem::remove_all(directory_, ignored);
  }
  const std::string &directory() const { return directory_; }

 protected:
  std::string directory_ = RunRoot() + "/store-" + std::to_string(++Serial());

 private:
  static int &Serial() {
    static int serial = 0;
    return serial;
  }
};

// A permutation of 0 .. n-1 from `seed`.
inline std::vector<uint32_t> Shuffled(uint64_t n, uint64_t seed) {
  std::vector<uint32_t> order(n);
  std::iota(order.begin(), order.end(), 0u);
  std::shuffle(order.begin(), order.end(), std::mt19937_64(seed));
  return order;
}

// LevelDB and RocksDB share their API's shape: a store template takes one of
// these.
#if QWVM_HAVE_LEVELDB
struct LevelDBApi {
  using DB = leveldb::DB;
  using Options = leveldb::Options;
  using WriteOptions = leveldb::WriteOptions;
  using ReadOptions = leveldb::ReadOptions;
  using Slice = leveldb::Slice;
  using Status = leveldb::Status;
  using Iterator = leveldb::Iterator;
};
#endif

#if QWVM_HAVE_ROCKSDB
struct RocksDBApi {
  using DB = rocksdb::DB;
  using Options = rocksdb::Options;
  using WriteOptions = rocksdb::WriteOptions;
  using ReadOptions = rocksdb::ReadOptions;
  using Slice = rocksdb::Slice;
  using Status = rocksdb::Status;
  using Iterator = rocksdb::Iterator;
};
#endif

// One LevelDB or RocksDB database (`Api`: LevelDBApi or RocksDBApi) with
// default options; writes sync when asked. Failures keep the status text in
// error().
template <typename Api>
class LsmDb {
 public:
  using Slice = typename Api::Slice;
  LsmDb() = default;
  LsmDb(const LsmDb &) = delete;
  LsmDb &operator=(const LsmDb &) = delete;
  ~LsmDb() { delete db_; }
  bool Open(const std::string &directory) {
    typename Api::Options options;
    options.create_if_missing = true;
    return Ok(Api::DB::Open(options, directory, &db_));
  }
  bool Put(std::string_view key, const void *value, size_t size, bool sync) {
    typename Api::WriteOptions options;
    options.sync = sync;
    return Ok(db_->Put(options, Slice(key.data(), key.size()), Slice(static_cast<const char *>(value), size)));
  }
  bool Delete(std::string_view key, bool sync) {
    typename Api::WriteOptions options;
    options.sync = sync;
    return Ok(db_->Delete(options, Slice(key.data(), key.size())));
  }
  // 1 with the value of `key` in value(), 0 when absent, -1 on failure.
  int Get(std::string_view key) {
    const auto status = db_->Get(typename Api::ReadOptions(), Slice(key.data(), key.size()), &value_);
    if (status.IsNotFound()) return 0;
    return Ok(status) ? 1 : -1;
  }
  const std::string &value() const { return value_; }
  std::unique_ptr<typename Api::Iterator> NewIterator() {
    return std::unique_ptr<typename Api::Iterator>(db_->NewIterator(typename Api::ReadOptions()));
  }
  bool Ok(const typename Api::Status &status) {
    if (!status.ok()) error_ = status.ToString();
    return status.ok();
  }
  const std::string &error() const { return error_; }

 private:
  typename Api::DB *db_ = nullptr;
  std::string value_, error_;
};

// The closing table of a store benchmark: one line per row (a phase and
// workload), the rate in `counter` of every side in k/s, then the ratio
// ours / peer for each of the first `ourSides` sides against each later one
// (above 1: ours is faster). `runName(row, side)` names the run; a run that
// did not happen prints as 0 and its ratios as "-".
inline void PrintRates(const SummaryReporter &reporter, const char *counter, const std::vector<std::string> &rows,
                       const std::vector<std::string> &sides, size_t ourSides,
                       const std::function<std::string(size_t, size_t)> &runName) {
  std::printf("  %-24s", "workload");
  for (const auto &side : sides) std::printf(" %14s", side.c_str());
  for (size_t o = 0; o < ourSides; ++o)
    for (size_t s = ourSides; s < sides.size(); ++s) std::printf(" %14s/%-8s", sides[o].c_str(), sides[s].c_str());
  std::printf("\n");
  for (size_t row = 0; row < rows.size(); ++row) {
    std::vector<double> rate(sides.size());
    for (size_t s = 0; s < sides.size(); ++s) {
      const auto *r = reporter.Find(runName(row, s));
      if (r && r->counters.count(counter)) rate[s] = r->counters.at(counter);
    }
    std::printf("  %-24s", rows[row].c_str());
    for (double r : rate) std::printf(" %14.1f", r / 1e3);
    for (size_t o = 0; o < ourSides; ++o)
      for (size_t s = ourSides; s < sides.size(); ++s) {
        if (rate[o] > 0 && rate[s] > 0) std::printf(" %23.3f", rate[o] / rate[s]);
        else std::printf(" %23s", "-");
      }
    std::printf("\n");
  }
}

}  // namespace qwbench
