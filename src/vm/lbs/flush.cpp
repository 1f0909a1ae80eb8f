// Flush and commit of a block server, driven by the arena under its flush
// lock: flush start, flush execute (compaction, padding, the accounting
// check, data and index files), disk commit, memory commit, flush stop; and
// mount and unlink of serialised generations.
//
// Flush states: idle -> started (flushed serials recorded) -> executed (the
// new generation is compacted and written; every block is SHARED of it;
// `flushExecuted`) -> disk-committed -> memory-committed (it is the old
// generation now; `flushExecuted` cleared) -> stopped. A flush stopped after
// the execute but before the memory commit rebuilds the raw id sets from the
// two maps, because the committed generation is still the previous one.
#include <algorithm>
#include <cerrno>
#include <cstring>
#include <functional>
#include <initializer_list>

#include "qwvm/vmarena.h"
#include "vm/lbs/names.h"
#include "vm/lbs/server.h"

namespace qw::vm {
namespace {

using ULL = unsigned long long;
using NewGeneration = LocalBlockServer0::NewGeneration;

void SortDescending(QwArray<uint32_t> &list) { std::sort(list.p, list.p + list.size(), std::greater<uint32_t>()); }

// Batches of changed raw ids for the replication log (record type 9).
class ChangeLog {
 public:
  ChangeLog(ReplicationLog *log, const std::string &path) : log_(log), path_(path) {}
  [[nodiscard]] bool Add(uint32_t raw) {
    if (!log_) return true;
    batch_[count_++] = raw;
    return count_ < REPLICATION_LOG_MAX_LIST || Send();
  }
  [[nodiscard]] bool Send() {
    if (!log_ || count_ == 0) return true;
    const uint32_t count = count_;
    count_ = 0;
    if (ReplicationLogWrite(log_, REPLICATION_FILE_CHANGED, 0, 0, path_.c_str(), batch_, count)) return true;
    return QWErrorRethrow("LocalBlockServer0FlushFileExec: could not log modified blocks");
  }

 private:
  ReplicationLog *log_;
  const std::string &path_;
  uint64_t batch_[REPLICATION_LOG_MAX_LIST];
  uint32_t count_ = 0;
};

// The modified blocks as (raw id << 32 | block id), highest raw id first;
// freed blocks (raw id INVALID_RAW_BLOCK_ID) come first of all.
[[nodiscard]] bool SortModified(NewGeneration *rw_gen, QwArray<uint64_t> *order) {
  if (!order->Init() || !order->Reserve(rw_gen->modifiedBlocks.size())) return false;
  for (size_t i = 0; i < rw_gen->modifiedBlocks.size(); ++i) {
    const uint32_t block = rw_gen->modifiedBlocks[i];
    (void)order->Append(uint64_t(MapEntry(&rw_gen->blockMap, block)) << 32 | block);
  }
  std::sort(order->p, order->p + order->size(), std::greater<uint64_t>());
  return true;
}

// Moves the highest modified blocks down into the lowest free raw blocks, so
// that the data file can end at the highest raw id in use.
[[nodiscard]] bool Compact(LocalBlockServer0 *server, const QwArray<uint64_t> &order, ChangeLog *changes) {
  auto *rw_gen = &server->rwGen;
  rw_gen->freeRawBlocksOldNext.Clear();
  if (!rw_gen->freeRawBlocksOldNext.Reserve(order.size())) return false;
  for (size_t i = 0; i < order.size(); ++i) {
    const uint32_t block = uint32_t(order[i]);
    const uint32_t raw = uint32_t(order[i] >> 32);
    const uint8_t *f = &rw_gen->flags[block];
    qwassert_(BlockIsInMemory(*f));
    if (*f & BLOCK_FLAG_FREED) {
      SetMapEntry(&rw_gen->blockMap, block, INVALID_RAW_BLOCK_ID);
      continue;
    }
    if (rw_gen->freeRawBlocksOld.size() == 0) break;
    const uint32_t lowest = rw_gen->freeRawBlocksOld.Pop();
    if (raw < lowest) {
      (void)rw_gen->freeRawBlocksOld.Append(lowest);  // the room it had
      QWMessage(QW_LEVEL_DEBUG, "flush: put back block %llu", ULL(lowest));
      break;
    }
    if (!CopyRawBlock(server, raw, lowest)) {
      (void)rw_gen->freeRawBlocksOld.Append(lowest);
      return false;
    }
    SetMapEntry(&rw_gen->blockMap, block, lowest);
    (void)rw_gen->freeRawBlocksOldNext.Append(raw);
    QWMessage(QW_LEVEL_DEBUG, "flush: freeing moved block %llu", ULL(raw));
    if (!changes->Add(lowest)) return false;
  }
  return true;
}

[[nodiscard]] bool MergeInto(QwArray<uint32_t> &to, QwArray<uint32_t> &from) {
  if (!to.Reserve(from.size())) return false;
  for (size_t i = 0; i < from.size(); ++i) (void)to.Append(from[i]);
  from.Clear();
  return true;
}

// One past the largest raw id of either map (0 when both are empty).
uint64_t MaxRawId(const LocalBlockServer0 *server) {
  uint64_t top = 0;
  for (const FArray *map : {&server->rwGen.blockMap, &server->oldMap})
    for (uint64_t b = 0; b < FArrayLength(map); ++b) {
      const uint32_t raw = MapEntry(map, b);
      if (raw != INVALID_RAW_BLOCK_ID && raw + uint64_t{1} > top) top = raw + uint64_t{1};
    }
  return top;
}

// Raw ids at or above the limit lie beyond the data file that this flush
// writes.
void DropAboveLimit(NewGeneration *rw_gen, uint64_t maxRawID) {
  size_t keep = 0;
  for (size_t i = 0; i < rw_gen->freeRawBlocksOld.size(); ++i) {
    const uint32_t raw = rw_gen->freeRawBlocksOld[i];
    if (raw < maxRawID)
      rw_gen->freeRawBlocksOld[keep++] = raw;
    else
      QWMessage(QW_LEVEL_DEBUG, "flush: remove block %llu (above limit)", ULL(raw));
  }
  (void)ArrayLengthSet(rw_gen->freeRawBlocksOld.p, keep);
  // The old generation's raw blocks all lie below the limit (I4).
  size_t add = 0;
  for (size_t i = 0; i < rw_gen->freeRawBlocksNew.size(); ++i) {
    const uint32_t raw = rw_gen->freeRawBlocksNew[i];
    if (raw < maxRawID)
      ++add;
    else
      QWMessage(QW_LEVEL_ERROR, "*** invalid rawID in freeRawBlocksNew: rawID=%llu maxRawID=%llu", ULL(raw),
                ULL(maxRawID));
  }
  qwassert_(add == ArrayLength(rw_gen->freeRawBlocksNew));
  QWMessage(QW_LEVEL_DEBUG, "flush exec after: freeRawBlocksNew");
}

// Every raw id below the limit is in use or on exactly one free list; ids on
// none (leaked, for instance by an index written without them) come back.
[[nodiscard]] bool CheckAccounting(LocalBlockServer0 *server, uint64_t maxRawID, uint64_t finalRSize) {
  auto *rw_gen = &server->rwGen;
  uint64_t totCount = 0;
  for (uint64_t b = 0; b < FArrayLength(&rw_gen->blockMap); ++b)
    if (MapEntry(&rw_gen->blockMap, b) != INVALID_RAW_BLOCK_ID) ++totCount;
  const uint64_t freeNew = rw_gen->freeRawBlocksNew.size();
  const uint64_t freeOld = rw_gen->freeRawBlocksOld.size();
  if ((totCount + freeNew + freeOld) * server->blockSize == finalRSize) return true;
  QWMessage(QW_LEVEL_PROGRESS, "VM: Block count must be fixed !");
  QWMessage(QW_LEVEL_PROGRESS, "VM: totCount = %d", int(totCount));
  QWMessage(QW_LEVEL_PROGRESS, "VM: freeNew = %d", int(freeNew));
  QWMessage(QW_LEVEL_PROGRESS, "VM: freeOld = %d", int(freeOld));
  QWMessage(QW_LEVEL_PROGRESS, "VM: finalRSize = %llu", ULL(finalRSize / server->blockSize));
  uint8_t *free = static_cast<uint8_t *>(Allocate(size_t(maxRawID ? maxRawID : 1)));
  if (!free) return false;
  for (uint64_t b = 0; b < FArrayLength(&rw_gen->blockMap); ++b) {
    const uint32_t *rawBid = static_cast<const uint32_t *>(FArrayNth(&rw_gen->blockMap, b));
    if (*rawBid == INVALID_RAW_BLOCK_ID) continue;
    qwassert_(0 == ArrayNth(free, *rawBid));
    free[*rawBid] = 1;
  }
  for (const QwArray<uint32_t> *list : {&rw_gen->freeRawBlocksOld, &rw_gen->freeRawBlocksNew})
    for (size_t i = 0; i < list->size(); ++i) {
      const uint32_t rawBid = (*list)[i];
      qwassert_(0 == ArrayNth(free, rawBid));
      free[rawBid] = 1;
    }
  for (uint64_t b = 0; b < FArrayLength(&server->oldMap); ++b) {
    const uint32_t *rawBid = static_cast<const uint32_t *>(FArrayNth(&server->oldMap, b));
    if (*rawBid != INVALID_RAW_BLOCK_ID) qwassert_(1 == ArrayNth(free, *rawBid));
  }
  bool ok = true;
  for (uint64_t raw = 0; raw < maxRawID && ok; ++raw)
    if (!free[raw]) ok = rw_gen->freeRawBlocksOld.Append(uint32_t(raw));
  UnAllocate(free);
  return ok;
}

void ResetModifiedList(NewGeneration *rw_gen) {
  if (rw_gen->modifiedBlocks.size() > kListShrinkLength) {
    QwArray<uint32_t> fresh;
    if (fresh.Init()) rw_gen->modifiedBlocks.Swap(fresh);
  }
  rw_gen->modifiedBlocks.Clear();
}

// Steps up to the data file: compaction, limits, padding, accounting.
[[nodiscard]] bool FoldNewGeneration(LocalBlockServer0 *server, uint64_t *finalRSizeOut) {
  auto *rw_gen = &server->rwGen;
  SortDescending(rw_gen->freeRawBlocksOld);
  QWMessage(QW_LEVEL_DEBUG, "flush exec start: freeRawBlocksOld");
  QwArray<uint64_t> order;
  if (!SortModified(rw_gen, &order)) return false;
  const std::string dataPath = DataFilePath(server->directory, server->suffix);
  ChangeLog changes(server->log, dataPath);
  for (size_t i = order.size(); i-- > 0;) {
    const uint32_t raw = uint32_t(order[i] >> 32);
    if (raw != INVALID_RAW_BLOCK_ID && !changes.Add(raw)) return false;
  }
  if (!changes.Send() || !Compact(server, order, &changes) || !changes.Send()) return false;
  QWMessage(QW_LEVEL_DEBUG, "flush exec: merging freeRawBlocksOldNext");
  if (!MergeInto(rw_gen->freeRawBlocksOld, rw_gen->freeRawBlocksOldNext)) return false;
  uint64_t maxRawID = MaxRawId(server);
  DropAboveLimit(rw_gen, maxRawID);
  uint64_t finalRSize = maxRawID * server->blockSize;
  if (!rw_gen->freeRawBlocksOld.Reserve(server->fileBlockSize / server->blockSize)) return false;
  while (finalRSize % server->fileBlockSize != 0) {
    (void)rw_gen->freeRawBlocksOld.Append(uint32_t(finalRSize / server->blockSize));
    QWMessage(QW_LEVEL_DEBUG, "flush: adding padding block %llu", ULL(finalRSize / server->blockSize));
    finalRSize += server->blockSize;
    ++maxRawID;
  }
  if (!CheckAccounting(server, maxRawID, finalRSize)) return false;
  SortDescending(rw_gen->freeRawBlocksOld);
  QWMessage(QW_LEVEL_DEBUG, "flush exec after: freeRawBlocksOld");
  ResetModifiedList(rw_gen);
  *finalRSizeOut = finalRSize;
  return true;
}

}  // namespace

int LocalBlockServer0FlushStart(LocalBlockServer0 *server, uint64_t flushedSerialOld, uint64_t flushedSerialNew) {
  qwassert_(!server->readOnly);
  server->committingDisk = false;
  if (flushedSerialOld == STATUS_NO_SERIAL) return 1;
  qwassert_(server->serial_old != STATUS_NO_SERIAL && server->serial_new != STATUS_NO_SERIAL);
  qwassert_(flushedSerialOld > server->serial_old);
  qwassert_(flushedSerialNew > server->serial_new);
  server->flushedSerialOld = flushedSerialOld;
  server->flushedSerialNew = flushedSerialNew;
  return 1;
}

int LocalBlockServer0FlushWrite(LocalBlockServer0 *server, SyncRound *round) {
  qwassert_(!server->readOnly);
  auto *rw_gen = &server->rwGen;
  ScopedMutex lock(rw_gen->mutex);
  server->flushExecuted = true;
  const bool modified = rw_gen->modifiedBlocks.size() != 0;
  uint64_t finalRSize = 0;
  if (!FoldNewGeneration(server, &finalRSize)) return 0;
  // After the commit every block belongs to the committed generation.
  std::memset(rw_gen->flags.p, BLOCK_FLAG_SHARED, rw_gen->flags.size());
  server->rsize = finalRSize;
  MemoryMapping *mapping = &server->mapping;
  if (!MemoryMappingWriteBack(mapping, 0))
    return QWErrorRethrow("LocalBlockServer0FlushFileExec: could not flush mapping");
  round->Add([mapping] { return MemoryMappingSyncFile(mapping) ? 1 : 0; },
             "LocalBlockServer0FlushFileExec: could not flush mapping");
  if (modified) (void)MemoryMappingSetModificationDate(server);
  // Raw blocks that only the previous committed generation used are free once
  // this one is committed; no writer runs until then.
  QWMessage(QW_LEVEL_DEBUG, "commit disk: freeRawBlocksNew");
  if (!MergeInto(rw_gen->freeRawBlocksOld, rw_gen->freeRawBlocksNew)) return 0;
  SortDescending(rw_gen->freeRawBlocksOld);
  if (!IndexFilesWrite(server, round)) return 0;
  // New names are durable only with their directory: the files must exist
  // durably before the arena's `committing` marker says they are complete.
  round->AddDirectory(server->directory, StringPrintf("LocalBlockServer0FlushFileExec: could not sync directory \"%s\"",
                                                      server->directory.c_str()));
  return 1;
}

int LocalBlockServer0FlushFinish(LocalBlockServer0 *server) {
  ScopedMutex lock(server->rwGen.mutex);
  return IndexFilesFinish(server) ? 1 : 0;
}

int LocalBlockServer0FlushFileExec(LocalBlockServer0 *server) {
  SyncRound round;
  return LocalBlockServer0FlushWrite(server, &round) && round.Run() && LocalBlockServer0FlushFinish(server);
}

int LocalBlockServer0CommitDisk(LocalBlockServer0 *server, bool durable) {
  server->committingDisk = true;
  const char *directory = server->directory.c_str();
  const char *suffix = server->suffix.c_str();
  if (server->flushedSerialOld == STATUS_NO_SERIAL && !IndexFileCommitOld(directory, suffix, durable)) return 0;
  if (server->flushedSerialNew == STATUS_NO_SERIAL && !IndexFileCommitNew(directory, suffix, durable)) return 0;
  return 1;
}

int LocalBlockServer0CommitMemory(LocalBlockServer0 *server) {
  qwassert_(!server->readOnly || server->mounted);
  ScopedMutex lock(server->rwGen.mutex);
  // Only a flush execute or a mount prepares a generation to install.
  if (!server->flushExecuted && !server->mounted) return 1;
  MemoryMapping *mapping = &server->mapping;
  // Cached pages are all below the committed size, and only this process
  // wrote them: they stay valid unless the file shrinks or another process
  // wrote the generation.
  const bool invalidate = server->mounted || server->rsize < mapping->rsize;
  if (!MemoryMappingRemapWrite(mapping, server->rsize) || !MemoryMappingRemapRead(mapping, invalidate)) return 0;
  std::swap(server->oldMap, server->oldMapNext);
  (void)FArrayLengthSet_(&server->oldMapNext, 0);
  if (server->flushedSerialOld != STATUS_NO_SERIAL) {
    server->serial_old = server->flushedSerialOld;
    server->serial_new = server->flushedSerialNew;
  }
  server->flushedSerialOld = STATUS_NO_SERIAL;
  server->flushedSerialNew = STATUS_NO_SERIAL;
  server->mounted = false;
  server->flushExecuted = false;
  return 1;
}

void LocalBlockServer0FlushStop(LocalBlockServer0 *server) {
  qwassert_(!server->readOnly);
  ScopedMutex lock(server->rwGen.mutex);
  // Index files of a flush that failed before they were finished.
  QWErrorSave();
  IndexFilesAbandon(server);
  QWErrorRestore();
  if (server->flushExecuted && !RebuildAfterFailedFlush(server))
    QWMessage(QW_LEVEL_ERROR, "LocalBlockServer0FlushStop: could not rebuild the free lists of \"%s/data%s\": %s",
              server->directory.c_str(), server->suffix.c_str(), QWErrorMessage());
  server->flushedSerialOld = STATUS_NO_SERIAL;
  server->flushedSerialNew = STATUS_NO_SERIAL;
}

bool RebuildAfterFailedFlush(LocalBlockServer0 *server) {
  auto *rw_gen = &server->rwGen;
  const uint32_t rawLimit = MemoryMappingRawLimit(&server->mapping);
  uint8_t *marks = static_cast<uint8_t *>(Allocate(rawLimit ? rawLimit : 1));
  if (!marks) return false;
  constexpr uint8_t kNew = 1, kOld = 2;
  for (const auto &[map, mark] : {std::pair{&rw_gen->blockMap, kNew}, std::pair{&server->oldMap, kOld}})
    for (uint64_t b = 0; b < FArrayLength(map); ++b) {
      const uint32_t raw = MapEntry(map, b);
      if (raw < rawLimit) marks[raw] |= mark;
    }
  QwArray<uint32_t> freeOld, freeNew;
  bool ok = freeOld.Init() && freeNew.Init();
  for (uint32_t raw = rawLimit; ok && raw-- > 0;) {
    if (marks[raw] == 0) ok = freeOld.Append(raw);
    if (marks[raw] == kOld) ok = ok && freeNew.Append(raw);
  }
  rw_gen->modifiedBlocks.Clear();
  for (uint64_t b = 0; ok && b < FArrayLength(&rw_gen->blockMap); ++b) {
    const uint32_t raw = MapEntry(&rw_gen->blockMap, b);
    const bool shared = raw == INVALID_RAW_BLOCK_ID || (raw < rawLimit && (marks[raw] & kOld));
    rw_gen->flags[b] = shared ? BLOCK_FLAG_SHARED : BLOCK_FLAG_COPIED;
    if (!shared) ok = rw_gen->modifiedBlocks.Append(uint32_t(b));
  }
  UnAllocate(marks);
  if (!ok) return false;
  rw_gen->freeRawBlocksOld.Swap(freeOld);
  rw_gen->freeRawBlocksNew.Swap(freeNew);
  rw_gen->freeRawBlocksOldNext.Clear();
  server->rsize = server->mapping.rsize;
  (void)FArrayLengthSet_(&server->oldMapNext, 0);
  server->flushExecuted = false;
  return true;
}

int LocalBlockServer0Mount(LocalBlockServer0 *server, uint64_t oldSerial, uint64_t newSerial) {
  qwassert_(server->serial_old != STATUS_NO_SERIAL && server->serial_new != STATUS_NO_SERIAL);
  GenerationImage image;
  if (!image.Init() || !ReadGeneration(server, oldSerial, newSerial, true, &image) ||
      !InstallGeneration(server, &image, true))
    return 0;
  server->flushedSerialOld = oldSerial;
  server->flushedSerialNew = newSerial;
  server->mounted = true;
  return 1;
}

int LocalBlockServer0UnlinkGeneration(LocalBlockServer0 *server, uint64_t oldSerial, uint64_t newSerial) {
  if (oldSerial == STATUS_NO_SERIAL || newSerial == STATUS_NO_SERIAL || oldSerial == server->serial_old ||
      newSerial == server->serial_new)
    return QWErrorThrow(EINVAL, QW_ERROR_CLASS_GENERAL,
                        "cannot remove generation (%llu, %llu) of \"%s\": not a past serialised generation",
                        ULL(oldSerial), ULL(newSerial), server->directory.c_str());
  int result = 1;
  for (const std::string &path : {IndexFilePath(server->directory, server->suffix, ".new", newSerial),
                                  IndexFilePath(server->directory, server->suffix, ".old", oldSerial)}) {
    if (!FileExists(path.c_str())) continue;
    if (!FileRemove(path.c_str())) {
      QWErrorRethrow("unable to remove file \"%s\"", path.c_str());
      result = 0;
      continue;
    }
    if (server->log && !ReplicationLogWrite(server->log, REPLICATION_FILE_REMOVED, 0, 0, path.c_str(), nullptr, 0)) {
      QWErrorRethrow("cannot log file removal \"%s\"", path.c_str());
      result = 0;
    }
  }
  return result;
}

}  // namespace qw::vm
