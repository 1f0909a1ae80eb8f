// The fault seam's error injection: every file, directory and mapping operation passes it exactly once, the n-th
// matching operation fails (once or from then on) without effect, path and kind rules select operations, and the seam
// is safe to use from several threads.
#include "platform/qwlib/fault.h"

#include <fcntl.h>

#include <cerrno>
#include <filesystem>
#include <thread>

#include "support/platform_support.h"

namespace {

namespace fault = qw::fault;
using fault::Op;
using qwtest::ReadFileBytes;
using qwtest::WriteFileBytes;

struct Step {
  const char *op;
  std::string path;
  std::function<int()> run;
};

int IgnoreEntry(void *, const char *) { return 0; }

// A workload of one seam operation per step, covering every kind, with independent steps (no failure can cascade).
class FaultInjectionTest : public qwtest::FaultTempDirTest {
 protected:
  // Fresh files, handles and mappings, then the seam reset so that counting starts at zero.
  void Prepare() {
    fault::Reset();
    std::filesystem::remove_all(W(""));
    std::filesystem::create_directories(W("emptydir"));
    for (const char *name : {"from", "trunc", "remove"}) WriteFileBytes(W(name), name);
    WriteFileBytes(W("data"), std::string(PageSize(), 'd'));
    ASSERT_EQ(QWFileOpen(&handle_, W("data").c_str(), QWFILE_READ | QWFILE_WRITE), 1);
    ASSERT_EQ(QWFileOpen(&closeMe_, W("data").c_str(), QWFILE_READ), 1);
    ASSERT_TRUE((mapped_ = FileMapSegment(handle_, 0, PageSize(), QW_MAP_READ)) &&
                (unmapMe_ = FileMapSegment(handle_, 0, PageSize(), QW_MAP_READ)));
    fault::Reset();
  }
  // Undoes Prepare and the steps, with no rule left to interfere.
  void Finish() {
    fault::Reset();
    for (QWFILE file : {handle_, closeMe_, opened_}) QWFileClose(file);
    for (void *segment : {mapped_, unmapMe_, segment_})
      if (segment) FileUnmap(segment, PageSize());
    handle_ = closeMe_ = opened_ = QWFILE_INVALID;
    mapped_ = unmapMe_ = segment_ = nullptr;
    QWErrorClear();
  }
  std::string W(const std::string &name) const { return path("work/" + name); }
  std::vector<Step> Steps() {
    return {
        {"open", W("data"), [this] { return QWFileOpen(&opened_, W("data").c_str(), QWFILE_READ); }},
        {"read", W("data"), [this] { return QWFileReadData(handle_, 0, bytes_, 4, nullptr); }},
        {"write", W("data"), [this] { return QWFileWriteData(handle_, 1, "w", 1); }},
        {"setsize", W("data"), [this] { return QWFileSetSize(handle_, PageSize()); }},
        {"stat", W("data"), [this] { return QWFileGetSize(handle_, &size_); }},
        {"sync", W("data"), [this] { return QWFileSync(handle_); }},
        {"advise", W("data"), [this] { return FileSetReadSize(handle_, 0); }},
        {"stat", W("trunc"), [this] { return FileSize(W("trunc").c_str(), &size_); }},
        {"rename", W("from"), [this] { return FileRename(W("from").c_str(), W("to").c_str()); }},
        {"truncate", W("trunc"), [this] { return FileTruncate(W("trunc").c_str(), 2); }},
        {"mkdir", W("new/dir"), [this] { return DirectoryCreate(W("new/dir").c_str()); }},
        {"list", W(""), [this] { return DirectoryList(W("").c_str(), IgnoreEntry, nullptr); }},
        {"dirsync", W(""), [this] { return DirectorySync(W("").c_str()); }},
        {"remove", W("remove"), [this] { return FileRemove(W("remove").c_str()); }},
        {"map", W("data"), [this] { return (segment_ = FileMapSegment(handle_, 0, PageSize(), QW_MAP_READ)) != nullptr; }},
        {"mapsync", W("data"), [this] { return FileMapSync(mapped_, PageSize()); }},
        {"advise", W("data"), [this] { return MemoryAdvise(mapped_, PageSize(), QW_ADVICE_NORMAL); }},
        {"rmdir", W("emptydir"), [this] { return DirectoryRemove(W("emptydir").c_str()); }},
        {"close", W("data"), [this] { return QWFileClose(std::exchange(closeMe_, QWFILE_INVALID)); }},
        {"unmap", W("data"), [this] { return FileUnmap(std::exchange(unmapMe_, nullptr), PageSize()); }},
    };
  }

  QWFILE handle_ = QWFILE_INVALID, closeMe_ = QWFILE_INVALID, opened_ = QWFILE_INVALID;
  void *mapped_ = nullptr, *unmapMe_ = nullptr, *segment_ = nullptr;
  uint64_t size_ = 0;
  char bytes_[4];
};

// Armed without a rule, every step passes the seam exactly once (three of them syncs: file, directory and mapping);
// disarmed, nothing is counted. For every n, exactly the n-th operation fails (transient rule), or every operation from
// the n-th on (persistent rule), with the injected message innermost and code 5. A failed operation leaves the disk
// alone (close excepted: it still releases the descriptor).
TEST_F(FaultInjectionTest, EveryOperationPassesOnceAndTheNthFails) {
  const size_t count = 20;
  for (int armed = 0; armed < 2; ++armed) {
    Prepare();
    if (!armed) fault::Disable();
    const std::vector<Step> steps = Steps();
    ASSERT_EQ(steps.size(), count);
    for (size_t i = 0; i < count; ++i) {
      ASSERT_EQ(steps[i].run(), 1) << steps[i].op << ": " << QWErrorMessage();
      ASSERT_EQ(fault::OperationCount(), armed ? i + 1 : 0) << "step " << i << " (" << steps[i].op << ")";
    }
    EXPECT_EQ(fault::SyncCount(), armed ? 3u : 0u);
    Finish();
  }
  for (const bool persistent : {false, true}) {
    for (size_t n = 1; n <= count; ++n) {
      SCOPED_TRACE(testing::Message() << "n=" << n << " persistent=" << persistent);
      Prepare();
      const int fd = QWFileGetIntHandle(closeMe_);
      fault::FailNth(n, persistent);
      const std::vector<Step> steps = Steps();
      for (size_t i = 0; i < count; ++i) {
        QWErrorClear();
        const bool shouldFail = i + 1 == n || (persistent && i + 1 > n);
        ASSERT_EQ(steps[i].run(), shouldFail ? 0 : 1) << steps[i].op << ": " << QWErrorMessage();
        EXPECT_TRUE(!shouldFail || qwtest::HasError(EIO, "injected I/O error in " + std::string(steps[i].op) + " \"" +
                                                             steps[i].path + "\"\n", qwtest::Match::Prefix));
        EXPECT_TRUE(!shouldFail || QWErrorClass() == QW_ERROR_CLASS_SYSTEM);
      }
      EXPECT_EQ(fault::OperationCount(), count);
      if (persistent && n == 1) {  // every operation failed
        EXPECT_EQ(fcntl(fd, F_GETFD), -1);
        EXPECT_EQ(ReadFileBytes(W("data")), std::string(PageSize(), 'd'));
        EXPECT_EQ(ReadFileBytes(W("from")) + ReadFileBytes(W("trunc")) + ReadFileBytes(W("remove")), "fromtruncremove");
        for (const char *name : {"to", "new"}) EXPECT_FALSE(std::filesystem::exists(W(name))) << name;
        EXPECT_TRUE(std::filesystem::exists(W("emptydir")));
      }
      Finish();
    }
  }
}

TEST_F(FaultInjectionTest, KindAndPathRulesSelectOperations) {
  QWFILE alpha, beta;
  ASSERT_EQ(QWFileOpen(&alpha, path("alpha").c_str(), QWFILE_READ | QWFILE_WRITE | QWFILE_CREATE), 1);
  ASSERT_EQ(QWFileOpen(&beta, path("beta").c_str(), QWFILE_READ | QWFILE_WRITE | QWFILE_CREATE), 1);
  // (An n-th rule counts only the operations of its kind and path: FaultSeamConcurrencyTest.)
  fault::Reset();
  fault::FailPath("beta", Op::Sync | Op::Stat);
  uint64_t size = 0;
  for (int i = 0; i < 3; ++i) {
    EXPECT_EQ(QWFileSync(beta) + QWFileGetSize(beta, &size), 0);
    EXPECT_EQ(QWFileSync(alpha) + QWFileWriteData(beta, 2, "b", 1), 2);
  }
  EXPECT_EQ(fault::OperationCount(), 12u);
  // A rename matches on either of its names.
  fault::Reset();
  fault::FailPath("beta", fault::Bit(Op::Rename));
  EXPECT_EQ(FileRename(path("alpha").c_str(), path("beta-new").c_str()), 0);
  EXPECT_EQ(FileRename(path("beta").c_str(), path("gamma").c_str()), 0);
  EXPECT_EQ(FileRename(path("alpha").c_str(), path("gamma").c_str()), 1);
  fault::Reset();
  EXPECT_EQ(QWFileClose(alpha) + QWFileClose(beta), 2);
}

// Threads hammer the seam while rules and counters are live: counts stay exact, only the chosen file's operations fail.
using FaultSeamConcurrencyTest = FaultInjectionTest;

TEST_F(FaultSeamConcurrencyTest, CountsAndRulesStayExact) {
  constexpr int kThreads = 4, kWrites = 300;
  std::vector<QWFILE> files(kThreads);
  for (int t = 0; t < kThreads; ++t)
    ASSERT_EQ(QWFileOpen(&files[t], (path("t") + std::to_string(t)).c_str(), QWFILE_WRITE | QWFILE_CREATE), 1);
  fault::Reset();
  // Whole paths: a short name could also occur in the random directory name.
  fault::FailPath(path("t2").c_str(), fault::Bit(Op::Write));
  fault::FailNth(50, true, fault::Bit(Op::Sync), path("t1").c_str());
  std::vector<int> failures(kThreads);
  std::vector<std::thread> threads;
  for (int t = 0; t < kThreads; ++t)
    threads.emplace_back([&, t] {
      for (int i = 0; i < kWrites; ++i)
        failures[t] += !QWFileWriteData(files[t], uint64_t(i), "x", 1) + !QWFileSync(files[t]);
    });
  for (std::thread &thread : threads) thread.join();
  EXPECT_EQ(fault::OperationCount(), uint64_t(2 * kThreads * kWrites));
  EXPECT_EQ(fault::SyncCount(), uint64_t(kThreads * kWrites));
  EXPECT_EQ(failures, (std::vector<int>{0, kWrites - 49, kWrites, 0}));
  fault::Reset();
  for (QWFILE file : files) EXPECT_EQ(QWFileClose(file), 1);
}

}  // namespace
