/*
 * qwvm/offsetmap.h: offset maps.
 *
 * An offset map records a growing sequence of non-decreasing 64-bit offsets
 * (for example where each entry of a run starts) and answers the offset of
 * entry n with at most 15 small decodes. Entries are numbered from 0 in the
 * order they are added; there is no removal.
 *
 * Storage, three arena arrays under "<path>/offsetMap":
 *  "lengthCodeIndex"  32-bit: [0] the number of entries; [1 + g] the byte
 *                     position in "lengthcode" where the deltas of group g
 *                     begin.
 *  "offset"           64-bit: [g] the offset of entry 16 * g.
 *  "lengthcode"       bytes: the differences of the other entries from
 *                     their predecessors, in entry order, each in the
 *                     program's varint (7-bit groups, lowest first, each
 *                     byte holding group << 1 with bit 0 set when another
 *                     byte follows).
 * All integers are little-endian.
 *
 * A difference of 0 is written as no byte at all, while reading always
 * consumes at least one byte per difference: two equal consecutive offsets
 * inside a group of 16 make later reads in that group wrong. Callers add
 * strictly increasing offsets (the starts of non-empty entries); the writer
 * keeps this behaviour as the stored format defines it.
 *
 * Conventions are those of qwvm/qwlib.h. Generation arguments are NEWGEN or
 * OLDGEN (anything else fails the assertion "FALSE"). Caller errors are
 * assertions: "offset >= lastOffset" (an offset below the previous one) and
 * "(offset - lastOffset) <= UINT_MAX_VALUE" (a step of 2^32 or more). Reads
 * beyond the stored arrays (an entry number beyond the map, or stored data
 * that contradicts itself) tag the arena corrupted when the entry should
 * exist and fail the assertion naming the bound: "((sub)) < __arraylen__",
 * "((sub + 1)) < __arraylen__", "((lengthCodeIndex)) < __arraylen__" or
 * "0 < __upBound__".
 *
 * The map keeps the ids its arrays had in each generation when it was
 * opened: arrays created since the last commit read as empty in OLDGEN until
 * the map is opened again after a commit. Threads: the map has no lock of
 * its own; callers serialise writers and keep readers of NEWGEN away from
 * them.
 */
#ifndef QWVM_OFFSETMAP_H
#define QWVM_OFFSETMAP_H

#include <stdint.h>

#include "qwvm/export.h"
#include "qwvm/qwlib.h"
#include "qwvm/vmarena.h"

QW_BEGIN_DECLS

/* Returned by OffsetMapAdd on failure; never an entry number. */
#define OFFSETMAP_INVALID_ENTRY 0xFFFFFFFFu
/* Returned by OffsetMapGet on failure. */
#define OFFSETMAP_INVALID_OFFSET 0xFFFFFFFFFFFFFFFFull

typedef struct OffsetMap OffsetMap;

/*
 * Finds or creates the offset map stored under `path` in `arena`.
 *  pathBuffer  [in/out] a growable byte array of the caller (a NULL pointer
 *              is initialised) used to build the array names; its length is
 *              restored before return.
 *  scan        passed to the name lookups (VMAArrayFind).
 *  created     [in/out] in: non-zero allows creating missing arrays (not on
 *              a read-only arena); out: 1 when any was created (a new map
 *              then holds the entry count 0). May be NULL (no creation).
 *  locked      non-zero when the caller holds the arrays' registered lock.
 * Returns the map (free it with OffsetMapFree), or NULL: code 2 when an array
 * is missing and may not be created, or the arena's error.
 */
QW_API OffsetMap *OffsetMapNew_(VMArena *arena, uint8_t **pathBuffer, const char *path, int scan, int *created,
                                int locked);

/* OffsetMapNew_ with scan 0. */
QW_API OffsetMap *OffsetMapNew(VMArena *arena, uint8_t **pathBuffer, const char *path, int *created, int locked);

/* Frees the in-memory record (NULL is ignored); the arrays stay. */
QW_API void OffsetMapFree(OffsetMap *map);

/*
 * Adds `offset` (not below the last one, at most 2^32 - 1 above it) as the
 * next entry, in NEWGEN. Returns the entry's number, or
 * OFFSETMAP_INVALID_ENTRY with an error; the map is then unchanged.
 */
QW_API uint32_t OffsetMapAdd(OffsetMap *map, uint64_t offset);

/*
 * The offset of entry `n` in `genID`. Returns it, or OFFSETMAP_INVALID_OFFSET
 * with an error when the arrays cannot be read.
 */
QW_API uint64_t OffsetMapGet(OffsetMap *map, uint32_t n, uint32_t genID);

QW_END_DECLS

#endif /* QWVM_OFFSETMAP_H */
