// Threads, mutexes, reader-writer locks and conditions.
#include "support/test_support.h"

namespace {

// Writers (every tenth turn) exclude readers and each other; a plain counter under the write lock stays exact; a lazily
// made mutex is made once.
struct Shared {
  QWRWLock *lock = RWLockInit();
  QWMutex *lazy = nullptr;
  std::atomic<int> readers{0}, writers{0}, next{0};
  std::atomic<bool> overlap{false};
  long counter = 0, locked = 0;  // changed under the write lock, under the mutex
  std::atomic<QWMutex *> seen[4];
};

TEST(ThreadsConcurrency, LocksExcludeAndLazyMutexIsMadeOnce) {
  Shared shared;
  auto body = [](void *argument) -> void * {
    auto *s = static_cast<Shared *>(argument);
    s->seen[s->next++] = MutexInit_(&s->lazy);
    for (int i = 0; i < 4000; ++i) {
      const bool write = i % 10 == 0;
      if (write) RWLockAcquireWrite_(s->lock);
      else RWLockAcquireRead_(s->lock);
      std::atomic<int> &mine = write ? s->writers : s->readers;
      if (mine.fetch_add(1) != 0 && write) s->overlap = true;
      if ((write ? s->readers : s->writers).load() != 0) s->overlap = true;
      if (write) ++s->counter;
      mine.fetch_sub(1);
      RWLockRelease_(s->lock);
      MutexAcquire(s->lazy);
      ++s->locked;
      MutexRelease(s->lazy);
    }
    return argument;
  };
  std::vector<QWThread *> threads;
  for (int i = 0; i < 4; ++i) threads.push_back(ThreadCreate(body, &shared));
  for (QWThread *thread : threads) {  // each join succeeds and returns the argument
    void *result = nullptr;
    ASSERT_TRUE(ThreadJoin(thread, &result));
    EXPECT_EQ(result, &shared);
  }
  EXPECT_FALSE(shared.overlap.load());
  EXPECT_EQ(shared.counter, 4 * 400);
  EXPECT_EQ(shared.locked, 4 * 4000);
  for (auto &seen : shared.seen) EXPECT_EQ(seen.load(), shared.lazy);
  MutexDestroy(shared.lazy);
  RWLockDestroy(shared.lock);
}

struct Handoff {
  QWMutex *mutex = MutexInit();
  QWCondition *condition = ConditionInit();
  bool ready = false;
};

TEST(ThreadsConcurrency, ConditionSignalWakesTheWaiterAndTimedWaitTimesOut) {
  Handoff handoff;
  MutexAcquire(handoff.mutex);
  EXPECT_EQ(ConditionTimedWait(handoff.condition, handoff.mutex, 10), 0);  // nobody signals
  MutexRelease(handoff.mutex);
  QWThread *signaller = ThreadCreate(
      [](void *argument) -> void * {
        auto *h = static_cast<Handoff *>(argument);
        MutexAcquire(h->mutex);
        h->ready = true;
        ConditionSignal(h->condition);
        MutexRelease(h->mutex);
        return nullptr;
      },
      &handoff);
  MutexAcquire(handoff.mutex);
  while (!handoff.ready) ConditionTimedWait(handoff.condition, handoff.mutex, 60000);
  MutexRelease(handoff.mutex);
  ASSERT_TRUE(ThreadJoin(signaller, nullptr));
  ConditionDestroy(handoff.condition);
  MutexDestroy(handoff.mutex);
}

TEST(Environment, SetAndRemoveVariablesAndClockAdvances) {
  ASSERT_TRUE(QWSetEnvironmentVariable("QWVM_TEST_VARIABLE", "on"));
  EXPECT_STREQ(getenv("QWVM_TEST_VARIABLE"), "on");
  ASSERT_TRUE(QWSetEnvironmentVariable("QWVM_TEST_VARIABLE", nullptr));
  EXPECT_EQ(getenv("QWVM_TEST_VARIABLE"), nullptr);
  EXPECT_FALSE(QWSetEnvironmentVariable("BAD=NAME", "x"));
  QWErrorClear();
  EXPECT_GT(GetCurrentTimeMilliseconds(), 1600000000000ull);  // after 2020
}

}  // namespace
