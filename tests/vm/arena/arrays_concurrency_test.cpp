// Arena arrays from several threads: creation (named and unnamed) while other
// threads read and write their own arrays, and old-generation readers while
// a writer grows an array and commits over and over.
#include <atomic>
#include <thread>

#include "arena_fixture.h"

namespace {

using namespace arenatest;


class ArraysConcurrency : public ArenaTest, public ::testing::WithParamInterface<Mode> {};

// Each thread makes its own named arrays (and races the others for shared
// names), fills them and reads them back while ids keep being created and
// freed around it.
TEST_P(ArraysConcurrency, CreationRacesWithAccessToOtherArrays) {
  ASSERT_TRUE(Reopen(GetParam(), VM_FLAG_CREATE, 2)) << QWErrorMessage();
  constexpr int kThreads = 4, kArrays = 40, kShared = 10;
  std::vector<std::vector<uint32_t>> sharedIds(kThreads, std::vector<uint32_t>(kShared));
  std::vector<std::vector<uint32_t>> ownIds(kThreads);
  std::atomic<int> failures{0};
  auto worker = [&](int t) {
    std::mt19937 rng(1000 + t);
    std::vector<Bytes> models;
    VMArenaNewGenAcquire(arena, 0);
    for (int a = 0; a < kArrays; ++a) {
      VMAArrayHandle handle;
      std::string name = std::to_string(a);
      if (!VMAArrayInitFromPath(&handle, arena, ("thread/" + std::to_string(t)).c_str(), name.c_str())) ++failures;
      ownIds[t].push_back(handle.id[NEWGEN]);
      if (a < kShared) {
        VMAArrayHandle shared;
        if (!VMAArrayInitFromPath(&shared, arena, "shared", name.c_str())) ++failures;
        sharedIds[t][a] = shared.id[NEWGEN];
      }
      // Unnamed arrays come and go meanwhile.
      uint32_t scratch = VMAArrayNew(arena, 0, kBlock, NEWGEN);
      if (scratch == VMA_NO_ARRAY || !VMAArrayFree(arena, scratch)) ++failures;
      // Grow every own array a little, then check them all.
      models.emplace_back();
      for (int k = 0; k <= a; ++k) {
        Bytes more = RandomBytes(rng, 8 * (1 + rng() % 400));
        if (!VMAArrayAppend_(arena, ownIds[t][k], 0, kBlock, more.data(), uint32_t(more.size() / 8), NEWGEN, 8))
          ++failures;
        models[k].insert(models[k].end(), more.begin(), more.end());
      }
      for (int k = 0; k <= a; ++k)
        if (ReadAll(arena, ownIds[t][k], NEWGEN, 8) != models[k]) ++failures;
    }
    VMArenaNewGenRelease(arena, 0);
  };
  std::vector<std::thread> threads;
  for (int t = 0; t < kThreads; ++t) threads.emplace_back(worker, t);
  for (std::thread &thread : threads) thread.join();
  EXPECT_EQ(failures.load(), 0);
  for (int t = 1; t < kThreads; ++t) EXPECT_EQ(sharedIds[t], sharedIds[0]) << "a shared name got two ids";
  std::vector<uint32_t> all;
  for (const auto &ids : ownIds) all.insert(all.end(), ids.begin(), ids.end());
  all.insert(all.end(), sharedIds[0].begin(), sharedIds[0].end());
  std::sort(all.begin(), all.end());
  EXPECT_EQ(std::adjacent_find(all.begin(), all.end()), all.end()) << "an id was handed out twice";
  // Every name is where the name list says, after a commit and a reopen.
  ASSERT_TRUE(Commit()) << QWErrorMessage();
  ASSERT_TRUE(Reopen(GetParam(), 0, 2)) << QWErrorMessage();
  for (int t = 0; t < kThreads; ++t)
    for (int a = 0; a < kArrays; a += 9) {
      std::string name = "thread/" + std::to_string(t) + "/" + std::to_string(a);
      EXPECT_EQ(VMAArrayFind(arena, OLDGEN, name.data(), uint32_t(name.size()), 1, nullptr, 0, kBlock),
                ownIds[t][a]);
    }
}

// Readers of the committed generation see one whole commit of an array that
// a writer grows and rewrites between commits.
TEST_P(ArraysConcurrency, OldGenerationReadersSeeWholeCommits) {
  ASSERT_TRUE(Reopen(GetParam(), VM_FLAG_CREATE, 2)) << QWErrorMessage();
  VMAArrayHandle handle;
  ASSERT_TRUE(VMAArrayInitFromPath(&handle, arena, "versions", "v"));
  const uint32_t id = handle.id[NEWGEN];
  auto lengthOf = [](uint64_t version) { return uint32_t(100 + 397 * version); };
  auto write = [&](uint64_t version) {
    VMArenaNewGenAcquire(arena, 0);
    std::vector<uint64_t> values(lengthOf(version), version);
    bool ok = VMAArrayLengthSet_(arena, id, 0, NEWGEN, 8) &&
              VMAArrayAppend_(arena, id, 0, kBlock, values.data(), uint32_t(values.size()), NEWGEN, 8);
    VMArenaNewGenRelease(arena, 0);
    return ok;
  };
  ASSERT_TRUE(write(0));
  ASSERT_TRUE(Commit()) << QWErrorMessage();
  std::atomic<int> mixes{0}, reads{0};
  qwtest::ReadersBesideWriter(
      2,
      [&](const std::atomic<bool> &writing) {
        VMAArrayRangeCache *cache = VMAArrayRangeCacheNew(arena, id, kBlock, 8, OLDGEN, 1);
        while (writing.load()) {
          VMArenaOldGenAcquire(arena);
          const uint32_t length = VMAArrayLength_(arena, id, OLDGEN);
          uint64_t version = 0;
          for (uint32_t i = 0, end = 0; i < length; ++i) {
            auto *value = static_cast<const uint64_t *>(VMAArrayRangeAcquire_(cache, i, &end));
            if (!value) {
              ++mixes;
              break;
            }
            if (i == 0) version = *value;
            mixes += *value != version;
          }
          mixes += lengthOf(version) != length;
          VMAArrayRangeRelease_(cache);
          VMArenaOldGenRelease(arena);
          ++reads;
        }
        VMAArrayRangeCacheFree(cache);
      },
      [&] {
        for (uint64_t version = 1; version <= 30; ++version) {
          ASSERT_TRUE(write(version)) << QWErrorMessage();
          ASSERT_TRUE(Commit()) << QWErrorMessage();
        }
      });
  EXPECT_EQ(mixes.load(), 0);
  EXPECT_GT(reads.load(), 0);
}

INSTANTIATE_TEST_SUITE_P(Modes, ArraysConcurrency, ::testing::Values(kCache, kMapped), ModeName);

}  // namespace
