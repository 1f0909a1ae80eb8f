// Memory mapping: writes through a mapping reach the file, segments at offsets, refusal of bad segments (a short file
// must not turn into SIGBUS), advice and loading.
#include <unistd.h>

#include <cerrno>
#include <cstring>

#include "platform/checks.h"

namespace {

class MappingTest : public qwtest::TempDirTest {
 protected:
  const uint64_t page = PageSize();
  // A file of `pages` pages, page i filled with the letter 'a' + i.
  QWFILE MakeFile(const std::string &name, int pages, uint32_t mode = QWFILE_READ | QWFILE_WRITE) {
    std::string content;
    for (int i = 0; i < pages; ++i) content += std::string(page, char('a' + i));
    qwtest::WriteFileBytes(path(name), content);
    QWFILE file = QWFILE_INVALID;
    EXPECT_EQ(QWFileOpen(&file, path(name).c_str(), mode), 1) << QWErrorMessage();
    return file;
  }
};

TEST_F(MappingTest, WriteSyncAdviseAndRereadThroughTheFile) {
  ASSERT_EQ(page, uint64_t(sysconf(_SC_PAGESIZE)));
  QWFILE file = MakeFile("f", 4);
  auto *segment = static_cast<char *>(FileMapSegment(file, page, 2 * page, QW_MAP_READ | QW_MAP_WRITE));
  ASSERT_TRUE(segment && std::string() + segment[0] + segment[2 * page - 1] == "bc") << QWErrorMessage();  // pages 1, 2
  std::memcpy(segment + 10, "mapped", 6);
  std::memcpy(segment + page + 100, "second", 6);
  ASSERT_EQ(FileMapSync(segment + 10, 6), 1) << QWErrorMessage();  // unaligned range
  for (int a : {QW_ADVICE_NORMAL, QW_ADVICE_RANDOM, QW_ADVICE_SEQUENTIAL, QW_ADVICE_WILLNEED})
    EXPECT_EQ(MemoryAdvise(segment + 5, page, a), 1) << a << ": " << QWErrorMessage();
  MemoryLoad(segment + 7, 2 * page - 7);
  MemoryLoad(segment, 0);
  ASSERT_EQ(FileMapSync(segment, 2 * page), 1);
  // DONTNEED on a shared file mapping drops pages, not data.
  EXPECT_EQ(MemoryAdvise(segment, 2 * page, QW_ADVICE_DONTNEED), 1);
  EXPECT_EQ(std::string(segment + page + 100, 6), "second");
  EXPECT_TRUE(qwtest::Fails(MemoryAdvise(segment, page, 99), EINVAL));
  char back[6];
  ASSERT_EQ(QWFileReadExact(file, page + 10, back, 6), 1);
  EXPECT_EQ(std::string(back, 6), "mapped");
  ASSERT_EQ(FileUnmap(segment, 2 * page), 1);
  EXPECT_TRUE(qwtest::Fails(FileUnmap(nullptr, page), EINVAL));
  // Bytes written by pwrite are visible through a new read-only mapping.
  ASSERT_EQ(QWFileWriteData(file, 3 * page + 1, "pw", 2), 1);
  auto *whole = static_cast<char *>(FileMapSegment(file, 0, 4 * page, QW_MAP_READ));
  ASSERT_NE(whole, nullptr);
  EXPECT_EQ(std::string(whole + 3 * page, 3) + std::string(whole + page + 9, 7) + whole[0], "dpwbmappeda");
  ASSERT_EQ(FileUnmap(whole, 4 * page), 1);
  ASSERT_EQ(QWFileClose(file), 1);
  const std::string disk = qwtest::ReadFileBytes(path("f"));
  ASSERT_EQ(disk.size(), 4 * page);
  EXPECT_EQ(disk.substr(page + 10, 6) + disk.substr(2 * page + 100, 6), "mappedsecond");
}

TEST_F(MappingTest, BadSegmentsAreRefused) {
  QWFILE file = MakeFile("f", 2);
  const struct {
    uint64_t offset, length;
    uint32_t access;
  } cases[] = {
      {100, page, QW_MAP_READ},       // unaligned offset
      {0, 0, QW_MAP_READ},            // empty
      {page, 2 * page, QW_MAP_READ},  // past the end
      {4 * page, page, QW_MAP_READ},  // offset past the end
      {0, page, 4u},                  // unknown access bit
  };
  for (const auto &c : cases)
    EXPECT_TRUE(qwtest::Fails(FileMapSegment(file, c.offset, c.length, c.access), EINVAL,
                              "could not map file \"" + path("f") + "\"", qwtest::Match::Prefix))
        << c.offset << " " << c.length;
  EXPECT_TRUE(qwtest::Fails(FileMapSegment(QWFILE_INVALID, 0, page, QW_MAP_READ), EINVAL));
  ASSERT_EQ(QWFileClose(file), 1);
  // Writable mapping of a read-only descriptor: the system refuses it.
  file = MakeFile("ro", 1, QWFILE_READ);
  EXPECT_TRUE(qwtest::Fails(FileMapSegment(file, 0, page, QW_MAP_WRITE), EACCES));
  ASSERT_EQ(QWFileClose(file), 1);
}

TEST_F(MappingTest, RemapGrowsAndShrinksKeepingTheBytes) {
  QWFILE file = MakeFile("f", 4);
  auto *segment = static_cast<char *>(FileMapSegment(file, 0, page, QW_MAP_READ | QW_MAP_WRITE));
  ASSERT_NE(segment, nullptr);
  segment[7] = 'W';  // not yet synced: the remapped segment must still see it
  auto *grown = static_cast<char *>(FileRemapSegment(file, segment, 0, page, 3 * page, QW_MAP_READ | QW_MAP_WRITE));
  ASSERT_NE(grown, nullptr) << QWErrorMessage();
  EXPECT_EQ(std::string() + grown[7] + grown[2 * page], "Wc");
  grown[2 * page + 1] = 'X';
  // Past the end of the file: refused, and the segment stays usable.
  QWErrorClear();
  EXPECT_TRUE(qwtest::Fails(FileRemapSegment(file, grown, 0, 3 * page, 5 * page, QW_MAP_READ | QW_MAP_WRITE), EINVAL));
  EXPECT_EQ(grown[2 * page + 1], 'X');
  auto *shrunk = static_cast<char *>(FileRemapSegment(file, grown, 0, 3 * page, page, QW_MAP_READ | QW_MAP_WRITE));
  ASSERT_NE(shrunk, nullptr) << QWErrorMessage();
  EXPECT_EQ(shrunk[7], 'W');
  ASSERT_EQ(FileUnmap(shrunk, page), 1);
  ASSERT_EQ(QWFileClose(file), 1);
  const std::string bytes = qwtest::ReadFileBytes(path("f"));
  EXPECT_EQ(std::string() + bytes[7] + bytes[2 * page + 1], "WX");
}

}  // namespace
