// Both instantiations and value widths 1, 4, 5, 8 against std::map through changes, neighbour queries, enumerations,
// commits, reopening and committed reads, checked after every batch; a committed reader beside a writer.
#include <algorithm>
#include <random>

#include "btree_fixture.h"

namespace bttest {
namespace {

struct Shape {
  uint32_t keySize;
  uint32_t valueSize;
};

class BTreeModel : public BTreeTest, public ::testing::WithParamInterface<Shape> {
 protected:
  // Mostly keys of a range small enough to hit present ones, sometimes the extremes.
  uint64_t RandomKey(std::mt19937_64 &rng, uint64_t range) {
    const uint64_t top = keySize == 4 ? UINT32_MAX : UINT64_MAX;
    switch (rng() % 64) {
      case 0: return 0;
      case 1: return top;
      case 2: return top - 1;
      default: return (rng() % range) * 7919 % (keySize == 4 ? top : top - 2);
    }
  }
  uint64_t RandomValue(std::mt19937_64 &rng) {
    uint64_t v = Mask(rng(), GetParam().valueSize);
    return v == BTREE_NO_KEY ? 0 : v;
  }

  // Entries, structure, and neighbours of a few keys against the model.
  void Verify(const Model &model, std::mt19937_64 &rng, uint64_t range, uint32_t gen = NEWGEN) {
    ASSERT_EQ(Contents(gen), Flatten(model));
    const BTreeStat stat = Check(gen);
    ASSERT_EQ(stat.entryCount, model.size());
    auto pair = [&](Model::const_iterator it) {
      using P = std::pair<uint64_t, uint64_t>;
      return it == model.end() ? P(BTREE_NO_KEY, BTREE_NO_KEY) : P(*it);
    };
    for (int i = 0; i < 50; ++i) {
      const uint64_t key = RandomKey(rng, range);
      const auto above = model.upper_bound(key);
      uint64_t value = 0;
      const uint64_t next = BTreeNextKey(tree, key, &value, gen);
      EXPECT_EQ(std::make_pair(next, value), pair(model.lower_bound(key)));
      const uint64_t prev = BTreePrevKey(tree, key, &value, gen);
      EXPECT_EQ(std::make_pair(prev, value), pair(above == model.begin() ? model.end() : std::prev(above)));
      EXPECT_EQ(Find(key, BTREE_NO_KEY, gen), pair(model.find(key)).second);
    }
  }

  void Step(Model &model, std::mt19937_64 &rng, uint64_t range, int removeWeight) {
    const uint64_t key = RandomKey(rng, range);
    const uint64_t value = RandomValue(rng);
    auto at = model.find(key);
    const uint64_t before = at == model.end() ? BTREE_NO_KEY : at->second;
    const int what = int(rng() % 10);
    if (what < removeWeight) {
      ASSERT_EQ(Remove(key), before);
      model.erase(key);
    } else if (what < removeWeight + 2) {
      ASSERT_EQ(Replace(key, value), before);
      if (at != model.end()) at->second = value;
    } else {
      ASSERT_EQ(Create(key, value), before);
      model.emplace(key, value);
    }
    ASSERT_FALSE(QWErrorIsSet()) << QWErrorMessage();
  }
};

TEST_P(BTreeModel, RandomChangesCommitsAndReopen) {
  const Shape shape = GetParam();
  Open(shape.keySize, shape.valueSize);
  std::mt19937_64 rng(20261122 + shape.keySize * 10 + shape.valueSize);
  const uint64_t range = 6000;  // a two-level tree at every width
  Model model, committed;
  for (int round = 0; round < 8; ++round) {
    const int removeWeight = round < 4 ? 2 : 7;  // grow, then shrink to empty
    for (int i = 0; i < 2500; ++i) ASSERT_NO_FATAL_FAILURE(Step(model, rng, range, removeWeight));
    ASSERT_NO_FATAL_FAILURE(Verify(model, rng, range));
    ASSERT_NO_FATAL_FAILURE(Verify(committed, rng, range, OLDGEN));
    if (round == 3) {
      ASSERT_NO_FATAL_FAILURE(Reopen());
    } else {
      ASSERT_TRUE(Commit()) << QWErrorMessage();
    }
    committed = model;
  }
  for (auto it = model.begin(); it != model.end();) {
    ASSERT_EQ(Remove(it->first), it->second);
    it = model.erase(it);
  }
  ASSERT_NO_FATAL_FAILURE(Verify(model, rng, range));
  EXPECT_EQ(RootLength(), 1u);  // an empty root leaf stays
  ASSERT_NO_FATAL_FAILURE(Verify(committed, rng, range, OLDGEN));
}

// A tree three levels deep, filled and emptied in random order: splits, redistribution and merges of internal nodes,
// and the root giving up levels. Run for the smallest fan-out and for the 5-byte values of the value B-tree (son moves
// of internal nodes at a width other than 4).
using BTreeDeep = BTreeModel;

TEST_P(BTreeDeep, FilledAndEmptiedAtThreeLevels) {
  const Shape shape = GetParam();
  Open(shape.keySize, shape.valueSize);
  std::mt19937_64 rng(7 + shape.valueSize);
  const uint64_t leafMax = 8185 / (shape.keySize + shape.valueSize);
  const uint64_t innerMax = 8185 / (shape.keySize + shape.valueSize + 4);
  // Redistribution on insert keeps nodes about 90% full: this is past what two levels hold.
  const uint64_t count = leafMax * innerMax;
  std::vector<uint64_t> keys(count);
  for (uint64_t i = 0; i < count; ++i) keys[i] = i * 3 + 1;
  std::shuffle(keys.begin(), keys.end(), rng);
  Model model;
  for (uint64_t key : keys) {
    const uint64_t value = RandomValue(rng);
    ASSERT_EQ(Create(key, value), BTREE_NO_KEY);
    model.emplace(key, value);
  }
  BTreeStat stat = Check();
  EXPECT_EQ(stat.depth, 3u) << stat.leafCount << " leaves, " << stat.internalCount << " internal";
  EXPECT_EQ(stat.entryCount, count);
  ASSERT_TRUE(Commit()) << QWErrorMessage();
  std::shuffle(keys.begin(), keys.end(), rng);
  const Model committed = model;
  for (size_t i = 0; i < keys.size(); ++i) {
    ASSERT_EQ(Remove(keys[i]), model[keys[i]]) << i;
    model.erase(keys[i]);
    if (i % 40000 == 0 || i + 1 == keys.size()) {
      ASSERT_NO_FATAL_FAILURE(Verify(model, rng, count * 3));
    }
  }
  stat = Check();
  EXPECT_EQ(stat.depth, 1u);
  EXPECT_EQ(stat.entryCount, 0u);
  EXPECT_EQ(Contents(OLDGEN), Flatten(committed));
}

std::string ShapeName(const ::testing::TestParamInfo<Shape> &info) {
  return "K" + std::to_string(info.param.keySize) + "V" + std::to_string(info.param.valueSize);
}

INSTANTIATE_TEST_SUITE_P(Widths, BTreeDeep, ::testing::Values(Shape{8, 8}, Shape{8, 5}), ShapeName);

INSTANTIATE_TEST_SUITE_P(Widths, BTreeModel,
                         ::testing::Values(Shape{4, 1}, Shape{4, 4}, Shape{4, 5}, Shape{4, 8}, Shape{8, 1},
                                           Shape{8, 4}, Shape{8, 5}, Shape{8, 8}),
                         ShapeName);

// Two records of one tree change it by turns, each in runs of nearby keys, so that most descents start at the leaf the
// record's previous descent reached, while the other record's splits, merges and new roots move the leaves and
// separators around that leaf.
TEST_F(BTreeTest, TwoRecordsOfOneTreeChangeItByTurns) {
  Open(8, 8);  // 511 entries per leaf
  BTree *other = BTreeNew(arena, kPath, kName, 0, 8, 8);
  ASSERT_NE(other, nullptr) << QWErrorMessage();
  BTree *const records[2] = {tree, other};
  std::mt19937_64 rng(20261126);
  Model model;
  uint32_t deepest = 0;
  for (int run = 0; run < 600; ++run) {
    BTree *const record = records[run % 2];
    const bool shrinking = run >= 400;
    const uint64_t step = 1 + rng() % 3;
    uint64_t key = rng() % 200000;
    for (uint64_t i = 0, length = 1 + rng() % 700; i < length; ++i, key += step) {
      if (shrinking || rng() % 8 == 0) {
        const auto at = model.find(key);
        ASSERT_EQ(BTreeFind(record, key, 0, BTREE_NO_KEY, 0, 0, 1, NEWGEN),
                  at == model.end() ? BTREE_NO_KEY : at->second);
        model.erase(key);
      } else if (model.emplace(key, key + run).second) {
        ASSERT_EQ(BTreeFind(record, key, key + run, BTREE_NO_KEY, 1, 0, 0, NEWGEN), BTREE_NO_KEY);
      } else {
        ASSERT_EQ(BTreeFind(record, key, 0, BTREE_NO_KEY, 0, 1, 0, NEWGEN), model[key]);
        ASSERT_EQ(BTreeFind(record, key, 0, BTREE_NO_KEY, 0, 0, 0, NEWGEN), 0u);
        model[key] = 0;
      }
    }
    if (run % 50 == 49) {
      ASSERT_EQ(Contents(), Flatten(model)) << "run " << run;
      const BTreeStat stat = Check();
      EXPECT_EQ(stat.entryCount, model.size());
      deepest = std::max(deepest, stat.depth);
      if (run % 100 == 99) {
        ASSERT_TRUE(Commit()) << QWErrorMessage();
      }
    }
  }
  EXPECT_GE(deepest, 2u);  // leaves under inner nodes: splits and merges moved them
  BTreeFree(other, 8);
}

// A reader of the committed generation, with a tree record of its own, next to a writer that commits as it goes: every
// walk of OLDGEN sees one whole committed state (round r adds kPerRound keys of value r).
using BTreeConcurrency = BTreeTest;

TEST_F(BTreeConcurrency, CommittedStateReadWhileWriterChangesAndCommits) {
  constexpr uint64_t kPerRound = 1500, kRounds = 12;
  Open(8, 4);
  ASSERT_EQ(Create(0, 0), BTREE_NO_KEY);  // round 0: key 0
  ASSERT_TRUE(Commit()) << QWErrorMessage();
  BTree *reader = BTreeNew(arena, kPath, kName, 0, 8, 4);
  ASSERT_NE(reader, nullptr) << QWErrorMessage();
  auto roundOf = [](uint64_t key) { return key == 0 ? 0 : (key - 1) / kPerRound + 1; };
  const uint32_t torn = olibtest::ReadersBesideWriter(
      arena, 1, 3,
      [&](std::mt19937 &) {
        Entries seen;
        const int ok = BTreeEnumerate(reader, Collect, &seen, OLDGEN);
        bool whole = ok == 1 && !seen.empty() && (seen.size() - 1) % kPerRound == 0 &&
                     BTreeFind(reader, seen.size() / 2, 0, BTREE_NO_KEY, 0, 0, 0, OLDGEN) == roundOf(seen.size() / 2);
        for (size_t i = 0; whole && i < seen.size(); ++i) whole = seen[i] == std::make_pair(uint64_t(i), roundOf(i));
        return whole;
      },
      [&] {
        for (uint64_t round = 1; round <= kRounds; ++round) {
          VMArenaNewGenAcquire(arena, 0);
          for (uint64_t key = (round - 1) * kPerRound + 1; key <= round * kPerRound; ++key)
            ASSERT_EQ(Create(key, round), BTREE_NO_KEY);
          VMArenaNewGenRelease(arena, 0);
          ASSERT_TRUE(Commit()) << QWErrorMessage();
        }
      });
  BTreeFree(reader, 8);
  EXPECT_EQ(torn, 0u);
  EXPECT_EQ(Contents(OLDGEN).size(), 1 + kRounds * kPerRound);
}

}  // namespace
}  // namespace bttest
