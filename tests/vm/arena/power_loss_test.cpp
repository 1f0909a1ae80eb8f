// Power loss during a commit: a child arms the file seam so that the n-th
// sync of the commit loses every write not yet durable (or garbles it) and
// ends the process; for every n the commit reaches, the reopened arena holds
// exactly the previous or the new generation, and a commit that returned 1
// survives a power loss right after it.
#include <filesystem>

#include "arena_fixture.h"
#include "platform/qwlib/fault.h"

namespace {

using arenatest::ArenaTest;
using arenatest::Fill;
using arenatest::Holds;
using arenatest::kModes;
using qw::fault::PowerLoss;

class PowerLossDuringCommit : public ArenaTest, public ::testing::WithParamInterface<arenatest::Mode> {
 protected:
  void TearDown() override {
    qw::fault::Disable();
    ArenaTest::TearDown();
  }

  void Prepare() {
    VMArena *arena = Open(GetParam(), VM_FLAG_CREATE, 2);
    ASSERT_NE(arena, nullptr) << QWErrorMessage();
    for (uint32_t i = 0; i < 24; ++i) {
      ids.push_back(VMArenaBlockNew(arena, 0, i % 3 == 0 ? 8192 : 90 + 333 * i, nullptr, 0));
      Fill(arena, ids.back(), 1);
    }
    ASSERT_TRUE(arenatest::Commit(arena, &serialOld, &serialNew)) << QWErrorMessage();
    VMArenaClose(arena);
  }

  // Child: tag 2 everywhere, commit with the seam armed. Exit status 1: the
  // power loss hit inside the commit; 2: the commit returned 1 and a power
  // loss followed; 3: the commit failed otherwise.
  void CommitInChild(uint64_t crashAtSync, PowerLoss mode, uint64_t seed, uint64_t *syncsOut = nullptr) {
    auto child = qwtest::RunInChild([&] {
      qw::fault::Reset();
      qw::fault::EnableDurabilityTracking(true);
      VMArena *arena = Open(GetParam(), 0, 2);
      if (!arena) _exit(4);
      for (uint64_t id : ids) Fill(arena, id, 2);
      for (int i = 0; i < 6; ++i) Fill(arena, VMArenaBlockNew(arena, 0, 8192, nullptr, 0), 2);
      uint64_t before = qw::fault::SyncCount();
      if (crashAtSync) qw::fault::CrashAtSync(crashAtSync, mode, seed);
      bool ok = VMArenaCommit(arena, nullptr, nullptr, 0);
      std::printf("%llu\n", static_cast<unsigned long long>(qw::fault::SyncCount() - before));
      std::fflush(stdout);
      if (!ok) _exit(3);
      qw::fault::SimulatePowerLoss(mode, seed);
      _exit(2);
    });
    ASSERT_TRUE(child.exited);
    lastStatus = child.exitStatus;
    if (syncsOut) *syncsOut = std::strtoull(child.out.c_str(), nullptr, 10);
  }

  // The committed generation after the power loss: 1 or 2, never a mix.
  int ReopenedTag() {
    VMArena *arena = Open(GetParam(), 0, 2);
    if (!arena) {
      ADD_FAILURE() << "reopen failed: " << QWErrorMessage();
      return -1;
    }
    int tag = -1;
    for (int t : {1, 2}) {
      int matching = 0;
      for (uint64_t id : ids) matching += Holds(arena, id, OLDGEN, uint32_t(t));
      if (matching == int(ids.size())) tag = t;
    }
    // The arena commits again afterwards.
    for (uint64_t id : ids) Fill(arena, id, 7);
    EXPECT_TRUE(arenatest::Commit(arena, &serialOld, &serialNew)) << QWErrorMessage();
    VMArenaClose(arena);
    return tag;
  }

  std::vector<uint64_t> ids;
  int lastStatus = -1;
};

TEST_P(PowerLossDuringCommit, EveryLostSyncLeavesTheOldOrTheNewGeneration) {
  Prepare();
  std::string snapshot = path("snapshot");
  std::filesystem::copy(arenaDir(), snapshot, std::filesystem::copy_options::recursive);
  uint64_t prepSerialOld = serialOld, prepSerialNew = serialNew;

  uint64_t syncs = 0;
  CommitInChild(0, PowerLoss::Drop, 0, &syncs);  // how many syncs a commit makes
  ASSERT_EQ(lastStatus, 2);
  ASSERT_GT(syncs, 2u);

  struct Loss {
    PowerLoss mode;
    uint64_t seed;
  };
  const Loss losses[] = {{PowerLoss::Drop, 0}, {PowerLoss::Garble, 1}, {PowerLoss::Garble, 2}};
  const uint64_t stride = qwtest::SweepStride(3);
  for (const Loss &loss : losses) {
    for (uint64_t n = 1; n <= syncs + 1; ++n) {
      if (!qwtest::InSweep(n, 1, syncs + 1, stride)) continue;
      std::filesystem::remove_all(arenaDir());
      std::filesystem::copy(snapshot, arenaDir(), std::filesystem::copy_options::recursive);
      serialOld = prepSerialOld;
      serialNew = prepSerialNew;
      CommitInChild(n, loss.mode, loss.seed);
      ASSERT_TRUE(lastStatus == 1 || lastStatus == 2) << "status " << lastStatus << " at sync " << n;
      // A serialised arena is reopened at the serials its owner recorded:
      // the new ones only once the commit returned.
      if (GetParam().serialised && lastStatus == 2) {
        serialOld = prepSerialOld + 1;
        serialNew = prepSerialNew + 1;
      }
      int tag = ReopenedTag();
      EXPECT_TRUE(tag == 1 || tag == 2) << "mixed state after losing sync " << n;
      if (lastStatus == 2) {
        EXPECT_EQ(tag, 2) << "a returned commit was lost (sync " << n << ")";
      }
    }
  }
}

INSTANTIATE_TEST_SUITE_P(Modes, PowerLossDuringCommit, ::testing::Values(kModes[0], kModes[1], kModes[2], kModes[4]),
                         [](const auto &info) { return std::string(info.param.name); });

// A returned commit leaves nothing to finish: after a power loss right after
// it, the replication log holds every record of the commit, no `committing`
// marker is left (a read-only open works), and no replaced `N.old` remains.
TEST_F(ArenaTest, AReturnedCommitIsCompleteAfterAPowerLoss) {
  const std::string logPath = path("replication.log");
  auto openWithLog = [&](ReplicationLog **log, uint32_t flags) {
    *log = ReplicationLogFileOpen(logPath.c_str(), 8192);
    return *log ? VMArenaOpen(arenaDir().c_str(), flags, 2, STATUS_NO_SERIAL, STATUS_NO_SERIAL, *log, cache) : nullptr;
  };
  auto createdRecords = [&] {
    uint64_t count = 0;
    EXPECT_EQ(ReplicationLogFileRead(
                  logPath.c_str(),
                  [](void *context, uint32_t type, uint32_t, uint32_t, const char *, const uint64_t *, uint32_t) {
                    *static_cast<uint64_t *>(context) += type == REPLICATION_FILE_CREATED;
                    return 1;
                  },
                  &count),
              1)
        << QWErrorMessage();
    return count;
  };
  ReplicationLog *log = nullptr;
  VMArena *arena = openWithLog(&log, VM_FLAG_CREATE);
  ASSERT_NE(arena, nullptr) << QWErrorMessage();
  const uint64_t id = VMArenaBlockNew(arena, 0, 8192, nullptr, 0);
  Fill(arena, id, 1);
  ASSERT_EQ(VMArenaCommit(arena, nullptr, nullptr, 0), 1) << QWErrorMessage();
  VMArenaClose(arena);
  ReplicationLogClose(log);
  for (const char *directory : {"arena", "arena/block"})
    for (const auto &entry : std::filesystem::directory_iterator(path(directory))) {
      const std::string name = entry.path().filename();
      EXPECT_FALSE(name.size() > 8 && name.compare(name.size() - 8, 8, ".old.old") == 0) << name;
      EXPECT_FALSE(name.size() > 8 && name.compare(name.size() - 8, 8, ".new.old") == 0) << name;
    }
  const uint64_t before = createdRecords();

  auto child = qwtest::RunInChild([&] {
    qw::fault::Reset();
    qw::fault::EnableDurabilityTracking(true);
    ReplicationLog *childLog = nullptr;
    VMArena *childArena = openWithLog(&childLog, 0);
    if (!childArena) _exit(4);
    Fill(childArena, id, 2);
    if (!VMArenaCommit(childArena, nullptr, nullptr, 0)) _exit(3);
    qw::fault::SimulatePowerLoss(PowerLoss::Drop);
    _exit(2);
  });
  ASSERT_TRUE(child.exited);
  ASSERT_EQ(child.exitStatus, 2);
  // Both index files of both buckets and both generation files.
  EXPECT_EQ(createdRecords(), before + 6);
  arena = VMArenaOpen(arenaDir().c_str(), VM_FLAG_READ_ONLY, 2, STATUS_NO_SERIAL, STATUS_NO_SERIAL, nullptr, cache);
  ASSERT_NE(arena, nullptr) << QWErrorMessage();
  EXPECT_TRUE(Holds(arena, id, OLDGEN, 2));
  VMArenaClose(arena);
}

}  // namespace
