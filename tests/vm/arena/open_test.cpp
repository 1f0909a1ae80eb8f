// Opening, creating and refusing arenas; the generation files; atomic file
// replacement, commit marks, mounting a generation written by another process,
// and the memory-lock registry.
#include <filesystem>

#include "arena_fixture.h"

namespace {

using namespace arenatest;

// Each refusal with its message; after the repair the open succeeds.
TEST_F(ArenaTest, RefusedOpensNameTheReason) {
  auto refused = [&](uint32_t flags, const std::string &message, bool whole) {
    EXPECT_FALSE(Reopen(kCache, flags));
    const std::string chain = QWErrorMessage();
    EXPECT_TRUE(whole ? chain == message : chain.find(message) != std::string::npos) << chain;
    QWErrorClear();
  };
  std::filesystem::create_directories(arenaDir());
  refused(0, "could not read VMArena in \"" + arenaDir() + "\"", false);
  std::filesystem::create_directories(arenaDir() + "/block");
  refused(VM_FLAG_CREATE, "existing but not openable VM in \"" + arenaDir() + "\"", false);

  std::filesystem::remove_all(arenaDir());
  ASSERT_TRUE(Reopen(kCache, VM_FLAG_CREATE)) << QWErrorMessage();
  VMArenaTagCorrupted(arena);
  CloseArena();
  EXPECT_EQ(std::filesystem::status(path("arena/corrupted")).permissions(),
            std::filesystem::perms::owner_read | std::filesystem::perms::owner_write);
  refused(0, "Corrupted vm in \"" + arenaDir() + "\"", true);
  std::filesystem::remove(path("arena/corrupted"));
  ASSERT_TRUE(Reopen(kCache)) << QWErrorMessage();
  CloseArena();

  qwtest::WriteFileBytes(path("arena/committing"), "");
  refused(VM_FLAG_READ_ONLY, "Cannot open read-only vm in \"" + arenaDir() + "\": incomplete commit", true);
  ASSERT_TRUE(Reopen(kCache)) << QWErrorMessage();  // a writable open finishes it and removes the marker
  CloseArena();
  EXPECT_FALSE(std::filesystem::exists(path("arena/committing")));
  EXPECT_TRUE(Reopen(kCache, VM_FLAG_READ_ONLY)) << QWErrorMessage();

  // Bad arguments: no buckets, no cache for a cached arena, one serial only, an unknown flag.
  const struct {
    uint32_t flags, buckets;
    uint64_t serialOld;
    bool withCache;
    int code;  // 0: not fixed
  } bad[] = {{VM_FLAG_CREATE, 0, STATUS_NO_SERIAL, true, 22}, {VM_FLAG_CREATE, 1, STATUS_NO_SERIAL, false, 22},
             {VM_FLAG_CREATE, 1, 0, true, 0}, {0x8, 1, STATUS_NO_SERIAL, true, 0}};
  for (const auto &b : bad) {
    EXPECT_EQ(VMArenaOpen(path("other").c_str(), b.flags, b.buckets, b.serialOld, STATUS_NO_SERIAL, nullptr,
                          b.withCache ? cache : nullptr),
              nullptr);
    if (b.code) { EXPECT_EQ(QWErrorCode(), b.code); }
  }
}

// The generation files of a fresh arena with two buckets, byte for byte; an
// existing arena keeps its own bucket count, whatever count is passed.
TEST_F(ArenaTest, CreateWritesByteExactGenerationFilesAndReopens) {
  ASSERT_TRUE(Reopen(kCache, VM_FLAG_CREATE, 2)) << QWErrorMessage();
  EXPECT_EQ(std::string(VMArenaPath(arena)), arenaDir());
  CloseArena();
  EXPECT_TRUE(std::filesystem::exists(path("arena/block")));
  EXPECT_FALSE(std::filesystem::exists(path("arena/arena.new.new")));
  std::string expectedNew;
  expectedNew += std::string("\x02\0\0\0\0\0\0\0", 8);                      // bucket count
  for (int c = 0; c < 16; ++c) expectedNew += std::string("\x01\0\0\0\0", 5);  // empty free lists
  for (int c = 0; c < 16; ++c) expectedNew += std::string("\xFF\xFF\xFF\xFF\0\0\0\0", 8);
  expectedNew += std::string("\x01\0\0\0\0", 5);                            // no free array ids
  expectedNew += std::string("\0\x01\0\0\0\0\0\0\0", 9);                    // one array record
  expectedNew += std::string("\x08\0\0\0\0\0\0\0\0", 9);                    //   no blocks
  expectedNew += std::string("\0\0\0\0\0\x0D", 6);                          //   length, type, log2size
  EXPECT_EQ(qwtest::ReadFileBytes(path("arena/arena.new")), expectedNew);
  std::string expectedOld;
  expectedOld += std::string("\x01\0\0\0\0", 5);              // block ids
  expectedOld += std::string("\x01\x02\0\0\0\0\0", 7);        // starts 0, 0
  expectedOld += std::string("\x01\x01\0\0\0\0", 6);          // lengths
  expectedOld += std::string("\x01\0\0\0\0", 5);              // types: a byte array
  EXPECT_EQ(qwtest::ReadFileBytes(path("arena/arena.old")), expectedOld);
  // Files written when the types carried a width byte still open.
  qwtest::WriteFileBytes(path("arena/arena.old"), expectedOld.substr(0, 18) + std::string("\x01\x01\0\0\0\0", 6));
  for (uint32_t passed : {7u, 0u}) {
    ASSERT_TRUE(Reopen(kCache, 0, passed)) << passed << ": " << QWErrorMessage();
    EXPECT_EQ(VMArenaBucketCount(arena), 2u);
  }
  CloseArena();
  // Neither form: a width byte other than 1 before a matching count.
  qwtest::WriteFileBytes(path("arena/arena.old"), expectedOld.substr(0, 18) + std::string("\x02\x01\0\0\0\0", 6));
  EXPECT_FALSE(Reopen(kCache));
}

// Every truncation of a generation file is refused; a byte flipped at any
// offset fails the open cleanly or not at all, never a crash.
TEST_F(ArenaTest, DamagedGenerationFilesNeverCrashTheOpen) {
  ASSERT_TRUE(Reopen(kCache, VM_FLAG_CREATE)) << QWErrorMessage();
  std::vector<uint64_t> ids;
  for (uint32_t size : {64u, 300u, 8192u}) ids.push_back(VMArenaBlockNew(arena, 0, size, nullptr, 0));
  for (uint64_t id : ids) Fill(arena, id, 1);
  VMArenaBlockFree(arena, ids[0], 0);
  ASSERT_TRUE(Commit()) << QWErrorMessage();
  CloseArena();
  for (const char *name : {"arena.new", "arena.old"}) {
    const std::string file = path("arena/") + name, original = qwtest::ReadFileBytes(file);
    for (uint64_t at : qwtest::SweepPoints(0, original.size() - 1, 5)) {
      qwtest::WriteFileBytes(file, original.substr(0, at));
      EXPECT_FALSE(Reopen(kCache)) << name << " cut at " << at;
      // (A flipped bucket count that is still valid would open that many bucket servers.)
      if (std::string(name) == "arena.new" && at < 8) continue;
      std::string flipped = original;
      flipped[at] = char(flipped[at] ^ 0xA5);
      qwtest::WriteFileBytes(file, flipped);
      (void)Reopen(kCache);
      CloseArena();
      QWErrorClear();
    }
    qwtest::WriteFileBytes(file, original);
  }
  ASSERT_TRUE(Reopen(kCache)) << QWErrorMessage();
  EXPECT_TRUE(Holds(arena, ids[2], OLDGEN, 1));
}

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

// A serialised arena created with serials 0 keeps each generation's files
// until they are unlinked. A reader keeps it open read-only and mounts each
// generation the writer commits, with its blocks and its array names.
TEST_F(ArenaTest, ReadOnlyArenaMountsANewerSerialisedGeneration) {
  VMArena *writer = Open(kCacheSerial);
  ASSERT_NE(writer, nullptr) << QWErrorMessage();
  for (const char *name : {"arena/arena.new.0", "arena/arena.old.0"}) EXPECT_TRUE(std::filesystem::exists(path(name)));
  const uint64_t id = VMArenaBlockNew(writer, 0, 8192, nullptr, 0);
  Fill(writer, id, 1);
  ASSERT_TRUE(Commit(writer));
  EXPECT_EQ(std::pair(serialOld, serialNew), std::pair(uint64_t(1), uint64_t(1)));
  EXPECT_TRUE(std::filesystem::exists(path("arena/arena.new.1")));
  EXPECT_TRUE(std::filesystem::exists(path("arena/arena.new.0")));  // kept until unlinked
  EXPECT_FALSE(VMArenaUnlinkGeneration(writer, 1, 1));              // the current one: refused, nothing removed
  EXPECT_TRUE(std::filesystem::exists(path("arena/arena.new.1")));
  ASSERT_TRUE(VMArenaUnlinkGeneration(writer, 0, 0));
  for (const char *name : {"arena/arena.new.0", "arena/arena.old.0"}) EXPECT_FALSE(std::filesystem::exists(path(name)));
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
