// Block-directory arrays with threads: DBArrayCheck's workers and readers of
// the committed generation run while one writer changes the new generation.
#include <atomic>
#include <random>
#include <thread>

#include "dbarray_fixture.h"

namespace {

using dbatest::Pattern;
using Buckets = std::vector<std::vector<std::string>>;

using DBArrayConcurrency = dbatest::DBArrayTest;

TEST_F(DBArrayConcurrency, CheckersAndCommittedReadersRunBesideAWriter) {
  constexpr uint32_t kBuckets = 6;
  Open(kBuckets);
  Buckets committed(kBuckets);
  for (uint32_t h = 0; h < 600; ++h) {
    committed[h % kBuckets].push_back(Pattern(h, h % 5 == 0 ? 700 : h % 60));
    ASSERT_NE(Add(h % kBuckets, committed[h % kBuckets].back()), DBARRAY_INVALID_HANDLE);
  }
  ASSERT_TRUE(Commit()) << QWErrorMessage();
  Buckets model = committed;

  qwtest::MessageCapture capture;  // keeps the checks' reports off stderr
  std::atomic<bool> done{false};
  std::atomic<uint32_t> mismatches{0}, reads{0}, problems{0}, checks{0};
  auto reader = [&](uint32_t seed) {
    std::mt19937 rng(seed);
    while (!done.load()) {
      const uint32_t b = rng() % kBuckets;
      const uint32_t h = rng() % uint32_t(committed[b].size());
      VMArenaOldGenAcquire(arena);
      uint32_t length = 0;
      const void *bytes = DBArrayGet(array, b, h, OLDGEN, 1, &length);
      std::string value = bytes ? std::string(static_cast<const char *>(bytes), length) : "";
      if (bytes) DBArrayRelease(array, OLDGEN, 1, bytes);
      VMArenaOldGenRelease(arena);
      if (value != committed[b][h]) ++mismatches;
      ++reads;
    }
  };
  auto checker = [&] {
    while (!done.load()) {
      VMArenaOldGenAcquire(arena);
      problems += DBArrayCheck(array, OLDGEN);
      VMArenaOldGenRelease(arena);
      ++checks;
    }
  };
  std::vector<std::thread> threads;
  threads.emplace_back(reader, 1u);
  threads.emplace_back(reader, 2u);
  threads.emplace_back(checker);

  std::mt19937 rng(3);
  for (int i = 0; i < 400; ++i) {
    const uint32_t b = rng() % kBuckets;
    VMArenaNewGenAcquire(arena, 0);
    if (rng() % 2) {
      model[b].push_back(Pattern(rng(), rng() % 900));
      EXPECT_EQ(Add(b, model[b].back()), model[b].size() - 1);
    } else {
      const uint32_t h = rng() % uint32_t(model[b].size());
      model[b][h] = Pattern(rng(), rng() % 3000);
      EXPECT_TRUE(DBArraySet(array, b, h, NEWGEN, model[b][h].data(), uint32_t(model[b][h].size())));
    }
    VMArenaNewGenRelease(arena, 0);
  }
  // Let the readers and the checker run at least once each.
  while (reads.load() < 2 || checks.load() < 1) std::this_thread::yield();
  done = true;
  for (std::thread &t : threads) t.join();

  EXPECT_EQ(mismatches.load(), 0u);
  EXPECT_EQ(problems.load(), 0u);
  EXPECT_EQ(DBArrayCheck(array, NEWGEN), 0u);
  for (uint32_t b = 0; b < kBuckets; ++b)
    for (uint32_t h = 0; h < model[b].size(); ++h) ASSERT_EQ(ReadOrEmpty(b, h), model[b][h]);
}

}  // namespace
