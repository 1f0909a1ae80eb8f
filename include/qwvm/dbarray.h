/*
 * qwvm/dbarray.h: block-directory arrays.
 *
 * A block-directory array stores many variable-length byte strings of up to
 * DBARRAY_MAX_ELEMENT_SIZE (4090) bytes each, packed into small arena blocks
 * (64 to 4096 bytes), and names each string by a dense handle. The array is
 * divided into buckets, each an independent sequence with its own handles
 * 0, 1, 2, ... and its own blocks: a string's address is (bucket, handle).
 * Strings are only appended; a string can later be resized or overwritten in
 * place; nothing is ever deleted.
 *
 * Storage: each bucket keeps three arena arrays under the caller's path,
 * "<path>/dbarray/data%04x" (a block array of data blocks),
 * "<path>/dbarray/index%04x" (entry i: the block where the search for handle
 * 64 * i starts) and "<path>/dbarray/firstHandle%04x" (entry b: the first
 * handle stored in block b). A data block starts with two little-endian
 * 16-bit words, indexSize and dataSize, followed by the elements (each a
 * length prefix in the program's varint and the bytes); its index of 16-bit
 * offsets (one for every 8th element) grows downward from the block's end.
 *
 * Conventions are those of qwvm/qwlib.h: 1 or a non-NULL pointer on success,
 * 0 or NULL on failure with the calling thread's error chain set; exceptions
 * are named below. Generation arguments are NEWGEN or OLDGEN (anything else
 * fails the assertion "FALSE"); changes are allowed only in NEWGEN ("genID ==
 * NEWGEN"). A bucket number beyond the array tags the arena corrupted and
 * fails the assertion "bucketIndex < ArrayLength(array->bucket)". Stored data
 * found inconsistent (a block header or element that does not fit its block,
 * a directory that points nowhere) tags the arena corrupted (unless it is
 * read-only) and fails the call with an error of class QW_ERROR_CLASS_DATA,
 * code 74, whose message names the broken invariant; nothing is read outside
 * a block.
 *
 * Threads: the array has no lock of its own. Callers serialise writers of
 * one array and keep readers of the new generation away from its writer;
 * readers of the committed generation bracket their reads with
 * VMArenaOldGenAcquire/Release. DBArrayCheck runs worker threads of its own.
 */
#ifndef QWVM_DBARRAY_H
#define QWVM_DBARRAY_H

#include <stdint.h>

#include "qwvm/export.h"
#include "qwvm/qwlib.h"
#include "qwvm/vmarena.h"

QW_BEGIN_DECLS

/* Largest element, in bytes. */
#define DBARRAY_MAX_ELEMENT_SIZE 4090u
/* Largest data block, in bytes. */
#define DBARRAY_MAX_BLOCK_SIZE 4096u
/* Most buckets an array can have. */
#define DBARRAY_MAX_BUCKET_COUNT 65536u
/* Returned by DBArrayAdd on failure; never a valid handle. */
#define DBARRAY_INVALID_HANDLE 0xFFFFFFFFu

typedef struct DBArray DBArray;

/* ------------------------------------------------------------------------ */
/* Lifetime                                                                  */
/* ------------------------------------------------------------------------ */

/*
 * Finds or creates the array stored under `path` in `arena`.
 *  arena        [in] an open arena; must outlive the array.
 *  pathBuffer   [in/out] a growable byte array of the caller (qwlib.h; a NULL
 *               pointer is initialised) used to build the array names; its
 *               length is restored before return, in every case.
 *  path         [in] the structure's path, e.g. "trees/words".
 *  reserved     must be 0.
 *  created      [in/out] in: non-zero allows creating arrays that are
 *               missing (ignored on a read-only arena); out: 1 when any
 *               array was created, else 0. May be NULL (no creation).
 *  locked       non-zero when the caller holds the arrays' registered lock;
 *               the initial value of both generations' lock flags.
 *  bucketCount  number of buckets of a new array (1 to 65536: the assertion
 *               "bucketCount <= 65536"). An array that exists keeps its own
 *               count, found by looking up the data arrays of buckets 0, 1,
 *               2, ... until one is missing.
 * Returns the array (free it with DBArrayFree), or NULL: code 2 when an array
 * is missing and may not be created, code 22 for a bucket count of 0 or a
 * non-zero `reserved`, or the arena's error when an array cannot be made.
 * A bucket array that is new since the last commit has no committed part:
 * reads of OLDGEN find that bucket empty.
 */
QW_API DBArray *DBArrayNew_(VMArena *arena, uint8_t **pathBuffer, const char *path, uint32_t reserved, int *created,
                            int locked, uint32_t bucketCount);

/* DBArrayNew_ with reserved 0. */
QW_API DBArray *DBArrayNew(VMArena *arena, uint8_t **pathBuffer, const char *path, int *created, int locked,
                           uint32_t bucketCount);

/* Frees the in-memory record (NULL is ignored). The arrays stay in the
 * arena. */
QW_API void DBArrayFree(DBArray *array);

/*
 * Makes the committed generation of the array the one just committed: call
 * it after VMArenaCommit succeeded, so that OLDGEN reads see the buckets
 * created since the previous commit. Returns 1.
 */
QW_API int DBArrayCommit(DBArray *array);

/* Options. `compact` (default 1): merge neighbouring blocks that fit
 * together after an add or a resize. `maxBlocks` (default 0): when non-zero,
 * new blocks are made at the full 4096 bytes instead of 64. */
QW_API void DBArraySetCompact(DBArray *array, uint32_t compact);
QW_API void DBArraySetMaxBlocks(DBArray *array, uint32_t maxBlocks);

/* Number of buckets. */
QW_API uint32_t DBArrayBucketCount(DBArray *array);

/*
 * Empties every bucket of the new generation (its three arrays are cleared).
 * genID must be NEWGEN. Returns 1, or 0 with the arena's error.
 */
QW_API int DBArrayClear(DBArray *array, uint32_t genID);

/* ------------------------------------------------------------------------ */
/* Elements                                                                  */
/* ------------------------------------------------------------------------ */

/*
 * Appends a string to a bucket.
 *  bucket  bucket number (< DBArrayBucketCount).
 *  data    [in] `length` bytes (may be NULL when length is 0).
 *  length  at most DBARRAY_MAX_ELEMENT_SIZE ("dataLength <=
 *          DBARRAY_MAX_ELEMENT_SIZE").
 *  genID   must be NEWGEN.
 * Returns the new handle (the bucket's previous DBArraySize), or
 * DBARRAY_INVALID_HANDLE with an error when no block can be had or the
 * bucket is corrupted; the bucket is then unchanged.
 */
QW_API uint32_t DBArrayAdd(DBArray *array, uint32_t bucket, const void *data, uint32_t length, uint32_t genID);

/*
 * Number of handles of the bucket in `genID` (the next handle DBArrayAdd
 * gives). Returns 0 for an empty bucket, and 0 with an error when the bucket
 * is corrupted or cannot be read.
 */
QW_API uint32_t DBArraySize(DBArray *array, uint32_t bucket, uint32_t genID);

/*
 * The bytes of element `handle`.
 *  read    non-zero for read-only access; 0 gives writable bytes (NEWGEN
 *          only) that may be changed in place, length unchanged.
 *  length  [out] the element's length; 0 when NULL is returned.
 * Returns the address of the element's bytes, holding its block until
 * DBArrayRelease(array, genID, read, address); or NULL, with nothing held,
 * when the handle does not exist or the element is empty (no error), or when
 * the bucket is corrupted or cannot be read (an error is set).
 */
QW_API void *DBArrayGet(DBArray *array, uint32_t bucket, uint32_t handle, uint32_t genID, int read,
                        uint32_t *length);

/* Gives back a block held by DBArrayGet or DBArrayHintGet; `read` as given
 * to that call (1 for DBArrayHintGet). */
QW_API void DBArrayRelease(DBArray *array, uint32_t genID, int read, const void *address);

/*
 * Replaces element `handle` by `length` bytes of `data`: DBArrayLengthSet to
 * `length`, then the bytes are copied in. genID must be NEWGEN; `length` at
 * most DBARRAY_MAX_ELEMENT_SIZE. Returns 1, or 0 with an error (code 2 when
 * the handle does not exist).
 */
QW_API int DBArraySet(DBArray *array, uint32_t bucket, uint32_t handle, uint32_t genID, const void *data,
                      uint32_t length);

/*
 * Resizes element `handle` in place to `newLength` bytes, keeping its first
 * min(old, new) bytes (bytes added at the end read as zero). A block that
 * cannot grow enough is split; neighbouring blocks that then fit together
 * are merged (when compaction is on). genID must be NEWGEN; newLength at
 * most DBARRAY_MAX_ELEMENT_SIZE ("newDataLength <=
 * DBARRAY_MAX_ELEMENT_SIZE").
 * Returns 1 when blocks were merged, 0 when not, and -1 on failure with an
 * error (code 2 when the handle does not exist).
 */
QW_API int DBArrayLengthSet(DBArray *array, uint32_t bucket, uint32_t handle, uint32_t genID, uint32_t newLength);

/*
 * The whole data block that holds `handle`, held for reading until
 * DBArrayRelease(array, genID, 1, address). NULL when the handle does not
 * exist (no error) or the bucket cannot be read (an error is set).
 */
QW_API const void *DBArrayHintGet(DBArray *array, uint32_t bucket, uint32_t handle, uint32_t genID);

/* ------------------------------------------------------------------------ */
/* Prefetch, usage, locks                                                    */
/* ------------------------------------------------------------------------ */

/* Asks the arena to start reading the block of `handle`. A handle that does
 * not exist is ignored. */
QW_API void DBArrayPrefetch(DBArray *array, uint32_t bucket, uint32_t handle, uint32_t genID);

/*
 * Loads the 8192-byte server block that holds the block of `handle` without
 * holding the caller's lock across the page load: finds the block under the
 * lock, releases `lock` (a read lock the caller holds; may be NULL), acquires
 * the server block, touches all of its bytes, releases it and takes `lock`
 * for reading again. `reserved` must be 0. Returns 1 (also for a handle that
 * does not exist), or 0 with an error when the block cannot be read; the
 * lock is held again on return in every case.
 */
QW_API int DBArrayPrefetchLocked(DBArray *array, uint32_t bucket, uint32_t handle, QWRWLock *lock,
                                 uint32_t reserved, uint32_t genID);

/* Does nothing (blocks are written back by the arena). Returns 1. */
QW_API int DBArrayMSync(DBArray *array);

/*
 * Bytes of the bucket's data blocks in `genID`; *used (may be NULL) receives
 * the bytes in use, the sum over blocks of 4 + 2 * indexSize + dataSize. The
 * block count is taken from the new generation whatever genID says (blocks
 * past the end of the committed generation are not counted). Returns 0 with
 * an error when a block cannot be read.
 */
QW_API uint64_t DBArrayUsage(DBArray *array, uint32_t bucket, uint32_t genID, uint64_t *used);

/*
 * Registers the memory locks of the three arrays of every bucket in `genID`
 * with the arena (VMAArrayLockRegister_, argument `lock`). When `lock` is
 * non-zero the array also marks itself locked in that generation (this
 * arena has no background flush lock that would forbid it). Returns 1, or 0
 * with an error.
 */
QW_API int DBArrayLockRegister(DBArray *array, uint32_t lock, uint32_t genID);

/*
 * Checks every bucket and block of the array in `genID` without changing
 * anything, on worker threads of its own. Emits, per bucket in bucket order,
 * "bucketIndex = %d: blockCount = %d\n" (level 1) and for each problem found
 * one message of level 3:
 *  "bucketIndex = %d: Invalid block size in block number %d ! indexSize = %d,
 *   dataSize = %d, physBucket = %d, physID = %d"   (header does not fit)
 *  "bucketIndex = %d: Invalid data in block number %d, physBucket = %d,
 *   physID = %d"   (unreadable block or malformed length prefix)
 *  "bucketIndex = %d: Invalid data size in block number %d ! lastOffset = %d,
 *   dataSize = %d, physBucket = %d, physID = %d"   (elements overrun dataSize)
 *  "bucketIndex = %d: Invalid element count in block number %d ! handle = %d,
 *   handle0 = %d, physBucket = %d, physID = %d"   (the block holds no element,
 *   or not exactly the handles up to the next block's first handle)
 *  "bucketIndex = %d: Invalid index in block number %d ! subIndex = %d,
 *   physBucket = %d, physID = %d"   (index entry wrong, missing or extra)
 *  "bucketIndex = %d: handle0A is invalid in block %d"   (first handles not
 *   rising from 0, or their count differs from the block count)
 *  "bucketIndex = %d: Invalid directory entry %d ! block = %d"   (an entry
 *   of the index array points past the block that holds its handle)
 *  "bucketIndex = %d: Invalid directory length ! indexLength = %d,
 *   handleCount = %d"
 * physBucket and physID are the block's bucket server and server block. Ends
 * with "Done !\n" (level 2). Returns the number of problems found (0: clean).
 */
QW_API uint32_t DBArrayCheck(DBArray *array, uint32_t genID);

QW_END_DECLS

#endif /* QWVM_DBARRAY_H */
