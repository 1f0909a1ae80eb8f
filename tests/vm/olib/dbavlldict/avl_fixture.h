// Fixture of the AVL dictionary tests: an arena in a fresh directory, a
// dictionary on it, a std::map model, and raw access to the node records.
#pragma once

#include <cstdint>
#include <cstring>
#include <filesystem>
#include <map>
#include <string>
#include <vector>

#include "qwvm/qwvm.h"
#include "support/test_support.h"

namespace avltest {

inline constexpr const char *kPath = "dicts";
inline constexpr const char *kName = "numbers";

using Model = std::map<uint64_t, uint64_t>;

// One node record, decoded by the test itself from its 24 bytes.
struct Record {
  uint32_t right, left;
  uint64_t key, value;
};

class AVLTest : public qwtest::CachedTempDirTest {
 protected:

 public:
  std::string arenaDir() const { return path("arena"); }
  bool Tagged() const { return std::filesystem::exists(arenaDir() + "/corrupted"); }

  VMArena *OpenArena(uint32_t flags) {
    return VMArenaOpen(arenaDir().c_str(), flags | mapped, 2, STATUS_NO_SERIAL, STATUS_NO_SERIAL, nullptr, cache);
  }
  void Open(uint32_t flags = VM_FLAG_CREATE) {
    arena = OpenArena(flags);
    ASSERT_NE(arena, nullptr) << QWErrorMessage();
    dict = QWDBAVLLDictNew(arena, kPath, kName, 0);
    ASSERT_NE(dict, nullptr) << QWErrorMessage();
  }
  void CloseAll() override {
    QWDBAVLLDictDelete(dict);
    dict = nullptr;
    if (arena) VMArenaClose(arena);
    arena = nullptr;
  }
  void Reopen() {
    CloseAll();
    Open(0);
  }
  bool Commit() { return VMArenaCommit(arena, nullptr, nullptr, 0) == 1; }

  uint32_t NodeArray(uint32_t gen = NEWGEN) {
    std::string name = std::string(kPath) + "/" + kName + "/node";
    int create = 0;
    return VMAArrayFind(arena, gen, name.data(), uint32_t(name.size()), 1, &create, 0, 0);
  }
  uint32_t NodeCount(uint32_t gen = NEWGEN) { return VMAArrayLength_(arena, NodeArray(gen), gen); }
  Record ReadRecord(uint32_t index, uint32_t gen = NEWGEN) {
    uint32_t id = NodeArray(gen), end = 0;
    auto *at = static_cast<uint8_t *>(VMAArrayRange_(arena, id, 0, 8192, index, &end, gen, 1, 24, 0));
    Record r{};
    EXPECT_NE(at, nullptr) << QWErrorMessage();
    if (!at) return r;
    auto le = [at](int offset, int bytes) {
      uint64_t v = 0;
      for (int i = bytes - 1; i >= 0; --i) v = v << 8 | at[offset + i];
      return v;
    };
    r = {uint32_t(le(0, 4)), uint32_t(le(4, 4)), le(8, 8), le(16, 8)};
    VMAArrayRelease_(arena, id, at, 1);
    return r;
  }
  void WriteRecord(uint32_t index, const Record &r) {
    uint32_t id = NodeArray(), end = 0;
    auto *at = static_cast<uint8_t *>(VMAArrayRange_(arena, id, 0, 8192, index, &end, NEWGEN, 0, 24, 0));
    ASSERT_NE(at, nullptr) << QWErrorMessage();
    uint64_t fields[4] = {r.right, r.left, r.key, r.value};
    int offsets[4] = {0, 4, 8, 16}, sizes[4] = {4, 4, 8, 8};
    for (int f = 0; f < 4; ++f)
      for (int i = 0; i < sizes[f]; ++i) at[offsets[f] + i] = uint8_t(fields[f] >> (8 * i));
    VMAArrayRelease_(arena, id, at, 0);
  }

  // All entries in order, through QWDBAVLLDictEnumerate.
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

  uint32_t mapped = 0;  // VM_FLAG_MAPPED for the mapped-mode runs
  VMArena *arena = nullptr;
  QWDBAVLLDict *dict = nullptr;
};

}  // namespace avltest
