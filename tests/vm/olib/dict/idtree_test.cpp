// ID trees and the string and fingerprint dictionaries on them: the ID
// allocation rule, sizes, Set, clear, enumeration and a model test.
#include <gtest/gtest.h>

#include <map>
#include <random>
#include <vector>

#include "dict_fixture.h"

namespace {

using Atom = std::vector<uint32_t>;

class IDTreeTest : public dicttest::DictTest {
 protected:
  void SetUp() override {
    DictTest::SetUp();
    threadData = IDTreeThreadDataNew();
    ASSERT_NE(threadData, nullptr);
    Open();
  }
  void TearDown() override {
    IDTreeFree(tree);
    IDTreeThreadDataFree(threadData);
    DictTest::TearDown();
  }
  void Open() {
    tree = IDTreeNew(arena, &pathBuffer, "ids", nullptr, 0);
    ASSERT_NE(tree, nullptr) << QWErrorMessage();
  }
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
    uint64_t id = Find(atom, &create, 0, useFreeList);
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

TEST_F(IDTreeTest, AllocationRule) {
  int created = 0;
  EXPECT_EQ(Create({1, 2}, 0, &created), 0u);
  EXPECT_EQ(created, 1);
  EXPECT_EQ(Create({3}), 1u);
  EXPECT_EQ(Create({4, 5, 6}), 2u);
  // An existing key: its ID, create cleared, no ID consumed.
  EXPECT_EQ(Create({3}, 0, &created), 1u);
  EXPECT_EQ(created, 0);
  EXPECT_EQ(Size(), std::make_pair(uint64_t(3), uint64_t(3)));
  // A lookup without create never inserts.
  int none = 0;
  EXPECT_EQ(Find({9}, &none), IDTREE_NO_ID);
  EXPECT_FALSE(QWErrorIsSet());
  // Removing pushes the ID; with useFreeList it comes back first (last in,
  // first out), without it the counter is used.
  EXPECT_EQ(Find({3}, nullptr, 1), 1u);
  EXPECT_EQ(Find({1, 2}, nullptr, 1), 0u);
  EXPECT_EQ(Find({3}, &none), IDTREE_NO_ID);
  EXPECT_EQ(Size(), std::make_pair(uint64_t(3), uint64_t(1)));
  EXPECT_EQ(Create({7}, 0), 3u);
  EXPECT_EQ(Create({8}, 1), 0u);
  EXPECT_EQ(Create({9}, 1), 1u);
  EXPECT_EQ(Create({10}, 1), 4u);
  EXPECT_EQ(Size(), std::make_pair(uint64_t(5), uint64_t(5)));
  // Removing an absent key changes nothing.
  EXPECT_EQ(Find({77}, nullptr, 1), IDTREE_NO_ID);
  EXPECT_EQ(Size(), std::make_pair(uint64_t(5), uint64_t(5)));
}

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
  EXPECT_FALSE(IDTreeSet(tree, threadData, Atom{9}.data(), 1, IDTREE_NO_ID));
  EXPECT_EQ(QWErrorCode(), 22);
}

TEST_F(IDTreeTest, MisuseAsserts) {
  int create = 1;
  EXPECT_DEATH(Find({1}, &create, 1), "!\\(create && remove\\)");
  EXPECT_DEATH(Find({1}, &create, 0, 0, OLDGEN), "genID == NEWGEN");
  EXPECT_DEATH(Find({1}, nullptr, 0, 0, 2), "FALSE");
  Create({1});
  EXPECT_DEATH(IDTreeSet(tree, threadData, Atom{1}.data(), 1, 9), "== EMPTY_NODE_DATA");
}

TEST_F(IDTreeTest, ClearEmptiesEverything) {
  for (uint32_t i = 0; i < 100; ++i) Create({i, i});
  ASSERT_TRUE(IDTreeSetHole(tree, 3));
  ASSERT_TRUE(IDTreeClear(tree, NEWGEN));
  EXPECT_EQ(Size(), std::make_pair(uint64_t(0), uint64_t(0)));
  int none = 0;
  EXPECT_EQ(Find({5, 5}, &none), IDTREE_NO_ID);
  EXPECT_EQ(Create({5, 5}, 1), 0u);
}

// Against a std::map, across commits, reopenings and OLDGEN reads.
TEST_F(IDTreeTest, MatchesAModel) {
  std::mt19937 random(7);
  std::map<Atom, uint64_t> model, committed;
  std::vector<uint64_t> holes;
  uint64_t counter = 0;
  auto randomAtom = [&] {
    Atom atom(1 + random() % 6);
    for (uint32_t &s : atom) s = random() % 5 == 0 ? random() : random() % 4;
    return atom;
  };
  for (int round = 0; round < 6; ++round) {
    for (int step = 0; step < 1500; ++step) {
      Atom atom = randomAtom();
      const bool useFreeList = random() % 2;
      if (random() % 3 == 0) {
        auto it = model.find(atom);
        ASSERT_EQ(Find(atom, nullptr, 1), it == model.end() ? IDTREE_NO_ID : it->second);
        if (it != model.end()) {
          holes.push_back(it->second);
          model.erase(it);
        }
      } else {
        uint64_t expected;
        auto it = model.find(atom);
        if (it != model.end()) {
          expected = it->second;
        } else if (useFreeList && !holes.empty()) {
          expected = holes.back();
          holes.pop_back();
        } else {
          expected = counter++;
        }
        ASSERT_EQ(Create(atom, useFreeList), expected);
        model[atom] = expected;
      }
    }
    EXPECT_EQ(Size(), std::make_pair(counter, counter - holes.size()));
    // OLDGEN still answers from the last commit.
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
  auto expected = model.begin();
  while (IDTreeEnumerationGetNext(walk, &atom, &length, &id)) {
    ASSERT_NE(expected, model.end());
    EXPECT_EQ(Atom(atom, atom + length), expected->first);
    EXPECT_EQ(id, expected->second);
    ++expected;
  }
  EXPECT_EQ(expected, model.end());
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
  while (StrDictEnumerationGetNext(walk, &text, &length, &id)) {
    found[std::u16string(reinterpret_cast<const char16_t *>(text), length)] = id;
  }
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
    if (model.count(f)) {
      EXPECT_EQ(id, model[f]);
    }
    model[f] = id;
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

}  // namespace
