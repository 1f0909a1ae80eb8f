// Run block server: block placement in the data files, growth, the free-block
// order across commits and reopenings, the single write buffer, sharing rules.
#include <cstring>
#include <filesystem>
#include <thread>

#include "qwvm/qwvm.h"
#include "support/test_support.h"

namespace {

constexpr uint32_t kDrbBlock = 4096;

class DRBServerTest : public qwtest::TempDirTest {
 protected:
  void TearDown() override {
    Close();
    TempDirTest::TearDown();
  }
  void OpenArena() {
    arena = VMArenaOpen(path("meta").c_str(), VM_FLAG_CREATE | VM_FLAG_MAPPED, 1, STATUS_NO_SERIAL, STATUS_NO_SERIAL,
                        nullptr, nullptr);
    ASSERT_NE(arena, nullptr) << QWErrorMessage();
  }
  void Open(uint32_t files, uint32_t blockSize = kDrbBlock) {
    ASSERT_NO_FATAL_FAILURE(OpenArena());
    ASSERT_TRUE(DirectoryCreate(path("data").c_str()));
    ASSERT_NE(server = DRBServerNew(path("data").c_str(), arena, blockSize, files, 1, 1, 0), nullptr)
        << QWErrorMessage();
  }
  void Close() {
    DRBServerFree(server);
    server = nullptr;
    if (arena) VMArenaClose(arena);
    arena = nullptr;
  }
  void Commit() {
    ASSERT_TRUE(DRBServerBeforeCommit(server)) << QWErrorMessage();
    ASSERT_TRUE(VMArenaCommit(arena, nullptr, nullptr, 0)) << QWErrorMessage();
    ASSERT_TRUE(DRBServerAfterCommit(server)) << QWErrorMessage();
  }
  void Write(uint32_t block, char fill) {
    DRBServerBlockHandle h;
    ASSERT_NE(DRBServerBlockAcquire(&h, server, block, 0, 0), nullptr) << QWErrorMessage();
    std::memset(h.address, fill, kDrbBlock);
    ASSERT_TRUE(DRBServerBlockRelease(server, block, 0, h.address));
  }
  uint64_t Size(const char *name) {
    uint64_t size = 0;
    EXPECT_TRUE(FileSize(path(name).c_str(), &size));
    return size;
  }
  VMArena *arena = nullptr;
  DRBServer *server = nullptr;
};

TEST_F(DRBServerTest, BlocksAreSpreadOverTheFilesAndGrowthDoublesTheRoom) {
  Open(3);
  ASSERT_EQ(DRBServerBlockNew(server), 0u);
  // The first growth makes room for one block per file (0 + 1, rounded up).
  for (const char *name : {"data/data0", "data/data1", "data/data2"}) EXPECT_EQ(Size(name), kDrbBlock);
  for (uint32_t b = 1; b < 8; ++b) ASSERT_EQ(DRBServerBlockNew(server), b);
  // Room 3 -> 3 + 1 + 3 = 7, rounded to 9: three blocks per file.
  EXPECT_EQ(Size("data/data0"), 3u * kDrbBlock);
  for (uint32_t b = 0; b < 8; ++b) Write(b, char('a' + b));
  ASSERT_TRUE(DRBServerBeforeCommit(server)) << QWErrorMessage();
  // Block 7 lives in file 7 mod 3 = 1 at offset (7 / 3) * blockSize.
  const std::string file1 = qwtest::ReadFileBytes(path("data/data1"));
  EXPECT_EQ(file1.substr(2 * kDrbBlock, kDrbBlock), std::string(kDrbBlock, 'h'));
  EXPECT_EQ(file1.substr(0, kDrbBlock), std::string(kDrbBlock, 'b'));
  // Reading maps the bytes written.
  DRBServerBlockHandle h;
  ASSERT_NE(DRBServerBlockAcquire(&h, server, 7, 1, 0), nullptr) << QWErrorMessage();
  EXPECT_EQ(static_cast<const char *>(h.address)[kDrbBlock - 1], 'h');
  ASSERT_TRUE(DRBServerBlockRelease(server, 7, 1, h.address));
}

// Growth steps by the room, but by at most 512 MiB of blocks once the room
// holds more: the room after each growth, seen in the (sparse) file sizes.
TEST_F(DRBServerTest, GrowthStepIsCappedAt512MiB) {
  struct Case {
    uint32_t blockSize, files;
    std::vector<uint32_t> rooms;
  } cases[] = {{128u << 20, 1, {1, 3, 7, 12, 17}},  // 7 blocks = 896 MiB: step 4, not 7
               {64u << 20, 2, {2, 6, 14, 24, 34}}};  // 14 blocks = 896 MiB: step 8
  for (const Case &c : cases) {
    SCOPED_TRACE(c.blockSize);
    Close();
    std::filesystem::remove_all(path("meta"));
    std::filesystem::remove_all(path("data"));
    Open(c.files, c.blockSize);
    uint32_t handed = 0;
    for (uint32_t room : c.rooms) {
      while (handed <= room - 1) ASSERT_EQ(DRBServerBlockNew(server), handed++) << QWErrorMessage();
      EXPECT_EQ(Size("data/data0"), uint64_t(room / c.files) * c.blockSize) << room;
    }
  }
}

TEST_F(DRBServerTest, FreedBlocksComeBackLowestFirstOnlyAfterACommit) {
  Open(2);
  for (uint32_t b = 0; b < 6; ++b) ASSERT_EQ(DRBServerBlockNew(server), b);
  Commit();
  ASSERT_TRUE(DRBServerBlockFree(server, 4));
  ASSERT_TRUE(DRBServerBlockFree(server, 1));
  EXPECT_EQ(DRBServerBlockNew(server), 6u);  // not before the commit
  EXPECT_DEATH(DRBServerBlockFree(server, 4), "bid != blockID");
  Commit();
  EXPECT_EQ(DRBServerBlockNew(server), 1u);
  ASSERT_TRUE(DRBServerBlockFree(server, 0));
  // The commit sees "newFreeBlock" = {0}; the process ends before the
  // after-commit step moves it: the free is still taken up on reopening.
  ASSERT_TRUE(DRBServerBeforeCommit(server));
  ASSERT_TRUE(VMArenaCommit(arena, nullptr, nullptr, 0));
  Close();
  // Reopened: the committed free list and counter, lowest first.
  Open(2);
  EXPECT_EQ(DRBServerBlockNew(server), 0u);
  EXPECT_EQ(DRBServerBlockNew(server), 4u);
  EXPECT_EQ(DRBServerBlockNew(server), 7u);
  EXPECT_EQ(DRBServerBlockCount(server), 8u);
}

TEST_F(DRBServerTest, TheOneWriteBufferIsReusedOnlyAfterItsBlockIsWrittenBack) {
  Open(1);
  ASSERT_EQ(DRBServerBlockNew(server), 0u);
  ASSERT_EQ(DRBServerBlockNew(server), 1u);
  Write(0, 'x');
  // The second writer gets the pool's only buffer, so block 0 is on disk.
  DRBServerBlockHandle h;
  ASSERT_NE(DRBServerBlockAcquire(&h, server, 1, 0, 0), nullptr);
  EXPECT_EQ(qwtest::ReadFileBytes(path("data/data0")).substr(0, kDrbBlock), std::string(kDrbBlock, 'x'));
  // A second writer of the same block is refused; so is a reader beside it.
  EXPECT_DEATH(DRBServerBlockAcquire(&h, server, 1, 1, 0), "BAD on 1 mode = read block mode = write");
  ASSERT_TRUE(DRBServerBlockRelease(server, 1, 0, h.address));
  // Re-acquiring a written block with `load` reads back its bytes.
  ASSERT_NE(DRBServerBlockAcquire(&h, server, 0, 0, 1), nullptr);
  EXPECT_EQ(static_cast<const char *>(h.address)[17], 'x');
  ASSERT_TRUE(DRBServerBlockRelease(server, 0, 0, h.address));
  // Readers share one map.
  DRBServerBlockHandle r1, r2;
  ASSERT_NE(DRBServerBlockAcquire(&r1, server, 0, 1, 0), nullptr);
  ASSERT_NE(DRBServerBlockAcquire(&r2, server, 0, 1, 0), nullptr);
  EXPECT_EQ(r1.address, r2.address);
  EXPECT_DEATH(DRBServerBlockAcquire(&h, server, 0, 0, 0), "FALSE");
  ASSERT_TRUE(DRBServerBlockRelease(server, 0, 1, r1.address));
  ASSERT_TRUE(DRBServerBlockRelease(server, 0, 1, r2.address));
}

TEST_F(DRBServerTest, BadArgumentsAndMissingFilesFailClearly) {
  OpenArena();
  EXPECT_EQ(DRBServerNew(path("data").c_str(), arena, 1000, 1, 1, 1, 0), nullptr);
  EXPECT_EQ(QWErrorCode(), 22);
  // No directory: the first file cannot be created.
  EXPECT_EQ(DRBServerNew(path("absent").c_str(), arena, kDrbBlock, 2, 1, 1, 0), nullptr);
  EXPECT_NE(std::string(QWErrorMessage()).find("Could not open file " + path("absent") + "/data0"),
            std::string::npos);
}

// Writers on several threads, each on its own blocks, with the one buffer:
// every block ends up with its own bytes.
class DRBServerConcurrencyTest : public DRBServerTest {};

TEST_F(DRBServerConcurrencyTest, WritersShareTheOneBuffer) {
  Open(2);
  constexpr uint32_t kThreads = 4, kPer = 16;
  for (uint32_t b = 0; b < kThreads * kPer; ++b) ASSERT_EQ(DRBServerBlockNew(server), b);
  std::vector<std::thread> threads;
  for (uint32_t t = 0; t < kThreads; ++t)
    threads.emplace_back([this, t] {
      for (uint32_t i = 0; i < kPer; ++i) {
        DRBServerBlockHandle h;
        const uint32_t b = t * kPer + i;
        if (!DRBServerBlockAcquire(&h, server, b, 0, 0)) return;
        std::memset(h.address, int(b), kDrbBlock);
        (void)DRBServerBlockRelease(server, b, 0, h.address);
      }
    });
  for (auto &thread : threads) thread.join();
  ASSERT_TRUE(DRBServerBeforeCommit(server));
  for (uint32_t b = 0; b < kThreads * kPer; ++b) {
    DRBServerBlockHandle h;
    ASSERT_NE(DRBServerBlockAcquire(&h, server, b, 1, 0), nullptr);
    EXPECT_EQ(static_cast<const uint8_t *>(h.address)[kDrbBlock / 2], uint8_t(b)) << b;
    ASSERT_TRUE(DRBServerBlockRelease(server, b, 1, h.address));
  }
}

}  // namespace
