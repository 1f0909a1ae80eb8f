/*
 * qwvm/sort.h: external sorting.
 *
 * Three layers, each over the one below:
 *  - the run block server (DRBServer...): fixed-size blocks spread over the
 *    plain data files "data0" .. "data<n-1>" of a directory; block b lives in
 *    file b mod n at byte offset (b / n) * blockSize. Blocks are read through
 *    read-only memory maps and written through a pool of write buffers that a
 *    background sync thread writes back. Which block numbers exist and which
 *    are free is kept in arena arrays under "drbs" ("params", "freeBlock",
 *    "newFreeBlock"), so it commits with its owner's arena; a block freed
 *    since the last commit is reused only after the next one.
 *  - the run sorter (DBSorter...): runs (byte sequences written once and read
 *    once, in order) kept in the blocks of a run block server at D/"data",
 *    with the bookkeeping of runs and of one merge in progress in the arena
 *    D/"meta", so that a sort killed at any moment resumes from its last
 *    commit (DBSorterMerge with no run ids finishes a pending merge).
 *  - the generic sorter (GenericDBSorter...): callers add key/value pairs;
 *    each flush sorts them into one run of key/multi-value entries (KMVEntry),
 *    and GenericDBSorterSort merges runs until one is left (or
 *    GenericDBSorterSortDownTo until a few are, which GenericDBSorterScan
 *    then reads at once, in order, leaving them as they are).
 *
 * Conventions are those of qwvm/qwlib.h: 1 or a non-NULL handle on success,
 * 0 or NULL with the calling thread's error chain set. Every handle is owned
 * by the caller until its matching Free/Close/Delete.
 *
 * Threads: a run block server may be used from any thread; it runs its own
 * sync and prefetch threads, which notice a stop within 1000 ms. A run
 * sorter allocates run ids under its own mutex; everything else on one
 * sorter is driven by one thread at a time, except that several threads may
 * each write their own new run (DBSEntryWriter) at once. Commits run with no
 * writer active.
 */
#ifndef QWVM_SORT_H
#define QWVM_SORT_H

#include <stddef.h>
#include <stdint.h>

#include "qwvm/export.h"
#include "qwvm/qwfile.h"
#include "qwvm/qwmime.h"
#include "qwvm/vmarena.h"

QW_BEGIN_DECLS

/* ======================================================================== */
/* Run block server                                                          */
/* ======================================================================== */

typedef struct DRBServer DRBServer;

/* An acquired block: its number, the access mode and its bytes. */
typedef struct DRBServerBlockHandle {
  uint32_t block;
  int read;
  void *address;
} DRBServerBlockHandle;

/* The block number DRBServerBlockNew answers when the files cannot grow. */
#define DRBS_INVALID_BLOCK 0xFFFFFFFFu
/* Growth of the files is at most this many bytes per step. */
#define DRBS_MAX_GROWTH_BYTES 0x20000000u

/*
 * Opens the server over `directory` (which must exist) and `arena` (its
 * arrays "drbs/params", "drbs/freeBlock", "drbs/newFreeBlock" are found or
 * made). `blockSize` is a multiple of the system page size; `fileCount`,
 * `syncThreads` and `prefetchThreads` are at least 1. Data files are created
 * when missing (writable) and opened read-only otherwise. A writable open
 * moves the frees pending since the last commit to the free list (as
 * DRBServerAfterCommit): whatever the last commit freed is reusable.
 * Returns NULL with an error: "Could not open file %s", code 22 for bad sizes,
 * or the arena's error.
 */
QW_API DRBServer *DRBServerNew(const char *directory, VMArena *arena, uint32_t blockSize, uint32_t fileCount,
                               uint32_t syncThreads, uint32_t prefetchThreads, int readOnly);

/* Stops the threads (within about a second), closes the files ("Could not
 * close fd = %d" is reported, the rest is still freed) and frees the server.
 * Blocks still held are dropped without being written. NULL is ignored.
 * Returns 1, or 0 when a file could not be closed. */
QW_API int DRBServerFree(DRBServer *server);

/* A new block number: the lowest free one, else the next never used (growing
 * the files when they are full). DRBS_INVALID_BLOCK with an error when the
 * files cannot be extended ("Could not extend file %s") or the arrays
 * cannot be changed. */
QW_API uint32_t DRBServerBlockNew(DRBServer *server);

/* Frees a block: it joins "newFreeBlock" and is reusable after the next
 * commit. Freeing a block twice before a commit fails the assertion
 * "bid != blockID". Returns 1, or 0 with an error. */
QW_API int DRBServerBlockFree(DRBServer *server, uint32_t block);

/*
 * Acquires a block for reading (`read` non-zero: a read-only map of its file
 * range, shared by every reader) or for writing (a buffer of the write pool,
 * waiting while the pool's one buffer is in use; with `load` the buffer is
 * filled from the file first, else its bytes are undefined). A written
 * block released but not yet written back is waited for before it is
 * acquired again. Sharing a block between a writer and anyone else reports
 * "BAD on %d mode = %s block mode = %s" and fails the assertion "FALSE".
 * A block whose write-back failed is refused for reading or loading, with
 * that failure, until it is acquired for writing without `load`.
 * Returns `handle` filled with (block, read, address), or NULL with an error
 * ("Could not read data", "Could not map data").
 */
QW_API DRBServerBlockHandle *DRBServerBlockAcquire(DRBServerBlockHandle *handle, DRBServer *server, uint32_t block,
                                                   int read, int load);

/* Releases an acquired block. When its last holder lets go a written block
 * is queued for the sync thread, a read one is unmapped ("Could not unmap
 * data"). A written block still held after the release fails "block.read".
 * Returns 1, or 0 with an error. */
QW_API int DRBServerBlockRelease(DRBServer *server, uint32_t block, int read, void *address);

/* Queues a block for the prefetch thread, which reads it ahead of use. */
QW_API void DRBServerBlockPrefetch(DRBServer *server, uint32_t block);

/* Before the owner's arena commits: reports "!!! Not released block, read =
 * %s" for written blocks still held, waits until every released block is
 * written back, reports "!!! Not synced block read = %s" for any that still
 * holds a buffer, and syncs every file ("Could not fsync file"). Returns 1,
 * or 0 with an error. */
QW_API int DRBServerBeforeCommit(DRBServer *server);

/* After the owner's arena committed: the blocks freed since the previous
 * commit become reusable. Two frees of one number fail "bid0 != bid1".
 * Returns 1, or 0 with an error. */
QW_API int DRBServerAfterCommit(DRBServer *server);

/* Positioned whole-block transfers on one file. A failure is "error reading
 * box data file" / "error writing box data file" / "error prefetch data
 * file"; a read that stops short fails "n1 > 0 && (size_t) n1 < size" as a
 * data error (a damaged file). DRBServerDataPrefetch reads `size` bytes
 * ahead into the system's file cache. Return 1, or 0 with an error. */
QW_API int DRBServerDataRead(QWFILE file, uint64_t offset, void *buffer, size_t size);
QW_API int DRBServerDataWrite(QWFILE file, uint64_t offset, const void *buffer, size_t size);
QW_API int DRBServerDataPrefetch(QWFILE file, uint64_t offset, size_t size);

/* Sets how many write buffers the pool may hold (1 when the server opens;
 * at least 1). More buffers let a writer go on while the sync thread writes
 * earlier blocks back, at blockSize bytes of memory each. */
QW_API void DRBServerSetWriteBufferLimit(DRBServer *server, uint32_t limit);

/* Statistics: blocks handed out so far, and the most blocks loaded at once. */
QW_API uint32_t DRBServerBlockCount(DRBServer *server);
QW_API uint32_t DRBServerMaxLoaded(DRBServer *server);

/* ======================================================================== */
/* Run sorter                                                                */
/* ======================================================================== */

typedef struct DBSorter DBSorter;

/* The answer of DBSorterMergedRunID while no single run is left. */
#define DBS_NO_RUN 0xFFFFFFFFu

/* A sequential writer of one run (fields are the sorter's). */
typedef struct DBSEntryWriter {
  DBSorter *dbs;
  uint32_t runIndex;
  uint8_t *address;   /* next byte in the current block */
  uint32_t left;      /* bytes left in the current block */
  uint64_t written;   /* bytes written to the run */
  uint32_t block;     /* current server block, DBS_NO_RUN when none */
  uint8_t *blockAddress;
} DBSEntryWriter;

/* A sequential reader of one run. */
typedef struct DBSEntryReader {
  DBSorter *dbs;
  uint32_t runIndex;
  const uint8_t *address; /* next byte in the current range */
  uint32_t left;          /* bytes left in the current range */
  uint64_t offset;        /* bytes read */
  uint64_t lastOffset;    /* position committed by a `mark` read */
  uint32_t block;         /* current server block, DBS_NO_RUN when none */
  const uint8_t *blockAddress;
  uint64_t length;        /* the run's length */
} DBSEntryReader;

/*
 * Opens (writable: creates) the sorter in `directory`: the arena D/"meta",
 * the run block server D/"data" with `fileCount` data files of
 * `blockSize`-byte blocks (an existing sorter keeps the sizes it was made
 * with). NULL with an error: "dbs : could not read status in dir: \"%s\"",
 * "DBSorter: could not create data dir: \"%s/%s\"", "DBSorter: could not
 * create meta dir: \"%s/%s\"", or the arena's or the server's error.
 */
QW_API DBSorter *DBSorterNew(const char *directory, uint32_t fileCount, uint32_t blockSize, int readOnly);
/* Closes the server and the arena (uncommitted changes are dropped) and
 * frees the sorter. NULL is ignored. Returns 1. */
QW_API int DBSorterClose(DBSorter *dbs);
/* Writes back the runs' blocks and commits the bookkeeping; "Commit failed
 * !!" on failure. After a run write or a merge failed part way the commit is
 * refused: close the sorter and open it again (back at the last commit).
 * Returns 1, or 0 with an error. */
QW_API int DBSorterCommit(DBSorter *dbs);
QW_API int DBSorterIsReadOnly(DBSorter *dbs);
QW_API VMArena *DBSorterArenaGet(DBSorter *dbs);
QW_API uint32_t DBSorterBlockSize(DBSorter *dbs);
/* The sorter's run block server (owned by the sorter). */
QW_API DRBServer *DBSorterServerGet(DBSorter *dbs);

/* Forwarded to the run block server. */
QW_API uint32_t DBSorterBlockNew(DBSorter *dbs);
QW_API int DBSorterBlockFree(DBSorter *dbs, uint32_t block);
/* Acquires server block `block`; *address receives its bytes. Returns 1. */
QW_API int DBSorterBlockAcquire(DBSorter *dbs, uint32_t block, void **address, int read, int load);
QW_API int DBSorterBlockRelease(DBSorter *dbs, uint32_t block, void *address, int read);

/* A fresh run id: the last one given back, or the next never used. Under the
 * sorter's mutex. DBS_NO_RUN with an error. */
QW_API uint32_t DBSorterNewRunID(DBSorter *dbs);
/* A new run holding `length` bytes of `data`. DBS_NO_RUN with an error. */
QW_API uint32_t DBSorterRunAdd(DBSorter *dbs, const void *data, uint64_t length);
/* Length of run `runIndex` in bytes (0: not a live run). */
QW_API uint64_t DBSorterRunLength(DBSorter *dbs, uint32_t runIndex);

/*
 * Acquires the block of run `runIndex` holding byte `offset`: *block and
 * *address receive the block number and the address of that byte, *available
 * the contiguous bytes from there to the block's end. Returns 1; 0 with an
 * error "Error on block acquire for runIndex = %d, offset = %I64u".
 */
QW_API int DBSorterRangeAcquire(DBSorter *dbs, uint32_t runIndex, uint64_t offset, uint32_t *block,
                                const uint8_t **address, uint32_t *available, int read);

/* Frees the run's blocks lying wholly below `to`, from the block of `from`
 * on; when `to` is the run's length the last block goes too. Returns 1, or 0
 * with an error. */
QW_API int DBSorterFreeUpTo(DBSorter *dbs, uint32_t runIndex, uint64_t from, uint64_t to);

/* Chooses the shortest live runs, at most budget / blockSize of them, into
 * *runs (a qwlib growable array of uint32_t; NULL is initialised). Returns
 * 1 when two or more were chosen, else 0 (an error is set on failure). */
QW_API int DBSorterGetRunToMerge(DBSorter *dbs, uint32_t **runs, uint64_t budget);

QW_API uint32_t DBSorterMergeStart(DBSorter *dbs, const uint32_t *runs, uint32_t count);
QW_API int DBSorterMergeStop(DBSorter *dbs);
QW_API int DBSorterMergePending(DBSorter *dbs);
/* The single run left once every other id is back on the free list, else
 * DBS_NO_RUN. */
QW_API uint32_t DBSorterMergedRunID(DBSorter *dbs);

/*
 * The merge driver's callbacks: the first eight fields are required, the
 * last four may be NULL. A heap item is `itemSize` bytes of the caller's
 * layout that knows its input number (0 .. count-1, in ascending run id
 * order) and holds that input's current entry.
 *  readFirst     reads the first entry of input `input` into `item`: 1 read,
 *                0 the run is empty, -1 error.
 *  saveState     appends to *buffer the state of `item` for a checkpoint and
 *                tells its input number. 1, or 0 with an error.
 *  compare       negative, zero or positive.
 *  advance       writes the item's entry to `writer` and reads the next
 *                entry of the item's input (readers[input]) into it: 1 read,
 *                0 that input is exhausted, -1 error.
 *  heap          a qwlib growable byte array used as the heap's storage.
 *  restoreState  rebuilds an item from the bytes saveState saved for input
 *                `input`. NULL: those bytes are the item itself (itemSize
 *                bytes), pushed back as they are.
 *  saveWriter, restoreWriter  the caller's output-side state (for example
 *                bytes buffered for compression) across a checkpoint.
 *  final         called once the heap is empty, before the writer flushes.
 */
typedef struct DBSMergeCallbacks {
  int (*readFirst)(void *context, DBSEntryReader *reader, uint32_t input, void *item);
  int (*saveState)(void *context, const void *item, uint32_t *input, uint8_t **buffer);
  int (*compare)(const void *a, const void *b, void *compareContext);
  int (*advance)(void *context, void *item, DBSEntryReader *readers, DBSEntryWriter *writer);
  uint8_t *heap;
  void *context;
  uint32_t itemSize;
  void *compareContext;
  int (*restoreState)(void *context, DBSEntryReader *reader, uint32_t input, const uint8_t *data, uint32_t length,
                      void *item);
  int (*saveWriter)(void *context, uint8_t **buffer);
  int (*restoreWriter)(void *context, const uint8_t *data, uint32_t length);
  int (*final)(void *context, DBSEntryWriter *writer);
} DBSMergeCallbacks;

/* Saves the merge positions into "runMergePos" (readers must have marked
 * what they read). */
QW_API int DBSorterSyncDB(DBSorter *dbs, const DBSEntryWriter *writer, const DBSEntryReader *readers,
                          uint32_t count);
/* Prints "RESTORE MERGE" (on standard output, and as a level 2 message) and
 * rebuilds the writer and readers (*count of them, in a qwlib growable
 * array) from "runMergePos". */
QW_API int DBSorterRestore(DBSorter *dbs, DBSEntryWriter *writer, DBSEntryReader **readers, uint32_t *count);

/*
 * Merges `runs` (count ids) into one new run (*output), or, with `runs`
 * NULL, finishes the merge a crash left pending (answering at once when
 * there is none: *output is then DBS_NO_RUN). Every `checkpointInterval`
 * entries (0: never) the merge state is committed. Returns 1, or 0 with an
 * error. A failed merge stays pending as of its last commit: close the
 * sorter (dropping what the failed attempt changed) and open it again; the
 * next call with `runs` NULL finishes it.
 */
QW_API int DBSorterMerge(DBSorter *dbs, const uint32_t *runs, uint32_t count, uint32_t *output,
                         DBSMergeCallbacks *callbacks, uint64_t checkpointInterval);

/* Prints the runs and the free list on standard output. */
QW_API void DBSorterPrint(DBSorter *dbs);

QW_API int DBSEntryWriterInit(DBSEntryWriter *writer, DBSorter *dbs, uint32_t runIndex);
QW_API int DBSEntryWriterWriteBytes(DBSEntryWriter *writer, const void *data, uint32_t length);
/* Releases the current block and records the run's length. */
QW_API int DBSEntryWriterFlush(DBSEntryWriter *writer);

/* Reader at `offset` (also its committed position). */
QW_API int DBSEntryReaderInit(DBSEntryReader *reader, DBSorter *dbs, uint32_t runIndex, uint64_t offset);
/*
 * Reads `length` bytes (ReadByte: one). `mark`: the committed position
 * becomes the new read position; `free`: the blocks between the old and the
 * new committed position are given back. Returns 1 when read, 0 at the end
 * of the run (nothing read, no error), -1 with an error (a run that ends
 * inside the request is a data error).
 */
QW_API int DBSEntryReaderReadBytes(DBSEntryReader *reader, void *data, uint32_t length, int mark, int free);
QW_API int DBSEntryReaderReadByte(DBSEntryReader *reader, uint8_t *byte, int mark, int free);
/* Releases the reader's block. */
QW_API void DBSEntryReaderClose(DBSEntryReader *reader);

/* ======================================================================== */
/* Generic sorter and key/multi-value entries                                */
/* ======================================================================== */

/* Compressed payloads are cut at this many uncompressed bytes. */
#define COMPRESSOR_THRESHOLD 0x100000u

/* Groups of encoded entries are deflated (ZFlowNewCompress(2, 6), reset with
 * ZFlowSetCompress(stream, 1, 2, 6) before each group) once `threshold`
 * bytes are pending. */
typedef struct Compressor {
  ZFlow *stream;
  uint32_t threshold; /* COMPRESSOR_THRESHOLD */
} Compressor;
QW_API Compressor *CompressorNew(void);
QW_API void CompressorDelete(Compressor *compressor);

/*
 * A key with its values: `field` (0 unless the caller sets it), the key
 * bytes, the values back to back, each value's length and each value's
 * count (qwlib growable arrays).
 */
typedef struct KMVEntry {
  uint32_t field;
  uint8_t *key;
  uint8_t *values;
  uint32_t *valueLengths;
  uint32_t *counts;
} KMVEntry;

QW_API KMVEntry *KMVEntryNew(void);
QW_API int KMVEntryReInit(KMVEntry *entry);
QW_API void KMVEntryDelete(KMVEntry *entry);
/* Prints the entry on standard output. */
QW_API void KMVEntryDump(const KMVEntry *entry);
/* Appends the encoding to *buffer. */
QW_API int KMVEntryWrite_(const KMVEntry *entry, uint8_t **buffer);
/* Decodes from *at (advanced past the entry) up to `end`; 0 when malformed. */
QW_API int KMVEntryRead_(KMVEntry *entry, const uint8_t **at, const uint8_t *end);
QW_API int KMVEntryWriteToBuff(const KMVEntry *entry, uint8_t **buffer);
QW_API int KMVEntryReadFromBuff(KMVEntry *entry, const uint8_t *buffer, uint32_t length);

typedef struct GenericDBSorter {
  DBSorter *dbs;
  int reverse;
  int compareValues;
  int compress;
} GenericDBSorter;

/* A pending pair (20 bytes): where its key and value lie in the writer's
 * `bytes`, and its count (1). */
typedef struct GenericDBSorterRecord {
  uint32_t keyOffset;
  uint32_t keyLength;
  uint32_t valueOffset;
  uint32_t valueLength;
  uint32_t count;
} GenericDBSorterRecord;

/*
 * A writer of key/value pairs (one thread's). Buffers are qwlib growable
 * arrays. A flush encodes its entries straight from the pending bytes and
 * leaves `entry` holding the last one; KMVWriterWriteEntry writes `entry`.
 */
typedef struct GenericDBSorterWriter {
  GenericDBSorter *sorter;
  uint8_t *bytes;         /* pending keys and values back to back */
  GenericDBSorterRecord *records; /* the pending pairs */
  KMVEntry *entry;        /* the current entry */
  uint8_t *encoded;       /* the entry being encoded; compressing: every
                             encoded entry not yet compressed */
  Compressor *compressor; /* NULL unless the sorter compresses */
  uint8_t *scratch;       /* the compressed payload */
} GenericDBSorterWriter;

QW_API GenericDBSorter *GenericDBSorterNew(const char *directory, uint32_t fileCount, uint32_t blockSize,
                                           int readOnly, int reverse, int compareValues, int compress);
QW_API GenericDBSorterWriter *GenericDBSorterWriterNew(GenericDBSorter *sorter, uint64_t maxRunLength);
QW_API void GenericDBSorterWriterDelete(GenericDBSorterWriter *writer);
/* Adds the pairs [keys+keyIdx[i], keys+keyIdx[i+1]) / [values+valueIdx[i],
 * ...) for i < len - 1. Returns the number added (len - 1), or -1 with an
 * error. */
QW_API int GenericDBSorterMultiWrite(GenericDBSorterWriter *writer, const uint8_t *keys, const uint32_t *keyIdx,
                                     uint32_t keyIdx_len, const uint8_t *values, const uint32_t *valueIdx,
                                     uint32_t valueIdx_len);
/* Adds one pair. Returns 1, or 0 with an error. */
QW_API int GenericDBSorterWrite(GenericDBSorterWriter *writer, const void *key, uint32_t keyLength,
                                const void *value, uint32_t valueLength);
/* Bytes pending in the writer (keys and values). */
QW_API uint64_t GenericDBSorterWriterPending(GenericDBSorterWriter *writer);
/* Sorts what is pending into one run: 1 when a run was written, 0 when
 * nothing was pending, -1 with an error. Keys compare as unsigned bytes, a
 * key before its extensions; equal keys by value when the sorter compares
 * values; all reversed when it is reversed. Records that compare equal keep
 * the order they were written in. Each key's records make one entry: field
 * 0, the key, the values back to back, their lengths, their counts (1). */
QW_API int GenericDBSorterFlush(GenericDBSorterWriter *writer);
/* Merges until one run is left (messages, not failures, report problems:
 * "SORT ERROR", "Could not commit dbs"). Returns 1 when no merge failed. */
QW_API int GenericDBSorterSort(GenericDBSorter *sorter, uint64_t budget, uint64_t checkpointInterval);
/* GenericDBSorterSort stopping once at most `runsLeft` (1 or more) runs are
 * live: each merge takes the shortest runs, at most budget / blockSize of
 * them and no more than bring the count down to `runsLeft`, so that the runs
 * left can be read in one pass by GenericDBSorterScan. A pending merge is
 * finished first. GenericDBSorterSort is this with `runsLeft` 1. */
QW_API int GenericDBSorterSortDownTo(GenericDBSorter *sorter, uint64_t budget, uint64_t checkpointInterval,
                                     uint32_t runsLeft);

/* An entry as GenericDBSorterScan hands it over: its key, its values back to
 * back, and the number of records it holds (the sum of its counts). The bytes
 * are the scan's until the callback returns. */
typedef struct KMVEntryView {
  const uint8_t *key;
  uint32_t keyLength;
  const uint8_t *values;
  uint32_t valuesLength;
  uint64_t records;
} KMVEntryView;
typedef int (*GenericDBSorterEachFn)(void *context, const KMVEntryView *entry);
/* Reads every live run at once (one block of each held at a time) and calls
 * `each` with their entries in the sorter's key order (equal keys of several
 * runs: the lower run id first), leaving the runs as they are, so a scan
 * stopped part way can start over. `each` answers 1 to go on, or 0 to stop
 * (with its error set). Fails while a merge is pending. Returns 1, or 0 with
 * an error. */
QW_API int GenericDBSorterScan(GenericDBSorter *sorter, GenericDBSorterEachFn each, void *context);
QW_API int GenericDBSorterCommit(GenericDBSorter *sorter);
QW_API int GenericDBSorterClose(GenericDBSorter *sorter);

/*
 * Run payloads: a 4-byte little-endian length, then that many bytes. With no
 * compressor KMVWriterWriteEntry writes the writer's entry, encoded alone, as
 * one payload; with one it appends the encoding to `encoded` and, once that
 * holds COMPRESSOR_THRESHOLD bytes or more, writes them deflated as one
 * payload. KMVWriterFlush writes what is pending that way (nothing when not
 * compressing). Return 1, or 0 with an error.
 */
QW_API int KMVWriterWriteEntry(GenericDBSorterWriter *writer, DBSEntryWriter *run);
QW_API int KMVWriterFlush(GenericDBSorterWriter *writer, DBSEntryWriter *run);

/* Reading a sorted run back: entries in order. */
typedef struct KMVReader KMVReader;
QW_API KMVReader *KMVReaderNew(GenericDBSorter *sorter, uint32_t runIndex);
/* Next entry: 1, 0 at the end, -1 with an error. */
QW_API int KMVReaderReadEntry(KMVReader *reader, KMVEntry *entry);
QW_API void KMVReaderDelete(KMVReader *reader);

QW_END_DECLS

#endif /* QWVM_SORT_H */
