// Internals of the logged arena shared by its source files: the waiters,
// the arena serial and the scoped locks.
//
// Waiter invariants (under the waiter's mutex): count[0] counts holders of
// epoch cur_tid - 1, count[1] holders of epoch cur_tid; Next moves the
// current epoch to the previous one only when the previous one is empty, so
// at most two epochs have holders at any time.
#pragma once

#include <cstdint>

#include "qwvm/lvm.h"

#ifndef TRUE
#define TRUE 1
#endif

namespace qw::lvm {

void LoggedVMWaiterInit(LoggedVMWaiter *waiter);
void LoggedVMWaiterDestroy(LoggedVMWaiter *waiter);
uint64_t LoggedVMWaiterEnter(LoggedVMWaiter *waiter);
void LoggedVMWaiterLeave(LoggedVMWaiter *waiter, uint64_t tid);
void LoggedVMWaiterNext(LoggedVMWaiter *waiter);
// 1 when every holder of the previous epoch left and the waiter is not in
// error, 0 when it is in error.
int LoggedVMWaiterWait(LoggedVMWaiter *waiter);
void LoggedVMWaiterSetError(LoggedVMWaiter *waiter);

// Reads / stores the arena serial (element 0 of "lvm/serial", NEWGEN).
[[nodiscard]] int ArenaSerialRead(LoggedVM *lvm, uint64_t *serial);
[[nodiscard]] int ArenaSerialStore(LoggedVM *lvm, uint64_t serial);

// Commits the arena with no crash stop firing meanwhile (recovery and the
// creation of a store are not checkpoints and have no stops of their own).
[[nodiscard]] bool CommitArenaQuietly(VMArena *arena);

// A callback that may be absent (then it succeeds).
inline int Call(LoggedVMCallback callback, void *context) { return callback == nullptr || callback(context); }

// Holds a QWMutex for a scope, releasing early on request.
class Held {
 public:
  explicit Held(QWMutex *mutex) : mutex_(mutex) { MutexAcquire(mutex_); }
  ~Held() { Release(); }
  Held(const Held &) = delete;
  Held &operator=(const Held &) = delete;
  void Release() {
    if (mutex_) MutexRelease(mutex_);
    mutex_ = nullptr;
  }

 private:
  QWMutex *mutex_;
};

// Holds a QWRWLock for a scope, shared or exclusive.
class HeldRW {
 public:
  HeldRW(QWRWLock *lock, bool exclusive) : lock_(lock) {
    if (exclusive) RWLockAcquireWrite_(lock_);
    else RWLockAcquireRead_(lock_);
  }
  ~HeldRW() { RWLockRelease_(lock_); }
  HeldRW(const HeldRW &) = delete;
  HeldRW &operator=(const HeldRW &) = delete;

 private:
  QWRWLock *lock_;
};

}  // namespace qw::lvm
