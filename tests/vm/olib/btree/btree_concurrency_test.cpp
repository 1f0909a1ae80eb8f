// A reader of the committed generation, with a tree record of its own, next
// to a writer of the new generation that commits as it goes: every walk of
// OLDGEN sees one whole committed state.
#include <atomic>
#include <thread>

#include "btree_fixture.h"

namespace bttest {
namespace {

using BTreeConcurrency = BTreeTest;

constexpr uint64_t kPerRound = 1500;
constexpr uint64_t kRounds = 12;

TEST_F(BTreeConcurrency, CommittedStateReadWhileWriterChangesAndCommits) {
  Open(8, 4);
  ASSERT_EQ(Create(0, 0), BTREE_NO_KEY);  // round 0: key 0
  ASSERT_TRUE(Commit()) << QWErrorMessage();
  BTree *reader = BTreeNew(arena, kPath, kName, 0, 8, 4);
  ASSERT_NE(reader, nullptr) << QWErrorMessage();

  std::atomic<bool> done{false};
  std::atomic<uint64_t> walks{0}, torn{0};
  std::thread readerThread([&] {
    while (!done.load()) {
      Entries seen;
      VMArenaOldGenAcquire(arena);
      const int ok = BTreeEnumerate(
          reader,
          [](uint64_t key, uint64_t value, void *context) {
            static_cast<Entries *>(context)->emplace_back(key, value);
            return 0;
          },
          &seen, OLDGEN);
      const uint64_t probe = BTreeFind(reader, seen.size() / 2, 0, BTREE_NO_KEY, 0, 0, 0, OLDGEN);
      VMArenaOldGenRelease(arena);
      // A whole state: keys 0 .. m-1 for m = 1 + r * kPerRound, value = round.
      bool whole = ok == 1 && !seen.empty() && (seen.size() - 1) % kPerRound == 0 &&
                   probe == (seen.size() / 2 == 0 ? 0 : (seen.size() / 2 - 1) / kPerRound + 1);
      for (size_t i = 0; whole && i < seen.size(); ++i)
        whole = seen[i].first == i && seen[i].second == (i == 0 ? 0 : (i - 1) / kPerRound + 1);
      torn += !whole;
      ++walks;
    }
  });

  for (uint64_t round = 1; round <= kRounds; ++round) {
    VMArenaNewGenAcquire(arena, 0);
    for (uint64_t i = 0; i < kPerRound; ++i) {
      const uint64_t key = (round - 1) * kPerRound + 1 + i;
      ASSERT_EQ(Create(key, round), BTREE_NO_KEY);
    }
    VMArenaNewGenRelease(arena, 0);
    ASSERT_TRUE(Commit()) << QWErrorMessage();
  }
  while (walks.load() < 3) std::this_thread::yield();
  done = true;
  readerThread.join();
  BTreeFree(reader, 8);
  EXPECT_EQ(torn.load(), 0u);
  EXPECT_EQ(Contents(OLDGEN).size(), 1 + kRounds * kPerRound);
}

}  // namespace
}  // namespace bttest
