// The small file store against the same files as plain files in a directory.
//
// Data: N files (QWVM_BENCH_SFS_FILES, default 100000) of 1 to M KiB
// (QWVM_BENCH_SFS_MAX_KIB, default 64; uniform, fixed seed) at paths "dNN/fI"
// (100 directories), bytes derived from the file number.
//
// Put: one timed pass that stores every file and makes it durable. The store
// commits every 10000 files and at the end; the plain side creates, writes
// and closes each file, then syncs the file system once (syncfs), the same
// durability at the end of the pass. Afterwards every file is checked.
// Get: random files (fixed seed) read whole: SFSHandleGet + SFSGetArray in
// the committed generation, against open + read + close into a buffer; both
// warm in the page cache.
//
// The summary prints the ratios (time per file, lower is better) and the
// bytes on disk (allocated) per stored byte.
#include <fcntl.h>
#include <unistd.h>

#include <cstdlib>

#include "arrays_sets.h"

namespace {

using arraysbench::BulkResult;

constexpr uint32_t kCommitEvery = 10000;
constexpr uint32_t kProbes = 1 << 16;

struct Globals {
  std::string root;
  uint32_t files = 100000;
  uint32_t maxKiB = 64;
  std::vector<uint32_t> sizes;
  std::vector<uint32_t> probes;
  uint64_t totalBytes = 0;
  BulkResult storePut, plainPut;
  SFS *store = nullptr;  // the last put's store, kept for the gets
} g;

std::string PathOf(uint32_t file) {
  char path[32];
  std::snprintf(path, sizeof path, "d%u/f%u", file % 100, file);
  return path;
}

void FillBytes(uint32_t file, std::vector<uint8_t> *bytes) {
  bytes->resize(g.sizes[file]);
  uint32_t x = file * 2654435761u + 1;
  for (uint8_t &b : *bytes) b = uint8_t(x = x * 1103515245u + 12345u);
}

bool StorePutAll(SFS *store) {
  std::vector<uint8_t> bytes;
  for (uint32_t file = 0; file < g.files; ++file) {
    FillBytes(file, &bytes);
    const std::string path = PathOf(file);
    SFSAcquire(store, 0);
    const uint32_t handle = SFSHandleGet(store, path.data(), uint32_t(path.size()), 1, NEWGEN);
    const int ok = SFSSet(store, handle, bytes.data(), uint32_t(bytes.size()));
    SFSRelease(store, 0);
    if (!ok) return arraysbench::Fail("SFSSet");
    if ((file + 1) % kCommitEvery == 0 && !SFSCommit(store)) return arraysbench::Fail("SFSCommit");
  }
  return SFSCommit(store) || arraysbench::Fail("SFSCommit");
}

bool PlainPutAll(const std::string &directory) {
  std::vector<uint8_t> bytes;
  for (uint32_t d = 0; d < 100; ++d) {
    char name[16];
    std::snprintf(name, sizeof name, "d%u", d);
    std::filesystem::create_directories(std::filesystem::path(directory) / name);
  }
  for (uint32_t file = 0; file < g.files; ++file) {
    FillBytes(file, &bytes);
    const int fd = open((directory + "/" + PathOf(file)).c_str(), O_CREAT | O_TRUNC | O_WRONLY, 0644);
    if (fd < 0 || write(fd, bytes.data(), bytes.size()) != ssize_t(bytes.size())) return false;
    close(fd);
  }
  const int fd = open(directory.c_str(), O_RDONLY | O_DIRECTORY);
  const bool synced = fd >= 0 && syncfs(fd) == 0;
  if (fd >= 0) close(fd);
  return synced;
}

bool StoreGet(SFS *store, uint32_t file, uint8_t **buffer) {
  const std::string path = PathOf(file);
  const uint32_t handle = SFSHandleGet(store, path.data(), uint32_t(path.size()), 0, OLDGEN);
  return handle != SFS_NO_HANDLE && SFSGetArray(store, handle, buffer, 0) && ArrayLength(*buffer) == g.sizes[file];
}

bool PlainGet(const std::string &directory, uint32_t file, std::vector<uint8_t> *buffer) {
  const int fd = open((directory + "/" + PathOf(file)).c_str(), O_RDONLY);
  if (fd < 0) return false;
  buffer->resize(g.sizes[file]);
  const ssize_t got = read(fd, buffer->data(), buffer->size());
  close(fd);
  return got == ssize_t(g.sizes[file]);
}

bool StoreCheckAll(SFS *store) {
  uint8_t *buffer = nullptr;
  std::vector<uint8_t> bytes;
  bool ok = true;
  SFSAcquire(store, 1);
  for (uint32_t file = 0; file < g.files && ok; ++file) {
    FillBytes(file, &bytes);
    ok = StoreGet(store, file, &buffer) && std::memcmp(buffer, bytes.data(), bytes.size()) == 0;
  }
  SFSRelease(store, 1);
  ArrayFree(buffer);
  return ok;
}

std::string Fresh(const char *what) {
  const std::string directory = g.root + "/" + what;
  std::error_code ignored;
  std::filesystem::remove_all(directory, ignored);
  return directory;
}

void BM_StorePut(benchmark::State &state) {
  for (auto _ : state) {
    if (g.store) SFSClose(g.store);
    const std::string directory = Fresh("store");
    g.store = SFSOpen(directory.c_str(), 1, 0, 2, nullptr);
    g.storePut = BulkResult{};
    if (!g.store || !arraysbench::Timed(&g.storePut, [] { return StorePutAll(g.store); }) ||
        !StoreCheckAll(g.store)) {
      state.SkipWithError(QWErrorMessage());
      return;
    }
    arraysbench::MeasureDisk(directory, &g.storePut);
    state.SetIterationTime(g.storePut.seconds);
  }
  state.counters["files/s"] = benchmark::Counter(g.files / g.storePut.seconds);
}

void BM_PlainPut(benchmark::State &state) {
  for (auto _ : state) {
    const std::string directory = Fresh("plain");
    g.plainPut = BulkResult{};
    if (!arraysbench::Timed(&g.plainPut, [&] { return PlainPutAll(directory); })) {
      state.SkipWithError("plain files could not be written");
      return;
    }
    arraysbench::MeasureDisk(directory, &g.plainPut);
    state.SetIterationTime(g.plainPut.seconds);
  }
  state.counters["files/s"] = benchmark::Counter(g.files / g.plainPut.seconds);
}

void BM_StoreGet(benchmark::State &state) {
  if (!g.store) {
    state.SkipWithError("no store (run BM_StorePut first)");
    return;
  }
  uint8_t *buffer = nullptr;
  uint32_t i = 0;
  SFSAcquire(g.store, 1);
  for (auto _ : state) {
    if (!StoreGet(g.store, g.probes[i++ % kProbes], &buffer)) {
      state.SkipWithError(QWErrorMessage());
      break;
    }
  }
  SFSRelease(g.store, 1);
  ArrayFree(buffer);
}

void BM_PlainGet(benchmark::State &state) {
  const std::string directory = g.root + "/plain";
  std::vector<uint8_t> buffer;
  uint32_t i = 0;
  for (auto _ : state) {
    if (!PlainGet(directory, g.probes[i++ % kProbes], &buffer)) {
      state.SkipWithError("plain file missing (run BM_PlainPut first)");
      break;
    }
  }
}

BENCHMARK(BM_StorePut)->Iterations(1)->UseManualTime()->Unit(benchmark::kMillisecond);
BENCHMARK(BM_PlainPut)->Iterations(1)->UseManualTime()->Unit(benchmark::kMillisecond);
BENCHMARK(BM_StoreGet)->Unit(benchmark::kMicrosecond);
BENCHMARK(BM_PlainGet)->Unit(benchmark::kMicrosecond);

bool Prepare() {
  if (const char *files = std::getenv("QWVM_BENCH_SFS_FILES")) g.files = uint32_t(std::strtoul(files, nullptr, 10));
  if (const char *kib = std::getenv("QWVM_BENCH_SFS_MAX_KIB")) g.maxKiB = uint32_t(std::strtoul(kib, nullptr, 10));
  if (g.files == 0 || g.maxKiB == 0) return false;
  char pattern[] = "/tmp/qwvm-sfs-bench-XXXXXX";
  if (!mkdtemp(pattern)) return false;
  g.root = pattern;
  std::mt19937 random(42);
  for (uint32_t file = 0; file < g.files; ++file) {
    g.sizes.push_back(1024 + random() % (g.maxKiB * 1024 - 1024 + 1));
    g.totalBytes += g.sizes.back();
  }
  for (uint32_t i = 0; i < kProbes; ++i) g.probes.push_back(random() % g.files);
  return true;
}

void Summary(const qwbench::SummaryReporter &reporter) {
  std::printf("\n%u files of 1 to %u KiB, %.1f MiB in all\n", g.files, g.maxKiB, double(g.totalBytes) / (1 << 20));
  const auto *storePut = reporter.Find("BM_StorePut"), *plainPut = reporter.Find("BM_PlainPut");
  if (storePut && plainPut) {
    std::printf("%-28s: %.3f  (%.1f s vs %.1f s for all files)\n", "put, store / plain files",
                storePut->nsPerOp / plainPut->nsPerOp, storePut->nsPerOp / 1e9, plainPut->nsPerOp / 1e9);
  }
  reporter.PrintRatio("get, store / plain files", "BM_StoreGet", "BM_PlainGet", 1);
  auto perByte = [](const BulkResult &result) { return double(result.allocatedBytes) / double(g.totalBytes); };
  if (g.storePut.allocatedBytes) std::printf("disk per stored byte, store: %.3f\n", perByte(g.storePut));
  if (g.plainPut.allocatedBytes) std::printf("disk per stored byte, plain files: %.3f\n", perByte(g.plainPut));
}

void Cleanup() {
  if (g.store) SFSClose(g.store);
  std::error_code ignored;
  if (!g.root.empty()) std::filesystem::remove_all(g.root, ignored);
}

}  // namespace

int main(int argc, char **argv) {
  return qwbench::RunWithSummary(argc, argv, 28, Prepare, Summary, Cleanup,
                                 [] { return "cannot prepare the data (QWVM_BENCH_SFS_FILES and QWVM_BENCH_SFS_MAX_KIB must be positive)"; });
}
