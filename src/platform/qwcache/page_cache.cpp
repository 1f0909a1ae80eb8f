// Creation, shard layout and statistics of the page cache.
#include "platform/qwcache/page_cache.h"

#include <cerrno>
#include <cstdlib>
#include <new>

#include "qwvm/qwlib.h"

namespace qw::cache {

void SlabDeleter::operator()(std::byte *memory) const noexcept { std::free(memory); }

namespace {

bool ValidPageSize(uint32_t pageSize) {
  return pageSize >= PAGECACHE_MIN_PAGE_SIZE && pageSize <= PAGECACHE_MAX_PAGE_SIZE &&
         (pageSize & (pageSize - 1)) == 0;
}

// As many shards as keep kMinFramesPerShard frames each, a power of two so
// that picking one is a mask.
uint32_t ShardCountFor(uint64_t pages) {
  uint32_t shards = 1;
  while (shards < kMaxShards && pages / (2 * shards) >= kMinFramesPerShard) shards *= 2;
  return shards;
}

uint32_t Log2(uint32_t powerOfTwo) {
  uint32_t shift = 0;
  while ((uint32_t{1} << shift) < powerOfTwo) ++shift;
  return shift;
}

}  // namespace
}  // namespace qw::cache

using namespace qw::cache;

std::unique_ptr<PageCache> PageCache::Create(uint64_t capacityBytes, uint32_t pageSize, uint32_t maxFiles) noexcept {
  if (!ValidPageSize(pageSize)) {
    QWErrorThrow(EINVAL, QW_ERROR_CLASS_GENERAL, "PageCacheNew: invalid page size %u", pageSize);
    return nullptr;
  }
  uint64_t pages = capacityBytes / pageSize;
  if (pages < PAGECACHE_MIN_PAGES) pages = PAGECACHE_MIN_PAGES;
  // Frame numbers are 32-bit with one value reserved for "none".
  if (pages >= kNoFrame || pages > SIZE_MAX / pageSize) {
    QWErrorThrow(EINVAL, QW_ERROR_CLASS_GENERAL, "PageCacheNew: capacity of %llu bytes is too large",
                 static_cast<unsigned long long>(capacityBytes));
    return nullptr;
  }
  try {
    std::unique_ptr<PageCache> cache(new PageCache());
    cache->pageSize_ = pageSize;
    cache->pageShift_ = Log2(pageSize);
    cache->pageCount_ = pages;
    cache->shardCount_ = ShardCountFor(pages);
    cache->shardMask_ = cache->shardCount_ - 1;
    // The page memory is not touched here: the system commits it as frames
    // are first used.
    cache->slab_.reset(static_cast<std::byte *>(std::aligned_alloc(PAGECACHE_MIN_PAGE_SIZE, pages * pageSize)));
    if (!cache->slab_) throw std::bad_alloc();
    cache->frames_ = std::make_unique<Frame[]>(pages);
    cache->shards_ = std::make_unique<Shard[]>(cache->shardCount_);
    uint32_t base = static_cast<uint32_t>(pages / cache->shardCount_);
    uint32_t extra = static_cast<uint32_t>(pages % cache->shardCount_);
    uint32_t next = 0;
    for (uint32_t s = 0; s < cache->shardCount_; ++s) {
      Shard &shard = cache->shards_[s];
      shard.firstFrame = next;
      shard.frameCount = base + (s < extra ? 1 : 0);
      shard.table.Init(shard.frameCount);
      shard.freeFrames.reserve(shard.frameCount);
      // Popped from the back: frames are handed out in address order.
      for (uint32_t i = shard.frameCount; i-- > 0;) shard.freeFrames.push_back(next + i);
      for (uint32_t i = 0; i < shard.frameCount; ++i) cache->frames_[next + i].shard = s;
      next += shard.frameCount;
    }
    cache->maxFiles_ = maxFiles;
    cache->files_ = std::make_unique<std::atomic<QWFILE>[]>(maxFiles);
    cache->hints_ = std::make_unique<HintTable>(maxFiles);
    for (uint32_t i = 0; i < maxFiles; ++i) cache->files_[i].store(QWFILE_INVALID, std::memory_order_relaxed);
    return cache;
  } catch (const std::bad_alloc &) {
    QWErrorThrow(ENOMEM, QW_ERROR_CLASS_SYSTEM, "PageCacheNew: out of memory for %llu pages of %u bytes",
                 static_cast<unsigned long long>(pages), pageSize);
    return nullptr;
  }
}

uint32_t PageCache::FrameOfAddress(const void *address) const noexcept {
  const std::byte *p = static_cast<const std::byte *>(address);
  qwassert_(p >= slab_.get() && p < slab_.get() + (pageCount_ << pageShift_));
  return static_cast<uint32_t>(static_cast<size_t>(p - slab_.get()) >> pageShift_);
}

bool PageCache::CheckOffset(const char *function, uint64_t offset) const noexcept {
  if ((offset & (pageSize_ - 1)) != 0) {
    QWErrorThrow(EINVAL, QW_ERROR_CLASS_GENERAL, "%s: offset %llu is not a multiple of the page size %u", function,
                 static_cast<unsigned long long>(offset), pageSize_);
    return false;
  }
  if ((offset >> pageShift_) >> kPageNumberBits) {
    QWErrorThrow(EINVAL, QW_ERROR_CLASS_GENERAL, "%s: offset %llu is too large", function,
                 static_cast<unsigned long long>(offset));
    return false;
  }
  return true;
}

QWFILE PageCache::RegisteredFile(const char *function, uint16_t fileId) const noexcept {
  QWFILE file = FileHandle(fileId);
  if (file == QWFILE_INVALID)
    QWErrorThrow(EINVAL, QW_ERROR_CLASS_GENERAL, "%s: file id %u is not registered", function, fileId);
  return file;
}

uint32_t PageCache::RegisteredFileCount() noexcept {
  std::lock_guard<std::mutex> lock(filesMutex_);
  return registeredFiles_;
}

void PageCache::GetStats(PageCacheStats *stats) noexcept {
  *stats = PageCacheStats{};
  stats->pageCount = pageCount_;
  stats->pageSize = pageSize_;
  stats->shardCount = shardCount_;
  for (uint32_t s = 0; s < shardCount_; ++s) {
    Shard &shard = shards_[s];
    std::lock_guard<std::mutex> lock(shard.mutex);
    stats->hits += shard.counters.hits;
    stats->misses += shard.counters.misses;
    stats->reads += shard.counters.reads;
    stats->writes += shard.counters.writes;
    stats->evictions += shard.counters.evictions;
    for (uint32_t i = shard.firstFrame; i < shard.firstFrame + shard.frameCount; ++i) {
      const Frame &frame = frames_[i];
      if (frame.state == FrameState::kFree) continue;
      ++stats->resident;
      if (frame.pins.load(std::memory_order_relaxed) > 0) ++stats->pinned;
      if (frame.dirty.load(std::memory_order_relaxed)) ++stats->dirty;
    }
  }
}
