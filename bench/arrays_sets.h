// The data sets of arrays_bench and the arenas that hold them: drawing the
// strings and the u32 values, writing them into a fresh arena (the timed
// part), committing, checking every committed value and measuring the
// arena's directory on disk.
//
// Writers hold the new generation and readers the old one for a batch of
// kBatch operations (or one append call), not per operation.
#pragma once

#include <sys/resource.h>
#include <sys/stat.h>

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <cstring>
#include <filesystem>
#include <memory>
#include <random>
#include <string>
#include <vector>

#include "bench_summary.h"
#include "qwvm/qwvm.h"

namespace arraysbench {

using Clock = std::chrono::steady_clock;

constexpr uint32_t kBlock = ARENA_MAX_BLOCK_SIZE;
constexpr uint32_t kServers = 2;  // bucket servers per arena
constexpr uint32_t kStrings = 1'000'000;
constexpr uint32_t kMinLength = 10;
constexpr uint32_t kMaxLength = 200;
constexpr uint32_t kPoolBytes = 1 << 20;  // the strings are slices of a random pool
constexpr uint32_t kWords = 10'000'000;
constexpr uint32_t kAppendBatch = 1024;  // u32 per VMAArrayAppend_
constexpr int kBatch = 1024;             // operations per hold of a generation
constexpr const char *kStringPath = "bench/strings";

using Mode = qwbench::ArenaMode;
constexpr Mode kCacheMode{"cache", 0, 0};
constexpr Mode kMappedMode{"mapped", VM_FLAG_MAPPED, 1};
constexpr Mode kModes[] = {kCacheMode, kMappedMode};

inline uint32_t Word(uint32_t i) { return i * 2654435761u; }

// Shared by both sides of the scan so that the loops compile alike.
[[gnu::noinline]] inline uint64_t SumWords(const uint32_t *words, size_t count) {
  uint64_t sum = 0;
  for (size_t i = 0; i < count; ++i) sum += words[i];
  return sum;
}

// What both sides of the random get read of the string they find.
inline uint32_t Touch(const uint8_t *bytes, uint32_t length) { return uint32_t(bytes[0]) + bytes[length - 1]; }

inline double Seconds(Clock::time_point from, Clock::time_point to) {
  return std::chrono::duration<double>(to - from).count();
}

// Page faults of the process so far (minor and major).
inline uint64_t PageFaults() {
  struct rusage usage;
  getrusage(RUSAGE_SELF, &usage);
  return uint64_t(usage.ru_minflt) + uint64_t(usage.ru_majflt);
}

inline bool Fail(const char *what) {
  std::fprintf(stderr, "arrays_bench: %s: %s\n", what, QWErrorMessage());
  return false;
}

// Drawn once with a fixed seed; every side of every benchmark uses it.
struct DataSet {
  std::vector<char> pool;
  std::vector<uint32_t> offset, length;  // string i: length[i] bytes at pool[offset[i]]
  std::vector<uint32_t> probes;          // a permutation of the strings: the order of the gets
  uint64_t stringBytes = 0;
  uint64_t wordSum = 0;  // of Word(0 .. kWords - 1)

  void Draw() {
    std::mt19937_64 random(20240612);
    pool.resize(kPoolBytes + kMaxLength);
    for (char &byte : pool) byte = char(random());
    std::uniform_int_distribution<uint32_t> lengths(kMinLength, kMaxLength), offsets(0, kPoolBytes);
    offset.resize(kStrings);
    length.resize(kStrings);
    for (uint32_t i = 0; i < kStrings; ++i) {
      length[i] = lengths(random);
      offset[i] = offsets(random);
      stringBytes += length[i];
    }
    probes.resize(kStrings);
    for (uint32_t i = 0; i < kStrings; ++i) probes[i] = i;
    std::shuffle(probes.begin(), probes.end(), random);
    for (uint32_t i = 0; i < kWords; ++i) wordSum += Word(i);
  }
  const char *StringAt(uint32_t i) const { return &pool[offset[i]]; }
};

// Where the arenas go: numbered directories under `root`, one page cache.
struct Place {
  std::string root;
  PageCache *cache = nullptr;
  int serial = 0;
};

// An open arena in its own directory; closed and removed when dropped.
class ScratchArena {
 public:
  ScratchArena(std::string directory, VMArena *arena) : directory_(std::move(directory)), arena_(arena) {}
  ScratchArena(const ScratchArena &) = delete;
  ScratchArena &operator=(const ScratchArena &) = delete;
  ~ScratchArena() {
    VMArenaClose(arena_);
    std::error_code ignored;
    std::filesystem::remove_all(directory_, ignored);
  }
  VMArena *get() const { return arena_; }
  const std::string &directory() const { return directory_; }

 private:
  std::string directory_;
  VMArena *arena_;
};

// The committed strings of one mode, in one bucket (handle i is string i).
// The array goes before its arena.
struct StringArena {
  std::unique_ptr<ScratchArena> arena;
  std::unique_ptr<DBArray, decltype(&DBArrayFree)> array{nullptr, &DBArrayFree};
};

// The committed u32 values of one mode.
struct WordArena {
  std::unique_ptr<ScratchArena> arena;
  uint32_t id = VMA_NO_ARRAY;  // in OLDGEN
};

// What a bulk phase measured.
struct BulkResult {
  double seconds = 0;        // the timed part: adds, appends or writes
  uint64_t faults = 0;       // page faults during the timed part
  double commitSeconds = 0;  // VMArenaCommit
  uint64_t diskBytes = 0;    // file sizes in the arena's directory
  uint64_t allocatedBytes = 0;
};

// Runs the timed part of a bulk phase: its time and page faults go to
// `result`. Returns what `phase` returns.
template <typename Phase>
bool Timed(BulkResult *result, Phase phase) {
  const uint64_t faults = PageFaults();
  const Clock::time_point start = Clock::now();
  const bool ok = phase();
  result->seconds = Seconds(start, Clock::now());
  result->faults = PageFaults() - faults;
  return ok;
}

inline std::unique_ptr<ScratchArena> OpenScratch(Place *place, const Mode &mode, const char *what) {
  const std::string directory = place->root + "/" + what + "-" + mode.name + "-" + std::to_string(++place->serial);
  VMArena *arena = VMArenaOpen(directory.c_str(), mode.flags | VM_FLAG_CREATE, kServers, STATUS_NO_SERIAL,
                               STATUS_NO_SERIAL, nullptr, place->cache);
  if (!arena) {
    Fail("VMArenaOpen");
    return nullptr;
  }
  return std::make_unique<ScratchArena>(directory, arena);
}

// Sizes (and allocated bytes) of every file under `directory`.
inline void MeasureDisk(const std::string &directory, BulkResult *result) {
  std::error_code error;
  for (const auto &entry : std::filesystem::recursive_directory_iterator(directory, error)) {
    struct stat info;
    if (lstat(entry.path().c_str(), &info) != 0 || !S_ISREG(info.st_mode)) continue;
    result->diskBytes += uint64_t(info.st_size);
    result->allocatedBytes += uint64_t(info.st_blocks) * 512;
  }
}

inline bool Commit(VMArena *arena, BulkResult *result) {
  const Clock::time_point start = Clock::now();
  if (!VMArenaCommit(arena, nullptr, nullptr, 0)) return Fail("VMArenaCommit");
  result->commitSeconds = Seconds(start, Clock::now());
  return true;
}

// ---------------------------------------------------------------------------
// Strings

inline bool AddStrings(const DataSet &data, DBArray *array, VMArena *arena) {
  bool ok = true;
  VMArenaNewGenAcquire(arena, 0);
  for (uint32_t i = 0; i < kStrings && ok; ++i) {
    if (i > 0 && i % kBatch == 0) {
      VMArenaNewGenRelease(arena, 0);
      VMArenaNewGenAcquire(arena, 0);
    }
    ok = DBArrayAdd(array, 0, data.StringAt(i), data.length[i], NEWGEN) == i;
  }
  VMArenaNewGenRelease(arena, 0);
  return ok || Fail("DBArrayAdd");
}

// Every committed string equals its slice of the pool.
inline bool CheckStrings(const DataSet &data, DBArray *array, VMArena *arena) {
  bool ok = DBArraySize(array, 0, OLDGEN) == kStrings;
  VMArenaOldGenAcquire(arena);
  for (uint32_t i = 0; i < kStrings && ok; ++i) {
    uint32_t length = 0;
    const void *bytes = DBArrayGet(array, 0, i, OLDGEN, 1, &length);
    ok = bytes && length == data.length[i] && std::memcmp(bytes, data.StringAt(i), length) == 0;
    if (bytes) DBArrayRelease(array, OLDGEN, 1, bytes);
  }
  VMArenaOldGenRelease(arena);
  return ok || Fail("the committed strings differ from the data set");
}

// Adds the strings to a DBArray of one bucket in a fresh arena (timed),
// commits, checks and measures.
inline std::unique_ptr<StringArena> MakeStrings(Place *place, const DataSet &data, const Mode &mode,
                                                BulkResult *result) {
  auto s = std::make_unique<StringArena>();
  s->arena = OpenScratch(place, mode, "strings");
  if (!s->arena) return nullptr;
  VMArena *arena = s->arena->get();
  uint8_t *pathBuffer = nullptr;
  int created = 1;
  VMArenaNewGenAcquire(arena, 0);  // creating the bucket arrays writes array 0
  s->array.reset(DBArrayNew(arena, &pathBuffer, kStringPath, &created, 0, 1));
  VMArenaNewGenRelease(arena, 0);
  ArrayFree(pathBuffer);
  if (!s->array) {
    Fail("DBArrayNew");
    return nullptr;
  }
  if (!Timed(result, [&] { return AddStrings(data, s->array.get(), arena); })) return nullptr;
  if (!Commit(arena, result) || !DBArrayCommit(s->array.get()) || !CheckStrings(data, s->array.get(), arena))
    return nullptr;
  MeasureDisk(s->arena->directory(), result);
  return s;
}

// ---------------------------------------------------------------------------
// Words

// A producer's batches, each handed to VMAArrayAppend_.
inline bool AppendWords(VMArena *arena, uint32_t id) {
  uint32_t batch[kAppendBatch];
  bool ok = true;
  for (uint32_t i = 0; i < kWords && ok; i += kAppendBatch) {
    const uint32_t count = std::min(kAppendBatch, kWords - i);
    for (uint32_t k = 0; k < count; ++k) batch[k] = Word(i + k);
    VMArenaNewGenAcquire(arena, 0);
    ok = VMAArrayAppend_(arena, id, 0, kBlock, batch, count, NEWGEN, 4);
    VMArenaNewGenRelease(arena, 0);
  }
  return ok || Fail("VMAArrayAppend_");
}

// The whole capacity and length at once, then the values written into each
// block's range.
inline bool WriteWordsInPlace(VMArena *arena, uint32_t id) {
  VMArenaNewGenAcquire(arena, 0);
  bool ok = VMAArrayEnsureCapacity_(arena, id, 0, kBlock, kWords, NEWGEN, 0, 4) &&
            VMAArrayLengthSet_(arena, id, kWords, NEWGEN, 4);
  int inBatch = 0;
  for (uint32_t i = 0; i < kWords && ok;) {
    if (++inBatch == kBatch) {
      VMArenaNewGenRelease(arena, 0);
      VMArenaNewGenAcquire(arena, 0);
      inBatch = 0;
    }
    uint32_t end = 0;
    auto *words = static_cast<uint32_t *>(VMAArrayRange_(arena, id, 0, kBlock, i, &end, NEWGEN, 0, 4, 0));
    if (!words) {
      ok = false;
      break;
    }
    for (uint32_t k = i; k < end; ++k) words[k - i] = Word(k);
    VMAArrayRelease_(arena, id, words, 0);
    i = end;
  }
  VMArenaNewGenRelease(arena, 0);
  return ok || Fail("in-place write");
}

// The sum of the array's values in `genID`, range by range; false on error.
inline bool ScanWords(VMArena *arena, uint32_t id, uint32_t genID, uint64_t *sum) {
  *sum = 0;
  const uint32_t length = VMAArrayLength_(arena, id, genID);
  for (uint32_t i = 0; i < length;) {
    uint32_t end = 0;
    auto *words = static_cast<uint32_t *>(VMAArrayRange_(arena, id, 0, kBlock, i, &end, genID, 1, 4, 0));
    if (!words) return false;
    *sum += SumWords(words, end - i);
    VMAArrayRelease_(arena, id, words, 1);
    i = end;
  }
  return true;
}

// The committed array: found by name, its length and sum those of the data.
inline bool CheckWords(const DataSet &data, VMArena *arena, uint32_t *id) {
  uint8_t *scratch = nullptr;
  const bool found = VMAArrayLookupFromPath(arena, OLDGEN, &scratch, "bench", "words", 0, id);
  ArrayFree(scratch);
  if (!found) return Fail("the committed array is not found");
  uint64_t sum = 0;
  VMArenaOldGenAcquire(arena);
  const bool scanned = ScanWords(arena, *id, OLDGEN, &sum);
  VMArenaOldGenRelease(arena);
  return (scanned && VMAArrayLength_(arena, *id, OLDGEN) == kWords && sum == data.wordSum) ||
         Fail("the committed words differ from the data set");
}

// Writes the u32 values into the array "bench/words" of a fresh arena
// (appended or written in place; timed), commits, checks and measures.
inline std::unique_ptr<WordArena> MakeWords(Place *place, const DataSet &data, const Mode &mode, bool inPlace,
                                            BulkResult *result) {
  auto w = std::make_unique<WordArena>();
  w->arena = OpenScratch(place, mode, inPlace ? "words-in-place" : "words");
  if (!w->arena) return nullptr;
  VMArena *arena = w->arena->get();
  VMAArrayHandle handle;
  VMArenaNewGenAcquire(arena, 0);
  const int named = VMAArrayInitFromPath(&handle, arena, "bench", "words");
  VMArenaNewGenRelease(arena, 0);
  if (!named) {
    Fail("VMAArrayInitFromPath");
    return nullptr;
  }
  const uint32_t id = handle.id[NEWGEN];
  if (!Timed(result, [&] { return inPlace ? WriteWordsInPlace(arena, id) : AppendWords(arena, id); })) return nullptr;
  if (!Commit(arena, result) || !CheckWords(data, arena, &w->id)) return nullptr;
  MeasureDisk(w->arena->directory(), result);
  return w;
}

}  // namespace arraysbench
