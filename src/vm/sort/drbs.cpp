// Run block server: open and close, block allocation, free lists, commit.
//
// Allocation state lives in the owner's arena under "drbs": "params" holds
// two counters, [0] the next block number never handed out and [1] the
// number of blocks the data files have room for (the array is created with
// both, [0] = [1] = 0). Invariants: params[0] <= params[1]; every number in
// "freeBlock" and "newFreeBlock" is below params[0] and appears once in the
// two lists together; "freeBlock" is sorted descending. A number freed since
// the last commit sits in "newFreeBlock" and is not handed out until
// DRBServerAfterCommit moves it (a crash before the commit leaves the
// committed lists, where the block is still in use).
#include <algorithm>
#include <cinttypes>
#include <functional>

#include "vm/sort/drbs_internal.h"

#ifndef FALSE
#define FALSE 0
#endif

using qw::sort::Lock;

namespace {

constexpr const char *kBase = "drbs";

bool OpenArrays(DRBServer *server) {
  if (!server->params.Open(server->arena, kBase, "params") || !server->freeBlock.Open(server->arena, kBase, "freeBlock") ||
      !server->newFreeBlock.Open(server->arena, kBase, "newFreeBlock"))
    return false;
  if (server->params.Length() == 0 && !server->readOnly) {
    const uint32_t zero[2] = {0, 0};
    if (!server->params.Append(zero, 2)) return false;
  }
  if (server->params.Length() < 2)
    return QWErrorThrow(74, QW_ERROR_CLASS_DATA, "run block server in \"%s\": params holds %u counters",
                        server->directory.c_str(), server->params.Length());
  return true;
}

bool OpenFiles(DRBServer *server) {
  char name[262];
  bool created = false;
  for (uint32_t i = 0; i < server->fileCount; ++i) {
    std::snprintf(name, sizeof name, "%s/data%d", server->directory.c_str(), int(i));
    QWFILE file = QWFILE_INVALID;
    const uint32_t mode = server->readOnly ? QWFILE_READ : (QWFILE_READ | QWFILE_WRITE | QWFILE_CREATE);
    created = created || (!server->readOnly && !FileExists(name));
    if (!QWFileOpen(&file, name, mode)) return QWErrorRethrow("Could not open file %s", name);
    server->fds.push_back(file);
  }
  // New data files are made durable at once: a commit syncs their contents,
  // and their names must survive a power loss as well.
  return !created || DirectorySync(server->directory.c_str()) ||
         QWErrorRethrow("Could not sync directory %s", server->directory.c_str());
}

bool StartThreads(DRBServer *server, uint32_t syncThreads, uint32_t prefetchThreads) {
  for (uint32_t i = 0; i < syncThreads; ++i) {
    QWThread *thread = ThreadCreate(qw::sort::SyncThreadMain, server);
    if (!thread) return false;
    server->syncThread.push_back(thread);
  }
  for (uint32_t i = 0; i < prefetchThreads; ++i) {
    QWThread *thread = ThreadCreate(qw::sort::PrefetchThreadMain, server);
    if (!thread) return false;
    server->prefetchThread.push_back(thread);
  }
  return true;
}

bool LoadNewFreeSet(DRBServer *server) {
  server->newFreeSet.clear();
  for (uint32_t i = 0, n = server->newFreeBlock.Length(); i < n; ++i) {
    uint32_t block = 0;
    if (!server->newFreeBlock.Get(i, &block)) return false;
    server->newFreeSet.insert(block);
  }
  return true;
}

void StopThreads(DRBServer *server) {
  server->stop = true;
  for (auto [mutex, condition] : {std::pair{server->syncMutex, server->syncCondition},
                                  std::pair{server->prefetchMutex, server->prefetchCondition}}) {
    if (!mutex) continue;
    Lock lock(mutex);
    ConditionBroadcast(condition);
  }
  for (QWThread *thread : server->syncThread) ThreadJoin(thread, nullptr);
  for (QWThread *thread : server->prefetchThread) ThreadJoin(thread, nullptr);
}

// Grows the files when every block of the room is handed out.
bool Grow(DRBServer *server, uint32_t room, uint32_t *newRoom) {
  uint64_t step = room;
  if (uint64_t(room) * server->blockSize > DRBS_MAX_GROWTH_BYTES) step = DRBS_MAX_GROWTH_BYTES / server->blockSize;
  uint64_t target = uint64_t(room) + 1 + step;
  target = (target + server->fileCount - 1) / server->fileCount * server->fileCount;
  if (target > 0xFFFFFFFEull) target = 0xFFFFFFFEull / server->fileCount * server->fileCount;
  if (target <= room) return QWErrorThrow(28, QW_ERROR_CLASS_SYSTEM, "run block server is full");
  const uint64_t bytes = target / server->fileCount * server->blockSize;
  for (QWFILE file : server->fds)
    if (!QWFileSetSize(file, bytes)) return QWErrorRethrow("Could not extend file %s", QWFileGetPath(file));
  *newRoom = uint32_t(target);
  return server->params.Set(1, *newRoom);
}

}  // namespace

extern "C" {

QW_API DRBServer *DRBServerNew(const char *directory, VMArena *arena, uint32_t blockSize, uint32_t fileCount,
                               uint32_t syncThreads, uint32_t prefetchThreads, int readOnly) {
  if (blockSize == 0 || blockSize % PageSize() != 0 || fileCount == 0 || syncThreads == 0 || prefetchThreads == 0) {
    QWErrorThrow(22, QW_ERROR_CLASS_GENERAL,
                 "run block server: block size %u (a multiple of %u), %u files, %u sync and %u prefetch threads",
                 blockSize, PageSize(), fileCount, syncThreads, prefetchThreads);
    return nullptr;
  }
  std::unique_ptr<DRBServer, std::function<void(DRBServer *)>> server(new DRBServer, [](DRBServer *s) {
    QWErrorSave();
    DRBServerFree(s);
    QWErrorRestore();
  });
  server->directory = directory;
  server->arena = arena;
  server->blockSize = blockSize;
  server->fileCount = fileCount;
  server->readOnly = readOnly != 0;
  server->mutex = MutexInit();
  server->changed = ConditionInit();
  server->syncMutex = MutexInit();
  server->syncCondition = ConditionInit();
  server->prefetchMutex = MutexInit();
  server->prefetchCondition = ConditionInit();
  server->allocMutex = MutexInit();
  uint32_t handed = 0;
  if (!OpenArrays(server.get()) || !server->params.Get(0, &handed) || !OpenFiles(server.get()) ||
      !LoadNewFreeSet(server.get()))
    return nullptr;
  server->blocks.resize(handed);
  if (!StartThreads(server.get(), syncThreads, prefetchThreads)) return nullptr;
  if (!server->readOnly && !DRBServerAfterCommit(server.get())) return nullptr;
  server->opened = true;
  return server.release();
}

QW_API int DRBServerFree(DRBServer *server) {
  if (!server) return 1;
  StopThreads(server);
  int ok = 1;
  if (server->opened) {
    if (!(server->fds.size() > 0)) QWAssertFail_("ArrayLength(server->fds) > 0", __FILE__, __LINE__);
    if (!(server->prefetchThread.size() > 0))
      QWAssertFail_("ArrayLength(server->prefetchThread) > 0", __FILE__, __LINE__);
    if (!(server->syncThread.size() > 0)) QWAssertFail_("ArrayLength(server->syncThread) > 0", __FILE__, __LINE__);
  }
  for (QWFILE file : server->fds) {
    const int fd = QWFileGetIntHandle(file);
    if (!QWFileClose(file)) {
      QWSetMessageContext_(__FILE__, __LINE__, QW_LEVEL_ERROR, 0);
      QWMessage_("Could not close fd = %d", fd);
      ok = 0;
    }
  }
  for (auto &entry : server->blocks)
    if (entry.address && entry.read) (void)FileUnmap(entry.address, server->blockSize);
    else if (entry.address) server->pool.push_back(entry.address);
  for (uint8_t *buffer : server->pool) UnAllocate(buffer);
  for (QWMutex *mutex : {server->mutex, server->syncMutex, server->prefetchMutex, server->allocMutex})
    if (mutex) MutexDestroy(mutex);
  for (QWCondition *condition : {server->changed, server->syncCondition, server->prefetchCondition})
    if (condition) ConditionDestroy(condition);
  delete server;
  return ok;
}

QW_API uint32_t DRBServerBlockNew(DRBServer *server) {
  Lock lock(server->allocMutex);
  uint32_t block = DRBS_INVALID_BLOCK;
  const uint32_t freeCount = server->freeBlock.Length();
  if (freeCount > 0) {
    if (!server->freeBlock.Get(freeCount - 1, &block) || !server->freeBlock.Truncate(freeCount - 1))
      return DRBS_INVALID_BLOCK;
    return block;
  }
  uint32_t handed = 0, room = 0;
  if (!server->params.Get(0, &handed) || !server->params.Get(1, &room)) return DRBS_INVALID_BLOCK;
  if (handed == room && !Grow(server, room, &room)) return DRBS_INVALID_BLOCK;
  if (!server->params.Set(0, handed + 1)) return DRBS_INVALID_BLOCK;
  Lock tableLock(server->mutex);
  if (server->blocks.size() <= handed) server->blocks.resize(size_t(handed) + 1);
  return handed;
}

QW_API int DRBServerBlockFree(DRBServer *server, uint32_t block) {
  Lock lock(server->allocMutex);
  if (server->newFreeSet.count(block)) QWAssertFail_("bid != blockID", __FILE__, __LINE__);
  if (!server->newFreeBlock.Append(block)) return 0;
  server->newFreeSet.insert(block);
  return 1;
}

QW_API int DRBServerAfterCommit(DRBServer *server) {
  Lock lock(server->allocMutex);
  const uint32_t pending = server->newFreeBlock.Length();
  if (pending == 0) return 1;
  std::vector<uint32_t> all(server->freeBlock.Length() + pending);
  for (uint32_t i = 0; i < all.size(); ++i) {
    const bool old = i < server->freeBlock.Length();
    if (!(old ? server->freeBlock.Get(i, &all[i])
              : server->newFreeBlock.Get(i - server->freeBlock.Length(), &all[i])))
      return 0;
  }
  std::sort(all.begin(), all.end(), std::greater<uint32_t>());
  for (size_t i = 1; i < all.size(); ++i) {
    const uint32_t bid0 = all[i - 1], bid1 = all[i];
    if (!(bid0 != bid1)) QWAssertFail_("bid0 != bid1", __FILE__, __LINE__);
  }
  const uint32_t old = server->freeBlock.Length();
  if (!server->freeBlock.Append(all.data() + old, pending) ||
      !VMAArraySetRange_(server->arena, server->freeBlock.handle().id[NEWGEN], 0, ARENA_MAX_BLOCK_SIZE, 0,
                         all.data(), uint32_t(all.size()), NEWGEN, 4) ||
      !server->newFreeBlock.Clear())
    return 0;
  server->newFreeSet.clear();
  return 1;
}

QW_API int DRBServerBeforeCommit(DRBServer *server) {
  {
    Lock lock(server->mutex);
    for (const auto &entry : server->blocks)
      if (entry.address && !entry.read && entry.count > 0) {
        QWSetMessageContext_(__FILE__, __LINE__, QW_LEVEL_WARNING, 0);
        QWMessage_("!!! Not released block, read = %s", entry.read ? "true" : "false");
      }
    while (server->inFlight > 0) ConditionTimedWait(server->changed, server->mutex, 1000);
    for (const auto &entry : server->blocks)
      if (entry.address && !entry.read && entry.count == 0) {
        QWSetMessageContext_(__FILE__, __LINE__, QW_LEVEL_WARNING, 0);
        QWMessage_("!!! Not synced block read = %s", entry.read ? "true" : "false");
      }
    if (!server->syncError.empty()) {
      QWErrorThrow(5, QW_ERROR_CLASS_SYSTEM, "%s", server->syncError.c_str());
      server->syncError.clear();
      return QWErrorRethrow("Could not write data");
    }
  }
  for (QWFILE file : server->fds)
    if (!QWFileSync(file)) return QWErrorRethrow("Could not fsync file");
  return 1;
}

QW_API uint32_t DRBServerBlockCount(DRBServer *server) {
  Lock lock(server->mutex);
  return uint32_t(server->blocks.size());
}

QW_API uint32_t DRBServerMaxLoaded(DRBServer *server) {
  Lock lock(server->mutex);
  return server->maxLoaded;
}

}  // extern "C"
