/*
 * qwvm/qwutil.h: chunked file arrays (FArray) and the process-wide
 * memory-lock registry.
 *
 * Conventions are those of qwvm/qwlib.h: 1 / non-NULL on success, 0 / NULL on
 * failure with the calling thread's error chain set. Malformed input read from
 * a file raises an error of class QW_ERROR_CLASS_DATA with code EBADMSG (74)
 * and a message naming the file; an I/O failure keeps the system error of
 * qwvm/qwfile.h and adds a message. Index arguments outside an array are
 * programming errors and fail a qwassert_.
 */
#ifndef QWVM_QWUTIL_H
#define QWVM_QWUTIL_H

#include <stddef.h>
#include <stdint.h>

#include "qwvm/export.h"
#include "qwvm/qwfile.h"
#include "qwvm/qwlib.h"

QW_BEGIN_DECLS

/* ------------------------------------------------------------------------ */
/* Chunked file arrays                                                       */
/* ------------------------------------------------------------------------ */

/*
 * An FArray is an array of fixed-size elements kept in chunks of
 * `chunkEntries` elements each (a power of two). Chunks never move, so the
 * address of an element stays valid until the array is cleared or freed,
 * however much the array grows. Shrinking the length keeps the chunks (they
 * are reused when the array grows again); FArrayClear and FArrayFree give
 * them back.
 *
 * Chunk memory comes from an allocator. The default one (pass NULL) uses the
 * qwlib allocator. A caller's allocator gets one call per chunk of
 * elementSize * chunkEntries bytes and one release call per chunk when the
 * array is cleared or freed.
 *
 * Elements that become part of the array through FArrayAdd_ or
 * FArrayLengthSet_ read as zero bytes. When the allocator promises
 * zero-filled chunks (FARRAY_ALLOCATOR_ZEROED) a fresh chunk is not cleared
 * again, so growing an array touches no memory it does not have to.
 *
 * The struct is public so that records can embed it and so that FArrayNth is
 * inline; treat its fields as read-only. A zero-filled FArray is "not
 * initialised": FArrayFree and FArrayClear accept it and do nothing. Copying
 * the struct moves the array (the chunks stay where they are); the source
 * must then be forgotten (zero-fill it) rather than freed.
 *
 * An FArray is not thread-safe: callers serialise changes and guard reads
 * that race with growth of the chunk table.
 */

/* FArrayAllocator.flags: allocate() returns zero-filled memory. */
#define FARRAY_ALLOCATOR_ZEROED 1u

typedef struct FArrayAllocator {
  /* Returns `bytes` bytes of memory for one chunk, or NULL after raising an
   * error in the thread's error chain. */
  void *(*allocate)(void *context, size_t bytes);
  /* Gives back a chunk returned by allocate (same size). Returns 1, or 0 with
   * an error; the chunk is forgotten by the array either way. */
  int (*release)(void *context, void *chunk, size_t bytes);
  void *context;
  uint32_t flags; /* FARRAY_ALLOCATOR_... bits */
} FArrayAllocator;

typedef struct FArray {
  char **chunks;         /* chunk table: chunkCount chunk pointers */
  uint64_t chunkCount;   /* chunks allocated */
  uint64_t chunkSlots;   /* room in the chunk table */
  uint64_t length;       /* elements in use */
  uint64_t untouched;    /* elements at and beyond this index are as the allocator returned them */
  uint32_t elementSize;  /* bytes per element */
  uint32_t chunkEntries; /* elements per chunk, a power of two */
  uint32_t chunkShift;   /* log2(chunkEntries) */
  uint32_t initialised;  /* 1 between FArrayInit_ and FArrayFree */
  FArrayAllocator allocator;
} FArray;

/*
 * Initialises an empty array. No chunk is allocated yet.
 *  array        (out) the array; its previous content is ignored (it must
 *               not hold chunks: free it first).
 *  elementSize  bytes per element, at least 1.
 *  chunkEntries elements per chunk, a power of two.
 *  allocator    chunk allocator, copied into the array; NULL for the default.
 * Returns 1, or 0 with an error (code 22, EINVAL) when elementSize is 0,
 * chunkEntries is not a power of two, or the allocator lacks a function.
 */
QW_API int FArrayInit_(FArray *array, uint32_t elementSize, uint32_t chunkEntries,
                       const FArrayAllocator *allocator);

/*
 * Gives every chunk back to the allocator and leaves the array zero-filled
 * (not initialised). Every chunk is released even when one release fails.
 * Returns 1, or 0 with the first release error.
 */
QW_API int FArrayFree(FArray *array);

/* Like FArrayFree, but the array stays initialised (empty, no chunks). */
QW_API int FArrayClear(FArray *array);

/* Number of elements in use. */
static inline uint64_t FArrayLength(const FArray *array) { return array->length; }

/* Number of elements the allocated chunks can hold. */
static inline uint64_t FArrayCapacity(const FArray *array) { return array->chunkCount << array->chunkShift; }

/*
 * Address of element `index`, which must be below the length (asserted).
 * A shift and a mask: the hot path of every block-map lookup.
 */
static inline void *FArrayNth(const FArray *array, uint64_t index) {
  qwassert_(index < array->length);
  return array->chunks[index >> array->chunkShift] +
         (size_t)(index & (array->chunkEntries - 1u)) * array->elementSize;
}

/*
 * Allocates chunks until the array can hold `capacity` elements; the length
 * does not change. Returns 1, or 0 with the allocator's error (the chunks
 * allocated before the failure stay with the array).
 */
QW_API int FArrayEnsureCapacity_(FArray *array, uint64_t capacity);

/*
 * Sets the length. Growing appends zero-filled elements (allocating chunks as
 * needed); shrinking keeps the chunks. Returns 1, or 0 with an error (the
 * length is then unchanged).
 */
QW_API int FArrayLengthSet_(FArray *array, uint64_t length);

/*
 * Appends `count` zero-filled elements.
 *  firstIndex (out, may be NULL) index of the first new element.
 * Returns 1, or 0 with an error (the length is then unchanged).
 */
QW_API int FArrayAdd_(FArray *array, uint64_t count, uint64_t *firstIndex);

/*
 * Address of element `start` and, in *available, how many of the `count`
 * elements from there lie contiguously in its chunk (1 .. count). Asserts
 * that start + count does not pass the length and that count is at least 1.
 */
QW_API void *FArrayRange_(const FArray *array, uint64_t start, uint64_t count, uint32_t *available);

/*
 * Calls fn(context, elements, n, firstIndex) over the elements
 * [start, start + count), one call per contiguous piece (at most one chunk),
 * in index order. Asserts that the range lies within the length.
 * Returns 1 when every call returned non-zero, 0 as soon as one returned 0
 * (the walk stops there; fn sets an error if that is a failure).
 */
typedef int (*FArrayExecFunction)(void *context, void *elements, uint32_t n, uint64_t firstIndex);
QW_API int FArrayExec_(const FArray *array, uint64_t start, uint64_t count, FArrayExecFunction fn, void *context);

/* ------------------------------------------------------------------------ */
/* Chunked file arrays: file layout and I/O                                  */
/* ------------------------------------------------------------------------ */

/*
 * File layouts (all integers little-endian). Both forms start with one tag
 * byte and an 8-byte element count, so a reader can tell them apart:
 *
 *   raw form (FArrayWriteRaw_):
 *     1 byte   width w of each element, 1..8
 *     8 bytes  count n
 *     n * w    the elements, each an unsigned integer of w bytes
 *
 *   record form (FArrayWrite_):
 *     1 byte   0
 *     8 bytes  count n
 *     n records, each written and read by the caller's callback
 *
 * An empty raw array of width 4 is therefore the 9 bytes
 * 04 00 00 00 00 00 00 00 00. Readers check the tag and never allocate for the count up
 * front: chunks are allocated as the data arrives, so a huge count in a short
 * file fails at the end of the file, not in the allocator.
 */

/*
 * Writes the elements in raw form as unsigned integers of `width` bytes
 * (1..8, at most the array's element size, which must be 1, 2, 4 or 8). Each
 * element is read as a native unsigned integer and its low `width` bytes are
 * written: values wider than `width` lose their high bytes.
 * Returns 1, or 0 with an error (code 22 for a bad width; the channel's
 * error otherwise).
 */
QW_API int FArrayWriteRaw_(const FArray *array, QWChannel *channel, uint32_t width);

/*
 * Reads an array written in raw form into an initialised array, replacing its
 * elements. Each stored integer is zero-extended to the array's element size
 * (1, 2, 4 or 8).
 *  width  the width the file must have; 0 accepts any width from 1 to the
 *         array's element size.
 * Returns 1, or 0 with an error; the array is then empty (its chunks stay).
 * Errors: class QW_ERROR_CLASS_DATA, code EBADMSG for a tag byte that is not
 * an acceptable width and for a file that ends before the count is complete;
 * the channel's error for I/O failures.
 */
QW_API int FArrayReadRaw_(FArray *array, QWChannel *channel, uint32_t width);

/*
 * Writes the array in record form: writeElement(context, channel, element,
 * index) writes each element's record (it returns 1, or 0 with an error).
 * Returns 1, or 0 with the first error (writing stops there).
 */
typedef int (*FArrayWriteFunction)(void *context, QWChannel *channel, const void *element, uint64_t index);
QW_API int FArrayWrite_(const FArray *array, QWChannel *channel, FArrayWriteFunction writeElement, void *context);

/*
 * Reads an array written in record form into an initialised array, replacing
 * its elements. For each record one zero-filled element is appended first
 * and then readElement(context, channel, element, index) fills it (it
 * returns 1, or 0 with an error). Each record must occupy at least one byte
 * of the file; that bound is what stops a huge count in a short file.
 * On failure the array keeps the elements read so far including the one that
 * failed, so that the caller can free what they own (readElement must leave
 * a failed element in a state the caller's clean-up accepts); the caller
 * then frees or clears the array.
 * Errors: class QW_ERROR_CLASS_DATA, code EBADMSG for a tag byte other than
 * 0, a file that ends early, or a record that consumed no byte; the
 * callback's or the channel's error otherwise.
 */
typedef int (*FArrayReadFunction)(void *context, QWChannel *channel, void *element, uint64_t index);
QW_API int FArrayRead_(FArray *array, QWChannel *channel, FArrayReadFunction readElement, void *context);

/* ------------------------------------------------------------------------ */
/* Memory-lock registry                                                      */
/* ------------------------------------------------------------------------ */

/*
 * Design. A process can ask that chosen parts of its stores stay resident
 * ("lock all"). Each store that has such parts registers an enumerator with
 * MemoryEnumLock: a callback that walks the store's own list of things to
 * pin and pins each (MemoryPin). MemoryLockApplyAll runs every registered
 * enumerator once.
 *
 * The memory lock is one process-wide, non-recursive, first-come
 * first-served lock. A pass of MemoryLockApplyAll holds it from start to end;
 * a commit holds it around its memory step, so that a commit never swaps
 * generations under an enumerator that is pinning them. A pass can be long,
 * so an enumerator calls MemoryLockPeriodicRelease between entries: when
 * another thread waits in MemoryLockAcquire, the pass lets it in (release,
 * then re-acquire behind it) and goes on afterwards.
 *
 * Lock order: the memory lock comes after a store's flush lock and before its
 * generation lock and mutexes. The registry has a mutex of its own that is
 * never held while an enumerator runs.
 */

/* An enumerator: pins what its store wants pinned, calling
 * MemoryLockPeriodicRelease(0) between entries and stopping when that
 * returns 0. Returns 1, or 0 with an error. */
typedef int (*MemoryEnumLockFunction)(void *context);

/*
 * Registers an enumerator (callback, context). The same pair may be
 * registered more than once; each registration runs in every pass.
 * Returns 1, or 0 with an error when memory runs out.
 */
QW_API int MemoryEnumLock(MemoryEnumLockFunction callback, void *context);

/*
 * Unregisters the first registration of (callback, context). When that
 * enumerator is running in another thread right now, waits until it returns,
 * so that `context` may be freed as soon as this call returns. Called from
 * inside the enumerator itself it does not wait. The caller must not hold
 * the memory lock while the enumerator runs in another thread (asserted: it
 * would never finish).
 * Returns 1, or 0 with error code 2 when the pair is not registered.
 */
QW_API int MemoryEnumUnLock(MemoryEnumLockFunction callback, void *context);

/* Takes the process-wide memory lock, waiting first-come first-served.
 * Asserts that the calling thread does not hold it already. */
QW_API void MemoryLockAcquire(void);

/* Releases the memory lock; asserts that the calling thread holds it. */
QW_API void MemoryLockRelease(void);

/*
 * Called by an enumerator between entries. When the calling thread holds the
 * memory lock and another thread waits for it (or `force` is non-zero), the
 * lock is released and re-acquired, so that the waiting thread gets it first.
 * Returns 0 when the calling thread's pass should stop (MemoryLockStop was
 * called since it started), else 1; outside a pass it always returns 1.
 */
QW_API int MemoryLockPeriodicRelease(int force);

/* Asks the passes that are running (or waiting for the memory lock to start)
 * to stop: their enumerators' next MemoryLockPeriodicRelease returns 0 and no
 * further enumerator of theirs runs. Passes started later are not affected. */
QW_API void MemoryLockStop(void);

/*
 * The "lock all" pass: takes the memory lock, runs every enumerator
 * registered at that moment once, in registration order, and releases the
 * lock. An enumerator unregistered during the pass is skipped if it has not
 * run yet; one that another pass is running right now (this pass started
 * while that one let it in) is skipped too, since that pass applies it.
 * Must not be called from inside an enumerator (asserted).
 * Returns 1 when every enumerator succeeded. Returns 0 when one failed (the
 * others still run; the first error is kept) or when the pass was stopped
 * (code 125, ECANCELED, "memory lock pass stopped").
 */
QW_API int MemoryLockApplyAll(void);

/*
 * Pins the pages of [address, address + length) in memory (mlock, rounded out
 * to whole pages). When the system refuses to pin (no privilege or over the
 * RLIMIT_MEMLOCK limit: EPERM, ENOMEM, EAGAIN), the pages are touched
 * instead (MemoryLoad) so that they are at least resident now, a debug
 * message (level 1) says so, and the call succeeds. Returns 0 with an error
 * when the range is not mapped.
 */
QW_API int MemoryPin(const void *address, uint64_t length);

/* Undoes MemoryPin (munlock); pages that were not pinned are fine. Returns
 * 0 with an error when the range is not mapped. */
QW_API int MemoryUnpin(const void *address, uint64_t length);

QW_END_DECLS

#endif /* QWVM_QWUTIL_H */
