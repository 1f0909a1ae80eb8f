/*
 * qwvm/ldbarray.h: large-element arrays.
 *
 * A large-element array stores byte strings of any length (up to
 * LDBARRAY_MAX_ELEMENT_SIZE) under the same (bucket, handle) addresses as a
 * block-directory array (qwvm/dbarray.h), which it wraps. A string of at most
 * LDBARRAY_MAX_DIRECT_SIZE (4090) bytes is stored directly as a
 * block-directory element; a longer one is written to whole arena blocks and
 * the element holds a descriptor of those blocks (the external form). One bit
 * per element, in a flag array, says which form an element has.
 *
 * Storage, under the caller's path P: the block-directory array at
 * "P/ldbarray" (its arrays are "P/ldbarray/dbarray/data%04x", ...) and the
 * flag array "P/ldbarray/flag" (1-byte elements). The flag of element
 * (bucket, handle) is bit g % 8 of byte g / 8, g = handle * bucketCount +
 * bucket; 1 means external.
 *
 * External form. The data is cut into as many 8192-byte blocks
 * (LDBARRAY_BLOCK_SIZE) as fit, then one 4096-byte block
 * (LDBARRAY_HALF_BLOCK_SIZE) when 4096 or more bytes remain, then one block of
 * the arena's smallest size class that holds the rest (none when nothing
 * remains). The element holds the list of those blocks' 64-bit arena block
 * ids, in data order, followed by an 8-byte trailer: (total length * 2) +
 * level, unsigned 64-bit little-endian. Level 0: the list names the data
 * blocks. Level 1 (when the level-0 list plus trailer would take 4091 bytes
 * or more, i.e. beyond about 4 MB of data): the list of data block ids is
 * itself stored as data, cut by the same rule, and the element lists those
 * list blocks. Two levels are the deepest (about 2 GB).
 *
 * Conventions are those of qwvm/qwlib.h: 1 or a non-NULL pointer on success,
 * 0 or NULL on failure with the calling thread's error chain set; exceptions
 * are named below. Generation arguments are NEWGEN or OLDGEN (anything else
 * fails the assertion "FALSE"); changes are allowed only in NEWGEN ("genID ==
 * NEWGEN"). Stored data found inconsistent (a flag byte missing for an
 * element that exists, a descriptor whose trailer, level, list length or
 * block ids contradict each other) tags the arena corrupted (unless it is
 * read-only) and fails the call with an error of class QW_ERROR_CLASS_DATA,
 * code 74, whose message names the broken invariant; nothing is read outside
 * a block and no block is freed on the strength of a malformed descriptor.
 *
 * Threads: any number of threads may read at once. The flag array is read
 * under the read side of the array's own read-write lock and changed under
 * its write side. Element contents rely on the arena's block access: callers
 * keep one writer per array (as for qwvm/dbarray.h) and keep readers of the
 * new generation away from the writer; readers of the committed generation
 * bracket their reads with VMArenaOldGenAcquire/Release and may run beside
 * the writer. Operations that need scratch buffers take a thread data record
 * (LDBArrayThreadDataNew) that belongs to one thread at a time.
 */
#ifndef QWVM_LDBARRAY_H
#define QWVM_LDBARRAY_H

#include <stdint.h>

#include "qwvm/dbarray.h"
#include "qwvm/export.h"
#include "qwvm/qwlib.h"
#include "qwvm/vmarena.h"

QW_BEGIN_DECLS

/* Size of the full data blocks of an external element. */
#define LDBARRAY_BLOCK_SIZE 8192u
/* Size of the one half block that may follow them. */
#define LDBARRAY_HALF_BLOCK_SIZE 4096u
/* Longest element stored directly in the block-directory array. */
#define LDBARRAY_MAX_DIRECT_SIZE 4090u
/* Longest element: the trailer keeps length * 2 + level in 32 bits. */
#define LDBARRAY_MAX_ELEMENT_SIZE 0x7FFFFFFFu
/* Returned by LDBArrayAdd on failure; never a valid handle. */
#define LDBARRAY_INVALID_HANDLE 0xFFFFFFFFu

typedef struct LDBArray LDBArray;
typedef struct LDBArrayThreadData LDBArrayThreadData;

/* ------------------------------------------------------------------------ */
/* Lifetime                                                                  */
/* ------------------------------------------------------------------------ */

/*
 * Finds or creates the array stored under `path` in `arena`.
 *  arena        [in] an open arena; must outlive the array.
 *  pathBuffer   [in/out] a growable byte array of the caller (qwlib.h; a NULL
 *               pointer is initialised) used to build the array names; its
 *               length is restored before return, in every case.
 *  path         [in] the structure's path, e.g. "files/bodies".
 *  reserved     must be 0.
 *  created      [in/out] in: non-zero allows creating arrays that are
 *               missing (ignored on a read-only arena); out: 1 when the
 *               block-directory array or the flag array was created, else 0.
 *               May be NULL (no creation).
 *  locked       non-zero when the caller holds the arrays' registered lock;
 *               the initial value of both generations' lock flags.
 *  bucketCount  number of buckets of a new array (1 to 65536: the assertion
 *               "bucketCount <= 65536"); an existing array keeps its own.
 * Returns the array (free it with LDBArrayFree), or NULL: code 2 when an
 * array is missing and may not be created, code 22 for a bucket count of 0
 * or a non-zero `reserved`, or the arena's error when an array cannot be
 * made. A flag array that is new since the last commit has no committed
 * part: OLDGEN reads then find every element absent.
 */
QW_API LDBArray *LDBArrayNew_(VMArena *arena, uint8_t **pathBuffer, const char *path, uint32_t reserved,
                              int *created, int locked, uint32_t bucketCount);

/* LDBArrayNew_ with reserved 0. */
QW_API LDBArray *LDBArrayNew(VMArena *arena, uint8_t **pathBuffer, const char *path, int *created, int locked,
                             uint32_t bucketCount);

/* Frees the in-memory record and its lock (NULL is ignored). The arrays stay
 * in the arena. */
QW_API void LDBArrayFree(LDBArray *array);

/*
 * Makes the committed generation of the array the one just committed: call
 * it after VMArenaCommit succeeded (DBArrayCommit, and the flag array's
 * committed id). When readers of OLDGEN run on other threads, call it with
 * them held off (between VMArenaFlushCommitMemoryAcquire and ...Release).
 * Returns 1.
 */
QW_API int LDBArrayCommit(LDBArray *array);

/* Forwarded to the block-directory array (qwvm/dbarray.h): options, bucket
 * count, number of handles of a bucket, the block of a handle's element (its
 * descriptor for an external element), prefetch, space of the directly
 * stored part, check and msync. */
QW_API void LDBArraySetCompact(LDBArray *array, uint32_t compact);
QW_API void LDBArraySetMaxBlocks(LDBArray *array, uint32_t maxBlocks);
QW_API uint32_t LDBArrayBucketCount(LDBArray *array);
QW_API uint32_t LDBArraySize(LDBArray *array, uint32_t bucket, uint32_t genID);
QW_API const void *LDBArrayHintGet(LDBArray *array, uint32_t bucket, uint32_t handle, uint32_t genID);
QW_API uint64_t LDBArrayUsage(LDBArray *array, uint32_t bucket, uint32_t genID, uint64_t *used);
QW_API void LDBArrayPrefetch(LDBArray *array, uint32_t bucket, uint32_t handle, uint32_t genID);
QW_API uint32_t LDBArrayCheck(LDBArray *array, uint32_t genID);
QW_API int LDBArrayMSync(LDBArray *array);

/*
 * Registers the memory locks of the flag array and of the block-directory
 * array in `genID` with the arena (see DBArrayLockRegister). When `lock` is
 * non-zero the array also marks itself locked in that generation. Returns 1,
 * or 0 with an error.
 */
QW_API int LDBArrayLockRegister(LDBArray *array, uint32_t lock, uint32_t genID);

/* ------------------------------------------------------------------------ */
/* Thread data                                                               */
/* ------------------------------------------------------------------------ */

/* Scratch lists of one thread for LDBArrayAdd and LDBArrayDataSet. NULL with
 * an error when out of memory. */
QW_API LDBArrayThreadData *LDBArrayThreadDataNew(void);
/* Frees the record (NULL is ignored). */
QW_API void LDBArrayThreadDataFree(LDBArrayThreadData *data);
/* Empties the lists, making afresh any that has grown past 10000 entries.
 * Returns 1, or 0 with an error when out of memory. */
QW_API int LDBArrayThreadDataReInit(LDBArrayThreadData *data);

/* ------------------------------------------------------------------------ */
/* Elements                                                                  */
/* ------------------------------------------------------------------------ */

/*
 * Appends a string to a bucket.
 *  threadData  [in/out] the calling thread's scratch record.
 *  bucket      bucket number (< LDBArrayBucketCount).
 *  data        [in] `length` bytes (may be NULL when length is 0).
 *  length      at most LDBARRAY_MAX_ELEMENT_SIZE (code 22 beyond).
 *  genID       must be NEWGEN.
 * Returns the new handle (the bucket's previous LDBArraySize), or
 * LDBARRAY_INVALID_HANDLE with an error when no block can be had or the
 * bucket is corrupted; nothing is added then and no block is kept.
 */
QW_API uint32_t LDBArrayAdd(LDBArray *array, LDBArrayThreadData *threadData, uint32_t bucket, const void *data,
                            uint32_t length, uint32_t genID);

/*
 * Replaces the contents of element `handle` by `length` bytes of `data`
 * (either form to either form). The new contents are written first and the
 * blocks of an old external form freed last, so that a failure leaves the
 * element as it was. genID must be NEWGEN. Returns 1, or 0 with an error
 * (code 2 when the handle does not exist, code 22 for a length beyond
 * LDBARRAY_MAX_ELEMENT_SIZE).
 */
QW_API int LDBArrayDataSet(LDBArray *array, LDBArrayThreadData *threadData, uint32_t bucket, uint32_t handle,
                           const void *data, uint32_t length, uint32_t genID);

/*
 * The bytes of element `handle` from `offset` on, as far as they lie
 * contiguously in one block.
 *  end     [out] the offset one past the last byte returned contiguously;
 *          `offset` when NULL is returned.
 *  total   [out, may be NULL] the element's length (0 for an absent one).
 *  read    non-zero for read-only access; 0 gives writable bytes (NEWGEN
 *          only) that may be changed in place.
 * Returns the address of the byte at `offset`, held until LDBArrayRelease
 * (array, genID, read, address); or NULL, with nothing held, when `offset` is
 * at or beyond the element's length or the handle does not exist (no error),
 * or when the element cannot be read or is malformed (an error is set).
 * Reading a range acquires the flag byte, the element and (external form)
 * one data block, plus one list block at level 1.
 */
QW_API void *LDBArrayRange(LDBArray *array, uint32_t bucket, uint32_t handle, uint32_t offset, uint32_t *end,
                           uint32_t *total, uint32_t genID, int read);

/* Gives back an address from LDBArrayRange, with the same genID and read
 * (written back dirty when read is 0). NULL is ignored. */
QW_API void LDBArrayRelease(LDBArray *array, uint32_t genID, int read, void *address);

/*
 * Copies the whole element into *buffer (a qwlib growable byte array; a NULL
 * pointer is initialised and then owned by the caller). Unless `append` is
 * set the buffer is emptied first (and made afresh when it has grown past
 * 10000 bytes); the element's bytes are appended. An absent handle copies
 * nothing. Returns 1, or 0 with an error (the buffer then holds its bytes
 * from before the call, emptied unless `append` was set).
 */
QW_API int LDBArrayGetArray(LDBArray *array, uint32_t bucket, uint32_t handle, uint8_t **buffer, int append,
                            uint32_t genID);

/*
 * Empties element `handle` (its handle stays): frees the blocks of an
 * external element, clears its flag and sets its length to 0. Every block of
 * a two-level element is freed, its last data block included. genID must be
 * NEWGEN. Returns 1, or 0 with an error (code 2 when the handle does not
 * exist).
 */
QW_API int LDBArrayClearElement(LDBArray *array, uint32_t bucket, uint32_t handle, uint32_t genID);

/*
 * Empties the whole array: frees the external blocks of every element of
 * every bucket, clears the block-directory array and every flag bit (the
 * flag array keeps its length, all bytes zero).
 * genID must be NEWGEN. Returns 1, or 0 with an error. The blocks of a
 * malformed element cannot be known: they stay allocated, the arena is
 * tagged corrupted, the clear goes on and then returns 0 with the data error.
 */
QW_API int LDBArrayClear(LDBArray *array, uint32_t genID);

QW_END_DECLS

#endif /* QWVM_LDBARRAY_H */
