// Raw block transfers of a box data file, direct or through the page cache.
// A transfer may span cache pages (raw readers read long runs); blocks never
// do, since they never cross an 8192-byte page and cache pages are at least
// that large and aligned.
//
// Cached writes go through to the file: the bytes are written in place
// first, then copied into the cached page, which stays clean. A dirty page
// would be written back whole, rewriting the durable blocks that share it
// with the new one, and a write torn by a power loss could then destroy
// values a checkpoint had made durable. Writing first and copying after
// keeps the cache equal to the file: a page read from disk meanwhile already
// holds the new bytes.
#include <algorithm>
#include <cerrno>
#include <cstring>

#include "vm/lvm/boxdata.h"

namespace {

using File = BoxLVMDataFile;

bool InsideFile(const File *file, uint64_t offset, uint32_t size) { return offset + size <= file->size.load(); }

// Copies the cached pages covering [offset, offset + size) into `readInto`,
// or `writeFrom` into them (exactly one of the two is given).
bool CachedTransfer(File *file, uint64_t offset, uint32_t size, uint8_t *readInto, const uint8_t *writeFrom) {
  const bool write = writeFrom != nullptr;
  while (size > 0) {
    const uint64_t within = offset % file->cachePageSize;
    const uint64_t pageOffset = offset - within;
    const uint32_t count = uint32_t(std::min<uint64_t>(size, file->cachePageSize - within));
    void *page = nullptr;
    if (!PageCacheRead(file->cache, file->cacheFileId, pageOffset, &page)) {
      return write ? QWErrorRethrow("could not read page at offset %llu from cache", (unsigned long long)pageOffset)
                   : QWErrorRethrow("could not read page at offset %llu from cache\n", (unsigned long long)pageOffset);
    }
    uint8_t *at = static_cast<uint8_t *>(page) + within;
    if (write) {
      RWLockAcquireWrite_(file->cacheLock);
      std::memcpy(at, writeFrom, count);
      writeFrom += count;
    } else {
      RWLockAcquireRead_(file->cacheLock);
      std::memcpy(readInto, at, count);
      readInto += count;
    }
    RWLockRelease_(file->cacheLock);
    PageCacheRelease(file->cache, page, 0, 0, 0);
    offset += count;
    size -= count;
  }
  return true;
}

}  // namespace

QW_API int BoxLVMDataBlockRead(BoxLVMDataFile *file, uint32_t handle, uint32_t size, void *buffer) {
  if (QWForcedError("BoxLVMDataBlockRead", 0, QW_ERROR_CLASS_SYSTEM)) return 0;
  const uint64_t offset = qw::box::ByteOffset(handle);
  if (!InsideFile(file, offset, size))
    return QWErrorThrow(EIO, QW_ERROR_CLASS_SYSTEM, "BoxLVMDataBlockRead:unexpected end of file (fd %i)", file->fd);
  if (file->cache) return CachedTransfer(file, offset, size, static_cast<uint8_t *>(buffer), nullptr);
  size_t bytesRead = 0;
  if (!QWFileReadData(file->handle, offset, buffer, size, &bytesRead))
    return QWErrorRethrow("could not read data from data file (fd %i)", file->fd);
  if (bytesRead < size)
    return QWErrorThrow(EIO, QW_ERROR_CLASS_SYSTEM, "BoxLVMDataBlockRead:unexpected end of file (fd %i)", file->fd);
  return 1;
}

QW_API int BoxLVMDataBlockWrite(BoxLVMDataFile *file, uint32_t handle, uint32_t size, const void *buffer) {
  if (QWForcedError("BoxLVMDataBlockWrite", 0, QW_ERROR_CLASS_SYSTEM)) return 0;
  const uint64_t offset = qw::box::ByteOffset(handle);
  if (!InsideFile(file, offset, size))
    return QWErrorThrow(EIO, QW_ERROR_CLASS_SYSTEM, "unexpected end of file (fd %i)", file->fd);
  if (!QWFileWriteData(file->handle, offset, buffer, size))
    return QWErrorRethrow("could not write data to file (fd %i)", file->fd);
  return !file->cache || CachedTransfer(file, offset, size, nullptr, static_cast<const uint8_t *>(buffer));
}
