// The C interface of the page cache (qwvm/qwcache.h) over the PageCache class.
#include <cerrno>

#include "platform/qwcache/lookup_within.h"
#include "platform/qwcache/page_cache.h"
#include "qwvm/qwcache.h"
#include "qwvm/qwlib.h"

using qw::cache::Found;

void *PageCacheLookupWithin(PageCache *cache, uint16_t fileId, uint64_t offset, uint32_t within, int create,
                            int *valid) {
  void *page = nullptr;
  if (create && valid == nullptr) {
    QWErrorThrow(EINVAL, QW_ERROR_CLASS_GENERAL, "PageCacheLookup: create needs a valid flag to return");
    return nullptr;
  }
  Found found = cache->Lookup(fileId, offset, create != 0, &page, within);
  if (valid != nullptr) {
    switch (found) {
      case Found::kValid: *valid = 1; break;
      case Found::kClaimed:
      case Found::kAbsent: *valid = 0; break;
      case Found::kNoFrame:
      case Found::kFailed: *valid = -1; break;
    }
  }
  return page;
}

extern "C" {

QW_API PageCache *PageCacheNew(uint64_t capacityBytes, uint32_t pageSize) {
  return PageCache::Create(capacityBytes, pageSize).release();
}

QW_API void PageCacheFree(PageCache *cache) {
  if (cache == nullptr) return;
  qwassert_(cache->RegisteredFileCount() == 0);
  std::unique_ptr<PageCache> owned(cache);
}

QW_API uint32_t PageCacheGetPageSize(PageCache *cache) { return cache->PageSizeBytes(); }

QW_API uint16_t PageCacheRegisterFile(PageCache *cache, QWFILE file) { return cache->RegisterFile(file); }

QW_API int PageCacheUnregisterFile(PageCache *cache, uint16_t fileId) { return cache->UnregisterFile(fileId); }

QW_API void *PageCacheLookup(PageCache *cache, uint16_t fileId, uint64_t offset, int create, int *valid) {
  return PageCacheLookupWithin(cache, fileId, offset, 0, create, valid);
}

QW_API int PageCacheRead(PageCache *cache, uint16_t fileId, uint64_t offset, void **page) {
  return cache->Read(fileId, offset, page);
}

QW_API void PageCacheSetValid(PageCache *cache, void *page) { cache->SetValid(page); }

QW_API void PageCacheRelease(PageCache *cache, void *page, int dirty, int keep, int keepLong) {
  cache->Release(page, dirty != 0, keep != 0, keepLong != 0);
}

QW_API int PageCacheContains(PageCache *cache, const void *address) { return cache->Contains(address) ? 1 : 0; }

QW_API int PageCachePrefetch(PageCache *cache, uint16_t fileId, uint64_t offset, uint64_t length) {
  return cache->Prefetch(fileId, offset, length);
}

QW_API int PageCacheFlushFile(PageCache *cache, uint16_t fileId) { return cache->FlushFile(fileId); }

QW_API int PageCacheWriteBackFile(PageCache *cache, uint16_t fileId) { return cache->WriteBackOnly(fileId); }

QW_API int PageCacheInvalidateFile(PageCache *cache, uint16_t fileId) { return cache->InvalidateFile(fileId); }

QW_API int PageCacheGetStats(PageCache *cache, PageCacheStats *stats) {
  cache->GetStats(stats);
  return 1;
}

}  // extern "C"
