// The evaluator's semantics written out by brute force, and random queries and documents, shared by the model test and
// the fault campaign's workload.
#pragma once

#include <algorithm>
#include <cstdint>
#include <map>
#include <random>
#include <set>
#include <utility>
#include <vector>

#include "qwvm/qwvm.h"

namespace boolevaltest {

struct Lit {
  uint32_t id, sub;
  bool neg;
};
using Conj = std::vector<Lit>;
using Query = std::vector<Conj>;
// A document: (id, sub) -> strength 2 (strong) or 1 (weak), as added.
using Doc = std::vector<std::pair<Lit, int>>;
using Levels = std::vector<std::vector<uint32_t>>;

// The semantics written out: a key with a sub also stands for (id, 0); a conjunction holds when every positive atom is
// present and no negated one.
inline Levels BruteForce(const std::vector<std::pair<Query, uint32_t>> &stored, const Doc &doc) {
  std::map<std::pair<uint32_t, uint32_t>, int> present;
  for (const auto &[lit, strength] : doc) {
    for (uint32_t sub : {lit.sub, 0u}) {
      int &s = present[{lit.id, sub}];
      s = std::max(s, strength);
    }
  }
  std::set<uint32_t> levels[3];
  for (const auto &[query, value] : stored) {
    for (const Conj &conj : query) {
      if (conj.empty()) continue;
      bool holds = true, someStrong = false, allStrong = true, anyPositive = false;
      for (const Lit &lit : conj) {
        auto it = present.find({lit.id, lit.sub});
        const int strength = it == present.end() ? 0 : it->second;
        if (lit.neg ? strength != 0 : strength == 0) holds = false;
        if (!lit.neg) {
          anyPositive = true;
          someStrong |= strength == 2;
          allStrong &= strength == 2;
        }
      }
      if (!holds) continue;
      levels[0].insert(value);
      if (anyPositive && someStrong) levels[1].insert(value);
      if (anyPositive && allStrong) levels[2].insert(value);
    }
  }
  return {
      {levels[0].begin(), levels[0].end()}, {levels[1].begin(), levels[1].end()}, {levels[2].begin(), levels[2].end()}};
}

inline Lit RandomLit(std::mt19937 &rng, uint32_t atoms) {
  return Lit{uint32_t(rng() % atoms), rng() % 3 == 0 ? uint32_t(rng() % 3) : 0u, rng() % 5 == 0};
}

inline Query RandomQuery(std::mt19937 &rng) {
  Query query(rng() % 4);  // 0 to 3 conjunctions, some empty
  for (Conj &conj : query) {
    conj.resize(rng() % 4 + (rng() % 6 != 0));
    for (Lit &lit : conj) lit = RandomLit(rng, 24);
  }
  return query;
}

inline Doc RandomDoc(std::mt19937 &rng) {
  Doc doc(rng() % 12);
  for (auto &[lit, strength] : doc) {
    lit = RandomLit(rng, 24);
    strength = rng() % 3 == 0 ? 1 : 2;
  }
  return doc;
}

// Stores `query` with `value` through `scratch`. Returns BoolEvalAdd's result.
inline int StoreQuery(BoolEval *eval, BoolQuery *scratch, const Query &query, uint32_t value) {
  BoolQueryDisjStart(scratch);
  for (const Conj &conj : query) {
    BoolQueryConjStart(scratch);
    for (const Lit &lit : conj) BoolQueryAtomAdd(scratch, lit.sub, lit.id, lit.neg);
    BoolQueryConjStop(scratch);
  }
  BoolQueryDisjStop(scratch);
  return BoolEvalAdd(eval, scratch, value, NEWGEN);
}

// Evaluates `doc` in genID; strong atoms of sub 0 go through the batch call. False (error chain set) when a call fails.
inline bool RunDoc(BoolEvalRuntime *runtime, const Doc &doc, uint32_t genID, Levels *levels) {
  if (!BoolEvalRuntimeStart(runtime, genID)) return false;
  for (const auto &[lit, strength] : doc) {
    const bool ok = strength == 2 && lit.sub == 0 ? BoolEvalRuntimeAtomsAdd(runtime, 0, &lit.id, 1, 1)
                                                  : BoolEvalRuntimeAtomAdd(runtime, lit.sub, lit.id, strength == 2);
    if (!ok) return false;
  }
  if (!BoolEvalRuntimeStop(runtime)) return false;
  levels->assign(3, {});
  for (uint32_t level = 0; level < 3; ++level) {
    uint32_t count = 0;
    const uint32_t *values = BoolEvalRuntimeMatchGet(runtime, level, &count);
    (*levels)[level].assign(values, values + count);
  }
  return true;
}

}  // namespace boolevaltest
