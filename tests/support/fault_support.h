// Crash safety and disk failures in tests: children stopped at a named crash
// stop, children that lose power at the n-th sync, and I/O errors injected
// through the file seam. A crash child's parent reopens and checks the state.
#pragma once

#include <cstdint>
#include <functional>
#include <string>
#include <vector>

#include "platform/qwlib/fault.h"
#include "support/test_support.h"

namespace qwtest {

// Sets QWEXIT=stop and QWVMEXIT=directory (nullptr stop clears both).
void SetCrashStop(const char *stop, const std::string &directory = "");

// Child: runs `prepare` (false: exit 3 with the error chain printed), sets the
// stop and runs `act`, then exits 0. Success when the child exited with
// status 1 after printing exactly the crash line of `stop` in `directory`;
// with `fires` false (a stop the path does not reach), when it exited 0.
::testing::AssertionResult CrashAtStop(const char *stop, const std::string &directory,
                                       const std::function<bool()> &prepare, const std::function<void()> &act,
                                       bool fires = true);

// A power loss: what happens to pending writes, and the seed of Garble.
struct Loss {
  qw::fault::PowerLoss mode;
  uint64_t seed = 0;
};

// How a power-loss child ended: status 1 power lost at sync n inside `act`;
// 2 act returned true (and power was lost then, with loseAfter); 3 prepare
// failed; 4 act failed; -1 killed. `syncs`: the syncs act made (status 2).
struct PowerLossRun {
  int status = -1;
  uint64_t syncs = 0;
  std::string out;  // error chain of a failure
};

// Child with the file seam armed and durability tracking on: `prepare`, then
// (n > 0) CrashAtSync(n, loss) and `act`. Run with n = 0 first to learn how
// many syncs act makes, then over SweepPoints(1, syncs + 1, ...).
PowerLossRun PowerLossChild(uint64_t n, Loss loss, const std::function<bool()> &prepare,
                            const std::function<bool()> &act, bool loseAfter = true);

// Where the seam injects an I/O error: the n-th operation of a kind in `ops`
// on a path containing `path` (persistent: that one and every later match;
// n = 0: every match, as FailPath).
struct IOFault {
  uint32_t ops;
  const char *path = "";
  uint64_t n = 1;
  bool persistent = false;
};

// Runs `act` with `fault` armed, then disarms the seam. Success when act
// returned false and the error chain holds the injected error and `message`.
::testing::AssertionResult FailsWithIOError(const IOFault &fault, const std::function<bool()> &act,
                                            const std::string &message = "");

}  // namespace qwtest
