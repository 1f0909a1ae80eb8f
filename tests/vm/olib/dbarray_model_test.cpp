// Block-directory arrays against a model: random adds, sets and resizes
// (lengths around the prefix and block-size limits, up to 4090), commits
// and reopenings, compared with one std::vector<std::string> per bucket in
// both generations; DBArrayCheck must stay clean after every step.
#include <random>

#include "dbarray_fixture.h"

namespace {

using dbatest::Pattern;

using Buckets = std::vector<std::vector<std::string>>;

struct ModelCase {
  const char *name;
  uint32_t seed;
  uint32_t buckets;
  uint32_t maxBlocks;
  uint32_t compact;
  uint32_t steps;
  bool tiny;  // mostly short elements: many handles, a long directory
};

class DBArrayModel : public dbatest::DBArrayTest, public ::testing::WithParamInterface<ModelCase> {
 protected:
  // A length drawn to hit the interesting places: tiny elements, the 1/2
  // byte prefix boundary, mid sizes, and the neighbourhood of 4090.
  uint32_t RandomLength() {
    const uint32_t r = GetParam().tiny && rng() % 10 != 0 ? 0 : rng() % 100;
    if (r < 40) return rng() % 21;
    if (r < 50) return 120 + rng() % 16;
    if (r < 75) return 21 + rng() % 300;
    if (r < 88) return 300 + rng() % 1700;
    if (r < 94) return 2000 + rng() % 2000;
    return DBARRAY_MAX_ELEMENT_SIZE - rng() % 40;
  }
  std::string RandomValue() { return Pattern(rng(), RandomLength()); }

  void Reopen() {
    CloseAll();
    arena = OpenArena(0);
    ASSERT_NE(arena, nullptr) << QWErrorMessage();
    array = OpenArray(arena, GetParam().buckets);  // (made afresh when nothing was committed yet)
    ASSERT_NE(array, nullptr) << QWErrorMessage();
    DBArraySetMaxBlocks(array, GetParam().maxBlocks);
    DBArraySetCompact(array, GetParam().compact);
  }

  void ExpectBucket(const Buckets &expected, uint32_t gen, uint32_t b) {
    ASSERT_EQ(DBArraySize(array, b, gen), expected[b].size()) << "gen " << gen << " bucket " << b;
    for (uint32_t h = 0; h < expected[b].size(); ++h)
      ASSERT_EQ(ReadOrEmpty(b, h, gen), expected[b][h]) << "gen " << gen << " bucket " << b << " handle " << h;
    ASSERT_EQ(Read(b, uint32_t(expected[b].size()), gen), std::nullopt);
  }
  void ExpectAll(const Buckets &expected, uint32_t gen) {
    ASSERT_EQ(DBArrayBucketCount(array), expected.size());
    for (uint32_t b = 0; b < expected.size(); ++b) ExpectBucket(expected, gen, b);
  }
  void ExpectClean(uint32_t gen) {
    std::vector<std::string> problems = CheckProblems(gen);
    ASSERT_TRUE(problems.empty()) << "gen " << gen << ": " << problems.front();
  }

  std::mt19937 rng;
};

TEST_P(DBArrayModel, MatchesVectorsOfStringsThroughCommitsAndReopens) {
  const ModelCase &c = GetParam();
  rng.seed(c.seed);
  Open(c.buckets);
  DBArraySetMaxBlocks(array, c.maxBlocks);
  DBArraySetCompact(array, c.compact);
  Buckets model(c.buckets), committed(c.buckets);
  uint32_t adds = 0, sets = 0, resizes = 0, commits = 0, reopens = 0, merges = 0;

  for (uint32_t step = 0; step < c.steps; ++step) {
    SCOPED_TRACE("step " + std::to_string(step));
    const uint32_t r = rng() % 100;
    const uint32_t b = rng() % c.buckets;
    std::vector<std::string> &bucket = model[b];
    const bool haveAny = !bucket.empty();
    const uint32_t h = haveAny ? rng() % uint32_t(bucket.size()) : 0;
    if (r < 45 || !haveAny) {
      std::string value = RandomValue();
      ASSERT_EQ(Add(b, value), bucket.size()) << QWErrorMessage();
      bucket.push_back(value);
      ASSERT_EQ(ReadOrEmpty(b, uint32_t(bucket.size() - 1)), value);
      ++adds;
    } else if (r < 65) {
      std::string value = RandomValue();
      ASSERT_TRUE(DBArraySet(array, b, h, NEWGEN, value.data(), uint32_t(value.size()))) << QWErrorMessage();
      bucket[h] = value;
      ASSERT_EQ(ReadOrEmpty(b, h), value);
      ++sets;
    } else if (r < 88) {
      // Up or down, often across the block limit.
      uint32_t length = rng() % 2 ? RandomLength() : uint32_t(bucket[h].size()) / 2;
      const int merged = DBArrayLengthSet(array, b, h, NEWGEN, length);
      ASSERT_GE(merged, 0) << QWErrorMessage();
      merges += uint32_t(merged);
      bucket[h].resize(length, '\0');
      ASSERT_EQ(ReadOrEmpty(b, h), bucket[h]);
      ++resizes;
    } else if (r < 94) {
      ASSERT_TRUE(Commit()) << QWErrorMessage();
      committed = model;
      ExpectAll(committed, OLDGEN);
      ExpectClean(OLDGEN);
      ++commits;
    } else if (r < 96) {
      Reopen();  // uncommitted changes are dropped
      model = committed;
      ExpectAll(model, NEWGEN);
      ExpectAll(committed, OLDGEN);
      ++reopens;
    } else {
      ExpectAll(model, NEWGEN);
      ExpectAll(committed, OLDGEN);
    }
    ExpectClean(NEWGEN);
    if (HasFatalFailure()) return;
  }
  ExpectAll(model, NEWGEN);
  ExpectAll(committed, OLDGEN);
  // Every kind of step ran.
  EXPECT_GT(adds, 0u);
  EXPECT_GT(sets, 0u);
  EXPECT_GT(resizes, 0u);
  EXPECT_GT(commits, 0u);
  EXPECT_GT(reopens, 0u);
  EXPECT_EQ(merges > 0, c.compact != 0);
  // Blocks stay within their limits and the array keeps working after a
  // final commit and reopen.
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

}  // namespace
