// The fault seam's error injection: every file, directory and mapping
// operation passes it exactly once, the n-th matching operation fails (once
// or from then on), path and kind rules select operations, and the seam is
// safe to use from several threads.
#include "platform/qwlib/fault.h"

#include <fcntl.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <filesystem>
#include <functional>
#include <string>
#include <thread>
#include <vector>

#include "support/platform_support.h"

namespace {

namespace fault = qw::fault;
using fault::Op;
using qwtest::WriteFileBytes;

struct Step {
  const char *op;
  std::string path;
  std::function<int()> run;
};

int IgnoreEntry(void *, const char *) { return 0; }

// A workload of one seam operation per step, covering every kind, whose
// steps do not depend on each other (so one failure cannot cascade).
class SeamWorkload : public qwtest::FaultTempDirTest {
 protected:
  // Fresh files, handles and mappings; the seam is armed so that mappings
  // carry their file's name, then reset so that counting starts at zero.
  void Prepare() {
    fault::Reset();
    std::filesystem::remove_all(path("work"));
    std::filesystem::create_directories(path("work/emptydir"));
    WriteFileBytes(data(), std::string(PageSize(), 'd'));
    WriteFileBytes(path("work/from"), "from");
    WriteFileBytes(path("work/trunc"), "truncate me");
    WriteFileBytes(path("work/remove"), "remove me");
    ASSERT_EQ(QWFileOpen(&handle_, data().c_str(), QWFILE_READ | QWFILE_WRITE), 1);
    ASSERT_EQ(QWFileOpen(&closeMe_, data().c_str(), QWFILE_READ), 1);
    mapped_ = FileMapSegment(handle_, 0, PageSize(), QW_MAP_READ);
    unmapMe_ = FileMapSegment(handle_, 0, PageSize(), QW_MAP_READ);
    ASSERT_TRUE(mapped_ && unmapMe_);
    fault::Reset();
  }

  // Undoes Prepare and the steps, with no rule left to interfere.
  void Finish() {
    fault::Reset();
    for (QWFILE file : opened_) QWFileClose(file);
    opened_.clear();
    for (void *segment : segments_) FileUnmap(segment, PageSize());
    segments_.clear();
    FileUnmap(mapped_, PageSize());
    if (unmapMe_) FileUnmap(unmapMe_, PageSize());
    if (closeMe_) QWFileClose(closeMe_);
    QWFileClose(handle_);
    handle_ = closeMe_ = QWFILE_INVALID;
    mapped_ = unmapMe_ = nullptr;
    QWErrorClear();
  }

  std::string data() const { return path("work/data"); }

  std::vector<Step> Steps() {
    const std::string work = path("work");
    return {
        {"open", data(), [this] { return Open(); }},
        {"read", data(), [this] { return QWFileReadData(handle_, 0, bytes_, 4, nullptr); }},
        {"write", data(), [this] { return QWFileWriteData(handle_, 1, "w", 1); }},
        {"setsize", data(), [this] { return QWFileSetSize(handle_, PageSize()); }},
        {"stat", data(), [this] { return QWFileGetSize(handle_, &size_); }},
        {"sync", data(), [this] { return QWFileSync(handle_); }},
        {"advise", data(), [this] { return FileSetReadSize(handle_, 0); }},
        {"stat", path("work/trunc"), [this] { return FileSize(path("work/trunc").c_str(), &size_); }},
        {"rename", path("work/from"), [this] { return FileRename(path("work/from").c_str(), path("work/to").c_str()); }},
        {"truncate", path("work/trunc"), [this] { return FileTruncate(path("work/trunc").c_str(), 2); }},
        {"mkdir", path("work/new/dir"), [this] { return DirectoryCreate(path("work/new/dir").c_str()); }},
        {"list", work, [work] { return DirectoryList(work.c_str(), IgnoreEntry, nullptr); }},
        {"dirsync", work, [work] { return DirectorySync(work.c_str()); }},
        {"remove", path("work/remove"), [this] { return FileRemove(path("work/remove").c_str()); }},
        {"map", data(), [this] { return Map(); }},
        {"mapsync", data(), [this] { return FileMapSync(mapped_, PageSize()); }},
        {"advise", data(), [this] { return MemoryAdvise(mapped_, PageSize(), QW_ADVICE_NORMAL); }},
        {"rmdir", path("work/emptydir"), [this] { return DirectoryRemove(path("work/emptydir").c_str()); }},
        {"close", data(), [this] { return QWFileClose(std::exchange(closeMe_, QWFILE_INVALID)); }},
        {"unmap", data(), [this] { return Unmap(); }},
    };
  }

 private:
  int Open() {
    QWFILE file = QWFILE_INVALID;
    const int result = QWFileOpen(&file, data().c_str(), QWFILE_READ);
    if (result) opened_.push_back(file);
    return result;
  }
  int Map() {
    void *segment = FileMapSegment(handle_, 0, PageSize(), QW_MAP_READ);
    if (segment) segments_.push_back(segment);
    return segment != nullptr;
  }
  int Unmap() {
    const int result = FileUnmap(unmapMe_, PageSize());
    if (result) unmapMe_ = nullptr;
    return result;
  }

  QWFILE handle_ = QWFILE_INVALID;
  QWFILE closeMe_ = QWFILE_INVALID;
  void *mapped_ = nullptr;
  void *unmapMe_ = nullptr;
  std::vector<QWFILE> opened_;
  uint64_t size_ = 0;
  char bytes_[4];
  std::vector<void *> segments_;
};

using FaultInjectionTest = SeamWorkload;
using FaultSeamConcurrencyTest = SeamWorkload;

std::string Injected(const Step &step) {
  return "injected I/O error in " + std::string(step.op) + " \"" + step.path + "\"";
}

// Armed, every step passes the seam exactly once (three of them syncs:
// file, directory and mapping); disarmed, nothing is counted.
TEST_F(FaultInjectionTest, EveryOperationPassesTheSeamOnce) {
  for (const bool armed : {true, false}) {
    Prepare();
    if (!armed) fault::Disable();
    const std::vector<Step> steps = Steps();
    for (size_t i = 0; i < steps.size(); ++i) {
      ASSERT_EQ(steps[i].run(), 1) << steps[i].op << ": " << QWErrorMessage();
      ASSERT_EQ(fault::OperationCount(), armed ? i + 1 : 0) << "step " << i << " (" << steps[i].op << ")";
    }
    EXPECT_EQ(fault::SyncCount(), armed ? 3u : 0u);
    Finish();
  }
}

// For every n, exactly the n-th operation fails (transient rule), or every
// operation from the n-th on (persistent rule), with the injected message
// innermost and code 5.
TEST_F(FaultInjectionTest, NthOperationFailsTransientOrPersistent) {
  Prepare();
  const size_t count = Steps().size();
  Finish();
  for (const bool persistent : {false, true}) {
    for (size_t n = 1; n <= count; ++n) {
      SCOPED_TRACE(testing::Message() << "n=" << n << " persistent=" << persistent);
      Prepare();
      fault::FailNth(n, persistent);
      const std::vector<Step> steps = Steps();
      for (size_t i = 0; i < steps.size(); ++i) {
        QWErrorClear();
        const int result = steps[i].run();
        const bool shouldFail = i + 1 == n || (persistent && i + 1 > n);
        ASSERT_EQ(result, shouldFail ? 0 : 1) << steps[i].op << ": " << QWErrorMessage();
        if (!shouldFail) continue;
        EXPECT_EQ(QWErrorClass(), QW_ERROR_CLASS_SYSTEM);
        EXPECT_TRUE(qwtest::HasError(EIO, Injected(steps[i]) + "\n", qwtest::Match::Prefix));
      }
      EXPECT_EQ(fault::OperationCount(), count);
      Finish();
    }
  }
}

// A failed operation leaves the disk alone (close excepted: it releases).
TEST_F(FaultInjectionTest, InjectedFailuresHaveNoEffect) {
  Prepare();
  fault::FailPath(path("work").c_str());
  for (const Step &step : Steps()) EXPECT_EQ(step.run(), 0) << step.op;
  fault::Reset();
  EXPECT_EQ(qwtest::ReadFileBytes(data()), std::string(PageSize(), 'd'));
  EXPECT_EQ(qwtest::ReadFileBytes(path("work/from")), "from");
  EXPECT_FALSE(std::filesystem::exists(path("work/to")));
  EXPECT_EQ(qwtest::ReadFileBytes(path("work/trunc")), "truncate me");
  EXPECT_FALSE(std::filesystem::exists(path("work/new")));
  EXPECT_TRUE(std::filesystem::exists(path("work/remove")));
  EXPECT_TRUE(std::filesystem::exists(path("work/emptydir")));
  Finish();
}

TEST_F(FaultInjectionTest, KindAndPathRulesSelectOperations) {
  WriteFileBytes(path("alpha"), "");
  WriteFileBytes(path("beta"), "");
  QWFILE alpha, beta;
  ASSERT_EQ(QWFileOpen(&alpha, path("alpha").c_str(), QWFILE_READ | QWFILE_WRITE), 1);
  ASSERT_EQ(QWFileOpen(&beta, path("beta").c_str(), QWFILE_READ | QWFILE_WRITE), 1);
  fault::Reset();
  fault::FailNth(2, false, fault::Bit(Op::Write), "beta");
  EXPECT_EQ(QWFileWriteData(alpha, 0, "a", 1), 1);
  EXPECT_EQ(QWFileWriteData(beta, 0, "b", 1), 1);  // first matching write
  EXPECT_EQ(QWFileSync(beta), 1);                  // not a write
  EXPECT_EQ(QWFileWriteData(alpha, 1, "a", 1), 1);
  EXPECT_EQ(QWFileWriteData(beta, 1, "b", 1), 0);  // second matching write
  EXPECT_TRUE(qwtest::HasExactError(EIO, "injected I/O error in write \"" + path("beta") + "\"\ncould not write file \"" +
                                             path("beta") + "\" at offset 1"));
  EXPECT_EQ(QWFileWriteData(beta, 1, "b", 1), 1);  // transient: once only

  fault::Reset();
  fault::FailPath("beta", Op::Sync | Op::Stat);
  uint64_t size = 0;
  for (int i = 0; i < 3; ++i) {
    EXPECT_EQ(QWFileSync(beta), 0);
    EXPECT_EQ(QWFileGetSize(beta, &size), 0);
    EXPECT_EQ(QWFileSync(alpha), 1);
    EXPECT_EQ(QWFileWriteData(beta, 2, "b", 1), 1);
  }
  EXPECT_EQ(fault::OperationCount(), 12u);

  // A rename matches on either of its names.
  fault::Reset();
  fault::FailPath("beta", fault::Bit(Op::Rename));
  EXPECT_EQ(FileRename(path("alpha").c_str(), path("beta-new").c_str()), 0);
  EXPECT_EQ(FileRename(path("beta").c_str(), path("gamma").c_str()), 0);
  EXPECT_EQ(FileRename(path("alpha").c_str(), path("gamma").c_str()), 1);
  fault::Reset();
  EXPECT_EQ(QWFileClose(alpha), 1);
  EXPECT_EQ(QWFileClose(beta), 1);
}

TEST_F(FaultInjectionTest, InjectedCloseStillReleasesTheDescriptor) {
  WriteFileBytes(path("f"), "x");
  QWFILE file;
  ASSERT_EQ(QWFileOpen(&file, path("f").c_str(), QWFILE_READ), 1);
  const int fd = QWFileGetIntHandle(file);
  fault::Reset();
  fault::FailNth(1, false, fault::Bit(Op::Close));
  EXPECT_EQ(QWFileClose(file), 0);
  EXPECT_EQ(QWErrorCode(), EIO);
  errno = 0;
  EXPECT_EQ(fcntl(fd, F_GETFD), -1);
  EXPECT_EQ(errno, EBADF);
}

// Threads hammer the seam while rules and counters are live: counts stay
// exact and only the selected file's operations fail.
TEST_F(FaultSeamConcurrencyTest, CountsAndRulesStayExact) {
  constexpr int kThreads = 4;
  constexpr int kWrites = 300;
  std::vector<QWFILE> files(kThreads);
  for (int t = 0; t < kThreads; ++t)
    ASSERT_EQ(QWFileOpen(&files[t], path("t" + std::to_string(t)).c_str(), QWFILE_WRITE | QWFILE_CREATE), 1);
  fault::Reset();
  fault::FailPath("t2", fault::Bit(Op::Write));
  fault::FailNth(50, true, fault::Bit(Op::Sync), "t1");
  std::atomic<int> failures[kThreads] = {};
  std::vector<std::thread> threads;
  for (int t = 0; t < kThreads; ++t)
    threads.emplace_back([&, t] {
      for (int i = 0; i < kWrites; ++i) {
        if (!QWFileWriteData(files[t], uint64_t(i), "x", 1)) failures[t]++;
        if (!QWFileSync(files[t])) failures[t]++;
      }
    });
  for (std::thread &thread : threads) thread.join();
  EXPECT_EQ(fault::OperationCount(), uint64_t(2 * kThreads * kWrites));
  EXPECT_EQ(fault::SyncCount(), uint64_t(kThreads * kWrites));
  EXPECT_EQ(failures[0].load(), 0);
  EXPECT_EQ(failures[1].load(), kWrites - 49);
  EXPECT_EQ(failures[2].load(), kWrites);
  EXPECT_EQ(failures[3].load(), 0);
  fault::Reset();
  for (QWFILE file : files) EXPECT_EQ(QWFileClose(file), 1);
}

}  // namespace
