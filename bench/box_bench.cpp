// The box store against LevelDB, RocksDB and LMDB, in the same run, on the
// work the box is made for: values under dense 32-bit ids.
//   fill/seq        N puts with ids 0 .. N-1 in ascending order, fresh store
//   fill/random     N puts of the same ids in a random order, fresh store
//   overwrite/seq   N puts of new values over the fill/seq store, ascending
//   overwrite/rand  N puts of new values over the fill/random store, in
//                   another random order
//   readrandom      N gets in a random order on the overwritten random store
//   readseq         the whole store in key order: the box gets ids 0 .. N-1
//                   (it has no cursor), the peers scan with an iterator
// for N = 1M values of 100 bytes and N = 100k values of 4 KiB. Every value
// read is checked (length and the id and generation stamped in its first 8
// bytes); values are slices of a random pool, so compression gains nothing.
//
// Keys: the box gets the id itself; the peers get the same id as a 4-byte
// big-endian key (so key order is id order) with their default comparators.
//
// Durability is matched: every write phase ends with all of its puts durable
// and nothing is synced before that.
//   box      BoxLVMUpdate for each put, then one BoxLVMCheckpoint(box, 1,
//            NULL) (log flush, data file sync, metadata commit)
//   LevelDB  unsynced Put()s, the last one with WriteOptions::sync (its log
//   RocksDB  holds every write not yet in a synced table file)
//   LMDB     environment opened with MDB_NOSYNC, one write transaction per
//            10000 puts (a single one cannot hold 400 MiB of dirty pages),
//            then mdb_env_sync(env, 1)
// Peers run with their default options otherwise (LevelDB and RocksDB with
// Snappy compression on); LMDB maps its file. The box runs twice: "box"
// reads and writes its data files directly (pread/pwrite per block, cache
// NULL), "box-cache" through a 1 GiB process page cache (PageCacheNew(1 GiB,
// 8192), shared by its stores: reads come from the cache, writes still go
// through to the file, one pwrite per block, and into the cached page).
// Both copy a value into the caller's buffer.
// All sides are single-threaded and the stores sit in one directory under
// $TMPDIR (or /tmp), removed at the end.
//
// Each phase runs once (Iterations(1), manual time: wall clock) and keeps
// ops/s and cpu_ops/s (per second of the process's CPU time, all threads,
// so that the peers' background work counts); after each write phase the
// bytes the store's files take on disk (allocated blocks) per value byte
// stored are kept. The summary prints both rates per workload and side, the
// ratios box / peer (above 1: the box is faster) and the space table.
//
// Size: `--quick` (or QWVM_BENCH_BOX_SCALE=10) divides both N by 10;
// QWVM_BENCH_BOX_BUCKETS sets the box's bucket count (default 2).
#include <benchmark/benchmark.h>

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <map>
#include <memory>
#include <numeric>
#include <random>
#include <string>
#include <vector>

#include "peers.h"  // first: it includes the peers' headers
#include "qwvm/qwvm.h"

namespace {

using qwbench::DiskBytes;
using qwbench::Shuffled;
using qwbench::Times;
namespace fs = std::filesystem;

constexpr uint32_t kLmdbTxnPuts = 10000;

uint32_t g_boxBuckets = 2;

// Values: a slice of a random pool chosen by id and generation, with the id
// and the generation in the first 8 bytes.
class Values {
 public:
  Values() : pool_(1u << 20) {
    std::mt19937_64 random(42);
    for (auto &byte : pool_) byte = uint8_t(random());
  }
  const uint8_t *Make(uint32_t id, uint32_t generation, uint32_t size) {
    if (buffer_.size() < size) buffer_.resize(size);
    const size_t offset = (size_t(id) * 7919 + size_t(generation) * 104729) % (pool_.size() - size);
    std::memcpy(buffer_.data(), pool_.data() + offset, size);
    std::memcpy(buffer_.data(), &id, 4);
    std::memcpy(buffer_.data() + 4, &generation, 4);
    return buffer_.data();
  }
  static bool Check(const void *value, size_t length, uint32_t id, uint32_t generation, uint32_t size) {
    uint32_t stamp[2];
    if (length != size) return false;
    std::memcpy(stamp, value, 8);
    return stamp[0] == id && stamp[1] == generation;
  }

 private:
  std::vector<uint8_t> pool_;
  std::vector<uint8_t> buffer_;
};
Values g_values;

void BigEndian(uint32_t id, char *key) {
  for (int i = 0; i < 4; ++i) key[i] = char(id >> (24 - 8 * i));
}
uint32_t FromBigEndian(const void *key) {
  const auto *k = static_cast<const uint8_t *>(key);
  return uint32_t(k[0]) << 24 | uint32_t(k[1]) << 16 | uint32_t(k[2]) << 8 | k[3];
}

// One store under test.
class Store : public qwbench::StoreDirectory {
 public:
  [[nodiscard]] virtual bool Open() = 0;
  // `last` is the last put of the phase: it (or a step after it) makes the
  // phase durable.
  [[nodiscard]] virtual bool Put(uint32_t id, const uint8_t *value, uint32_t size, bool last) = 0;
  [[nodiscard]] virtual bool Sync() = 0;
  // Checks the value of `id`.
  [[nodiscard]] virtual bool Get(uint32_t id, uint32_t generation, uint32_t size) = 0;
  // Visits every entry in key order, checking each: the count of good ones.
  virtual uint64_t Scan(uint64_t n, uint32_t generation, uint32_t size) = 0;
  virtual std::string Error() = 0;
};

class BoxStore : public Store {
 public:
  explicit BoxStore(PageCache *cache) : cache_(cache) {}
  ~BoxStore() override {
    if (threadData_) BoxLVMThreadDataFree(threadData_);
    if (value_) ArrayFree(value_);
    if (box_) BoxLVMClose(box_, 0);
  }
  bool Open() override {
    box_ = BoxLVMOpen(directory_.c_str(), g_boxBuckets, 1, 1, 1, 0, cache_);
    threadData_ = BoxLVMThreadDataNew();
    return box_ && threadData_;
  }
  bool Put(uint32_t id, const uint8_t *value, uint32_t size, bool) override {
    return BoxLVMUpdate(box_, id, 0, 0, value, size, nullptr, nullptr) != 0;
  }
  bool Sync() override { return BoxLVMCheckpoint(box_, 1, nullptr) != 0; }
  bool Get(uint32_t id, uint32_t generation, uint32_t size) override {
    return BoxLVMGet(box_, threadData_, id, &value_) == 1 &&
           Values::Check(value_, ArrayLength(value_), id, generation, size);
  }
  uint64_t Scan(uint64_t n, uint32_t generation, uint32_t size) override {
    uint64_t good = 0;
    for (uint32_t id = 0; id < n; ++id) good += Get(id, generation, size);
    return good;
  }
  std::string Error() override { return QWErrorMessage(); }

 private:
  PageCache *cache_;
  BoxLVM *box_ = nullptr;
  BoxLVMThreadData *threadData_ = nullptr;
  uint8_t *value_ = nullptr;
};

// LevelDB or RocksDB (qwbench::LevelDBApi or qwbench::RocksDBApi).
template <typename Api>
class LsmStore : public Store {
 public:
  bool Open() override { return db_.Open(directory_); }
  bool Put(uint32_t id, const uint8_t *value, uint32_t size, bool last) override {
    char key[4];
    BigEndian(id, key);
    return db_.Put({key, 4}, value, size, last);
  }
  bool Sync() override { return true; }  // the last put synced
  bool Get(uint32_t id, uint32_t generation, uint32_t size) override {
    char key[4];
    BigEndian(id, key);
    return db_.Get({key, 4}) == 1 && Values::Check(db_.value().data(), db_.value().size(), id, generation, size);
  }
  uint64_t Scan(uint64_t, uint32_t generation, uint32_t size) override {
    const auto it = db_.NewIterator();
    uint64_t good = 0;
    for (it->SeekToFirst(); it->Valid(); it->Next())
      good += it->key().size() == 4 &&
              Values::Check(it->value().data(), it->value().size(), FromBigEndian(it->key().data()), generation, size);
    return db_.Ok(it->status()) ? good : 0;
  }
  std::string Error() override { return db_.error(); }

 private:
  qwbench::LsmDb<Api> db_;
};

#if QWVM_HAVE_LMDB
class LmdbStore : public Store {
 public:
  ~LmdbStore() override {
    if (txn_) mdb_txn_abort(txn_);
    if (env_) mdb_env_close(env_);
  }
  bool Open() override {
    fs::create_directories(directory_);
    return Ok(mdb_env_create(&env_)) && Ok(mdb_env_set_mapsize(env_, size_t(16) << 30)) &&
           Ok(mdb_env_open(env_, directory_.c_str(), MDB_NOSYNC, 0644)) && Ok(mdb_txn_begin(env_, nullptr, 0, &txn_)) &&
           Ok(mdb_dbi_open(txn_, nullptr, 0, &dbi_)) && Commit();
  }
  bool Put(uint32_t id, const uint8_t *value, uint32_t size, bool last) override {
    if (!txn_ && !Ok(mdb_txn_begin(env_, nullptr, 0, &txn_))) return false;
    char key[4];
    BigEndian(id, key);
    MDB_val mk{4, key}, mv{size, const_cast<uint8_t *>(value)};
    if (!Ok(mdb_put(txn_, dbi_, &mk, &mv, 0))) return false;
    return (++puts_ % kLmdbTxnPuts != 0 && !last) || Commit();
  }
  bool Sync() override { return Ok(mdb_env_sync(env_, 1)); }
  bool Get(uint32_t id, uint32_t generation, uint32_t size) override {
    char key[4];
    BigEndian(id, key);
    MDB_val mk{4, key}, mv;
    return Ok(mdb_get(txn_, dbi_, &mk, &mv)) && Values::Check(mv.mv_data, mv.mv_size, id, generation, size);
  }
  uint64_t Scan(uint64_t, uint32_t generation, uint32_t size) override {
    MDB_cursor *cursor = nullptr;
    if (!Ok(mdb_cursor_open(txn_, dbi_, &cursor))) return 0;
    MDB_val mk, mv;
    uint64_t good = 0;
    int rc;
    for (rc = mdb_cursor_get(cursor, &mk, &mv, MDB_FIRST); rc == 0; rc = mdb_cursor_get(cursor, &mk, &mv, MDB_NEXT))
      good += mk.mv_size == 4 && Values::Check(mv.mv_data, mv.mv_size, FromBigEndian(mk.mv_data), generation, size);
    mdb_cursor_close(cursor);
    return rc == MDB_NOTFOUND ? good : 0;
  }
  std::string Error() override { return error_; }
  // Readers hold one read transaction per phase.
  bool BeginRead() { return Ok(mdb_txn_begin(env_, nullptr, MDB_RDONLY, &txn_)); }
  void EndRead() {
    mdb_txn_abort(txn_);
    txn_ = nullptr;
  }

 private:
  bool Commit() {
    const int rc = mdb_txn_commit(txn_);
    txn_ = nullptr;
    return Ok(rc);
  }
  bool Ok(int rc) {
    if (rc != 0) error_ = mdb_strerror(rc);
    return rc == 0;
  }
  MDB_env *env_ = nullptr;
  MDB_txn *txn_ = nullptr;
  MDB_dbi dbi_ = 0;
  uint64_t puts_ = 0;
  std::string error_;
};
#endif

enum Side { kBox, kBoxCache, kLevelDB, kRocksDB, kLmdb, kSideCount };
const char *const kSideNames[kSideCount] = {"box", "box-cache", "leveldb", "rocksdb", "lmdb"};
constexpr int kBoxSides = 2;
PageCache *g_cache = nullptr;

std::unique_ptr<Store> MakeStore(Side side) {
  switch (side) {
    case kBox: return std::make_unique<BoxStore>(nullptr);
    case kBoxCache: return std::make_unique<BoxStore>(g_cache);
#if QWVM_HAVE_LEVELDB
    case kLevelDB: return std::make_unique<LsmStore<qwbench::LevelDBApi>>();
#endif
#if QWVM_HAVE_ROCKSDB
    case kRocksDB: return std::make_unique<LsmStore<qwbench::RocksDBApi>>();
#endif
#if QWVM_HAVE_LMDB
    case kLmdb: return std::make_unique<LmdbStore>();
#endif
    default: return nullptr;
  }
}

// A read phase on LMDB runs inside one read transaction.
template <typename Body>
auto InRead(Store *store, Body body) {
#if QWVM_HAVE_LMDB
  if (auto *lmdb = dynamic_cast<LmdbStore *>(store)) {
    if (!lmdb->BeginRead()) return decltype(body())();
    auto result = body();
    lmdb->EndRead();
    return result;
  }
#else
  (void)store;
#endif
  return body();
}

struct Workload {
  uint64_t n;
  uint32_t size;
  const char *label;  // "100B", "4KiB"
};
std::vector<Workload> g_workloads;

enum Phase { kFillSeq, kOverwriteSeq, kFillRandom, kOverwriteRandom, kReadRandom, kReadSeq, kPhaseCount };
const char *const kPhaseNames[kPhaseCount] = {"fill/seq", "overwrite/seq", "fill/random", "overwrite/random",
                                              "readrandom", "readseq"};

// The live stores: per side and workload, the sequential and the random one.
std::map<std::pair<int, int>, std::unique_ptr<Store>> g_seq, g_random;
// Bytes on disk per value byte: per (side, workload, phase).
std::map<std::tuple<int, int, int>, double> g_space;


std::string RunName(Side side, int workload, Phase phase) {
  return std::string("BM_") + kPhaseNames[phase] + "/" + g_workloads[workload].label + "/" + kSideNames[side];
}

// Writes generation `generation` of every id in `order`, then syncs.
bool WritePhase(Store *store, const std::vector<uint32_t> &order, uint32_t generation, uint32_t size,
                Times *spent) {
  const Times start = Times::Now();
  for (size_t i = 0; i < order.size(); ++i)
    if (!store->Put(order[i], g_values.Make(order[i], generation, size), size, i + 1 == order.size())) return false;
  if (!store->Sync()) return false;
  *spent = start.Since();
  return true;
}

void BM_Phase(benchmark::State &state, Side side, int workload, Phase phase) {
  const Workload &w = g_workloads[size_t(workload)];
  auto &slot = (phase == kFillSeq || phase == kOverwriteSeq ? g_seq : g_random)[{side, workload}];
  Times spent;
  for (auto _ : state) {
    if (phase == kFillSeq || phase == kFillRandom) {
      slot.reset();
      slot = MakeStore(side);
      if (!slot->Open()) return state.SkipWithError(("cannot open the store: " + slot->Error()).c_str());
    }
    if (!slot) return state.SkipWithError("no store filled before");
    Store *store = slot.get();
    bool ok = true;
    switch (phase) {
      case kFillSeq:
      case kOverwriteSeq: {
        std::vector<uint32_t> order(w.n);
        std::iota(order.begin(), order.end(), 0u);
        ok = WritePhase(store, order, phase == kOverwriteSeq, w.size, &spent);
        break;
      }
      case kFillRandom:
      case kOverwriteRandom:
        ok = WritePhase(store, Shuffled(w.n, phase), phase == kOverwriteRandom, w.size, &spent);
        break;
      case kReadRandom: {
        const std::vector<uint32_t> order = Shuffled(w.n, 99);
        const Times start = Times::Now();
        const uint64_t good = InRead(store, [&] {
          uint64_t count = 0;
          for (uint32_t id : order) count += store->Get(id, 1, w.size);
          return count;
        });
        spent = start.Since();
        ok = good == w.n;
        break;
      }
      case kReadSeq: {
        const Times start = Times::Now();
        const uint64_t good = InRead(store, [&] { return store->Scan(w.n, 1, w.size); });
        spent = start.Since();
        ok = good == w.n;
        break;
      }
      default: break;
    }
    if (!ok) return state.SkipWithError(("phase failed: " + store->Error()).c_str());
    state.SetIterationTime(spent.wall);
    if (phase <= kOverwriteRandom)
      g_space[{side, workload, phase}] = double(DiskBytes(store->directory())) / double(w.n * w.size);
  }
  state.counters["ops/s"] = benchmark::Counter(double(w.n) / spent.wall);
  state.counters["cpu_ops/s"] = benchmark::Counter(double(w.n) / spent.cpu);
  if (phase <= kOverwriteRandom) state.counters["disk/stored"] = g_space[{side, workload, phase}];
  if (phase == kOverwriteSeq) slot.reset();  // the sequential store is done
  if (phase == kReadSeq) slot.reset();
}

void Register() {
  for (size_t w = 0; w < g_workloads.size(); ++w)
    for (int s = 0; s < kSideCount; ++s) {
      if (!MakeStore(Side(s))) continue;  // a peer that was not built in
      for (int p = 0; p < kPhaseCount; ++p)
        benchmark::RegisterBenchmark(RunName(Side(s), int(w), Phase(p)).c_str(), BM_Phase, Side(s), int(w), Phase(p))
            ->Iterations(1)
            ->UseManualTime()
            ->Unit(benchmark::kMillisecond);
    }
}

// The table of the rates in `counter` per phase, workload and side, and the
// box / peer ratios.
void PrintRates(const qwbench::SummaryReporter &reporter, const char *counter) {
  std::vector<std::string> rows;
  for (const Workload &w : g_workloads)
    for (const char *phase : kPhaseNames) rows.push_back(std::string(phase) + " " + w.label);
  qwbench::PrintRates(reporter, counter, rows, {std::begin(kSideNames), std::end(kSideNames)}, kBoxSides,
                      [](size_t row, size_t side) {
                        return RunName(Side(side), int(row / kPhaseCount), Phase(row % kPhaseCount));
                      });
}

void PrintSummary(const qwbench::SummaryReporter &reporter) {
  std::printf("\nsummary: operations per second of wall time (k/s); ratio = box / peer (above 1: the box is faster)\n");
  PrintRates(reporter, "ops/s");
  std::printf("\noperations per second of process CPU time (user + system, all threads; k/s), and the ratios:\n");
  PrintRates(reporter, "cpu_ops/s");
  std::printf("\nbytes allocated on disk per value byte stored, after each write phase:\n");
  std::printf("  %-18s %-5s", "after", "value");
  for (const char *side : kSideNames) std::printf(" %9s", side);
  std::printf("\n");
  for (size_t w = 0; w < g_workloads.size(); ++w)
    for (int p = 0; p <= kOverwriteRandom; ++p) {
      std::printf("  %-18s %-5s", kPhaseNames[p], g_workloads[w].label);
      for (int s = 0; s < kSideCount; ++s) {
        auto found = g_space.find({s, int(w), p});
        if (found == g_space.end()) std::printf(" %9s", "-");
        else std::printf(" %9.3f", found->second);
      }
      std::printf("\n");
    }
}

}  // namespace

int main(int argc, char **argv) {
  uint64_t scale = 1;
  if (const char *text = std::getenv("QWVM_BENCH_BOX_SCALE")) scale = std::max<uint64_t>(1, std::strtoull(text, nullptr, 10));
  if (const char *text = std::getenv("QWVM_BENCH_BOX_BUCKETS"))
    g_boxBuckets = std::max<uint32_t>(1, uint32_t(std::strtoul(text, nullptr, 10)));
  int kept = 1;
  for (int i = 1; i < argc; ++i) {
    if (std::strcmp(argv[i], "--quick") == 0) scale = 10;
    else argv[kept++] = argv[i];
  }
  argc = kept;
  g_workloads = {{1'000'000 / scale, 100, "100B"}, {100'000 / scale, 4096, "4KiB"}};
  Register();
  return qwbench::RunWithSummary(
      argc, argv, 40,
      [] {
        if (!qwbench::MakeRunRoot("box-bench")) return false;
        g_cache = PageCacheNew(uint64_t(1) << 30, BOXLVM_PAGE_SIZE);
        return g_cache != nullptr;
      },
      PrintSummary,
      [] {
        g_seq.clear();
        g_random.clear();  // stores before the cache they use
        PageCacheFree(g_cache);
        qwbench::RemoveRunRoot();
      },
      [] { return std::string("box_bench: could not prepare ") + qwbench::RunRoot(); });
}
