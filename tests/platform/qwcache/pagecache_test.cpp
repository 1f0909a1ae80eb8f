// Single-threaded page cache: sizing, arguments, claim/SetValid, flush, invalidation, pinning, hints, prefetch,
// registration, I/O failures, and a model test through a cache smaller than its files.
#include <set>

#include "pagecache_fixture.h"
#include "platform/qwcache/page_cache.h"

namespace qwtest {
namespace {

using qw::fault::Bit;
using qw::fault::FailNth;
using qw::fault::Op;

TEST(PageCacheCreate, SizesPagesAndShardsAndRejectsBadPageSizes) {
  for (uint32_t pageSize : {0u, 1000u, 2048u, 4095u, 6000u, 12288u, 1u << 21})
    EXPECT_TRUE(FailsExactly(PageCacheNew(1 << 20, pageSize), 22, "PageCacheNew: invalid page size " +
                                                                      std::to_string(pageSize)));
  const struct {
    uint64_t capacity;
    uint32_t pageSize;
    uint64_t pages;
    uint32_t shards;
  } cases[] = {  // raised to the minimum, rounded down to whole pages; shards of 32 pages at least, 64 at most
      {0, 8192, PAGECACHE_MIN_PAGES, 1}, {8192 * 8 + 8191, 8192, 8, 1},   {8192 * 63, 8192, 63, 1},
      {8192 * 64, 8192, 64, 2},          {8192 * 100, 8192, 100, 2},      {4096 * 1000, 4096, 1000, 16},
      {uint64_t{64} << 20, 8192, 8192, 64}, {uint64_t{1} << 20, 65536, 16, 1},
  };
  for (const auto &c : cases) {
    PageCache *cache = PageCacheNew(c.capacity, c.pageSize);
    ASSERT_NE(cache, nullptr);
    PageCacheStats s;
    ASSERT_EQ(PageCacheGetStats(cache, &s), 1);
    EXPECT_EQ(PageCacheGetPageSize(cache), c.pageSize);
    EXPECT_EQ(std::vector<uint64_t>({s.pageSize, s.pageCount, s.shardCount, s.resident + s.hits + s.misses}),
              std::vector<uint64_t>({c.pageSize, c.pages, c.shards, 0}))
        << c.capacity;
    PageCacheFree(cache);
  }
  PageCacheFree(nullptr);
}

TEST_F(PageCacheTest, RejectsBadArguments) {
  MakeCache(8);
  size_t f = AddFile("data", kPage, 1);
  const struct {
    uint16_t file;
    uint64_t offset;
    const char *message;
  } cases[] = {{Id(f), 100, "offset 100 is not a multiple of the page size 8192"},
               {Id(f), uint64_t{1} << 62, "offset 4611686018427387904 is too large"},
               {7, 0, "file id 7 is not registered"}, {65535, 0, "file id 65535 is not registered"}};
  for (const auto &c : cases) {
    int valid = 0;
    EXPECT_TRUE(FailsExactly(PageCacheLookup(cache_, c.file, c.offset, 1, &valid), 22,
                             std::string("PageCacheLookup: ") + c.message));
    EXPECT_EQ(valid, -1);
    void *page = nullptr;
    EXPECT_TRUE(Fails(PageCacheRead(cache_, c.file, c.offset, &page), 22) && page == nullptr);
  }
  EXPECT_TRUE(Fails(PageCacheLookup(cache_, Id(f), 0, 1, nullptr), 22));
  for (auto call : {PageCacheFlushFile, PageCacheInvalidateFile, PageCacheUnregisterFile})
    EXPECT_TRUE(Fails(call(cache_, 9), 22));
  EXPECT_TRUE(
      FailsExactly(PageCachePrefetch(cache_, 9, 0, kPage), 22, "PageCachePrefetch: file id 9 is not registered"));
  EXPECT_EQ(Stats().resident, 0u);
}

TEST_F(PageCacheTest, ClaimFillAndSetValid) {
  MakeCache(8);
  size_t f = AddFile("data", 4 * kPage, 3);
  int valid = -2;  // claim, fill, SetValid: later lookups see the caller's bytes
  void *page = PageCacheLookup(cache_, Id(f), 0, 1, &valid);
  ASSERT_TRUE(page && valid == 0);
  const std::string mine = Pattern(99, 0, kPage);
  std::memcpy(page, mine.data(), kPage);
  PageCacheSetValid(cache_, page);
  PageCacheSetValid(cache_, page);  // harmless once valid
  EXPECT_TRUE(PageCacheLookup(cache_, Id(f), 0, 0, &valid) == page && valid == 1);
  Release(page);
  Release(page, 1);
  EXPECT_EQ(Stats().reads, 0u);
  ASSERT_EQ(PageCacheFlushFile(cache_, Id(f)), 1) << QWErrorMessage();
  EXPECT_EQ(Disk(f, 0), mine);

  ASSERT_NE(page = PageCacheLookup(cache_, Id(f), kPage, 1, &valid), nullptr);  // released without SetValid: dropped
  std::memset(page, 0x5A, kPage);
  Release(page, 1);
  EXPECT_TRUE(PageCacheLookup(cache_, Id(f), kPage, 0, &valid) == nullptr && valid == 0);
  ASSERT_EQ(PageCacheFlushFile(cache_, Id(f)), 1);
  EXPECT_EQ(Disk(f, kPage), Pattern(3, kPage, kPage));

  // Claim, then read the file into the claimed page: the same page, one pin.
  page = PageCacheLookup(cache_, Id(f), 2 * kPage, 1, &valid);
  void *filled = page;
  ASSERT_EQ(PageCacheRead(cache_, Id(f), 2 * kPage, &filled), 1) << QWErrorMessage();
  EXPECT_EQ(filled, page);
  EXPECT_EQ(Bytes(page), Pattern(3, 2 * kPage, kPage));
  PageCacheSetValid(cache_, page);
  EXPECT_EQ(Stats().pinned, 1u);
  Release(page);
  EXPECT_EQ(Stats().pinned, 0u);
  EXPECT_EQ(Stats().reads, 1u);

  // Reading into a page claimed for another offset is refused; so is a stale pointer left in *page (handing it back
  // would return a page without a pin).
  ASSERT_NE(page = PageCacheLookup(cache_, Id(f), 3 * kPage, 1, &valid), nullptr);
  void *wrong = page;
  EXPECT_TRUE(Fails(PageCacheRead(cache_, Id(f), kPage, &wrong), 22));
  void *stale = ReadPage(f, 0);
  Release(stale);
  const std::string file = std::to_string(Id(f));
  EXPECT_TRUE(FailsExactly(
      PageCacheRead(cache_, Id(f), 0, &stale), 22,
      "PageCacheRead: *page is neither NULL nor claimed by the calling thread for offset 0 of file " + file));
  EXPECT_EQ(Stats().pinned, 1u);
  // The claiming thread looking its own page up again gets an error, not a deadlock.
  EXPECT_TRUE(FailsExactly(PageCacheLookup(cache_, Id(f), 3 * kPage, 1, &valid), 35,
                           "PageCacheLookup: page 3 of file " + file + " is being loaded by the calling thread"));
  EXPECT_EQ(valid, -1);
  Release(page);
  EXPECT_EQ(Stats().resident, 2u);
}

// A flush writes every dirty page of its file (also one pinned again), nothing else. An invalidation drops the file's
// pages unwritten: a dirty one is lost, a pinned one detached (released dirty, it changes nothing).
TEST_F(PageCacheTest, FlushWritesAndInvalidateDropsPagesOfOneFile) {
  MakeCache(32);
  size_t a = AddFile("a", 6 * kPage, 1), b = AddFile("b", 6 * kPage, 2);
  for (uint64_t p : {0, 2, 5}) WritePage(a, p * kPage, std::string(kPage, char('0' + p)));
  WritePage(b, 0, std::string(kPage, 'b'));
  void *pinned = ReadPage(a, 2 * kPage);
  ASSERT_EQ(PageCacheFlushFile(cache_, Id(a)), 1) << QWErrorMessage();
  EXPECT_EQ(Stats().dirty + Stats().writes, 1u + 3u);
  std::string expected = Pattern(1, 0, 6 * kPage);
  for (uint64_t p : {0, 2, 5}) expected.replace(p * kPage, kPage, kPage, char('0' + p));
  EXPECT_EQ(Disk(a, 0, 6 * kPage), expected);
  EXPECT_EQ(Disk(b, 0), Pattern(2, 0, kPage));
  std::memset(pinned, 0x11, kPage);  // changed while pinned and released dirty: the next flush writes it
  Release(pinned, 1);
  ASSERT_EQ(PageCacheFlushFile(cache_, Id(a)) + PageCacheFlushFile(cache_, Id(a)), 2);
  EXPECT_EQ(Disk(a, 2 * kPage), std::string(kPage, '\x11'));
  EXPECT_EQ(Stats().writes, 4u);
  // The file is rewritten underneath: the cache still has the old bytes.
  DiskWrite(a, 0, Pattern(8, 0, 6 * kPage));
  EXPECT_TRUE(ReadMatches(a, 0, std::string(kPage, '0')));
  WritePage(a, 3 * kPage, std::string(kPage, 'x'));
  void *held = ReadPage(a, 5 * kPage);
  ASSERT_EQ(PageCacheInvalidateFile(cache_, Id(a)), 1) << QWErrorMessage();
  EXPECT_EQ(Bytes(held), std::string(kPage, '5'));
  EXPECT_EQ(Stats().resident, 2u);  // the other file's page and the detached one
  for (uint64_t p = 0; p < 6; ++p) {
    void *fresh = ReadPage(a, p * kPage);
    EXPECT_TRUE(fresh != held && Bytes(fresh) == Pattern(8, p * kPage, kPage)) << p;
    Release(fresh);
  }
  std::memset(held, 'y', kPage);
  Release(held, 1);
  ASSERT_EQ(PageCacheFlushFile(cache_, Id(a)), 1);
  EXPECT_EQ(Disk(a, 0, 6 * kPage), Pattern(8, 0, 6 * kPage));
  EXPECT_EQ(Stats().resident, 7u);
  EXPECT_TRUE(Resident(b, 0));
}

TEST_F(PageCacheTest, PinnedPagesAreNeverEvicted) {
  MakeCache(8);
  size_t f = AddFile("data", 20 * kPage, 4);
  std::vector<void *> pins;
  for (uint64_t p = 0; p < 8; ++p) pins.push_back(ReadPage(f, p * kPage));
  EXPECT_EQ(std::set<void *>(pins.begin(), pins.end()).size(), 8u);
  for (uint64_t p = 8; p < 12; ++p) {
    void *page = nullptr;
    int valid = 0;
    EXPECT_EQ(PageCacheRead(cache_, Id(f), p * kPage, &page), 0);
    EXPECT_TRUE(FailsExactly(page, 12, "PageCacheLookup: no page can be had, all 8 pages of the shard are pinned"));
    EXPECT_TRUE(Fails(PageCacheLookup(cache_, Id(f), p * kPage, 1, &valid), 12) && valid == -1);
  }
  for (uint64_t p = 0; p < 8; ++p) EXPECT_EQ(Bytes(pins[p]), Pattern(4, p * kPage, kPage));
  // One release makes room for exactly one more page.
  Release(pins[5]);
  EXPECT_EQ(ReadPage(f, 8 * kPage), pins[5]);
  EXPECT_EQ(Bytes(pins[5]), Pattern(4, 8 * kPage, kPage));
  for (void *pin : pins) Release(pin);
  EXPECT_EQ(Stats().pinned, 0u);
}

TEST_F(PageCacheTest, KeepHintsDelayEviction) {
  MakeCache(8);
  size_t f = AddFile("data", 200 * kPage, 5);
  auto stream = [&](uint64_t first, uint64_t end) {
    for (uint64_t p = first; p < end; ++p) Release(ReadPage(f, p * kPage));
  };
  // Page 0 released with keepLong outlives a stream of 100 other pages; page 1 without hints does not.
  PageCacheRelease(cache_, ReadPage(f, 0), 0, 0, 1);
  stream(1, 102);
  EXPECT_TRUE(Resident(f, 0));
  EXPECT_FALSE(Resident(f, 1));
  // With every other frame pinned, the page kept long goes after all.
  std::vector<void *> pins;
  for (uint64_t p = 110; p < 117; ++p) pins.push_back(ReadPage(f, p * kPage));
  pins.push_back(ReadPage(f, 150 * kPage));
  ASSERT_NE(pins.back(), nullptr);
  EXPECT_FALSE(Resident(f, 0));
  for (void *pin : pins) Release(pin);
  // `keep` gives a second round: of two pages read back to back, the one kept survives a sweep that evicts the other;
  // without the hint it goes first.
  for (const int keep : {1, 0}) {
    const uint64_t base = keep ? 120 : 140, sweep = keep ? 130 : 160;
    stream(base, base + 8);
    PageCacheRelease(cache_, ReadPage(f, base * kPage), 0, keep, 0);
    stream(sweep, sweep + 7);
    EXPECT_EQ(Resident(f, base), keep == 1);
    EXPECT_TRUE(keep == 0 || !Resident(f, base + 1));
  }
  EXPECT_EQ(Stats().writes, 0u);  // clean victims are not written back
}

TEST_F(PageCacheTest, PrefetchBringsPagesInUnpinned) {
  MakeCache(16);
  size_t f = AddFile("data", 10 * kPage + 100, 6);
  // From the middle of page 2 to well past the end of the file: pages 2..10.
  ASSERT_EQ(PageCachePrefetch(cache_, Id(f), 2 * kPage + 5, 40 * kPage), 1) << QWErrorMessage();
  const PageCacheStats s = Stats();
  EXPECT_EQ(std::vector<uint64_t>({s.reads, s.resident, s.pinned}), std::vector<uint64_t>({9, 9, 0}));
  for (uint64_t p = 2; p <= 10; ++p) {
    std::string expected = Pattern(6, p * kPage, p == 10 ? 100 : kPage);
    expected.resize(kPage, '\0');
    EXPECT_TRUE(Resident(f, p) && ReadMatches(f, p, expected)) << p;
  }
  // Resident pages are not read again; an empty range does nothing.
  ASSERT_EQ(PageCachePrefetch(cache_, Id(f), 0, 4 * kPage), 1);
  ASSERT_EQ(PageCachePrefetch(cache_, Id(f), 0, 0), 1);
  EXPECT_EQ(Stats().reads, 11u);
  // With every frame pinned prefetching is skipped, without an error.
  std::vector<void *> pins;
  for (uint64_t p = 0; p < 16; ++p) pins.push_back(ReadPage(f, p * kPage));
  QWErrorClear();
  EXPECT_EQ(PageCachePrefetch(cache_, Id(f), 0, 20 * kPage), 1);
  EXPECT_FALSE(QWErrorIsSet());
  for (void *pin : pins) Release(pin);
  ASSERT_EQ(PageCacheFlushFile(cache_, Id(f)), 1);
  EXPECT_EQ(ReadFileBytes(files_[f].path).size(), 10 * kPage + 100);  // pages read past the end were not written
}

TEST_F(PageCacheTest, RegistrationAndUnregistration) {
  MakeCache(16);
  size_t a = AddFile("a", 4 * kPage, 1), b = AddFile("b", 4 * kPage, 2);
  EXPECT_EQ(Id(a), 0);
  EXPECT_EQ(Id(b), 1);
  EXPECT_EQ(PageCacheRegisterFile(cache_, QWFILE_INVALID), PAGECACHE_INVALID_FILE);
  EXPECT_EQ(QWErrorCode(), 22);
  EXPECT_EQ(PageCacheRegisterFile(cache_, files_[a].handle), PAGECACHE_INVALID_FILE);
  EXPECT_TRUE(HasExactError(22, "PageCacheRegisterFile: file \"" + files_[a].path + "\" is already registered as 0"));
  // Unregister writes back the dirty pages and leaves no page of the file.
  WritePage(a, kPage, std::string(kPage, 'a'));
  Release(ReadPage(a, 3 * kPage));
  Release(ReadPage(b, 0));
  Unregister(a);
  EXPECT_EQ(Disk(a, kPage), std::string(kPage, 'a'));
  EXPECT_EQ(Stats().resident, 1u);
  EXPECT_TRUE(FailsExactly(PageCacheFlushFile(cache_, 0), 22, "PageCacheFlushFile: file id 0 is not registered"));
  // The id is reused, and the new file does not see the old file's pages.
  size_t c = AddFile("c", 4 * kPage, 3);
  EXPECT_EQ(Id(c), 0);
  void *page = ReadPage(c, kPage);
  EXPECT_EQ(Bytes(page), Pattern(3, kPage, kPage));
  // A page still pinned at unregistration is detached and reported.
  MessageCapture capture;
  Unregister(c);
  EXPECT_TRUE(capture.contains("PageCacheUnregisterFile: 1 pages of file \"" + files_[c].path + "\" were still pinned",
                               QW_LEVEL_WARNING));
  EXPECT_EQ(Bytes(page), Pattern(3, kPage, kPage));
  Release(page, 1);
  EXPECT_EQ(Stats().resident, 1u);
  EXPECT_EQ(Disk(c, kPage), Pattern(3, kPage, kPage));

  std::unique_ptr<PageCache> small = PageCache::Create(8 * kPage, kPage, 2);  // a table of two files
  ASSERT_NE(small, nullptr);
  EXPECT_EQ(small->RegisterFile(files_[a].handle), 0);
  EXPECT_EQ(small->RegisterFile(files_[b].handle), 1);
  EXPECT_EQ(small->RegisterFile(files_[c].handle), PAGECACHE_INVALID_FILE);
  EXPECT_TRUE(HasExactError(24, "PageCacheRegisterFile: too many files registered (2)"));
  EXPECT_EQ(small->UnregisterFile(0), 1);
  EXPECT_EQ(small->RegisterFile(files_[c].handle), 0);
  EXPECT_EQ(small->UnregisterFile(0) + small->UnregisterFile(1), 2);
  EXPECT_EQ(small->RegisteredFileCount(), 0u);
}

TEST_F(PageCacheTest, MisuseIsCaughtByAssertions) {
  GTEST_FLAG_SET(death_test_style, "threadsafe");
  MakeCache(8);
  void *page = ReadPage(AddFile("data", kPage, 1), 0);
  Release(page);
  EXPECT_DEATH(Release(page), "pinsBefore > 0");
  char outside[16];
  EXPECT_DEATH(Release(outside), "p >= slab_.get()");
  EXPECT_DEATH(PageCacheFree(cache_), "cache->RegisteredFileCount\\(\\) == 0");
}

// I/O failures through the file layer's fault seam.
TEST_F(PageCacheTest, FailedReadLeavesNoHalfValidPage) {
  MakeCache(8);
  size_t f = AddFile("data", 4 * kPage, 1);
  FailNth(1, false, Bit(Op::Read), "data");
  void *page = nullptr;
  EXPECT_EQ(PageCacheRead(cache_, Id(f), kPage, &page), 0);
  EXPECT_TRUE(Fails(page, 5, "injected I/O error in read"));
  EXPECT_TRUE(HasError(5, "\nPageCacheRead: could not read page at offset 8192 of file 0"));
  EXPECT_FALSE(Resident(f, 1));
  EXPECT_EQ(Stats().resident + Stats().reads, 0u);
  EXPECT_TRUE(ReadMatches(f, 1, Pattern(1, kPage, kPage)));
  // Reading into a claimed page: on failure it stays the caller's, invalid, and the release drops it.
  FailNth(1, false, Bit(Op::Read), "data");
  int valid = -2;
  ASSERT_NE(page = PageCacheLookup(cache_, Id(f), 2 * kPage, 1, &valid), nullptr);
  void *filled = page;
  EXPECT_TRUE(Fails(PageCacheRead(cache_, Id(f), 2 * kPage, &filled), 5));
  Release(page);
  EXPECT_FALSE(Resident(f, 2));
  // Prefetch reports the failure too.
  FailNth(2, false, Bit(Op::Read), "data");
  EXPECT_TRUE(Fails(PageCachePrefetch(cache_, Id(f), 0, 4 * kPage), 5,
                    "PageCachePrefetch: could not prefetch offset 16384 of file 0"));
  EXPECT_TRUE(Stats().pinned == 0 && !Resident(f, 2));
}

TEST_F(PageCacheTest, FailedWriteBackKeepsThePageDirty) {
  MakeCache(8);
  size_t f = AddFile("data", 16 * kPage, 1);
  for (uint64_t p = 0; p < 8; ++p) WritePage(f, p * kPage, Pattern(20 + uint32_t(p), 0, kPage));
  // Eviction: the victim's write-back fails, so the new page cannot be had.
  FailNth(1, false, Bit(Op::Write), "data");
  void *page = nullptr;
  EXPECT_TRUE(
      Fails(PageCacheRead(cache_, Id(f), 8 * kPage, &page), 5, "PageCacheLookup: could not write back page at offset"));
  EXPECT_EQ(Stats().dirty, 8u);
  EXPECT_EQ(Stats().resident, 8u);
  // Flush: the failing page and the rest of its batch stay dirty; the next flush writes everything.
  FailNth(3, false, Bit(Op::Write), "data");
  EXPECT_TRUE(Fails(PageCacheFlushFile(cache_, Id(f)), 5, "PageCacheFlushFile: could not write page at offset"));
  EXPECT_EQ(Stats().dirty, 6u);
  ASSERT_EQ(PageCacheFlushFile(cache_, Id(f)), 1) << QWErrorMessage();
  EXPECT_EQ(Stats().dirty, 0u);
  for (uint64_t p = 0; p < 8; ++p) EXPECT_EQ(Disk(f, p * kPage), Pattern(20 + uint32_t(p), 0, kPage));
  // A failing sync fails the flush.
  FailNth(1, false, Bit(Op::Sync), "data");
  EXPECT_TRUE(Fails(PageCacheFlushFile(cache_, Id(f)), 5, "PageCacheFlushFile: could not sync file"));
  // Unregister with a failing write-back leaves the file registered, dirty.
  WritePage(f, 0, std::string(kPage, 'u'));
  FailNth(1, false, Bit(Op::Write), "data");
  EXPECT_EQ(PageCacheUnregisterFile(cache_, Id(f)), 0);
  EXPECT_EQ(Stats().dirty, 1u);
  Unregister(f);
  EXPECT_EQ(Disk(f, 0), std::string(kPage, 'u'));
}

// Regression: when every page was written and only the sync of an unregistration (just before the owner closes the
// file) failed, the file stayed registered with a handle about to be closed.
TEST_F(PageCacheTest, FailedClosingSyncStillUnregistersTheFile) {
  MakeCache(8);
  size_t f = AddFile("data", 4 * kPage, 1);
  WritePage(f, kPage, std::string(kPage, 's'));
  FailNth(1, false, Bit(Op::Sync), "data");
  EXPECT_TRUE(Fails(PageCacheUnregisterFile(cache_, Id(f)), 5, "injected I/O error in sync \"" + files_[f].path + "\"",
                    Match::Prefix));
  EXPECT_TRUE(HasError(5, "PageCacheUnregisterFile: could not write back file"));
  EXPECT_EQ(Disk(f, kPage), std::string(kPage, 's'));
  EXPECT_EQ(Stats().resident, 0u);
  EXPECT_TRUE(Fails(PageCacheFlushFile(cache_, Id(f)), 22));
  // The same handle can be registered again: nothing of it was left behind.
  ASSERT_NE(files_[f].id = PageCacheRegisterFile(cache_, files_[f].handle), PAGECACHE_INVALID_FILE);
  EXPECT_TRUE(ReadMatches(f, 1, std::string(kPage, 's')));
}

// Random reads, writes, flushes and invalidations of flushed files over three files and a cache much smaller than them,
// against an in-memory copy.
TEST_F(PageCacheTest, RandomOperationsMatchModel) {
  MakeCache(12);
  const uint64_t pages = 30;
  std::vector<std::string> model;
  for (uint32_t i = 0; i < 3; ++i) {
    AddFile("f" + std::to_string(i), pages * kPage - (i == 2 ? 300 : 0), i);
    model.push_back(Pattern(i, 0, pages * kPage - (i == 2 ? 300 : 0)));
    model.back().resize(pages * kPage, '\0');
  }
  // The short file grows to whole pages only once its last page is written.
  auto DiskMatches = [&](size_t f) {
    std::string disk = Disk(f, 0, pages * kPage);
    disk.resize(pages * kPage, '\0');
    return disk == model[f];
  };
  std::mt19937 random(20240601);
  for (int step = 0; step < 6000; ++step) {
    const size_t f = random() % 3;
    const uint64_t p = random() % pages;
    const uint32_t action = random() % 100;
    if (action < 95) {
      void *page = ReadPage(f, p * kPage);
      ASSERT_TRUE(page && Bytes(page) == model[f].substr(p * kPage, kPage)) << "step " << step;
      if (action < 55) {
        PageCacheRelease(cache_, page, 0, random() % 8 == 0, random() % 64 == 0);
        continue;
      }
      size_t at = random() % kPage, length = std::min<size_t>(1 + random() % 200, kPage - at);
      for (size_t i = 0; i < length; ++i) model[f][p * kPage + at + i] = static_cast<char *>(page)[at + i] = char(random());
      Release(page, 1);
    } else {
      // Only a flushed file can be invalidated without losing changes.
      ASSERT_EQ(PageCacheFlushFile(cache_, Id(f)), 1) << QWErrorMessage();
      ASSERT_TRUE(DiskMatches(f)) << "step " << step;
      ASSERT_TRUE(action < 98 || PageCacheInvalidateFile(cache_, Id(f)));
    }
  }
  EXPECT_GT(Stats().evictions, 1000u);
  for (size_t f = 0; f < 3; ++f) {
    ASSERT_EQ(PageCacheFlushFile(cache_, Id(f)), 1);
    EXPECT_TRUE(DiskMatches(f));
  }
}

}  // namespace
}  // namespace qwtest
