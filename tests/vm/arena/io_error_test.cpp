// I/O errors at the arena's named steps: the chain over the injected error
// (the commit marker adds no message of its own), the generation the step
// implies, and a later commit succeeds. An interrupted creation is refused
// without create and restarted with it.
#include <filesystem>

#include "arena_fixture.h"
#include "support/fault_support.h"

namespace {

using namespace arenatest;
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
