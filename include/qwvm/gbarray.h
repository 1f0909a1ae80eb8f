/*
 * qwvm/gbarray.h: growable bit arrays.
 *
 * A growable bit array stores a sequence of unsigned integers packed at one
 * common width, the slice size (0 to 64 bits), in one arena array. Values are
 * appended or overwritten by index; a value that needs more bits than the
 * slice size first widens the whole array, re-packing every value at the new
 * width from the last value down to the first (each value's new place starts
 * at or after its old one, so going downward never overwrites a value not
 * yet moved). The slice size never shrinks.
 *
 * Storage: the arena array "<path>/gBitArray/slice" of 64-bit little-endian
 * elements: element 0 the slice size s, element 1 the number of values,
 * elements 2 on the packed bits. Value i occupies bits i * s .. i * s + s - 1
 * of the packed string, bit b being bit b % 64 of element 2 + b / 64; a value
 * crossing a 64-bit boundary keeps its low part in the first element.
 *
 * Conventions are those of qwvm/qwlib.h: 1 or a non-NULL pointer on success,
 * 0 or NULL on failure with the calling thread's error chain set. Generation
 * arguments are NEWGEN or OLDGEN (anything else fails the assertion "FALSE");
 * changes are allowed only in NEWGEN ("genID == NEWGEN"). Caller errors are
 * assertions: "index < size" (an index beyond the values),
 * "bitsLength <= ULONG_BIT_SIZE" (more than 64 bits), and
 * "(bit & (~((ONE << ((ULong) sliceSize)) - 1))) == 0" (a value that needs
 * more bits than the caller said). Stored data that contradicts itself (a
 * count of values the elements cannot hold, a slice size above 64) tags the
 * arena corrupted and fails the assertion naming the bound: on reading
 * "((longIndex + 2)) < __arraylen__" or "((longIndex + 2 + 1)) <
 * __arraylen__", on writing "longIndex + 2 < __upBound__" or "longIndex + 2
 * + 1 < __upBound__", for the header "1 < __upBound__" or "sliceSize <=
 * ULONG_BIT_SIZE".
 *
 * The array keeps the ids the array had in each generation when it was
 * opened: an array created since the last commit reads as empty in OLDGEN
 * until it is opened again after a commit. Threads: the array has no lock of
 * its own; callers serialise writers and keep readers of NEWGEN away from
 * them.
 */
#ifndef QWVM_GBARRAY_H
#define QWVM_GBARRAY_H

#include <stdint.h>

#include "qwvm/export.h"
#include "qwvm/qwlib.h"
#include "qwvm/vmarena.h"

QW_BEGIN_DECLS

/* Returned by GBitArrayGet when the array cannot be read. */
#define GBITARRAY_ERROR 0xFFFFFFFFu

typedef struct GBitArray GBitArray;

/*
 * Finds or creates the bit array stored under `path` in `arena`.
 *  pathBuffer  [in/out] a growable byte array of the caller (a NULL pointer
 *              is initialised) used to build the array name; its length is
 *              restored before return.
 *  created     [in/out] in: non-zero allows creating a missing array (not on
 *              a read-only arena); out: 1 when it was created. May be NULL
 *              (no creation).
 *  locked      non-zero when the caller holds the array's registered lock.
 * A new array gets its two header elements (slice size 0, no values).
 * Returns the array (free it with GBitArrayFree), or NULL: code 2 when the
 * array is missing and may not be created, or the arena's error.
 */
QW_API GBitArray *GBitArrayNew(VMArena *arena, uint8_t **pathBuffer, const char *path, int *created, int locked);

/* Frees the in-memory record (NULL is ignored); the array stays. */
QW_API void GBitArrayFree(GBitArray *array);

/* Number of values in `genID` (0 for an array absent there; 0 with an error
 * when it cannot be read). */
QW_API uint64_t GBitArraySize(GBitArray *array, uint32_t genID);

/*
 * Reads value `index` ("index < size") into *value.
 * Returns the slice size (0 to 64), or GBITARRAY_ERROR with an error when the
 * array cannot be read.
 */
QW_API uint32_t GBitArrayGet(GBitArray *array, uint64_t index, uint64_t *value, uint32_t genID);

/*
 * Overwrites value `index` ("index < size") with `value`, which must fit in
 * `bits` bits (at most 64); widens the array first when `bits` exceeds the
 * slice size. NEWGEN only. Returns 1, or 0 with an error (nothing changed
 * when the array could not grow; a block that cannot be read while values
 * are re-packed leaves them partly moved).
 */
QW_API int GBitArraySet(GBitArray *array, uint64_t index, uint64_t value, uint32_t bits, uint32_t genID);

/*
 * Appends `value` (fitting in `bits` bits, at most 64) as the next index,
 * widening first when `bits` exceeds the slice size. NEWGEN only. Returns 1,
 * or 0 with an error (the value is then not added).
 */
QW_API int GBitArrayAdd(GBitArray *array, uint64_t value, uint32_t bits, uint32_t genID);

QW_END_DECLS

#endif /* QWVM_GBARRAY_H */
