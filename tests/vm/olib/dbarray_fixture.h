// Fixture of the block-directory array tests: an array on the shared arena fixture, and readers of its elements,
// blocks, directory and check report.
#pragma once

#include <optional>

#include "vm/olib/olib_fixture.h"

namespace dbatest {

using olibtest::Pattern;
using Buckets = std::vector<std::vector<std::string>>;
inline constexpr const char *kPath = "words";

class DBArrayTest : public olibtest::ArenaTest {
 public:  // the helpers are also used by table entries outside the fixture
  DBArray *OpenArray(uint32_t buckets, int allowCreate = 1) {
    int created = allowCreate;
    return DBArrayNew(arena, &pathBuffer, kPath, &created, 0, buckets);
  }
  void Open(uint32_t buckets, uint32_t flags = VM_FLAG_CREATE) {
    ASSERT_NO_FATAL_FAILURE(MustOpenArena(flags));
    array = OpenArray(buckets);
    ASSERT_NE(array, nullptr) << QWErrorMessage();
  }
  void FreeStructures() override {
    DBArrayFree(array);
    array = nullptr;
  }
  bool Commit() { return CommitArena() && DBArrayCommit(array) == 1; }

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
  // Absent and empty both read as "".
  std::string ReadOrEmpty(uint32_t bucket, uint32_t handle, uint32_t gen = NEWGEN) {
    return Read(bucket, handle, gen).value_or("");
  }
  uint32_t Add(uint32_t bucket, const std::string &value) {
    return DBArrayAdd(array, bucket, value.data(), uint32_t(value.size()), NEWGEN);
  }
  Buckets Contents(uint32_t gen) {
    Buckets contents(DBArrayBucketCount(array));
    for (uint32_t b = 0; b < contents.size(); ++b)
      for (uint32_t h = 0, n = DBArraySize(array, b, gen); h < n; ++h) contents[b].push_back(ReadOrEmpty(b, h, gen));
    return contents;
  }

  // One of the bucket's arrays ("data", "index", "firstHandle").
  uint32_t ArrayId(const char *word, uint32_t bucket, uint32_t gen = NEWGEN) {
    char name[128];
    std::snprintf(name, sizeof name, "%s/dbarray/%s%04x", kPath, word, bucket);
    return Named(name, gen);
  }
  std::vector<uint64_t> Entries(const char *word, uint32_t bucket) { return Elements(ArrayId(word, bucket), 4); }
  uint32_t BlockCount(uint32_t bucket, uint32_t gen = NEWGEN) {
    return VMABlockArrayBlockCount_(arena, ArrayId("data", bucket, gen), gen);
  }
  std::string BlockBytes(uint32_t bucket, uint32_t n) {
    uint32_t id = ArrayId("data", bucket), size = 0;
    auto *bytes = static_cast<const char *>(VMABlockArrayGet_(arena, id, 0, n, NEWGEN, 1, &size));
    EXPECT_NE(bytes, nullptr) << QWErrorMessage();
    if (!bytes) return "";
    std::string copy(bytes, size);
    VMAArrayRelease_(arena, id, const_cast<char *>(bytes), 1);
    return copy;
  }
  void PokeBlock(uint32_t bucket, uint32_t n, uint32_t offset, const std::string &bytes) {
    uint32_t size = 0;
    uint64_t blockId = VMABlockArrayBlockIDGet_(arena, ArrayId("data", bucket), n, NEWGEN);
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

  // Runs DBArrayCheck; returns the messages other than the per-bucket block counts and the closing "Done !", which it
  // checks, as it checks that the result counts the other messages.
  std::vector<std::string> CheckProblems(uint32_t gen = NEWGEN) {
    qwtest::MessageCapture capture;
    uint32_t problems = DBArrayCheck(array, gen), bucketLines = 0;
    std::vector<std::string> others;
    bool done = false;
    for (const qwtest::CapturedMessage &m : capture.messages()) {
      const std::string count = "bucketIndex = " + std::to_string(bucketLines) + ": blockCount = ";
      if (m.text.rfind(count, 0) == 0 && m.text.back() == '\n') ++bucketLines;
      else if (m.text == "Done !\n") done = true;
      else others.push_back(m.text);
    }
    EXPECT_TRUE(done);
    EXPECT_EQ(bucketLines, DBArrayBucketCount(array));
    EXPECT_EQ(problems, others.size());
    return others;
  }

  DBArray *array = nullptr;
};

}  // namespace dbatest
