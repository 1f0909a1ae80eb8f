// The arena's two array families against the standard containers, in
// page-cache mode (a 512 MiB process page cache, larger than every data set
// of the run) and in mapped mode (VM_FLAG_MAPPED).
//
// Block-directory array: 1M strings of 10 to 200 bytes (lengths, contents
// and the probe order drawn with a fixed seed) added to one bucket with
// DBArrayAdd, against emplace_back into a std::vector<std::string>; then
// random gets of the committed strings (DBArrayGet + DBArrayRelease in
// OLDGEN) against indexing the vector. Both sides read the first and the last
// byte of the string they find.
//
// Arena array of u32: 10M values appended with VMAArrayAppend_ in batches of
// 1024 (a producer fills a buffer and hands it over), and written in place
// (VMAArrayEnsureCapacity_ + VMAArrayLengthSet_ once, then VMAArrayRange_ per
// block), against push_back into a std::vector<uint32_t>; then a sequential
// scan summing the committed array range by range against summing the vector
// (the same summing function on both sides).
//
// The bulk phases run once per repetition (Iterations(1), manual time): the
// arena side in a fresh arena, the peer in a fresh container whose memory
// comes fresh from the system too, so both pay their page faults (counted in
// the "faults" counter); push_back into a vector that keeps its capacity is
// the peer's floor. After the timing the arena is committed, every value is
// checked (arrays_sets.h builds and checks the data sets), and the bytes of
// the arena's directory on disk per stored byte are kept as counters.
//
// The format floor (BM_DBArrayFormatFloor) reads the same strings laid out
// in the data blocks' format in plain memory, without the arena: what the
// format itself costs a random get here.
//
// After the runs a summary prints the ratios, the rates and the space table.
#include <benchmark/benchmark.h>
#include <malloc.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <memory>
#include <string>
#include <vector>

#include "arrays_sets.h"
#include "bench_summary.h"
#include "qwvm/qwvm.h"
#include "util/endian.h"
#include "util/varint.h"

namespace {

using namespace arraysbench;

constexpr uint64_t kCacheBytes = uint64_t(512) << 20;

struct Globals {
  Place place;
  DataSet data;
  // Built by the bulk benchmarks (or on first use when those are filtered
  // out), read by the get and scan benchmarks.
  std::unique_ptr<StringArena> strings[2];
  std::unique_ptr<WordArena> words[2];
  std::vector<std::string> vectorStrings;
  std::vector<uint32_t> vectorWords;
} g;

StringArena *EnsureStrings(const Mode &mode) {
  BulkResult ignored;
  if (!g.strings[mode.index]) g.strings[mode.index] = MakeStrings(&g.place, g.data, mode, &ignored);
  return g.strings[mode.index].get();
}

// Into an empty g.vectorStrings, as a program would fill its container.
void FillVectorStrings() {
  for (uint32_t i = 0; i < kStrings; ++i) g.vectorStrings.emplace_back(g.data.StringAt(i), g.data.length[i]);
}

WordArena *EnsureWords(const Mode &mode) {
  BulkResult ignored;
  if (!g.words[mode.index]) g.words[mode.index] = MakeWords(&g.place, g.data, mode, false, &ignored);
  return g.words[mode.index].get();
}

// Into an empty g.vectorWords.
void FillVectorWords() {
  for (uint32_t i = 0; i < kWords; ++i) g.vectorWords.push_back(Word(i));
}

// ---------------------------------------------------------------------------
// Benchmarks

void ReportBulk(benchmark::State &state, const BulkResult &result, uint32_t count, uint64_t storedBytes) {
  using benchmark::Counter;
  state.counters["ops/s"] = Counter(double(count) / result.seconds);
  state.counters["faults"] = Counter(double(result.faults));
  state.counters["commit_ms"] = Counter(result.commitSeconds * 1e3);
  state.counters["disk/stored"] = Counter(double(result.diskBytes) / double(storedBytes));
  state.counters["allocated/stored"] = Counter(double(result.allocatedBytes) / double(storedBytes));
  state.counters["disk_MiB"] = Counter(double(result.diskBytes) / double(1 << 20));
}

void BM_DBArrayAdd(benchmark::State &state, Mode mode) {
  BulkResult result;
  for (auto _ : state) {
    g.strings[mode.index].reset();  // the last repetition's arena is kept for the gets
    result = BulkResult{};
    g.strings[mode.index] = MakeStrings(&g.place, g.data, mode, &result);
    if (!g.strings[mode.index]) {
      state.SkipWithError("could not build the string arena");
      return;
    }
    state.SetIterationTime(result.seconds);
  }
  ReportBulk(state, result, kStrings, g.data.stringBytes);
}

// The peers' bulk phases: `clear` (untimed) prepares the container, `fill`
// is timed. The counters are those of the last repetition.
void VectorBulk(benchmark::State &state, void (*clear)(), void (*fill)(), uint32_t count) {
  BulkResult result;
  for (auto _ : state) {
    clear();
    (void)Timed(&result, [fill] {
      fill();
      return true;
    });
    state.SetIterationTime(result.seconds);
  }
  state.counters["ops/s"] = benchmark::Counter(double(count) / result.seconds);
  state.counters["faults"] = benchmark::Counter(double(result.faults));
}

// The container is freed and its memory given back to the system, so that
// every repetition fills memory fresh from the system (page faults
// included), as every new arena does.
void FreeVectorStrings() {
  std::vector<std::string>().swap(g.vectorStrings);
  malloc_trim(0);
}
void FreeVectorWords() {
  std::vector<uint32_t>().swap(g.vectorWords);
  malloc_trim(0);
}
void ClearVectorWords() { g.vectorWords.clear(); }  // the capacity stays

void BM_VectorStringAdd(benchmark::State &state) { VectorBulk(state, FreeVectorStrings, FillVectorStrings, kStrings); }

void BM_DBArrayGet(benchmark::State &state, Mode mode) {
  const StringArena *s = EnsureStrings(mode);
  if (!s) {
    state.SkipWithError("no string arena");
    return;
  }
  DBArray *array = s->array.get();
  VMArena *arena = s->arena->get();
  uint32_t cursor = 0, sum = 0;
  int inBatch = 0;
  VMArenaOldGenAcquire(arena);
  for (auto _ : state) {
    if (++inBatch == kBatch) {
      VMArenaOldGenRelease(arena);
      VMArenaOldGenAcquire(arena);
      inBatch = 0;
    }
    const uint32_t handle = g.data.probes[cursor];
    cursor = cursor + 1 == kStrings ? 0 : cursor + 1;
    uint32_t length = 0;
    const auto *bytes = static_cast<const uint8_t *>(DBArrayGet(array, 0, handle, OLDGEN, 1, &length));
    if (!bytes) {
      state.SkipWithError(QWErrorMessage());
      break;
    }
    sum += Touch(bytes, length);
    DBArrayRelease(array, OLDGEN, 1, bytes);
  }
  VMArenaOldGenRelease(arena);
  benchmark::DoNotOptimize(sum);
  state.SetItemsProcessed(state.iterations());
}

void BM_VectorStringGet(benchmark::State &state) {
  if (g.vectorStrings.empty()) FillVectorStrings();
  uint32_t cursor = 0, sum = 0;
  for (auto _ : state) {
    const std::string &value = g.vectorStrings[g.data.probes[cursor]];
    cursor = cursor + 1 == kStrings ? 0 : cursor + 1;
    sum += Touch(reinterpret_cast<const uint8_t *>(value.data()), uint32_t(value.size()));
  }
  benchmark::DoNotOptimize(sum);
  state.SetItemsProcessed(state.iterations());
}

// The block format's own floor: the same strings laid out exactly as the
// array's data blocks lay them out (4 KiB blocks: a 4-byte header, elements
// as a length prefix and the bytes, an index entry per 8 elements at the
// block's end) in plain memory, found through the same directory (an entry
// per 64 handles naming a block, then the blocks' first handles) held in
// plain vectors. A get reads what the format makes it read, in the same
// dependent order (directory, block header and index entry, element), with
// nothing of the arena around it: what any implementation of the format
// pays on this machine.
struct FormatCopy {
  static constexpr uint32_t kBlock = 4096, kStride = 8, kDirectory = 64;
  std::vector<uint8_t> bytes;            // the blocks, one after another
  std::vector<uint32_t> firstHandle;     // per block
  std::vector<uint32_t> index;           // per 64 handles: a block at or before the handle's
};

FormatCopy *EnsureFormatCopy() {
  static FormatCopy copy;
  if (!copy.bytes.empty()) return &copy;
  uint32_t used = 0, entries = 0, count = 0;
  uint8_t *block = nullptr;
  for (uint32_t i = 0; i < kStrings; ++i) {
    const uint32_t length = g.data.length[i];
    const bool entry = count > 0 && count % FormatCopy::kStride == 0;
    const uint32_t prefix = uint32_t(qw::VarintSize(length));
    if (!block || 4 + used + prefix + length + 2 * (entries + entry) > FormatCopy::kBlock) {
      copy.bytes.resize(copy.bytes.size() + FormatCopy::kBlock);
      block = copy.bytes.data() + copy.bytes.size() - FormatCopy::kBlock;
      copy.firstHandle.push_back(i);
      used = entries = count = 0;
      // Earlier blocks moved with the resize: only the current one is written.
    } else if (entry) {
      ++entries;
      qw::StoreLE(block + FormatCopy::kBlock - 2 * entries, used, 2);
    }
    uint8_t *at = block + 4 + used;
    at += qw::VarintEncode(at, length);
    std::memcpy(at, g.data.StringAt(i), length);
    used += prefix + length;
    ++count;
    qw::StoreLE(block, entries, 2);
    qw::StoreLE(block + 2, used, 2);
    if (i % FormatCopy::kDirectory == 0) copy.index.push_back(uint32_t(copy.firstHandle.size() - 1));
  }
  return &copy;
}

// `serial`: an lfence after each get keeps the processor from overlapping
// one get's cache misses with the next one's, as a longer get does.
void BM_DBArrayFormatFloor(benchmark::State &state, bool serial) {
  const FormatCopy *copy = EnsureFormatCopy();
  const uint32_t blocks = uint32_t(copy->firstHandle.size());
  uint32_t cursor = 0, sum = 0;
  for (auto _ : state) {
    const uint32_t handle = g.data.probes[cursor];
    cursor = cursor + 1 == kStrings ? 0 : cursor + 1;
    uint32_t b = copy->index[handle / FormatCopy::kDirectory];
    while (b + 1 < blocks && copy->firstHandle[b + 1] <= handle) ++b;
    const uint32_t position = handle - copy->firstHandle[b];
    const uint8_t *block = copy->bytes.data() + size_t(b) * FormatCopy::kBlock;
    const uint32_t sub = position / FormatCopy::kStride;
    const uint8_t *entry = block + FormatCopy::kBlock - 2 * sub;
    __builtin_prefetch(block);
    if (sub > 0) __builtin_prefetch(entry);
    uint32_t offset = sub > 0 ? uint32_t(qw::LoadLE(entry, 2)) : 0;
    const uint8_t *data = block + 4;
    // The run of up to 8 elements from the entry on, at once.
    for (uint32_t line = 0; line < 8 * 128; line += 64) __builtin_prefetch(data + offset + line);
    uint32_t length = 0;
    for (uint32_t skip = position % FormatCopy::kStride;; --skip) {
      uint64_t decoded = 0;  // a prefix is at most 2 bytes, as the blocks' reader bounds it
      const uint32_t prefixBytes = uint32_t(qw::VarintDecode(data + offset, data + offset + 2, &decoded));
      length = uint32_t(decoded);
      if (skip == 0) {
        offset += prefixBytes;
        break;
      }
      offset += prefixBytes + length;
    }
    sum += Touch(data + offset, length);
    if (serial) asm volatile("lfence" ::: "memory");
  }
  benchmark::DoNotOptimize(sum);
  state.SetItemsProcessed(state.iterations());
}

void BM_VMAArrayAppend(benchmark::State &state, Mode mode) {
  BulkResult result;
  for (auto _ : state) {
    g.words[mode.index].reset();  // the last repetition's arena is kept for the scans
    result = BulkResult{};
    g.words[mode.index] = MakeWords(&g.place, g.data, mode, false, &result);
    if (!g.words[mode.index]) {
      state.SkipWithError("could not build the word arena");
      return;
    }
    state.SetIterationTime(result.seconds);
  }
  ReportBulk(state, result, kWords, uint64_t(kWords) * 4);
}

void BM_VMAArrayWriteInPlace(benchmark::State &state, Mode mode) {
  BulkResult result;
  for (auto _ : state) {
    result = BulkResult{};
    if (!MakeWords(&g.place, g.data, mode, true, &result)) {  // dropped at once: the scans use the appended one
      state.SkipWithError("could not build the word arena");
      return;
    }
    state.SetIterationTime(result.seconds);
  }
  ReportBulk(state, result, kWords, uint64_t(kWords) * 4);
}

void BM_VectorPushBack(benchmark::State &state) { VectorBulk(state, FreeVectorWords, FillVectorWords, kWords); }

// The floor: push_back into a vector that already has the capacity and its
// memory (no growth, no page faults).
void BM_VectorPushBackReused(benchmark::State &state) {
  if (g.vectorWords.empty()) FillVectorWords();
  VectorBulk(state, ClearVectorWords, FillVectorWords, kWords);
}

// One iteration: the whole array.
void BM_VMAArrayScan(benchmark::State &state, Mode mode) {
  const WordArena *w = EnsureWords(mode);
  if (!w) {
    state.SkipWithError("no word arena");
    return;
  }
  VMArena *arena = w->arena->get();
  for (auto _ : state) {
    uint64_t sum = 0;
    VMArenaOldGenAcquire(arena);
    const bool scanned = ScanWords(arena, w->id, OLDGEN, &sum);
    VMArenaOldGenRelease(arena);
    if (!scanned || sum != g.data.wordSum) {
      state.SkipWithError("scan failed or summed wrong");
      break;
    }
    benchmark::DoNotOptimize(sum);
  }
  state.SetItemsProcessed(state.iterations() * kWords);
  state.SetBytesProcessed(state.iterations() * kWords * 4);
}

void BM_VectorScan(benchmark::State &state) {
  if (g.vectorWords.empty()) FillVectorWords();
  for (auto _ : state) {
    uint64_t sum = SumWords(g.vectorWords.data(), g.vectorWords.size());
    if (sum != g.data.wordSum) {
      state.SkipWithError("summed wrong");
      break;
    }
    benchmark::DoNotOptimize(sum);
  }
  state.SetItemsProcessed(state.iterations() * kWords);
  state.SetBytesProcessed(state.iterations() * kWords * 4);
}

// Bulk phases: once per repetition, the timed part only.
void Bulk(benchmark::internal::Benchmark *b) { b->Iterations(1)->UseManualTime()->Unit(benchmark::kMillisecond); }

BENCHMARK_CAPTURE(BM_DBArrayAdd, cache, kCacheMode)->Apply(Bulk);
BENCHMARK_CAPTURE(BM_DBArrayAdd, mapped, kMappedMode)->Apply(Bulk);
BENCHMARK(BM_VectorStringAdd)->Apply(Bulk);
BENCHMARK_CAPTURE(BM_DBArrayGet, cache, kCacheMode)->UseRealTime();
BENCHMARK_CAPTURE(BM_DBArrayGet, mapped, kMappedMode)->UseRealTime();
BENCHMARK_CAPTURE(BM_DBArrayFormatFloor, overlapped, false)->UseRealTime();
BENCHMARK_CAPTURE(BM_DBArrayFormatFloor, serial, true)->UseRealTime();
BENCHMARK(BM_VectorStringGet)->UseRealTime();
BENCHMARK_CAPTURE(BM_VMAArrayAppend, cache, kCacheMode)->Apply(Bulk);
BENCHMARK_CAPTURE(BM_VMAArrayAppend, mapped, kMappedMode)->Apply(Bulk);
BENCHMARK_CAPTURE(BM_VMAArrayWriteInPlace, cache, kCacheMode)->Apply(Bulk);
BENCHMARK_CAPTURE(BM_VMAArrayWriteInPlace, mapped, kMappedMode)->Apply(Bulk);
BENCHMARK(BM_VectorPushBack)->Apply(Bulk);
BENCHMARK(BM_VectorPushBackReused)->Apply(Bulk);
BENCHMARK_CAPTURE(BM_VMAArrayScan, cache, kCacheMode)->UseRealTime()->Unit(benchmark::kMillisecond);
BENCHMARK_CAPTURE(BM_VMAArrayScan, mapped, kMappedMode)->UseRealTime()->Unit(benchmark::kMillisecond);
BENCHMARK(BM_VectorScan)->UseRealTime()->Unit(benchmark::kMillisecond);

// ---------------------------------------------------------------------------
// Summary

void PrintRates(const qwbench::SummaryReporter &reporter) {
  const char *names[] = {"BM_DBArrayAdd/cache",
                         "BM_DBArrayAdd/mapped",
                         "BM_VectorStringAdd",
                         "BM_VMAArrayAppend/cache",
                         "BM_VMAArrayAppend/mapped",
                         "BM_VMAArrayWriteInPlace/cache",
                         "BM_VMAArrayWriteInPlace/mapped",
                         "BM_VectorPushBack",
                         "BM_VectorPushBackReused"};
  bool header = false;
  for (const char *name : names) {
    const qwbench::SummaryReporter::Result *result = reporter.Find(name);
    if (!result || !result->counters.count("ops/s")) continue;
    if (!header) std::printf("\nbulk phases (operations per second; one operation = one string or one u32):\n");
    header = true;
    std::printf("  %-32s %8.2f M/s\n", name, result->counters.at("ops/s") / 1e6);
  }
}

void PrintSpace(const qwbench::SummaryReporter &reporter) {
  struct Row {
    const char *name;
    double stored;
  };
  const Row rows[] = {
      {"BM_DBArrayAdd/cache", double(g.data.stringBytes)},   {"BM_DBArrayAdd/mapped", double(g.data.stringBytes)},
      {"BM_VMAArrayAppend/cache", double(kWords) * 4},       {"BM_VMAArrayAppend/mapped", double(kWords) * 4},
      {"BM_VMAArrayWriteInPlace/cache", double(kWords) * 4}, {"BM_VMAArrayWriteInPlace/mapped", double(kWords) * 4}};
  bool header = false;
  for (const Row &row : rows) {
    const qwbench::SummaryReporter::Result *result = reporter.Find(row.name);
    if (!result || !result->counters.count("disk/stored")) continue;
    if (!header) {
      std::printf(
          "\nbytes on disk per stored byte after VMArenaCommit (file sizes / allocated blocks), and the commit:\n");
      std::printf("  %-32s %10s %10s %12s %16s %10s\n", "", "stored", "on disk", "disk/stored", "allocated/stored",
                  "commit");
    }
    header = true;
    std::printf("  %-32s %6.1f MiB %6.1f MiB %12.3f %16.3f %7.1f ms\n", row.name, row.stored / (1 << 20),
                result->counters.at("disk_MiB"), result->counters.at("disk/stored"),
                result->counters.at("allocated/stored"), result->counters.at("commit_ms"));
  }
}

void PrintSummary(const qwbench::SummaryReporter &reporter) {
  std::printf("\nsummary (time per operation, lower is better; bulk phases: the whole phase):\n");
  for (const Mode &mode : kModes) {
    const std::string suffix = std::string(", ") + mode.name;
    const std::string m = std::string("/") + mode.name;
    reporter.PrintRatio(("DBArray add / std::vector<std::string> ratio" + suffix).c_str(), "BM_DBArrayAdd" + m,
                        "BM_VectorStringAdd", 1);
    reporter.PrintRatio(("DBArray random get / std::vector<std::string> ratio" + suffix).c_str(), "BM_DBArrayGet" + m,
                        "BM_VectorStringGet", 1);
    reporter.PrintRatio(("VMAArray append / std::vector push_back ratio" + suffix).c_str(), "BM_VMAArrayAppend" + m,
                        "BM_VectorPushBack", 1);
    reporter.PrintRatio(("VMAArray append / push_back into reused capacity" + suffix).c_str(), "BM_VMAArrayAppend" + m,
                        "BM_VectorPushBackReused", 1);
    reporter.PrintRatio(("VMAArray in-place write / push_back ratio" + suffix).c_str(), "BM_VMAArrayWriteInPlace" + m,
                        "BM_VectorPushBack", 1);
    reporter.PrintRatio(("VMAArray scan / std::vector scan ratio" + suffix).c_str(), "BM_VMAArrayScan" + m,
                        "BM_VectorScan", 1);
  }
  reporter.PrintRatio("format floor random get / std::vector<std::string> ratio, overlapped",
                      "BM_DBArrayFormatFloor/overlapped", "BM_VectorStringGet", 1);
  reporter.PrintRatio("format floor random get / std::vector<std::string> ratio, serial",
                      "BM_DBArrayFormatFloor/serial", "BM_VectorStringGet", 1);
  PrintRates(reporter);
  PrintSpace(reporter);
}

// ---------------------------------------------------------------------------

bool Prepare() {
  const char *tmp = std::getenv("TMPDIR");
  std::string pattern = std::string(tmp && *tmp ? tmp : "/tmp") + "/qwvm-arrays-bench-XXXXXX";
  if (!mkdtemp(pattern.data())) return false;
  g.place.root = pattern;
  g.place.cache = PageCacheNew(kCacheBytes, kBlock);
  if (!g.place.cache) return Fail("PageCacheNew");
  g.data.Draw();
  return true;
}

// Arrays and arenas before the cache they use; then the files.
void Cleanup() {
  for (auto &strings : g.strings) strings.reset();
  for (auto &words : g.words) words.reset();
  PageCacheFree(g.place.cache);
  g.place.cache = nullptr;
  if (g.place.root.empty()) return;
  std::error_code ignored;
  std::filesystem::remove_all(g.place.root, ignored);
}

}  // namespace

int main(int argc, char **argv) {
  return qwbench::RunWithSummary(argc, argv, 62, Prepare, PrintSummary, Cleanup,
                                 [] { return std::string("arrays_bench: could not prepare the data sets in ") + g.place.root; });
}
