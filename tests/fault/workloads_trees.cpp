// Tree workloads: a PITree of path-like atoms beside arrays created through
// the name service, an 8-byte-key B-tree and the AVL dictionary. Each round
// inserts, replaces and removes against a std::map model.
#include <cerrno>
#include <map>
#include <random>

#include "fault/arena_workload.h"

namespace faulttest {
namespace {

template <typename Map>
std::string DumpPairs(const Map &entries) {
  std::string out = "entries " + std::to_string(entries.size()) + "\n";
  for (const auto &[key, value] : entries) out += std::to_string(key) + "=" + std::to_string(value) + "\n";
  return out;
}

// Every `stride`-th key of `model` (a deterministic choice of present keys).
template <typename Map>
std::vector<typename Map::key_type> EveryNth(const Map &model, size_t stride, size_t offset) {
  std::vector<typename Map::key_type> keys;
  size_t i = 0;
  for (const auto &entry : model)
    if (i++ % stride == offset % stride) keys.push_back(entry.first);
  return keys;
}

// Whether a call's result is the model's: these calls answer a failure with
// an ordinary value ("absent") and the error chain, so the chain decides. A
// result that differs from the model without an error is reported as one.
bool Expect(uint64_t result, uint64_t expected) {
  if (QWErrorIsSet()) return false;
  if (result == expected) return true;
  QWErrorThrow(EBADMSG, QW_ERROR_CLASS_DATA, "the store answered %llu where the model holds %llu",
               static_cast<unsigned long long>(result), static_cast<unsigned long long>(expected));
  return false;
}

using Atom = std::vector<uint32_t>;

Atom PathAtom(uint32_t round, uint32_t i) {
  const std::string text = "site" + std::to_string(i % 5) + "/dir" + std::to_string(i / 5 % 4) + "/page" +
                           std::to_string(i) + "-r" + std::to_string(round);
  return Atom(text.begin(), text.end());
}

std::string NameOf(uint32_t round, uint32_t k) {
  return "fault/names/r" + std::to_string(round) + "/a" + std::to_string(k);
}

constexpr uint32_t kRoundsNamed = 3;  // names of rounds 1..3 are looked up
constexpr uint32_t kNamesPerRound = 3;

class PITreeWorkload : public ArenaWorkload {
 public:
  PITreeWorkload() : ArenaWorkload(0) {}
  std::unique_ptr<Workload> Clone() const override { return CloneOf(*this); }

  bool Apply(uint32_t round) override {
    QWErrorClear();
    for (uint32_t i = 0; i < 150; ++i) {
      const Atom atom = PathAtom(round, i);
      const uint64_t data = (uint64_t(round) << 32 | i) + 1;
      if (!Expect(PITreeFind(tree_, td_, atom.data(), uint32_t(atom.size()), data, NEWGEN, 1, 0, 0), data)) return false;
      model_[atom] = data;
    }
    if (round > 1) {
      for (const Atom &atom : EveryNth(model_, 8, round)) {
        if (!Expect(PITreeFind(tree_, td_, atom.data(), uint32_t(atom.size()), 0, NEWGEN, 0, 1, 0), model_[atom]))
          return false;
        model_.erase(atom);
      }
    }
    for (uint32_t k = 0; k < kNamesPerRound; ++k) {
      const std::string name = NameOf(round, k);
      int create = 1;
      if (VMAArrayFind(arena_, NEWGEN, name.data(), uint32_t(name.size()), 0, &create, 0, 0) == VMA_NO_ARRAY)
        return false;
      names_.push_back(name);
    }
    return true;
  }

  std::string Dump(uint32_t gen) override {
    std::map<Atom, uint64_t> atoms;
    auto collect = [](void *context, const uint32_t *atom, uint32_t length, uint64_t data) {
      (*static_cast<std::map<Atom, uint64_t> *>(context))[Atom(atom, atom + length)] = data;
      return 1;
    };
    if (!PITreeEnumerate(tree_, gen, nullptr, 0, UINT32_MAX, collect, &atoms))
      return std::string("error: enumeration: ") + QWErrorMessage();
    std::string out = DumpAtoms(atoms);
    for (uint32_t round = 1; round <= kRoundsNamed; ++round) {
      for (uint32_t k = 0; k < kNamesPerRound; ++k) {
        const std::string name = NameOf(round, k);
        const uint32_t id = VMAArrayFind(arena_, gen, name.data(), uint32_t(name.size()), 0, nullptr, 0, 0);
        if (id == VMA_NO_ARRAY && QWErrorIsSet()) return "error: name " + name + ": " + QWErrorMessage();
        if (id != VMA_NO_ARRAY) out += name + "\n";
      }
    }
    return out;
  }
  std::string ModelDump() const override {
    std::string out = DumpAtoms(model_);
    for (const std::string &name : names_) out += name + "\n";
    return out;
  }

 private:
  static std::string DumpAtoms(const std::map<Atom, uint64_t> &atoms) {
    std::string out = "atoms " + std::to_string(atoms.size()) + "\n";
    for (const auto &[atom, data] : atoms) out += std::string(atom.begin(), atom.end()) + "=" + std::to_string(data) + "\n";
    return out;
  }
  bool OpenParts() override {
    td_ = PITreeThreadDataNew();
    if (!td_) return false;
    int created = 0;
    tree_ = PITreeNew_(arena_, PathBuffer("fault/"), "atoms", 0, &created, 0);
    return tree_ != nullptr;
  }
  bool CommitParts() override { return PITreeCommit(tree_) == 1; }
  void CloseParts() override {
    PITreeFree(tree_);
    PITreeThreadDataFree(td_);
    tree_ = nullptr;
    td_ = nullptr;
  }

  PITree *tree_ = nullptr;
  PITreeThreadData *td_ = nullptr;
  std::map<Atom, uint64_t> model_;
  std::vector<std::string> names_;
};

class BTreeWorkload : public ArenaWorkload {
 public:
  BTreeWorkload() : ArenaWorkload(0) {}
  std::unique_ptr<Workload> Clone() const override { return CloneOf(*this); }

  bool Apply(uint32_t round) override {
    QWErrorClear();
    std::mt19937_64 random(round);
    for (uint32_t i = 0; i < 1500; ++i) {
      const uint64_t key = random(), value = 1 + random() % 0x7FFFFFFF;
      if (!Expect(BTreeFind(tree_, key, value, BTREE_NO_KEY, 1, 0, 0, NEWGEN), BTREE_NO_KEY)) return false;
      model_[key] = value;
    }
    for (uint64_t key : EveryNth(model_, 9, round)) {
      const uint64_t value = 1 + (key ^ round) % 0x7FFFFFFF;
      if (!Expect(BTreeFind(tree_, key, value, BTREE_NO_KEY, 0, 1, 0, NEWGEN), model_[key])) return false;
      model_[key] = value;
    }
    for (uint64_t key : EveryNth(model_, 7, round)) {
      if (!Expect(BTreeFind(tree_, key, 0, BTREE_NO_KEY, 0, 0, 1, NEWGEN), model_[key])) return false;
      model_.erase(key);
    }
    return true;
  }

  std::string Dump(uint32_t gen) override {
    std::map<uint64_t, uint64_t> entries;
    auto collect = [](uint64_t key, uint64_t value, void *context) {
      (*static_cast<std::map<uint64_t, uint64_t> *>(context))[key] = value;
      return 0;
    };
    if (BTreeEnumerate(tree_, collect, &entries, gen) != 1)
      return std::string("error: enumeration: ") + QWErrorMessage();
    return DumpPairs(entries);
  }
  std::string ModelDump() const override { return DumpPairs(model_); }

 private:
  bool OpenParts() override {
    tree_ = BTreeNew(arena_, "fault", "btree", 0, 8, 4);
    return tree_ != nullptr;
  }
  bool CommitParts() override { return BTreeCommit(tree_, 8) == 1; }
  void CloseParts() override {
    if (tree_) BTreeFree(tree_, 8);
    tree_ = nullptr;
  }

  BTree *tree_ = nullptr;
  std::map<uint64_t, uint64_t> model_;
};

class AVLWorkload : public ArenaWorkload {
 public:
  AVLWorkload() : ArenaWorkload(0) {}
  std::unique_ptr<Workload> Clone() const override { return CloneOf(*this); }

  bool Apply(uint32_t round) override {
    QWErrorClear();
    std::mt19937 random(round);
    for (uint32_t i = 0; i < 1000; ++i)
      if (!Insert(random(), random())) return false;
    // The dictionary wants each freed node taken by the next new key.
    for (uint64_t key : EveryNth(model_, 6, round)) {
      if (!Expect(QWDBAVLLDictRemove(dict_, key, kAbsent, NEWGEN), model_[key])) return false;
      model_.erase(key);
      uint64_t fresh = random();
      while (model_.count(fresh)) fresh = random();
      if (!Insert(fresh, random())) return false;
    }
    return true;
  }

  std::string Dump(uint32_t gen) override {
    std::map<uint64_t, uint64_t> entries;
    auto collect = [](QWDBAVLLDict *, uint64_t key, uint64_t value, void *context) {
      (*static_cast<std::map<uint64_t, uint64_t> *>(context))[key] = value;
      return 1;
    };
    if (QWDBAVLLDictEnumerate(dict_, 0, collect, &entries, gen) != 1)
      return std::string("error: enumeration: ") + QWErrorMessage();
    std::string out = DumpPairs(entries);
    if (DBAVLLCheck(dict_, NEWGEN) != 1) out += std::string("check: ") + QWErrorMessage() + "\n";
    return out;
  }
  std::string ModelDump() const override { return DumpPairs(model_); }

 private:
  bool OpenParts() override {
    dict_ = QWDBAVLLDictNew(arena_, "fault", "avl", 0);
    return dict_ != nullptr;
  }
  void CloseParts() override {
    QWDBAVLLDictDelete(dict_);
    dict_ = nullptr;
  }

  static constexpr uint64_t kAbsent = ~uint64_t(0);

  bool Insert(uint64_t key, uint64_t value) {
    const auto found = model_.find(key);
    const uint64_t before = found == model_.end() ? kAbsent : found->second;
    if (!Expect(QWDBAVLLDictInsert(dict_, key, value, kAbsent, NEWGEN), before)) return false;
    model_[key] = value;
    return true;
  }

  QWDBAVLLDict *dict_ = nullptr;
  std::map<uint64_t, uint64_t> model_;
};

}  // namespace

std::unique_ptr<Workload> MakePITree() { return std::make_unique<PITreeWorkload>(); }
std::unique_ptr<Workload> MakeBTree() { return std::make_unique<BTreeWorkload>(); }
std::unique_ptr<Workload> MakeAVL() { return std::make_unique<AVLWorkload>(); }

}  // namespace faulttest
