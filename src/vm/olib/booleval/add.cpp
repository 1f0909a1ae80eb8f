// BoolEvalAdd: storing a query's conjunctions.
#include <algorithm>

#include "vm/olib/booleval/booleval_internal.h"
#include "vm/olib/common/checks.h"

using namespace qw::booleval;

namespace {

// Conjunction ids stop short of the one whose weak link would be the
// evaluation's all-ones sentinel.
constexpr uint64_t kMaxConjunctions = 0x3FFFFFFFu;

bool Fail(BoolEval *eval) { return QWErrorRethrow("BoolEvalAdd: cannot store a query in \"%s\"", eval->path.c_str()); }

// Appends one-varint element `value` to `array`.
bool AppendVarintElement(BoolEval *eval, LDBArray *array, uint32_t value) {
  eval->encoded.clear();
  AppendVarint(&eval->encoded, value);
  return LDBArrayAdd(array, eval->ldbScratch, 0, eval->encoded.data(), uint32_t(eval->encoded.size()), NEWGEN) !=
         LDBARRAY_INVALID_HANDLE;
}

// Applies `change` to the entry of (atomID, sub) in the atom node of atomID,
// creating the node (and the empty nodes below it) and the entry as needed.
template <class Change>
bool ChangeAtomEntry(BoolEval *eval, uint32_t atomID, uint32_t sub, Change change) {
  while (LDBArraySize(eval->atomNodes, 0, NEWGEN) <= atomID) {
    if (LDBArrayAdd(eval->atomNodes, eval->ldbScratch, 0, nullptr, 0, NEWGEN) == LDBARRAY_INVALID_HANDLE) return false;
  }
  if (!ReadElement(eval->atomNodes, atomID, &eval->bytes, NEWGEN)) return false;
  AtomNode node;
  if (!DecodeAtomNode(eval->bytes, ArrayLength(eval->bytes), &node)) return Corrupt(eval, "atom node", atomID);
  auto at = std::lower_bound(node.begin(), node.end(), sub,
                             [](const AtomNodeEntry &item, uint32_t key) { return item.sub < key; });
  if (at == node.end() || at->sub != sub) at = node.insert(at, AtomNodeEntry{sub, {}});
  change(&at->entry);
  EncodeAtomNode(node, &eval->encoded);
  return LDBArrayDataSet(eval->atomNodes, eval->ldbScratch, 0, atomID, eval->encoded.data(),
                         uint32_t(eval->encoded.size()), NEWGEN) != 0;
}

// Adds value to conjunction `id`'s node.
bool AppendConjunctionValue(BoolEval *eval, uint32_t id, uint32_t value) {
  if (!ReadElement(eval->andNodes, id, &eval->bytes, NEWGEN)) return false;
  const size_t length = ArrayLength(eval->bytes);
  if (length == 0) return Corrupt(eval, "conjunction node", id);
  eval->encoded.assign(eval->bytes, eval->bytes + length);
  AppendVarint(&eval->encoded, value);
  if (eval->keepInMemory) eval->changedValues.push_back(id);
  return LDBArrayDataSet(eval->andNodes, eval->ldbScratch, 0, id, eval->encoded.data(), uint32_t(eval->encoded.size()),
                         NEWGEN) != 0;
}

// Stores a new conjunction `id`: its node, total, all-negative entry and the
// links in the atom nodes.
bool StoreConjunction(BoolEval *eval, const std::vector<Atom> &atoms, uint32_t id, uint32_t value) {
  if (LDBArraySize(eval->andNodes, 0, NEWGEN) != id || LDBArraySize(eval->andTotal, 0, NEWGEN) != id) {
    return Corrupt(eval, "conjunction count at id", id);
  }
  const uint32_t total = AndTotalOf(atoms);
  EncodeConjunctionNode(atoms, total, value, &eval->encoded);
  if (LDBArrayAdd(eval->andNodes, eval->ldbScratch, 0, eval->encoded.data(), uint32_t(eval->encoded.size()), NEWGEN) ==
      LDBARRAY_INVALID_HANDLE) {
    return false;
  }
  const bool allNegative = std::all_of(atoms.begin(), atoms.end(), [](const Atom &atom) { return atom.neg != 0; });
  if (allNegative && !AppendVarintElement(eval, eval->allNeg, id)) return false;
  if (!AppendVarintElement(eval, eval->andTotal, total)) return false;
  for (const Atom &atom : atoms) {
    const uint32_t link = LinkOf(id, atom.neg ? kTagNegated : kTagPositive);
    const bool ok = ChangeAtomEntry(eval, atom.atomID, atom.sub, [link](NodeEntry *entry) {
      entry->links.insert(std::upper_bound(entry->links.begin(), entry->links.end(), link), link);
    });
    if (!ok) return false;
  }
  return true;
}

// Stores one conjunction of two or more atoms, or of one negated atom.
bool AddConjunction(BoolEval *eval, std::vector<Atom> atoms, uint32_t value) {
  std::sort(atoms.begin(), atoms.end());
  std::vector<uint32_t> key;
  key.reserve(atoms.size() * 2);
  for (const Atom &atom : atoms) {
    key.push_back(atom.atomID * 2 + atom.neg);
    key.push_back(atom.sub);
  }
  int create = 1;
  const uint64_t id =
      IDTreeFind(eval->andLookup, eval->idScratch, key.data(), uint32_t(key.size()), &create, 0, 0, NEWGEN);
  if (id == IDTREE_NO_ID) return false;
  if (id >= kMaxConjunctions) {
    return QWErrorThrow(28, QW_ERROR_CLASS_GENERAL, "no conjunction id left (%llu)",
                        static_cast<unsigned long long>(id));
  }
  return create ? StoreConjunction(eval, atoms, uint32_t(id), value)
                : AppendConjunctionValue(eval, uint32_t(id), value);
}

// Refuses what cannot be stored before anything is written.
bool Validate(const BoolQuery *query) {
  if (query->level != 0 || query->ends.empty()) {
    return QWErrorThrow(22, QW_ERROR_CLASS_GENERAL, "BoolEvalAdd: the query is not finished (level %u)", query->level);
  }
  for (const Atom &atom : query->atoms) {
    if (atom.atomID > BOOLEVAL_MAX_ATOM_ID) {
      return QWErrorThrow(22, QW_ERROR_CLASS_GENERAL, "BoolEvalAdd: atom id %u is beyond the largest stored id %u",
                          atom.atomID, BOOLEVAL_MAX_ATOM_ID);
    }
  }
  return true;
}

}  // namespace

extern "C" QW_API int BoolEvalAdd(BoolEval *eval, BoolQuery *query, uint32_t value, uint32_t genID) {
  qw::olib::CheckGeneration(genID);
  OLIB_ASSERT_TEXT(genID == NEWGEN, "genID==NEWGEN");
  if (!Validate(query)) return 0;
  const int ok = Guarded("BoolEvalAdd", [&] {
    for (size_t k = 0; k + 1 < query->ends.size(); ++k) {
      const auto first = query->atoms.begin() + query->ends[k], last = query->atoms.begin() + query->ends[k + 1];
      if (first == last) continue;
      if (last - first == 1 && !first->neg) {
        const bool stored = ChangeAtomEntry(eval, first->atomID, first->sub,
                                            [value](NodeEntry *entry) { entry->values.push_back(value); });
        if (!stored) return 0;
        continue;
      }
      if (!AddConjunction(eval, std::vector<Atom>(first, last), value)) return 0;
    }
    return 1;
  });
  return ok ? 1 : Fail(eval);
}
