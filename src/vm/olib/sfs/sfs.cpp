// Small file store: open, close, commit and the writer/reader brackets.
#include <memory>
#include <string>

#include "vm/olib/common/cells.h"
#include "vm/olib/common/named_array.h"
#include "vm/olib/common/owner.h"
#include "vm/olib/sfs/sfs_internal.h"

namespace {

uint32_t OpenFlags(int writable, int recover) {
  uint32_t flags = VM_FLAG_MAPPED | (writable ? VM_FLAG_CREATE : VM_FLAG_READ_ONLY);
  return recover ? flags | VM_FLAG_RECOVER : flags;
}

bool Fail(const char *what) { return QWErrorRethrow("%s", what); }

// Opens the dictionary, the file array and the two counters.
bool OpenParts(SFS *store) {
  uint8_t *buffer = nullptr;
  int created = VMArenaIsReadOnly(store->arena) ? 0 : 1;
  store->path = PathDictNew(store->arena, &buffer, "path", nullptr, 0);
  if (store->path == nullptr) {
    ArrayFree(buffer);
    return Fail("SFSOpen:cannot create pathDict");
  }
  store->file = LDBArrayNew(store->arena, &buffer, "file", &created, 0, 1);
  ArrayFree(buffer);
  if (store->file == nullptr) return Fail("SFSOpen:cannot create ldbArray");
  bool made = false;
  if (!qw::olib::OpenNamedArray(store->arena, "params", nullptr, 0, 0, &store->params, &made) ||
      !qw::olib::OpenNamedArray(store->arena, "free", nullptr, 0, 0, &store->free, &made)) {
    return Fail("SFSOpen:cannot create params");
  }
  return true;
}

// Everything that caches the committed generation follows a commit.
void CommitParts(SFS *store) {
  PathDictCommit(store->path);
  LDBArrayCommit(store->file);
  store->params.id[OLDGEN] = store->params.id[NEWGEN];
  store->free.id[OLDGEN] = store->free.id[NEWGEN];
}

}  // namespace

QW_API SFS *SFSOpen(const char *directory, int writable, int recover, uint32_t bucketCount,
                    ReplicationLog *replicationLog) {
  qw::olib::Owner<SFS, SFSClose> store(static_cast<SFS *>(Allocate(sizeof(SFS))));
  if (!store) return nullptr;
  *store = SFS{nullptr, nullptr, nullptr, MutexInit(), {}, {}};
  store->arena = VMArenaOpen(directory, OpenFlags(writable, recover), bucketCount, STATUS_NO_SERIAL,
                             STATUS_NO_SERIAL, replicationLog, nullptr);
  if (store->arena == nullptr) {
    QWErrorRethrow("SFSOpen:cannot open arena in directory \"%s\"", directory);
    return nullptr;
  }
  if (!OpenParts(store.get())) return nullptr;
  bool commit = recover != 0;
  if (!recover && writable && qw::olib::CellCount(store->params, NEWGEN) == 0) {
    if (!qw::olib::CellAppend(store->params, uint32_t(0))) {
      Fail("SFSOpen:cannot create params");
      return nullptr;
    }
    commit = true;
  }
  if (commit && !SFSCommit(store.get())) return nullptr;
  return store.release();
}

QW_API int SFSClose(SFS *store) {
  if (store == nullptr) return 1;
  // The structures are freed before the arena they read from.
  PathDictFree(store->path);
  LDBArrayFree(store->file);
  if (store->arena) VMArenaClose(store->arena);
  MutexDestroy(store->mutex);
  UnAllocate(store);
  return 1;
}

QW_API int SFSCommit(SFS *store) {
  MutexAcquire(store->mutex);
  const int ok = VMArenaCommit(store->arena, nullptr, nullptr, 0);
  if (ok) {
    // Readers hold the generation lock for reading while they use the
    // committed ids; they must not see them change under them.
    VMArenaFlushCommitMemoryAcquire(store->arena);
    CommitParts(store);
    VMArenaFlushCommitMemoryRelease(store->arena);
  }
  MutexRelease(store->mutex);
  return ok ? 1 : QWErrorRethrow("SFSCommit: cannot commit the store in \"%s\"", VMArenaPath(store->arena));
}

QW_API VMArena *SFSArenaGet(SFS *store) { return store->arena; }

QW_API int SFSAcquire(SFS *store, int readOnly) {
  if (readOnly) {
    VMArenaOldGenAcquire(store->arena);
  } else {
    MutexAcquire(store->mutex);
  }
  return 1;
}

QW_API int SFSRelease(SFS *store, int readOnly) {
  if (readOnly) {
    VMArenaOldGenRelease(store->arena);
  } else {
    MutexRelease(store->mutex);
  }
  return 1;
}
