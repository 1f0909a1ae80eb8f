// Opening, creating and refusing arenas; the generation files.
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

TEST_F(ArenaTest, CreateWritesFixedNameGenerationFilesAndReopens) {
  ASSERT_TRUE(Reopen(kCache, VM_FLAG_CREATE, 3)) << QWErrorMessage();
  EXPECT_EQ(std::string(VMArenaPath(arena)), arenaDir());
  EXPECT_EQ(VMArenaBucketCount(arena), 3u);
  CloseArena();
  for (const char *name : {"arena.new", "arena.old", "block"})
    EXPECT_TRUE(std::filesystem::exists(path("arena/") + name)) << name;
  EXPECT_FALSE(std::filesystem::exists(path("arena/arena.new.new")));
  // An existing arena keeps its own bucket count, whatever count is passed.
  for (uint32_t passed : {7u, 0u}) {
    ASSERT_TRUE(Reopen(kCache, 0, passed)) << passed << ": " << QWErrorMessage();
    EXPECT_EQ(VMArenaBucketCount(arena), 3u);
  }
}

// The generation files of a fresh arena with two buckets, byte for byte.
TEST_F(ArenaTest, InitialGenerationFilesAreByteExact) {
  ASSERT_TRUE(Reopen(kCache, VM_FLAG_CREATE, 2)) << QWErrorMessage();
  CloseArena();
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
  ASSERT_TRUE(Reopen(kCache)) << QWErrorMessage();
  CloseArena();
  // Neither form: a width byte other than 1 before a matching count.
  qwtest::WriteFileBytes(path("arena/arena.old"), expectedOld.substr(0, 18) + std::string("\x02\x01\0\0\0\0", 6));
  EXPECT_FALSE(Reopen(kCache));
}

TEST_F(ArenaTest, SerialisedArenaCreatedWithSerialZeroWritesSerialNames) {
  ASSERT_TRUE(Reopen(kCacheSerial, VM_FLAG_CREATE)) << QWErrorMessage();
  EXPECT_TRUE(std::filesystem::exists(path("arena/arena.new.0")));
  EXPECT_TRUE(std::filesystem::exists(path("arena/arena.old.0")));
  uint64_t o = 0, n = 0;
  ASSERT_TRUE(VMArenaCommit(arena, &o, &n, 0)) << QWErrorMessage();
  EXPECT_EQ(o, 1u);
  EXPECT_EQ(n, 1u);
  EXPECT_TRUE(std::filesystem::exists(path("arena/arena.new.1")));
  EXPECT_TRUE(std::filesystem::exists(path("arena/arena.new.0")));  // kept until unlinked
  EXPECT_FALSE(VMArenaUnlinkGeneration(arena, 1, 1));  // the current one: refused, nothing removed
  EXPECT_TRUE(std::filesystem::exists(path("arena/arena.new.1")));
  ASSERT_TRUE(VMArenaUnlinkGeneration(arena, 0, 0));
  EXPECT_FALSE(std::filesystem::exists(path("arena/arena.new.0")));
  EXPECT_FALSE(std::filesystem::exists(path("arena/arena.old.0")));
  serialOld = serialNew = 1;
  EXPECT_TRUE(Reopen(kCacheSerial)) << QWErrorMessage();
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

}  // namespace
