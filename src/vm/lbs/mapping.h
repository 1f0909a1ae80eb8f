// The memory mapping of one block server's data file: where the bytes of a
// raw block live.
//
//  - Raw blocks below the committed size `rsize` (the "read part") are read
//    through the process page cache (page-cache mode) or through a mapping of
//    the file's first `rsize` bytes (mapped mode, open flag 16).
//  - Raw blocks at or beyond `rsize` (the "read-write part", raw ids from
//    `rawBase` on) live in `rw`, a chunked file array with one element per
//    block whose chunks (blockSize * minBlockCount bytes) come from MapAlloc:
//    anonymous memory in page-cache mode, mapped segments of the data file
//    beyond `rsize` in mapped mode, separate extent files in extent mode
//    (flags 16 | 256). A flush in mode 0 makes the read-write part part of
//    the data file; the memory commit then frees it and moves `rsize`.
//
// Invariants:
//  - rawBase == rsize / blockSize; rsize is a multiple of the page size.
//  - rwMappedBytes == FArrayCapacity(&rw) * blockSize: the chunks allocated.
//  - Outside extent mode the data file is at least rsize + rwMappedBytes
//    long, and chunk k of a mapped read-write part maps file offset
//    rsize + k * chunkBytes.
//  - Page-cache mode: every page of the data file held by the cache lies
//    below `rsize` (all writes below `rsize` go through the cache; pages are
//    only looked up below it), so a commit that keeps or grows `rsize` need
//    not drop the file's cached pages.
//
// Locking: `mutex` serialises the growth of `rw` (its chunk table), the
// extents, the anonymous chunk set and the read segment against the flush at
// flush start, which runs outside the arena's flush lock. Looking up a block
// of the read-write part takes no lock: `rw` only grows meanwhile, and its
// chunks and chunk tables stay in place (FArrayNthConcurrent). The server
// takes its own mutex before this one, never the other way round.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "qwvm/qwcache.h"
#include "qwvm/qwfile.h"
#include "qwvm/qwlib.h"
#include "qwvm/qwlog.h"
#include "qwvm/qwutil.h"

namespace qw::vm {

// Mapping flags (the server's open flags).
inline constexpr uint32_t kMappingMapped = 16;
inline constexpr uint32_t kMappingReadAhead = 32;
inline constexpr uint32_t kMappingExtents = 256;

struct Extent {
  std::string path;
  QWFILE file = QWFILE_INVALID;
  void *address = nullptr;  // nullptr once freed
  uint64_t size = 0;
};

struct MemoryMapping {
  MemoryMapping() = default;
  ~MemoryMapping();
  MemoryMapping(const MemoryMapping &) = delete;
  MemoryMapping &operator=(const MemoryMapping &) = delete;

  QWMutex *mutex = nullptr;
  bool readOnly = false;
  int readAheadMode = 0;  // 2 with open flag 32
  uint32_t flags = 0;
  QWFILE fd = QWFILE_INVALID;
  PageCache *cache = nullptr;  // page-cache mode only
  uint16_t cacheFileId = PAGECACHE_INVALID_FILE;
  ReplicationLog *log = nullptr;

  std::vector<Extent> extents;
  size_t extentsFreed = 0;  // extents before this index are all freed

  uint32_t blockSize = 0;
  uint32_t minBlockCount = 0;
  std::string directory, base, suffix;
  std::string path;  // directory/base suffix: the data file

  FArray rw{};
  uint64_t rwMappedBytes = 0;
  uint64_t rsize = 0;
  uint32_t rawBase = 0;

  void *readAddress = nullptr;  // mapped mode: [0, readLength) of the file
  uint64_t readLength = 0;

  // Chunks of earlier generations kept for the next ones: fresh memory costs
  // a page fault per page, reused memory only a clear.
  std::vector<void *> spareChunks;

  bool Mapped() const { return (flags & kMappingMapped) != 0; }
  bool ExtentMode() const { return (flags & (kMappingMapped | kMappingExtents)) == (kMappingMapped | kMappingExtents); }
  uint64_t ChunkBytes() const { return uint64_t(blockSize) * minBlockCount; }
};

// Opens the data file directory/base suffix (read-only when readOnly), and
// registers it with the cache in page-cache mode. rsize starts at 0.
[[nodiscard]] bool MemoryMappingOpen(MemoryMapping *mapping, const char *directory, const char *base,
                                     const char *suffix, uint32_t flags, uint32_t blockSize, uint32_t minBlockCount,
                                     bool readOnly, PageCache *cache, ReplicationLog *log);
[[nodiscard]] bool MemoryMappingIsOpen(const MemoryMapping *mapping);
[[nodiscard]] bool MemoryMappingFileSize(MemoryMapping *mapping, uint64_t *size);

// Frees the read-write part and starts a fresh, empty one above `rsize`.
[[nodiscard]] bool MemoryMappingRemapWrite(MemoryMapping *mapping, uint64_t rsize);
// Maps the read part again for the current rsize: cuts the file down to it
// (writable mappings), drops cached pages when `invalidateCache`, and maps
// [0, rsize) in mapped mode.
[[nodiscard]] bool MemoryMappingRemapRead(MemoryMapping *mapping, bool invalidateCache);

// Mode 1 (flush start): syncs what is mapped and the cache's dirty pages.
// Mode 0 (flush execute): also writes the read-write part into the file.
// MemoryMappingFlush = MemoryMappingWriteBack + MemoryMappingSyncFile.
[[nodiscard]] bool MemoryMappingFlush(MemoryMapping *mapping, int mode);
// The writing half of a flush: the cache's dirty pages (page-cache mode) and,
// in mode 0, the read-write part (page-cache mode) or the extents (extent
// mode) go to the file; nothing is synced. Pages changed through a mapping
// need no writing: the file's sync writes them.
[[nodiscard]] bool MemoryMappingWriteBack(MemoryMapping *mapping, int mode);
// The syncing half: one data sync of the file (mapped pages included).
[[nodiscard]] bool MemoryMappingSyncFile(MemoryMapping *mapping);
[[nodiscard]] bool MemoryMappingMSync(MemoryMapping *mapping);
[[nodiscard]] bool MemoryMappingAdvise(MemoryMapping *mapping, int advice);
// Unmaps, frees the read-write part, gives the file up to the cache
// (dropping its unsaved pages: they belong to an uncommitted generation) and
// closes it. Safe to call twice.
[[nodiscard]] bool MemoryMappingFree(MemoryMapping *mapping);

// Grows the read-write part by one block: its raw id, or INVALID_RAW_BLOCK_ID
// with an error.
[[nodiscard]] uint32_t MemoryMappingRawAllocRW(MemoryMapping *mapping);
// One past the highest raw id that has storage.
[[nodiscard]] uint32_t MemoryMappingRawLimit(MemoryMapping *mapping);

// Memory of a raw block, pinned when it is a cache page. With `overwrite`
// a page missing from the cache is not read: the caller fills the whole
// block and calls MemoryMappingRawBlockFilled before releasing it.
// `within`: the byte of the block the caller reads first, a hint for the
// page cache (its line is fetched while the cache checks its frame).
[[nodiscard]] void *MemoryMappingRawBlockGet(MemoryMapping *mapping, uint32_t rawId, bool overwrite,
                                             uint32_t within = 0);
void MemoryMappingRawBlockFilled(MemoryMapping *mapping, void *address);
void MemoryMappingRawBlockRelease(MemoryMapping *mapping, void *address, int dirty, int keep, int keepLong);
[[nodiscard]] bool MemoryMappingRawBlockPrefetch(MemoryMapping *mapping, uint32_t rawId);

}  // namespace qw::vm
