// Fixture of the AVL dictionary tests: a dictionary on the shared arena fixture, a std::map model, and raw access to
// the node records.
#pragma once

#include <map>

#include "vm/olib/olib_fixture.h"

namespace avltest {

inline constexpr const char *kPath = "dicts";
inline constexpr const char *kName = "numbers";

using Model = std::map<uint64_t, uint64_t>;

// One node record, decoded by the test itself from its 24 bytes.
struct Record {
  uint32_t right, left;
  uint64_t key, value;
};

class AVLTest : public olibtest::ArenaTest {
 public:
  void Open(uint32_t flags = VM_FLAG_CREATE) {
    ASSERT_NO_FATAL_FAILURE(MustOpenArena(flags));
    ASSERT_NE(dict = QWDBAVLLDictNew(arena, kPath, kName, 0), nullptr) << QWErrorMessage();
  }
  void FreeStructures() override {
    QWDBAVLLDictDelete(dict);
    dict = nullptr;
  }
  void Reopen() {
    CloseAll();
    Open(0);
  }
  bool Commit() { return CommitArena(); }

  uint32_t NodeArray(uint32_t gen = NEWGEN) { return Named(std::string(kPath) + "/" + kName + "/node", gen); }
  uint32_t NodeCount(uint32_t gen = NEWGEN) { return VMAArrayLength_(arena, NodeArray(gen), gen); }
  Record ReadRecord(uint32_t index, uint32_t gen = NEWGEN) {
    uint32_t id = NodeArray(gen), end = 0;
    auto *at = static_cast<uint8_t *>(VMAArrayRange_(arena, id, 0, 8192, index, &end, gen, 1, 24, 0));
    Record r{};
    EXPECT_NE(at, nullptr) << QWErrorMessage();
    if (!at) return r;
    using olibtest::LE;
    r = {uint32_t(LE(at, 0, 4)), uint32_t(LE(at, 4, 4)), LE(at, 8, 8), LE(at, 16, 8)};
    VMAArrayRelease_(arena, id, at, 1);
    return r;
  }
  void WriteRecord(uint32_t index, const Record &r) {
    const uint32_t id = NodeArray();
    Poke(id, index, 24, 0, r.right, 4);
    Poke(id, index, 24, 4, r.left, 4);
    Poke(id, index, 24, 8, r.key, 8);
    Poke(id, index, 24, 16, r.value, 8);
  }

  std::vector<std::pair<uint64_t, uint64_t>> Entries(uint32_t gen, bool descending = false) {
    std::vector<std::pair<uint64_t, uint64_t>> out;
    auto collect = [](QWDBAVLLDict *, uint64_t key, uint64_t value, void *context) {
      static_cast<std::vector<std::pair<uint64_t, uint64_t>> *>(context)->emplace_back(key, value);
      return 1;
    };
    EXPECT_EQ(QWDBAVLLDictEnumerate(dict, descending ? 1 : 0, collect, &out, gen), 1) << QWErrorMessage();
    return out;
  }
  // The dictionary in `gen` holds exactly the model, and is a sound AVL tree.
  void ExpectSame(const Model &model, uint32_t gen) {
    ASSERT_EQ(QWDBAVLLDictSize(dict, gen), model.size()) << "gen " << gen;
    ASSERT_EQ(DBAVLLCheck(dict, gen), 1) << QWErrorMessage();
    std::vector<std::pair<uint64_t, uint64_t>> expected(model.begin(), model.end());
    ASSERT_EQ(Entries(gen), expected) << "gen " << gen;
  }

  QWDBAVLLDict *dict = nullptr;
};

}  // namespace avltest
