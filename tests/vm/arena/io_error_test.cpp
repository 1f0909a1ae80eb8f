// I/O errors at the arena's named steps: each failure is reported with the
// step's own message on top of the injected I/O error, leaves the arena at
// the generation the step implies (old before the marker is durable, new
// after the generation files are switched), and a later commit succeeds.
// Also: an interrupted creation is refused without create and restarted
// with it.
#include <filesystem>

#include "arena_fixture.h"
#include "platform/qwlib/fault.h"

namespace {

using arenatest::ArenaTest;
using arenatest::Fill;
using arenatest::Holds;
using arenatest::kModes;
using qw::fault::Op;

class ArenaIOErrors : public ArenaTest {
 protected:
  void TearDown() override {
    qw::fault::Disable();
    ArenaTest::TearDown();
  }

  // An arena with blocks committed holding tag 1.
  void Prepare(const arenatest::Mode &mode) {
    VMArena *arena = Open(mode, VM_FLAG_CREATE);
    ASSERT_NE(arena, nullptr) << QWErrorMessage();
    for (uint32_t i = 0; i < 12; ++i) {
      ids.push_back(VMArenaBlockNew(arena, 0, i % 2 ? 8192 : 300, nullptr, 0));
      Fill(arena, ids.back(), 1);
    }
    ASSERT_TRUE(arenatest::Commit(arena, &serialOld, &serialNew)) << QWErrorMessage();
    VMArenaClose(arena);
  }

  // The tag every block holds in the committed generation; -1 for a mix.
  int CommittedTag(const arenatest::Mode &mode) {
    VMArena *arena = Open(mode, 0);
    if (!arena) {
      ADD_FAILURE() << QWErrorMessage();
      return -1;
    }
    int tag = -1;
    for (int t : {1, 2}) {
      bool all = true;
      for (uint64_t id : ids) all = all && Holds(arena, id, OLDGEN, uint32_t(t));
      if (all) tag = t;
    }
    VMArenaClose(arena);
    return tag;
  }

  // A fresh arena with tag 1 committed, every block rewritten with tag 2
  // and a commit whose `ops` on `path` fail (it must return 0). Returns the
  // arena, still open; the fault rule stays armed.
  VMArena *CommitFailingAt(const char *path, uint32_t ops) {
    ids.clear();
    std::filesystem::remove_all(arenaDir());
    Prepare(kModes[0]);
    VMArena *arena = Open(kModes[0], 0);
    if (!arena) return nullptr;
    for (uint64_t id : ids) Fill(arena, id, 2);
    qw::fault::Reset();
    qw::fault::FailPath(path, ops);
    EXPECT_EQ(VMArenaCommit(arena, nullptr, nullptr, 0), 0);
    return arena;
  }

  std::vector<uint64_t> ids;
};

TEST_F(ArenaIOErrors, CommitStepsReportTheirStepAndTheDiskError) {
  const struct Case {
    const char *path;  // the operation that fails: its path and kind
    uint32_t ops;
    const char *message;  // the step's message in the chain
    int committedTag;     // what a reopen right after the failure finds
  } cases[] = {
      {"committing", qw::fault::Bit(Op::Open), "could not create the commit marker in", 1},
      {"committing", qw::fault::Bit(Op::Remove), "could not remove the commit marker in", 2},
  };
  for (const Case &c : cases) {
    SCOPED_TRACE(c.message);
    // Once the disk answers again the same arena commits.
    VMArena *arena = CommitFailingAt(c.path, c.ops);
    ASSERT_NE(arena, nullptr);
    const std::string chain = QWErrorMessage();
    EXPECT_NE(chain.find("injected I/O error"), std::string::npos) << chain;
    EXPECT_NE(chain.find(c.message), std::string::npos) << chain;
    qw::fault::Disable();
    EXPECT_TRUE(VMArenaCommit(arena, nullptr, nullptr, 0)) << QWErrorMessage();
    VMArenaClose(arena);
    EXPECT_EQ(CommittedTag(kModes[0]), 2);
    // A reopen right after the failure finds the generation the step implies.
    arena = CommitFailingAt(c.path, c.ops);
    ASSERT_NE(arena, nullptr);
    qw::fault::Disable();
    VMArenaClose(arena);
    EXPECT_EQ(CommittedTag(kModes[0]), c.committedTag);
  }
}

TEST_F(ArenaIOErrors, ACopyOnWriteReadErrorNamesTheBlockAndPassesLater) {
  Prepare(kModes[0]);
  VMArena *arena = Open(kModes[0], 0);
  ASSERT_NE(arena, nullptr) << QWErrorMessage();
  qw::fault::Reset();
  qw::fault::FailPath("/block/data", qw::fault::Bit(Op::Read));
  uint32_t size = 0;
  EXPECT_EQ(VMArenaDataAcquire(arena, ids[1], 0, NEWGEN, 0, &size, nullptr), nullptr);
  const std::string chain = QWErrorMessage();
  EXPECT_NE(chain.find("injected I/O error in read"), std::string::npos) << chain;
  EXPECT_NE(chain.find("could not copy block"), std::string::npos) << chain;
  qw::fault::Disable();
  Fill(arena, ids[1], 2);
  EXPECT_TRUE(Holds(arena, ids[1], NEWGEN, 2));
  EXPECT_TRUE(Holds(arena, ids[1], OLDGEN, 1));
  VMArenaClose(arena);
}

TEST_F(ArenaIOErrors, AnInterruptedCreationIsRefusedWithoutCreateAndRestartedWithIt) {
  // What a creation cut short leaves: the marker and some of the files.
  std::filesystem::create_directories(arenaDir() + "/block");
  qwtest::WriteFileBytes(arenaDir() + "/creating", "");
  qwtest::WriteFileBytes(arenaDir() + "/arena.new", "partial");
  qwtest::WriteFileBytes(arenaDir() + "/block/data0", std::string(8192, 'x'));
  EXPECT_EQ(Open(kModes[0], 0), nullptr);
  EXPECT_NE(std::string(QWErrorMessage()).find("incomplete creation of VM in"), std::string::npos)
      << QWErrorMessage();
  VMArena *arena = Open(kModes[0], VM_FLAG_CREATE);
  ASSERT_NE(arena, nullptr) << QWErrorMessage();
  EXPECT_FALSE(std::filesystem::exists(arenaDir() + "/creating"));
  const uint64_t id = VMArenaBlockNew(arena, 0, 500, nullptr, 0);
  Fill(arena, id, 3);
  ASSERT_TRUE(arenatest::Commit(arena, &serialOld, &serialNew)) << QWErrorMessage();
  VMArenaClose(arena);
  arena = Open(kModes[0], 0);
  ASSERT_NE(arena, nullptr) << QWErrorMessage();
  EXPECT_TRUE(Holds(arena, id, OLDGEN, 3));
  VMArenaClose(arena);
}

}  // namespace
