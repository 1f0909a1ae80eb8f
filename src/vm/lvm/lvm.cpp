// The logged arena: open and close, the arena serial, the log mutex, and the
// writer and reader tickets with their epoch waiters.
#include <cstdio>
#include <cstring>
#include <initializer_list>
#include <string>

#include "platform/qwutil/bytes.h"
#include "qwvm/qwfile.h"
#include "vm/lvm/lvm_internal.h"

namespace qw::lvm {

// ---- waiters ----

void LoggedVMWaiterInit(LoggedVMWaiter *waiter) {
  waiter->count[0] = waiter->count[1] = 0;
  waiter->cur_tid = 0;
  waiter->mutex = nullptr;
  waiter->condition = ConditionInit();
  waiter->error = 0;
}

void LoggedVMWaiterDestroy(LoggedVMWaiter *waiter) {
  if (waiter->mutex) MutexDestroy(waiter->mutex);
  if (waiter->condition) ConditionDestroy(waiter->condition);
  waiter->mutex = nullptr;
  waiter->condition = nullptr;
}

uint64_t LoggedVMWaiterEnter(LoggedVMWaiter *waiter) {
  Held held(MutexInit_(&waiter->mutex));
  if (waiter->error == 1) return LVM_NO_SERIAL;
  ++waiter->count[1];
  return waiter->cur_tid;
}

void LoggedVMWaiterLeave(LoggedVMWaiter *waiter, uint64_t tid) {
  Held held(MutexInit_(&waiter->mutex));
  if (tid == waiter->cur_tid) {
    qwassert_(waiter->count[1] != 0);
    --waiter->count[1];
    return;
  }
  qwassert_((tid + 1)== waiter->cur_tid);
  qwassert_(waiter->count[0] != 0);
  if (--waiter->count[0] == 0) ConditionSignal(waiter->condition);
}

void LoggedVMWaiterNext(LoggedVMWaiter *waiter) {
  Held held(MutexInit_(&waiter->mutex));
  qwassert_(waiter->count[0] == 0);
  waiter->count[0] = waiter->count[1];
  waiter->count[1] = 0;
  ++waiter->cur_tid;
}

int LoggedVMWaiterWait(LoggedVMWaiter *waiter) {
  QWMutex *mutex = MutexInit_(&waiter->mutex);
  Held held(mutex);
  while (waiter->count[0] != 0) ConditionWait(waiter->condition, mutex);
  return waiter->error == 0 ? 1 : 0;
}

void LoggedVMWaiterSetError(LoggedVMWaiter *waiter) {
  Held held(MutexInit_(&waiter->mutex));
  waiter->error = 1;
}

// ---- the arena serial ----

namespace {

// Element 0 of the serial array, for reading or writing; NULL with an
// error. An empty array is damage: tag the arena (unless read-only) and
// fail the assertion.
unsigned char *SerialElement(LoggedVM *lvm, int read) {
  VMArena *arena = lvm->arena;
  const uint32_t __arraylen__ = VMAArrayLength_(arena, lvm->serial.id[NEWGEN], NEWGEN);
  if (__arraylen__ == 0 && !VMArenaIsReadOnly(arena)) VMArenaTagCorrupted(arena);
  qwassert_(((0)) < __arraylen__);
  uint32_t end = 0;
  return static_cast<unsigned char *>(VMAArrayRange_(arena, lvm->serial.id[NEWGEN], 0, ARENA_MAX_BLOCK_SIZE, 0, &end,
                                                     NEWGEN, read, 8, 0));
}

}  // namespace

int ArenaSerialRead(LoggedVM *lvm, uint64_t *serial) {
  unsigned char *element = SerialElement(lvm, 1);
  if (element == nullptr) return QWErrorRethrow("could not read the arena serial in %s", lvm->path);
  *serial = LoadLE64(element);
  VMAArrayRelease_(lvm->arena, lvm->serial.id[NEWGEN], element, 1);
  return 1;
}

int ArenaSerialStore(LoggedVM *lvm, uint64_t serial) {
  const int read = VMArenaIsReadOnly(lvm->arena) ? 1 : 0;
  unsigned char *element = SerialElement(lvm, read);
  if (element == nullptr) return QWErrorRethrow("could not store the arena serial in %s", lvm->path);
  StoreLE64(element, serial);
  VMAArrayRelease_(lvm->arena, lvm->serial.id[NEWGEN], element, read);
  return 1;
}

namespace {

// Makes dir/sub (and dir) durably when creating, and composes it into the
// path buffer.
[[nodiscard]] int SubDirectory(LoggedVM *lvm, const char *dir, const char *sub, int create) {
  if (create && !DirectoryCreateDurably((std::string(dir) + "/" + sub).c_str()))
    return QWErrorRethrow("could not create folder \"%s/%s\"", dir, sub);
  if (std::snprintf(lvm->path, sizeof lvm->path, "%s/%s", dir, sub) >= int(sizeof lvm->path))
    return QWErrorThrow(36, QW_ERROR_CLASS_SYSTEM, "path \"%s/%s\" is too long", dir, sub);
  return 1;
}

[[nodiscard]] int OpenParts(LoggedVM *lvm, const char *dir, uint32_t arenaParameter, int create, int readOnly,
                            int *created, int lockRegister) {
  if (!SubDirectory(lvm, dir, "log", create)) return 0;
  lvm->log = LogOpen(lvm->path, readOnly);
  if (lvm->log == nullptr) return QWErrorRethrow("could not open log");
  if (!SubDirectory(lvm, dir, "vm", create)) return 0;
  const uint32_t flags = VM_FLAG_MAPPED | (readOnly ? VM_FLAG_READ_ONLY : 0u) | (create ? VM_FLAG_CREATE : 0u);
  lvm->arena = VMArenaOpen(lvm->path, flags, arenaParameter, STATUS_NO_SERIAL, STATUS_NO_SERIAL, nullptr, nullptr);
  if (lvm->arena == nullptr) return QWErrorRethrow("could not open arena");
  if (lockRegister) VMArenaLockRegister(lvm->arena, 0);
  if (!VMAArrayInitFromPath(&lvm->serial, lvm->arena, "lvm", "serial"))
    return QWErrorThrow(1, 12, "could not initialize serial number array");
  if (created) *created = 0;
  const uint64_t logLast = LogLastSerial(lvm->log);
  if (VMAArrayLength_(lvm->arena, lvm->serial.id[NEWGEN], NEWGEN) == 0) {
    unsigned char none[8];
    std::memset(none, 0xFF, sizeof none);
    if (!VMAArrayAppend_(lvm->arena, lvm->serial.id[NEWGEN], 0, ARENA_MAX_BLOCK_SIZE, none, 1, NEWGEN, 8) ||
        !ArenaSerialStore(lvm, logLast))
      return QWErrorThrow(1, 12, "could not initialize serial number array");
    if (created) *created = 1;
    return 1;
  }
  // A log that lost records the committed arena contains cannot be trusted
  // to say what follows them.
  uint64_t arenaSerial = 0;
  if (!ArenaSerialRead(lvm, &arenaSerial)) return 0;
  if (arenaSerial != LVM_NO_SERIAL && arenaSerial > logLast)
    return QWErrorThrow(qw::kMalformedCode, QW_ERROR_CLASS_DATA,
                        "the log ends before the arena serial in %s (log %llu, arena %llu)", lvm->path,
                        static_cast<unsigned long long>(logLast), static_cast<unsigned long long>(arenaSerial));
  return 1;
}

}  // namespace
}  // namespace qw::lvm

using namespace qw::lvm;

extern "C" {

QW_API LoggedVM *LoggedVMOpen(const char *dir, uint32_t arenaParameter, int create, int readOnly, int *created,
                              int lockRegister, int presync, LoggedVMCallback syncExternal,
                              LoggedVMCallback recycleSetNew, LoggedVMCallback recycle, LoggedVMReplay replay,
                              void *callbackContext) {
  qwassert_(!(create && readOnly));
  auto *lvm = static_cast<LoggedVM *>(Allocate(sizeof(LoggedVM)));
  if (lvm == nullptr) return nullptr;
  lvm->checkpointMutex = MutexInit();
  lvm->presyncMutex = MutexInit();
  lvm->writerLock = RWLockInit();
  LoggedVMWaiterInit(&lvm->readerWaiter);
  LoggedVMWaiterInit(&lvm->writerWaiter);
  lvm->syncExternal = syncExternal;
  lvm->recycleSetNew = recycleSetNew;
  lvm->recycle = recycle;
  lvm->replay = replay;
  lvm->callbackContext = callbackContext;
  lvm->presync = presync ? 1 : 0;
  lvm->serial.id[0] = lvm->serial.id[1] = VMA_NO_ARRAY;
  if (lvm->checkpointMutex && lvm->presyncMutex && lvm->writerLock && lvm->readerWaiter.condition &&
      lvm->writerWaiter.condition && OpenParts(lvm, dir, arenaParameter, create, readOnly, created, lockRegister))
    return lvm;
  QWErrorSave();
  LoggedVMClose(lvm);
  QWErrorRestore();
  UnAllocate(lvm);
  return nullptr;
}

QW_API int LoggedVMClose(LoggedVM *lvm) {
  LoggedVMWaiterDestroy(&lvm->readerWaiter);
  LoggedVMWaiterDestroy(&lvm->writerWaiter);
  if (lvm->writerLock) RWLockDestroy(lvm->writerLock);
  for (QWMutex **mutex : {&lvm->logMutex, &lvm->checkpointMutex, &lvm->presyncMutex}) {
    if (*mutex) MutexDestroy(*mutex);
    *mutex = nullptr;
  }
  lvm->writerLock = nullptr;
  if (lvm->arena && !VMArenaClose(lvm->arena)) return 0;
  lvm->arena = nullptr;
  const int closed = LogClose(lvm->log);
  lvm->log = nullptr;
  return closed;
}

QW_API VMArena *LoggedVMArenaGet(LoggedVM *lvm) { return lvm->arena; }
QW_API QWLog *LoggedVMLogGet(LoggedVM *lvm) { return lvm->log; }

QW_API void LoggedVMAcquire(LoggedVM *lvm) { MutexAcquire(MutexInit_(&lvm->logMutex)); }
QW_API void LoggedVMRelease(LoggedVM *lvm) { MutexRelease(MutexInit_(&lvm->logMutex)); }

QW_API uint64_t LoggedVMSerialGet(LoggedVM *lvm) {
  Held held(MutexInit_(&lvm->logMutex));
  return LogLastSerial(lvm->log);
}

QW_API uint64_t LoggedVMArenaSerialGet(LoggedVM *lvm) {
  uint64_t serial = LVM_NO_SERIAL;
  return ArenaSerialRead(lvm, &serial) ? serial : LVM_NO_SERIAL;
}

QW_API uint64_t LoggedVMWriterAcquire(LoggedVM *lvm) {
  RWLockAcquireRead_(lvm->writerLock);
  const uint64_t ticket = LoggedVMWaiterEnter(&lvm->writerWaiter);
  if (ticket == LVM_NO_SERIAL) RWLockRelease_(lvm->writerLock);
  return ticket;
}

QW_API void LoggedVMWriterRelease(LoggedVM *lvm, uint64_t ticket) {
  LoggedVMWaiterLeave(&lvm->writerWaiter, ticket);
  RWLockRelease_(lvm->writerLock);
}

QW_API void LoggedVMWriterSetError(LoggedVM *lvm) { LoggedVMWaiterSetError(&lvm->writerWaiter); }

QW_API uint64_t LoggedVMReaderAcquire(LoggedVM *lvm) {
  const uint64_t ticket = LoggedVMWaiterEnter(&lvm->readerWaiter);
  VMArenaNewGenAcquire(lvm->arena, 1);
  return ticket;
}

QW_API void LoggedVMReaderRelease(LoggedVM *lvm, uint64_t ticket) {
  VMArenaNewGenRelease(lvm->arena, 1);
  LoggedVMWaiterLeave(&lvm->readerWaiter, ticket);
}

}  // extern "C"
