/*
 * qwvm/qwfile.h: files, directories, buffered channels and memory mapping.
 *
 * Every file, directory and mapping operation of the library goes through
 * these functions; nothing else in qwvm touches the disk. (That single door
 * is what lets the test suite fail the n-th operation or simulate a power
 * loss.)
 *
 * Conventions are those of qwvm/qwlib.h: 1 / non-NULL on success, 0 / NULL on
 * failure with the error chain set. System failures raise class
 * QW_ERROR_CLASS_SYSTEM errors whose code is the errno value (2: no such
 * file), with a message naming the path and the operation.
 */
#ifndef QWVM_QWFILE_H
#define QWVM_QWFILE_H

#include <stddef.h>
#include <stdint.h>

#include "qwvm/export.h"

QW_BEGIN_DECLS

/* ------------------------------------------------------------------------ */
/* Files                                                                     */
/* ------------------------------------------------------------------------ */

typedef struct QWFileObject *QWFILE;
#define QWFILE_INVALID ((QWFILE)0)

/* Open modes (bits). Mode 1 is read-only, 3 read-write. */
#define QWFILE_READ 1u
#define QWFILE_WRITE 2u
#define QWFILE_CREATE 4u     /* create when missing (permission 0644) */
#define QWFILE_TRUNCATE 8u   /* cut to 0 bytes at open */
#define QWFILE_EXCLUSIVE 16u /* with QWFILE_CREATE: fail when it exists (code 17) */
#define QWFILE_READAHEAD 32u /* sequential access hint */
#define QWFILE_PRIVATE 64u   /* with QWFILE_CREATE: permission 0600 */

/*
 * Opens `path` with the mode bits above and stores the handle in *file.
 * Errors: code 2 when the file does not exist and QWFILE_CREATE was not
 * given; otherwise the errno of open(2). *file is QWFILE_INVALID on failure.
 */
QW_API int QWFileOpen(QWFILE *file, const char *path, uint32_t mode);

/* Closes the handle (QWFILE_INVALID is accepted and does nothing). */
QW_API int QWFileClose(QWFILE file);

/*
 * Positional read of up to `size` bytes at `offset`. *bytesRead (may be NULL)
 * receives the count read; a read that stops at the end of the file is not an
 * error. Use QWFileReadExact when anything short of `size` is an error.
 */
QW_API int QWFileReadData(QWFILE file, uint64_t offset, void *buffer, size_t size, size_t *bytesRead);

/* Reads exactly `size` bytes at `offset`; a short read fails with code 5
 * (EIO) and "unexpected end of file \"<path>\" at offset <offset>". */
QW_API int QWFileReadExact(QWFILE file, uint64_t offset, void *buffer, size_t size);

/* Positional write of all `size` bytes at `offset`. */
QW_API int QWFileWriteData(QWFILE file, uint64_t offset, const void *buffer, size_t size);

/* Sets the file's size (grows with zeros or truncates). */
QW_API int QWFileSetSize(QWFILE file, uint64_t size);

/* Current size of the open file in bytes. */
QW_API int QWFileGetSize(QWFILE file, uint64_t *size);

/* Makes the file's written data durable (fdatasync). */
QW_API int QWFileSync(QWFILE file);

/* The operating-system descriptor (for messages), -1 for QWFILE_INVALID. */
QW_API int QWFileGetIntHandle(QWFILE file);

/* The path the file was opened with. */
QW_API const char *QWFileGetPath(QWFILE file);

/*
 * Access hint: a read size of 2^log2Pages system pages. 0 means random access
 * (no read-ahead); larger values ask for sequential read-ahead.
 */
QW_API int FileSetReadSize(QWFILE file, uint32_t log2Pages);

/* ------------------------------------------------------------------------ */
/* Paths and directories                                                     */
/* ------------------------------------------------------------------------ */

/* 1 when `path` exists (file or directory), 0 otherwise; sets no error. */
QW_API int FileExists(const char *path);

/* Size in bytes of the file at `path`. */
QW_API int FileSize(const char *path, uint64_t *size);

/* rename(2): replaces `to` atomically. Not durable until the directory is
 * synced (DirectorySync). */
QW_API int FileRename(const char *from, const char *to);

/* Removes a file. */
QW_API int FileRemove(const char *path);

/* Sets the size of the file at `path`. */
QW_API int FileTruncate(const char *path, uint64_t size);

/* Creates a directory and any missing parents; an existing one is fine. */
QW_API int DirectoryCreate(const char *path);

/* DirectoryCreate, made durable: each directory it creates is synced into
 * the directory that holds it, so that a power loss cannot take it back. */
QW_API int DirectoryCreateDurably(const char *path);

/* Removes an empty directory. */
QW_API int DirectoryRemove(const char *path);

/* Makes the directory's entries (creations, renames, removals) durable. */
QW_API int DirectorySync(const char *path);

/*
 * Calls visit(context, name) for each entry of the directory except "." and
 * "..", in no particular order. A non-zero return from visit stops the walk.
 */
typedef int (*QWDirectoryVisitor)(void *context, const char *name);
QW_API int DirectoryList(const char *path, QWDirectoryVisitor visit, void *context);

/* ------------------------------------------------------------------------ */
/* Buffered channels                                                         */
/* ------------------------------------------------------------------------ */

typedef struct QWChannel QWChannel;

/* A closed channel with a buffer of `bufferSize` bytes (0: 64 KiB). */
QW_API QWChannel *ChannelNew(size_t bufferSize);

/*
 * Opens `path` on a channel made by ChannelNew. Modes: "r" read, "w" write
 * (create or truncate), "a" append (create when missing). A channel reads or
 * writes, not both.
 */
QW_API int ChannelOpenFile(QWChannel *channel, const char *path, const char *mode);

/* Reads exactly `size` bytes; fewer before the end of the file fails with
 * code 5 and "unexpected end of file \"<path>\"". */
QW_API int ChannelReadBuf(QWChannel *channel, void *buffer, size_t size);

/* Reads up to `size` bytes; *bytesRead gets the count (0 at end of file). */
QW_API int ChannelReadSome(QWChannel *channel, void *buffer, size_t size, size_t *bytesRead);

/* The next byte (0..255), or -1 at the end of the file or on error (the
 * error chain tells which: at the end of the file no error is set). */
QW_API int ChannelReadByte_(QWChannel *channel);

QW_API int ChannelWriteBuf(QWChannel *channel, const void *buffer, size_t size);

/* Writes the buffer to the file. */
QW_API int ChannelFlush(QWChannel *channel);

/* Flushes and makes the file durable. */
QW_API int ChannelSync(QWChannel *channel);

/* Current position in the file (bytes read or written so far). */
QW_API uint64_t ChannelTell(QWChannel *channel);

/* The path of the open file ("" when closed). */
QW_API const char *ChannelPath(QWChannel *channel);

/*
 * Flushes (when writing), closes the file and frees the channel. Returns 0
 * with an error when the final flush or close failed; the channel is freed in
 * every case. NULL is accepted.
 */
QW_API int ChannelClose(QWChannel *channel);

/* ------------------------------------------------------------------------ */
/* Memory mapping                                                            */
/* ------------------------------------------------------------------------ */

#define QW_MAP_READ 1u
#define QW_MAP_WRITE 2u

/*
 * Maps `length` bytes of the file from `offset` (a multiple of PageSize())
 * shared, readable and, with QW_MAP_WRITE, writable. NULL with an error on
 * failure. The file must be at least offset + length bytes long.
 */
QW_API void *FileMapSegment(QWFILE file, uint64_t offset, uint64_t length, uint32_t access);

/* Unmaps a segment returned by FileMapSegment. */
QW_API int FileUnmap(void *address, uint64_t length);

/*
 * Grows or shrinks a segment that FileMapSegment(file, offset, oldLength,
 * access) returned to `newLength` bytes from the same offset, keeping the
 * pages already mapped (the address may change). Returns the segment's
 * address, or NULL with an error (the old segment then stays as it was).
 * The file must cover offset + newLength bytes.
 */
QW_API void *FileRemapSegment(QWFILE file, void *address, uint64_t offset, uint64_t oldLength, uint64_t newLength,
                              uint32_t access);

/* Makes the written bytes of a mapped segment durable (msync MS_SYNC). */
QW_API int FileMapSync(void *address, uint64_t length);

#define QW_ADVICE_NORMAL 0
#define QW_ADVICE_RANDOM 1
#define QW_ADVICE_SEQUENTIAL 2
#define QW_ADVICE_WILLNEED 3
#define QW_ADVICE_DONTNEED 4

/* madvise(2) over a mapped range (rounded out to whole pages). */
QW_API int MemoryAdvise(void *address, uint64_t length, int advice);

/* Touches one byte per page so that the range is resident. */
QW_API void MemoryLoad(const void *address, uint64_t length);

/* The system page size in bytes. */
QW_API uint32_t PageSize(void);

QW_END_DECLS

#endif /* QWVM_QWFILE_H */
