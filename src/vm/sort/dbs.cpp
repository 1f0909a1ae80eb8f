// Run sorter: open, close, commit, run ids, forwarding to the block server,
// and the printed summary. The record and its invariants are described in
// dbs_internal.h.
#include <cinttypes>
#include <cstdio>
#include <functional>

#include "qwvm/qwlog.h"
#include "vm/sort/dbs_internal.h"

using qw::sort::Lock;
using qw::sort::RunRecord;

namespace qw::sort {

RunRecord *Run(DBSorter *dbs, uint32_t runIndex) {
  Lock lock(dbs->mutex);
  if (!(runIndex < dbs->runs.size())) QWAssertFail_("runIndex < RArrayLength(dbs->runs)", __FILE__, __LINE__);
  return dbs->runs[runIndex].get();
}

bool OpenRun(DBSorter *dbs, uint32_t runIndex) {
  if (runIndex < dbs->runs.size() && dbs->runs[runIndex]) return true;
  auto run = std::make_unique<RunRecord>();
  char name[262];
  std::snprintf(name, sizeof name, "%s%d", "block", int(runIndex));
  if (!run->block.Open(dbs->arena, kDbsBase, name)) return QWErrorRethrow("cannot open the blocks of run %u", runIndex);
  if (dbs->runs.size() <= runIndex) dbs->runs.resize(size_t(runIndex) + 1);
  dbs->runs[runIndex] = std::move(run);
  return true;
}

int Failed(DBSorter *dbs) {
  dbs->failed = true;
  return 0;
}

uint64_t RunLength(DBSorter *dbs, uint32_t runIndex) {
  Lock lock(dbs->mutex);
  uint64_t length = 0;
  if (runIndex >= dbs->runLength.Length() || !dbs->runLength.Get(runIndex, &length)) return 0;
  return length;
}

bool SetRunLength(DBSorter *dbs, uint32_t runIndex, uint64_t length) {
  Lock lock(dbs->mutex);
  return dbs->runLength.Set(runIndex, length);
}

}  // namespace qw::sort

namespace {

using namespace qw::sort;

// Fills the parameters a new sorter lacks and reads back the stored ones.
bool OpenParams(DBSorter *dbs, uint32_t *fileCount, uint32_t *blockSize, bool *added) {
  if (!dbs->params.Open(dbs->arena, kDbsBase, "params")) return false;
  const uint32_t defaults[3] = {0, *blockSize, *fileCount};
  const uint32_t have = dbs->params.Length();
  if (have < 3 && !dbs->readOnly) {
    if (!dbs->params.Append(defaults + have, 3 - have)) return false;
    *added = true;
  }
  const uint32_t length = dbs->params.Length();
  if (!(1 < length)) QWAssertFail_("1 < __upBound__", __FILE__, __LINE__);
  if (!dbs->params.Get(1, blockSize)) return false;
  if (!(2 < length)) QWAssertFail_("2 < __upBound__", __FILE__, __LINE__);
  return dbs->params.Get(2, fileCount);
}

bool OpenRest(DBSorter *dbs, uint32_t fileCount) {
  if (!dbs->freeList.Open(dbs->arena, kDbsBase, "freeList") || !dbs->runLength.Open(dbs->arena, kDbsBase, "runLength") ||
      !dbs->runMergePos.Open(dbs->arena, kDbsBase, "runMergePos"))
    return false;
  for (uint32_t i = 0, n = dbs->runLength.Length(); i < n; ++i)
    if (!OpenRun(dbs, i)) return false;
  uint8_t *pathBuffer = nullptr;
  int created = 1;
  dbs->runMergeData = LDBArrayNew(dbs->arena, &pathBuffer, "runMergeData", &created, 0, 1);
  ArrayFree(pathBuffer);
  if (!dbs->runMergeData || !(dbs->threadData = LDBArrayThreadDataNew())) return false;
  const std::string data = dbs->directory + "/data";
  dbs->server = DRBServerNew(data.c_str(), dbs->arena, dbs->blockSize, fileCount, 1, 1, dbs->readOnly);
  return dbs->server != nullptr;
}

}  // namespace

extern "C" {

QW_API DBSorter *DBSorterNew(const char *directory, uint32_t fileCount, uint32_t blockSize, int readOnly) {
  QWStatus *status = StatusRead_(directory, STATUS_READ_MISSING_OK);
  if (!status) {
    QWErrorRethrow("dbs : could not read status in dir: \"%s\"", directory);
    return nullptr;
  }
  const bool marked = StatusGetParameter(status, 99) == 1;
  StatusFree(status);
  std::unique_ptr<DBSorter, std::function<void(DBSorter *)>> dbs(new DBSorter, [](DBSorter *d) {
    QWErrorSave();
    DBSorterClose(d);
    QWErrorRestore();
  });
  dbs->directory = directory;
  dbs->readOnly = readOnly != 0;
  dbs->mutex = MutexInit();
  const std::string meta = dbs->directory + "/meta";
  if (!readOnly) {
    if (!DirectoryCreateDurably((dbs->directory + "/data").c_str())) {
      QWErrorRethrow("DBSorter: could not create data dir: \"%s/%s\"", directory, "data");
      return nullptr;
    }
    if (!DirectoryCreateDurably(meta.c_str())) {
      QWErrorRethrow("DBSorter: could not create meta dir: \"%s/%s\"", directory, "meta");
      return nullptr;
    }
  }
  const uint32_t flags = (readOnly ? VM_FLAG_READ_ONLY : VM_FLAG_CREATE) | (marked ? VM_FLAG_RECOVER : 0u) |
                         VM_FLAG_MAPPED;
  dbs->arena = VMArenaOpen(meta.c_str(), flags, 1, STATUS_NO_SERIAL, STATUS_NO_SERIAL, nullptr, nullptr);
  if (!dbs->arena) return nullptr;
  bool added = false;
  if (!OpenParams(dbs.get(), &fileCount, &blockSize, &added)) return nullptr;
  dbs->blockSize = blockSize;
  if (!OpenRest(dbs.get(), fileCount)) return nullptr;
  if ((added || marked) && !dbs->readOnly && !DBSorterCommit(dbs.get())) return nullptr;
  return dbs.release();
}

QW_API int DBSorterClose(DBSorter *dbs) {
  if (!dbs) return 1;
  DRBServerFree(dbs->server);
  LDBArrayFree(dbs->runMergeData);
  LDBArrayThreadDataFree(dbs->threadData);
  dbs->runs.clear();
  if (dbs->arena) VMArenaClose(dbs->arena);
  if (dbs->mutex) MutexDestroy(dbs->mutex);
  delete dbs;
  return 1;
}

QW_API int DBSorterCommit(DBSorter *dbs) {
  if (dbs->failed) {
    QWErrorThrow(5, QW_ERROR_CLASS_GENERAL,
                 "DBSorter in \"%s\": a write failed since the last commit; reopen the sorter to go back to it",
                 dbs->directory.c_str());
    return QWErrorRethrow("Commit failed !!");
  }
  // A failed commit leaves blocks of the new runs unwritten (the run block
  // server reports a lost write once), so no later commit may publish them:
  // the sorter refuses until it is reopened at its last commit.
  if (!DRBServerBeforeCommit(dbs->server) || !VMArenaCommit(dbs->arena, nullptr, nullptr, 0) ||
      !DRBServerAfterCommit(dbs->server)) {
    Failed(dbs);
    return QWErrorRethrow("Commit failed !!");
  }
  (void)LDBArrayCommit(dbs->runMergeData);
  return 1;
}

QW_API int DBSorterIsReadOnly(DBSorter *dbs) { return dbs->readOnly ? 1 : 0; }
QW_API VMArena *DBSorterArenaGet(DBSorter *dbs) { return dbs->arena; }
QW_API uint32_t DBSorterBlockSize(DBSorter *dbs) { return dbs->blockSize; }
QW_API DRBServer *DBSorterServerGet(DBSorter *dbs) { return dbs->server; }

QW_API uint32_t DBSorterBlockNew(DBSorter *dbs) { return DRBServerBlockNew(dbs->server); }
QW_API int DBSorterBlockFree(DBSorter *dbs, uint32_t block) { return DRBServerBlockFree(dbs->server, block); }

QW_API int DBSorterBlockAcquire(DBSorter *dbs, uint32_t block, void **address, int read, int load) {
  DRBServerBlockHandle handle;
  if (!DRBServerBlockAcquire(&handle, dbs->server, block, read, load)) return 0;
  *address = handle.address;
  return 1;
}

QW_API int DBSorterBlockRelease(DBSorter *dbs, uint32_t block, void *address, int read) {
  return DRBServerBlockRelease(dbs->server, block, read, address);
}

QW_API uint32_t DBSorterNewRunID(DBSorter *dbs) {
  Lock lock(dbs->mutex);
  uint32_t id = DBS_NO_RUN;
  const uint32_t freeCount = dbs->freeList.Length();
  if (freeCount > 0) {
    if (!dbs->freeList.Get(freeCount - 1, &id))
      QWAssertFail_("VMAArrayLength_((dbs->freeList).s.arena, (dbs->freeList).s.ids[genID], (genID), "
                    "sizeof((dbs->freeList).t)) - 1 < __upBound__",
                    __FILE__, __LINE__);
    if (!dbs->freeList.Truncate(freeCount - 1)) return DBS_NO_RUN;
  } else {
    if (!dbs->params.Get(0, &id) || !dbs->params.Set(0, id + 1)) return DBS_NO_RUN;
  }
  const uint32_t have = dbs->runLength.Length();
  if (have <= id) {
    const std::vector<uint64_t> zeros(size_t(id) + 1 - have, 0);
    if (!dbs->runLength.Append(zeros.data(), uint32_t(zeros.size()))) return DBS_NO_RUN;
  }
  if (!OpenRun(dbs, id)) return DBS_NO_RUN;
  return id;
}

QW_API uint32_t DBSorterRunAdd(DBSorter *dbs, const void *data, uint64_t length) {
  const uint32_t id = DBSorterNewRunID(dbs);
  if (id == DBS_NO_RUN) return DBS_NO_RUN;
  DBSEntryWriter writer;
  if (!DBSEntryWriterInit(&writer, dbs, id)) return DBS_NO_RUN;
  const auto *bytes = static_cast<const uint8_t *>(data);
  for (uint64_t at = 0; at < length;) {
    const uint32_t piece = uint32_t(std::min<uint64_t>(length - at, 0x40000000u));
    if (!DBSEntryWriterWriteBytes(&writer, bytes + at, piece)) return DBS_NO_RUN;
    at += piece;
  }
  return DBSEntryWriterFlush(&writer) ? id : DBS_NO_RUN;
}

QW_API uint64_t DBSorterRunLength(DBSorter *dbs, uint32_t runIndex) { return RunLength(dbs, runIndex); }

QW_API void DBSorterPrint(DBSorter *dbs) {
  std::printf("Printing dbs info\n");
  std::printf("blockSize = %d\n", int(dbs->blockSize));
  uint32_t next = 0;
  (void)dbs->params.Get(0, &next);
  std::printf("run count = %d\n", int(next));
  const uint32_t runCount = dbs->runLength.Length();
  std::printf("run list length = %d\n", int(runCount));
  uint64_t total = 0;
  const uint32_t serverBlocks = DRBServerBlockCount(dbs->server);
  for (uint32_t i = 0; i < runCount; ++i) {
    uint64_t length = 0;
    if (!dbs->runLength.Get(i, &length) || length == 0) continue;
    std::printf("Run id = %u, size = %" PRIu64 "\n", i, length);
    total += length;
    RunRecord *run = Run(dbs, i);
    const uint32_t blocks = run->block.Length();
    if (blocks != (length + dbs->blockSize - 1) / dbs->blockSize) std::printf("error on block %d\n", int(blocks));
    for (uint32_t b = 0; b < blocks; ++b) {
      uint32_t block = 0;
      if (!run->block.Get(b, &block) || block >= serverBlocks) std::printf("error on block %d\n", int(b));
    }
  }
  const uint32_t freeCount = dbs->freeList.Length();
  std::printf("free list length = %d\n", int(freeCount));
  for (uint32_t i = 0; i < freeCount; ++i) {
    uint32_t id = 0;
    if (dbs->freeList.Get(i, &id)) std::printf("free  = %d\n", int(id));
  }
  std::printf("Total size = %" PRIu64 " Mo\n", total >> 20);
  QWErrorClear();
}

}  // extern "C"
