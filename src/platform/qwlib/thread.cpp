// Threads, mutexes, reader-writer locks and conditions over pthreads.
//
// The reader-writer lock prefers writers: a flush waiting for the flush lock
// must not be starved by a stream of readers.
#include <pthread.h>
#include <time.h>

#include <atomic>
#include <cerrno>
#include <memory>
#include <type_traits>

#include "qwvm/qwlib.h"

struct QWThread {
  pthread_t handle;
};

struct QWMutex {
  pthread_mutex_t handle;
};

struct QWRWLock {
  pthread_rwlock_t handle;
};

struct QWCondition {
  pthread_cond_t handle;
};

namespace {

// pthread calls on valid objects fail only on programming errors.
void Check(int result, const char *what) {
  if (result != 0) QWAssertFail_(what, __FILE__, __LINE__);
}

}  // namespace

extern "C" {

QW_API QWThread *ThreadCreate_(QWThreadFunction function, void *argument, const char *file, int line) {
  auto thread = std::make_unique<QWThread>();
  int result = pthread_create(&thread->handle, nullptr, function, argument);
  if (result != 0) {
    QWErrorThrowErrno(result, "could not create thread at %s:%d", file, line);
    return nullptr;
  }
  return thread.release();
}

QW_API int ThreadJoin(QWThread *thread, void **result) {
  std::unique_ptr<QWThread> owned(thread);
  int error = pthread_join(owned->handle, result);
  if (error != 0) return QWErrorThrowErrno(error, "could not join thread");
  return 1;
}

QW_API QWMutex *MutexInit(void) {
  auto mutex = std::make_unique<QWMutex>();
  int result = pthread_mutex_init(&mutex->handle, nullptr);
  if (result != 0) {
    QWErrorThrowErrno(result, "could not create mutex");
    return nullptr;
  }
  return mutex.release();
}

QW_API QWMutex *MutexInit_(QWMutex **slot) {
  std::atomic_ref<QWMutex *> shared(*slot);
  QWMutex *existing = shared.load(std::memory_order_acquire);
  if (existing) return existing;
  QWMutex *created = MutexInit();
  if (!created) return nullptr;
  if (!shared.compare_exchange_strong(existing, created, std::memory_order_acq_rel)) {
    MutexDestroy(created);  // another thread won the race
    return existing;
  }
  return created;
}

QW_API void MutexAcquire(QWMutex *mutex) { Check(pthread_mutex_lock(&mutex->handle), "pthread_mutex_lock"); }

QW_API int MutexTryAcquire(QWMutex *mutex) { return pthread_mutex_trylock(&mutex->handle) == 0; }

QW_API void MutexRelease(QWMutex *mutex) { Check(pthread_mutex_unlock(&mutex->handle), "pthread_mutex_unlock"); }

QW_API void MutexDestroy(QWMutex *mutex) {
  if (!mutex) return;
  std::unique_ptr<std::remove_pointer_t<decltype(mutex)>> owned(mutex);
  pthread_mutex_destroy(&owned->handle);
}

QW_API QWRWLock *RWLockInit(void) {
  auto lock = std::make_unique<QWRWLock>();
  pthread_rwlockattr_t attributes;
  pthread_rwlockattr_init(&attributes);
  pthread_rwlockattr_setkind_np(&attributes, PTHREAD_RWLOCK_PREFER_WRITER_NONRECURSIVE_NP);
  int result = pthread_rwlock_init(&lock->handle, &attributes);
  pthread_rwlockattr_destroy(&attributes);
  if (result != 0) {
    QWErrorThrowErrno(result, "could not create reader-writer lock");
    return nullptr;
  }
  return lock.release();
}

QW_API void RWLockAcquireRead_(QWRWLock *lock) {
  Check(pthread_rwlock_rdlock(&lock->handle), "pthread_rwlock_rdlock");
}

QW_API void RWLockAcquireWrite_(QWRWLock *lock) {
  Check(pthread_rwlock_wrlock(&lock->handle), "pthread_rwlock_wrlock");
}

QW_API void RWLockRelease_(QWRWLock *lock) { Check(pthread_rwlock_unlock(&lock->handle), "pthread_rwlock_unlock"); }

QW_API void RWLockDestroy(QWRWLock *lock) {
  if (!lock) return;
  std::unique_ptr<std::remove_pointer_t<decltype(lock)>> owned(lock);
  pthread_rwlock_destroy(&owned->handle);
}

QW_API QWCondition *ConditionInit(void) {
  auto condition = std::make_unique<QWCondition>();
  pthread_condattr_t attributes;
  pthread_condattr_init(&attributes);
  pthread_condattr_setclock(&attributes, CLOCK_MONOTONIC);
  int result = pthread_cond_init(&condition->handle, &attributes);
  pthread_condattr_destroy(&attributes);
  if (result != 0) {
    QWErrorThrowErrno(result, "could not create condition");
    return nullptr;
  }
  return condition.release();
}

QW_API void ConditionWait(QWCondition *condition, QWMutex *mutex) {
  Check(pthread_cond_wait(&condition->handle, &mutex->handle), "pthread_cond_wait");
}

QW_API int ConditionTimedWait(QWCondition *condition, QWMutex *mutex, uint32_t milliseconds) {
  timespec deadline;
  clock_gettime(CLOCK_MONOTONIC, &deadline);
  deadline.tv_sec += milliseconds / 1000;
  deadline.tv_nsec += long(milliseconds % 1000) * 1000000L;
  if (deadline.tv_nsec >= 1000000000L) {
    deadline.tv_sec += 1;
    deadline.tv_nsec -= 1000000000L;
  }
  int result = pthread_cond_timedwait(&condition->handle, &mutex->handle, &deadline);
  if (result == ETIMEDOUT) return 0;
  Check(result, "pthread_cond_timedwait");
  return 1;
}

QW_API void ConditionSignal(QWCondition *condition) { pthread_cond_signal(&condition->handle); }

QW_API void ConditionBroadcast(QWCondition *condition) { pthread_cond_broadcast(&condition->handle); }

QW_API void ConditionDestroy(QWCondition *condition) {
  if (!condition) return;
  std::unique_ptr<std::remove_pointer_t<decltype(condition)>> owned(condition);
  pthread_cond_destroy(&owned->handle);
}

}  // extern "C"
