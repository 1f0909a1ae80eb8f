// Logged arena: open and the arena serial, recovery in each of its cases,
// checkpoints crashed at every stop (committing or not) and recovered, the
// generic replay and the dump printers with their exact texts, the error
// state, the waiters' assertions, and writers, readers and checkpoints in
// several threads.
#include <cstdlib>
#include <filesystem>
#include <string>
#include <thread>
#include <vector>

#include "platform/qwlib/fault.h"
#include "support/fault_support.h"
#include "support/lvm_counters.h"
#include "support/test_support.h"
#include "vm/lvm/lvm_internal.h"

namespace {

using qwtest::LoggedCounters;

class LvmTest : public qwtest::TempDirTest {
 protected:
  void TearDown() override {
    store.Close();
    qw::fault::Disable();
    unsetenv("QWEXIT");
    unsetenv("QWVMEXIT");
    qwtest::TempDirTest::TearDown();
  }
  std::string storeDir() const { return path("store"); }

  // Adds `round`'s increments to `counters` (when given) and the model.
  static bool Round(uint32_t round, LoggedCounters *counters, std::vector<uint64_t> *model) {
    for (uint32_t i = 0; i < 12; ++i) {
      const uint32_t index = (round * 5 + i) % LoggedCounters::kCount;
      if (counters && !counters->Add(index, round + i)) return false;
      (*model)[index] += round + i;
    }
    return true;
  }
  void Round(uint32_t round) { ASSERT_TRUE(Round(round, &store, &model)) << QWErrorMessage(); }

  // Reopens with recovery; the counters must equal `expected`.
  void ExpectRecovered(const std::vector<uint64_t> &expected) {
    store.Close();
    ASSERT_TRUE(store.Open(storeDir(), false) && store.Recover()) << QWErrorMessage();
    EXPECT_EQ(store.Values(), expected);
  }

  qwtest::MessageCapture capture;
  LoggedCounters store;
  std::vector<uint64_t> model = std::vector<uint64_t>(LoggedCounters::kCount, 0);
};

TEST_F(LvmTest, OpenCreatesTheArenaSerialOnceAndRefusesBadCombinations) {
  int created = -1;
  ASSERT_TRUE(store.Open(storeDir(), true, false, &created)) << QWErrorMessage();
  EXPECT_EQ(created, 1);
  EXPECT_TRUE(capture.contains("lvm: committing in " + storeDir() + "/vm", QW_LEVEL_PROGRESS));
  store.Close();
  ASSERT_TRUE(store.Open(storeDir(), false, false, &created)) << QWErrorMessage();
  EXPECT_EQ(created, 0);
  store.Close();

  // A new logged arena takes the log's last serial as its arena serial.
  LoggedVM *lvm = LoggedVMOpen(path("fresh").c_str(), 1, 1, 0, &created, 0, 0, nullptr, nullptr, nullptr, nullptr,
                               nullptr);
  ASSERT_NE(lvm, nullptr) << QWErrorMessage();
  EXPECT_EQ(LoggedVMArenaSerialGet(lvm), LoggedVMSerialGet(lvm));
  EXPECT_TRUE(LoggedVMClose(lvm));
  UnAllocate(lvm);

  EXPECT_EQ(LoggedVMOpen(path("missing").c_str(), 1, 0, 1, nullptr, 0, 0, nullptr, nullptr, nullptr, nullptr,
                         nullptr),
            nullptr);
  EXPECT_NE(std::string(QWErrorMessage()).find("could not open log"), std::string::npos) << QWErrorMessage();
  EXPECT_DEATH(
      {
        QWSetMessageHandler(nullptr, nullptr, nullptr);  // the assertion's report goes to stderr
        LoggedVMOpen(storeDir().c_str(), 1, 1, 1, nullptr, 0, 0, nullptr, nullptr, nullptr, nullptr, nullptr);
      },
      "assertion failed: !\\(create && readOnly\\)");
}

TEST_F(LvmTest, RecoveryReplaysUpToTheNewestCheckpointOnly) {
  const struct {
    const char *what;
    bool records, checkpoint, recordsAfter;
    bool replays, commits;
  } cases[] = {
      {"nothing after the arena serial", false, false, false, false, false},
      {"records without a checkpoint", true, false, false, false, true},
      {"records and a checkpoint", true, true, false, true, true},
      {"records after the checkpoint", true, true, true, true, true},
  };
  for (const auto &c : cases) {
    SCOPED_TRACE(c.what);
    store.Close();
    std::filesystem::remove_all(storeDir());
    model.assign(LoggedCounters::kCount, 0);
    ASSERT_TRUE(store.Open(storeDir(), true)) << QWErrorMessage();
    ASSERT_NO_FATAL_FAILURE(Round(1));
    ASSERT_TRUE(store.Checkpoint(true)) << QWErrorMessage();
    // A committing checkpoint truncates at its own recycle record.
    EXPECT_EQ(LoggedVMArenaSerialGet(store.lvm), LoggedVMSerialGet(store.lvm));
    LogReadContext *context = LogReadContextNew(LoggedVMLogGet(store.lvm));
    uint32_t type = 0, size = 0;
    EXPECT_TRUE(LogRead(context, LoggedVMArenaSerialGet(store.lvm), &type, nullptr, &size, nullptr, nullptr));
    EXPECT_EQ(type, LVM_RECYCLE);
    LogReadContextDelete(context);
    const std::vector<uint64_t> committed = model;
    if (c.records) {
      ASSERT_NO_FATAL_FAILURE(Round(2));
    }
    if (c.checkpoint) {
      ASSERT_TRUE(store.Checkpoint(false)) << QWErrorMessage();
    }
    const std::vector<uint64_t> checkpointed = c.checkpoint ? model : committed;
    if (c.recordsAfter) {
      ASSERT_NO_FATAL_FAILURE(Round(3));
    }
    store.Close();

    ASSERT_TRUE(store.Open(storeDir(), false)) << QWErrorMessage();
    qw::fault::Reset();
    ASSERT_TRUE(store.Recover()) << QWErrorMessage();
    EXPECT_EQ(qw::fault::SyncCount() > 0, c.commits);
    qw::fault::Disable();
    EXPECT_EQ(store.Values(), checkpointed);
    EXPECT_EQ(store.replayed > 0, c.replays);
    // Recovery's own; the recycling records follow the checkpointed serial.
    EXPECT_EQ(store.recycleSetNewCalls, 1u);
    EXPECT_EQ(store.recycleCalls, 1u);
    if (c.commits) {
      EXPECT_EQ(LoggedVMArenaSerialGet(store.lvm), LoggedVMSerialGet(store.lvm));
    }
    EXPECT_TRUE(capture.contains("lvm: recovered in " + storeDir() + "/vm", QW_LEVEL_PROGRESS));
    // Whatever recovery committed is never replayed again.
    ASSERT_NO_FATAL_FAILURE(ExpectRecovered(checkpointed));
    EXPECT_EQ(store.replayed, 0u);
  }
}

TEST_F(LvmTest, EveryCheckpointStopCrashedInAChildRecoversToACheckpointedState) {
  ASSERT_TRUE(store.Open(storeDir(), true)) << QWErrorMessage();
  ASSERT_NO_FATAL_FAILURE(Round(1));
  ASSERT_TRUE(store.Checkpoint(true)) << QWErrorMessage();
  store.Close();
  const std::vector<uint64_t> before = model;
  Round(2, nullptr, &model);
  const std::vector<uint64_t> after = model;
  std::filesystem::copy(storeDir(), path("snapshot"), std::filesystem::copy_options::recursive);
  for (bool commit : {false, true}) {
    for (int stop = 0; stop <= 13; ++stop) {
      if (stop == 7) continue;
      const std::string name = "lvmcheckpoint" + std::to_string(stop);
      SCOPED_TRACE(name + (commit ? " committing" : ""));
      std::filesystem::remove_all(storeDir());
      std::filesystem::copy(path("snapshot"), storeDir(), std::filesystem::copy_options::recursive);
      LoggedCounters counters;
      std::vector<uint64_t> scratch(LoggedCounters::kCount);
      ASSERT_TRUE(qwtest::CrashAtStop(
          name.c_str(), storeDir() + "/vm",
          [&] { return counters.Open(storeDir(), false) && counters.Recover() && Round(2, &counters, &scratch); },
          [&] { _exit(counters.Checkpoint(commit) ? 0 : 3); }, stop <= 10 || commit));
      // The checkpoint record is durable from its flush (stop 4) on.
      ASSERT_NO_FATAL_FAILURE(ExpectRecovered(stop >= 4 ? after : before));
      ASSERT_TRUE(store.Checkpoint(true)) << QWErrorMessage();
      ASSERT_NO_FATAL_FAILURE(ExpectRecovered(stop >= 4 ? after : before));
    }
  }
}

TEST_F(LvmTest, GenericReplayAndCallbackFailuresGiveTheirMessages) {
  ASSERT_TRUE(store.Open(storeDir(), true)) << QWErrorMessage();
  for (uint32_t type : {1u, 2u, 13u, 14u, 15u}) EXPECT_EQ(LoggedVMProcessFun(store.lvm, 0, type), 1) << type;
  for (uint32_t type : {0u, 3u, 12u, 16u, 30u}) {
    QWErrorClear();
    EXPECT_EQ(LoggedVMProcessFun(store.lvm, 0, type), 0) << type;
    EXPECT_FALSE(QWErrorIsSet()) << type;
  }
  const struct {
    bool *flag;
    uint32_t type;
    const char *processMessage, *checkpointMessage;
  } failures[] = {
      {&store.failRecycleSetNew, LVM_RECYCLE_SET_NEW, "failure in recycleSetNew callback",
       "could not create recycling context"},
      {&store.failRecycle, LVM_RECYCLE, "failure in recycle callback", "could not recycle the free list"},
  };
  for (const auto &f : failures) {
    *f.flag = true;
    EXPECT_EQ(LoggedVMProcessFun(store.lvm, 0, f.type), 0);
    EXPECT_NE(std::string(QWErrorMessage()).find(f.processMessage), std::string::npos) << QWErrorMessage();
    EXPECT_FALSE(store.Checkpoint(true));
    EXPECT_NE(std::string(QWErrorMessage()).find(f.checkpointMessage), std::string::npos) << QWErrorMessage();
    *f.flag = false;
  }
  ASSERT_TRUE(store.Checkpoint(true)) << QWErrorMessage();  // a failed checkpoint leaves nothing held

  // In error: writers are refused, checkpoints abort.
  LoggedVMWriterSetError(store.lvm);
  EXPECT_EQ(LoggedVMWriterAcquire(store.lvm), LVM_NO_SERIAL);
  EXPECT_FALSE(store.Checkpoint(false));
  EXPECT_EQ(QWErrorCode(), 101);
  EXPECT_EQ(QWErrorClass(), 12);
  EXPECT_NE(std::string(QWErrorMessage()).find("LVM in error, checkpoint aborted"), std::string::npos);
}

TEST_F(LvmTest, DumpPrintsEachRecord) {
  const struct {
    uint32_t type;
    std::string payload, printed;
  } ops[] = {
      {13, std::string("\x05\x00\x00\x00\x02\x00\x00\x00", 8), "LVMCheckpoint(2, 5)\n"},
      {13, "", "LVMCheckpoint()\n"},
      {13, "abc", "LVMCheckpoint(*** invalid parm size 3 ***)\n"},
      {14, "", "LVMRecycleSetNew\n"},
      {14, "x", "LVMRecycleSetNew(*** invalid parm size 1 ***)\n"},
      {15, "", "LVMRecycle\n"},
      {15, "xy", "LVMRecycle(*** invalid parm size 2 ***)\n"},
      {16, "", "INVALID\n"},
  };
  for (const auto &op : ops) {
    const qwtest::ChildResult child =
        qwtest::RunInChild([&] { LoggedVMOpDebug(op.type, op.payload.data(), op.payload.size()); });
    EXPECT_EQ(child.out, op.printed);
  }
  ASSERT_TRUE(store.Open(storeDir(), true) && store.Add(3, 1) && store.Checkpoint(false)) << QWErrorMessage();
  const uint64_t counter = LoggedVMArenaSerialGet(store.lvm) + 24;  // the record after the first LVMRecycle
  store.Close();
  const qwtest::ChildResult dump = qwtest::RunInChild([&] { LogDebug((storeDir() + "/log").c_str()); });
  char line[128];
  std::snprintf(line, sizeof line, "file = 1, offset = %7u: <<< INVALID \nfile = 1, offset = %7u: LVMCheckpoint(1, %u)\n",
                uint32_t(counter), uint32_t(counter + 32), uint32_t(counter));
  EXPECT_NE(dump.out.find(line), std::string::npos) << dump.out << "\nexpected:\n" << line;
  capture.clear();
  LogDebug(path("nowhere").c_str());
  EXPECT_TRUE(capture.contains("Could not open log in " + path("nowhere"), QW_LEVEL_WARNING));
}

TEST(LvmWaiterTest, MisusedTicketsFailTheirAssertions) {
  using namespace qw::lvm;
  const struct {
    const char *assertion;
    void (*misuse)(LoggedVMWaiter *);
  } cases[] = {
      {"waiter->count\\[1\\] != 0", [](LoggedVMWaiter *w) { LoggedVMWaiterLeave(w, 0); }},
      {"\\(tid \\+ 1\\)== waiter->cur_tid",
       [](LoggedVMWaiter *w) { LoggedVMWaiterNext(w), LoggedVMWaiterNext(w), LoggedVMWaiterLeave(w, 0); }},
      {"waiter->count\\[0\\] != 0", [](LoggedVMWaiter *w) { LoggedVMWaiterNext(w), LoggedVMWaiterLeave(w, 0); }},
      {"waiter->count\\[0\\] == 0",
       [](LoggedVMWaiter *w) { LoggedVMWaiterEnter(w), LoggedVMWaiterNext(w), LoggedVMWaiterNext(w); }},
  };
  for (const auto &c : cases) {
    LoggedVMWaiter waiter;
    LoggedVMWaiterInit(&waiter);
    EXPECT_DEATH(c.misuse(&waiter), std::string("assertion failed: ") + c.assertion);
    LoggedVMWaiterDestroy(&waiter);
  }
}

using LvmConcurrencyTest = LvmTest;

TEST_F(LvmConcurrencyTest, WritersReadersAndCheckpointsRunTogether) {
  ASSERT_TRUE(store.Open(storeDir(), true)) << QWErrorMessage();
  constexpr uint32_t kAdds = 300;
  auto writer = [&](uint32_t index) {
    for (uint32_t i = 0; i < kAdds; ++i) EXPECT_TRUE(store.Add(index, 1)) << QWErrorMessage();
  };
  std::thread a(writer, 1), b(writer, 2);
  std::thread reader([&] {
    for (int i = 0; i < 200; ++i) LoggedVMReaderRelease(store.lvm, LoggedVMReaderAcquire(store.lvm));
  });
  for (int i = 0; i < 10; ++i) EXPECT_TRUE(store.Checkpoint(i % 3 == 0)) << QWErrorMessage();
  a.join();
  b.join();
  reader.join();
  ASSERT_TRUE(store.Checkpoint(false)) << QWErrorMessage();
  model[1] = model[2] = kAdds;
  ASSERT_NO_FATAL_FAILURE(ExpectRecovered(model));
}

}  // namespace
