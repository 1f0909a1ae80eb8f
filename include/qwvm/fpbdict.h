/*
 * qwvm/fpbdict.h: fingerprint dictionaries over an integer B-tree.
 *
 * An FPB dictionary hands out dense unsigned 32-bit IDs ("WIDs") for 64-bit
 * fingerprints. A dictionary named N under the caller's path buffer P
 * (empty or ending in "/") keeps, under "P" "N" "/":
 *   "lookup"   a B-tree (qwvm/btree.h) with 8-byte keys and 4-byte values:
 *              fingerprint -> WID;
 *   "params"   one u32: the counter, one more than the largest WID ever
 *              handed out or set;
 *   "freeWID"  a stack of u32 free WIDs (holes), last element on top.
 * A WID is peeked, inserted, and taken only when the insert proved the
 * fingerprint new; holes are reused last-in first-out and only with
 * useFreeList. FPBDICT_NO_WID (0xFFFFFFFF) means absent and is never handed
 * out.
 *
 * Conventions are those of qwvm/qwlib.h (1 or non-NULL on success, 0 or NULL
 * with the error chain set); generation arguments are NEWGEN or OLDGEN
 * ("FALSE" otherwise), changes need NEWGEN ("genID == NEWGEN"). No lock of
 * its own: writers are serialised by the caller, OLDGEN readers run in
 * parallel under VMArenaOldGenAcquire/Release.
 */
#ifndef QWVM_FPBDICT_H
#define QWVM_FPBDICT_H

#include <stdint.h>

#include "qwvm/export.h"
#include "qwvm/qwlib.h"
#include "qwvm/vmarena.h"

QW_BEGIN_DECLS

#define FPBDICT_NO_WID 0xFFFFFFFFu

typedef struct FPBDict FPBDict;
typedef struct FPBDictEnumeration FPBDictEnumeration;

/*
 * Finds or creates the dictionary `name` under the path in `pathBuffer`
 * (a growable byte array of the caller; NULL is initialised; its length is
 * restored). `created` [out, may be NULL]: 1 when any part was made.
 * `locked`: initial lock flag of both generations. On failure whatever was
 * opened is freed (the first error survives) and NULL is returned: code 2
 * when a part is missing on a read-only arena, or the part's error.
 */
QW_API FPBDict *FPBDictNew(VMArena *arena, uint8_t **pathBuffer, const char *name, int *created, int locked);

/* Frees the B-tree record and the dictionary record (NULL is ignored). */
QW_API void FPBDictFree(FPBDict *dict);

/* After VMArenaCommit succeeded: makes OLDGEN reads see the commit. */
QW_API int FPBDictCommit(FPBDict *dict);

/* Removes every fingerprint, resets the counter and the holes (NEWGEN). */
QW_API int FPBDictClear(FPBDict *dict, uint32_t genID);

/* Registers the memory locks of the B-tree (full as for BTreeLockRegister)
 * and of both arrays in genID. */
QW_API int FPBDictLockRegister(FPBDict *dict, int full, uint32_t genID);

/*
 * Looks `fingerprint` up and, on request, inserts or removes it.
 *  create       [in/out, may be NULL] in: non-zero inserts an absent
 *               fingerprint with a new WID; out: 1 when it was inserted now,
 *               else 0. Create and remove together fail "!(create &&
 *               remove)"; both need NEWGEN.
 *  remove       non-zero removes a present fingerprint; its WID becomes a
 *               hole.
 *  useFreeList  non-zero: a new WID is the most recently freed one, if any.
 * Returns the WID, or FPBDICT_NO_WID when absent (no error set) or on
 * failure (error set). Running out of WIDs (the counter reaching
 * FPBDICT_NO_WID) fails with code 28.
 */
QW_API uint32_t FPBDictFind(FPBDict *dict, uint64_t fingerprint, int *create, int remove, int useFreeList,
                            uint32_t genID);

/*
 * Stores fingerprint -> wid (NEWGEN). The fingerprint must be absent: with
 * `check` that is asserted before the insert, and in every case a
 * fingerprint that turns out present fails the assertion
 * "ret == UINT_MAX_VALUE" (a bound fingerprint is never rebound, which would
 * orphan its old WID). The counter moves to
 * wid + 1 when wid is not below it. Returns 1, or 0 with an error (code 22
 * for FPBDICT_NO_WID).
 */
QW_API int FPBDictSet(FPBDict *dict, uint64_t fingerprint, uint32_t wid, int check);

/* Pushes a hole; forgets every hole; sizes as bound = counter, count =
 * counter minus holes (outs may be NULL). */
QW_API int FPBDictSetHole(FPBDict *dict, uint32_t wid);
QW_API int FPBDictResetFreeList(FPBDict *dict);
QW_API int FPBDictSize(FPBDict *dict, uint32_t *bound, uint32_t *count, uint32_t genID);

/* Walk in ascending fingerprint order over genID; Next returns 1 with an
 * entry, 0 at the end (no error) or on failure (error set). The dictionary
 * must not change in genID during the walk. New returns NULL when the record
 * cannot be allocated, and fails the assertion "enumeration->btenum != NULL"
 * when the B-tree's walk cannot be. */
QW_API FPBDictEnumeration *FPBDictEnumerationNew(FPBDict *dict, uint32_t genID);
QW_API int FPBDictEnumerationNext(FPBDictEnumeration *enumeration, uint64_t *fingerprint, uint32_t *wid);
QW_API void FPBDictEnumerationFree(FPBDictEnumeration *enumeration);

QW_END_DECLS

#endif /* QWVM_FPBDICT_H */
