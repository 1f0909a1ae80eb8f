// Large-element arrays with threads: readers of the committed generation,
// each with its own ranges, run while one writer adds elements of both forms
// and commits.
#include <atomic>
#include <random>
#include <thread>

#include "ldbarray_fixture.h"

namespace {

using ldbatest::Pattern;

using LDBArrayConcurrency = ldbatest::LDBArrayTest;

// Element h of bucket h % kBuckets never changes once added: its value is
// a function of h.
constexpr uint32_t kBuckets = 3;
uint32_t LengthOf(uint32_t h) { return h % 4 == 0 ? 4091 + 6007 * h : h % 4 == 1 ? 4090 : 97 * h % 4000; }
std::string ValueOf(uint32_t h) { return Pattern(h, LengthOf(h)); }

TEST_F(LDBArrayConcurrency, CommittedReadersRunBesideAnAddingAndCommittingWriter) {
  Open(kBuckets);
  uint32_t added = 0;
  for (; added < 30; ++added) ASSERT_EQ(Add(added % kBuckets, ValueOf(added)), added / kBuckets);
  ASSERT_TRUE(Commit()) << QWErrorMessage();
  std::atomic<uint32_t> committedCount{added};

  std::atomic<bool> done{false};
  std::atomic<uint32_t> mismatches{0}, reads{0};
  auto reader = [&](uint32_t seed) {
    std::mt19937 rng(seed);
    uint8_t *copy = nullptr;
    while (!done.load()) {
      VMArenaOldGenAcquire(arena);
      const uint32_t h = rng() % committedCount.load();
      std::string value;
      if (rng() % 2) {
        if (LDBArrayGetArray(array, h % kBuckets, h / kBuckets, &copy, 0, OLDGEN))
          value.assign(reinterpret_cast<const char *>(copy), ArrayLength(copy));
      } else {
        uint32_t offset = 0, end = 0;
        while (void *bytes = LDBArrayRange(array, h % kBuckets, h / kBuckets, offset, &end, nullptr, OLDGEN, 1)) {
          value.append(static_cast<const char *>(bytes), end - offset);
          LDBArrayRelease(array, OLDGEN, 1, bytes);
          offset = end;
        }
      }
      VMArenaOldGenRelease(arena);
      if (value != ValueOf(h)) ++mismatches;
      ++reads;
    }
    ArrayFree(copy);
  };
  std::vector<std::thread> threads;
  for (uint32_t i = 0; i < 3; ++i) threads.emplace_back(reader, i + 1);

  for (int round = 0; round < 8; ++round) {
    VMArenaNewGenAcquire(arena, 0);
    for (int i = 0; i < 12; ++i, ++added)
      EXPECT_EQ(Add(added % kBuckets, ValueOf(added)), added / kBuckets) << QWErrorMessage();
    // A change the readers must not see before the commit: an element is
    // replaced and then given its value back.
    EXPECT_TRUE(Set(0, 0, Pattern(99, 20000)));
    EXPECT_TRUE(Set(0, 0, ValueOf(0)));
    VMArenaNewGenRelease(arena, 0);
    ASSERT_TRUE(VMArenaCommit(arena, nullptr, nullptr, 0)) << QWErrorMessage();
    VMArenaFlushCommitMemoryAcquire(arena);  // readers are held off while the handles move
    LDBArrayCommit(array);
    committedCount = added;
    VMArenaFlushCommitMemoryRelease(arena);
  }
  while (reads.load() < 20) std::this_thread::yield();
  done = true;
  for (std::thread &t : threads) t.join();
  EXPECT_EQ(mismatches.load(), 0u);
  for (uint32_t h = 0; h < added; ++h) ASSERT_EQ(Read(h % kBuckets, h / kBuckets, OLDGEN), ValueOf(h));
  EXPECT_EQ(VMArenaCheck(arena), 0);
}

}  // namespace
