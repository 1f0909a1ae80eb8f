// Commit: the crash matrix (a child stopped at every stop, in every access
// mode, with blocks and named arrays changed), forced errors, and I/O errors
// at the arena's named steps: the chain over the injected error (the commit
// marker adds no message of its own), the generation the step implies, and a
// later commit succeeds. An interrupted creation is refused without create and
// restarted with it. Power loss and I/O errors at every point: the campaign.
#include <filesystem>

#include "arena_fixture.h"
#include "support/fault_support.h"

namespace {

using namespace arenatest;

const char *const kStops[] = {
    "arenaflushstart0",      "arenaflushstart1",      "arenaflushexec0",         "arenaflushexec1",
    "arenaflushexec2",       "arenaflushexec3",       "arenaflushcommitdisk0",   "arenaflushcommitdisk1",
    "arenaflushcommitdisk2", "arenaflushcommitdisk3", "arenaflushcommitmemory0", "arenaflushcommitmemory1",
};
constexpr int kFirstMarkedStop = 6;     // "arenaflushcommitdisk0": `committing` exists from here
constexpr int kFirstUnmarkedStop = 10;  // "arenaflushcommitmemory0": marker removed
constexpr int kFirstCompleteFiles = 5;  // "arenaflushexec3": every new file written
constexpr uint32_t kElement = 24;

struct CrashCase {
  Mode mode;
  int stop;
};

class CrashMatrix : public ArenaTest, public ::testing::WithParamInterface<CrashCase> {
 protected:
  // The committed start: blocks of many classes with tag 1, three named arrays.
  void Prepare(const Mode &mode) {
    ASSERT_TRUE(Reopen(mode, VM_FLAG_CREATE)) << QWErrorMessage();
    for (uint32_t i = 0; i < 60; ++i) {
      ids.push_back(VMArenaBlockNew(arena, 0, i % 4 == 0 ? 8192 : 40 + (i * 137) % 8000, nullptr, 0));
      Fill(arena, ids.back(), 1);
    }
    std::mt19937 rng(5);
    for (int a = 0; a < 3; ++a) {
      VMAArrayHandle handle;
      ASSERT_TRUE(VMAArrayInitFromPath(&handle, arena, "crash", std::to_string(a).c_str()));
      const uint32_t count = 100 + 200 * a;
      before.push_back(RandomBytes(rng, size_t(count) * kElement));
      ASSERT_TRUE(VMAArrayAppend_(arena, handle.id[NEWGEN], 0, kBlock, before.back().data(), count, NEWGEN, kElement));
    }
    ASSERT_TRUE(Commit()) << QWErrorMessage();
    CloseArena();
    after = before;
    for (Bytes &bytes : after) {
      const Bytes more = RandomBytes(rng, 500 * kElement);  // grows past the tail block
      bytes.insert(bytes.begin() + 3 * kElement, more.begin(), more.begin() + kElement);
      bytes.insert(bytes.end(), more.begin(), more.end());
    }
  }
  // What the child commits: every block rewritten with tag 2, some added; an
  // insert and a growth in each array; a new name.
  bool WriteNewGeneration() {
    for (uint64_t id : ids) Fill(arena, id, 2);
    for (int i = 0; i < 10; ++i) Fill(arena, VMArenaBlockNew(arena, 0, 100 + 800 * i, nullptr, 0), 2);
    for (int a = 0; a < 3; ++a) {
      const uint32_t id = Find(NEWGEN, "crash/" + std::to_string(a));
      const uint8_t *more = after[a].data() + before[a].size() + kElement;
      if (!VMAArrayInsert_(arena, id, 0, kBlock, 3, after[a].data() + 3 * kElement, NEWGEN, kElement) ||
          !VMAArrayAppend_(arena, id, 0, kBlock, more, 500, NEWGEN, kElement))
        return false;
    }
    VMAArrayHandle extra;
    return VMAArrayInitFromPath(&extra, arena, "crash", "new");
  }
  uint32_t Find(uint32_t gen, const std::string &name) {
    return VMAArrayFind(arena, gen, name.data(), uint32_t(name.size()), 1, nullptr, 0, kBlock);
  }
  void ExpectAll(VMArena *on, uint32_t tag) { EXPECT_EQ(CountHolding(on, ids, OLDGEN, tag), ids.size()) << tag; }
  void ExpectReadOnly(const Mode &mode, bool marked, uint32_t tag) {
    VMArena *readOnly = Open(mode, VM_FLAG_READ_ONLY);
    EXPECT_EQ(readOnly != nullptr, !marked) << QWErrorMessage();
    if (readOnly) ExpectAll(readOnly, tag), VMArenaClose(readOnly);
    QWErrorClear();
  }

  std::vector<uint64_t> ids;
  std::vector<Bytes> before, after;  // the committed arrays, and what the child writes
};

TEST_P(CrashMatrix, ReopenSeesExactlyTheOldOrTheNewStateAndCommitsAgain) {
  const CrashCase &c = GetParam();
  const char *stop = kStops[c.stop];
  ASSERT_NO_FATAL_FAILURE(Prepare(c.mode));
  const uint64_t oldS = serialOld, oldN = serialNew;
  ASSERT_TRUE(qwtest::CrashAtStop(
      stop, arenaDir(), [&] { return Reopen(c.mode) && WriteNewGeneration(); },
      [&] { (void)VMArenaCommit(arena, nullptr, nullptr, 0); }));

  const bool marked = std::filesystem::exists(path("arena/committing"));
  const bool newSurvives = !c.mode.serialised && c.stop >= kFirstMarkedStop;
  if (!c.mode.serialised) {
    // A file written before the stop is whole on disk, synced or not; a
    // replaced file is gone with its rename.
    const struct {
      const char *name;
      int from, to;  // the stops at which it waits for its rename
    } written[] = {{"block/index0.new.new", 3, 7}, {"block/index0.old.new", 3, 7}, {"arena.new.new", 4, 8},
                   {"arena.old.new", 5, 9}};
    for (const auto &w : written) {
      if (c.stop >= w.from && c.stop < w.to) {
        EXPECT_GT(qwtest::ReadFileBytes(path("arena/") + w.name).size(), 8u) << w.name;
      }
    }
    for (const char *aside : {"arena.new.old", "arena.old.old", "block/index0.new.old", "block/index0.old.old"})
      EXPECT_FALSE(std::filesystem::exists(path("arena/") + aside)) << aside;
    EXPECT_EQ(marked, c.stop >= kFirstMarkedStop && c.stop < kFirstUnmarkedStop) << stop;
    if (marked) {
      EXPECT_EQ(std::filesystem::status(path("arena/committing")).permissions(),
                std::filesystem::perms::owner_read | std::filesystem::perms::owner_write);
    }
    ExpectReadOnly(c.mode, marked, newSurvives ? 2 : 1);
  } else if (c.stop >= kFirstCompleteFiles) {
    // The generation the child wrote is complete and can be opened by serial
    // (read-only only once no commit is marked incomplete).
    serialOld = oldS + 1, serialNew = oldN + 1;
    ExpectReadOnly(c.mode, marked, 2);
    serialOld = oldS, serialNew = oldN;
  }

  ASSERT_TRUE(Reopen(c.mode)) << QWErrorMessage();
  EXPECT_FALSE(std::filesystem::exists(path("arena/committing")));
  ExpectAll(arena, newSurvives ? 2 : 1);
  const std::vector<Bytes> &expected = newSurvives ? after : before;
  for (int a = 0; a < 3; ++a) {
    const uint32_t id = Find(NEWGEN, "crash/" + std::to_string(a));
    ASSERT_NE(id, VMA_NO_ARRAY);
    EXPECT_EQ(ReadAll(arena, id, OLDGEN, kElement), expected[a]) << a;
    EXPECT_EQ(ReadAll(arena, id, NEWGEN, kElement), expected[a]) << a;
  }
  EXPECT_EQ(Find(OLDGEN, "crash/new") != VMA_NO_ARRAY, newSurvives);
  for (uint64_t id : ids) Fill(arena, id, 3);
  ASSERT_TRUE(Commit()) << QWErrorMessage();
  ASSERT_TRUE(Reopen(c.mode)) << QWErrorMessage();
  ExpectAll(arena, 3);
}

std::vector<CrashCase> AllCrashCases() {
  std::vector<CrashCase> cases;
  for (const Mode &mode : kModes)
    for (int stop = 0; stop < int(std::size(kStops)); ++stop) cases.push_back({mode, stop});
  return cases;
}

INSTANTIATE_TEST_SUITE_P(EveryStop, CrashMatrix, ::testing::ValuesIn(AllCrashCases()), [](const auto &info) {
  return std::string(info.param.mode.name) + "_" + kStops[info.param.stop];
});

// A crash stop naming another arena does nothing; forced errors fail some
// commits and leave the arena usable.
TEST_F(ArenaTest, ForcedCommitErrorsFailSomeCommitsAndLeaveTheArenaUsable) {
  ASSERT_TRUE(Reopen(kCache, VM_FLAG_CREATE, 1)) << QWErrorMessage();
  const uint64_t id = VMArenaBlockNew(arena, 0, 8192, nullptr, 0);
  qwtest::SetCrashStop("arenaflushexec1", path("other"));
  EXPECT_TRUE(VMArenaCommit(arena, nullptr, nullptr, 0)) << QWErrorMessage();
  qwtest::SetCrashStop(nullptr);
  QWSetEnvironmentVariable("QWRETURNFALSE", "VMArenaCommit");
  QWSetEnvironmentVariable("QWRETURNFALSEFUZZ", "3");
  std::srand(11);
  int failed = 0, committedTag = 0;
  for (int tag = 1; tag <= 60; ++tag) {
    Fill(arena, id, uint32_t(tag));
    if (VMArenaCommit(arena, nullptr, nullptr, 0)) {
      committedTag = tag;
    } else {
      ++failed;
      EXPECT_STREQ(QWErrorMessage(), "forced error in VMArenaCommit");
      QWErrorClear();
    }
    ASSERT_TRUE(committedTag == 0 || Holds(arena, id, OLDGEN, uint32_t(committedTag)));
  }
  QWSetEnvironmentVariable("QWRETURNFALSE", nullptr);
  QWSetEnvironmentVariable("QWRETURNFALSEFUZZ", nullptr);
  EXPECT_GT(failed, 5);
  EXPECT_LT(failed, 40);
  ASSERT_TRUE(VMArenaCommit(arena, nullptr, nullptr, 0));
  EXPECT_TRUE(Holds(arena, id, OLDGEN, 60));
}

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
    qw::fault::SimulatePowerLoss(qw::fault::PowerLoss::Drop);
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

using qw::fault::Bit;
using qw::fault::Op;

class ArenaIOErrors : public ArenaTest {
 protected:
  // A fresh arena with blocks committed holding tag 1, open.
  void Prepare() {
    ids.clear();
    CloseArena();
    std::filesystem::remove_all(arenaDir());
    ASSERT_TRUE(Reopen(kCache, VM_FLAG_CREATE)) << QWErrorMessage();
    for (uint32_t i = 0; i < 12; ++i) {
      ids.push_back(VMArenaBlockNew(arena, 0, i % 2 ? 8192 : 300, nullptr, 0));
      Fill(arena, ids.back(), 1);
    }
    ASSERT_TRUE(Commit()) << QWErrorMessage();
    ASSERT_TRUE(Reopen(kCache)) << QWErrorMessage();
  }

  // The tag every block holds in the committed generation; -1 for a mix.
  int CommittedTag() {
    int tag = -1;
    EXPECT_TRUE(Reopen(kCache)) << QWErrorMessage();
    for (uint32_t t : {1u, 2u})
      if (arena && CountHolding(arena, ids, OLDGEN, t) == ids.size()) tag = int(t);
    return tag;
  }

  std::vector<uint64_t> ids;
};

TEST_F(ArenaIOErrors, CommitStepsReportTheirStepAndTheDiskError) {
  const struct Case {
    uint32_t ops;         // the operation on the marker that fails
    const char *message;  // the outermost message: the marker adds none of its own
    int committedTag;     // what a reopen right after the failure finds
  } cases[] = {
      {Bit(Op::Open), "could not open file \"", 1},
      {Bit(Op::Remove), "could not remove file \"", 2},
  };
  for (const Case &c : cases) {
    SCOPED_TRACE(c.message);
    // Every block rewritten with tag 2, a commit that fails at the step; for
    // `retry`, the same arena commits once the disk answers again.
    for (bool retry : {true, false}) {
      ASSERT_NO_FATAL_FAILURE(Prepare());
      for (uint64_t id : ids) Fill(arena, id, 2);
      EXPECT_TRUE(qwtest::FailsWithIOError({c.ops, "committing", 0},
                                           [&] { return VMArenaCommit(arena, nullptr, nullptr, 0) == 1; }, c.message));
      const std::string chain = QWErrorMessage();
      EXPECT_EQ(chain.substr(chain.rfind('\n') + 1).rfind(c.message, 0), 0u) << chain;
      if (retry) {
        EXPECT_TRUE(VMArenaCommit(arena, nullptr, nullptr, 0)) << QWErrorMessage();
      }
      EXPECT_EQ(CommittedTag(), retry ? 2 : c.committedTag);
    }
  }
}

TEST_F(ArenaIOErrors, ACopyOnWriteReadErrorNamesTheBlockAndPassesLater) {
  ASSERT_NO_FATAL_FAILURE(Prepare());
  uint32_t size = 0;
  EXPECT_TRUE(qwtest::FailsWithIOError(
      {Bit(Op::Read), "/block/data", 0},
      [&] { return VMArenaDataAcquire(arena, ids[1], 0, NEWGEN, 0, &size, nullptr) != nullptr; },
      "could not copy block"));
  EXPECT_NE(std::string(QWErrorMessage()).find("injected I/O error in read"), std::string::npos);
  Fill(arena, ids[1], 2);
  EXPECT_TRUE(Holds(arena, ids[1], NEWGEN, 2));
  EXPECT_TRUE(Holds(arena, ids[1], OLDGEN, 1));
}

TEST_F(ArenaIOErrors, AnInterruptedCreationIsRefusedWithoutCreateAndRestartedWithIt) {
  // What a creation cut short leaves: the marker and some of the files.
  std::filesystem::create_directories(arenaDir() + "/block");
  qwtest::WriteFileBytes(arenaDir() + "/creating", "");
  qwtest::WriteFileBytes(arenaDir() + "/arena.new", "partial");
  qwtest::WriteFileBytes(arenaDir() + "/block/data0", std::string(8192, 'x'));
  EXPECT_FALSE(Reopen(kCache));
  EXPECT_NE(std::string(QWErrorMessage()).find("incomplete creation of VM in"), std::string::npos)
      << QWErrorMessage();
  ASSERT_TRUE(Reopen(kCache, VM_FLAG_CREATE)) << QWErrorMessage();
  EXPECT_FALSE(std::filesystem::exists(arenaDir() + "/creating"));
  const uint64_t id = VMArenaBlockNew(arena, 0, 500, nullptr, 0);
  Fill(arena, id, 3);
  ASSERT_TRUE(Commit()) << QWErrorMessage();
  ASSERT_TRUE(Reopen(kCache)) << QWErrorMessage();
  EXPECT_TRUE(Holds(arena, id, OLDGEN, 3));
}

}  // namespace
