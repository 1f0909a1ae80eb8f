/*
 * qwvm/qwdict.h: the hash table of the support libraries (HashDelTable).
 *
 * A HashDelTable maps fixed-size byte keys to fixed-size values. It is an
 * open-addressing table with linear probing over one flat slot array: no
 * allocation per entry, a capacity that is a power of two, and room for
 * millions of keys (the slot count is limited only by memory and 2^40).
 * Entries can be deleted (a deleted slot becomes a tombstone that later
 * inserts reuse and the next growth drops). The table grows (doubling) when
 * live entries plus tombstones would pass 70% of the slots, and rehashes in
 * place at the same size when tombstones alone are the cause.
 *
 * Clearing costs O(1): every slot carries a stamp and the table an epoch; a
 * slot is live only when its stamp belongs to the current epoch, so
 * HashDelTableClear advances the epoch instead of touching the slots (the
 * slots are wiped only once every 2^31 clears). This is what lets a caller
 * clear a large table once per small job, as the boolean evaluator does per
 * document.
 *
 * Keys are compared bytewise and hashed over all their bytes: callers zero
 * any padding. Values start 8-byte aligned and are zero-filled when their
 * key is inserted.
 *
 * Pointers to values (from HashDelTableFind and HashDelTableEnumerate) stay
 * valid until the next insertion, HashDelTableGrow, HashDelTableClear or
 * HashDelTableFree; deletions move nothing.
 *
 * Conventions are those of qwvm/qwlib.h: 1 or a non-NULL pointer on success,
 * 0 or NULL on failure with the calling thread's error chain set, except
 * where stated. A table belongs to one thread at a time.
 */
#ifndef QWVM_QWDICT_H
#define QWVM_QWDICT_H

#include <stddef.h>
#include <stdint.h>

#include "qwvm/export.h"

QW_BEGIN_DECLS

typedef struct HashDelTable HashDelTable;

/* What HashDelTableFind does with the key. */
#define HASHDEL_FIND 0u   /* look it up */
#define HASHDEL_INSERT 1u /* look it up; insert it (zero value) when absent */
#define HASHDEL_DELETE 2u /* look it up and delete it when present */

/* Longest key and value, in bytes. */
#define HASHDEL_MAX_KEY_SIZE 256u
#define HASHDEL_MAX_VALUE_SIZE 4096u

/*
 * A new, empty table.
 *  keySize    bytes per key, 1 to HASHDEL_MAX_KEY_SIZE.
 *  valueSize  bytes per value, 0 to HASHDEL_MAX_VALUE_SIZE.
 *  capacity   keys the table should hold before its first growth (0: a
 *             small default).
 * Returns the table (HashDelTableFree), or NULL: code 22 for sizes out of
 * range, code 12 when memory runs out.
 */
QW_API HashDelTable *HashDelTableNew(uint32_t keySize, uint32_t valueSize, uint64_t capacity);

/* Frees the table (NULL is ignored). */
QW_API void HashDelTableFree(HashDelTable *table);

/*
 * Looks `key` (keySize bytes) up.
 *  action  HASHDEL_FIND, HASHDEL_INSERT or HASHDEL_DELETE (anything else:
 *          code 22).
 *  found   [out, may be NULL] 1 when the key was present before the call.
 * Returns the address of the key's value (FIND, INSERT), or NULL when the key
 * is absent (FIND) or was deleted or absent (DELETE); no error is set then.
 * An INSERT that must grow the table and cannot returns NULL with code 12,
 * leaving the table as it was.
 */
QW_API void *HashDelTableFind(HashDelTable *table, const void *key, uint32_t action, int *found);

/*
 * Makes room for `capacity` keys without further growth (rehashing once
 * when needed). Returns 1, or 0 with code 12 (the table is unchanged).
 */
QW_API int HashDelTableGrow(HashDelTable *table, uint64_t capacity);

/* The key stored with a value address returned by Find or Enumerate. */
QW_API const void *HashDelTableKey(const HashDelTable *table, const void *value);

/*
 * Walks the live entries in slot order. *position starts at 0 and is
 * advanced by each call. Returns the next entry's value address, or NULL at
 * the end. Deleting the entry just returned is allowed during a walk;
 * inserting is not.
 */
QW_API void *HashDelTableEnumerate(const HashDelTable *table, uint64_t *position);

/* Removes every entry in O(1), keeping the capacity. */
QW_API void HashDelTableClear(HashDelTable *table);

/* Number of live entries. */
QW_API uint64_t HashDelTableCount(const HashDelTable *table);

QW_END_DECLS

#endif /* QWVM_QWDICT_H */
