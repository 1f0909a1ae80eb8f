// Commit: the crash matrix (a child stopped at every stop point, in every
// access mode), forced errors, and readers of the old generation during
// commits.
#include <atomic>
#include <filesystem>
#include <thread>

#include "arena_fixture.h"

namespace {

using arenatest::ArenaTest;
using arenatest::Fill;
using arenatest::Holds;
using arenatest::kModes;

const char *const kStops[] = {
    "arenaflushstart0",      "arenaflushstart1",      "arenaflushexec0",         "arenaflushexec1",
    "arenaflushexec2",       "arenaflushexec3",       "arenaflushcommitdisk0",   "arenaflushcommitdisk1",
    "arenaflushcommitdisk2", "arenaflushcommitdisk3", "arenaflushcommitmemory0", "arenaflushcommitmemory1",
};
constexpr int kFirstMarkedStop = 6;      // "arenaflushcommitdisk0": `committing` exists from here
constexpr int kFirstUnmarkedStop = 10;   // "arenaflushcommitmemory0": marker removed
constexpr int kFirstCompleteFiles = 5;   // "arenaflushexec3": every new file written

struct CrashCase {
  arenatest::Mode mode;
  int stop;
};

class CrashMatrix : public ArenaTest, public ::testing::WithParamInterface<CrashCase> {
 protected:
  // The committed state every case starts from: blocks of many classes with
  // tag 1.
  void Prepare(const arenatest::Mode &mode) {
    VMArena *arena = Open(mode, VM_FLAG_CREATE, 2);
    ASSERT_NE(arena, nullptr) << QWErrorMessage();
    for (uint32_t i = 0; i < 60; ++i) {
      uint32_t size = i % 4 == 0 ? 8192 : 40 + (i * 137) % 8000;
      ids.push_back(VMArenaBlockNew(arena, 0, size, nullptr, 0));
      Fill(arena, ids.back(), 1);
    }
    ASSERT_TRUE(arenatest::Commit(arena, &serialOld, &serialNew)) << QWErrorMessage();
    VMArenaClose(arena);
  }
  // The new generation the child commits: every block rewritten with tag 2,
  // some freed, some added.
  void WriteNewGeneration(VMArena *arena) {
    for (uint64_t id : ids) Fill(arena, id, 2);
    for (int i = 0; i < 10; ++i) Fill(arena, VMArenaBlockNew(arena, 0, 100 + 800 * i, nullptr, 0), 2);
  }
  // All blocks hold `tag` in the committed generation: never a mix.
  void ExpectAll(VMArena *arena, uint32_t tag) {
    int matching = 0;
    for (uint64_t id : ids) matching += Holds(arena, id, OLDGEN, tag);
    EXPECT_EQ(matching, int(ids.size())) << "tag " << tag;
  }
  std::vector<uint64_t> ids;
};

TEST_P(CrashMatrix, ReopenSeesExactlyTheOldOrTheNewStateAndCommitsAgain) {
  const CrashCase &c = GetParam();
  const char *stop = kStops[c.stop];
  Prepare(c.mode);
  uint64_t oldS = serialOld, oldN = serialNew;
  auto child = qwtest::RunInChild([&] {
    VMArena *arena = Open(c.mode, 0, 2);
    if (!arena) _exit(3);
    WriteNewGeneration(arena);
    QWSetEnvironmentVariable("QWEXIT", stop);
    QWSetEnvironmentVariable("QWVMEXIT", arenaDir().c_str());
    VMArenaCommit(arena, nullptr, nullptr, 0);
    _exit(0);  // the stop did not fire
  });
  ASSERT_TRUE(child.exited);
  ASSERT_EQ(child.exitStatus, 1) << stop;
  EXPECT_EQ(child.out, "########## SIMULATED CRASH vm = " + arenaDir() + ", stop = " + stop + "\n");

  bool marked = std::filesystem::exists(path("arena/committing"));
  if (!c.mode.serialised) {
    EXPECT_EQ(marked, c.stop >= kFirstMarkedStop && c.stop < kFirstUnmarkedStop) << stop;
    VMArena *readOnly = Open(c.mode, VM_FLAG_READ_ONLY, 2);
    if (marked) {
      EXPECT_EQ(readOnly, nullptr);
    } else {
      ASSERT_NE(readOnly, nullptr) << QWErrorMessage();
      ExpectAll(readOnly, c.stop >= kFirstMarkedStop ? 2 : 1);
      VMArenaClose(readOnly);
    }
    QWErrorClear();
  } else if (c.stop >= kFirstCompleteFiles) {
    // The generation the child wrote is complete and can be opened by serial
    // (read-only only once no commit is marked incomplete).
    serialOld = oldS + 1;
    serialNew = oldN + 1;
    VMArena *next = Open(c.mode, VM_FLAG_READ_ONLY, 2);
    if (marked) {
      EXPECT_EQ(next, nullptr);
    } else {
      ASSERT_NE(next, nullptr) << QWErrorMessage();
      ExpectAll(next, 2);
      VMArenaClose(next);
    }
    QWErrorClear();
    serialOld = oldS;
    serialNew = oldN;
  }

  VMArena *arena = Open(c.mode, 0, 2);
  ASSERT_NE(arena, nullptr) << QWErrorMessage();
  EXPECT_FALSE(std::filesystem::exists(path("arena/committing")));
  uint32_t expected = (!c.mode.serialised && c.stop >= kFirstMarkedStop) ? 2 : 1;
  ExpectAll(arena, expected);
  for (uint64_t id : ids) Fill(arena, id, 3);
  ASSERT_TRUE(arenatest::Commit(arena, &serialOld, &serialNew)) << QWErrorMessage();
  VMArenaClose(arena);
  arena = Open(c.mode, 0, 2);
  ASSERT_NE(arena, nullptr) << QWErrorMessage();
  ExpectAll(arena, 3);
  VMArenaClose(arena);
}

std::vector<CrashCase> AllCrashCases() {
  std::vector<CrashCase> cases;
  for (const arenatest::Mode &mode : kModes)
    for (int stop = 0; stop < int(std::size(kStops)); ++stop) cases.push_back({mode, stop});
  return cases;
}

INSTANTIATE_TEST_SUITE_P(EveryStop, CrashMatrix, ::testing::ValuesIn(AllCrashCases()), [](const auto &info) {
  return std::string(info.param.mode.name) + "_" + kStops[info.param.stop];
});

TEST_F(ArenaTest, CrashStopNamingAnotherArenaDoesNothing) {
  VMArena *arena = Open(kModes[0], VM_FLAG_CREATE, 1);
  ASSERT_NE(arena, nullptr);
  uint64_t id = VMArenaBlockNew(arena, 0, 512, nullptr, 0);
  Fill(arena, id, 1);
  QWSetEnvironmentVariable("QWEXIT", "arenaflushexec1");
  QWSetEnvironmentVariable("QWVMEXIT", path("other").c_str());
  EXPECT_TRUE(VMArenaCommit(arena, nullptr, nullptr, 0)) << QWErrorMessage();
  QWSetEnvironmentVariable("QWEXIT", nullptr);
  QWSetEnvironmentVariable("QWVMEXIT", nullptr);
  EXPECT_TRUE(Holds(arena, id, OLDGEN, 1));
  VMArenaClose(arena);
}

TEST_F(ArenaTest, ForcedCommitErrorsFailSomeCommitsAndLeaveTheArenaUsable) {
  VMArena *arena = Open(kModes[0], VM_FLAG_CREATE, 1);
  ASSERT_NE(arena, nullptr);
  uint64_t id = VMArenaBlockNew(arena, 0, 8192, nullptr, 0);
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
    ASSERT_TRUE(Holds(arena, id, OLDGEN, uint32_t(committedTag)) || committedTag == 0);
  }
  QWSetEnvironmentVariable("QWRETURNFALSE", nullptr);
  QWSetEnvironmentVariable("QWRETURNFALSEFUZZ", nullptr);
  EXPECT_GT(failed, 5);
  EXPECT_LT(failed, 40);
  ASSERT_TRUE(VMArenaCommit(arena, nullptr, nullptr, 0));
  EXPECT_TRUE(Holds(arena, id, OLDGEN, 60));
  VMArenaClose(arena);
}

// Readers of the committed generation, under the generation lock, see one
// whole commit at a time while a writer commits over and over.
class ArenaConcurrency : public ArenaTest, public ::testing::WithParamInterface<arenatest::Mode> {};

TEST_P(ArenaConcurrency, OldGenerationReadersNeverSeeAMixDuringCommits) {
  VMArena *arena = Open(GetParam(), VM_FLAG_CREATE, 2);
  ASSERT_NE(arena, nullptr) << QWErrorMessage();
  std::vector<uint64_t> ids;
  for (int i = 0; i < 24; ++i) {
    ids.push_back(VMArenaBlockNew(arena, 0, i % 2 ? 8192 : 700, nullptr, 0));
    Fill(arena, ids.back(), 0);
  }
  ASSERT_TRUE(arenatest::Commit(arena, &serialOld, &serialNew));
  std::atomic<bool> done{false};
  std::atomic<int> mixes{0}, reads{0};
  auto reader = [&] {
    while (!done.load()) {
      VMArenaOldGenAcquire(arena);
      int tag = -1;
      for (uint32_t t = 0; t <= 40 && tag < 0; ++t)
        if (Holds(arena, ids[0], OLDGEN, t)) tag = int(t);
      for (uint64_t id : ids)
        if (tag < 0 || !Holds(arena, id, OLDGEN, uint32_t(tag))) ++mixes;
      VMArenaOldGenRelease(arena);
      ++reads;
    }
  };
  std::thread r1(reader), r2(reader);
  for (uint32_t tag = 1; tag <= 40; ++tag) {
    VMArenaNewGenAcquire(arena, 0);
    for (uint64_t id : ids) Fill(arena, id, tag);
    VMArenaNewGenRelease(arena, 0);
    ASSERT_TRUE(arenatest::Commit(arena, &serialOld, &serialNew)) << QWErrorMessage();
  }
  done = true;
  r1.join();
  r2.join();
  EXPECT_EQ(mixes.load(), 0);
  EXPECT_GT(reads.load(), 0);
  VMArenaClose(arena);
}

INSTANTIATE_TEST_SUITE_P(Modes, ArenaConcurrency, ::testing::Values(kModes[0], kModes[2]),
                         [](const auto &info) { return std::string(info.param.name); });

}  // namespace
