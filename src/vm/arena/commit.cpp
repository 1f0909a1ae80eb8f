// Flush and commit: the five steps and VMArenaCommit.
//
// Durability: every file a commit publishes is written, synced and closed
// before it is renamed into place; the `committing` marker is durable before
// the first rename; the renames of each directory are made durable by one
// sync of that directory (block directory, then arena directory) before the
// marker is removed, and the removal is durable before the next flush writes
// anything. A power loss between the marker and its removal may undo any
// subset of the renames that respects their order: the next open finishes
// them.
#include <string>

#include "qwvm/qwfile.h"
#include "vm/arena/arena.h"
#include "vm/atomicf/atomicf.h"
#include "vm/lbs/local_block_server.h"

namespace qw::vm {

bool CreateCommittingMarker(const VMArena *arena) {
  std::string marker = ArenaFilePath(arena, "committing");
  QWFILE file = QWFILE_INVALID;
  if (!QWFileOpen(&file, marker.c_str(), QWFILE_READ | QWFILE_WRITE | QWFILE_CREATE)) return false;
  return QWFileClose(file) && DirectorySync(arena->directory.c_str());
}

bool RemoveCommittingMarker(const VMArena *arena) {
  std::string marker = ArenaFilePath(arena, "committing");
  return FileRemove(marker.c_str()) && DirectorySync(arena->directory.c_str());
}

namespace {

bool CommitArenaFile(const VMArena *arena, const char *name) {
  if (FileAtomicCommitUnsynced(arena->directory.c_str(), name)) return true;
  return QWErrorRethrow("could not atomically commit: \"%s/%s\"", arena->directory.c_str(), name) != 0;
}

bool Unserialised(const VMArena *arena) { return arena->flushedSerialOld == STATUS_NO_SERIAL; }

}  // namespace
}  // namespace qw::vm

using namespace qw::vm;

extern "C" {

QW_API int VMArenaFlushStart(VMArena *arena, uint64_t *oldSerialOut, uint64_t *newSerialOut) {
  // Most dirty data reaches the disk here, before the flush lock is taken.
  QWErrorSave();
  for (LocalBlockServer0 *server : arena->servers) LocalBlockServer0MappingFlush(server, 1);
  QWErrorRestore();
  qwassert_(!arena->readOnly);
  RWLockAcquireWrite_(arena->flushLock);
  arena->flushLockHeld = true;
  ArenaCrashPoint(arena, "arenaflushstart0");
  if (arena->serialOld != STATUS_NO_SERIAL) {
    qwassert_(arena->serialNew != STATUS_NO_SERIAL);
    arena->flushedSerialOld = arena->serialOld + 1;
    arena->flushedSerialNew = arena->serialNew + 1;
  } else {
    arena->flushedSerialOld = STATUS_NO_SERIAL;
    arena->flushedSerialNew = STATUS_NO_SERIAL;
  }
  if (oldSerialOut) *oldSerialOut = arena->flushedSerialOld;
  if (newSerialOut) *newSerialOut = arena->flushedSerialNew;
  for (LocalBlockServer0 *server : arena->servers)
    if (!LocalBlockServer0FlushStart(server, arena->flushedSerialOld, arena->flushedSerialNew)) return 0;
  ArenaCrashPoint(arena, "arenaflushstart1");
  return 1;
}

QW_API int VMArenaFlushExec(VMArena *arena) {
  qwassert_(!arena->readOnly);
  ArenaCrashPoint(arena, "arenaflushexec0");
  for (LocalBlockServer0 *server : arena->servers)
    if (!LocalBlockServer0FlushFileExec(server)) return 0;
  ArenaCrashPoint(arena, "arenaflushexec1");
  MutexAcquire(arena->mutexes.newGen);
  bool ok = ArenaFileFlushNew(arena);
  MutexRelease(arena->mutexes.newGen);
  if (!ok) return 0;
  ArenaCrashPoint(arena, "arenaflushexec2");
  MutexAcquire(arena->mutexes.newGen);
  ok = ArenaFileFlushOld(arena);
  MutexRelease(arena->mutexes.newGen);
  if (!ok) return 0;
  // The new generation files' names are durable before the `committing`
  // marker can be: with the marker on disk, an open finishes the commit and
  // must find every file it renames (the bucket servers synced the block
  // directory the same way). Serialised files carry their final names.
  if (!DirectorySync(arena->directory.c_str())) return 0;
  ArenaCrashPoint(arena, "arenaflushexec3");
  return 1;
}

QW_API int VMArenaFlushCommitDisk(VMArena *arena) {
  qwassert_(!arena->readOnly);
  ArenaCrashPoint(arena, "arenaflushcommitdisk0");
  // Renames are made durable one directory at a time: the `committing`
  // marker, durable before the first rename, lets the next open finish any
  // rename a power loss undid.
  for (LocalBlockServer0 *server : arena->servers)
    if (!LocalBlockServer0CommitDisk(server, false)) return 0;
  std::string blockDirectory = ArenaFilePath(arena, "block");
  if (Unserialised(arena) && !DirectorySync(blockDirectory.c_str())) return 0;
  ArenaCrashPoint(arena, "arenaflushcommitdisk1");
  // The arena files: new before old (the index files went old before new).
  if (Unserialised(arena) && !CommitArenaFile(arena, "arena.new")) return 0;
  ArenaCrashPoint(arena, "arenaflushcommitdisk2");
  if (Unserialised(arena) && !CommitArenaFile(arena, "arena.old")) return 0;
  if (Unserialised(arena) && !DirectorySync(arena->directory.c_str())) return 0;
  ArenaCrashPoint(arena, "arenaflushcommitdisk3");
  return 1;
}

QW_API int VMArenaFlushCommitMemory(VMArena *arena, int takeGenerationLock) {
  qwassert_(!arena->readOnly || arena->mounted);
  if (takeGenerationLock) RWLockAcquireWrite_(arena->generationLock);
  ArenaCrashPoint(arena, "arenaflushcommitmemory0");
  for (LocalBlockServer0 *server : arena->servers) {
    if (!LocalBlockServer0CommitMemory(server)) {
      if (takeGenerationLock) RWLockRelease_(arena->generationLock);
      return 0;
    }
  }
  ArenaCrashPoint(arena, "arenaflushcommitmemory1");
  arena->view.Swap(arena->nextView);
  if (takeGenerationLock) RWLockRelease_(arena->generationLock);
  arena->nextView.Free();
  arena->serialNew = arena->flushedSerialNew;
  arena->serialOld = arena->flushedSerialOld;
  arena->flushedSerialOld = STATUS_NO_SERIAL;
  arena->flushedSerialNew = STATUS_NO_SERIAL;
  arena->mounted = false;
  // A mounted generation's names become readable now.
  if (!ArraysViewChanged(arena)) return QWErrorRethrow("cannot create name service");
  return 1;
}

QW_API int VMArenaFlushStop(VMArena *arena) {
  qwassert_(!arena->readOnly);
  for (LocalBlockServer0 *server : arena->servers) LocalBlockServer0FlushStop(server);
  if (!arena->mapped) ArenaReapplyLocks(arena);
  arena->flushedSerialOld = STATUS_NO_SERIAL;
  arena->flushedSerialNew = STATUS_NO_SERIAL;
  arena->nextView.Free();
  if (arena->flushLockHeld) {
    arena->flushLockHeld = false;
    RWLockRelease_(arena->flushLock);
  }
  return 1;
}

QW_API void VMArenaFlushCommitMemoryAcquire(VMArena *arena) { RWLockAcquireWrite_(arena->generationLock); }

QW_API void VMArenaFlushCommitMemoryRelease(VMArena *arena) { RWLockRelease_(arena->generationLock); }

QW_API int VMArenaCommit(VMArena *arena, uint64_t *oldSerialOut, uint64_t *newSerialOut, int memoryLock) {
  if (QWForcedError("VMArenaCommit", 2, QW_ERROR_CLASS_GENERAL)) return 0;
  bool ok = VMArenaFlushStart(arena, oldSerialOut, newSerialOut) && VMArenaFlushExec(arena);
  // A marker failure keeps the disk's message under the commit's own.
  if (ok && !CreateCommittingMarker(arena))
    ok = QWErrorRethrow("could not create the commit marker in \"%s\"", arena->directory.c_str()) != 0;
  ok = ok && VMArenaFlushCommitDisk(arena);
  if (ok && !RemoveCommittingMarker(arena))
    ok = QWErrorRethrow("could not remove the commit marker in \"%s\"", arena->directory.c_str()) != 0;
  if (!ok) {
    QWErrorSave();
    VMArenaFlushStop(arena);
    QWErrorRestore();
    return 0;
  }
  if (memoryLock) MemoryLockAcquire();
  ok = VMArenaFlushCommitMemory(arena, 1);
  if (memoryLock) MemoryLockRelease();
  return VMArenaFlushStop(arena) && ok;
}

QW_API int VMArenaUnlinkGeneration(VMArena *arena, uint64_t oldSerial, uint64_t newSerial) {
  int result = 1;
  const std::pair<const char *, uint64_t> files[] = {{"arena.new", newSerial}, {"arena.old", oldSerial}};
  for (const auto &[name, serial] : files) {
    std::string path = ArenaSerialPath(arena, name, serial);
    if (!FileExists(path.c_str())) continue;
    if (!FileRemove(path.c_str())) {
      QWErrorRethrow("cannot remove file \"%s\"", path.c_str());
      result = 0;
      continue;
    }
    if (arena->replicationLog &&
        !ReplicationLogWrite(arena->replicationLog, REPLICATION_FILE_REMOVED, 0, 0, path.c_str(), nullptr, 0)) {
      QWErrorRethrow("cannot log file removal \"%s\"", path.c_str());
      result = 0;
    }
  }
  for (LocalBlockServer0 *server : arena->servers)
    if (!LocalBlockServer0UnlinkGeneration(server, oldSerial, newSerial)) result = 0;
  return result;
}

}  // extern "C"
