// Randomized model tests: a tree against std::map over many inserts, finds
// and removes, with commits, reopenings, old-generation reads after further
// changes and enumerations by prefix and depth; committed readers beside a
// writer.
#include <random>

#include "pitree_fixture.h"

namespace {

using pittest::Atom;
using pittest::Model;
using pittest::PITreeTest;

// Atoms drawn from a few shapes: short ones over a small alphabet, long
// ones sharing long prefixes (which make leaves explode), and symbols of
// every code length.
class AtomSource {
 public:
  explicit AtomSource(uint32_t seed) : rng_(seed) {}
  Atom Next() {
    Atom atom;
    switch (rng_() % 4) {
      case 0:  // short, dense
        for (uint32_t n = 1 + rng_() % 4; n > 0; --n) atom.push_back(rng_() % 6);
        break;
      case 1: {  // a long common prefix, then a short varying tail
        const uint32_t stem = rng_() % 3;
        for (uint32_t k = 0; k < 300 + 100 * stem; ++k) atom.push_back('a' + (k + stem) % 26);
        for (uint32_t n = rng_() % 5; n > 0; --n) atom.push_back('0' + rng_() % 10);
        break;
      }
      case 2:  // URL-like path
        for (uint32_t level = 0, n = 1 + rng_() % 4; level < n; ++level) {
          for (char c : std::string("/part")) atom.push_back(uint32_t(c));
          atom.push_back('0' + rng_() % 8);
        }
        break;
      default: {  // symbols of every code length
        static const uint32_t kEdges[] = {0, 0x7F, 0x80, 0x407F, 0x4080, 0x20407F, 0x204080, 0x1020407F,
                                          0x10204080, 0xFFFFFFFE, 0xFFFFFFFF};
        for (uint32_t n = 1 + rng_() % 3; n > 0; --n)
          atom.push_back(rng_() % 2 ? kEdges[rng_() % 11] : uint32_t(rng_()));
      }
    }
    return atom;
  }
  std::mt19937 &rng() { return rng_; }

 private:
  std::mt19937 rng_;
};

void ExpectEqual(PITreeTest &t, const Model &model, uint32_t gen) {
  EXPECT_EQ(t.Enumerate({}, PITREE_DEPTH_UNLIMITED, gen), PITreeTest::Expected(model, {}, PITREE_DEPTH_UNLIMITED));
  for (const auto &[atom, data] : model) ASSERT_EQ(t.Find(atom, gen), data);
  EXPECT_EQ(PITreeGetSize(t.tree, gen), model.size());
  EXPECT_EQ(PITreeEmpty(t.tree, gen), model.empty() ? 1 : 0);
}

TEST_F(PITreeTest, RandomOperationsMatchAMapAcrossCommitsAndReopens) {
  Open();
  AtomSource source(20240601);
  Model model, committed;
  const uint32_t rounds = 8, perRound = pittest::Scaled(40000);
  for (uint32_t round = 0; round < rounds; ++round) {
    for (uint32_t op = 0; op < perRound; ++op) {
      Atom atom = source.Next();
      const uint64_t data = 1 + source.rng()() % 1000000;
      auto it = model.find(atom);
      const uint64_t had = it == model.end() ? 0 : it->second;
      switch (source.rng()() % 8) {
        case 0: case 1: case 2:
          ASSERT_EQ(Insert(atom, data), had ? had : data);
          if (!had) model[atom] = data;
          break;
        case 3:
          ASSERT_EQ(Insert(atom, data, 1), had);
          model[atom] = data;
          break;
        case 4: case 5:
          ASSERT_EQ(Remove(atom), had);
          model.erase(atom);
          break;
        default:
          ASSERT_EQ(Find(atom), had);
      }
      ASSERT_FALSE(QWErrorIsSet()) << QWErrorMessage();
    }
    ExpectEqual(*this, model, NEWGEN);
    // The committed generation still answers as at the last commit.
    ExpectEqual(*this, committed, OLDGEN);
    ASSERT_TRUE(Commit()) << QWErrorMessage();
    committed = model;
    if (round % 3 == 2) {
      Reopen();
      ExpectEqual(*this, model, OLDGEN);
    }
  }
  ExpectEqual(*this, model, NEWGEN);
}

TEST_F(PITreeTest, EnumerationByPrefixAndDepthMatchesTheModel) {
  Open();
  AtomSource source(77);
  Model model;
  for (uint32_t n = pittest::Scaled(30000); n > 0; --n) {
    Atom atom = source.Next();
    const uint64_t data = 1 + n;
    if (!model.count(atom)) model[atom] = data;
    ASSERT_EQ(Insert(atom, data), model[atom]);
  }
  for (uint32_t probe = 0; probe < 200; ++probe) {
    // Prefixes of stored atoms (so that most probes find something), cut at
    // any length, and depths from 0 to unlimited.
    auto it = model.begin();
    std::advance(it, source.rng()() % model.size());
    Atom prefix(it->first.begin(), it->first.begin() + source.rng()() % (it->first.size() + 1));
    const uint32_t depths[] = {0, 1, 2, 5, PITREE_DEPTH_UNLIMITED};
    const uint32_t depth = depths[probe % 5];
    ASSERT_EQ(Enumerate(prefix, depth), Expected(model, prefix, depth)) << "prefix length " << prefix.size();
  }
}

// Readers of the committed tree, each with its own thread data, beside one
// writer changing the new generation (inserts that explode leaves, removes).
using PITreeConcurrency = PITreeTest;

Atom AtomOf(uint32_t i) { return {i % 31, 0x4000 + i % 7, i, i % 3}; }

TEST_F(PITreeConcurrency, CommittedReadersRunBesideAWriter) {
  Open();
  const uint32_t count = pittest::Scaled(8000);
  for (uint32_t i = 0; i < count; ++i) ASSERT_EQ(Insert(AtomOf(i), i + 1), i + 1);
  ASSERT_TRUE(Commit()) << QWErrorMessage();
  const uint32_t bad = olibtest::ReadersBesideWriter(
      arena, 3, 200,
      [&](std::mt19937 &rng) {
        thread_local PITreeThreadData *own = PITreeThreadDataNew();  // one per reader, freed at thread exit
        thread_local struct Free { ~Free() { PITreeThreadDataFree(own); } } freeAtExit;
        const uint32_t i = rng() % count;
        const Atom atom = AtomOf(i);
        return PITreeFind(tree, own, atom.data(), uint32_t(atom.size()), 0, OLDGEN, 0, 0, 0) == i + 1;
      },
      [&] {
        std::mt19937 rng(9);
        for (uint32_t k = 0; k < count; ++k) {
          VMArenaNewGenAcquire(arena, 0);
          if (k % 2) {
            const uint32_t i = rng() % count;  // present once, then absent
            const uint64_t removed = Remove(AtomOf(i));
            EXPECT_TRUE(removed == 0 || removed == i + 1);
          } else {
            EXPECT_EQ(Insert({k % 5, 100000 + k, 1, 2, 3}, k + 1), k + 1);
          }
          EXPECT_FALSE(QWErrorIsSet()) << QWErrorMessage();
          VMArenaNewGenRelease(arena, 0);
        }
      });
  EXPECT_EQ(bad, 0u);
}

}  // namespace
