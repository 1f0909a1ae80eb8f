// Memory mapping of files and advice on mapped memory.
//
// Writes through a mapping never pass the fault seam (they are plain stores),
// so the seam sees the map, sync and unmap calls instead: with durability
// tracking on, a writable mapping's bytes count as durable only as of its
// last FileMapSync or the file's last QWFileSync.
#include <sys/mman.h>
#include <unistd.h>

#include <cerrno>
#include <cinttypes>
#include <cstdint>

#include "platform/qwlib/durability.h"
#include "platform/qwlib/fault.h"
#include "platform/qwlib/file_object.h"
#include "platform/qwlib/posix_io.h"
#include "qwvm/qwfile.h"
#include "qwvm/qwlib.h"

namespace {

using qw::fault::Op;

// [address, address + length) widened to whole pages.
struct PageSpan {
  char *base;
  size_t length;
};

PageSpan WholePages(const void *address, uint64_t length) {
  const uintptr_t page = PageSize();
  const uintptr_t begin = reinterpret_cast<uintptr_t>(address);
  const uintptr_t base = begin & ~(page - 1);
  const uintptr_t end = (begin + length + page - 1) & ~(page - 1);
  return PageSpan{reinterpret_cast<char *>(base), size_t(end - base)};
}

bool AdviceFor(int advice, int *system) {
  switch (advice) {
    case QW_ADVICE_NORMAL: *system = MADV_NORMAL; return true;
    case QW_ADVICE_RANDOM: *system = MADV_RANDOM; return true;
    case QW_ADVICE_SEQUENTIAL: *system = MADV_SEQUENTIAL; return true;
    case QW_ADVICE_WILLNEED: *system = MADV_WILLNEED; return true;
    case QW_ADVICE_DONTNEED: *system = MADV_DONTNEED; return true;
    default: return false;
  }
}

// Mapping past the end of a file would turn a short (damaged) file into a
// SIGBUS at first touch; refuse it with an error instead.
bool CoversSegment(QWFILE file, uint64_t offset, uint64_t length) {
  uint64_t size = 0;
  if (!qw::io::GetSize(file->fd, &size)) {
    const int error = errno;
    return QWErrorThrowErrno(error, "could not map file \"%s\"", file->path.c_str());
  }
  if (size >= offset && size - offset >= length) return true;
  return QWErrorThrow(EINVAL, QW_ERROR_CLASS_SYSTEM,
                      "could not map file \"%s\": %" PRIu64 " bytes at offset %" PRIu64 " pass its end (%" PRIu64
                      " bytes)",
                      file->path.c_str(), length, offset, size);
}

}  // namespace

extern "C" {

QW_API void *FileMapSegment(QWFILE file, uint64_t offset, uint64_t length, uint32_t access) {
  if (!qw::ValidFile(file)) return nullptr;
  const char *path = file->path.c_str();
  if (offset % PageSize() != 0 || length == 0 || length > SIZE_MAX || (access & ~(QW_MAP_READ | QW_MAP_WRITE))) {
    QWErrorThrow(EINVAL, QW_ERROR_CLASS_SYSTEM,
                 "could not map file \"%s\": bad segment (offset %" PRIu64 ", length %" PRIu64 ", access %u)", path,
                 offset, length, unsigned(access));
    return nullptr;
  }
  if (!qw::fault::Check(Op::Map, path)) {
    QWErrorRethrow("could not map file \"%s\"", path);
    return nullptr;
  }
  if (!CoversSegment(file, offset, length)) return nullptr;
  const int protection = PROT_READ | ((access & QW_MAP_WRITE) ? PROT_WRITE : 0);
  void *address = mmap(nullptr, size_t(length), protection, MAP_SHARED, file->fd, off_t(offset));
  if (address == MAP_FAILED) {
    const int error = errno;
    QWErrorThrowErrno(error, "could not map file \"%s\"", path);
    return nullptr;
  }
  if (qw::fault::Armed()) {
    qw::fault::NoteMapping(address, length, path);
    if ((access & QW_MAP_WRITE) && qw::fault::Tracking()) qw::fault::track::AfterMap(file->fd, address, offset, length);
  }
  return address;
}

QW_API int FileUnmap(void *address, uint64_t length) {
  if (!address || length == 0)
    return QWErrorThrow(EINVAL, QW_ERROR_CLASS_SYSTEM, "could not unmap %" PRIu64 " bytes at %p", length, address);
  if (!qw::fault::CheckMapping(Op::Unmap, address))
    return QWErrorRethrow("could not unmap %" PRIu64 " bytes at %p", length, address);
  if (munmap(address, size_t(length)) != 0) {
    const int error = errno;
    return QWErrorThrowErrno(error, "could not unmap %" PRIu64 " bytes at %p", length, address);
  }
  if (qw::fault::Armed()) {
    qw::fault::ForgetMapping(address);
    if (qw::fault::Tracking()) qw::fault::track::AfterUnmap(address);
  }
  return 1;
}

QW_API void *FileRemapSegment(QWFILE file, void *address, uint64_t offset, uint64_t oldLength, uint64_t newLength,
                              uint32_t access) {
  if (!qw::ValidFile(file)) return nullptr;
  const char *path = file->path.c_str();
  if (!address || oldLength == 0 || newLength == 0 || newLength > SIZE_MAX) {
    QWErrorThrow(EINVAL, QW_ERROR_CLASS_SYSTEM,
                 "could not remap file \"%s\": bad segment (%" PRIu64 " to %" PRIu64 " bytes)", path, oldLength,
                 newLength);
    return nullptr;
  }
  if (!qw::fault::Check(Op::Map, path)) {
    QWErrorRethrow("could not map file \"%s\"", path);
    return nullptr;
  }
  if (!CoversSegment(file, offset, newLength)) return nullptr;
  void *moved = mremap(address, size_t(oldLength), size_t(newLength), MREMAP_MAYMOVE);
  if (moved == MAP_FAILED) {
    const int error = errno;
    QWErrorThrowErrno(error, "could not remap file \"%s\"", path);
    return nullptr;
  }
  if (qw::fault::Armed()) {
    qw::fault::ForgetMapping(address);
    qw::fault::NoteMapping(moved, newLength, path);
    if ((access & QW_MAP_WRITE) && qw::fault::Tracking()) {
      qw::fault::track::AfterUnmap(address);
      qw::fault::track::AfterMap(file->fd, moved, offset, newLength);
    }
  }
  return moved;
}

QW_API int FileMapSync(void *address, uint64_t length) {
  if (!address) return QWErrorThrow(EINVAL, QW_ERROR_CLASS_SYSTEM, "could not sync mapped segment: no address");
  if (!qw::fault::CheckMapping(Op::MapSync, address))
    return QWErrorRethrow("could not sync %" PRIu64 " mapped bytes at %p", length, address);
  const PageSpan span = WholePages(address, length);
  if (msync(span.base, span.length, MS_SYNC) != 0) {
    const int error = errno;
    return QWErrorThrowErrno(error, "could not sync %" PRIu64 " mapped bytes at %p", length, address);
  }
  if (qw::fault::Tracking()) qw::fault::track::AfterMapSync(span.base, span.length);
  return 1;
}

QW_API int MemoryAdvise(void *address, uint64_t length, int advice) {
  int systemAdvice = 0;
  if (!address || !AdviceFor(advice, &systemAdvice))
    return QWErrorThrow(EINVAL, QW_ERROR_CLASS_SYSTEM, "could not advise memory at %p: bad advice %d", address, advice);
  if (!qw::fault::CheckMapping(Op::Advise, address)) return QWErrorRethrow("could not advise memory at %p", address);
  const PageSpan span = WholePages(address, length);
  if (madvise(span.base, span.length, systemAdvice) != 0) {
    const int error = errno;
    return QWErrorThrowErrno(error, "could not advise memory at %p", address);
  }
  return 1;
}

QW_API void MemoryLoad(const void *address, uint64_t length) {
  if (!address || length == 0) return;
  const PageSpan span = WholePages(address, length);
  const auto *bytes = static_cast<const volatile char *>(address);
  const uintptr_t page = PageSize();
  // One read per page faults it in; the first page may start mid-page.
  const uintptr_t skipToNextPage = uintptr_t(span.base) + page - reinterpret_cast<uintptr_t>(address);
  (void)bytes[0];
  for (uint64_t at = skipToNextPage; at < length; at += page) (void)bytes[at];
}

QW_API uint32_t PageSize(void) {
  static const uint32_t page = uint32_t(sysconf(_SC_PAGESIZE));
  return page;
}

}  // extern "C"
