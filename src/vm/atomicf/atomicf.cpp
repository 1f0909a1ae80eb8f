// Atomic replacement of a small file by renames, and commit marks kept in a
// directory's status file.
//
// FileAtomicCommit(D, N) moves D/N aside to D/N.old, renames D/N.new to D/N,
// syncs D so that the new name is durable, and removes D/N.old. Whatever
// point a crash interrupts it at, FileAtomicRecover(D, N) finds either D/N
// (done, or not started) or no D/N: then D/N.new (complete: it was synced
// before the commit started) wins over D/N.old.
#include <string>

#include "qwvm/qwfile.h"
#include "qwvm/qwlib.h"
#include "qwvm/qwlog.h"
#include "qwvm/vmarena.h"
#include "vm/atomicf/atomicf.h"

namespace {

constexpr uint32_t kCommitMarkParameter = 99;

std::string Join(const char *directory, const char *name, const char *suffix = "") {
  return std::string(directory) + "/" + name + suffix;
}

bool SetCommitMark(const char *directory, uint64_t value) {
  QWStatus *status = StatusRead_(directory, STATUS_READ_MISSING_OK);
  if (!status) return QWErrorRethrow("repository : could not read status in dir: \"%s\"", directory);
  if (!StatusSetParameter(status, kCommitMarkParameter, value)) {
    StatusFree(status);
    return false;
  }
  if (!StatusWrite(status, directory)) {
    QWMessage(QW_LEVEL_ERROR, ":cannot save status file in directory \"%s\"", directory);
    QWErrorClear();
  }
  StatusFree(status);
  return true;
}

// The two renames; `sync` makes the new name durable before the previous
// file is removed.
bool CommitRenames(const char *directory, const char *name, bool sync) {
  std::string target = Join(directory, name);
  std::string aside = Join(directory, name, ".old");
  std::string incoming = Join(directory, name, ".new");
  const bool replacing = FileExists(target.c_str());
  if (replacing && !FileRename(target.c_str(), aside.c_str())) return false;
  if (!FileRename(incoming.c_str(), target.c_str())) return false;
  if (sync && !DirectorySync(directory)) return false;
  QWErrorSave();
  FileRemove(aside.c_str());  // a leftover is harmless: recovery never prefers it over the target
  QWErrorRestore();
  return true;
}

}  // namespace

bool qw::vm::FileAtomicCommitUnsynced(const char *directory, const char *name) {
  return CommitRenames(directory, name, false);
}

extern "C" {

QW_API int FileAtomicCommit(const char *directory, const char *name) {
  return CommitRenames(directory, name, true) ? 1 : 0;
}

QW_API int FileAtomicRecover(const char *directory, const char *name) {
  std::string target = Join(directory, name);
  if (FileExists(target.c_str())) return 1;
  QWErrorSave();
  bool renamed = false;
  for (const char *suffix : {".new", ".old"}) {
    std::string candidate = Join(directory, name, suffix);
    if (!FileExists(target.c_str()) && FileExists(candidate.c_str()) &&
        FileRename(candidate.c_str(), target.c_str()))
      renamed = true;
  }
  if (renamed) DirectorySync(directory);
  QWErrorRestore();
  return 1;
}

QW_API int CommitMark(const char *directory) { return SetCommitMark(directory, 1) ? 1 : 0; }

QW_API int CommitUnMark(const char *directory) { return SetCommitMark(directory, 0) ? 1 : 0; }

QW_API int CommitMarked(const char *directory) {
  QWStatus *status = StatusRead_(directory, STATUS_READ_MISSING_OK);
  if (!status) {
    QWMessage(QW_LEVEL_ERROR, "repository : could not read status in dir: \"%s\"", directory);
    QWErrorClear();
    return 0;
  }
  int marked = StatusGetParameter(status, kCommitMarkParameter) == 1;
  StatusFree(status);
  return marked;
}

}  // extern "C"
