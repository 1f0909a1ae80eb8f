// Box data files: open, close, growth, sync and size.
//
// Decisions of this implementation:
//  - A new file is created, sized to its first pages and closed, and its
//    directory is synced before it is opened for use: a bucket opened later
//    without `create` must find it even after a power loss.
//  - The page cache keeps the handle it is given, so the handle opened to
//    check the size is the one registered (no second open).
//  - The access hint is the random one (FileSetReadSize with 0).
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <memory>

#include "vm/lvm/boxdata.h"

namespace {

using File = BoxLVMDataFile;
constexpr uint32_t kGrowthStep = 65536;  // pages at most per growth

struct FileDeleter {
  void operator()(File *file) const {
    QWErrorSave();  // the error that made the open fail is the one reported
    if (file->cacheFileId != PAGECACHE_INVALID_FILE) (void)PageCacheUnregisterFile(file->cache, file->cacheFileId);
    (void)QWFileClose(file->handle);
    if (file->cacheLock) RWLockDestroy(file->cacheLock);
    QWErrorRestore();
    delete file;
  }
};
using FileOwner = std::unique_ptr<File, FileDeleter>;

uint32_t OpenMode(bool readOnly) { return readOnly ? QWFILE_READ : QWFILE_READ | QWFILE_WRITE; }

// The open step that tests can make fail by name.
bool OpenNamed(const char *path, uint32_t mode, QWFILE *handle) {
  if (QWForcedError("BoxLVMDataOpen", 0, QW_ERROR_CLASS_SYSTEM) || !QWFileOpen(handle, path, mode))
    return QWErrorRethrow("could not open file \"%s\"", path);
  return true;
}

// Creates the file with `pages` zero pages and makes its name durable.
bool Create(const File *file, uint32_t pages) {
  QWFILE handle = QWFILE_INVALID;
  if (!QWFileOpen(&handle, file->path, QWFILE_READ | QWFILE_WRITE | QWFILE_CREATE))
    return QWErrorRethrow("could not create file \"%s\"", file->path);
  if (!QWFileSetSize(handle, uint64_t(pages) * BOXLVM_PAGE_SIZE) || !QWFileSync(handle)) {
    QWErrorRethrow("could not extend data file to %i pages", int(pages));
    QWErrorSave();
    (void)QWFileClose(handle);
    QWErrorRestore();
    return false;
  }
  if (!QWFileClose(handle)) return QWErrorRethrow("could not close file \"%s\"", file->path);
  return DirectorySync(file->dir) != 0;
}

bool OpenOrCreate(File *file, uint32_t pages, bool create) {
  const uint32_t mode = OpenMode(file->readOnly);
  if (OpenNamed(file->path, mode, &file->handle)) return true;
  if (QWErrorCode() != ENOENT || !create) return QWErrorRethrow("could not open data file \"%s\"", file->path);
  QWErrorClear();  // a missing file is expected here
  if (!Create(file, pages) || !OpenNamed(file->path, mode, &file->handle))
    return QWErrorRethrow("could not create data file \"%s\"", file->path);
  return true;
}

bool CheckSize(File *file, uint32_t pages, bool keepBadSize) {
  uint64_t size = 0;
  if (!QWFileGetSize(file->handle, &size)) return QWErrorRethrow("could not get size for \"%s\"", file->path);
  if (!keepBadSize && !file->readOnly && size % BOXLVM_PAGE_SIZE != 0) {
    size -= size % BOXLVM_PAGE_SIZE;
    if (!QWFileSetSize(file->handle, size))
      return QWErrorRethrow("could not truncate bad sized data file : \"%s\" (fd %i)", file->path, file->fd);
  }
  const uint64_t least = uint64_t(pages) * BOXLVM_PAGE_SIZE;
  if (size < least)
    return QWErrorThrow(0, QW_ERROR_CLASS_SYSTEM,
                        "box data file \"%s\" has invalid size (current is %llu, should have at least %llu)",
                        file->path, (unsigned long long)size, (unsigned long long)least);
  file->size.store(size);
  return true;
}

void AdviseRandom(File *file) {
  if (file->noAdvice || FileSetReadSize(file->handle, 0)) return;
  const bool unsupported = QWErrorCode() == 6 && QWErrorClass() == QW_ERROR_CLASS_SYSTEM;
  if (!unsupported) QWMessage(QW_LEVEL_WARNING, ":box: error setting random access mode");
  QWErrorClear();
}

bool AttachCache(File *file, PageCache *cache) {
  const uint32_t pageSize = PageCacheGetPageSize(cache);
  if (pageSize < BOXLVM_PAGE_SIZE)
    return QWErrorThrow(EINVAL, QW_ERROR_CLASS_GENERAL, "box cache page size invalid: is %u, should be at least %u",
                        pageSize, BOXLVM_PAGE_SIZE);
  file->cacheLock = RWLockInit();
  if (!file->cacheLock) return false;
  file->cache = cache;
  file->cachePageSize = pageSize;
  file->cacheFileId = PageCacheRegisterFile(cache, file->handle);
  if (file->cacheFileId == PAGECACHE_INVALID_FILE)
    return QWErrorRethrow("could not register file \"%s\" in cache", file->path);
  return true;
}

// Sets the size; the step that tests can make fail by name.
bool Extend(File *file, uint32_t pages) {
  if (QWForcedError("BoxLVMDataExtend", 0, QW_ERROR_CLASS_SYSTEM) ||
      !QWFileSetSize(file->handle, uint64_t(pages) * BOXLVM_PAGE_SIZE))
    return QWErrorRethrow("BoxLVMDataExtend: could not set data file size (fd %i)", file->fd);
  file->size.store(uint64_t(pages) * BOXLVM_PAGE_SIZE);
  return true;
}

}  // namespace

QW_API BoxLVMDataFile *BoxLVMDataFileOpen(const char *dir, uint32_t pages, int create, int readOnly, int verbose,
                                          int keepBadSize, int noAdvice, PageCache *cache) {
  qwassert_(!create || !readOnly);
  if (std::strlen(dir) + 1 + std::strlen(BOXLVM_DATA_FILE_NAME) > kBoxPathMax) {
    QWErrorThrow(EINVAL, QW_ERROR_CLASS_GENERAL, "path name too long: \"%s/%s\"", dir, BOXLVM_DATA_FILE_NAME);
    return nullptr;
  }
  FileOwner file(new File);
  std::snprintf(file->dir, sizeof file->dir, "%s", dir);
  std::snprintf(file->path, sizeof file->path, "%s/%s", dir, BOXLVM_DATA_FILE_NAME);
  file->readOnly = readOnly != 0;
  file->verbose = verbose != 0;
  file->noAdvice = noAdvice != 0;
  if (!OpenOrCreate(file.get(), pages, create != 0)) return nullptr;
  file->fd = QWFileGetIntHandle(file->handle);
  if (!CheckSize(file.get(), pages, keepBadSize != 0)) return nullptr;
  AdviseRandom(file.get());
  if (cache && !AttachCache(file.get(), cache)) return nullptr;
  return file.release();
}

QW_API int BoxLVMDataClose(BoxLVMDataFile *file) {
  if (!file) return 1;
  std::unique_ptr<File> owned(file);
  bool ok = true;
  if (file->cacheFileId != PAGECACHE_INVALID_FILE) {
    // Unregistering writes the dirty pages back and syncs. A page that cannot
    // be written keeps the file registered: give it up so that the handle can
    // be closed, and report the loss.
    if (!PageCacheUnregisterFile(file->cache, file->cacheFileId)) {
      ok = false;
      QWErrorSave();
      (void)PageCacheInvalidateFile(file->cache, file->cacheFileId);
      (void)PageCacheUnregisterFile(file->cache, file->cacheFileId);
      QWErrorRestore();
    }
  }
  if (!ok) {
    QWErrorSave();
    (void)QWFileClose(file->handle);
    QWErrorRestore();
  } else if (!QWFileClose(file->handle)) {
    ok = false;
  }
  if (file->cacheLock) RWLockDestroy(file->cacheLock);
  return ok ? 1 : QWErrorRethrow("could not close box data file \"%s\"", file->path);
}

QW_API int BoxLVMDataGrow(BoxLVMDataFile *file, uint32_t pages, uint32_t *newPages) {
  *newPages = pages;
  if (pages >= BOXLVM_MAX_DATA_PAGES)
    return QWErrorThrow(2, QW_ERROR_CLASS_DATA, "cannot extend box data file past the %u pages boundary",
                        BOXLVM_MAX_DATA_PAGES);
  uint64_t grown = uint64_t(pages) + pages / 8 + ((pages == 0 || pages % 8 != 0) ? 1 : 0);
  if (grown > uint64_t(pages) + kGrowthStep) grown = uint64_t(pages) + kGrowthStep;
  if (grown > BOXLVM_MAX_DATA_PAGES) grown = BOXLVM_MAX_DATA_PAGES;
  if (file->verbose)
    QWMessage(QW_LEVEL_PROGRESS, "box: growing data file %s/%s, pages=%u", file->dir, BOXLVM_DATA_FILE_NAME, pages);
  if (!Extend(file, uint32_t(grown))) return QWErrorRethrow("error extending box data file \"%s\"", file->path);
  *newPages = uint32_t(grown);
  if (file->verbose)
    QWMessage(QW_LEVEL_PROGRESS, "box: done growing data file \"%s\", pages=%u", file->path, *newPages);
  return 1;
}

QW_API int BoxLVMDataSync(BoxLVMDataFile *file) {
  if (file->cache) {
    if (!PageCacheFlushFile(file->cache, file->cacheFileId))
      return QWErrorRethrow("error flushing cached box data file \"%s\"", file->path);
    return 1;
  }
  if (!QWFileSync(file->handle))
    return QWErrorRethrow("error sync'ing box data file \"%s\" (fd %i)", file->path, file->fd);
  return 1;
}

QW_API int64_t BoxLVMDataFileSize(BoxLVMDataFile *file) {
  uint64_t size = 0;
  if (!QWFileGetSize(file->handle, &size)) {
    QWErrorRethrow("BoxLVMDataFileSize: error getting dataFile size (fd %i)", file->fd);
    return -1;
  }
  return int64_t(size);
}
