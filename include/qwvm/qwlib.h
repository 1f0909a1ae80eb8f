/*
 * qwvm/qwlib.h: the base support library.
 *
 * Conventions (they hold for every qwvm header):
 *  - Results: functions return 1 or a non-null pointer on success, 0 or NULL
 *    on failure. A failing call leaves an error in the calling thread's error
 *    chain (below); the caller either handles it or adds its own message with
 *    QWErrorRethrow and fails in turn.
 *  - Ownership: whatever a ...New / ...Open / ...Init returns is owned by the
 *    caller until the matching ...Free / ...Close / ...Destroy.
 *  - The error chain: each thread has one error state made of a code, a class
 *    and a list of messages. QWErrorThrow starts a fresh error; QWErrorRethrow
 *    appends the caller's message. QWErrorMessage() reads the chain from the
 *    innermost failure outwards, one message per line.
 *  - Error classes: QW_ERROR_CLASS_GENERAL (0), QW_ERROR_CLASS_SYSTEM (2, the
 *    code is an errno value: 2 is "not found"), QW_ERROR_CLASS_DATA (3, stored
 *    data is malformed).
 *  - Nothing here throws a C++ exception across the boundary.
 */
#ifndef QWVM_QWLIB_H
#define QWVM_QWLIB_H

#include <stddef.h>
#include <stdint.h>

#include "qwvm/export.h"

QW_BEGIN_DECLS

/* ------------------------------------------------------------------------ */
/* Errors                                                                    */
/* ------------------------------------------------------------------------ */

#define QW_ERROR_CLASS_GENERAL 0
#define QW_ERROR_CLASS_SYSTEM 2
#define QW_ERROR_CLASS_DATA 3

/* Message levels. */
#define QW_LEVEL_DEBUG 1
#define QW_LEVEL_PROGRESS 2
#define QW_LEVEL_WARNING 3
#define QW_LEVEL_ERROR 4

/*
 * Sets the source position and level that the next QWErrorThrow_,
 * QWErrorRethrow_ or QWMessage_ of this thread reports. `flag` is reserved
 * (pass 0). The macros below call it for you.
 */
QW_API void QWSetMessageContext_(const char *file, int line, int level, int flag);

/*
 * Starts a fresh error in this thread: forgets any previous chain, records
 * `code` and `errorClass`, and makes the formatted text the first (innermost)
 * message. Always returns 0 so that `return QWErrorThrow(...)` reads well.
 */
QW_API int QWErrorThrow_(int code, int errorClass, const char *format, ...) QW_PRINTF(3, 4);

/*
 * Appends the formatted text to this thread's chain as the next outer
 * message; code and class stay those of the innermost failure. If no error
 * is set, it starts one with code 0, class QW_ERROR_CLASS_GENERAL.
 * Returns 0.
 */
QW_API int QWErrorRethrow_(const char *format, ...) QW_PRINTF(1, 2);

/* Starts a system error from `errnoValue` (class QW_ERROR_CLASS_SYSTEM): the
 * message is the formatted text followed by ": " and strerror(errnoValue). */
QW_API int QWErrorThrowErrno_(int errnoValue, const char *format, ...) QW_PRINTF(2, 3);

/* The code and class of the current error (0 and 0 when none is set). */
QW_API int QWErrorCode(void);
QW_API int QWErrorClass(void);

/* Non-zero when this thread has an error set. */
QW_API int QWErrorIsSet(void);

/*
 * The whole chain, innermost message first, one per line, without a final
 * newline; "" when no error is set. The pointer stays valid until the next
 * error call of this thread.
 */
QW_API const char *QWErrorMessage(void);

/* Forgets the current error. */
QW_API void QWErrorClear(void);

/*
 * QWErrorSave pushes the current error on a per-thread stack and clears it;
 * QWErrorRestore pops it back, dropping whatever the clean-up in between
 * raised. Calls nest. Use them around clean-up after a failure so that the
 * first error is the one the caller sees.
 */
QW_API void QWErrorSave(void);
QW_API void QWErrorRestore(void);

#define QWErrorThrow(code, errorClass, ...) \
  (QWSetMessageContext_(__FILE__, __LINE__, QW_LEVEL_ERROR, 0), QWErrorThrow_((code), (errorClass), __VA_ARGS__))
#define QWErrorRethrow(...) \
  (QWSetMessageContext_(__FILE__, __LINE__, QW_LEVEL_ERROR, 0), QWErrorRethrow_(__VA_ARGS__))
#define QWErrorThrowErrno(errnoValue, ...) \
  (QWSetMessageContext_(__FILE__, __LINE__, QW_LEVEL_ERROR, 0), QWErrorThrowErrno_((errnoValue), __VA_ARGS__))

/* ------------------------------------------------------------------------ */
/* Messages                                                                  */
/* ------------------------------------------------------------------------ */

/*
 * Emits the formatted text at the level of the current message context
 * (see QWSetMessageContext_; QWMessage sets it). The text goes to the message
 * handler.
 */
QW_API void QWMessage_(const char *format, ...) QW_PRINTF(1, 2);

#define QWMessage(level, ...) \
  (QWSetMessageContext_(__FILE__, __LINE__, (level), 0), QWMessage_(__VA_ARGS__))

/*
 * A message handler receives every message with its level and source
 * position. The text has no trailing newline unless the format had one.
 */
typedef void (*QWMessageHandler)(void *context, int level, const char *file, int line, const char *text);

/*
 * Replaces the process-wide handler; NULL restores the default, which writes
 * messages of level >= the threshold (initially QW_LEVEL_PROGRESS) to stderr.
 * Returns the previous handler and, through previousContext (may be NULL),
 * its context.
 */
QW_API QWMessageHandler QWSetMessageHandler(QWMessageHandler handler, void *context, void **previousContext);

/* The lowest level that the default handler prints. */
QW_API void QWSetMessageThreshold(int level);

/* ------------------------------------------------------------------------ */
/* Assertions (always on)                                                    */
/* ------------------------------------------------------------------------ */

/*
 * Reports "assertion failed: <expression>, file <file>, line <line>" at level
 * 4 through the message handler and aborts the process.
 */
QW_API void QWAssertFail_(const char *expression, const char *file, int line) QW_NORETURN;

#define qwassert_(expression) \
  ((expression) ? (void)0 : QWAssertFail_(#expression, __FILE__, __LINE__))

/* ------------------------------------------------------------------------ */
/* Allocation with source position                                           */
/* ------------------------------------------------------------------------ */

/*
 * Allocate_ returns zero-filled memory of `size` bytes (NULL with an error
 * "out of memory allocating %zu bytes at %s:%d" when none can be had).
 * Reallocate_ grows or shrinks; new bytes are not zeroed. UnAllocate_(NULL)
 * does nothing. Strdup_ copies a NUL-terminated string.
 */
QW_API void *Allocate_(size_t size, const char *file, int line);
QW_API void *Reallocate_(void *memory, size_t size, const char *file, int line);
QW_API void UnAllocate_(void *memory);
QW_API char *Strdup_(const char *text, const char *file, int line);

#define Allocate(size) Allocate_((size), __FILE__, __LINE__)
#define Reallocate(memory, size) Reallocate_((memory), (size), __FILE__, __LINE__)
#define UnAllocate(memory) UnAllocate_(memory)
#define Strdup(text) Strdup_((text), __FILE__, __LINE__)

/* ------------------------------------------------------------------------ */
/* Growable arrays                                                           */
/* ------------------------------------------------------------------------ */

/*
 * A growable array is a plain element pointer (`uint32_t *ids`) whose length,
 * capacity and element size live in a header just before the first element,
 * so that `ids[i]` indexes it directly. A NULL pointer is an array that was
 * never initialised; ArrayLength(NULL) is 0.
 *
 * ArrayInit_(&a, elementSize, capacity): makes an empty array.
 * ArrayGrow_(&a, count): adds `count` zero-filled elements at the end,
 *   growing the capacity geometrically (by half) when needed.
 * ArrayGrowExact_(&a, count): the same, but grows the capacity to exactly the
 *   new length (for arrays whose final size is known).
 * ArrayEnsureCapacity_(&a, capacity): reserves room without changing length.
 * ArrayLengthSet_(&a, length): truncates, or grows with zero-filled elements.
 * ArrayFree_(&a): frees and sets a to NULL.
 * All return 1, or 0 with an error when memory runs out (the array is then
 * unchanged).
 */
QW_API int ArrayInit_(void *arrayPointer, size_t elementSize, size_t capacity, const char *file, int line);
QW_API int ArrayGrow_(void *arrayPointer, size_t count, const char *file, int line);
QW_API int ArrayGrowExact_(void *arrayPointer, size_t count, const char *file, int line);
QW_API int ArrayEnsureCapacity_(void *arrayPointer, size_t capacity, const char *file, int line);
QW_API int ArrayLengthSet_(void *arrayPointer, size_t length, const char *file, int line);
QW_API void ArrayFree_(void *arrayPointer);
QW_API size_t ArrayLength_(const void *array);
QW_API size_t ArrayCapacity_(const void *array);
QW_API size_t ArrayElementSize_(const void *array);

#define ArrayInit(a, elementSize, capacity) ArrayInit_(&(a), (elementSize), (capacity), __FILE__, __LINE__)
#define ArrayGrow(a, count) ArrayGrow_(&(a), (count), __FILE__, __LINE__)
#define ArrayGrowExact(a, count) ArrayGrowExact_(&(a), (count), __FILE__, __LINE__)
#define ArrayEnsureCapacity(a, capacity) ArrayEnsureCapacity_(&(a), (capacity), __FILE__, __LINE__)
#define ArrayLengthSet(a, length) ArrayLengthSet_(&(a), (length), __FILE__, __LINE__)
#define ArrayFree(a) ArrayFree_(&(a))
#define ArrayLength(a) ArrayLength_(a)
#define ArrayCapacity(a) ArrayCapacity_(a)
#define ArrayNth(a, i) ((a)[i])
#define ArrayLast(a) ((a)[ArrayLength_(a) - 1])
/* Appends one value; evaluates to 1 or 0 like ArrayGrow. */
#define ArrayAppend(a, value) (ArrayGrow(a, 1) ? ((a)[ArrayLength_(a) - 1] = (value), 1) : 0)

/* ------------------------------------------------------------------------ */
/* Threads, mutexes, reader-writer locks, conditions                         */
/* ------------------------------------------------------------------------ */

typedef struct QWThread QWThread;
typedef struct QWMutex QWMutex;
typedef struct QWRWLock QWRWLock;
typedef struct QWCondition QWCondition;

typedef void *(*QWThreadFunction)(void *argument);

/* Starts a thread running function(argument); NULL with an error on failure. */
QW_API QWThread *ThreadCreate_(QWThreadFunction function, void *argument, const char *file, int line);
#define ThreadCreate(function, argument) ThreadCreate_((function), (argument), __FILE__, __LINE__)
/* Waits for the thread, stores its result in *result (may be NULL) and frees
 * the handle. Returns 1, or 0 with an error. */
QW_API int ThreadJoin(QWThread *thread, void **result);

/* A non-recursive mutex. MutexInit returns NULL with an error on failure. */
QW_API QWMutex *MutexInit(void);
/* Lazily creates the mutex in *slot if it is still NULL; safe to race. */
QW_API QWMutex *MutexInit_(QWMutex **slot);
QW_API void MutexAcquire(QWMutex *mutex);
QW_API int MutexTryAcquire(QWMutex *mutex);
QW_API void MutexRelease(QWMutex *mutex);
QW_API void MutexDestroy(QWMutex *mutex);

/* A reader-writer lock that prefers writers (a waiting writer holds back new
 * readers, so a flush cannot starve). RWLockRelease_ releases either mode. */
QW_API QWRWLock *RWLockInit(void);
QW_API void RWLockAcquireRead_(QWRWLock *lock);
QW_API void RWLockAcquireWrite_(QWRWLock *lock);
QW_API void RWLockRelease_(QWRWLock *lock);
QW_API void RWLockDestroy(QWRWLock *lock);

/* Condition variables used with a QWMutex. ConditionTimedWait returns 1 when
 * signalled (or woken spuriously) and 0 when `milliseconds` passed. */
QW_API QWCondition *ConditionInit(void);
QW_API void ConditionWait(QWCondition *condition, QWMutex *mutex);
QW_API int ConditionTimedWait(QWCondition *condition, QWMutex *mutex, uint32_t milliseconds);
QW_API void ConditionSignal(QWCondition *condition);
QW_API void ConditionBroadcast(QWCondition *condition);
QW_API void ConditionDestroy(QWCondition *condition);

/* ------------------------------------------------------------------------ */
/* Sorting, environment, time                                                */
/* ------------------------------------------------------------------------ */

/* Sorts `count` elements of `size` bytes with compare(a, b, context). Not
 * stable. */
typedef int (*QWCompareFunction)(const void *a, const void *b, void *context);
QW_API void QSort(void *base, size_t count, size_t size, QWCompareFunction compare, void *context);

/* Sets (value non-NULL) or removes (value NULL) an environment variable.
 * Returns 1, or 0 with an error. */
QW_API int QWSetEnvironmentVariable(const char *name, const char *value);

/* Wall-clock milliseconds since 1970-01-01 UTC. */
QW_API uint64_t GetCurrentTimeMilliseconds(void);

/* ------------------------------------------------------------------------ */
/* Test hooks (read from the environment on every call)                     */
/* ------------------------------------------------------------------------ */

/*
 * Named crash stop. When the environment variable QWEXIT equals `stopName`
 * and QWVMEXIT equals `directory` exactly, prints
 * "########## SIMULATED CRASH vm = <QWVMEXIT>, stop = <QWEXIT>\n" to standard
 * output and ends the process with exit(1), with no clean-up of its own.
 * Otherwise does nothing.
 */
QW_API void QWCrashPoint(const char *stopName, const char *directory);

/*
 * Forced error. When QWRETURNFALSE equals `functionName`, reads
 * n = atoi(QWRETURNFALSEFUZZ) (unset or 0 means 1) and, if rand() % n == 0,
 * raises a fresh error (code, errorClass) "forced error in <functionName>"
 * and returns 1: the caller must then fail. Returns 0 otherwise.
 */
QW_API int QWForcedError(const char *functionName, int code, int errorClass);

QW_END_DECLS

#endif /* QWVM_QWLIB_H */
