// The fault seam: the one checkpoint that every file, directory and mapping
// operation of qwlib passes before it touches the disk, and the test-facing
// controls that turn it into an error injector or a power-loss simulator.
//
// Design note
// -----------
// Off by default. While disabled, Check() and its variants cost one relaxed
// atomic load and a predictable branch, and reads and writes pay nothing
// more; operations with journal bookkeeping around their system call (open,
// set size, sync, rename, remove, mkdir, map) load the mode once more beside
// it. Nothing is recorded. Calling any control below (Reset, FailNth,
// FailPath, EnableDurabilityTracking, CrashAtSync) arms the seam; Disable()
// returns it to the zero-cost state.
//
// Error injection. Armed, the seam counts every operation that reaches it
// (OperationCount) and every sync among them (SyncCount: file syncs, mapping
// syncs, directory syncs). Rules added by FailNth/FailPath make matching
// operations fail with code 5 (EIO, class QW_ERROR_CLASS_SYSTEM) and the
// innermost message "injected I/O error in <op> \"<path>\""; the failing
// function appends its own message as it would for a real error. A failed
// operation has no effect on disk, except close: like close(2), an injected
// close failure still releases the descriptor. FileExists (it cannot fail)
// and MemoryLoad/PageSize (no file behind them) do not pass the seam.
//
// Power loss. With durability tracking on, the seam keeps an undo journal of
// what is not yet durable:
//  - per file (by inode): every write and size change since the file's last
//    QWFileSync/ChannelSync, with the bytes and size it replaced; for each
//    writable mapping, a snapshot of the mapped bytes as of the map call or
//    the last FileMapSync of the range or QWFileSync of the file (mapped
//    writes bypass the seam, so a snapshot stands in for their undo record);
//  - per directory: creations of new files, renames, removals, mkdir and
//    rmdir since the last DirectorySync of every directory they touched (a
//    rename across directories needs both synced). A file that a pending
//    rename or removal would destroy is first hard-linked to a hidden backup
//    name (".qwfault-backup-...") in its own directory, so that the undo can
//    bring it back; DirectoryList hides these names while the seam is armed.
// SimulatePowerLoss rewrites the disk to a state that could survive a crash:
//  - Drop: undo every pending change, newest first (pwrites, then mapping
//    snapshots written back, then namespace operations).
//  - Keep: keep everything (the state a clean kernel flush would leave).
//  - Garble (seeded, reproducible for the same workload and seed): from the
//    durable state, replay each pending write or size change in order as
//    kept, dropped, or overwritten with random bytes over its range; for
//    mappings the unit is the span of changed bytes within each page; each
//    pending namespace operation is kept or dropped whole (a rename is
//    all-or-nothing), and an operation on a name that a dropped earlier
//    operation touched (or on a path inside a dropped mkdir) is dropped too,
//    so that the namespace stays one that a journal could have produced.
// Afterwards the journal and backups are gone and the process must not use
// its open handles again: the usual pattern is a forked child that runs the
// workload, calls SimulatePowerLoss and _exit(1), or arms CrashAtSync(n) so
// that the n-th sync performs the power loss and _exit(1) instead of syncing.
//
// What the model does not cover: metadata other than names and sizes
// (permissions, times); sector tearing inside one write (Garble replaces a
// whole write's range); a file's data made durable by another process; exact
// ordering when several threads write overlapping ranges of one file at once
// (each write is journalled before it happens, under the seam's mutex, but
// the writes themselves race). Mappings made before tracking was switched on
// are not snapshotted. Tracking is a test facility: it allocates freely and
// terminates the process if memory runs out.
//
// Tracing: with the environment variable QWVM_FAULT_TRACE set, every
// operation that reaches the armed seam is printed to stderr as
// "fault seam: <pid>: operation <n>: <op> \"<path>\"", so that the n of a
// failing FailNth or CrashAtSync point can be matched to what it hit.
//
// Thread safety: every function here may be called from any thread. Counters
// are atomics; rules and the journal are guarded by mutexes that are never
// taken on the disabled path.
#pragma once

#include <atomic>
#include <cstddef>
#include <cstdint>

namespace qw::fault {

// Operation kinds, one bit each so that rules can take a mask.
enum class Op : uint32_t {
  Open = 1u << 0,
  Read = 1u << 1,
  Write = 1u << 2,
  SetSize = 1u << 3,  // QWFileSetSize
  Stat = 1u << 4,     // QWFileGetSize, FileSize
  Sync = 1u << 5,     // QWFileSync, ChannelSync
  Close = 1u << 6,
  Rename = 1u << 7,
  Remove = 1u << 8,
  Truncate = 1u << 9,  // FileTruncate (by path)
  Mkdir = 1u << 10,
  Rmdir = 1u << 11,
  DirSync = 1u << 12,
  List = 1u << 13,
  Map = 1u << 14,
  Unmap = 1u << 15,
  MapSync = 1u << 16,
  Advise = 1u << 17,  // FileSetReadSize, MemoryAdvise
};

inline constexpr uint32_t kAllOps = (1u << 18) - 1;

constexpr uint32_t Bit(Op op) { return uint32_t(op); }
constexpr uint32_t operator|(Op a, Op b) { return Bit(a) | Bit(b); }
constexpr uint32_t operator|(uint32_t a, Op b) { return a | Bit(b); }

// Lower-case name used in injected messages ("open", "write", "dirsync"...).
const char *OpName(Op op) noexcept;

enum class PowerLoss { Drop, Keep, Garble };

// ---------------------------------------------------------------------------
// Test-facing controls
// ---------------------------------------------------------------------------

// Arms the seam and clears rules, counters, the durability journal (deleting
// backups; the disk is left as it is) and any CrashAtSync.
void Reset() noexcept;

// Reset, then back to the zero-cost disabled state.
void Disable() noexcept;

// The n-th operation (n >= 1, counting from this call) whose kind is in
// `opMask` and whose path contains `pathSubstring` ("" matches every path;
// a rename matches on either name) fails with EIO. With `persistent`, every
// later matching operation fails too, until Reset. Rules accumulate.
void FailNth(uint64_t n, bool persistent, uint32_t opMask = kAllOps, const char *pathSubstring = "") noexcept;

// Every operation in `opMask` on a path containing `pathSubstring` fails.
void FailPath(const char *pathSubstring, uint32_t opMask = kAllOps) noexcept;

// Operations and syncs that reached the seam since the last Reset.
uint64_t OperationCount() noexcept;
uint64_t SyncCount() noexcept;

// Starts (true) or stops (false) journalling non-durable changes. Stopping
// forgets the journal as Reset does.
void EnableDurabilityTracking(bool on) noexcept;

// Rewrites the disk to what would survive a power loss now (see the design
// note) and clears the journal. Open handles must not be used afterwards.
void SimulatePowerLoss(PowerLoss mode, uint64_t seed = 0) noexcept;

// Turns durability tracking on and makes the n-th sync from now (n >= 1)
// perform SimulatePowerLoss(mode, seed) and _exit(1) instead of syncing.
void CrashAtSync(uint64_t n, PowerLoss mode, uint64_t seed = 0) noexcept;

// ---------------------------------------------------------------------------
// Seam-facing interface (used by qwlib's file, path, channel and mapping code)
// ---------------------------------------------------------------------------

namespace detail {

inline constexpr uint32_t kArmed = 1;     // counting, mapping names
inline constexpr uint32_t kRules = 2;     // injection rules present
inline constexpr uint32_t kTracking = 4;  // durability journal on
inline constexpr uint32_t kCrash = 8;     // CrashAtSync armed

extern std::atomic<uint32_t> gMode;

[[nodiscard]] bool CheckSlow(Op op, const char *path, const char *path2) noexcept;
[[nodiscard]] bool CheckWriteSlow(int fd, const char *path, uint64_t offset, const void *data, size_t size) noexcept;
[[nodiscard]] bool CheckMappingSlow(Op op, const void *address) noexcept;

}  // namespace detail

// Passes operation `op` on `path` (and `path2`, the target of a rename)
// through the seam. True: go ahead. False: the operation must fail without
// touching the disk; the error chain holds the injected error.
[[nodiscard]] inline bool Check(Op op, const char *path, const char *path2 = nullptr) noexcept {
  if (detail::gMode.load(std::memory_order_relaxed) == 0) [[likely]]
    return true;
  return detail::CheckSlow(op, path, path2);
}

// Check for a write of `size` bytes at `offset` through descriptor `fd`;
// with tracking on it also journals the bytes the write will replace.
[[nodiscard]] inline bool CheckWrite(int fd, const char *path, uint64_t offset, const void *data,
                                     size_t size) noexcept {
  if (detail::gMode.load(std::memory_order_relaxed) == 0) [[likely]]
    return true;
  return detail::CheckWriteSlow(fd, path, offset, data, size);
}

// Check for an operation on a mapped segment, named by the mapped file's path
// when the mapping was made while the seam was armed.
[[nodiscard]] inline bool CheckMapping(Op op, const void *address) noexcept {
  if (detail::gMode.load(std::memory_order_relaxed) == 0) [[likely]]
    return true;
  return detail::CheckMappingSlow(op, address);
}

// For the bookkeeping that follows a successful system call.
[[nodiscard]] inline bool Armed() noexcept { return detail::gMode.load(std::memory_order_relaxed) != 0; }
[[nodiscard]] inline bool Tracking() noexcept {
  return (detail::gMode.load(std::memory_order_relaxed) & detail::kTracking) != 0;
}

// Remembers / forgets which file a mapped segment belongs to (armed only),
// so that operations on any address inside it name that file.
void NoteMapping(const void *address, uint64_t length, const char *path) noexcept;
void ForgetMapping(const void *address) noexcept;

}  // namespace qw::fault
