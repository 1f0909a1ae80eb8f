// Pinning pages in memory for the memory-lock enumerators.
//
// mlock needs privilege or room under RLIMIT_MEMLOCK, which ordinary server
// processes often lack. Pinning is an optimisation, not a correctness
// requirement, so a refusal degrades to touching the pages (they are then
// resident now, though the system may evict them later). ENOMEM is ambiguous
// (over the limit, or the range is not mapped); touching an unmapped page
// would crash, so the range is checked with mincore first.
//
// mlock and munlock are called through syscall(2): AddressSanitizer turns
// the library wrappers into no-ops, and the sanitizer builds must pin (and
// fail) exactly as the production build does.
#include <sys/mman.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <cerrno>
#include <cstdint>

#include "qwvm/qwutil.h"

namespace {

struct PageRange {
  uintptr_t start = 0;
  size_t length = 0;
};

PageRange RoundToPages(const void *address, uint64_t length) {
  const uintptr_t page = PageSize();
  const uintptr_t begin = reinterpret_cast<uintptr_t>(address) & ~(page - 1);
  const uintptr_t end = (reinterpret_cast<uintptr_t>(address) + length + page - 1) & ~(page - 1);
  return {begin, size_t(end - begin)};
}

// True when every page of the range is mapped (mincore fails with ENOMEM on
// a hole); asked in slices so that the residency vector stays small.
bool RangeIsMapped(PageRange range) {
  const size_t page = PageSize();
  constexpr size_t kPagesPerSlice = 4096;
  unsigned char residency[kPagesPerSlice];
  for (size_t offset = 0; offset < range.length; offset += kPagesPerSlice * page) {
    size_t slice = range.length - offset;
    if (slice > kPagesPerSlice * page) slice = kPagesPerSlice * page;
    if (mincore(reinterpret_cast<void *>(range.start + offset), slice, residency) != 0) return false;
  }
  return true;
}

int SystemMlock(PageRange range) { return int(syscall(SYS_mlock, range.start, range.length)); }
int SystemMunlock(PageRange range) { return int(syscall(SYS_munlock, range.start, range.length)); }

}  // namespace

int MemoryPin(const void *address, uint64_t length) {
  if (length == 0) return 1;
  const PageRange range = RoundToPages(address, length);
  if (SystemMlock(range) == 0) return 1;
  const int error = errno;
  const bool refused = error == EPERM || error == EAGAIN || (error == ENOMEM && RangeIsMapped(range));
  if (!refused)
    return QWErrorThrowErrno(error, "MemoryPin: could not pin %zu bytes at %p", range.length,
                             reinterpret_cast<void *>(range.start));
  MemoryLoad(reinterpret_cast<void *>(range.start), range.length);
  QWMessage(QW_LEVEL_DEBUG, "MemoryPin: pinning %zu bytes at %p refused (errno %d); pages touched instead",
            range.length, reinterpret_cast<void *>(range.start), error);
  return 1;
}

int MemoryUnpin(const void *address, uint64_t length) {
  if (length == 0) return 1;
  const PageRange range = RoundToPages(address, length);
  if (SystemMunlock(range) != 0)
    return QWErrorThrowErrno(errno, "MemoryUnpin: could not unpin %zu bytes at %p", range.length,
                             reinterpret_cast<void *>(range.start));
  return 1;
}
