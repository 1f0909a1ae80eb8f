// The memory-lock registry: passes over registered enumerators, stopping, unregistering (also from a running pass), the
// lock's hand-over between a pass and a waiting thread, and page pinning with its fallback.
#include <linux/capability.h>
#include <sys/mman.h>
#include <sys/resource.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <cerrno>
#include <chrono>
#include <cstdio>
#include <thread>

#include "platform/checks.h"

namespace {

using Runs = std::vector<int>;

// A scripted enumerator: records its runs in a shared log.
struct Script {
  int id = 0;
  Runs *runs = nullptr;
  bool fail = false, stop = false, unregisterSelf = false;  // during its run
  int periodicResult = -1;                                  // what MemoryLockPeriodicRelease answered
};

int RunScript(void *context) {
  auto *s = static_cast<Script *>(context);
  s->runs->push_back(s->id);
  EXPECT_TRUE(!s->unregisterSelf || MemoryEnumUnLock(RunScript, s) == 1);
  if (s->stop) MemoryLockStop();
  s->periodicResult = MemoryLockPeriodicRelease(0);
  return s->fail ? QWErrorThrow(5, QW_ERROR_CLASS_SYSTEM, "enumerator %d failed", s->id) : 1;
}

class MemoryLockRegistry : public ::testing::Test {
 protected:
  Runs runs;
  std::vector<Script> scripts = std::vector<Script>(4);
  void SetUp() override {
    for (int i = 0; i < 4; ++i) scripts[i] = Script{i, &runs};
  }
  void TearDown() override {
    for (Script &s : scripts)  // leave nothing registered for the next test
      while (MemoryEnumUnLock(RunScript, &s)) {
      }
    QWErrorClear();
  }
  void Register(std::initializer_list<int> ids) {
    for (int i : ids) ASSERT_EQ(MemoryEnumLock(RunScript, &scripts[i]), 1);
  }
  // Runs one pass; returns the enumerators it ran.
  Runs Pass(int expected) {
    runs.clear();
    EXPECT_EQ(MemoryLockApplyAll(), expected);
    return runs;
  }
};

TEST_F(MemoryLockRegistry, PassesRunRegistrationsInOrderThroughFailureStopAndSelfUnregister) {
  Register({2, 0, 3, 0});  // 0 twice: both run
  EXPECT_EQ(Pass(1), (Runs{2, 0, 3, 0}));
  EXPECT_EQ(scripts[2].periodicResult, 1);
  EXPECT_EQ(MemoryEnumUnLock(RunScript, &scripts[0]), 1);  // removes the first of the two
  EXPECT_EQ(MemoryEnumUnLock(RunScript, &scripts[3]), 1);
  EXPECT_EQ(Pass(1), (Runs{2, 0}));
  EXPECT_TRUE(
      qwtest::FailsExactly(MemoryEnumUnLock(RunScript, &scripts[3]), 2, "MemoryEnumUnLock: enumerator not registered"));
  MemoryLockAcquire();  // forced, a release with nobody waiting gives the lock up and takes it back
  EXPECT_EQ(MemoryLockPeriodicRelease(1), 1);
  MemoryLockRelease();
  // A failure keeps the first error and runs the rest; a stop ends the pass only; an enumerator may leave itself.
  EXPECT_EQ(MemoryEnumUnLock(RunScript, &scripts[2]) + MemoryEnumUnLock(RunScript, &scripts[0]), 2);
  scripts[1].fail = scripts[2].fail = true;
  Register({0, 1, 2, 3});
  EXPECT_EQ(Pass(0), (Runs{0, 1, 2, 3}));
  EXPECT_TRUE(qwtest::HasExactError(5, "enumerator 1 failed\nMemoryLockApplyAll: an enumerator failed"));
  EXPECT_EQ(QWErrorClass(), QW_ERROR_CLASS_SYSTEM);

  scripts[1].fail = scripts[2].fail = false;
  scripts[1].stop = true;
  EXPECT_EQ(Pass(0), (Runs{0, 1}));
  EXPECT_EQ(QWErrorCode(), 125);
  EXPECT_EQ(std::make_pair(scripts[0].periodicResult, scripts[1].periodicResult), std::make_pair(1, 0));
  // The next pass starts afresh; outside a pass the answer is always 1.
  scripts[1].stop = false;
  scripts[2].unregisterSelf = true;
  EXPECT_EQ(Pass(1), (Runs{0, 1, 2, 3}));
  EXPECT_EQ(Pass(1), (Runs{0, 1, 3}));
  EXPECT_EQ(MemoryEnumUnLock(RunScript, &scripts[2]), 0);
  MemoryLockStop();
  EXPECT_EQ(MemoryLockPeriodicRelease(0) + MemoryLockPeriodicRelease(1), 2);
}

TEST(MemoryLockDeathTest, MisuseAsserts) {
  GTEST_FLAG_SET(death_test_style, "threadsafe");
  EXPECT_DEATH(MemoryLockRelease(), "HeldByCaller\\(lock\\)");
  EXPECT_DEATH(
      {
        MemoryLockAcquire();
        MemoryLockAcquire();
      },
      "!HeldByCaller\\(lock\\)");
}

// Spins until `done`, giving up after two minutes (a hang is a failure, not a stuck run).
template <typename Body>
bool SpinUntil(const std::atomic<bool> &done, Body body) {
  const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(120);
  while (!done && std::chrono::steady_clock::now() < deadline) body();
  return done;
}

void WaitFor(const std::atomic<bool> &flag) {
  while (!flag) std::this_thread::yield();
}

// A pass that keeps the lock lets a waiting thread in at its periodic release, never while it works: the two never hold
// the lock at once. A second pass started in that window runs the other enumerators, not the one the first is running.
struct HandOver {
  std::atomic<bool> running{false}, waiterStarted{false}, waiterDone{false}, overlap{false};
  std::atomic<int> holders{0}, entries{0}, counted{0};
  int yields = 0;
  bool nested = false;  // the waiter runs a pass instead of taking the lock
  void Hold() {
    if (holders.fetch_add(1) != 0) overlap = true;
    holders.fetch_sub(1);
  }
};

int YieldingEnumerator(void *context) {
  auto *h = static_cast<HandOver *>(context);
  if (h->entries.fetch_add(1) != 0) return 1;  // a second entry is the fault under test
  h->running = true;
  WaitFor(h->waiterStarted);
  return SpinUntil(h->waiterDone,
                   [h] {
                     h->Hold();
                     EXPECT_EQ(MemoryLockPeriodicRelease(0), 1);
                     ++h->yields;
                   })
             ? 1
             : QWErrorThrow(0, QW_ERROR_CLASS_GENERAL, "waiter never got in");
}

int CountedEnumerator(void *context) {
  static_cast<HandOver *>(context)->counted.fetch_add(1);
  return 1;
}

TEST(MemoryLockConcurrency, PeriodicReleaseLetsWaiterOrNestedPassIn) {
  for (const bool nested : {false, true}) {
    SCOPED_TRACE(nested ? "nested pass" : "waiter");
    HandOver h;
    ASSERT_EQ(MemoryEnumLock(YieldingEnumerator, &h), 1);
    ASSERT_EQ(MemoryEnumLock(CountedEnumerator, &h), 1);
    std::thread pass([] { EXPECT_EQ(MemoryLockApplyAll(), 1) << QWErrorMessage(); });
    std::thread waiter([&] {
      WaitFor(h.running);  // the pass holds the lock now
      h.waiterStarted = true;
      if (nested) {
        EXPECT_EQ(MemoryLockApplyAll(), 1);
        EXPECT_EQ(h.counted, 1);  // ran inside the first pass's window
      } else {
        MemoryLockAcquire();
        h.Hold();
        MemoryLockRelease();
      }
      h.waiterDone = true;
    });
    waiter.join();
    pass.join();
    EXPECT_FALSE(h.overlap);
    EXPECT_GE(h.yields, 1);
    EXPECT_EQ(std::make_pair(h.entries.load(), h.counted.load()), std::make_pair(1, nested ? 2 : 1));
    EXPECT_EQ(MemoryEnumUnLock(YieldingEnumerator, &h) + MemoryEnumUnLock(CountedEnumerator, &h), 2);
  }
}

// Unregistering an enumerator that is running waits until it has returned, so its context can be freed right after.
struct SlowRun {
  std::atomic<bool> started{false}, release{false}, finished{false};
};

int SlowEnumerator(void *context) {
  auto *s = static_cast<SlowRun *>(context);
  s->started = true;
  WaitFor(s->release);
  for (int i = 0; i < 1000; ++i) std::this_thread::yield();  // widens the window of an early return
  s->finished = true;
  return 1;
}

TEST(MemoryLockConcurrency, UnregisterWaitsForRunningEnumerator) {
  for (int round = 0; round < 5; ++round) {
    SlowRun s;
    ASSERT_EQ(MemoryEnumLock(SlowEnumerator, &s), 1);
    std::thread pass([] { EXPECT_EQ(MemoryLockApplyAll(), 1); });
    WaitFor(s.started);
    s.release = true;
    EXPECT_EQ(MemoryEnumUnLock(SlowEnumerator, &s), 1);
    EXPECT_TRUE(s.finished) << "unregister returned while the enumerator ran";
    pass.join();
  }
}

struct Mapping {
  size_t length;
  char *address;
  explicit Mapping(size_t pages) : length(pages * PageSize()) {
    address = static_cast<char *>(mmap(nullptr, length, PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0));
  }
  ~Mapping() { munmap(address, length); }
};

TEST(MemoryPin, PinsMappedRangesAndRefusesHoles) {
  Mapping m(4);
  ASSERT_NE(m.address, MAP_FAILED);
  // An unaligned sub-range is rounded out to whole pages.
  EXPECT_EQ(MemoryPin(m.address + 10, PageSize()), 1) << QWErrorMessage();
  EXPECT_EQ(MemoryUnpin(m.address + 10, PageSize()), 1);
  EXPECT_EQ(MemoryPin(m.address, 0) + MemoryUnpin(m.address, 0), 2);
  ASSERT_EQ(munmap(m.address + PageSize(), PageSize()), 0);
  for (auto call : {MemoryPin, MemoryUnpin}) EXPECT_TRUE(qwtest::Fails(call(m.address, 3 * PageSize()), ENOMEM));
  QWErrorClear();
}

// Without privilege and room under RLIMIT_MEMLOCK, pinning falls back to touching the pages, saying so at debug level.
TEST(MemoryPin, RefusedPinFallsBackToTouching) {
  qwtest::ChildResult child = qwtest::RunInChild([] {
    __user_cap_header_struct header{_LINUX_CAPABILITY_VERSION_3, 0};
    __user_cap_data_struct none[2] = {};
    syscall(SYS_capset, &header, none);  // drop CAP_IPC_LOCK when running as root
    rlimit limit{0, 0};
    setrlimit(RLIMIT_MEMLOCK, &limit);
    qwtest::MessageCapture capture;
    Mapping m(2);
    const int result = MemoryPin(m.address, 2 * PageSize());
    bool debug = false;
    for (const auto &m : capture.messages())
      debug |= m.level == QW_LEVEL_DEBUG && m.text.find("touched instead") != std::string::npos;
    std::printf("result=%d debug=%d", result, debug ? 1 : 0);
  });
  ASSERT_TRUE(child.exited);
  EXPECT_EQ(child.out, "result=1 debug=1");
}

}  // namespace
