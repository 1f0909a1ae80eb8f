// Files, paths and directories: round trips against a model, exact error codes and messages, directory listing.
#include <fcntl.h>

#include <cerrno>
#include <cstring>
#include <set>

#include "platform/checks.h"

namespace {

using qwtest::HasExactError;
using qwtest::ReadFileBytes;
using qwtest::WriteFileBytes;

class QWFileTest : public qwtest::TempDirTest {
 protected:
  QWFILE OpenOrFail(const std::string &name, uint32_t mode) {
    QWFILE file = QWFILE_INVALID;
    EXPECT_EQ(QWFileOpen(&file, path(name).c_str(), mode), 1) << QWErrorMessage();
    return file;
  }
  // "<what> \"<path(name)>\"<rest>: <strerror(code)>"
  std::string SystemMessage(const std::string &what, const std::string &name, int code, const std::string &rest = "") {
    return what + " \"" + path(name) + "\"" + rest + ": " + std::strerror(code);
  }
};

// Random positional writes (leaving holes), size changes, reads (also past the end: short, no error) and reopenings
// against a std::string holding what the file should contain.
TEST_F(QWFileTest, RandomOperationsMatchModel) {
  std::mt19937 random(20240611);
  std::string model;
  QWFILE file = OpenOrFail("model", QWFILE_READ | QWFILE_WRITE | QWFILE_CREATE);
  for (int step = 0; step < 3000; ++step) {
    const int action = int(random() % 10);
    const uint64_t offset = random() % 6000;
    if (action < 5) {
      std::string bytes(random() % 300 + 1, '\0');
      for (char &c : bytes) c = char(random());
      ASSERT_EQ(QWFileWriteData(file, offset, bytes.data(), bytes.size()), 1) << QWErrorMessage();
      model.resize(std::max(model.size(), offset + bytes.size()), '\0');
      model.replace(offset, bytes.size(), bytes);
    } else if (action < 6) {
      ASSERT_EQ(QWFileSetSize(file, offset), 1);
      model.resize(offset, '\0');
    } else if (action < 9) {
      std::string bytes(random() % 700, '\0');
      size_t got = 0;
      ASSERT_EQ(QWFileReadData(file, offset, bytes.data(), bytes.size(), &got), 1) << QWErrorMessage();
      ASSERT_EQ(bytes.substr(0, got), offset < model.size() ? model.substr(offset, bytes.size()) : "") << step;
    } else {
      ASSERT_EQ(QWFileSync(file) + QWFileClose(file), 2);
      file = OpenOrFail("model", QWFILE_READ | QWFILE_WRITE);
      uint64_t size = 0;
      ASSERT_EQ(QWFileGetSize(file, &size), 1);
      ASSERT_EQ(size, model.size());
    }
  }
  ASSERT_EQ(QWFileClose(file), 1);
  EXPECT_EQ(ReadFileBytes(path("model")), model);
}

TEST_F(QWFileTest, OpenModesAndErrors) {
  const struct {
    bool exists;
    uint32_t mode;
    int code;  // 0: success
  } cases[] = {
      {false, QWFILE_READ, ENOENT},
      {false, QWFILE_READ | QWFILE_WRITE, ENOENT},
      {false, QWFILE_READ | QWFILE_WRITE | QWFILE_CREATE, 0},
      {true, QWFILE_WRITE | QWFILE_CREATE | QWFILE_EXCLUSIVE, EEXIST},
      {false, QWFILE_WRITE | QWFILE_CREATE | QWFILE_EXCLUSIVE, 0},
      {true, QWFILE_READ | QWFILE_READAHEAD, 0},
      {true, QWFILE_READ | 128u, EINVAL},  // an unknown mode bit
  };
  int index = 0;
  for (const auto &c : cases) {
    const std::string name = "open" + std::to_string(index++);
    if (c.exists) WriteFileBytes(path(name), "abc");
    QWFILE file = reinterpret_cast<QWFILE>(&index);  // must be reset on failure
    ASSERT_EQ(QWFileOpen(&file, path(name).c_str(), c.mode), c.code == 0) << name << QWErrorMessage();
    if (c.code == 0) {
      EXPECT_EQ(QWFileClose(file) + FileExists(path(name).c_str()), 2);
      continue;
    }
    EXPECT_EQ(file, QWFILE_INVALID);
    EXPECT_EQ(QWErrorClass(), QW_ERROR_CLASS_SYSTEM);
    EXPECT_TRUE(HasExactError(c.code, c.code == EINVAL
                                          ? "could not open file \"" + path(name) + "\": unknown mode bits 0x80"
                                          : SystemMessage("could not open file", name, c.code)));
  }
  EXPECT_TRUE(qwtest::FailsExactly(QWFileOpen(nullptr, path("f").c_str(), QWFILE_READ), EINVAL,
                                   "could not open file: no path or handle"));
}

TEST_F(QWFileTest, TruncateAtOpenReadOnlyHandlesAndClose) {
  WriteFileBytes(path("f"), "previous content");
  QWFILE file = OpenOrFail("f", QWFILE_WRITE | QWFILE_CREATE | QWFILE_TRUNCATE);
  EXPECT_EQ(ReadFileBytes(path("f")), "");
  EXPECT_STREQ(QWFileGetPath(file), path("f").c_str());
  ASSERT_EQ(QWFileWriteData(file, 0, "new", 3), 1);
  const int fd = QWFileGetIntHandle(file);
  ASSERT_EQ(QWFileClose(file), 1);
  EXPECT_EQ(fcntl(fd, F_GETFD), -1);  // the descriptor is released
  EXPECT_EQ(errno, EBADF);

  file = OpenOrFail("f", QWFILE_READ);
  char buffer[8];
  ASSERT_EQ(QWFileReadExact(file, 1, buffer, 2), 1);
  EXPECT_EQ(std::string(buffer, 2), "ew");
  EXPECT_TRUE(qwtest::FailsExactly(QWFileReadExact(file, 2, buffer, 2), 5,
                                   "unexpected end of file \"" + path("f") + "\" at offset 2"));
  EXPECT_EQ(QWErrorClass(), QW_ERROR_CLASS_SYSTEM);
  EXPECT_TRUE(qwtest::FailsExactly(QWFileWriteData(file, 0, "x", 1), EBADF,
                                   SystemMessage("could not write file", "f", EBADF, " at offset 0")));
  EXPECT_TRUE(qwtest::Fails(QWFileSetSize(file, 0), EINVAL));  // ftruncate on a read-only descriptor
  EXPECT_EQ(FileSetReadSize(file, 0) + FileSetReadSize(file, 3), 2);
  EXPECT_EQ(QWFileClose(file), 1);
  EXPECT_EQ(ReadFileBytes(path("f")), "new");

  // An invalid handle gives errors, not crashes.
  uint64_t size = 0;
  EXPECT_EQ(QWFileClose(QWFILE_INVALID), 1);
  EXPECT_EQ(QWFileGetIntHandle(QWFILE_INVALID), -1);
  EXPECT_STREQ(QWFileGetPath(QWFILE_INVALID), "");
  const std::function<int()> calls[] = {
      [&] { return QWFileReadData(QWFILE_INVALID, 0, buffer, 1, nullptr); },
      [&] { return QWFileReadExact(QWFILE_INVALID, 0, buffer, 1); },
      [&] { return QWFileWriteData(QWFILE_INVALID, 0, buffer, 1); },
      [&] { return QWFileSetSize(QWFILE_INVALID, 0); },
      [&] { return QWFileGetSize(QWFILE_INVALID, &size); },
      [&] { return QWFileSync(QWFILE_INVALID); },
      [&] { return FileSetReadSize(QWFILE_INVALID, 0); },
  };
  for (const auto &call : calls) {
    QWErrorClear();
    EXPECT_TRUE(qwtest::FailsExactly(call(), EINVAL, "invalid file handle"));
  }
}

TEST_F(QWFileTest, PathOperations) {
  WriteFileBytes(path("a"), "AAAA");
  WriteFileBytes(path("b"), "BB");
  EXPECT_EQ(FileExists(path("a").c_str()) + FileExists(dir().c_str()), 2);
  EXPECT_EQ(FileExists(path("none").c_str()) + FileExists(nullptr), 0);
  uint64_t size = 0;
  EXPECT_TRUE(FileSize(path("a").c_str(), &size) && size == 4u);
  ASSERT_EQ(FileRename(path("a").c_str(), path("b").c_str()), 1);  // replaces its target
  EXPECT_EQ(FileExists(path("a").c_str()), 0);
  EXPECT_EQ(ReadFileBytes(path("b")), "AAAA");
  ASSERT_EQ(FileTruncate(path("b").c_str(), 2), 1);
  EXPECT_EQ(ReadFileBytes(path("b")), "AA");
  ASSERT_EQ(FileTruncate(path("b").c_str(), 4), 1);
  EXPECT_EQ(ReadFileBytes(path("b")), std::string("AA\0\0", 4));
  ASSERT_EQ(FileRemove(path("b").c_str()), 1);
  EXPECT_EQ(FileExists(path("b").c_str()), 0);
  const std::function<int()> missing[] = {
      [&] { return FileSize(path("none").c_str(), &size); },
      [&] { return FileTruncate(path("none").c_str(), 1); },
      [&] { return FileRemove(path("b").c_str()); },
      [&] { return FileRename(path("a").c_str(), path("c").c_str()); },
  };
  for (const auto &call : missing) {
    QWErrorClear();
    EXPECT_TRUE(qwtest::Fails(call(), ENOENT));
  }
  EXPECT_TRUE(HasExactError(ENOENT, SystemMessage("could not rename file", "a", ENOENT, " to \"" + path("c") + "\"")));
}

int CollectName(void *context, const char *name) {
  static_cast<std::multiset<std::string> *>(context)->insert(name);
  return 0;
}

TEST_F(QWFileTest, DirectoriesCreateListSyncRemove) {
  const std::string nested = path("x/y/z");
  ASSERT_EQ(DirectoryCreate(nested.c_str()), 1) << QWErrorMessage();
  EXPECT_EQ(DirectoryCreate(nested.c_str()), 1);  // existing is fine
  EXPECT_EQ(DirectoryCreate((path("x//y/w") + "/").c_str()), 1);
  EXPECT_EQ(FileExists(path("x/y/w").c_str()), 1);
  WriteFileBytes(path("x/file"), "f");
  EXPECT_TRUE(qwtest::Fails(DirectoryCreate(path("x/file/sub").c_str()), ENOTDIR));
  WriteFileBytes(path("x/y/one"), "1");
  WriteFileBytes(path("x/y/two"), "2");
  std::multiset<std::string> names;
  ASSERT_EQ(DirectoryList(path("x/y").c_str(), CollectName, &names), 1);
  EXPECT_EQ(names, (std::multiset<std::string>{"one", "two", "w", "z"}));
  int visits = 0;
  auto stopAtFirst = [](void *context, const char *) { return ++*static_cast<int *>(context); };
  ASSERT_EQ(DirectoryList(path("x/y").c_str(), stopAtFirst, &visits), 1);
  EXPECT_EQ(visits, 1);
  EXPECT_TRUE(qwtest::Fails(DirectoryList(path("none").c_str(), CollectName, &names), ENOENT));
  EXPECT_EQ(DirectorySync(path("x/y").c_str()), 1);
  EXPECT_TRUE(qwtest::FailsExactly(DirectorySync(path("none").c_str()), ENOENT,
                                   SystemMessage("could not sync directory", "none", ENOENT)));
  EXPECT_TRUE(qwtest::Fails(DirectoryRemove(path("x/y").c_str()), ENOTEMPTY));
  EXPECT_EQ(DirectoryRemove(nested.c_str()), 1);
  EXPECT_EQ(FileExists(nested.c_str()), 0);
}

}  // namespace
