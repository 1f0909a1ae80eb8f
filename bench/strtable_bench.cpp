// The string table against LevelDB and RocksDB, in the same run, on N = 1M
// keys of 16 to 64 bytes (uniform length) with 100-byte values:
//   set/sorted     N sets in key order, fresh store
//   set/random     N sets of the same keys in a random order, fresh store
//   get/random     N gets in another random order on the set/random store
//   prefix         1000 listings of the pairs under a random 4-byte prefix
//                  (ops/s counts listings; pairs/s the pairs they visit)
//   delete/random  N deletes in a third random order: the store ends empty
// Keys are distinct strings over the 16 letters 'a' to 'p', so that a 4-byte
// prefix holds N / 65536 keys on average (about 15 for N = 1M). Every value
// read or listed is checked (its length, and the key's index stamped in its
// first 4 bytes; a listed key must start with the prefix and be the key of
// that index), every listing's count is checked against the sorted keys, and
// after the deletes 1000 gets of deleted keys must miss. Values are slices of
// a random pool, so compression gains nothing.
//
// Durability is matched: every write phase ends with all of its operations
// durable and nothing is synced before that.
//   strtable  LoggedStrTableSet / Delete for each, then one
//             LoggedStrTableCheckpoint(table, 1) (dictionary, then box)
//   LevelDB   unsynced Put()s / Delete()s, the last one with
//   RocksDB   WriteOptions::sync (the log holds every unflushed write)
// Peers run with their default options (Snappy compression on). The table
// runs twice: "strtable" with its box reading and writing its data files
// directly (cache NULL), "strtable-cache" through a 1 GiB process page cache
// (PageCacheNew(1 GiB, 8192): reads come from the cache, writes still go
// through to the file, one pwrite per block). The table hands out a pointer to the value;
// the peers copy it into a std::string. All sides are single-threaded and the
// stores sit in one directory under $TMPDIR (or /tmp), removed at the end.
//
// Each phase runs once (Iterations(1), manual time: wall clock) and keeps
// ops/s and cpu_ops/s (per second of the process's CPU time, all threads, so
// that the peers' background work counts); after each write phase, the bytes
// the store's files take on disk per key and value byte stored
// (disk/stored), and the wall seconds of the last write and the sync
// (sync_s). The summary prints both rates per phase and side and the
// ratios strtable / peer (above 1: the table is faster).
//
// Size: `--quick` (or QWVM_BENCH_STRTABLE_SCALE=10) divides N by 10;
// QWVM_BENCH_STRTABLE_BUCKETS sets the box's bucket count (default 2).
#include <benchmark/benchmark.h>

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <map>
#include <memory>
#include <numeric>
#include <random>
#include <string>
#include <string_view>
#include <unordered_set>
#include <vector>

#include "peers.h"  // first: it includes the peers' headers
#include "qwvm/qwvm.h"

namespace {

using qwbench::Shuffled;
using qwbench::Times;

constexpr uint32_t kValueSize = 100;
constexpr uint32_t kPrefixLength = 4;
constexpr uint32_t kPrefixes = 1000;
constexpr uint32_t kMissChecks = 1000;

uint32_t g_buckets = 2;
std::vector<std::string> g_keys;  // distinct, in the order they were drawn
std::vector<std::string> g_sortedKeys;

// Values: a slice of a random pool chosen by the key's index, with the index
// in the first 4 bytes.
class Values {
 public:
  Values() : pool_(1u << 20) {
    std::mt19937_64 random(42);
    for (auto &byte : pool_) byte = uint8_t(random());
  }
  const uint8_t *Make(uint32_t index) {
    const size_t offset = (size_t(index) * 7919) % (pool_.size() - kValueSize);
    std::memcpy(buffer_, pool_.data() + offset, kValueSize);
    std::memcpy(buffer_, &index, 4);
    return buffer_;
  }
  static bool Check(const void *value, size_t length, uint32_t index) {
    return length == kValueSize && std::memcmp(value, &index, 4) == 0;
  }
  // A listed pair is good when its key starts with `prefix` and its value
  // carries the index of that key.
  static bool CheckListed(std::string_view key, const void *value, size_t length, std::string_view prefix) {
    uint32_t index;
    if (length != kValueSize || key.substr(0, prefix.size()) != prefix) return false;
    std::memcpy(&index, value, 4);
    return index < g_keys.size() && g_keys[index] == key;
  }

 private:
  std::vector<uint8_t> pool_;
  uint8_t buffer_[kValueSize];
};
Values g_values;

// One store under test.
class Store : public qwbench::StoreDirectory {
 public:
  [[nodiscard]] virtual bool Open() = 0;
  // `last` is the last write of the phase: it (or Sync after it) makes the
  // phase durable.
  [[nodiscard]] virtual bool Set(std::string_view key, const uint8_t *value, bool last) = 0;
  [[nodiscard]] virtual bool Delete(std::string_view key, bool last) = 0;
  [[nodiscard]] virtual bool Sync() = 0;
  // 1 when the value of key `index` is present and good; 0 when absent; -1
  // when present with a bad value or on failure.
  virtual int Get(uint32_t index) = 0;
  // The count of good pairs under `prefix`, or -1 on a bad one or failure.
  virtual int64_t List(std::string_view prefix) = 0;
  virtual std::string Error() = 0;
};

class StrTableStore : public Store {
 public:
  explicit StrTableStore(PageCache *cache) : cache_(cache) {}
  ~StrTableStore() override {
    if (threadData_) LoggedStrTableThreadDataFree(threadData_);
    if (table_) LoggedStrTableClose(table_, 0);
  }
  bool Open() override {
    table_ = LoggedStrTableOpen(directory_.c_str(), g_buckets, 1, 1, 0, cache_);
    threadData_ = LoggedStrTableThreadDataNew();
    return table_ && threadData_;
  }
  bool Set(std::string_view key, const uint8_t *value, bool) override {
    return LoggedStrTableSet(table_, threadData_, key.data(), uint32_t(key.size()), value, kValueSize) != 0;
  }
  bool Delete(std::string_view key, bool) override {
    return LoggedStrTableDelete(table_, threadData_, key.data(), uint32_t(key.size())) != 0;
  }
  bool Sync() override { return LoggedStrTableCheckpoint(table_, 1) != 0; }
  int Get(uint32_t index) override {
    const std::string &key = g_keys[index];
    const uint8_t *value;
    uint32_t length;
    if (LoggedStrTableGet(table_, threadData_, key.data(), uint32_t(key.size()), &value, &length) != 1) return 0;
    return Values::Check(value, length, index) ? 1 : -1;
  }
  int64_t List(std::string_view prefix) override {
    LoggedStrTableEnumeration *enumeration =
        LoggedStrTableEnumerationNew(table_, prefix.data(), uint32_t(prefix.size()));
    if (!enumeration) return -1;
    const uint8_t *key, *value;
    uint32_t keyLength, valueLength;
    int64_t good = 0;
    while (LoggedStrTableEnumerationGetNext(enumeration, &key, &keyLength, &value, &valueLength)) {
      if (!Values::CheckListed({reinterpret_cast<const char *>(key), keyLength}, value, valueLength, prefix)) {
        good = -1;
        break;
      }
      ++good;
    }
    LoggedStrTableEnumerationFree(enumeration);
    return good;
  }
  std::string Error() override { return QWErrorMessage(); }

 private:
  PageCache *cache_;
  LoggedStrTable *table_ = nullptr;
  LoggedStrTableThreadData *threadData_ = nullptr;
};

// LevelDB or RocksDB (qwbench::LevelDBApi or qwbench::RocksDBApi).
template <typename Api>
class LsmStore : public Store {
 public:
  bool Open() override { return db_.Open(directory_); }
  bool Set(std::string_view key, const uint8_t *value, bool last) override {
    return db_.Put(key, value, kValueSize, last);
  }
  bool Delete(std::string_view key, bool last) override { return db_.Delete(key, last); }
  bool Sync() override { return true; }  // the last write synced
  int Get(uint32_t index) override {
    const int found = db_.Get(g_keys[index]);
    if (found != 1) return found;
    return Values::Check(db_.value().data(), db_.value().size(), index) ? 1 : -1;
  }
  int64_t List(std::string_view prefix) override {
    const auto it = db_.NewIterator();
    int64_t good = 0;
    for (it->Seek({prefix.data(), prefix.size()}); it->Valid(); it->Next()) {
      const std::string_view key(it->key().data(), it->key().size());
      if (key.substr(0, prefix.size()) != prefix) break;
      if (!Values::CheckListed(key, it->value().data(), it->value().size(), prefix)) return -1;
      ++good;
    }
    return db_.Ok(it->status()) ? good : -1;
  }
  std::string Error() override { return db_.error(); }

 private:
  qwbench::LsmDb<Api> db_;
};

enum Side { kStrTable, kStrTableCache, kLevelDB, kRocksDB, kSideCount };
const char *const kSideNames[kSideCount] = {"strtable", "strtable-cache", "leveldb", "rocksdb"};
constexpr size_t kOurSides = 2;
PageCache *g_cache = nullptr;

std::unique_ptr<Store> MakeStore(Side side) {
  switch (side) {
    case kStrTable: return std::make_unique<StrTableStore>(nullptr);
    case kStrTableCache: return std::make_unique<StrTableStore>(g_cache);
#if QWVM_HAVE_LEVELDB
    case kLevelDB: return std::make_unique<LsmStore<qwbench::LevelDBApi>>();
#endif
#if QWVM_HAVE_ROCKSDB
    case kRocksDB: return std::make_unique<LsmStore<qwbench::RocksDBApi>>();
#endif
    default: return nullptr;
  }
}

enum Phase { kSetSorted, kSetRandom, kGetRandom, kPrefix, kDeleteRandom, kPhaseCount };
const char *const kPhaseNames[kPhaseCount] = {"set/sorted", "set/random", "get/random", "prefix", "delete/random"};

// The live store per side: the sorted one lives through its phase only.
std::map<int, std::unique_ptr<Store>> g_stores;


// N distinct keys of 16 to 64 letters 'a' .. 'p', and their sorted copy.
void MakeKeys(uint64_t n) {
  std::mt19937_64 random(7);
  std::unordered_set<std::string> seen;
  seen.reserve(n);
  g_keys.reserve(n);
  while (g_keys.size() < n) {
    std::string key(16 + random() % 49, '\0');
    for (char &c : key) c = char('a' + random() % 16);
    if (seen.insert(key).second) g_keys.push_back(std::move(key));
  }
  g_sortedKeys = g_keys;
  std::sort(g_sortedKeys.begin(), g_sortedKeys.end());
}

// The prefixes of the prefix phase and the count of keys under each.
std::vector<std::pair<std::string, int64_t>> Prefixes() {
  std::mt19937_64 random(11);
  std::vector<std::pair<std::string, int64_t>> prefixes;
  for (uint32_t i = 0; i < kPrefixes; ++i) {
    std::string prefix(kPrefixLength, '\0');
    for (char &c : prefix) c = char('a' + random() % 16);
    const auto first = std::lower_bound(g_sortedKeys.begin(), g_sortedKeys.end(), prefix);
    auto last = first;
    while (last != g_sortedKeys.end() && last->compare(0, kPrefixLength, prefix) == 0) ++last;
    prefixes.emplace_back(prefix, last - first);
  }
  return prefixes;
}

std::string RunName(Side side, Phase phase) {
  return std::string("BM_") + kPhaseNames[phase] + "/" + kSideNames[side];
}

// Sets (or deletes) the keys of `order`, then syncs. *syncWall is the wall time
// of the last write and the sync (the part that makes the phase durable).
bool WritePhase(Store *store, const std::vector<uint32_t> &order, bool remove, Times *spent, double *syncWall) {
  const Times start = Times::Now();
  Times last;
  for (size_t i = 0; i < order.size(); ++i) {
    const bool isLast = i + 1 == order.size();
    if (isLast) last = Times::Now();
    const std::string &key = g_keys[order[i]];
    if (remove ? !store->Delete(key, isLast) : !store->Set(key, g_values.Make(order[i]), isLast)) return false;
  }
  if (!store->Sync()) return false;
  *spent = start.Since();
  *syncWall = last.Since().wall;
  return true;
}

void BM_Phase(benchmark::State &state, Side side, Phase phase) {
  const uint64_t n = g_keys.size();
  auto &slot = g_stores[side];
  Times spent;
  double syncWall = 0;
  uint64_t ops = n, pairs = 0;
  for (auto _ : state) {
    if (phase == kSetSorted || phase == kSetRandom) {
      slot.reset();
      slot = MakeStore(side);
      if (!slot->Open()) return state.SkipWithError(("cannot open the store: " + slot->Error()).c_str());
    }
    if (!slot) return state.SkipWithError("no store set before");
    Store *store = slot.get();
    bool ok = true;
    switch (phase) {
      case kSetSorted: {
        std::vector<uint32_t> order(n);
        std::iota(order.begin(), order.end(), 0u);
        std::sort(order.begin(), order.end(), [](uint32_t a, uint32_t b) { return g_keys[a] < g_keys[b]; });
        ok = WritePhase(store, order, false, &spent, &syncWall);
        break;
      }
      case kSetRandom: ok = WritePhase(store, Shuffled(n, 1), false, &spent, &syncWall); break;
      case kGetRandom: {
        const std::vector<uint32_t> order = Shuffled(n, 2);
        const Times start = Times::Now();
        uint64_t good = 0;
        for (uint32_t index : order) good += store->Get(index) == 1;
        spent = start.Since();
        ok = good == n;
        break;
      }
      case kPrefix: {
        const auto prefixes = Prefixes();
        std::vector<int64_t> counts;
        counts.reserve(prefixes.size());
        const Times start = Times::Now();
        for (const auto &prefix : prefixes) counts.push_back(store->List(prefix.first));
        spent = start.Since();
        ops = prefixes.size();
        for (size_t i = 0; i < prefixes.size(); ++i) {
          ok = ok && counts[i] == prefixes[i].second;
          pairs += uint64_t(std::max<int64_t>(counts[i], 0));
        }
        break;
      }
      case kDeleteRandom: {
        ok = WritePhase(store, Shuffled(n, 3), true, &spent, &syncWall);
        for (uint32_t i = 0; ok && i < std::min<uint64_t>(n, kMissChecks); ++i) ok = store->Get(i) == 0;
        break;
      }
      default: break;
    }
    if (!ok) return state.SkipWithError(("phase failed: " + store->Error()).c_str());
    state.SetIterationTime(spent.wall);
    if (phase == kSetSorted || phase == kSetRandom) {
      uint64_t stored = 0;
      for (const std::string &key : g_keys) stored += key.size() + kValueSize;
      state.counters["disk/stored"] = double(qwbench::DiskBytes(store->directory())) / double(stored);
    }
  }
  state.counters["ops/s"] = benchmark::Counter(double(ops) / spent.wall);
  state.counters["cpu_ops/s"] = benchmark::Counter(double(ops) / spent.cpu);
  if (phase != kGetRandom && phase != kPrefix) state.counters["sync_s"] = syncWall;
  if (phase == kPrefix) state.counters["pairs/s"] = benchmark::Counter(double(pairs) / spent.wall);
  if (phase == kSetSorted || phase == kDeleteRandom) slot.reset();
}

void Register() {
  for (int s = 0; s < kSideCount; ++s) {
    if (!MakeStore(Side(s))) continue;  // a peer that was not built in
    for (int p = 0; p < kPhaseCount; ++p)
      benchmark::RegisterBenchmark(RunName(Side(s), Phase(p)).c_str(), BM_Phase, Side(s), Phase(p))
          ->Iterations(1)
          ->UseManualTime()
          ->Unit(benchmark::kMillisecond);
  }
}

void PrintSummary(const qwbench::SummaryReporter &reporter) {
  const std::vector<std::string> rows(std::begin(kPhaseNames), std::end(kPhaseNames));
  const std::vector<std::string> sides(std::begin(kSideNames), std::end(kSideNames));
  const auto name = [](size_t row, size_t side) { return RunName(Side(side), Phase(row)); };
  std::printf("\nsummary, %zu keys: operations per second of wall time (k/s); ratio = strtable / peer (above 1: the "
              "table is faster)\n",
              g_keys.size());
  qwbench::PrintRates(reporter, "ops/s", rows, sides, kOurSides, name);
  std::printf("\noperations per second of process CPU time (user + system, all threads; k/s), and the ratios:\n");
  qwbench::PrintRates(reporter, "cpu_ops/s", rows, sides, kOurSides, name);
}

}  // namespace

int main(int argc, char **argv) {
  uint64_t scale = 1;
  if (const char *text = std::getenv("QWVM_BENCH_STRTABLE_SCALE"))
    scale = std::max<uint64_t>(1, std::strtoull(text, nullptr, 10));
  if (const char *text = std::getenv("QWVM_BENCH_STRTABLE_BUCKETS"))
    g_buckets = std::max<uint32_t>(1, uint32_t(std::strtoul(text, nullptr, 10)));
  int kept = 1;
  for (int i = 1; i < argc; ++i) {
    if (std::strcmp(argv[i], "--quick") == 0) scale = 10;
    else argv[kept++] = argv[i];
  }
  argc = kept;
  MakeKeys(1'000'000 / scale);
  Register();
  return qwbench::RunWithSummary(
      argc, argv, 40,
      [] {
        if (!qwbench::MakeRunRoot("strtable-bench")) return false;
        g_cache = PageCacheNew(uint64_t(1) << 30, BOXLVM_PAGE_SIZE);
        return g_cache != nullptr;
      },
      PrintSummary,
      [] {
        g_stores.clear();  // stores before the cache they use
        PageCacheFree(g_cache);
        qwbench::RemoveRunRoot();
      },
      [] { return std::string("strtable_bench: could not prepare ") + qwbench::RunRoot(); });
}
