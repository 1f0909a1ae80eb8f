// Simulated power loss through the fault seam. Each workload runs in a forked
// child with durability tracking on; the child loses power and exits; the
// parent then inspects what survived on disk.
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

#include "support/fault_support.h"
#include "support/platform_support.h"

namespace {

namespace fault = qw::fault;
using fault::PowerLoss;
using qwtest::ReadFileBytes;
using qwtest::WriteFileBytes;

using DiskState = std::map<std::string, std::string>;  // relative name -> content ("<dir>")
using Workload = std::function<bool()>;

const char *Name(PowerLoss mode) { return mode == PowerLoss::Drop ? "drop" : mode == PowerLoss::Keep ? "keep" : "garble"; }

class PowerLossTest : public qwtest::FaultTempDirTest {
 protected:
  // Empties the directory and creates `before` ("<dir>" entries as directories).
  void Start(const DiskState &before) {
    for (const auto &entry : std::filesystem::directory_iterator(dir())) std::filesystem::remove_all(entry.path());
    for (const auto &[name, content] : before) {
      if (content == "<dir>")
        std::filesystem::create_directories(P(name));
      else
        WriteFileBytes(P(name), content);
    }
  }
  // Runs `workload` in a child with tracking on, then loses power there.
  void RunThenLosePower(const Workload &workload, PowerLoss mode, uint64_t seed = 0) {
    const qwtest::PowerLossRun run = qwtest::PowerLossChild(0, {mode, seed}, nullptr, workload);
    ASSERT_EQ(run.status, 2) << run.out;
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
  // Start(before), the workload, a power loss: the disk must be `expected`.
  void ExpectAfterLoss(const DiskState &before, const Workload &workload, PowerLoss mode, const DiskState &expected) {
    Start(before);
    RunThenLosePower(workload, mode);
    EXPECT_EQ(State(), expected) << Name(mode);
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
  const Workload workload = [&] {
    QWFILE f, g;
    return QWFileOpen(&f, P("f").c_str(), QWFILE_READ | QWFILE_WRITE) && Write(f, 0, "BBBB") && QWFileSync(f) &&
           Write(f, 2, "CC") && Write(f, 10, "DDDD") && QWFileSetSize(f, 12) && QWFileClose(f) &&
           QWFileOpen(&g, P("g").c_str(), QWFILE_WRITE) && QWFileSetSize(g, 1) && Write(g, 3, "z") && QWFileClose(g);
  };
  const DiskState before{{"f", "AAAAAAAA"}, {"g", "123456"}};
  ExpectAfterLoss(before, workload, PowerLoss::Drop, {{"f", "BBBBAAAA"}, {"g", "123456"}});
  ExpectAfterLoss(before, workload, PowerLoss::Keep,
                  {{"f", std::string("BBCCAAAA\0\0DD", 12)}, {"g", std::string("1\0\0z", 4)}});
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
    const Workload workload = [&] {
      QWFILE f;
      if (!QWFileOpen(&f, P("f").c_str(), QWFILE_READ | QWFILE_WRITE)) return false;
      for (const Action &a : actions) {
        const bool ok = a.kind == 0   ? Write(f, a.offset, a.bytes)
                        : a.kind == 1 ? QWFileSetSize(f, a.offset) == 1
                                      : QWFileSync(f) == 1;
        if (!ok) return false;
      }
      return QWFileClose(f) == 1;
    };
    SCOPED_TRACE(testing::Message() << "seed " << seed);
    ExpectAfterLoss({{"f", std::string(3000, 'i')}}, workload, PowerLoss::Drop, {{"f", durable}});
    ExpectAfterLoss({{"f", std::string(3000, 'i')}}, workload, PowerLoss::Keep, {{"f", current}});
  }
}

// Names: a created file, a rename and a removal, new directories and a
// rename between directories survive only once their directories are synced.
TEST_F(PowerLossTest, NameOperationsNeedTheirDirectoriesSynced) {
  for (const bool first : {false, true}) {
    for (const bool second : {false, true}) {
      SCOPED_TRACE(testing::Message() << "first sync " << first << ", second sync " << second);
      // A new file: first = file sync, second = directory sync.
      ExpectAfterLoss(
          {}, [&] { return CreateFile(P("new"), "content", first) && (!second || DirectorySync(dir().c_str())); },
          PowerLoss::Drop, second ? DiskState{{"new", first ? "content" : ""}} : DiskState{});
      // Across directories: first = source synced, second = target synced.
      const bool moved = first && second;
      ExpectAfterLoss(
          {{"a", "<dir>"}, {"b", "<dir>"}, {"a/x", "X"}},
          [&] {
            return FileRename(P("a/x").c_str(), P("b/y").c_str()) && (!first || DirectorySync(P("a").c_str())) &&
                   (!second || DirectorySync(P("b").c_str()));
          },
          PowerLoss::Drop, {{"a", "<dir>"}, {"b", "<dir>"}, {moved ? "b/y" : "a/x", "X"}});
      // New directories: first = top synced, second = "a" synced.
      DiskState made;
      if (first) made["a"] = "<dir>";
      if (first && second) made.insert({{"a/b", "<dir>"}, {"a/b/f", "F"}});
      ExpectAfterLoss(
          {},
          [&] {
            return DirectoryCreate(P("a/b").c_str()) && CreateFile(P("a/b/f"), "F", true) &&
                   DirectorySync(P("a/b").c_str()) && (!first || DirectorySync(dir().c_str())) &&
                   (!second || DirectorySync(P("a").c_str()));
          },
          PowerLoss::Drop, made);
    }
    // A rename and a removal in one directory.
    ExpectAfterLoss(
        {{"old", "OLD"}, {"target", "TGT"}, {"gone", "GONE"}},
        [&] {
          return FileRename(P("old").c_str(), P("target").c_str()) && FileRemove(P("gone").c_str()) &&
                 (!first || DirectorySync(dir().c_str()));
        },
        PowerLoss::Drop, first ? DiskState{{"target", "OLD"}} : DiskState{{"old", "OLD"}, {"target", "TGT"}, {"gone", "GONE"}});
  }
  // The usual replace-by-rename commit without its final directory sync.
  for (const PowerLoss mode : {PowerLoss::Drop, PowerLoss::Keep})
    ExpectAfterLoss(
        {{"target", "TGT"}},
        [&] { return CreateFile(P("tmp"), "NEW", true) && FileRename(P("tmp").c_str(), P("target").c_str()); }, mode,
        {{"target", mode == PowerLoss::Drop ? "TGT" : "NEW"}});
}

TEST_F(PowerLossTest, MappedWritesNeedASync) {
  const struct {
    const char *name;
    bool syncFirstPage, unmap, fileSync;
  } cases[] = {
      {"map sync of the first page", true, false, false},
      {"file sync covers the mapping", false, false, true},
      {"unmapped, never synced", false, true, false},
      {"unmapped, then file sync", false, true, true},
  };
  const size_t page = PageSize();
  for (const auto &c : cases) {
    for (const PowerLoss mode : {PowerLoss::Drop, PowerLoss::Keep}) {
      SCOPED_TRACE(c.name);
      const bool firstKept = mode == PowerLoss::Keep || c.syncFirstPage || c.fileSync;
      const bool secondKept = mode == PowerLoss::Keep || c.fileSync;
      ExpectAfterLoss(
          {{"m", std::string(2 * page, 'x')}},
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
          mode, {{"m", std::string(page, firstKept ? 'y' : 'x') + std::string(page, secondKept ? 'z' : 'x')}});
    }
  }
}

// Garble touches pending ranges only, reproducibly for a seed, and over a
// few seeds keeps, drops and garbles some of them: pending writes of a file,
// and the changed span of each page of a mapping.
TEST_F(PowerLossTest, GarbleChangesOnlyPendingRangesReproducibly) {
  enum Outcome { Kept, Dropped, Garbled };
  constexpr int kRanges = 24, kPages = 4;
  constexpr size_t kLength = 64, kStride = 600, kSyncedAt = 15000, kMapAt = 50, kMapLength = 100;
  const size_t page = PageSize();
  std::string original(16384, '\0');
  for (size_t i = 0; i < original.size(); ++i) original[i] = char('0' + i % 10);
  const std::string synced(kLength, 'S');
  const struct {
    const char *name;  // also the file's name
    std::string original;
    int ranges;
    std::function<size_t(int)> at;
    size_t length;
    Workload workload;
  } kinds[] = {
      {"f", original, kRanges, [](int i) { return i * kStride; }, kLength,
       [&] {
         QWFILE f;
         if (!QWFileOpen(&f, P("f").c_str(), QWFILE_READ | QWFILE_WRITE) || !Write(f, kSyncedAt, synced) ||
             !QWFileSync(f))
           return false;
         for (int i = 0; i < kRanges; ++i)
           if (!Write(f, i * kStride, std::string(kLength, char('A' + i)))) return false;
         return QWFileClose(f) == 1;
       }},
      {"m", std::string(kPages * page, 'x'), kPages, [&](int p) { return p * page + kMapAt; }, kMapLength,
       [&] {
         QWFILE file;
         if (!QWFileOpen(&file, P("m").c_str(), QWFILE_READ | QWFILE_WRITE)) return false;
         auto *bytes = static_cast<char *>(FileMapSegment(file, 0, kPages * page, QW_MAP_READ | QW_MAP_WRITE));
         if (!bytes) return false;
         for (int p = 0; p < kPages; ++p) std::memset(bytes + p * page + kMapAt, 'A' + p, kMapLength);
         return true;
       }},
  };
  for (const auto &kind : kinds) {
    std::map<Outcome, int> outcomes;
    for (uint64_t seed = 1; seed <= 6; ++seed) {
      SCOPED_TRACE(testing::Message() << kind.name << ", seed " << seed);
      Start({{kind.name, kind.original}});
      RunThenLosePower(kind.workload, PowerLoss::Garble, seed);
      const std::string after = ReadFileBytes(P(kind.name));
      ASSERT_EQ(after.size(), kind.original.size());
      std::string expected = kind.original;  // with the pending ranges copied from `after`
      if (kind.ranges == kRanges) expected.replace(kSyncedAt, kLength, synced);  // the file's synced write
      for (int i = 0; i < kind.ranges; ++i) {
        const std::string range = after.substr(kind.at(i), kind.length);
        outcomes[range == std::string(kind.length, char('A' + i))              ? Kept
                 : range == kind.original.substr(kind.at(i), kind.length) ? Dropped
                                                                                  : Garbled]++;
        expected.replace(kind.at(i), kind.length, range);
      }
      EXPECT_EQ(after, expected);
      Start({{kind.name, kind.original}});
      RunThenLosePower(kind.workload, PowerLoss::Garble, seed);
      EXPECT_EQ(ReadFileBytes(P(kind.name)), after) << "same seed, different result";
    }
    EXPECT_GT(outcomes[Kept], 0) << kind.name;
    EXPECT_GT(outcomes[Dropped], 0) << kind.name;
    EXPECT_GT(outcomes[Garbled], 0) << kind.name;
  }
}

// Garbled name operations stay consistent: an operation on a name that a
// lost operation produced is lost too, so every outcome is the state after
// some prefix of the operations.
TEST_F(PowerLossTest, GarbleKeepsNameOperationsConsistent) {
  const struct {
    const char *name;
    DiskState before;
    Workload workload;
    std::set<DiskState> allowed;  // the states some prefix of the operations leaves
  } scenarios[] = {
      {"create then rename over a file",
       {{"target", "OLD"}},
       [&] { return CreateFile(P("tmp"), "NEW", true) && FileRename(P("tmp").c_str(), P("target").c_str()); },
       {{{"target", "OLD"}}, {{"target", "OLD"}, {"tmp", "NEW"}}, {{"target", "NEW"}}}},
      {"chained renames",
       {{"a", "A"}, {"b", "B"}},
       [&] { return FileRename(P("a").c_str(), P("b").c_str()) && FileRename(P("b").c_str(), P("c").c_str()); },
       {{{"a", "A"}, {"b", "B"}}, {{"b", "A"}}, {{"c", "A"}}}},
  };
  for (const auto &scenario : scenarios) {
    std::set<DiskState> seen;
    for (uint64_t seed = 0; seed < 24; ++seed) {
      Start(scenario.before);
      RunThenLosePower(scenario.workload, PowerLoss::Garble, seed);
      const DiskState state = State();
      EXPECT_TRUE(scenario.allowed.count(state)) << scenario.name << ", seed " << seed << testing::PrintToString(state);
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
  const DiskState initial{{"data", "version 0"}, {"counter", std::string(PageSize(), '0')}};
  const Workload commit = [&] { return CommitVersions(dir(), 0); };
  Start(initial);
  const qwtest::PowerLossRun counting = qwtest::PowerLossChild(0, {PowerLoss::Keep}, nullptr, commit, false);
  ASSERT_EQ(counting.status, 2) << counting.out;
  const uint64_t syncCount = counting.syncs;
  ASSERT_EQ(syncCount, 9u);

  std::vector<DiskState> prefixes;  // prefixes[k]: clean stop after k syncs
  for (uint64_t k = 0; k <= syncCount; ++k) {
    Start(initial);
    ASSERT_EQ(k == 0 ? 0 : qwtest::RunInChild([&] { _exit(CommitVersions(dir(), int(k)) ? 0 : 3); }).exitStatus, 0);
    prefixes.push_back(State());
  }
  size_t previous = 0;
  for (uint64_t n = 1; n <= syncCount; ++n) {
    SCOPED_TRACE(testing::Message() << "crash at sync " << n);
    Start(initial);
    ASSERT_EQ(qwtest::PowerLossChild(n, {PowerLoss::Drop}, nullptr, commit, false).status, 1) << "no crash";
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
  for (uint64_t n = 1; n <= syncCount; ++n) {
    for (uint64_t seed = 1; seed <= 3; ++seed) {
      SCOPED_TRACE(testing::Message() << "garbled crash at sync " << n << ", seed " << seed);
      Start(initial);
      ASSERT_EQ(qwtest::PowerLossChild(n, {PowerLoss::Garble, seed}, nullptr, commit, false).status, 1);
      EXPECT_TRUE(versions.count(ReadFileBytes(P("data")))) << ReadFileBytes(P("data"));
      for (const auto &[name, content] : State()) EXPECT_EQ(name.find(".qwfault-backup-"), std::string::npos);
    }
  }
}

}  // namespace
