// The local block server record and what its sources share.
//
// Sets of raw ids (the invariants every operation keeps; the open checks
// them on what it reads and repairs what it can):
//  I1  The raw ids of the new block map, `freeRawBlocksOld` and
//      `freeRawBlocksNew` are pairwise disjoint, and all have storage
//      (below the mapping's raw limit).
//  I2  Every raw id of the old (committed) map is in the new map or in
//      `freeRawBlocksNew`: nothing the old generation reads is reused before
//      the next commit.
//  I3  A block flagged BLOCK_FLAG_SHARED maps to INVALID_RAW_BLOCK_ID or to a
//      raw id of the old map; any other mapped block is BLOCK_FLAG_COPIED and
//      is on the modified list, which holds each block at most once.
//  I4  `freeRawBlocksNew` holds only raw ids of the old map.
// A flush execute breaks I2-I4 on purpose (every block becomes SHARED of the
// generation being written); the memory commit makes them true again by
// installing that generation as the old one, and a flush stopped without a
// memory commit rebuilds the sets (RebuildAfterFailedFlush).
//
// Locking: the server mutex guards the new generation (`rwGen`) and is taken
// by block allocation, free and writes of the new map. Reads of the new map
// (LocalBlockServer0RawIdRead) take no lock: the map only grows while they
// may run (its chunks and chunk tables stay in place) and its entries are
// stored and loaded atomically; the flush, which rewrites the map, runs
// under the arena's flush lock, which new-generation users hold for reading.
// Nor does a write of a block whose raw block lies in the read-write part
// (at or above the mapping's rawBase): by I3 it is not shared, so the write
// changes nothing in the map.
// The old map is read without a lock: it only changes at the memory commit,
// which the arena runs under its generation lock held for writing. Lock
// order: server mutex, then the mapping's mutex.
#pragma once

#include <cstdint>
#include <string>
#include <utility>
#include <vector>

#include "qwvm/qwfile.h"
#include "qwvm/qwlib.h"
#include "qwvm/qwutil.h"
#include "vm/lbs/local_block_server.h"
#include "platform/qwlib/sync_round.h"
#include "platform/qwutil/farray_internal.h"
#include "vm/lbs/mapping.h"

namespace qw::vm {

// A qwlib growable array owned by its holder. Converts to the element
// pointer, so ArrayLength/ArrayNth work on it unchanged.
template <typename T>
struct QwArray {
  T *p = nullptr;

  QwArray() = default;
  ~QwArray() { ArrayFree(p); }
  QwArray(const QwArray &) = delete;
  QwArray &operator=(const QwArray &) = delete;

  operator T *() const { return p; }
  [[nodiscard]] bool Init() { return ArrayInit(p, sizeof(T), 0) != 0; }
  size_t size() const { return ArrayLength(p); }
  // Room for `extra` more elements, so that the appends that follow cannot
  // fail halfway through a change.
  [[nodiscard]] bool Reserve(size_t extra) { return ArrayEnsureCapacity(p, size() + extra) != 0; }
  [[nodiscard]] bool Append(T value) { return ArrayAppend(p, value) != 0; }
  void Clear() { (void)ArrayLengthSet(p, 0); }  // shrinking cannot fail
  T Pop() {
    T value = p[size() - 1];
    (void)ArrayLengthSet(p, size() - 1);
    return value;
  }
  void Swap(QwArray &other) { std::swap(p, other.p); }
};

inline constexpr uint32_t kBlockMapChunk = 256;
inline constexpr size_t kListShrinkLength = 10000;  // longer lists are re-created when emptied

// One generation as read from index files, before it is installed.
struct GenerationImage {
  GenerationImage() = default;
  ~GenerationImage();
  GenerationImage(const GenerationImage &) = delete;
  GenerationImage &operator=(const GenerationImage &) = delete;
  [[nodiscard]] bool Init();

  uint64_t rsize = 0;
  FArray blockMap{};
  QwArray<uint8_t> flags;
  QwArray<uint32_t> freeRawBlocksOld, freeRawBlocksNew, freeBlocks, modifiedBlocks;
  FArray oldMap{};
};

// An index file a flush wrote and has not closed yet (owned: closed by
// IndexFilesFinish or IndexFilesAbandon).
struct PendingIndexFile {
  QWChannel *channel;
  std::string path;
  const char *who;  // the flush function named in messages
};

using qw::SyncRound;

}  // namespace qw::vm

struct LocalBlockServer0 {
  LocalBlockServer0() = default;
  ~LocalBlockServer0();
  LocalBlockServer0(const LocalBlockServer0 &) = delete;
  LocalBlockServer0 &operator=(const LocalBlockServer0 &) = delete;

  std::string directory;
  std::string suffix;

  uint64_t serial_old = STATUS_NO_SERIAL;
  uint64_t serial_new = STATUS_NO_SERIAL;
  uint64_t flushedSerialOld = STATUS_NO_SERIAL;
  uint64_t flushedSerialNew = STATUS_NO_SERIAL;

  uint32_t blockSize = 0;
  uint32_t fileBlockSize = 0;
  uint32_t minBlockCount = 0;
  ReplicationLog *log = nullptr;
  PageCache *cache = nullptr;  // handed to the mapping when the first read opens the data file

  uint32_t flags = 0;
  bool readOnly = false;
  bool mounted = false;         // a generation was mounted and is not yet committed to memory
  bool committingDisk = false;  // set by the disk commit, cleared at flush start
  bool mapped = false;
  bool flushExecuted = false;  // a flush execute changed the new generation; no memory commit yet

  struct NewGeneration {
    QWMutex *mutex = nullptr;
    FArray blockMap{};  // uint32_t raw id per block id
    qw::vm::QwArray<uint8_t> flags;
    qw::vm::QwArray<uint32_t> freeRawBlocksOld;
    qw::vm::QwArray<uint32_t> freeRawBlocksNew;
    qw::vm::QwArray<uint32_t> freeBlocks;
    qw::vm::QwArray<uint32_t> modifiedBlocks;
    qw::vm::QwArray<uint32_t> freeRawBlocksOldNext;
  } rwGen;

  FArray oldMap{};      // the committed generation's map
  FArray oldMapNext{};  // read back by a flush or a mount; becomes oldMap at the memory commit

  // Raw size of the new generation's index: the committed size, or after a
  // flush execute the size that the commit makes current.
  uint64_t rsize = 0;

  qw::vm::MemoryMapping mapping;

  // Index files a flush execute wrote and has not closed yet.
  std::vector<qw::vm::PendingIndexFile> pendingIndexFiles;
};

namespace qw::vm {

inline uint32_t MapEntry(const FArray *map, uint64_t index) {
  return *static_cast<const uint32_t *>(FArrayNth(map, index));
}
// Atomic: readers of the new map hold no lock.
inline void SetMapEntry(FArray *map, uint64_t index, uint32_t raw) {
  __atomic_store_n(static_cast<uint32_t *>(FArrayNth(map, index)), raw, __ATOMIC_RELAXED);
}
// Appends an entry: stored before the length covers it, so that a reader
// without the lock never sees the new id unmapped. False with an error.
[[nodiscard]] inline bool AppendMapEntry(FArray *map, uint32_t raw) {
  const uint64_t index = FArrayLength(map);
  if (!FArrayEnsureCapacity_(map, index + 1)) return false;
  __atomic_store_n(reinterpret_cast<uint32_t *>(FArrayNthUnchecked(map, index)), raw, __ATOMIC_RELAXED);
  return qw::FArrayGrowUninitialised(map, index + 1) != 0;
}
inline bool BlockIsInMemory(uint8_t flags) { return (flags & BLOCK_FLAG_SHARED) == 0; }

[[nodiscard]] bool InitBlockMap(FArray *map);

// server.cpp
// A raw block for the new generation (under the server mutex): the lowest
// recently freed one, else one more block of the read-write part.
[[nodiscard]] uint32_t RawBlockAlloc(LocalBlockServer0 *server);
// Copies raw block `from` to raw block `to` (which is overwritten whole).
[[nodiscard]] bool CopyRawBlock(LocalBlockServer0 *server, uint32_t from, uint32_t to);

// index_file.cpp
// Reads the new index (block size, then IndexFileNewGenRead's content) and
// the old index of generation (oldSerial, newSerial) into `image`, checked
// and reconciled. `mount`: for a mount (messages, and the mapping is left
// as it is).
[[nodiscard]] bool ReadGeneration(LocalBlockServer0 *server, uint64_t oldSerial, uint64_t newSerial, bool mount,
                                  GenerationImage *image);
// Makes `image` the new generation (and, unless mounting, its old map the
// old one and its raw size the mapping's committed size).
[[nodiscard]] bool InstallGeneration(LocalBlockServer0 *server, GenerationImage *image, bool mount);
// Writes the index files of the new generation as the flush leaves it (new,
// then old), unsynced: their syncs join `round`, and they stay open on
// `pendingIndexFiles` until IndexFilesFinish closes and logs them and reads
// the old one back (or IndexFilesAbandon closes and removes them).
[[nodiscard]] bool IndexFilesWrite(LocalBlockServer0 *server, SyncRound *round);
[[nodiscard]] bool IndexFilesFinish(LocalBlockServer0 *server);
void IndexFilesAbandon(LocalBlockServer0 *server);
// Creates the files of an empty server.
[[nodiscard]] bool LocalBlockServer0InitialCreate(const char *directory, const char *suffix, uint64_t serial,
                                                  uint32_t blockSize, ReplicationLog *log);

// flush.cpp
// Recomputes the raw id sets and flags after a flush execute that was not
// followed by a memory commit (invariants I1-I4 from the maps alone).
[[nodiscard]] bool RebuildAfterFailedFlush(LocalBlockServer0 *server);

}  // namespace qw::vm
