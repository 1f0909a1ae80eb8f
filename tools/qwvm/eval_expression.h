// Boolean expressions of the `qwvm eval` command: atoms written ID or
// ID:SUB, combined with `!` (not), `&` (and), `|` (or) and parentheses, in
// that order of precedence. An expression is brought into disjunctive form
// (a disjunction of conjunctions of possibly negated atoms) by pushing
// negations down to the atoms and distributing `&` over `|`.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "qwvm/qwvm.h"

namespace qwtool {

// The largest disjunctive form accepted: conjunctions, and atoms in one.
inline constexpr size_t kMaxConjunctions = 1024;
inline constexpr size_t kMaxConjunctionAtoms = 256;

struct EvalAtom {
  uint32_t id = 0;
  uint32_t sub = 0;
  bool neg = false;
};
using Conjunction = std::vector<EvalAtom>;
using Disjunction = std::vector<Conjunction>;

// Parses `text` into disjunctive form. False with *error set (naming the
// column of the fault, or the size limit that was passed) otherwise.
bool ParseExpression(const std::string &text, Disjunction *out, std::string *error);

// Parses one atom, ID or ID:SUB (an ID of all ones is refused). False with
// *error set otherwise.
bool ParseAtom(const std::string &text, EvalAtom *out, std::string *error);

// Builds `query` from a disjunctive form. Returns the BoolQuery calls'
// result.
bool BuildQuery(const Disjunction &form, BoolQuery *query);

}  // namespace qwtool
