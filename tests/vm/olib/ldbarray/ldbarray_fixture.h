// Fixture of the large-element array tests: an arena in a fresh directory,
// an array and a thread data record on it, readers by whole element and by
// ranges, a view of the stored descriptors (through the block-directory
// array underneath) and a snapshot of the arena's block allocation.
#pragma once

#include <cstdint>
#include <cstring>
#include <ostream>
#include <string>
#include <vector>

#include "qwvm/qwvm.h"
#include "support/test_support.h"
#include "vm/arena/arena.h"
#include "vm/lbs/server.h"

namespace ldbatest {

inline constexpr const char *kPath = "bodies";
// The underlying block-directory array's path.
inline constexpr const char *kElementsPath = "bodies/ldbarray";

// A deterministic string of `length` bytes for (seed, length).
inline std::string Pattern(uint32_t seed, uint32_t length) {
  std::string value(length, '\0');
  for (uint32_t i = 0; i < length; ++i) value[i] = char((seed * 131u + i * 7u + (i >> 13)) & 0xFF);
  return value;
}

// What the arena has handed out: per server the blocks in use, per size
// class the free list and the partly used server block. Equal snapshots mean
// that the same blocks are allocated.
struct Allocation {
  std::vector<uint64_t> values;
  bool operator==(const Allocation &) const = default;
  friend void PrintTo(const Allocation &a, std::ostream *out) {
    for (uint64_t v : a.values) *out << v << ' ';
  }
};

inline Allocation AllocationOf(VMArena *arena) {
  Allocation a;
  for (LocalBlockServer0 *server : arena->servers)
    a.values.push_back(qw::vm::LocalBlockServer0BlockCount(server) - server->rwGen.freeBlocks.size());
  for (const qw::vm::SizeClassState &c : arena->classes) {
    a.values.push_back(ArrayLength(c.freeList));
    a.values.push_back(c.currentBlock == INVALID_BLOCK_ID ? 0 : c.slotsUsed + 1);
  }
  return a;
}

// A decoded descriptor.
struct Descriptor {
  std::vector<uint64_t> ids;
  uint64_t total = 0;
  uint32_t level = 0;
  size_t bytes = 0;
};

class LDBArrayTest : public qwtest::CachedTempDirTest {
 protected:
  void SetUp() override {
    CachedTempDirTest::SetUp();
    threadData = LDBArrayThreadDataNew();
    ASSERT_NE(threadData, nullptr) << QWErrorMessage();
  }
  void TearDown() override {
    CachedTempDirTest::TearDown();
    LDBArrayThreadDataFree(threadData);
    ArrayFree(buffer);
  }

 public:
  std::string arenaDir() const { return path("arena"); }

  void Open(uint32_t buckets, uint32_t flags = VM_FLAG_CREATE) {
    arena = VMArenaOpen(arenaDir().c_str(), flags, 2, STATUS_NO_SERIAL, STATUS_NO_SERIAL, nullptr, cache);
    ASSERT_NE(arena, nullptr) << QWErrorMessage();
    int created = 1;
    array = LDBArrayNew(arena, &pathBuffer, kPath, &created, 0, buckets);
    ASSERT_NE(array, nullptr) << QWErrorMessage();
  }
  void CloseAll() override {
    LDBArrayFree(array);
    array = nullptr;
    if (arena) VMArenaClose(arena);
    arena = nullptr;
  }
  void Reopen(uint32_t buckets) {
    CloseAll();
    Open(buckets, 0);
  }
  bool Commit() { return VMArenaCommit(arena, nullptr, nullptr, 0) && LDBArrayCommit(array) == 1; }

  uint32_t Add(uint32_t bucket, const std::string &value) {
    return LDBArrayAdd(array, threadData, bucket, value.data(), uint32_t(value.size()), NEWGEN);
  }
  bool Set(uint32_t bucket, uint32_t handle, const std::string &value) {
    return LDBArrayDataSet(array, threadData, bucket, handle, value.data(), uint32_t(value.size()), NEWGEN) == 1;
  }
  // The whole element through LDBArrayGetArray.
  std::string Read(uint32_t bucket, uint32_t handle, uint32_t gen = NEWGEN) {
    EXPECT_EQ(LDBArrayGetArray(array, bucket, handle, &buffer, 0, gen), 1) << QWErrorMessage();
    return std::string(reinterpret_cast<const char *>(buffer), ArrayLength(buffer));
  }
  // The whole element range by range; checks that each range continues the
  // previous one and that the reported total stays the same.
  std::string ReadByRanges(uint32_t bucket, uint32_t handle, uint32_t gen = NEWGEN) {
    std::string value;
    uint32_t offset = 0, total = 0;
    for (;;) {
      uint32_t end = 0, reported = 0;
      auto *bytes = static_cast<const char *>(LDBArrayRange(array, bucket, handle, offset, &end, &reported, gen, 1));
      if (offset == 0) total = reported;
      EXPECT_EQ(reported, total);
      if (!bytes) {
        EXPECT_EQ(end, offset);
        break;
      }
      EXPECT_GT(end, offset);
      value.append(bytes, end - offset);
      LDBArrayRelease(array, gen, 1, const_cast<char *>(bytes));
      offset = end;
    }
    EXPECT_EQ(value.size(), total);
    return value;
  }

  // The raw element (a descriptor for an external one) through the
  // block-directory array underneath.
  std::string RawElement(uint32_t bucket, uint32_t handle, uint32_t gen = NEWGEN) {
    int created = 0;
    DBArray *elements = DBArrayNew(arena, &pathBuffer, kElementsPath, &created, 0, 1);
    EXPECT_NE(elements, nullptr) << QWErrorMessage();
    uint32_t length = 0;
    const void *bytes = DBArrayGet(elements, bucket, handle, gen, 1, &length);
    std::string raw = bytes ? std::string(static_cast<const char *>(bytes), length) : "";
    if (bytes) DBArrayRelease(elements, gen, 1, bytes);
    DBArrayFree(elements);
    return raw;
  }
  void SetRawElement(uint32_t bucket, uint32_t handle, const std::string &raw) {
    int created = 0;
    DBArray *elements = DBArrayNew(arena, &pathBuffer, kElementsPath, &created, 0, 1);
    ASSERT_NE(elements, nullptr) << QWErrorMessage();
    EXPECT_EQ(DBArraySet(elements, bucket, handle, NEWGEN, raw.data(), uint32_t(raw.size())), 1) << QWErrorMessage();
    DBArrayFree(elements);
  }
  static Descriptor Decode(const std::string &raw) {
    Descriptor d;
    d.bytes = raw.size();
    auto load = [&](size_t at) {
      uint64_t v = 0;
      for (int i = 7; i >= 0; --i) v = (v << 8) | uint8_t(raw[at + size_t(i)]);
      return v;
    };
    if (raw.size() < 8) return d;
    for (size_t at = 0; at + 8 < raw.size(); at += 8) d.ids.push_back(load(at));
    const uint64_t trailer = load(raw.size() - 8);
    d.total = trailer >> 1;
    d.level = uint32_t(trailer & 1);
    return d;
  }
  static std::string EncodeId(uint64_t id) {
    std::string bytes(8, '\0');
    for (int i = 0; i < 8; ++i) bytes[size_t(i)] = char((id >> (8 * i)) & 0xFF);
    return bytes;
  }
  // The class size of an arena block.
  uint32_t BlockSize(uint64_t id) {
    uint32_t size = 0;
    void *data = VMArenaDataAcquire(arena, id, 0, NEWGEN, 1, &size, nullptr);
    EXPECT_NE(data, nullptr) << QWErrorMessage();
    VMArenaDataRelease(arena, id, 1, data, 0, 0);
    return size;
  }
  // The flag bit of (bucket, handle) as stored.
  int FlagBit(uint32_t bucket, uint32_t handle) {
    const std::string name = std::string(kPath) + "/ldbarray/flag";
    int create = 0;
    const uint32_t id = VMAArrayFind(arena, NEWGEN, name.data(), uint32_t(name.size()), 1, &create, 0, 0);
    const uint64_t g = uint64_t(handle) * LDBArrayBucketCount(array) + bucket;
    if (g / 8 >= VMAArrayLength_(arena, id, NEWGEN)) return -1;
    uint32_t end = 0;
    auto *byte = static_cast<uint8_t *>(VMAArrayRange_(arena, id, 0, 8192, uint32_t(g / 8), &end, NEWGEN, 1, 1, 0));
    const int bit = (*byte >> (g % 8)) & 1;
    VMAArrayRelease_(arena, id, byte, 1);
    return bit;
  }

  VMArena *arena = nullptr;
  LDBArray *array = nullptr;
  LDBArrayThreadData *threadData = nullptr;
  uint8_t *buffer = nullptr;
};

}  // namespace ldbatest
