// Opening, creating, mounting and closing an arena.
//
// Recovery at open: a `committing` marker means a commit was interrupted
// after every new file had been written and synced. A writable open then
// finishes the whole disk commit before reading anything, in the order the
// commit itself uses: for each bucket server its old index, then its new
// index; then `arena.new`, then `arena.old`. Finishing only the two arena
// files would pair new generation files with the previous index files (a
// crash between the index commits and the arena-file commits), so that
// arrays would point at blocks of the wrong generation. Each step tolerates a
// target that an earlier attempt already committed.
//
// Creation is made restartable by a `creating` marker. Creating an arena
// first makes its directory (and any missing parent) durable and creates
// `D/creating` durably; then it writes the generation files and opens the
// bucket servers, which create their data and index files; only then is the
// marker removed, durably. A crash or power loss at any point in between
// leaves the marker: an open with VM_FLAG_CREATE removes whatever the
// interrupted creation left (every `D/arena.*` file and every entry of
// `D/block`) and creates the arena again; an open without it fails with
// "incomplete creation of VM in \"%s\"", since there is nothing to read.
#include <algorithm>
#include <cstdio>
#include <string>
#include <vector>

#include "qwvm/qwfile.h"
#include "vm/arena/arena.h"
#include "vm/lbs/local_block_server.h"

namespace qw::vm {
namespace {

constexpr uint32_t kAllFlags = VM_FLAG_CREATE | VM_FLAG_READ_ONLY | VM_FLAG_RECOVER | VM_FLAG_MAPPED |
                               VM_FLAG_READAHEAD | VM_FLAG_EXTENTS;

std::string BlockDirectory(const VMArena *arena) { return arena->directory + "/block"; }

// FileAtomicCommit that treats a missing `name.new` as already committed.
void CommitIfPending(const std::string &directory, const char *name) {
  QWErrorSave();
  if (FileExists((directory + "/" + name + ".new").c_str())) FileAtomicCommit(directory.c_str(), name);
  FileAtomicRecover(directory.c_str(), name);
  QWErrorRestore();
}

// Suffixes S of the bucket servers that have `indexS.old.new` or
// `indexS.new.new` waiting in the block directory.
std::vector<std::string> PendingIndexSuffixes(const std::string &blockDirectory) {
  std::vector<std::string> suffixes;
  auto visit = [](void *context, const char *name) -> int {
    std::string entry(name);
    for (const char *tail : {".old.new", ".new.new"}) {
      size_t tailLength = std::char_traits<char>::length(tail);
      if (entry.rfind("index", 0) == 0 && entry.size() > 5 + tailLength &&
          entry.compare(entry.size() - tailLength, tailLength, tail) == 0)
        static_cast<std::vector<std::string> *>(context)->push_back(entry.substr(5, entry.size() - 5 - tailLength));
    }
    return 0;
  };
  QWErrorSave();
  DirectoryList(blockDirectory.c_str(), visit, &suffixes);
  QWErrorRestore();
  std::sort(suffixes.begin(), suffixes.end());
  suffixes.erase(std::unique(suffixes.begin(), suffixes.end()), suffixes.end());
  return suffixes;
}

void FinishInterruptedCommit(const std::string &directory) {
  std::string blockDirectory = directory + "/block";
  QWErrorSave();
  for (const std::string &suffix : PendingIndexSuffixes(blockDirectory)) {
    if (!IndexFileCommitOld(blockDirectory.c_str(), suffix.c_str()) ||
        !IndexFileCommitNew(blockDirectory.c_str(), suffix.c_str()))
      QWMessage(QW_LEVEL_WARNING, "could not finish the commit of index%s in \"%s\"", suffix.c_str(),
                blockDirectory.c_str());
  }
  QWErrorRestore();
  CommitIfPending(directory, "arena.new");
  CommitIfPending(directory, "arena.old");
}

bool OpenServers(VMArena *arena, uint64_t oldSerial, uint64_t newSerial) {
  std::string blockDirectory = BlockDirectory(arena);
  for (uint32_t i = 0; i < arena->bucketCount; ++i) {
    char suffix[16];
    std::snprintf(suffix, sizeof suffix, "%x", i);
    LocalBlockServer0 *server =
        LocalBlockServer0Open_(blockDirectory.c_str(), suffix, arena->flags, kServerBlockSize, kFileBlockSize,
                               kMinBlockCount, oldSerial, newSerial, arena->replicationLog, arena->cache);
    if (!server) return false;  // the record's free closes those already opened
    arena->servers.push_back(server);
  }
  return true;
}

bool ReadArena(VMArena *arena, uint64_t oldSerial, uint64_t newSerial) {
  std::string newPath, oldPath;
  if (oldSerial == STATUS_NO_SERIAL) {
    newPath = ArenaFilePath(arena, "arena.new");
    oldPath = ArenaFilePath(arena, "arena.old");
    FileAtomicRecover(arena->directory.c_str(), "arena.new");
    FileAtomicRecover(arena->directory.c_str(), "arena.old");
  } else {
    newPath = ArenaSerialPath(arena, "arena.new", newSerial);
    oldPath = ArenaSerialPath(arena, "arena.old", oldSerial);
  }
  if (!ArenaReadNewGenFile(arena, newPath, false)) return false;
  if (!ArenaReadOldGenFile(arena, oldPath, &arena->view)) return false;
  arena->serialOld = oldSerial;
  arena->serialNew = newSerial;
  return OpenServers(arena, oldSerial, newSerial);
}

bool AnyArenaFileExists(const VMArena *arena, uint64_t oldSerial, uint64_t newSerial) {
  std::vector<std::string> candidates;
  if (oldSerial == STATUS_NO_SERIAL && newSerial == STATUS_NO_SERIAL) {
    for (const char *name : {"arena.new", "arena.old", "arena.new.new", "arena.old.new", "arena.new.old",
                             "arena.old.old", "block"})
      candidates.push_back(ArenaFilePath(arena, name));
  } else {
    candidates.push_back(ArenaSerialPath(arena, "arena.new", newSerial));
    candidates.push_back(ArenaSerialPath(arena, "arena.old", oldSerial));
  }
  for (const std::string &path : candidates)
    if (FileExists(path.c_str())) return true;
  return false;
}

std::string CreatingMarkerPath(const std::string &directory) { return directory + "/creating"; }

bool CreateCreatingMarker(const std::string &directory) {
  QWFILE file = QWFILE_INVALID;
  if (!DirectoryCreateDurably(directory.c_str()) ||
      !QWFileOpen(&file, CreatingMarkerPath(directory).c_str(), QWFILE_READ | QWFILE_WRITE | QWFILE_CREATE) ||
      !QWFileClose(file) || !DirectorySync(directory.c_str()))
    return QWErrorRethrow("could not mark the creation of VM in \"%s\"", directory.c_str());
  return true;
}

bool RemoveCreatingMarker(const std::string &directory) {
  if (!FileRemove(CreatingMarkerPath(directory).c_str()) || !DirectorySync(directory.c_str()))
    return QWErrorRethrow("could not complete the creation of VM in \"%s\"", directory.c_str());
  return true;
}

// Removes the entries of `directory` that `select` picks, then syncs it.
bool RemoveEntries(const std::string &directory, bool (*select)(const std::string &name)) {
  struct Listing {
    bool (*select)(const std::string &);
    std::vector<std::string> names;
  } listing{select, {}};
  auto visit = [](void *context, const char *name) -> int {
    auto *l = static_cast<Listing *>(context);
    if (l->select(name)) l->names.push_back(name);
    return 0;
  };
  if (!DirectoryList(directory.c_str(), visit, &listing)) return false;
  for (const std::string &name : listing.names)
    if (!FileRemove((directory + "/" + name).c_str())) return false;
  return listing.names.empty() || DirectorySync(directory.c_str());
}

// What an interrupted creation may have left: the generation files and the
// bucket servers' files.
bool ClearInterruptedCreation(const std::string &directory) {
  const std::string blockDirectory = directory + "/block";
  const bool cleared =
      (!FileExists(blockDirectory.c_str()) || RemoveEntries(blockDirectory, [](const std::string &) { return true; })) &&
      RemoveEntries(directory, [](const std::string &name) { return name.rfind("arena.", 0) == 0; });
  if (!cleared) return QWErrorRethrow("could not clear the incomplete creation of VM in \"%s\"", directory.c_str());
  return true;
}

bool CreateInitialArena(const char *directory, uint32_t flags, uint32_t bucketCount, uint64_t oldSerial,
                        uint64_t newSerial, ReplicationLog *log) {
  ArenaPtr arena = ArenaRecordNew(directory, flags, bucketCount, log, nullptr);
  if (!arena) return false;
  uint32_t arrayId = VMAArrayNew(arena.get(), 0, ARENA_MAX_BLOCK_SIZE, NEWGEN);
  qwassert_(arrayId == 0);
  qwassert_(oldSerial == STATUS_NO_SERIAL || oldSerial == 0);
  qwassert_(newSerial == STATUS_NO_SERIAL || newSerial == 0);
  std::string blockDirectory = BlockDirectory(arena.get());
  if (!DirectoryCreate(blockDirectory.c_str()))
    return QWErrorRethrow("arena : could not create arena dir: \"%s\"", blockDirectory.c_str());
  arena->flushedSerialOld = oldSerial;
  arena->flushedSerialNew = newSerial;
  if (!ArenaFileFlushNew(arena.get()) || !ArenaFileFlushOld(arena.get())) return false;
  if (oldSerial == STATUS_NO_SERIAL) {
    if (!FileAtomicCommit(directory, "arena.new") || !FileAtomicCommit(directory, "arena.old")) return false;
  } else if (!DirectorySync(directory)) {
    return false;
  }
  return true;
}

// Creates the arena in `directory` (again, after an interrupted creation,
// when `restart`) and reads it; the `creating` marker brackets the whole.
ArenaPtr CreateArena(const char *directory, uint32_t flags, uint32_t bucketCount, uint64_t oldSerial,
                     uint64_t newSerial, ReplicationLog *log, PageCache *cache, bool restart) {
  qwassert_(!(flags & VM_FLAG_READ_ONLY));
  ArenaPtr none(nullptr, ArenaRecordFree);
  // The count matters only here: an existing arena's comes from its file.
  if (bucketCount == 0 || bucketCount > 4096) {
    QWErrorThrow(22, QW_ERROR_CLASS_GENERAL, "VMArenaOpen: invalid bucket count %u for \"%s\"", bucketCount, directory);
    return none;
  }
  if (!CreateCreatingMarker(directory) || (restart && !ClearInterruptedCreation(directory)) ||
      !CreateInitialArena(directory, flags, bucketCount, oldSerial, newSerial, log)) {
    QWErrorRethrow("could not create initial vmarena in \"%s\"", directory);
    return none;
  }
  ArenaPtr arena = ArenaRecordNew(directory, flags, bucketCount, log, cache);
  if (!arena || !ReadArena(arena.get(), oldSerial, newSerial)) {
    QWErrorRethrow("could not read vmarena in \"%s\"", directory);
    return none;
  }
  if (!RemoveCreatingMarker(directory)) return none;
  return arena;
}

// The arena in `directory` read as it is, or created when there is none and
// the flags allow it.
ArenaPtr ReadOrCreateArena(const char *directory, uint32_t flags, uint32_t bucketCount, uint64_t oldSerial,
                           uint64_t newSerial, ReplicationLog *log, PageCache *cache) {
  ArenaPtr none(nullptr, ArenaRecordFree);
  if (FileExists(CreatingMarkerPath(directory).c_str())) {
    if (!(flags & VM_FLAG_CREATE)) {
      QWErrorThrow(2, QW_ERROR_CLASS_GENERAL, "incomplete creation of VM in \"%s\"", directory);
      return none;
    }
    return CreateArena(directory, flags, bucketCount, oldSerial, newSerial, log, cache, true);
  }
  ArenaPtr arena = ArenaRecordNew(directory, flags, bucketCount, log, cache);
  if (!arena) return none;
  if (ReadArena(arena.get(), oldSerial, newSerial)) return arena;
  QWErrorSave();
  bool exists = AnyArenaFileExists(arena.get(), oldSerial, newSerial);
  QWErrorRestore();
  if (exists) {
    QWErrorRethrow("existing but not openable VM in \"%s\"", directory);
    return none;
  }
  if (!(flags & VM_FLAG_CREATE)) {
    QWErrorRethrow("could not read VMArena in \"%s\"", directory);
    return none;
  }
  arena.reset();
  QWErrorClear();
  return CreateArena(directory, flags, bucketCount, oldSerial, newSerial, log, cache, false);
}

// Everything of VMArenaOpen after the recovery of an interrupted commit.
VMArena *OpenArena(const char *directory, uint32_t flags, uint32_t bucketCount, uint64_t oldSerial,
                   uint64_t newSerial, ReplicationLog *log, PageCache *cache, bool committing) {
  ArenaPtr arena = ReadOrCreateArena(directory, flags, bucketCount, oldSerial, newSerial, log, cache);
  if (!arena) return nullptr;
  if (!ArraysOpened(arena.get())) {
    QWErrorRethrow("cannot create name service");
    return nullptr;
  }
  if (committing && !RemoveCommittingMarker(arena.get())) return nullptr;
  if (!MemoryEnumLock(ArenaMemoryEnumerate, arena.get())) return nullptr;
  arena->memoryEnumRegistered = true;
  return arena.release();
}

}  // namespace

uint32_t CeilLog2(uint64_t n) {
  uint32_t bits = 0;
  while ((uint64_t(1) << bits) < n) ++bits;
  return bits;
}

std::string ArenaFilePath(const VMArena *arena, const char *name) { return arena->directory + "/" + name; }

std::string ArenaSerialPath(const VMArena *arena, const char *name, uint64_t serial) {
  return arena->directory + "/" + name + "." + std::to_string(serial);
}

ArenaPtr ArenaRecordNew(const char *directory, uint32_t flags, uint32_t bucketCount, ReplicationLog *log,
                        PageCache *cache) {
  ArenaPtr arena(new VMArena, ArenaRecordFree);
  arena->directory = directory;
  arena->flags = flags;
  arena->readOnly = (flags & VM_FLAG_READ_ONLY) != 0;
  arena->mapped = (flags & VM_FLAG_MAPPED) != 0;
  arena->bucketCount = bucketCount;
  arena->bucketBits = CeilLog2(bucketCount ? bucketCount : 1);
  arena->replicationLog = log;
  arena->cache = cache;
  arena->generationLock = RWLockInit();
  arena->flushLock = RWLockInit();
  arena->mutexes.newGen = MutexInit();
  arena->mutexes.locks = MutexInit();
  if (!arena->generationLock || !arena->flushLock || !arena->mutexes.newGen || !arena->mutexes.locks ||
      !ArrayInit(arena->freeArrayIds, 4, 0) || !ArrayTableInit(arena.get()) || !ArrayStateInit(arena.get()))
    return ArenaPtr(nullptr, ArenaRecordFree);
  for (SizeClassState &state : arena->classes)
    if (!ArrayInit(state.freeList, 8, 0)) return ArenaPtr(nullptr, ArenaRecordFree);
  return arena;
}

int ArenaRecordFree(VMArena *arena) {
  if (!arena) return 1;
  QWErrorSave();
  if (arena->memoryEnumRegistered) MemoryEnumUnLock(ArenaMemoryEnumerate, arena);
  ArenaFilesAbandon(arena);
  for (LocalBlockServer0 *server : arena->servers) LocalBlockServer0Close(server);
  QWErrorRestore();
  for (SizeClassState &state : arena->classes) ArrayFree(state.freeList);
  ArrayFree(arena->freeArrayIds);
  ArrayTableFree(arena);
  RWLockDestroy(arena->generationLock);
  RWLockDestroy(arena->flushLock);
  MutexDestroy(arena->mutexes.newGen);
  MutexDestroy(arena->mutexes.locks);
  std::unique_ptr<VMArena> owned(arena);
  return 1;
}

}  // namespace qw::vm

using namespace qw::vm;

extern "C" {

QW_API VMArena *VMArenaOpen(const char *directory, uint32_t flags, uint32_t bucketCount, uint64_t oldSerial,
                            uint64_t newSerial, ReplicationLog *replicationLog, PageCache *cache) {
  const char *dir = directory;
  qwassert_(dir != NULL);
  if ((flags & ~kAllFlags) != 0) {
    QWErrorThrow(22, QW_ERROR_CLASS_GENERAL, "VMArenaOpen: unknown flags 0x%x for \"%s\"", flags & ~kAllFlags, directory);
    return nullptr;
  }
  if (!(flags & VM_FLAG_MAPPED) && !cache) {
    QWErrorThrow(22, QW_ERROR_CLASS_GENERAL, "VMArenaOpen: a page cache is required unless the arena is mapped (\"%s\")",
                 directory);
    return nullptr;
  }
  if ((oldSerial == STATUS_NO_SERIAL) != (newSerial == STATUS_NO_SERIAL)) {
    QWErrorThrow(22, QW_ERROR_CLASS_GENERAL, "VMArenaOpen: both serials or neither must be given (\"%s\")", directory);
    return nullptr;
  }
  const std::string path(directory);
  bool committing = FileExists((path + "/committing").c_str());
  if (FileExists((path + "/corrupted").c_str())) {
    QWErrorThrow(2, QW_ERROR_CLASS_DATA, "Corrupted vm in \"%s\"", directory);
    return nullptr;
  }
  if (committing && (flags & VM_FLAG_READ_ONLY)) {
    QWErrorThrow(2, QW_ERROR_CLASS_GENERAL, "Cannot open read-only vm in \"%s\": incomplete commit", directory);
    return nullptr;
  }
  if (committing) {
    FinishInterruptedCommit(path);
  } else if (flags & VM_FLAG_RECOVER) {
    qwassert_((flags & VM_FLAG_READ_ONLY) == 0);
    CommitIfPending(path, "arena.new");
    CommitIfPending(path, "arena.old");
  }
  VMArena *arena = OpenArena(directory, flags, bucketCount, oldSerial, newSerial, replicationLog, cache, committing);
  return arena;
}

QW_API int VMArenaClose(VMArena *arena) { return ArenaRecordFree(arena); }

QW_API const char *VMArenaPath(VMArena *arena) { return arena->directory.c_str(); }

QW_API int VMArenaIsReadOnly(VMArena *arena) { return arena->readOnly; }

QW_API void VMArenaSerials(VMArena *arena, uint64_t *oldSerial, uint64_t *newSerial) {
  if (oldSerial) *oldSerial = arena->serialOld;
  if (newSerial) *newSerial = arena->serialNew;
}

QW_API uint32_t VMArenaBucketCount(VMArena *arena) { return arena->bucketCount; }

QW_API LocalBlockServer0 *VMArenaBucketServer(VMArena *arena, uint32_t index) {
  return index < arena->servers.size() ? arena->servers[index] : nullptr;
}

QW_API void VMArenaTagCorrupted(VMArena *arena) {
  std::string marker = ArenaFilePath(arena, "corrupted");
  QWFILE file = QWFILE_INVALID;
  QWErrorSave();
  if (QWFileOpen(&file, marker.c_str(), QWFILE_READ | QWFILE_WRITE | QWFILE_CREATE | QWFILE_PRIVATE)) {
    QWFileClose(file);
    DirectorySync(arena->directory.c_str());
  } else {
    QWMessage(QW_LEVEL_ERROR, "Could not tag arena as corrupted");
  }
  QWErrorRestore();
}

QW_API int VMArenaMountGeneration(VMArena *arena, uint64_t oldSerial, uint64_t newSerial) {
  QWMessage(QW_LEVEL_PROGRESS, "mounting arena generation[%u,%u] in directory %s", uint32_t(oldSerial),
            uint32_t(newSerial), arena->directory.c_str());
  for (LocalBlockServer0 *server : arena->servers)
    if (!LocalBlockServer0Mount(server, oldSerial, newSerial)) return 0;
  ShapeChanged(arena);
  MutexAcquire(arena->mutexes.newGen);
  bool ok = ArenaReadNewGenFile(arena, ArenaSerialPath(arena, "arena.new", newSerial), true) &&
            ArenaReadOldGenFile(arena, ArenaSerialPath(arena, "arena.old", oldSerial), &arena->nextView);
  MutexRelease(arena->mutexes.newGen);
  if (!ok) return 0;
  if (!ArraysMounted(arena)) return QWErrorRethrow("cannot create name service");
  arena->flushedSerialOld = oldSerial;
  arena->flushedSerialNew = newSerial;
  arena->mounted = true;
  return 1;
}

}  // extern "C"
