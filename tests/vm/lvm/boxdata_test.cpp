// Box data files: exact block bytes, every decoding error with its code and
// text, version 1 blocks, growth and its limit, open checks, forced errors,
// and the same bytes whether read directly or through the page cache.
#include <gtest/gtest.h>

#include <cstdlib>
#include <functional>
#include <string>
#include <vector>

#include "platform/qwlib/fault.h"
#include "qwvm/qwvm.h"
#include "support/test_support.h"
#include "vm/lvm/boxdata.h"

namespace {

std::string Hex(const std::string &hex) {  // "0a ff" -> bytes
  std::string out;
  for (size_t i = 0; i + 1 < hex.size(); i += 3) out.push_back(char(std::stoi(hex.substr(i, 2), nullptr, 16)));
  return out;
}

// The chain with every "(fd N)" made "(fd %)".
std::string MaskFd(std::string chain) {
  for (size_t at = 0; (at = chain.find("(fd ", at)) != std::string::npos; at += 6)
    chain.replace(at + 4, chain.find(')', at) - at - 4, "%");
  return chain;
}

std::string Pattern(size_t length) {
  std::string bytes(length, '\0');
  for (size_t i = 0; i < length; ++i) bytes[i] = char(i % 251);
  return bytes;
}

class BoxDataTest : public qwtest::TempDirTest, public ::testing::WithParamInterface<bool> {
 protected:
  void SetUp() override {
    TempDirTest::SetUp();
    threadData = BoxLVMDataFileThreadDataNew();
    if (GetParam()) cache = PageCacheNew(1 << 20, 8192);
  }
  void TearDown() override {
    BoxLVMDataClose(file);
    BoxLVMDataFileThreadDataFree(threadData);
    PageCacheFree(cache);
    unsetenv("QWRETURNFALSE");
    qw::fault::Disable();
    TempDirTest::TearDown();
  }
  void Open(uint32_t pages, int create = 1, PageCache *through = nullptr) {
    BoxLVMDataClose(file);
    file = BoxLVMDataFileOpen(dir().c_str(), pages, create, 0, 0, 0, 0, through);
    ASSERT_NE(file, nullptr) << QWErrorMessage();
  }
  void Open(uint32_t pages, int create, bool cached) { Open(pages, create, cached ? cache : nullptr); }
  std::string Raw(uint32_t handle, uint32_t size) {
    std::string bytes(size, '\0');
    EXPECT_EQ(BoxLVMDataBlockRead(file, handle, size, bytes.data()), 1) << QWErrorMessage();
    return bytes;
  }
  void Patch(uint32_t handle, size_t at, const std::string &bytes) {
    const uint32_t size = uint32_t(at + bytes.size() + 31) / 32 * 32;
    std::string block = Raw(handle, size);
    block.replace(at, bytes.size(), bytes);
    ASSERT_EQ(BoxLVMDataBlockWrite(file, handle, size, block.data()), 1) << QWErrorMessage();
  }
  int Put(uint32_t handle, const std::string &data, uint32_t sizeClass, uint32_t id, uint32_t part, uint32_t next) {
    return BoxLVMDataBlockEncodeWrite(file, threadData, handle, uint32_t(data.size()), data.data(), sizeClass, id,
                                      part, next, 0, 0);
  }
  BoxLVMDataFile *file = nullptr;
  BoxLVMDataFileThreadData *threadData = nullptr;
  PageCache *cache = nullptr;
};

INSTANTIATE_TEST_SUITE_P(DirectAndCached, BoxDataTest, ::testing::Values(false, true),
                         [](const auto &info) { return info.param ? "Cached" : "Direct"; });

TEST_P(BoxDataTest, BlocksHaveTheirExactBytesAndReadBack) {
  struct Case {
    uint32_t handle, sizeClass, id, part, next;
    std::string data, header;  // header: the 20 bytes, checksum worked out by hand
  } cases[] = {
      {0, 0, 0x01020304, 1, 0xFFFFFFFF, "ab", "04 03 02 01 01 00 00 00 ff ff ff ff 00 00 02 00 d1 98 00 61 "},
      {3, 1, 7, 0, 0xFFFFFFFF, "hello box", "07 00 00 00 00 00 00 00 ff ff ff ff 01 00 09 00 1b 03 92 ae "},
      {255, 0, 9, 2, 0xFFFFFFFF, Pattern(12), "09 00 00 00 02 00 00 00 ff ff ff ff 00 00 0c 00 30 cc 62 29 "},
      {256, 255, 5, 0, 600, Pattern(8172), "05 00 00 00 00 00 00 00 58 02 00 00 ff 00 ec 1f 10 a7 c1 dc "},
  };
  Open(2, 1, GetParam());
  for (const Case &c : cases) {
    SCOPED_TRACE(c.handle);
    ASSERT_EQ(Put(c.handle, c.data, c.sizeClass, c.id, c.part, c.next), 1) << QWErrorMessage();
    const uint32_t blockSize = (c.sizeClass + 1) * 32;
    // The buffer is fresh and the data grow from case to case: the tails
    // are zero.
    std::string expected = Hex(c.header) + c.data;
    expected.resize(blockSize, '\0');
    EXPECT_EQ(Raw(c.handle, blockSize), expected);
    uint32_t id, part, next, sizeClass, length;
    const uint8_t *data = nullptr;
    ASSERT_EQ(BoxLVMDataBlockReadDecode(file, threadData, c.handle, 1, c.id, c.part, c.next, &id, &part, &next,
                                        nullptr, &sizeClass, &length, &data),
              1)
        << QWErrorMessage();
    EXPECT_EQ(std::vector<uint32_t>({id, part, next, sizeClass}),
              std::vector<uint32_t>({c.id, c.part, c.next, c.sizeClass}));
    EXPECT_EQ(std::string(reinterpret_cast<const char *>(data), length), c.data);
    ASSERT_EQ(BoxLVMDataBlockSizeGet(file, c.handle, &sizeClass), 1) << QWErrorMessage();
    EXPECT_EQ(sizeClass, c.sizeClass);
  }
  // What one access path wrote, the other reads (the cache is written back
  // by the close).
  const std::string before = Raw(0, 2 * 8192);
  Open(2, 0, !GetParam());
  EXPECT_EQ(Raw(0, 2 * 8192), before);
}

TEST_P(BoxDataTest, DamagedBlocksFailWithTheirCodeAndText) {
  struct Case {
    const char *what;
    size_t at;
    std::string patch;  // bytes written over the block at `at`
    int checkPart;      // the part index the reader expects
    int code;
    std::string text;
  } cases[] = {
      {"bad checksum", 20, "x", 0, 3, "BoxLVMDataBlockReadDecode: wrong checksum at handle 40"},
      {"bad version", 13, "\x02", 0, 4, "BoxLVMDataBlockReadDecode: invalid block version"},
      {"empty", 14, std::string(2, '\0'), 0, 4, "BoxLVMDataBlockReadDecode: impossible size 0 or id 7"},
      {"past the page", 14, "\xED\x1A", 0, 4, "BoxLVMDataBlockReadDecode: impossible size 6893 or id 7"},
      {"other part", 0, "", 1, 4, "BoxLVMDataBlockReadDecode: header data does not match"},
      {"short middle", 8, std::string("\x01\x00\x00\x00", 4), 0, 5,
       "BoxLVMDataBlockReadDecode: intermediate block in multiblock entry at handle 40 does not use full size (size "
       "9)"},
  };
  Open(1, 1, GetParam());
  for (const Case &c : cases) {
    SCOPED_TRACE(c.what);
    ASSERT_EQ(Put(40, "some data", 0, 7, 0, 0xFFFFFFFF), 1) << QWErrorMessage();
    Patch(40, c.at, c.patch);
    const uint32_t next = c.code == 5 ? 1 : 0xFFFFFFFF;  // the patched next handle
    uint32_t length = 99;
    EXPECT_EQ(BoxLVMDataBlockReadDecode(file, threadData, 40, 1, 7, c.checkPart, next, nullptr, nullptr, nullptr,
                                        nullptr, nullptr, &length, nullptr),
              0);
    EXPECT_EQ(QWErrorCode(), c.code);
    EXPECT_EQ(QWErrorClass(), QW_ERROR_CLASS_DATA);
    EXPECT_EQ(QWErrorMessage(), c.text);
    EXPECT_EQ(length, 99u);  // the length is handed out only for a good block
  }
  // An erased block: only id, version, length and checksum change.
  ASSERT_EQ(Put(40, "some data", 0, 7, 0, 0xFFFFFFFF), 1);
  ASSERT_EQ(BoxLVMDataBlockErase(file, threadData, 40), 1) << QWErrorMessage();
  EXPECT_EQ(Raw(40, 20), Hex("ff ff ff ff 00 00 00 00 ff ff ff ff 00 00 00 00 00 00 00 00 "));
  EXPECT_EQ(BoxLVMDataBlockReadDecode(file, threadData, 40, 0, 0, 0, 0, nullptr, nullptr, nullptr, nullptr, nullptr,
                                      nullptr, nullptr),
            0);
  EXPECT_EQ(std::string(QWErrorMessage()), "BoxLVMDataBlockReadDecode: impossible size 0 or id 4294967295");
  // Past the end of the file, and size classes that do not fit their page.
  EXPECT_EQ(BoxLVMDataBlockReadDecode(file, threadData, 256, 0, 0, 0, 0, nullptr, nullptr, nullptr, nullptr, nullptr,
                                      nullptr, nullptr),
            0);
  EXPECT_NE(std::string(QWErrorMessage()).find("\nBoxLVMDataBlockReadDecode: block read failed"), std::string::npos);
  EXPECT_EQ(Put(255, "a", 1, 7, 0, 0xFFFFFFFF), 0);  // would cross the page
  EXPECT_EQ(Put(0, std::string(13, 'a'), 0, 7, 0, 0xFFFFFFFF), 0);  // 33 bytes in 32
  EXPECT_EQ(std::string(QWErrorMessage()),
            "a block of class 0 at handle 0 cannot hold 13 bytes\ncould not write data for entry 7 to file");
  Patch(250, 12, "\x06\x00");
  uint32_t sizeClass = 0;
  EXPECT_EQ(BoxLVMDataBlockSizeGet(file, 250, &sizeClass), 0);
  EXPECT_EQ(std::string(QWErrorMessage()), "BoxLVMDataBlockSizeGet: impossible size 6");
  Patch(250, 12, "\x05\x07");
  EXPECT_EQ(BoxLVMDataBlockSizeGet(file, 250, &sizeClass), 0);
  EXPECT_EQ(std::string(QWErrorMessage()), "BoxLVMDataBlockSize: invalid block version 7");
}

TEST_P(BoxDataTest, VersionOneBlocksReadWithTheirStamp) {
  Open(1, 1, GetParam());
  // id 3, part 0, last, class 1, version 1, 7 bytes, stamp, checksum, data.
  Patch(8, 0, Hex("03 00 00 00 00 00 00 00 ff ff ff ff 01 01 07 00 ") + Hex("08 07 06 05 04 03 02 01 ") +
                  Hex("01 75 97 d3 ") + "v1 data");
  struct Stamped {
    uint32_t handle;
    std::string data;
    uint64_t stamp;
  } cases[] = {{8, "v1 data", 0x0102030405060708ull}, {40, Pattern(19), 0}, {48, Pattern(24), 0x13121110u}};
  ASSERT_EQ(Put(40, Pattern(19), 1, 3, 0, 0xFFFFFFFF), 1);
  ASSERT_EQ(Put(48, Pattern(24), 1, 3, 0, 0xFFFFFFFF), 1);
  for (const Stamped &c : cases) {
    uint64_t stamp = 1;
    uint32_t length = 0;
    const uint8_t *data = nullptr;
    ASSERT_EQ(BoxLVMDataBlockReadDecode(file, threadData, c.handle, 1, 3, 0, 0xFFFFFFFF, nullptr, nullptr, nullptr,
                                        &stamp, nullptr, &length, &data),
              1)
        << QWErrorMessage();
    EXPECT_EQ(std::string(reinterpret_cast<const char *>(data), length), c.data);
    EXPECT_EQ(stamp, c.stamp) << c.handle;
  }
}

TEST_P(BoxDataTest, GrowthTakesAnEighthUpToTheLimit) {
  const uint32_t cases[][2] = {{0, 1}, {8, 9}, {9, 11}, {64, 72}, {262141, 262142}};
  Open(0, 1, GetParam());
  qwtest::MessageCapture messages;
  for (const auto &c : cases) {
    uint32_t newPages = 0;
    ASSERT_EQ(BoxLVMDataGrow(file, c[0], &newPages), 1) << QWErrorMessage();
    EXPECT_EQ(newPages, c[1]);
    EXPECT_EQ(BoxLVMDataFileSize(file), int64_t(c[1]) * 8192);
  }
  EXPECT_EQ(BoxLVMDataBlockRead(file, 262142 * 256 - 1, 32, std::string(32, '\0').data()), 1);
  uint32_t newPages = 0;
  EXPECT_EQ(BoxLVMDataGrow(file, 262142, &newPages), 0);
  EXPECT_EQ(newPages, 262142u);
  EXPECT_EQ(QWErrorCode(), 2);
  EXPECT_EQ(QWErrorClass(), QW_ERROR_CLASS_DATA);
  EXPECT_EQ(std::string(QWErrorMessage()), "cannot extend box data file past the 262142 pages boundary");
  EXPECT_TRUE(messages.messages().empty());  // quiet unless verbose
  BoxLVMDataClose(file);
  file = BoxLVMDataFileOpen(dir().c_str(), 1, 0, 0, 1, 0, 0, nullptr);
  ASSERT_EQ(BoxLVMDataGrow(file, 8, &newPages), 1);
  const std::string path = dir() + "/box.dat";
  EXPECT_TRUE(messages.contains("box: growing data file " + path + ", pages=8", QW_LEVEL_PROGRESS));
  EXPECT_TRUE(messages.contains("box: done growing data file \"" + path + "\", pages=9", QW_LEVEL_PROGRESS));
}

TEST_P(BoxDataTest, OpenChecksThePathTheSizeAndTheCache) {
  const std::string path = dir() + "/box.dat";
  // Missing, then created with its pages.
  EXPECT_EQ(BoxLVMDataFileOpen(dir().c_str(), 2, 0, 0, 0, 0, 0, nullptr), nullptr);
  EXPECT_EQ(QWErrorCode(), 2);
  EXPECT_EQ(std::string(QWErrorMessage()).substr(std::string(QWErrorMessage()).rfind('\n') + 1),
            "could not open data file \"" + path + "\"");
  Open(2, 1, GetParam());
  EXPECT_EQ(BoxLVMDataFileSize(file), 2 * 8192);
  BoxLVMDataClose(file);
  file = nullptr;
  // A ragged size is cut back on a writable open unless it is to be kept.
  const struct {
    int readOnly, keepBadSize;
    uint64_t size;
  } ragged[] = {{0, 1, 2 * 8192 + 100}, {1, 0, 2 * 8192 + 100}, {0, 0, 2 * 8192}};
  for (const auto &c : ragged) {
    ASSERT_EQ(FileTruncate(path.c_str(), 2 * 8192 + 100), 1);
    BoxLVMDataFile *opened = BoxLVMDataFileOpen(dir().c_str(), 2, 0, c.readOnly, 0, c.keepBadSize, 0, cache);
    ASSERT_NE(opened, nullptr) << QWErrorMessage();
    EXPECT_EQ(BoxLVMDataFileSize(opened), int64_t(c.size));
    BoxLVMDataClose(opened);
  }
  struct Failure {
    std::string dir;
    uint32_t pages;
    PageCache *cache;
    int code;
    std::string text;
  };
  PageCache *small = PageCacheNew(1 << 20, 4096);
  const std::string longDir = dir() + "/" + std::string(251 - dir().size(), 'd');  // 260 with "/box.dat"
  const Failure failures[] = {
      {dir(), 3, nullptr, 0,
       "box data file \"" + path + "\" has invalid size (current is 16384, should have at least 24576)"},
      {longDir, 0, nullptr, 22, "path name too long: \"" + longDir + "/box.dat\""},
      {dir(), 2, small, 22, "box cache page size invalid: is 4096, should be at least 8192"},
  };
  for (const Failure &f : failures) {
    EXPECT_EQ(BoxLVMDataFileOpen(f.dir.c_str(), f.pages, 0, 0, 0, 0, 0, f.cache), nullptr);
    EXPECT_EQ(QWErrorCode(), f.code);
    EXPECT_EQ(std::string(QWErrorMessage()), f.text);
  }
  PageCacheFree(small);
  // One byte shorter fits the name buffer (the missing directory is the error).
  EXPECT_EQ(BoxLVMDataFileOpen(longDir.substr(0, longDir.size() - 1).c_str(), 0, 0, 0, 0, 0, 0, nullptr), nullptr);
  EXPECT_EQ(QWErrorCode(), 2);
}

TEST_P(BoxDataTest, ForcedAndInjectedErrorsNameTheFailingStep) {
  Open(1, 1, GetParam());
  const std::string path = dir() + "/box.dat";
  char buffer[32] = {};
  uint32_t pages = 0;
  struct Case {
    const char *forced;  // QWRETURNFALSE, or null for an I/O error of the kind below
    uint32_t ioKind;
    std::function<int()> run;
    std::string text;  // the chain from its second message outwards
  };
  const Case cases[] = {
      {"BoxLVMDataBlockWrite", 0, [&] { return Put(0, "x", 0, 7, 0, 0xFFFFFFFF); },
       "could not write data for entry 7 to file"},
      {"BoxLVMDataBlockWrite", 0, [&] { return BoxLVMDataBlockErase(file, threadData, 5); },
       "could not erase block at offset 5"},
      {"BoxLVMDataBlockRead", 0, [&] { return BoxLVMDataBlockSizeGet(file, 0, &pages); },
       "BoxLVMDataBlockSizeGet: block read failed"},
      {"BoxLVMDataExtend", 0, [&] { return BoxLVMDataGrow(file, 1, &pages); },
       "BoxLVMDataExtend: could not set data file size (fd %)\nerror extending box data file \"" + path + "\""},
      {"BoxLVMDataOpen", 0, [&] { return int(BoxLVMDataFileOpen(dir().c_str(), 1, 0, 0, 0, 0, 0, nullptr) != nullptr); },
       "could not open file \"" + path + "\"\ncould not open data file \"" + path + "\""},
      {nullptr, qw::fault::Bit(qw::fault::Op::Sync), [&] { return BoxLVMDataSync(file); },
       GetParam() ? "error flushing cached box data file \"" + path + "\"" : "error sync'ing box data file \"" + path + "\" (fd %)"},
      {nullptr, qw::fault::Bit(qw::fault::Op::Read), [&] { return BoxLVMDataBlockRead(file, 10, 32, buffer); },
       GetParam() ? "could not read page at offset 0 from cache\n" : "could not read data from data file (fd %)"},
  };
  for (const Case &c : cases) {
    SCOPED_TRACE(c.text);
    if (c.forced) setenv("QWRETURNFALSE", c.forced, 1);
    if (!c.forced) qw::fault::FailPath("box.dat", c.ioKind);
    if (GetParam()) {
      ASSERT_EQ(PageCacheInvalidateFile(cache, file->cacheFileId), 1);  // reads reach the file
    }
    EXPECT_EQ(c.run(), 0);
    unsetenv("QWRETURNFALSE");
    qw::fault::Disable();
    const std::string chain = MaskFd(QWErrorMessage());
    if (c.forced) {
      EXPECT_EQ(chain.substr(0, chain.find('\n')), std::string("forced error in ") + c.forced);
    }
    EXPECT_NE(chain.find(c.text), std::string::npos) << chain;
  }
}

}  // namespace
