// Small durable transactions: the time of one transaction of N random puts
// into a 1M-key integer B-tree (4-byte keys and values, BTreeNew with key
// size 4) followed by a durable commit, for N = 1, 10, 100, 1000, in both
// arena modes (page-cache mode with a 1 GiB process page cache, and mapped
// mode), against LMDB in the same run (default environment flags: every
// mdb_txn_commit syncs its data pages, then its meta page) and against the
// floor of the disk: rounds of fdatasync one after the other, each round an
// overwrite of 4 KiB in a small file of its own (nothing but data to make
// durable), with 2 rounds (what LMDB needs), 3 (what the arena's commit
// protocol needs) and 4; and the four rounds of a commit with the file
// operations the protocol makes in them (new file, marker, rename, marker
// removal, each with its directory sync: BM_FloorFiles).
//
// Each store is filled with 1M keys (random, committed every 100000) before
// the timing starts; each iteration then puts N fresh random keys and
// commits. Our commit is VMArenaCommit + BTreeCommit. The summary prints the
// time per transaction per side, the ratios to LMDB and to the three-round
// floor, and the commit alone (counter commit_us).
//
// With QWVM_BENCH_STRACE=cache|mapped|lmdb the program runs no benchmark:
// it fills that store, stops itself (SIGSTOP) so that a tracer can attach,
// runs one transaction of one put, stops again and exits when continued.
// bench/strace_commit.sh drives it under `strace -c -f`.
#include <benchmark/benchmark.h>
#include <fcntl.h>
#include <signal.h>
#include <unistd.h>

#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <filesystem>
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
constexpr uint64_t kKeys = 1'000'000;
constexpr uint64_t kFillTxn = 100'000;
constexpr uint64_t kNotFound = BTREE_NO_KEY;
const int64_t kPuts[] = {1, 10, 100, 1000};

uint64_t Mix(uint64_t x) {
  x += 0x9E3779B97F4A7C15ull;
  x = (x ^ (x >> 30)) * 0xBF58476D1CE4E5B9ull;
  x = (x ^ (x >> 27)) * 0x94D049BB133111EBull;
  return x ^ (x >> 31);
}
uint32_t KeyOf(uint64_t i) { return uint32_t(Mix(i)); }
uint32_t ValueOf(uint32_t key) { return key * 2654435761u; }

double Since(Clock::time_point start) { return std::chrono::duration<double>(Clock::now() - start).count(); }

std::string g_root;
PageCache *g_cache = nullptr;

class Store {
 public:
  virtual ~Store() = default;
  [[nodiscard]] virtual bool Open(const std::string &directory) = 0;
  [[nodiscard]] virtual bool Put(uint32_t key, uint32_t value) = 0;
  [[nodiscard]] virtual bool Commit() = 0;
  [[nodiscard]] virtual bool Check(uint32_t key) = 0;  // committed with its value
};

class TreeStore : public Store {
 public:
  explicit TreeStore(uint32_t flags) : flags_(flags) {}
  ~TreeStore() override {
    if (writing_) VMArenaNewGenRelease(arena_, 0);
    if (tree_) BTreeFree(tree_, 4);
    if (arena_) VMArenaClose(arena_);
  }
  bool Open(const std::string &directory) override {
    arena_ = VMArenaOpen(directory.c_str(), flags_ | VM_FLAG_CREATE, 2, STATUS_NO_SERIAL, STATUS_NO_SERIAL, nullptr,
                         g_cache);
    if (!arena_ || !(tree_ = BTreeNew(arena_, "bench", "tree", 0, 4, 4))) return false;
    VMArenaNewGenAcquire(arena_, 0);
    writing_ = true;
    return true;
  }
  bool Put(uint32_t key, uint32_t value) override {
    BTreeFind(tree_, key, value, kNotFound, 1, 0, 0, NEWGEN);
    return !QWErrorIsSet();
  }
  bool Commit() override {
    VMArenaNewGenRelease(arena_, 0);  // the flush waits for writers
    writing_ = false;
    if (!VMArenaCommit(arena_, nullptr, nullptr, 0) || !BTreeCommit(tree_, 4)) return false;
    VMArenaNewGenAcquire(arena_, 0);
    writing_ = true;
    return true;
  }
  bool Check(uint32_t key) override {
    VMArenaOldGenAcquire(arena_);
    const uint64_t value = BTreeFind(tree_, key, 0, kNotFound, 0, 0, 0, OLDGEN);
    VMArenaOldGenRelease(arena_);
    return value == ValueOf(key);
  }

 private:
  uint32_t flags_;
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
  }
  bool Open(const std::string &directory) override {
    std::filesystem::create_directories(directory);
    if (mdb_env_create(&env_) || mdb_env_set_mapsize(env_, size_t(4) << 30) ||
        mdb_env_open(env_, directory.c_str(), 0, 0644))  // default flags: commits sync
      return false;
    return mdb_txn_begin(env_, nullptr, 0, &txn_) == 0 && mdb_dbi_open(txn_, nullptr, 0, &dbi_) == 0;
  }
  bool Put(uint32_t key, uint32_t value) override {
    uint8_t k[4] = {uint8_t(key >> 24), uint8_t(key >> 16), uint8_t(key >> 8), uint8_t(key)};
    MDB_val mk{4, k}, mv{4, &value};
    return mdb_put(txn_, dbi_, &mk, &mv, 0) == 0;
  }
  bool Commit() override {
    const int rc = mdb_txn_commit(txn_);
    txn_ = nullptr;
    return rc == 0 && mdb_txn_begin(env_, nullptr, 0, &txn_) == 0;
  }
  bool Check(uint32_t key) override {
    uint8_t k[4] = {uint8_t(key >> 24), uint8_t(key >> 16), uint8_t(key >> 8), uint8_t(key)};
    MDB_txn *read = nullptr;
    if (mdb_txn_begin(env_, nullptr, MDB_RDONLY, &read)) return false;
    MDB_val mk{4, k}, mv;
    uint32_t value = 0;
    const bool found = mdb_get(read, dbi_, &mk, &mv) == 0 && mv.mv_size == 4;
    if (found) std::memcpy(&value, mv.mv_data, 4);
    mdb_txn_abort(read);
    return found && value == ValueOf(key);
  }

 private:
  MDB_env *env_ = nullptr;
  MDB_txn *txn_ = nullptr;
  MDB_dbi dbi_ = 0;
};
#endif

enum Side { kCache, kMapped, kLmdb, kSideCount };
const char *const kSideNames[kSideCount] = {"cache", "mapped", "lmdb"};

std::unique_ptr<Store> MakeStore(Side side) {
  switch (side) {
    case kCache: return std::make_unique<TreeStore>(0);
    case kMapped: return std::make_unique<TreeStore>(VM_FLAG_MAPPED);
#if QWVM_HAVE_LMDB
    case kLmdb: return std::make_unique<LmdbStore>();
#endif
    default: return nullptr;
  }
}

std::unique_ptr<Store> g_stores[kSideCount];
uint64_t g_next[kSideCount];  // index of the next fresh key per side

// A store of kKeys random keys, committed.
std::unique_ptr<Store> Filled(Side side) {
  std::unique_ptr<Store> store = MakeStore(side);
  if (!store || !store->Open(g_root + "/" + kSideNames[side])) return nullptr;
  for (uint64_t i = 0; i < kKeys; ++i)
    if (!store->Put(KeyOf(i), ValueOf(KeyOf(i))) || ((i + 1) % kFillTxn == 0 && !store->Commit())) return nullptr;
  g_next[side] = kKeys;
  return store;
}

Store *StoreOf(Side side) {
  if (!g_stores[side]) g_stores[side] = Filled(side);
  return g_stores[side].get();
}

// One transaction of `puts` fresh random keys; the commit's share in *commit.
bool Transaction(Side side, int64_t puts, double *total, double *commit) {
  Store *store = StoreOf(side);
  if (!store) return false;
  const Clock::time_point start = Clock::now();
  for (int64_t i = 0; i < puts; ++i) {
    const uint32_t key = KeyOf(g_next[side]++);
    if (!store->Put(key, ValueOf(key))) return false;
  }
  const Clock::time_point committing = Clock::now();
  if (!store->Commit()) return false;
  *commit = Since(committing);
  *total = Since(start);
  return true;
}

void BM_Commit(benchmark::State &state, Side side) {
  const int64_t puts = state.range(0);
  if (!StoreOf(side)) {
    state.SkipWithError((std::string("could not fill the store: ") + QWErrorMessage()).c_str());
    return;
  }
  double commitSeconds = 0;
  for (auto _ : state) {
    double total = 0, commit = 0;
    if (!Transaction(side, puts, &total, &commit)) {
      state.SkipWithError((std::string("put or commit failed: ") + QWErrorMessage()).c_str());
      return;
    }
    state.SetIterationTime(total);
    commitSeconds += commit;
  }
  // The last key put is committed with its value.
  if (!StoreOf(side)->Check(KeyOf(g_next[side] - 1))) state.SkipWithError("the last committed key is missing");
  state.counters["commit_us"] = benchmark::Counter(commitSeconds * 1e6 / double(state.iterations()));
}

// The disk's floor: `rounds` fdatasyncs one after the other, each after an
// overwrite of 4 KiB of a small file of its own.
void BM_Floor(benchmark::State &state) {
  const int rounds = int(state.range(0));
  std::vector<int> fds;
  char block[4096];
  std::memset(block, 'f', sizeof block);
  for (int r = 0; r < rounds; ++r) {
    const std::string path = g_root + "/floor" + std::to_string(r);
    const int fd = open(path.c_str(), O_RDWR | O_CREAT | O_CLOEXEC, 0644);
    if (fd < 0 || pwrite(fd, block, sizeof block, 0) != ssize_t(sizeof block) || fsync(fd) != 0) {
      state.SkipWithError("cannot prepare the floor's files");
      return;
    }
    fds.push_back(fd);
  }
  uint64_t round = 0;
  for (auto _ : state) {
    const Clock::time_point start = Clock::now();
    for (int fd : fds) {
      block[0] = char(++round);
      if (pwrite(fd, block, sizeof block, 0) != ssize_t(sizeof block) || fdatasync(fd) != 0) {
        state.SkipWithError("floor write or sync failed");
        break;
      }
    }
    state.SetIterationTime(Since(start));
  }
  for (int fd : fds) close(fd);
}

// The same rounds with the metadata work of the commit protocol, in a
// directory of its own: (1) a new 4 KiB file written, synced, and its
// directory synced; (2) an empty marker file created and the directory
// synced; (3) the new file renamed over the previous one and the directory
// synced; (4) the marker removed and the directory synced.
void BM_FloorFiles(benchmark::State &state) {
  const std::string directory = g_root + "/floor-files";
  std::filesystem::create_directories(directory);
  const std::string target = directory + "/file", incoming = target + ".new", marker = directory + "/marker";
  char block[4096];
  std::memset(block, 'f', sizeof block);
  const int dir = open(directory.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC);
  bool ok = dir >= 0;
  for (auto _ : state) {
    const Clock::time_point start = Clock::now();
    const int fd = open(incoming.c_str(), O_RDWR | O_CREAT | O_TRUNC | O_CLOEXEC, 0644);
    ok = ok && fd >= 0 && pwrite(fd, block, sizeof block, 0) == ssize_t(sizeof block) && fdatasync(fd) == 0 &&
         close(fd) == 0 && fsync(dir) == 0;
    const int mark = open(marker.c_str(), O_RDWR | O_CREAT | O_CLOEXEC, 0600);
    ok = ok && mark >= 0 && close(mark) == 0 && fsync(dir) == 0;
    ok = ok && rename(incoming.c_str(), target.c_str()) == 0 && fsync(dir) == 0;
    ok = ok && unlink(marker.c_str()) == 0 && fsync(dir) == 0;
    state.SetIterationTime(Since(start));
    if (!ok) {
      state.SkipWithError("floor file operation failed");
      break;
    }
  }
  if (dir >= 0) close(dir);
}

std::string CommitName(Side side, int64_t puts) {
  return std::string("BM_Commit/") + kSideNames[side] + "/" + std::to_string(puts);
}

void Register() {
  for (int s = 0; s < kSideCount; ++s) {
    const Side side = Side(s);
    if (!MakeStore(side)) continue;  // a peer that was not built in
    auto *b = benchmark::RegisterBenchmark((std::string("BM_Commit/") + kSideNames[side]).c_str(), BM_Commit, side);
    for (int64_t puts : kPuts) b->Arg(puts);
    b->UseManualTime()->Unit(benchmark::kMicrosecond)->MinTime(1.0);
  }
  benchmark::RegisterBenchmark("BM_Floor", BM_Floor)
      ->Arg(2)
      ->Arg(3)
      ->Arg(4)
      ->UseManualTime()
      ->Unit(benchmark::kMicrosecond)
      ->MinTime(1.0);
  benchmark::RegisterBenchmark("BM_FloorFiles", BM_FloorFiles)
      ->UseManualTime()
      ->Unit(benchmark::kMicrosecond)
      ->MinTime(1.0);
}

void PrintSummary(const qwbench::SummaryReporter &reporter) {
  auto us = [&](const std::string &name) {
    const qwbench::SummaryReporter::Result *r = reporter.Find(name);
    return r ? r->nsPerOp / 1e3 : 0.0;
  };
  const double floor3 = us("BM_Floor/3");
  std::printf("\ndisk floor: 2 rounds %.1f us, 3 rounds %.1f us, 4 rounds %.1f us; "
              "4 rounds with the protocol's file operations %.1f us\n",
              us("BM_Floor/2"), floor3, us("BM_Floor/4"), us("BM_FloorFiles"));
  std::printf("\ntime per durable transaction (N random puts + commit) in a 1M-key B-tree, us; "
              "ratios lower is better\n");
  const double files4 = us("BM_FloorFiles");
  std::printf("  %5s %10s %10s %10s %12s %13s %12s %13s %12s %13s\n", "N", "cache", "mapped", "lmdb", "cache/lmdb",
              "mapped/lmdb", "cache/floor3", "mapped/floor3", "cache/files4", "mapped/files4");
  for (int64_t puts : kPuts) {
    const double cache = us(CommitName(kCache, puts)), mapped = us(CommitName(kMapped, puts)),
                 lmdb = us(CommitName(kLmdb, puts));
    auto ratio = [](double a, double b) { return b > 0 && a > 0 ? a / b : 0.0; };
    std::printf("  %5lld %10.1f %10.1f %10.1f %12.2f %13.2f %12.2f %13.2f %12.2f %13.2f\n",
                static_cast<long long>(puts), cache, mapped, lmdb, ratio(cache, lmdb), ratio(mapped, lmdb),
                ratio(cache, floor3), ratio(mapped, floor3), ratio(cache, files4), ratio(mapped, files4));
  }
}

bool Prepare() {
  const char *tmp = std::getenv("TMPDIR");
  std::string pattern = std::string(tmp && *tmp ? tmp : "/tmp") + "/qwvm-commit-bench-XXXXXX";
  if (!mkdtemp(pattern.data())) return false;
  g_root = pattern;
  g_cache = PageCacheNew(kCacheBytes, ARENA_MAX_BLOCK_SIZE);
  return g_cache != nullptr;
}

void Cleanup() {
  for (auto &store : g_stores) store.reset();  // arenas before the cache they use
  if (g_cache) PageCacheFree(g_cache);
  std::error_code ignored;
  if (!g_root.empty()) std::filesystem::remove_all(g_root, ignored);
}

// One transaction of one put between two SIGSTOPs, for a tracer.
int TraceOneCommit(const char *sideName) {
  int side = 0;
  while (side < kSideCount && std::strcmp(kSideNames[side], sideName) != 0) ++side;
  if (side == kSideCount || !Prepare() || !StoreOf(Side(side))) {
    std::fprintf(stderr, "commit_bench: cannot prepare \"%s\": %s\n", sideName, QWErrorMessage());
    Cleanup();
    return 1;
  }
  std::printf("ready %d\n", int(getpid()));
  std::fflush(stdout);
  raise(SIGSTOP);
  double total = 0, commit = 0;
  const bool ok = Transaction(Side(side), 1, &total, &commit);
  std::printf("done\n");
  std::fflush(stdout);
  raise(SIGSTOP);
  std::printf("%s: one put + commit %.1f us (commit %.1f us)%s\n", sideName, total * 1e6, commit * 1e6,
              ok ? "" : " FAILED");
  Cleanup();
  return ok ? 0 : 1;
}

}  // namespace

int main(int argc, char **argv) {
  if (const char *trace = std::getenv("QWVM_BENCH_STRACE")) return TraceOneCommit(trace);
  Register();
  return qwbench::RunWithSummary(
      argc, argv, 40, Prepare, PrintSummary, Cleanup, [] { return std::string("commit_bench: could not prepare"); });
}
