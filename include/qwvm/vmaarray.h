/*
 * qwvm/vmaarray.h: arena arrays.
 *
 * An arena array is a growable, persistent array of fixed-size elements kept
 * in arena blocks. Arrays are numbered within an arena (array id, unsigned
 * 32-bit; VMA_NO_ARRAY = 0xFFFFFFFE means none) and exist in both
 * generations: NEWGEN (read-write) and OLDGEN (the committed state). Arrays
 * are found by name ("path/name") through the arena's name service; array 0
 * holds the names.
 *
 * Layouts: an ordinary array is EMPTY until it first grows; below three full
 * blocks' worth of elements it is a TAIL array (full 8192-byte blocks and a
 * last block of the smallest size class that holds the rest), from there on
 * a FULL array (full blocks only). A block array (FULL_BLOCK_ARRAY_TYPE) is a
 * list of whole arena blocks of any size class, changed block by block.
 *
 * Common arguments: `arrayLocked` non-zero when the caller holds the array's
 * registered lock (new blocks are then made resident too); `blockSize` 8192
 * (ARENA_MAX_BLOCK_SIZE) for ordinary arrays; `genID` NEWGEN or OLDGEN
 * (anything else fails the assertion "FALSE"); `read` non-zero when the data
 * is only read; `elementSize` bytes per element (1 .. blockSize), chosen by
 * the caller on every call and never stored: every call on one array must
 * pass the same value.
 *
 * Conventions are those of qwvm/qwlib.h: 1 or non-NULL on success, 0 or NULL
 * with the error chain set. Programming errors are assertions: writes on a
 * read-only arena fail "!arena->readOnly", writes in the old generation
 * "genID == NEWGEN"; an array id beyond the table tags the arena corrupted
 * (when writable) and fails "arrayID < FArrayLength(arena->rw_gen.array)"
 * (NEWGEN) or "arrayID < ArrayLength(arena->r_gen.length)" (OLDGEN). Stored
 * data that contradicts itself (a length its blocks cannot hold) tags the
 * arena corrupted and fails with an error of class QW_ERROR_CLASS_DATA.
 *
 * Threads: callers serialise access to one array themselves (its registered
 * lock); different arrays may be used from different threads at once, also
 * while arrays are created. Writers of the new generation hold
 * VMArenaNewGenAcquire(arena, 0); readers of the old generation hold
 * VMArenaOldGenAcquire (qwvm/vmarena.h). The arena caches no data addresses:
 * every address handed out pins its page until it is released.
 */
#ifndef QWVM_VMAARRAY_H
#define QWVM_VMAARRAY_H

#include <stdint.h>

#include "qwvm/export.h"
#include "qwvm/vmarena.h"

QW_BEGIN_DECLS

/* Layout types of an array record. */
#define EMPTY_ARRAY_TYPE 0u
#define FULL_ARRAY_TYPE 1u
#define TAIL_ARRAY_TYPE 2u
#define TWO_PART_ARRAY_TYPE 3u /* reserved: meeting it fails an assertion */
#define FULL_BLOCK_ARRAY_TYPE 4u

/* A structure's handle on one named array: an id per generation (index 0
 * NEWGEN, 1 OLDGEN; VMA_NO_ARRAY when absent there) and two lock flags. */
typedef struct VMAArrayHandle {
  VMArena *arena;
  uint32_t id[2];
  uint32_t locked[2];
} VMAArrayHandle;

/* ------------------------------------------------------------------------ */
/* Lifetime (VMAArrayNew is in qwvm/vmarena.h)                               */
/* ------------------------------------------------------------------------ */

/*
 * Frees every block of a NEWGEN array, sets its length to 0 and makes its id
 * free for reuse: VMAArrayNew reuses the last freed id first.
 *  arrayID  an array other than 0 (array 0 holds the names).
 * Names stay bound to their ids for the life of the arena: once VMAArrayNew
 * has reused a named array's id, the name finds the array made then. A
 * lookup of the name (VMAArrayFind in NEWGEN, VMAArrayInitFromPath...) before
 * that takes the id back for the name: it finds the same, now empty, array
 * (a block array stays a block array) and VMAArrayNew no longer hands it out.
 * Returns 1, or 0 with an error: code 22 for array 0 or an id already freed.
 */
QW_API int VMAArrayFree(VMArena *arena, uint32_t arrayID);

/*
 * Frees every block in list order and sets the length to 0; an ordinary
 * array returns to EMPTY_ARRAY_TYPE, a block array stays one. NEWGEN only;
 * asserts "!(arrayLocked && arena->bgLock)". Returns 1.
 */
QW_API int VMAArrayClear_(VMArena *arena, uint32_t arrayID, int arrayLocked, uint32_t genID);

/* ------------------------------------------------------------------------ */
/* Length and capacity                                                       */
/* ------------------------------------------------------------------------ */

/* Number of elements of the array in `genID`. */
QW_API uint32_t VMAArrayLength_(VMArena *arena, uint32_t arrayID, uint32_t genID);

/*
 * Sets the length of a NEWGEN array (OLDGEN fails "FALSE"). Never allocates:
 * ensure the capacity first. Elements that become part of the array keep
 * whatever their blocks held.
 * Returns 1, or 0 with error code 22 when an ordinary array's blocks cannot
 * hold `length` elements of `elementSize` bytes (the length is unchanged). A
 * block array's length is the caller's and is not checked.
 */
QW_API int VMAArrayLengthSet_(VMArena *arena, uint32_t arrayID, uint32_t length, uint32_t genID,
                              uint32_t elementSize);

/*
 * Grows the block list until `capacity` elements fit (NEWGEN only; asserts
 * "!read" and "!(arrayLocked && arena->bgLock)"; `blockSize` must be the
 * array's block size). Growth chooses the layout (see above); a tail block
 * is replaced by a larger one, its elements moved and the old block freed.
 * Returns 1, or 0 with an error when no block can be had; the array is then
 * unchanged.
 */
QW_API int VMAArrayEnsureCapacity_(VMArena *arena, uint32_t arrayID, int arrayLocked, uint32_t blockSize,
                                   uint32_t capacity, uint32_t genID, int read, uint32_t elementSize);

/* ------------------------------------------------------------------------ */
/* Element access                                                            */
/* ------------------------------------------------------------------------ */

/*
 * Address of element `index`.
 *  end           (out) the index one past the last element stored
 *                contiguously behind it: the end of its block, clipped to the
 *                length.
 *  read          0 for write access (NEWGEN only; copies a block shared with
 *                the old generation first).
 *  prefetchOnly  non-zero: the block is prefetched, NULL is returned (no
 *                error) and *end is set the same way.
 * Bounds: NEWGEN needs index < length; OLDGEN admits index == length as
 * well. Beyond that the message "index = %d, length = %d, arrayID = %d, gen =
 * NEW" (or "gen = OLD") is emitted, the arena is tagged corrupted unless it
 * is read-only, and the assertion "FALSE" fails. A layout of type 3 fails
 * "array->type < TWO_PART_ARRAY_TYPE || array->type == FULL_BLOCK_ARRAY_TYPE".
 * Returns the address, to be released with VMAArrayRelease_; NULL with an
 * error when the block cannot be read, when the stored blocks do not hold
 * element `index` (class QW_ERROR_CLASS_DATA; arena tagged corrupted), or
 * (code 2) for OLDGEN index == length when no storage lies there.
 * Takes no lock of its own and allocates nothing.
 */
QW_API void *VMAArrayRange_(VMArena *arena, uint32_t arrayID, int arrayLocked, uint32_t blockSize, uint32_t index,
                            uint32_t *end, uint32_t genID, int read, uint32_t elementSize, int prefetchOnly);

/* Releases an address from VMAArrayRange_ or VMABlockArrayGet_ (the page is
 * marked dirty when `read` is 0). NULL is ignored. */
QW_API void VMAArrayRelease_(VMArena *arena, uint32_t arrayID, void *address, int read);

/*
 * Appends `count` elements from `data` (NEWGEN): ensures the capacity, sets
 * the length, copies range by range. Returns 1, or 0 with an error; the
 * length is then unchanged (code 75 when it would pass 2^32 - 1).
 */
QW_API int VMAArrayAppend_(VMArena *arena, uint32_t arrayID, int arrayLocked, uint32_t blockSize, const void *data,
                           uint32_t count, uint32_t genID, uint32_t elementSize);

/*
 * Inserts one element at `index` (0 .. length), shifting the rest up by one
 * (one pass over the elements behind it). Returns 1, or 0 with an error (code
 * 22 for an index beyond the length).
 */
QW_API int VMAArrayInsert_(VMArena *arena, uint32_t arrayID, int arrayLocked, uint32_t blockSize, uint32_t index,
                           const void *element, uint32_t genID, uint32_t elementSize);

/*
 * Removes the element at `index` (below the length), shifting the rest down;
 * removing the last element only shortens the array. Returns 1, or 0 with an
 * error (code 22 for an index at or beyond the length).
 */
QW_API int VMAArrayRemove_(VMArena *arena, uint32_t arrayID, int arrayLocked, uint32_t blockSize, uint32_t index,
                           uint32_t genID, uint32_t elementSize);

/*
 * Overwrites `count` elements at `index` with `data` (NEWGEN;
 * index + count <= length). Returns 1, or 0 with an error (code 22 when the
 * run passes the length).
 */
QW_API int VMAArraySetRange_(VMArena *arena, uint32_t arrayID, int arrayLocked, uint32_t blockSize, uint32_t index,
                             const void *data, uint32_t count, uint32_t genID, uint32_t elementSize);

/*
 * Makes the NEWGEN array `destID` a copy of `srcID` as seen in `srcGenID`
 * (its old blocks are freed first; copying an array onto itself in NEWGEN
 * does nothing). Asserts "!((destLocked || srcLocked) && arena->bgLock)".
 * Returns 1, or 0 with an error (the destination then holds a partial copy).
 */
QW_API int VMAArrayCopy_(VMArena *arena, uint32_t destID, int destLocked, uint32_t srcID, int srcLocked,
                         uint32_t srcGenID, uint32_t blockSize, uint32_t elementSize);

/* ------------------------------------------------------------------------ */
/* Range cache: keeps the last acquired range of one array                   */
/* ------------------------------------------------------------------------ */

typedef struct VMAArrayRangeCache VMAArrayRangeCache;

/* A cache over `arrayID` in `genID` with the given sizes and access mode.
 * Returns NULL with an error when out of memory. */
QW_API VMAArrayRangeCache *VMAArrayRangeCacheNew(VMArena *arena, uint32_t arrayID, uint32_t blockSize,
                                                 uint32_t elementSize, uint32_t genID, int read);
/* Releases the cached range, if any, and frees the cache. NULL is ignored. */
QW_API void VMAArrayRangeCacheFree(VMAArrayRangeCache *cache);
/* Retargets the cache to another array, generation or mode (releasing the
 * cached range first). */
QW_API void VMAArrayRangeCacheSetTodo(VMAArrayRangeCache *cache, uint32_t arrayID, uint32_t genID, int read);
/*
 * Address of element `index` (and *end as VMAArrayRange_), reusing the cached
 * block when `index` lies in it, otherwise releasing it and acquiring the
 * block of `index`. The address stays valid until the next acquire of
 * another block, VMAArrayRangeRelease_ or free. Release the cache before
 * changing the array's blocks (growth, clear, insert or remove of blocks).
 * NULL with an error as VMAArrayRange_.
 */
QW_API void *VMAArrayRangeAcquire_(VMAArrayRangeCache *cache, uint32_t index, uint32_t *end);
/* Releases the cached range (asserts "!cache->arena->readOnly" for a
 * writable one). */
QW_API void VMAArrayRangeRelease_(VMAArrayRangeCache *cache);

/* ------------------------------------------------------------------------ */
/* Names                                                                     */
/* ------------------------------------------------------------------------ */

/*
 * Looks `name` (nameLength bytes, no NUL among them) up among the names kept
 * in array 0 of `genID`.
 *  scan     non-zero: compare the names in array 0 one by one. Zero: ask the
 *           name service's index, the symbol-sequence tree "#name/lookup"
 *           (qwvm/pitree.h) that maps each name to its id + 1, with its count
 *           in the array "#name/params". The index is opened with the arena
 *           and rebuilt from array 0 when its count is empty; where it cannot
 *           answer (a read-only arena written before it existed, a mounted
 *           generation not yet current) this is the same scan.
 *  create   (in/out, may be NULL) in: non-zero to add an absent name in
 *           NEWGEN, making a new array (isBlockArray and blockSize as for
 *           VMAArrayNew) with a fresh id; out: 1 when it was created, else 0.
 *           OLDGEN never creates ("!*create").
 * Returns the array id, or VMA_NO_ARRAY: absent (the error state is then
 * cleared, so QWErrorIsSet() tells an absent name from a failure), or failed
 * (array 0 unreadable, no block for the name; code 22 for an empty name or
 * one holding a NUL when creating). Creating writes array 0: hold
 * VMArenaNewGenAcquire(arena, 0) as for any write.
 */
QW_API uint32_t VMAArrayFind(VMArena *arena, uint32_t genID, const void *name, uint32_t nameLength, int scan,
                             int *create, int isBlockArray, uint32_t blockSize);

/*
 * Looks path + "/" + name (path alone when name is NULL) up without creating.
 *  scratch  (in/out) a growable byte array of the caller (qwlib; NULL is
 *           initialised here and then owned by the caller); its length is
 *           restored before return.
 *  id       (out) the id, VMA_NO_ARRAY when absent.
 * Returns 1 when found; 0 when absent (no error set) or failed (error set).
 */
QW_API int VMAArrayLookupFromPath(VMArena *arena, uint32_t genID, uint8_t **scratch, const char *path,
                                  const char *name, int scan, uint32_t *id);

/*
 * Fills `handle` for the array path + "/" + name (path alone when name is
 * NULL): found or created in NEWGEN (handle->id[0]), looked up in OLDGEN
 * (handle->id[1], VMA_NO_ARRAY when it is new since the last commit); the
 * lock flags are cleared. The short forms pass scan 0. The block-array forms
 * make block arrays of ARENA_MAX_BLOCK_SIZE-byte blocks.
 * Returns 1, or 0 with an error: creation failed; code 22 when the array
 * exists but is (not) a block array; code 2 when it does not exist and the
 * arena is read-only.
 */
QW_API int VMAArrayInitFromPath_(VMAArrayHandle *handle, VMArena *arena, const char *path, const char *name,
                                 int scan);
QW_API int VMAArrayInitFromPath(VMAArrayHandle *handle, VMArena *arena, const char *path, const char *name);
QW_API int VMABlockArrayInitFromPath_(VMAArrayHandle *handle, VMArena *arena, const char *path, const char *name,
                                      int scan);
QW_API int VMABlockArrayInitFromPath(VMAArrayHandle *handle, VMArena *arena, const char *path, const char *name);

/* ------------------------------------------------------------------------ */
/* Block arrays (FULL_BLOCK_ARRAY_TYPE)                                      */
/* ------------------------------------------------------------------------ */

/* Number of blocks of the array in `genID` (any array type). */
QW_API uint32_t VMABlockArrayBlockCount_(VMArena *arena, uint32_t arrayID, uint32_t genID);

/* Arena block id of the n-th block; INVALID_VMARENA_BLOCK_ID with error code
 * 22 when there is no such block. */
QW_API uint64_t VMABlockArrayBlockIDGet_(VMArena *arena, uint32_t arrayID, uint32_t n, uint32_t genID);

/*
 * Data of the n-th block; *size (may be NULL) receives its class size (0 on
 * failure). Release with VMAArrayRelease_. NULL with an error when there is
 * no such block (code 22) or it cannot be read.
 */
QW_API void *VMABlockArrayGet_(VMArena *arena, uint32_t arrayID, int arrayLocked, uint32_t n, uint32_t genID,
                               int read, uint32_t *size);

/* Starts reading the n-th block ahead of use (nothing when there is none). */
QW_API void VMABlockArrayPrefetch(VMArena *arena, uint32_t arrayID, uint32_t n, uint32_t genID);

/*
 * Inserts a new block of `blockSize` bytes (rounded up to its size class;
 * its bytes are undefined) at position n (0 .. count) of a NEWGEN block array
 * of `maxBlockSize`-byte blocks ("array->log2size == Log2(maxBlockSize)").
 * Returns 1, or 0 with an error and the list unchanged (code 22 for n beyond
 * the count or a block larger than maxBlockSize).
 */
QW_API int VMABlockArrayInsert_(VMArena *arena, uint32_t arrayID, int arrayLocked, uint32_t maxBlockSize, uint32_t n,
                                uint32_t blockSize, uint32_t genID);

/* Removes and frees the block at position n (below the count). Returns 1, or
 * 0 with error code 22 when there is no such block. */
QW_API int VMABlockArrayRemove_(VMArena *arena, uint32_t arrayID, int arrayLocked, uint32_t maxBlockSize, uint32_t n,
                                uint32_t genID);

/*
 * Moves the n-th block into a new block of `newBlockSize` bytes, which must
 * be a size class ("newBlockSize == actualSize"; see VMABlockArrayBlockRound_),
 * keeping the bytes that fit; the old block is freed. `reserved` is 0.
 * NEWGEN only. Returns 1, or 0 with an error and the block unchanged.
 */
QW_API int VMABlockArrayBlockGrowNth_(VMArena *arena, uint32_t arrayID, int arrayLocked, uint32_t newBlockSize,
                                      uint32_t reserved, uint32_t n, uint32_t genID);

/*
 * The smallest size class holding `size` bytes. A class larger than
 * maxBlockSize (or a size beyond every class) comes from damaged data: the
 * arena is tagged corrupted (when writable) and "maxBlockSize >= sizes[s]"
 * fails.
 */
QW_API uint32_t VMABlockArrayBlockRound_(VMArena *arena, uint32_t size, uint32_t maxBlockSize);

/*
 * Registers a memory lock on the array in `genID` with the arena (kind arena,
 * index = arrayID, `argument` kept for the owner) and, unless the arena is
 * mapped, makes the array's blocks resident now. Returns 1, or 0 with an
 * error when a block cannot be read (the entry stays registered).
 */
QW_API int VMAArrayLockRegister_(VMArena *arena, uint32_t arrayID, uint32_t genID, uint32_t argument);

QW_END_DECLS

#endif /* QWVM_VMAARRAY_H */
