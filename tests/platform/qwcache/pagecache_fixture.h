// Shared fixture of the page cache tests: a cache, files filled with a reproducible pattern and registered in it, and
// the files' bytes as the disk has them (read past the cache).
#pragma once

#include <cstdint>
#include <cstring>
#include <fstream>
#include <string>
#include <vector>

#include "platform/checks.h"

namespace qwtest {

constexpr uint32_t kPage = 8192;

// `size` bytes of the pattern numbered `seed`, from `offset` on.
inline std::string Pattern(uint32_t seed, uint64_t offset, size_t size) {
  std::string bytes(size, '\0');
  for (size_t i = 0; i < size; ++i) {
    uint64_t x = (offset + i + 1) * 0x9E3779B97F4A7C15ULL + seed * 0xD1B54A32D192ED03ULL;
    bytes[i] = static_cast<char>((x ^ (x >> 29)) & 0xFF);
  }
  return bytes;
}

inline std::string Bytes(const void *page, size_t size = kPage) {
  return std::string(static_cast<const char *>(page), size);
}

class PageCacheTest : public FaultTempDirTest {
 protected:
  struct File {
    std::string path;
    QWFILE handle = QWFILE_INVALID;
    uint16_t id = PAGECACHE_INVALID_FILE;
  };

  void TearDown() override {
    qw::fault::Disable();
    for (File &file : files_) {
      EXPECT_TRUE(!cache_ || file.id == PAGECACHE_INVALID_FILE || PageCacheUnregisterFile(cache_, file.id));
      QWFileClose(file.handle);
    }
    PageCacheFree(cache_);
    FaultTempDirTest::TearDown();
  }

  void MakeCache(uint64_t pages) { ASSERT_NE(cache_ = PageCacheNew(pages * kPage, kPage), nullptr) << QWErrorMessage(); }
  // Creates `name` holding `size` bytes of pattern `seed`, opens it read-write and registers it; returns its index.
  size_t AddFile(const std::string &name, uint64_t size, uint32_t seed) {
    File file{path(name)};
    WriteFileBytes(file.path, Pattern(seed, 0, size));
    EXPECT_EQ(QWFileOpen(&file.handle, file.path.c_str(), QWFILE_READ | QWFILE_WRITE), 1) << QWErrorMessage();
    file.id = PageCacheRegisterFile(cache_, file.handle);
    EXPECT_NE(file.id, PAGECACHE_INVALID_FILE) << QWErrorMessage();
    files_.push_back(file);
    return files_.size() - 1;
  }

  uint16_t Id(size_t index) const { return files_[index].id; }

  // Unregisters the file and forgets its id (the handle stays open).
  void Unregister(size_t index) {
    ASSERT_EQ(PageCacheUnregisterFile(cache_, files_[index].id), 1) << QWErrorMessage();
    files_[index].id = PAGECACHE_INVALID_FILE;
  }

  std::string Disk(size_t index, uint64_t offset, size_t size = kPage) const {
    return ReadFileBytes(files_[index].path).substr(offset, size);
  }

  // Changes the file underneath the cache.
  void DiskWrite(size_t index, uint64_t offset, const std::string &bytes) const {
    std::fstream file(files_[index].path, std::ios::binary | std::ios::in | std::ios::out);
    file.seekp(std::streamoff(offset)).write(bytes.data(), std::streamsize(bytes.size()));
  }

  PageCacheStats Stats() const {
    PageCacheStats stats;
    EXPECT_EQ(PageCacheGetStats(cache_, &stats), 1);
    return stats;
  }

  // Reads a page through the cache, pinned; fails the test on error.
  void *ReadPage(size_t index, uint64_t offset) {
    void *page = nullptr;
    EXPECT_EQ(PageCacheRead(cache_, files_[index].id, offset, &page), 1) << QWErrorMessage();
    return page;
  }

  void Release(void *page, int dirty = 0) { PageCacheRelease(cache_, page, dirty, 0, 0); }

  // Whether page `p` of the file is in the cache (looked up without loading).
  bool Resident(size_t index, uint64_t p) {
    void *page = PageCacheLookup(cache_, files_[index].id, p * kPage, 0, nullptr);
    if (page) Release(page);
    return page != nullptr;
  }

  // Thread-safe (no assertion inside): reads page `p`, compares it with `expected`, releases it with hint `keep`.
  bool ReadMatches(size_t index, uint64_t p, const std::string &expected, int keep = 0) {
    void *page = nullptr;
    if (!PageCacheRead(cache_, files_[index].id, p * kPage, &page)) return false;
    const bool same = Bytes(page) == expected;
    PageCacheRelease(cache_, page, 0, keep, 0);
    return same;
  }

  // Overwrites a whole page through the cache and releases it dirty.
  void WritePage(size_t index, uint64_t offset, const std::string &bytes) {
    void *page = ReadPage(index, offset);
    ASSERT_NE(page, nullptr);
    std::memcpy(page, bytes.data(), kPage);
    Release(page, 1);
  }

  PageCache *cache_ = nullptr;
  std::vector<File> files_;
};

}  // namespace qwtest
