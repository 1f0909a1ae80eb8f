// A tree against std::map: inserts, forced overwrites, removes and finds through commits, reopenings, committed reads
// and enumerations by prefix and depth; committed readers beside a writer.
#include <random>

#include "pitree_fixture.h"

namespace {

using pittest::Atom;
using pittest::Model;
using pittest::PITreeTest;

// Short atoms over a small alphabet, long ones sharing long prefixes (leaves explode), URL-like paths, and symbols of
// every code length.
Atom RandomAtom(std::mt19937 &rng) {
  static const uint32_t kEdges[] = {0, 0x7F, 0x80, 0x407F, 0x4080, 0x20407F, 0x204080, 0x1020407F,
                                    0x10204080, 0xFFFFFFFE, 0xFFFFFFFF};
  Atom atom;
  switch (rng() % 4) {
    case 0:
      for (uint32_t n = 1 + rng() % 4; n > 0; --n) atom.push_back(rng() % 6);
      break;
    case 1: {
      const uint32_t stem = rng() % 3;
      for (uint32_t k = 0; k < 300 + 100 * stem; ++k) atom.push_back('a' + (k + stem) % 26);
      for (uint32_t n = rng() % 5; n > 0; --n) atom.push_back('0' + rng() % 10);
      break;
    }
    case 2:
      for (uint32_t level = 0, n = 1 + rng() % 4; level < n; ++level) {
        for (char c : std::string("/part")) atom.push_back(uint32_t(c));
        atom.push_back('0' + rng() % 8);
      }
      break;
    default:
      for (uint32_t n = 1 + rng() % 3; n > 0; --n) atom.push_back(rng() % 2 ? kEdges[rng() % 11] : uint32_t(rng()));
  }
  return atom;
}

void ExpectEqual(PITreeTest &t, const Model &model, uint32_t gen) {
  EXPECT_EQ(t.Enumerate({}, PITREE_DEPTH_UNLIMITED, gen), PITreeTest::Expected(model, {}, PITREE_DEPTH_UNLIMITED));
  for (const auto &[atom, data] : model) ASSERT_EQ(t.Find(atom, gen), data);
  EXPECT_EQ(PITreeGetSize(t.tree, gen), model.size());
  EXPECT_EQ(PITreeEmpty(t.tree, gen), model.empty() ? 1 : 0);
}

TEST_F(PITreeTest, RandomOperationsMatchAMapAcrossCommitsAndReopens) {
  Open();
  std::mt19937 rng(20240601);
  Model model, committed;
  const uint32_t perRound = pittest::Scaled(40000);
  for (uint32_t round = 0; round < 8; ++round) {
    for (uint32_t op = 0; op < perRound; ++op) {
      const Atom atom = RandomAtom(rng);
      const uint64_t data = 1 + rng() % 1000000;
      auto it = model.find(atom);
      const uint64_t had = it == model.end() ? 0 : it->second;
      switch (rng() % 8) {
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
    ExpectEqual(*this, committed, OLDGEN);
    // Prefixes of stored atoms cut at any length, depths 0 to unlimited.
    for (uint32_t probe = 0; probe < 25 && !model.empty(); ++probe) {
      auto it = std::next(model.begin(), long(rng() % model.size()));
      const Atom prefix(it->first.begin(), it->first.begin() + long(rng() % (it->first.size() + 1)));
      const uint32_t depth = std::vector<uint32_t>{0, 1, 2, 5, PITREE_DEPTH_UNLIMITED}[probe % 5];
      ASSERT_EQ(Enumerate(prefix, depth), Expected(model, prefix, depth)) << "prefix length " << prefix.size();
    }
    ASSERT_TRUE(Commit()) << QWErrorMessage();
    committed = model;
    if (round % 3 == 2) {
      Reopen();
      ExpectEqual(*this, model, OLDGEN);
    }
  }
  ExpectEqual(*this, model, NEWGEN);
}

// Readers of the committed tree, each with its own thread data, beside one writer changing the new generation (inserts
// that explode leaves, removes).
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
