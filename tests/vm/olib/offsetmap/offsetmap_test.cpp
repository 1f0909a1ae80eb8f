// Offset maps: the stored groups and differences byte for byte, the zero difference as the format defines it, a model
// through commits, reopenings and committed reads, and the assertions.
#include "vm/olib/olib_fixture.h"

namespace {

constexpr const char *kPath = "runs/run0";

class OffsetMapTest : public olibtest::ArenaTest {
 protected:
  void FreeStructures() override {
    OffsetMapFree(map);
    map = nullptr;
  }
  void Open(uint32_t flags = VM_FLAG_CREATE, int expectCreated = -1) {
    ASSERT_NO_FATAL_FAILURE(MustOpenArena(flags));
    int created = 1;
    ASSERT_NE(map = OffsetMapNew(arena, &pathBuffer, kPath, &created, 0), nullptr) << QWErrorMessage();
    EXPECT_TRUE(expectCreated < 0 || created == expectCreated) << created;
    EXPECT_EQ(ArrayLength(pathBuffer), 0u);
  }
  void Reopen() {
    CloseAll();
    Open(0, 0);
  }
  std::vector<uint64_t> Stored(const char *name, unsigned size) {
    return Elements(std::string(kPath) + "/offsetMap/" + name, size);
  }
  OffsetMap *map = nullptr;
};

TEST_F(OffsetMapTest, GroupsAndDifferencesAreStoredAsSpecified) {
  Open(VM_FLAG_CREATE, 1);
  EXPECT_EQ(Stored("lengthCodeIndex", 4), (std::vector<uint64_t>{0}));
  // Entries 0..17: differences 1, 127, 128, 129, then 1000 each; 16 starts a new group.
  std::vector<uint64_t> offsets = {5};
  const uint64_t steps[] = {1, 127, 128, 129};
  for (uint32_t i = 1; i < 18; ++i) offsets.push_back(offsets.back() + (i <= 4 ? steps[i - 1] : 1000));
  for (uint32_t i = 0; i < offsets.size(); ++i) ASSERT_EQ(OffsetMapAdd(map, offsets[i]), i) << QWErrorMessage();

  EXPECT_EQ(Stored("offset", 8), (std::vector<uint64_t>{offsets[0], offsets[16]}));
  // 1 -> 02; 127 -> FE; 128 -> 01 02; 129 -> 03 02; 1000 -> D1 0E (x 11 in group 0, then one in group 1).
  std::vector<uint64_t> code = {0x02, 0xFE, 0x01, 0x02, 0x03, 0x02};
  for (int i = 0; i < 11; ++i) code.insert(code.end(), {0xD1, 0x0E});
  const uint64_t group1 = code.size();
  code.insert(code.end(), {0xD1, 0x0E});
  EXPECT_EQ(Stored("lengthcode", 1), code);
  EXPECT_EQ(Stored("lengthCodeIndex", 4), (std::vector<uint64_t>{18, 0, group1}));
  for (uint32_t i = 0; i < offsets.size(); ++i) EXPECT_EQ(OffsetMapGet(map, i, NEWGEN), offsets[i]) << i;

  // The largest step takes five bytes.
  const uint64_t far = offsets.back() + 0xFFFFFFFFull;
  ASSERT_EQ(OffsetMapAdd(map, far), 18u);
  EXPECT_EQ(Stored("lengthcode", 1).size(), code.size() + 5);
  EXPECT_EQ(OffsetMapGet(map, 18, NEWGEN), far);
}

// Two equal offsets in a group: the zero difference is written as nothing, while reading consumes a byte per
// difference. This is the stored format's behaviour and is kept: the read runs on into the next difference.
TEST_F(OffsetMapTest, ZeroDifferenceWritesNoByte) {
  Open();
  for (uint64_t x = 0; x < 15; ++x) ASSERT_EQ(OffsetMapAdd(map, 10 * x), x);
  const size_t bytes = Stored("lengthcode", 1).size();
  ASSERT_EQ(OffsetMapAdd(map, 140), 15u);  // equal to entry 14
  EXPECT_EQ(Stored("lengthcode", 1).size(), bytes);
  ASSERT_EQ(OffsetMapAdd(map, 140), 16u);  // a group start is stored absolutely
  ASSERT_EQ(OffsetMapAdd(map, 145), 17u);
  EXPECT_EQ(OffsetMapGet(map, 14, NEWGEN), 140u);
  EXPECT_EQ(OffsetMapGet(map, 15, NEWGEN), 145u);  // read entry 17's difference
  EXPECT_EQ(OffsetMapGet(map, 16, NEWGEN), 140u);
  EXPECT_EQ(OffsetMapGet(map, 17, NEWGEN), 145u);
  // With no difference behind it, the next read (here the next add's) runs past the stored bytes.
  ASSERT_EQ(OffsetMapAdd(map, 145), 18u);
  GTEST_FLAG_SET(death_test_style, "threadsafe");
  EXPECT_DEATH(OffsetMapAdd(map, 150), "\\(\\(lengthCodeIndex\\)\\) < __arraylen__");
}

struct ModelCase {
  const char *name;
  uint32_t seed, steps;
};

class OffsetMapModel : public OffsetMapTest, public ::testing::WithParamInterface<ModelCase> {};

TEST_P(OffsetMapModel, MatchesAVectorThroughCommitsAndReopenings) {
  std::mt19937_64 rng(GetParam().seed);
  Open();
  std::vector<uint64_t> model, committed;
  uint64_t last = rng() % 1000;
  for (uint32_t step = 0; step < GetParam().steps; ++step) {
    SCOPED_TRACE(step);
    const uint32_t r = uint32_t(rng() % 1000);
    if (r < 800) {
      const uint32_t kind = uint32_t(rng() % 10);
      const uint64_t gap = kind < 5 ? 1 + rng() % 127 : kind < 8 ? 128 + rng() % 20000 : 1 + rng() % 0xFFFFFFFFull;
      last = model.empty() ? last : last + gap;
      model.push_back(last);
      ASSERT_EQ(OffsetMapAdd(map, last), model.size() - 1) << QWErrorMessage();
    } else if (r < 808) {
      ASSERT_TRUE(VMArenaCommit(arena, nullptr, nullptr, 0)) << QWErrorMessage();
      committed = model;
      Reopen();
    } else if (r < 812) {
      Reopen();  // uncommitted entries are dropped
      model = committed;
      if (!model.empty()) last = model.back();
    } else {
      const uint32_t gen = r % 2 ? OLDGEN : NEWGEN;
      const std::vector<uint64_t> &expected = gen == OLDGEN ? committed : model;
      if (expected.empty()) continue;
      const uint32_t n = uint32_t(rng() % expected.size());
      ASSERT_EQ(OffsetMapGet(map, n, gen), expected[n]) << "gen " << gen << " entry " << n;
    }
  }
  for (uint32_t n = 0; n < model.size(); ++n) ASSERT_EQ(OffsetMapGet(map, n, NEWGEN), model[n]);
  for (uint32_t n = 0; n < committed.size(); ++n) ASSERT_EQ(OffsetMapGet(map, n, OLDGEN), committed[n]);
  EXPECT_EQ(Stored("lengthCodeIndex", 4)[0], model.size());
  EXPECT_EQ(Stored("offset", 8).size(), (model.size() + 15) / 16);
}

const ModelCase kModelCases[] = {{"seed_31", 31, 5000}, {"seed_32", 32, 5000}};

INSTANTIATE_TEST_SUITE_P(Cases, OffsetMapModel, ::testing::ValuesIn(kModelCases),
                         [](const ::testing::TestParamInfo<ModelCase> &info) { return info.param.name; });

using OffsetMapDeathTest = OffsetMapTest;

TEST_F(OffsetMapDeathTest, CallerErrorsFailTheirAssertions) {
  GTEST_FLAG_SET(death_test_style, "threadsafe");
  Open();
  ASSERT_EQ(OffsetMapAdd(map, 1000), 0u);
  ASSERT_EQ(OffsetMapAdd(map, 2000), 1u);
  EXPECT_DEATH(OffsetMapAdd(map, 1999), "offset >= lastOffset");
  EXPECT_DEATH(OffsetMapAdd(map, 2000 + 0x100000000ull), "\\(offset - lastOffset\\) <= UINT_MAX_VALUE");
  EXPECT_DEATH(OffsetMapGet(map, 16, NEWGEN), "\\(\\(sub\\)\\) < __arraylen__");
  EXPECT_DEATH(OffsetMapGet(map, 5, NEWGEN), "\\(\\(lengthCodeIndex\\)\\) < __arraylen__");
  EXPECT_DEATH(OffsetMapGet(map, 0, 2), "FALSE");
  // Nothing committed yet: the committed generation has no groups.
  EXPECT_DEATH(OffsetMapGet(map, 0, OLDGEN), "\\(\\(sub\\)\\) < __arraylen__");
  EXPECT_EQ(OffsetMapGet(map, 1, NEWGEN), 2000u);
}

}  // namespace
