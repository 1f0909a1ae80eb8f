// Opening, creating and refusing arenas; the generation files.
#include <filesystem>

#include "arena_fixture.h"

namespace {

using arenatest::ArenaTest;
using arenatest::kModes;

const arenatest::Mode &Cache() { return kModes[0]; }

TEST_F(ArenaTest, EmptyDirectoryWithoutCreateIsRefused) {
  std::filesystem::create_directories(arenaDir());
  EXPECT_EQ(Open(Cache(), 0), nullptr);
  EXPECT_NE(std::string(QWErrorMessage()).find("could not read VMArena in \"" + arenaDir() + "\""), std::string::npos)
      << QWErrorMessage();
}

TEST_F(ArenaTest, DirectoryWithOnlyBlockSubdirectoryIsExistingButNotOpenable) {
  std::filesystem::create_directories(arenaDir() + "/block");
  EXPECT_EQ(Open(Cache(), VM_FLAG_CREATE), nullptr);
  EXPECT_NE(std::string(QWErrorMessage()).find("existing but not openable VM in \"" + arenaDir() + "\""),
            std::string::npos);
}

TEST_F(ArenaTest, CreateWritesFixedNameGenerationFilesAndReopens) {
  VMArena *arena = Open(Cache(), VM_FLAG_CREATE, 3);
  ASSERT_NE(arena, nullptr) << QWErrorMessage();
  EXPECT_EQ(std::string(VMArenaPath(arena)), arenaDir());
  EXPECT_EQ(VMArenaBucketCount(arena), 3u);
  VMArenaClose(arena);
  for (const char *name : {"arena.new", "arena.old", "block"})
    EXPECT_TRUE(std::filesystem::exists(path("arena/") + name)) << name;
  EXPECT_FALSE(std::filesystem::exists(path("arena/arena.new.new")));
  // An existing arena keeps its own bucket count.
  arena = Open(Cache(), 0, 7);
  ASSERT_NE(arena, nullptr) << QWErrorMessage();
  EXPECT_EQ(VMArenaBucketCount(arena), 3u);
  VMArenaClose(arena);
}

// The generation files of a fresh arena with two buckets, byte for byte.
TEST_F(ArenaTest, InitialGenerationFilesAreByteExact) {
  VMArena *arena = Open(Cache(), VM_FLAG_CREATE, 2);
  ASSERT_NE(arena, nullptr) << QWErrorMessage();
  VMArenaClose(arena);
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
  arena = Open(Cache(), 0, 2);
  ASSERT_NE(arena, nullptr) << QWErrorMessage();
  VMArenaClose(arena);
  // Neither form: a width byte other than 1 before a matching count.
  qwtest::WriteFileBytes(path("arena/arena.old"), expectedOld.substr(0, 18) + std::string("\x02\x01\0\0\0\0", 6));
  EXPECT_EQ(Open(Cache(), 0, 2), nullptr);
}

TEST_F(ArenaTest, SerialisedArenaCreatedWithSerialZeroWritesSerialNames) {
  VMArena *arena = Open(kModes[1], VM_FLAG_CREATE);
  ASSERT_NE(arena, nullptr) << QWErrorMessage();
  EXPECT_TRUE(std::filesystem::exists(path("arena/arena.new.0")));
  EXPECT_TRUE(std::filesystem::exists(path("arena/arena.old.0")));
  uint64_t o = 0, n = 0;
  ASSERT_TRUE(VMArenaCommit(arena, &o, &n, 0)) << QWErrorMessage();
  EXPECT_EQ(o, 1u);
  EXPECT_EQ(n, 1u);
  EXPECT_TRUE(std::filesystem::exists(path("arena/arena.new.1")));
  EXPECT_TRUE(std::filesystem::exists(path("arena/arena.new.0")));  // kept until unlinked
  ASSERT_TRUE(VMArenaUnlinkGeneration(arena, 0, 0));
  EXPECT_FALSE(std::filesystem::exists(path("arena/arena.new.0")));
  EXPECT_FALSE(std::filesystem::exists(path("arena/arena.old.0")));
  VMArenaClose(arena);
  serialOld = serialNew = 1;
  arena = Open(kModes[1], 0);
  ASSERT_NE(arena, nullptr) << QWErrorMessage();
  VMArenaClose(arena);
}

TEST_F(ArenaTest, CorruptedTagRefusesEveryOpenUntilRemoved) {
  VMArena *arena = Open(Cache(), VM_FLAG_CREATE);
  ASSERT_NE(arena, nullptr);
  VMArenaTagCorrupted(arena);
  VMArenaClose(arena);
  EXPECT_EQ(Open(Cache(), 0), nullptr);
  EXPECT_EQ(std::string(QWErrorMessage()), "Corrupted vm in \"" + arenaDir() + "\"");
  std::filesystem::remove(path("arena/corrupted"));
  arena = Open(Cache(), 0);
  EXPECT_NE(arena, nullptr) << QWErrorMessage();
  VMArenaClose(arena);
}

TEST_F(ArenaTest, ReadOnlyOpenRefusesAnIncompleteCommit) {
  VMArena *arena = Open(Cache(), VM_FLAG_CREATE);
  ASSERT_NE(arena, nullptr);
  VMArenaClose(arena);
  qwtest::WriteFileBytes(path("arena/committing"), "");
  EXPECT_EQ(Open(Cache(), VM_FLAG_READ_ONLY), nullptr);
  EXPECT_EQ(std::string(QWErrorMessage()), "Cannot open read-only vm in \"" + arenaDir() + "\": incomplete commit");
  arena = Open(Cache(), 0);  // a writable open finishes it and removes the marker
  ASSERT_NE(arena, nullptr) << QWErrorMessage();
  VMArenaClose(arena);
  EXPECT_FALSE(std::filesystem::exists(path("arena/committing")));
  arena = Open(Cache(), VM_FLAG_READ_ONLY);
  EXPECT_NE(arena, nullptr) << QWErrorMessage();
  VMArenaClose(arena);
}

TEST_F(ArenaTest, BadArgumentsAreRefusedWithAnError) {
  EXPECT_EQ(VMArenaOpen(arenaDir().c_str(), VM_FLAG_CREATE, 0, STATUS_NO_SERIAL, STATUS_NO_SERIAL, nullptr, cache),
            nullptr);
  EXPECT_EQ(QWErrorCode(), 22);
  EXPECT_EQ(VMArenaOpen(arenaDir().c_str(), VM_FLAG_CREATE, 1, STATUS_NO_SERIAL, STATUS_NO_SERIAL, nullptr, nullptr),
            nullptr);
  EXPECT_EQ(QWErrorCode(), 22);
  EXPECT_EQ(VMArenaOpen(arenaDir().c_str(), VM_FLAG_CREATE, 1, 0, STATUS_NO_SERIAL, nullptr, cache), nullptr);
  EXPECT_EQ(VMArenaOpen(arenaDir().c_str(), 0x8, 1, STATUS_NO_SERIAL, STATUS_NO_SERIAL, nullptr, cache), nullptr);
  QWErrorClear();
}

// Every truncation and a byte flip at every offset of each generation file
// of a committed arena: open fails cleanly or succeeds; it never crashes.
TEST_F(ArenaTest, DamagedGenerationFilesNeverCrashTheOpen) {
  VMArena *arena = Open(Cache(), VM_FLAG_CREATE, 2);
  ASSERT_NE(arena, nullptr);
  std::vector<uint64_t> ids;
  for (uint32_t size : {64u, 300u, 8192u}) ids.push_back(VMArenaBlockNew(arena, 0, size, nullptr, 0));
  for (uint64_t id : ids) arenatest::Fill(arena, id, 1);
  VMArenaBlockFree(arena, ids[0], 0);
  ASSERT_TRUE(VMArenaCommit(arena, nullptr, nullptr, 0)) << QWErrorMessage();
  VMArenaClose(arena);
  const uint64_t stride = qwtest::SweepStride(5);
  for (const char *name : {"arena.new", "arena.old"}) {
    std::string file = path("arena/") + name;
    std::string original = qwtest::ReadFileBytes(file);
    for (size_t cut = 0; cut < original.size(); ++cut) {
      if (!qwtest::InSweep(cut, 0, original.size() - 1, stride)) continue;
      qwtest::WriteFileBytes(file, original.substr(0, cut));
      VMArena *damaged = Open(Cache(), 0);
      EXPECT_EQ(damaged, nullptr) << name << " cut at " << cut;
      if (damaged) VMArenaClose(damaged);
      QWErrorClear();
    }
    // (The bucket count is left alone: a flipped count that is still valid
    // would make the open create that many bucket servers.)
    const size_t firstFlip = std::string(name) == "arena.new" ? 8 : 0;
    for (size_t at = firstFlip; at < original.size(); ++at) {
      if (!qwtest::InSweep(at, firstFlip, original.size() - 1, stride)) continue;
      std::string flipped = original;
      flipped[at] = char(flipped[at] ^ 0xA5);
      qwtest::WriteFileBytes(file, flipped);
      VMArena *damaged = Open(Cache(), 0);
      if (damaged) VMArenaClose(damaged);
      QWErrorClear();
    }
    qwtest::WriteFileBytes(file, original);
  }
  arena = Open(Cache(), 0);
  ASSERT_NE(arena, nullptr) << QWErrorMessage();
  EXPECT_TRUE(arenatest::Holds(arena, ids[2], OLDGEN, 1));
  VMArenaClose(arena);
}

}  // namespace
