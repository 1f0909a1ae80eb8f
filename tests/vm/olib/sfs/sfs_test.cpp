// Small file store: files of every size across commits and reopenings, the handle's generation bit, record gaps and
// reuse, and readers of the committed generation beside a writer.
#include <map>

#include "vm/olib/olib_fixture.h"

namespace {

using olibtest::Pattern;

class SFSTest : public qwtest::TempDirTest {
 protected:
  void TearDown() override {
    if (store) SFSClose(store);
    ArrayFree(buffer);
    qwtest::TempDirTest::TearDown();
  }
  void Open(int writable = 1) {
    if (store) SFSClose(store);
    ASSERT_NE(store = SFSOpen(path("store").c_str(), writable, 0, 2, nullptr), nullptr) << QWErrorMessage();
  }
  uint32_t Put(const std::string &name, const std::string &bytes) {
    EXPECT_TRUE(SFSAcquire(store, 0));
    const uint32_t handle = SFSHandleGet(store, name.data(), uint32_t(name.size()), 1, NEWGEN);
    EXPECT_NE(handle, SFS_NO_HANDLE) << QWErrorMessage();
    EXPECT_EQ(handle & 1, 1u);
    EXPECT_EQ(SFSSet(store, handle, bytes.data(), uint32_t(bytes.size())), 1) << QWErrorMessage();
    EXPECT_TRUE(SFSRelease(store, 0));
    return handle;
  }
  // The file's bytes in genID; "<absent>" when the path is not there.
  std::string Get(const std::string &name, uint32_t genID) {
    const uint32_t handle = SFSHandleGet(store, name.data(), uint32_t(name.size()), 0, genID);
    if (handle == SFS_NO_HANDLE) return "<absent>";
    EXPECT_EQ(handle & 1, genID == NEWGEN ? 1u : 0u);
    EXPECT_TRUE(SFSGetArray(store, handle, &buffer, 0)) << QWErrorMessage();
    return std::string(reinterpret_cast<const char *>(buffer), ArrayLength(buffer));
  }
  SFS *store = nullptr;
  uint8_t *buffer = nullptr;
};

TEST_F(SFSTest, FilesOfEverySizeSurviveCommitAndReopen) {
  Open();
  const uint32_t sizes[] = {0, 1, 4089, 4090, 4091, 8192, 20000, 100000, 3u << 20};
  std::map<std::string, std::string> model;
  for (uint32_t i = 0; i < std::size(sizes); ++i) {
    const std::string name = "dir/f" + std::to_string(i);
    Put(name, model[name] = Pattern(i, sizes[i], 9));
  }
  for (const auto &[name, bytes] : model) EXPECT_EQ(Get(name, NEWGEN), bytes) << name;
  EXPECT_EQ(Get("dir/f1", OLDGEN), "<absent>");
  ASSERT_TRUE(SFSCommit(store)) << QWErrorMessage();
  Put("dir/f2", "changed");  // OLDGEN keeps the committed bytes
  EXPECT_EQ(Get("dir/f2", OLDGEN), model["dir/f2"]);
  EXPECT_EQ(Get("dir/f2", NEWGEN), "changed");
  Open(0);  // read-only: the uncommitted change is gone
  for (const auto &[name, bytes] : model) EXPECT_EQ(Get(name, OLDGEN), bytes) << name;
  std::vector<std::string> listed;
  auto list = [](void *context, const char *path, uint32_t length, uint32_t) {
    static_cast<std::vector<std::string> *>(context)->emplace_back(path, length);
    return 1;
  };
  ASSERT_TRUE(SFSList(store, "dir", 3, OLDGEN, list, &listed));
  EXPECT_EQ(listed.size(), model.size());
}

TEST_F(SFSTest, HandlesAndRecords) {
  EXPECT_EQ(SFSOpen(path("nothing").c_str(), 0, 0, 2, nullptr), nullptr);
  EXPECT_NE(std::string(QWErrorMessage()).find("SFSOpen:cannot open arena in directory"), std::string::npos)
      << QWErrorMessage();
  QWErrorClear();
  Open();
  const uint32_t handle = Put("a", "x");
  uint32_t end = 7, length = 7;
  EXPECT_EQ(SFSGet(store, (99u << 1) | 1, 0, &end, &length), nullptr);  // beyond the records of its generation
  EXPECT_EQ(std::make_pair(end, length), std::make_pair(0u, 0u));
  EXPECT_EQ(SFSGet(store, handle, 1, &end, &length), nullptr);  // at the end of a file: end = offset
  EXPECT_EQ(std::make_pair(end, length), std::make_pair(1u, 1u));
  ASSERT_EQ(Get("a", NEWGEN), "x");  // reading whole: appended on request, nothing past the records
  EXPECT_EQ(SFSGetArray(store, handle, &buffer, 1), 1);
  EXPECT_EQ(std::string(reinterpret_cast<const char *>(buffer), ArrayLength(buffer)), "xx");
  EXPECT_EQ(SFSGetArray(store, (99u << 1) | 1, &buffer, 0), 1);
  EXPECT_EQ(ArrayLength(buffer), 0u);
  EXPECT_EQ(SFSSet(store, SFS_NO_HANDLE, "y", 1), 0);
  EXPECT_EQ(SFSHandleGet(store, "missing", 7, 0, NEWGEN), SFS_NO_HANDLE);
  EXPECT_FALSE(QWErrorIsSet());
  ASSERT_TRUE(SFSCommit(store));
  const uint32_t old = SFSHandleGet(store, "a", 1, 0, OLDGEN);
  EXPECT_EQ(old, handle & ~1u);
  EXPECT_DEATH(SFSSet(store, old, "y", 1), "genID == NEWGEN");
  EXPECT_DEATH(SFSHandleGet(store, "b", 1, 1, OLDGEN), "!create");
}

TEST_F(SFSTest, GapsAreFilledAndFreeIDsKeepTheirRecord) {
  Open();
  VMArena *arena = SFSArenaGet(store);
  Put("first", "one");
  // Move the counter far ahead: the next file fills the gap with empty records.
  VMAArrayHandle params, free;
  ASSERT_TRUE(VMAArrayInitFromPath(&params, arena, "params", nullptr));
  ASSERT_TRUE(VMAArrayInitFromPath(&free, arena, "free", nullptr));
  uint32_t end = 0;
  auto *counter = static_cast<uint32_t *>(VMAArrayRange_(arena, params.id[0], 0, 8192, 0, &end, NEWGEN, 0, 4, 0));
  ASSERT_NE(counter, nullptr);
  *counter = 50;
  VMAArrayRelease_(arena, params.id[0], counter, 0);
  const uint32_t far = Put("far", "fifty");
  EXPECT_EQ(far >> 1, 50u);
  uint32_t length = 0;
  EXPECT_EQ(SFSGet(store, (49u << 1) | 1, 0, &end, &length), nullptr);
  EXPECT_EQ(length, 0u);  // an empty record, not a missing one
  // A freed ID comes back first and keeps its old bytes until overwritten.
  const uint32_t zero = 0;
  ASSERT_TRUE(VMAArrayAppend_(arena, free.id[0], 0, 8192, &zero, 1, NEWGEN, 4));
  ASSERT_TRUE(SFSAcquire(store, 0));
  const uint32_t reused = SFSHandleGet(store, "again", 5, 1, NEWGEN);
  ASSERT_TRUE(SFSRelease(store, 0));
  EXPECT_EQ(reused >> 1, 0u);
  EXPECT_EQ(Get("again", NEWGEN), "one");
}

// Readers of the committed generation never see a file half written or a version that was not committed, while one
// writer sets and commits.
TEST_F(SFSTest, ConcurrencyReadersOfTheCommittedGenerationBesideAWriter) {
  Open();
  constexpr int kFiles = 8;
  for (int f = 0; f < kFiles; ++f) Put("f" + std::to_string(f), std::string(1000 + f * 3000, char(0)));
  ASSERT_TRUE(SFSCommit(store));
  std::atomic<int> committedVersion{0}, committingVersion{0};
  const uint32_t bad = olibtest::ReadersBesideWriter(
      nullptr, 3, 20,
      [&](std::mt19937 &rng) {
        uint8_t *local = nullptr;
        const int before = committedVersion;
        const std::string name = "f" + std::to_string(rng() % kFiles);
        bool ok = SFSAcquire(store, 1);
        const uint32_t handle = SFSHandleGet(store, name.data(), uint32_t(name.size()), 0, OLDGEN);
        ok &= handle != SFS_NO_HANDLE && SFSGetArray(store, handle, &local, 0);
        ok &= SFSRelease(store, 1) && ArrayLength(local) > 0;
        const int version = ok ? local[0] : -1;
        for (size_t i = 0; ok && i < ArrayLength(local); ++i) ok = local[i] == version;  // not torn
        ArrayFree(local);
        return ok && version >= before && version <= committingVersion.load();
      },
      [&] {
        for (int version = 1; version <= 20; ++version) {
          for (int f = 0; f < kFiles; ++f) Put("f" + std::to_string(f), std::string(1000 + f * 3000, char(version)));
          committingVersion = version;
          ASSERT_TRUE(SFSCommit(store)) << QWErrorMessage();
          committedVersion = version;
        }
      });
  EXPECT_EQ(bad, 0u);
}

}  // namespace
