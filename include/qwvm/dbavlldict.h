/*
 * qwvm/dbavlldict.h: the AVL dictionary.
 *
 * A persistent ordered dictionary from integer keys to integer values, kept
 * as a height-balanced (AVL) binary tree whose nodes are 24-byte records in
 * an arena array. Nodes are named by their index in that array, never by
 * address, so the tree survives remapping and generations.
 *
 * Storage: two arena arrays under the dictionary's path (path + "/" + name,
 * or the path alone when name is NULL), in 8192-byte blocks:
 *  "node"    24-byte records, little-endian: bytes 0-3 `n_right` (bits 0-30
 *            the right son's index, 0 = none; bit 31 set: right-heavy),
 *            bytes 4-7 the left word (bits 0-30 the left son, bit 31 set:
 *            left-heavy), bytes 8-15 the key, bytes 16-23 the value. Both
 *            skew bits set is corruption. Node 0 is the null node (its key
 *            field serves removal as a search sentinel); node 1 is the
 *            header, key 0, whose right son is the root.
 *  "params"  4-byte elements: [0] the number of live nodes, [1] the head of
 *            the free list (0 = empty); free nodes are chained through their
 *            `n_right`.
 *
 * Keys and values are written as 64-bit numbers but every read returns only
 * their low 32 bits, zero-extended. A search key of 2^32 or more is greater
 * than every stored key: it is never found, and if inserted it is stored
 * (as the rightmost node) but reads, and compares from then on, by its low
 * 32 bits.
 *
 * Free list: removal puts the freed node on the free list, insertion of a
 * new key takes one node from it. After an insertion of a new key the free
 * list must be empty: an insertion while two or more nodes are free tags
 * the arena corrupted and fails the assertion
 * "0 == DictFreeListGet(dict, genID)". Callers interleave removals and
 * insertions accordingly (or clear the dictionary).
 *
 * Clearing never shrinks the node array: it appends two zeroed records and
 * re-initialises nodes 0 and 1, so each clear makes the array two records
 * longer and the old nodes stay behind, unreachable.
 *
 * Conventions are those of qwvm/qwlib.h. Generation arguments are NEWGEN or
 * OLDGEN (anything else fails the assertion "FALSE"); changes are allowed
 * only in NEWGEN ("genID == NEWGEN"). The operations that return a key, a
 * value or a count clear the calling thread's error state when they
 * succeed: after one of them QWErrorIsSet() tells a failure from a result
 * that happens to equal the default.
 *
 * Corrupted stored data: a son index (or free-list entry) beyond the node
 * array, a tree deeper than any AVL tree of 2^31 nodes (a cycle), or
 * missing records tag the arena corrupted (unless it is read-only) and fail
 * the call with an error of class QW_ERROR_CLASS_DATA, code 74; nothing is
 * read outside the arrays. A skew with both bits set tags the arena and
 * fails the assertion "!(x_node->n_right & SKEW_MASK)"; DBAVLLCheck asserts
 * as described there. A change that meets corruption half-way may leave the
 * tree partly changed; the arena is tagged by then.
 *
 * Threads: no locks of its own. One writer at a time works in NEWGEN
 * (holding VMArenaNewGenAcquire(arena, 0)); readers of the committed
 * generation use OLDGEN (holding VMArenaOldGenAcquire) and may run at the
 * same time as the writer and each other on one dictionary record.
 */
#ifndef QWVM_DBAVLLDICT_H
#define QWVM_DBAVLLDICT_H

#include <stdint.h>

#include "qwvm/export.h"
#include "qwvm/qwlib.h"
#include "qwvm/vmarena.h"

QW_BEGIN_DECLS

typedef struct QWDBAVLLDict QWDBAVLLDict;

/*
 * Called by QWDBAVLLDictEnumerate for each entry in key order: the key and
 * the value (upper halves 0) and the caller's context. Returns non-zero to
 * go on, 0 to stop the walk. It may read the dictionary but must not change
 * it.
 */
typedef int (*QWDBAVLLDictEnumerateFunction)(QWDBAVLLDict *dict, uint64_t key, uint64_t value, void *context);

/* ------------------------------------------------------------------------ */
/* Lifetime                                                                  */
/* ------------------------------------------------------------------------ */

/*
 * Finds or creates the dictionary stored under path + "/" + name.
 *  arena     [in] an open arena; must outlive the dictionary.
 *  path      [in] the structure's path, e.g. "index/dates".
 *  name      [in] the dictionary's name under `path`; NULL: `path` alone.
 *  reserved  must be 0.
 *  scan      passed to VMAArrayInitFromPath_: non-zero looks the arrays up
 *            by scanning the arena's names instead of asking the name
 *            service.
 * A dictionary whose "params" array is shorter than two elements (a new
 * one) is completed with zeros and cleared in NEWGEN. The OLDGEN side of a
 * dictionary created since the last commit is found after the next commit.
 * Returns the dictionary (free it with QWDBAVLLDictDelete), or NULL: code 22
 * for a non-zero `reserved`; code 2 when the arrays are missing (or the
 * dictionary is not initialised) on a read-only arena; or the arena's error
 * when an array cannot be made or cleared.
 */
QW_API QWDBAVLLDict *QWDBAVLLDictNew_(VMArena *arena, const char *path, const char *name, uint32_t reserved,
                                      int scan);

/* QWDBAVLLDictNew_ with reserved 0. */
QW_API QWDBAVLLDict *QWDBAVLLDictNew(VMArena *arena, const char *path, const char *name, int scan);

/* Frees the in-memory record (NULL is ignored); the arrays stay in the
 * arena. */
QW_API void QWDBAVLLDictDelete(QWDBAVLLDict *dict);

/*
 * Empties the dictionary in genID (NEWGEN): count and free list 0, two
 * zeroed records appended to "node", nodes 0 and 1 reset (sons 0, skew
 * none; node 1's key 0). Returns 1, or 0 with the arena's error.
 */
QW_API int QWDBAVLLDictClear(QWDBAVLLDict *dict, uint32_t genID);

/* ------------------------------------------------------------------------ */
/* Queries                                                                   */
/* ------------------------------------------------------------------------ */

/* The number of live nodes (entries) in genID; 0 with an error on failure. */
QW_API uint32_t QWDBAVLLDictSize(QWDBAVLLDict *dict, uint32_t genID);

/*
 * The value stored under `key` (low 32 bits, upper half 0), or `notFound`
 * when the key is absent, and also on failure (error set).
 */
QW_API uint64_t QWDBAVLLDictFind(QWDBAVLLDict *dict, uint64_t key, uint64_t notFound, uint32_t genID);

/*
 * The nearest stored key to `key`: `key` itself when stored; otherwise for
 *  direction < 0  the greatest key below it (0 when none),
 *  direction > 0  the smallest key above it (0 when none),
 *  direction 0    the closer of the two; a tie goes to the upper key. A
 *                 neighbour 0 counts as missing, so a stored key 0 is never
 *                 chosen as the lower neighbour in this mode.
 * Returns the key (upper half 0); 0 on failure (error set).
 */
QW_API uint64_t QWDBAVLLDictFindNearest(QWDBAVLLDict *dict, uint64_t key, int32_t direction, uint32_t genID);

/*
 * Walks the entries in key order, ascending when `descending` is 0,
 * descending otherwise, calling `callback` for each until it returns 0.
 * Returns 1 when the walk completed, 0 when the callback stopped it or on
 * failure (then with the error set; a stop leaves the error state clear).
 */
QW_API int QWDBAVLLDictEnumerate(QWDBAVLLDict *dict, int descending, QWDBAVLLDictEnumerateFunction callback,
                                 void *context, uint32_t genID);

/* ------------------------------------------------------------------------ */
/* Changes (NEWGEN only)                                                     */
/* ------------------------------------------------------------------------ */

/*
 * Stores `value` under `key`, inserting the key or replacing its value.
 * Returns the previous value (low 32 bits) when the key was present, else
 * `previousDefault` (also on failure, with the error set: an append to the
 * node array failed, or the tree is corrupted).
 * A new key takes a node from the free list when there is one and must
 * leave the list empty (see the file comment).
 */
QW_API uint64_t QWDBAVLLDictInsert(QWDBAVLLDict *dict, uint64_t key, uint64_t value, uint64_t previousDefault,
                                   uint32_t genID);

/*
 * Removes `key` and returns its value (low 32 bits), or `notFound` when it
 * is absent (nothing changes then but node 0's sentinel key) or on failure
 * (error set). The freed node goes on the free list.
 * A key with sons is replaced by its in-order neighbour: the greatest key
 * of its left subtree when it has a left son, else the smallest of its
 * right subtree; the neighbour's key and value move into its node and the
 * neighbour's record is freed.
 */
QW_API uint64_t QWDBAVLLDictRemove(QWDBAVLLDict *dict, uint64_t key, uint64_t notFound, uint32_t genID);

/* ------------------------------------------------------------------------ */
/* Check                                                                     */
/* ------------------------------------------------------------------------ */

/*
 * Verifies the AVL invariants of the whole tree in genID: for every node,
 * the heights hl and hr of its subtrees differ by at most 1 (else the
 * assertion "FALSE"), and its skew matches them ("GET_SKEW(x) == LEFT" when
 * hl > hr, "GET_SKEW(x) == RIGHT" when hr > hl, "GET_SKEW(x) == NONE" when
 * equal); the arena is tagged corrupted before any of these fails.
 * Returns 1 when the tree is sound; 0 with an error when it cannot be read
 * (a son beyond the node array, a cycle).
 */
QW_API int DBAVLLCheck(QWDBAVLLDict *dict, uint32_t genID);

QW_END_DECLS

#endif /* QWVM_DBAVLLDICT_H */
