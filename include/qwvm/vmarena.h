/*
 * qwvm/vmarena.h: the block arena.
 *
 * An arena is a directory of bucket data files cut into 8192-byte server
 * blocks. It exists in two generations: NEWGEN (0), read-write, where every
 * change goes, and OLDGEN (1), the last committed state, read-only. The first
 * write to a block that the old generation still uses copies it. VMArenaCommit
 * makes the new generation durable and current; a crash at any point leaves an
 * arena that the next VMArenaOpen brings back to the previous or the new
 * committed state.
 *
 * Conventions are those of qwvm/qwlib.h (1 / non-NULL on success, 0 / NULL on
 * failure with the error chain set). Generation arguments other than NEWGEN
 * or OLDGEN fail the assertion "FALSE"; writes are allowed only in NEWGEN
 * ("genID == NEWGEN"). An arena that finds its stored data inconsistent tags
 * itself corrupted (the file `corrupted` in its directory) before failing, and
 * cannot be opened again until the tag is removed by hand.
 *
 * Threads: an arena may be used from several threads at once. Readers of the
 * old generation bracket their reads with VMArenaOldGenAcquire/Release;
 * writers of the new generation with VMArenaNewGenAcquire(arena, 0)/Release.
 * Lock order: flush lock, the process memory lock, the generation lock, the
 * arena's mutexes, each bucket server's mutex.
 */
#ifndef QWVM_VMARENA_H
#define QWVM_VMARENA_H

#include <stddef.h>
#include <stdint.h>

#include "qwvm/export.h"
#include "qwvm/qwcache.h"
#include "qwvm/qwlog.h"

QW_BEGIN_DECLS

typedef struct VMArena VMArena;
typedef struct LocalBlockServer0 LocalBlockServer0;

/* Generations. */
#define NEWGEN 0u
#define OLDGEN 1u

/* Identifiers. */
#define INVALID_BLOCK_ID 0xFFFFFFFFu
#define INVALID_RAW_BLOCK_ID 0xFFFFFFFFu
#define INVALID_VMARENA_BLOCK_ID 0xFFFFFFFFFFFFFFFEull
#define STATUS_NO_SERIAL 0xFFFFFFFFFFFFFFFFull

/* Sizes. */
#define ARENA_MAX_BLOCK_SIZE 8192u
#define ARENA_SIZE_CLASS_COUNT 16u

/* Open flags. */
#define VM_FLAG_CREATE 1u     /* create an empty arena when none exists */
#define VM_FLAG_READ_ONLY 2u  /* no flush, commit, allocation or write */
#define VM_FLAG_RECOVER 4u    /* finish a pending commit of the generation files */
#define VM_FLAG_MAPPED 16u    /* data files memory-mapped instead of page-cached */
#define VM_FLAG_READAHEAD 32u /* open data files with the read-ahead hint */
#define VM_FLAG_EXTENTS 256u  /* with VM_FLAG_MAPPED: read-write parts in extent files */

/* ------------------------------------------------------------------------ */
/* Lifecycle                                                                 */
/* ------------------------------------------------------------------------ */

/*
 * Opens (and with VM_FLAG_CREATE creates) the arena in `directory`.
 *  flags        VM_FLAG_... bits, passed on to every bucket server.
 *  bucketCount  number of bucket servers when the arena is created; an
 *               existing arena keeps its own.
 *  oldSerial, newSerial  STATUS_NO_SERIAL for an arena whose generation files
 *               have fixed names (renamed into place at commit); otherwise the
 *               serials of the generation to open (0, 0 at creation).
 *  replicationLog  may be NULL.
 *  cache        the process page cache; required unless VM_FLAG_MAPPED.
 * Returns the arena, or NULL with the error chain set. Failures include
 * "Corrupted vm in \"<dir>\"", "Cannot open read-only vm in \"<dir>\":
 * incomplete commit", "existing but not openable VM in \"<dir>\"" and
 * "could not read VMArena in \"<dir>\"", and "cannot create name service"
 * when the name list is damaged or a writable arena cannot have its name
 * index (qwvm/vmaarray.h, VMAArrayFind). A writable open makes the index's
 * arrays (under "#name/") in an arena that lacks them.
 * An interrupted commit (the `committing` marker) is finished by a writable
 * open before anything is read.
 */
QW_API VMArena *VMArenaOpen(const char *directory, uint32_t flags, uint32_t bucketCount, uint64_t oldSerial,
                            uint64_t newSerial, ReplicationLog *replicationLog, PageCache *cache);

/* Frees the arena. Does not commit: uncommitted changes are dropped. Returns 1. */
QW_API int VMArenaClose(VMArena *arena);

/* The arena's directory, as given to VMArenaOpen. */
QW_API const char *VMArenaPath(VMArena *arena);

/* Non-zero when opened with VM_FLAG_READ_ONLY. */
QW_API int VMArenaIsReadOnly(VMArena *arena);

/* The current serials (STATUS_NO_SERIAL when unserialised). */
QW_API void VMArenaSerials(VMArena *arena, uint64_t *oldSerial, uint64_t *newSerial);

/* Number of bucket servers, and the i-th one (for statistics). */
QW_API uint32_t VMArenaBucketCount(VMArena *arena);
QW_API LocalBlockServer0 *VMArenaBucketServer(VMArena *arena, uint32_t index);

/*
 * Reads the generation (oldSerial, newSerial) written by another process into
 * the open (possibly read-only) arena; the caller then runs
 * VMArenaFlushCommitMemory to make it current. Fails with code 2 when the
 * generation's bucket count differs.
 */
QW_API int VMArenaMountGeneration(VMArena *arena, uint64_t oldSerial, uint64_t newSerial);

/* Leaves the `corrupted` marker in the arena directory (a message, not an
 * error, when it cannot be created). */
QW_API void VMArenaTagCorrupted(VMArena *arena);

/* ------------------------------------------------------------------------ */
/* Blocks                                                                    */
/* ------------------------------------------------------------------------ */

/*
 * Allocates an arena block of at least `size` bytes (at most 8192) in one of
 * the 16 size classes (64 to 8192 bytes). `lock` non-zero also makes its
 * server block resident. `actualSize` (may be NULL) receives the class size.
 * `reserved` must be 0. Returns the arena block id, or
 * INVALID_VMARENA_BLOCK_ID when no server block can be had.
 */
QW_API uint64_t VMArenaBlockNew(VMArena *arena, int lock, uint32_t size, uint32_t *actualSize, uint32_t reserved);

/* Frees an arena block of the new generation. `reserved` must be 0. */
QW_API void VMArenaBlockFree(VMArena *arena, uint64_t id, uint32_t reserved);

/*
 * Address of the arena block's bytes in `generation`. `read` 0 asks for write
 * access (NEWGEN only; copies the block on its first write since the last
 * commit). Returns NULL (size 0) for INVALID_VMARENA_BLOCK_ID or on failure.
 * `size` receives the class size, `sizeClass` (may be NULL) the class.
 * Every successful acquire is paired with VMArenaDataRelease.
 */
QW_API void *VMArenaDataAcquire(VMArena *arena, uint64_t id, uint32_t hint, uint32_t generation, int read,
                                uint32_t *size, uint32_t *sizeClass);

/* Releases an address from VMArenaDataAcquire (dirty when read is 0). */
QW_API void VMArenaDataRelease(VMArena *arena, uint64_t id, int read, void *address, int hint1, int hint2);

/* Starts reading the block's data ahead of use. */
QW_API void VMArenaDataPrefetch(VMArena *arena, uint64_t id, uint32_t hint, uint32_t generation);

/* Whole 8192-byte server blocks by global block id. */
QW_API uint32_t VMArenaDataBlockNew(VMArena *arena, uint32_t argument, uint32_t reserved);
QW_API void VMArenaDataBlockFree(VMArena *arena, uint32_t globalId, uint32_t argument);
QW_API void *VMArenaDataBlockAcquire(VMArena *arena, uint32_t globalId, uint32_t hint, uint32_t generation,
                                     int read);

/* Makes the server block resident (fetched into the page cache and released
 * with keep hints). Asserts "blockID != INVALID_BLOCK_ID" and, for a block
 * without a raw block in `generation`, "rawBlockID != INVALID_RAW_BLOCK_ID".
 * In mapped mode there is no page cache to keep the block in: the call does
 * nothing (the mapping keeps it), so that locked arrays work in both modes. */
QW_API void VMArenaBlockLock(VMArena *arena, uint32_t blockID, uint32_t generation);

/* Placement of an arena block: its class, bucket, server block and slot. */
QW_API int VMABlockInfoGet(VMArena *arena, uint64_t id, uint32_t *sizeClass, uint32_t *bucket,
                           uint32_t *serverBlock, uint32_t *slot);

/* ------------------------------------------------------------------------ */
/* Generation locks and memory locks                                          */
/* ------------------------------------------------------------------------ */

QW_API void VMArenaOldGenAcquire(VMArena *arena);
QW_API void VMArenaOldGenRelease(VMArena *arena);
/* old non-zero: the generation lock; 0: the flush lock (both for reading). */
QW_API void VMArenaNewGenAcquire(VMArena *arena, int old);
QW_API void VMArenaNewGenRelease(VMArena *arena, int old);

QW_API int VMArenaLockRegister(VMArena *arena, uint32_t argument);
QW_API int VMObjectCustomLockRegister(VMArena *arena, uint32_t object, uint32_t argument, uint32_t data,
                                      uint32_t extra);
QW_API void VMObjectCustomLockUnRegister(VMArena *arena, uint32_t object, uint32_t argument, uint32_t extra);

/* Forwarding to every bucket server's data file. */
QW_API int VMArenaMemoryAdvise(VMArena *arena, int advice);
QW_API int VMArenaMSync(VMArena *arena);
QW_API int VMArenaFreePrefetch(VMArena *arena);

/* ------------------------------------------------------------------------ */
/* Flush and commit                                                          */
/* ------------------------------------------------------------------------ */

/*
 * Makes the new generation durable and current. `oldSerialOut` and
 * `newSerialOut` (may be NULL) receive the serials written. With `memoryLock`
 * the memory step runs under the process memory lock. Returns 1, or 0 with the
 * error chain set; after a failure the in-memory generations are as before
 * and the arena commits again later.
 */
QW_API int VMArenaCommit(VMArena *arena, uint64_t *oldSerialOut, uint64_t *newSerialOut, int memoryLock);

/* The five steps of VMArenaCommit, for callers that run them one by one. A
 * started flush must end with VMArenaFlushStop, also after a failure. */
QW_API int VMArenaFlushStart(VMArena *arena, uint64_t *oldSerialOut, uint64_t *newSerialOut);
QW_API int VMArenaFlushExec(VMArena *arena);
QW_API int VMArenaFlushCommitDisk(VMArena *arena);
QW_API int VMArenaFlushCommitMemory(VMArena *arena, int takeGenerationLock);
QW_API int VMArenaFlushStop(VMArena *arena);
QW_API void VMArenaFlushCommitMemoryAcquire(VMArena *arena);
QW_API void VMArenaFlushCommitMemoryRelease(VMArena *arena);

/* Removes a serialised generation's files; goes on after a failure and
 * returns 0 if any file could not be removed or logged. */
QW_API int VMArenaUnlinkGeneration(VMArena *arena, uint64_t oldSerial, uint64_t newSerial);

/* ------------------------------------------------------------------------ */
/* Atomic file replacement                                                   */
/* ------------------------------------------------------------------------ */

/* Replaces directory/name by directory/name.new (keeping directory/name.old
 * while it runs). Emits no message of its own. */
QW_API int FileAtomicCommit(const char *directory, const char *name);
/* Resolves an interrupted FileAtomicCommit of directory/name. Returns 1. */
QW_API int FileAtomicRecover(const char *directory, const char *name);
/* Commit marks in the directory's status file (parameter 99). */
QW_API int CommitMark(const char *directory);
QW_API int CommitUnMark(const char *directory);
QW_API int CommitMarked(const char *directory);

/* ------------------------------------------------------------------------ */
/* Block servers (statistics and development aids)                          */
/* ------------------------------------------------------------------------ */

/*
 * Prints the server's free-list lengths, its highest raw block in use and its
 * used and total raw blocks on standard output.
 */
QW_API void LocalBlockServer0StatPrint(LocalBlockServer0 *server);

/* Development aid: prints a table of candidate arena block sizes. */
QW_API void SizeGenerate(void);

/* Records that the server's data file changed; the file system keeps the
 * date, so this does nothing and returns 1. */
QW_API int MemoryMappingSetModificationDate(LocalBlockServer0 *server);

/*
 * Reads a new-generation index from `channel`, positioned after its block
 * size field: the raw size, the block map and the three free lists, and
 * makes it the server's new generation.
 *  server   [in/out] an open server; its committed (old) map is kept.
 *  channel  [in] a channel open for reading.
 * Opens the data file on the server's first read; the uncommitted changes of
 * the new generation are dropped. Returns 1, or 0 with the error chain set:
 * code 2 when the data file is shorter than the raw size
 * ("IndexFileNewGenRead: cannot mount data file: file size mismatch (file
 * size=<n>  rsize=<n>)"); class QW_ERROR_CLASS_DATA for a malformed index
 * (raw ids beyond the data file or used twice, invalid free lists, a
 * truncated file). A malformed index leaves the new generation unchanged.
 */
QW_API int IndexFileNewGenRead(LocalBlockServer0 *server, QWChannel *channel);

/* ------------------------------------------------------------------------ */
/* Check and statistics                                                      */
/* ------------------------------------------------------------------------ */

/*
 * Verifies that no two users share an arena block in the new generation (the
 * arrays' block lists and the size-class free lists). Each clash is reported
 * as a level-1 message ("enum hard block clash !!!...", "enum r block clash
 * !!!..."); nothing is changed. Returns the number of clashes found (0: the
 * generation is clean).
 */
QW_API int VMArenaCheck(VMArena *arena);

/* The same for the committed generation ("## block clash !!! ..."). */
QW_API int VMArenaCheckR(VMArena *arena);

/*
 * Prints per-array statistics of `generation` (name, length, block count,
 * largest block, bytes held and bytes touched, i.e. up to the last non-zero
 * byte of each block) and the size-class free lists to standard output.
 */
QW_API void VMAArenaStatPrint(VMArena *arena, uint32_t generation);

/* ------------------------------------------------------------------------ */
/* Arrays (the part an empty arena needs)                                    */
/* ------------------------------------------------------------------------ */

#define VMA_NO_ARRAY 0xFFFFFFFEu

/* Creates an array in the new generation; VMA_NO_ARRAY on failure. */
QW_API uint32_t VMAArrayNew(VMArena *arena, int isBlockArray, uint32_t blockSize, uint32_t genID);

QW_END_DECLS

#endif /* QWVM_VMARENA_H */
