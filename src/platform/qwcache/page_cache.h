// The page cache behind qwvm/qwcache.h.
//
// Layout: one slab of page memory (frame i is the page at base + i * pageSize)
// and one metadata record per frame. The frames are cut into shards of
// consecutive frame numbers; a page belongs to the shard picked by the high
// half of the hash of its key, and only that shard's frames ever hold it.
// Each shard has its own mutex, index, free list, clock hand and counters.
// The hit path takes no mutex (see Pins below); misses, eviction, flush and
// invalidation take the one shard mutex of the page.
//
// A frame's state (guarded by its shard's mutex):
//
//   Free ---claim---> Loading ---SetValid / read---> Valid
//    ^                  |  (dropped: released invalid,   | (evicted: unpinned,
//    |                  |   or its read failed)          |  clean, not busy)
//    +------------------+--------------------------------+
//
// Invariants (checked with qwassert_ where they can break):
//  - A Free frame is on its shard's free list and in no index.
//  - A Loading frame has one pin of its loader's (plus stray pins, below);
//    other threads that want it wait on the shard's condition instead of
//    pinning it.
//  - A frame is in its shard's index exactly when it is Loading or Valid and
//    not detached; the index holds each key at most once.
//  - A detached frame (taken out of the index by invalidate or unregister
//    while pinned) is never busy, evicted or flushed; whichever comes last of
//    its final release and the detaching frees it (see Release).
//  - A busy frame (ioBusy: its bytes are being written to the file outside
//    the mutex, or it is being evicted) is not detached; nobody takes a new
//    pin on it, evicts it or drops it until the write ends. Only the thread
//    that set ioBusy clears it. A write-back clears `dirty` when it starts,
//    so that a holder changing the page meanwhile marks it dirty again (a
//    flush writes pinned pages; the caller keeps writers out if it needs the
//    file's page whole, as the arena's flush lock does).
//  - A frame's shard number never changes, so Release finds the shard from
//    the address alone.
//
// Pins. A lookup under the shard mutex pins an indexed, Valid, not busy
// frame; `state` and `key` of a pinned frame then do not change until its
// last pin goes. The hit path pins without the mutex (TryHit): it takes the
// frame the page's hint names (FileHints below) or, failing that, probes the
// index racily, pins the frame, then checks that the frame is still
// attached, Valid, not busy and holds the key. Until that check passes the pin
// is a stray one; when it fails the pin is dropped again at once. Stray pins
// come and go on frames in any state, so nothing asserts an exact pin count,
// pins are only ever added and subtracted (never stored), and every decision
// that rests on "no pins" first marks the frame unfit for a hit and then
// reads the pins:
//  - eviction and the write-back of a victim mark it busy
//    (MarkBusyIfUnpinned); an evicted frame stays busy until it has its new
//    key and state;
//  - invalidation marks it detached (DropShardPages);
// mark and read sequentially consistent, against the hit path's pin followed
// by its reads of `detached`, `ioBusy`, `state` and `key`. So either the hit
// sees the mark, or the evictor (or dropper) sees the pin and leaves the
// frame alone. The mark of a frame that does leave is cleared only after
// `state` has left Valid (a freed frame stores Free before `detached`
// false; an evicted one is Loading with its new key before it is no longer
// busy), and the hit path reads the marks before the state, so it never
// takes a frame that is leaving for an attached Valid one. The state of a
// frame never changes under a real pin, so Release may read it without the
// mutex.
//
// Memory order: a holder's writes to the page bytes happen before its release
// (dirty is stored with release order, the pin dropped with acq_rel); the
// evictor and flush read `pins` / exchange `dirty` with acquire order before
// writing the bytes to the file. A loader's bytes happen before the
// sequentially consistent store of Valid that the hit path reads.
//
// Lock order: a thread holds at most one shard mutex at a time, never the
// files mutex together with a shard mutex, and no mutex during file I/O.
#pragma once

#include <atomic>
#include <condition_variable>
#include <cstddef>
#include <cstdint>
#include <memory>
#include <mutex>
#include <thread>
#include <vector>

#include "platform/qwcache/page_table.h"
#include "qwvm/qwcache.h"

namespace qw::cache {

constexpr uint32_t kNoFrame = PageTable::kAbsent;
constexpr uint32_t kMaxShards = 64;
constexpr uint32_t kMinFramesPerShard = 32;
constexpr uint32_t kPageNumberBits = 48;
constexpr uint32_t kMaxFiles = PAGECACHE_INVALID_FILE;  // ids 0 .. 0xFFFE

enum class FrameState : uint8_t { kFree, kLoading, kValid };

struct Frame {
  // key, state and ioBusy are written under the shard mutex and read by the
  // lock-free hit path too.
  std::atomic<uint64_t> key{0};  // fileId << 48 | page number; meaningful unless Free
  // Added to and subtracted from only (stray pins, see Pins above).
  std::atomic<uint32_t> pins{0};
  uint32_t shard = 0;
  std::atomic<FrameState> state{FrameState::kFree};
  std::atomic<bool> ioBusy{false};
  // Set lock-free by Release; read and cleared under the shard mutex.
  std::atomic<bool> dirty{false};
  std::atomic<bool> keepLong{false};
  std::atomic<uint8_t> credit{0};  // clock rounds the page survives unreferenced
  // Set under the shard mutex, read lock-free by the last release.
  std::atomic<bool> detached{false};
  std::thread::id loader;  // the thread that claimed a Loading frame
};

struct ShardCounters {
  std::atomic<uint64_t> hits{0};  // counted by the lock-free hit path
  uint64_t misses = 0;
  uint64_t reads = 0;
  uint64_t writes = 0;
  uint64_t evictions = 0;
};

struct alignas(64) Shard {
  std::mutex mutex;
  // Signalled when a Loading frame becomes Valid or is dropped, when a
  // write-back ends, and when pages are detached: waiters re-probe.
  std::condition_variable changed;
  uint32_t waiters = 0;
  uint32_t firstFrame = 0;
  uint32_t frameCount = 0;
  uint32_t hand = 0;  // clock position, relative to firstFrame
  std::vector<uint32_t> freeFrames;
  PageTable table;
  ShardCounters counters;
};

inline uint64_t MakeKey(uint16_t fileId, uint64_t pageNumber) {
  return (uint64_t{fileId} << kPageNumberBits) | pageNumber;
}
inline uint16_t FileOfKey(uint64_t key) { return static_cast<uint16_t>(key >> kPageNumberBits); }
inline uint64_t PageOfKey(uint64_t key) { return key & ((uint64_t{1} << kPageNumberBits) - 1); }

// What an internal lookup found.
enum class Found { kValid, kClaimed, kAbsent, kNoFrame, kFailed };

struct SlabDeleter {
  void operator()(std::byte *memory) const noexcept;
};

// Frame hints: for each registered file, the frame that last held each of its
// pages, dense by page number. The index's slots for a file's pages are
// spread over the whole table by the hash; these sit four bytes a page side
// by side, so a find that touches a few thousand pages keeps its hints in a
// few hundred cache lines. A hint is a guess that the hit path checks exactly
// as it checks what a racy probe of the index names (see Pins above), so a
// stale one costs a probe of the index, nothing else. Chunks are installed
// on first use and live as long as the cache: a reader never meets a freed
// one.
inline constexpr uint32_t kHintChunkShift = 12;
inline constexpr uint32_t kHintChunkPages = 1u << kHintChunkShift;
inline constexpr uint32_t kHintChunks = 1024;  // a file's first 4M pages have hints
struct HintChunk {
  HintChunk() noexcept {
    for (auto &hint : frame) hint.store(kNoFrame, std::memory_order_relaxed);
  }
  std::atomic<uint32_t> frame[kHintChunkPages];
};
struct FileHints {
  ~FileHints() {
    for (auto &chunk : chunks) delete chunk.load(std::memory_order_relaxed);
  }
  std::atomic<HintChunk *> chunks[kHintChunks] = {};
};
// One FileHints per file id, made at the id's first registration.
struct HintTable {
  explicit HintTable(uint32_t fileIds) : files(std::make_unique<std::atomic<FileHints *>[]>(fileIds)), count(fileIds) {}
  ~HintTable() {
    for (uint32_t id = 0; id < count; ++id) delete files[id].load(std::memory_order_relaxed);
  }
  std::unique_ptr<std::atomic<FileHints *>[]> files;
  uint32_t count;
};

}  // namespace qw::cache

// The opaque handle of the C interface.
struct PageCache {
 public:
  // NULL with an error when the page size is invalid or memory runs out.
  // `maxFiles` bounds the file table (tests use a small one).
  static std::unique_ptr<PageCache> Create(uint64_t capacityBytes, uint32_t pageSize,
                                           uint32_t maxFiles = qw::cache::kMaxFiles) noexcept;

  uint32_t PageSizeBytes() const noexcept { return pageSize_; }
  // True when `address` lies in the page memory.
  bool Contains(const void *address) const noexcept {
    const uintptr_t at = reinterpret_cast<uintptr_t>(address);
    const uintptr_t base = reinterpret_cast<uintptr_t>(slab_.get());
    return at >= base && at - base < (pageCount_ << pageShift_);
  }
  uint32_t RegisteredFileCount() noexcept;

  // Files (page_files.cpp).
  [[nodiscard]] uint16_t RegisterFile(QWFILE file) noexcept;
  [[nodiscard]] int UnregisterFile(uint16_t fileId) noexcept;
  [[nodiscard]] int FlushFile(uint16_t fileId) noexcept;
  [[nodiscard]] int WriteBackOnly(uint16_t fileId) noexcept;  // FlushFile without the sync
  [[nodiscard]] int InvalidateFile(uint16_t fileId) noexcept;

  // Page access (page_access.cpp).
  // `within`: the byte of the page the caller reads first. A hit asks for
  // its line while it checks the frame, so the two misses overlap.
  [[nodiscard]] qw::cache::Found Lookup(uint16_t fileId, uint64_t offset, bool create, void **page,
                                        uint32_t within = 0) noexcept;
  [[nodiscard]] int Read(uint16_t fileId, uint64_t offset, void **page) noexcept;
  void SetValid(void *page) noexcept;
  void Release(void *page, bool dirty, bool keep, bool keepLong) noexcept;
  [[nodiscard]] int Prefetch(uint16_t fileId, uint64_t offset, uint64_t length) noexcept;

  void GetStats(PageCacheStats *stats) noexcept;

 private:
  PageCache() = default;

  // Argument checks shared by the page operations; raise code 22.
  [[nodiscard]] bool CheckOffset(const char *function, uint64_t offset) const noexcept;
  [[nodiscard]] QWFILE RegisteredFile(const char *function, uint16_t fileId) const noexcept;

  std::byte *PageAddress(uint32_t frame) const noexcept {
    return slab_.get() + (static_cast<size_t>(frame) << pageShift_);
  }
  uint32_t FrameOfAddress(const void *address) const noexcept;
  uint64_t OffsetOfKey(uint64_t key) const noexcept { return qw::cache::PageOfKey(key) << pageShift_; }
  qw::cache::Shard &ShardOfHash(uint64_t hash) noexcept { return shards_[(hash >> 32) & shardMask_]; }
  QWFILE FileHandle(uint16_t fileId) const noexcept {
    return fileId < maxFiles_ ? files_[fileId].load(std::memory_order_acquire) : QWFILE_INVALID;
  }

  // The hit path without the shard mutex: true with the page pinned in *page,
  // false when the locked path must decide (absent, loading, busy, or a race).
  // `hint`, when not null, is the page's frame hint: tried first, and set to
  // the frame the index named when that one held the page.
  [[nodiscard]] bool TryHit(qw::cache::Shard &shard, uint64_t key, uint64_t hash, uint32_t within,
                            std::atomic<uint32_t> *hint, void **page) noexcept;
  // Pins `frame` when it is attached, Valid, not busy and holds `key`, and
  // counts the hit; otherwise leaves it as it was.
  [[nodiscard]] bool PinIfHolds(qw::cache::Shard &shard, uint32_t frame, uint64_t key, uint32_t within,
                                void **page) noexcept;
  // The frame hint of a page of a registered file, its chunk made when
  // missing and `make` is set; null when there is none.
  [[nodiscard]] std::atomic<uint32_t> *HintOf(uint16_t fileId, uint64_t pageNumber, bool make) noexcept;
  // Credits and counts a hit on the pinned frame; its page.
  [[nodiscard]] void *Hit(qw::cache::Shard &shard, uint32_t frame) noexcept;
  // Drops one pin; the last pin of a detached frame frees it.
  void Unpin(uint32_t frame) noexcept;

  // Shard-level steps; `lock` holds shard.mutex on entry and on return.
  void Wait(qw::cache::Shard &shard, std::unique_lock<std::mutex> &lock) noexcept;
  static void NotifyWaiters(qw::cache::Shard &shard) noexcept;
  [[nodiscard]] uint32_t PickVictim(qw::cache::Shard &shard) noexcept;
  [[nodiscard]] bool Evictable(const qw::cache::Frame &frame) const noexcept;
  [[nodiscard]] static bool MarkBusyIfUnpinned(qw::cache::Frame &frame) noexcept;
  [[nodiscard]] bool Evict(qw::cache::Shard &shard, uint32_t frame) noexcept;
  void TakeFrame(qw::cache::Shard &shard, uint32_t frame, uint64_t key, uint64_t hash) noexcept;
  void FreeFrame(qw::cache::Shard &shard, uint32_t frame) noexcept;
  void ReleaseLoading(uint32_t frame) noexcept;
  void FreeIfDetachedAndUnpinned(uint32_t frame) noexcept;
  [[nodiscard]] bool WriteBackVictim(qw::cache::Shard &shard, std::unique_lock<std::mutex> &lock,
                                     uint32_t frame) noexcept;

  // Reads the file into a Loading frame pinned by the caller and makes it
  // Valid; on failure the frame stays Loading.
  [[nodiscard]] bool LoadFrame(uint32_t frame, uint16_t fileId, uint64_t offset) noexcept;

  // Flush and drop of one shard (page_files.cpp).
  [[nodiscard]] bool FlushShard(qw::cache::Shard &shard, uint16_t fileId, QWFILE file) noexcept;
  // Every shard's dirty pages of the file written (no sync).
  [[nodiscard]] bool WriteBackFile(uint16_t fileId, QWFILE file) noexcept;
  // QWFileSync; on failure `who` (the caller's name) heads the message.
  [[nodiscard]] bool SyncFile(QWFILE file, const char *who) noexcept;
  uint32_t DropShardPages(qw::cache::Shard &shard, uint16_t fileId) noexcept;

  uint32_t pageSize_ = 0;
  uint32_t pageShift_ = 0;
  uint64_t pageCount_ = 0;
  uint32_t shardCount_ = 0;
  uint32_t shardMask_ = 0;
  std::unique_ptr<std::byte, qw::cache::SlabDeleter> slab_;
  std::unique_ptr<qw::cache::Frame[]> frames_;
  std::unique_ptr<qw::cache::Shard[]> shards_;

  // File table: slot i holds the handle registered as id i (QWFILE_INVALID
  // when free). Written under filesMutex_, read lock-free by the miss path.
  std::mutex filesMutex_;
  uint32_t maxFiles_ = 0;
  // Frame hints per file id, made at its first registration and kept (with
  // their chunks) until the cache goes: a later file under the same id finds
  // stale hints, which the hit path's checks turn away.
  std::unique_ptr<qw::cache::HintTable> hints_;
  uint32_t registeredFiles_ = 0;
  std::unique_ptr<std::atomic<QWFILE>[]> files_;
};
