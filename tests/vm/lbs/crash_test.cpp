// Power loss at each sync of a second commit: recovery (as the arena does it)
// finds exactly the first or the second generation and commits again cleanly.
// An I/O error at each step of a commit leaves both generations as they were,
// and the next commit succeeds.
#include <map>
#include <string>
#include <tuple>

#include "support/fault_support.h"
#include "vm/lbs/lbs_fixture.h"

namespace lbstest {
namespace {

namespace fault = qw::fault;
using Model = std::map<uint32_t, uint32_t>;

// Deterministic changes. The first leaves raw blocks 4..7 free below the
// committed size; the second fills two with blocks the flush moves down, so
// the flush writes into the committed part of the data file too.
bool FirstChanges(LocalBlockServer0 *server) {
  for (uint32_t i = 0; i < 24; ++i)
    if (LbsTest::NewBlock(server, i + 1) != i) return false;
  if (!LbsTest::Commit(server)) return false;
  for (uint32_t i = 4; i < 8; ++i) LocalBlockServer0BlockFree(server, i);
  return true;
}

bool SecondChanges(LocalBlockServer0 *server) {
  if (!LbsTest::WriteBlock(server, 0, 100) || !LbsTest::WriteBlock(server, 1, 101)) return false;
  uint32_t added[4];
  for (uint32_t i = 0; i < 4; ++i)
    if ((added[i] = LbsTest::NewBlock(server, 200 + i)) == INVALID_BLOCK_ID) return false;
  LocalBlockServer0BlockFree(server, added[0]);
  LocalBlockServer0BlockFree(server, added[1]);
  for (uint32_t i = 8; i < 13; ++i) LocalBlockServer0BlockFree(server, i);
  return true;
}

// Blocks that exist in both generations.
bool ThirdChanges(LocalBlockServer0 *server) {
  for (uint32_t block : {0u, 3u, 13u, 16u, 20u})
    if (!LbsTest::WriteBlock(server, block, 300 + block)) return false;
  LocalBlockServer0BlockFree(server, 1);
  return LbsTest::NewBlock(server, 400) != INVALID_BLOCK_ID;
}

// Written whole or not at all: synced under another name, then renamed.
bool CreateMarker(const std::string &path, const std::string &content) {
  const std::string incoming = path + ".tmp";
  QWFILE file = QWFILE_INVALID;
  if (!QWFileOpen(&file, incoming.c_str(), QWFILE_READ | QWFILE_WRITE | QWFILE_CREATE | QWFILE_TRUNCATE)) return false;
  const bool ok = QWFileWriteData(file, 0, content.data(), content.size()) && QWFileSync(file);
  return QWFileClose(file) && ok && FileRename(incoming.c_str(), path.c_str());
}

class LbsPowerLossTest : public LbsTest,
                         public ::testing::WithParamInterface<std::tuple<Mode, bool, fault::PowerLoss>> {
 protected:
  const Mode &mode() const { return std::get<0>(GetParam()); }
  bool serialised() const { return std::get<1>(GetParam()); }
  uint64_t FirstSerial() const { return serialised() ? 0 : STATUS_NO_SERIAL; }

  // A commit with the arena's markers: `committing` around the disk commit
  // (unserialised), or the serial to open once the files are written.
  static bool MarkedCommit(LocalBlockServer0 *server, const std::string &directory) {
    const bool serial = server->serial_old != STATUS_NO_SERIAL;
    (void)LocalBlockServer0MappingFlush(server, 1);
    bool ok = LocalBlockServer0FlushStart(server, serial ? server->serial_old + 1 : STATUS_NO_SERIAL,
                                          serial ? server->serial_new + 1 : STATUS_NO_SERIAL) &&
              LocalBlockServer0FlushFileExec(server);
    ok = ok && CreateMarker(directory + "/marker", std::to_string(serial ? server->flushedSerialNew : 0)) &&
         DirectorySync(directory.c_str());
    ok = ok && LocalBlockServer0CommitDisk(server);
    ok = ok && (serial || (FileRemove((directory + "/marker").c_str()) && DirectorySync(directory.c_str())));
    ok = ok && LocalBlockServer0CommitMemory(server);
    LocalBlockServer0FlushStop(server);
    return ok;
  }

  // Recovery as the arena does it, then the open.
  ServerPtr Recover(const std::string &directory) {
    const std::string marker = directory + "/marker";
    uint64_t serial = committedSerial_;
    if (FileExists(marker.c_str())) {
      if (serialised()) {
        serial = std::stoull(qwtest::ReadFileBytes(marker));
      } else {
        EXPECT_EQ(IndexFileCommitOld(directory.c_str(), "0"), 1) << QWErrorMessage();
        EXPECT_EQ(IndexFileCommitNew(directory.c_str(), "0"), 1) << QWErrorMessage();
      }
    }
    return OpenIn(directory, mode(), serial);
  }

  void ReferenceModels(Model *first, Model *second) {
    const std::string directory = path("reference");
    ASSERT_EQ(DirectoryCreate(directory.c_str()), 1);
    ServerPtr server = OpenIn(directory, mode(), FirstSerial());
    ASSERT_TRUE(server) << QWErrorMessage();
    ASSERT_TRUE(FirstChanges(server.get()));
    ASSERT_TRUE(Commit(server.get())) << QWErrorMessage();
    committedSerial_ = server->serial_new;
    ASSERT_TRUE(Snapshot(server.get(), NEWGEN, first));
    ASSERT_TRUE(SecondChanges(server.get()));
    ASSERT_TRUE(Commit(server.get())) << QWErrorMessage();
    ASSERT_TRUE(Snapshot(server.get(), NEWGEN, second));
    ASSERT_NE(*first, *second);
  }

  uint64_t committedSerial_ = STATUS_NO_SERIAL;  // of the first generation
};

TEST_P(LbsPowerLossTest, RecoversTheFirstOrTheSecondGeneration) {
  Model first, second;
  ASSERT_NO_FATAL_FAILURE(ReferenceModels(&first, &second));
  bool completed = false;
  int sawFirst = 0, sawSecond = 0;
  for (uint64_t n = 1; n <= 60 && !completed; ++n) {
    const std::string directory = path("run" + std::to_string(n));
    ASSERT_EQ(DirectoryCreate(directory.c_str()), 1);
    ServerPtr server;
    const qwtest::PowerLossRun run = qwtest::PowerLossChild(
        n, {std::get<2>(GetParam()), n},
        [&] {
          server = OpenIn(directory, mode(), FirstSerial());
          return server && FirstChanges(server.get()) && Commit(server.get()) && SecondChanges(server.get());
        },
        [&] { return MarkedCommit(server.get(), directory); }, false);
    ASSERT_TRUE(run.status == 1 || run.status == 2) << "n=" << n << ": " << run.out;
    completed = run.status == 2;

    server = Recover(directory);
    ASSERT_TRUE(server) << "n=" << n << ": " << QWErrorMessage();
    Model found, old;
    ASSERT_TRUE(Snapshot(server.get(), NEWGEN, &found)) << "n=" << n;
    ASSERT_TRUE(Snapshot(server.get(), OLDGEN, &old)) << "n=" << n;
    EXPECT_EQ(found, old) << "n=" << n;
    if (completed) {
      EXPECT_EQ(found, second);
    }
    sawFirst += found == first;
    sawSecond += found == second;
    ASSERT_TRUE(found == first || found == second) << "n=" << n << ": a mixed state";
    // The recovered server commits further without repairs.
    qwtest::MessageCapture capture;
    ASSERT_TRUE(ThirdChanges(server.get()));
    ASSERT_TRUE(Commit(server.get())) << QWErrorMessage();
    EXPECT_FALSE(capture.contains("VM: Block count must be fixed !")) << "n=" << n;
  }
  EXPECT_TRUE(completed);
  EXPECT_GT(sawFirst, 0);
  EXPECT_GT(sawSecond, 0);
}

TEST_P(LbsPowerLossTest, CreationSurvivesPowerLoss) {
  bool completed = false;
  for (uint64_t n = 1; n <= 30 && !completed; ++n) {
    const std::string directory = path("create" + std::to_string(n));
    ASSERT_EQ(DirectoryCreate(directory.c_str()), 1);
    const qwtest::PowerLossRun run = qwtest::PowerLossChild(
        n, {std::get<2>(GetParam()), n}, nullptr, [&] { return bool(OpenIn(directory, mode(), FirstSerial())); },
        false);
    ASSERT_TRUE(run.status == 1 || run.status == 2) << "n=" << n << ": " << run.out;
    completed = run.status == 2;
    ServerPtr server = OpenIn(directory, mode(), FirstSerial());
    ASSERT_TRUE(server) << "n=" << n << ": " << QWErrorMessage();
    EXPECT_EQ(LocalBlockServer0BlockCount(server.get()), 0u);
    ASSERT_NE(NewBlock(server.get(), 5), INVALID_BLOCK_ID);
    ASSERT_TRUE(Commit(server.get())) << QWErrorMessage();
  }
  EXPECT_TRUE(completed);
}

INSTANTIATE_TEST_SUITE_P(Modes, LbsPowerLossTest,
                         ::testing::Combine(::testing::ValuesIn(kModes),
                                            ::testing::Bool(),
                                            ::testing::Values(fault::PowerLoss::Drop, fault::PowerLoss::Garble)),
                         [](const auto &info) {
                           return std::string(std::get<0>(info.param).name) +
                                  (std::get<1>(info.param) ? "Serialised" : "Unserialised") +
                                  (std::get<2>(info.param) == fault::PowerLoss::Drop ? "Drop" : "Garble");
                         });

class LbsFailedFlushTest : public LbsTest, public ::testing::WithParamInterface<Mode> {};

TEST_P(LbsFailedFlushTest, AFailedCommitChangesNothingAndTheNextOneSucceeds) {
  const struct {
    const char *what;
    qwtest::IOFault fault;  // the operation that fails
  } points[] = {
      {"data file write or sync of a mapping", {fault::Op::Write | fault::Op::MapSync}},
      {"data file sync", {fault::Bit(fault::Op::Sync), "data0"}},
      {"new index", {fault::Bit(fault::Op::Open), "index0.new"}},
      {"old index", {fault::Bit(fault::Op::Open), "index0.old"}},
      {"old index sync", {fault::Bit(fault::Op::Sync), "index0.old"}},
      {"directory sync", {fault::Bit(fault::Op::DirSync)}},
      {"index commit", {fault::Bit(fault::Op::Rename), "index0.new"}},
  };
  int index = 0;
  for (const auto &point : points) {
    SCOPED_TRACE(point.what);
    const std::string directory = path("case" + std::to_string(index++));
    ASSERT_EQ(DirectoryCreate(directory.c_str()), 1);
    ServerPtr server = OpenIn(directory, GetParam());
    ASSERT_TRUE(server) << QWErrorMessage();
    ASSERT_TRUE(FirstChanges(server.get()));
    ASSERT_TRUE(Commit(server.get())) << QWErrorMessage();
    Model committed, current, found;
    ASSERT_TRUE(Snapshot(server.get(), NEWGEN, &committed));
    ASSERT_TRUE(SecondChanges(server.get()));
    ASSERT_TRUE(Snapshot(server.get(), NEWGEN, &current));

    (void)LocalBlockServer0MappingFlush(server.get(), 1);
    EXPECT_TRUE(qwtest::FailsWithIOError(point.fault, [&] {
      const bool ok = LocalBlockServer0FlushStart(server.get(), STATUS_NO_SERIAL, STATUS_NO_SERIAL) &&
                      LocalBlockServer0FlushFileExec(server.get()) && LocalBlockServer0CommitDisk(server.get()) &&
                      LocalBlockServer0CommitMemory(server.get());
      LocalBlockServer0FlushStop(server.get());
      return ok;
    }));
    ASSERT_TRUE(Snapshot(server.get(), NEWGEN, &found));
    EXPECT_EQ(found, current);
    ASSERT_TRUE(Snapshot(server.get(), OLDGEN, &found));
    EXPECT_EQ(found, committed);
    // The raw blocks of the committed generation are still off limits.
    ASSERT_TRUE(ThirdChanges(server.get()));
    ASSERT_TRUE(Snapshot(server.get(), OLDGEN, &found));
    EXPECT_EQ(found, committed);
    ASSERT_TRUE(Snapshot(server.get(), NEWGEN, &current));
    qwtest::MessageCapture capture;
    ASSERT_TRUE(Commit(server.get())) << QWErrorMessage();
    EXPECT_FALSE(capture.contains("VM: Block count must be fixed !"));
    server.reset();
    server = OpenIn(directory, GetParam());
    ASSERT_TRUE(server) << QWErrorMessage();
    ASSERT_TRUE(Snapshot(server.get(), NEWGEN, &found));
    EXPECT_EQ(found, current);
  }
}

INSTANTIATE_TEST_SUITE_P(Modes, LbsFailedFlushTest, ::testing::ValuesIn(kModes), ModeName);

}  // namespace
}  // namespace lbstest
