// The local block server: open (creating the files of a new server), close,
// and the block operations of the new generation: allocation, free, and raw
// ids for reading and for writing, with copy-on-write of blocks that the
// committed generation still uses. Invariants I1-I4 are stated in server.h.
#include "vm/lbs/server.h"

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <memory>
#include <new>

#include "qwvm/vmarena.h"
#include "vm/lbs/names.h"

using namespace qw::vm;

namespace qw::vm {

bool InitBlockMap(FArray *map) { return FArrayInit_(map, sizeof(uint32_t), kBlockMapChunk, nullptr) != 0; }

GenerationImage::~GenerationImage() {
  (void)FArrayFree(&blockMap);
  (void)FArrayFree(&oldMap);
}

bool GenerationImage::Init() {
  return InitBlockMap(&blockMap) && InitBlockMap(&oldMap) && flags.Init() && freeRawBlocksOld.Init() &&
         freeRawBlocksNew.Init() && freeBlocks.Init() && modifiedBlocks.Init();
}

uint32_t RawBlockAlloc(LocalBlockServer0 *server) {
  qwassert_(!server->readOnly);
  auto *rw_gen = &server->rwGen;
  if (rw_gen->freeRawBlocksOld.size() > 0) return rw_gen->freeRawBlocksOld.Pop();
  const uint32_t raw = MemoryMappingRawAllocRW(&server->mapping);
  if (raw == INVALID_RAW_BLOCK_ID) QWMessage(QW_LEVEL_ERROR, "MemoryMappingRawEnsureRWCapacity failed");
  return raw;
}

bool CopyRawBlock(LocalBlockServer0 *server, uint32_t from, uint32_t to) {
  MemoryMapping *mapping = &server->mapping;
  void *source = MemoryMappingRawBlockGet(mapping, from, false);
  if (!source) return false;
  void *target = MemoryMappingRawBlockGet(mapping, to, true);
  if (!target) {
    QWErrorSave();
    MemoryMappingRawBlockRelease(mapping, source, 0, 0, 0);
    QWErrorRestore();
    return false;
  }
  std::memcpy(target, source, server->blockSize);
  MemoryMappingRawBlockFilled(mapping, target);
  MemoryMappingRawBlockRelease(mapping, source, 0, 0, 0);
  MemoryMappingRawBlockRelease(mapping, target, 1, 0, 0);
  return true;
}

}  // namespace qw::vm

LocalBlockServer0::~LocalBlockServer0() {
  QWErrorSave();
  qw::vm::IndexFilesAbandon(this);
  QWErrorRestore();
  (void)FArrayFree(&rwGen.blockMap);
  (void)FArrayFree(&oldMap);
  (void)FArrayFree(&oldMapNext);
  if (rwGen.mutex) MutexDestroy(rwGen.mutex);
}

namespace {

struct ServerSettings {
  const char *directory;
  const char *suffix;
  uint32_t flags;
  uint32_t blockSize;
  uint32_t fileBlockSize;
  uint32_t minBlockCount;
  ReplicationLog *log;
  PageCache *cache;
};

std::unique_ptr<LocalBlockServer0> NewServer(const ServerSettings &settings) {
  std::unique_ptr<LocalBlockServer0> server;
  try {
    server = std::make_unique<LocalBlockServer0>();
    server->directory = settings.directory;
    server->suffix = settings.suffix;
  } catch (const std::bad_alloc &) {
    QWErrorThrow(ENOMEM, QW_ERROR_CLASS_SYSTEM, "LocalBlockServer0Open_: out of memory");
    return nullptr;
  }
  server->blockSize = settings.blockSize;
  server->fileBlockSize = settings.fileBlockSize;
  server->minBlockCount = settings.minBlockCount;
  server->log = settings.log;
  server->cache = settings.cache;
  server->flags = settings.flags;
  server->readOnly = (settings.flags & VM_FLAG_READ_ONLY) != 0;
  server->mapped = (settings.flags & VM_FLAG_MAPPED) != 0;
  auto *rw_gen = &server->rwGen;
  if (!MutexInit_(&rw_gen->mutex) || !InitBlockMap(&rw_gen->blockMap) || !InitBlockMap(&server->oldMap) ||
      !InitBlockMap(&server->oldMapNext) || !rw_gen->flags.Init() || !rw_gen->freeRawBlocksOld.Init() ||
      !rw_gen->freeRawBlocksNew.Init() || !rw_gen->freeBlocks.Init() || !rw_gen->modifiedBlocks.Init() ||
      !rw_gen->freeRawBlocksOldNext.Init())
    return nullptr;
  return server;
}

// A server is created only where none was: no committed new index, and
// none set aside by an interrupted commit (checked before any recovery runs,
// since recovery would promote what an interrupted creation left behind).
// Only the generation that a creation writes qualifies.
bool NeverCreated(const ServerSettings &settings, uint64_t oldSerial, uint64_t newSerial) {
  const bool unserialised = oldSerial == STATUS_NO_SERIAL && newSerial == STATUS_NO_SERIAL;
  if (!unserialised && (oldSerial != 0 || newSerial != 0)) return false;
  const std::string committed = IndexFilePath(settings.directory, settings.suffix, ".new", newSerial);
  if (FileExists(committed.c_str())) return false;
  return !unserialised || !FileExists((committed + ".old").c_str());
}

uint64_t MapUsage(const FArray *map, uint64_t *used) {
  uint64_t top = 0;
  *used = 0;
  for (uint64_t b = 0; b < FArrayLength(map); ++b) {
    const uint32_t raw = MapEntry(map, b);
    if (raw == INVALID_RAW_BLOCK_ID) continue;
    ++*used;
    if (raw + uint64_t{1} > top) top = raw + uint64_t{1};
  }
  return top;
}

}  // namespace

namespace qw::vm {

LocalBlockServer0 *LocalBlockServer0Open_(const char *directory, const char *suffix, uint32_t flags, uint32_t blockSize,
                                          uint32_t fileBlockSize, uint32_t minBlockCount, uint64_t oldSerial,
                                          uint64_t newSerial, ReplicationLog *replicationLog, PageCache *cache) {
  qwassert_((blockSize * minBlockCount) % fileBlockSize == 0);
  ReplicationLog *log = replicationLog;
  if (log) {
    using UInt = uint32_t;
    // clang-format off: the expression is also the assertion's message
    qwassert_(ReplicationLogGetBlockSize(log) == (UInt) blockSize);
    // clang-format on
  }
  const ServerSettings settings{directory, suffix, flags, blockSize, fileBlockSize, minBlockCount, log, cache};
  const bool mayCreate = !(flags & VM_FLAG_READ_ONLY) && NeverCreated(settings, oldSerial, newSerial);
  if (flags & VM_FLAG_RECOVER) {
    qwassert_(oldSerial == STATUS_NO_SERIAL && newSerial == STATUS_NO_SERIAL);
    if (!IndexFileCommitNew(directory, suffix)) {
      QWErrorRethrow("LocalBlockServer0Open_: could not read block server in \"%s%s\"", directory, suffix);
      return nullptr;
    }
  }
  std::unique_ptr<LocalBlockServer0> server;
  auto read = [&]() {
    server = NewServer(settings);
    if (!server) return false;
    GenerationImage image;
    return image.Init() && ReadGeneration(server.get(), oldSerial, newSerial, false, &image) &&
           InstallGeneration(server.get(), &image, false);
  };
  if (!read()) {
    if (!mayCreate) {
      QWErrorRethrow("LocalBlockServer0Open_: could not read block server in \"%s\" with suffix \"%s\"", directory,
                     suffix);
      return nullptr;
    }
    QWErrorClear();
    server.reset();
    const uint64_t serial = oldSerial == STATUS_NO_SERIAL ? STATUS_NO_SERIAL : 0;
    if (!LocalBlockServer0InitialCreate(directory, suffix, serial, blockSize, log)) {
      QWErrorRethrow("LocalBlockServer0Open_: could not create block server in \"%s\" with suffix \"%s\"", directory,
                     suffix);
      return nullptr;
    }
    if (!read()) {
      QWErrorRethrow("LocalBlockServer0Open_: could not read block server in \"%s%s\"", directory, suffix);
      return nullptr;
    }
  }
  server->serial_old = oldSerial;
  server->serial_new = newSerial;
  server->flushedSerialOld = STATUS_NO_SERIAL;
  server->flushedSerialNew = STATUS_NO_SERIAL;
  return server.release();
}

int LocalBlockServer0Close(LocalBlockServer0 *server) {
  if (!server) return 1;
  std::unique_ptr<LocalBlockServer0> owned(server);
  return MemoryMappingFree(&server->mapping) ? 1 : 0;
}

uint32_t LocalBlockServer0BlockNew(LocalBlockServer0 *server, uint32_t /*argument*/) {
  auto *rw_gen = &server->rwGen;
  ScopedMutex lock(rw_gen->mutex);
  const uint64_t count = FArrayLength(&rw_gen->blockMap);
  const bool reuse = rw_gen->freeBlocks.size() > 0;
  if (!reuse && count >= INVALID_BLOCK_ID) {
    QWErrorThrow(ENOSPC, QW_ERROR_CLASS_SYSTEM, "Cannot create new logical block: no block id is left");
    return INVALID_BLOCK_ID;
  }
  // Every append below must succeed once the raw block is taken.
  if (!rw_gen->modifiedBlocks.Reserve(1) || !rw_gen->freeRawBlocksOld.Reserve(1) ||
      (!reuse && !rw_gen->flags.Reserve(1)))
    return INVALID_BLOCK_ID;
  const uint32_t raw = RawBlockAlloc(server);
  if (raw == INVALID_RAW_BLOCK_ID) {
    QWErrorRethrow("Cannot create new logical block: out of memory");
    return INVALID_BLOCK_ID;
  }
  uint32_t blockId;
  if (reuse) {
    blockId = rw_gen->freeBlocks.Pop();
  } else {
    if (!AppendMapEntry(&rw_gen->blockMap, raw)) {
      (void)rw_gen->freeRawBlocksOld.Append(raw);
      return INVALID_BLOCK_ID;
    }
    (void)rw_gen->flags.Append(0);
    blockId = uint32_t(count);
    QWMessage(QW_LEVEL_DEBUG, ">>> allocated a new block: %u", blockId);
  }
  SetMapEntry(&rw_gen->blockMap, blockId, raw);
  uint8_t *f = &rw_gen->flags[blockId];
  if (!(*f & BLOCK_FLAG_COPIED)) (void)rw_gen->modifiedBlocks.Append(blockId);
  *f = BLOCK_FLAG_COPIED;
  QWMessage(QW_LEVEL_DEBUG, ">>> new block: %u [%u]", blockId, raw);
  return blockId;
}

void LocalBlockServer0BlockFree(LocalBlockServer0 *server, uint32_t blockId) {
  auto *rw_gen = &server->rwGen;
  ScopedMutex lock(rw_gen->mutex);
  qwassert_(!server->readOnly);
  if (blockId >= FArrayLength(&rw_gen->blockMap) || MapEntry(&rw_gen->blockMap, blockId) == INVALID_RAW_BLOCK_ID) {
    QWMessage(QW_LEVEL_WARNING, "LocalBlockServer0BlockFree: block %u of \"%s/data%s\" is not allocated", blockId,
              server->directory.c_str(), server->suffix.c_str());
    return;
  }
  uint8_t *f = &rw_gen->flags[blockId];
  // The old generation may still read a shared block's raw block: it is free
  // only after the next commit.
  QwArray<uint32_t> &rawList = (*f & BLOCK_FLAG_SHARED) ? rw_gen->freeRawBlocksNew : rw_gen->freeRawBlocksOld;
  if (!rw_gen->freeBlocks.Reserve(1) || !rawList.Reserve(1)) {
    QWMessage(QW_LEVEL_ERROR, "LocalBlockServer0BlockFree: could not free block %u: %s", blockId, QWErrorMessage());
    return;
  }
  (void)rw_gen->freeBlocks.Append(blockId);
  (void)rawList.Append(MapEntry(&rw_gen->blockMap, blockId));
  SetMapEntry(&rw_gen->blockMap, blockId, INVALID_RAW_BLOCK_ID);
  *f |= BLOCK_FLAG_FREED;
}

uint32_t LocalBlockServer0RawIdRead(LocalBlockServer0 *server, uint32_t blockId, uint32_t generation) {
  if (generation == OLDGEN)
    return blockId < FArrayLength(&server->oldMap) ? MapEntry(&server->oldMap, blockId) : INVALID_RAW_BLOCK_ID;
  qwassert_(generation == NEWGEN);
  const void *entry = qw::FArrayNthConcurrent(&server->rwGen.blockMap, blockId);
  return entry ? __atomic_load_n(static_cast<const uint32_t *>(entry), __ATOMIC_RELAXED) : INVALID_RAW_BLOCK_ID;
}

uint32_t LocalBlockServer0RawIdWrite(LocalBlockServer0 *server, uint32_t blockId) {
  auto *rw_gen = &server->rwGen;
  // A block in the read-write part was written in this generation (a shared
  // block maps to a raw block of the old map, all below rawBase): it is
  // written in place, which needs no lock.
  const uint32_t current = LocalBlockServer0RawIdRead(server, blockId, NEWGEN);
  if (current != INVALID_RAW_BLOCK_ID && current >= server->mapping.rawBase) {
    qwassert_(!server->readOnly);
    return current;
  }
  ScopedMutex lock(rw_gen->mutex);
  if (blockId >= FArrayLength(&rw_gen->blockMap)) return INVALID_RAW_BLOCK_ID;
  const uint32_t raw = MapEntry(&rw_gen->blockMap, blockId);
  qwassert_(!server->readOnly);
  uint8_t *f = &rw_gen->flags[blockId];
  if (!(*f & BLOCK_FLAG_SHARED) || raw == INVALID_RAW_BLOCK_ID) return raw;
  if (!rw_gen->freeRawBlocksNew.Reserve(1) || !rw_gen->modifiedBlocks.Reserve(1) ||
      !rw_gen->freeRawBlocksOld.Reserve(1))
    return INVALID_RAW_BLOCK_ID;
  const uint32_t fresh = RawBlockAlloc(server);
  if (fresh == INVALID_RAW_BLOCK_ID) return INVALID_RAW_BLOCK_ID;
  if (!CopyRawBlock(server, raw, fresh)) {
    (void)rw_gen->freeRawBlocksOld.Append(fresh);
    return INVALID_RAW_BLOCK_ID;
  }
  SetMapEntry(&rw_gen->blockMap, blockId, fresh);
  (void)rw_gen->freeRawBlocksNew.Append(raw);
  if (!(*f & BLOCK_FLAG_COPIED)) (void)rw_gen->modifiedBlocks.Append(blockId);
  *f = BLOCK_FLAG_COPIED;
  return fresh;
}

void *LocalBlockServer0RawBlockGet(LocalBlockServer0 *server, uint32_t rawId, uint32_t within) {
  return MemoryMappingRawBlockGet(&server->mapping, rawId, false, within);
}

void LocalBlockServer0RawBlockRelease(LocalBlockServer0 *server, void *address, int dirty, int keep, int keepLong) {
  MemoryMappingRawBlockRelease(&server->mapping, address, dirty, keep, keepLong);
}

int LocalBlockServer0RawBlockPrefetch(LocalBlockServer0 *server, uint32_t rawId) {
  return MemoryMappingRawBlockPrefetch(&server->mapping, rawId) ? 1 : 0;
}

int LocalBlockServer0MappingWriteBack(LocalBlockServer0 *server) {
  if (MemoryMappingWriteBack(&server->mapping, 1)) return 1;
  return QWErrorRethrow("LocalBlockServer0MappingFlush: could not flush \"%s/data%s\"", server->directory.c_str(),
                        server->suffix.c_str());
}

int LocalBlockServer0MappingFlush(LocalBlockServer0 *server, int mode) {
  if (MemoryMappingFlush(&server->mapping, mode)) return 1;
  return QWErrorRethrow("LocalBlockServer0MappingFlush: could not flush \"%s/data%s\"", server->directory.c_str(),
                        server->suffix.c_str());
}

int LocalBlockServer0MemoryAdvise(LocalBlockServer0 *server, int advice) {
  return MemoryMappingAdvise(&server->mapping, advice) ? 1 : 0;
}

int LocalBlockServer0MSync(LocalBlockServer0 *server) { return MemoryMappingMSync(&server->mapping) ? 1 : 0; }

uint32_t LocalBlockServer0BlockCount(LocalBlockServer0 *server) {
  ScopedMutex lock(server->rwGen.mutex);
  return uint32_t(FArrayLength(&server->rwGen.blockMap));
}

uint32_t LocalBlockServer0OldBlockCount(LocalBlockServer0 *server) { return uint32_t(FArrayLength(&server->oldMap)); }

int LocalBlockServer0IsMapped(LocalBlockServer0 *server) { return server->mapped ? 1 : 0; }

}  // namespace qw::vm

extern "C" {

QW_API void LocalBlockServer0StatPrint(LocalBlockServer0 *server) {
  auto *rw_gen = &server->rwGen;
  ScopedMutex lock(rw_gen->mutex);
  uint64_t used = 0;
  const uint64_t top = MapUsage(&rw_gen->blockMap, &used);
  std::printf("freeRawBlock old = %d, new = %d, freeBlock = %d\n", int(rw_gen->freeRawBlocksOld.size()),
              int(rw_gen->freeRawBlocksNew.size()), int(rw_gen->freeBlocks.size()));
  std::printf("max used raw id %d\n", int(top) - 1);
  std::printf("used raw blocks = %d, total raw block = %d\n", int(used), int(MemoryMappingRawLimit(&server->mapping)));
}

// Modification dates of data files are the file system's own.
QW_API int MemoryMappingSetModificationDate(LocalBlockServer0 * /*server*/) { return 1; }

}  // extern "C"
