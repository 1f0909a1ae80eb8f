/*
 * qwvm/btree.h: integer B-trees.
 *
 * A persistent ordered map from unsigned integer keys to unsigned integer
 * values of 1 to 8 bytes, kept in whole 8192-byte data blocks of an arena.
 * It is a classic B-tree: internal nodes hold entries as well as sons, so a
 * lookup may end above the leaves. One body of code serves two key widths:
 * the UIntBTree functions (32-bit keys) and the ULongBTree functions (64-bit
 * keys). The BTree functions are the facade: BTreeNew picks the width once
 * from the key size (4 or 8) and later calls dispatch to it. Keys and values
 * are 64-bit at the interface; a 32-bit tree returns keys with a zero upper
 * half, and only the low V bytes of a value are kept (V, the value width, is
 * fixed when the tree is created).
 *
 * Node block (8192 bytes; K = key width, V = value width; n = keyCount):
 *   0 ..                  keys, n of them ascending, K bytes little-endian
 *   valueOffset ..        values, V bytes each, big-endian
 *   blockOffset ..        internal nodes only: n + 1 sons (4-byte global
 *                         block ids, little-endian); son i leads to the keys
 *                         between key i-1 and key i
 *   8189                  flags; bit 0 set for a leaf, other bits kept
 *   8190 .. 8191          n, 16-bit little-endian
 * With L = 8185: leaf maxKeyCount = L / (V + K), internal maxKeyCount =
 * L / (V + K + 4); valueOffset = maxKeyCount * K; blockOffset = valueOffset
 * + maxKeyCount * V (for example K = 8, V = 4: 682 keys a leaf, 511 an
 * internal node). All leaves lie at the same depth. Every node other than
 * the root holds at least maxKeyCount / 2 - 1 keys: a full node splits at
 * n / 2 (or n / 2 + 1 when the middle key is below the new one) without
 * ever moving the new key up, so one half of an even-sized node can end one
 * key short of half; a delete that takes a node below maxKeyCount / 2
 * redistributes with a sibling or merges.
 *
 * Son moves: inserting into or removing from an internal node shifts the
 * sons behind the position by count * V bytes (not count * 4), as nodes of
 * this format have always been written; the shift is kept inside the node
 * (it never reaches the flags byte) and never shorter than the live sons, so
 * every width keeps the son array whole. Only bytes past the live sons can
 * differ from a shift by count * 4.
 *
 * Storage: two arena arrays under "<path>/<name>": "root" (one 32-bit
 * element, the root node's block id; empty for an empty tree) and "params"
 * (two 32-bit elements: 0, then V). The stored V wins over the caller's.
 *
 * Conventions are those of qwvm/qwlib.h: 1 or a non-NULL pointer on success,
 * 0 or NULL on failure with the calling thread's error chain set; exceptions
 * are named below. Generation arguments are NEWGEN or OLDGEN (anything else
 * fails the assertion "FALSE"); changes are allowed only in NEWGEN ("genID ==
 * NEWGEN"). Key-size arguments must be 4 or 8 and equal to the tree's
 * ("FALSE" otherwise). A stored node that breaks the layout (a key count
 * above its maximum, a son that is INVALID_BLOCK_ID or names no block, keys
 * out of order) tags the arena corrupted before its assertion fails or the
 * call fails with an error of class QW_ERROR_CLASS_DATA, code 74; nothing is
 * read outside a node.
 *
 * Threads: a tree record carries scratch state (the path of the last change,
 * the redistribution buffers), so one record serves one thread at a time.
 * Readers of OLDGEN may use records of their own next to a writer of NEWGEN,
 * bracketing their reads with VMArenaOldGenAcquire/Release; writers hold
 * VMArenaNewGenAcquire(arena, 0).
 */
#ifndef QWVM_BTREE_H
#define QWVM_BTREE_H

#include <stdint.h>

#include "qwvm/export.h"
#include "qwvm/qwlib.h"
#include "qwvm/vmarena.h"

QW_BEGIN_DECLS

typedef struct BTree BTree;
typedef struct BTreeEnumeration BTreeEnumeration;

/* What PrevKey, NextKey and the neighbour outs of the find functions give
 * when there is no such key. */
#define BTREE_NO_KEY 0xFFFFFFFFFFFFFFFFull

/* Result of the single enumeration step UIntBTreeNext_ / ULongBTreeNext_
 * that moved through the tree without producing an entry. */
#define BTREE_NEXT_STEPPED 2

/*
 * Entry callback of the walks: called once per entry in ascending key order.
 * Returns 0 to go on, non-zero to stop the walk.
 */
typedef int (*BTreeEntryCallback)(uint64_t key, uint64_t value, void *context);

/*
 * Block callback of the block walks: called once per node block (global
 * block id; isLeaf 1 for a leaf), parents before their sons. Returns 0 to go
 * on; a positive value stops the walk and becomes its result.
 */
typedef int (*BTreeBlockCallback)(uint32_t blockID, int isLeaf, void *context);

/* ------------------------------------------------------------------------ */
/* Facade: lifetime                                                          */
/* ------------------------------------------------------------------------ */

/*
 * Finds or creates the tree stored under "<path>/<name>" (path alone when
 * name is NULL) in `arena`.
 *  reserved   must be 0 (code 22 otherwise).
 *  scan       passed to VMAArrayInitFromPath_: non-zero looks the names up by
 *             scanning array 0 instead of asking the name service.
 *  keySize    4 (UIntBTree) or 8 (ULongBTree); anything else fails "FALSE".
 *  valueSize  V for a new tree, 1 to 8 (code 22 otherwise: the tree's two
 *             arrays are then left empty); an existing tree keeps its
 *             stored V and ignores this argument.
 * Missing arrays are created in NEWGEN (a read-only arena fails with code 2
 * then); a tree new since the last commit is empty in OLDGEN.
 * Returns the tree (free it with BTreeFree), or NULL: code 22 for bad
 * arguments, code 74 (class QW_ERROR_CLASS_DATA, arena tagged corrupted) for
 * a stored V outside 1 to 8, or the arena's error when an array cannot be
 * opened or made.
 */
QW_API BTree *BTreeNew_(VMArena *arena, const char *path, const char *name, uint32_t reserved, int scan,
                        uint32_t keySize, uint32_t valueSize);

/* BTreeNew_ with reserved 0. */
QW_API BTree *BTreeNew(VMArena *arena, const char *path, const char *name, int scan, uint32_t keySize,
                       uint32_t valueSize);

/* Unregisters the tree's memory locks and frees the record (NULL is
 * ignored). keySize as at creation. The tree stays in the arena. */
QW_API void BTreeFree(BTree *tree, uint32_t keySize);

/*
 * Makes OLDGEN of the tree the generation just committed: call it after
 * VMArenaCommit succeeded (a tree created since the previous commit then
 * becomes visible in OLDGEN). keySize as at creation. Returns 1.
 */
QW_API int BTreeCommit(BTree *tree, uint32_t keySize);

/*
 * Frees every node block of the tree in NEWGEN ("genID == NEWGEN") and
 * empties "root". Returns 1, or 0 with an error when a node cannot be read
 * (nothing is freed then).
 */
QW_API int BTreeClear(BTree *tree, uint32_t genID);

/* The tree's value width V and key width K (4 or 8), in bytes. */
QW_API uint32_t BTreeValueSize(BTree *tree);
QW_API uint32_t BTreeKeySize(BTree *tree);

/* ------------------------------------------------------------------------ */
/* Facade: lookups and changes                                               */
/* ------------------------------------------------------------------------ */

/*
 * The combined lookup, insert, replace and remove.
 *  key            the key; for a 32-bit tree a key above 0xFFFFFFFF is never
 *                 present and cannot be created (code 22).
 *  newValue       the value stored by create (for an absent key) or replace
 *                 (for a present one); only its low V bytes are kept.
 *  notFoundValue  returned when the key is absent.
 *  create         insert (key, newValue) when the key is absent; a present
 *                 key keeps its value unless replace is set too, also when
 *                 that value equals notFoundValue: whether the key is
 *                 present decides, never the value, so a key is never
 *                 stored twice (and a plain lookup never changes the tree).
 *  replace        overwrite the value of a present key with newValue.
 *  remove         delete the key when present; "!create || !remove".
 *  genID          NEWGEN for create, replace and remove.
 * Returns the key's value before the call, or notFoundValue when it was
 * absent. A stored value equal to notFoundValue reads like a miss; remove
 * still deletes it. Failures (no block for a new node, an unreadable or
 * corrupted node) return notFoundValue with the error chain set: the call
 * clears the chain on entry, so QWErrorIsSet() afterwards tells a failure
 * from a miss. A failed change leaves the tree consistent, without the
 * change or with it.
 * Cost: a call in NEWGEN whose key lies in the leaf the record's previous
 * NEWGEN call reached starts there instead of at the root, as long as the
 * arena's trees have only gained entries in leaves with room or had values
 * replaced since (no split, removal, clear, commit or mount): inserts in
 * key order or near each other read one node each.
 */
QW_API uint64_t BTreeFind(BTree *tree, uint64_t key, uint64_t newValue, uint64_t notFoundValue, int create,
                          int replace, int remove, uint32_t genID);

/*
 * The greatest key not above `key` (BTreePrevKey) or the least key not
 * below it (BTreeNextKey); a present key gives itself. *value (may be NULL)
 * receives its value. With no such key both the result and *value are
 * BTREE_NO_KEY (all ones); so are they after a failure (error chain set, as
 * for BTreeFind).
 */
QW_API uint64_t BTreePrevKey(BTree *tree, uint64_t key, uint64_t *value, uint32_t genID);
QW_API uint64_t BTreeNextKey(BTree *tree, uint64_t key, uint64_t *value, uint32_t genID);

/* ------------------------------------------------------------------------ */
/* Facade: walks and enumeration                                             */
/* ------------------------------------------------------------------------ */

/*
 * Calls `callback` for every entry of `genID` in ascending key order until
 * it returns non-zero. Returns 1 (walk complete or stopped by the callback),
 * or 0 with an error when a node cannot be read or is corrupted.
 */
QW_API int BTreeEnumerate(BTree *tree, BTreeEntryCallback callback, void *context, uint32_t genID);

/*
 * Calls `callback` for the node blocks of `genID`, each parent before its
 * sons: every node when `full` is non-zero, the internal nodes only when it
 * is 0. Unlike the other calls, returns 0 when the walk is complete and a
 * positive value otherwise: the callback's result that stopped it, or 1 with
 * the error chain set when a node cannot be read or is corrupted.
 */
QW_API int BTreeBlockEnumerate(BTree *tree, BTreeBlockCallback callback, void *context, uint32_t genID, int full);

/*
 * An iterator over the entries of `genID` in ascending key order. keySize
 * as at creation. Reads nothing until the first BTreeEnumerationNext; the
 * tree must not change in that generation while the iterator is in use.
 * Returns NULL with an error when out of memory.
 */
QW_API BTreeEnumeration *BTreeEnumerationNew(BTree *tree, uint32_t keySize, uint32_t genID);

/*
 * The next entry: *key and *value (each may be NULL) receive it. Returns 1
 * with an entry, 0 at the end (and on every later call), or -1 with the
 * error chain set when a node cannot be read or is corrupted (the iterator
 * is finished then).
 */
QW_API int BTreeEnumerationNext(BTreeEnumeration *enumeration, uint64_t *key, uint64_t *value);

/* Releases what the iterator holds and frees it (NULL is ignored). */
QW_API void BTreeEnumerationFree(BTreeEnumeration *enumeration);

/* ------------------------------------------------------------------------ */
/* Facade: memory locks and check                                            */
/* ------------------------------------------------------------------------ */

/*
 * Registers the tree's blocks of `genID` with the arena's memory-lock
 * registry (VMObjectCustomLockRegister; the object is the "root" array id,
 * the extra word the generation) and applies the lock now: on an arena
 * without a background flush lock every node block is made resident with
 * VMArenaBlockLock, and the generation's lock flag of the record is set
 * (it is passed on every node access of that generation). Such an arena
 * supports only the full lock: with `full` 0 the message "Only full btree
 * lock is supported for pagecache locking" (level 4) is emitted and the full
 * lock is registered all the same. keySize as at creation. Returns 1, or 0
 * with an error when a node cannot be read (the entry stays registered).
 */
QW_API int BTreeLockRegister(BTree *tree, uint32_t keySize, int full, uint32_t genID);

/* What BTreeCheck measured. */
typedef struct BTreeStat {
  uint64_t entryCount;    /* entries in the tree */
  uint32_t depth;         /* levels: 0 for an empty tree, 1 for a root leaf */
  uint32_t leafCount;     /* leaf nodes */
  uint32_t internalCount; /* internal nodes */
} BTreeStat;

/*
 * Verifies the whole tree of `genID` without changing anything: keys rise
 * strictly across the tree (in-order), every node holds at most its
 * maxKeyCount keys and every node but the root at least maxKeyCount / 2 - 1
 * (see the layout above), internal nodes hold keys, sons are valid blocks
 * reached once, all leaves lie at the same depth.
 *  stat  [out] may be NULL; filled also when a problem is found (as far as
 *        the walk got).
 * Returns 1 when the tree is sound; 0 with an error of class
 * QW_ERROR_CLASS_DATA, code 74, naming the first problem and the node where
 * it was found (the arena is not tagged: this is a diagnosis), or with the
 * arena's error when a node cannot be read.
 */
QW_API int BTreeCheck(BTree *tree, uint32_t genID, BTreeStat *stat);

/* ------------------------------------------------------------------------ */
/* The instantiations (the facade calls these; callers rarely need them)     */
/* ------------------------------------------------------------------------ */

/*
 * Find with neighbours. As BTreeFind, plus four outs (each may be NULL; each
 * is first set to all ones): on a hit all four receive the entry found; on a
 * miss lowerKey/lowerValue receive the predecessor of `key` in the tree and
 * upperKey/upperValue its successor, when they exist. Works on trees made
 * with key size 4 (UIntBTreeFind) or 8 (ULongBTreeFind) only ("FALSE").
 * Unlike BTreeFind, does not clear the error chain on entry.
 */
QW_API uint64_t UIntBTreeFind(BTree *tree, uint32_t key, uint64_t newValue, uint64_t notFoundValue,
                              uint64_t *lowerKey, uint64_t *lowerValue, uint64_t *upperKey, uint64_t *upperValue,
                              int create, int replace, int remove, uint32_t genID);
QW_API uint64_t ULongBTreeFind(BTree *tree, uint64_t key, uint64_t newValue, uint64_t notFoundValue,
                               uint64_t *lowerKey, uint64_t *lowerValue, uint64_t *upperKey, uint64_t *upperValue,
                               int create, int replace, int remove, uint32_t genID);

/*
 * Inserts (key, value) along the path of nodes that the last find with
 * create visited (find calls it; the path must end at the leaf where the
 * key belongs). Splits full nodes and redistributes with siblings on the
 * way up; a split root makes the tree one level higher. genID must be
 * NEWGEN. Returns 1, or 0 with an error (code 22 when there is no path).
 */
QW_API int UIntBTreeInsert(BTree *tree, uint32_t key, uint64_t value, uint32_t genID);
QW_API int ULongBTreeInsert(BTree *tree, uint64_t key, uint64_t value, uint32_t genID);

/*
 * Splits the full node `node` (its keyCount equals its maxKeyCount:
 * "BTreeMaxKeyCount(btree, isLeaf) == keyCount") while inserting the carried
 * entry (*key, *value, right son *son) at `position`; on return the carried
 * entry is the one that moves up and *son the new right node. isLeaf must
 * match the node. genID must be NEWGEN. Returns 1, or 0 with an error (no
 * block for the new node; nothing changed then).
 */
QW_API int UIntBTreeSplitInsert(BTree *tree, uint32_t *key, uint64_t *value, uint32_t *son, uint32_t position,
                                uint32_t node, int isLeaf, uint32_t genID);
QW_API int ULongBTreeSplitInsert(BTree *tree, uint64_t *key, uint64_t *value, uint32_t *son, uint32_t position,
                                 uint32_t node, int isLeaf, uint32_t genID);

/* Makes an empty leaf root and appends its block id to "root" (NEWGEN; the
 * tree must be empty). Returns 1, or 0 with an error. */
QW_API int UIntBTreeAddRoot(BTree *tree, uint32_t genID);
QW_API int ULongBTreeAddRoot(BTree *tree, uint32_t genID);

/*
 * One step of an iterator made by BTreeEnumerationNew for a tree of the
 * matching width. Returns 1 with an entry in *key and *value (each may be
 * NULL), BTREE_NEXT_STEPPED when the step moved without producing one, 0 at
 * the end, -1 with an error (the iterator is finished then).
 */
QW_API int UIntBTreeNext_(BTreeEnumeration *enumeration, uint64_t *key, uint64_t *value);
QW_API int ULongBTreeNext_(BTreeEnumeration *enumeration, uint64_t *key, uint64_t *value);

/* Repeats the step until it gives an entry, the end or a failure: 1, 0 or
 * -1 as BTreeEnumerationNext. */
QW_API int UIntBTreeNext(BTreeEnumeration *enumeration, uint64_t *key, uint64_t *value);
QW_API int ULongBTreeNext(BTreeEnumeration *enumeration, uint64_t *key, uint64_t *value);

/* BTreeEnumerate and BTreeBlockEnumerate for trees of the matching width. */
QW_API int UIntBTreeEnumerate(BTree *tree, BTreeEntryCallback callback, void *context, uint32_t genID);
QW_API int ULongBTreeEnumerate(BTree *tree, BTreeEntryCallback callback, void *context, uint32_t genID);
QW_API int UIntBTreeBlockEnumerate(BTree *tree, BTreeBlockCallback callback, void *context, uint32_t genID,
                                   int full);
QW_API int ULongBTreeBlockEnumerate(BTree *tree, BTreeBlockCallback callback, void *context, uint32_t genID,
                                    int full);

QW_END_DECLS

#endif /* QWVM_BTREE_H */
