// Power loss during a commit: a child arms the file seam so that the n-th
// sync of the commit loses every write not yet durable (or garbles it) and
// ends the process; for every n the commit reaches, the reopened arena holds
// exactly the previous or the new generation, and a commit that returned 1
// survives a power loss right after it.
#include <filesystem>

#include "arena_fixture.h"
#include "support/fault_support.h"

namespace {

using namespace arenatest;
using qw::fault::PowerLoss;

class PowerLossDuringCommit : public ArenaTest, public ::testing::WithParamInterface<Mode> {
 protected:
  // Child: tag 2 everywhere and new blocks, then the commit.
  qwtest::PowerLossRun CommitInChild(uint64_t crashAtSync, qwtest::Loss loss) {
    return qwtest::PowerLossChild(
        crashAtSync, loss,
        [&] {
          if (!Reopen(GetParam())) return false;
          for (uint64_t id : ids) Fill(arena, id, 2);
          for (int i = 0; i < 6; ++i) Fill(arena, VMArenaBlockNew(arena, 0, 8192, nullptr, 0), 2);
          return true;
        },
        [&] { return VMArenaCommit(arena, nullptr, nullptr, 0) == 1; });
  }

  // The committed generation after the power loss: 1 or 2, never a mix.
  // The arena commits again afterwards.
  int ReopenedTag() {
    if (!Reopen(GetParam())) {
      ADD_FAILURE() << "reopen failed: " << QWErrorMessage();
      return -1;
    }
    int tag = -1;
    for (uint32_t t : {1u, 2u})
      if (CountHolding(arena, ids, OLDGEN, t) == ids.size()) tag = int(t);
    for (uint64_t id : ids) Fill(arena, id, 7);
    EXPECT_TRUE(Commit()) << QWErrorMessage();
    CloseArena();
    return tag;
  }

  std::vector<uint64_t> ids;
};

TEST_P(PowerLossDuringCommit, EveryLostSyncLeavesTheOldOrTheNewGeneration) {
  ASSERT_TRUE(Reopen(GetParam(), VM_FLAG_CREATE)) << QWErrorMessage();
  for (uint32_t i = 0; i < 24; ++i) {
    ids.push_back(VMArenaBlockNew(arena, 0, i % 3 == 0 ? 8192 : 90 + 333 * i, nullptr, 0));
    Fill(arena, ids.back(), 1);
  }
  ASSERT_TRUE(Commit()) << QWErrorMessage();
  CloseArena();
  const std::string snapshot = path("snapshot");
  std::filesystem::copy(arenaDir(), snapshot, std::filesystem::copy_options::recursive);
  const uint64_t prepSerialOld = serialOld, prepSerialNew = serialNew;

  const qwtest::PowerLossRun counting = CommitInChild(0, {PowerLoss::Drop});  // how many syncs a commit makes
  ASSERT_EQ(counting.status, 2) << counting.out;
  ASSERT_GT(counting.syncs, 2u);

  for (const qwtest::Loss loss : {qwtest::Loss{PowerLoss::Drop}, {PowerLoss::Garble, 1}, {PowerLoss::Garble, 2}}) {
    for (uint64_t n : qwtest::SweepPoints(1, counting.syncs + 1, 3)) {
      std::filesystem::remove_all(arenaDir());
      std::filesystem::copy(snapshot, arenaDir(), std::filesystem::copy_options::recursive);
      serialOld = prepSerialOld, serialNew = prepSerialNew;
      const qwtest::PowerLossRun run = CommitInChild(n, loss);
      ASSERT_TRUE(run.status == 1 || run.status == 2) << "status " << run.status << " at sync " << n << run.out;
      // A serialised arena is reopened at the serials its owner recorded:
      // the new ones only once the commit returned.
      if (GetParam().serialised && run.status == 2) serialOld = prepSerialOld + 1, serialNew = prepSerialNew + 1;
      const int tag = ReopenedTag();
      EXPECT_TRUE(tag == 1 || tag == 2) << "mixed state after losing sync " << n;
      if (run.status == 2) {
        EXPECT_EQ(tag, 2) << "a returned commit was lost (sync " << n << ")";
      }
    }
  }
}

INSTANTIATE_TEST_SUITE_P(Modes, PowerLossDuringCommit, ::testing::Values(kCache, kCacheSerial, kMapped, kExtents),
                         ModeName);

}  // namespace
