// Readers of the committed tree, each with its own thread data, beside one
// writer changing the new generation (inserts that explode leaves, removes).
#include <atomic>
#include <random>
#include <thread>

#include "pitree_fixture.h"

namespace {

using pittest::Atom;
using pittest::Model;
using PITreeConcurrency = pittest::PITreeTest;

Atom AtomOf(uint32_t i) { return {i % 31, 0x4000 + i % 7, i, i % 3}; }

TEST_F(PITreeConcurrency, CommittedReadersRunBesideAWriter) {
  Open();
  const uint32_t count = pittest::Scaled(8000);
  for (uint32_t i = 0; i < count; ++i) ASSERT_EQ(Insert(AtomOf(i), i + 1), i + 1);
  ASSERT_TRUE(Commit()) << QWErrorMessage();
  std::atomic<bool> done{false};
  std::atomic<uint32_t> mismatches{0}, reads{0};
  auto reader = [&](uint32_t seed) {
    PITreeThreadData *own = PITreeThreadDataNew();
    std::mt19937 rng(seed);
    while (!done.load() || reads.load() < 200) {
      const uint32_t i = rng() % count;
      const Atom atom = AtomOf(i);
      VMArenaOldGenAcquire(arena);
      const uint64_t found = PITreeFind(tree, own, atom.data(), uint32_t(atom.size()), 0, OLDGEN, 0, 0, 0);
      VMArenaOldGenRelease(arena);
      if (found != i + 1) ++mismatches;
      ++reads;
    }
    PITreeThreadDataFree(own);
  };
  std::vector<std::thread> threads;
  for (uint32_t t = 1; t <= 3; ++t) threads.emplace_back(reader, t);
  std::mt19937 rng(9);
  for (uint32_t k = 0; k < count; ++k) {
    VMArenaNewGenAcquire(arena, 0);
    if (k % 2) {
      const uint32_t i = rng() % count;  // present once, then absent
      const uint64_t removed = Remove(AtomOf(i));
      EXPECT_TRUE(removed == 0 || removed == i + 1);
    } else {
      EXPECT_EQ(Insert({k % 5, 100000 + k, 1, 2, 3}, k + 1), k + 1);
    }
    EXPECT_FALSE(QWErrorIsSet()) << QWErrorMessage();
    VMArenaNewGenRelease(arena, 0);
  }
  done = true;
  for (std::thread &t : threads) t.join();
  EXPECT_EQ(mismatches.load(), 0u);
  EXPECT_GE(reads.load(), 200u);
}

}  // namespace
