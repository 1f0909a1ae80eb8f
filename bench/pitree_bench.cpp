// Symbol-sequence trees against std::unordered_map<std::string, uint64_t>
// and std::map<std::string, uint64_t>, on two data sets of 1M keys drawn
// with a fixed seed, one symbol per byte:
//  - random: strings of 8 to 40 printable bytes;
//  - urls: URL-like paths with long common prefixes
//    ("https://www.site<k>.example.com/<section>/<topic>/item-<n>.html").
//
// Insert: one iteration builds the whole set (Iterations(1), manual time): a
// tree in a fresh arena (page-cache mode, a 512 MiB process page cache)
// with PITreeFind(create), the peers by emplace into a fresh container. The
// tree is then committed; the bytes of the arena directory on disk per key
// are kept as the "disk/key" counter (the empty arena's own bytes included).
// Find: random probes of stored keys, the tree in OLDGEN (the committed
// tree) against find() in the containers.
//
// Both sides start every operation from the same std::string key, as a
// caller holding byte keys would: the tree's side widens it into a reused
// symbol buffer first, so neither side pays for a key layout the other
// does not have. The probe keys are copies laid out in probe order, so a
// find starts from a key that is at hand, as a server's key is when it has
// just read the request. QWVM_BENCH_COLD_KEYS=1 instead picks each probe's
// key out of the million stored ones, a cold read of two lines per find:
// the hash map's short loop overlaps that read with the previous find,
// where the tree's long walk cannot, so that variant mostly measures the
// processor's reorder window. QWVM_BENCH_HOT_KEYS=<n> draws the probes
// among the first n keys only: with a few hundred, everything a find reads
// stays cached, and the figure is the walk's own work.
#include <benchmark/benchmark.h>

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <map>
#include <memory>
#include <random>
#include <string>
#include <unordered_map>
#include <vector>

#include "bench_summary.h"
#include "qwvm/qwvm.h"

namespace {

constexpr uint32_t kKeys = 1000000;
constexpr uint64_t kCacheBytes = uint64_t(512) << 20;

struct DataSet {
  std::vector<std::string> keys;
  std::vector<std::string> probeKeys;  // the probes' keys in probe order, or
  std::vector<uint32_t> coldProbes;    // with cold keys, the probes' positions in keys
  const std::string &Probe(uint32_t i) const { return coldProbes.empty() ? probeKeys[i] : keys[coldProbes[i]]; }
};

// The key as symbols, one per byte, in a buffer that stays warm between calls.
const std::vector<uint32_t> &Widen(const std::string &key, std::vector<uint32_t> *symbols) {
  symbols->assign(key.begin(), key.end());
  return *symbols;
}

DataSet MakeSet(bool urls) {
  DataSet set;
  std::mt19937_64 rng(urls ? 42 : 7);
  std::unordered_map<std::string, bool> seen;
  static const char *const kSections[] = {"news", "sport", "science", "culture", "archive", "people", "travel"};
  while (set.keys.size() < kKeys) {
    std::string key;
    if (urls) {
      key = "https://www.site" + std::to_string(rng() % 50) + ".example.com/" + kSections[rng() % 7] + "/topic-" +
            std::to_string(rng() % 200) + "/item-" + std::to_string(rng() % 1000000) + ".html";
    } else {
      for (uint32_t n = 8 + uint32_t(rng() % 33); n > 0; --n) key.push_back(char(33 + rng() % 94));
    }
    if (!seen.emplace(key, true).second) continue;
    set.keys.push_back(std::move(key));
  }
  const char *cold = getenv("QWVM_BENCH_COLD_KEYS");
  const bool coldKeys = cold && *cold && std::strcmp(cold, "0") != 0;
  const char *hot = getenv("QWVM_BENCH_HOT_KEYS");
  const uint32_t span = hot && std::atoi(hot) > 0 ? std::min<uint32_t>(uint32_t(std::atoi(hot)), kKeys) : kKeys;
  std::vector<uint32_t> probes;
  for (uint32_t i = 0; i < kKeys; ++i) probes.push_back(uint32_t(rng() % span));
  if (coldKeys) {
    set.coldProbes = std::move(probes);
  } else {
    for (uint32_t p : probes) set.probeKeys.push_back(set.keys[p]);
  }
  return set;
}

struct TreeSide {
  VMArena *arena = nullptr;
  PITree *tree = nullptr;
  PITreeThreadData *td = nullptr;
  double diskPerKey = 0;
  ~TreeSide() {
    PITreeThreadDataFree(td);
    PITreeFree(tree);
    if (arena) VMArenaClose(arena);
  }
};

struct Globals {
  PageCache *cache = nullptr;
  std::string root;
  DataSet sets[2];
  std::unique_ptr<TreeSide> trees[2];
  std::unordered_map<std::string, uint64_t> hashes[2];
  std::map<std::string, uint64_t> maps[2];
} g;

uint64_t DirectoryBytes(const std::string &directory) {
  uint64_t total = 0;
  for (const auto &entry : std::filesystem::recursive_directory_iterator(directory))
    if (entry.is_regular_file()) total += entry.file_size();
  return total;
}

std::unique_ptr<TreeSide> BuildTree(int which, double *seconds) {
  const std::string directory = g.root + "/tree" + std::to_string(which);
  std::filesystem::remove_all(directory);
  auto side = std::make_unique<TreeSide>();
  const char *mappedSetting = getenv("QWVM_BENCH_MAPPED");
  const bool mapped = mappedSetting && *mappedSetting && std::strcmp(mappedSetting, "0") != 0;
  side->arena = VMArenaOpen(directory.c_str(), VM_FLAG_CREATE | (mapped ? VM_FLAG_MAPPED : 0), 2, STATUS_NO_SERIAL,
                            STATUS_NO_SERIAL, nullptr, mapped ? nullptr : g.cache);
  uint8_t *path = nullptr;
  int created = 0;
  if (side->arena) side->tree = PITreeNew(side->arena, &path, "keys", &created, 0);
  ArrayFree(path);
  side->td = PITreeThreadDataNew();
  if (!side->tree || !side->td) return nullptr;
  const DataSet &set = g.sets[which];
  std::vector<uint32_t> symbols;
  const auto start = std::chrono::steady_clock::now();
  for (uint32_t i = 0; i < kKeys; ++i) {
    const std::vector<uint32_t> &atom = Widen(set.keys[i], &symbols);
    if (PITreeFind(side->tree, side->td, atom.data(), uint32_t(atom.size()), i + 1, NEWGEN, 1, 0, 0) != i + 1)
      return nullptr;
  }
  *seconds = std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();
  if (!VMArenaCommit(side->arena, nullptr, nullptr, 0) || !PITreeCommit(side->tree)) return nullptr;
  side->diskPerKey = double(DirectoryBytes(directory)) / kKeys;
  return side;
}

void BM_PITreeInsert(benchmark::State &state, int which) {
  double seconds = 0;
  for (auto _ : state) {
    g.trees[which].reset();
    g.trees[which] = BuildTree(which, &seconds);
    if (!g.trees[which]) {
      state.SkipWithError(QWErrorMessage());
      return;
    }
    state.SetIterationTime(seconds);
  }
  state.counters["ops/s"] = benchmark::Counter(kKeys / seconds);
  state.counters["disk/key"] = benchmark::Counter(g.trees[which]->diskPerKey);
}

template <typename Container>
void PeerInsert(benchmark::State &state, Container &container, int which) {
  double seconds = 0;
  for (auto _ : state) {
    Container().swap(container);
    const auto start = std::chrono::steady_clock::now();
    for (uint32_t i = 0; i < kKeys; ++i) container.emplace(g.sets[which].keys[i], i + 1);
    seconds = std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();
    state.SetIterationTime(seconds);
  }
  state.counters["ops/s"] = benchmark::Counter(kKeys / seconds);
}

void BM_HashInsert(benchmark::State &state, int which) { PeerInsert(state, g.hashes[which], which); }
void BM_MapInsert(benchmark::State &state, int which) { PeerInsert(state, g.maps[which], which); }

void BM_PITreeFind(benchmark::State &state, int which) {
  if (!g.trees[which]) {
    double ignored;
    g.trees[which] = BuildTree(which, &ignored);
  }
  TreeSide *side = g.trees[which].get();
  if (!side) {
    state.SkipWithError("no tree");
    return;
  }
  const DataSet &set = g.sets[which];
  std::vector<uint32_t> symbols;
  uint32_t cursor = 0;
  uint64_t sum = 0;
  VMArenaOldGenAcquire(side->arena);
  for (auto _ : state) {
    const std::vector<uint32_t> &atom = Widen(set.Probe(cursor), &symbols);
    cursor = cursor + 1 == kKeys ? 0 : cursor + 1;
    sum += PITreeFind(side->tree, side->td, atom.data(), uint32_t(atom.size()), 0, OLDGEN, 0, 0, 0);
  }
  VMArenaOldGenRelease(side->arena);
  benchmark::DoNotOptimize(sum);
  state.SetItemsProcessed(state.iterations());
}

template <typename Container>
void PeerFind(benchmark::State &state, Container &container, int which) {
  if (container.empty())
    for (uint32_t i = 0; i < kKeys; ++i) container.emplace(g.sets[which].keys[i], i + 1);
  const DataSet &set = g.sets[which];
  uint32_t cursor = 0;
  uint64_t sum = 0;
  for (auto _ : state) {
    sum += container.find(set.Probe(cursor))->second;
    cursor = cursor + 1 == kKeys ? 0 : cursor + 1;
  }
  benchmark::DoNotOptimize(sum);
  state.SetItemsProcessed(state.iterations());
}

void BM_HashFind(benchmark::State &state, int which) { PeerFind(state, g.hashes[which], which); }
void BM_MapFind(benchmark::State &state, int which) { PeerFind(state, g.maps[which], which); }

const char *const kSetNames[2] = {"random", "urls"};

void Register() {
  for (int which = 0; which < 2; ++which) {
    const std::string set = std::string("/") + kSetNames[which];
    benchmark::RegisterBenchmark(("BM_PITreeInsert" + set).c_str(), BM_PITreeInsert, which)
        ->Iterations(1)
        ->UseManualTime()
        ->Unit(benchmark::kMillisecond);
    benchmark::RegisterBenchmark(("BM_HashInsert" + set).c_str(), BM_HashInsert, which)
        ->Iterations(1)
        ->UseManualTime()
        ->Unit(benchmark::kMillisecond);
    benchmark::RegisterBenchmark(("BM_MapInsert" + set).c_str(), BM_MapInsert, which)
        ->Iterations(1)
        ->UseManualTime()
        ->Unit(benchmark::kMillisecond);
    benchmark::RegisterBenchmark(("BM_PITreeFind" + set).c_str(), BM_PITreeFind, which);
    benchmark::RegisterBenchmark(("BM_HashFind" + set).c_str(), BM_HashFind, which);
    benchmark::RegisterBenchmark(("BM_MapFind" + set).c_str(), BM_MapFind, which);
  }
}

void Summary(const qwbench::SummaryReporter &reporter) {
  std::printf("\n");
  for (int which = 0; which < 2; ++which) {
    const std::string set = std::string("/") + kSetNames[which];
    const std::string insert = std::string("insert ") + kSetNames[which];
    const std::string find = std::string("find ") + kSetNames[which];
    reporter.PrintRatio((insert + " / unordered_map").c_str(), "BM_PITreeInsert" + set, "BM_HashInsert" + set, 1);
    reporter.PrintRatio((insert + " / map").c_str(), "BM_PITreeInsert" + set, "BM_MapInsert" + set, 1);
    reporter.PrintRatio((find + " / unordered_map").c_str(), "BM_PITreeFind" + set, "BM_HashFind" + set, 1);
    reporter.PrintRatio((find + " / map").c_str(), "BM_PITreeFind" + set, "BM_MapFind" + set, 1);
    if (const auto *r = reporter.Find("BM_PITreeInsert" + set))
      std::printf("%-28s: %.1f bytes on disk per key (keys average %.1f bytes)\n", (insert + " disk").c_str(),
                  r->counters.at("disk/key"), [&] {
                    double total = 0;
                    for (const std::string &k : g.sets[which].keys) total += double(k.size());
                    return total / kKeys;
                  }());
  }
}

}  // namespace

int main(int argc, char **argv) {
  return qwbench::RunWithSummary(
      argc, argv, 34,
      [] {
        g.root = (std::filesystem::temp_directory_path() / ("pitree_bench." + std::to_string(getpid()))).string();
        std::filesystem::create_directories(g.root);
        g.cache = PageCacheNew(kCacheBytes, 8192);
        g.sets[0] = MakeSet(false);
        g.sets[1] = MakeSet(true);
        Register();
        return g.cache != nullptr;
      },
      Summary,
      [] {
        for (auto &tree : g.trees) tree.reset();
        if (g.cache) PageCacheFree(g.cache);
        std::filesystem::remove_all(g.root);
      },
      [] { return "cannot make the page cache"; });
}
