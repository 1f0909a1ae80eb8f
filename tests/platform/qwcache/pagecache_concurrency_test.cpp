// The page cache under real threads: pages loaded once however many threads want them, lock-free hits racing with
// eviction, write-back under eviction pressure, flush and invalidation racing with readers, failing loads with waiters.
// CI runs these suites again under ThreadSanitizer.
#include <barrier>
#include <mutex>
#include <shared_mutex>
#include <thread>

#include "pagecache_fixture.h"

namespace qwtest {
namespace {

// Runs body(t) on `count` threads and waits for them.
template <typename Body>
void RunThreads(int count, Body body) {
  std::vector<std::thread> threads;
  for (int t = 0; t < count; ++t) threads.emplace_back(body, t);
  for (std::thread &thread : threads) thread.join();
}

using PageCacheConcurrency = PageCacheTest;

TEST_F(PageCacheConcurrency, SamePageIsLoadedOnce) {
  MakeCache(64);
  const int threads = 6, rounds = 32;
  size_t f = AddFile("data", rounds * kPage, 3);
  std::barrier start(threads);
  std::atomic<int> wrong{0};
  std::vector<void *> seen(threads * rounds);
  RunThreads(threads, [&](int t) {
    for (int r = 0; r < rounds; ++r) {
      start.arrive_and_wait();
      void *page = nullptr;
      if (!PageCacheRead(cache_, Id(f), uint64_t(r) * kPage, &page) || Bytes(page) != Pattern(3, r * kPage, kPage))
        ++wrong;
      if ((seen[t * rounds + r] = page)) Release(page);
    }
  });
  EXPECT_EQ(wrong.load(), 0);
  for (int r = 0; r < rounds; ++r)
    for (int t = 1; t < threads; ++t) EXPECT_EQ(seen[t * rounds + r], seen[r]);
  PageCacheStats s = Stats();
  EXPECT_EQ(std::vector<uint64_t>({s.reads, s.misses, s.hits, s.pinned}),
            std::vector<uint64_t>({rounds, rounds, rounds * (threads - 1), 0}));
}

// Four threads read and write their own pages of three files through a cache a third of the files' size, while a fifth
// flushes; the flusher excludes writers the way the arena's flush lock does. Every read is checked against the model,
// and the files against it at the end.
TEST_F(PageCacheConcurrency, DisjointPagesMatchModel) {
  MakeCache(64);
  const int threads = 4, files = 3;
  const uint64_t pages = 64;
  std::vector<std::string> model;
  for (int i = 0; i < files; ++i) {
    AddFile("f" + std::to_string(i), pages * kPage, uint32_t(i));
    model.push_back(Pattern(uint32_t(i), 0, pages * kPage));
  }
  std::shared_mutex flushLock;
  std::atomic<bool> done{false};
  std::atomic<int> failures{0};
  std::thread flusher([&] {
    for (std::mt19937 random(7); !done.load();) {
      std::unique_lock<std::shared_mutex> exclusive(flushLock);
      if (!PageCacheFlushFile(cache_, Id(random() % files))) ++failures;
    }
  });
  RunThreads(threads, [&](int t) {
    std::mt19937 random(1000 + t);
    for (int step = 0; step < 3000; ++step) {
      size_t f = random() % files;
      uint64_t p = (random() % (pages / threads)) * threads + uint64_t(t);  // this thread's pages
      std::shared_lock<std::shared_mutex> shared(flushLock);
      void *page = nullptr;
      if (!PageCacheRead(cache_, Id(f), p * kPage, &page) || Bytes(page) != model[f].substr(p * kPage, kPage)) {
        ++failures;
        if (!page) continue;
      }
      const bool write = random() % 2 == 0;
      for (size_t at = random() % (kPage - 64), i = 0; write && i < 64; ++i)
        static_cast<char *>(page)[at + i] = model[f][p * kPage + at + i] = static_cast<char>(random());
      Release(page, write);
    }
  });
  done = true;
  flusher.join();
  EXPECT_EQ(failures.load(), 0) << QWErrorMessage();
  EXPECT_GT(Stats().evictions, 0u);
  for (int f = 0; f < files; ++f) {
    ASSERT_EQ(PageCacheFlushFile(cache_, Id(f)), 1);
    EXPECT_EQ(Disk(f, 0, pages * kPage), model[f]);
  }
}

// Threads share one page, serialising their changes with their own lock, and churn through other pages of an 8-page
// cache, so that now and then the shared page is evicted, written back and read again (tens of times a run).
TEST_F(PageCacheConcurrency, SharedPageSurvivesEvictionChurn) {
  MakeCache(8);
  const int threads = 4, increments = 1500;
  size_t f = AddFile("data", 64 * kPage, 2);
  DiskWrite(f, 0, std::string(kPage, '\0'));
  std::mutex pageLock;
  std::atomic<int> failures{0};
  RunThreads(threads, [&](int t) {
    std::mt19937 random(50 + t);
    for (int i = 0; i < increments; ++i) {
      void *page = nullptr;
      if (!PageCacheRead(cache_, Id(f), 0, &page)) {
        ++failures;
        continue;
      }
      {
        std::lock_guard<std::mutex> lock(pageLock);
        static_cast<uint64_t *>(page)[t] += 1;
      }
      Release(page, 1);
      uint64_t other = 1 + random() % 63;
      if (!ReadMatches(f, other, Pattern(2, other * kPage, kPage))) ++failures;
    }
  });
  EXPECT_EQ(failures.load(), 0) << QWErrorMessage();
  ASSERT_EQ(PageCacheFlushFile(cache_, Id(f)), 1);
  std::vector<uint64_t> counts(threads);
  std::memcpy(counts.data(), Disk(f, 0).data(), threads * sizeof(uint64_t));
  EXPECT_EQ(counts, std::vector<uint64_t>(threads, increments));
  EXPECT_GT(Stats().writes, 1u);  // only the shared page is ever dirty: written before the final flush too
}

// Hits take no lock, so they race with the eviction of the very frames they pin: three threads read ten pages through
// an 8-page cache, so that most reads hit and every miss evicts a frame that others are hitting. A hit on a frame
// evicted under it would show another page's bytes. Every read is one hit or one miss; every miss loads its page once.
TEST_F(PageCacheConcurrency, HitsRaceWithEvictionOfTheirFrames) {
  MakeCache(8);
  const int threads = 3, reads = 20000;
  const uint64_t pages = 10;
  size_t f = AddFile("data", pages * kPage, 4);
  std::vector<std::string> expected;
  for (uint64_t p = 0; p < pages; ++p) expected.push_back(Pattern(4, p * kPage, kPage));
  std::atomic<int> failures{0};
  RunThreads(threads, [&](int t) {
    std::mt19937 random(70 + t);
    for (int i = 0; i < reads; ++i) {
      uint64_t p = random() % pages;
      if (!ReadMatches(f, p, expected[p])) ++failures;
    }
  });
  EXPECT_EQ(failures.load(), 0) << QWErrorMessage();
  PageCacheStats s = Stats();
  EXPECT_EQ(s.hits + s.misses, uint64_t(threads) * reads);
  EXPECT_EQ(s.reads, s.misses);
  EXPECT_GT(s.evictions, 0u);
  EXPECT_EQ(s.pinned, 0u);
}

// Readers check a file that never changes while another thread keeps invalidating, prefetching and flushing it: pages
// detached or dropped under them must never show wrong bytes or leak pins.
TEST_F(PageCacheConcurrency, InvalidateAndPrefetchRaceWithReaders) {
  MakeCache(64);
  const uint64_t pages = 48;
  size_t f = AddFile("data", pages * kPage, 9);
  std::atomic<bool> done{false};
  std::atomic<int> failures{0};
  std::thread disturber([&] {
    for (std::mt19937 random(3); !done.load();) {
      if (!PageCacheInvalidateFile(cache_, Id(f)) ||
          !PageCachePrefetch(cache_, Id(f), (random() % pages) * kPage, (1 + random() % 8) * kPage) ||
          !PageCacheFlushFile(cache_, Id(f)))
        ++failures;
    }
  });
  RunThreads(3, [&](int t) {
    std::mt19937 random(500 + t);
    for (int i = 0; i < 4000; ++i) {
      uint64_t p = random() % pages;
      if (!ReadMatches(f, p, Pattern(9, p * kPage, kPage), random() % 2)) ++failures;
    }
  });
  done = true;
  disturber.join();
  EXPECT_EQ(failures.load(), 0) << QWErrorMessage();
  EXPECT_EQ(Stats().pinned, 0u);
  EXPECT_LE(Stats().resident, pages);
  // Every page detached under a reader was freed by the last of its release and the invalidation: none is left.
  ASSERT_EQ(PageCacheInvalidateFile(cache_, Id(f)), 1);
  EXPECT_EQ(Stats().resident, 0u);
}

// A load that fails wakes the threads waiting for the page; each of them then tries (and here fails) on its own, and no
// page is left behind.
TEST_F(PageCacheConcurrency, FailingLoadWakesWaiters) {
  MakeCache(8);
  const int threads = 4;
  size_t f = AddFile("data", 4 * kPage, 5);
  qw::fault::FailPath("data", qw::fault::Bit(qw::fault::Op::Read));
  std::barrier start(threads);
  std::atomic<int> failed{0};
  RunThreads(threads, [&](int) {
    start.arrive_and_wait();
    void *page = nullptr;
    if (!PageCacheRead(cache_, Id(f), kPage, &page) && page == nullptr && QWErrorCode() == 5) ++failed;
    if (page) Release(page);
  });
  EXPECT_EQ(failed.load(), threads);
  EXPECT_EQ(Stats().resident, 0u);
  qw::fault::Disable();
  EXPECT_TRUE(ReadMatches(f, 1, Pattern(5, kPage, kPage)));
}

}  // namespace
}  // namespace qwtest
