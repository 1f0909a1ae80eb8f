// Run block server: block access, write-back and read-ahead.
//
// Readers map the block's file range read-only and share the map; a writer
// gets one buffer of the write pool (at most `poolLimit` exist, so a second
// writer waits until the sync thread has written the first block back).
// Release queues a written block for the sync thread; the block stays in
// the table with its buffer until written, and an acquire of it waits. A
// block whose write-back failed is refused to readers (and to loading
// writers) with that failure until a writer takes it without loading.
#include <cinttypes>
#include <vector>

#include "vm/sort/drbs_internal.h"

#ifndef FALSE
#define FALSE 0
#endif

using qw::sort::BlockEntry;
using qw::sort::Lock;

namespace {

bool UnknownBlock(DRBServer *server, uint32_t block) {
  return QWErrorThrow(22, QW_ERROR_CLASS_GENERAL, "run block server \"%s\": block %u was never handed out",
                      server->directory.c_str(), block);
}

// Called with the server mutex held; drops it while waiting for a buffer.
uint8_t *TakeBuffer(DRBServer *server) {
  for (;;) {
    if (!server->pool.empty()) {
      uint8_t *buffer = server->pool.back();
      server->pool.pop_back();
      return buffer;
    }
    if (server->poolAllocated < server->poolLimit) {
      auto *buffer = static_cast<uint8_t *>(Allocate(server->blockSize));
      if (buffer) ++server->poolAllocated;
      return buffer;
    }
    ConditionWait(server->changed, server->mutex);
  }
}

// Loads block `block` (free in the table) for reading or writing. Called
// with the server mutex held.
uint8_t *Load(DRBServer *server, uint32_t block, bool read, bool load) {
  const qw::sort::BlockPlace place = server->Place(block);
  QWFILE file = server->fds[place.file];
  if (!read) {
    uint8_t *buffer = TakeBuffer(server);
    if (!buffer) return nullptr;
    if (load && !DRBServerDataRead(file, place.offset, buffer, server->blockSize)) {
      server->pool.push_back(buffer);
      QWErrorRethrow("Could not read data");
      return nullptr;
    }
    return buffer;
  }
  void *map = FileMapSegment(file, place.offset, server->blockSize, QW_MAP_READ);
  if (!map) {
    QWErrorRethrow("Could not map data");
    return nullptr;
  }
  (void)MemoryAdvise(map, server->blockSize, 1);
  MemoryLoad(map, server->blockSize);
  return static_cast<uint8_t *>(map);
}

// Waits, 1000 ms at a time so that a stop is seen within a second, for the
// next queued block. False once the server stops; with `drain` the queue is
// emptied first (written blocks are not dropped), without it at once.
bool NextQueued(DRBServer *server, QWMutex *mutex, QWCondition *condition, std::deque<uint32_t> *queue, bool drain,
                uint32_t *block) {
  Lock lock(mutex);
  while (queue->empty() && !server->stop) ConditionTimedWait(condition, mutex, 1000);
  if (server->stop && (!drain || queue->empty())) return false;
  *block = queue->front();
  queue->pop_front();
  return true;
}

}  // namespace

namespace qw::sort {

void *SyncThreadMain(void *argument) {
  auto *server = static_cast<DRBServer *>(argument);
  for (;;) {
    uint32_t block = 0;
    if (!NextQueued(server, server->syncMutex, server->syncCondition, &server->syncQueue, true, &block)) return nullptr;
    uint8_t *data = nullptr;
    {
      Lock lock(server->mutex);
      data = server->blocks[block].address;
    }
    qwassert_(data != NULL);
    const BlockPlace place = server->Place(block);
    const bool ok = DRBServerDataWrite(server->fds[place.file], place.offset, data, server->blockSize);
    Lock lock(server->mutex);
    if (!ok) {
      if (server->syncError.empty()) server->syncError = QWErrorMessage();
      server->lost[block] = QWErrorMessage();
      QWErrorClear();
    }
    server->blocks[block].address = nullptr;
    server->pool.push_back(data);
    --server->loaded;
    --server->inFlight;
    ConditionBroadcast(server->changed);
  }
}

void *PrefetchThreadMain(void *argument) {
  auto *server = static_cast<DRBServer *>(argument);
  for (;;) {
    uint32_t block = 0;
    if (!NextQueued(server, server->prefetchMutex, server->prefetchCondition, &server->prefetchQueue, false, &block))
      return nullptr;
    const BlockPlace place = server->Place(block);
    if (!DRBServerDataPrefetch(server->fds[place.file], place.offset, server->blockSize)) {
      QWSetMessageContext_(__FILE__, __LINE__, QW_LEVEL_WARNING, 0);
      QWMessage_("Could not prefetch data");
      QWErrorClear();
    }
  }
}

}  // namespace qw::sort

extern "C" {

QW_API DRBServerBlockHandle *DRBServerBlockAcquire(DRBServerBlockHandle *handle, DRBServer *server, uint32_t block,
                                                   int read, int load) {
  Lock lock(server->mutex);
  if (block >= server->blocks.size()) {
    UnknownBlock(server, block);
    return nullptr;
  }
  for (;;) {
    BlockEntry &entry = server->blocks[block];
    if (entry.address && !entry.read && entry.count == 0) {  // queued for write-back
      ConditionWait(server->changed, server->mutex);
      continue;
    }
    if (const auto lost = server->lost.find(block); lost != server->lost.end()) {
      if (read || load) {
        QWErrorThrow(5, QW_ERROR_CLASS_SYSTEM, "run block server \"%s\": block %u was not written back: %s",
                     server->directory.c_str(), block, lost->second.c_str());
        return nullptr;
      }
      if (!entry.address) server->lost.erase(lost);  // written anew: the old bytes no longer matter
    }
    if (entry.address) {
      if (!read || !entry.read) {
        QWSetMessageContext_(__FILE__, __LINE__, QW_LEVEL_ERROR, 0);
        QWMessage_("BAD on %d mode = %s block mode = %s", int(block), read ? "read" : "write",
                   entry.read ? "read" : "write");
        qwassert_(FALSE);
      }
      break;
    }
    uint8_t *address = Load(server, block, read != 0, load != 0);
    if (!address) return nullptr;
    BlockEntry &loaded = server->blocks[block];  // the table may have grown while waiting
    if (loaded.address) {                        // someone loaded it meanwhile: start over
      if (read) (void)FileUnmap(address, server->blockSize);
      else server->pool.push_back(address);
      continue;
    }
    loaded.address = address;
    loaded.read = read != 0;
    loaded.count = 0;
    if (++server->loaded > server->maxLoaded) server->maxLoaded = server->loaded;
    break;
  }
  BlockEntry &entry = server->blocks[block];
  ++entry.count;
  *handle = DRBServerBlockHandle{block, read, entry.address};
  return handle;
}

QW_API int DRBServerBlockRelease(DRBServer *server, uint32_t block, int read, void *address) {
  (void)read;
  Lock lock(server->mutex);
  if (block >= server->blocks.size()) return UnknownBlock(server, block);
  BlockEntry &entry = server->blocks[block];
  qwassert_(entry.count > 0 && entry.address == address);
  if (--entry.count > 0) {
    if (!entry.read) QWAssertFail_("block.read", __FILE__, __LINE__);
    return 1;
  }
  if (!entry.read) {
    ++server->inFlight;
    Lock queue(server->syncMutex);
    server->syncQueue.push_back(block);
    ConditionSignal(server->syncCondition);
    return 1;
  }
  entry.address = nullptr;
  --server->loaded;
  if (!FileUnmap(address, server->blockSize)) return QWErrorRethrow("Could not unmap data");
  return 1;
}

QW_API void DRBServerSetWriteBufferLimit(DRBServer *server, uint32_t limit) {
  Lock lock(server->mutex);
  server->poolLimit = limit > 0 ? limit : 1;
  ConditionBroadcast(server->changed);
}

QW_API void DRBServerBlockPrefetch(DRBServer *server, uint32_t block) {
  Lock lock(server->prefetchMutex);
  server->prefetchQueue.push_back(block);
  ConditionSignal(server->prefetchCondition);
}

QW_API int DRBServerDataRead(QWFILE file, uint64_t offset, void *buffer, size_t size) {
  size_t n1 = 0;
  if (!QWFileReadData(file, offset, buffer, size, &n1)) return QWErrorRethrow("error reading box data file");
  if (n1 < size)
    return QWErrorThrow(74, QW_ERROR_CLASS_DATA, "n1 > 0 && (size_t) n1 < size: %zu of %zu bytes at %" PRIu64 " in %s",
                        n1, size, offset, QWFileGetPath(file));
  return 1;
}

QW_API int DRBServerDataWrite(QWFILE file, uint64_t offset, const void *buffer, size_t size) {
  if (!QWFileWriteData(file, offset, buffer, size)) return QWErrorRethrow("error writing box data file");
  return 1;
}

QW_API int DRBServerDataPrefetch(QWFILE file, uint64_t offset, size_t size) {
  // Reading the range into a scratch buffer brings it into the system's
  // file cache, where the reader's map finds it.
  thread_local std::vector<uint8_t> scratch;
  if (scratch.size() < size) scratch.resize(size);
  size_t n1 = 0;
  if (!QWFileReadData(file, offset, scratch.data(), size, &n1)) return QWErrorRethrow("error prefetch data file");
  return 1;
}

}  // extern "C"
