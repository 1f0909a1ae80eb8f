// Growable bit arrays: the stored packing bit for bit, widening by re-packing, a model through commits, reopenings and
// committed reads (values of every width across element boundaries), and the assertions.
#include "vm/olib/olib_fixture.h"

namespace {

constexpr const char *kPath = "bits";

class GBitArrayTest : public olibtest::ArenaTest {
 protected:
  void FreeStructures() override {
    GBitArrayFree(array);
    array = nullptr;
  }
  void Open(uint32_t flags = VM_FLAG_CREATE) {
    ASSERT_NO_FATAL_FAILURE(MustOpenArena(flags));
    int created = 1;
    ASSERT_NE(array = GBitArrayNew(arena, &pathBuffer, kPath, &created, 0), nullptr) << QWErrorMessage();
  }
  void Reopen() {
    CloseAll();
    Open(0);
  }
  uint64_t Get(uint64_t index, uint32_t gen = NEWGEN, uint32_t *slice = nullptr) {
    uint64_t value = 0;
    const uint32_t s = GBitArrayGet(array, index, &value, gen);
    EXPECT_NE(s, GBITARRAY_ERROR) << QWErrorMessage();
    if (slice) *slice = s;
    return value;
  }
  uint32_t SliceArray() { return Named(std::string(kPath) + "/gBitArray/slice"); }
  std::vector<uint64_t> Elements() { return ArenaTest::Elements(SliceArray(), 8); }
  // The stored elements hold exactly `values` at width s.
  void ExpectPacked(const std::vector<uint64_t> &values, uint32_t s) {
    const std::vector<uint64_t> e = Elements();
    ASSERT_GE(e.size(), 2u);
    EXPECT_EQ(e[0], s);
    EXPECT_EQ(e[1], values.size());
    ASSERT_GE((e.size() - 2) * 64, values.size() * s);
    for (uint64_t bit = 0; bit < values.size() * s; ++bit) {
      const uint64_t expected = (values[bit / s] >> (bit % s)) & 1;
      ASSERT_EQ((e[2 + bit / 64] >> (bit % 64)) & 1, expected) << "bit " << bit;
    }
  }
  GBitArray *array = nullptr;
};

TEST_F(GBitArrayTest, EdgeCasesOfTheFormat) {
  Open();
  EXPECT_EQ(Elements(), (std::vector<uint64_t>{0, 0}));  // slice size 0, no values
  // 0 with 0 bits stores no bit but counts the value.
  ASSERT_EQ(GBitArrayAdd(array, 0, 0, NEWGEN), 1);
  EXPECT_EQ(GBitArraySize(array, NEWGEN), 1u);
  uint32_t slice = 99;
  EXPECT_EQ(Get(0, NEWGEN, &slice), 0u);
  EXPECT_EQ(slice, 0u);
  // 1-bit values, then 5 (3 bits) re-packs all of them at 3 bits.
  std::vector<uint64_t> values = {0, 1, 0, 1, 1};
  for (size_t i = 1; i < values.size(); ++i) ASSERT_EQ(GBitArrayAdd(array, values[i], 1, NEWGEN), 1);
  ExpectPacked(values, 1);
  ASSERT_EQ(GBitArrayAdd(array, 5, 3, NEWGEN), 1);
  values.push_back(5);
  ExpectPacked(values, 3);
  EXPECT_EQ(Elements()[2], 0b101'001'001'000'001'000u);
  for (size_t i = 0; i < values.size(); ++i) EXPECT_EQ(Get(i, NEWGEN, &slice), values[i]);
  EXPECT_EQ(slice, 3u);
  // Narrower values keep the width.
  ASSERT_EQ(GBitArrayAdd(array, 1, 1, NEWGEN), 1);
  values.push_back(1);
  ExpectPacked(values, 3);
}

struct ModelCase {
  const char *name;
  uint32_t seed, steps, maxBits;  // maxBits: the widest value the run adds
};

class GBitArrayModel : public GBitArrayTest, public ::testing::WithParamInterface<ModelCase> {};

TEST_P(GBitArrayModel, MatchesAVectorThroughWideningsCommitsAndReopenings) {
  const ModelCase &c = GetParam();
  std::mt19937_64 rng(c.seed);
  Open();
  std::vector<uint64_t> model, committed;
  uint32_t width = 0;
  auto randomBits = [&] {  // mostly the width so far; now and then a wider one
    return rng() % 50 == 0 ? std::min(c.maxBits, width + 1 + uint32_t(rng() % 9)) : width;
  };
  auto randomValue = [&](uint32_t bits) { return bits == 0 ? 0 : rng() & (~uint64_t(0) >> (64 - bits)); };
  for (uint32_t step = 0; step < c.steps; ++step) {
    SCOPED_TRACE(step);
    const uint32_t r = uint32_t(rng() % 100);
    if (r < 55 || model.empty()) {
      const uint32_t bits = randomBits();
      model.push_back(randomValue(bits));
      ASSERT_EQ(GBitArrayAdd(array, model.back(), bits, NEWGEN), 1) << QWErrorMessage();
      width = std::max(width, bits);
    } else if (r < 80) {
      const uint64_t i = rng() % model.size();
      const uint32_t bits = randomBits();
      model[i] = randomValue(bits);
      ASSERT_EQ(GBitArraySet(array, i, model[i], bits, NEWGEN), 1) << QWErrorMessage();
      width = std::max(width, bits);
    } else if (r < 83) {
      ASSERT_TRUE(VMArenaCommit(arena, nullptr, nullptr, 0)) << QWErrorMessage();
      committed = model;
      Reopen();  // the committed generation is read through a map opened after it
    } else if (r < 85) {
      Reopen();  // uncommitted changes are dropped
      model = committed;
      uint32_t slice = 0;
      if (!model.empty()) (void)Get(0, NEWGEN, &slice);
      width = slice;
    } else {
      const uint32_t gen = r % 2 ? OLDGEN : NEWGEN;
      const std::vector<uint64_t> &expected = gen == OLDGEN ? committed : model;
      ASSERT_EQ(GBitArraySize(array, gen), expected.size());
      if (expected.empty()) continue;
      const uint64_t i = rng() % expected.size();
      ASSERT_EQ(Get(i, gen), expected[i]) << "gen " << gen << " index " << i;
    }
  }
  ExpectPacked(model, width);
  for (size_t i = 0; i < model.size(); ++i) ASSERT_EQ(Get(i), model[i]);
  for (size_t i = 0; i < committed.size(); ++i) ASSERT_EQ(Get(i, OLDGEN), committed[i]);
  EXPECT_EQ(VMArenaCheck(arena), 0);
}

const ModelCase kModelCases[] = {{"narrow", 21, 1500, 7}, {"up_to_64_bits", 22, 1500, 64}};

INSTANTIATE_TEST_SUITE_P(Cases, GBitArrayModel, ::testing::ValuesIn(kModelCases),
                         [](const ::testing::TestParamInfo<ModelCase> &info) { return info.param.name; });

using GBitArrayDeathTest = GBitArrayTest;

TEST_F(GBitArrayDeathTest, CallerErrorsFailTheirAssertions) {
  GTEST_FLAG_SET(death_test_style, "threadsafe");
  Open();
  ASSERT_EQ(GBitArrayAdd(array, 3, 2, NEWGEN), 1);
  uint64_t value = 0;
  EXPECT_DEATH(GBitArrayGet(array, 1, &value, NEWGEN), "index < size");
  EXPECT_DEATH(GBitArraySet(array, 1, 1, 2, NEWGEN), "index < size");
  EXPECT_DEATH(GBitArrayAdd(array, 4, 2, NEWGEN),
               "\\(bit & \\(~\\(\\(ONE << \\(\\(ULong\\) sliceSize\\)\\) - 1\\)\\)\\) == 0");
  EXPECT_DEATH(GBitArraySet(array, 0, 8, 3, NEWGEN),
               "\\(bit & \\(~\\(\\(ONE << \\(\\(ULong\\) sliceSize\\)\\) - 1\\)\\)\\) == 0");
  EXPECT_DEATH(GBitArrayAdd(array, 1, 65, NEWGEN), "bitsLength <= ULONG_BIT_SIZE");
  EXPECT_DEATH(GBitArrayAdd(array, 1, 1, OLDGEN), "genID == NEWGEN");
  EXPECT_DEATH(GBitArrayGet(array, 0, &value, 2), "FALSE");
  // A count the elements cannot hold is stored damage.
  Poke(SliceArray(), 1, 8, 0, 200, 1);
  EXPECT_DEATH(GBitArrayGet(array, 199, &value, NEWGEN), "\\(\\(longIndex \\+ 2\\)\\) < __arraylen__");
  EXPECT_EQ(Get(0), 3u);
}

}  // namespace
