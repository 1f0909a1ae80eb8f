// Path dictionaries: component rules, atoms, enumeration by prefix and depth, and persistence.
#include <cstring>
#include <map>
#include <random>
#include <string>

#include "dict_fixture.h"

namespace {

using Paths = std::map<std::string, uint64_t>;

class PathDictTest : public dicttest::DictTest {
 protected:
  void SetUp() override {
    DictTest::SetUp();
    ASSERT_NE(threadData = PathDictThreadDataNew(), nullptr);
    Open();
  }
  void TearDown() override {
    PathDictFree(dict);
    PathDictThreadDataFree(threadData);
    DictTest::TearDown();
  }
  void Open() { ASSERT_NE(dict = PathDictNew(arena, &pathBuffer, "paths", nullptr, 0), nullptr) << QWErrorMessage(); }
  uint64_t Find(const std::string &path, uint64_t value = 0, int create = 0, int remove = 0, uint32_t gen = NEWGEN) {
    return PathDictFind(dict, threadData, path.data(), uint32_t(path.size()), value, gen, create, remove);
  }
  Paths List(const std::string &prefix, uint32_t depth = PATHDICT_DEPTH_UNLIMITED, uint32_t gen = NEWGEN) {
    Paths out;
    PathDictEnumeration *walk = PathDictEnumerationNew();
    // 0 without an error: a prefix component is unknown and the walk is over.
    int started = PathDictEnumerationInit(dict, walk, prefix.data(), uint32_t(prefix.size()), depth, gen);
    EXPECT_FALSE(QWErrorIsSet()) << QWErrorMessage();
    unknownPrefix = !started;
    const char *path;
    uint32_t length;
    uint64_t value;
    while (PathDictEnumerationGetNext(walk, &path, &length, &value)) {
      EXPECT_EQ(std::strlen(path), length);
      EXPECT_TRUE(out.emplace(std::string(path, length), value).second) << path << " yielded twice";
    }
    PathDictEnumerationFree(walk);
    return out;
  }
  PathDict *dict = nullptr;
  PathDictThreadData *threadData = nullptr;
  bool unknownPrefix = false;  // the last List() found a prefix component unknown
};

TEST_F(PathDictTest, SlashesAndEscapes) {
  EXPECT_EQ(Find("a/b", 5, 1), 5u);
  for (const char *same : {"a/b", "/a/b", "a//b", "a/b/", "//a///b//"}) EXPECT_EQ(Find(same), 5u) << same;
  EXPECT_EQ(Find("a/b/c"), 0u);
  EXPECT_EQ(Find("a\\/b", 6, 1), 6u);  // one component "a\/b"
  EXPECT_EQ(Find("a/b"), 5u);
  EXPECT_EQ(List(""), (Paths{{"a/b", 5}, {"a\\/b", 6}}));
  EXPECT_EQ(Find("a/b", 9, 1), 5u);  // insert-if-absent keeps the value
  EXPECT_TRUE(olibtest::Fails(Find("", 1, 1), 0u, 22));
  EXPECT_EQ(Find("///", 1, 1), 0u);
  EXPECT_DEATH(Find("x", 1, 1, 0, OLDGEN), "!\\(create && \\(genID == OLDGEN\\)\\)");
}

TEST_F(PathDictTest, ComponentLengthLimitAndClear) {
  const std::string longest(PATHDICT_MAX_COMPONENT, 'x');
  const std::string tooLong(PATHDICT_MAX_COMPONENT + 1, 'y');
  EXPECT_EQ(Find("dir/" + longest, 3, 1), 3u) << QWErrorMessage();
  EXPECT_TRUE(olibtest::Fails(Find("dir/" + tooLong, 4, 1), 0u, 22));
  EXPECT_EQ(Find("dir/" + tooLong), 0u);
  EXPECT_EQ(List("dir"), (Paths{{"dir/" + longest, 3}}));  // the long text round-trips through the large-element array
  // A clear forgets the paths and their atoms.
  ASSERT_TRUE(PathDictClear(dict, NEWGEN)) << QWErrorMessage();
  EXPECT_EQ(Find("dir/" + longest), 0u);
  EXPECT_TRUE(List("").empty());
  EXPECT_EQ(Find("c/dir", 2, 1), 2u);
  EXPECT_EQ(List(""), (Paths{{"c/dir", 2}}));
}

TEST_F(PathDictTest, PrefixDepthAndRemove) {
  const Paths paths = {
      {"usr", 1}, {"usr/bin", 2}, {"usr/bin/ls", 3}, {"usr/lib/x/y", 4}, {"var/log", 5}, {"usr2/bin", 6}};
  for (const auto &[path, value] : paths) ASSERT_EQ(Find(path, value, 1), value) << QWErrorMessage();
  EXPECT_EQ(List(""), paths);
  EXPECT_EQ(List("usr"), (Paths{{"usr", 1}, {"usr/bin", 2}, {"usr/bin/ls", 3}, {"usr/lib/x/y", 4}}));
  EXPECT_EQ(List("/usr/", 1), (Paths{{"usr", 1}, {"usr/bin", 2}}));
  EXPECT_EQ(List("usr", 0), (Paths{{"usr", 1}}));
  EXPECT_TRUE(List("nothing/here").empty());
  EXPECT_TRUE(unknownPrefix);
  EXPECT_TRUE(List("usr/nothing").empty());
  EXPECT_TRUE(unknownPrefix);
  EXPECT_TRUE(List("usr/bin/ls").size() == 1 && !unknownPrefix);
  EXPECT_EQ(Find("usr/bin", 0, 0, 1), 2u);
  EXPECT_EQ(Find("usr/bin"), 0u);
  EXPECT_EQ(Find("usr/bin/ls"), 3u);
  EXPECT_EQ(List("usr/bin"), (Paths{{"usr/bin/ls", 3}}));
}

TEST_F(PathDictTest, SurvivesCommitAndReopenWithOldGenerationReads) {
  std::mt19937 random(5);
  const char *parts[] = {"alpha", "beta", "gamma", "delta", "x", "long-component-name"};
  Paths model, committed;
  for (int round = 0; round < 4; ++round) {
    for (int i = 0; i < 400; ++i) {
      std::string path;
      for (uint32_t depth = 1 + random() % 4; depth > 0; --depth) path += std::string("/") + parts[random() % 6];
      const uint64_t value = 1 + random() % 1000;
      const uint64_t got = Find(path, value, 1);
      ASSERT_EQ(got, model.emplace(path.substr(1), value).first->second) << path;
    }
    EXPECT_EQ(List("", PATHDICT_DEPTH_UNLIMITED, OLDGEN), committed);
    ASSERT_TRUE(CommitArena()) << QWErrorMessage();
    PathDictCommit(dict);
    committed = model;
    PathDictFree(dict);
    dict = nullptr;
    MustReopenArena(round == 3 ? VM_FLAG_READ_ONLY : 0);
    Open();
  }
  EXPECT_EQ(List("", PATHDICT_DEPTH_UNLIMITED, OLDGEN), model);
}

}  // namespace
