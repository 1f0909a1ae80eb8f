// The crash stop and the forced error hooks.
#include <cstdlib>

#include "support/test_support.h"

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
  struct Case {
    const char *exit;
    const char *vmExit;
    bool crashes;
  };
  const Case cases[] = {
      {"arenaflushexec1", "/vm/a", true},
      {"arenaflushexec1", "/vm/b", false},  // another arena
      {"arenaflushexec2", "/vm/a", false},  // another stop
      {"arenaflushexec1", nullptr, false},
      {nullptr, "/vm/a", false},
  };
  for (const Case &c : cases) {
    auto result = qwtest::RunInChild([&] {
      QWSetEnvironmentVariable("QWEXIT", c.exit);
      QWSetEnvironmentVariable("QWVMEXIT", c.vmExit);
      QWCrashPoint("arenaflushexec1", "/vm/a");
      std::printf("survived\n");
    });
    ASSERT_TRUE(result.exited);
    if (c.crashes) {
      EXPECT_EQ(result.exitStatus, 1);
      EXPECT_EQ(result.out, "########## SIMULATED CRASH vm = /vm/a, stop = arenaflushexec1\n");
    } else {
      EXPECT_EQ(result.exitStatus, 0);
      EXPECT_EQ(result.out, "survived\n");
    }
  }
}

TEST_F(TestHooks, ForcedErrorWithoutFuzzAlwaysFailsTheNamedFunction) {
  QWSetEnvironmentVariable("QWRETURNFALSE", "VMArenaCommit");
  EXPECT_EQ(QWForcedError("VMArenaFlushExec", 2, 0), 0);
  EXPECT_FALSE(QWErrorIsSet());
  for (int i = 0; i < 10; ++i) {
    ASSERT_EQ(QWForcedError("VMArenaCommit", 2, 0), 1);
    EXPECT_EQ(QWErrorCode(), 2);
    EXPECT_STREQ(QWErrorMessage(), "forced error in VMArenaCommit");
    QWErrorClear();
  }
  QWSetEnvironmentVariable("QWRETURNFALSEFUZZ", "0");  // 0 counts as 1
  EXPECT_EQ(QWForcedError("VMArenaCommit", 2, 0), 1);
  QWErrorClear();
}

TEST_F(TestHooks, ForcedErrorWithFuzzFailsAboutOneCallInN) {
  QWSetEnvironmentVariable("QWRETURNFALSE", "BoxLVMDataBlockWrite");
  QWSetEnvironmentVariable("QWRETURNFALSEFUZZ", "3");
  std::srand(7);
  int failures = 0;
  for (int i = 0; i < 3000; ++i) {
    if (QWForcedError("BoxLVMDataBlockWrite", 0, QW_ERROR_CLASS_SYSTEM)) {
      ++failures;
      EXPECT_EQ(QWErrorClass(), QW_ERROR_CLASS_SYSTEM);
      QWErrorClear();
    }
  }
  EXPECT_GT(failures, 800);
  EXPECT_LT(failures, 1200);
}

}  // namespace
