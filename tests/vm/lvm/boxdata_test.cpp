// Box data files, each test run directly and through the page cache: exact
// block bytes (version 1 read too), every decoding error with its code and
// text, growth and its limit, open checks and the forced-error names (power
// loss at each sync of creating and syncing a file: the campaign's box
// workloads). Box bucket records and block allocation: exact record bytes and
// malformed records, part sizing, hand-worked allocation steps and their
// failures, and a random workload whose space stays exactly covered and whose
// replay picks the same blocks.
#include <functional>
#include <map>
#include <random>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "platform/qwlib/fault.h"
#include "qwvm/qwvm.h"
#include "support/test_support.h"
#include "vm/lvm/boxalloc.h"
#include "vm/lvm/boxrecord.h"

namespace {

std::string Hex(const std::string &hex) {  // "0a ff " -> bytes
  std::string out;
  for (size_t i = 0; i + 1 < hex.size(); i += 3) out.push_back(char(std::stoi(hex.substr(i, 2), nullptr, 16)));
  return out;
}

std::string Pattern(size_t length) {
  std::string bytes(length, '\0');
  for (size_t i = 0; i < length; ++i) bytes[i] = char(i % 251);
  return bytes;
}

// A failed call whose error has `code` and whose chain, with every "(fd N)"
// made "(fd %)", is `text`, or ends with it when it starts with a newline.
::testing::AssertionResult Fails(int result, int code, const std::string &text) {
  std::string chain = QWErrorMessage();
  for (size_t at = 0; (at = chain.find("(fd ", at)) != std::string::npos; at += 6)
    chain.replace(at + 4, chain.find(')', at) - at - 4, "%");
  const bool suffix = text[0] == '\n' && chain.size() >= text.size() &&
                      chain.compare(chain.size() - text.size(), text.size(), text) == 0;
  if (result == 0 && QWErrorCode() == code && (chain == text || suffix))
    return ::testing::AssertionSuccess();
  return ::testing::AssertionFailure() << "result " << result << ", code " << QWErrorCode() << ", chain:\n" << chain;
}

class BoxDataTest : public qwtest::TempDirTest, public ::testing::WithParamInterface<bool> {
 protected:
  void SetUp() override {
    TempDirTest::SetUp();
    threadData = BoxLVMDataFileThreadDataNew();
    cache = GetParam() ? PageCacheNew(1 << 20, 8192) : nullptr;
    Open(1, GetParam());
  }
  void TearDown() override {
    BoxLVMDataClose(file);
    BoxLVMDataFileThreadDataFree(threadData);
    PageCacheFree(cache);
    TempDirTest::TearDown();
  }
  void Open(uint32_t pages, bool cached, int verbose = 0) {
    BoxLVMDataClose(file);
    file = BoxLVMDataFileOpen(dir().c_str(), pages, 1, 0, verbose, 0, 0, cached ? cache : nullptr);
    ASSERT_NE(file, nullptr) << QWErrorMessage();
  }
  std::string Raw(uint32_t handle, uint32_t size) {
    std::string bytes(size, '\0');
    EXPECT_EQ(BoxLVMDataBlockRead(file, handle, size, bytes.data()), 1) << QWErrorMessage();
    return bytes;
  }
  void Patch(uint32_t handle, size_t at, const std::string &bytes) {
    const uint32_t size = uint32_t(at + bytes.size() + 31) / 32 * 32;
    std::string block = Raw(handle, size).replace(at, bytes.size(), bytes);
    ASSERT_EQ(BoxLVMDataBlockWrite(file, handle, size, block.data()), 1) << QWErrorMessage();
  }
  int Put(uint32_t handle, const std::string &bytes, uint32_t sizeClass, uint32_t id, uint32_t part = 0,
          uint32_t next = ~0u) {
    return BoxLVMDataBlockEncodeWrite(file, threadData, handle, uint32_t(bytes.size()), bytes.data(), sizeClass, id,
                                      part, next, 0, 0);
  }
  // Decodes with the header check; the data and header fields go to members.
  int Decode(uint32_t handle, uint32_t id, uint32_t part = 0, uint32_t next = ~0u) {
    uint32_t length = 0;
    const uint8_t *bytes = nullptr;
    const int ok = BoxLVMDataBlockReadDecode(file, threadData, handle, 1, id, part, next, &fields[0], &fields[1],
                                             &fields[2], &stamp, &fields[3], &length, &bytes);
    data = ok ? std::string(reinterpret_cast<const char *>(bytes), length) : "";
    return ok;
  }
  BoxLVMDataFile *file = nullptr;
  BoxLVMDataFileThreadData *threadData = nullptr;
  PageCache *cache = nullptr;
  std::string data;
  uint32_t fields[4] = {};  // id, part, next, class
  uint64_t stamp = 0;
};

INSTANTIATE_TEST_SUITE_P(DirectAndCached, BoxDataTest, ::testing::Values(false, true),
                         [](const auto &info) { return info.param ? "Cached" : "Direct"; });

TEST_P(BoxDataTest, BlocksHaveTheirExactBytesAndReadBack) {
  const struct {
    uint32_t handle, sizeClass, id, part, next;
    std::string data, header;  // the header bytes, checksum worked out by hand
    uint64_t stamp;            // version 0: data bytes 16..19, when there are 20
  } cases[] = {
      {0, 0, 0x01020304, 1, ~0u, "ab", "04 03 02 01 01 00 00 00 ff ff ff ff 00 00 02 00 d1 98 00 61 ", 0},
      {3, 1, 7, 0, ~0u, Pattern(24), "07 00 00 00 00 00 00 00 ff ff ff ff 01 00 18 00 d0 9f 1e 65 ", 0x13121110},
      {255, 0, 9, 2, ~0u, Pattern(12), "09 00 00 00 02 00 00 00 ff ff ff ff 00 00 0c 00 30 cc 62 29 ", 0},
      {256, 255, 5, 0, 600, Pattern(8172), "05 00 00 00 00 00 00 00 58 02 00 00 ff 00 ec 1f 10 a7 c1 dc ", 0x13121110},
      // Version 1 (read only): stamp, then checksum, then data.
      {8, 1, 3, 0, ~0u, "v1 data",
       "03 00 00 00 00 00 00 00 ff ff ff ff 01 01 07 00 08 07 06 05 04 03 02 01 01 75 97 d3 ", 0x0102030405060708},
  };
  uint32_t pages = 0, sizeClass = 0;
  ASSERT_EQ(BoxLVMDataGrow(file, 1, &pages), 1);
  for (const auto &c : cases) {
    std::string expected = Hex(c.header) + c.data;
    expected.resize((c.sizeClass + 1) * 32, '\0');  // a fresh buffer and growing data: zero tails
    const bool written = expected[13] == 1 ? (Patch(c.handle, 0, expected), true)
                                           : Put(c.handle, c.data, c.sizeClass, c.id, c.part, c.next) == 1;
    ASSERT_TRUE(written) << QWErrorMessage();
    EXPECT_EQ(Raw(c.handle, uint32_t(expected.size())), expected) << c.handle;
    ASSERT_EQ(Decode(c.handle, c.id, c.part, c.next), 1) << QWErrorMessage();  // 255: reads only 32 bytes
    EXPECT_EQ(data, c.data);
    EXPECT_EQ(std::vector<uint32_t>(fields, fields + 4), std::vector<uint32_t>({c.id, c.part, c.next, c.sizeClass}));
    EXPECT_EQ(stamp, c.stamp);
    EXPECT_EQ(BoxLVMDataBlockSizeGet(file, c.handle, &sizeClass), 1);
    EXPECT_EQ(sizeClass, c.sizeClass);
  }
  // What one access path wrote (the close writes the cache back), the other reads.
  const std::string before = Raw(0, 2 * 8192);
  Open(2, !GetParam());
  EXPECT_EQ(Raw(0, 2 * 8192), before);
}

TEST_P(BoxDataTest, DamagedBlocksFailWithTheirCodeAndText) {
  const struct {
    size_t at;
    std::string patch;    // bytes written over the block at `at`
    uint32_t part, next;  // what the reader expects
    int code;
    std::string text;
  } cases[] = {
      {20, "x", 0, ~0u, 3, "wrong checksum at handle 40"},
      {13, "\x02", 0, ~0u, 4, "invalid block version"},
      {14, std::string(2, '\0'), 0, ~0u, 4, "impossible size 0 or id 7"},
      {14, "\xED\x1A", 0, ~0u, 4, "impossible size 6893 or id 7"},  // 20 + 6893 bytes > 216 units
      {0, "", 1, ~0u, 4, "header data does not match"},
      {8, std::string("\x01\0\0\0", 4), 0, 1, 5,
       "intermediate block in multiblock entry at handle 40 does not use full size (size 9)"},
  };
  for (const auto &c : cases) {
    ASSERT_EQ(Put(40, "some data", 0, 7), 1) << QWErrorMessage();
    Patch(40, c.at, c.patch);
    EXPECT_TRUE(Fails(Decode(40, 7, c.part, c.next), c.code, "BoxLVMDataBlockReadDecode: " + c.text));
    EXPECT_EQ(QWErrorClass(), QW_ERROR_CLASS_DATA);
  }
  // An erased block: id, version, length and checksum are reset.
  ASSERT_EQ(BoxLVMDataBlockErase(file, threadData, 40), 1) << QWErrorMessage();
  EXPECT_EQ(Raw(40, 20), Hex("ff ff ff ff 00 00 00 00 01 00 00 00 00 00 00 00 00 00 00 00 "));
  EXPECT_TRUE(Fails(Decode(40, 7), 4, "BoxLVMDataBlockReadDecode: impossible size 0 or id 4294967295"));
  EXPECT_TRUE(Fails(Decode(256, 7), 5, "BoxLVMDataBlockRead:unexpected end of file (fd %)\nBoxLVMDataBlockReadDecode: "
                                       "block read failed"));  // past the end of the file
  // Blocks that do not fit: in their page, or their data in their class.
  EXPECT_EQ(Put(255, "a", 1, 7), 0);
  EXPECT_TRUE(Fails(Put(0, std::string(13, 'a'), 0, 7), 22,
                    "a block of class 0 at handle 0 cannot hold 13 bytes\ncould not write data for entry 7 to file"));
  uint32_t sizeClass = 0;
  Patch(250, 12, "\x06");
  EXPECT_TRUE(Fails(BoxLVMDataBlockSizeGet(file, 250, &sizeClass), 4, "BoxLVMDataBlockSizeGet: impossible size 6"));
  Patch(250, 12, "\x05\x07");
  EXPECT_TRUE(Fails(BoxLVMDataBlockSizeGet(file, 250, &sizeClass), 4, "BoxLVMDataBlockSize: invalid block version 7"));
}

TEST_P(BoxDataTest, GrowthTakesAnEighthUpToTheLimit) {
  qwtest::MessageCapture messages;
  uint32_t newPages = 0;
  for (const auto &c : {std::pair(0u, 1u), {8u, 9u}, {9u, 11u}, {64u, 72u}, {262141u, 262142u}}) {
    ASSERT_EQ(BoxLVMDataGrow(file, c.first, &newPages), 1) << QWErrorMessage();
    EXPECT_EQ(newPages, c.second);
    EXPECT_EQ(BoxLVMDataFileSize(file), int64_t(c.second) * 8192);
  }
  EXPECT_EQ(Raw(262142 * 256 - 1, 32), std::string(32, '\0'));
  EXPECT_TRUE(Fails(BoxLVMDataGrow(file, 262142, &newPages), 2, "cannot extend box data file past the 262142 pages "
                                                                "boundary"));
  EXPECT_EQ(std::pair(newPages, QWErrorClass()), std::pair(262142u, QW_ERROR_CLASS_DATA));
  EXPECT_TRUE(messages.messages().empty());  // quiet unless verbose
  Open(1, GetParam(), 1);
  ASSERT_EQ(BoxLVMDataGrow(file, 8, &newPages), 1);
  EXPECT_TRUE(messages.contains("box: growing data file " + path("box.dat") + ", pages=8", QW_LEVEL_PROGRESS));
  EXPECT_TRUE(messages.contains("box: done growing data file \"" + path("box.dat") + "\", pages=9", 2));
}

TEST_P(BoxDataTest, OpenChecksThePathTheSizeAndTheCache) {
  EXPECT_EQ(BoxLVMDataFileSize(file), 8192);  // created with its page
  BoxLVMDataClose(file);
  file = nullptr;
  // A ragged size is cut back on a writable open unless it is to be kept.
  for (const auto &[readOnly, keep, size] : {std::tuple(0, 1, 8292), {1, 0, 8292}, {0, 0, 8192}}) {
    ASSERT_EQ(FileTruncate(path("box.dat").c_str(), 8292), 1);
    BoxLVMDataFile *opened = BoxLVMDataFileOpen(dir().c_str(), 1, 0, readOnly, 0, keep, 0, cache);
    ASSERT_NE(opened, nullptr) << QWErrorMessage();
    EXPECT_EQ(BoxLVMDataFileSize(opened), size);
    BoxLVMDataClose(opened);
  }
  PageCache *small = PageCacheNew(1 << 20, 4096);
  const std::string longDir = dir() + "/" + std::string(252 - dir().size(), 'd');  // 261 with "/box.dat"
  const std::string shorter = longDir.substr(0, longDir.size() - 1);                // 260 fits, but is missing
  const std::tuple<std::string, uint32_t, PageCache *, int, std::string> failures[] = {
      {dir(), 2, nullptr, 0, "box data file \"" + path("box.dat") + "\" has invalid size (current is 8192, should have at least 16384)"},
      {longDir, 0, nullptr, 22, "path name too long: \"" + longDir + "/box.dat\""},
      {shorter, 0, nullptr, 2, "\ncould not open data file \"" + shorter + "/box.dat\""},
      {dir(), 1, small, 22, "box cache page size invalid: is 4096, should be at least 8192"},
  };
  for (const auto &[at, pages, through, code, text] : failures)
    EXPECT_TRUE(Fails(BoxLVMDataFileOpen(at.c_str(), pages, 0, 0, 0, 0, 0, through) != nullptr, code, text));
  PageCacheFree(small);
}

TEST_P(BoxDataTest, ForcedAndInjectedErrorsNameTheFailingStep) {
  const std::string path = this->path("box.dat");
  uint32_t scratch = 0;
  const std::tuple<const char *, std::function<int()>, std::string> cases[] = {
      // QWRETURNFALSE (null: every sync fails), the call, the chain after the innermost message
      {"BoxLVMDataBlockWrite", [&] { return Put(0, "x", 0, 7); }, "\ncould not write data for entry 7 to file"},
      {"BoxLVMDataBlockWrite", [&] { return BoxLVMDataBlockErase(file, threadData, 5); },
       "\ncould not erase block at offset 5"},
      {"BoxLVMDataBlockRead", [&] { return BoxLVMDataBlockSizeGet(file, 0, &scratch); },
       "\nBoxLVMDataBlockSizeGet: block read failed"},
      {"BoxLVMDataExtend", [&] { return BoxLVMDataGrow(file, 1, &scratch); },
       "\nBoxLVMDataExtend: could not set data file size (fd %)\nerror extending box data file \"" + path + "\""},
      {"BoxLVMDataOpen", [&] { return int(BoxLVMDataFileOpen(dir().c_str(), 1, 0, 0, 0, 0, 0, nullptr) != nullptr); },
       "\ncould not open file \"" + path + "\"\ncould not open data file \"" + path + "\""},
      {nullptr, [&] { return BoxLVMDataSync(file); },
       GetParam() ? "\nerror flushing cached box data file \"" + path + "\""
                  : "\nerror sync'ing box data file \"" + path + "\" (fd %)"},
  };
  for (const auto &[forced, run, text] : cases) {
    if (forced) setenv("QWRETURNFALSE", forced, 1);
    if (!forced) qw::fault::FailPath("box.dat", qw::fault::Bit(qw::fault::Op::Sync));
    const int result = run();
    unsetenv("QWRETURNFALSE");
    qw::fault::Disable();
    EXPECT_TRUE(Fails(result, forced ? 0 : 5, forced ? "forced error in " + std::string(forced) + text : text));
  }
}

using namespace qw::box;
using Bytes = std::vector<uint8_t>;

// (The printed texts of both records: BoxTest.RecordPrintersAndTheLogDump.)
TEST(BoxRecordTest, UpdatesAndExtensionsHaveTheirExactBytes) {
  const std::vector<std::pair<BoxUpdate, Bytes>> cases = {
      {{0x01020304, false, {255, 0}, 300}, {4, 3, 2, 1, 0x08, 255, 0, 0x59, 0x04}},
      {{7, true, {3}, 0}, {7, 0, 0, 0, 0x06, 3, 0x00}},
      {{9, false, Bytes(100, 1), 0xFFFFFFFF}, {9, 0, 0, 0, 0x91, 0x02}},  // then 100 classes, then the size
  };
  Bytes out;
  for (const auto &[update, bytes] : cases) {
    EncodeBoxUpdate(update, &out);
    EXPECT_EQ(Bytes(out.begin(), out.begin() + std::min(out.size(), bytes.size())), bytes);
    BoxUpdate back;
    ASSERT_TRUE(DecodeBoxUpdate(out.data(), out.size(), &back)) << QWErrorMessage();
    EXPECT_EQ(std::tuple(back.id, back.remove, back.oldClasses, back.sizeNew),
              std::tuple(update.id, update.remove, update.oldClasses, update.sizeNew));
  }
  EXPECT_EQ(Bytes(out.begin() + 106, out.end()), Bytes({0xFF, 0xFF, 0xFF, 0xFF, 0x1E}));
  std::string text;
  EncodeBoxDataExtend(512, &out);
  EXPECT_EQ(out, Bytes({0, 2, 0, 0}));
  EXPECT_EQ(FormatBoxRecord(5, out.data(), out.size(), &text), -1);
  EXPECT_EQ(FormatBoxRecord(16, out.data(), 3, &text), 0);
  const std::pair<Bytes, std::string> malformed[] = {
      {{1, 0, 0}, "no entry id"},
      {{1, 0, 0, 0, 0x01}, "bad old block count"},
      {{1, 0, 0, 0, 0x08, 1}, "old block classes cut short"},
      {{1, 0, 0, 0, 0x02, 1}, "bad new size"},
      {{1, 0, 0, 0, 0x02, 1, 0xFF, 0xFF, 0xFF, 0xFF, 0x1F}, "bad new size"},  // 2^32
      {{1, 0, 0, 0, 0x02, 1, 0x00, 0x00}, "trailing bytes"},
      {{1, 0, 0, 0, 0x06, 1, 0x02}, "a removal with a new size"},
  };
  for (const auto &[bytes, reason] : malformed) {
    BoxUpdate update;
    EXPECT_FALSE(DecodeBoxUpdate(bytes.data(), bytes.size(), &update));
    EXPECT_EQ(QWErrorCode(), 4);
    EXPECT_EQ(std::string(QWErrorMessage()), "malformed BOX_UPDATE record: " + reason);
  }
  uint32_t units = 0;
  EXPECT_FALSE(DecodeBoxDataExtend(Bytes({1, 2, 0, 0}).data(), 4, &units));  // not whole pages
  EXPECT_FALSE(DecodeBoxDataExtend(Bytes({0, 2, 0}).data(), 3, &units));
}

TEST(BoxRecordTest, ValuesAreCutIntoPartsWithTheirClasses) {
  const std::map<uint64_t, Bytes> cases = {
      {0, {}}, {1, {0}}, {12, {0}}, {13, {1}}, {8172, {255}}, {8173, {255, 0}}, {16344, {255, 255}}, {16357, {255, 255, 1}}};
  for (const auto &[size, classes] : cases) {
    Bytes got;
    for (uint32_t part = 0; part < PartCount(size); ++part) got.push_back(uint8_t(PartClass(size, part)));
    EXPECT_EQ(got, classes) << size;
  }
}

// Free lists and params in memory; growths add `growBy` pages and are logged
// to `extensions`.
struct MemorySpace : BlockSpace {
  std::vector<uint32_t> lists[BOXLVM_SIZE_CLASSES];
  uint32_t params[3] = {};
  int growBy = 2;  // pages added by a growth; -1: the growth fails
  std::vector<uint32_t> extensions;
  bool FreeListPop(uint32_t c, uint32_t *h) override {
    *h = lists[c].empty() ? BOXLVM_NO_HANDLE : lists[c].back();
    if (!lists[c].empty()) lists[c].pop_back();
    return true;
  }
  bool FreeListPush(uint32_t c, uint32_t h) override { return lists[c].push_back(h), true; }
  bool ParamGet(uint32_t i, uint32_t *v) override { return *v = params[i], true; }
  bool ParamSet(uint32_t i, uint32_t v) override { return params[i] = v, true; }
  bool GrowDataFile(uint32_t pages, uint32_t *newPages) override {
    *newPages = pages + uint32_t(std::max(growBy, 0));
    return growBy >= 0 || QWErrorThrow(28, QW_ERROR_CLASS_SYSTEM, "disk full");
  }
  bool LogExtension(uint32_t units) override { return extensions.push_back(units), true; }
  bool operator==(const MemorySpace &o) const {
    return std::equal(std::begin(lists), std::end(lists), std::begin(o.lists)) &&
           std::equal(params, params + 3, o.params);
  }
};

TEST(BoxAllocTest, BlocksComeFromTheSmallestFittingListThenFromFreshPages) {
  MemorySpace space;
  // (class, handle): fresh page 0 (the file grows to 2 pages), units 1..255
  // to class 254; a split of it, units 2..255 to class 253; fresh page 1,
  // whole; a split of class 253, units 5..255 to class 250; growth again.
  uint32_t handle = 0;
  for (const auto &[sizeClass, expected] : {std::pair(0u, 0u), {0u, 1u}, {255u, 256u}, {2u, 2u}, {255u, 512u}}) {
    ASSERT_TRUE(AllocateBlock(space, sizeClass, false, &handle)) << QWErrorMessage();
    EXPECT_EQ(handle, expected);
  }
  EXPECT_EQ(space.extensions, std::vector<uint32_t>({512, 1024}));
  EXPECT_EQ(space.lists[250], std::vector<uint32_t>({5}));
  EXPECT_EQ(std::vector<uint32_t>(space.params, space.params + 2), std::vector<uint32_t>({768, 1024}));
  // Last in, first out within a class.
  space.lists[3] = {40, 80};
  ASSERT_TRUE(AllocateBlock(space, 3, false, &handle));
  EXPECT_EQ(handle, 80u);
  // Out of room: replay expects the growth record first; a file that cannot
  // grow, or grows too little, fails the allocation.
  space.params[0] = 1024;
  qwtest::MessageCapture messages;
  const std::tuple<bool, int, int, std::string> failures[] = {  // replaying, growBy, code, chain
      {true, 2, 5, "data file not extended yet. Total 1024, lastUsed 1024"},
      {false, -1, 28, "disk full"},
      {false, 0, 2, "After extension, still do not have enough space"},
  };
  for (const auto &[replaying, growBy, code, chain] : failures) {
    space.growBy = growBy;
    EXPECT_FALSE(AllocateBlock(space, 255, replaying, &handle));
    EXPECT_EQ(QWErrorCode(), code);
    EXPECT_EQ(std::string(QWErrorMessage()), chain + "\nfatal error while allocating new block");
  }
  EXPECT_TRUE(messages.contains("BoxLVMExtendData failed", QW_LEVEL_WARNING));
}

// Random updates, removals and checkpoints. After each step every unit below
// params[0] is in exactly one live block, free list entry or block freed since
// the checkpoint; replaying the run's records with `replaying` set picks the
// same blocks and ends in the same space.
TEST(BoxAllocTest, RandomWorkKeepsTheSpaceCoveredAndReplaysToTheSameBlocks) {
  struct Event {
    int kind;        // 0 update or removal, 1 growth record, 2 checkpoint
    uint64_t value;  // update: the new size (0: removal); growth: total units
    std::vector<uint32_t> freed, handles;
    Bytes freedClasses;
  };
  MemorySpace space;
  RecycleLists recycle;
  std::vector<Event> log;
  std::vector<std::pair<uint32_t, uint32_t>> pending;  // freed since the checkpoint: handle, class
  std::map<uint32_t, std::pair<std::vector<uint32_t>, Bytes>> live;  // id -> handles, classes
  std::mt19937 random(17);
  auto apply = [](MemorySpace &at, RecycleLists &lists, Event &e, bool replaying) {
    for (size_t i = 0; i < e.freed.size(); ++i) ASSERT_TRUE(lists.Free(e.freedClasses[i], e.freed[i]));
    Bytes classes;
    ASSERT_TRUE(AllocateEntry(at, e.value, replaying, &e.handles, &classes)) << QWErrorMessage();
  };
  for (int step = 0; step < 3000; ++step) {
    const uint32_t id = random() % 200;
    Event event{0, random() % 4 == 0 ? 0 : random() % 3 == 0 ? random() % 30000 + 1 : random() % 600 + 1, {}, {}, {}};
    std::tie(event.freed, event.freedClasses) = live[id];
    for (size_t i = 0; i < event.freed.size(); ++i) pending.emplace_back(event.freed[i], event.freedClasses[i]);
    const size_t grown = space.extensions.size();
    apply(space, recycle, event, false);
    for (size_t i = grown; i < space.extensions.size(); ++i) log.push_back({1, space.extensions[i], {}, {}, {}});
    log.push_back(event);
    live[id] = {event.handles, {}};
    for (uint32_t part = 0; part < event.handles.size(); ++part) live[id].second.push_back(PartClass(event.value, part));
    if (random() % 50 == 0) {
      recycle.SetAside();
      ASSERT_TRUE(recycle.Recycle(space));
      pending.clear();
      log.push_back({2, 0, {}, {}, {}});
    }
    std::vector<int> owner(space.params[0], 0);
    auto cover = [&](uint32_t h, uint32_t c) {
      ASSERT_LE(h % 256 + c + 1, 256u) << "crosses a page";
      for (uint32_t u = h; u <= h + c; ++u) ++owner.at(u);
    };
    for (const auto &[entry, blocks] : live)
      for (size_t i = 0; i < blocks.first.size(); ++i) cover(blocks.first[i], blocks.second[i]);
    for (uint32_t c = 0; c < 256; ++c)
      for (uint32_t h : space.lists[c]) cover(h, c);
    for (const auto &[h, c] : pending) cover(h, c);
    ASSERT_EQ(std::count(owner.begin(), owner.end(), 1), long(owner.size())) << "step " << step;
  }
  MemorySpace replayed;
  RecycleLists replayLists;
  for (const Event &original : log) {
    Event e = original;
    if (e.kind == 1) replayed.params[kParamTotalUnits] = uint32_t(e.value);
    if (e.kind == 2) {
      replayLists.SetAside();
      ASSERT_TRUE(replayLists.Recycle(replayed));
    }
    if (e.kind != 0) continue;
    apply(replayed, replayLists, e, true);
    ASSERT_EQ(e.handles, original.handles);
  }
  EXPECT_TRUE(replayed == space);
  EXPECT_GT(space.extensions.size(), 3u);
}

}  // namespace
