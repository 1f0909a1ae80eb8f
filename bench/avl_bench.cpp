// The AVL dictionary against std::map<uint32_t, uint32_t>, in page-cache
// mode (a 512 MiB process page cache, larger than the data set) and in
// mapped mode (VM_FLAG_MAPPED).
//
// Insert: 1M random u32 keys (fixed seed; values derived from the keys)
// into an empty dictionary in a fresh arena with QWDBAVLLDictInsert, the
// new generation held per batch of 1024 inserts, against inserting the same
// keys into an empty std::map. One timed pass per repetition (manual time);
// afterwards the arena is committed and every key is checked.
//
// Find: QWDBAVLLDictFind of keys drawn from the inserted ones (fixed seed)
// in the committed generation, held per batch of 1024 finds, against
// std::map::find. Both sides check the value they find.
//
// After the runs a summary prints the ratios (time per operation, lower is
// better).
#include <benchmark/benchmark.h>

#include <cstdio>
#include <filesystem>
#include <map>
#include <memory>
#include <random>
#include <string>
#include <vector>

#include "arrays_sets.h"
#include "bench_summary.h"
#include "qwvm/qwvm.h"

namespace {

using arraysbench::BulkResult;
using arraysbench::Mode;
using arraysbench::ScratchArena;

constexpr uint32_t kKeys = 1'000'000;
constexpr uint64_t kCacheBytes = uint64_t(512) << 20;
constexpr int kBatch = 1024;
constexpr uint32_t kProbes = 1 << 20;  // probe sequence, cycled

inline uint32_t ValueOf(uint32_t key) { return key * 2654435761u + 1; }

// A committed dictionary of one mode; the dictionary goes before its arena.
struct DictArena {
  std::unique_ptr<ScratchArena> arena;
  std::unique_ptr<QWDBAVLLDict, decltype(&QWDBAVLLDictDelete)> dict{nullptr, &QWDBAVLLDictDelete};
};

struct Globals {
  arraysbench::Place place;
  std::vector<uint32_t> keys;    // insertion order, may repeat
  std::vector<uint32_t> probes;  // keys to find
  std::unique_ptr<DictArena> dicts[2];
  std::map<uint32_t, uint32_t> map;
} g;

bool InsertAll(QWDBAVLLDict *dict, VMArena *arena) {
  for (uint32_t i = 0; i < kKeys;) {
    VMArenaNewGenAcquire(arena, 0);
    for (int n = 0; n < kBatch && i < kKeys; ++n, ++i) {
      (void)QWDBAVLLDictInsert(dict, g.keys[i], ValueOf(g.keys[i]), 0, NEWGEN);
      if (QWErrorIsSet()) {
        VMArenaNewGenRelease(arena, 0);
        return false;
      }
    }
    VMArenaNewGenRelease(arena, 0);
  }
  return true;
}

bool CheckAll(QWDBAVLLDict *dict, VMArena *arena) {
  VMArenaOldGenAcquire(arena);
  bool ok = DBAVLLCheck(dict, OLDGEN) == 1;
  for (uint32_t i = 0; i < kKeys && ok; ++i) ok = QWDBAVLLDictFind(dict, g.keys[i], 0, OLDGEN) == ValueOf(g.keys[i]);
  VMArenaOldGenRelease(arena);
  return ok;
}

std::unique_ptr<DictArena> MakeDict(const Mode &mode, BulkResult *result) {
  auto d = std::make_unique<DictArena>();
  d->arena = arraysbench::OpenScratch(&g.place, mode, "avl");
  if (!d->arena) return nullptr;
  VMArena *arena = d->arena->get();
  VMArenaNewGenAcquire(arena, 0);
  d->dict.reset(QWDBAVLLDictNew(arena, "bench", "avl", 0));
  VMArenaNewGenRelease(arena, 0);
  if (!d->dict) return nullptr;
  if (!arraysbench::Timed(result, [&] { return InsertAll(d->dict.get(), arena); })) return nullptr;
  if (!arraysbench::Commit(arena, result) || !CheckAll(d->dict.get(), arena)) return nullptr;
  return d;
}

void FillMap() {
  for (uint32_t key : g.keys) g.map[key] = ValueOf(key);
}

void BM_AVLInsert(benchmark::State &state, Mode mode) {
  BulkResult result;
  for (auto _ : state) {
    g.dicts[mode.index].reset();  // the last repetition's dictionary is kept for the finds
    result = BulkResult{};
    g.dicts[mode.index] = MakeDict(mode, &result);
    if (!g.dicts[mode.index]) {
      state.SkipWithError(QWErrorMessage());
      return;
    }
    state.SetIterationTime(result.seconds);
  }
  state.counters["ops/s"] = benchmark::Counter(kKeys / result.seconds);
  state.counters["commit_ms"] = benchmark::Counter(result.commitSeconds * 1e3);
}

void BM_MapInsert(benchmark::State &state) {
  BulkResult result;
  for (auto _ : state) {
    g.map = {};
    (void)arraysbench::Timed(&result, [] {
      FillMap();
      return true;
    });
    state.SetIterationTime(result.seconds);
  }
  state.counters["ops/s"] = benchmark::Counter(kKeys / result.seconds);
}

void BM_AVLFind(benchmark::State &state, Mode mode) {
  if (!g.dicts[mode.index]) {
    BulkResult ignored;
    g.dicts[mode.index] = MakeDict(mode, &ignored);
  }
  if (!g.dicts[mode.index]) {
    state.SkipWithError("no dictionary");
    return;
  }
  QWDBAVLLDict *dict = g.dicts[mode.index]->dict.get();
  VMArena *arena = g.dicts[mode.index]->arena->get();
  uint32_t i = 0;
  int inBatch = 0;
  VMArenaOldGenAcquire(arena);
  for (auto _ : state) {
    const uint32_t key = g.probes[i++ & (kProbes - 1)];
    if (QWDBAVLLDictFind(dict, key, 0, OLDGEN) != ValueOf(key)) {
      state.SkipWithError("wrong value");
      break;
    }
    if (++inBatch == kBatch) {
      inBatch = 0;
      VMArenaOldGenRelease(arena);
      VMArenaOldGenAcquire(arena);
    }
  }
  VMArenaOldGenRelease(arena);
  state.SetItemsProcessed(state.iterations());
}

void BM_MapFind(benchmark::State &state) {
  if (g.map.empty()) FillMap();
  uint32_t i = 0;
  for (auto _ : state) {
    const uint32_t key = g.probes[i++ & (kProbes - 1)];
    auto found = g.map.find(key);
    if (found == g.map.end() || found->second != ValueOf(key)) {
      state.SkipWithError("wrong value");
      break;
    }
  }
  state.SetItemsProcessed(state.iterations());
}

void Bulk(benchmark::internal::Benchmark *b) { b->Iterations(1)->UseManualTime()->Unit(benchmark::kMillisecond); }

BENCHMARK_CAPTURE(BM_AVLInsert, cache, arraysbench::kCacheMode)->Apply(Bulk);
BENCHMARK_CAPTURE(BM_AVLInsert, mapped, arraysbench::kMappedMode)->Apply(Bulk);
BENCHMARK(BM_MapInsert)->Apply(Bulk);
BENCHMARK_CAPTURE(BM_AVLFind, cache, arraysbench::kCacheMode)->UseRealTime();
BENCHMARK_CAPTURE(BM_AVLFind, mapped, arraysbench::kMappedMode)->UseRealTime();
BENCHMARK(BM_MapFind)->UseRealTime();

bool Prepare() {
  const char *tmp = std::getenv("TMPDIR");
  g.place.root = std::string(tmp && *tmp ? tmp : "/tmp") + "/qwvm-avl-bench-" + std::to_string(getpid());
  std::filesystem::create_directories(g.place.root);
  g.place.cache = PageCacheNew(kCacheBytes, 8192);
  if (!g.place.cache) return false;
  std::mt19937 rng(42);
  g.keys.resize(kKeys);
  for (uint32_t &key : g.keys) key = uint32_t(rng());
  g.probes.resize(kProbes);
  for (uint32_t &probe : g.probes) probe = g.keys[rng() % kKeys];
  return true;
}

void PrintSummary(const qwbench::SummaryReporter &reporter) {
  std::printf("\n");
  reporter.PrintRatio("insert, cache / std::map", "BM_AVLInsert/cache", "BM_MapInsert", 1);
  reporter.PrintRatio("insert, mapped / std::map", "BM_AVLInsert/mapped", "BM_MapInsert", 1);
  reporter.PrintRatio("find, cache / std::map", "BM_AVLFind/cache", "BM_MapFind", 1);
  reporter.PrintRatio("find, mapped / std::map", "BM_AVLFind/mapped", "BM_MapFind", 1);
}

void Cleanup() {
  for (auto &d : g.dicts) d.reset();
  if (g.place.cache) PageCacheFree(g.place.cache);
  std::error_code ignored;
  std::filesystem::remove_all(g.place.root, ignored);
}

}  // namespace

int main(int argc, char **argv) {
  return qwbench::RunWithSummary(argc, argv, 28, Prepare, PrintSummary, Cleanup,
                                 [] { return std::string("cannot prepare: ") + QWErrorMessage(); });
}
