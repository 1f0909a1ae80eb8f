// The run sorter's record, shared by its source files: dbs.cpp (open, close,
// commit, run ids, print), dbs_entry.cpp (run writers and readers, ranges,
// freeing) and dbs_merge.cpp (choice of runs, merge bookkeeping, the merge
// driver).
//
// Arena D/"meta", arrays under "dbs": "params" ([0] next run id never used,
// [1] block size, [2] data file count), "freeList" (run ids given back, used
// last-in first-out), "runLength" (64-bit length per run id, 0: not live),
// "runMergePos" (16-byte records, empty unless a merge is in progress:
// [0] = output position and id, [1..] = input positions and ids, ids
// ascending), "block<id>" (the server blocks of run <id>, in order); and the
// large-element array "runMergeData" at the top level (one bucket: one
// element per saved heap item in input order, each the input number as 4
// little-endian bytes then the bytes saveState appended, and last the bytes
// saveWriter appended, empty without it). SyncDB stores the writer's byte
// count and each reader's committed position; Restore reopens the writer at
// that count (reloading a part-filled last block) and the readers there.
//
// Invariants: a live run of length L holds ceil(L / blockSize) blocks, every
// one full but the last; a run id is either on the free list or below
// params[0] and off it; a run being merged frees its blocks as it is read,
// so its block list may name freed blocks until the merge stops.
#pragma once

#include <atomic>
#include <cstdint>
#include <memory>
#include <string>
#include <vector>

#include "qwvm/ldbarray.h"
#include "qwvm/sort.h"
#include "vm/sort/arena_vector.h"
#include "vm/sort/drbs_internal.h"

namespace qw::sort {

struct RunRecord {
  ArenaVector<uint32_t> block;
};

// One "runMergePos" record.
struct MergePos {
  uint64_t position;
  uint32_t runIndex;
  uint32_t reserved;
};
static_assert(sizeof(MergePos) == 16);

inline constexpr const char *kDbsBase = "dbs";

}  // namespace qw::sort

struct DBSorter {
  std::string directory;
  DRBServer *server = nullptr;
  uint32_t blockSize = 0;
  VMArena *arena = nullptr;
  bool readOnly = false;
  qw::sort::ArenaVector<uint32_t> params, freeList;
  qw::sort::ArenaVector<uint64_t> runLength;
  qw::sort::ArenaVector<qw::sort::MergePos> runMergePos;
  std::vector<std::unique_ptr<qw::sort::RunRecord>> runs;  // under `mutex`
  LDBArray *runMergeData = nullptr;
  LDBArrayThreadData *threadData = nullptr;
  QWMutex *mutex = nullptr;  // run ids, the run table and "runLength"
  // A run write or a merge failed part way: the new generation holds half a
  // change, so commits are refused until the sorter is reopened.
  std::atomic<bool> failed{false};
};

namespace qw::sort {

// The record of run `runIndex` ("runIndex < RArrayLength(dbs->runs)").
RunRecord *Run(DBSorter *dbs, uint32_t runIndex);
// Opens (creating) the record of run `runIndex`; with the mutex held.
[[nodiscard]] bool OpenRun(DBSorter *dbs, uint32_t runIndex);
// Marks the sorter failed (see DBSorter::failed); returns 0 for the caller.
int Failed(DBSorter *dbs);
// The run's length, 0 with an error set when unreadable.
uint64_t RunLength(DBSorter *dbs, uint32_t runIndex);
[[nodiscard]] bool SetRunLength(DBSorter *dbs, uint32_t runIndex, uint64_t length);

// Framed payloads (a 4-byte little-endian length, then that many bytes)
// straight from and into the current block, for the sorter's users.
//
// The next payload when it lies wholly inside the reader's current range
// with a byte to spare, so that the block stays held: the reader moves past
// it (and marks when asked; nothing is crossed, so nothing is to free), and
// the answer points at its bytes, valid until the reader moves again.
// nullptr, with nothing read, otherwise.
const uint8_t *TakePayloadInRange(DBSEntryReader *reader, uint32_t *length, int mark);
// Writes the length then the bytes, as two DBSEntryWriterWriteBytes would.
[[nodiscard]] bool WriteFramed(DBSEntryWriter *writer, const uint8_t *bytes, uint32_t length);

}  // namespace qw::sort
