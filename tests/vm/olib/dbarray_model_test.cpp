// Block-directory arrays against a model (one std::vector<std::string> per bucket, both generations, DBArrayCheck clean
// after every step), across a crash at each commit stop, and with committed readers and checkers beside a writer.
#include "dbarray_fixture.h"

namespace {

using dbatest::Buckets;
using dbatest::Pattern;

struct ModelCase {
  const char *name;
  uint32_t seed, buckets, maxBlocks, compact, steps;
  bool tiny;  // mostly short elements: many handles, a long directory
};

class DBArrayModel : public dbatest::DBArrayTest, public ::testing::WithParamInterface<ModelCase> {
 protected:
  // Lengths at the interesting places: tiny, the 1/2-byte prefix boundary, mid sizes, and the neighbourhood of 4090.
  uint32_t RandomLength() {
    const uint32_t r = GetParam().tiny && rng() % 10 != 0 ? 0 : rng() % 100;
    if (r < 40) return rng() % 21;
    if (r < 50) return 120 + rng() % 16;
    if (r < 75) return 21 + rng() % 300;
    if (r < 88) return 300 + rng() % 1700;
    if (r < 94) return 2000 + rng() % 2000;
    return DBARRAY_MAX_ELEMENT_SIZE - rng() % 40;
  }
  void Reopen() {  // uncommitted changes are dropped
    CloseAll();
    ASSERT_NO_FATAL_FAILURE(Open(GetParam().buckets, 0));  // (made afresh when nothing was committed yet)
    DBArraySetMaxBlocks(array, GetParam().maxBlocks);
    DBArraySetCompact(array, GetParam().compact);
  }
  void ExpectAll(const Buckets &expected, uint32_t gen) {
    ASSERT_EQ(Contents(gen), expected) << "gen " << gen;
    for (uint32_t b = 0; b < expected.size(); ++b) ASSERT_EQ(Read(b, uint32_t(expected[b].size()), gen), std::nullopt);
  }
  void ExpectClean(uint32_t gen) {
    const std::vector<std::string> problems = CheckProblems(gen);
    ASSERT_TRUE(problems.empty()) << "gen " << gen << ": " << problems.front();
  }
  std::mt19937 rng{GetParam().seed};
};

TEST_P(DBArrayModel, MatchesVectorsOfStringsThroughCommitsAndReopens) {
  const ModelCase &c = GetParam();
  ASSERT_NO_FATAL_FAILURE(Open(c.buckets));
  DBArraySetMaxBlocks(array, c.maxBlocks);
  DBArraySetCompact(array, c.compact);
  Buckets model(c.buckets), committed(c.buckets);
  uint32_t merges = 0, b = 0, h = 0;
  auto value = [&] { return Pattern(rng(), RandomLength()); };
  qwtest::RunModel(
      rng, int(c.steps),
      {{45,
        [&] {
          model[b].push_back(value());
          ASSERT_EQ(Add(b, model[b].back()), model[b].size() - 1) << QWErrorMessage();
          ASSERT_EQ(ReadOrEmpty(b, uint32_t(model[b].size() - 1)), model[b].back());
        }},
       {20,
        [&] {
          if (model[b].empty()) return;
          model[b][h] = value();
          ASSERT_TRUE(DBArraySet(array, b, h, NEWGEN, model[b][h].data(), uint32_t(model[b][h].size())));
          ASSERT_EQ(ReadOrEmpty(b, h), model[b][h]);
        }},
       {23,
        [&] {  // up or down, often across the block limit
          if (model[b].empty()) return;
          const uint32_t length = rng() % 2 ? RandomLength() : uint32_t(model[b][h].size()) / 2;
          const int merged = DBArrayLengthSet(array, b, h, NEWGEN, length);
          ASSERT_GE(merged, 0) << QWErrorMessage();
          merges += uint32_t(merged);
          model[b][h].resize(length, '\0');
          ASSERT_EQ(ReadOrEmpty(b, h), model[b][h]);
        }},
       {6,
        [&] {
          ASSERT_TRUE(Commit()) << QWErrorMessage();
          committed = model;
          ExpectAll(committed, OLDGEN);
          ExpectClean(OLDGEN);
        }},
       {2,
        [&] {
          ASSERT_NO_FATAL_FAILURE(Reopen());
          model = committed;
          ExpectAll(model, NEWGEN);
          ExpectAll(committed, OLDGEN);
        }},
       {4,
        [&] {
          ExpectAll(model, NEWGEN);
          ExpectAll(committed, OLDGEN);
        }}},
      [&](int) {
        ExpectClean(NEWGEN);
        b = rng() % c.buckets;
        h = model[b].empty() ? 0 : rng() % uint32_t(model[b].size());
      });
  if (HasFatalFailure()) return;
  ExpectAll(model, NEWGEN);
  EXPECT_EQ(merges > 0, c.compact != 0);
  ASSERT_TRUE(Commit());
  Reopen();
  ExpectAll(model, OLDGEN);
  ExpectAll(model, NEWGEN);
  ExpectClean(OLDGEN);
}

INSTANTIATE_TEST_SUITE_P(Seeds, DBArrayModel,
                         ::testing::Values(ModelCase{"small_blocks", 11, 3, 0, 1, 3000, false},
                                           ModelCase{"max_blocks", 23, 2, 1, 1, 1500, false},
                                           ModelCase{"no_compaction", 37, 2, 0, 0, 1500, false},
                                           ModelCase{"many_handles", 41, 1, 0, 1, 3000, true}),
                         [](const auto &info) { return std::string(info.param.name); });

// DBArrayCheck's workers and readers of the committed generation run while one writer changes the new generation.
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
  const uint32_t bad = olibtest::ReadersBesideWriter(
      arena, 3, 20,
      [&](std::mt19937 &rng) {
        if (rng() % 4 == 0) return DBArrayCheck(array, OLDGEN) == 0;
        const uint32_t b = rng() % kBuckets, h = rng() % uint32_t(committed[b].size());
        uint32_t length = 0;
        const void *bytes = DBArrayGet(array, b, h, OLDGEN, 1, &length);
        const std::string value = bytes ? std::string(static_cast<const char *>(bytes), length) : "";
        if (bytes) DBArrayRelease(array, OLDGEN, 1, bytes);
        return value == committed[b][h];
      },
      [&] {
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
      });
  EXPECT_EQ(bad, 0u);
  EXPECT_EQ(DBArrayCheck(array, NEWGEN), 0u);
  EXPECT_EQ(Contents(NEWGEN), model);
}

}  // namespace
