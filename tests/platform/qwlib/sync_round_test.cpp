// SyncRound: every item synced once (directories deduplicated), really made durable (checked across a simulated power
// loss), a failure carried from the worker thread with its whole error chain, and rounds of many threads and of a child
// of fork running their items at once.
#include "platform/qwlib/sync_round.h"

#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <string>
#include <thread>
#include <vector>

#include "platform/qwlib/fault.h"
#include "platform/checks.h"

namespace {

namespace fault = qw::fault;
using qwtest::ReadFileBytes;

class SyncRoundTest : public qwtest::TempDirTest {
 protected:
  void TearDown() override {
    fault::Disable();
    TempDirTest::TearDown();
  }
  QWFILE Create(const std::string &name, const std::string &bytes) {
    QWFILE file = QWFILE_INVALID;
    EXPECT_EQ(QWFileOpen(&file, path(name).c_str(), QWFILE_READ | QWFILE_WRITE | QWFILE_CREATE), 1);
    EXPECT_EQ(QWFileWriteData(file, 0, bytes.data(), bytes.size()), 1);
    return file;
  }
};

TEST_F(SyncRoundTest, MakesEveryItemDurableOnce) {
  qwtest::ChildResult child = qwtest::RunInChild([&] {
    fault::EnableDurabilityTracking(true);
    std::vector<QWFILE> files;
    qw::SyncRound round;
    for (const char *name : {"a", "b", "c"}) {
      files.push_back(Create(name, std::string("content of ") + name));
      round.AddFile(files.back(), "");
      round.AddDirectory(dir(), "");  // added three times, synced once
    }
    QWFILE lost = Create("unsynced", "lost");
    (void)lost;
    const uint64_t before = fault::SyncCount();
    if (!round.Run() || fault::SyncCount() - before != 4) _exit(2);
    fault::SimulatePowerLoss(fault::PowerLoss::Drop);
    _exit(1);
  });
  ASSERT_TRUE(child.exited);
  ASSERT_EQ(child.exitStatus, 1);
  for (const char *name : {"a", "b", "c"}) EXPECT_EQ(ReadFileBytes(path(name)), std::string("content of ") + name);
  // The one file outside the round did not survive: the check above can fail.
  EXPECT_EQ(ReadFileBytes(path("unsynced")), "");
}

TEST_F(SyncRoundTest, CarriesTheFirstFailureWithItsChain) {
  QWFILE a = Create("a", "a"), b = Create("b", "b");
  fault::Reset();
  fault::FailPath("/b", fault::Bit(fault::Op::Sync));
  qw::SyncRound round;
  round.AddFile(a, "sync of a failed");
  round.AddFile(b, "sync of b failed");
  round.Add([] { return 1; }, "never");
  EXPECT_TRUE(qwtest::Fails(round.Run(), EIO));
  EXPECT_EQ(QWErrorClass(), QW_ERROR_CLASS_SYSTEM);
  const std::string chain = QWErrorMessage();
  EXPECT_EQ(chain.rfind("injected I/O error in sync \"" + path("b") + "\"", 0), 0u) << chain;
  EXPECT_NE(chain.find("\ncould not sync file \"" + path("b") + "\"\n"), std::string::npos) << chain;
  EXPECT_EQ(chain.substr(chain.rfind('\n') + 1), "sync of b failed");
  EXPECT_EQ(round.size(), 0u);  // a round runs once
  QWErrorClear();
  EXPECT_TRUE(round.Run());
  fault::Disable();
  EXPECT_EQ(QWFileClose(a), 1);
  EXPECT_EQ(QWFileClose(b), 1);
}

TEST(SyncRoundConcurrency, RoundsOfManyThreadsRunEachItemOnceAndAChildOfForkMakesItsOwnWorkers) {
  constexpr int kThreads = 4, kRounds = 50, kItems = 6;
  std::vector<std::atomic<int>> runs(kThreads * kRounds * kItems);
  auto runRounds = [&](int thread) {
    for (int r = 0; r < kRounds; ++r) {
      qw::SyncRound round;
      for (int i = 0; i < kItems; ++i) {
        const int slot = (thread * kRounds + r) * kItems + i;
        // Item 3 of every other round fails; the round reports it.
        const bool fails = i == 3 && r % 2 == 1;
        round.Add(
            [&runs, slot, fails] {
              runs[slot].fetch_add(1);
              return fails ? QWErrorThrow(5, QW_ERROR_CLASS_SYSTEM, "item %d failed", slot) : 1;
            },
            "round failed");
      }
      const bool ok = round.Run();
      EXPECT_EQ(ok, r % 2 == 0) << thread << "/" << r;
      if (!ok) {
        const int failed = (thread * kRounds + r) * kItems + 3;
        EXPECT_EQ(std::string(QWErrorMessage()), "item " + std::to_string(failed) + " failed\nround failed");
      }
      QWErrorClear();
    }
  };
  std::vector<std::thread> threads;
  for (int t = 0; t < kThreads; ++t) threads.emplace_back(runRounds, t);
  for (std::thread &thread : threads) thread.join();
  for (size_t slot = 0; slot < runs.size(); ++slot) ASSERT_EQ(runs[slot].load(), 1) << "item " << slot;
  // The items of a round run at once: each waits until all have started, here and in a child of fork.
  auto allAtOnce = [] {
    std::atomic<int> started{0};
    qw::SyncRound round;
    for (int i = 0; i < kItems; ++i)
      round.Add(
          [&started] {
            started.fetch_add(1);
            for (int wait = 0; wait < 5000 && started.load() < kItems; ++wait) usleep(1000);
            return started.load() == kItems ? 1 : 0;
          },
          "");
    return round.Run();
  };
  EXPECT_TRUE(allAtOnce());
  const qwtest::ChildResult child = qwtest::RunInChild([&allAtOnce] {
    alarm(20);  // a round waiting for threads the child does not have would hang
    _exit(allAtOnce() ? 0 : 2);
  });
  ASSERT_TRUE(child.exited) << "signal " << child.signal;
  EXPECT_EQ(child.exitStatus, 0);
}

}  // namespace
