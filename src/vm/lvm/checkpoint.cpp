// Checkpoints of a logged arena.
//
// A checkpoint record names a serial S: every record up to S belongs to
// writers that had finished, and their external data was synced before the
// record was written, so recovery may replay through S. A committing
// checkpoint also stores the log's last serial (its own LVMRecycle record)
// as the arena serial, commits the arena and drops the log files before it.
//
// Lock order: presyncMutex, checkpointMutex, writerLock, logMutex.
#include "platform/qwutil/bytes.h"
#include "vm/lvm/lvm_internal.h"

namespace qw::lvm {
namespace {

// The steps after the locks are taken. *logHeld tells the caller whether
// logMutex is still held.
[[nodiscard]] int CheckpointSteps(LoggedVM *lvm, int commit, uint64_t serial, bool *logHeld) {
  QWMutex *logMutex = MutexInit_(&lvm->logMutex);
  QWCrashPoint("lvmcheckpoint0", lvm->path);
  if (serial == LVM_NO_SERIAL) {
    Held held(logMutex);
    serial = LogLastSerial(lvm->log);
  }
  QWCrashPoint("lvmcheckpoint1", lvm->path);
  LoggedVMWaiterNext(&lvm->writerWaiter);
  if (!LoggedVMWaiterWait(&lvm->writerWaiter)) return QWErrorThrow(101, 12, "LVM in error, checkpoint aborted");
  if (!Call(lvm->syncExternal, lvm->callbackContext)) return QWErrorRethrow("could not sync external data");
  QWCrashPoint("lvmcheckpoint2", lvm->path);

  MutexAcquire(logMutex);
  *logHeld = true;
  unsigned char payload[8];
  StoreLE64(payload, serial);
  if (!LogWrite(lvm->log, LVM_CHECKPOINT, payload, sizeof payload, 0))
    return QWErrorRethrow("could not write checkpoint to log");
  QWCrashPoint("lvmcheckpoint3", lvm->path);
  if (!LogFlush(lvm->log)) return QWErrorRethrow("could not flush log");
  QWCrashPoint("lvmcheckpoint4", lvm->path);
  if (!Call(lvm->recycleSetNew, lvm->callbackContext)) return QWErrorRethrow("could not create recycling context");
  QWCrashPoint("lvmcheckpoint5", lvm->path);
  if (!LogWrite(lvm->log, LVM_RECYCLE_SET_NEW, nullptr, 0, 0))
    return QWErrorRethrow("could not log creation of recycling context");
  MutexRelease(logMutex);
  *logHeld = false;
  QWCrashPoint("lvmcheckpoint6", lvm->path);

  // Readers that might still see blocks freed before this point must leave
  // before those blocks are recycled.
  LoggedVMWaiterNext(&lvm->readerWaiter);
  qwassert_(LoggedVMWaiterWait(&lvm->readerWaiter) == TRUE);

  MutexAcquire(logMutex);
  *logHeld = true;
  if (!LogWrite(lvm->log, LVM_RECYCLE, nullptr, 0, 0)) return QWErrorRethrow("could not log recycling");
  QWCrashPoint("lvmcheckpoint8", lvm->path);
  if (!Call(lvm->recycle, lvm->callbackContext)) return QWErrorRethrow("could not recycle the free list");
  QWCrashPoint("lvmcheckpoint9", lvm->path);
  if (!LogFlush(lvm->log)) return QWErrorRethrow("could not flush log");
  QWCrashPoint("lvmcheckpoint10", lvm->path);
  if (!commit) return 1;

  serial = LogLastSerial(lvm->log);
  QWCrashPoint("lvmcheckpoint11", lvm->path);
  if (!ArenaSerialStore(lvm, serial)) return QWErrorRethrow("could not commit arena");
  QWMessage(QW_LEVEL_PROGRESS, "lvm: committing in %s", lvm->path);
  if (!VMArenaCommit(lvm->arena, nullptr, nullptr, 1)) return QWErrorRethrow("could not commit arena");
  QWMessage(QW_LEVEL_PROGRESS, "lvm: commit done in %s", lvm->path);
  QWCrashPoint("lvmcheckpoint12", lvm->path);
  if (!LogTruncate(lvm->log, serial)) return QWErrorRethrow("could not truncate log");
  QWCrashPoint("lvmcheckpoint13", lvm->path);
  return 1;
}

}  // namespace
}  // namespace qw::lvm

using namespace qw::lvm;

extern "C" QW_API int LoggedVMCheckpoint(LoggedVM *lvm, int commit, uint64_t serial) {
  if (commit) {
    MutexAcquire(lvm->presyncMutex);
    if (lvm->presync) {
      QWMessage(QW_LEVEL_PROGRESS, "lvm: presyncing in %s", lvm->path);
      // The commit syncs every page anyway; a failed early sync only costs
      // the time it was meant to save.
      if (!VMArenaMSync(lvm->arena)) QWErrorClear();
      QWMessage(QW_LEVEL_PROGRESS, "lvm: presync done in %s", lvm->path);
    }
  }
  MutexAcquire(lvm->checkpointMutex);
  if (commit) RWLockAcquireWrite_(lvm->writerLock);  // keeps every writer out until the end
  bool logHeld = false;
  const int ok = CheckpointSteps(lvm, commit, serial, &logHeld);
  if (logHeld) MutexRelease(MutexInit_(&lvm->logMutex));
  MutexRelease(lvm->checkpointMutex);
  if (commit) {
    RWLockRelease_(lvm->writerLock);
    MutexRelease(lvm->presyncMutex);
  }
  return ok;
}
