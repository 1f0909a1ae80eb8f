/*
 * qwvm/qwlog.h: serial-numbered logs, status files and the replication log.
 *
 * Conventions are those of qwvm/qwlib.h: 1 / non-NULL on success, 0 / NULL on
 * failure with the calling thread's error chain set; whatever a ...New /
 * ...Open / ...Read returns is the caller's until the matching ...Free /
 * ...Close. Malformed files raise errors of class QW_ERROR_CLASS_DATA with
 * code EBADMSG (74) and a message naming the file; I/O failures keep the
 * system error of qwvm/qwfile.h. All file access goes through qwvm/qwfile.h.
 */
#ifndef QWVM_QWLOG_H
#define QWVM_QWLOG_H

#include <stddef.h>
#include <stdint.h>

#include "qwvm/export.h"

QW_BEGIN_DECLS

/* ------------------------------------------------------------------------ */
/* Status files                                                              */
/* ------------------------------------------------------------------------ */

/*
 * A directory's status file `<dir>/status` keeps numbered unsigned 64-bit
 * parameters (number 99: an arena commit is in progress; 98: a box store's
 * bucket count). A parameter that was never set reads as 0.
 *
 * File format (text, so that `cat status` shows it):
 *
 *   qwvm status 1
 *   98 4
 *   99 0
 *   end 2 3b1e9f2a
 *
 * The first line names the format and its version. Then one line per set
 * parameter, "<number> <value>" in decimal, numbers strictly ascending. The
 * last line is "end <count> <crc>": the number of parameter lines and the
 * CRC-32C (8 lower-case hexadecimal digits) of every byte before the "end"
 * line. Every line ends with "\n" and nothing follows the last one. Any
 * deviation (bad syntax, numbers out of range or out of order, wrong count
 * or checksum, missing end line) makes the file malformed.
 *
 * Writing is atomic: the new content goes to `<dir>/status.new`, which is
 * synced and closed, renamed over `<dir>/status`, and the directory is
 * synced. A crash at any moment leaves either the old or the new file. When
 * `status` is missing but a valid `status.new` exists (a first write whose
 * rename was lost), the reader uses `status.new`; a leftover `status.new`
 * beside a `status` is stale and ignored (the next write replaces it).
 * Writers of one process are serialised; a directory's status is written by
 * one process at a time.
 */
typedef struct QWStatus QWStatus;

/* A status with no parameter set. NULL with an error when memory runs out. */
QW_API QWStatus *StatusNew(void);

/* Frees a status (NULL is accepted). */
QW_API void StatusFree(QWStatus *status);

/*
 * Reads the status file of `dir`.
 * Returns the status, or NULL with an error:
 *  - code 2 (class QW_ERROR_CLASS_SYSTEM) "no status file in \"<dir>\"" when
 *    neither `status` nor a valid `status.new` exists;
 *  - class QW_ERROR_CLASS_DATA, code EBADMSG, "malformed status file
 *    \"<path>\": <reason>" when the file is garbled;
 *  - the I/O error otherwise.
 */
QW_API QWStatus *StatusRead(const char *dir);

/* StatusRead_ flag: a directory without a status file reads as an empty
 * status instead of failing with code 2. */
#define STATUS_READ_MISSING_OK 1u

/* StatusRead with flags (STATUS_READ_...). */
QW_API QWStatus *StatusRead_(const char *dir, uint32_t flags);

/*
 * Writes `status` as the status file of `dir` (which must exist), atomically
 * as described above. Returns 1, or 0 with an error; the previous status
 * file is then intact.
 */
QW_API int StatusWrite(const QWStatus *status, const char *dir);

/* The value of parameter `number`, 0 when it is not set. */
QW_API uint64_t StatusGetParameter(const QWStatus *status, uint32_t number);

/* Sets parameter `number` to `value` (0 is stored as a set value). Returns 1,
 * or 0 with an error when memory runs out. */
QW_API int StatusSetParameter(QWStatus *status, uint32_t number, uint64_t value);

/*
 * Calls visit(context, number, value) for each set parameter in ascending
 * number order; a zero return stops the walk. Returns 1 when the walk ended,
 * 0 when visit stopped it.
 */
typedef int (*QWStatusVisitor)(void *context, uint32_t number, uint64_t value);
QW_API int StatusEnumerate(const QWStatus *status, QWStatusVisitor visit, void *context);

/* ------------------------------------------------------------------------ */
/* Replication log                                                           */
/* ------------------------------------------------------------------------ */

/*
 * The replication log tells a replication agent which files a store created,
 * changed or removed, so that it can copy them elsewhere. A store writes one
 * record per event; a host process supplies the log (its own implementation
 * through ReplicationLogNew, or the file-backed one below), and a NULL log
 * disables logging in the stores.
 *
 * Record types written by the stores:
 *   REPLICATION_FILE_CREATED (8)  path = the file; no list
 *   REPLICATION_FILE_CHANGED (9)  path = the file; list = raw block ids
 *                                 (units of the log's block size) that
 *                                 changed, or no list when the file grew or
 *                                 shrank as a whole
 *   REPLICATION_FILE_REMOVED (10) path = the file; no list
 * `a` and `b` are reserved by the stores (they pass 0) and carried as given.
 * A list has at most REPLICATION_LOG_MAX_LIST entries; longer lists are sent
 * as several records.
 *
 * Calls into an implementation are serialised by the log's mutex, so an
 * implementation need not be thread-safe itself.
 */
#define REPLICATION_FILE_CREATED 8u
#define REPLICATION_FILE_CHANGED 9u
#define REPLICATION_FILE_REMOVED 10u
#define REPLICATION_LOG_MAX_LIST 1024u
#define REPLICATION_LOG_MAX_PATH 4096u

typedef struct ReplicationLog ReplicationLog;

/* An implementation. `self` is the implementation's own state. */
typedef struct ReplicationLogOps {
  /* Records one event; returns 1, or 0 with an error. */
  int (*write)(void *self, uint32_t type, uint32_t a, uint32_t b, const char *path, const uint64_t *list,
               uint32_t count);
  /* The block size that list entries count in. */
  uint32_t (*getBlockSize)(void *self);
  /* Releases `self` at ReplicationLogClose; returns 1, or 0 with an error.
   * May be NULL when there is nothing to release. */
  int (*close)(void *self);
} ReplicationLogOps;

/*
 * Wraps an implementation. `ops` is copied; `self` is passed to each call.
 * Returns the log, or NULL with an error (code 22 when write or getBlockSize
 * is missing; out of memory).
 */
QW_API ReplicationLog *ReplicationLogNew(const ReplicationLogOps *ops, void *self);

/*
 * Records one event.
 *  type   REPLICATION_FILE_... (other types are carried as given).
 *  a, b   reserved; carried as given.
 *  path   the file concerned; NULL is recorded as "". At most
 *         REPLICATION_LOG_MAX_PATH bytes.
 *  list   `count` 64-bit ids (may be NULL when count is 0); count at most
 *         REPLICATION_LOG_MAX_LIST.
 * Returns 1, or 0 with an error (code 22 for a list or path over the limits;
 * the implementation's error otherwise).
 */
QW_API int ReplicationLogWrite(ReplicationLog *log, uint32_t type, uint32_t a, uint32_t b, const char *path,
                               const uint64_t *list, uint32_t count);

/*
 * Makes every record written so far durable. A store's commit calls it
 * before it returns, so that the records of a committed generation survive a
 * power loss. The file-backed log syncs its file; a host's implementation is
 * taken to keep its records durable itself (nothing is done). Returns 1, or
 * 0 with an error.
 */
QW_API int ReplicationLogSync(ReplicationLog *log);

/* The block size of the log (the unit of the ids in type 9 lists). */
QW_API uint32_t ReplicationLogGetBlockSize(ReplicationLog *log);

/* Releases the implementation (ops->close) and the log. NULL is accepted.
 * Returns 1, or 0 with the implementation's error (the log is freed
 * anyway). */
QW_API int ReplicationLogClose(ReplicationLog *log);

/*
 * The file-backed replication log.
 *
 * File format (integers little-endian):
 *   header, 16 bytes: "QWREPLOG" (8 bytes), version 1 (4 bytes), block size
 *     (4 bytes)
 *   records, each:
 *     crc     4 bytes  CRC-32C of the next 4 + length bytes
 *     length  4 bytes  size of the body
 *     body:   type (4), a (4), b (4), path length p (4), count n (4),
 *             path (p bytes, no NUL), n ids of 8 bytes
 *   so length = 20 + p + 8n, with p <= REPLICATION_LOG_MAX_PATH and
 *   n <= REPLICATION_LOG_MAX_LIST.
 *
 * Each record is handed to the operating system as it is written (it
 * survives a crash of the process; a power loss can cut the end of the
 * file). A record cut short or garbled at the end of the file is a torn
 * tail: ReplicationLogFileOpen cuts it off (with a warning) before appending,
 * and ReplicationLogFileRead reports it.
 */

/*
 * Opens (creating when missing) the log file at `path` for appending.
 * `blockSize` must match the block size of an existing file.
 * Returns the log, or NULL with an error: code 22 for a block size of 0;
 * class QW_ERROR_CLASS_DATA, code EBADMSG for an existing file with another
 * header or block size; I/O errors.
 */
QW_API ReplicationLog *ReplicationLogFileOpen(const char *path, uint32_t blockSize);

/*
 * Reads the log file at `path` from the start and calls
 * visit(context, type, a, b, path, list, count) for each valid record, in
 * order (`path` and `list` are valid during the call only; `list` is NULL
 * when count is 0). A zero return from visit stops the walk.
 * Returns 1 when every record was read, 0 when visit stopped the walk or with
 * an error: class QW_ERROR_CLASS_DATA, code EBADMSG, "replication log
 * \"<path>\": torn record at offset <offset>" for a record cut short or
 * failing its checksum or its layout (the records before it were visited),
 * or a bad header; I/O errors.
 */
typedef int (*ReplicationLogVisitor)(void *context, uint32_t type, uint32_t a, uint32_t b, const char *path,
                                     const uint64_t *list, uint32_t count);
QW_API int ReplicationLogFileRead(const char *path, ReplicationLogVisitor visit, void *context);

/* ReplicationLogFileRead that also stores the file's block size in
 * *blockSize (may be NULL) once the header is read. */
QW_API int ReplicationLogFileRead_(const char *path, uint32_t *blockSize, ReplicationLogVisitor visit,
                                   void *context);

/* ------------------------------------------------------------------------ */
/* Serial-numbered logs                                                      */
/* ------------------------------------------------------------------------ */

/*
 * A log is a directory of numbered files holding typed records. Every record
 * has a serial: the file number in the high 32 bits, the byte offset of the
 * record in that file in the low 32 bits. Serials grow with every record
 * written; a reader walks them forwards (each record names the serial that
 * follows it) and backwards (each record names its predecessor).
 *
 * Files. `<dir>/NNNNNNNN.qwlog`, NNNNNNNN the file number in eight decimal
 * digits, numbered from 1 upwards without gaps. Each file starts with a file
 * header record (type LOG_FILE_HEADER); every file but the newest ends with a
 * file trailer record (type LOG_FILE_TRAILER). A record that would take the
 * newest file past the size limit (LogOpen_, default 64 MiB) closes it with a
 * trailer and goes to a new file (a record larger than the limit gets a file
 * of its own).
 *
 * Record layout (integers little-endian, records packed one after another):
 *   offset 0   crc       4  CRC-32C of: the record's serial (8 bytes), bytes
 *                            4..23 of this header, the payload
 *   offset 4   size      4  payload bytes (at most LOG_MAX_RECORD_SIZE)
 *   offset 8   type      4  the record type, never 0
 *   offset 12  previous  8  serial of the record before this one in the log
 *                            (LOG_NO_SERIAL for the first record of a new log)
 *   offset 20  synced    4  how many bytes of this file were durable (synced)
 *                            when the record was written
 *   offset 24  payload   size bytes
 * Seeding the checksum with the serial makes a record valid only at its own
 * place: bytes copied or left over from elsewhere do not pass. The `synced`
 * mark tells damage to durable records from a torn tail (below).
 * File header payload, 16 bytes: "QWVMLOG\0", format version 1 (4 bytes),
 * the file number (4 bytes). File trailer payload: empty.
 *
 * Durability and damage. LogWrite only buffers; LogFlush writes and syncs
 * (fdatasync) everything written so far. A crash or power loss can leave the
 * newest file ending in a torn tail: a record cut short, failing its
 * checksum, or followed by garbage. A writable LogOpen cuts such a tail away
 * (message of level 3 naming file, offset and bytes dropped) and syncs what
 * remains; a read-only open leaves it and ends the log before it. Damage at
 * offset D of the newest file starts a torn tail unless some valid record
 * after it carries a `synced` mark above D (then D was durable and the
 * damage is real); the valid records after a torn start were never synced
 * and go with the tail. Any other bad record, a missing header or trailer in an older file, or a
 * missing file in the numbering is an error (class QW_ERROR_CLASS_DATA, code
 * EBADMSG) naming the file and the serial, never skipped.
 *
 * Threads. A log may be used from several threads: LogWrite, LogFlush and
 * LogTruncate are serialised by the log's mutex, and concurrent LogFlush
 * calls share one sync (a flush whose records a running sync covers waits
 * for it; the next sync takes every record buffered meanwhile). A read
 * context belongs to one thread at a time. One process writes a log
 * directory at a time; read-only opens beside it see the log as it was when
 * they opened it.
 */
typedef struct QWLog QWLog;
typedef struct LogReadContext LogReadContext;

#define LOG_NO_SERIAL 0xFFFFFFFFFFFFFFFFull
#define LOG_FILE_HEADER 1u
#define LOG_FILE_TRAILER 2u
#define LOG_DEFAULT_FILE_SIZE (64ull << 20)
#define LOG_MIN_FILE_SIZE 4096ull
#define LOG_MAX_FILE_SIZE (1ull << 30)
#define LOG_MAX_RECORD_SIZE (256u << 20)
/* LogWrite flag: flush (LogFlush) after writing. */
#define LOG_WRITE_FLUSH 1u

#define LOG_SERIAL_FILE(serial) ((uint32_t)((serial) >> 32))
#define LOG_SERIAL_OFFSET(serial) ((uint32_t)(serial))

/*
 * Opens the log in directory `path` (which must exist).
 *  readOnly       non-zero: no write, flush or truncate; a torn tail is left
 *                 in place and the log ends before it.
 *  fileSizeLimit  (LogOpen_) the size past which a new file is started,
 *                 between LOG_MIN_FILE_SIZE and LOG_MAX_FILE_SIZE; 0 means
 *                 LOG_DEFAULT_FILE_SIZE. Only writers use it.
 * A writable open of a directory without log files creates file 1 holding a
 * header, so that every log has at least one record and LogLastSerial always
 * names one. Returns the log, or NULL with an error: code 2 for a missing
 * directory, or for a read-only open of a directory without log files;
 * code 22 for a size limit out of range; class QW_ERROR_CLASS_DATA for a
 * damaged log (see above); I/O errors. Messages name the directory.
 */
QW_API QWLog *LogOpen(const char *path, int readOnly);
QW_API QWLog *LogOpen_(const char *path, int readOnly, uint64_t fileSizeLimit);

/*
 * Makes everything written durable (as LogFlush) and closes the log. NULL is
 * accepted. Returns 1, or 0 with an error when the last flush failed (the
 * log is closed in every case; records not flushed before may be lost).
 */
QW_API int LogClose(QWLog *log);

/*
 * Appends a record.
 *  type     1 or above (types 1 and 2 are the log's own; callers use 3 and
 *           above).
 *  payload  `size` bytes (may be NULL when size is 0), at most
 *           LOG_MAX_RECORD_SIZE.
 *  flags    0, or LOG_WRITE_FLUSH to flush afterwards.
 * The record's serial is LogLastSerial right after the call (read it under
 * the caller's own lock when several threads write). Returns 1, or 0 with
 * an error: code 22 for type 0 or a payload too large; a read-only log;
 * I/O errors. After an I/O error the log is in error: every later write and
 * flush fails until it is closed and opened again, which cuts the partial
 * record the failure may have left.
 */
QW_API int LogWrite(QWLog *log, uint32_t type, const void *payload, uint32_t size, uint32_t flags);

/*
 * Writes every record buffered so far to its file and syncs it (fdatasync),
 * or waits for a sync already running that covers them. Returns 1 once they
 * are durable, or 0 with an error (the log is then in error, see LogWrite).
 */
QW_API int LogFlush(QWLog *log);

/* Serial of the last record of the log (buffered ones included). */
QW_API uint64_t LogLastSerial(QWLog *log);

/*
 * Removes every file whose records all lie before `serial`; the file holding
 * `serial` and everything after it stay. Files go oldest first, each removal
 * made durable (directory sync) before the next, so that a crash at any
 * point leaves a log without gaps. Returns 1, or 0 with an error: code 22
 * when `serial` lies beyond the last record; a read-only log; I/O errors
 * (the files removed so far stay removed).
 */
QW_API int LogTruncate(QWLog *log, uint64_t serial);

/*
 * The range of files of the log: numbers of the first and the last file and
 * their total size in bytes (each may be NULL). Returns 1, or 0 with an I/O
 * error.
 */
QW_API int LogFiles(QWLog *log, uint32_t *firstFile, uint32_t *lastFile, uint64_t *bytes);

/*
 * A read context: its own file handles and read buffer over `log`, which
 * must stay open while the context lives. NULL with an error when memory
 * runs out.
 */
QW_API LogReadContext *LogReadContextNew(QWLog *log);

/* Frees a context (NULL is accepted). Returns 1, or 0 with an error when
 * closing one of its files failed (the context is freed anyway). */
QW_API int LogReadContextDelete(LogReadContext *context);

/*
 * Finds the first record whose serial is `from` or above and stores its
 * serial in *first (0 finds the first record of the log). Returns 1, or 0
 * with an error: code 2 when no record lies at or after `from`; a damaged
 * record on the way (class QW_ERROR_CLASS_DATA).
 */
QW_API int LogFirstSerial(LogReadContext *context, uint64_t from, uint64_t *first);

/*
 * Reads the record at `serial`.
 *  type      (out) the record type.
 *  buffer    (out, may be NULL) receives the payload, at most *size bytes.
 *  size      (in/out) in: the capacity of buffer (ignored when buffer is
 *            NULL); out: the payload size, which exceeds the capacity when
 *            only the first bytes were copied.
 *  next      (out, may be NULL) the serial after this record: the next
 *            record's, or where the next record will go after the last one.
 *  previous  (out, may be NULL) the serial of the record before it.
 * The whole record is checked (layout, checksum) whatever the buffer takes.
 * Returns 1, or 0 with an error: code 2 "no log record at serial ..." when
 * the serial lies beyond the end of the log or in a removed file; class
 * QW_ERROR_CLASS_DATA, code EBADMSG, "log file \"<path>\": no valid record
 * at serial <serial> (file <n>, offset <o>): <reason>" when the bytes there
 * are not a record; I/O errors.
 */
QW_API int LogRead(LogReadContext *context, uint64_t serial, uint32_t *type, void *buffer, uint32_t *size,
                   uint64_t *next, uint64_t *previous);

QW_END_DECLS

#endif /* QWVM_QWLOG_H */
