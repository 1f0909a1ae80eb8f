// Block server behaviour: creation, copy-on-write, freeing, compaction and
// padding at a flush, serialised generations, mount, unlink. An I/O error at
// each step of a commit leaves both generations as they were, and the next
// commit succeeds (power loss at every sync of a commit: the campaign's arena
// workloads). Threads on one server as the arena lets them run: readers of
// the committed generation (no lock), writers of the new generation
// (allocating, writing, freeing their own blocks), and in mapped mode the
// mapping flush that the arena starts before it takes its flush lock.
#include <algorithm>
#include <atomic>
#include <map>
#include <random>
#include <set>
#include <string>
#include <thread>
#include <vector>

#include "support/fault_support.h"
#include "vm/lbs/lbs_fixture.h"

namespace lbstest {
namespace {

uint32_t NewRaw(LocalBlockServer0 *server, uint32_t block) { return LocalBlockServer0RawIdRead(server, block, NEWGEN); }

class LbsServerTest : public LbsTest, public ::testing::WithParamInterface<Mode> {};

TEST_P(LbsServerTest, WritingTwiceCopiesOnce) {
  ASSERT_TRUE(Reopen(GetParam())) << QWErrorMessage();
  const uint32_t block = NewBlock(server.get(), 1);
  ASSERT_NE(block, INVALID_BLOCK_ID);
  ASSERT_TRUE(Commit(server.get())) << QWErrorMessage();
  const uint32_t committed = NewRaw(server.get(), block);
  EXPECT_EQ(server->rwGen.flags[block], BLOCK_FLAG_SHARED);

  const uint32_t first = LocalBlockServer0RawIdWrite(server.get(), block);
  const uint32_t second = LocalBlockServer0RawIdWrite(server.get(), block);
  EXPECT_NE(first, committed);
  EXPECT_EQ(first, second);
  EXPECT_EQ(server->rwGen.flags[block], BLOCK_FLAG_COPIED);
  EXPECT_EQ(List(server->rwGen.freeRawBlocksNew), std::vector<uint32_t>{committed});
  EXPECT_EQ(List(server->rwGen.modifiedBlocks), std::vector<uint32_t>{block});
  // The copy holds the committed bytes; the committed raw block is untouched.
  EXPECT_TRUE(BlockHolds(server.get(), block, NEWGEN, 1));
  ASSERT_TRUE(WriteBlock(server.get(), block, 2));
  // A memory commit without a flush changes nothing.
  EXPECT_EQ(LocalBlockServer0CommitMemory(server.get()), 1);
  EXPECT_TRUE(BlockHolds(server.get(), block, NEWGEN, 2));
  EXPECT_TRUE(BlockHolds(server.get(), block, OLDGEN, 1));
  EXPECT_EQ(LocalBlockServer0OldBlockCount(server.get()), 1u);
}

TEST_P(LbsServerTest, FreeingASharedBlockDefersItsRawBlockToTheCommit) {
  ASSERT_TRUE(Reopen(GetParam())) << QWErrorMessage();
  const uint32_t shared = NewBlock(server.get(), 10);
  ASSERT_TRUE(Commit(server.get())) << QWErrorMessage();
  const uint32_t sharedRaw = NewRaw(server.get(), shared);

  LocalBlockServer0BlockFree(server.get(), shared);
  EXPECT_EQ(List(server->rwGen.freeRawBlocksNew), std::vector<uint32_t>{sharedRaw});
  EXPECT_EQ(NewRaw(server.get(), shared), INVALID_RAW_BLOCK_ID);
  EXPECT_TRUE(server->rwGen.flags[shared] & BLOCK_FLAG_FREED);
  EXPECT_TRUE(BlockHolds(server.get(), shared, OLDGEN, 10));

  // A block of this generation gives its raw block back at once, and the
  // next allocation takes it (last in, first out).
  const uint32_t fresh = NewBlock(server.get(), 11);
  const uint32_t freshRaw = NewRaw(server.get(), fresh);
  EXPECT_EQ(fresh, shared);  // the freed block id is reused
  LocalBlockServer0BlockFree(server.get(), fresh);
  EXPECT_EQ(server->rwGen.freeRawBlocksOld[server->rwGen.freeRawBlocksOld.size() - 1], freshRaw);
  const uint32_t again = NewBlock(server.get(), 12);
  EXPECT_EQ(NewRaw(server.get(), again), freshRaw);

  // Until the commit nothing takes the old generation's raw block.
  std::vector<uint32_t> blocks;
  for (uint32_t i = 0; i < 40; ++i) {
    blocks.push_back(NewBlock(server.get(), 100 + i));
    ASSERT_NE(blocks.back(), INVALID_BLOCK_ID) << QWErrorMessage();
    EXPECT_NE(NewRaw(server.get(), blocks.back()), sharedRaw);
  }
  EXPECT_TRUE(BlockHolds(server.get(), shared, OLDGEN, 10));
  ASSERT_TRUE(Commit(server.get())) << QWErrorMessage();
  const std::vector<uint32_t> freeOld = List(server->rwGen.freeRawBlocksOld);
  EXPECT_NE(std::find(freeOld.begin(), freeOld.end(), sharedRaw), freeOld.end());
  EXPECT_TRUE(server->rwGen.freeRawBlocksNew.size() == 0);
}

TEST_P(LbsServerTest, FlushPadsTheDataFileAndSharesEveryBlock) {
  ASSERT_TRUE(Reopen(GetParam())) << QWErrorMessage();
  for (uint32_t i = 0; i < 3; ++i) ASSERT_EQ(NewBlock(server.get(), i), i);
  ASSERT_TRUE(Commit(server.get())) << QWErrorMessage();
  EXPECT_EQ(server->rsize, uint64_t{65536});
  EXPECT_EQ(FileBytes(path("data0")), uint64_t{65536});
  EXPECT_EQ(List(server->rwGen.freeRawBlocksOld), (std::vector<uint32_t>{7, 6, 5, 4, 3}));
  for (uint32_t i = 0; i < 3; ++i) EXPECT_EQ(server->rwGen.flags[i], BLOCK_FLAG_SHARED);

  // Ten blocks more pass one file block: the file grows to two.
  for (uint32_t i = 3; i < 13; ++i) ASSERT_NE(NewBlock(server.get(), i), INVALID_BLOCK_ID);
  ASSERT_TRUE(Commit(server.get())) << QWErrorMessage();
  EXPECT_EQ(server->rsize, uint64_t{131072});
  EXPECT_EQ(FileBytes(path("data0")), uint64_t{131072});
  EXPECT_EQ(List(server->rwGen.freeRawBlocksOld), (std::vector<uint32_t>{15, 14, 13}));
  for (uint32_t i = 0; i < 13; ++i) {
    EXPECT_EQ(server->rwGen.flags[i], BLOCK_FLAG_SHARED);
    EXPECT_TRUE(BlockHolds(server.get(), i, OLDGEN, i));
    // The first write of the next generation copies.
    const uint32_t before = NewRaw(server.get(), i);
    EXPECT_NE(LocalBlockServer0RawIdWrite(server.get(), i), before);
  }
}

TEST_P(LbsServerTest, FlushMovesNothingBelowTheLowestFreeRawBlock) {
  ASSERT_TRUE(Reopen(GetParam())) << QWErrorMessage();
  for (uint32_t i = 0; i < 16; ++i) ASSERT_EQ(NewBlock(server.get(), i), i);
  ASSERT_TRUE(Commit(server.get())) << QWErrorMessage();
  for (uint32_t i = 8; i < 16; ++i) LocalBlockServer0BlockFree(server.get(), i);
  ASSERT_TRUE(Commit(server.get())) << QWErrorMessage();
  EXPECT_EQ(List(server->rwGen.freeRawBlocksOld), (std::vector<uint32_t>{15, 14, 13, 12, 11, 10, 9, 8}));

  // Copies take the lowest free raw blocks 8..11; the lowest left is 12.
  for (uint32_t i = 0; i < 4; ++i) ASSERT_TRUE(WriteBlock(server.get(), i, 100 + i));
  std::vector<uint32_t> before;
  for (uint32_t i = 0; i < 8; ++i) before.push_back(NewRaw(server.get(), i));
  EXPECT_EQ(before[0], 8u);
  qwtest::MessageCapture capture;
  ASSERT_TRUE(Commit(server.get())) << QWErrorMessage();
  for (uint32_t i = 0; i < 8; ++i) EXPECT_EQ(NewRaw(server.get(), i), before[i]);
  EXPECT_TRUE(capture.contains("flush: put back block 12", QW_LEVEL_DEBUG));
  for (uint32_t i = 0; i < 8; ++i) EXPECT_TRUE(BlockHolds(server.get(), i, OLDGEN, i < 4 ? 100 + i : i));
}

TEST_P(LbsServerTest, FlushMovesHighBlocksDownAndShrinksTheFile) {
  ASSERT_TRUE(Reopen(GetParam())) << QWErrorMessage();
  for (uint32_t i = 0; i < 8; ++i) ASSERT_EQ(NewBlock(server.get(), i), i);
  ASSERT_TRUE(Commit(server.get())) << QWErrorMessage();
  LocalBlockServer0BlockFree(server.get(), 1);
  LocalBlockServer0BlockFree(server.get(), 2);
  ASSERT_TRUE(Commit(server.get())) << QWErrorMessage();
  // Raw blocks 1 and 2 are free; x and y take them, z the first block above
  // the committed file.
  const uint32_t x = NewBlock(server.get(), 20), y = NewBlock(server.get(), 21), z = NewBlock(server.get(), 22);
  EXPECT_EQ(NewRaw(server.get(), x), 1u);
  EXPECT_EQ(NewRaw(server.get(), y), 2u);
  EXPECT_EQ(NewRaw(server.get(), z), 8u);
  LocalBlockServer0BlockFree(server.get(), x);
  qwtest::MessageCapture capture;
  ASSERT_TRUE(Commit(server.get())) << QWErrorMessage();
  EXPECT_EQ(NewRaw(server.get(), z), 1u);
  EXPECT_TRUE(capture.contains("flush: freeing moved block 8", QW_LEVEL_DEBUG));
  EXPECT_FALSE(capture.contains("VM: Block count must be fixed !"));
  EXPECT_EQ(server->rsize, uint64_t{65536});
  EXPECT_EQ(FileBytes(path("data0")), uint64_t{65536});
  EXPECT_TRUE(BlockHolds(server.get(), z, OLDGEN, 22));
  EXPECT_TRUE(BlockHolds(server.get(), y, NEWGEN, 21));
  ASSERT_TRUE(Reopen(GetParam())) << QWErrorMessage();
  EXPECT_TRUE(BlockHolds(server.get(), z, NEWGEN, 22));
  EXPECT_EQ(NewRaw(server.get(), x), INVALID_RAW_BLOCK_ID);
}

TEST_P(LbsServerTest, SerialisedGenerationsKeepTheirFiles) {
  ASSERT_TRUE(Reopen(GetParam(), 0)) << QWErrorMessage();
  EXPECT_TRUE(FileExists(path("index0.new.0").c_str()));
  EXPECT_TRUE(FileExists(path("index0.old.0").c_str()));
  EXPECT_FALSE(FileExists(path("index0.new").c_str()));
  const uint32_t block = NewBlock(server.get(), 77);
  ASSERT_TRUE(Commit(server.get())) << QWErrorMessage();
  EXPECT_EQ(server->serial_old, 1u);
  EXPECT_EQ(server->serial_new, 1u);
  EXPECT_TRUE(FileExists(path("index0.new.1").c_str()));
  EXPECT_TRUE(FileExists(path("index0.old.1").c_str()));
  EXPECT_FALSE(FileExists(path("index0.new.new").c_str()));

  // The current generation cannot be unlinked; a past one can.
  EXPECT_EQ(LocalBlockServer0UnlinkGeneration(server.get(), 1, 1), 0);
  EXPECT_EQ(LocalBlockServer0UnlinkGeneration(server.get(), 0, 0), 1) << QWErrorMessage();
  EXPECT_FALSE(FileExists(path("index0.new.0").c_str()));
  EXPECT_FALSE(FileExists(path("index0.old.0").c_str()));
  EXPECT_TRUE(FileExists(path("index0.new.1").c_str()));

  ASSERT_TRUE(Reopen(GetParam(), 1)) << QWErrorMessage();
  EXPECT_TRUE(BlockHolds(server.get(), block, NEWGEN, 77));
  // A generation that was never written is not created from nothing.
  server.reset();
  EXPECT_FALSE(Open(GetParam(), 5));
  EXPECT_EQ(QWErrorCode(), 2);
  EXPECT_FALSE(FileExists(path("index0.new.5").c_str()));
}

TEST_P(LbsServerTest, ReadOnlyFollowerMountsAWriterGeneration) {
  ServerPtr writer = Open(GetParam(), 0);
  ASSERT_TRUE(writer) << QWErrorMessage();
  for (uint32_t i = 0; i < 5; ++i) ASSERT_EQ(NewBlock(writer.get(), i), i);
  ASSERT_TRUE(Commit(writer.get())) << QWErrorMessage();
  ServerPtr reader = Open(GetParam(), 1, VM_FLAG_READ_ONLY);
  ASSERT_TRUE(reader) << QWErrorMessage();
  for (uint32_t i = 0; i < 5; ++i) EXPECT_TRUE(BlockHolds(reader.get(), i, OLDGEN, i));

  for (uint32_t i = 0; i < 5; ++i) ASSERT_TRUE(WriteBlock(writer.get(), i, 50 + i));
  for (uint32_t i = 0; i < 12; ++i) ASSERT_NE(NewBlock(writer.get(), 60 + i), INVALID_BLOCK_ID);
  ASSERT_TRUE(Commit(writer.get())) << QWErrorMessage();

  ASSERT_EQ(LocalBlockServer0Mount(reader.get(), 2, 2), 1) << QWErrorMessage();
  EXPECT_TRUE(reader->mounted);
  for (uint32_t i = 0; i < 5; ++i) EXPECT_TRUE(BlockHolds(reader.get(), i, OLDGEN, i));  // not yet current
  ASSERT_EQ(LocalBlockServer0CommitMemory(reader.get()), 1) << QWErrorMessage();
  EXPECT_EQ(reader->serial_new, 2u);
  for (uint32_t i = 0; i < 5; ++i) EXPECT_TRUE(BlockHolds(reader.get(), i, OLDGEN, 50 + i));
  for (uint32_t i = 5; i < 17; ++i) EXPECT_TRUE(BlockHolds(reader.get(), i, OLDGEN, 55 + i));
  // A generation that does not exist fails the mount and changes nothing.
  EXPECT_EQ(LocalBlockServer0Mount(reader.get(), 9, 9), 0);
  EXPECT_TRUE(BlockHolds(reader.get(), 0, OLDGEN, 50));
}

class LbsBasicsTest : public LbsTest {};

TEST_F(LbsBasicsTest, ExtentModeKeepsTheReadWritePartInExtentFiles) {
  ASSERT_TRUE(Reopen(kExtents)) << QWErrorMessage();
  for (uint32_t i = 0; i < 9; ++i) ASSERT_EQ(NewBlock(server.get(), i), i);
  EXPECT_TRUE(FileExists(path("data0.extent0").c_str()));
  EXPECT_TRUE(FileExists(path("data0.extent1").c_str()));
  EXPECT_EQ(FileBytes(path("data0")), 0u);
  ASSERT_TRUE(Commit(server.get())) << QWErrorMessage();
  EXPECT_FALSE(FileExists(path("data0.extent0").c_str()));
  EXPECT_FALSE(FileExists(path("data0.extent1").c_str()));
  EXPECT_EQ(FileBytes(path("data0")), 131072u);
  // Stale extents of a process that died are removed by the next open.
  server.reset();
  qwtest::WriteFileBytes(path("data0.extent3"), std::string(65536, 'x'));
  ASSERT_TRUE(Reopen(kExtents)) << QWErrorMessage();
  EXPECT_FALSE(FileExists(path("data0.extent3").c_str()));
  for (uint32_t i = 0; i < 9; ++i) EXPECT_TRUE(BlockHolds(server.get(), i, NEWGEN, i));
}

TEST_F(LbsBasicsTest, AnInterruptedCreationIsRedone) {
  // What a creation cut short can leave: a data file and torn index files
  // that were never committed.
  qwtest::WriteFileBytes(path("data0"), "");
  qwtest::WriteFileBytes(path("index0.new.new"), "torn");
  qwtest::WriteFileBytes(path("index0.old.new"), "");
  ASSERT_TRUE(Reopen(kPageCache)) << QWErrorMessage();
  EXPECT_EQ(LocalBlockServer0BlockCount(server.get()), 0u);
  EXPECT_EQ(qwtest::ReadFileBytes(path("index0.old")), "\x04" + LE(0, 8));
  server.reset();

  const std::string serialised = path("serialised");
  ASSERT_EQ(DirectoryCreate(serialised.c_str()), 1);
  qwtest::WriteFileBytes(serialised + "/index0.new.0.tmp", "torn");
  server = OpenIn(serialised, kPageCache, 0);
  ASSERT_TRUE(server) << QWErrorMessage();
  EXPECT_EQ(LocalBlockServer0BlockCount(server.get()), 0u);
  EXPECT_FALSE(FileExists((serialised + "/index0.new.0.tmp").c_str()));
  EXPECT_TRUE(FileExists((serialised + "/index0.old.0").c_str()));

  // A server that exists is never created again, even with its new index
  // damaged.
  server.reset();
  qwtest::WriteFileBytes(path("index0.new"), "torn");
  EXPECT_FALSE(Open(kPageCache));
  EXPECT_EQ(qwtest::ReadFileBytes(path("index0.new")), "torn");
}

// Page-cache mode needs a cache of the server's block size; a read-only open
// creates nothing; freeing twice or a block never allocated changes nothing.
TEST_F(LbsBasicsTest, RefusedOpensAndFrees) {
  EXPECT_FALSE(Open(kPageCache, STATUS_NO_SERIAL, VM_FLAG_READ_ONLY));
  EXPECT_EQ(QWErrorCode(), 2);
  EXPECT_FALSE(FileExists(path("data0").c_str()));
  EXPECT_FALSE(FileExists(path("index0.new").c_str()));
  PageCache *small = PageCacheNew(1 << 20, 4096);
  ASSERT_NE(small, nullptr);
  for (PageCache *wrong : {static_cast<PageCache *>(nullptr), small})
    EXPECT_FALSE(LocalBlockServer0Open_(dir().c_str(), "0", 0, kServerBlockSize, kFileBlockSize, kMinBlockCount,
                                        STATUS_NO_SERIAL, STATUS_NO_SERIAL, nullptr, wrong));
  EXPECT_EQ(QWErrorCode(), 22);
  PageCacheFree(small);

  ASSERT_TRUE(Reopen(kPageCache)) << QWErrorMessage();
  const uint32_t block = NewBlock(server.get(), 3);
  LocalBlockServer0BlockFree(server.get(), block);
  const std::vector<uint32_t> freeOld = List(server->rwGen.freeRawBlocksOld);
  qwtest::MessageCapture capture;
  LocalBlockServer0BlockFree(server.get(), block);
  LocalBlockServer0BlockFree(server.get(), 99);
  EXPECT_EQ(List(server->rwGen.freeRawBlocksOld), freeOld);
  EXPECT_EQ(server->rwGen.freeBlocks.size(), 1u);
  EXPECT_EQ(capture.messages().size(), 2u);
  EXPECT_EQ(LocalBlockServer0RawIdWrite(server.get(), block), INVALID_RAW_BLOCK_ID);
  EXPECT_EQ(LocalBlockServer0RawIdWrite(server.get(), 99), INVALID_RAW_BLOCK_ID);
  EXPECT_EQ(LocalBlockServer0RawBlockGet(server.get(), 12345), nullptr);
}

TEST_F(LbsBasicsTest, StatPrintAndSizeTableGoToStandardOutput) {
  ASSERT_TRUE(Reopen(kPageCache)) << QWErrorMessage();
  for (uint32_t i = 0; i < 3; ++i) ASSERT_NE(NewBlock(server.get(), i), INVALID_BLOCK_ID);
  LocalBlockServer0BlockFree(server.get(), 1);
  LocalBlockServer0 *raw = server.get();
  const qwtest::ChildResult stats = qwtest::RunInChild([raw] { LocalBlockServer0StatPrint(raw); });
  EXPECT_EQ(stats.out,
            "freeRawBlock old = 1, new = 0, freeBlock = 1\n"
            "max used raw id 2\n"
            "used raw blocks = 2, total raw block = 3\n");
  const qwtest::ChildResult table = qwtest::RunInChild([] { SizeGenerate(); });
  EXPECT_EQ(table.out.rfind("i = 0, j = 64, k = 0, j + k = 64, 8192 % (j + k) = 0\n", 0), 0u) << table.out;
  EXPECT_NE(table.out.find("f = 1.370000\n"), std::string::npos);
  EXPECT_NE(table.out.find("\n 24\n"), std::string::npos);
  EXPECT_EQ(MemoryMappingSetModificationDate(server.get()), 1);
}

namespace fault = qw::fault;
using Model = std::map<uint32_t, uint32_t>;

// Deterministic changes. The first leaves raw blocks 4..7 free below the
// committed size; the second fills two with blocks the flush moves down, so
// the flush writes into the committed part of the data file too; the third
// changes blocks that exist in both generations.
bool FirstChanges(LocalBlockServer0 *server) {
  for (uint32_t i = 0; i < 24; ++i)
    if (LbsTest::NewBlock(server, i + 1) != i) return false;
  if (!LbsTest::Commit(server)) return false;
  for (uint32_t i = 4; i < 8; ++i) LocalBlockServer0BlockFree(server, i);
  return true;
}

bool SecondChanges(LocalBlockServer0 *server) {
  if (!LbsTest::WriteBlock(server, 0, 100) || !LbsTest::WriteBlock(server, 1, 101)) return false;
  uint32_t added[4];
  for (uint32_t i = 0; i < 4; ++i)
    if ((added[i] = LbsTest::NewBlock(server, 200 + i)) == INVALID_BLOCK_ID) return false;
  LocalBlockServer0BlockFree(server, added[0]);
  LocalBlockServer0BlockFree(server, added[1]);
  for (uint32_t i = 8; i < 13; ++i) LocalBlockServer0BlockFree(server, i);
  return true;
}

bool ThirdChanges(LocalBlockServer0 *server) {
  for (uint32_t block : {0u, 3u, 13u, 16u, 20u})
    if (!LbsTest::WriteBlock(server, block, 300 + block)) return false;
  LocalBlockServer0BlockFree(server, 1);
  return LbsTest::NewBlock(server, 400) != INVALID_BLOCK_ID;
}

TEST_P(LbsServerTest, AFailedCommitChangesNothingAndTheNextOneSucceeds) {
  const struct {
    const char *what;
    qwtest::IOFault fault;  // the operation that fails
  } points[] = {
      {"data file write or sync of a mapping", {fault::Op::Write | fault::Op::MapSync}},
      {"data file sync", {fault::Bit(fault::Op::Sync), "data0"}},
      {"new index", {fault::Bit(fault::Op::Open), "index0.new"}},
      {"old index", {fault::Bit(fault::Op::Open), "index0.old"}},
      {"old index sync", {fault::Bit(fault::Op::Sync), "index0.old"}},
      {"directory sync", {fault::Bit(fault::Op::DirSync)}},
      {"index commit", {fault::Bit(fault::Op::Rename), "index0.new"}},
  };
  int index = 0;
  for (const auto &point : points) {
    SCOPED_TRACE(point.what);
    const std::string directory = path("case" + std::to_string(index++));
    ASSERT_EQ(DirectoryCreate(directory.c_str()), 1);
    ServerPtr server = OpenIn(directory, GetParam());
    ASSERT_TRUE(server) << QWErrorMessage();
    ASSERT_TRUE(FirstChanges(server.get()));
    ASSERT_TRUE(Commit(server.get())) << QWErrorMessage();
    Model committed, current, found;
    ASSERT_TRUE(Snapshot(server.get(), NEWGEN, &committed));
    ASSERT_TRUE(SecondChanges(server.get()));
    ASSERT_TRUE(Snapshot(server.get(), NEWGEN, &current));

    (void)LocalBlockServer0MappingFlush(server.get(), 1);
    EXPECT_TRUE(qwtest::FailsWithIOError(point.fault, [&] {
      const bool ok = LocalBlockServer0FlushStart(server.get(), STATUS_NO_SERIAL, STATUS_NO_SERIAL) &&
                      LocalBlockServer0FlushFileExec(server.get()) && LocalBlockServer0CommitDisk(server.get()) &&
                      LocalBlockServer0CommitMemory(server.get());
      LocalBlockServer0FlushStop(server.get());
      return ok;
    }));
    ASSERT_TRUE(Snapshot(server.get(), NEWGEN, &found));
    EXPECT_EQ(found, current);
    ASSERT_TRUE(Snapshot(server.get(), OLDGEN, &found));
    EXPECT_EQ(found, committed);
    // The raw blocks of the committed generation are still off limits.
    ASSERT_TRUE(ThirdChanges(server.get()));
    ASSERT_TRUE(Snapshot(server.get(), OLDGEN, &found));
    EXPECT_EQ(found, committed);
    ASSERT_TRUE(Snapshot(server.get(), NEWGEN, &current));
    qwtest::MessageCapture capture;
    ASSERT_TRUE(Commit(server.get())) << QWErrorMessage();
    EXPECT_FALSE(capture.contains("VM: Block count must be fixed !"));
    server.reset();
    server = OpenIn(directory, GetParam());
    ASSERT_TRUE(server) << QWErrorMessage();
    ASSERT_TRUE(Snapshot(server.get(), NEWGEN, &found));
    EXPECT_EQ(found, current);
  }
}

INSTANTIATE_TEST_SUITE_P(Modes, LbsServerTest, ::testing::ValuesIn(kModes), ModeName);

class LbsConcurrencyTest : public LbsTest, public ::testing::WithParamInterface<Mode> {};

TEST_P(LbsConcurrencyTest, OldGenerationReadersBesideNewGenerationWritersThatGrowTheMaps) {
  ServerPtr server = Open(GetParam());
  ASSERT_TRUE(server) << QWErrorMessage();
  constexpr uint32_t kCommitted = 64;
  for (uint32_t i = 0; i < kCommitted; ++i) ASSERT_EQ(NewBlock(server.get(), i + 1), i);
  ASSERT_TRUE(Commit(server.get())) << QWErrorMessage();

  constexpr int kWriters = 3;
  constexpr int kSteps = 400;
  constexpr uint32_t kGrowth = 800;  // 3 x 800 blocks: the block map passes 8 chunks
  std::atomic<bool> writing{true};
  std::atomic<int> failures{0};
  LocalBlockServer0 *s = server.get();

  // Each writer owns the committed blocks congruent to its number and the
  // blocks it allocates.
  auto writer = [&](int index) {
    std::mt19937 random(77u + unsigned(index));
    std::map<uint32_t, uint32_t> mine;
    for (uint32_t b = uint32_t(index); b < kCommitted; b += kWriters) mine[b] = b + 1;
    std::vector<uint32_t> allocated;
    for (int step = 0; step < kSteps; ++step) {
      const uint32_t seed = uint32_t(index) * 1000000u + uint32_t(step) + 1000u;
      const unsigned op = random() % 4;
      if (op == 0) {
        const uint32_t block = NewBlock(s, seed);
        if (block == INVALID_BLOCK_ID || mine.count(block)) ++failures;
        mine[block] = seed;
        allocated.push_back(block);
      } else if (op == 1 && !allocated.empty()) {
        const uint32_t block = allocated.back();
        allocated.pop_back();
        LocalBlockServer0BlockFree(s, block);
        mine.erase(block);
      } else {
        auto it = mine.begin();
        std::advance(it, random() % mine.size());
        if (op == 2) {
          if (!WriteBlock(s, it->first, seed)) ++failures;
          it->second = seed;
        } else if (!BlockHolds(s, it->first, NEWGEN, it->second)) {
          ++failures;
        }
      }
    }
    // Then many new blocks at once: the block map and the read-write part
    // grow their chunk tables while the other writers look blocks up.
    for (uint32_t k = 0; k < kGrowth; ++k) {
      const uint32_t seed = uint32_t(index) * 1000000u + 500000u + k;
      const uint32_t block = NewBlock(s, seed);
      if (block == INVALID_BLOCK_ID || mine.count(block)) ++failures;
      mine[block] = seed;
      auto it = mine.begin();
      std::advance(it, random() % mine.size());
      if (!BlockHolds(s, it->first, NEWGEN, it->second)) ++failures;
    }
    for (const auto &[block, seed] : mine)
      if (!BlockHolds(s, block, NEWGEN, seed)) ++failures;
  };
  auto reader = [&](int index) {
    std::mt19937 random(991u + unsigned(index));
    do {
      const uint32_t block = random() % kCommitted;
      if (!BlockHolds(s, block, OLDGEN, block + 1)) ++failures;
    } while (writing.load());
  };
  std::vector<std::thread> threads;
  for (int i = 0; i < 2; ++i) threads.emplace_back(reader, i);
  // The cache's flush copies pages that holders may be changing (by design it
  // marks them dirty again); only the mapped modes run it beside writers here.
  if (GetParam().flags != 0)
    threads.emplace_back([&] {
      do {
        if (!LocalBlockServer0MappingFlush(s, 1)) ++failures;
      } while (writing.load());
    });
  std::vector<std::thread> writers;
  for (int i = 0; i < kWriters; ++i) writers.emplace_back(writer, i);
  for (std::thread &t : writers) t.join();
  writing = false;
  for (std::thread &t : threads) t.join();
  EXPECT_EQ(failures.load(), 0);
  ASSERT_TRUE(Commit(server.get())) << QWErrorMessage();
  for (uint32_t i = 0; i < kCommitted; ++i) {
    uint32_t seed = 0;
    EXPECT_TRUE(ReadBlock(server.get(), i, OLDGEN, &seed));
  }
}

INSTANTIATE_TEST_SUITE_P(Modes, LbsConcurrencyTest, ::testing::ValuesIn(kModes), ModeName);

}  // namespace
}  // namespace lbstest
