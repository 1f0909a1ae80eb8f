// An I/O error at each step of a commit leaves both generations as they were,
// and the next commit succeeds. (Power loss at every sync of a commit: the
// campaign's arena workloads.)
#include <map>
#include <string>

#include "support/fault_support.h"
#include "vm/lbs/lbs_fixture.h"

namespace lbstest {
namespace {

namespace fault = qw::fault;
using Model = std::map<uint32_t, uint32_t>;

// Deterministic changes. The first leaves raw blocks 4..7 free below the
// committed size; the second fills two with blocks the flush moves down, so
// the flush writes into the committed part of the data file too; the third
// changes blocks that exist in both generations.
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

bool ThirdChanges(LocalBlockServer0 *server) {
  for (uint32_t block : {0u, 3u, 13u, 16u, 20u})
    if (!LbsTest::WriteBlock(server, block, 300 + block)) return false;
  LocalBlockServer0BlockFree(server, 1);
  return LbsTest::NewBlock(server, 400) != INVALID_BLOCK_ID;
}

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
