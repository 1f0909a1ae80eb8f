/*
 * qwvm/qwcache.h: the process-wide page cache.
 *
 * One cache serves every arena and box data file of a process. It keeps a
 * fixed number of fixed-size pages of registered files in memory, hands them
 * out pinned, writes dirty pages back when it needs their frames or when the
 * caller flushes, and drops the pages of a file on request.
 *
 * Conventions are those of qwvm/qwlib.h: 1 / non-NULL on success, 0 / NULL on
 * failure with the calling thread's error chain set. Argument errors raise
 * code 22 (class QW_ERROR_CLASS_GENERAL); file failures keep the system error
 * of qwvm/qwfile.h innermost and add a cache message naming the file id and
 * offset.
 *
 * How it works (what a caller may rely on):
 *  - Capacity is fixed at creation: all page memory is allocated once,
 *    aligned to 4096 bytes, and never grows. A page is identified by
 *    (file id, offset), the offset a multiple of the page size.
 *  - Pinning: every page handed out is pinned until the matching
 *    PageCacheRelease; a pinned page is never evicted or reused, so its
 *    address stays valid. A page may be pinned by several holders at once;
 *    the cache does not order their accesses to the bytes (callers that
 *    write shared pages bring their own lock, as the box store does).
 *  - Sharding: pages are spread over independent shards by a hash of
 *    (file id, page number); each shard has its own mutex, hash table, frames
 *    and eviction clock. A hit takes no lock (it pins the page with an atomic
 *    count and checks it afterwards), a miss takes its shard's mutex, never a
 *    global one, and releasing a valid page takes none. The frames of one
 *    shard serve only that shard's pages, so "no page can be had" means the
 *    page's shard has every frame pinned.
 *  - Eviction: CLOCK (second chance) per shard. A lookup sets a page's
 *    reference credit to one round; the `keep` hint of PageCacheRelease gives
 *    it two; the `keepLong` hint exempts it from eviction until nothing else
 *    in its shard can go. A dirty victim is written back by the thread that
 *    needs the frame, outside the shard lock; lookups of that page wait for
 *    the write to finish.
 *  - Loading: a miss with create claims a frame in the loading state for the
 *    calling thread. Other threads looking the page up wait until it is valid
 *    or dropped; the claiming thread must not look it up again itself (the
 *    lookup fails instead of deadlocking).
 *  - Detached pages: PageCacheInvalidateFile and PageCacheUnregisterFile
 *    take pages that are still pinned out of the cache's index at once. Their
 *    holders keep valid memory until they release; the release then frees the
 *    frame and ignores its dirty flag (the page no longer belongs to a file).
 *  - Files: the cache reads and writes through QWFileReadData /
 *    QWFileWriteData and syncs with QWFileSync (qwvm/qwfile.h); it never
 *    opens or closes files. A file stays the caller's: register it after
 *    opening, unregister it before closing.
 */
#ifndef QWVM_QWCACHE_H
#define QWVM_QWCACHE_H

#include <stdint.h>

#include "qwvm/export.h"
#include "qwvm/qwfile.h"

QW_BEGIN_DECLS

typedef struct PageCache PageCache;

/* The file id that PageCacheRegisterFile returns on failure. */
#define PAGECACHE_INVALID_FILE 0xFFFFu

/* Smallest page size; page sizes are powers of two from here up to 1 MiB. */
#define PAGECACHE_MIN_PAGE_SIZE 4096u
#define PAGECACHE_MAX_PAGE_SIZE (1u << 20)

/* A cache never has fewer pages than this, whatever capacity is asked. */
#define PAGECACHE_MIN_PAGES 8u

/*
 * Creates a cache.
 *  capacityBytes  [in] memory for pages; rounded down to whole pages, and up
 *                 to PAGECACHE_MIN_PAGES pages. Larger caches get more shards:
 *                 a power of two, at most 64, each of at least 32 pages (a
 *                 cache below 64 pages has one shard).
 *  pageSize       [in] a power of two between PAGECACHE_MIN_PAGE_SIZE and
 *                 PAGECACHE_MAX_PAGE_SIZE; 8192 for arenas and box files.
 * Returns the cache, owned by the caller until PageCacheFree; NULL with an
 * error when the page size is invalid (code 22, "PageCacheNew: invalid page
 * size %u") or memory runs out (code 12).
 */
QW_API PageCache *PageCacheNew(uint64_t capacityBytes, uint32_t pageSize);

/*
 * Frees the cache and its page memory. It writes nothing back: flush and
 * unregister every file first. Asserts that no file is still registered
 * ("cache->RegisteredFileCount() == 0"), because their dirty pages and the
 * pointers handed out for them would otherwise be lost silently. NULL is
 * accepted and does nothing.
 */
QW_API void PageCacheFree(PageCache *cache);

/* The page size given at creation. */
QW_API uint32_t PageCacheGetPageSize(PageCache *cache);

/*
 * Registers an open file so that its pages can be cached.
 *  file  [in] a handle from QWFileOpen, opened for reading (and writing if
 *        pages will be written back). The cache keeps the handle, not a copy:
 *        it must stay open until PageCacheUnregisterFile.
 * Returns the file id (0 .. 0xFFFE), used by every other call. On failure
 * returns PAGECACHE_INVALID_FILE with an error: code 22 for QWFILE_INVALID or
 * a handle already registered ("PageCacheRegisterFile: file \"%s\" is
 * already registered as %u"), code 24 when every id is taken
 * ("PageCacheRegisterFile: too many files registered (%u)").
 */
QW_API uint16_t PageCacheRegisterFile(PageCache *cache, QWFILE file);

/*
 * Writes back the file's dirty pages (as PageCacheFlushFile, sync included),
 * drops all its pages and frees its id for reuse. Pages still pinned are
 * detached (see above) and reported by a level 3 message
 * "PageCacheUnregisterFile: %u pages of file \"%s\" were still pinned".
 * Returns 1; 0 with an error when the id is not registered (code 22), when
 * a dirty page could not be written, in which case the file stays registered
 * with its dirty pages, and the caller may retry or PageCacheInvalidateFile
 * first to give them up, or when only the closing sync failed: every page
 * was written, so the file is unregistered all the same (the caller is about
 * to close it) and the error says its data may not be durable. No other
 * thread may use the file id meanwhile: a page it dirties after the
 * write-back is dropped with the rest.
 */
QW_API int PageCacheUnregisterFile(PageCache *cache, uint16_t fileId);

/*
 * Finds a page, optionally claiming a frame for it.
 *  fileId  [in] a registered file id.
 *  offset  [in] byte offset in the file, a multiple of the page size.
 *  create  [in] 0: only look; non-zero: claim a frame on a miss.
 *  valid   [out] 1: the page holds the file's bytes. 0: a frame was claimed
 *          (create only) and the caller owns its loading; it must then either
 *          PageCacheRead into it, or fill it and PageCacheSetValid, or release
 *          it (a page released before it is valid is dropped). -1 on failure.
 *          May be NULL when create is 0.
 * Returns the page, pinned. Pages being loaded or written back by another
 * thread are waited for. Returns NULL with *valid = 0 and no error when the
 * page is absent and create is 0. NULL with *valid = -1 and an error when the
 * arguments are invalid (code 22), when the calling thread is itself loading
 * the page (code 35, "PageCacheLookup: page %llu of file %u is being loaded
 * by the calling thread"), when every frame of the page's shard is pinned
 * (code 12, "PageCacheLookup: no page can be had, all %u pages of the shard
 * are pinned") or when writing back a dirty victim failed (the victim stays
 * dirty and resident).
 */
QW_API void *PageCacheLookup(PageCache *cache, uint16_t fileId, uint64_t offset, int create, int *valid);

/*
 * Returns a valid page, reading it from the file when needed.
 *  fileId, offset  [in] as for PageCacheLookup.
 *  page            [in/out] NULL on entry: the page is looked up, and on a
 *                  miss claimed and read; *page receives it, pinned once more.
 *                  Non-NULL on entry: a page this thread claimed with
 *                  PageCacheLookup (*valid = 0) for the same fileId and offset
 *                  and has not made valid; the file's bytes are read into it
 *                  and it becomes valid; the caller still holds its one pin.
 *                  Any other non-NULL value (a stale pointer left in the
 *                  variable, say) fails with code 22 ("PageCacheRead: *page is
 *                  neither NULL nor claimed by the calling thread for offset
 *                  %llu of file %u"). Either way a following PageCacheSetValid
 *                  is harmless.
 * Bytes past the end of the file read as zeros. Returns 1; 0 with an error
 * when the read fails ("PageCacheRead: could not read page at offset %llu of
 * file %u") or no frame can be had. After a failed read no page is left
 * valid: with *page NULL on entry the claimed frame is dropped and *page is
 * NULL; with a claimed page on entry it stays invalid and pinned, and the
 * caller releases it.
 */
QW_API int PageCacheRead(PageCache *cache, uint16_t fileId, uint64_t offset, void **page);

/*
 * Marks a page claimed with PageCacheLookup (*valid = 0), and filled by the
 * caller, as valid; threads waiting for it proceed. The caller keeps its pin.
 * A page that is already valid is left as it is.
 *  page  [in] any address inside the page.
 */
QW_API void PageCacheSetValid(PageCache *cache, void *page);

/*
 * Unpins a page.
 *  page      [in] any address inside a page pinned by the caller.
 *  dirty     [in] non-zero: the caller changed the bytes; the page is written
 *            back before its frame is reused and by PageCacheFlushFile.
 *  keep      [in] non-zero: give the page a second round of the clock.
 *  keepLong  [in] non-zero: keep it while anything else of its shard can go.
 * A page released before it became valid is dropped (dirty is ignored).
 * Asserts that the address is a page of this cache and that the page is
 * pinned ("pinsBefore > 0").
 */
QW_API void PageCacheRelease(PageCache *cache, void *page, int dirty, int keep, int keepLong);

/*
 * Tells whether an address lies in the cache's page memory, so that a caller
 * holding addresses of several origins (cache pages, mapped files, private
 * memory) knows which ones to release with PageCacheRelease.
 *  address  [in] any address.
 * Returns 1 when it lies in one of the cache's pages (pinned or not), else 0.
 * Takes no lock.
 */
QW_API int PageCacheContains(PageCache *cache, const void *address);

/*
 * Reads the pages covering [offset, offset + length) into the cache without
 * pinning them, so that later lookups hit. Pages already resident are left
 * alone, as are pages wholly past the end of the file; when the shard of a
 * page has no frame to spare the page is skipped (prefetching is a hint).
 * Returns 1; 0 with an error when the arguments are invalid or a read fails
 * ("PageCachePrefetch: could not prefetch offset %llu of file %u").
 */
QW_API int PageCachePrefetch(PageCache *cache, uint16_t fileId, uint64_t offset, uint64_t length);

/*
 * Writes back every dirty page of the file, pinned ones included, waits for
 * write-backs of its pages already under way, then syncs the file
 * (QWFileSync). Lookups of a page wait while it is being written. A holder
 * that changes a pinned page during the flush marks it dirty again when it
 * releases it, so the next flush writes the final bytes; a flush that must
 * see a quiet file needs the caller's own exclusion.
 * Returns 1; 0 with an error when a write or the sync fails
 * ("PageCacheFlushFile: could not write page at offset %llu of file
 * \"%s\""); pages not written stay dirty.
 */
QW_API int PageCacheFlushFile(PageCache *cache, uint16_t fileId);

/*
 * PageCacheFlushFile without the sync: the dirty pages are handed to the
 * operating system and the file is left for the caller to sync (a commit
 * syncs many files at once). Same results and messages as PageCacheFlushFile.
 */
QW_API int PageCacheWriteBackFile(PageCache *cache, uint16_t fileId);

/*
 * Drops every page of the file without writing anything back: for a file
 * that was truncated or rewritten underneath. Waits for write-backs of its
 * pages already under way (so that none lands after the call), detaches
 * pinned and loading pages (see above). Returns 1; 0 with an error when the
 * id is not registered (code 22).
 */
QW_API int PageCacheInvalidateFile(PageCache *cache, uint16_t fileId);

/* Counters since creation and a snapshot of the frames. */
typedef struct PageCacheStats {
  uint64_t pageCount; /* frames of the cache (capacity in pages) */
  uint32_t pageSize;
  uint32_t shardCount;
  uint64_t hits;      /* lookups that found a valid page */
  uint64_t misses;    /* lookups that claimed a frame */
  uint64_t reads;     /* pages read from files by the cache */
  uint64_t writes;    /* pages written back (eviction, flush, unregister) */
  uint64_t evictions; /* resident pages given up to make room */
  uint64_t resident;  /* snapshot: frames holding a page */
  uint64_t pinned;    /* snapshot: frames pinned by some holder */
  uint64_t dirty;     /* snapshot: frames waiting for write-back */
} PageCacheStats;

/*
 * Fills *stats. The snapshot visits the shards one after another, so under
 * concurrent use its counts are approximate. Returns 1.
 */
QW_API int PageCacheGetStats(PageCache *cache, PageCacheStats *stats);

QW_END_DECLS

#endif /* QWVM_QWCACHE_H */
