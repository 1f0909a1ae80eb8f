// Arena arrays against a model: arrays of 1, 4, 8, 24 and 100-byte elements
// in one arena, random appends, inserts, removals, overwrites, length changes
// and copies across block boundaries and layout changes, with commits (the
// old generation must read as the last committed model) and reopenings (the
// uncommitted changes are gone), in every access mode. From several threads:
// creation (named and unnamed) while other threads read and write their own
// arrays, and old-generation readers while a writer grows an array and
// commits over and over.
#include <algorithm>
#include <atomic>
#include <string>
#include <thread>

#include "arena_fixture.h"

namespace {

using namespace arenatest;

struct ModelArray {
  std::string name;
  uint32_t elementSize;
  uint32_t id = VMA_NO_ARRAY;
  Bytes data;       // the new generation
  Bytes committed;  // the old generation
  bool reachedFullLayout = false;
};

class ArraysModel : public ArenaTest, public ::testing::WithParamInterface<Mode> {
 protected:
  void OpenAll(uint32_t flags) {
    ASSERT_TRUE(Reopen(GetParam(), flags)) << QWErrorMessage();
    for (ModelArray &m : arrays) {
      VMAArrayHandle handle;
      ASSERT_TRUE(VMAArrayInitFromPath(&handle, arena, "model", m.name.c_str())) << QWErrorMessage();
      if (m.id != VMA_NO_ARRAY) {
        EXPECT_EQ(handle.id[NEWGEN], m.id) << m.name;
      }
      EXPECT_EQ(handle.id[OLDGEN], committedOnce ? handle.id[NEWGEN] : VMA_NO_ARRAY) << m.name;
      m.id = handle.id[NEWGEN];
    }
  }
  void ExpectAll(const char *when, int step) {
    VMArenaOldGenAcquire(arena);
    for (const ModelArray &m : arrays) {
      ASSERT_EQ(ReadAll(arena, m.id, NEWGEN, m.elementSize), m.data) << m.name << " new, " << when << " " << step;
      if (committedOnce) {
        ASSERT_EQ(ReadAll(arena, m.id, OLDGEN, m.elementSize), m.committed)
            << m.name << " old, " << when << " " << step;
      }
      ExpectLayout(arena, m.id, m.elementSize);
    }
    VMArenaOldGenRelease(arena);
  }
  void Step(ModelArray &m, std::mt19937 &rng);

  bool committedOnce = false;
  std::vector<ModelArray> arrays;
  ModelArray copyTarget;  // a copy of whichever array was copied last
};

void ArraysModel::Step(ModelArray &m, std::mt19937 &rng) {
  const uint32_t e = m.elementSize;
  const uint32_t length = uint32_t(m.data.size() / e);
  const uint32_t perBlock = kBlock / e;
  const uint32_t op = rng() % 100;
  VMArenaNewGenAcquire(arena, 0);
  if (op < 30) {  // append, up to half a block at once
    uint32_t count = 1 + rng() % std::max(1u, perBlock / 2);
    Bytes more = RandomBytes(rng, size_t(count) * e);
    ASSERT_TRUE(VMAArrayAppend_(arena, m.id, 0, kBlock, more.data(), count, NEWGEN, e)) << QWErrorMessage();
    m.data.insert(m.data.end(), more.begin(), more.end());
  } else if (op < 45) {  // insert anywhere, the end included
    uint32_t index = rng() % (length + 1);
    Bytes element = RandomBytes(rng, e);
    ASSERT_TRUE(VMAArrayInsert_(arena, m.id, 0, kBlock, index, element.data(), NEWGEN, e)) << QWErrorMessage();
    m.data.insert(m.data.begin() + size_t(index) * e, element.begin(), element.end());
  } else if (op < 62 && length > 0) {  // remove
    uint32_t index = rng() % 4 == 0 ? length - 1 : rng() % length;
    ASSERT_TRUE(VMAArrayRemove_(arena, m.id, 0, kBlock, index, NEWGEN, e)) << QWErrorMessage();
    m.data.erase(m.data.begin() + size_t(index) * e, m.data.begin() + size_t(index + 1) * e);
  } else if (op < 77 && length > 0) {  // overwrite a run, often across a block boundary
    uint32_t index = rng() % length;
    uint32_t count = 1 + rng() % std::min(length - index, perBlock + 3);
    Bytes run = RandomBytes(rng, size_t(count) * e);
    ASSERT_TRUE(VMAArraySetRange_(arena, m.id, 0, kBlock, index, run.data(), count, NEWGEN, e)) << QWErrorMessage();
    std::copy(run.begin(), run.end(), m.data.begin() + size_t(index) * e);
  } else if (op < 85) {  // shrink, or grow within an ensured capacity
    if (rng() % 2 && length > 0) {
      uint32_t shorter = rng() % length;
      ASSERT_TRUE(VMAArrayLengthSet_(arena, m.id, shorter, NEWGEN, e));
      m.data.resize(size_t(shorter) * e);
    } else {
      uint32_t longer = length + 1 + rng() % perBlock;
      ASSERT_TRUE(VMAArrayEnsureCapacity_(arena, m.id, 0, kBlock, longer, NEWGEN, 0, e)) << QWErrorMessage();
      ASSERT_TRUE(VMAArrayLengthSet_(arena, m.id, longer, NEWGEN, e));
      Bytes filler = RandomBytes(rng, size_t(longer - length) * e);
      ASSERT_TRUE(VMAArraySetRange_(arena, m.id, 0, kBlock, length, filler.data(), longer - length, NEWGEN, e));
      m.data.insert(m.data.end(), filler.begin(), filler.end());
    }
  } else if (op < 88) {  // copy into the spare array, from either generation
    uint32_t generation = committedOnce && rng() % 2 ? OLDGEN : NEWGEN;
    if (generation == OLDGEN && rng() % 4 == 0) {  // onto itself: back to its committed state
      ASSERT_TRUE(VMAArrayCopy_(arena, m.id, 0, m.id, 0, OLDGEN, kBlock, e)) << QWErrorMessage();
      m.data = m.committed;
    }
    ASSERT_TRUE(VMAArrayCopy_(arena, copyTarget.id, 0, m.id, 0, generation, kBlock, e)) << QWErrorMessage();
    copyTarget.elementSize = e;
    copyTarget.data = generation == NEWGEN ? m.data : m.committed;
    ASSERT_EQ(ReadAll(arena, copyTarget.id, NEWGEN, e), copyTarget.data) << "copy of " << m.name;
    ExpectLayout(arena, copyTarget.id, e);
  }
  VMArenaNewGenRelease(arena, 0);
  m.reachedFullLayout |= TypeOf(arena, m.id) == FULL_ARRAY_TYPE;
}

TEST_P(ArraysModel, RandomEditsCommitsAndReopeningsMatchTheModel) {
  for (uint32_t e : {1u, 4u, 8u, 24u, 100u}) {
    arrays.emplace_back();
    arrays.back().name = "e" + std::to_string(e);
    arrays.back().elementSize = e;
  }
  copyTarget.name = "copy";
  OpenAll(VM_FLAG_CREATE);
  copyTarget.id = VMAArrayNew(arena, 0, kBlock, NEWGEN);
  qwtest::MessageCapture capture;  // the block servers' own accounting at each flush
  std::mt19937 rng(20240611);
  const int kSteps = 2500;
  for (int step = 0; step < kSteps; ++step) {
    // Favour the large elements a little so that each reaches three blocks.
    ModelArray &m = arrays[rng() % 8 < 3 ? rng() % arrays.size() : arrays.size() - 1 - rng() % 3];
    ASSERT_NO_FATAL_FAILURE(Step(m, rng));
    uint32_t event = rng() % 1000;
    if (event < 12) {
      ASSERT_TRUE(Commit()) << QWErrorMessage();
      for (ModelArray &a : arrays) a.committed = a.data;
      committedOnce = true;
      ASSERT_NO_FATAL_FAILURE(ExpectAll("commit", step));
    } else if (event < 16) {
      // Close drops what was not committed; the spare array goes too unless
      // it was committed, so it is made afresh.
      for (ModelArray &a : arrays) a.data = a.committed;
      ASSERT_NO_FATAL_FAILURE(OpenAll(0));
      copyTarget.id = VMAArrayNew(arena, 0, kBlock, NEWGEN);
      ASSERT_NO_FATAL_FAILURE(ExpectAll("reopen", step));
    } else if (step % 100 == 0) {
      ASSERT_NO_FATAL_FAILURE(ExpectAll("step", step));
    }
  }
  ASSERT_NO_FATAL_FAILURE(ExpectAll("end", kSteps));
  for (const ModelArray &m : arrays) EXPECT_TRUE(m.reachedFullLayout) << m.name << " never outgrew its tail layout";
  EXPECT_FALSE(capture.contains("VM: Block count must be fixed !"));
}

INSTANTIATE_TEST_SUITE_P(AllModes, ArraysModel, ::testing::ValuesIn(kModes), ModeName);

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
