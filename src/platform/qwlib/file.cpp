// Open files: QWFile* and FileSetReadSize.
//
// Every operation passes the fault seam first; an injected failure leaves
// the seam's message innermost and this file's message outside it, exactly
// as a real failure would carry strerror.
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cinttypes>
#include <memory>
#include <new>

#include "platform/qwlib/durability.h"
#include "platform/qwlib/fault.h"
#include "platform/qwlib/file_object.h"
#include "platform/qwlib/posix_io.h"
#include "qwvm/qwfile.h"
#include "qwvm/qwlib.h"

namespace {

using qw::fault::Op;

constexpr uint32_t kKnownModeBits =
    QWFILE_READ | QWFILE_WRITE | QWFILE_CREATE | QWFILE_TRUNCATE | QWFILE_EXCLUSIVE | QWFILE_READAHEAD | QWFILE_PRIVATE;

int OpenFlags(uint32_t mode) {
  int flags = O_CLOEXEC;
  if ((mode & QWFILE_READ) && (mode & QWFILE_WRITE))
    flags |= O_RDWR;
  else if (mode & QWFILE_WRITE)
    flags |= O_WRONLY;
  else
    flags |= O_RDONLY;
  if (mode & QWFILE_CREATE) {
    flags |= O_CREAT;
    if (mode & QWFILE_EXCLUSIVE) flags |= O_EXCL;
  }
  if (mode & QWFILE_TRUNCATE) flags |= O_TRUNC;
  return flags;
}

int OpenRetrying(const char *path, uint32_t mode) {
  const int flags = OpenFlags(mode);
  const mode_t permission = (mode & QWFILE_PRIVATE) ? 0600 : 0644;
  int fd;
  do {
    fd = open(path, flags, permission);
  } while (fd < 0 && errno == EINTR);
  return fd;
}

// Opens with the journal told what the open creates or truncates.
int OpenTracked(const char *path, uint32_t mode) {
  struct stat info;
  const bool existed = lstat(path, &info) == 0;
  if ((mode & QWFILE_TRUNCATE) && existed) qw::fault::track::BeforePathSetSize(path, 0);
  const int fd = OpenRetrying(path, mode);
  if (fd >= 0 && !existed) qw::fault::track::AfterCreate(path);
  return fd;
}

// The read behind QWFileReadData and QWFileReadExact (one pass of the seam).
int ReadAt(QWFILE file, uint64_t offset, void *buffer, size_t size, size_t *bytesRead) {
  *bytesRead = 0;
  if (!qw::ValidFile(file)) return 0;
  const char *path = file->path.c_str();
  if (!buffer && size)
    return QWErrorThrow(EINVAL, QW_ERROR_CLASS_SYSTEM, "could not read file \"%s\": no buffer", path);
  if (!qw::fault::Check(Op::Read, path))
    return QWErrorRethrow("could not read file \"%s\" at offset %" PRIu64, path, offset);
  if (!qw::io::ReadFull(file->fd, buffer, size, offset, bytesRead)) {
    const int error = errno;
    return QWErrorThrowErrno(error, "could not read file \"%s\" at offset %" PRIu64, path, offset);
  }
  return 1;
}

}  // namespace

extern "C" {

QW_API int QWFileOpen(QWFILE *file, const char *path, uint32_t mode) {
  if (file) *file = QWFILE_INVALID;
  if (!file || !path) return QWErrorThrow(EINVAL, QW_ERROR_CLASS_SYSTEM, "could not open file: no path or handle");
  if (mode & ~kKnownModeBits)
    return QWErrorThrow(EINVAL, QW_ERROR_CLASS_SYSTEM, "could not open file \"%s\": unknown mode bits 0x%x", path,
                        unsigned(mode & ~kKnownModeBits));
  if (!qw::fault::Check(Op::Open, path)) return QWErrorRethrow("could not open file \"%s\"", path);
  const int fd = qw::fault::Tracking() ? OpenTracked(path, mode) : OpenRetrying(path, mode);
  if (fd < 0) {
    const int error = errno;
    return QWErrorThrowErrno(error, "could not open file \"%s\"", path);
  }
  // A hint only: a kernel that ignores it reads the file all the same.
  if (mode & QWFILE_READAHEAD) (void)posix_fadvise(fd, 0, 0, POSIX_FADV_SEQUENTIAL);
  try {
    auto object = std::make_unique<QWFileObject>();
    object->fd = fd;
    object->path = path;
    *file = object.release();
  } catch (const std::bad_alloc &) {
    close(fd);
    return QWErrorThrow(ENOMEM, QW_ERROR_CLASS_SYSTEM, "could not open file \"%s\": out of memory", path);
  }
  return 1;
}

QW_API int QWFileClose(QWFILE file) {
  if (file == QWFILE_INVALID) return 1;
  std::unique_ptr<QWFileObject> owned(file);
  const char *path = owned->path.c_str();
  const bool allowed = qw::fault::Check(Op::Close, path);
  // Like close(2) itself, a failed close still releases the descriptor; on
  // Linux it is released even on EINTR, so there is no retry.
  const int result = owned->fd >= 0 ? close(owned->fd) : 0;
  const int error = errno;
  if (!allowed) return QWErrorRethrow("could not close file \"%s\"", path);
  if (result != 0 && error != EINTR) return QWErrorThrowErrno(error, "could not close file \"%s\"", path);
  return 1;
}

QW_API int QWFileReadData(QWFILE file, uint64_t offset, void *buffer, size_t size, size_t *bytesRead) {
  size_t done = 0;
  const int result = ReadAt(file, offset, buffer, size, &done);
  if (bytesRead) *bytesRead = done;
  return result;
}

QW_API int QWFileReadExact(QWFILE file, uint64_t offset, void *buffer, size_t size) {
  size_t done = 0;
  if (!ReadAt(file, offset, buffer, size, &done)) return 0;
  if (done < size)
    return QWErrorThrow(EIO, QW_ERROR_CLASS_SYSTEM, "unexpected end of file \"%s\" at offset %" PRIu64,
                        file->path.c_str(), offset);
  return 1;
}

QW_API int QWFileWriteData(QWFILE file, uint64_t offset, const void *buffer, size_t size) {
  if (!qw::ValidFile(file)) return 0;
  const char *path = file->path.c_str();
  if (!buffer && size)
    return QWErrorThrow(EINVAL, QW_ERROR_CLASS_SYSTEM, "could not write file \"%s\": no buffer", path);
  if (!qw::fault::CheckWrite(file->fd, path, offset, buffer, size))
    return QWErrorRethrow("could not write file \"%s\" at offset %" PRIu64, path, offset);
  if (!qw::io::WriteFull(file->fd, buffer, size, offset)) {
    const int error = errno;
    return QWErrorThrowErrno(error, "could not write file \"%s\" at offset %" PRIu64, path, offset);
  }
  return 1;
}

QW_API int QWFileSetSize(QWFILE file, uint64_t size) {
  if (!qw::ValidFile(file)) return 0;
  const char *path = file->path.c_str();
  if (!qw::fault::Check(Op::SetSize, path))
    return QWErrorRethrow("could not set size of file \"%s\" to %" PRIu64, path, size);
  if (qw::fault::Tracking()) qw::fault::track::BeforeSetSize(file->fd, size);
  if (!qw::io::SetSize(file->fd, size)) {
    const int error = errno;
    return QWErrorThrowErrno(error, "could not set size of file \"%s\" to %" PRIu64, path, size);
  }
  return 1;
}

QW_API int QWFileGetSize(QWFILE file, uint64_t *size) {
  if (!qw::ValidFile(file)) return 0;
  const char *path = file->path.c_str();
  if (!size) return QWErrorThrow(EINVAL, QW_ERROR_CLASS_SYSTEM, "could not get size of file \"%s\": no output", path);
  if (!qw::fault::Check(Op::Stat, path)) return QWErrorRethrow("could not get size of file \"%s\"", path);
  if (!qw::io::GetSize(file->fd, size)) {
    const int error = errno;
    return QWErrorThrowErrno(error, "could not get size of file \"%s\"", path);
  }
  return 1;
}

QW_API int QWFileSync(QWFILE file) {
  if (!qw::ValidFile(file)) return 0;
  const char *path = file->path.c_str();
  if (!qw::fault::Check(Op::Sync, path)) return QWErrorRethrow("could not sync file \"%s\"", path);
  // fdatasync also writes a changed size: it is needed to read the data back.
  int result;
  do {
    result = fdatasync(file->fd);
  } while (result != 0 && errno == EINTR);
  if (result != 0) {
    const int error = errno;
    return QWErrorThrowErrno(error, "could not sync file \"%s\"", path);
  }
  if (qw::fault::Tracking()) qw::fault::track::AfterFileSync(file->fd);
  return 1;
}

QW_API int QWFileGetIntHandle(QWFILE file) { return file == QWFILE_INVALID ? -1 : file->fd; }

QW_API const char *QWFileGetPath(QWFILE file) { return file == QWFILE_INVALID ? "" : file->path.c_str(); }

QW_API int FileSetReadSize(QWFILE file, uint32_t log2Pages) {
  if (!qw::ValidFile(file)) return 0;
  const char *path = file->path.c_str();
  if (!qw::fault::Check(Op::Advise, path)) return QWErrorRethrow("could not set read size of file \"%s\"", path);
  const int advice = log2Pages == 0 ? POSIX_FADV_RANDOM : POSIX_FADV_SEQUENTIAL;
  const int error = posix_fadvise(file->fd, 0, 0, advice);
  if (error != 0) return QWErrorThrowErrno(error, "could not set read size of file \"%s\"", path);
  return 1;
}

}  // extern "C"
