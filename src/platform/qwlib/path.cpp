// Operations on paths and directories. Each passes the fault seam; with
// durability tracking on, the name operations are journalled so that a
// simulated power loss can undo those whose directory was never synced.
#include <dirent.h>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cinttypes>
#include <cstring>
#include <memory>
#include <string>
#include <vector>

#include "platform/qwlib/durability.h"
#include "platform/qwlib/fault.h"
#include "qwvm/qwfile.h"
#include "qwvm/qwlib.h"

namespace {

using qw::fault::Op;

int NoPath(const char *operation) {
  return QWErrorThrow(EINVAL, QW_ERROR_CLASS_SYSTEM, "could not %s: no path", operation);
}

// mkdir of one component; an existing directory is fine.
bool MakeOne(const std::string &path, bool tracking) {
  if (mkdir(path.c_str(), 0755) == 0) {
    if (tracking) qw::fault::track::AfterMkdir(path.c_str());
    return true;
  }
  if (errno != EEXIST) return false;
  struct stat info;
  if (stat(path.c_str(), &info) != 0) return false;
  if (S_ISDIR(info.st_mode)) return true;
  errno = ENOTDIR;
  return false;
}

struct DirCloser {
  void operator()(DIR *dir) const { closedir(dir); }
};

}  // namespace

extern "C" {

QW_API int FileExists(const char *path) {
  struct stat info;
  return path && stat(path, &info) == 0 ? 1 : 0;
}

QW_API int FileSize(const char *path, uint64_t *size) {
  if (!path || !size) return NoPath("get the size of a file");
  if (!qw::fault::Check(Op::Stat, path)) return QWErrorRethrow("could not get size of file \"%s\"", path);
  struct stat info;
  if (stat(path, &info) != 0) {
    const int error = errno;
    return QWErrorThrowErrno(error, "could not get size of file \"%s\"", path);
  }
  *size = uint64_t(info.st_size);
  return 1;
}

QW_API int FileRename(const char *from, const char *to) {
  if (!from || !to) return NoPath("rename a file");
  if (!qw::fault::Check(Op::Rename, from, to))
    return QWErrorRethrow("could not rename file \"%s\" to \"%s\"", from, to);
  const bool tracking = qw::fault::Tracking();
  qw::fault::track::Preserved kept;
  if (tracking) kept = qw::fault::track::BeforeRename(from, to);
  const bool renamed = rename(from, to) == 0;
  const int error = errno;
  if (tracking) qw::fault::track::AfterRename(from, to, kept, renamed);
  if (!renamed) return QWErrorThrowErrno(error, "could not rename file \"%s\" to \"%s\"", from, to);
  return 1;
}

QW_API int FileRemove(const char *path) {
  if (!path) return NoPath("remove a file");
  if (!qw::fault::Check(Op::Remove, path)) return QWErrorRethrow("could not remove file \"%s\"", path);
  const bool tracking = qw::fault::Tracking();
  qw::fault::track::Preserved kept;
  if (tracking) kept = qw::fault::track::BeforeRemove(path);
  const bool removed = unlink(path) == 0;
  const int error = errno;
  if (tracking) qw::fault::track::AfterRemove(path, kept, removed);
  if (!removed) return QWErrorThrowErrno(error, "could not remove file \"%s\"", path);
  return 1;
}

QW_API int FileTruncate(const char *path, uint64_t size) {
  if (!path) return NoPath("truncate a file");
  if (!qw::fault::Check(Op::Truncate, path))
    return QWErrorRethrow("could not truncate file \"%s\" to %" PRIu64, path, size);
  if (size > uint64_t(INT64_MAX))
    return QWErrorThrowErrno(EINVAL, "could not truncate file \"%s\" to %" PRIu64, path, size);
  if (qw::fault::Tracking()) qw::fault::track::BeforePathSetSize(path, size);
  int result;
  do {
    result = truncate(path, off_t(size));
  } while (result != 0 && errno == EINTR);
  if (result != 0) {
    const int error = errno;
    return QWErrorThrowErrno(error, "could not truncate file \"%s\" to %" PRIu64, path, size);
  }
  return 1;
}

QW_API int DirectoryCreate(const char *path) {
  if (!path || !*path) return NoPath("create a directory");
  if (!qw::fault::Check(Op::Mkdir, path)) return QWErrorRethrow("could not create directory \"%s\"", path);
  const bool tracking = qw::fault::Tracking();
  // Parents first: each missing component is created (and journalled) alone.
  const std::string full(path);
  for (size_t end = full.find('/', 1); end != std::string::npos; end = full.find('/', end + 1)) {
    if (full[end - 1] == '/') continue;  // "//": empty component
    if (!MakeOne(full.substr(0, end), tracking)) {
      const int error = errno;
      return QWErrorThrowErrno(error, "could not create directory \"%s\"", path);
    }
  }
  if (full.back() != '/' && !MakeOne(full, tracking)) {
    const int error = errno;
    return QWErrorThrowErrno(error, "could not create directory \"%s\"", path);
  }
  return 1;
}

QW_API int DirectoryCreateDurably(const char *path) {
  if (!path || !*path) return NoPath("create a directory");
  std::vector<std::string> missing;  // deepest first
  for (std::string at = path; !at.empty() && !FileExists(at.c_str());) {
    missing.push_back(at);
    const size_t slash = at.find_last_of('/');
    at = slash == std::string::npos ? std::string() : at.substr(0, slash);
  }
  if (missing.empty()) return 1;
  if (!DirectoryCreate(path)) return 0;
  for (auto it = missing.rbegin(); it != missing.rend(); ++it) {
    const size_t slash = it->find_last_of('/');
    const std::string parent = slash == std::string::npos ? "." : slash == 0 ? "/" : it->substr(0, slash);
    if (!DirectorySync(parent.c_str())) return 0;
  }
  return 1;
}

QW_API int DirectoryRemove(const char *path) {
  if (!path) return NoPath("remove a directory");
  if (!qw::fault::Check(Op::Rmdir, path)) return QWErrorRethrow("could not remove directory \"%s\"", path);
  if (rmdir(path) != 0) {
    const int error = errno;
    return QWErrorThrowErrno(error, "could not remove directory \"%s\"", path);
  }
  if (qw::fault::Tracking()) qw::fault::track::AfterRmdir(path);
  return 1;
}

QW_API int DirectorySync(const char *path) {
  if (!path) return NoPath("sync a directory");
  if (!qw::fault::Check(Op::DirSync, path)) return QWErrorRethrow("could not sync directory \"%s\"", path);
  int fd;
  do {
    fd = open(path, O_RDONLY | O_DIRECTORY | O_CLOEXEC);
  } while (fd < 0 && errno == EINTR);
  int result = fd < 0 ? -1 : fsync(fd);
  const int error = errno;
  if (fd >= 0) close(fd);
  if (result != 0) return QWErrorThrowErrno(error, "could not sync directory \"%s\"", path);
  if (qw::fault::Tracking()) qw::fault::track::AfterDirectorySync(path);
  return 1;
}

QW_API int DirectoryList(const char *path, QWDirectoryVisitor visit, void *context) {
  if (!path || !visit) return NoPath("list a directory");
  if (!qw::fault::Check(Op::List, path)) return QWErrorRethrow("could not list directory \"%s\"", path);
  std::unique_ptr<DIR, DirCloser> dir(opendir(path));
  if (!dir) {
    const int error = errno;
    return QWErrorThrowErrno(error, "could not list directory \"%s\"", path);
  }
  // The seam's backups are its own business, not entries of the directory.
  const bool hideBackups = qw::fault::Armed();
  for (;;) {
    errno = 0;
    const struct dirent *entry = readdir(dir.get());
    if (!entry) break;
    const char *name = entry->d_name;
    if (std::strcmp(name, ".") == 0 || std::strcmp(name, "..") == 0) continue;
    if (hideBackups && qw::fault::track::IsBackupName(name)) continue;
    if (visit(context, name) != 0) return 1;
  }
  if (errno != 0) {
    const int error = errno;
    return QWErrorThrowErrno(error, "could not list directory \"%s\"", path);
  }
  return 1;
}

}  // extern "C"
