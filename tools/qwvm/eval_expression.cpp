// Parsing `qwvm eval` expressions and bringing them into disjunctive form.
#include "tools/qwvm/eval_expression.h"

#include <cctype>
#include <memory>

namespace qwtool {
namespace {

constexpr int kMaxDepth = 200;  // nesting of parentheses and negations

struct Node {
  enum Kind { kAtom, kNot, kAnd, kOr } kind;
  EvalAtom atom;
  std::vector<std::unique_ptr<Node>> children;
};

class Parser {
 public:
  explicit Parser(const std::string &text) : text_(text) {}

  std::unique_ptr<Node> Parse(std::string *error) {
    std::unique_ptr<Node> node = Or(0);
    if (node && (Skip(), pos_ != text_.size())) node = Fail("unexpected \"" + std::string(1, text_[pos_]) + "\"");
    if (!node) *error = error_;
    return node;
  }

 private:
  std::unique_ptr<Node> Fail(const std::string &what) {
    if (error_.empty()) error_ = "malformed expression at column " + std::to_string(pos_ + 1) + ": " + what;
    return nullptr;
  }
  void Skip() {
    while (pos_ < text_.size() && std::isspace(static_cast<unsigned char>(text_[pos_]))) ++pos_;
  }
  bool Next(char c) {
    Skip();
    if (pos_ < text_.size() && text_[pos_] == c) {
      ++pos_;
      return true;
    }
    return false;
  }
  // A chain of one operator: kind kAnd over Factor, kind kOr over And.
  std::unique_ptr<Node> Chain(Node::Kind kind, char op, int depth) {
    auto operand = [&] { return kind == Node::kOr ? Chain(Node::kAnd, '&', depth) : Factor(depth); };
    std::unique_ptr<Node> first = operand();
    if (!first || (Skip(), pos_ >= text_.size() || text_[pos_] != op)) return first;
    auto node = std::make_unique<Node>(Node{kind, {}, {}});
    node->children.push_back(std::move(first));
    while (Next(op)) {
      std::unique_ptr<Node> next = operand();
      if (!next) return nullptr;
      node->children.push_back(std::move(next));
    }
    return node;
  }
  std::unique_ptr<Node> Or(int depth) { return Chain(Node::kOr, '|', depth); }
  std::unique_ptr<Node> Factor(int depth) {
    if (depth > kMaxDepth) return Fail("nested more than " + std::to_string(kMaxDepth) + " deep");
    if (Next('!')) {
      std::unique_ptr<Node> inner = Factor(depth + 1);
      if (!inner) return nullptr;
      auto node = std::make_unique<Node>(Node{Node::kNot, {}, {}});
      node->children.push_back(std::move(inner));
      return node;
    }
    if (Next('(')) {
      std::unique_ptr<Node> inner = Or(depth + 1);
      if (inner && !Next(')')) return Fail("expected \")\"");
      return inner;
    }
    return Atom();
  }
  std::unique_ptr<Node> Atom() {
    Skip();
    const size_t start = pos_;
    while (pos_ < text_.size() && (std::isdigit(static_cast<unsigned char>(text_[pos_])) || text_[pos_] == ':')) ++pos_;
    if (pos_ == start) {
      return Fail(pos_ < text_.size() ? "expected an atom, found \"" + std::string(1, text_[pos_]) + "\""
                                      : "expected an atom at the end");
    }
    auto node = std::make_unique<Node>(Node{Node::kAtom, {}, {}});
    std::string error;
    if (!ParseAtom(text_.substr(start, pos_ - start), &node->atom, &error)) {
      pos_ = start;
      return Fail(error);
    }
    return node;
  }

  const std::string &text_;
  size_t pos_ = 0;
  std::string error_;
};

std::string TooLarge() {
  return "expression too large: its disjunctive form would pass " + std::to_string(kMaxConjunctions) +
         " conjunctions or " + std::to_string(kMaxConjunctionAtoms) + " atoms in a conjunction";
}

// The disjunctive form of `node`, negated when `neg`.
bool ToForm(const Node &node, bool neg, Disjunction *out, std::string *error) {
  out->clear();
  if (node.kind == Node::kAtom) {
    EvalAtom atom = node.atom;
    atom.neg = neg;
    out->push_back({atom});
    return true;
  }
  if (node.kind == Node::kNot) return ToForm(*node.children[0], !neg, out, error);
  // An "or" (or a negated "and") concatenates; an "and" (or a negated "or")
  // multiplies out.
  const bool concatenate = (node.kind == Node::kOr) != neg;
  if (!concatenate) out->push_back({});
  Disjunction part, product;
  for (const auto &child : node.children) {
    if (!ToForm(*child, neg, &part, error)) return false;
    if (concatenate) {
      out->insert(out->end(), part.begin(), part.end());
    } else {
      if (out->size() * part.size() > kMaxConjunctions) return *error = TooLarge(), false;
      product.clear();
      for (const Conjunction &left : *out) {
        for (const Conjunction &right : part) {
          if (left.size() + right.size() > kMaxConjunctionAtoms) return *error = TooLarge(), false;
          product.push_back(left);
          product.back().insert(product.back().end(), right.begin(), right.end());
        }
      }
      out->swap(product);
    }
    if (out->size() > kMaxConjunctions) return *error = TooLarge(), false;
  }
  return true;
}

bool ParseNumber(const std::string &text, uint32_t *value) {
  if (text.empty() || text.size() > 10) return false;
  uint64_t number = 0;
  for (char c : text) {
    if (!std::isdigit(static_cast<unsigned char>(c))) return false;
    number = number * 10 + uint64_t(c - '0');
  }
  if (number > UINT32_MAX) return false;
  *value = uint32_t(number);
  return true;
}

}  // namespace

bool ParseAtom(const std::string &text, EvalAtom *out, std::string *error) {
  const size_t colon = text.find(':');
  const std::string id = text.substr(0, colon), sub = colon == std::string::npos ? "0" : text.substr(colon + 1);
  *out = EvalAtom{};
  if (!ParseNumber(id, &out->id) || !ParseNumber(sub, &out->sub)) {
    *error = "\"" + text + "\" is not an atom (ID or ID:SUB, unsigned 32-bit numbers)";
    return false;
  }
  if (out->id == UINT32_MAX) {
    *error = "atom id " + id + " (all ones) is reserved";
    return false;
  }
  return true;
}

bool ParseExpression(const std::string &text, Disjunction *out, std::string *error) {
  Parser parser(text);
  std::unique_ptr<Node> root = parser.Parse(error);
  return root && ToForm(*root, false, out, error);
}

bool BuildQuery(const Disjunction &form, BoolQuery *query) {
  if (!BoolQueryDisjStart(query)) return false;
  for (const Conjunction &conjunction : form) {
    BoolQueryConjStart(query);
    for (const EvalAtom &atom : conjunction) {
      if (!BoolQueryAtomAdd(query, atom.sub, atom.id, atom.neg)) return false;
    }
    if (!BoolQueryConjStop(query)) return false;
  }
  return BoolQueryDisjStop(query) != 0;
}

}  // namespace qwtool
