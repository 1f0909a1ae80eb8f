// Page access: lookup (the hit path), claiming frames with CLOCK eviction,
// loading, release and prefetch. The frame states and invariants are stated
// in page_cache.h.
#include <algorithm>
#include <cerrno>
#include <cstring>

#include "platform/qwcache/page_cache.h"
#include "qwvm/qwlib.h"

using namespace qw::cache;

namespace {

// Clock credit given by a lookup and by the `keep` hint of a release.
constexpr uint8_t kReferencedCredit = 1;
constexpr uint8_t kKeepCredit = 2;

constexpr auto kRelaxed = std::memory_order_relaxed;

unsigned long long Ull(uint64_t value) { return static_cast<unsigned long long>(value); }

}  // namespace

void PageCache::Wait(Shard &shard, std::unique_lock<std::mutex> &lock) noexcept {
  ++shard.waiters;
  shard.changed.wait(lock);
  --shard.waiters;
}

void PageCache::NotifyWaiters(Shard &shard) noexcept {
  if (shard.waiters > 0) shard.changed.notify_all();
}

bool PageCache::Evictable(const Frame &frame) const noexcept {
  return frame.state == FrameState::kValid && frame.pins.load(std::memory_order_acquire) == 0 && !frame.ioBusy &&
         !frame.detached.load(kRelaxed);
}

// A free frame if there is one, else the CLOCK victim: the first evictable
// frame without credit, taking one credit from each evictable frame passed.
// Pages kept long are passed over until no other page can go. Returns
// kNoFrame when every frame is pinned, loading or busy.
uint32_t PageCache::PickVictim(Shard &shard) noexcept {
  if (!shard.freeFrames.empty()) {
    uint32_t frame = shard.freeFrames.back();
    shard.freeFrames.pop_back();
    return frame;
  }
  const uint32_t n = shard.frameCount;
  // kKeepCredit + 1 rounds drain every credit; one more round may take a
  // page kept long.
  const uint32_t creditSteps = (kKeepCredit + 1) * n;
  for (uint32_t step = 0; step < creditSteps + n; ++step) {
    uint32_t index = shard.firstFrame + shard.hand;
    shard.hand = shard.hand + 1 == n ? 0 : shard.hand + 1;
    Frame &frame = frames_[index];
    if (!Evictable(frame)) continue;
    if (step < creditSteps) {
      if (frame.keepLong.load(kRelaxed)) continue;
      // A racing `keep` release may be lost here: it is only a hint.
      uint8_t credit = frame.credit.load(kRelaxed);
      if (credit > 0) {
        frame.credit.store(credit - 1, kRelaxed);
        continue;
      }
    }
    return index;
  }
  return kNoFrame;
}

// Marks a frame that was seen unpinned busy, so that no hit pins it from now
// on. A lock-free hit may have pinned it since: the mark is stored first and
// the pins read after, so either the hit sees the mark or this sees its pin
// (see Pins in page_cache.h); then the mark is taken back: false.
bool PageCache::MarkBusyIfUnpinned(Frame &frame) noexcept {
  frame.ioBusy.store(true, std::memory_order_seq_cst);
  if (frame.pins.load(std::memory_order_seq_cst) == 0) return true;
  frame.ioBusy.store(false, std::memory_order_seq_cst);
  return false;
}

// Takes a victim that was found evictable and clean out of the index; false
// when a lock-free hit pinned it since, or released it dirty (reading the
// pins after the hit's release makes its `dirty` visible). On success the
// frame stays busy until TakeFrame has given it its new key and state.
bool PageCache::Evict(Shard &shard, uint32_t index) noexcept {
  Frame &frame = frames_[index];
  qwassert_(frame.state.load(kRelaxed) == FrameState::kValid && !frame.ioBusy.load(kRelaxed) &&
            !frame.detached.load(kRelaxed));
  if (!MarkBusyIfUnpinned(frame)) return false;
  if (frame.dirty.load(std::memory_order_acquire)) {
    frame.ioBusy.store(false, std::memory_order_seq_cst);
    return false;
  }
  const uint64_t key = frame.key.load(kRelaxed);
  shard.table.Erase(key, MixKey(key));
  ++shard.counters.evictions;
  return true;
}

// Gives `frame` (free, or evicted) to `key`, pinned and Loading for this
// thread.
void PageCache::TakeFrame(Shard &shard, uint32_t index, uint64_t key, uint64_t hash) noexcept {
  Frame &frame = frames_[index];
  frame.key.store(key, kRelaxed);
  frame.pins.fetch_add(1, kRelaxed);
  frame.state.store(FrameState::kLoading, std::memory_order_seq_cst);
  frame.credit.store(kReferencedCredit, kRelaxed);
  frame.keepLong.store(false, kRelaxed);
  frame.loader = std::this_thread::get_id();
  shard.table.Insert(key, hash, index);
  frame.ioBusy.store(false, std::memory_order_seq_cst);  // after the state: see Evict
}

// Returns an unpinned frame that is in no index to the free list.
void PageCache::FreeFrame(Shard &shard, uint32_t index) noexcept {
  Frame &frame = frames_[index];
  qwassert_(!frame.ioBusy.load(kRelaxed));
  // State before `detached`: the hit path reads them in the other order.
  frame.state.store(FrameState::kFree, std::memory_order_seq_cst);
  frame.dirty.store(false, kRelaxed);
  frame.keepLong.store(false, kRelaxed);
  frame.detached.store(false, std::memory_order_seq_cst);
  frame.loader = std::thread::id();
  shard.freeFrames.push_back(index);
}

// Writes a dirty victim, marked busy by the caller, back with the shard
// unlocked. The frame is busy meanwhile, so nobody pins, evicts or drops it;
// `dirty` is restored when the write fails so that no change is lost.
bool PageCache::WriteBackVictim(Shard &shard, std::unique_lock<std::mutex> &lock, uint32_t index) noexcept {
  Frame &frame = frames_[index];
  const uint16_t fileId = FileOfKey(frame.key);
  const uint64_t offset = OffsetOfKey(frame.key);
  frame.dirty.exchange(false, std::memory_order_acquire);
  lock.unlock();
  const bool written = QWFileWriteData(FileHandle(fileId), offset, PageAddress(index), pageSize_) != 0;
  lock.lock();
  frame.ioBusy = false;
  if (written) {
    ++shard.counters.writes;
  } else {
    frame.dirty.store(true, kRelaxed);
    QWErrorRethrow("PageCacheLookup: could not write back page at offset %llu of file %u", Ull(offset), fileId);
  }
  NotifyWaiters(shard);
  return written;
}

// The frame must be attached, not busy, Valid and hold the key, read in that
// order after the pin (see Pins in page_cache.h).
bool PageCache::TryHit(Shard &shard, uint64_t key, uint64_t hash, uint32_t within, std::atomic<uint32_t> *hint,
                       void **page) noexcept {
  const uint32_t guess = hint ? hint->load(kRelaxed) : kNoFrame;
  if (guess < pageCount_ && PinIfHolds(shard, guess, key, within, page)) return true;
  const uint32_t index = shard.table.Find(key, hash);
  // A frame the hint named has been judged already.
  if (index == kNoFrame || index == guess || !PinIfHolds(shard, index, key, within, page)) return false;
  if (hint) hint->store(index, kRelaxed);
  return true;
}

bool PageCache::PinIfHolds(Shard &shard, uint32_t index, uint64_t key, uint32_t within, void **page) noexcept {
  // The page's address follows from the frame number alone: its line and the
  // frame's are fetched together. A prefetch: a frame that turns out not to
  // hold the page costs a wasted line, nothing else.
  __builtin_prefetch(PageAddress(index) + (within < pageSize_ ? within : 0));
  Frame &frame = frames_[index];
  // A cheap look first, so that frames being loaded or freed rarely get a
  // stray pin.
  if (frame.key.load(kRelaxed) != key || frame.state.load(kRelaxed) != FrameState::kValid) return false;
  frame.pins.fetch_add(1, std::memory_order_seq_cst);
  const bool hit = !frame.detached.load(std::memory_order_seq_cst) &&
                   !frame.ioBusy.load(std::memory_order_seq_cst) &&
                   frame.state.load(std::memory_order_seq_cst) == FrameState::kValid &&
                   frame.key.load(kRelaxed) == key;
  if (!hit) {
    Unpin(index);
    return false;
  }
  *page = Hit(shard, index);
  return true;
}

std::atomic<uint32_t> *PageCache::HintOf(uint16_t fileId, uint64_t pageNumber, bool make) noexcept {
  FileHints *file = fileId < hints_->count ? hints_->files[fileId].load(std::memory_order_acquire) : nullptr;
  if (!file || pageNumber >= uint64_t{kHintChunks} << kHintChunkShift) return nullptr;
  std::atomic<HintChunk *> &slot = file->chunks[pageNumber >> kHintChunkShift];
  HintChunk *chunk = slot.load(std::memory_order_acquire);
  if (!chunk && make) {
    auto *fresh = new (std::nothrow) HintChunk();
    if (fresh && slot.compare_exchange_strong(chunk, fresh, std::memory_order_acq_rel)) {
      chunk = fresh;
    } else {
      delete fresh;  // out of memory (no hint), or another thread installed one (now in chunk)
    }
  }
  return chunk ? &chunk->frame[pageNumber & (kHintChunkPages - 1)] : nullptr;
}

// A pinned hit: the clock credit and the count.
void *PageCache::Hit(Shard &shard, uint32_t index) noexcept {
  Frame &frame = frames_[index];
  if (frame.credit.load(kRelaxed) < kReferencedCredit) frame.credit.store(kReferencedCredit, kRelaxed);
  shard.counters.hits.fetch_add(1, kRelaxed);
  return PageAddress(index);
}

Found PageCache::Lookup(uint16_t fileId, uint64_t offset, bool create, void **page, uint32_t within) noexcept {
  *page = nullptr;
  if (!CheckOffset("PageCacheLookup", offset)) return Found::kFailed;
  const uint64_t key = MakeKey(fileId, offset >> pageShift_);
  const uint64_t hash = MixKey(key);
  Shard &shard = ShardOfHash(hash);
  std::atomic<uint32_t> *hint = HintOf(fileId, offset >> pageShift_, create);
  if (TryHit(shard, key, hash, within, hint, page)) return Found::kValid;
  std::unique_lock<std::mutex> lock(shard.mutex);
  uint32_t cleaned = kNoFrame;  // a victim this thread wrote back, reused first
  for (;;) {
    const uint32_t index = shard.table.Find(key, hash);
    if (index != kNoFrame) {
      Frame &frame = frames_[index];
      if (frame.state == FrameState::kValid && !frame.ioBusy) {
        frame.pins.fetch_add(1, kRelaxed);
        if (hint) hint->store(index, kRelaxed);
        *page = Hit(shard, index);
        return Found::kValid;
      }
      if (frame.state == FrameState::kLoading && frame.loader == std::this_thread::get_id()) {
        QWErrorThrow(EDEADLK, QW_ERROR_CLASS_GENERAL,
                     "PageCacheLookup: page %llu of file %u is being loaded by the calling thread",
                     Ull(offset >> pageShift_), fileId);
        return Found::kFailed;
      }
      Wait(shard, lock);
      continue;
    }
    if (!create) return Found::kAbsent;
    if (RegisteredFile("PageCacheLookup", fileId) == QWFILE_INVALID) return Found::kFailed;
    uint32_t victim = cleaned != kNoFrame && Evictable(frames_[cleaned]) && !frames_[cleaned].dirty.load(kRelaxed)
                          ? cleaned
                          : PickVictim(shard);
    if (victim == kNoFrame) {
      QWErrorThrow(ENOMEM, QW_ERROR_CLASS_GENERAL,
                   "PageCacheLookup: no page can be had, all %u pages of the shard are pinned", shard.frameCount);
      return Found::kNoFrame;
    }
    if (frames_[victim].state == FrameState::kValid && frames_[victim].dirty.load(kRelaxed)) {
      if (!MarkBusyIfUnpinned(frames_[victim])) continue;  // a lock-free hit has it: pick again
      if (!WriteBackVictim(shard, lock, victim)) return Found::kFailed;
      // The shard was unlocked: someone may have brought our page in.
      cleaned = victim;
      continue;
    }
    // A lock-free hit pinned the victim after all: pick again.
    if (frames_[victim].state.load(kRelaxed) == FrameState::kValid && !Evict(shard, victim)) continue;
    TakeFrame(shard, victim, key, hash);
    if (hint) hint->store(victim, kRelaxed);
    ++shard.counters.misses;
    *page = PageAddress(victim);
    return Found::kClaimed;
  }
}

bool PageCache::LoadFrame(uint32_t index, uint16_t fileId, uint64_t offset) noexcept {
  std::byte *bytes = PageAddress(index);
  size_t got = 0;
  QWFILE file = RegisteredFile("PageCacheRead", fileId);
  if (file == QWFILE_INVALID || !QWFileReadData(file, offset, bytes, pageSize_, &got)) {
    QWErrorRethrow("PageCacheRead: could not read page at offset %llu of file %u", Ull(offset), fileId);
    return false;
  }
  // Past the end of the file a page reads as zeros.
  if (got < pageSize_) std::memset(bytes + got, 0, pageSize_ - got);
  Frame &frame = frames_[index];
  Shard &shard = shards_[frame.shard];
  std::lock_guard<std::mutex> lock(shard.mutex);
  ++shard.counters.reads;
  frame.state = FrameState::kValid;
  frame.loader = std::thread::id();
  NotifyWaiters(shard);
  return true;
}

int PageCache::Read(uint16_t fileId, uint64_t offset, void **page) noexcept {
  if (*page != nullptr) {
    // Loading a frame the caller claimed with Lookup: it must be this
    // thread's claim on this very page.
    const uint32_t index = FrameOfAddress(*page);
    *page = PageAddress(index);
    {
      Frame &frame = frames_[index];
      std::lock_guard<std::mutex> lock(shards_[frame.shard].mutex);
      // Anything else is most likely a stale pointer left in *page; reading
      // into it would return a page without a pin of its own.
      const bool claimed = frame.state == FrameState::kLoading && frame.loader == std::this_thread::get_id() &&
                           (offset & (pageSize_ - 1)) == 0 && frame.key == MakeKey(fileId, offset >> pageShift_);
      if (!claimed) {
        QWErrorThrow(EINVAL, QW_ERROR_CLASS_GENERAL,
                     "PageCacheRead: *page is neither NULL nor claimed by the calling thread for offset %llu of file %u",
                     Ull(offset), fileId);
        return 0;
      }
    }
    return LoadFrame(index, fileId, offset) ? 1 : 0;
  }
  Found found = Lookup(fileId, offset, true, page);
  if (found == Found::kValid) return 1;
  if (found != Found::kClaimed) return 0;
  if (LoadFrame(FrameOfAddress(*page), fileId, offset)) return 1;
  // Drop the claim so that no half-read page stays behind.
  QWErrorSave();
  Release(*page, false, false, false);
  QWErrorRestore();
  *page = nullptr;
  return 0;
}

void PageCache::SetValid(void *page) noexcept {
  const uint32_t index = FrameOfAddress(page);
  Frame &frame = frames_[index];
  Shard &shard = shards_[frame.shard];
  std::lock_guard<std::mutex> lock(shard.mutex);
  qwassert_(frame.pins.load(kRelaxed) > 0);
  if (frame.state != FrameState::kLoading) return;
  frame.state = FrameState::kValid;
  frame.loader = std::thread::id();
  NotifyWaiters(shard);
}

// The common case takes no lock: a pinned Valid frame cannot change state,
// so the hints are stored and the pin dropped with atomics. Only a page
// released before it was valid, or the last pin of a detached page, goes
// through the shard mutex.
void PageCache::Release(void *page, bool dirty, bool keep, bool keepLong) noexcept {
  const uint32_t index = FrameOfAddress(page);
  Frame &frame = frames_[index];
  if (frame.state == FrameState::kLoading) {
    ReleaseLoading(index);
    return;
  }
  if (dirty) frame.dirty.store(true, std::memory_order_release);
  if (keep && frame.credit.load(kRelaxed) < kKeepCredit) frame.credit.store(kKeepCredit, kRelaxed);
  if (keepLong) frame.keepLong.store(true, kRelaxed);
  Unpin(index);
}

void PageCache::Unpin(uint32_t index) noexcept {
  Frame &frame = frames_[index];
  const uint32_t pinsBefore = frame.pins.fetch_sub(1, std::memory_order_seq_cst);
  qwassert_(pinsBefore > 0);
  // Pairs with DropShardPages, which marks the frame detached and then looks
  // at the pins: with both sides sequentially consistent, at least one of
  // them sees the other and frees the frame.
  if (pinsBefore == 1 && frame.detached.load(std::memory_order_seq_cst)) FreeIfDetachedAndUnpinned(index);
}

// Released before it was valid: nobody may see its bytes, so it is dropped.
void PageCache::ReleaseLoading(uint32_t index) noexcept {
  Frame &frame = frames_[index];
  Shard &shard = shards_[frame.shard];
  std::lock_guard<std::mutex> lock(shard.mutex);
  const uint32_t pinsBefore = frame.pins.fetch_sub(1, kRelaxed);
  qwassert_(pinsBefore > 0);
  if (!frame.detached.load(kRelaxed)) shard.table.Erase(frame.key, MixKey(frame.key));
  FreeFrame(shard, index);
  NotifyWaiters(shard);
}

// Frees a detached frame whose last pin is gone, unless the other side of the
// race (or a later owner of the frame) already did.
void PageCache::FreeIfDetachedAndUnpinned(uint32_t index) noexcept {
  Frame &frame = frames_[index];
  Shard &shard = shards_[frame.shard];
  std::lock_guard<std::mutex> lock(shard.mutex);
  if (frame.state != FrameState::kFree && frame.detached.load(kRelaxed) && frame.pins.load(kRelaxed) == 0)
    FreeFrame(shard, index);
}

int PageCache::Prefetch(uint16_t fileId, uint64_t offset, uint64_t length) noexcept {
  QWFILE file = RegisteredFile("PageCachePrefetch", fileId);
  if (file == QWFILE_INVALID) return 0;
  uint64_t size = 0;
  if (!QWFileGetSize(file, &size)) {
    QWErrorRethrow("PageCachePrefetch: could not get the size of file %u", fileId);
    return 0;
  }
  const uint64_t end = std::min(size, length > UINT64_MAX - offset ? UINT64_MAX : offset + length);
  for (uint64_t at = offset & ~uint64_t{pageSize_ - 1}; at < end; at += pageSize_) {
    void *page = nullptr;
    Found found = Lookup(fileId, at, true, &page);
    if (found == Found::kNoFrame) {
      QWErrorClear();  // a hint, not a demand: leave this page out
      continue;
    }
    if (found == Found::kFailed) {
      QWErrorRethrow("PageCachePrefetch: could not prefetch offset %llu of file %u", Ull(at), fileId);
      return 0;
    }
    const bool loaded = found == Found::kValid || LoadFrame(FrameOfAddress(page), fileId, at);
    QWErrorSave();
    Release(page, false, false, false);
    QWErrorRestore();
    if (!loaded) {
      QWErrorRethrow("PageCachePrefetch: could not prefetch offset %llu of file %u", Ull(at), fileId);
      return 0;
    }
  }
  return 1;
}
