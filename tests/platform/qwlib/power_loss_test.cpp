// Simulated power loss through the fault seam. Each workload runs in a forked child with durability tracking on; the
// child loses power and exits; the parent then inspects what survived on disk.
#include <unistd.h>

#include <algorithm>
#include <cstring>
#include <filesystem>
#include <map>
#include <set>

#include "support/fault_support.h"
#include "support/platform_support.h"

namespace {

using qw::fault::PowerLoss;
using qwtest::ReadFileBytes;

using DiskState = std::map<std::string, std::string>;  // relative name -> content ("<dir>")
using Workload = std::function<bool()>;

class PowerLossTest : public qwtest::FaultTempDirTest {
 protected:
  // Empties the directory and creates `before` ("<dir>" entries as directories).
  void Start(const DiskState &before) {
    for (const auto &entry : std::filesystem::directory_iterator(dir())) std::filesystem::remove_all(entry.path());
    for (const auto &[name, content] : before) {
      if (content == "<dir>") std::filesystem::create_directories(path(name));
      else qwtest::WriteFileBytes(path(name), content);
    }
  }
  // Start(before), then `workload` in a child with tracking on that loses power afterwards.
  void RunThenLosePower(const DiskState &before, const Workload &workload, PowerLoss mode, uint64_t seed = 0) {
    Start(before);
    const qwtest::PowerLossRun run = qwtest::PowerLossChild(0, {mode, seed}, nullptr, workload);
    ASSERT_EQ(run.status, 2) << run.out;
  }
  // Everything under the test directory, hidden names included (so that a leftover backup shows up as a difference).
  DiskState State() const {
    DiskState state;
    for (const auto &entry : std::filesystem::recursive_directory_iterator(dir()))
      state[std::filesystem::relative(entry.path(), dir()).string()] =
          entry.is_directory() ? "<dir>" : ReadFileBytes(entry.path().string());
    return state;
  }
  void ExpectAfterLoss(const DiskState &before, const Workload &workload, PowerLoss mode, const DiskState &expected) {
    RunThenLosePower(before, workload, mode);
    EXPECT_EQ(State(), expected) << int(mode);
  }
  // A path that lives as long as the test (for the C calls in a workload).
  const char *C(const std::string &name) { return names_.try_emplace(name, path(name)).first->second.c_str(); }
  std::map<std::string, std::string> names_;
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

// Maps `length` bytes of `path` read-write; nullptr on failure.
char *Map(const std::string &path, size_t length, QWFILE *file) {
  if (!QWFileOpen(file, path.c_str(), QWFILE_READ | QWFILE_WRITE)) return nullptr;
  return static_cast<char *>(FileMapSegment(*file, 0, length, QW_MAP_READ | QW_MAP_WRITE));
}

// Random writes, size changes and syncs of one file against two models: what was last synced (Drop must leave exactly
// that) and everything (Keep).
TEST_F(PowerLossTest, RandomWorkloadMatchesDurableAndCurrentModels) {
  struct Action {
    int kind;  // 0 write, 1 set size, 2 sync
    uint64_t offset;
    std::string bytes;
  };
  for (uint64_t seed = 1; seed <= 4; ++seed) {
    std::mt19937 random{uint32_t(seed)};
    std::vector<Action> actions;
    const std::string initial(3000, 'i');
    std::string current = initial, durable = initial;
    for (int i = 0; i < 200; ++i) {
      Action a{int(random() % 10 < 6 ? 0 : random() % 2 + 1), random() % 4000, ""};
      if (a.kind == 0) {
        a.bytes.resize(random() % 200 + 1);
        for (char &c : a.bytes) c = char('a' + random() % 26);
        current.resize(std::max(current.size(), a.offset + a.bytes.size()));
        current.replace(a.offset, a.bytes.size(), a.bytes);
      }
      if (a.kind == 1) current.resize(a.offset);
      if (a.kind == 2) durable = current;
      actions.push_back(a);
    }
    const Workload workload = [&] {
      QWFILE f;
      if (!QWFileOpen(&f, C("f"), QWFILE_READ | QWFILE_WRITE)) return false;
      for (const Action &a : actions)
        if (!(a.kind == 0 ? Write(f, a.offset, a.bytes) : a.kind == 1 ? QWFileSetSize(f, a.offset) : QWFileSync(f)))
          return false;
      return QWFileClose(f) == 1;
    };
    SCOPED_TRACE(testing::Message() << "seed " << seed);
    ExpectAfterLoss({{"f", initial}}, workload, PowerLoss::Drop, {{"f", durable}});
    ExpectAfterLoss({{"f", initial}}, workload, PowerLoss::Keep, {{"f", current}});
  }
}

// Names: a created file, a rename and a removal, new directories and a rename between directories survive only once
// their directories are synced.
TEST_F(PowerLossTest, NameOperationsNeedTheirDirectoriesSynced) {
  for (const bool first : {false, true}) {
    for (const bool second : {false, true}) {
      SCOPED_TRACE(testing::Message() << "first sync " << first << ", second sync " << second);
      // A new file: first = file sync, second = directory sync.
      ExpectAfterLoss({}, [&] { return CreateFile(C("new"), "content", first) && (!second || DirectorySync(C(""))); },
                      PowerLoss::Drop, second ? DiskState{{"new", first ? "content" : ""}} : DiskState{});
      // Across directories: first = source synced, second = target synced.
      ExpectAfterLoss(
          {{"a", "<dir>"}, {"b", "<dir>"}, {"a/x", "X"}},
          [&] {
            return FileRename(C("a/x"), C("b/y")) && (!first || DirectorySync(C("a"))) &&
                   (!second || DirectorySync(C("b")));
          },
          PowerLoss::Drop, {{"a", "<dir>"}, {"b", "<dir>"}, {first && second ? "b/y" : "a/x", "X"}});
      // New directories: first = top synced, second = "a" synced.
      DiskState made;
      if (first) made["a"] = "<dir>";
      if (first && second) made.insert({{"a/b", "<dir>"}, {"a/b/f", "F"}});
      ExpectAfterLoss({}, [&] {
        return DirectoryCreate(C("a/b")) && CreateFile(C("a/b/f"), "F", true) && DirectorySync(C("a/b")) &&
               (!first || DirectorySync(C(""))) && (!second || DirectorySync(C("a")));
      }, PowerLoss::Drop, made);
    }
    // A rename and a removal in one directory.
    const DiskState before{{"old", "OLD"}, {"target", "TGT"}, {"gone", "GONE"}};
    ExpectAfterLoss(before, [&] {
      return FileRename(C("old"), C("target")) && FileRemove(C("gone")) && (!first || DirectorySync(C("")));
    }, PowerLoss::Drop, first ? DiskState{{"target", "OLD"}} : before);
  }
  // The usual replace-by-rename commit without its final directory sync.
  for (const PowerLoss mode : {PowerLoss::Drop, PowerLoss::Keep})
    ExpectAfterLoss({{"target", "TGT"}}, [&] {
      return CreateFile(C("tmp"), "NEW", true) && FileRename(C("tmp"), C("target"));
    }, mode, {{"target", mode == PowerLoss::Drop ? "TGT" : "NEW"}});
}

TEST_F(PowerLossTest, MappedWritesNeedASync) {
  const struct {
    bool syncFirstPage, unmap, fileSync;
  } cases[] = {{true, false, false}, {false, false, true}, {false, true, false}, {false, true, true}};
  const size_t page = PageSize();
  for (const auto &c : cases) {
    for (const PowerLoss mode : {PowerLoss::Drop, PowerLoss::Keep}) {
      SCOPED_TRACE(testing::Message() << c.syncFirstPage << c.unmap << c.fileSync);
      const bool firstKept = mode == PowerLoss::Keep || c.syncFirstPage || c.fileSync;
      const bool secondKept = mode == PowerLoss::Keep || c.fileSync;
      ExpectAfterLoss({{"m", std::string(2 * page, 'x')}}, [&] {
        QWFILE file;
        char *bytes = Map(C("m"), 2 * page, &file);
        if (!bytes) return false;
        std::memset(bytes, 'y', page);
        if (c.syncFirstPage && !FileMapSync(bytes, page)) return false;
        std::memset(bytes + page, 'z', page);
        return (!c.unmap || FileUnmap(bytes, 2 * page)) && (!c.fileSync || QWFileSync(file));
      }, mode, {{"m", std::string(page, firstKept ? 'y' : 'x') + std::string(page, secondKept ? 'z' : 'x')}});
    }
  }
}

// Garble touches pending ranges only, reproducibly for a seed, and over a few seeds keeps, drops and garbles some of
// them: pending writes of a file, and the changed span of each page of a mapping.
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
         if (!QWFileOpen(&f, C("f"), QWFILE_READ | QWFILE_WRITE) || !Write(f, kSyncedAt, synced) || !QWFileSync(f))
           return false;
         for (int i = 0; i < kRanges; ++i)
           if (!Write(f, i * kStride, std::string(kLength, char('A' + i)))) return false;
         return QWFileClose(f) == 1;
       }},
      {"m", std::string(kPages * page, 'x'), kPages, [&](int p) { return p * page + kMapAt; }, kMapLength,
       [&] {
         QWFILE file;
         char *bytes = Map(C("m"), kPages * page, &file);
         for (int p = 0; bytes && p < kPages; ++p) std::memset(bytes + p * page + kMapAt, 'A' + p, kMapLength);
         return bytes != nullptr;
       }},
  };
  for (const auto &kind : kinds) {
    std::map<Outcome, int> outcomes;
    for (uint64_t seed = 1; seed <= 6; ++seed) {
      SCOPED_TRACE(testing::Message() << kind.name << ", seed " << seed);
      RunThenLosePower({{kind.name, kind.original}}, kind.workload, PowerLoss::Garble, seed);
      const std::string after = ReadFileBytes(path(kind.name));
      ASSERT_EQ(after.size(), kind.original.size());
      std::string expected = kind.original;  // with the pending ranges copied from `after`
      if (kind.ranges == kRanges) expected.replace(kSyncedAt, kLength, synced);  // the file's synced write
      for (int i = 0; i < kind.ranges; ++i) {
        const std::string range = after.substr(kind.at(i), kind.length);
        outcomes[range == std::string(kind.length, char('A' + i))        ? Kept
                 : range == kind.original.substr(kind.at(i), kind.length) ? Dropped
                                                                          : Garbled]++;
        expected.replace(kind.at(i), kind.length, range);
      }
      EXPECT_EQ(after, expected);
      RunThenLosePower({{kind.name, kind.original}}, kind.workload, PowerLoss::Garble, seed);
      EXPECT_EQ(ReadFileBytes(path(kind.name)), after) << "same seed, different result";
    }
    EXPECT_TRUE(outcomes[Kept] && outcomes[Dropped] && outcomes[Garbled]) << kind.name;
  }
}

// Garbled name operations stay consistent: an operation on a name that a lost operation produced is lost too, so every
// outcome is the state after some prefix of the operations.
TEST_F(PowerLossTest, GarbleKeepsNameOperationsConsistent) {
  const struct {
    DiskState before;
    Workload workload;
    std::set<DiskState> allowed;  // the states some prefix of the operations leaves
  } scenarios[] = {
      {{{"target", "OLD"}},  // create then rename over a file
       [&] { return CreateFile(C("tmp"), "NEW", true) && FileRename(C("tmp"), C("target")); },
       {{{"target", "OLD"}}, {{"target", "OLD"}, {"tmp", "NEW"}}, {{"target", "NEW"}}}},
      {{{"a", "A"}, {"b", "B"}},  // chained renames
       [&] { return FileRename(C("a"), C("b")) && FileRename(C("b"), C("c")); },
       {{{"a", "A"}, {"b", "B"}}, {{"b", "A"}}, {{"c", "A"}}}},
  };
  for (const auto &scenario : scenarios) {
    std::set<DiskState> seen;
    for (uint64_t seed = 0; seed < 24; ++seed) {
      RunThenLosePower(scenario.before, scenario.workload, PowerLoss::Garble, seed);
      EXPECT_TRUE(scenario.allowed.count(State())) << "seed " << seed << testing::PrintToString(State());
      seen.insert(State());
    }
    EXPECT_EQ(seen, scenario.allowed);
  }
}

// Versions of "data" committed by write-new, sync, rename, sync-directory, and a mapped counter page synced after each
// commit. Stops normally after `stopAfterSyncs` syncs (0: runs to the end).
bool CommitVersions(const std::string &dir, int stopAfterSyncs) {
  int syncs = 0;
  const auto stop = [&] { return ++syncs == stopAfterSyncs; };
  const std::string data = dir + "/data", tmp = dir + "/data.new";
  QWFILE counterFile;
  if (!QWFileOpen(&counterFile, (dir + "/counter").c_str(), QWFILE_READ | QWFILE_WRITE)) return false;
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

// A crash at any sync of the workload leaves exactly the state of a clean stop at some earlier sync, never going back.
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
    const auto found = std::find(prefixes.begin(), prefixes.end(), State());
    ASSERT_NE(found, prefixes.end()) << testing::PrintToString(State());
    const size_t index = size_t(found - prefixes.begin());
    EXPECT_LT(index, n);  // the crashing sync itself never completed
    EXPECT_GE(index, previous);
    previous = index;
  }
}

}  // namespace
