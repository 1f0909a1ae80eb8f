// The page cache against the operating system's own cache.
//
// Hit path: PageCacheLookup + PageCacheRelease of a resident page, on one and
// on two threads (different pages, and all threads on the same page), against
// a plain pread(2) of the same 8 KiB from a file that sits in the operating
// system's page cache. Miss path: PageCacheRead + PageCacheRelease cycling
// over a file sixteen times larger than the cache, so that every access
// claims a frame, evicts a page and reads, against the same pread and against
// a pread that rotates over as much destination memory as the cache has.
//
// After the runs a summary prints the ratios ("hit path / pread ratio").
#include <benchmark/benchmark.h>
#include <fcntl.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <memory>
#include <string>
#include <vector>

#include "bench_summary.h"
#include "qwvm/qwvm.h"

namespace {

constexpr uint32_t kPage = 8192;
constexpr uint64_t kResidentPages = 1024;          // 8 MiB, all resident in `cache`
constexpr uint64_t kFilePages = 4096;              // 32 MiB file
constexpr uint64_t kSmallCachePages = kFilePages / 16;

struct Setup {
  std::string dir;
  std::string path;
  int fd = -1;
  QWFILE file = QWFILE_INVALID;
  PageCache *cache = nullptr;  // holds every page the hit benchmarks touch
  PageCache *small = nullptr;  // a sixteenth of the file: every read misses
  uint16_t id = PAGECACHE_INVALID_FILE;
  uint16_t smallId = PAGECACHE_INVALID_FILE;
} g;

bool Fail(const char *what) {
  std::fprintf(stderr, "pagecache_bench: %s: %s\n", what, QWErrorMessage());
  return false;
}

bool Prepare() {
  char pattern[] = "/tmp/qwvm-bench-XXXXXX";
  if (!mkdtemp(pattern)) return false;
  g.dir = pattern;
  g.path = g.dir + "/data";
  std::vector<char> chunk(kPage * 128);
  for (size_t i = 0; i < chunk.size(); ++i) chunk[i] = static_cast<char>(i * 131 + 7);
  FILE *out = std::fopen(g.path.c_str(), "wb");
  if (!out) return false;
  for (uint64_t written = 0; written < kFilePages * kPage; written += chunk.size())
    std::fwrite(chunk.data(), 1, chunk.size(), out);
  std::fclose(out);
  g.fd = open(g.path.c_str(), O_RDONLY);
  if (g.fd < 0) return false;
  // Bring the whole file into the operating system's cache: the peer is a
  // pread that does not touch the disk.
  for (uint64_t offset = 0; offset < kFilePages * kPage; offset += chunk.size())
    if (pread(g.fd, chunk.data(), chunk.size(), off_t(offset)) != ssize_t(chunk.size())) return false;
  if (!QWFileOpen(&g.file, g.path.c_str(), QWFILE_READ)) return Fail("open");
  // Four frames per resident page keeps every shard well below full.
  g.cache = PageCacheNew(4 * kResidentPages * kPage, kPage);
  g.small = PageCacheNew(kSmallCachePages * kPage, kPage);
  if (!g.cache || !g.small) return Fail("PageCacheNew");
  g.id = PageCacheRegisterFile(g.cache, g.file);
  g.smallId = PageCacheRegisterFile(g.small, g.file);
  if (g.id == PAGECACHE_INVALID_FILE || g.smallId == PAGECACHE_INVALID_FILE) return Fail("register");
  if (!PageCachePrefetch(g.cache, g.id, 0, kResidentPages * kPage)) return Fail("prefetch");
  return true;
}

void Cleanup() {
  if (g.cache) PageCacheUnregisterFile(g.cache, g.id);
  if (g.small) PageCacheUnregisterFile(g.small, g.smallId);
  PageCacheFree(g.cache);
  PageCacheFree(g.small);
  QWFileClose(g.file);
  if (g.fd >= 0) close(g.fd);
  std::error_code ignored;
  std::filesystem::remove_all(g.dir, ignored);
}

// Threads start at pages far apart so that they rarely share a shard.
uint64_t FirstPage(const benchmark::State &state) { return uint64_t(state.thread_index()) * 7919; }

void BM_PageCacheHit(benchmark::State &state) {
  uint64_t i = FirstPage(state);
  for (auto _ : state) {
    void *page = PageCacheLookup(g.cache, g.id, (i++ % kResidentPages) * kPage, 0, nullptr);
    if (page == nullptr) {
      state.SkipWithError("page not resident");
      break;
    }
    benchmark::DoNotOptimize(page);
    PageCacheRelease(g.cache, page, 0, 0, 0);
  }
  state.SetItemsProcessed(state.iterations());
}

// Every thread on page 0: one shard mutex, contended.
void BM_PageCacheHitSamePage(benchmark::State &state) {
  for (auto _ : state) {
    void *page = PageCacheLookup(g.cache, g.id, 0, 0, nullptr);
    benchmark::DoNotOptimize(page);
    PageCacheRelease(g.cache, page, 0, 0, 0);
  }
  state.SetItemsProcessed(state.iterations());
}

void BM_Pread(benchmark::State &state) {
  alignas(4096) static thread_local char buffer[kPage];
  uint64_t i = FirstPage(state);
  for (auto _ : state) {
    ssize_t got = pread(g.fd, buffer, kPage, off_t((i++ % kResidentPages) * kPage));
    benchmark::DoNotOptimize(got);
  }
  state.SetItemsProcessed(state.iterations());
}

// The same pread, but into as many page buffers as the small cache has
// frames, in turn: the memory traffic a miss pays for, without the cache.
void BM_PreadRotating(benchmark::State &state) {
  // Page-aligned like the cache's frames: the kernel copies faster into
  // aligned memory, and the comparison should not hinge on that.
  static std::unique_ptr<char, decltype(&std::free)> buffers(
      static_cast<char *>(std::aligned_alloc(4096, kSmallCachePages * kPage)), &std::free);
  uint64_t i = FirstPage(state) * 131;
  for (auto _ : state) {
    char *buffer = buffers.get() + (i % kSmallCachePages) * kPage;
    ssize_t got = pread(g.fd, buffer, kPage, off_t((i++ % kFilePages) * kPage));
    benchmark::DoNotOptimize(got);
  }
  state.SetItemsProcessed(state.iterations());
}

void BM_PageCacheMiss(benchmark::State &state) {
  uint64_t i = FirstPage(state) * 131;
  for (auto _ : state) {
    void *page = nullptr;
    if (!PageCacheRead(g.small, g.smallId, (i++ % kFilePages) * kPage, &page)) {
      state.SkipWithError(QWErrorMessage());
      break;
    }
    benchmark::DoNotOptimize(page);
    PageCacheRelease(g.small, page, 0, 0, 0);
  }
  state.SetItemsProcessed(state.iterations());
}

BENCHMARK(BM_PageCacheHit)->Threads(1)->Threads(2)->UseRealTime();
BENCHMARK(BM_PageCacheHitSamePage)->Threads(1)->Threads(2)->UseRealTime();
BENCHMARK(BM_Pread)->Threads(1)->Threads(2)->UseRealTime();
BENCHMARK(BM_PreadRotating)->Threads(1)->Threads(2)->UseRealTime();
BENCHMARK(BM_PageCacheMiss)->Threads(1)->Threads(2)->UseRealTime();

void PrintRatios(const qwbench::SummaryReporter &reporter) {
  std::printf("\nsummary (time per operation, lower is better):\n");
  for (int64_t threads : {1, 2}) {
    reporter.PrintRatio("hit path / pread ratio", "BM_PageCacheHit", "BM_Pread", threads);
    reporter.PrintRatio("same-page hit / pread ratio", "BM_PageCacheHitSamePage", "BM_Pread", threads);
    reporter.PrintRatio("miss path / pread ratio", "BM_PageCacheMiss", "BM_Pread", threads);
    reporter.PrintRatio("miss path / rotating pread", "BM_PageCacheMiss", "BM_PreadRotating", threads);
  }
}

}  // namespace

int main(int argc, char **argv) {
  return qwbench::RunWithSummary(argc, argv, 28, Prepare, PrintRatios, Cleanup,
                                 [] { return "pagecache_bench: could not prepare the benchmark file in /tmp"; });
}
