// The block arena's access paths and its commit, in page-cache mode (data
// files read through a 64 MiB process page cache) and in mapped mode
// (VM_FLAG_MAPPED).
//
// Read path: VMArenaDataAcquire(OLDGEN, read) + VMArenaDataRelease of
// committed 8 KiB blocks, cycling over a working set a quarter of the cache's
// size that is resident before the timing starts, on one and two threads.
// The block's bytes are not touched: this is the cost of the path. Readers
// hold the old generation (VMArenaOldGenAcquire) for a batch of kReadBatch
// reads and then let it go, as a reader that must not hold off a commit
// forever would; the lock's cost is spread over the batch, not paid per read.
//
// Write path: VMArenaDataAcquire(NEWGEN, write) + release of blocks already
// copied in this generation (the copy-on-write happened before the timing),
// with and without a memcpy of the block's 8 KiB. Writers hold the new
// generation (VMArenaNewGenAcquire) per batch in the same way. The memcpy
// peers copy the same 8 KiB between two fixed buffers, and into as much
// rotating memory as the working set covers.
//
// Commit: in an arena of M committed blocks, N of them are written (acquire,
// memset, release) and VMArenaCommit runs; only that is timed (manual time).
// The data files and the generation files are synced at every commit, so
// this measures the disk; the peer is one synced 8 KiB write.
//
// After the runs a summary prints the ratios and the commit table.
#include <benchmark/benchmark.h>
#include <fcntl.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <iterator>
#include <map>
#include <memory>
#include <random>
#include <string>
#include <utility>
#include <vector>

#include "bench_summary.h"
#include "qwvm/qwvm.h"

namespace {

constexpr uint32_t kBlock = ARENA_MAX_BLOCK_SIZE;
constexpr uint64_t kCacheBytes = 64 << 20;
constexpr uint32_t kWorkingSet = 2048;  // 16 MiB: a quarter of the cache
constexpr uint32_t kBuckets = 2;
constexpr int kReadBatch = 1024;   // reads per hold of the old generation
constexpr int kWriteBatch = 1024;  // writes per hold of the new generation

using Mode = qwbench::ArenaMode;
constexpr Mode kCacheMode{"cache", 0, 0};
constexpr Mode kMappedMode{"mapped", VM_FLAG_MAPPED, 1};
constexpr Mode kModes[] = {kCacheMode, kMappedMode};

// An open arena of committed 8192-byte blocks, and the order in which the
// commit benchmark modifies them.
struct BenchArena {
  BenchArena() = default;
  BenchArena(const BenchArena &) = delete;
  BenchArena &operator=(const BenchArena &) = delete;
  ~BenchArena() {
    if (arena) VMArenaClose(arena);
  }

  VMArena *arena = nullptr;
  std::vector<uint64_t> ids;
  std::vector<uint32_t> order;  // a permutation of the block indices
  size_t cursor = 0;
  std::mt19937_64 random{20240611};
};

struct Globals {
  std::string root;
  PageCache *cache = nullptr;
  // By mode, the working set of the read and write benchmarks, prepared
  // before the runs (the read benchmarks' threads share them): copies in
  // reused raw blocks (steady) or in the read-write part (fresh).
  std::unique_ptr<BenchArena> steady[2];
  std::unique_ptr<BenchArena> fresh[2];
  int syncFd = -1;  // the synced-write peer's file
  std::map<std::string, std::unique_ptr<BenchArena>> commitArenas;  // by directory name
  alignas(4096) char source[kBlock];
  alignas(4096) char target[kBlock];
  std::unique_ptr<char, decltype(&std::free)> rotating{nullptr, &std::free};  // kWorkingSet blocks
} g;

bool Fail(const char *what) {
  std::fprintf(stderr, "arena_bench: %s: %s\n", what, QWErrorMessage());
  return false;
}

// Writes the whole block through the new generation; false with the error
// chain set.
bool Overwrite(VMArena *arena, uint64_t id, int byte) {
  uint32_t size = 0;
  void *data = VMArenaDataAcquire(arena, id, 0, NEWGEN, 0, &size, nullptr);
  if (!data) return false;
  std::memset(data, byte, size);
  VMArenaDataRelease(arena, id, 0, data, 0, 0);
  return true;
}

bool OverwriteAll(BenchArena *b, int byte) {
  VMArenaNewGenAcquire(b->arena, 0);
  bool ok = true;
  for (size_t i = 0; i < b->ids.size() && ok; ++i) ok = Overwrite(b->arena, b->ids[i], byte + int(i));
  VMArenaNewGenRelease(b->arena, 0);
  return ok;
}

// Brings every block of the old generation into memory (the cache, or the
// mapping's pages).
bool ReadAll(BenchArena *b) {
  VMArenaOldGenAcquire(b->arena);
  bool ok = true;
  for (uint64_t id : b->ids) {
    uint32_t size = 0;
    auto *data = static_cast<volatile char *>(VMArenaDataAcquire(b->arena, id, 0, OLDGEN, 1, &size, nullptr));
    if (!data) {
      ok = false;
      break;
    }
    (void)data[0];
    VMArenaDataRelease(b->arena, id, 1, const_cast<char *>(data), 0, 0);
  }
  VMArenaOldGenRelease(b->arena);
  return ok;
}

// Creates an arena of `count` blocks, filled and committed `generations`
// times. From the second generation on, the raw blocks that the one before
// used are free again and the copies of later writes reuse them (cache pages,
// or the mapped committed part), as in an arena that has run for a while;
// after a single generation the copies go to the read-write part beyond the
// committed size (anonymous memory, or the mapped tail of the data file).
std::unique_ptr<BenchArena> CreateArena(const Mode &mode, uint32_t count, const std::string &name,
                                        int generations) {
  auto b = std::make_unique<BenchArena>();
  const std::string directory = g.root + "/" + name;
  b->arena = VMArenaOpen(directory.c_str(), mode.flags | VM_FLAG_CREATE, kBuckets, STATUS_NO_SERIAL,
                         STATUS_NO_SERIAL, nullptr, g.cache);
  if (!b->arena) {
    Fail("VMArenaOpen");
    return nullptr;
  }
  for (uint32_t i = 0; i < count; ++i) {
    uint64_t id = VMArenaBlockNew(b->arena, 0, kBlock, nullptr, 0);
    if (id == INVALID_VMARENA_BLOCK_ID) {
      Fail("VMArenaBlockNew");
      return nullptr;
    }
    b->ids.push_back(id);
  }
  for (int generation = 0; generation < generations; ++generation) {
    if (!OverwriteAll(b.get(), generation) || !VMArenaCommit(b->arena, nullptr, nullptr, 0)) {
      Fail("fill and commit");
      return nullptr;
    }
  }
  b->order.resize(count);
  for (uint32_t i = 0; i < count; ++i) b->order[i] = i;
  std::shuffle(b->order.begin(), b->order.end(), b->random);
  return b;
}

// Created on first use (the commit benchmarks run on one thread): an arena
// of M blocks serves every N.
BenchArena *CommitArena(const Mode &mode, uint32_t count) {
  const std::string name = std::string("commit-") + mode.name + "-" + std::to_string(count);
  std::unique_ptr<BenchArena> &slot = g.commitArenas[name];
  if (!slot) slot = CreateArena(mode, count, name, 2);
  return slot.get();
}

// Threads start far apart in the working set.
uint32_t FirstBlock(const benchmark::State &state) { return uint32_t(state.thread_index()) * 7919 % kWorkingSet; }

void BM_Read(benchmark::State &state, Mode mode) {
  BenchArena *b = g.steady[mode.index].get();
  if (!b || !ReadAll(b)) {
    state.SkipWithError("no arena or a block not readable");
    return;
  }
  uint32_t i = FirstBlock(state);
  int inBatch = 0;
  VMArenaOldGenAcquire(b->arena);
  for (auto _ : state) {
    if (++inBatch == kReadBatch) {
      VMArenaOldGenRelease(b->arena);
      VMArenaOldGenAcquire(b->arena);
      inBatch = 0;
    }
    const uint64_t id = b->ids[i++ % kWorkingSet];
    uint32_t size = 0;
    void *data = VMArenaDataAcquire(b->arena, id, 0, OLDGEN, 1, &size, nullptr);
    if (!data) {
      state.SkipWithError(QWErrorMessage());
      break;
    }
    benchmark::DoNotOptimize(data);
    VMArenaDataRelease(b->arena, id, 1, data, 0, 0);
  }
  VMArenaOldGenRelease(b->arena);
  state.SetItemsProcessed(state.iterations());
}

// The write benchmarks start from a working set that is entirely copied in
// the new generation (no commit runs on these arenas after that).
BenchArena *CopiedArena(benchmark::State &state, BenchArena *b) {
  if (!b || !OverwriteAll(b, 7)) {
    state.SkipWithError("no arena or a block not writable");
    return nullptr;
  }
  return b;
}

template <bool kCopy>
void WriteLoop(benchmark::State &state, BenchArena *b) {
  uint32_t i = 0;
  int inBatch = 0;
  VMArenaNewGenAcquire(b->arena, 0);
  for (auto _ : state) {
    if (++inBatch == kWriteBatch) {
      VMArenaNewGenRelease(b->arena, 0);
      VMArenaNewGenAcquire(b->arena, 0);
      inBatch = 0;
    }
    const uint64_t id = b->ids[i++ % kWorkingSet];
    uint32_t size = 0;
    void *data = VMArenaDataAcquire(b->arena, id, 0, NEWGEN, 0, &size, nullptr);
    if (!data) {
      state.SkipWithError(QWErrorMessage());
      break;
    }
    if constexpr (kCopy) std::memcpy(data, g.source, kBlock);
    benchmark::DoNotOptimize(data);
    VMArenaDataRelease(b->arena, id, 0, data, 0, 0);
  }
  VMArenaNewGenRelease(b->arena, 0);
  benchmark::ClobberMemory();
  state.SetItemsProcessed(state.iterations());
}

void BM_Write(benchmark::State &state, Mode mode) {
  if (BenchArena *b = CopiedArena(state, g.steady[mode.index].get())) WriteLoop<false>(state, b);
}

void BM_WriteFresh(benchmark::State &state, Mode mode) {
  if (BenchArena *b = CopiedArena(state, g.fresh[mode.index].get())) WriteLoop<false>(state, b);
}

void BM_Write8K(benchmark::State &state, Mode mode) {
  if (BenchArena *b = CopiedArena(state, g.steady[mode.index].get())) WriteLoop<true>(state, b);
  state.SetBytesProcessed(state.iterations() * kBlock);
}

// The floor: 8 KiB between two buffers that stay in the processor's cache.
void BM_Memcpy8K(benchmark::State &state) {
  for (auto _ : state) {
    std::memcpy(g.target, g.source, kBlock);
    benchmark::ClobberMemory();
  }
  state.SetBytesProcessed(state.iterations() * kBlock);
}

// The same into as much memory as the write path's working set, in turn:
// the memory traffic the write path pays for, without the arena.
void BM_Memcpy8KRotating(benchmark::State &state) {
  char *memory = g.rotating.get();
  uint32_t i = 0;
  for (auto _ : state) {
    std::memcpy(memory + size_t(i++ % kWorkingSet) * kBlock, g.source, kBlock);
    benchmark::ClobberMemory();
  }
  state.SetBytesProcessed(state.iterations() * kBlock);
}

// The disk's unit of cost: 8 KiB overwritten and synced (fdatasync) in a
// file next to the arenas. A commit also creates, renames and removes files
// and syncs directories, which cost the file system's journal more.
void BM_SyncedWrite(benchmark::State &state) {
  for (auto _ : state) {
    if (pwrite(g.syncFd, g.source, kBlock, 0) != ssize_t(kBlock) || fdatasync(g.syncFd) != 0) {
      state.SkipWithError("pwrite or fdatasync failed");
      break;
    }
  }
}

// The next `n` blocks of the arena's permutation, reshuffled when used up.
void NextBlocks(BenchArena *b, size_t n, std::vector<uint64_t> *ids) {
  if (b->cursor + n > b->order.size()) {
    std::shuffle(b->order.begin(), b->order.end(), b->random);
    b->cursor = 0;
  }
  ids->clear();
  for (size_t k = 0; k < n; ++k) ids->push_back(b->ids[b->order[b->cursor + k]]);
  b->cursor += n;
}

// Arguments: N modified blocks, M blocks in the arena.
void BM_Commit(benchmark::State &state, Mode mode) {
  using Clock = std::chrono::steady_clock;
  const size_t modified = size_t(state.range(0));
  const uint32_t blocks = uint32_t(state.range(1));
  BenchArena *b = CommitArena(mode, blocks);
  if (!b) {
    state.SkipWithError("no arena");
    return;
  }
  std::vector<uint64_t> ids;
  double writeSeconds = 0, commitSeconds = 0;
  int tag = 0;
  for (auto _ : state) {
    NextBlocks(b, modified, &ids);
    ++tag;
    const Clock::time_point start = Clock::now();
    bool ok = true;
    VMArenaNewGenAcquire(b->arena, 0);
    for (size_t k = 0; k < ids.size() && ok; ++k) ok = Overwrite(b->arena, ids[k], tag + int(k));
    VMArenaNewGenRelease(b->arena, 0);
    const Clock::time_point written = Clock::now();
    ok = ok && VMArenaCommit(b->arena, nullptr, nullptr, 0);
    const Clock::time_point committed = Clock::now();
    if (!ok) {
      state.SkipWithError(QWErrorMessage());
      break;
    }
    writeSeconds += std::chrono::duration<double>(written - start).count();
    commitSeconds += std::chrono::duration<double>(committed - written).count();
    state.SetIterationTime(std::chrono::duration<double>(committed - start).count());
  }
  using benchmark::Counter;
  state.counters["write_us/block"] = Counter(writeSeconds * 1e6 / double(modified), Counter::kAvgIterations);
  state.counters["commit_us/block"] = Counter(commitSeconds * 1e6 / double(modified), Counter::kAvgIterations);
}

BENCHMARK_CAPTURE(BM_Read, cache, kCacheMode)->Threads(1)->Threads(2)->UseRealTime();
BENCHMARK_CAPTURE(BM_Read, mapped, kMappedMode)->Threads(1)->Threads(2)->UseRealTime();
BENCHMARK_CAPTURE(BM_Write, cache, kCacheMode)->UseRealTime();
BENCHMARK_CAPTURE(BM_Write, mapped, kMappedMode)->UseRealTime();
BENCHMARK_CAPTURE(BM_WriteFresh, cache, kCacheMode)->UseRealTime();
BENCHMARK_CAPTURE(BM_WriteFresh, mapped, kMappedMode)->UseRealTime();
BENCHMARK_CAPTURE(BM_Write8K, cache, kCacheMode)->UseRealTime();
BENCHMARK_CAPTURE(BM_Write8K, mapped, kMappedMode)->UseRealTime();
BENCHMARK(BM_Memcpy8K)->UseRealTime();
BENCHMARK(BM_Memcpy8KRotating)->UseRealTime();
BENCHMARK(BM_SyncedWrite)->UseRealTime()->Unit(benchmark::kMicrosecond);

// (N modified blocks, M blocks in the arena).
constexpr std::pair<int, int> kCommitShapes[] = {{16, 1024}, {256, 1024}, {256, 16384}, {4096, 16384}};

void CommitShapes(benchmark::internal::Benchmark *b) {
  for (auto [modified, blocks] : kCommitShapes) b->Args({modified, blocks});
}

BENCHMARK_CAPTURE(BM_Commit, cache, kCacheMode)->Apply(CommitShapes)->UseManualTime()->Unit(benchmark::kMillisecond);
BENCHMARK_CAPTURE(BM_Commit, mapped, kMappedMode)->Apply(CommitShapes)->UseManualTime()->Unit(benchmark::kMillisecond);

std::string CommitName(const Mode &mode, int modified, int blocks) {
  return std::string("BM_Commit/") + mode.name + "/" + std::to_string(modified) + "/" + std::to_string(blocks);
}

// Per mode: commit time per written block, write time per written block, and
// the whole write + commit of one generation.
void PrintCommitTable(const qwbench::SummaryReporter &reporter) {
  std::printf("\ncommit of N written blocks in an arena of M blocks (the data files are synced: the disk is in it)\n");
  std::printf("%6s %6s", "", "");
  for (const Mode &mode : kModes) std::printf(" | %-38s", mode.name);
  std::printf("\n%6s %6s", "N", "M");
  for (size_t k = 0; k < std::size(kModes); ++k)
    std::printf(" | %12s %11s %13s", "commit/block", "write/block", "write+commit");
  std::printf("\n");
  for (auto [modified, blocks] : kCommitShapes) {
    std::printf("%6d %6d", modified, blocks);
    for (const Mode &mode : kModes) {
      const qwbench::SummaryReporter::Result *result = reporter.Find(CommitName(mode, modified, blocks));
      if (result && result->counters.count("commit_us/block") && result->counters.count("write_us/block"))
        std::printf(" | %9.1f us %8.1f us %10.2f ms", result->counters.at("commit_us/block"),
                    result->counters.at("write_us/block"), result->nsPerOp / 1e6);
      else
        std::printf(" | %-38s", "-");
    }
    std::printf("\n");
  }
  // The smallest commit in units of the disk's synced write: about the
  // number of syncs a commit waits for.
  for (const Mode &mode : kModes) {
    const auto [modified, blocks] = kCommitShapes[0];
    const std::string label =
        std::string("commit of ") + std::to_string(modified) + " blocks / one synced write, " + mode.name;
    reporter.PrintRatio(label.c_str(), CommitName(mode, modified, blocks), "BM_SyncedWrite", 1);
  }
}

void PrintSummary(const qwbench::SummaryReporter &reporter) {
  std::printf("\nsummary (time per operation, lower is better):\n");
  for (int64_t threads : {1, 2})
    reporter.PrintRatio("read path, cache / mapped", "BM_Read/cache", "BM_Read/mapped", threads);
  reporter.PrintRatio("write path, cache / mapped", "BM_Write/cache", "BM_Write/mapped", 1);
  reporter.PrintRatio("fresh write path, cache / mapped", "BM_WriteFresh/cache", "BM_WriteFresh/mapped", 1);
  for (const Mode &mode : kModes) {
    const std::string ours = std::string("BM_Write8K/") + mode.name;
    const std::string label = std::string("8 KiB write path / memcpy ratio, ") + mode.name;
    const std::string rotatingLabel = std::string("8 KiB write path / rotating memcpy, ") + mode.name;
    reporter.PrintRatio(label.c_str(), ours, "BM_Memcpy8K", 1);
    reporter.PrintRatio(rotatingLabel.c_str(), ours, "BM_Memcpy8KRotating", 1);
  }
  PrintCommitTable(reporter);
}

bool Prepare() {
  const char *tmp = std::getenv("TMPDIR");
  std::string pattern = std::string(tmp && *tmp ? tmp : "/tmp") + "/qwvm-arena-bench-XXXXXX";
  if (!mkdtemp(pattern.data())) return false;
  g.root = pattern;
  g.cache = PageCacheNew(kCacheBytes, kBlock);
  if (!g.cache) return Fail("PageCacheNew");
  for (const Mode &mode : kModes) {
    g.steady[mode.index] = CreateArena(mode, kWorkingSet, std::string("steady-") + mode.name, 2);
    g.fresh[mode.index] = CreateArena(mode, kWorkingSet, std::string("fresh-") + mode.name, 1);
    if (!g.steady[mode.index] || !g.fresh[mode.index]) return false;
  }
  g.syncFd = open((g.root + "/synced").c_str(), O_RDWR | O_CREAT | O_CLOEXEC, 0644);
  if (g.syncFd < 0) return false;
  g.rotating.reset(static_cast<char *>(std::aligned_alloc(4096, size_t(kWorkingSet) * kBlock)));
  if (!g.rotating) return false;
  std::memset(g.rotating.get(), 1, size_t(kWorkingSet) * kBlock);  // resident, like the arena's blocks
  for (uint32_t i = 0; i < kBlock; ++i) g.source[i] = char(i * 131 + 7);
  return true;
}

// Arenas before the cache they use; then the files.
void Cleanup() {
  for (auto &arena : g.steady) arena.reset();
  for (auto &arena : g.fresh) arena.reset();
  if (g.syncFd >= 0) close(g.syncFd);
  g.commitArenas.clear();
  PageCacheFree(g.cache);
  g.cache = nullptr;
  if (g.root.empty()) return;
  std::error_code ignored;
  std::filesystem::remove_all(g.root, ignored);
}

}  // namespace

int main(int argc, char **argv) {
  return qwbench::RunWithSummary(argc, argv, 46, Prepare, PrintSummary, Cleanup,
                                 [] { return std::string("arena_bench: could not prepare the arenas in ") + g.root; });
}
