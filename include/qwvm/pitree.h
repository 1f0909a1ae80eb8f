/*
 * qwvm/pitree.h: symbol-sequence trees.
 *
 * A symbol-sequence tree (PITree) is a persistent map from an atom, a
 * sequence of one or more unsigned 32-bit symbols, to a non-zero unsigned
 * 64-bit node data value. One call looks an atom up and, on request, inserts
 * it (insert-if-absent) or removes it. EMPTY_NODE_DATA (0) stands for "no such
 * atom": callers that need to store 0 store value + 1.
 *
 * Storage: a tree named N under the caller's path P keeps, under
 * "P" "N" "/pitree/", a head tree (the upper levels of the trie, in arena
 * arrays under ".../pitree/head"), a block-directory array "leaf" of 64
 * buckets with compaction off (leaf number l is element l / 64 of bucket
 * l % 64; each leaf is a compacted sub-trie of at most a little over one
 * kilobyte), the arena array "free" (leaf numbers given back, reused first)
 * and, unless the tree was made with `scan` set, the arena array "params"
 * whose element 0 is the number of atoms. A small leaf (at most 510 bytes)
 * is kept in a slot of the head tree's arrays instead of the leaf array, and
 * moves between the two as it grows or shrinks. When a leaf grows past its
 * limit it explodes: its upper levels move into the head tree and the rest
 * becomes smaller leaves. A lookup touches one block per head level it
 * crosses (runs of symbols without branching are kept in one head node) and
 * its leaf: one more block for a small leaf, three through the leaf array's
 * directory for a larger one.
 *
 * Order: enumeration yields atoms in ascending order, symbol by symbol, as
 * unsigned 32-bit values; an atom comes before the atoms it is a prefix of.
 *
 * Conventions are those of qwvm/qwlib.h: 1 or a non-NULL pointer on success,
 * 0 or NULL on failure with the calling thread's error chain set; exceptions
 * are named below. Generation arguments are NEWGEN or OLDGEN (anything else
 * fails the assertion "FALSE"); changes are allowed only in NEWGEN ("genID ==
 * NEWGEN") on a writable arena. An atom of length 0 fails the assertion
 * "nodeLen != 0"; a lookup without thread data fails "threadData != NULL".
 * Stored data found malformed (a head node or leaf that does not decode, a
 * reference to a node or leaf that does not exist) tags the arena corrupted
 * (unless it is read-only) and fails the call with an error of class
 * QW_ERROR_CLASS_DATA, code 74; nothing is read outside a block.
 *
 * Threads: a tree has no lock of its own. Writers of NEWGEN are serialised by
 * the caller (and hold VMArenaNewGenAcquire(arena, 0) as for any write);
 * readers of OLDGEN may run in parallel, each with its own thread data, and
 * bracket their reads with VMArenaOldGenAcquire/Release. A thread data or an
 * enumeration is used by one thread at a time.
 */
#ifndef QWVM_PITREE_H
#define QWVM_PITREE_H

#include <stdint.h>

#include "qwvm/export.h"
#include "qwvm/qwlib.h"
#include "qwvm/vmarena.h"

QW_BEGIN_DECLS

/* Node data meaning "no such atom". */
#define EMPTY_NODE_DATA 0u
/* Buckets of a tree's leaf array. */
#define PITREE_LEAF_BUCKETS 64u
/* Depth argument of the enumerations: no limit. */
#define PITREE_DEPTH_UNLIMITED 0xFFFFFFFFu

typedef struct PITree PITree;
typedef struct PITreeThreadData PITreeThreadData;
typedef struct PITreeEnumeration PITreeEnumeration;

/* ------------------------------------------------------------------------ */
/* Lifetime                                                                  */
/* ------------------------------------------------------------------------ */

/*
 * Finds or creates the tree `name` under the path held in `pathBuffer`.
 *  arena       [in] an open arena; must outlive the tree.
 *  pathBuffer  [in/out] a growable byte array of the caller (qwlib.h; a NULL
 *              pointer is initialised and then owned by the caller) whose
 *              content is the path P, empty or ending in "/"; the arrays are
 *              named P + name + "/pitree/...". Its length is restored before
 *              return, in every case.
 *  name        [in] the tree's name, non-empty.
 *  scan        non-zero: the arrays are found by scanning the arena's name
 *              array instead of asking the name service, and the tree keeps
 *              no "params" count (PITreeGetSize then asserts). This is how
 *              the name service makes its own lookup tree.
 *  created     [out, may be NULL] 1 when any part was created, else 0.
 *              Parts are created only on a writable arena.
 *  lock        initial lock flag of both generations (non-zero when the
 *              caller holds the arrays' registered locks).
 * Parts are found or made in this order: head tree, leaf array, "free",
 * "params" (with scan 0; an empty params array gets one element 0).
 * Returns the tree (free it with PITreeFree), or NULL: code 2 when a part is
 * missing on a read-only arena, code 22 for an empty name, or the arena's
 * error when an array cannot be made or read.
 */
QW_API PITree *PITreeNew_(VMArena *arena, uint8_t **pathBuffer, const char *name, int scan, int *created,
                          int lock);

/* PITreeNew_ with scan 0. */
QW_API PITree *PITreeNew(VMArena *arena, uint8_t **pathBuffer, const char *name, int *created, int lock);

/* Frees the in-memory record (NULL is ignored). The tree stays in the
 * arena. */
QW_API void PITreeFree(PITree *tree);

/*
 * Makes the tree's OLDGEN view the one just committed: call it after
 * VMArenaCommit succeeded, so that OLDGEN reads see the parts created since
 * the previous commit. Commits the head tree, then the leaf array. Returns 1.
 */
QW_API int PITreeCommit(PITree *tree);

/*
 * Removes every atom in `genID` (NEWGEN only): the head tree, the leaf array
 * and the free array are cleared; the count in "params" is set to 0.
 * Returns 1, or 0 with the arena's error.
 */
QW_API int PITreeClear(PITree *tree, uint32_t genID);

/*
 * Returns 1 when the tree holds no atom in `genID`, 0 when it holds some
 * and also on failure (then with an error set: code 74 for a damaged head).
 */
QW_API int PITreeEmpty(PITree *tree, uint32_t genID);

/*
 * Registers the memory locks of the tree's arrays in `genID` with the arena
 * (the leaf array with DBArrayLockRegister(…, lock, genID), the head arrays,
 * "free" and "params" with VMAArrayLockRegister_(…, 1)). When `lock` is
 * non-zero the tree also records `genID` as locked. Returns 1, or 0 with an
 * error.
 */
QW_API int PITreeLockRegister(PITree *tree, uint32_t lock, uint32_t genID);

/* ------------------------------------------------------------------------ */
/* Lookup, insert, remove                                                    */
/* ------------------------------------------------------------------------ */

/* PITreeFindAll with results NULL. */
QW_API uint64_t PITreeFind(PITree *tree, PITreeThreadData *threadData, const uint32_t *atom, uint32_t atomLength,
                           uint64_t nodeData, uint32_t genID, int create, int remove, int force);

/*
 * Looks `atom` up and, on request, inserts or removes it.
 *  threadData  [in] scratch of the calling thread ("threadData != NULL").
 *  atom        [in] atomLength symbols, atomLength >= 1 ("nodeLen != 0").
 *  nodeData    the data to insert (non-zero) when `create` is set.
 *  genID       NEWGEN or OLDGEN; create and remove need NEWGEN ("genID ==
 *              NEWGEN") and a writable arena ("!create").
 *  create      non-zero: insert an absent atom with `nodeData`; a present
 *              atom keeps its data (insert-if-absent) unless `force` is set.
 *  remove      non-zero: remove a present atom. Not together with create.
 *  force       with create: a present atom's data is replaced by nodeData.
 *  results     [in/out, may be NULL] a growable uint64_t array (qwlib.h; a
 *              NULL pointer is initialised and then owned by the caller). Its
 *              length is set to 0, then it receives the node data of every
 *              stored atom that is a prefix of `atom` (shortest first; the
 *              atom itself last when present), as seen before the change.
 * Returns the atom's node data as found: EMPTY_NODE_DATA when absent. With
 * create (no force) an absent atom comes back as `nodeData`; with force the
 * data it had before (EMPTY_NODE_DATA when it was inserted). With remove the
 * data it had. A change updates the "params" count (PITreeUpdateSize).
 * On failure returns EMPTY_NODE_DATA with an error set (the error state is
 * cleared on entry, so QWErrorIsSet() tells "absent" from a failure): code 22
 * for create with nodeData 0 or create together with remove; code 74 for
 * damaged stored data; the arena's error when no block can be had. A failed
 * change leaves the atom as it was.
 */
QW_API uint64_t PITreeFindAll(PITree *tree, PITreeThreadData *threadData, const uint32_t *atom,
                              uint32_t atomLength, uint64_t nodeData, uint32_t genID, int create, int remove,
                              int force, uint64_t **results);

/*
 * Replaces the byte string of leaf `leaf` by `length` bytes of `bytes`
 * without decoding them: DBArraySet(leaf array, leaf % 64, leaf / 64, ...).
 * For repair tools and tests; a leaf written this way is checked when it is
 * next read. Leaves kept in head slots are not reached this way. genID must be NEWGEN ("genID == NEWGEN"). Returns 1, or 0 with
 * an error (code 2 when the leaf does not exist).
 */
QW_API int PITreeFillLeaf(PITree *tree, uint32_t leaf, const void *bytes, uint32_t length, uint32_t genID);

/*
 * The number of atoms in `genID` (element 0 of "params"). A tree made with
 * `scan` set has no count: the assertion "FALSE" fails. Returns 0 with an
 * error when the count cannot be read.
 */
QW_API uint32_t PITreeGetSize(PITree *tree, uint32_t genID);

/*
 * Adjusts the count of a tree with "params" in `genID` (NEWGEN): adds 1
 * when `a` is non-zero together with `b` or `c`, else subtracts 1 (never
 * below 0). Does nothing on a tree without params. PITreeFindAll calls it
 * for every change it makes. Returns 1, or 0 with an error.
 */
QW_API int PITreeUpdateSize(PITree *tree, int a, int b, int c, uint32_t genID);

/*
 * Asks the arena to start reading the blocks a lookup of `atom` will touch
 * (the head nodes it crosses are read, the leaf is prefetched). Returns 1,
 * or 0 with an error as PITreeFindAll.
 */
QW_API int PITreePrefetch(PITree *tree, PITreeThreadData *threadData, const uint32_t *atom, uint32_t atomLength,
                          uint32_t genID);

/* ------------------------------------------------------------------------ */
/* Enumeration                                                               */
/* ------------------------------------------------------------------------ */

/* A new enumeration record with its own thread data; NULL when out of
 * memory. */
QW_API PITreeEnumeration *PITreeEnumerationNew(void);

/*
 * Starts walking the atoms of `tree` in `genID` that start with `prefix`
 * (prefixLength symbols, 0 for all atoms) and have at most `depth` symbols
 * beyond it (PITREE_DEPTH_UNLIMITED: any). The prefix itself is yielded when
 * it is stored. Atoms come in ascending order (see the top of this header).
 * The tree must not change in `genID` until the walk ends or is started
 * again. Returns 1, or 0 with an error.
 */
QW_API int PITreeEnumerationInit(PITree *tree, PITreeEnumeration *enumeration, const uint32_t *prefix,
                                 uint32_t prefixLength, uint32_t depth, uint32_t genID);

/*
 * The next atom of the walk.
 *  atom        [out] its symbols, valid until the next call on this record.
 *  atomLength  [out] its length.
 *  nodeData    [out] its node data.
 * Returns 1 with an atom; 0 at the end (no error set) or on failure (error
 * set: damaged stored data, code 74).
 */
QW_API int PITreeEnumerationGetNext(PITreeEnumeration *enumeration, const uint32_t **atom, uint32_t *atomLength,
                                    uint64_t *nodeData);

/* Frees the record and its thread data (NULL is ignored). */
QW_API void PITreeEnumerationFree(PITreeEnumeration *enumeration);

/* Called once per atom; returns non-zero to go on, 0 to stop the walk. */
typedef int (*PITreeEnumerateCallback)(void *context, const uint32_t *atom, uint32_t atomLength,
                                       uint64_t nodeData);

/*
 * Calls `callback` once per atom under `prefix` (as PITreeEnumerationInit,
 * same order). Returns 1 when the walk ended or the callback stopped it, 0 on
 * failure with an error.
 */
QW_API int PITreeEnumerate(PITree *tree, uint32_t genID, const uint32_t *prefix, uint32_t prefixLength,
                           uint32_t depth, PITreeEnumerateCallback callback, void *context);

/* ------------------------------------------------------------------------ */
/* Thread data                                                               */
/* ------------------------------------------------------------------------ */

/* Scratch for the lookups of one thread (any tree). NULL when out of
 * memory. */
QW_API PITreeThreadData *PITreeThreadDataNew(void);

/* Gives back scratch buffers that have grown past 10000 entries (lookups do
 * this themselves on entry). */
QW_API void PITreeThreadDataReInit(PITreeThreadData *threadData);

/* Frees the thread data (NULL is ignored). */
QW_API void PITreeThreadDataFree(PITreeThreadData *threadData);

QW_END_DECLS

#endif /* QWVM_PITREE_H */
