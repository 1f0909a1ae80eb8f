// Files, paths and directories of qwlib: round trips against a model,
// exact error codes and messages, directory listing.
#include <fcntl.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <random>
#include <set>
#include <string>
#include <vector>

#include "support/test_support.h"

namespace {

using qwtest::ReadFileBytes;
using qwtest::WriteFileBytes;

class QWFileTest : public qwtest::TempDirTest {
 protected:
  QWFILE OpenOrFail(const std::string &name, uint32_t mode) {
    QWFILE file = QWFILE_INVALID;
    EXPECT_EQ(QWFileOpen(&file, path(name).c_str(), mode), 1) << QWErrorMessage();
    return file;
  }
};

std::string Read(QWFILE file, uint64_t offset, size_t size, size_t *got) {
  std::string bytes(size, '\0');
  EXPECT_EQ(QWFileReadData(file, offset, bytes.data(), size, got), 1) << QWErrorMessage();
  bytes.resize(*got);
  return bytes;
}

TEST_F(QWFileTest, WriteReadSizeRoundTrip) {
  QWFILE file = OpenOrFail("f", QWFILE_READ | QWFILE_WRITE | QWFILE_CREATE);
  ASSERT_NE(file, QWFILE_INVALID);
  EXPECT_STREQ(QWFileGetPath(file), path("f").c_str());
  EXPECT_GE(QWFileGetIntHandle(file), 0);

  ASSERT_EQ(QWFileWriteData(file, 0, "hello", 5), 1);
  ASSERT_EQ(QWFileWriteData(file, 8, "XY", 2), 1);  // leaves a hole of zeros
  uint64_t size = 0;
  ASSERT_EQ(QWFileGetSize(file, &size), 1);
  EXPECT_EQ(size, 10u);

  size_t got = 0;
  EXPECT_EQ(Read(file, 0, 10, &got), std::string("hello\0\0\0XY", 10));
  EXPECT_EQ(Read(file, 7, 100, &got), std::string("\0XY", 3));  // stops at the end: no error
  EXPECT_EQ(got, 3u);
  EXPECT_EQ(Read(file, 50, 4, &got), "");

  ASSERT_EQ(QWFileSetSize(file, 3), 1);
  EXPECT_EQ(Read(file, 0, 10, &got), "hel");
  ASSERT_EQ(QWFileSetSize(file, 6), 1);
  EXPECT_EQ(Read(file, 0, 10, &got), std::string("hel\0\0\0", 6));
  ASSERT_EQ(QWFileSync(file), 1);
  ASSERT_EQ(QWFileClose(file), 1);
  EXPECT_EQ(ReadFileBytes(path("f")), std::string("hel\0\0\0", 6));
}

TEST_F(QWFileTest, ReadExactFailsShortWithCode5) {
  WriteFileBytes(path("f"), "0123456789");
  QWFILE file = OpenOrFail("f", QWFILE_READ);
  char buffer[8];
  ASSERT_EQ(QWFileReadExact(file, 2, buffer, 8), 1);
  EXPECT_EQ(std::string(buffer, 8), "23456789");
  QWErrorClear();
  EXPECT_EQ(QWFileReadExact(file, 5, buffer, 8), 0);
  EXPECT_EQ(QWErrorCode(), 5);
  EXPECT_EQ(QWErrorClass(), QW_ERROR_CLASS_SYSTEM);
  EXPECT_EQ(std::string(QWErrorMessage()), "unexpected end of file \"" + path("f") + "\" at offset 5");
  EXPECT_EQ(QWFileClose(file), 1);
}

struct OpenCase {
  const char *name;
  bool exists;
  uint32_t mode;
  int code;  // 0: success
};

TEST_F(QWFileTest, OpenModesAndErrors) {
  const OpenCase cases[] = {
      {"missing without create", false, QWFILE_READ, ENOENT},
      {"missing read-write without create", false, QWFILE_READ | QWFILE_WRITE, ENOENT},
      {"missing with create", false, QWFILE_READ | QWFILE_WRITE | QWFILE_CREATE, 0},
      {"exclusive on existing", true, QWFILE_WRITE | QWFILE_CREATE | QWFILE_EXCLUSIVE, EEXIST},
      {"exclusive on missing", false, QWFILE_WRITE | QWFILE_CREATE | QWFILE_EXCLUSIVE, 0},
      {"read-ahead", true, QWFILE_READ | QWFILE_READAHEAD, 0},
      {"unknown mode bit", true, QWFILE_READ | 64u, EINVAL},
  };
  int index = 0;
  for (const OpenCase &c : cases) {
    SCOPED_TRACE(c.name);
    const std::string name = "open" + std::to_string(index++);
    if (c.exists) WriteFileBytes(path(name), "abc");
    QWErrorClear();
    QWFILE file = reinterpret_cast<QWFILE>(&index);  // must be reset on failure
    const int result = QWFileOpen(&file, path(name).c_str(), c.mode);
    if (c.code == 0) {
      EXPECT_EQ(result, 1) << QWErrorMessage();
      EXPECT_EQ(QWFileClose(file), 1);
      EXPECT_TRUE(FileExists(path(name).c_str()));
      continue;
    }
    EXPECT_EQ(result, 0);
    EXPECT_EQ(file, QWFILE_INVALID);
    EXPECT_EQ(QWErrorCode(), c.code);
    EXPECT_EQ(QWErrorClass(), QW_ERROR_CLASS_SYSTEM);
    EXPECT_EQ(std::string(QWErrorMessage()).rfind("could not open file \"" + path(name) + "\"", 0), 0u)
        << QWErrorMessage();
  }
  QWErrorClear();
  QWFILE file;
  ASSERT_EQ(QWFileOpen(&file, path("nothere").c_str(), QWFILE_READ), 0);
  EXPECT_EQ(std::string(QWErrorMessage()), "could not open file \"" + path("nothere") + "\": " + std::strerror(ENOENT));
}

TEST_F(QWFileTest, TruncateAtOpenAndReadOnlyHandles) {
  WriteFileBytes(path("f"), "previous content");
  QWFILE file = OpenOrFail("f", QWFILE_WRITE | QWFILE_CREATE | QWFILE_TRUNCATE);
  EXPECT_EQ(ReadFileBytes(path("f")), "");
  ASSERT_EQ(QWFileWriteData(file, 0, "new", 3), 1);
  ASSERT_EQ(QWFileClose(file), 1);
  EXPECT_EQ(ReadFileBytes(path("f")), "new");

  file = OpenOrFail("f", QWFILE_READ);
  QWErrorClear();
  EXPECT_EQ(QWFileWriteData(file, 0, "x", 1), 0);
  EXPECT_EQ(QWErrorCode(), EBADF);
  EXPECT_EQ(std::string(QWErrorMessage()).rfind("could not write file \"" + path("f") + "\" at offset 0: ", 0), 0u);
  EXPECT_EQ(QWFileSetSize(file, 0), 0);
  EXPECT_EQ(QWErrorCode(), EINVAL);  // ftruncate on a read-only descriptor
  EXPECT_EQ(FileSetReadSize(file, 0), 1);
  EXPECT_EQ(FileSetReadSize(file, 3), 1);
  EXPECT_EQ(QWFileClose(file), 1);
  EXPECT_EQ(ReadFileBytes(path("f")), "new");
}

TEST_F(QWFileTest, InvalidHandlesGiveErrorsNotCrashes) {
  uint64_t size = 0;
  char byte = 0;
  EXPECT_EQ(QWFileClose(QWFILE_INVALID), 1);
  EXPECT_EQ(QWFileGetIntHandle(QWFILE_INVALID), -1);
  EXPECT_STREQ(QWFileGetPath(QWFILE_INVALID), "");
  const int results[] = {
      QWFileReadData(QWFILE_INVALID, 0, &byte, 1, nullptr),
      QWFileReadExact(QWFILE_INVALID, 0, &byte, 1),
      QWFileWriteData(QWFILE_INVALID, 0, &byte, 1),
      QWFileSetSize(QWFILE_INVALID, 0),
      QWFileGetSize(QWFILE_INVALID, &size),
      QWFileSync(QWFILE_INVALID),
      FileSetReadSize(QWFILE_INVALID, 0),
  };
  for (int result : results) EXPECT_EQ(result, 0);
  EXPECT_EQ(QWErrorCode(), EINVAL);
  EXPECT_STREQ(QWErrorMessage(), "invalid file handle");
  EXPECT_EQ(QWFileOpen(nullptr, path("f").c_str(), QWFILE_READ), 0);
  EXPECT_EQ(QWErrorCode(), EINVAL);
}

// Random positional writes, size changes, reads and reopenings against a
// std::string holding what the file should contain.
TEST_F(QWFileTest, RandomOperationsMatchModel) {
  std::mt19937 random(20240611);
  std::string model;
  QWFILE file = OpenOrFail("model", QWFILE_READ | QWFILE_WRITE | QWFILE_CREATE);
  for (int step = 0; step < 3000; ++step) {
    const int action = int(random() % 10);
    if (action < 5) {
      const uint64_t offset = random() % 5000;
      std::string bytes(random() % 300 + 1, '\0');
      for (char &c : bytes) c = char(random());
      ASSERT_EQ(QWFileWriteData(file, offset, bytes.data(), bytes.size()), 1) << QWErrorMessage();
      if (model.size() < offset + bytes.size()) model.resize(offset + bytes.size(), '\0');
      model.replace(offset, bytes.size(), bytes);
    } else if (action < 6) {
      const uint64_t size = random() % 6000;
      ASSERT_EQ(QWFileSetSize(file, size), 1);
      model.resize(size, '\0');
    } else if (action < 9) {
      const uint64_t offset = random() % 6000;
      const size_t size = random() % 700;
      size_t got = 0;
      const std::string expected = offset < model.size() ? model.substr(offset, size) : "";
      ASSERT_EQ(Read(file, offset, size, &got), expected) << "step " << step;
    } else {
      ASSERT_EQ(QWFileClose(file), 1);
      file = OpenOrFail("model", QWFILE_READ | QWFILE_WRITE);
      uint64_t size = 0;
      ASSERT_EQ(QWFileGetSize(file, &size), 1);
      ASSERT_EQ(size, model.size());
    }
  }
  ASSERT_EQ(QWFileClose(file), 1);
  EXPECT_EQ(ReadFileBytes(path("model")), model);
}

TEST_F(QWFileTest, PathOperations) {
  WriteFileBytes(path("a"), "AAAA");
  WriteFileBytes(path("b"), "BB");
  EXPECT_EQ(FileExists(path("a").c_str()), 1);
  EXPECT_EQ(FileExists(path("none").c_str()), 0);
  EXPECT_EQ(FileExists(dir().c_str()), 1);
  EXPECT_EQ(FileExists(nullptr), 0);

  uint64_t size = 0;
  ASSERT_EQ(FileSize(path("a").c_str(), &size), 1);
  EXPECT_EQ(size, 4u);
  QWErrorClear();
  EXPECT_EQ(FileSize(path("none").c_str(), &size), 0);
  EXPECT_EQ(QWErrorCode(), ENOENT);

  // A rename replaces its target atomically.
  ASSERT_EQ(FileRename(path("a").c_str(), path("b").c_str()), 1);
  EXPECT_EQ(FileExists(path("a").c_str()), 0);
  EXPECT_EQ(ReadFileBytes(path("b")), "AAAA");
  QWErrorClear();
  EXPECT_EQ(FileRename(path("a").c_str(), path("c").c_str()), 0);
  EXPECT_EQ(QWErrorCode(), ENOENT);
  EXPECT_EQ(std::string(QWErrorMessage()),
            "could not rename file \"" + path("a") + "\" to \"" + path("c") + "\": " + std::strerror(ENOENT));

  ASSERT_EQ(FileTruncate(path("b").c_str(), 2), 1);
  EXPECT_EQ(ReadFileBytes(path("b")), "AA");
  ASSERT_EQ(FileTruncate(path("b").c_str(), 4), 1);
  EXPECT_EQ(ReadFileBytes(path("b")), std::string("AA\0\0", 4));
  EXPECT_EQ(FileTruncate(path("none").c_str(), 1), 0);
  EXPECT_EQ(QWErrorCode(), ENOENT);

  ASSERT_EQ(FileRemove(path("b").c_str()), 1);
  EXPECT_EQ(FileExists(path("b").c_str()), 0);
  EXPECT_EQ(FileRemove(path("b").c_str()), 0);
  EXPECT_EQ(QWErrorCode(), ENOENT);
}

int CollectName(void *context, const char *name) {
  static_cast<std::multiset<std::string> *>(context)->insert(name);
  return 0;
}

int StopAtFirst(void *context, const char *) {
  ++*static_cast<int *>(context);
  return 1;
}

TEST_F(QWFileTest, DirectoriesCreateListSyncRemove) {
  const std::string nested = path("x/y/z");
  ASSERT_EQ(DirectoryCreate(nested.c_str()), 1) << QWErrorMessage();
  EXPECT_EQ(DirectoryCreate(nested.c_str()), 1);  // existing is fine
  EXPECT_EQ(DirectoryCreate((path("x//y/w") + "/").c_str()), 1);
  EXPECT_EQ(FileExists(path("x/y/w").c_str()), 1);
  WriteFileBytes(path("x/file"), "f");
  QWErrorClear();
  EXPECT_EQ(DirectoryCreate(path("x/file/sub").c_str()), 0);
  EXPECT_EQ(QWErrorCode(), ENOTDIR);

  WriteFileBytes(path("x/y/one"), "1");
  WriteFileBytes(path("x/y/two"), "2");
  std::multiset<std::string> names;
  ASSERT_EQ(DirectoryList(path("x/y").c_str(), CollectName, &names), 1);
  EXPECT_EQ(names, (std::multiset<std::string>{"one", "two", "w", "z"}));
  int visits = 0;
  ASSERT_EQ(DirectoryList(path("x/y").c_str(), StopAtFirst, &visits), 1);
  EXPECT_EQ(visits, 1);
  EXPECT_EQ(DirectoryList(path("none").c_str(), CollectName, &names), 0);
  EXPECT_EQ(QWErrorCode(), ENOENT);

  EXPECT_EQ(DirectorySync(path("x/y").c_str()), 1);
  EXPECT_EQ(DirectorySync(path("none").c_str()), 0);
  EXPECT_EQ(QWErrorCode(), ENOENT);
  EXPECT_EQ(std::string(QWErrorMessage()),
            "could not sync directory \"" + path("none") + "\": " + std::strerror(ENOENT));

  EXPECT_EQ(DirectoryRemove(path("x/y").c_str()), 0);
  EXPECT_EQ(QWErrorCode(), ENOTEMPTY);
  EXPECT_EQ(DirectoryRemove(nested.c_str()), 1);
  EXPECT_EQ(FileExists(nested.c_str()), 0);
}

TEST_F(QWFileTest, CloseReleasesTheDescriptor) {
  QWFILE file = OpenOrFail("f", QWFILE_WRITE | QWFILE_CREATE);
  const int fd = QWFileGetIntHandle(file);
  ASSERT_EQ(QWFileClose(file), 1);
  errno = 0;
  EXPECT_EQ(fcntl(fd, F_GETFD), -1);
  EXPECT_EQ(errno, EBADF);
}

}  // namespace
