// Fixture of the symbol-sequence tree tests: an arena in a fresh directory, a
// tree on it, thread data, and helpers that look atoms up, enumerate and
// compare with a std::map model.
#pragma once

#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <map>
#include <string>
#include <vector>

#include "qwvm/qwvm.h"
#include "support/test_support.h"

namespace pittest {

using Atom = std::vector<uint32_t>;
using Model = std::map<Atom, uint64_t>;

inline Atom FromText(const std::string &text) { return Atom(text.begin(), text.end()); }

// Scale of the randomized tests: smaller under the sanitizers (QWVM_TEST_SCALE
// divides the operation counts).
inline uint32_t Scaled(uint32_t count) {
  const char *scale = std::getenv("QWVM_TEST_SCALE");
  uint32_t divisor = scale ? uint32_t(std::strtoul(scale, nullptr, 10)) : 1;
#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__)
  if (!scale) divisor = 8;
#endif
  return count / (divisor ? divisor : 1);
}

class PITreeTest : public qwtest::CachedTempDirTest {
 protected:
  void SetUp() override {
    CachedTempDirTest::SetUp();
    td = PITreeThreadDataNew();
    ASSERT_NE(td, nullptr);
  }
  void TearDown() override {
    CachedTempDirTest::TearDown();
    PITreeThreadDataFree(td);
  }

 public:
  std::string arenaDir() const { return path("arena"); }
  bool Tagged() const { return std::filesystem::exists(path("arena/corrupted")); }
  VMArena *OpenArena(uint32_t flags = VM_FLAG_CREATE) {
    return VMArenaOpen(arenaDir().c_str(), flags, 2, STATUS_NO_SERIAL, STATUS_NO_SERIAL, nullptr, cache);
  }
  PITree *OpenTree(VMArena *on, const char *name = "words", int scan = 0) {
    if (!pathBuffer) {
      EXPECT_TRUE(ArrayInit(pathBuffer, 1, 16));
    }
    ArrayLengthSet(pathBuffer, 0);
    const char prefix[] = "dict/";
    EXPECT_TRUE(ArrayGrow(pathBuffer, 5));
    std::memcpy(pathBuffer, prefix, 5);
    int created = -1;
    PITree *t = PITreeNew_(on, &pathBuffer, name, scan, &created, 0);
    EXPECT_EQ(ArrayLength(pathBuffer), 5u);  // the path is given back
    lastCreated = created;
    return t;
  }
  void Open(uint32_t flags = VM_FLAG_CREATE) {
    arena = OpenArena(flags);
    ASSERT_NE(arena, nullptr) << QWErrorMessage();
    tree = OpenTree(arena);
    ASSERT_NE(tree, nullptr) << QWErrorMessage();
  }
  void CloseAll() override {
    PITreeFree(tree);
    tree = nullptr;
    if (arena) VMArenaClose(arena);
    arena = nullptr;
  }
  void Reopen(uint32_t flags = VM_FLAG_CREATE) {
    CloseAll();
    Open(flags);
  }
  bool Commit() { return VMArenaCommit(arena, nullptr, nullptr, 0) && PITreeCommit(tree); }

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
  std::vector<std::pair<Atom, uint64_t>> Enumerate(const Atom &prefix, uint32_t depth, uint32_t gen = NEWGEN) {
    std::vector<std::pair<Atom, uint64_t>> out;
    PITreeEnumeration *e = PITreeEnumerationNew();
    EXPECT_TRUE(PITreeEnumerationInit(tree, e, prefix.data(), uint32_t(prefix.size()), depth, gen))
        << QWErrorMessage();
    const uint32_t *atom = nullptr;
    uint32_t length = 0;
    uint64_t data = 0;
    while (PITreeEnumerationGetNext(e, &atom, &length, &data)) out.emplace_back(Atom(atom, atom + length), data);
    EXPECT_FALSE(QWErrorIsSet()) << QWErrorMessage();
    PITreeEnumerationFree(e);
    return out;
  }
  // What the model says the enumeration must yield.
  static std::vector<std::pair<Atom, uint64_t>> Expected(const Model &model, const Atom &prefix, uint32_t depth) {
    std::vector<std::pair<Atom, uint64_t>> out;
    for (auto it = model.lower_bound(prefix); it != model.end(); ++it) {
      const Atom &a = it->first;
      if (a.size() < prefix.size() || !std::equal(prefix.begin(), prefix.end(), a.begin())) break;
      if (depth == PITREE_DEPTH_UNLIMITED || a.size() - prefix.size() <= depth) out.push_back(*it);
    }
    return out;
  }

  VMArena *arena = nullptr;
  PITree *tree = nullptr;
  PITreeThreadData *td = nullptr;
  int lastCreated = -1;
};

}  // namespace pittest
