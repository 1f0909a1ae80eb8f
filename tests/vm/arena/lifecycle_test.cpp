// Atomic file replacement, commit marks, mounting a generation written by
// another process, and the memory-lock registry.
#include <filesystem>

#include "arena_fixture.h"

namespace {

using namespace arenatest;

class AtomicFile : public qwtest::TempDirTest {
 protected:
  void Put(const char *name, const char *content) {
    if (content) qwtest::WriteFileBytes(path(name), content);
  }
  std::string Get(const char *name) { return qwtest::ReadFileBytes(path(name)); }
  bool Has(const char *name) { return std::filesystem::exists(path(name)); }
};

TEST_F(AtomicFile, CommitReplacesTheFileAndRecoverResolvesEveryInterruptedState) {
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

  const struct {
    const char *target, *incoming, *aside;  // contents, nullptr = absent
    const char *expected;                   // nullptr: no file at all
  } cases[] = {
      {"cur", "new", nullptr, "cur"},    // not started (or done): the target stays
      {nullptr, "new", "old", "new"},    // between the two renames: the new file wins
      {nullptr, nullptr, "old", "old"},  // only the old one left
      {nullptr, "new", nullptr, "new"},
      {"cur", nullptr, "old", "cur"},
      {nullptr, nullptr, nullptr, nullptr},
  };
  for (const auto &c : cases) {
    for (const char *name : {"f", "f.new", "f.old"}) std::filesystem::remove(path(name));
    Put("f", c.target);
    Put("f.new", c.incoming);
    Put("f.old", c.aside);
    EXPECT_EQ(FileAtomicRecover(dir().c_str(), "f"), 1);
    EXPECT_EQ(Has("f"), c.expected != nullptr);
    if (c.expected) {
      EXPECT_EQ(Get("f"), c.expected);
    }
  }
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

// A reader keeps an arena open read-only and mounts each generation the
// writer commits, with its blocks and its array names.
TEST_F(ArenaTest, ReadOnlyArenaMountsANewerSerialisedGeneration) {
  VMArena *writer = Open(kCacheSerial);
  ASSERT_NE(writer, nullptr) << QWErrorMessage();
  const uint64_t id = VMArenaBlockNew(writer, 0, 8192, nullptr, 0);
  Fill(writer, id, 1);
  ASSERT_TRUE(Commit(writer));
  VMArenaClose(writer);

  ASSERT_TRUE(Reopen(kCacheSerial, VM_FLAG_READ_ONLY)) << QWErrorMessage();
  VMArena *reader = arena;
  EXPECT_TRUE(Holds(reader, id, OLDGEN, 1));

  writer = Open(kCacheSerial, 0);
  ASSERT_NE(writer, nullptr) << QWErrorMessage();
  Fill(writer, id, 2);
  VMAArrayHandle handle, found;
  ASSERT_TRUE(VMAArrayInitFromPath(&handle, writer, "mounted", "array"));
  const uint16_t values[3] = {5, 6, 7};
  ASSERT_TRUE(VMAArrayAppend_(writer, handle.id[NEWGEN], 0, kBlock, values, 3, NEWGEN, 2));
  ASSERT_TRUE(Commit(writer));
  VMArenaClose(writer);

  EXPECT_EQ(VMAArrayFind(reader, NEWGEN, "mounted/array", 13, 1, nullptr, 0, kBlock), VMA_NO_ARRAY);
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
  ASSERT_TRUE(VMAArrayInitFromPath(&found, reader, "mounted", "array")) << QWErrorMessage();
  EXPECT_EQ(found.id[NEWGEN], handle.id[NEWGEN]);
  EXPECT_EQ(found.id[OLDGEN], handle.id[NEWGEN]);
  EXPECT_EQ(ReadAll(reader, found.id[OLDGEN], OLDGEN, 2),
            Bytes(reinterpret_cast<const uint8_t *>(values), reinterpret_cast<const uint8_t *>(values) + 6));
  // A generation file with another bucket count is refused.
  std::string good = qwtest::ReadFileBytes(arenaDir() + "/arena.new." + std::to_string(serialNew));
  good[0] = 3;
  qwtest::WriteFileBytes(arenaDir() + "/arena.new." + std::to_string(serialNew + 1), good);
  std::filesystem::copy(arenaDir() + "/arena.old." + std::to_string(serialOld),
                        arenaDir() + "/arena.old." + std::to_string(serialOld + 1));
  EXPECT_FALSE(VMArenaMountGeneration(reader, serialOld, serialNew + 1));
  QWErrorClear();
}

TEST_F(ArenaTest, MemoryLocksAreKeptReappliedAndUnregistered) {
  ASSERT_TRUE(Reopen(kCache, VM_FLAG_CREATE)) << QWErrorMessage();
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
  EXPECT_EQ(CountHolding(arena, std::vector<uint64_t>(ids.begin() + 1, ids.end()), OLDGEN, 4), ids.size() - 1);
}

}  // namespace
