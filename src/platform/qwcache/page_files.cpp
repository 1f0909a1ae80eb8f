// Per-file operations of the page cache: registration, flush, invalidation.
// They visit every shard in turn, holding one shard mutex at a time, and do
// their file I/O with the shard unlocked (frames being written are marked
// busy, see page_cache.h).
#include <algorithm>
#include <cerrno>
#include <utility>
#include <vector>

#include "platform/qwcache/page_cache.h"
#include "qwvm/qwlib.h"

using namespace qw::cache;

namespace {

// Pages written per visit of a shard: bounds how long lookups of those pages
// wait and how much of the shard one flush holds busy.
constexpr size_t kFlushBatch = 64;

}  // namespace

uint16_t PageCache::RegisterFile(QWFILE file) noexcept {
  if (file == QWFILE_INVALID) {
    QWErrorThrow(EINVAL, QW_ERROR_CLASS_GENERAL, "PageCacheRegisterFile: invalid file handle");
    return PAGECACHE_INVALID_FILE;
  }
  std::lock_guard<std::mutex> lock(filesMutex_);
  uint32_t freeId = maxFiles_;
  for (uint32_t id = 0; id < maxFiles_; ++id) {
    QWFILE registered = files_[id].load(std::memory_order_relaxed);
    if (registered == file) {
      // Two ids for one file would cache two diverging copies of its pages.
      QWErrorThrow(EINVAL, QW_ERROR_CLASS_GENERAL, "PageCacheRegisterFile: file \"%s\" is already registered as %u",
                   QWFileGetPath(file), id);
      return PAGECACHE_INVALID_FILE;
    }
    if (registered == QWFILE_INVALID && freeId == maxFiles_) freeId = id;
  }
  if (freeId == maxFiles_) {
    QWErrorThrow(EMFILE, QW_ERROR_CLASS_GENERAL, "PageCacheRegisterFile: too many files registered (%u)", maxFiles_);
    return PAGECACHE_INVALID_FILE;
  }
  std::atomic<FileHints *> &hints = hints_->files[freeId];
  if (!hints.load(std::memory_order_relaxed))  // none: the file's lookups go by the index alone
    hints.store(new (std::nothrow) FileHints(), std::memory_order_release);
  files_[freeId].store(file, std::memory_order_release);
  ++registeredFiles_;
  return static_cast<uint16_t>(freeId);
}

int PageCache::UnregisterFile(uint16_t fileId) noexcept {
  QWFILE file = RegisteredFile("PageCacheUnregisterFile", fileId);
  if (file == QWFILE_INVALID) return 0;
  // Dirty pages that could not be written stay with the file: the caller may
  // retry, or invalidate them first.
  if (!WriteBackFile(fileId, file)) {
    QWErrorRethrow("PageCacheUnregisterFile: could not write back file \"%s\"", QWFileGetPath(file));
    return 0;
  }
  // Every page is clean now, so a failed sync leaves the cache nothing to
  // retry: the file is unregistered either way, since its owner is about to
  // close it, and the failure is reported.
  const bool synced = SyncFile(file, "PageCacheUnregisterFile");
  uint32_t pinned = 0;
  for (uint32_t s = 0; s < shardCount_; ++s) pinned += DropShardPages(shards_[s], fileId);
  if (pinned > 0)
    QWMessage(QW_LEVEL_WARNING, "PageCacheUnregisterFile: %u pages of file \"%s\" were still pinned", pinned,
              QWFileGetPath(file));
  {
    std::lock_guard<std::mutex> lock(filesMutex_);
    // A racing unregister of the same id may have been first.
    if (files_[fileId].load(std::memory_order_relaxed) == file) {
      files_[fileId].store(QWFILE_INVALID, std::memory_order_release);
      --registeredFiles_;
    }
  }
  if (!synced) {
    QWErrorRethrow("PageCacheUnregisterFile: could not write back file \"%s\"", QWFileGetPath(file));
    return 0;
  }
  return 1;
}

int PageCache::FlushFile(uint16_t fileId) noexcept {
  QWFILE file = RegisteredFile("PageCacheFlushFile", fileId);
  if (file == QWFILE_INVALID) return 0;
  return WriteBackFile(fileId, file) && SyncFile(file, "PageCacheFlushFile");
}

int PageCache::WriteBackOnly(uint16_t fileId) noexcept {
  QWFILE file = RegisteredFile("PageCacheFlushFile", fileId);
  return file != QWFILE_INVALID && WriteBackFile(fileId, file);
}

bool PageCache::WriteBackFile(uint16_t fileId, QWFILE file) noexcept {
  for (uint32_t s = 0; s < shardCount_; ++s)
    if (!FlushShard(shards_[s], fileId, file)) return false;
  return true;
}

bool PageCache::SyncFile(QWFILE file, const char *who) noexcept {
  if (QWFileSync(file)) return true;
  QWErrorRethrow("%s: could not sync file \"%s\"", who, QWFileGetPath(file));
  return false;
}

int PageCache::InvalidateFile(uint16_t fileId) noexcept {
  if (RegisteredFile("PageCacheInvalidateFile", fileId) == QWFILE_INVALID) return 0;
  for (uint32_t s = 0; s < shardCount_; ++s) DropShardPages(shards_[s], fileId);
  return 1;
}

// Writes the shard's dirty pages of the file in batches, in offset order
// within a batch. Pages another thread is writing back (eviction, or a
// concurrent flush) are waited for and then looked at again, since a failed
// write leaves its page dirty.
bool PageCache::FlushShard(Shard &shard, uint16_t fileId, QWFILE file) noexcept {
  std::vector<std::pair<uint64_t, uint32_t>> batch;  // (offset, frame)
  batch.reserve(kFlushBatch);
  std::unique_lock<std::mutex> lock(shard.mutex);
  const uint32_t first = shard.firstFrame;
  const uint32_t end = first + shard.frameCount;
  uint32_t cursor = first;
  bool sawBusy = false;
  for (;;) {
    batch.clear();
    for (; cursor < end && batch.size() < kFlushBatch; ++cursor) {
      Frame &frame = frames_[cursor];
      if (frame.state != FrameState::kValid || frame.detached.load(std::memory_order_relaxed) ||
          FileOfKey(frame.key) != fileId)
        continue;
      if (frame.ioBusy) {
        sawBusy = true;
      } else if (frame.dirty.exchange(false, std::memory_order_acquire)) {
        frame.ioBusy = true;
        batch.emplace_back(OffsetOfKey(frame.key), cursor);
      }
    }
    if (batch.empty()) {
      if (!sawBusy) return true;
      auto busy = [&] {
        for (uint32_t i = first; i < end; ++i)
          if (frames_[i].ioBusy && FileOfKey(frames_[i].key) == fileId) return true;
        return false;
      };
      while (busy()) Wait(shard, lock);
      cursor = first;
      sawBusy = false;
      continue;
    }
    lock.unlock();
    std::sort(batch.begin(), batch.end());
    size_t written = 0;
    for (; written < batch.size(); ++written) {
      auto [offset, index] = batch[written];
      if (!QWFileWriteData(file, offset, PageAddress(index), pageSize_)) {
        QWErrorRethrow("PageCacheFlushFile: could not write page at offset %llu of file \"%s\"",
                       static_cast<unsigned long long>(offset), QWFileGetPath(file));
        break;
      }
    }
    lock.lock();
    for (size_t i = 0; i < batch.size(); ++i) {
      Frame &frame = frames_[batch[i].second];
      frame.ioBusy = false;
      if (i >= written) frame.dirty.store(true, std::memory_order_relaxed);
    }
    shard.counters.writes += written;
    NotifyWaiters(shard);
    if (written < batch.size()) return false;
  }
}

// Takes every page of the file out of the shard: unpinned ones are freed,
// pinned and loading ones detached. Write-backs under way are waited for
// first, so that none lands in the file afterwards. Returns the number of
// pages detached.
uint32_t PageCache::DropShardPages(Shard &shard, uint16_t fileId) noexcept {
  std::unique_lock<std::mutex> lock(shard.mutex);
  uint32_t detached = 0;
  const uint32_t end = shard.firstFrame + shard.frameCount;
  for (uint32_t index = shard.firstFrame; index < end;) {
    Frame &frame = frames_[index];
    if (frame.state == FrameState::kFree || frame.detached.load(std::memory_order_relaxed) ||
        FileOfKey(frame.key) != fileId) {
      ++index;
      continue;
    }
    if (frame.ioBusy) {
      Wait(shard, lock);
      continue;  // look at the same frame again: it may hold another page now
    }
    shard.table.Erase(frame.key, MixKey(frame.key));
    frame.dirty.store(false, std::memory_order_relaxed);
    frame.keepLong.store(false, std::memory_order_relaxed);
    // The mark before the pins: pairs with Release, whose last holder may
    // drop its pin meanwhile, and with the lock-free hit path, which may
    // pin meanwhile (see Pins in page_cache.h).
    frame.detached.store(true, std::memory_order_seq_cst);
    if (frame.pins.load(std::memory_order_seq_cst) == 0) {
      FreeFrame(shard, index);
    } else {
      ++detached;
    }
    ++index;
  }
  // Threads waiting for a page that was loading re-probe and load it afresh.
  NotifyWaiters(shard);
  return detached;
}
