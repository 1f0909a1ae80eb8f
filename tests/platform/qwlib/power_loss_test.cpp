// Simulated power loss through the fault seam. Each workload runs in a forked
// child with durability tracking on; the child loses power and exits with
// status 1; the parent then inspects what survived on disk.
#include <unistd.h>

#include <algorithm>
#include <cstdio>
#include <cstring>
#include <filesystem>
#include <functional>
#include <map>
#include <random>
#include <set>
#include <string>
#include <vector>

#include "platform/qwlib/fault.h"
#include "support/test_support.h"

namespace {

namespace fault = qw::fault;
using fault::PowerLoss;
using qwtest::ReadFileBytes;
using qwtest::WriteFileBytes;

using DiskState = std::map<std::string, std::string>;  // relative name -> content ("<dir>")

class PowerLossTest : public qwtest::TempDirTest {
 protected:
  void TearDown() override {
    fault::Disable();
    TempDirTest::TearDown();
  }

  // Runs `workload` in a child with tracking on, then loses power there.
  void RunThenLosePower(const std::function<bool()> &workload, PowerLoss mode, uint64_t seed = 0) {
    const qwtest::ChildResult child = qwtest::RunInChild([&] {
      fault::Reset();
      fault::EnableDurabilityTracking(true);
      if (!workload()) {
        std::printf("workload failed: %s\n", QWErrorMessage());
        std::fflush(stdout);
        _exit(3);
      }
      fault::SimulatePowerLoss(mode, seed);
      _exit(1);
    });
    ASSERT_TRUE(child.exited) << child.out;
    ASSERT_EQ(child.exitStatus, 1) << child.out;
  }

  // Everything under the test directory, hidden names included (so that a
  // leftover backup shows up as a difference).
  DiskState State() const {
    DiskState state;
    for (const auto &entry : std::filesystem::recursive_directory_iterator(dir())) {
      const std::string name = std::filesystem::relative(entry.path(), dir()).string();
      state[name] = entry.is_directory() ? "<dir>" : ReadFileBytes(entry.path().string());
    }
    return state;
  }

  void Clean() {
    for (const auto &entry : std::filesystem::directory_iterator(dir())) std::filesystem::remove_all(entry.path());
  }

 public:
  std::string P(const std::string &name) const { return path(name); }
};

// Child-side helpers: they return false (error chain set) on any failure.
bool Write(QWFILE file, uint64_t offset, const std::string &bytes) {
  return QWFileWriteData(file, offset, bytes.data(), bytes.size()) == 1;
}

bool CreateFile(const std::string &path, const std::string &content, bool sync) {
  QWFILE file;
  if (!QWFileOpen(&file, path.c_str(), QWFILE_READ | QWFILE_WRITE | QWFILE_CREATE | QWFILE_TRUNCATE)) return false;
  const bool ok = Write(file, 0, content) && (!sync || QWFileSync(file));
  return QWFileClose(file) && ok;
}

TEST_F(PowerLossTest, UnsyncedWritesAndSizesAreDroppedSyncedKept) {
  for (const PowerLoss mode : {PowerLoss::Drop, PowerLoss::Keep}) {
    SCOPED_TRACE(mode == PowerLoss::Drop ? "drop" : "keep");
    Clean();
    WriteFileBytes(P("f"), "AAAAAAAA");
    WriteFileBytes(P("g"), "123456");
    RunThenLosePower(
        [&] {
          QWFILE f, g;
          return QWFileOpen(&f, P("f").c_str(), QWFILE_READ | QWFILE_WRITE) && Write(f, 0, "BBBB") && QWFileSync(f) &&
                 Write(f, 2, "CC") && Write(f, 10, "DDDD") && QWFileSetSize(f, 12) && QWFileClose(f) &&
                 QWFileOpen(&g, P("g").c_str(), QWFILE_WRITE) && QWFileSetSize(g, 1) && Write(g, 3, "z") &&
                 QWFileClose(g);
        },
        mode);
    if (mode == PowerLoss::Drop)
      EXPECT_EQ(State(), (DiskState{{"f", "BBBBAAAA"}, {"g", "123456"}}));
    else
      EXPECT_EQ(State(), (DiskState{{"f", std::string("BBCCAAAA\0\0DD", 12)}, {"g", std::string("1\0\0z", 4)}}));
  }
}

// Random writes, size changes and syncs of one file against two models: what
// was last synced (Drop must leave exactly that) and everything (Keep).
TEST_F(PowerLossTest, RandomWorkloadMatchesDurableAndCurrentModels) {
  struct Action {
    int kind;  // 0 write, 1 set size, 2 sync
    uint64_t offset;
    std::string bytes;
  };
  for (uint64_t seed = 1; seed <= 4; ++seed) {
    std::mt19937 random{uint32_t(seed)};
    std::vector<Action> actions;
    std::string current(3000, 'i'), durable = current;
    for (int i = 0; i < 200; ++i) {
      Action action{int(random() % 10 < 6 ? 0 : random() % 2 + 1), random() % 4000, ""};
      if (action.kind == 0) {
        action.bytes.resize(random() % 200 + 1);
        for (char &c : action.bytes) c = char('a' + random() % 26);
        if (current.size() < action.offset + action.bytes.size()) current.resize(action.offset + action.bytes.size());
        current.replace(action.offset, action.bytes.size(), action.bytes);
      } else if (action.kind == 1) {
        current.resize(action.offset);
      } else {
        durable = current;
      }
      actions.push_back(action);
    }
    for (const PowerLoss mode : {PowerLoss::Drop, PowerLoss::Keep}) {
      SCOPED_TRACE(testing::Message() << "seed " << seed << (mode == PowerLoss::Drop ? " drop" : " keep"));
      WriteFileBytes(P("f"), std::string(3000, 'i'));
      RunThenLosePower(
          [&] {
            QWFILE f;
            if (!QWFileOpen(&f, P("f").c_str(), QWFILE_READ | QWFILE_WRITE)) return false;
            for (const Action &a : actions) {
              const bool ok = a.kind == 0   ? Write(f, a.offset, a.bytes)
                              : a.kind == 1 ? QWFileSetSize(f, a.offset) == 1
                                            : QWFileSync(f) == 1;
              if (!ok) return false;
            }
            return QWFileClose(f) == 1;
          },
          mode);
      EXPECT_EQ(ReadFileBytes(P("f")), mode == PowerLoss::Drop ? durable : current);
    }
  }
}

struct CreationCase {
  bool fileSync;
  bool dirSync;
};

TEST_F(PowerLossTest, CreatedFileNeedsDirectorySync) {
  const CreationCase cases[] = {{false, false}, {true, false}, {false, true}, {true, true}};
  for (const CreationCase &c : cases) {
    SCOPED_TRACE(testing::Message() << "file sync " << c.fileSync << ", dir sync " << c.dirSync);
    Clean();
    RunThenLosePower(
        [&] { return CreateFile(P("new"), "content", c.fileSync) && (!c.dirSync || DirectorySync(dir().c_str())); },
        PowerLoss::Drop);
    if (!c.dirSync)
      EXPECT_EQ(State(), DiskState{});
    else
      EXPECT_EQ(State(), (DiskState{{"new", c.fileSync ? "content" : ""}}));
  }
}

TEST_F(PowerLossTest, RenameAndRemoveWithoutDirectorySyncAreUndone) {
  for (const bool dirSync : {false, true}) {
    SCOPED_TRACE(dirSync ? "directory synced" : "directory not synced");
    Clean();
    WriteFileBytes(P("old"), "OLD");
    WriteFileBytes(P("target"), "TGT");
    WriteFileBytes(P("gone"), "GONE");
    RunThenLosePower(
        [&] {
          return FileRename(P("old").c_str(), P("target").c_str()) && FileRemove(P("gone").c_str()) &&
                 (!dirSync || DirectorySync(dir().c_str()));
        },
        PowerLoss::Drop);
    if (dirSync)
      EXPECT_EQ(State(), (DiskState{{"target", "OLD"}}));
    else
      EXPECT_EQ(State(), (DiskState{{"old", "OLD"}, {"target", "TGT"}, {"gone", "GONE"}}));
  }
}

// The usual replace-by-rename commit without its final directory sync.
TEST_F(PowerLossTest, AtomicReplaceWithoutDirectorySync) {
  for (const PowerLoss mode : {PowerLoss::Drop, PowerLoss::Keep}) {
    Clean();
    WriteFileBytes(P("target"), "TGT");
    RunThenLosePower(
        [&] { return CreateFile(P("tmp"), "NEW", true) && FileRename(P("tmp").c_str(), P("target").c_str()); }, mode);
    EXPECT_EQ(State(), (DiskState{{"target", mode == PowerLoss::Drop ? "TGT" : "NEW"}}));
  }
}

struct TwoDirCase {
  bool syncSource;
  bool syncTarget;
};

TEST_F(PowerLossTest, RenameAcrossDirectoriesNeedsBothSynced) {
  const TwoDirCase cases[] = {{false, false}, {true, false}, {false, true}, {true, true}};
  for (const TwoDirCase &c : cases) {
    SCOPED_TRACE(testing::Message() << "source " << c.syncSource << ", target " << c.syncTarget);
    Clean();
    std::filesystem::create_directories(P("a"));
    std::filesystem::create_directories(P("b"));
    WriteFileBytes(P("a/x"), "X");
    RunThenLosePower(
        [&] {
          return FileRename(P("a/x").c_str(), P("b/y").c_str()) && (!c.syncSource || DirectorySync(P("a").c_str())) &&
                 (!c.syncTarget || DirectorySync(P("b").c_str()));
        },
        PowerLoss::Drop);
    if (c.syncSource && c.syncTarget)
      EXPECT_EQ(State(), (DiskState{{"a", "<dir>"}, {"b", "<dir>"}, {"b/y", "X"}}));
    else
      EXPECT_EQ(State(), (DiskState{{"a", "<dir>"}, {"a/x", "X"}, {"b", "<dir>"}}));
  }
}

TEST_F(PowerLossTest, NewDirectoriesNeedTheirParentsSynced) {
  const CreationCase cases[] = {{false, false}, {true, false}, {false, true}, {true, true}};
  for (const CreationCase &c : cases) {  // fileSync: sync the top dir; dirSync: sync "a"
    SCOPED_TRACE(testing::Message() << "top " << c.fileSync << ", a " << c.dirSync);
    Clean();
    RunThenLosePower(
        [&] {
          return DirectoryCreate(P("a/b").c_str()) && CreateFile(P("a/b/f"), "F", true) &&
                 DirectorySync(P("a/b").c_str()) && (!c.fileSync || DirectorySync(dir().c_str())) &&
                 (!c.dirSync || DirectorySync(P("a").c_str()));
        },
        PowerLoss::Drop);
    DiskState expected;
    if (c.fileSync) expected["a"] = "<dir>";
    if (c.fileSync && c.dirSync) expected.insert({{"a/b", "<dir>"}, {"a/b/f", "F"}});
    EXPECT_EQ(State(), expected);
  }
}

struct MappedCase {
  const char *name;
  bool syncFirstPage;
  bool unmap;
  bool fileSync;
};

TEST_F(PowerLossTest, MappedWritesNeedASync) {
  const MappedCase cases[] = {
      {"map sync of the first page", true, false, false},
      {"file sync covers the mapping", false, false, true},
      {"unmapped, never synced", false, true, false},
      {"unmapped, then file sync", false, true, true},
  };
  const size_t page = PageSize();
  for (const MappedCase &c : cases) {
    for (const PowerLoss mode : {PowerLoss::Drop, PowerLoss::Keep}) {
      SCOPED_TRACE(testing::Message() << c.name << (mode == PowerLoss::Drop ? ", drop" : ", keep"));
      WriteFileBytes(P("m"), std::string(2 * page, 'x'));
      RunThenLosePower(
          [&] {
            QWFILE file;
            if (!QWFileOpen(&file, P("m").c_str(), QWFILE_READ | QWFILE_WRITE)) return false;
            auto *bytes = static_cast<char *>(FileMapSegment(file, 0, 2 * page, QW_MAP_READ | QW_MAP_WRITE));
            if (!bytes) return false;
            std::memset(bytes, 'y', page);
            if (c.syncFirstPage && !FileMapSync(bytes, page)) return false;
            std::memset(bytes + page, 'z', page);
            if (c.unmap && !FileUnmap(bytes, 2 * page)) return false;
            return !c.fileSync || QWFileSync(file);
          },
          mode);
      const bool firstKept = mode == PowerLoss::Keep || c.syncFirstPage || c.fileSync;
      const bool secondKept = mode == PowerLoss::Keep || c.fileSync;
      EXPECT_EQ(ReadFileBytes(P("m")),
                std::string(page, firstKept ? 'y' : 'x') + std::string(page, secondKept ? 'z' : 'x'));
    }
  }
}

// What Garble made of a range that had pending new bytes.
enum class Outcome { Kept, Dropped, Garbled };

Outcome Classify(const std::string &after, const std::string &before, const std::string &written) {
  if (after == written) return Outcome::Kept;
  return after == before ? Outcome::Dropped : Outcome::Garbled;
}

// Garble touches pending ranges only, reproducibly for a seed, and over a
// few seeds keeps, drops and garbles some of them.
TEST_F(PowerLossTest, GarbleChangesOnlyPendingRangesReproducibly) {
  constexpr int kRanges = 24;
  constexpr size_t kLength = 64, kStride = 600, kSyncedAt = 15000;
  std::string original(16384, '\0');
  for (size_t i = 0; i < original.size(); ++i) original[i] = char('0' + i % 10);
  const std::string synced(kLength, 'S');
  const auto pending = [](int i) { return std::string(kLength, char('A' + i)); };
  const auto workload = [&] {
    QWFILE f;
    if (!QWFileOpen(&f, P("f").c_str(), QWFILE_READ | QWFILE_WRITE) || !Write(f, kSyncedAt, synced) || !QWFileSync(f))
      return false;
    for (int i = 0; i < kRanges; ++i)
      if (!Write(f, i * kStride, pending(i))) return false;
    return QWFileClose(f) == 1;
  };
  std::map<Outcome, int> outcomes;
  for (uint64_t seed = 1; seed <= 6; ++seed) {
    SCOPED_TRACE(testing::Message() << "seed " << seed);
    WriteFileBytes(P("f"), original);
    RunThenLosePower(workload, PowerLoss::Garble, seed);
    const std::string after = ReadFileBytes(P("f"));
    ASSERT_EQ(after.size(), original.size());
    std::string expected = original;  // with the pending ranges copied from `after`
    expected.replace(kSyncedAt, kLength, synced);
    for (int i = 0; i < kRanges; ++i) {
      const size_t at = i * kStride;
      outcomes[Classify(after.substr(at, kLength), original.substr(at, kLength), pending(i))]++;
      expected.replace(at, kLength, after.substr(at, kLength));
    }
    EXPECT_EQ(after, expected);

    WriteFileBytes(P("f"), original);
    RunThenLosePower(workload, PowerLoss::Garble, seed);
    EXPECT_EQ(ReadFileBytes(P("f")), after) << "same seed, different result";
  }
  EXPECT_GT(outcomes[Outcome::Kept], 0);
  EXPECT_GT(outcomes[Outcome::Dropped], 0);
  EXPECT_GT(outcomes[Outcome::Garbled], 0);
}

// For mappings the unit is the changed span of each page.
TEST_F(PowerLossTest, GarbleOfMappedPages) {
  constexpr int kPages = 4;
  constexpr size_t kAt = 50, kLength = 100;
  const size_t page = PageSize();
  const std::string original(kPages * page, 'x');
  std::map<Outcome, int> outcomes;
  for (uint64_t seed = 1; seed <= 6; ++seed) {
    SCOPED_TRACE(testing::Message() << "seed " << seed);
    WriteFileBytes(P("m"), original);
    RunThenLosePower(
        [&] {
          QWFILE file;
          if (!QWFileOpen(&file, P("m").c_str(), QWFILE_READ | QWFILE_WRITE)) return false;
          auto *bytes = static_cast<char *>(FileMapSegment(file, 0, kPages * page, QW_MAP_READ | QW_MAP_WRITE));
          if (!bytes) return false;
          for (int p = 0; p < kPages; ++p) std::memset(bytes + p * page + kAt, 'A' + p, kLength);
          return true;
        },
        PowerLoss::Garble, seed);
    const std::string after = ReadFileBytes(P("m"));
    ASSERT_EQ(after.size(), original.size());
    std::string expected = original;
    for (int p = 0; p < kPages; ++p) {
      const size_t at = p * page + kAt;
      outcomes[Classify(after.substr(at, kLength), original.substr(at, kLength),
                        std::string(kLength, char('A' + p)))]++;
      expected.replace(at, kLength, after.substr(at, kLength));
    }
    EXPECT_EQ(after, expected);
  }
  EXPECT_GT(outcomes[Outcome::Kept], 0);
  EXPECT_GT(outcomes[Outcome::Dropped], 0);
  EXPECT_GT(outcomes[Outcome::Garbled], 0);
}

struct NameScenario {
  const char *name;
  DiskState before;
  std::function<bool(const PowerLossTest &)> workload;
  std::set<DiskState> allowed;  // the states some prefix of the operations leaves
};

// Garbled name operations stay consistent: an operation on a name that a
// lost operation produced is lost too, so every outcome is the state after
// some prefix of the operations.
TEST_F(PowerLossTest, GarbleKeepsNameOperationsConsistent) {
  const NameScenario scenarios[] = {
      {"create then rename over a file",
       {{"target", "OLD"}},
       [](const PowerLossTest &t) {
         return CreateFile(t.P("tmp"), "NEW", true) && FileRename(t.P("tmp").c_str(), t.P("target").c_str());
       },
       {{{"target", "OLD"}}, {{"target", "OLD"}, {"tmp", "NEW"}}, {{"target", "NEW"}}}},
      {"chained renames",
       {{"a", "A"}, {"b", "B"}},
       [](const PowerLossTest &t) {
         return FileRename(t.P("a").c_str(), t.P("b").c_str()) && FileRename(t.P("b").c_str(), t.P("c").c_str());
       },
       {{{"a", "A"}, {"b", "B"}}, {{"b", "A"}}, {{"c", "A"}}}},
  };
  for (const NameScenario &scenario : scenarios) {
    std::set<DiskState> seen;
    for (uint64_t seed = 0; seed < 24; ++seed) {
      SCOPED_TRACE(testing::Message() << scenario.name << ", seed " << seed);
      Clean();
      for (const auto &[name, content] : scenario.before) WriteFileBytes(P(name), content);
      RunThenLosePower([&] { return scenario.workload(*this); }, PowerLoss::Garble, seed);
      const DiskState state = State();
      EXPECT_TRUE(scenario.allowed.count(state)) << testing::PrintToString(state);
      seen.insert(state);
    }
    EXPECT_EQ(seen, scenario.allowed) << scenario.name;
  }
}

// Versions of "data" committed by write-new, sync, rename, sync-directory,
// and a mapped counter page synced after each commit. Stops normally after
// `stopAfterSyncs` syncs (0: runs to the end).
bool CommitVersions(const std::string &dir, int stopAfterSyncs) {
  int syncs = 0;
  const auto stop = [&] { return ++syncs == stopAfterSyncs; };
  const std::string data = dir + "/data", tmp = dir + "/data.new", counterPath = dir + "/counter";
  QWFILE counterFile;
  if (!QWFileOpen(&counterFile, counterPath.c_str(), QWFILE_READ | QWFILE_WRITE)) return false;
  for (int version = 1; version <= 3; ++version) {
    QWChannel *channel = ChannelNew(16);
    const std::string text = "version " + std::to_string(version) + std::string(size_t(version) * 20, '+');
    if (!channel || !ChannelOpenFile(channel, tmp.c_str(), "w") ||
        !ChannelWriteBuf(channel, text.data(), text.size()) || !ChannelSync(channel))
      return false;
    if (stop()) return ChannelClose(channel) == 1;
    if (!ChannelClose(channel) || !FileRename(tmp.c_str(), data.c_str()) || !DirectorySync(dir.c_str())) return false;
    if (stop()) return true;
    auto *counter = static_cast<char *>(FileMapSegment(counterFile, 0, PageSize(), QW_MAP_READ | QW_MAP_WRITE));
    if (!counter) return false;
    counter[0] = char('0' + version);
    if (!FileMapSync(counter, 1)) return false;
    if (stop()) return true;
    if (!FileUnmap(counter, PageSize())) return false;
  }
  return QWFileClose(counterFile) == 1;
}

// Crashing at every sync of the workload leaves exactly the state that a
// clean stop after some earlier sync leaves, and never goes backwards.
TEST_F(PowerLossTest, CrashAtEverySyncLeavesASyncedPrefix) {
  const auto setUp = [&] {
    Clean();
    WriteFileBytes(P("data"), "version 0");
    WriteFileBytes(P("counter"), std::string(PageSize(), '0'));
  };
  setUp();
  const qwtest::ChildResult counting = qwtest::RunInChild([&] {
    fault::Reset();
    const int completed = CommitVersions(dir(), 0) ? 1 : 0;
    std::printf("%d %llu", completed, (unsigned long long)fault::SyncCount());
  });
  int completed = 0;
  unsigned long long syncCount = 0;
  ASSERT_EQ(std::sscanf(counting.out.c_str(), "%d %llu", &completed, &syncCount), 2) << counting.out;
  ASSERT_EQ(completed, 1);
  ASSERT_EQ(syncCount, 9u);

  std::vector<DiskState> prefixes;  // prefixes[k]: clean stop after k syncs
  for (unsigned long long k = 0; k <= syncCount; ++k) {
    setUp();
    if (k > 0) {
      const qwtest::ChildResult child = qwtest::RunInChild([&] { _exit(CommitVersions(dir(), int(k)) ? 0 : 3); });
      ASSERT_EQ(child.exitStatus, 0);
    }
    prefixes.push_back(State());
  }

  size_t previous = 0;
  for (unsigned long long n = 1; n <= syncCount; ++n) {
    SCOPED_TRACE(testing::Message() << "crash at sync " << n);
    setUp();
    const qwtest::ChildResult child = qwtest::RunInChild([&] {
      fault::Reset();
      fault::CrashAtSync(n, PowerLoss::Drop);
      _exit(CommitVersions(dir(), 0) ? 0 : 3);
    });
    ASSERT_TRUE(child.exited);
    ASSERT_EQ(child.exitStatus, 1) << "the crash did not happen";
    const DiskState state = State();
    const auto found = std::find(prefixes.begin(), prefixes.end(), state);
    ASSERT_NE(found, prefixes.end()) << testing::PrintToString(state);
    const size_t index = size_t(found - prefixes.begin());
    EXPECT_LT(index, n);  // the crashing sync itself never completed
    EXPECT_GE(index, previous);
    previous = index;
  }

  // Garbled crashes may keep any pending part, but "data" is always one
  // whole committed version.
  std::set<std::string> versions;
  for (const DiskState &state : prefixes) versions.insert(state.at("data"));
  for (unsigned long long n = 1; n <= syncCount; ++n) {
    for (uint64_t seed = 1; seed <= 3; ++seed) {
      SCOPED_TRACE(testing::Message() << "garbled crash at sync " << n << ", seed " << seed);
      setUp();
      const qwtest::ChildResult child = qwtest::RunInChild([&] {
        fault::Reset();
        fault::CrashAtSync(n, PowerLoss::Garble, seed);
        _exit(CommitVersions(dir(), 0) ? 0 : 3);
      });
      ASSERT_EQ(child.exitStatus, 1);
      EXPECT_TRUE(versions.count(ReadFileBytes(P("data")))) << ReadFileBytes(P("data"));
      for (const auto &[name, content] : State()) EXPECT_EQ(name.find(".qwfault-backup-"), std::string::npos);
    }
  }
}

}  // namespace
