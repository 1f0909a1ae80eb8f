// ID trees against a model of the allocation rule (a counter and a last-in first-out free list), Set, clear, the string
// and fingerprint dictionaries on them, and the string dictionary's recoding table.
#include <gtest/gtest.h>
#include <map>
#include <random>
#include <vector>

#include "dict_fixture.h"
#include "vm/olib/strdict/recode_table.h"

namespace {

using Atom = std::vector<uint32_t>;

class IDTreeTest : public dicttest::DictTest {
 protected:
  void SetUp() override {
    DictTest::SetUp();
    ASSERT_NE(threadData = IDTreeThreadDataNew(), nullptr);
    Open();
  }
  void TearDown() override {
    IDTreeFree(tree);
    IDTreeThreadDataFree(threadData);
    DictTest::TearDown();
  }
  void Open() { ASSERT_NE(tree = IDTreeNew(arena, &pathBuffer, "ids", nullptr, 0), nullptr) << QWErrorMessage(); }
  void Reopen(uint32_t flags = 0) {
    IDTreeFree(tree);
    tree = nullptr;
    MustReopenArena(flags);
    Open();
  }
  void Commit() {
    ASSERT_TRUE(CommitArena()) << QWErrorMessage();
    IDTreeCommit(tree);
  }
  uint64_t Find(const Atom &atom, int *create, int remove = 0, int useFreeList = 0, uint32_t gen = NEWGEN) {
    return IDTreeFind(tree, threadData, atom.data(), uint32_t(atom.size()), create, remove, useFreeList, gen);
  }
  uint64_t Create(const Atom &atom, int useFreeList = 0, int *created = nullptr) {
    int create = 1;
    const uint64_t id = Find(atom, &create, 0, useFreeList);
    if (created) *created = create;
    return id;
  }
  std::pair<uint64_t, uint64_t> Size(uint32_t gen = NEWGEN) {
    uint64_t bound = 0, count = 0;
    EXPECT_TRUE(IDTreeSize(tree, &bound, &count, gen));
    return {bound, count};
  }

  IDTree *tree = nullptr;
  IDTreeThreadData *threadData = nullptr;
};

TEST_F(IDTreeTest, SetMovesTheCounterAndHolesAreTheCallersAffair) {
  ASSERT_TRUE(IDTreeSet(tree, threadData, Atom{5}.data(), 1, 41));
  EXPECT_EQ(Size().first, 42u);
  EXPECT_EQ(Create({6}), 42u);
  ASSERT_TRUE(IDTreeSet(tree, threadData, Atom{7}.data(), 1, 3));  // below the counter: counter stays
  EXPECT_EQ(Size().first, 43u);
  int none = 0;
  EXPECT_EQ(Find({7}, &none), 3u);
  ASSERT_TRUE(IDTreeSetHole(tree, 10));
  EXPECT_EQ(Size(), std::make_pair(uint64_t(43), uint64_t(42)));
  ASSERT_TRUE(IDTreeResetFreeList(tree));
  EXPECT_EQ(Create({8}, 1), 43u);
  EXPECT_TRUE(olibtest::Fails(IDTreeSet(tree, threadData, Atom{9}.data(), 1, IDTREE_NO_ID), 0, 22));
  // A clear empties everything, the free list too.
  ASSERT_TRUE(IDTreeSetHole(tree, 3));
  ASSERT_TRUE(IDTreeClear(tree, NEWGEN));
  EXPECT_EQ(Size(), std::make_pair(uint64_t(0), uint64_t(0)));
  EXPECT_EQ(Find({7}, &none), IDTREE_NO_ID);
  EXPECT_EQ(Create({5, 5}, 1), 0u);
}

TEST_F(IDTreeTest, MisuseAsserts) {
  int create = 1;
  EXPECT_DEATH(Find({1}, &create, 1), "!\\(create && remove\\)");
  EXPECT_DEATH(Find({1}, &create, 0, 0, OLDGEN), "genID == NEWGEN");
  EXPECT_DEATH(Find({1}, nullptr, 0, 0, 2), "FALSE");
  Create({1});
  EXPECT_DEATH(IDTreeSet(tree, threadData, Atom{1}.data(), 1, 9), "== EMPTY_NODE_DATA");
}

// Against a std::map, across commits, reopenings and OLDGEN reads.
TEST_F(IDTreeTest, MatchesAModel) {
  std::mt19937 random(7);
  std::map<Atom, uint64_t> model, committed;
  std::vector<uint64_t> holes;
  uint64_t counter = 0;
  for (int round = 0; round < 6; ++round) {
    for (int step = 0; step < 1500; ++step) {
      Atom atom(1 + random() % 6);
      for (uint32_t &s : atom) s = random() % 5 == 0 ? random() : random() % 4;
      const bool useFreeList = random() % 2;
      auto it = model.find(atom);
      if (random() % 3 == 0) {  // removing an absent atom changes nothing
        ASSERT_EQ(Find(atom, nullptr, 1), it == model.end() ? IDTREE_NO_ID : it->second);
        if (it != model.end()) holes.push_back(it->second), model.erase(it);
        continue;
      }
      const bool fromHoles = it == model.end() && useFreeList && !holes.empty();
      const uint64_t expected = it != model.end() ? it->second : fromHoles ? holes.back() : counter++;
      if (fromHoles) holes.pop_back();
      int created = -1;
      ASSERT_EQ(Create(atom, useFreeList, &created), expected);
      ASSERT_EQ(created, it == model.end() ? 1 : 0);
      model[atom] = expected;
    }
    EXPECT_EQ(Size(), std::make_pair(counter, counter - holes.size()));
    for (const auto &[atom, id] : committed) {
      int none = 0;
      ASSERT_EQ(Find(atom, &none, 0, 0, OLDGEN), id);
    }
    Commit();
    committed = model;
    if (round % 2 == 1) Reopen();
  }
  IDTreeEnumeration *walk = IDTreeEnumerationNew();
  ASSERT_TRUE(IDTreeEnumerationInit(tree, walk, nullptr, 0, PITREE_DEPTH_UNLIMITED, NEWGEN));
  const uint32_t *atom;
  uint32_t length;
  uint64_t id;
  std::vector<std::pair<Atom, uint64_t>> found;  // in order, each once
  while (IDTreeEnumerationGetNext(walk, &atom, &length, &id)) found.emplace_back(Atom(atom, atom + length), id);
  EXPECT_EQ(found, (std::vector<std::pair<Atom, uint64_t>>(model.begin(), model.end())));
  IDTreeEnumerationFree(walk);
}

TEST_F(IDTreeTest, StringsRoundTripThroughTheRecoding) {
  StrDict *dict = StrDictNew(arena, &pathBuffer, "words", nullptr, 0);
  ASSERT_NE(dict, nullptr) << QWErrorMessage();
  const std::vector<std::u16string> words = {u"hello", u"Hello", u"hello world", u"/usr/bin", u"\u00e9t\u00e9",
                                             u"\u4e2d\u6587", u"h"};
  std::map<std::u16string, uint64_t> ids;
  for (const auto &word : words) {
    int create = 1;
    ids[word] = StrDictFind(dict, threadData, reinterpret_cast<const uint16_t *>(word.data()), uint32_t(word.size()),
                            &create, 0, 0, NEWGEN);
    EXPECT_EQ(create, 1);
  }
  StrDictEnumeration *walk = StrDictEnumerationNew();
  ASSERT_TRUE(StrDictEnumerationInit(dict, walk, reinterpret_cast<const uint16_t *>(u"he"), 2, NEWGEN));
  std::map<std::u16string, uint64_t> found;
  const uint16_t *text;
  uint32_t length;
  uint64_t id;
  while (StrDictEnumerationGetNext(walk, &text, &length, &id))
    found[std::u16string(reinterpret_cast<const char16_t *>(text), length)] = id;
  EXPECT_EQ(found, (std::map<std::u16string, uint64_t>{{u"hello", ids[u"hello"]},
                                                       {u"hello world", ids[u"hello world"]}}));
  StrDictEnumerationFree(walk);
  StrDictFree(dict);
}

TEST_F(IDTreeTest, EveryFingerprintComesBackWhole) {
  FPDict *dict = FPDictNew(arena, &pathBuffer, "fingerprints", nullptr, 0);
  ASSERT_NE(dict, nullptr) << QWErrorMessage();
  std::map<uint64_t, uint64_t> model;
  std::mt19937_64 random(3);
  std::vector<uint64_t> prints = {0, ~0ull, 1ull << 63, (1ull << 33) - 1, 1ull << 33, 0xFFF, 0x1000};
  for (int bit = 0; bit < 64; ++bit) prints.push_back(1ull << bit);
  for (int i = 0; i < 2000; ++i) prints.push_back(random());
  for (uint64_t f : prints) {
    int create = 1;
    const uint64_t id = FPDictFind(dict, threadData, f, &create, 0, 0, NEWGEN);
    EXPECT_EQ(model.emplace(f, id).first->second, id);
  }
  FPDictEnumeration *walk = FPDictEnumerationNew();
  ASSERT_TRUE(FPDictEnumerationInit(dict, walk, NEWGEN));
  std::map<uint64_t, uint64_t> found;
  uint64_t f, id;
  while (FPDictEnumerationGetNext(walk, &f, &id)) found[f] = id;
  EXPECT_EQ(found, model);
  FPDictEnumerationFree(walk);
  FPDictFree(dict);
}

TEST(RecodeTable, IsAPermutationWithItsInverse) {
  const uint16_t *table = qw::strdict::RecodeTable();
  std::vector<bool> seen(65536, false);
  for (uint32_t c = 0; c < 65536; ++c) {
    ASSERT_FALSE(seen[table[c]]) << "rank " << table[c] << " given twice, again to " << c;
    seen[table[c]] = true;
    ASSERT_EQ(qw::strdict::DecodeSymbol(table[c]), c);
  }
}

TEST(RecodeTable, FixedRanks) {
  const char letters[] = "eairsnotlcmduhpgbkfyvwzxjq";
  for (uint32_t rank = 0; rank < 26; ++rank) EXPECT_EQ(qw::strdict::RecodeSymbol(letters[rank]), rank);
  for (uint32_t d = 0; d < 10; ++d) EXPECT_EQ(qw::strdict::RecodeSymbol('0' + d), 26 + d);
  EXPECT_EQ(qw::strdict::RecodeSymbol('A'), 0xFD39);
  EXPECT_EQ(qw::strdict::RecodeSymbol(' '), 0xB09B);
  EXPECT_EQ(qw::strdict::RecodeSymbol('/'), 0xB0B4);
  // Letters with diacritics come right after the digits: frequent text stays in small symbols.
  EXPECT_LT(qw::strdict::RecodeSymbol(0x00E9), 200u);  // é
  EXPECT_GT(qw::strdict::RecodeSymbol(0x0007), qw::strdict::RecodeSymbol(0x4E00));  // controls last
}

}  // namespace
