// Fingerprint dictionaries over the B-tree: the WID allocation rule, Set, holes, and a model across commits with
// enumeration order.
#include <map>
#include <random>

#include "dict_fixture.h"

namespace {

class FPBDictTest : public dicttest::DictTest {
 protected:
  void SetUp() override {
    DictTest::SetUp();
    Open();
  }
  void TearDown() override {
    FPBDictFree(dict);
    DictTest::TearDown();
  }
  void Open() { ASSERT_NE(dict = FPBDictNew(arena, &pathBuffer, "fp", nullptr, 0), nullptr) << QWErrorMessage(); }
  uint32_t Create(uint64_t f, int useFreeList = 0, int *created = nullptr) {
    int create = 1;
    const uint32_t wid = FPBDictFind(dict, f, &create, 0, useFreeList, NEWGEN);
    if (created) *created = create;
    return wid;
  }
  uint32_t Lookup(uint64_t f, uint32_t gen = NEWGEN) {
    int create = 0;
    return FPBDictFind(dict, f, &create, 0, 0, gen);
  }
  FPBDict *dict = nullptr;
};

TEST_F(FPBDictTest, AllocationRuleAndSizes) {
  int created = 0;
  EXPECT_EQ(Create(~0ull, 0, &created), 0u);
  EXPECT_EQ(created, 1);
  EXPECT_EQ(Create(0), 1u);
  EXPECT_EQ(Create(~0ull, 0, &created), 0u);
  EXPECT_EQ(created, 0);
  EXPECT_EQ(FPBDictFind(dict, 0, nullptr, 1, 0, NEWGEN), 1u);
  EXPECT_EQ(Lookup(0), FPBDICT_NO_WID);
  EXPECT_FALSE(QWErrorIsSet());
  uint32_t bound = 0, count = 0;
  ASSERT_TRUE(FPBDictSize(dict, &bound, &count, NEWGEN));
  EXPECT_EQ(std::make_pair(bound, count), std::make_pair(2u, 1u));
  EXPECT_EQ(Create(5, 0), 2u);  // without the free list: the counter
  EXPECT_EQ(Create(6, 1), 1u);  // with it: the hole
  ASSERT_TRUE(FPBDictSet(dict, 77, 100, 1));
  EXPECT_EQ(Create(78), 101u);
  // A bound fingerprint is never rebound, with or without the check.
  EXPECT_DEATH(FPBDictSet(dict, 77, 50, 0), "ret == UINT_MAX_VALUE");
  EXPECT_DEATH(FPBDictSet(dict, 77, 51, 1), "FPBDictFind\\(fpDict, fp, &create, FALSE, FALSE, NEWGEN\\) == UINT_MAX_VALUE");
  EXPECT_EQ(Lookup(77), 100u);
  int both = 1;
  EXPECT_DEATH(FPBDictFind(dict, 1, &both, 1, 0, NEWGEN), "!\\(create && remove\\)");
}

TEST_F(FPBDictTest, MatchesAModelAcrossCommits) {
  std::mt19937_64 random(11);
  std::map<uint64_t, uint32_t> model, committed;
  for (int round = 0; round < 4; ++round) {
    for (int i = 0; i < 20000; ++i) {
      const uint64_t f = random() % 3 ? random() : random() % 64;
      auto it = model.find(f);
      if (random() % 4 == 0) {
        ASSERT_EQ(FPBDictFind(dict, f, nullptr, 1, 1, NEWGEN), it == model.end() ? FPBDICT_NO_WID : it->second);
        if (it != model.end()) model.erase(it);
      } else {
        const uint32_t wid = Create(f, 1);
        ASSERT_TRUE(it == model.end() || wid == it->second);
        model[f] = wid;
      }
    }
    for (const auto &[f, wid] : committed) ASSERT_EQ(Lookup(f, OLDGEN), wid);
    ASSERT_TRUE(CommitArena()) << QWErrorMessage();
    FPBDictCommit(dict);
    committed = model;
    FPBDictFree(dict);
    dict = nullptr;
    MustReopenArena();
    Open();
  }
  FPBDictEnumeration *walk = FPBDictEnumerationNew(dict, OLDGEN);
  ASSERT_NE(walk, nullptr) << QWErrorMessage();
  std::vector<std::pair<uint64_t, uint32_t>> found;  // in order, each once
  uint64_t f;
  uint32_t wid;
  while (FPBDictEnumerationNext(walk, &f, &wid)) found.emplace_back(f, wid);
  FPBDictEnumerationFree(walk);
  EXPECT_EQ(found, (std::vector<std::pair<uint64_t, uint32_t>>(model.begin(), model.end())));
  std::map<uint32_t, int> seen;
  for (const auto &[key, value] : model) EXPECT_EQ(seen[value]++, 0) << "WID " << value << " given twice";
}

}  // namespace
