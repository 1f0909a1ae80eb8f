// Flush and commit: the five steps and VMArenaCommit.
//
// Durability argument
// -------------------
// A commit makes the new generation durable in four ordered sync steps. The
// syncs inside a step are independent of one another and are issued together
// (qw::SyncRound: one thread each, the step costs its slowest sync); a step
// starts only when the one before it has returned.
//
// Step 1, end of the flush execute (state "executed"). Every file of the new
// generation has been written: each bucket's data file (the cache's dirty
// pages, the read-write part or the extents; mapped pages are written by the
// sync itself), each bucket's new and old index file, `arena.new` and
// `arena.old` (with `.new` appended when unserialised, the serial when
// serialised). One round syncs the data of all of them and the two
// directories that hold new names (the block directory once, however many
// buckets it holds, and the arena directory). After it, every new file is
// durable under its name. Nothing committed was touched: the data file's
// committed raw blocks are read-only for the new generation (copy-on-write;
// only raw blocks free in both generations are reused), and the committed
// index and generation files keep their names. A power loss before or during
// the step leaves the previous generation plus stale or partial new files
// beside it; with no `committing` marker on disk, open reads the previous
// generation (FileAtomicRecover uses `N.new` only when `N` is missing, which
// a commit never leaves without the marker).
//
// Step 2, the marker: `committing` is created and the arena directory synced
// (with a replication log attached, the log's records of this commit are
// synced in the same round). After it, the marker is durable, and it can only
// be durable after step 1 completed: every file that an open finishing the
// commit renames is complete on disk.
//
// Step 3, end of the disk commit: every rename is done (each bucket's old
// index, then new index; then `arena.new`, then `arena.old`; nothing when
// serialised; each replaced file, `N.old`, is removed right after its
// renames, since `N.new` was durable before them and recovery prefers `N` or
// `N.new` to it), and one round syncs the block directory and the arena
// directory. A power loss before it completes keeps any subset of the renames
// that a directory's journal can produce (the marker is durable): open sees
// the marker and finishes every rename, each tolerating a target already in
// place, so it reads the new generation. After the round the new generation
// is durable under its final names.
//
// Step 4: the marker is removed and the arena directory synced. Without this
// sync a power loss after the commit returned could bring the marker back
// while the next commit's new files (created in the same directories) had
// become durable without it: an open would then finish a commit of half-
// written files. After it, the disk holds exactly the new generation, and a
// read-only open is possible again at once.
//
// The protocol's floor is three ordered rounds (steps 1 to 3); step 4 is the
// price of a marker whose removal must not be undone once the next commit
// has begun writing files beside it.
//
// So a power loss at any point leaves either the previous generation (up to
// step 2) or the new one (from step 2 on, finished by open when the marker is
// there), with stale `.new` files at most, which the next flush overwrites.
//
// The flush start writes the cache's dirty pages to the data files without
// syncing them: the writing (most of a large commit) happens before the flush
// lock, and the data reaches the disk in step 1.
#include <cerrno>
#include <string>

#include "platform/qwlib/sync_round.h"
#include "qwvm/qwfile.h"
#include "vm/arena/arena.h"
#include "vm/atomicf/atomicf.h"
#include "vm/lbs/local_block_server.h"

namespace qw::vm {

bool CreateCommittingMarker(const VMArena *arena) {
  std::string marker = ArenaFilePath(arena, "committing");
  QWFILE file = QWFILE_INVALID;
  if (!QWFileOpen(&file, marker.c_str(), QWFILE_READ | QWFILE_WRITE | QWFILE_CREATE | QWFILE_PRIVATE)) return false;
  if (!QWFileClose(file)) return false;
  SyncRound round;
  round.AddDirectory(arena->directory, "");
  // Every record of this commit was written by now.
  if (ReplicationLog *log = arena->replicationLog)
    round.Add([log] { return ReplicationLogSync(log); }, "could not sync the replication log");
  return round.Run();
}

bool RemoveCommittingMarker(VMArena *arena) {
  std::string marker = ArenaFilePath(arena, "committing");
  if (!FileRemove(marker.c_str())) return false;
  SyncRound round;
  round.AddDirectory(arena->directory, "");
  return round.Run();
}

namespace {

bool CommitArenaFile(VMArena *arena, const char *name) {
  if (FileAtomicCommitUnsynced(arena->directory.c_str(), name)) return true;
  return QWErrorRethrow("could not atomically commit: \"%s/%s\"", arena->directory.c_str(), name) != 0;
}

bool Unserialised(const VMArena *arena) { return arena->flushedSerialOld == STATUS_NO_SERIAL; }

}  // namespace
}  // namespace qw::vm

using namespace qw::vm;
using qw::SyncRound;

extern "C" {

QW_API int VMArenaFlushStart(VMArena *arena, uint64_t *oldSerialOut, uint64_t *newSerialOut) {
  // Most dirty data is written here, before the flush lock is taken; it is
  // synced with the rest of the generation in the flush execute.
  QWErrorSave();
  for (LocalBlockServer0 *server : arena->servers) LocalBlockServer0MappingWriteBack(server);
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
  // Everything is written first, then synced in one round (step 1).
  SyncRound round;
  for (LocalBlockServer0 *server : arena->servers)
    if (!LocalBlockServer0FlushWrite(server, &round)) return 0;
  ArenaCrashPoint(arena, "arenaflushexec1");
  MutexAcquire(arena->mutexes.newGen);
  bool ok = ArenaFileWriteNew(arena, &round);
  MutexRelease(arena->mutexes.newGen);
  if (!ok) return 0;
  ArenaCrashPoint(arena, "arenaflushexec2");
  MutexAcquire(arena->mutexes.newGen);
  ok = ArenaFileWriteOld(arena, &round);
  MutexRelease(arena->mutexes.newGen);
  if (!ok) return 0;
  // The new generation files' names are durable before the `committing`
  // marker can be: with the marker on disk, an open finishes the commit and
  // must find every file it renames. Serialised files carry their final names
  // and need the directory just as much.
  round.AddDirectory(arena->directory, "");
  if (!round.Run()) return 0;
  for (LocalBlockServer0 *server : arena->servers)
    if (!LocalBlockServer0FlushFinish(server)) return 0;
  if (!ArenaFilesFinish(arena) || !ArenaFileReadBackOld(arena)) return 0;
  ArenaCrashPoint(arena, "arenaflushexec3");
  return 1;
}

QW_API int VMArenaFlushCommitDisk(VMArena *arena) {
  qwassert_(!arena->readOnly);
  ArenaCrashPoint(arena, "arenaflushcommitdisk0");
  // The `committing` marker, durable before the first rename, lets the next
  // open finish any rename a power loss undid; the renames of both
  // directories are made durable together at the end (step 3).
  for (LocalBlockServer0 *server : arena->servers)
    if (!LocalBlockServer0CommitDisk(server, false)) return 0;
  ArenaCrashPoint(arena, "arenaflushcommitdisk1");
  // The arena files: new before old (the index files went old before new).
  if (Unserialised(arena) && !CommitArenaFile(arena, "arena.new")) return 0;
  ArenaCrashPoint(arena, "arenaflushcommitdisk2");
  if (Unserialised(arena) && !CommitArenaFile(arena, "arena.old")) return 0;
  if (Unserialised(arena)) {
    SyncRound round;
    round.AddDirectory(ArenaFilePath(arena, "block"), "");
    round.AddDirectory(arena->directory, "");
    if (!round.Run()) return 0;
  }
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
  ShapeChanged(arena);
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
  ArenaFilesAbandon(arena);  // generation files of a flush that failed before finishing them
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
  // The marker's creation and removal add no message of their own: the
  // error is the file operation's.
  bool ok = VMArenaFlushStart(arena, oldSerialOut, newSerialOut) && VMArenaFlushExec(arena) &&
            CreateCommittingMarker(arena) && VMArenaFlushCommitDisk(arena) && RemoveCommittingMarker(arena);
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
  // Refused before anything is removed, as each bucket server refuses it.
  if (oldSerial == STATUS_NO_SERIAL || newSerial == STATUS_NO_SERIAL || oldSerial == arena->serialOld ||
      newSerial == arena->serialNew)
    return QWErrorThrow(EINVAL, QW_ERROR_CLASS_GENERAL,
                        "cannot remove generation (%llu, %llu) of \"%s\": not a past serialised generation",
                        static_cast<unsigned long long>(oldSerial), static_cast<unsigned long long>(newSerial),
                        arena->directory.c_str());
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
