// The AVL dictionary against a std::map: inserts, replaces, removes, finds and nearest keys in all three directions,
// through commits, reopens and committed reads, a sound AVL tree after every batch. A removal puts its node on the free
// list, which an insert of a new key must find empty: so removals run while it is empty, except in draining phases,
// which remove until the tree is small and then clear it.
#include <random>

#include "avl_fixture.h"

namespace {

using avltest::Model;

struct ModelCase {
  const char *name;
  uint32_t seed, steps, keyRange;  // keys drawn below keyRange (small: many replaces)
  bool mapped;
};

class AVLModel : public avltest::AVLTest, public ::testing::WithParamInterface<ModelCase> {
 protected:
  uint64_t RandomKey() { return rng() % GetParam().keyRange; }
  uint64_t PresentKey(const Model &model) {
    auto at = model.lower_bound(RandomKey());
    return at == model.end() ? model.begin()->first : at->first;
  }
  void ExpectNearest(const Model &model, uint64_t key, uint32_t gen) {
    uint64_t lo = 0, hi = 0;
    auto at = model.lower_bound(key);
    if (at != model.end() && at->first == key) {
      for (int32_t direction : {-1, 0, 1}) ASSERT_EQ(QWDBAVLLDictFindNearest(dict, key, direction, gen), key);
      return;
    }
    if (at != model.end()) hi = at->first;
    if (at != model.begin()) lo = std::prev(at)->first;
    const uint64_t closest = lo == 0 ? hi : hi == 0 ? lo : key - lo < hi - key ? lo : hi;
    ASSERT_EQ(QWDBAVLLDictFindNearest(dict, key, -1, gen), lo) << key;
    ASSERT_EQ(QWDBAVLLDictFindNearest(dict, key, 1, gen), hi) << key;
    ASSERT_EQ(QWDBAVLLDictFindNearest(dict, key, 0, gen), closest) << key;
  }

  std::mt19937 rng;
};

TEST_P(AVLModel, MatchesStdMapThroughCommitsReopensAndOldGenerationReads) {
  const ModelCase &c = GetParam();
  rng.seed(c.seed);
  modeFlags = c.mapped ? VM_FLAG_MAPPED : 0;
  Open();
  Model model, committed;
  uint32_t freeNodes = 0, committedFree = 0;
  bool draining = false;

  for (uint32_t step = 0; step < c.steps; ++step) {
    const uint32_t r = rng() % 1000;
    const uint64_t key = RandomKey();
    if (draining) {
      if (model.size() <= 16) {  // clearing empties the free list too; the node array grows by two
        const uint32_t before = NodeCount();
        ASSERT_EQ(QWDBAVLLDictClear(dict, NEWGEN), 1) << QWErrorMessage();
        ASSERT_EQ(NodeCount(), before + 2);
        model.clear();
        freeNodes = 0;
        draining = false;
      } else {
        const uint64_t k = PresentKey(model);
        ASSERT_EQ(QWDBAVLLDictRemove(dict, k, 7, NEWGEN), model[k]) << QWErrorMessage();
        model.erase(k);
        ++freeNodes;
      }
    } else if (r < 450) {
      const uint64_t k = !model.empty() && rng() % 4 == 0 ? PresentKey(model) : key;
      const auto found = model.find(k);
      const uint64_t value = rng();
      const uint32_t before = NodeCount();
      const uint64_t expected = found == model.end() ? 0xABCDEFull : found->second;
      ASSERT_EQ(QWDBAVLLDictInsert(dict, k, value, 0xABCDEFull, NEWGEN), expected) << QWErrorMessage();
      if (found == model.end()) {  // a freed node is reused before the array grows
        ASSERT_EQ(NodeCount(), before + (freeNodes ? 0 : 1));
        freeNodes = 0;
      }
      model[k] = uint32_t(value);
    } else if (r < 650) {
      const uint64_t k = !model.empty() && rng() % 2 ? PresentKey(model) : key;
      if (freeNodes == 0 || model.count(k) == 0) {
        const auto found = model.find(k);
        ASSERT_EQ(QWDBAVLLDictRemove(dict, k, 0x5555ull, NEWGEN), found == model.end() ? 0x5555ull : found->second);
        if (found != model.end()) {
          model.erase(found);
          ++freeNodes;
        }
      }
    } else if (r < 800) {
      const auto found = model.find(key);
      ASSERT_EQ(QWDBAVLLDictFind(dict, key, 99, NEWGEN), found == model.end() ? 99 : found->second);
      if (!committed.empty()) {
        const auto old = committed.find(key);
        ASSERT_EQ(QWDBAVLLDictFind(dict, key, 99, OLDGEN), old == committed.end() ? 99 : old->second);
      }
    } else if (r < 950) {
      ExpectNearest(model, key, NEWGEN);
      ExpectNearest(committed, key, OLDGEN);
    } else if (r < 975) {
      ASSERT_TRUE(Commit()) << QWErrorMessage();
      committed = model;
      committedFree = freeNodes;
    } else if (r < 985) {
      Reopen();  // uncommitted changes are dropped
      model = committed;
      freeNodes = committedFree;
    } else if (r < 988) {
      draining = true;
    }
    if (HasFatalFailure()) return;
    if (step % 500 == 499) {
      SCOPED_TRACE("step " + std::to_string(step));
      ExpectSame(model, NEWGEN);
      ExpectSame(committed, OLDGEN);
      if (HasFatalFailure()) return;
    }
  }
  ExpectSame(model, NEWGEN);
  ASSERT_TRUE(Commit());
  Reopen();
  ExpectSame(model, OLDGEN);
  ExpectSame(model, NEWGEN);
}

INSTANTIATE_TEST_SUITE_P(Seeds, AVLModel,
                         ::testing::Values(ModelCase{"wide_keys", 7, 30000, 1u << 30, false},
                                           ModelCase{"narrow_keys", 19, 20000, 3000, false},
                                           ModelCase{"mapped", 31, 20000, 100000, true}),
                         [](const auto &info) { return std::string(info.param.name); });

// One dictionary record shared by a writer of the new generation and readers of the committed one, who see exactly the
// committed entries. The record was opened before its arrays were committed: the readers also race to find them.
using AVLConcurrency = avltest::AVLTest;

TEST_F(AVLConcurrency, ReadersOfTheCommittedGenerationRunBesideTheWriter) {
  Open();
  constexpr uint64_t kCommitted = 2000;
  for (uint64_t key = 1; key <= kCommitted; ++key) ASSERT_EQ(QWDBAVLLDictInsert(dict, key * 2, key, 0, NEWGEN), 0u);
  ASSERT_TRUE(Commit()) << QWErrorMessage();
  uint32_t writerFailures = 0;
  const uint32_t bad = olibtest::ReadersBesideWriter(
      arena, 2, 8,
      [&](std::mt19937 &rng) {
        bool ok = true;
        for (int n = 0; n < 200; ++n) {
          const uint64_t key = rng() % (kCommitted * 2 + 10);
          const uint64_t expected = key % 2 == 0 && key >= 2 && key <= kCommitted * 2 ? key / 2 : 0xEEEE;
          ok &= QWDBAVLLDictFind(dict, key, 0xEEEE, OLDGEN) == expected && QWDBAVLLDictSize(dict, OLDGEN) == kCommitted;
        }
        return ok;
      },
      [&] {  // odd keys in, even keys replaced, some removed (each followed by an insert reusing its node)
        for (uint64_t key = 1; key < 4000; key += 2) {
          VMArenaNewGenAcquire(arena, 0);
          writerFailures += QWDBAVLLDictInsert(dict, key, key, 0, NEWGEN) != 0;
          writerFailures += QWDBAVLLDictInsert(dict, key + 1, 7, 0xFFFF, NEWGEN) != (key + 1) / 2;
          if (key % 10 == 1) writerFailures += QWDBAVLLDictRemove(dict, key, 0, NEWGEN) != key;
          VMArenaNewGenRelease(arena, 0);
        }
      });
  EXPECT_EQ(bad, 0u);
  EXPECT_EQ(writerFailures, 0u);
  EXPECT_EQ(DBAVLLCheck(dict, NEWGEN), 1) << QWErrorMessage();
  EXPECT_EQ(QWDBAVLLDictSize(dict, NEWGEN), 4000u - 400u);
}

}  // namespace
