// SyncRound: every item synced once (directories deduplicated), really made
// durable (checked across a simulated power loss), and a failure carried from
// the worker thread with its whole error chain.
#include "platform/qwlib/sync_round.h"

#include <unistd.h>

#include <cerrno>
#include <string>
#include <vector>

#include "platform/qwlib/fault.h"
#include "support/test_support.h"

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
  EXPECT_FALSE(round.Run());
  EXPECT_EQ(QWErrorCode(), EIO);
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

}  // namespace
