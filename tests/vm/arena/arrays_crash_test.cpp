// Arrays across a crashed commit: a child edits named arrays (growth with a
// tail move, inserts, a new name) and crashes at a commit stop; the reopened
// arena holds exactly the arrays of the previous or of the new commit.
#include "arrays_support.h"

namespace {

using arenatest::ArenaTest;
using arenatest::kModes;
using arraytest::Bytes;
using arraytest::kBlock;

struct Stop {
  const char *name;
  bool newStateSurvives;  // the `committing` marker was written: open finishes the commit
};

const Stop kStops[] = {{"arenaflushstart1", false},      {"arenaflushexec2", false},
                       {"arenaflushexec3", false},       {"arenaflushcommitdisk0", true},
                       {"arenaflushcommitdisk2", true},  {"arenaflushcommitmemory0", true}};

struct CrashCase {
  arenatest::Mode mode;
  Stop stop;
};

class ArraysCrash : public ArenaTest, public ::testing::WithParamInterface<CrashCase> {
 protected:
  // The committed arrays before the child runs, and what the child writes.
  std::vector<Bytes> before, after;
  static constexpr uint32_t kElement = 24;

  uint32_t Find(VMArena *arena, uint32_t gen, const std::string &name) {
    return VMAArrayFind(arena, gen, name.data(), uint32_t(name.size()), 1, nullptr, 0, kBlock);
  }
};

TEST_P(ArraysCrash, ReopenedArraysAreTheOldOrTheNewCommit) {
  const CrashCase &c = GetParam();
  std::mt19937 rng(5);
  VMArena *arena = Open(c.mode);
  ASSERT_NE(arena, nullptr) << QWErrorMessage();
  for (int a = 0; a < 3; ++a) {
    VMAArrayHandle handle;
    ASSERT_TRUE(VMAArrayInitFromPath(&handle, arena, "crash", std::to_string(a).c_str()));
    uint32_t count = 100 + 200 * a;
    before.push_back(arraytest::RandomBytes(rng, size_t(count) * kElement));
    ASSERT_TRUE(VMAArrayAppend_(arena, handle.id[NEWGEN], 0, kBlock, before.back().data(), count, NEWGEN, kElement));
  }
  ASSERT_TRUE(VMArenaCommit(arena, nullptr, nullptr, 0)) << QWErrorMessage();
  VMArenaClose(arena);
  after = before;
  for (Bytes &bytes : after) {
    Bytes more = arraytest::RandomBytes(rng, 500 * kElement);  // grows past the tail block
    bytes.insert(bytes.begin() + 3 * kElement, more.begin(), more.begin() + kElement);
    bytes.insert(bytes.end(), more.begin(), more.end());
  }

  auto child = qwtest::RunInChild([&] {
    VMArena *arena = Open(c.mode, 0);
    if (!arena) _exit(3);
    for (int a = 0; a < 3; ++a) {
      uint32_t id = Find(arena, NEWGEN, "crash/" + std::to_string(a));
      const uint8_t *more = after[a].data() + before[a].size() + kElement;
      if (!VMAArrayInsert_(arena, id, 0, kBlock, 3, after[a].data() + 3 * kElement, NEWGEN, kElement) ||
          !VMAArrayAppend_(arena, id, 0, kBlock, more, 500, NEWGEN, kElement))
        _exit(4);
    }
    VMAArrayHandle extra;
    if (!VMAArrayInitFromPath(&extra, arena, "crash", "new")) _exit(5);
    QWSetEnvironmentVariable("QWEXIT", c.stop.name);
    QWSetEnvironmentVariable("QWVMEXIT", arenaDir().c_str());
    VMArenaCommit(arena, nullptr, nullptr, 0);
    _exit(0);
  });
  ASSERT_TRUE(child.exited);
  ASSERT_EQ(child.exitStatus, 1) << c.stop.name;

  arena = Open(c.mode, 0);
  ASSERT_NE(arena, nullptr) << QWErrorMessage();
  const std::vector<Bytes> &expected = c.stop.newStateSurvives ? after : before;
  for (int a = 0; a < 3; ++a) {
    uint32_t id = Find(arena, NEWGEN, "crash/" + std::to_string(a));
    ASSERT_NE(id, VMA_NO_ARRAY);
    EXPECT_EQ(arraytest::ReadAll(arena, id, OLDGEN, kElement), expected[a]) << a;
    EXPECT_EQ(arraytest::ReadAll(arena, id, NEWGEN, kElement), expected[a]) << a;
  }
  EXPECT_EQ(Find(arena, OLDGEN, "crash/new") != VMA_NO_ARRAY, c.stop.newStateSurvives);
  VMArenaClose(arena);
}

std::vector<CrashCase> Cases() {
  std::vector<CrashCase> cases;
  for (const arenatest::Mode &mode : {kModes[0], kModes[2]})
    for (const Stop &stop : kStops) cases.push_back({mode, stop});
  return cases;
}

INSTANTIATE_TEST_SUITE_P(Stops, ArraysCrash, ::testing::ValuesIn(Cases()), [](const auto &info) {
  return std::string(info.param.mode.name) + "_" + info.param.stop.name;
});

}  // namespace
