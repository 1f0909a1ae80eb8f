/*
 * qwvm/lvm.h: the logged arena.
 *
 * A LoggedVM pairs a block arena with a serial-numbered log (qwvm/qwlog.h).
 * The structures built on it change the arena in memory and describe each
 * change in a log record; the arena becomes durable only at a committing
 * checkpoint. After a crash the arena is back at its last commit, and
 * LoggedVMRecover replays the records written since, up to the newest
 * checkpoint record, through the structure's replay callback.
 *
 * On disk a logged arena is a directory with two sub-directories: `log` (the
 * log) and `vm` (the arena, opened memory-mapped). The arena keeps the
 * arena serial, the serial of the last log record whose effect the
 * committed arena contains, as the one 8-byte element of the array
 * "lvm/serial".
 *
 * Conventions are those of qwvm/qwlib.h: 1 / non-NULL on success, 0 / NULL
 * on failure with the error chain set (errors raised here carry the source
 * position src/vm/lvm/...). Progress messages are of level 2 and name the
 * arena directory (dir/vm).
 *
 * Threads. Writers bracket their changes with LoggedVMWriterAcquire/Release,
 * readers with LoggedVMReaderAcquire/Release; a checkpoint waits for the
 * writers and readers that started before it. Lock order: presync mutex,
 * checkpoint mutex, writer lock (a committing checkpoint holds it
 * exclusively, writers shared), log mutex (LoggedVMAcquire); each waiter's
 * own mutex is innermost.
 *
 * Crash stops (QWEXIT with QWVMEXIT equal to the arena directory dir/vm):
 * "lvmcheckpoint0" to "lvmcheckpoint6" and "lvmcheckpoint8" to
 * "lvmcheckpoint13" inside LoggedVMCheckpoint (there is no 7).
 */
#ifndef QWVM_LVM_H
#define QWVM_LVM_H

#include <stddef.h>
#include <stdint.h>

#include "qwvm/export.h"
#include "qwvm/qwlib.h"
#include "qwvm/qwlog.h"
#include "qwvm/vmaarray.h"
#include "qwvm/vmarena.h"

QW_BEGIN_DECLS

/* The serial meaning "none"; also the ticket of a writer refused because the
 * logged arena is in error. */
#define LVM_NO_SERIAL 0xFFFFFFFFFFFFFFFFull

/* Log record types of the logged arena itself. */
#define LVM_CHECKPOINT 13u      /* payload: the covered serial, u64 LE */
#define LVM_RECYCLE_SET_NEW 14u /* empty */
#define LVM_RECYCLE 15u         /* empty */

/* A callback: returns non-zero on success (an absent one succeeds). */
typedef int (*LoggedVMCallback)(void *callbackContext);

/*
 * The replay callback of recovery: applies every record with serial `first`
 * through `last` (inclusive, in order; `first` > `last` is an empty range)
 * read through `context` (LogRead, following each record's next serial). It
 * applies the records of its own structure and hands the others to
 * LoggedVMProcessFun. Returns non-zero on success.
 */
typedef int (*LoggedVMReplay)(LogReadContext *context, uint64_t first, uint64_t last, void *callbackContext);

/* Epochs of holders (writers or readers), for a checkpoint to wait on. */
typedef struct LoggedVMWaiter {
  uint32_t count[2]; /* [0] holders of the previous epoch, [1] of the current */
  uint64_t cur_tid;  /* the current epoch */
  QWMutex *mutex;    /* made on first use */
  QWCondition *condition;
  uint32_t error;
} LoggedVMWaiter;

typedef struct LoggedVM {
  char path[260]; /* after open: the arena directory dir/vm */
  QWLog *log;
  VMArena *arena;
  QWMutex *logMutex; /* made on first use */
  VMAArrayHandle serial;
  LoggedVMCallback syncExternal;
  LoggedVMCallback recycleSetNew;
  LoggedVMCallback recycle;
  LoggedVMReplay replay;
  void *callbackContext;
  QWMutex *checkpointMutex;
  QWMutex *presyncMutex;
  QWRWLock *writerLock;
  LoggedVMWaiter readerWaiter;
  LoggedVMWaiter writerWaiter;
  uint32_t presync;
} LoggedVM;

/*
 * Opens (with `create`, creating) the logged arena in directory `dir`.
 *  arenaParameter  the bucket count handed to VMArenaOpen.
 *  create, readOnly  not both (assertion "!(create && readOnly)").
 *  created     (out, may be NULL) 1 when this call created the arena serial
 *              (then set to the log's last serial), else 0.
 *  lockRegister  non-zero: VMArenaLockRegister(arena, 0).
 *  presync     non-zero: a committing checkpoint first forces the arena's
 *              mapped pages to disk.
 *  syncExternal, recycleSetNew, recycle, replay, callbackContext: the
 *              structure's callbacks (each may be NULL) and their context.
 * Writable stores call LoggedVMRecover next. Returns the logged arena, to be
 * closed with LoggedVMClose and then released with UnAllocate; NULL with an
 * error: "could not create folder \"<dir>/<sub>\"", "could not open log",
 * "could not open arena", "could not initialize serial number array" (code
 * 1, class 12), or "the log ends before the arena serial" when the log
 * lost records that the arena contains.
 */
QW_API LoggedVM *LoggedVMOpen(const char *dir, uint32_t arenaParameter, int create, int readOnly, int *created,
                              int lockRegister, int presync, LoggedVMCallback syncExternal,
                              LoggedVMCallback recycleSetNew, LoggedVMCallback recycle, LoggedVMReplay replay,
                              void *callbackContext);

/*
 * Destroys the waiters, the writer lock and the mutexes, closes the arena
 * (uncommitted changes are dropped) and then the log. Returns 1; 0 at once
 * when the arena could not be closed (the log then stays open). The object
 * itself stays allocated: release it with UnAllocate.
 */
QW_API int LoggedVMClose(LoggedVM *lvm);

QW_API VMArena *LoggedVMArenaGet(LoggedVM *lvm);
QW_API QWLog *LoggedVMLogGet(LoggedVM *lvm);

/* Take and release the log mutex, around LogWrite calls that must be
 * ordered with a checkpoint's own records. */
QW_API void LoggedVMAcquire(LoggedVM *lvm);
QW_API void LoggedVMRelease(LoggedVM *lvm);

/* LogLastSerial of the log, under the log mutex. */
QW_API uint64_t LoggedVMSerialGet(LoggedVM *lvm);

/* The arena serial stored in the arena's NEWGEN (LVM_NO_SERIAL with an error
 * when it cannot be read). */
QW_API uint64_t LoggedVMArenaSerialGet(LoggedVM *lvm);

/*
 * Starts a writer section: takes the writer lock shared and joins the
 * writers' epoch. Returns the ticket for LoggedVMWriterRelease, or
 * LVM_NO_SERIAL when the logged arena is in error: the caller must then
 * refuse its update and must not call LoggedVMWriterRelease.
 */
QW_API uint64_t LoggedVMWriterAcquire(LoggedVM *lvm);
QW_API void LoggedVMWriterRelease(LoggedVM *lvm, uint64_t ticket);

/* Puts the logged arena in error until it is closed: no writer can start and
 * every checkpoint fails. */
QW_API void LoggedVMWriterSetError(LoggedVM *lvm);

/* A reader section: joins the readers' epoch and pins the arena's newest
 * generation (VMArenaNewGenAcquire(arena, 1)). */
QW_API uint64_t LoggedVMReaderAcquire(LoggedVM *lvm);
QW_API void LoggedVMReaderRelease(LoggedVM *lvm, uint64_t ticket);

/*
 * Checkpoint: waits for the writers that started before it, calls
 * syncExternal, writes a checkpoint record naming `serial` (LVM_NO_SERIAL:
 * the log's last serial when it starts) and the recycling records, flushes
 * the log, and calls recycleSetNew and recycle (recycle only after the
 * readers that started before it left). With `commit` it also excludes
 * writers throughout, stores the log's last serial as the arena serial,
 * commits the arena and truncates the log before that serial. Returns 1, or
 * 0 with an error ("LVM in error, checkpoint aborted" with code 101, class
 * 12, when the writers are in error; "could not sync external data", "could
 * not write checkpoint to log", "could not flush log", "could not create
 * recycling context", "could not log creation of recycling context", "could
 * not log recycling", "could not recycle the free list", "could not commit
 * arena", "could not truncate log"). A failed checkpoint leaves the arena
 * uncommitted and the log untruncated.
 */
QW_API int LoggedVMCheckpoint(LoggedVM *lvm, int commit, uint64_t serial);

/*
 * Recovery (writable stores, right after open): replays the records after
 * the arena serial up to the serial named by the newest checkpoint record,
 * calls recycleSetNew and recycle, and when records followed the arena
 * serial, commits the arena with the log's last serial (no crash stop fires
 * meanwhile). A long replay reports progress (level 2) every few seconds.
 * Returns 1, or 0 with an error ("could not skip first log entry", "could
 * not read log while looking for checkpoint", "could not process log",
 * "could not prepare recycling context", "could not recycle freed blocks",
 * "could not commit arena", "could not delete log reader context").
 */
QW_API int LoggedVMRecover(LoggedVM *lvm);

/*
 * Replays one record of the logged arena's own inside a replay callback:
 * types 1, 2 and 13 do nothing; 14 calls recycleSetNew ("failure in
 * recycleSetNew callback"), 15 calls recycle ("failure in recycle
 * callback"). Any other type returns 0 without an error; the caller reports
 * it.
 */
QW_API int LoggedVMProcessFun(LoggedVM *lvm, uint64_t serial, uint32_t type);

/* Prints one record of types 13 to 15 to standard output ("INVALID" for any
 * other type). */
QW_API void LoggedVMOpDebug(uint32_t type, const void *payload, size_t size);

/* Dumps the log in directory `logPath` to standard output, one line per
 * record ("file = <n>, offset = <o>: <record>"). A log that cannot be opened
 * gives the level-3 message "Could not open log in <path>". */
QW_API void LogDebug(const char *logPath);

/* LogDebug that also prints each record's payload size (" [<n> bytes]"
 * before the record) and reports the outcome: 1 when every record from the
 * first to the last was read, 0 with the error chain set otherwise. */
QW_API int LogDebug_(const char *logPath, int withSizes);

QW_END_DECLS

#endif /* QWVM_LVM_H */
