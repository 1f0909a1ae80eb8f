// The integer B-tree (8-byte keys, 4-byte values) against LMDB, with the
// workloads of db_bench:
//   fillseq     N keys in ascending order into a fresh store
//   fillrandom  N distinct keys in random order into a fresh store
//   readrandom  N lookups of present keys, in random order, on the
//               fillrandom store after its last commit
//   readseq     one in-order scan of that store
// for N = 1M, and 10M as well when QWVM_BENCH_LARGE=1 is set (those runs
// take a few minutes).
//
// Both sides are durable in the same way: a transaction (ours: the writes
// between two commits, VMArenaCommit + BTreeCommit) covers 100000 operations
// and every commit syncs (LMDB with its default environment flags, so
// mdb_txn_commit syncs the data and the meta page). Readers take a read
// transaction (ours: VMArenaOldGenAcquire, reading OLDGEN) per 100000
// operations. Our side runs in the two arena modes, page-cache (one 1 GiB
// process page cache) and mapped; LMDB maps its file. LMDB gets plain
// 8-byte keys in big-endian order with its default memcmp comparison (no
// MDB_INTEGERKEY), and no MDB_APPEND in fillseq: our side has no append
// path either. Values on both sides are 4 bytes.
//
// Each phase runs once per repetition (Iterations(1), manual time), every
// value read is checked, and after fillrandom the bytes of the store's files
// on disk per key are kept. A summary prints ops/s per workload, the ratio
// ours / LMDB in ops/s (above 1: we are faster) and the space.
#include <benchmark/benchmark.h>
#include <sys/stat.h>

#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <map>
#include <memory>
#include <string>
#include <vector>

#include "bench_summary.h"
#include "qwvm/qwvm.h"

#if QWVM_HAVE_LMDB
#include <lmdb.h>
#endif

namespace {

using Clock = std::chrono::steady_clock;

constexpr uint64_t kCacheBytes = uint64_t(1) << 30;
constexpr uint32_t kTxnOps = 100000;
constexpr uint64_t kNotFound = BTREE_NO_KEY;

// A bijection on 64 bits: distinct keys in random order.
uint64_t Mix(uint64_t x) {
  x += 0x9E3779B97F4A7C15ull;
  x = (x ^ (x >> 30)) * 0xBF58476D1CE4E5B9ull;
  x = (x ^ (x >> 27)) * 0x94D049BB133111EBull;
  return x ^ (x >> 31);
}
uint32_t ValueOf(uint64_t key) { return uint32_t(key * 2654435761u) ^ uint32_t(key >> 32); }

// The i-th key of a workload.
uint64_t SeqKey(uint64_t i) { return i; }
uint64_t RandomKey(uint64_t i) { return Mix(i); }
// The i-th probe of readrandom over n keys: a permutation of 0 .. n-1.
uint64_t Probe(uint64_t i, uint64_t n) { return (i * 7919 + 13) % n; }

double Since(Clock::time_point start) { return std::chrono::duration<double>(Clock::now() - start).count(); }

uint64_t DiskBytes(const std::string &directory) {
  uint64_t bytes = 0;
  std::error_code error;
  for (const auto &entry : std::filesystem::recursive_directory_iterator(directory, error)) {
    struct stat info;
    if (lstat(entry.path().c_str(), &info) == 0 && S_ISREG(info.st_mode)) bytes += uint64_t(info.st_size);
  }
  return bytes;
}

std::string g_root;
PageCache *g_cache = nullptr;
int g_serial = 0;

std::string FreshDirectory(const char *what) {
  return g_root + "/" + what + "-" + std::to_string(++g_serial);
}

// One store under test: put, commit, get, scan.
class Store {
 public:
  virtual ~Store() = default;
  [[nodiscard]] virtual bool Open() = 0;
  [[nodiscard]] virtual bool Put(uint64_t key, uint32_t value) = 0;
  // Ends the write transaction (durably) and starts the next one.
  [[nodiscard]] virtual bool Commit() = 0;
  [[nodiscard]] virtual bool BeginRead() = 0;
  virtual void EndRead() = 0;
  // The value of key, or kNotFound.
  virtual uint64_t Get(uint64_t key) = 0;
  // Visits every entry in key order; false on failure or out-of-order keys.
  [[nodiscard]] virtual bool Scan(uint64_t *count, uint64_t *sum) = 0;
  virtual std::string directory() const = 0;
};

class TreeStore : public Store {
 public:
  explicit TreeStore(uint32_t flags) : flags_(flags) {}
  ~TreeStore() override {
    if (writing_) VMArenaNewGenRelease(arena_, 0);
    if (tree_) BTreeFree(tree_, 8);
    if (arena_) VMArenaClose(arena_);
    std::error_code ignored;
    std::filesystem::remove_all(directory_, ignored);
  }
  bool Open() override {
    directory_ = FreshDirectory(flags_ & VM_FLAG_MAPPED ? "tree-mapped" : "tree-cache");
    arena_ = VMArenaOpen(directory_.c_str(), flags_ | VM_FLAG_CREATE, 2, STATUS_NO_SERIAL, STATUS_NO_SERIAL, nullptr,
                         g_cache);
    if (!arena_) return false;
    tree_ = BTreeNew(arena_, "bench", "tree", 0, 8, 4);
    if (!tree_) return false;
    VMArenaNewGenAcquire(arena_, 0);
    writing_ = true;
    return true;
  }
  bool Put(uint64_t key, uint32_t value) override {
    BTreeFind(tree_, key, value, kNotFound, 1, 0, 0, NEWGEN);
    return !QWErrorIsSet();
  }
  bool Commit() override {
    VMArenaNewGenRelease(arena_, 0);  // the flush waits for writers
    writing_ = false;
    if (!VMArenaCommit(arena_, nullptr, nullptr, 0) || !BTreeCommit(tree_, 8)) return false;
    VMArenaNewGenAcquire(arena_, 0);
    writing_ = true;
    return true;
  }
  bool BeginRead() override {
    if (writing_) VMArenaNewGenRelease(arena_, 0);
    writing_ = false;
    VMArenaOldGenAcquire(arena_);
    return true;
  }
  void EndRead() override { VMArenaOldGenRelease(arena_); }
  uint64_t Get(uint64_t key) override { return BTreeFind(tree_, key, 0, kNotFound, 0, 0, 0, OLDGEN); }
  bool Scan(uint64_t *count, uint64_t *sum) override {
    BTreeEnumeration *e = BTreeEnumerationNew(tree_, 8, OLDGEN);
    if (!e) return false;
    uint64_t key = 0, value = 0, previous = 0;
    int step;
    bool ordered = true;
    while ((step = BTreeEnumerationNext(e, &key, &value)) == 1) {
      ordered &= *count == 0 || key > previous;
      previous = key;
      ++*count;
      *sum += value;
    }
    BTreeEnumerationFree(e);
    return step == 0 && ordered;
  }
  std::string directory() const override { return directory_; }

 private:
  uint32_t flags_;
  std::string directory_;
  VMArena *arena_ = nullptr;
  BTree *tree_ = nullptr;
  bool writing_ = false;
};

#if QWVM_HAVE_LMDB
class LmdbStore : public Store {
 public:
  ~LmdbStore() override {
    if (txn_) mdb_txn_abort(txn_);
    if (env_) mdb_env_close(env_);
    std::error_code ignored;
    std::filesystem::remove_all(directory_, ignored);
  }
  bool Open() override {
    directory_ = FreshDirectory("lmdb");
    std::filesystem::create_directories(directory_);
    if (mdb_env_create(&env_) || mdb_env_set_mapsize(env_, size_t(16) << 30) ||
        mdb_env_open(env_, directory_.c_str(), 0, 0644))  // default flags: commits sync
      return false;
    if (mdb_txn_begin(env_, nullptr, 0, &txn_) || mdb_dbi_open(txn_, nullptr, 0, &dbi_)) return false;
    return true;
  }
  bool Put(uint64_t key, uint32_t value) override {
    uint8_t k[8];
    Encode(key, k);
    MDB_val mk{8, k}, mv{4, &value};
    return mdb_put(txn_, dbi_, &mk, &mv, 0) == 0;
  }
  bool Commit() override {
    const int rc = mdb_txn_commit(txn_);
    txn_ = nullptr;
    return rc == 0 && mdb_txn_begin(env_, nullptr, 0, &txn_) == 0;
  }
  bool BeginRead() override {
    if (txn_) mdb_txn_abort(txn_);  // the write transaction is empty after the last commit
    txn_ = nullptr;
    return mdb_txn_begin(env_, nullptr, MDB_RDONLY, &txn_) == 0;
  }
  void EndRead() override {
    mdb_txn_abort(txn_);
    txn_ = nullptr;
  }
  uint64_t Get(uint64_t key) override {
    uint8_t k[8];
    Encode(key, k);
    MDB_val mk{8, k}, mv;
    if (mdb_get(txn_, dbi_, &mk, &mv) != 0 || mv.mv_size != 4) return kNotFound;
    uint32_t value;
    std::memcpy(&value, mv.mv_data, 4);
    return value;
  }
  bool Scan(uint64_t *count, uint64_t *sum) override {
    MDB_cursor *cursor = nullptr;
    if (mdb_cursor_open(txn_, dbi_, &cursor)) return false;
    MDB_val mk, mv;
    int rc;
    uint64_t previous = 0;
    bool ordered = true;
    for (rc = mdb_cursor_get(cursor, &mk, &mv, MDB_FIRST); rc == 0; rc = mdb_cursor_get(cursor, &mk, &mv, MDB_NEXT)) {
      const uint64_t key = Decode(static_cast<const uint8_t *>(mk.mv_data));
      ordered &= *count == 0 || key > previous;
      previous = key;
      uint32_t value;
      std::memcpy(&value, mv.mv_data, 4);
      ++*count;
      *sum += value;
    }
    mdb_cursor_close(cursor);
    return rc == MDB_NOTFOUND && ordered;
  }
  std::string directory() const override { return directory_; }

 private:
  static void Encode(uint64_t key, uint8_t *out) {
    for (int i = 0; i < 8; ++i) out[i] = uint8_t(key >> (56 - 8 * i));
  }
  static uint64_t Decode(const uint8_t *in) {
    uint64_t key = 0;
    for (int i = 0; i < 8; ++i) key = (key << 8) | in[i];
    return key;
  }
  std::string directory_;
  MDB_env *env_ = nullptr;
  MDB_txn *txn_ = nullptr;
  MDB_dbi dbi_ = 0;
};
#endif

enum Side { kTreeCache, kTreeMapped, kLmdb, kSideCount };
const char *const kSideNames[kSideCount] = {"qwvm-cache", "qwvm-mapped", "lmdb"};

std::unique_ptr<Store> MakeStore(Side side) {
  switch (side) {
    case kTreeCache: return std::make_unique<TreeStore>(0);
    case kTreeMapped: return std::make_unique<TreeStore>(VM_FLAG_MAPPED);
#if QWVM_HAVE_LMDB
    case kLmdb: return std::make_unique<LmdbStore>();
#endif
    default: return nullptr;
  }
}

// The fillrandom stores, kept for the reads: per side and size.
std::map<std::pair<int, uint64_t>, std::unique_ptr<Store>> g_filled;
std::map<std::pair<int, uint64_t>, double> g_bytesPerKey;

// Fills a fresh store with n keys; the time covers puts and commits
// (*commitSeconds: the commits alone).
std::unique_ptr<Store> Fill(Side side, uint64_t n, uint64_t (*keyOf)(uint64_t), double *seconds, std::string *error,
                            double *commitSeconds = nullptr) {
  std::unique_ptr<Store> store = MakeStore(side);
  if (!store || !store->Open()) {
    *error = std::string("cannot open the store: ") + QWErrorMessage();
    return nullptr;
  }
  double committing = 0;
  auto commit = [&] {
    const Clock::time_point at = Clock::now();
    const bool ok = store->Commit();
    committing += Since(at);
    return ok;
  };
  const Clock::time_point start = Clock::now();
  for (uint64_t i = 0; i < n; ++i) {
    const uint64_t key = keyOf(i);
    if (!store->Put(key, ValueOf(key)) || ((i + 1) % kTxnOps == 0 && !commit())) {
      *error = std::string("put or commit failed: ") + QWErrorMessage();
      return nullptr;
    }
  }
  if (n % kTxnOps != 0 && !commit()) {
    *error = "commit failed";
    return nullptr;
  }
  *seconds = Since(start);
  if (commitSeconds) *commitSeconds = committing;
  return store;
}

void BM_Fill(benchmark::State &state, Side side, bool random) {
  const uint64_t n = uint64_t(state.range(0));
  double seconds = 0, commitSeconds = 0;
  for (auto _ : state) {
    g_filled.erase({side, n});  // the last repetition's store stays for the reads
    std::string error;
    std::unique_ptr<Store> store = Fill(side, n, random ? RandomKey : SeqKey, &seconds, &error, &commitSeconds);
    if (!store) {
      state.SkipWithError(error.c_str());
      return;
    }
    state.SetIterationTime(seconds);
    if (random) {
      g_bytesPerKey[{side, n}] = double(DiskBytes(store->directory())) / double(n);
      g_filled[{side, n}] = std::move(store);
    }
  }
  state.counters["ops/s"] = benchmark::Counter(double(n) / seconds);
  state.counters["commit_ms"] = benchmark::Counter(commitSeconds * 1e3);
  if (random) state.counters["disk_bytes/key"] = benchmark::Counter(g_bytesPerKey[{side, n}]);
}

Store *Filled(Side side, uint64_t n) {
  auto found = g_filled.find({side, n});
  if (found != g_filled.end()) return found->second.get();
  double seconds = 0;
  std::string error;
  std::unique_ptr<Store> store = Fill(side, n, RandomKey, &seconds, &error);
  if (!store) return nullptr;
  g_bytesPerKey[{side, n}] = double(DiskBytes(store->directory())) / double(n);
  return (g_filled[{side, n}] = std::move(store)).get();
}

void BM_ReadRandom(benchmark::State &state, Side side) {
  const uint64_t n = uint64_t(state.range(0));
  Store *store = Filled(side, n);
  if (!store) {
    state.SkipWithError("no filled store");
    return;
  }
  double seconds = 0;
  for (auto _ : state) {
    uint64_t wrong = 0;
    const Clock::time_point start = Clock::now();
    bool ok = store->BeginRead();
    for (uint64_t i = 0; i < n && ok; ++i) {
      if (i > 0 && i % kTxnOps == 0) {
        store->EndRead();
        ok = store->BeginRead();
      }
      const uint64_t key = RandomKey(Probe(i, n));
      wrong += store->Get(key) != ValueOf(key);
    }
    if (ok) store->EndRead();
    seconds = Since(start);
    if (!ok || wrong != 0) {
      state.SkipWithError("lookups failed or found wrong values");
      return;
    }
    state.SetIterationTime(seconds);
  }
  state.counters["ops/s"] = benchmark::Counter(double(n) / seconds);
}

void BM_ReadSeq(benchmark::State &state, Side side) {
  const uint64_t n = uint64_t(state.range(0));
  Store *store = Filled(side, n);
  if (!store) {
    state.SkipWithError("no filled store");
    return;
  }
  double seconds = 0;
  for (auto _ : state) {
    uint64_t count = 0, sum = 0;
    const Clock::time_point start = Clock::now();
    bool ok = store->BeginRead() && store->Scan(&count, &sum);
    store->EndRead();
    seconds = Since(start);
    benchmark::DoNotOptimize(sum);
    if (!ok || count != n) {
      state.SkipWithError("scan failed or missed entries");
      return;
    }
    state.SetIterationTime(seconds);
  }
  state.counters["ops/s"] = benchmark::Counter(double(n) / seconds);
}

const char *const kWorkloads[] = {"fillseq", "fillrandom", "readrandom", "readseq"};

std::string RunName(const char *workload, Side side, uint64_t n) {
  return std::string("BM_") + workload + "/" + kSideNames[side] + "/" + std::to_string(n);
}

void Register(const std::vector<int64_t> &sizes) {
  for (int s = 0; s < kSideCount; ++s) {
    const Side side = Side(s);
    if (!MakeStore(side)) continue;  // a peer that was not built in
    for (const char *workload : kWorkloads) {
      const std::string name = std::string("BM_") + workload + "/" + kSideNames[side];
      benchmark::internal::Benchmark *b;
      if (!std::strcmp(workload, "fillseq"))
        b = benchmark::RegisterBenchmark(name.c_str(), BM_Fill, side, false);
      else if (!std::strcmp(workload, "fillrandom"))
        b = benchmark::RegisterBenchmark(name.c_str(), BM_Fill, side, true);
      else if (!std::strcmp(workload, "readrandom"))
        b = benchmark::RegisterBenchmark(name.c_str(), BM_ReadRandom, side);
      else
        b = benchmark::RegisterBenchmark(name.c_str(), BM_ReadSeq, side);
      for (int64_t n : sizes) b->Arg(n);
      b->Iterations(1)->UseManualTime()->Unit(benchmark::kMillisecond);
    }
  }
}

void PrintSummary(const qwbench::SummaryReporter &reporter, const std::vector<int64_t> &sizes) {
  std::printf("\nsummary: operations per second (M/s); ratio = qwvm / LMDB ops/s (above 1: qwvm faster)\n");
  std::printf("  %-10s %9s %12s %12s %12s %14s %14s\n", "workload", "keys", "qwvm-cache", "qwvm-mapped", "lmdb",
              "ratio cache", "ratio mapped");
  for (int64_t n : sizes)
    for (const char *workload : kWorkloads) {
      double rate[kSideCount] = {0, 0, 0};
      for (int s = 0; s < kSideCount; ++s) {
        const qwbench::SummaryReporter::Result *r = reporter.Find(RunName(workload, Side(s), uint64_t(n)));
        if (r && r->counters.count("ops/s")) rate[s] = r->counters.at("ops/s");
      }
      std::printf("  %-10s %9lld %12.3f %12.3f %12.3f", workload, (long long)n, rate[0] / 1e6, rate[1] / 1e6,
                  rate[2] / 1e6);
      if (rate[kLmdb] > 0) std::printf(" %14.3f %14.3f", rate[0] / rate[kLmdb], rate[1] / rate[kLmdb]);
      std::printf("\n");
    }
  std::printf("\nbytes on disk per key after fillrandom (all files of the store's directory):\n");
  for (const auto &[key, bytes] : g_bytesPerKey)
    std::printf("  %-12s %9llu keys: %7.2f bytes/key\n", kSideNames[key.first], (unsigned long long)key.second, bytes);
}

}  // namespace

int main(int argc, char **argv) {
  std::vector<int64_t> sizes{1'000'000};
  const char *large = std::getenv("QWVM_BENCH_LARGE");
  if (large && std::strcmp(large, "1") == 0) sizes.push_back(10'000'000);
  Register(sizes);
  return qwbench::RunWithSummary(
      argc, argv, 40,
      [] {
        const char *tmp = std::getenv("TMPDIR");
        std::string pattern = std::string(tmp && *tmp ? tmp : "/tmp") + "/qwvm-btree-bench-XXXXXX";
        if (!mkdtemp(pattern.data())) return false;
        g_root = pattern;
        g_cache = PageCacheNew(kCacheBytes, ARENA_MAX_BLOCK_SIZE);
        return g_cache != nullptr;
      },
      [&sizes](const qwbench::SummaryReporter &reporter) { PrintSummary(reporter, sizes); },
      [] {
        g_filled.clear();  // stores (arenas) before the cache they use
        PageCacheFree(g_cache);
        std::error_code ignored;
        if (!g_root.empty()) std::filesystem::remove_all(g_root, ignored);
      },
      [] { return std::string("btree_bench: could not prepare ") + g_root; });
}
