#include "platform/qwlib/posix_io.h"

#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <climits>

namespace qw::io {
namespace {

// Offsets past INT64_MAX do not fit off_t; refuse them instead of letting the
// cast turn them negative.
bool OffsetFits(uint64_t offset, size_t size) {
  return offset <= uint64_t(INT64_MAX) && size <= uint64_t(INT64_MAX) - offset;
}

}  // namespace

bool ReadFull(int fd, void *buffer, size_t size, uint64_t offset, size_t *done) noexcept {
  *done = 0;
  if (!OffsetFits(offset, size)) {
    errno = EINVAL;
    return false;
  }
  auto *bytes = static_cast<char *>(buffer);
  while (*done < size) {
    const ssize_t n = pread(fd, bytes + *done, size - *done, off_t(offset + *done));
    if (n < 0) {
      if (errno == EINTR) continue;
      return false;
    }
    if (n == 0) break;  // end of file
    *done += size_t(n);
  }
  return true;
}

bool WriteFull(int fd, const void *buffer, size_t size, uint64_t offset) noexcept {
  if (!OffsetFits(offset, size)) {
    errno = EINVAL;
    return false;
  }
  const auto *bytes = static_cast<const char *>(buffer);
  size_t done = 0;
  while (done < size) {
    const ssize_t n = pwrite(fd, bytes + done, size - done, off_t(offset + done));
    if (n < 0) {
      if (errno == EINTR) continue;
      return false;
    }
    if (n == 0) {  // no progress and no error: report it rather than spin
      errno = EIO;
      return false;
    }
    done += size_t(n);
  }
  return true;
}

bool SetSize(int fd, uint64_t size) noexcept {
  if (size > uint64_t(INT64_MAX)) {
    errno = EINVAL;
    return false;
  }
  while (ftruncate(fd, off_t(size)) != 0) {
    if (errno != EINTR) return false;
  }
  return true;
}

bool GetSize(int fd, uint64_t *size) noexcept {
  struct stat info;
  if (fstat(fd, &info) != 0) return false;
  *size = uint64_t(info.st_size);
  return true;
}

}  // namespace qw::io
