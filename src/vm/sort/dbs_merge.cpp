// Run sorter: choice of runs, merge bookkeeping, checkpoints and the merge
// driver.
//
// A merge in progress is the non-empty "runMergePos": [0] the output run and
// the bytes written to it, [1..] the input runs (ascending ids) and the bytes
// read from each. At a checkpoint the heap items (each input's entry read but
// not yet written) and the writer's state are saved in "runMergeData", the
// output block is written back and everything commits; after a crash the
// merge restarts from there ("RESTORE MERGE"). Input blocks are freed as
// soon as they are read, so a restart reads only what the last checkpoint
// had not consumed.
#include <algorithm>
#include <cinttypes>
#include <cstdio>
#include <cstring>
#include <utility>
#include <vector>

#include "util/endian.h"
#include "util/heap.h"
#include "vm/sort/dbs_internal.h"

using namespace qw::sort;

namespace {

// The merge driver's working set.
struct Merge {
  DBSorter *dbs;
  DBSMergeCallbacks *cb;
  DBSEntryWriter writer{nullptr, 0, nullptr, 0, 0, DBS_NO_RUN, nullptr};
  DBSEntryReader *readers = nullptr;  // qwlib growable array, one per input
  uint32_t count = 0;                 // inputs
  size_t heapCount = 0;

  ~Merge() {
    for (uint32_t i = 0; readers && i < count; ++i) DBSEntryReaderClose(&readers[i]);
    ArrayFree(readers);
    if (writer.block != DBS_NO_RUN) {
      QWErrorSave();
      (void)DBSorterBlockRelease(dbs, writer.block, writer.blockAddress, 0);
      QWErrorRestore();
    }
  }
  uint8_t *Item(size_t i) const { return cb->heap + i * cb->itemSize; }
  bool Push(const uint8_t *item) {
    if (ArrayLength(cb->heap) < (heapCount + 1) * cb->itemSize &&
        !ArrayLengthSet(cb->heap, (heapCount + 1) * cb->itemSize))
      return false;
    std::memcpy(Item(heapCount++), item, cb->itemSize);
    qw::HeapSiftUp(cb->heap, heapCount, cb->itemSize, cb->compare, cb->compareContext);
    return true;
  }
};

bool ReadMergePos(DBSorter *dbs, std::vector<MergePos> *positions) {
  positions->resize(dbs->runMergePos.Length());
  for (uint32_t i = 0; i < positions->size(); ++i)
    if (!dbs->runMergePos.Get(i, &(*positions)[i])) return false;
  return true;
}

bool OpenInputs(Merge *merge, const std::vector<MergePos> &positions, bool fresh) {
  merge->count = uint32_t(positions.size() - 1);
  if (!ArrayInit(merge->readers, sizeof(DBSEntryReader), merge->count) ||
      !ArrayLengthSet(merge->readers, merge->count))
    return false;
  for (uint32_t i = 0; i < merge->count; ++i) merge->readers[i].block = DBS_NO_RUN;
  for (uint32_t i = 0; i < merge->count; ++i) {
    const MergePos &p = positions[i + 1];
    if (!fresh && !(RunLength(merge->dbs, p.runIndex) != 0)) QWAssertFail_("len != 0", __FILE__, __LINE__);
    if (!DBSEntryReaderInit(&merge->readers[i], merge->dbs, p.runIndex, fresh ? 0 : p.position)) return false;
  }
  return true;
}

// Saves the heap and the writer's state into "runMergeData" and commits.
bool Checkpoint(Merge *merge) {
  DBSorter *dbs = merge->dbs;
  DBSMergeCallbacks *cb = merge->cb;
  std::vector<std::pair<uint32_t, std::vector<uint8_t>>> saved(merge->heapCount);
  uint8_t *buffer = nullptr;
  bool ok = ArrayInit(buffer, 1, 256);
  for (size_t i = 0; ok && i < merge->heapCount; ++i) {
    (void)ArrayLengthSet(buffer, 0);
    ok = cb->saveState(cb->context, merge->Item(i), &saved[i].first, &buffer) != 0;
    if (ok) saved[i].second.assign(buffer, buffer + ArrayLength(buffer));
  }
  std::sort(saved.begin(), saved.end(), [](const auto &a, const auto &b) { return a.first < b.first; });
  ok = ok && LDBArrayClear(dbs->runMergeData, NEWGEN);
  for (auto &[input, bytes] : saved) {
    uint8_t header[4];
    qw::StoreLE32(header, input);
    bytes.insert(bytes.begin(), header, header + 4);
    ok = ok && LDBArrayAdd(dbs->runMergeData, dbs->threadData, 0, bytes.data(), uint32_t(bytes.size()), NEWGEN) !=
                   LDBARRAY_INVALID_HANDLE;
  }
  if (ok) (void)ArrayLengthSet(buffer, 0);
  ok = ok && (!cb->saveWriter || cb->saveWriter(cb->context, &buffer)) &&
       LDBArrayAdd(dbs->runMergeData, dbs->threadData, 0, buffer, uint32_t(ArrayLength(buffer)), NEWGEN) !=
           LDBARRAY_INVALID_HANDLE;
  ArrayFree(buffer);
  if (!ok) return false;
  DBSEntryWriter &w = merge->writer;
  const uint32_t block = w.block;
  if (block != DBS_NO_RUN) {
    w.block = DBS_NO_RUN;
    if (!DBSorterBlockRelease(dbs, block, w.blockAddress, 0)) return false;
  }
  if (!DBSorterSyncDB(dbs, &w, merge->readers, merge->count) || !DBSorterCommit(dbs)) return false;
  if (block != DBS_NO_RUN) {
    void *address = nullptr;
    if (!DBSorterBlockAcquire(dbs, block, &address, 0, 1)) return false;
    const uint32_t used = dbs->blockSize - w.left;
    w.block = block;
    w.blockAddress = static_cast<uint8_t *>(address);
    w.address = w.blockAddress + used;
  }
  return true;
}

bool Start(Merge *merge, const uint32_t *runs, uint32_t count, uint32_t *output) {
  DBSorter *dbs = merge->dbs;
  DBSMergeCallbacks *cb = merge->cb;
  *output = DBSorterMergeStart(dbs, runs, count);
  std::vector<MergePos> positions;
  if (*output == DBS_NO_RUN || !ReadMergePos(dbs, &positions) || !DBSEntryWriterInit(&merge->writer, dbs, *output) ||
      !OpenInputs(merge, positions, true))
    return false;
  std::vector<uint8_t> item(cb->itemSize);
  for (uint32_t i = 0; i < merge->count; ++i) {
    const int r = cb->readFirst(cb->context, &merge->readers[i], i, item.data());
    if (r < 0 || (r > 0 && !merge->Push(item.data()))) return false;
  }
  return true;
}

bool Resume(Merge *merge, uint32_t *output) {
  DBSorter *dbs = merge->dbs;
  DBSMergeCallbacks *cb = merge->cb;
  if (!DBSorterRestore(dbs, &merge->writer, &merge->readers, &merge->count)) return false;
  *output = merge->writer.runIndex;
  const uint32_t saved = LDBArraySize(dbs->runMergeData, 0, NEWGEN);
  uint8_t *bytes = nullptr;
  std::vector<uint8_t> item(cb->itemSize);
  bool ok = true;
  for (uint32_t h = 0; ok && h < saved; ++h) {
    ok = LDBArrayGetArray(dbs->runMergeData, 0, h, &bytes, 0, NEWGEN) != 0;
    const uint32_t length = ok ? uint32_t(ArrayLength(bytes)) : 0;
    if (!ok) break;
    if (h + 1 == saved) {
      ok = !cb->restoreWriter || cb->restoreWriter(cb->context, bytes, length);
      break;
    }
    const uint32_t input = length >= 4 ? qw::LoadLE32(bytes) : merge->count;
    if (input >= merge->count) {
      ok = QWErrorThrow(74, QW_ERROR_CLASS_DATA, "saved merge item %u names input %u of %u", h, input, merge->count);
      break;
    }
    if (cb->restoreState)
      ok = cb->restoreState(cb->context, &merge->readers[input], input, bytes + 4, length - 4, item.data());
    else if (length - 4 != cb->itemSize)
      ok = QWErrorThrow(74, QW_ERROR_CLASS_DATA, "saved merge item %u holds %u bytes, not %u", h, length - 4,
                        cb->itemSize);
    else
      std::memcpy(item.data(), bytes + 4, cb->itemSize);
    ok = ok && merge->Push(item.data());
  }
  ArrayFree(bytes);
  return ok;
}

bool Drive(Merge *merge, uint64_t interval) {
  DBSMergeCallbacks *cb = merge->cb;
  uint64_t emitted = 0;
  while (merge->heapCount > 0) {
    const int r = cb->advance(cb->context, merge->Item(0), merge->readers, &merge->writer);
    if (r < 0) return false;
    if (r == 0) merge->heapCount = qw::HeapPop(cb->heap, merge->heapCount, cb->itemSize, cb->compare, cb->compareContext);
    else qw::HeapSiftDown(cb->heap, merge->heapCount, cb->itemSize, 0, cb->compare, cb->compareContext);
    if (interval && ++emitted % interval == 0 && merge->heapCount > 0 && !Checkpoint(merge)) return false;
  }
  if (cb->final && !cb->final(cb->context, &merge->writer)) return false;
  return DBSEntryWriterFlush(&merge->writer) && DBSorterSyncDB(merge->dbs, &merge->writer, merge->readers, merge->count) &&
         DBSorterMergeStop(merge->dbs) && DBSorterCommit(merge->dbs);
}

}  // namespace

extern "C" {

QW_API int DBSorterGetRunToMerge(DBSorter *dbs, uint32_t **runs, uint64_t budget) {
  if (*runs && ArrayCapacity(*runs) > 10000) ArrayFree(*runs);
  if (!*runs && !ArrayInit(*runs, sizeof(uint32_t), 16)) return 0;
  (void)ArrayLengthSet(*runs, 0);
  std::vector<std::pair<uint64_t, uint32_t>> live;
  {
    Lock lock(dbs->mutex);
    for (uint32_t i = 0, n = dbs->runLength.Length(); i < n; ++i) {
      uint64_t length = 0;
      if (!dbs->runLength.Get(i, &length)) return 0;
      if (length != 0) live.emplace_back(length, i);
    }
  }
  std::sort(live.begin(), live.end(), [](const auto &a, const auto &b) { return a.first < b.first; });
  const uint64_t fanIn = budget / dbs->blockSize;
  const size_t take = size_t(std::min<uint64_t>(fanIn, live.size()));
  if (take < 2) return 0;
  for (size_t i = 0; i < take; ++i)
    if (!ArrayAppend(*runs, live[i].second)) return 0;
  return 1;
}

QW_API uint32_t DBSorterMergeStart(DBSorter *dbs, const uint32_t *runs, uint32_t count) {
  std::vector<uint32_t> sorted(runs, runs + count);
  std::sort(sorted.begin(), sorted.end());
  const uint32_t output = DBSorterNewRunID(dbs);
  if (output == DBS_NO_RUN) return DBS_NO_RUN;
  if (!(dbs->runMergePos.Length() == 0))
    QWAssertFail_("VMAArrayLength(dbs->runMergePos, NEWGEN) == 0", __FILE__, __LINE__);
  std::vector<MergePos> records{{0, output, 0}};
  for (uint32_t id : sorted) records.push_back({0, id, 0});
  return dbs->runMergePos.Append(records.data(), uint32_t(records.size())) ? output : DBS_NO_RUN;
}

QW_API int DBSorterMergeStop(DBSorter *dbs) {
  std::vector<MergePos> positions;
  if (!ReadMergePos(dbs, &positions)) return 0;
  if (!(0 < positions.size())) QWAssertFail_("0 < __upBound__", __FILE__, __LINE__);
  if (!SetRunLength(dbs, positions[0].runIndex, positions[0].position)) return 0;
  for (size_t i = 1; i < positions.size(); ++i) {
    const uint32_t id = positions[i].runIndex;
    if (!Run(dbs, id)->block.Clear() || !SetRunLength(dbs, id, 0)) return 0;
    Lock lock(dbs->mutex);
    if (!dbs->freeList.Append(id)) return 0;
  }
  return dbs->runMergePos.Truncate(0) ? 1 : 0;
}

QW_API int DBSorterMergePending(DBSorter *dbs) { return dbs->runMergePos.Length() > 0 ? 1 : 0; }

QW_API uint32_t DBSorterMergedRunID(DBSorter *dbs) {
  Lock lock(dbs->mutex);
  const uint32_t runs = dbs->runLength.Length();
  if (runs == 0 || dbs->freeList.Length() != runs - 1) return DBS_NO_RUN;
  for (uint32_t i = 0; i < runs; ++i) {
    uint64_t length = 0;
    if (!dbs->runLength.Get(i, &length)) return DBS_NO_RUN;
    if (length != 0) return i;
  }
  return DBS_NO_RUN;
}

QW_API int DBSorterSyncDB(DBSorter *dbs, const DBSEntryWriter *writer, const DBSEntryReader *readers,
                          uint32_t count) {
  const uint32_t length = dbs->runMergePos.Length();
  MergePos previous{};
  for (uint32_t i = 0; i <= count; ++i) {
    const uint32_t index = i;
    if (!(index < length)) QWAssertFail_("index < __upBound__", __FILE__, __LINE__);
    MergePos p{};
    if (i == 0) {
      p = {writer->written, writer->runIndex, 0};
    } else {
      const DBSEntryReader *reader = &readers[i - 1];
      if (!(reader->offset == reader->lastOffset))
        QWAssertFail_("cpdR.reader->offset == cpdR.reader->lastOffset", __FILE__, __LINE__);
      p = {reader->offset, reader->runIndex, 0};
      if (i > 1 && !(previous.runIndex < p.runIndex))
        QWAssertFail_("runMergePos->runIndex < runIndex", __FILE__, __LINE__);
    }
    if (!dbs->runMergePos.Set(i, p)) return 0;
    previous = p;
  }
  return 1;
}

QW_API int DBSorterRestore(DBSorter *dbs, DBSEntryWriter *writer, DBSEntryReader **readers, uint32_t *count) {
  // Printed on standard output, as DBSorterPrint prints, and told to the
  // message handler for logs.
  std::printf("RESTORE MERGE\n");
  std::fflush(stdout);
  QWSetMessageContext_(__FILE__, __LINE__, QW_LEVEL_PROGRESS, 0);
  QWMessage_("RESTORE MERGE");
  std::vector<MergePos> positions;
  if (!ReadMergePos(dbs, &positions) || positions.empty()) return QWErrorIsSet() ? 0 : QWErrorThrow(2, 0, "no merge");
  const MergePos &out = positions[0];
  if (!DBSEntryWriterInit(writer, dbs, out.runIndex)) return 0;
  writer->written = out.position;
  const uint32_t within = uint32_t(out.position % dbs->blockSize);
  if (within != 0) {
    RunRecord *run = Run(dbs, out.runIndex);
    const uint32_t blocks = run->block.Length();
    if (!(blocks - 1 < blocks))
      QWAssertFail_("VMAArrayLength_((run->block).s.arena, (run->block).s.ids[0], (0), sizeof((run->block).t)) - 1 "
                    "< __upBound__",
                    __FILE__, __LINE__);
    const uint64_t blockOffset = out.position / dbs->blockSize;
    if (!(blockOffset < blocks)) QWAssertFail_("((blockOffset)) < __arraylen__", __FILE__, __LINE__);
    uint32_t block = 0;
    void *address = nullptr;
    if (!run->block.Get(uint32_t(blockOffset), &block) || !DBSorterBlockAcquire(dbs, block, &address, 0, 1)) return 0;
    writer->block = block;
    writer->blockAddress = static_cast<uint8_t *>(address);
    writer->address = writer->blockAddress + within;
    writer->left = dbs->blockSize - within;
  }
  Merge scratch{dbs, nullptr};
  if (!OpenInputs(&scratch, positions, false)) return 0;
  *readers = std::exchange(scratch.readers, nullptr);
  *count = scratch.count;
  return 1;
}

QW_API int DBSorterMerge(DBSorter *dbs, const uint32_t *runs, uint32_t count, uint32_t *output,
                         DBSMergeCallbacks *callbacks, uint64_t checkpointInterval) {
  *output = DBS_NO_RUN;
  Merge merge{dbs, callbacks};
  if ((!callbacks->heap && !ArrayInit(callbacks->heap, 1, 1024)) || !ArrayLengthSet(callbacks->heap, 0)) return 0;
  bool ok;
  if (!DBSorterMergePending(dbs)) {
    if (!runs) return 1;
    ok = Start(&merge, runs, count, output);
  } else {
    if (runs != NULL) QWAssertFail_("runs == NULL", __FILE__, __LINE__);
    ok = Resume(&merge, output);
  }
  if (!ok || !Drive(&merge, checkpointInterval)) {
    (void)Failed(dbs);
    return QWErrorRethrow("merge into run %u failed", *output);
  }
  return 1;
}

}  // extern "C"
