/*
 * qwvm/boxdata.h: box data files, the checksummed blocks that hold the
 * bytes of a box's entries (geometry in qwvm/box.h).
 *
 * Block layout (little-endian). Version 0, the one written:
 *   0  u32 entry id (BOXLVM_NO_ID in an erased block)
 *   4  u32 part index of the block within its entry (0 for the first)
 *   8  u32 handle of the entry's next block (BOXLVM_NO_HANDLE for the last)
 *  12  u8  size class c: the block is (c + 1) * 32 bytes
 *  13  u8  version (0)
 *  14  u16 length of the data (at most BOXLVM_MAX_BLOCK_DATA)
 *  16  u32 checksum of the data
 *  20      the data; the rest of the block is whatever the writer's block
 *          buffer held (it is never read back).
 * Version 1, still read: the same first 16 bytes, a u64 stamp at 16, the
 * checksum at 24 and the data from 28.
 *
 * Checksum: h = 0; for each data byte b, h = (h * 16777619) xor b, in 32-bit
 * arithmetic (the FNV-1 step, started from 0 rather than the FNV offset
 * basis; stored files depend on the 0).
 *
 * Access: a data file is read and written either directly (positional reads
 * and writes, no lock) or through a page cache whose page size is at least
 * 8192 bytes; cached copies take the file's cache lock only around the copy.
 * Cached writes go through to the file and leave the cached page clean, so
 * that no write-back ever rewrites the durable blocks sharing a page with a
 * new one (a write torn by a power loss could destroy them).
 * Callers serialise growth and allocation; blocks written concurrently must
 * not overlap.
 *
 * Forced errors (testing): with QWRETURNFALSE set to "BoxLVMDataOpen",
 * "BoxLVMDataExtend", "BoxLVMDataBlockRead" or "BoxLVMDataBlockWrite", the
 * named step fails with code 0, class QW_ERROR_CLASS_SYSTEM, "forced error in
 * <name>" whenever rand() % QWRETURNFALSEFUZZ is 0 (see QWForcedError).
 *
 * Error codes of fresh errors raised here: 22 (class 0) for a path or cache
 * page size that does not fit; 0 (class 2) for a forced error or a file
 * smaller than its page count; 2 (class 3) at the growth limit; 3 (class 3)
 * for a wrong checksum; 4 (class 3) for a malformed or unexpected header;
 * 5 (class 3) for a short intermediate block. File failures keep the system
 * error of qwvm/qwfile.h innermost.
 *
 * Conventions are those of qwvm/qwlib.h: 1 or non-NULL on success, 0 or NULL
 * with the error chain set.
 */
#ifndef QWVM_BOXDATA_H
#define QWVM_BOXDATA_H

#include <stdint.h>

#include "qwvm/box.h"
#include "qwvm/export.h"
#include "qwvm/qwcache.h"
#include "qwvm/qwlib.h"

QW_BEGIN_DECLS

typedef struct BoxLVMDataFile BoxLVMDataFile;
typedef struct BoxLVMDataFileThreadData BoxLVMDataFileThreadData;

/*
 * Opens the data file dir/"box.dat".
 *  dir          [in] the bucket's data directory (must exist); the whole path
 *               must be shorter than 260 bytes, else code 22
 *               "path name too long: \"<dir>/box.dat\"".
 *  pages        [in] the page count the caller's metadata records: the file
 *               is created with this many pages and must have at least as
 *               many (else code 0, class 2, "box data file \"%s\" has invalid
 *               size (current is %llu, should have at least %llu)").
 *  create       [in] create the file when missing (its directory entry is
 *               synced, so a later open without create finds it).
 *  readOnly     [in] open read-only (not together with create: assertion
 *               "!create || !readOnly").
 *  verbose      [in] report growth at level 2.
 *  keepBadSize  [in] 0: a writable file whose size is not a whole number of
 *               pages is cut back to whole pages; 1: left as it is.
 *  noAdvice     [in] 0: tell the system that reads are random.
 *  cache        [in] page cache to go through (page size at least 8192, else
 *               code 22 "box cache page size invalid: is %u, should be at
 *               least %u"), or NULL for direct access.
 * Returns the file (BoxLVMDataClose), or NULL; the last message is then
 * "could not create data file \"%s\"" or "could not open data file \"%s\""
 * for open failures.
 */
QW_API BoxLVMDataFile *BoxLVMDataFileOpen(const char *dir, uint32_t pages, int create, int readOnly, int verbose,
                                          int keepBadSize, int noAdvice, PageCache *cache);

/*
 * With a cache, writes back and unregisters the file's pages; then closes the
 * file and frees the object (in every case). Returns 1, or 0 with an error
 * ("could not close box data file \"%s\"") when a write-back or the close
 * failed: data not synced before may then be lost. NULL is accepted.
 */
QW_API int BoxLVMDataClose(BoxLVMDataFile *file);

/*
 * Grows the file from `pages` pages (the caller's count) by one eighth,
 * rounded up to at least one page, at most 65536 pages at once and never
 * past BOXLVM_MAX_DATA_PAGES. *newPages receives the new page count, or
 * `pages` on failure. Fails with code 2, class 3, "cannot extend box data
 * file past the %u pages boundary" when `pages` is already at the limit, and
 * with "error extending box data file \"%s\"" when the size cannot be set.
 * The new size is durable only after BoxLVMDataSync.
 */
QW_API int BoxLVMDataGrow(BoxLVMDataFile *file, uint32_t pages, uint32_t *newPages);

/* Makes everything written (and the size) durable. Returns 1, or 0 with
 * "error sync'ing box data file \"%s\" (fd %i)" (direct) or "error flushing
 * cached box data file \"%s\"" (cached). */
QW_API int BoxLVMDataSync(BoxLVMDataFile *file);

/* The file's size in bytes, or -1 with "BoxLVMDataFileSize: error getting
 * dataFile size (fd %i)". */
QW_API int64_t BoxLVMDataFileSize(BoxLVMDataFile *file);

/*
 * Raw transfer of `size` bytes at byte offset handle * 32 (direct or through
 * the cache). The range must lie inside the file as this object opened or
 * grew it; otherwise, or on a short read, "unexpected end of file (fd %i)"
 * (write) or "BoxLVMDataBlockRead:unexpected end of file (fd %i)" (read).
 * Returns 1, or 0 with an error; a failed write may have written part of the
 * range.
 */
QW_API int BoxLVMDataBlockRead(BoxLVMDataFile *file, uint32_t handle, uint32_t size, void *buffer);
QW_API int BoxLVMDataBlockWrite(BoxLVMDataFile *file, uint32_t handle, uint32_t size, const void *buffer);

/* Per-thread block buffer (8192 bytes, zero-filled at creation) that the
 * encoding, erasing and decoding calls below work in. NULL on no memory. */
QW_API BoxLVMDataFileThreadData *BoxLVMDataFileThreadDataNew(void);
QW_API void BoxLVMDataFileThreadDataFree(BoxLVMDataFileThreadData *threadData);

/*
 * Writes one version 0 block of class `sizeClass` at `handle`: header,
 * checksum and `length` bytes of `data`, built in the thread buffer, then
 * (sizeClass + 1) * 32 bytes written. Asserts "size < USHORT_MAX_VALUE" on
 * the length. The block must hold the data (20 + length <= (sizeClass + 1) *
 * 32) and stay inside its page, else code 22. reserved1 and reserved2 are
 * not used (pass 0). Failure: "could not write data for entry %i to file".
 */
QW_API int BoxLVMDataBlockEncodeWrite(BoxLVMDataFile *file, BoxLVMDataFileThreadData *threadData, uint32_t handle,
                                      uint32_t length, const void *data, uint32_t sizeClass, uint32_t id,
                                      uint32_t part, uint32_t next, uint32_t reserved1, uint32_t reserved2);

/*
 * Erases the block at `handle`: in the thread buffer sets the id to
 * BOXLVM_NO_ID, the version, the length and the checksum to 0 (the other
 * header bytes keep what the buffer held) and writes the buffer's first 32
 * bytes. Failure: "could not erase block at offset %i".
 */
QW_API int BoxLVMDataBlockErase(BoxLVMDataFile *file, BoxLVMDataFileThreadData *threadData, uint32_t handle);

/*
 * Reads the header of the block at `handle` and stores its size class in
 * *sizeClass. Fails with "BoxLVMDataBlockSizeGet: block read failed", with
 * code 4, class 3, "BoxLVMDataBlockSize: invalid block version %i", or
 * "BoxLVMDataBlockSizeGet: impossible size %i" when the class would take the
 * block past the end of its page.
 */
QW_API int BoxLVMDataBlockSizeGet(BoxLVMDataFile *file, uint32_t handle, uint32_t *sizeClass);

/*
 * Reads and verifies the block at `handle`, reading from the block to the
 * end of its page into the thread buffer.
 *  check, id, part, next  [in] with check set, the stored id, part index and
 *                         next handle must equal these.
 *  idOut ... dataOut      [out] each may be NULL. The header fields and the
 *                         stamp (version 1: the stored u64; version 0: data
 *                         bytes 16..19 as a u32, or 0 for fewer than 20 data
 *                         bytes) are set once the header is valid, even when
 *                         the checksum then fails. *dataOut points into the
 *                         thread buffer, valid until its next use.
 * Errors, in the order checked: "BoxLVMDataBlockReadDecode: block read
 * failed"; code 4, class 3: "BoxLVMDataBlockReadDecode: invalid block
 * version", "BoxLVMDataBlockReadDecode: impossible size %u or id %u" (an
 * empty or erased block, or data past the bytes read), "BoxLVMDataBlockReadDecode:
 * header data does not match"; code 3, class 3: "BoxLVMDataBlockReadDecode:
 * wrong checksum at handle %i"; code 5, class 3: "BoxLVMDataBlockReadDecode:
 * intermediate block in multiblock entry at handle %i does not use full size
 * (size %i)" when a block with a next handle holds other than 8172 bytes.
 */
QW_API int BoxLVMDataBlockReadDecode(BoxLVMDataFile *file, BoxLVMDataFileThreadData *threadData, uint32_t handle,
                                     int check, uint32_t id, uint32_t part, uint32_t next, uint32_t *idOut,
                                     uint32_t *partOut, uint32_t *nextOut, uint64_t *stamp, uint32_t *sizeClass,
                                     uint32_t *length, const uint8_t **dataOut);

QW_END_DECLS

#endif /* QWVM_BOXDATA_H */
