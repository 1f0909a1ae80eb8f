// The crash stop and the forced error hooks.
#include <cstdlib>

#include "support/platform_support.h"

namespace {

class TestHooks : public qwtest::TempDirTest {
 protected:
  void TearDown() override {
    for (const char *name : {"QWEXIT", "QWVMEXIT", "QWRETURNFALSE", "QWRETURNFALSEFUZZ"})
      QWSetEnvironmentVariable(name, nullptr);
    qwtest::TempDirTest::TearDown();
  }
};

TEST_F(TestHooks, CrashStopFiresOnlyForItsNameAndDirectory) {
  const struct {
    const char *exit, *vmExit;
    bool crashes;
  } cases[] = {
      {"arenaflushexec1", "/vm/a", true},   {"arenaflushexec1", "/vm/b", false},  // another arena
      {"arenaflushexec2", "/vm/a", false},  // another stop
      {"arenaflushexec1", nullptr, false},  {nullptr, "/vm/a", false},
  };
  for (const auto &c : cases) {
    auto result = qwtest::RunInChild([&] {
      QWSetEnvironmentVariable("QWEXIT", c.exit);
      QWSetEnvironmentVariable("QWVMEXIT", c.vmExit);
      QWCrashPoint("arenaflushexec1", "/vm/a");
      std::printf("survived\n");
    });
    ASSERT_TRUE(result.exited);
    EXPECT_EQ(result.exitStatus, c.crashes ? 1 : 0);
    EXPECT_EQ(result.out, c.crashes ? "########## SIMULATED CRASH vm = /vm/a, stop = arenaflushexec1\n" : "survived\n");
  }
}

// Without QWRETURNFALSEFUZZ (or with 0, counted as 1) the named function always fails; with N, about one call in N.
TEST_F(TestHooks, ForcedErrorFailsTheNamedFunction) {
  QWSetEnvironmentVariable("QWRETURNFALSE", "VMArenaCommit");
  EXPECT_EQ(QWForcedError("VMArenaFlushExec", 2, 0), 0);
  EXPECT_FALSE(QWErrorIsSet());
  for (const char *fuzz : {static_cast<const char *>(nullptr), "0"}) {
    QWSetEnvironmentVariable("QWRETURNFALSEFUZZ", fuzz);
    for (int i = 0; i < 10; ++i) {
      ASSERT_EQ(QWForcedError("VMArenaCommit", 2, 0), 1);
      EXPECT_TRUE(qwtest::HasExactError(2, "forced error in VMArenaCommit"));
      QWErrorClear();
    }
  }
  QWSetEnvironmentVariable("QWRETURNFALSE", "BoxLVMDataBlockWrite");
  QWSetEnvironmentVariable("QWRETURNFALSEFUZZ", "3");
  std::srand(7);
  int failures = 0;
  for (int i = 0; i < 3000; ++i) {
    if (!QWForcedError("BoxLVMDataBlockWrite", 0, QW_ERROR_CLASS_SYSTEM)) continue;
    ++failures;
    EXPECT_EQ(QWErrorClass(), QW_ERROR_CLASS_SYSTEM);
    QWErrorClear();
  }
  EXPECT_TRUE(failures > 800 && failures < 1200) << failures;
}

}  // namespace
