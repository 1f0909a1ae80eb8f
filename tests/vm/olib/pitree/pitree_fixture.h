// Fixture of the symbol-sequence tree tests: a tree on the shared arena fixture, its thread data, and lookups,
// enumeration and a std::map model.
#pragma once

#include <cstdlib>
#include <map>

#include "vm/olib/olib_fixture.h"

namespace pittest {

using Atom = std::vector<uint32_t>;
using Model = std::map<Atom, uint64_t>;
using Listing = std::vector<std::pair<Atom, uint64_t>>;

inline Atom FromText(const std::string &text) { return Atom(text.begin(), text.end()); }

// Operation counts of the randomized tests, divided by QWVM_TEST_SCALE (8 under the sanitizers unless set).
inline uint32_t Scaled(uint32_t count) {
  const char *scale = std::getenv("QWVM_TEST_SCALE");
  uint32_t divisor = scale ? uint32_t(std::strtoul(scale, nullptr, 10)) : 1;
#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__)
  if (!scale) divisor = 8;
#endif
  return count / (divisor ? divisor : 1);
}

class PITreeTest : public olibtest::ArenaTest {
 protected:
  void SetUp() override {
    ArenaTest::SetUp();
    ASSERT_NE(td = PITreeThreadDataNew(), nullptr);
  }
  void TearDown() override {
    ArenaTest::TearDown();
    PITreeThreadDataFree(td);
  }

 public:
  PITree *OpenTree(VMArena *on, const char *name = "words", int scan = 0) {
    if (!pathBuffer && !ArrayInit(pathBuffer, 1, 16)) ADD_FAILURE() << QWErrorMessage();
    ArrayLengthSet(pathBuffer, 0);
    EXPECT_TRUE(ArrayGrow(pathBuffer, 5));
    std::memcpy(pathBuffer, "dict/", 5);
    int created = -1;
    PITree *t = PITreeNew_(on, &pathBuffer, name, scan, &created, 0);
    EXPECT_EQ(ArrayLength(pathBuffer), 5u);  // the path is given back
    lastCreated = created;
    return t;
  }
  void Open(uint32_t flags = VM_FLAG_CREATE) {
    ASSERT_NO_FATAL_FAILURE(MustOpenArena(flags));
    ASSERT_NE(tree = OpenTree(arena), nullptr) << QWErrorMessage();
  }
  void FreeStructures() override {
    PITreeFree(tree);
    tree = nullptr;
  }
  void Reopen(uint32_t flags = VM_FLAG_CREATE) {
    CloseAll();
    Open(flags);
  }
  bool Commit() { return CommitArena() && PITreeCommit(tree); }

  uint64_t Find(const Atom &atom, uint32_t gen = NEWGEN) {
    return PITreeFind(tree, td, atom.data(), uint32_t(atom.size()), 0, gen, 0, 0, 0);
  }
  uint64_t Insert(const Atom &atom, uint64_t data, int force = 0) {
    return PITreeFind(tree, td, atom.data(), uint32_t(atom.size()), data, NEWGEN, 1, 0, force);
  }
  uint64_t Remove(const Atom &atom) {
    return PITreeFind(tree, td, atom.data(), uint32_t(atom.size()), 0, NEWGEN, 0, 1, 0);
  }
  // The atoms under `prefix` (to `depth`) as the enumeration yields them.
  Listing Enumerate(const Atom &prefix, uint32_t depth, uint32_t gen = NEWGEN) {
    Listing out;
    PITreeEnumeration *e = PITreeEnumerationNew();
    EXPECT_TRUE(PITreeEnumerationInit(tree, e, prefix.data(), uint32_t(prefix.size()), depth, gen)) << QWErrorMessage();
    const uint32_t *atom = nullptr;
    uint32_t length = 0;
    uint64_t data = 0;
    while (PITreeEnumerationGetNext(e, &atom, &length, &data)) out.emplace_back(Atom(atom, atom + length), data);
    EXPECT_FALSE(QWErrorIsSet()) << QWErrorMessage();
    PITreeEnumerationFree(e);
    return out;
  }
  // What the model says the enumeration must yield.
  static Listing Expected(const Model &model, const Atom &prefix, uint32_t depth) {
    Listing out;
    for (auto it = model.lower_bound(prefix); it != model.end(); ++it) {
      const Atom &a = it->first;
      if (a.size() < prefix.size() || !std::equal(prefix.begin(), prefix.end(), a.begin())) break;
      if (depth == PITREE_DEPTH_UNLIMITED || a.size() - prefix.size() <= depth) out.push_back(*it);
    }
    return out;
  }

  PITree *tree = nullptr;
  PITreeThreadData *td = nullptr;
  int lastCreated = -1;
};

}  // namespace pittest
