/*
 * qwvm/sfs.h: the small file store.
 *
 * A small file store keeps many small files in an arena of its own (opened
 * memory-mapped in its directory): a path dictionary "path" maps each path
 * to a file ID + 1, and record i of bucket 0 of the large-element array
 * "file" holds the bytes of file i. "params" holds the next file ID never
 * handed out; "free" is a stack of free file IDs, reused first (the store
 * never removes files itself; the stack is for tools that do).
 *
 * Handles: (file ID << 1) | w, where w = 1 for the writable generation
 * (NEWGEN) and 0 for the committed one (OLDGEN). SFS_NO_HANDLE means no
 * file.
 *
 * Threads: writers serialise on the store's writer mutex (SFSAcquire with
 * readOnly 0 ... SFSRelease, and SFSCommit takes it itself); readers pin the
 * committed generation with SFSAcquire(store, 1) instead and never wait for
 * the writer. Lookups and writes borrow scratch from a process-wide pool of
 * thread data, so any thread may call SFSHandleGet and SFSSet without
 * scratch of its own. The pool creates items on demand and lets at most
 * SFS_POOL_LIMIT of them be in use at once; a caller beyond that waits up to
 * SFS_POOL_TIMEOUT_MS milliseconds and then fails with code 11 (EAGAIN)
 * rather than hang.
 *
 * Conventions are those of qwvm/qwlib.h: 1 or non-NULL on success, 0 or
 * NULL with the error chain set, except where stated.
 */
#ifndef QWVM_SFS_H
#define QWVM_SFS_H

#include <stdint.h>

#include "qwvm/export.h"
#include "qwvm/qwlib.h"
#include "qwvm/qwlog.h"
#include "qwvm/vmarena.h"

QW_BEGIN_DECLS

#define SFS_NO_HANDLE 0xFFFFFFFFu
/* Thread data items in use at once, process-wide. */
#define SFS_POOL_LIMIT 256u
/* How long a lookup waits for a pool item before it fails. */
#define SFS_POOL_TIMEOUT_MS 30000

typedef struct SFS SFS;

/*
 * Opens the store in `directory`.
 *  writable     non-zero: read-write, creating the store when missing;
 *               zero: read-only (the store must exist).
 *  recover      non-zero: open with VM_FLAG_RECOVER and commit once after
 *               opening (the counter's initialisation is skipped).
 *  bucketCount  bucket servers of a new arena (existing arenas keep theirs).
 *  replicationLog  passed to VMArenaOpen; may be NULL.
 * A new store is committed once, so that a read-only open finds it.
 * Returns the store (SFSClose), or NULL with the error chain ending in one
 * of "SFSOpen:cannot open arena in directory \"<dir>\"", "SFSOpen:cannot
 * create pathDict", "SFSOpen:cannot create ldbArray", "SFSOpen:cannot create
 * params".
 */
QW_API SFS *SFSOpen(const char *directory, int writable, int recover, uint32_t bucketCount,
                    ReplicationLog *replicationLog);

/* Frees the structures, closes the arena (uncommitted changes are dropped)
 * and frees the record. Returns 1. */
QW_API int SFSClose(SFS *store);

/* Commits the arena under the writer mutex (the caller must not hold it)
 * and makes OLDGEN handles see the commit. Returns 1, or 0 with the
 * arena's error (the committed state is then the previous one). */
QW_API int SFSCommit(SFS *store);

/* The store's arena. */
QW_API VMArena *SFSArenaGet(SFS *store);

/* readOnly: pins the committed generation; otherwise takes the writer
 * mutex. Returns 1, or 0 with "error while locking". */
QW_API int SFSAcquire(SFS *store, int readOnly);
/* The reverse of SFSAcquire. Returns 1, or 0 with "error while unlocking". */
QW_API int SFSRelease(SFS *store, int readOnly);

/*
 * The handle of `path` (pathLength bytes, components as in qwvm/pathdict.h)
 * in genID. With create (NEWGEN only: the assertion "!create" in OLDGEN) a
 * missing path gets a new file ID (the top of "free", else the counter) and
 * an empty record. Returns the handle, or SFS_NO_HANDLE when the path is
 * absent (no error set) or on failure (error set).
 */
QW_API uint32_t SFSHandleGet(SFS *store, const char *path, uint32_t pathLength, int create, uint32_t genID);

/*
 * The bytes of a file from `offset`: returns their address, with *end the
 * offset one past the last byte contiguous with it and *length the file's
 * length; give the address back with SFSDataRelease. Returns NULL at or past
 * the end (then *end = offset) and for a file ID beyond the records of the
 * handle's generation (then *end = *length = 0); an error is set only on
 * failure.
 */
QW_API const void *SFSGet(SFS *store, uint32_t handle, uint32_t offset, uint32_t *end, uint32_t *length);

/* Gives back an address from SFSGet. */
QW_API void SFSDataRelease(SFS *store, uint32_t handle, const void *data);

/*
 * Copies a whole file into `array` (a growable byte array of the caller;
 * NULL is initialised), emptied first unless `append` is set. Returns 1
 * (also for a missing file, which copies nothing), or 0 with an error.
 */
QW_API int SFSGetArray(SFS *store, uint32_t handle, uint8_t **array, int append);

/*
 * Replaces the contents of a file (the handle must be writable: "genID ==
 * NEWGEN"). Returns 1 when written; 0 when the handle is SFS_NO_HANDLE or
 * names no record (no error set), or on failure (error set).
 */
QW_API int SFSSet(SFS *store, uint32_t handle, const void *data, uint32_t length);

/* Called once per path under a prefix; returns non-zero to go on. */
typedef int (*SFSListCallback)(void *context, const char *path, uint32_t pathLength, uint32_t handle);

/*
 * Calls `callback` for every file whose path starts with the components of
 * `prefix` (empty: all), in genID, in the path dictionary's order. Returns 1
 * when the walk ended or was stopped, 0 with an error.
 */
QW_API int SFSList(SFS *store, const char *prefix, uint32_t prefixLength, uint32_t genID, SFSListCallback callback,
                   void *context);

/*
 * The pool's item callback: operation 0 creates an item's two thread datas
 * (path dictionary and large-element array; returns 0 when memory runs
 * out), 1 (an item taken from the free stack) does nothing, 3 frees them.
 * `item` points at the item. Returns 1 on success.
 */
QW_API int SFSThreadDataPoolCB(int operation, void *item);

QW_END_DECLS

#endif /* QWVM_SFS_H */
