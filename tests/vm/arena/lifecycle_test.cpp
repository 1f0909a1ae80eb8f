// Atomic file replacement, commit marks, mounting a generation written by
// another process, and the memory-lock registry.
#include <filesystem>

#include "arena_fixture.h"

namespace {

using arenatest::ArenaTest;
using arenatest::Fill;
using arenatest::Holds;
using arenatest::kModes;

class AtomicFile : public qwtest::TempDirTest {
 protected:
  void Put(const char *name, const std::string &content) { qwtest::WriteFileBytes(path(name), content); }
  std::string Get(const char *name) { return qwtest::ReadFileBytes(path(name)); }
  bool Has(const char *name) { return std::filesystem::exists(path(name)); }
};

TEST_F(AtomicFile, CommitReplacesTheFileAndLeavesNoSideFiles) {
  Put("f", "old");
  Put("f.new", "new");
  ASSERT_TRUE(FileAtomicCommit(dir().c_str(), "f")) << QWErrorMessage();
  EXPECT_EQ(Get("f"), "new");
  EXPECT_FALSE(Has("f.new"));
  EXPECT_FALSE(Has("f.old"));
  // Without a pending file the commit fails and the target is kept aside.
  EXPECT_FALSE(FileAtomicCommit(dir().c_str(), "f"));
  QWErrorClear();
  EXPECT_TRUE(FileAtomicRecover(dir().c_str(), "f"));
  EXPECT_EQ(Get("f"), "new");
}

TEST_F(AtomicFile, RecoverResolvesEveryInterruptedState) {
  struct Case {
    const char *target, *incoming, *aside;  // contents, nullptr = absent
    const char *expected;
  };
  const Case cases[] = {
      {"cur", "new", nullptr, "cur"},    // not started (or done): the target stays
      {nullptr, "new", "old", "new"},    // between the two renames: the new file wins
      {nullptr, nullptr, "old", "old"},  // only the old one left
      {nullptr, "new", nullptr, "new"},
      {"cur", nullptr, "old", "cur"},
  };
  for (const Case &c : cases) {
    for (const char *name : {"f", "f.new", "f.old"}) std::filesystem::remove(path(name));
    if (c.target) Put("f", c.target);
    if (c.incoming) Put("f.new", c.incoming);
    if (c.aside) Put("f.old", c.aside);
    EXPECT_EQ(FileAtomicRecover(dir().c_str(), "f"), 1);
    EXPECT_EQ(Get("f"), c.expected);
  }
  for (const char *name : {"f", "f.new", "f.old"}) std::filesystem::remove(path(name));
  EXPECT_EQ(FileAtomicRecover(dir().c_str(), "f"), 1);  // nothing at all: still 1
  EXPECT_FALSE(Has("f"));
}

TEST_F(AtomicFile, CommitMarksLiveInTheStatusFile) {
  EXPECT_EQ(CommitMarked(dir().c_str()), 0);
  ASSERT_TRUE(CommitMark(dir().c_str()));
  EXPECT_EQ(CommitMarked(dir().c_str()), 1);
  QWStatus *status = StatusRead(dir().c_str());
  ASSERT_NE(status, nullptr);
  EXPECT_EQ(StatusGetParameter(status, 99), 1u);
  StatusFree(status);
  ASSERT_TRUE(CommitUnMark(dir().c_str()));
  EXPECT_EQ(CommitMarked(dir().c_str()), 0);
  // A garbled status file is reported, not trusted.
  Put("status", "garbage");
  qwtest::MessageCapture capture;
  EXPECT_EQ(CommitMarked(dir().c_str()), 0);
  EXPECT_TRUE(capture.contains("repository : could not read status in dir: \"" + dir() + "\"", QW_LEVEL_ERROR));
  EXPECT_FALSE(CommitMark(dir().c_str()));
  QWErrorClear();
}

// A reader process keeps an arena open read-only and mounts each generation
// the writer commits.
TEST_F(ArenaTest, ReadOnlyArenaMountsANewerSerialisedGeneration) {
  const arenatest::Mode &mode = kModes[1];
  VMArena *writer = Open(mode, VM_FLAG_CREATE, 2);
  ASSERT_NE(writer, nullptr) << QWErrorMessage();
  uint64_t id = VMArenaBlockNew(writer, 0, 8192, nullptr, 0);
  Fill(writer, id, 1);
  ASSERT_TRUE(arenatest::Commit(writer, &serialOld, &serialNew));
  VMArenaClose(writer);

  VMArena *reader = Open(mode, VM_FLAG_READ_ONLY, 2);
  ASSERT_NE(reader, nullptr) << QWErrorMessage();
  EXPECT_TRUE(Holds(reader, id, OLDGEN, 1));

  writer = Open(mode, 0, 2);
  ASSERT_NE(writer, nullptr) << QWErrorMessage();
  Fill(writer, id, 2);
  ASSERT_TRUE(arenatest::Commit(writer, &serialOld, &serialNew));
  VMArenaClose(writer);

  qwtest::MessageCapture capture;
  ASSERT_TRUE(VMArenaMountGeneration(reader, serialOld, serialNew)) << QWErrorMessage();
  EXPECT_TRUE(capture.contains("mounting arena generation[" + std::to_string(serialOld) + "," +
                                   std::to_string(serialNew) + "] in directory " + arenaDir(),
                               QW_LEVEL_PROGRESS));
  EXPECT_TRUE(Holds(reader, id, OLDGEN, 1));  // not current before the memory commit
  ASSERT_TRUE(VMArenaFlushCommitMemory(reader, 1)) << QWErrorMessage();
  EXPECT_TRUE(Holds(reader, id, OLDGEN, 2));
  uint64_t o, n;
  VMArenaSerials(reader, &o, &n);
  EXPECT_EQ(o, serialOld);
  EXPECT_EQ(n, serialNew);
  // A generation file with another bucket count is refused with code 2.
  std::string bad = arenaDir() + "/arena.new." + std::to_string(serialNew + 1);
  std::string good = qwtest::ReadFileBytes(arenaDir() + "/arena.new." + std::to_string(serialNew));
  good[0] = 3;
  qwtest::WriteFileBytes(bad, good);
  std::filesystem::copy(arenaDir() + "/arena.old." + std::to_string(serialOld),
                        arenaDir() + "/arena.old." + std::to_string(serialOld + 1));
  EXPECT_FALSE(VMArenaMountGeneration(reader, serialOld, serialNew + 1));
  QWErrorClear();
  VMArenaClose(reader);
}

TEST_F(ArenaTest, MemoryLocksAreKeptReappliedAndUnregistered) {
  VMArena *arena = Open(kModes[0], VM_FLAG_CREATE, 2);
  ASSERT_NE(arena, nullptr);
  std::vector<uint64_t> ids;
  for (int i = 0; i < 8; ++i) {
    ids.push_back(VMArenaBlockNew(arena, 1, 8192, nullptr, 0));  // allocated locked
    Fill(arena, ids.back(), 4);
  }
  ASSERT_TRUE(VMArenaCommit(arena, nullptr, nullptr, 1)) << QWErrorMessage();  // with the memory lock
  ASSERT_TRUE(VMArenaLockRegister(arena, 7));
  ASSERT_TRUE(VMObjectCustomLockRegister(arena, 3, 7, 1, 0));
  VMObjectCustomLockUnRegister(arena, 3, 7, 0);
  VMObjectCustomLockUnRegister(arena, 99, 7, 0);  // no match: nothing happens
  qwtest::MessageCapture capture;
  Fill(arena, ids[0], 5);
  ASSERT_TRUE(VMArenaCommit(arena, nullptr, nullptr, 0));  // re-applies the registry
  EXPECT_FALSE(capture.contains("Lock failure"));
  EXPECT_TRUE(MemoryLockApplyAll()) << QWErrorMessage();  // the arena's enumerator runs
  EXPECT_TRUE(Holds(arena, ids[0], OLDGEN, 5));
  for (size_t i = 1; i < ids.size(); ++i) EXPECT_TRUE(Holds(arena, ids[i], OLDGEN, 4));
  VMArenaClose(arena);
}

}  // namespace
