/*
 * qwvm/pathdict.h: path dictionaries.
 *
 * A path dictionary maps slash-separated paths to non-zero 64-bit values of
 * the caller. Each distinct component text gets an atom handle (u32); a path
 * is stored as the sequence of its components' handles. A dictionary named
 * N under the caller's path buffer P (empty or ending in "/") keeps, under
 * "P" "N" "/pathdict/":
 *   "params"      one u32: the next atom handle never handed out;
 *   "atomLookup"  a symbol-sequence tree: component bytes (one symbol per
 *                 byte) -> handle + 1;
 *   "atom"        a large-element array (qwvm/ldbarray.h) of 8 buckets: the
 *                 text of handle h is element h >> 3 of bucket h & 7;
 *   "pathLookup"  a symbol-sequence tree: handle sequence -> value, each
 *                 handle as five 7-bit symbols, least significant first;
 *   "freeAtom"    a stack of free handles (u32), reused first.
 * Components: "/" separates them; runs of "/", a leading and a trailing "/"
 * make no empty component, so "a//b/" names the same entry as "a/b". A
 * backslash makes the next byte literal (an escaped "/" stays inside the
 * component) and is itself kept in the component text. A component may have
 * at most PATHDICT_MAX_COMPONENT (65535) bytes.
 * Removing a path removes it from "pathLookup" only: component atoms are
 * shared between paths and stay.
 *
 * Conventions are those of qwvm/qwlib.h; generation arguments are NEWGEN or
 * OLDGEN ("FALSE" otherwise); changes need NEWGEN. No lock of its own:
 * writers are serialised by the caller, OLDGEN readers run in parallel, each
 * with its own thread data, under VMArenaOldGenAcquire/Release.
 */
#ifndef QWVM_PATHDICT_H
#define QWVM_PATHDICT_H

#include <stdint.h>

#include "qwvm/export.h"
#include "qwvm/qwlib.h"
#include "qwvm/vmarena.h"

QW_BEGIN_DECLS

/* Longest component, in bytes. */
#define PATHDICT_MAX_COMPONENT 65535u
/* Symbols per atom handle in "pathLookup". */
#define ATOM_NODE_LENGTH 5u
/* Depth argument of PathDictEnumerationInit at or above which the depth is
 * unlimited. */
#define PATHDICT_DEPTH_UNLIMITED 858993459u

typedef struct PathDict PathDict;
typedef struct PathDictThreadData PathDictThreadData;
typedef struct PathDictEnumeration PathDictEnumeration;

/*
 * Finds or creates the dictionary `name` under the path in `pathBuffer`
 * (a growable byte array of the caller; NULL is initialised; its length is
 * restored). `created` [out, may be NULL]: 1 when any part was made.
 * `locked`: initial lock flag of both generations. Returns the dictionary
 * (PathDictFree), or NULL: code 2 when a part is missing on a read-only
 * arena, or the failing part's error.
 */
QW_API PathDict *PathDictNew(VMArena *arena, uint8_t **pathBuffer, const char *name, int *created, int locked);

/* Frees the in-memory records (NULL is ignored); the data stays. */
QW_API void PathDictFree(PathDict *dict);

/* After VMArenaCommit succeeded: makes OLDGEN reads see the commit. */
QW_API int PathDictCommit(PathDict *dict);

/* Removes every path and atom (NEWGEN only). */
QW_API int PathDictClear(PathDict *dict, uint32_t genID);

/* Registers the memory locks of all five parts in genID. */
QW_API int PathDictLockRegister(PathDict *dict, uint32_t lock, uint32_t genID);

/* Scratch of one thread for finds (any path dictionary); NULL when out of
 * memory. */
QW_API PathDictThreadData *PathDictThreadDataNew(void);
/* Gives back scratch that has grown past 10000 entries. */
QW_API void PathDictThreadDataReInit(PathDictThreadData *threadData);
/* Frees the thread data (NULL is ignored). */
QW_API void PathDictThreadDataFree(PathDictThreadData *threadData);

/*
 * Looks a path up and, on request, inserts or removes it.
 *  path, pathLength  [in] the path bytes (need not be NUL-terminated).
 *  value        the value to insert (non-zero) when `create` is set.
 *  create       non-zero: insert an absent path with `value` (NEWGEN only:
 *               "!(create && (genID == OLDGEN))"); unknown components get
 *               new atoms. A present path keeps its value.
 *  remove       non-zero: remove a present path (NEWGEN).
 * Returns the path's value as found (with create: `value` for a path
 * inserted now), or 0 when absent. 0 comes with an error set when the call
 * failed: code 22 for a component longer than PATHDICT_MAX_COMPONENT or a
 * path without components (such paths are never found nor created), or the
 * error of the part that failed. A failed create may leave new component
 * atoms behind (they are reused by later creates); the path itself is not
 * inserted.
 */
QW_API uint64_t PathDictFind(PathDict *dict, PathDictThreadData *threadData, const char *path, uint32_t pathLength,
                             uint64_t value, uint32_t genID, int create, int remove);

/* A new enumeration record with its own thread data; NULL when out of
 * memory. */
QW_API PathDictEnumeration *PathDictEnumerationNew(void);
/* Frees the record (NULL is ignored). */
QW_API void PathDictEnumerationFree(PathDictEnumeration *enumeration);

/*
 * Starts a walk over the paths in genID that start with the components of
 * `prefix` (prefixLength bytes; empty: every path) and have at most `depth`
 * components beyond them (PATHDICT_DEPTH_UNLIMITED or more: any). The
 * prefix's own entry is included when stored. Paths come in ascending order
 * of their handle sequences. The dictionary must not change in genID during
 * the walk. Returns 1 when the walk started. When a prefix component is
 * unknown the walk is marked finished and 0 is returned with no error set
 * (QWErrorIsSet() tells this apart from a failure, which returns 0 with an
 * error).
 */
QW_API int PathDictEnumerationInit(PathDict *dict, PathDictEnumeration *enumeration, const char *prefix,
                                   uint32_t prefixLength, uint32_t depth, uint32_t genID);

/*
 * The next path: its components joined by single "/" without a leading or
 * trailing "/" (valid until the next call, NUL-terminated), its length and
 * its value. Returns 1 with an entry, 0 at the end (no error) or on failure
 * (error set).
 */
QW_API int PathDictEnumerationGetNext(PathDictEnumeration *enumeration, const char **path, uint32_t *length,
                                      uint64_t *value);

QW_END_DECLS

#endif /* QWVM_PATHDICT_H */
