// One dictionary record shared by a writer of the new generation and
// readers of the committed one: the readers see exactly the committed
// entries while the writer inserts, replaces and removes. The record was
// opened before its arrays were committed, so the readers also race to
// find the committed arrays by name.
#include <atomic>
#include <thread>

#include "avl_fixture.h"

namespace {

class AVLConcurrency : public avltest::AVLTest {};

TEST_F(AVLConcurrency, ReadersOfTheCommittedGenerationRunBesideTheWriter) {
  Open();
  constexpr uint64_t kCommitted = 2000;
  for (uint64_t key = 1; key <= kCommitted; ++key)
    ASSERT_EQ(QWDBAVLLDictInsert(dict, key * 2, key, 0, NEWGEN), 0u);
  ASSERT_TRUE(Commit()) << QWErrorMessage();

  std::atomic<bool> stop{false};
  std::atomic<uint32_t> rounds{0}, failures{0};
  auto reader = [&](uint64_t seed) {
    uint64_t key = seed;
    while (!stop.load()) {
      VMArenaOldGenAcquire(arena);
      for (int n = 0; n < 200; ++n) {
        key = (key * 6364136223846793005ull + 1442695040888963407ull) % (kCommitted * 2 + 10);
        const uint64_t expected = key % 2 == 0 && key >= 2 && key <= kCommitted * 2 ? key / 2 : 0xEEEE;
        if (QWDBAVLLDictFind(dict, key, 0xEEEE, OLDGEN) != expected) failures.fetch_add(1);
        if (QWDBAVLLDictSize(dict, OLDGEN) != kCommitted) failures.fetch_add(1);
      }
      VMArenaOldGenRelease(arena);
      rounds.fetch_add(1);
    }
  };
  std::vector<std::thread> threads;
  threads.emplace_back(reader, 1u);
  threads.emplace_back(reader, 2u);
  // The writer: odd keys in, even keys replaced, some removed (one at a
  // time, each followed by an insert that reuses its node).
  uint32_t writerFailures = 0;
  for (uint64_t key = 1; key < 4000; key += 2) {
    VMArenaNewGenAcquire(arena, 0);
    writerFailures += QWDBAVLLDictInsert(dict, key, key, 0, NEWGEN) != 0;
    writerFailures += QWDBAVLLDictInsert(dict, key + 1, 7, 0xFFFF, NEWGEN) != (key + 1) / 2;
    if (key % 10 == 1) writerFailures += QWDBAVLLDictRemove(dict, key, 0, NEWGEN) != key;
    VMArenaNewGenRelease(arena, 0);
  }
  while (rounds.load() < 4) std::this_thread::yield();
  stop.store(true);
  for (std::thread &t : threads) t.join();
  EXPECT_EQ(failures.load(), 0u);
  EXPECT_EQ(writerFailures, 0u);
  EXPECT_EQ(DBAVLLCheck(dict, NEWGEN), 1) << QWErrorMessage();
  EXPECT_EQ(QWDBAVLLDictSize(dict, NEWGEN), 4000u - 400u);
}

}  // namespace
