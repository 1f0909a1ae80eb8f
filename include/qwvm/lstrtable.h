/*
 * qwvm/lstrtable.h: the logged string dictionary and the string table.
 *
 * The logged string dictionary gives every distinct byte-string key a
 * stable 64-bit id: an ID tree ("idtree", qwvm/idtree.h) in a logged arena
 * (qwvm/lvm.h), whose keys are the key's bytes widened to one symbol each.
 * Every insertion logs a record of type LSTRDICT_ADD (24) and every deletion
 * one of type LSTRDICT_DELETE (25), the payload being the key's bytes;
 * recovery replays them (and logs them again, as any writer does). Freed ids
 * are handed out again, most recently freed first.
 *
 * The string table maps byte-string keys to byte-string values. Directory
 * layout: dir/dict (the dictionary) and dir/box (a box store, qwvm/box.h).
 * The dictionary turns the key into an id; the box holds, under that id, the
 * varint length of the key (the program's varint: 7-bit groups, lowest
 * first, each byte the group shifted left by one with bit 0 set when more
 * follow), the key and the value. A deleted key leaves an empty box entry
 * under its id, and a get whose entry holds another key (an id handed out
 * again) reads as absent.
 *
 * Durability comes at checkpoints (LoggedStrTableCheckpoint): the box
 * buckets' serials are taken before the dictionary's, and the dictionary is
 * checkpointed first, so every id a checkpointed box entry uses is covered
 * by the dictionary's checkpoint. Crash stops (QWEXIT, with QWVMEXIT equal
 * to the table's directory or to its dictionary's arena directory
 * dir/dict/vm): "lstrtablecheckpoint0" to "lstrtablecheckpoint3".
 *
 * Keys are at least one byte: operations on an empty key return 0 and
 * change nothing. Ids of the table are box ids: a table holds fewer than
 * 2^32 keys at a time.
 *
 * Threads: any number of threads may read and write at once, each with its
 * own thread data. Lock order: table lock (shared for Set and Delete,
 * exclusive for a committing checkpoint; Get takes none), then the writer or
 * reader ticket of the dictionary's logged arena and the dictionary's lock,
 * then the box's own locks.
 *
 * Conventions are those of qwvm/qwlib.h: 1 or non-NULL on success, 0 or NULL
 * with the error chain set.
 */
#ifndef QWVM_LSTRTABLE_H
#define QWVM_LSTRTABLE_H

#include <stdint.h>

#include "qwvm/box.h"
#include "qwvm/export.h"
#include "qwvm/qwcache.h"

QW_BEGIN_DECLS

#define LSTRDICT_ADD 24u
#define LSTRDICT_DELETE 25u
/* The id of no key. */
#define LSTRDICT_NO_ID 0xFFFFFFFFFFFFFFFFull

typedef struct LoggedStrDict LoggedStrDict;
typedef struct LoggedStrDictThreadData LoggedStrDictThreadData;
typedef struct LoggedStrDictEnumeration LoggedStrDictEnumeration;
typedef struct LoggedStrTable LoggedStrTable;
typedef struct LoggedStrTableThreadData LoggedStrTableThreadData;
typedef struct LoggedStrTableEnumeration LoggedStrTableEnumeration;

/* ------------------------------------------------------------------------ */
/* Dictionary                                                                */
/* ------------------------------------------------------------------------ */

/*
 * Opens the dictionary in `dir` (created with its logged arena when
 * writable) and, when writable, recovers it. Returns the dictionary or NULL:
 * "error creating directory %s", "could not open underlying LVM", "could not
 * create underlying ID tree", "unable to recover log", "could not commit
 * arena".
 */
QW_API LoggedStrDict *LoggedStrDictOpen(const char *dir, int readOnly);

/* With `checkpoint`, a checkpoint (no commit) first: when it fails ("could
 * not checkpoint") nothing is closed and 0 is returned. Then frees the tree,
 * closes the logged arena and releases the dictionary. */
QW_API int LoggedStrDictClose(LoggedStrDict *dict, int checkpoint);

QW_API uint64_t LoggedStrDictSerialGet(LoggedStrDict *dict);
QW_API int LoggedStrDictCheckpoint(LoggedStrDict *dict, int commit, uint64_t serial);

QW_API LoggedStrDictThreadData *LoggedStrDictThreadDataNew(void);
QW_API void LoggedStrDictThreadDataFree(LoggedStrDictThreadData *threadData);

/*
 * The id of `key` (`length` bytes) in *id, LSTRDICT_NO_ID when absent. With
 * `create` an absent key is added and logged ("LVM is in error, cannot
 * update" with code 101 when the logged arena is in error, "could not write
 * id creation to log"). Returns 1; 0 for an empty key or on failure.
 */
QW_API int LoggedStrDictLookup(LoggedStrDict *dict, LoggedStrDictThreadData *threadData, const void *key,
                               uint32_t length, int create, uint64_t *id);

/* Removes `key` (present or not) and logs the deletion. Returns 1; 0 for an
 * empty key or on failure ("could not write key deletion to log"). */
QW_API int LoggedStrDictDelete(LoggedStrDict *dict, LoggedStrDictThreadData *threadData, const void *key,
                               uint32_t length);

/* The ids of the keys starting with `prefix` (`length` bytes, 0 for all), in
 * key order, collected when the enumeration is made. */
QW_API LoggedStrDictEnumeration *LoggedStrDictEnumerationNew(LoggedStrDict *dict, const void *prefix,
                                                             uint32_t length);
/* 1 with the next id, 0 at the end. */
QW_API int LoggedStrDictEnumerationGetNext(LoggedStrDictEnumeration *enumeration, uint64_t *id);
QW_API void LoggedStrDictEnumerationFree(LoggedStrDictEnumeration *enumeration);

/* ------------------------------------------------------------------------ */
/* Table                                                                     */
/* ------------------------------------------------------------------------ */

/*
 * Opens (when writable, creating) the table in `dir`; bucketCount,
 * arenaParameter, stripeCount and cache are the box's (qwvm/box.h). Returns
 * the table, or NULL (code 22 "filename too long" when dir/dict or dir/box
 * would pass 259 characters).
 */
QW_API LoggedStrTable *LoggedStrTableOpen(const char *dir, uint32_t bucketCount, uint32_t arenaParameter,
                                          uint32_t stripeCount, int readOnly, PageCache *cache);

/* With `checkpoint` (writable tables), a checkpoint without commit first;
 * then closes the dictionary and the box. Returns 1. */
QW_API int LoggedStrTableClose(LoggedStrTable *table, int checkpoint);

QW_API LoggedStrTableThreadData *LoggedStrTableThreadDataNew(void);
QW_API void LoggedStrTableThreadDataFree(LoggedStrTableThreadData *threadData);

/* Returns 1 when `key` is present, with *value and *valueLength naming its
 * value inside the thread data (valid until its next use); 0 when absent or
 * for an empty key. */
QW_API int LoggedStrTableGet(LoggedStrTable *table, LoggedStrTableThreadData *threadData, const void *key,
                             uint32_t length, const uint8_t **value, uint32_t *valueLength);

/* Stores `value` under `key`. Returns 1, or 0 with an error (message
 * "BoxLVMUpdate failed" when the box could not log the update). */
QW_API int LoggedStrTableSet(LoggedStrTable *table, LoggedStrTableThreadData *threadData, const void *key,
                             uint32_t length, const void *value, uint32_t valueLength);

/* Removes `key` (an absent key succeeds). Returns 1, or 0 with an error. */
QW_API int LoggedStrTableDelete(LoggedStrTable *table, LoggedStrTableThreadData *threadData, const void *key,
                                uint32_t length);

/* Checkpoints the dictionary, then the box (see above). Returns 1, or 0 with
 * the error of the part that failed. */
QW_API int LoggedStrTableCheckpoint(LoggedStrTable *table, int commit);

/* The pairs whose key starts with `prefix`, in key order. GetNext gives 1
 * with the next pair (pointers valid until the next call), 0 at the end or
 * on failure (error set). */
QW_API LoggedStrTableEnumeration *LoggedStrTableEnumerationNew(LoggedStrTable *table, const void *prefix,
                                                               uint32_t length);
QW_API int LoggedStrTableEnumerationGetNext(LoggedStrTableEnumeration *enumeration, const uint8_t **key,
                                            uint32_t *keyLength, const uint8_t **value, uint32_t *valueLength);
QW_API void LoggedStrTableEnumerationFree(LoggedStrTableEnumeration *enumeration);

QW_END_DECLS

#endif /* QWVM_LSTRTABLE_H */
