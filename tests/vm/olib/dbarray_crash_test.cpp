// Block-directory arrays across a crash: a child changes the array (sets,
// resizes that split and merge blocks, adds) and commits, stopped at an
// arena stop point; after reopening, the array holds exactly the old or the
// new content, never a mix, and keeps working.
#include <random>

#include "dbarray_fixture.h"

namespace {

using dbatest::Pattern;
using Buckets = std::vector<std::vector<std::string>>;

struct Stop {
  const char *name;
  bool committed;  // the reopened arena holds the new content
};

const Stop kStops[] = {
    {"arenaflushexec1", false},         // new files beside the old: the old state
    {"arenaflushcommitdisk1", true},    // `committing` present: open finishes the commit
    {"arenaflushcommitmemory0", true},  // everything on disk
};

// One change of the new generation.
struct Change {
  enum Kind { kAdd, kSet, kResize } kind;
  uint32_t bucket, handle;
  std::string value;  // kAdd, kSet
  uint32_t length;    // kResize
};

// The same changes every time: many of them grow elements past their
// block's room, so blocks split, and shrink others so that blocks merge.
std::vector<Change> Changes(const Buckets &start) {
  std::mt19937 rng(99);
  auto next = [&rng](uint32_t bound) { return uint32_t(rng() % bound); };
  std::vector<Change> changes;
  std::vector<uint32_t> sizes;
  for (const auto &bucket : start) sizes.push_back(uint32_t(bucket.size()));
  for (int i = 0; i < 150; ++i) {
    const uint32_t b = next(uint32_t(start.size()));
    const uint32_t r = next(3);
    if (r == 0 || sizes[b] == 0) {
      changes.push_back({Change::kAdd, b, 0, Pattern(next(1000), next(600)), 0});
      ++sizes[b];
    } else if (r == 1) {
      changes.push_back({Change::kSet, b, next(sizes[b]), Pattern(next(1000), next(2500)), 0});
    } else {
      changes.push_back({Change::kResize, b, next(sizes[b]), "", next(2) ? 3500 + next(590) : next(20)});
    }
  }
  return changes;
}

void ApplyToModel(const std::vector<Change> &changes, Buckets *model) {
  for (const Change &c : changes) {
    auto &bucket = (*model)[c.bucket];
    if (c.kind == Change::kAdd) bucket.push_back(c.value);
    if (c.kind == Change::kSet) bucket[c.handle] = c.value;
    if (c.kind == Change::kResize) bucket[c.handle].resize(c.length, '\0');
  }
}

bool ApplyToArray(const std::vector<Change> &changes, DBArray *array) {
  for (const Change &c : changes) {
    const auto length = uint32_t(c.value.size());
    if (c.kind == Change::kAdd && DBArrayAdd(array, c.bucket, c.value.data(), length, NEWGEN) == DBARRAY_INVALID_HANDLE)
      return false;
    if (c.kind == Change::kSet && !DBArraySet(array, c.bucket, c.handle, NEWGEN, c.value.data(), length)) return false;
    if (c.kind == Change::kResize && DBArrayLengthSet(array, c.bucket, c.handle, NEWGEN, c.length) < 0) return false;
  }
  return true;
}

class DBArrayCrash : public dbatest::DBArrayTest, public ::testing::WithParamInterface<Stop> {
 protected:
  Buckets Contents(uint32_t gen) {
    Buckets contents(DBArrayBucketCount(array));
    for (uint32_t b = 0; b < contents.size(); ++b)
      for (uint32_t h = 0, n = DBArraySize(array, b, gen); h < n; ++h) contents[b].push_back(ReadOrEmpty(b, h, gen));
    return contents;
  }
};

TEST_P(DBArrayCrash, ReopenSeesTheOldOrTheNewArrayNeverAMix) {
  const Stop &stop = GetParam();
  Open(3);
  Buckets before(3);
  for (uint32_t h = 0; h < 240; ++h) {
    before[h % 3].push_back(Pattern(h, h % 7 == 0 ? 1800 : h % 90));
    ASSERT_NE(Add(h % 3, before[h % 3].back()), DBARRAY_INVALID_HANDLE);
  }
  ASSERT_TRUE(Commit()) << QWErrorMessage();
  CloseAll();
  const std::vector<Change> changes = Changes(before);
  Buckets after = before;
  ApplyToModel(changes, &after);

  auto child = qwtest::RunInChild([&] {
    arena = OpenArena(0);
    if (!arena) _exit(3);
    array = OpenArray(arena, 3, 0);
    if (!array || !ApplyToArray(changes, array)) _exit(4);
    QWSetEnvironmentVariable("QWEXIT", stop.name);
    QWSetEnvironmentVariable("QWVMEXIT", arenaDir().c_str());
    VMArenaCommit(arena, nullptr, nullptr, 0);
    _exit(0);  // the stop did not fire
  });
  ASSERT_TRUE(child.exited);
  ASSERT_EQ(child.exitStatus, 1) << stop.name;
  EXPECT_EQ(child.out, "########## SIMULATED CRASH vm = " + arenaDir() + ", stop = " + stop.name + "\n");

  arena = OpenArena(0);
  ASSERT_NE(arena, nullptr) << QWErrorMessage();
  array = OpenArray(arena, 3, 0);
  ASSERT_NE(array, nullptr) << QWErrorMessage();
  const Buckets expected = stop.committed ? after : before;
  ASSERT_NE(before, after);
  EXPECT_EQ(Contents(OLDGEN), expected);
  EXPECT_EQ(Contents(NEWGEN), expected);
  EXPECT_TRUE(CheckProblems(OLDGEN).empty());
  EXPECT_TRUE(CheckProblems(NEWGEN).empty());

  // The array goes on: the same changes once more, committed for real.
  Buckets again = expected;
  ApplyToModel(changes, &again);
  ASSERT_TRUE(ApplyToArray(changes, array)) << QWErrorMessage();
  ASSERT_TRUE(Commit()) << QWErrorMessage();
  CloseAll();
  Open(3);
  EXPECT_EQ(Contents(OLDGEN), again);
  EXPECT_TRUE(CheckProblems(OLDGEN).empty());
}

INSTANTIATE_TEST_SUITE_P(Stops, DBArrayCrash, ::testing::ValuesIn(kStops),
                         [](const auto &info) { return std::string(info.param.name); });

}  // namespace
