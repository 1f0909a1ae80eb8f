// Fixture of the large-element array tests: an array and its thread data on the shared arena fixture, readers by
// element and by ranges, the stored descriptors (through the block-directory array underneath) and a snapshot of the
// arena's block allocation.
#pragma once

#include <ostream>

#include "vm/arena/arena.h"
#include "vm/olib/olib_fixture.h"
#include "vm/lbs/server.h"

namespace ldbatest {

inline constexpr const char *kPath = "bodies";
// The underlying block-directory array's path.
inline constexpr const char *kElementsPath = "bodies/ldbarray";

inline std::string Pattern(uint32_t seed, uint32_t length) { return olibtest::Pattern(seed, length, 13); }

// Per server the blocks in use, per size class the free list and the partly used server block: equal snapshots mean the
// same blocks are allocated.
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

class LDBArrayTest : public olibtest::ArenaTest {
 protected:
  void SetUp() override {
    ArenaTest::SetUp();
    ASSERT_NE(threadData = LDBArrayThreadDataNew(), nullptr) << QWErrorMessage();
  }
  void TearDown() override {
    ArenaTest::TearDown();
    LDBArrayThreadDataFree(threadData);
    ArrayFree(buffer);
  }

 public:
  void Open(uint32_t buckets, uint32_t flags = VM_FLAG_CREATE) {
    ASSERT_NO_FATAL_FAILURE(MustOpenArena(flags));
    int created = 1;
    ASSERT_NE(array = LDBArrayNew(arena, &pathBuffer, kPath, &created, 0, buckets), nullptr) << QWErrorMessage();
  }
  void FreeStructures() override {
    LDBArrayFree(array);
    array = nullptr;
  }
  void Reopen(uint32_t buckets) {
    CloseAll();
    Open(buckets, 0);
  }
  bool Commit() { return CommitArena() && LDBArrayCommit(array) == 1; }

  uint32_t Add(uint32_t bucket, const std::string &value) {
    return LDBArrayAdd(array, threadData, bucket, value.data(), uint32_t(value.size()), NEWGEN);
  }
  bool Set(uint32_t bucket, uint32_t handle, const std::string &value) {
    return LDBArrayDataSet(array, threadData, bucket, handle, value.data(), uint32_t(value.size()), NEWGEN) == 1;
  }
  std::string Read(uint32_t bucket, uint32_t handle, uint32_t gen = NEWGEN) {
    EXPECT_EQ(LDBArrayGetArray(array, bucket, handle, &buffer, 0, gen), 1) << QWErrorMessage();
    return std::string(reinterpret_cast<const char *>(buffer), ArrayLength(buffer));
  }
  // The element range by range, each continuing the last, the total the same.
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

  // The raw element (a descriptor for an external one) through the block-directory array underneath.
  DBArray *ElementArray() {
    int created = 0;
    DBArray *elements = DBArrayNew(arena, &pathBuffer, kElementsPath, &created, 0, 1);
    EXPECT_NE(elements, nullptr) << QWErrorMessage();
    return elements;
  }
  std::string RawElement(uint32_t bucket, uint32_t handle, uint32_t gen = NEWGEN) {
    DBArray *elements = ElementArray();
    uint32_t length = 0;
    const void *bytes = DBArrayGet(elements, bucket, handle, gen, 1, &length);
    std::string raw = bytes ? std::string(static_cast<const char *>(bytes), length) : "";
    if (bytes) DBArrayRelease(elements, gen, 1, bytes);
    DBArrayFree(elements);
    return raw;
  }
  void SetRawElement(uint32_t bucket, uint32_t handle, const std::string &raw) {
    DBArray *elements = ElementArray();
    EXPECT_EQ(DBArraySet(elements, bucket, handle, NEWGEN, raw.data(), uint32_t(raw.size())), 1) << QWErrorMessage();
    DBArrayFree(elements);
  }
  static Descriptor Decode(const std::string &raw) {
    Descriptor d;
    d.bytes = raw.size();
    if (raw.size() < 8) return d;
    for (size_t at = 0; at + 8 < raw.size(); at += 8) d.ids.push_back(olibtest::LE(raw, at, 8));
    const uint64_t trailer = olibtest::LE(raw, raw.size() - 8, 8);
    d.total = trailer >> 1;
    d.level = uint32_t(trailer & 1);
    return d;
  }
  static std::string EncodeId(uint64_t id) {
    std::string bytes(8, '\0');
    for (size_t i = 0; i < 8; ++i) bytes[i] = char((id >> (8 * i)) & 0xFF);
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
  // The flag bit of (bucket, handle) as stored; -1 past the flag bytes.
  int FlagBit(uint32_t bucket, uint32_t handle) {
    const std::vector<uint64_t> bytes = Elements(std::string(kPath) + "/ldbarray/flag", 1);
    const uint64_t g = uint64_t(handle) * LDBArrayBucketCount(array) + bucket;
    return g / 8 >= bytes.size() ? -1 : int(bytes[g / 8] >> (g % 8) & 1);
  }

  LDBArray *array = nullptr;
  LDBArrayThreadData *threadData = nullptr;
  uint8_t *buffer = nullptr;
};

}  // namespace ldbatest
