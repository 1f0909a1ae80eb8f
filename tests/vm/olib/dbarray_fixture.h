// Fixture of the block-directory array tests: an arena in a fresh directory,
// an array on it, and helpers that read elements, blocks and check reports.
#pragma once

#include <cstdint>
#include <cstring>
#include <optional>
#include <string>
#include <vector>

#include "qwvm/qwvm.h"
#include "support/test_support.h"

namespace dbatest {

inline constexpr const char *kPath = "words";

class DBArrayTest : public qwtest::CachedTempDirTest {
 protected:

 public:  // the helpers are also used by table entries outside the fixture
  std::string arenaDir() const { return path("arena"); }

  VMArena *OpenArena(uint32_t flags = VM_FLAG_CREATE) {
    return VMArenaOpen(arenaDir().c_str(), flags, 2, STATUS_NO_SERIAL, STATUS_NO_SERIAL, nullptr, cache);
  }
  DBArray *OpenArray(VMArena *on, uint32_t buckets, int allowCreate = 1) {
    int created = allowCreate;
    return DBArrayNew(on, &pathBuffer, kPath, &created, 0, buckets);
  }
  // Opens the arena and the array into `arena` and `array`.
  void Open(uint32_t buckets) {
    arena = OpenArena();
    ASSERT_NE(arena, nullptr) << QWErrorMessage();
    array = OpenArray(arena, buckets);
    ASSERT_NE(array, nullptr) << QWErrorMessage();
  }
  void CloseAll() override {
    DBArrayFree(array);
    array = nullptr;
    if (arena) VMArenaClose(arena);
    arena = nullptr;
  }
  // Commits the arena and then the array.
  bool Commit() {
    if (!VMArenaCommit(arena, nullptr, nullptr, 0)) return false;
    return DBArrayCommit(array) == 1;
  }

  // Element `handle` as a string; nullopt when DBArrayGet returns NULL.
  std::optional<std::string> Read(uint32_t bucket, uint32_t handle, uint32_t gen = NEWGEN) {
    uint32_t length = 99;
    const void *bytes = DBArrayGet(array, bucket, handle, gen, 1, &length);
    if (!bytes) {
      EXPECT_EQ(length, 0u);
      return std::nullopt;
    }
    std::string value(static_cast<const char *>(bytes), length);
    DBArrayRelease(array, gen, 1, bytes);
    return value;
  }
  // Element as the model sees it: absent and empty both read as "".
  std::string ReadOrEmpty(uint32_t bucket, uint32_t handle, uint32_t gen = NEWGEN) {
    return Read(bucket, handle, gen).value_or("");
  }
  uint32_t Add(uint32_t bucket, const std::string &value) {
    return DBArrayAdd(array, bucket, value.data(), uint32_t(value.size()), NEWGEN);
  }

  // The id of one of the bucket's arrays ("data", "index", "firstHandle").
  uint32_t ArrayId(const char *word, uint32_t bucket, uint32_t gen = NEWGEN) {
    char name[128];
    std::snprintf(name, sizeof name, "%s/dbarray/%s%04x", kPath, word, bucket);
    int create = 0;
    return VMAArrayFind(arena, gen, name, uint32_t(std::strlen(name)), 1, &create, 0, 0);
  }
  // The 32-bit entries of the bucket's index or firstHandle array.
  std::vector<uint32_t> Entries(const char *word, uint32_t bucket, uint32_t gen = NEWGEN) {
    uint32_t id = ArrayId(word, bucket, gen);
    std::vector<uint32_t> values(VMAArrayLength_(arena, id, gen));
    for (uint32_t i = 0; i < values.size(); ++i) {
      uint32_t end = 0;
      auto *at = static_cast<uint8_t *>(VMAArrayRange_(arena, id, 0, 8192, i, &end, gen, 1, 4, 0));
      EXPECT_NE(at, nullptr);
      if (!at) break;
      values[i] = uint32_t(at[0]) | uint32_t(at[1]) << 8 | uint32_t(at[2]) << 16 | uint32_t(at[3]) << 24;
      VMAArrayRelease_(arena, id, at, 1);
    }
    return values;
  }
  uint32_t BlockCount(uint32_t bucket, uint32_t gen = NEWGEN) {
    return VMABlockArrayBlockCount_(arena, ArrayId("data", bucket, gen), gen);
  }
  // The bytes of data block n.
  std::string BlockBytes(uint32_t bucket, uint32_t n, uint32_t gen = NEWGEN) {
    uint32_t id = ArrayId("data", bucket, gen), size = 0;
    auto *bytes = static_cast<const char *>(VMABlockArrayGet_(arena, id, 0, n, gen, 1, &size));
    EXPECT_NE(bytes, nullptr) << QWErrorMessage();
    if (!bytes) return "";
    std::string copy(bytes, size);
    VMAArrayRelease_(arena, id, const_cast<char *>(bytes), 1);
    return copy;
  }
  // Overwrites `bytes` at `offset` of data block n (new generation).
  void PokeBlock(uint32_t bucket, uint32_t n, uint32_t offset, const std::string &bytes) {
    uint32_t id = ArrayId("data", bucket), size = 0;
    uint64_t blockId = VMABlockArrayBlockIDGet_(arena, id, n, NEWGEN);
    auto *data = static_cast<char *>(VMArenaDataAcquire(arena, blockId, 0, NEWGEN, 0, &size, nullptr));
    ASSERT_NE(data, nullptr) << QWErrorMessage();
    ASSERT_LE(offset + bytes.size(), size);
    std::memcpy(data + offset, bytes.data(), bytes.size());
    VMArenaDataRelease(arena, blockId, 0, data, 0, 0);
  }
  // "physBucket = %d, physID = %d" of data block n.
  std::string Phys(uint32_t bucket, uint32_t n) {
    uint32_t server = 0, serverBlock = 0;
    uint64_t blockId = VMABlockArrayBlockIDGet_(arena, ArrayId("data", bucket), n, NEWGEN);
    EXPECT_TRUE(VMABlockInfoGet(arena, blockId, nullptr, &server, &serverBlock, nullptr));
    return "physBucket = " + std::to_string(server) + ", physID = " + std::to_string(serverBlock);
  }

  // Runs DBArrayCheck; returns the messages other than the per-bucket
  // block counts and the closing "Done !". Fails the test when the result
  // disagrees with the messages.
  std::vector<std::string> CheckProblems(uint32_t gen = NEWGEN) {
    qwtest::MessageCapture capture;
    uint32_t problems = DBArrayCheck(array, gen);
    std::vector<std::string> others;
    uint32_t bucketLines = 0;
    bool done = false;
    for (const qwtest::CapturedMessage &m : capture.messages()) {
      std::string expect = "bucketIndex = " + std::to_string(bucketLines) + ": blockCount = ";
      if (m.text.rfind(expect, 0) == 0 && m.text.back() == '\n') {
        ++bucketLines;
      } else if (m.text == "Done !\n") {
        done = true;
      } else {
        others.push_back(m.text);
      }
    }
    EXPECT_TRUE(done);
    EXPECT_EQ(bucketLines, DBArrayBucketCount(array));
    EXPECT_EQ(problems, others.size());
    return others;
  }

  VMArena *arena = nullptr;
  DBArray *array = nullptr;
};

// A deterministic string of `length` bytes for (seed, length).
inline std::string Pattern(uint32_t seed, uint32_t length) {
  std::string value(length, '\0');
  for (uint32_t i = 0; i < length; ++i) value[i] = char((seed * 131u + i * 7u + (i >> 5)) & 0xFF);
  return value;
}

}  // namespace dbatest
