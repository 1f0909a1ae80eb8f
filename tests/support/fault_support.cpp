#include "support/fault_support.h"

#include <unistd.h>

#include <cstdio>

namespace qwtest {
namespace fault = qw::fault;

namespace {

[[noreturn]] void FailChild(int status) {
  std::printf("%s\n", QWErrorMessage());
  std::fflush(stdout);
  _exit(status);
}

}  // namespace

void SetCrashStop(const char *stop, const std::string &directory) {
  QWSetEnvironmentVariable("QWEXIT", stop);
  QWSetEnvironmentVariable("QWVMEXIT", stop ? directory.c_str() : nullptr);
}

::testing::AssertionResult CrashAtStop(const char *stop, const std::string &directory,
                                       const std::function<bool()> &prepare, const std::function<void()> &act,
                                       bool fires) {
  const ChildResult child = RunInChild([&] {
    if (prepare && !prepare()) FailChild(3);
    SetCrashStop(stop, directory);
    act();
  });
  if (!child.exited || child.exitStatus != (fires ? 1 : 0))
    return ::testing::AssertionFailure() << "stop " << stop << ": child ended with status " << child.exitStatus
                                         << ", signal " << child.signal << ": " << child.out;
  const std::string line = fires ? "########## SIMULATED CRASH vm = " + directory + ", stop = " + stop + "\n" : "";
  if (child.out != line) return ::testing::AssertionFailure() << "stop " << stop << " printed " << child.out;
  return ::testing::AssertionSuccess();
}

PowerLossRun PowerLossChild(uint64_t n, Loss loss, const std::function<bool()> &prepare,
                            const std::function<bool()> &act, bool loseAfter) {
  const ChildResult child = RunInChild([&] {
    fault::Reset();
    fault::EnableDurabilityTracking(true);
    if (prepare && !prepare()) FailChild(3);
    const uint64_t before = fault::SyncCount();
    if (n) fault::CrashAtSync(n, loss.mode, loss.seed);
    if (!act()) FailChild(4);
    std::printf("%llu", static_cast<unsigned long long>(fault::SyncCount() - before));
    std::fflush(stdout);
    if (loseAfter) fault::SimulatePowerLoss(loss.mode, loss.seed);
    _exit(2);
  });
  PowerLossRun run;
  run.out = child.out;
  if (!child.exited) return run;
  run.status = child.exitStatus;
  if (run.status == 2) run.syncs = std::strtoull(child.out.c_str(), nullptr, 10);
  return run;
}

::testing::AssertionResult FailsWithIOError(const IOFault &injected, const std::function<bool()> &act,
                                            const std::string &message) {
  fault::Reset();
  if (injected.n == 0) {
    fault::FailPath(injected.path, injected.ops);
  } else {
    fault::FailNth(injected.n, injected.persistent, injected.ops, injected.path);
  }
  const bool ok = act();
  fault::Disable();
  const std::string chain = QWErrorMessage();
  if (ok) return ::testing::AssertionFailure() << "succeeded despite the injected error";
  if (chain.find("injected I/O error") == std::string::npos || chain.find(message) == std::string::npos)
    return ::testing::AssertionFailure() << "error chain lacks the injected error or \"" << message << "\": " << chain;
  return ::testing::AssertionSuccess();
}

}  // namespace qwtest
