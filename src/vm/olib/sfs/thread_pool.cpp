// The thread-data pool: a free stack under a mutex, with a condition that
// wakes takers when an item comes back. Made on first use and kept until
// process exit (items may be in use by threads that outlive any store).
#include "vm/olib/sfs/thread_pool.h"

#include <memory>

#include "qwvm/sfs.h"

namespace qw::sfs {
namespace {

constexpr int kCreate = 0, kTakenFromStack = 1, kFree = 3;

class Pool {
 public:
  Pool() : mutex_(MutexInit()), returned_(ConditionInit()) { (void)ArrayInit(free_, sizeof(PoolItem *), 16); }
  ~Pool() {
    for (size_t i = 0; i < ArrayLength(free_); ++i) DeleteItem(free_[i]);
    ArrayFree(free_);
    ConditionDestroy(returned_);
    MutexDestroy(mutex_);
  }

  PoolItem *Take(uint32_t limit, int32_t timeoutMs) {
    MutexAcquire(mutex_);
    const uint64_t start = GetCurrentTimeMilliseconds();
    while (inUse_ >= limit) {
      if (timeoutMs < 0) {
        ConditionWait(returned_, mutex_);
        continue;
      }
      const uint64_t waited = GetCurrentTimeMilliseconds() - start;
      if (waited >= uint64_t(timeoutMs)) {
        MutexRelease(mutex_);
        QWErrorThrow(11, QW_ERROR_CLASS_SYSTEM, "small file store: no thread data free after %d ms", timeoutMs);
        return nullptr;
      }
      (void)ConditionTimedWait(returned_, mutex_, uint32_t(timeoutMs - waited));
    }
    ++inUse_;
    PoolItem *item = nullptr;
    if (ArrayLength(free_) != 0) {
      item = free_[ArrayLength(free_) - 1];
      (void)ArrayLengthSet(free_, ArrayLength(free_) - 1);
    }
    MutexRelease(mutex_);
    if (item != nullptr) {
      (void)SFSThreadDataPoolCB(kTakenFromStack, item);
      return item;
    }
    return MakeItem();
  }

  void Give(PoolItem *item) {
    MutexAcquire(mutex_);
    if (inUse_ == 0) QWAssertFail_("(threadData).t.count > 0", __FILE__, __LINE__);
    --inUse_;
    // The stack was sized when the item was made, so this append cannot fail.
    (void)ArrayAppend(free_, item);
    ConditionSignal(returned_);
    MutexRelease(mutex_);
  }

 private:
  // A fresh item, made outside the mutex; the free stack is grown here so
  // that giving the item back never needs memory.
  PoolItem *MakeItem() {
    PoolItem *item = NewItem();
    MutexAcquire(mutex_);
    const bool kept = item != nullptr && ArrayEnsureCapacity(free_, made_ + 1);
    if (kept) {
      ++made_;
    } else {
      --inUse_;
      ConditionSignal(returned_);
    }
    MutexRelease(mutex_);
    if (!kept && item != nullptr) {
      DeleteItem(item);
      item = nullptr;
    }
    return item;
  }

  static PoolItem *NewItem() {
    auto *item = static_cast<PoolItem *>(Allocate(sizeof(PoolItem)));
    if (item != nullptr && !SFSThreadDataPoolCB(kCreate, item)) {
      UnAllocate(item);
      return nullptr;
    }
    return item;
  }

  static void DeleteItem(PoolItem *item) {
    (void)SFSThreadDataPoolCB(kFree, item);
    UnAllocate(item);
  }

  QWMutex *mutex_;
  QWCondition *returned_;
  PoolItem **free_ = nullptr;  // qwlib growable array: the free stack
  uint32_t inUse_ = 0;
  size_t made_ = 0;
};

Pool &ThePool() {
  static Pool pool;
  return pool;
}

}  // namespace

PoolItem *PoolTake(uint32_t limit, int32_t timeoutMs) { return ThePool().Take(limit, timeoutMs); }

void PoolGive(PoolItem *item) { ThePool().Give(item); }

}  // namespace qw::sfs

QW_API int SFSThreadDataPoolCB(int operation, void *item) {
  auto *data = static_cast<qw::sfs::PoolItem *>(item);
  switch (operation) {
    case qw::sfs::kCreate:
      data->pathDict = PathDictThreadDataNew();
      data->ldbArray = LDBArrayThreadDataNew();
      if (data->pathDict != nullptr && data->ldbArray != nullptr) return 1;
      [[fallthrough]];
    case qw::sfs::kFree:
      PathDictThreadDataFree(data->pathDict);
      LDBArrayThreadDataFree(data->ldbArray);
      data->pathDict = nullptr;
      data->ldbArray = nullptr;
      return operation == qw::sfs::kFree ? 1 : 0;
    default:
      return 1;
  }
}
