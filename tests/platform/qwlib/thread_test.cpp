// Threads, mutexes, reader-writer locks and conditions.
#include <atomic>
#include <vector>

#include "support/test_support.h"

namespace {

struct Counter {
  QWMutex *mutex;
  long value;
};

void *Increment(void *argument) {
  auto *counter = static_cast<Counter *>(argument);
  for (int i = 0; i < 20000; ++i) {
    MutexAcquire(counter->mutex);
    ++counter->value;
    MutexRelease(counter->mutex);
  }
  return argument;
}

// Runs `body(argument)` on `count` threads; each join must succeed and
// return `argument`.
void RunThreads(int count, void *(*body)(void *), void *argument) {
  std::vector<QWThread *> threads;
  for (int i = 0; i < count; ++i) threads.push_back(ThreadCreate(body, argument));
  for (QWThread *thread : threads) {
    void *result = nullptr;
    ASSERT_TRUE(ThreadJoin(thread, &result));
    EXPECT_EQ(result, argument);
  }
}

TEST(ThreadsConcurrency, MutexSerialisesIncrementsAndJoinReturnsTheResult) {
  Counter counter{MutexInit(), 0};
  ASSERT_NE(counter.mutex, nullptr);
  RunThreads(4, Increment, &counter);
  EXPECT_EQ(counter.value, 80000);
  MutexDestroy(counter.mutex);
}

struct LazySlot {
  QWMutex *slot = nullptr;
  std::atomic<int> next{0};
  std::atomic<QWMutex *> seen[4];
};

TEST(ThreadsConcurrency, LazyMutexInitIsCreatedOnceUnderRaces) {
  LazySlot lazy;
  RunThreads(
      4,
      [](void *argument) -> void * {
        auto *l = static_cast<LazySlot *>(argument);
        l->seen[l->next++] = MutexInit_(&l->slot);
        return argument;
      },
      &lazy);
  for (auto &seen : lazy.seen) EXPECT_EQ(seen.load(), lazy.slot);
  MutexDestroy(lazy.slot);
}

struct Shared {
  QWRWLock *lock;
  std::atomic<int> readers{0};
  std::atomic<int> writers{0};
  std::atomic<bool> overlap{false};
};

void *ReadOrWrite(void *argument) {
  auto *shared = static_cast<Shared *>(argument);
  for (int i = 0; i < 2000; ++i) {
    if (i % 10 == 0) {
      RWLockAcquireWrite_(shared->lock);
      if (shared->writers.fetch_add(1) != 0 || shared->readers.load() != 0) shared->overlap = true;
      shared->writers.fetch_sub(1);
      RWLockRelease_(shared->lock);
    } else {
      RWLockAcquireRead_(shared->lock);
      shared->readers.fetch_add(1);
      if (shared->writers.load() != 0) shared->overlap = true;
      shared->readers.fetch_sub(1);
      RWLockRelease_(shared->lock);
    }
  }
  return argument;
}

TEST(ThreadsConcurrency, ReaderWriterLockExcludesWritersFromEveryone) {
  Shared shared;
  shared.lock = RWLockInit();
  RunThreads(3, ReadOrWrite, &shared);
  EXPECT_FALSE(shared.overlap.load());
  RWLockDestroy(shared.lock);
}

struct Handoff {
  QWMutex *mutex;
  QWCondition *condition;
  bool ready = false;
};

TEST(ThreadsConcurrency, ConditionSignalWakesTheWaiterAndTimedWaitTimesOut) {
  Handoff handoff{MutexInit(), ConditionInit()};
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
  EXPECT_TRUE(handoff.ready);
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
  uint64_t now = GetCurrentTimeMilliseconds();
  EXPECT_GT(now, 1600000000000ull);  // after 2020
}

}  // namespace
