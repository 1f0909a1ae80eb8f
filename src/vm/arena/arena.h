// The arena record and the helpers its files share.
//
// State machine of a flush (see commit.cpp):
//   idle -> started (flush lock held for writing, flushed serials set)
//        -> executed (every new file written and synced)
//        -> marked (`committing` exists) -> disk-committed -> unmarked
//        -> memory-committed (views exchanged, serials advanced)
//        -> stopped (flush lock released).
// A failure in any state goes straight to stopped.
//
// Invariants:
//  - `view` is exactly the content of the committed old-generation file; the
//    flush (or a mount) reads the file it wrote into `nextView`, and the
//    memory commit exchanges the two under the generation lock.
//  - flushedSerialOld/New are STATUS_NO_SERIAL outside a flush or mount.
//  - serialOld and serialNew are both STATUS_NO_SERIAL (unserialised arena,
//    fixed file names) or both set.
#pragma once

#include <atomic>
#include <cstdint>
#include <memory>
#include <string>
#include <vector>

#include "qwvm/qwcache.h"
#include "qwvm/qwlib.h"
#include "qwvm/qwlog.h"
#include "qwvm/qwutil.h"
#include "qwvm/vmaarray.h"
#include "qwvm/vmarena.h"
#include "platform/qwlib/sync_round.h"
#include "vm/arena/array_state.h"

// The assertion text of an impossible generation or layout.
#ifndef FALSE
#define FALSE 0
#endif

namespace qw::vm {

// Size classes of arena blocks.
inline constexpr uint32_t kClassSizes[ARENA_SIZE_CLASS_COUNT] = {64,  88,  112,  128,  160,  256,  312,  512,
                                                                 584, 744, 1024, 1632, 2048, 2728, 4096, 8192};
inline constexpr uint32_t kLargestClass = ARENA_SIZE_CLASS_COUNT - 1;

// One array of the new generation (kept in the array table).
struct ArrayRecord {
  FArray blockCache;  // 32-bit cached data addresses per block (unused until address caching exists)
  FArray blockID;     // 64-bit arena block ids, in element order
  uint32_t length;
  uint8_t type;
  uint8_t log2size;
};

// A committed (old-generation) view of every array.
struct OldView {
  uint32_t *pointerCache = nullptr;  // mapped mode: one entry per block id, zero after reading
  uint64_t *blockIds = nullptr;      // all arrays' block ids, concatenated in array id order
  uint32_t *starts = nullptr;        // array i's blocks are blockIds[starts[i] .. starts[i+1])
  uint32_t *lengths = nullptr;
  uint8_t *types = nullptr;

  OldView() = default;
  OldView(const OldView &) = delete;
  OldView &operator=(const OldView &) = delete;
  ~OldView() { Free(); }
  void Free();
  void Swap(OldView &other) noexcept;
  uint32_t ArrayCount() const { return ArrayLength(starts) ? uint32_t(ArrayLength(starts) - 1) : 0; }
};

// Allocation state of one size class in the new generation.
struct SizeClassState {
  uint64_t *freeList = nullptr;           // free arena block ids, last in first out
  uint32_t currentBlock = INVALID_BLOCK_ID;  // global id of the partly used server block
  uint32_t slotsUsed = 0;
};

// One registered memory lock: seven words.
struct LockEntry {
  uint32_t kind;        // 1 arena, 0 custom object
  uint32_t data;        // generation (arena) or data word (custom)
  uint32_t skip;        // 1: not re-applied after a commit
  uint32_t object;      // object or array id
  uint32_t extra;
  uint32_t index;       // 0xFFFFFFFF: whole
  uint32_t argument;
};

struct Mutexes {
  QWMutex *newGen = nullptr;  // class lists, current blocks, round-robin counter, array table
  QWMutex *locks = nullptr;   // memory-lock registry
};

// A generation file a flush wrote and has not closed yet (owned).
struct PendingArenaFile {
  QWChannel *channel;
  std::string path;
  const char *who;  // the flush function named in messages
};

}  // namespace qw::vm

struct VMArena {
  std::string directory;
  uint32_t flags = 0;
  bool readOnly = false;
  bool mapped = false;
  uint64_t serialOld = STATUS_NO_SERIAL;
  uint64_t serialNew = STATUS_NO_SERIAL;
  uint64_t flushedSerialOld = STATUS_NO_SERIAL;
  uint64_t flushedSerialNew = STATUS_NO_SERIAL;
  bool mounted = false;
  bool flushLockHeld = false;  // set by VMArenaFlushStart, cleared by VMArenaFlushStop

  QWRWLock *generationLock = nullptr;
  QWRWLock *flushLock = nullptr;
  qw::vm::Mutexes mutexes;

  qw::vm::OldView view;      // r_gen: the committed generation
  qw::vm::OldView nextView;  // filled by the flush or a mount, exchanged at the memory commit

  // rw_gen: the new generation.
  qw::vm::SizeClassState classes[ARENA_SIZE_CLASS_COUNT];
  uint32_t *freeArrayIds = nullptr;
  FArray arrays{};  // of ArrayRecord
  uint32_t roundRobin = 0;

  // Arena arrays: record directory, name slots, name mutex (array_state.h).
  qw::vm::ArrayState arrayState;
  // The background flush lock of the array checks ("arrayLocked &&
  // arena->bgLock"). No flush runs in the background, so it is never held and
  // stays 0; the checks are kept for when one does.
  int bgLock = 0;

  uint32_t bucketCount = 0;
  uint32_t bucketBits = 0;  // ceil(log2(bucketCount))
  std::vector<LocalBlockServer0 *> servers;

  std::vector<qw::vm::LockEntry> lockRegistry;
  bool memoryEnumRegistered = false;

  ReplicationLog *replicationLog = nullptr;
  PageCache *cache = nullptr;

  // Generation files a flush wrote and has not closed yet (genfile.cpp).
  std::vector<qw::vm::PendingArenaFile> pendingFiles;

  // Moves whenever the shape of a tree kept in the new generation may have
  // changed (see ShapeEpoch below).
  std::atomic<uint64_t> shapeEpoch{0};
};

namespace qw::vm {

// Builds an empty record (locks, new generation with no arrays). NULL with an
// error.
[[nodiscard]] std::unique_ptr<VMArena, int (*)(VMArena *)> ArenaRecordNew(const char *directory, uint32_t flags,
                                                                          uint32_t bucketCount,
                                                                          ReplicationLog *log, PageCache *cache);
// The new generation's shape epoch. Trees remember where their last descent
// in the new generation ended together with this number, and may go there
// again directly while it has not moved. It moves when a tree changes an
// inner node, its root or its set of nodes (the tree's own code calls
// ShapeChanged), and when the new generation is replaced as a whole (a
// mount) or folded into a commit. Writers of the new generation are
// serialised by the caller, so relaxed order suffices.
inline uint64_t ShapeEpoch(const VMArena *arena) { return arena->shapeEpoch.load(std::memory_order_relaxed); }
inline void ShapeChanged(VMArena *arena) { arena->shapeEpoch.fetch_add(1, std::memory_order_relaxed); }

// Frees what ArenaRecordNew and the reads built (servers included).
int ArenaRecordFree(VMArena *arena);
using ArenaPtr = std::unique_ptr<VMArena, int (*)(VMArena *)>;

// ceil(log2(n)) for n >= 1.
uint32_t CeilLog2(uint64_t n);

// "D/name" and "D/name.<serial>".
std::string ArenaFilePath(const VMArena *arena, const char *name);
std::string ArenaSerialPath(const VMArena *arena, const char *name, uint64_t serial);

// Generation files (genfile.cpp). ArenaFileWriteNew/Old write a flush's
// file without syncing it: its sync joins `round`, and it stays open on
// `pendingFiles` until ArenaFilesFinish closes and logs every pending file
// (or ArenaFilesAbandon closes them after a failure). ArenaFileReadBackOld
// then reads `arena.old` of the flush into `nextView`. ArenaFileFlushNew/Old
// do all of it for one file on its own.
[[nodiscard]] bool ArenaFileWriteNew(VMArena *arena, qw::SyncRound *round);
[[nodiscard]] bool ArenaFileWriteOld(VMArena *arena, qw::SyncRound *round);
[[nodiscard]] bool ArenaFilesFinish(VMArena *arena);
void ArenaFilesAbandon(VMArena *arena);
[[nodiscard]] bool ArenaFileReadBackOld(VMArena *arena);
[[nodiscard]] bool ArenaFileFlushNew(VMArena *arena);
[[nodiscard]] bool ArenaFileFlushOld(VMArena *arena);
[[nodiscard]] bool ArenaReadNewGenFile(VMArena *arena, const std::string &path, bool checkBucketCount);
[[nodiscard]] bool ArenaReadOldGenFile(VMArena *arena, const std::string &path, OldView *into);

// VMArenaDataAcquire for a reader that knows which byte of the block's data
// it reads first (`within`, from the start of the block id's slot): in
// page-cache mode the page's line is fetched while the cache checks its frame.
[[nodiscard]] void *ArenaDataAcquireWithin(VMArena *arena, uint64_t id, uint32_t generation, int read,
                                           uint32_t within, uint32_t *size);

// Array table (array_table.cpp).
void ArrayRecordFree(ArrayRecord *record);
[[nodiscard]] bool ArrayTableInit(VMArena *arena);
void ArrayTableFree(VMArena *arena);
// The name mutex of a new record (ArenaRecordNew).
[[nodiscard]] bool ArrayStateInit(VMArena *arena);
// What the arrays derive from the new generation's table and array 0 (record
// directory, name slots), rebuilt after the table was read. At open
// (ArraysOpened) everything; after a mount (ArraysMounted) the directory,
// the names following at the memory commit (ArraysViewChanged), once the
// mounted generation's blocks can be read. False with an error (the stored
// name array contradicts itself or is missing; nothing is tagged).
[[nodiscard]] bool ArraysOpened(VMArena *arena);
[[nodiscard]] bool ArraysMounted(VMArena *arena);
[[nodiscard]] bool ArraysViewChanged(VMArena *arena);
// Makes the blocks of one array in `genID` resident (keep hints); the apply
// step of a lock entry whose index is an array id (array_access.cpp).
[[nodiscard]] bool ArrayLockApply(VMArena *arena, uint32_t arrayID, uint32_t genID);

// Block id coding (access.cpp).
uint32_t SizeClassOf(uint32_t size);
uint32_t SlotBits(uint32_t sizeClass);

// The `committing` marker (commit.cpp): created and removed durably.
// Step 2 and step 4 of a commit (commit.cpp): the marker made durable (with
// the replication log's records), and its removal made durable.
[[nodiscard]] bool CreateCommittingMarker(const VMArena *arena);
[[nodiscard]] bool RemoveCommittingMarker(VMArena *arena);

// Crash stop of this arena.
inline void ArenaCrashPoint(const VMArena *arena, const char *stop) { QWCrashPoint(stop, arena->directory.c_str()); }

// Memory-lock registry (locks.cpp).
void ArenaReapplyLocks(VMArena *arena);
int ArenaMemoryEnumerate(void *context);

}  // namespace qw::vm
