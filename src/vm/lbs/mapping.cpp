// The memory mapping of a block server's data file (layout and invariants in
// mapping.h): opening, the read-write part's chunk allocator, remapping at a
// commit, flushing, and freeing.
#include "vm/lbs/mapping.h"

#include <cerrno>
#include <cstdlib>
#include <cstring>

#include "platform/qwcache/lookup_within.h"
#include "qwvm/vmarena.h"
#include "platform/qwutil/farray_internal.h"
#include "vm/lbs/names.h"

namespace qw::vm {
namespace {

using ULL = unsigned long long;

// At most this many spare chunks (16 MiB) stay with a server between
// generations: what a typical generation needs, not what a bulk load did.
constexpr size_t kSpareChunkLimit = 256;

void *MapAlloc(void *context, size_t length);
int MapFree(void *context, void *chunk, size_t length);

[[nodiscard]] bool InitReadWritePart(MemoryMapping *mapping) {
  const FArrayAllocator allocator{MapAlloc, MapFree, mapping, FARRAY_ALLOCATOR_ZEROED};
  return FArrayInit_(&mapping->rw, mapping->blockSize, mapping->minBlockCount, &allocator) != 0;
}

// Advice is a hint: a failure does not fail the allocation.
void AdviseRandom(void *address, uint64_t length) {
  QWErrorSave();
  (void)MemoryAdvise(address, length, QW_ADVICE_RANDOM);
  QWErrorRestore();
}

void DiscardExtentFile(Extent *extent) {
  QWErrorSave();
  if (extent->address) (void)FileUnmap(extent->address, extent->size);
  (void)QWFileClose(extent->file);
  (void)FileRemove(extent->path.c_str());
  QWErrorRestore();
  extent->address = nullptr;
  extent->file = QWFILE_INVALID;
}

void *AllocExtent(MemoryMapping *mapping, size_t length) {
  // Room first, so that recording the extent cannot fail once it exists.
  if (mapping->extents.size() == mapping->extents.capacity())
    mapping->extents.reserve(2 * mapping->extents.capacity() + 8);
  Extent extent;
  extent.path = StringPrintf("%s/%s%s.extent%i", mapping->directory.c_str(), mapping->base.c_str(),
                             mapping->suffix.c_str(), int(mapping->extents.size()));
  extent.size = length;
  if (!QWFileOpen(&extent.file, extent.path.c_str(), QWFILE_READ | QWFILE_WRITE | QWFILE_CREATE | QWFILE_TRUNCATE)) {
    QWErrorRethrow("MapAlloc: could not create extent \"%s\"", extent.path.c_str());
    return nullptr;
  }
  if (!QWFileSetSize(extent.file, length)) {
    QWErrorRethrow("MapAlloc: could not set size for extent \"%s\"", extent.path.c_str());
    DiscardExtentFile(&extent);
    return nullptr;
  }
  extent.address = FileMapSegment(extent.file, 0, length, QW_MAP_READ | QW_MAP_WRITE);
  if (!extent.address) {
    QWErrorRethrow("MapAlloc: could not map extent \"%s\"", extent.path.c_str());
    DiscardExtentFile(&extent);
    return nullptr;
  }
  void *address = extent.address;
  mapping->extents.push_back(std::move(extent));
  AdviseRandom(address, length);
  return address;
}

// Outside extent mode the read-write part lies in the data file beyond rsize:
// the file grows with it.
[[nodiscard]] bool ExtendDataFile(MemoryMapping *mapping, size_t length) {
  uint64_t size = 0;
  if (!QWFileGetSize(mapping->fd, &size))
    return QWErrorRethrow("MapAlloc: could not stat file \"%s/%s%s\"", mapping->directory.c_str(),
                          mapping->base.c_str(), mapping->suffix.c_str());
  const uint64_t needed = mapping->rsize + mapping->rwMappedBytes + length;
  if (size >= needed) return true;
  qwassert_(!mapping->readOnly);
  if (!QWFileSetSize(mapping->fd, needed))
    return QWErrorRethrow("MapAlloc: could not expand mapped file \"%s\" (fd %i) to %llu", mapping->path.c_str(),
                          QWFileGetIntHandle(mapping->fd), ULL(needed));
  if (mapping->log &&
      !ReplicationLogWrite(mapping->log, REPLICATION_FILE_CHANGED, 0, 0, mapping->path.c_str(), nullptr, 0))
    return QWErrorRethrow("MapAlloc: could not log file expansion \"%s\"", mapping->path.c_str());
  return true;
}

// Page-cache mode: zeroed memory aligned to its size, so that the chunk of
// any address inside it is found by masking.
void *AllocAnonymous(MemoryMapping *mapping, size_t length) {
  void *chunk = nullptr;
  if (!mapping->spareChunks.empty()) {
    chunk = mapping->spareChunks.back();
    mapping->spareChunks.pop_back();
  } else {
    chunk = std::aligned_alloc(length, length);
  }
  if (!chunk) {
    QWErrorThrow(ENOMEM, QW_ERROR_CLASS_SYSTEM, "MapAlloc: out of memory for %zu bytes", length);
    return nullptr;
  }
  std::memset(chunk, 0, length);
  return chunk;
}

// The allocator of the read-write part; runs under the mapping mutex.
void *MapAlloc(void *context, size_t length) {
  MemoryMapping *mapping = static_cast<MemoryMapping *>(context);
  qwassert_(mapping->fd != QWFILE_INVALID);
  void *address = nullptr;
  try {
    if (mapping->ExtentMode()) {
      address = AllocExtent(mapping, length);
    } else if (ExtendDataFile(mapping, length)) {
      if (mapping->Mapped()) {
        address =
            FileMapSegment(mapping->fd, mapping->rsize + mapping->rwMappedBytes, length, QW_MAP_READ | QW_MAP_WRITE);
        if (!address) QWErrorRethrow("MapAlloc: could not map file \"%s\"", mapping->path.c_str());
        if (address) AdviseRandom(address, length);
      } else {
        address = AllocAnonymous(mapping, length);
      }
    }
  } catch (const std::bad_alloc &) {
    QWErrorThrow(ENOMEM, QW_ERROR_CLASS_SYSTEM, "MapAlloc: out of memory");
    address = nullptr;
  }
  if (address) mapping->rwMappedBytes += length;
  return address;
}

[[nodiscard]] bool FreeExtent(MemoryMapping *mapping, void *chunk, size_t length) {
  size_t index = mapping->extentsFreed;
  while (index < mapping->extents.size() && mapping->extents[index].address != chunk) ++index;
  if (index == mapping->extents.size())
    return QWErrorThrow(EINVAL, QW_ERROR_CLASS_GENERAL, "MapFree: %p is no extent of \"%s\"", chunk,
                        mapping->path.c_str());
  Extent &extent = mapping->extents[index];
  qwassert_(extent.size == length);
  FirstError result;
  result.Run([&] {
    return FileUnmap(extent.address, extent.size)
               ? true
               : QWErrorRethrow("MapFree: cannot unmap extents \"%s\"", extent.path.c_str());
  });
  extent.address = nullptr;
  result.Run([&] { return QWFileClose(extent.file) != 0; });
  extent.file = QWFILE_INVALID;
  result.Run([&] { return FileRemove(extent.path.c_str()) != 0; });
  while (mapping->extentsFreed < mapping->extents.size() && !mapping->extents[mapping->extentsFreed].address)
    ++mapping->extentsFreed;
  if (mapping->extentsFreed == mapping->extents.size()) {
    // A very long list gives its memory back; a short one is kept for reuse.
    if (mapping->extents.size() > 10000) std::vector<Extent>().swap(mapping->extents);
    mapping->extents.clear();
    mapping->extentsFreed = 0;
  }
  return result.ok();
}

// The release function of the read-write part; runs under the mapping mutex.
int MapFree(void *context, void *chunk, size_t length) {
  MemoryMapping *mapping = static_cast<MemoryMapping *>(context);
  mapping->rwMappedBytes -= length;  // the array forgets the chunk whatever happens
  if (mapping->ExtentMode()) return FreeExtent(mapping, chunk, length) ? 1 : 0;
  if (mapping->Mapped()) {
    if (!FileUnmap(chunk, length)) return QWErrorRethrow("MapFree: cannot unmap: \"%s\"", mapping->path.c_str());
    return 1;
  }
  if (mapping->spareChunks.size() < kSpareChunkLimit) {
    try {
      mapping->spareChunks.push_back(chunk);
      return 1;
    } catch (const std::bad_alloc &) {
    }
  }
  std::free(chunk);
  return 1;
}

void FreeSpareChunks(MemoryMapping *mapping) {
  for (void *chunk : mapping->spareChunks) std::free(chunk);
  mapping->spareChunks.clear();
}

// Stale extent files of a process that died before its flush removed them.
void RemoveStaleExtents(MemoryMapping *mapping) {
  struct Walk {
    std::string prefix;
    std::vector<std::string> names;
  } walk{mapping->base + mapping->suffix + ".extent", {}};
  auto visit = [](void *context, const char *name) -> int {
    Walk *w = static_cast<Walk *>(context);
    if (std::strncmp(name, w->prefix.c_str(), w->prefix.size()) == 0) w->names.emplace_back(name);
    return 0;
  };
  QWErrorSave();
  (void)DirectoryList(mapping->directory.c_str(), visit, &walk);
  for (const std::string &name : walk.names) (void)FileRemove((mapping->directory + "/" + name).c_str());
  QWErrorRestore();
}

uint32_t Log2Ceil(uint32_t value) {
  uint32_t shift = 0;
  while ((uint64_t{1} << shift) < value) ++shift;
  return shift;
}

// Page-cache mode hands out cache pages (committed blocks) and read-write
// memory of its own; the cache tells its pages apart without a lock.
bool IsCachePage(MemoryMapping *mapping, const void *address) {
  return mapping->cache && PageCacheContains(mapping->cache, address);
}

void *CachePage(MemoryMapping *mapping, uint32_t rawId, bool overwrite, uint32_t within) {
  qwassert_(mapping->cache != NULL);
  const uint64_t offset = uint64_t(rawId) * mapping->blockSize;
  int valid = 0;
  void *page = PageCacheLookupWithin(mapping->cache, mapping->cacheFileId, offset, within, 1, &valid);
  if (!page) {
    QWErrorRethrow(":MemoryMappingRawBlockGet: unable to allocate a page in the cache");
    return nullptr;
  }
  if (valid == 0 && !overwrite && !PageCacheRead(mapping->cache, mapping->cacheFileId, offset, &page)) {
    QWErrorSave();
    PageCacheRelease(mapping->cache, page, 0, 0, 0);
    QWErrorRestore();
    QWErrorRethrow(":MemoryMappingRawBlockGet: read error from file %s", mapping->path.c_str());
    return nullptr;
  }
  return page;
}

// Page-cache mode, mode 0: the used blocks of the read-write part become the
// file's bytes from rsize on.
[[nodiscard]] bool WriteAnonymousPart(MemoryMapping *mapping) {
  const uint64_t usedBytes = FArrayLength(&mapping->rw) * mapping->blockSize;
  const uint64_t chunkBytes = mapping->ChunkBytes();
  for (uint64_t k = 0; k * chunkBytes < usedBytes; ++k) {
    const uint64_t bytes = usedBytes - k * chunkBytes < chunkBytes ? usedBytes - k * chunkBytes : chunkBytes;
    if (!QWFileWriteData(mapping->fd, mapping->rsize + k * chunkBytes, mapping->rw.chunks[k], size_t(bytes)))
      return false;
  }
  return true;
}

[[nodiscard]] bool SyncSegment(MemoryMapping *mapping, void *address, uint64_t length) {
  if (FileMapSync(address, length)) return true;
  return QWErrorRethrow("MemoryMappingSync: cannot FileMapSync: \"%s/%s%s\"", mapping->directory.c_str(),
                        mapping->base.c_str(), mapping->suffix.c_str());
}

[[nodiscard]] bool SyncMappedChunks(MemoryMapping *mapping) {
  for (uint64_t k = 0; k < mapping->rw.chunkCount; ++k)
    if (!SyncSegment(mapping, mapping->rw.chunks[k], mapping->ChunkBytes())) return false;
  return true;
}

// Cuts a writable data file down to the committed size (what lies beyond was
// never committed).
[[nodiscard]] bool CutToCommittedSize(MemoryMapping *mapping) {
  if (mapping->readOnly) return true;
  uint64_t size = 0;
  if (!QWFileGetSize(mapping->fd, &size))
    return QWErrorRethrow("MemoryMappingRemapRead: could not shrink file \"%s\"", mapping->path.c_str());
  if (size <= mapping->rsize) return true;
  if (!QWFileSetSize(mapping->fd, mapping->rsize))
    return QWErrorRethrow("MemoryMappingRemapRead: could not shrink file \"%s\"", mapping->path.c_str());
  if (mapping->log &&
      !ReplicationLogWrite(mapping->log, REPLICATION_FILE_CHANGED, 0, 0, mapping->path.c_str(), nullptr, 0))
    return QWErrorRethrow("MapAlloc: could not log file truncation \"%s\"", mapping->path.c_str());
  return true;
}

// Extent mode, mode 0: the extents are copied into the data file in order.
[[nodiscard]] bool CopyExtents(MemoryMapping *mapping) {
  if (!QWFileSetSize(mapping->fd, mapping->rsize + mapping->rwMappedBytes))
    return QWErrorRethrow("MappingFlush: could not set size for file \"%s\"", mapping->path.c_str());
  qwassert_(mapping->extents.size() == mapping->rw.chunkCount);
  for (uint64_t k = 0; k < mapping->rw.chunkCount; ++k) {
    const Extent &extent = mapping->extents[k];
    if (!QWFileWriteData(mapping->fd, mapping->rsize + k * mapping->ChunkBytes(), extent.address, extent.size))
      return QWErrorRethrow("MappingFlush: could not copy data from extent \"%s\"", extent.path.c_str());
  }
  return true;
}

}  // namespace

MemoryMapping::~MemoryMapping() {
  QWErrorSave();
  (void)MemoryMappingFree(this);
  QWErrorRestore();
}

bool MemoryMappingOpen(MemoryMapping *mapping, const char *directory, const char *base, const char *suffix,
                       uint32_t flags, uint32_t blockSize, uint32_t minBlockCount, bool readOnly, PageCache *cache,
                       ReplicationLog *log) {
  qwassert_(mapping->fd == QWFILE_INVALID);
  mapping->flags = flags;
  mapping->readOnly = readOnly;
  mapping->blockSize = blockSize;
  mapping->minBlockCount = minBlockCount;
  const uint64_t chunkBytes = mapping->ChunkBytes();
  qwassert_((chunkBytes & (chunkBytes - 1)) == 0 && chunkBytes % PageSize() == 0 && blockSize % PageSize() == 0);
  mapping->log = log;
  mapping->directory = directory;
  mapping->base = base;
  mapping->suffix = suffix;
  mapping->path = mapping->directory + "/" + base + suffix;
  mapping->readAheadMode = (flags & kMappingReadAhead) ? 2 : 0;
  if (!mapping->Mapped()) {
    if (!cache)
      return QWErrorThrow(EINVAL, QW_ERROR_CLASS_GENERAL, "could not open file \"%s\": a page cache is required",
                          mapping->path.c_str());
    if (PageCacheGetPageSize(cache) != blockSize)
      return QWErrorThrow(EINVAL, QW_ERROR_CLASS_GENERAL,
                          "could not open file \"%s\": the page cache's pages are %u bytes, the blocks %u",
                          mapping->path.c_str(), PageCacheGetPageSize(cache), blockSize);
    mapping->cache = cache;
  }
  if (!MutexInit_(&mapping->mutex)) return false;
  uint32_t mode = readOnly ? (QWFILE_READ) : (QWFILE_READ | QWFILE_WRITE);
  if (flags & kMappingReadAhead) mode |= QWFILE_READAHEAD;
  if (!QWFileOpen(&mapping->fd, mapping->path.c_str(), mode))
    return QWErrorRethrow("could not open file \"%s\"", mapping->path.c_str());
  if (mapping->readAheadMode == 2) {
    QWErrorSave();  // a hint
    (void)FileSetReadSize(mapping->fd, Log2Ceil(blockSize / PageSize()));
    QWErrorRestore();
  }
  if (mapping->cache) {
    mapping->cacheFileId = PageCacheRegisterFile(mapping->cache, mapping->fd);
    if (mapping->cacheFileId == PAGECACHE_INVALID_FILE) {
      QWErrorSave();
      (void)QWFileClose(mapping->fd);
      QWErrorRestore();
      mapping->fd = QWFILE_INVALID;
      return QWErrorRethrow("could not open file \"%s\"", mapping->path.c_str());
    }
  }
  if (mapping->ExtentMode() && !readOnly) RemoveStaleExtents(mapping);
  mapping->rsize = 0;
  mapping->rawBase = 0;
  return InitReadWritePart(mapping);
}

bool MemoryMappingIsOpen(const MemoryMapping *mapping) { return mapping->fd != QWFILE_INVALID; }

bool MemoryMappingFileSize(MemoryMapping *mapping, uint64_t *size) { return QWFileGetSize(mapping->fd, size) != 0; }

bool MemoryMappingRemapWrite(MemoryMapping *mapping, uint64_t rsize) {
  qwassert_(rsize % mapping->blockSize == 0 && rsize / mapping->blockSize < INVALID_RAW_BLOCK_ID);
  ScopedMutex lock(mapping->mutex);
  bool ok = FArrayFree(&mapping->rw) != 0;
  if (!ok) QWErrorRethrow("MemoryMappingRemapWrite: could not free read-write part");
  mapping->rwMappedBytes = 0;
  mapping->rsize = rsize;
  mapping->rawBase = uint32_t(rsize / mapping->blockSize);
  if (!InitReadWritePart(mapping)) return false;
  return ok;
}

bool MemoryMappingRemapRead(MemoryMapping *mapping, bool invalidateCache) {
  ScopedMutex lock(mapping->mutex);
  // The file is the same and the mapping shared: a new committed size only
  // resizes the read part, keeping every page already mapped.
  if (mapping->readAddress && mapping->rsize > 0 && !invalidateCache) {
    if (mapping->rsize != mapping->readLength) {
      const uint32_t access = mapping->readOnly ? QW_MAP_READ : (QW_MAP_READ | QW_MAP_WRITE);
      void *address =
          FileRemapSegment(mapping->fd, mapping->readAddress, 0, mapping->readLength, mapping->rsize, access);
      if (!address)
        return QWErrorRethrow("MapAlloc: could not map file \"%s/%s%s\"", mapping->directory.c_str(),
                              mapping->base.c_str(), mapping->suffix.c_str());
      mapping->readAddress = address;
      mapping->readLength = mapping->rsize;
    }
    return CutToCommittedSize(mapping);
  }
  if (mapping->readAddress) {
    if (!FileUnmap(mapping->readAddress, mapping->readLength))
      return QWErrorRethrow("MemoryMappingRemapRead: cannot unmap: \"%s/%s%s\"", mapping->directory.c_str(),
                            mapping->base.c_str(), mapping->suffix.c_str());
    mapping->readAddress = nullptr;
    mapping->readLength = 0;
  }
  if (!CutToCommittedSize(mapping)) return false;
  if (mapping->cache && invalidateCache && !PageCacheInvalidateFile(mapping->cache, mapping->cacheFileId))
    return QWErrorRethrow("MemoryMappingRemapRead: could not drop the cached pages of \"%s\"", mapping->path.c_str());
  if (mapping->Mapped() && mapping->rsize > 0) {
    const uint32_t access = mapping->readOnly ? QW_MAP_READ : (QW_MAP_READ | QW_MAP_WRITE);
    mapping->readAddress = FileMapSegment(mapping->fd, 0, mapping->rsize, access);
    if (!mapping->readAddress)
      return QWErrorRethrow("MapAlloc: could not map file \"%s/%s%s\"", mapping->directory.c_str(),
                            mapping->base.c_str(), mapping->suffix.c_str());
    mapping->readLength = mapping->rsize;
    AdviseRandom(mapping->readAddress, mapping->readLength);
  }
  return true;
}

bool MemoryMappingWriteBack(MemoryMapping *mapping, int mode) {
  if (mapping->readOnly || mapping->fd == QWFILE_INVALID) return true;
  ScopedMutex lock(mapping->mutex);
  if (!mapping->Mapped()) {
    if (mode == 0 && !WriteAnonymousPart(mapping))
      return QWErrorRethrow("MemoryMappingFlush : could not flush read-write part");
    if (!PageCacheWriteBackFile(mapping->cache, mapping->cacheFileId))
      return QWErrorRethrow("MemoryMappingSync: cannot flush file cache: \"%s\"", mapping->path.c_str());
    return true;
  }
  // Extents become part of the data file only inside the flush execute.
  if (mapping->ExtentMode() && mode == 0 && !CopyExtents(mapping)) return false;
  return true;
}

bool MemoryMappingSyncFile(MemoryMapping *mapping) {
  if (mapping->readOnly || mapping->fd == QWFILE_INVALID) return true;
  // A sync of the file also writes back every page changed through its
  // mappings (the read part and the mapped read-write part): one sync of the
  // whole file instead of one per segment.
  if (!QWFileSync(mapping->fd)) return QWErrorRethrow("MemoryMappingSync: cannot fsync: \"%s\"", mapping->path.c_str());
  return true;
}

bool MemoryMappingFlush(MemoryMapping *mapping, int mode) {
  return MemoryMappingWriteBack(mapping, mode) && MemoryMappingSyncFile(mapping);
}

bool MemoryMappingMSync(MemoryMapping *mapping) {
  if (mapping->fd == QWFILE_INVALID) return true;
  ScopedMutex lock(mapping->mutex);
  if (mapping->readAddress && !SyncSegment(mapping, mapping->readAddress, mapping->readLength))
    return QWErrorRethrow("could not msync mapping");
  if (mapping->Mapped() && !SyncMappedChunks(mapping)) return QWErrorRethrow("could not msync mapping");
  if (!mapping->readOnly && !QWFileSync(mapping->fd))
    return QWErrorRethrow("MemoryMappingMSync: cannot fsync: \"%s\"", mapping->path.c_str());
  return true;
}

bool MemoryMappingAdvise(MemoryMapping *mapping, int advice) {
  if (!mapping->Mapped()) return true;
  ScopedMutex lock(mapping->mutex);
  if (mapping->readAddress && !MemoryAdvise(mapping->readAddress, mapping->readLength, advice)) return false;
  for (uint64_t k = 0; k < mapping->rw.chunkCount; ++k)
    if (!MemoryAdvise(mapping->rw.chunks[k], mapping->ChunkBytes(), advice)) return false;
  return true;
}

bool MemoryMappingFree(MemoryMapping *mapping) {
  if (!mapping->mutex) return true;
  FirstError result;
  {
    ScopedMutex lock(mapping->mutex);
    if (mapping->readAddress) {
      result.Run([&] {
        return FileUnmap(mapping->readAddress, mapping->readLength)
                   ? true
                   : QWErrorRethrow("MemoryMappingFree: cannot unmap: \"%s\"", mapping->path.c_str());
      });
      mapping->readAddress = nullptr;
    }
    result.Run(
        [&] { return FArrayFree(&mapping->rw) ? true : QWErrorRethrow("MemoryMappingFree: cannot free rw map data"); });
    FreeSpareChunks(mapping);
    if (mapping->cacheFileId != PAGECACHE_INVALID_FILE) {
      // Unsaved pages belong to a generation that was not committed.
      result.Run([&] { return PageCacheInvalidateFile(mapping->cache, mapping->cacheFileId) != 0; });
      result.Run([&] { return PageCacheUnregisterFile(mapping->cache, mapping->cacheFileId) != 0; });
      mapping->cacheFileId = PAGECACHE_INVALID_FILE;
    }
    if (mapping->fd != QWFILE_INVALID) {
      result.Run([&] {
        return QWFileClose(mapping->fd)
                   ? true
                   : QWErrorRethrow("MemoryMappingFree: cannot close fd for \"%s\"", mapping->path.c_str());
      });
      mapping->fd = QWFILE_INVALID;
    }
  }
  MutexDestroy(mapping->mutex);
  mapping->mutex = nullptr;
  return result.ok();
}

uint32_t MemoryMappingRawAllocRW(MemoryMapping *mapping) {
  ScopedMutex lock(mapping->mutex);
  const uint64_t used = FArrayLength(&mapping->rw);
  const uint64_t rawId = uint64_t(mapping->rawBase) + used;
  if (rawId >= INVALID_RAW_BLOCK_ID) {
    QWErrorThrow(ENOSPC, QW_ERROR_CLASS_SYSTEM, "no raw block id is left in \"%s\"", mapping->path.c_str());
    return INVALID_RAW_BLOCK_ID;
  }
  if (!FArrayEnsureCapacity_(&mapping->rw, used + 1) || !FArrayLengthSet_(&mapping->rw, used + 1))
    return INVALID_RAW_BLOCK_ID;
  return uint32_t(rawId);
}

uint32_t MemoryMappingRawLimit(MemoryMapping *mapping) {
  ScopedMutex lock(mapping->mutex);
  return uint32_t(mapping->rawBase + FArrayLength(&mapping->rw));
}

void *MemoryMappingRawBlockGet(MemoryMapping *mapping, uint32_t rawId, bool overwrite, uint32_t within) {
  if (rawId < mapping->rawBase) {
    if (!mapping->Mapped()) return CachePage(mapping, rawId, overwrite, within);
    if (mapping->readAddress) return static_cast<char *>(mapping->readAddress) + uint64_t(rawId) * mapping->blockSize;
  } else if (rawId != INVALID_RAW_BLOCK_ID) {
    // No lock: the read-write part's chunks stay in place while it grows.
    void *block = qw::FArrayNthConcurrent(&mapping->rw, uint64_t(rawId) - mapping->rawBase);
    if (block) return block;
  }
  QWErrorThrow(EINVAL, QW_ERROR_CLASS_DATA, "MemoryMappingRawBlockGet: raw block %u lies outside \"%s\"", rawId,
               mapping->path.c_str());
  return nullptr;
}

void MemoryMappingRawBlockFilled(MemoryMapping *mapping, void *address) {
  if (IsCachePage(mapping, address)) PageCacheSetValid(mapping->cache, address);
}

void MemoryMappingRawBlockRelease(MemoryMapping *mapping, void *address, int dirty, int keep, int keepLong) {
  if (IsCachePage(mapping, address)) PageCacheRelease(mapping->cache, address, dirty, keep, keepLong);
}

bool MemoryMappingRawBlockPrefetch(MemoryMapping *mapping, uint32_t rawId) {
  if (rawId >= mapping->rawBase) return true;  // the read-write part is memory already
  const uint64_t offset = uint64_t(rawId) * mapping->blockSize;
  if (mapping->Mapped()) {
    if (mapping->readAddress) MemoryLoad(static_cast<char *>(mapping->readAddress) + offset, mapping->blockSize);
    return true;
  }
  qwassert_(mapping->cache != NULL);
  if (!PageCachePrefetch(mapping->cache, mapping->cacheFileId, offset, mapping->blockSize))
    return QWErrorRethrow(":MemoryMappingRawBlockPrefetch: read error from file %s", mapping->path.c_str());
  return true;
}

}  // namespace qw::vm
