// Threads on one server as the arena lets them run: readers of the committed
// generation (no lock), writers of the new generation (allocating, writing,
// freeing their own blocks), and in mapped mode the mapping flush that the
// arena starts before it takes its flush lock.
#include <atomic>
#include <map>
#include <random>
#include <thread>
#include <vector>

#include "vm/lbs/lbs_fixture.h"

namespace lbstest {
namespace {

class LbsConcurrencyTest : public LbsTest, public ::testing::WithParamInterface<Mode> {};

TEST_P(LbsConcurrencyTest, OldGenerationReadersBesideNewGenerationWriters) {
  ServerPtr server = Open(GetParam());
  ASSERT_TRUE(server) << QWErrorMessage();
  constexpr uint32_t kCommitted = 64;
  for (uint32_t i = 0; i < kCommitted; ++i) ASSERT_EQ(NewBlock(server.get(), i + 1), i);
  ASSERT_TRUE(Commit(server.get())) << QWErrorMessage();

  constexpr int kWriters = 3;
  constexpr int kSteps = 400;
  std::atomic<bool> writing{true};
  std::atomic<int> failures{0};
  LocalBlockServer0 *s = server.get();

  // Each writer owns the committed blocks congruent to its number and the
  // blocks it allocates.
  auto writer = [&](int index) {
    std::mt19937 random(77u + unsigned(index));
    std::map<uint32_t, uint32_t> mine;
    for (uint32_t b = uint32_t(index); b < kCommitted; b += kWriters) mine[b] = b + 1;
    std::vector<uint32_t> allocated;
    for (int step = 0; step < kSteps; ++step) {
      const uint32_t seed = uint32_t(index) * 1000000u + uint32_t(step) + 1000u;
      const unsigned op = random() % 4;
      if (op == 0) {
        const uint32_t block = NewBlock(s, seed);
        if (block == INVALID_BLOCK_ID || mine.count(block)) ++failures;
        mine[block] = seed;
        allocated.push_back(block);
      } else if (op == 1 && !allocated.empty()) {
        const uint32_t block = allocated.back();
        allocated.pop_back();
        LocalBlockServer0BlockFree(s, block);
        mine.erase(block);
      } else {
        auto it = mine.begin();
        std::advance(it, random() % mine.size());
        if (op == 2) {
          if (!WriteBlock(s, it->first, seed)) ++failures;
          it->second = seed;
        } else if (!BlockHolds(s, it->first, NEWGEN, it->second)) {
          ++failures;
        }
      }
    }
    for (const auto &[block, seed] : mine)
      if (!BlockHolds(s, block, NEWGEN, seed)) ++failures;
  };
  auto reader = [&](int index) {
    std::mt19937 random(991u + unsigned(index));
    do {
      const uint32_t block = random() % kCommitted;
      if (!BlockHolds(s, block, OLDGEN, block + 1)) ++failures;
    } while (writing.load());
  };
  std::vector<std::thread> threads;
  for (int i = 0; i < 2; ++i) threads.emplace_back(reader, i);
  // The cache's flush copies pages that holders may be changing (by design it
  // marks them dirty again); only the mapped modes run it beside writers here.
  if (GetParam().flags != 0)
    threads.emplace_back([&] {
      do {
        if (!LocalBlockServer0MappingFlush(s, 1)) ++failures;
      } while (writing.load());
    });
  std::vector<std::thread> writers;
  for (int i = 0; i < kWriters; ++i) writers.emplace_back(writer, i);
  for (std::thread &t : writers) t.join();
  writing = false;
  for (std::thread &t : threads) t.join();
  EXPECT_EQ(failures.load(), 0);
  ASSERT_TRUE(Commit(server.get())) << QWErrorMessage();
  for (uint32_t i = 0; i < kCommitted; ++i) {
    uint32_t seed = 0;
    EXPECT_TRUE(ReadBlock(server.get(), i, OLDGEN, &seed));
  }
}

INSTANTIATE_TEST_SUITE_P(Modes, LbsConcurrencyTest, ::testing::ValuesIn(kModes), ModeName);

}  // namespace
}  // namespace lbstest
