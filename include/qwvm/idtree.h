/*
 * qwvm/idtree.h: ID trees and the two dictionaries built on them.
 *
 * An ID tree hands out dense, stable unsigned 64-bit IDs for atoms
 * (sequences of 32-bit symbols). The string dictionary (StrDict) is an ID
 * tree whose atoms are UTF-16 strings recoded symbol by symbol through a
 * fixed frequency-ordered permutation of 0..65535; the fingerprint
 * dictionary (FPDict) is an ID tree whose atoms are 64-bit fingerprints cut
 * into five symbols. StrDict and FPDict records are ID trees: every
 * operation that is not specific to their keys is the IDTree one.
 *
 * Storage: a dictionary named N under the caller's path buffer P (empty or
 * ending in "/") keeps, under "P" "N" "/":
 *   "lookup"   a symbol-sequence tree (qwvm/pitree.h) mapping each atom to
 *              its ID + 1;
 *   "params"   one u64: the counter, one more than the largest ID ever handed
 *              out or set;
 *   "freeWID"  a stack of u64 free IDs (holes), last element on top.
 * IDs: an ID is first peeked, then the atom is inserted with it, and it is
 * taken only when the insert proved the atom new, so a lookup of an existing
 * atom never consumes an ID. With useFreeList the most recently freed ID is
 * reused first; without it new IDs come from the counter even while holes
 * exist.
 *
 * Conventions are those of qwvm/qwlib.h: 1 or a non-NULL pointer on success,
 * 0 or NULL on failure with the calling thread's error chain set; exceptions
 * are named below. Generation arguments are NEWGEN or OLDGEN (anything else
 * fails the assertion "FALSE"); every change needs NEWGEN ("genID ==
 * NEWGEN"). Stored data found malformed tags the arena corrupted and fails
 * with an error of class QW_ERROR_CLASS_DATA, code 74.
 *
 * Threads: a dictionary has no lock of its own. Writers are serialised by
 * the caller; readers of OLDGEN may run in parallel, each with its own thread
 * data, bracketed by VMArenaOldGenAcquire/Release.
 */
#ifndef QWVM_IDTREE_H
#define QWVM_IDTREE_H

#include <stdint.h>

#include "qwvm/export.h"
#include "qwvm/pitree.h"
#include "qwvm/qwlib.h"
#include "qwvm/vmarena.h"

QW_BEGIN_DECLS

/* Returned by the finds for "no such key". */
#define IDTREE_NO_ID 0xFFFFFFFFFFFFFFFFull

typedef struct IDTree IDTree;
typedef struct IDTreeThreadData IDTreeThreadData;
typedef struct IDTreeEnumeration IDTreeEnumeration;

/* ------------------------------------------------------------------------ */
/* ID trees                                                                  */
/* ------------------------------------------------------------------------ */

/*
 * Finds or creates the dictionary `name` under the path in `pathBuffer`.
 *  pathBuffer  [in/out] the caller's growable byte array (qwlib.h; NULL is
 *              initialised and then owned by the caller) holding the path P,
 *              empty or ending in "/"; its length is restored before return.
 *  name        [in] the dictionary's name, non-empty.
 *  created     [out, may be NULL] 1 when any part was created.
 *  locked      initial lock flag of both generations.
 * Returns the dictionary (IDTreeFree), or NULL: code 2 when a part is
 * missing on a read-only arena, or the error of the part that failed.
 */
QW_API IDTree *IDTreeNew(VMArena *arena, uint8_t **pathBuffer, const char *name, int *created, int locked);

/* Frees the in-memory record (NULL is ignored); the data stays. */
QW_API void IDTreeFree(IDTree *tree);

/* After VMArenaCommit succeeded: makes OLDGEN reads see the commit. Returns
 * 1. */
QW_API int IDTreeCommit(IDTree *tree);

/* Removes every atom and resets the counter and the holes (NEWGEN only).
 * Returns 1, or 0 with an error. */
QW_API int IDTreeClear(IDTree *tree, uint32_t genID);

/* Registers the memory locks of every part in genID (PITreeLockRegister and
 * VMAArrayLockRegister_). Returns 1, or 0 with an error. */
QW_API int IDTreeLockRegister(IDTree *tree, uint32_t lock, uint32_t genID);

/* Scratch of one thread for the finds (any dictionary). NULL when out of
 * memory. */
QW_API IDTreeThreadData *IDTreeThreadDataNew(void);
/* Gives back scratch that has grown past 10000 entries. */
QW_API void IDTreeThreadDataReInit(IDTreeThreadData *threadData);
/* Frees the thread data (NULL is ignored). */
QW_API void IDTreeThreadDataFree(IDTreeThreadData *threadData);

/*
 * Looks `atom` up and, on request, inserts or removes it.
 *  atom, atomLength  [in] at least one symbol.
 *  create       [in/out, may be NULL] in: non-zero inserts an absent atom
 *               with a new ID (NEWGEN); out: 1 when the atom was inserted
 *               now, 0 when it existed (or on failure).
 *  remove       non-zero removes a present atom; its ID becomes a hole.
 *               Create and remove together fail "!(create && remove)".
 *  useFreeList  non-zero: a new ID is the most recently freed one, if any.
 * Returns the atom's ID, or IDTREE_NO_ID when absent (no error set) or on
 * failure (error set).
 */
QW_API uint64_t IDTreeFind(IDTree *tree, IDTreeThreadData *threadData, const uint32_t *atom, uint32_t atomLength,
                           int *create, int remove, int useFreeList, uint32_t genID);

/*
 * Inserts an absent atom with a given ID (NEWGEN). The atom must be absent
 * (assertion). When id is not below the counter, the counter becomes id + 1.
 * The holes are not consulted: setting an ID that is also a hole is the
 * caller's affair. Returns 1, or 0 with an error (code 22 for the ID
 * IDTREE_NO_ID, which cannot be stored).
 */
QW_API int IDTreeSet(IDTree *tree, IDTreeThreadData *threadData, const uint32_t *atom, uint32_t atomLength,
                     uint64_t id);

/* Pushes `id` on the holes. Returns 1, or 0 with an error. */
QW_API int IDTreeSetHole(IDTree *tree, uint64_t id);

/* Forgets every hole (NEWGEN). Returns 1, or 0 with an error. */
QW_API int IDTreeResetFreeList(IDTree *tree);

/*
 * Sizes in genID: bound = the counter, count = bound minus the number of
 * holes (either out may be NULL). Returns 1, or 0 with an error.
 */
QW_API int IDTreeSize(IDTree *tree, uint64_t *bound, uint64_t *count, uint32_t genID);

/* A new enumeration record; NULL when out of memory. */
QW_API IDTreeEnumeration *IDTreeEnumerationNew(void);
/* Frees the record (NULL is ignored). */
QW_API void IDTreeEnumerationFree(IDTreeEnumeration *enumeration);

/*
 * Starts a walk over the atoms in genID that start with `prefix`
 * (prefixLength symbols, 0 for all) with at most `depth` symbols beyond it
 * (PITREE_DEPTH_UNLIMITED: any), in ascending symbol order. The dictionary
 * must not change in genID during the walk. Returns 1, or 0 with an error.
 */
QW_API int IDTreeEnumerationInit(IDTree *tree, IDTreeEnumeration *enumeration, const uint32_t *prefix,
                                 uint32_t prefixLength, uint32_t depth, uint32_t genID);

/*
 * The next atom: its symbols (valid until the next call), length and ID.
 * Returns 1 with an atom, 0 at the end (no error) or on failure (error set).
 */
QW_API int IDTreeEnumerationGetNext(IDTreeEnumeration *enumeration, const uint32_t **atom, uint32_t *atomLength,
                                    uint64_t *id);

/* ------------------------------------------------------------------------ */
/* String dictionaries: UTF-16 keys                                          */
/* ------------------------------------------------------------------------ */

typedef struct IDTree StrDict;
typedef struct IDTreeThreadData StrDictThreadData;
typedef struct StrDictEnumeration StrDictEnumeration;

/* The IDTree operations of the same names. */
QW_API StrDict *StrDictNew(VMArena *arena, uint8_t **pathBuffer, const char *name, int *created, int locked);
QW_API void StrDictFree(StrDict *dict);
QW_API int StrDictCommit(StrDict *dict);
QW_API int StrDictClear(StrDict *dict, uint32_t genID);
QW_API int StrDictLockRegister(StrDict *dict, uint32_t lock, uint32_t genID);
QW_API StrDictThreadData *StrDictThreadDataNew(void);
QW_API void StrDictThreadDataReInit(StrDictThreadData *threadData);
QW_API void StrDictThreadDataFree(StrDictThreadData *threadData);
QW_API int StrDictSize(StrDict *dict, uint64_t *bound, uint64_t *count, uint32_t genID);

/* The symbol of UTF-16 code unit c in the string dictionaries' atoms. */
QW_API uint32_t StrDictRecode(uint16_t c);

/*
 * IDTreeFind on the atom made of the recoded code units of `string`
 * (`length` code units, at least one). Arguments and result as IDTreeFind.
 */
QW_API uint64_t StrDictFind(StrDict *dict, StrDictThreadData *threadData, const uint16_t *string, uint32_t length,
                            int *create, int remove, int useFreeList, uint32_t genID);

/* IDTreeSet on the recoded string. */
QW_API int StrDictSet(StrDict *dict, StrDictThreadData *threadData, const uint16_t *string, uint32_t length,
                      uint64_t id);

/* Walk over the strings starting with `prefix` (prefixLength code units),
 * as IDTreeEnumerationInit; GetNext gives each string decoded back to
 * UTF-16 (valid until the next call), its length in code units and its
 * ID. */
QW_API StrDictEnumeration *StrDictEnumerationNew(void);
QW_API void StrDictEnumerationFree(StrDictEnumeration *enumeration);
QW_API int StrDictEnumerationInit(StrDict *dict, StrDictEnumeration *enumeration, const uint16_t *prefix,
                                  uint32_t prefixLength, uint32_t genID);
QW_API int StrDictEnumerationGetNext(StrDictEnumeration *enumeration, const uint16_t **string, uint32_t *length,
                                     uint64_t *id);

/* ------------------------------------------------------------------------ */
/* Fingerprint dictionaries: 64-bit keys                                     */
/* ------------------------------------------------------------------------ */

/* Symbols of a fingerprint's atom. */
#define FPDICT_ATOM_LENGTH 5u

typedef struct IDTree FPDict;
typedef struct IDTreeThreadData FPDictThreadData;
typedef struct IDTreeEnumeration FPDictEnumeration;

/* The IDTree operations of the same names. */
QW_API FPDict *FPDictNew(VMArena *arena, uint8_t **pathBuffer, const char *name, int *created, int locked);
QW_API void FPDictFree(FPDict *dict);
QW_API int FPDictCommit(FPDict *dict);
QW_API int FPDictClear(FPDict *dict, uint32_t genID);
QW_API int FPDictLockRegister(FPDict *dict, uint32_t lock, uint32_t genID);
QW_API FPDictThreadData *FPDictThreadDataNew(void);
QW_API void FPDictThreadDataFree(FPDictThreadData *threadData);
QW_API int FPDictSize(FPDict *dict, uint64_t *bound, uint64_t *count, uint32_t genID);
QW_API int FPDictResetFreeList(FPDict *dict);
QW_API int FPDictSetHole(FPDict *dict, uint64_t id);

/*
 * IDTreeFind / IDTreeSet on the fingerprint's atom [f & 0xFFF,
 * (f >> 12) & 0x7F, (f >> 19) & 0x7F, (f >> 26) & 0x7F, f >> 33]. Every
 * 64-bit value is a valid fingerprint.
 */
QW_API uint64_t FPDictFind(FPDict *dict, FPDictThreadData *threadData, uint64_t fingerprint, int *create,
                           int remove, int useFreeList, uint32_t genID);
QW_API int FPDictSet(FPDict *dict, FPDictThreadData *threadData, uint64_t fingerprint, uint64_t id);

/* Walk over every fingerprint in genID (in ascending order of their atoms);
 * GetNext reassembles each fingerprint. A stored atom that is not five
 * symbols long tags the arena corrupted and fails the assertion
 * "keyLen == 5". */
QW_API FPDictEnumeration *FPDictEnumerationNew(void);
QW_API void FPDictEnumerationFree(FPDictEnumeration *enumeration);
QW_API int FPDictEnumerationInit(FPDict *dict, FPDictEnumeration *enumeration, uint32_t genID);
QW_API int FPDictEnumerationGetNext(FPDictEnumeration *enumeration, uint64_t *fingerprint, uint64_t *id);

QW_END_DECLS

#endif /* QWVM_IDTREE_H */
