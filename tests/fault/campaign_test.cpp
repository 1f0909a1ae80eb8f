// The fault campaign (README.md): every workload, in a create and an update
// phase, under power loss at each sync (writes not yet durable dropped or
// garbled) and an I/O error at each operation (transient and persistent).
// After each fault the reopened store holds exactly the state before or
// after the phase (after, when the commit returned 1), and a state before
// commits the round again. Points are sampled evenly (first and last
// always); QWVM_FAULT_FULL=1 runs every point. Each test prints
// "fault points: <workload> <phase> <kind> <run> of <reached>, x2".
#include <gtest/gtest.h>

#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <string>
#include <unistd.h>

#if defined(__SANITIZE_ADDRESS__)
#include <sanitizer/lsan_interface.h>
#endif

#include "fault/workloads.h"
#include "platform/qwlib/fault.h"
#include "support/test_support.h"

namespace faulttest {
namespace {

namespace fs = std::filesystem;
using qw::fault::PowerLoss;

constexpr char kInjected[] = "injected I/O error";

struct Phase {
  const char *name;
  bool create;     // from an empty directory
  uint32_t round;  // the round the phase runs
};
constexpr Phase kPhases[] = {{"create", true, 1}, {"update", false, 2}};

// How many points of a sweep over 1..reached run: a fifth under the
// sanitizers, where each point costs five to ten times more (the normal
// build runs the whole budget and run_long.sh every point).
uint64_t Budget(uint64_t normal) {
  const char *full = std::getenv("QWVM_FAULT_FULL");
  if (full && std::string(full) == "1") return UINT64_MAX;
  return qwtest::SweepStride(5) > 1 ? normal / 5 : normal;
}

// Evenly spread points of 1..reached, at most `budget`, first and last included.
std::vector<uint64_t> SamplePoints(uint64_t reached, uint64_t budget) {
  std::vector<uint64_t> points;
  if (reached == 0) return points;
  const uint64_t stride = budget >= reached ? 1 : (reached + budget - 2) / (budget - 1);
  for (uint64_t n = 1; n < reached; n += stride) points.push_back(n);
  points.push_back(reached);
  return points;
}

// Where two dumps part: the first differing line of each.
std::string FirstDifference(const std::string &actual, const std::string &expected) {
  size_t start = 0;
  while (start < actual.size() && start < expected.size()) {
    const size_t a = actual.find('\n', start), e = expected.find('\n', start);
    if (a != e || actual.compare(start, a - start, expected, start, e - start) != 0) break;
    start = a + 1;
  }
  auto line = [start](const std::string &text) { return text.substr(start, text.find('\n', start) - start); };
  return "line \"" + line(actual) + "\" where \"" + line(expected) + "\" was expected";
}

// A page cache for one run of a phase (so that no run sees another's pages).
struct RunCache {
  RunCache() : cache(PageCacheNew(8 << 20, 8192)) {}
  ~RunCache() { PageCacheFree(cache); }
  PageCache *cache;
};

class Campaign : public qwtest::TempDirTest, public ::testing::WithParamInterface<WorkloadKind> {
 protected:
  void SetUp() override {
    qwtest::TempDirTest::SetUp();
    previousHandler = QWSetMessageHandler(Silent, nullptr, &previousContext);
  }
  void TearDown() override {
    qw::fault::Disable();
    QWSetMessageHandler(previousHandler, previousContext, nullptr);
    qwtest::TempDirTest::TearDown();
  }

  QWMessageHandler previousHandler = nullptr;
  void *previousContext = nullptr;

  std::string storeDir() const { return path("store"); }
  std::string snapshotDir() const { return path("snapshot"); }

  // Builds and snapshots the state before `phase`; a run without faults gives
  // the dumps and how many syncs and operations the phase makes.
  void Prepare(const Phase &phase) {
    base = GetParam().make();
    fs::remove_all(storeDir());
    if (!phase.create) {
      RunCache run;
      ASSERT_TRUE(base->Open(storeDir(), run.cache, true)) << QWErrorMessage();
      ASSERT_TRUE(base->Apply(1) && base->Commit()) << QWErrorMessage();
      base->Close();
    }
    fs::remove_all(snapshotDir());
    if (fs::exists(storeDir())) fs::copy(storeDir(), snapshotDir(), fs::copy_options::recursive);
    before = ReopenedDump(base.get());
    ASSERT_EQ(before.rfind("error", 0), std::string::npos) << before;
    ASSERT_TRUE(before == base->ModelDump()) << FirstDifference(before, base->ModelDump());

    Restore();
    std::unique_ptr<Workload> reference = base->Clone();
    {
      RunCache run;
      qw::fault::Reset();
      ASSERT_TRUE(reference->Open(storeDir(), run.cache, phase.create)) << QWErrorMessage();
      ASSERT_TRUE(reference->Apply(phase.round) && reference->Commit()) << QWErrorMessage();
      syncs = qw::fault::SyncCount();
      operations = qw::fault::OperationCount();
      qw::fault::Disable();
      reference->Close();
    }
    after = ReopenedDump(reference.get());
    ASSERT_TRUE(after == reference->ModelDump()) << FirstDifference(after, reference->ModelDump());
    ASSERT_NE(after, before);
  }

  void Restore() {
    fs::remove_all(storeDir());
    if (fs::exists(snapshotDir())) fs::copy(snapshotDir(), storeDir(), fs::copy_options::recursive);
  }

  std::string ReopenedDump(const Workload *model) {
    std::unique_ptr<Workload> w = model->Clone();
    RunCache run;
    if (!w->Open(storeDir(), run.cache, true)) return std::string("error: reopen: ") + QWErrorMessage();
    std::string dump = w->Dump(NEWGEN);
    w->Close();
    return dump;
  }

  void CheckRecovered(const Phase &phase, bool committed, const std::string &where) {
    std::unique_ptr<Workload> w = base->Clone();
    RunCache run;
    ASSERT_TRUE(w->Open(storeDir(), run.cache, true)) << where << ": reopen failed: " << QWErrorMessage();
    const std::string dump = w->Dump(NEWGEN);
    if (committed) {
      EXPECT_TRUE(dump == after) << where << ": a commit that returned 1 was lost: " << FirstDifference(dump, after);
    } else {
      EXPECT_TRUE(dump == before || dump == after)
          << where << ": neither the old nor the new state: " << FirstDifference(dump, before);
    }
    if (dump == before) {
      EXPECT_TRUE(w->Apply(phase.round) && w->Commit()) << where << ": the round does not commit again: "
                                                        << QWErrorMessage();
      const std::string again = w->Dump(NEWGEN);
      EXPECT_TRUE(again == after) << where << ": the round run again: " << FirstDifference(again, after);
    }
    w->Close();
  }

  // Exit 1: the loss hit inside the phase; 2: the commit returned and the
  // loss followed; 3: the phase failed without a fault (error on stdout).
  qwtest::ChildResult LosePowerAt(const Phase &phase, uint64_t sync, PowerLoss mode, uint64_t seed) {
    return qwtest::RunInChild([&] {
      qw::fault::Reset();
      qw::fault::CrashAtSync(sync, mode, seed);
      std::unique_ptr<Workload> w = base->Clone();
      RunCache run;
      if (!w->Open(storeDir(), run.cache, phase.create) || !w->Apply(phase.round) || !w->Commit()) {
        std::printf("%s", QWErrorMessage());
        std::fflush(stdout);
        _exit(3);
      }
      qw::fault::SimulatePowerLoss(mode, seed);
      _exit(2);
    });
  }

  // Prints "committed" or "failed" and the chain; exit 7 on a leak (ASan).
  qwtest::ChildResult FailOperation(const Phase &phase, uint64_t n, bool persistent) {
    return qwtest::RunInChild([&] {
      qw::fault::Reset();
      qw::fault::FailNth(n, persistent);
      {
        std::unique_ptr<Workload> w = base->Clone();
        RunCache run;
        const bool ok = w->Open(storeDir(), run.cache, phase.create) && w->Apply(phase.round) && w->Commit();
        std::printf("%s\n%s", ok ? "committed" : "failed", ok ? "" : QWErrorMessage());
        w->Close();
      }
      qw::fault::Disable();
      QWErrorClear();
      std::fflush(stdout);
#if defined(__SANITIZE_ADDRESS__)
      if (__lsan_do_recoverable_leak_check()) _exit(7);
#endif
      _exit(0);
    });
  }

  void Report(const Phase &phase, const char *kind, size_t run, uint64_t reached) {
    std::printf("fault points: %s %s %s %zu of %llu, x2\n", GetParam().name, phase.name, kind, run,
                static_cast<unsigned long long>(reached));
  }

  std::unique_ptr<Workload> base;
  std::string before, after;
  uint64_t syncs = 0, operations = 0;
};

TEST_P(Campaign, PowerLossAtEverySyncKeepsTheOldOrTheNewState) {
  for (const Phase &phase : kPhases) {
    ASSERT_NO_FATAL_FAILURE(Prepare(phase));
    ASSERT_GT(syncs, 0u);
    // syncs + 1: no sync is lost inside the phase; the loss follows the commit.
    const std::vector<uint64_t> points = SamplePoints(syncs + 1, Budget(24));
    const struct {
      PowerLoss mode;
      uint64_t seed;
    } losses[] = {{PowerLoss::Drop, 0}, {PowerLoss::Garble, 1}};
    for (const auto &loss : losses) {
      for (uint64_t n : points) {
        const std::string where = std::string(phase.name) + " sync " + std::to_string(n) +
                                  (loss.mode == PowerLoss::Drop ? " drop" : " garble");
        Restore();
        const qwtest::ChildResult child = LosePowerAt(phase, n, loss.mode, loss.seed + n);
        ASSERT_TRUE(child.exited && (child.exitStatus == 1 || child.exitStatus == 2))
            << where << ": child ended with " << (child.exited ? child.exitStatus : -child.signal) << "\n"
            << child.out;
        ASSERT_NO_FATAL_FAILURE(CheckRecovered(phase, child.exitStatus == 2, where));
      }
    }
    Report(phase, "power-loss", points.size(), syncs + 1);
  }
}

TEST_P(Campaign, IOErrorAtEveryOperationFailsCleanlyAndLaterCommitsSucceed) {
  for (const Phase &phase : kPhases) {
    ASSERT_NO_FATAL_FAILURE(Prepare(phase));
    const std::vector<uint64_t> points = SamplePoints(operations, Budget(40));
    for (bool persistent : {false, true}) {
      for (uint64_t n : points) {
        const std::string where = std::string(phase.name) + " operation " + std::to_string(n) +
                                  (persistent ? " persistent" : " transient");
        Restore();
        const qwtest::ChildResult child = FailOperation(phase, n, persistent);
        ASSERT_TRUE(child.exited && child.exitStatus == 0)
            << where << ": child ended with " << (child.exited ? child.exitStatus : -child.signal) << "\n"
            << child.out;
        const bool committed = child.out.rfind("committed", 0) == 0;
        if (!committed) {
          EXPECT_NE(child.out.find(kInjected), std::string::npos)
              << where << ": the error does not lead back to the I/O error:\n"
              << child.out;
        }
        ASSERT_NO_FATAL_FAILURE(CheckRecovered(phase, committed, where));
      }
    }
    Report(phase, "io-error", points.size(), operations);
  }
}

INSTANTIATE_TEST_SUITE_P(Workloads, Campaign, ::testing::ValuesIn(AllWorkloads()),
                         [](const auto &info) { return std::string(info.param.name); });

}  // namespace
}  // namespace faulttest
