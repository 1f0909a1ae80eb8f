/*
 * qwvm/box.h: the box store, a persistent map from 32-bit entry ids to byte
 * strings of any length, and the constants shared with its data files
 * (qwvm/boxdata.h).
 *
 * Layout. A box directory holds a status file (qwvm/qwlog.h) whose
 * parameter 98 is the bucket count, and one directory "bucket.N" per
 * bucket: a logged arena (qwvm/lvm.h) with the bucket's metadata and a data
 * directory "bucket.N/data" with the data file "box.dat". Entry id goes to
 * bucket id % bucketCount, under the local index id / bucketCount.
 *
 * A data file is an array of BOXLVM_PAGE_SIZE-byte pages; a page is cut into
 * BOXLVM_PAGEUNITS units of BOXLVM_UNIT_SIZE bytes, and a block (one part of
 * one entry) is a run of 1 to 256 units that never crosses a page boundary.
 * A block is named by its handle, the index of its first unit (its byte
 * offset is handle * BOXLVM_UNIT_SIZE), and its size class c says that it is
 * (c + 1) units long. A value is cut into parts of BOXLVM_MAX_BLOCK_DATA
 * bytes (the last one shorter), one block each.
 *
 * Metadata, arrays in namespace "bucket" of the bucket's arena: "freeList0"
 * .. "freeList255" (u32 handles of free blocks of each class, last in first
 * out), "params" (u32: units used from the start of the file, a multiple of
 * 256; total units of the file, its pages * 256; number of entries),
 * "primMapping" (u32 per local index: all ones = no entry, 2h = one block at
 * handle h (h <= BOXLVM_HANDLE_MAXVALUE), all ones but the lowest bit = an
 * empty entry, which has no block, 2s + 1 = the block list s of
 * "secMapping"), "secMapping" (a
 * large-element array of u32 handle lists) and "secMappingFreeList".
 *
 * Durability. An update logs its block allocation (a BOX_UPDATE record, and
 * a BoxDataExtend record when the file grows), writes the value into fresh
 * blocks and only then points the mapping at them. Everything becomes
 * durable at a checkpoint (BoxLVMCheckpoint): the data files are synced,
 * then the checkpoint record is flushed. After a crash, opening the box
 * replays the logged allocations up to the newest durable checkpoint. Blocks
 * an update frees go back to the free lists only at the recycle step of the
 * next checkpoint, after every reader that might still read them has left:
 * a reader never sees a value overwritten under it.
 *
 * Read-only opens do not replay the logs: they see the metadata of the last
 * committing checkpoint. A writer's later checkpoints may have recycled and
 * reused blocks that metadata maps; reads of such entries then fail on the
 * block header check ("header data does not match"), never with another
 * entry's bytes. Open read-only after a committing checkpoint (and while no
 * writer has changed the box since) to read a consistent state.
 *
 * Threads. Any number of threads may read and update at once. Updates of a
 * bucket take, in order: the stripe mutex of their local index, the writer
 * ticket, the log mutex, the bucket lock (exclusive, for the mapping write
 * only). Readers take a reader ticket and the bucket lock shared.
 *
 * Conventions are those of qwvm/qwlib.h: 1 or non-NULL on success, 0 or NULL
 * with the error chain set.
 */
#ifndef QWVM_BOX_H
#define QWVM_BOX_H

#include <stddef.h>
#include <stdint.h>

#include "qwvm/export.h"
#include "qwvm/ldbarray.h"
#include "qwvm/lvm.h"
#include "qwvm/qwcache.h"
#include "qwvm/qwlib.h"
#include "qwvm/vmaarray.h"

/* Name of the data file inside a bucket's data directory. */
#define BOXLVM_DATA_FILE_NAME "box.dat"

/* Geometry of a data file. */
#define BOXLVM_UNIT_SIZE 32u
#define BOXLVM_PAGEUNITS 256u
#define BOXLVM_PAGE_SIZE 8192u
/* Largest block (class 255). */
#define BOXLVM_MAX_BLOCK_SIZE 8192u
/* Header of a written (version 0) block, and so the most data one block
 * holds: every block of a multi-block entry but the last holds exactly this
 * many bytes. */
#define BOXLVM_BLOCK_HEADER_SIZE 20u
#define BOXLVM_MAX_BLOCK_DATA (BOXLVM_MAX_BLOCK_SIZE - BOXLVM_BLOCK_HEADER_SIZE)
/* Size classes 0 .. 255. */
#define BOXLVM_SIZE_CLASSES 256u

/* A data file never grows past this many pages (just under 2 GiB). */
#define BOXLVM_MAX_DATA_PAGES 262142u
/* Largest block handle an entry's primary mapping can hold. */
#define BOXLVM_HANDLE_MAXVALUE 0x7FFFFFFEu
/* "None": the next handle of an entry's last block, and the entry id of an
 * erased block. */
#define BOXLVM_NO_HANDLE 0xFFFFFFFFu
#define BOXLVM_NO_ID 0xFFFFFFFFu

QW_BEGIN_DECLS

/* Status parameter of a box directory that holds the bucket count. */
#define BOXLVM_STATUS_BUCKETS 98u
/* Log record types of a box bucket (and of the fingerprint records that the
 * log dump knows how to print). */
#define BOX_UPDATE 16u
#define BOX_DATA_EXTEND 17u
#define BOX_FP_GET_ID 18u
#define BOX_FP_INC_REF 19u
#define BOX_FP_DEC_REF 20u
/* Elements of "params". */
#define BOXLVM_PARAM_USED_UNITS 0u
#define BOXLVM_PARAM_TOTAL_UNITS 1u
#define BOXLVM_PARAM_ENTRIES 2u

typedef struct BoxLVM BoxLVM;
typedef struct BoxLVMRawReader BoxLVMRawReader;
typedef struct BoxRecycleLists BoxRecycleLists;

/* A reader's buffers: the data file's block buffer and the handle list. */
typedef struct BoxLVMThreadData {
  struct BoxLVMDataFileThreadData *block;
  uint32_t *handles; /* qwlib growable array */
} BoxLVMThreadData;

/*
 * The metadata arrays of one bucket (see the layout above). `arena` is set by
 * the caller before BoxLVMMetadataInit; the rest is filled there. The
 * in-memory lists of freed blocks live in `blocks`; freeListSecMappingNew[1]
 * holds the secondary ids freed since the last checkpoint and [0] those set
 * aside by it until its recycle step (qwlib growable arrays).
 */
typedef struct BoxLVMMetadata {
  VMArena *arena;
  VMAArrayHandle freeList[BOXLVM_SIZE_CLASSES];
  VMAArrayHandle params;
  VMAArrayHandle primMapping;
  LDBArray *secMapping;
  LDBArrayThreadData *secMappingThreadData;
  VMAArrayHandle secMappingFreeList;
  BoxRecycleLists *blocks;
  uint32_t *freeListSecMappingNew[2];
} BoxLVMMetadata;

/*
 * Opens (with `create`, creating) the box in directory `dir`.
 *  bucketCount     buckets of a new box; an existing box keeps its own.
 *  arenaParameter  the bucket count of each bucket's arena.
 *  stripeCount     update stripes per bucket (at least 1).
 *  create, readOnly  not both (assertion "!create || !readOnly").
 *  cache           page cache for the data files, or NULL for direct access.
 * Writable boxes recover each bucket (replaying its log) here. Returns the
 * box, or NULL: "Could not read status in %s", "Could not write status in
 * %s", "Could not create bucket number %d" over the bucket's error
 * ("could not create LoggedVM", "could not initialize metadata for bucket",
 * "could not open bucket datafile", ...), code 22 "filename too long".
 */
QW_API BoxLVM *BoxLVMOpen(const char *dir, uint32_t bucketCount, uint32_t arenaParameter, uint32_t stripeCount,
                          int create, int readOnly, PageCache *cache);

/*
 * Closes the box: with `checkpoint` (writable boxes) a checkpoint (not
 * committing: the log carries the changes since the last commit) first; when that fails the box stays open and 0 is returned ("Could not
 * checkpoint BoxLVM before closing"). Then each bucket is closed in order,
 * stopping at the first failure, and the box released. Changes after the
 * last checkpoint are not durable unless `checkpoint` is set.
 */
QW_API int BoxLVMClose(BoxLVM *box, int checkpoint);

/* Number of buckets. */
QW_API uint32_t BoxLVMBucketCount(BoxLVM *box);

/* Replaces *serials (a qwlib growable array of u64) with each bucket's last
 * log serial. */
QW_API int BoxLVMSerialGet(BoxLVM *box, uint64_t **serials);

/*
 * Checkpoints every bucket in order (LoggedVMCheckpoint with `commit` and
 * serials[i], or the log's last serial when `serials` is NULL); stops at the
 * first failure. Read-only boxes fail with code 13 "cannot checkpoint in
 * read-only mode". `serials`, when given, has one element per bucket
 * (assertion).
 */
QW_API int BoxLVMCheckpoint(BoxLVM *box, int commit, uint64_t **serials);

/* Number of entries. */
QW_API uint64_t BoxLVMSize(BoxLVM *box);

/*
 * Stores `size` bytes of `data` under `id`, replacing any older value. An
 * empty value (size 0, data may be NULL) takes no block: its entry exists
 * and reads back empty.
 *  reserved1, reserved2  pass 0.
 *  isNew    [out] 1 when the id had no entry.
 *  inError  [out] 1 when the update could not be logged.
 * Returns 1, or 0 with an error: "Cannot update in readOnly mode", code 6
 * "Box is in error, cannot update" after a failed data write of the bucket
 * (until the box is reopened), code 6 "could not write block to disk : %s".
 * The value is durable after the next checkpoint.
 */
QW_API int BoxLVMUpdate(BoxLVM *box, uint32_t id, uint32_t reserved1, uint32_t reserved2, const void *data,
                        uint32_t size, int *isNew, int *inError);

/* Removes the entry of `id`; "cannot remove non-existing entry" when there is
 * none. */
QW_API int BoxLVMRemove(BoxLVM *box, uint32_t id, int *inError);

/*
 * Reads the value of `id` into *value (a qwlib growable byte array, emptied
 * first; NULL is initialised and then owned by the caller). Returns 1 when
 * the entry exists, 0 when it does not (no error set) or on failure (error
 * set, "BoxLVMBucketGet: data read failed" over the block's error).
 */
QW_API int BoxLVMGet(BoxLVM *box, BoxLVMThreadData *threadData, uint32_t id, uint8_t **value);

/* 1 when `id` has an entry, 0 when not (or on failure, with an error). */
QW_API int BoxLVMExists(BoxLVM *box, uint32_t id);

/* Thread data: New/Free allocate and release one; Init/Delete fill and empty
 * a record the caller holds. NULL / 0 on no memory. */
QW_API BoxLVMThreadData *BoxLVMThreadDataNew(void);
QW_API void BoxLVMThreadDataFree(BoxLVMThreadData *threadData);
QW_API int BoxLVMThreadDataInit(BoxLVMThreadData *threadData);
QW_API void BoxLVMThreadDataDelete(BoxLVMThreadData *threadData);

/*
 * Sequential reader of one bucket's data file, block by block from the
 * start, also where no entry maps (stale values and erased blocks are
 * skipped only when their header does not verify). Opens
 * dir/bucket.N/data/box.dat read-only ("could not open file for raw
 * reader", "could not get data file size for raw reader").
 */
QW_API BoxLVMRawReader *BoxLVMRawReaderNew(const char *dir, uint32_t bucket);
QW_API void BoxLVMRawReaderClose(BoxLVMRawReader *reader);
/* The next block that verifies (header and checksum): its entry id, and its
 * data (valid until the next call). Returns 1, or 0 at the end of the file
 * (no error) or on a read failure (error set). */
QW_API int BoxLVMRawReaderNext(BoxLVMRawReader *reader, uint32_t *id, const uint8_t **data, uint32_t *length);
/* The same with the block's handle, part index and next handle. */
QW_API int BoxLVMRawReaderNextExt(BoxLVMRawReader *reader, uint32_t *id, uint32_t *part, uint32_t *next,
                                  uint32_t *handle, const uint8_t **data, uint32_t *length);
/* Size of the file and the reader's position, in bytes. */
QW_API uint64_t BoxLVMRawReaderSize(BoxLVMRawReader *reader);
QW_API uint64_t BoxLVMRawReaderPos(BoxLVMRawReader *reader);
/* Moves the reader to byte `position` (rounded down to a unit). */
QW_API int BoxLVMRawReaderSeek(BoxLVMRawReader *reader, uint64_t position);

/*
 * Prints one box record to standard output: BOX_UPDATE as "BoxUpdate id %u,
 * sizeNew = %u, gSizeOldLength = %u" (then ", gSizeOld = [ c1 c2 ... ]") and
 * a newline, BoxDataExtend as "BoxDataExtend %d\n", the fingerprint records
 * as "BoxFPGetId %llu, %d\n", "BoxFPIncRef %d\n", "BoxFPDecRef %d\n";
 * other types go to LoggedVMOpDebug.
 */
QW_API void BoxOpDebug(const void *record, uint32_t size, uint32_t type);

/*
 * Reads the record at `serial` into *payload (a qwlib growable byte array,
 * replaced) and checks that a box record decodes. *type and *next (may be
 * NULL) receive its type and the next serial. Errors: "could not read log
 * operation", "could not read BOX_UPDATE log operation", "could not
 * decompact BOX_UPDATE log operation".
 */
QW_API int BoxOpLogRead(LogReadContext *context, uint64_t serial, uint32_t *type, uint8_t **payload,
                        uint64_t *next);

/*
 * Opens (creating when `create` allows, on a writable arena) the metadata
 * arrays in namespace `nameSpace` of meta->arena, and "params" with three
 * zeros when it is empty. *created (may be NULL) is 1 when arrays were made.
 * BoxLVMMetadataFree releases what Init made (not the arrays' contents).
 */
QW_API int BoxLVMMetadataInit(BoxLVMMetadata *meta, const char *nameSpace, int create, int readOnly, int *created);
QW_API void BoxLVMMetadataFree(BoxLVMMetadata *meta);

/* ------------------------------------------------------------------------ */
/* Inspection                                                                */
/* ------------------------------------------------------------------------ */

/*
 * Receives one fault of BoxLVMCheck: the bucket it was found in and one line
 * of text (no newline) that starts with "bucket <n>: " and names the entry
 * id, block handle or secondary id concerned and what is wrong. `line` is
 * valid during the call only.
 */
typedef void (*BoxLVMCheckReport)(void *context, uint32_t bucket, const char *line);

/*
 * Checks every bucket of an open box (read-only or writable) without
 * changing anything: nothing is written, nothing is tagged corrupted.
 * For each bucket:
 *  - params: three of them; params[0] <= params[1] <= the data file's size
 *    in units, both multiples of 256; params[2] equals the number of mapped
 *    entries;
 *  - every mapped entry: each block is read and verified as a read does
 *    (BoxLVMDataBlockReadDecode with the entry's id, the part index and the
 *    next handle expected: header, checksum, chain), lies below params[0],
 *    and its class holds its data inside its page;
 *  - the secondary block lists: each secondary id is used by at most one
 *    entry, is not also free, and is either used or free (none leaks);
 *  - coverage: every unit below params[0] lies in exactly one mapped block,
 *    persistent free-list block or block waiting in the in-memory recycle
 *    lists (empty right after open); no block is both mapped and free, in
 *    two entries, or overlapping another.
 * Each fault calls `report` (may be NULL: faults are then only counted) and
 * adds one to *faults (may be NULL). A block whose header cannot be read
 * gives one fault; the units after it up to the next known block are taken
 * to be its own, so that one damaged header does not also report a gap.
 * Damaged data never stops the check: a bucket whose params or mapping
 * cannot be read gives a fault naming the error and the check moves on.
 * The check takes each bucket's log mutex and bucket lock (shared) while it
 * runs over that bucket; an update running meanwhile has blocks that belong
 * to no list yet, so check a box that nothing updates.
 * Returns 1 when every bucket was checked (look at *faults), 0 with an error
 * when the check itself could not run (out of memory).
 */
QW_API int BoxLVMCheck(BoxLVM *box, BoxLVMCheckReport report, void *context, uint64_t *faults);

/* Space and entries of one bucket, as BoxLVMBucketStatGet measures them. */
typedef struct BoxLVMBucketStat {
  uint64_t entries;       /* params[2] */
  uint64_t usedUnits;     /* params[0]: units handed out from the start of the data file */
  uint64_t totalUnits;    /* params[1]: units the metadata says the file has */
  uint64_t fileBytes;     /* the data file's size on disk */
  uint64_t freeBlocks;    /* blocks on the persistent free lists and in the recycle lists */
  uint64_t freeUnits;     /* their units */
} BoxLVMBucketStat;

/*
 * Measures bucket `bucket` (below BoxLVMBucketCount) into *stat, under the
 * bucket's log mutex. Free space in bytes is (freeUnits + totalUnits -
 * usedUnits) * BOXLVM_UNIT_SIZE. Returns 1, or 0 with an error (an array or
 * the data file could not be read; code 22 for a bucket out of range).
 */
QW_API int BoxLVMBucketStatGet(BoxLVM *box, uint32_t bucket, BoxLVMBucketStat *stat);

QW_END_DECLS

#endif /* QWVM_BOX_H */
