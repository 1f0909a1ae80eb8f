// Index files: exact bytes, atomic commit, and refusal of malformed or
// inconsistent files without crashing.
#include <functional>
#include <string>
#include <vector>

#include "util/packed.h"
#include "vm/lbs/lbs_fixture.h"

namespace lbstest {
namespace {

using qwtest::ReadFileBytes;
using qwtest::WriteFileBytes;

std::string EmptyList() { return std::string("\x01", 1) + LE(0, 4); }

// A list of 4-byte entries as the index stores it.
std::string Entries(const std::vector<uint32_t> &values) {
  std::string bytes = "\x04" + LE(values.size(), 4);
  for (uint32_t v : values) bytes += LE(v, 4);
  return bytes;
}

class LbsIndexFileTest : public LbsTest {
 protected:
  // A committed server with blocks 0 and 1 (raw blocks 0 and 1), closed.
  void MakeTwoBlockServer() {
    ASSERT_TRUE(Reopen(kPageCache)) << QWErrorMessage();
    ASSERT_EQ(NewBlock(server.get(), 1), 0u);
    ASSERT_EQ(NewBlock(server.get(), 2), 1u);
    ASSERT_TRUE(Commit(server.get())) << QWErrorMessage();
    server.reset();
  }

  std::string NewIndex(uint64_t rsize, const std::vector<uint32_t> &map, const std::string &lists) {
    std::string bytes = LE(8192, 8) + LE(rsize, 8) + "\x04" + LE(map.size(), 8);
    for (uint32_t raw : map) bytes += LE(raw, 4);
    return bytes + lists;
  }

  std::string OldIndex(const std::vector<uint32_t> &map) {
    std::string bytes = "\x04" + LE(map.size(), 8);
    for (uint32_t raw : map) bytes += LE(raw, 4);
    return bytes;
  }

  // Opening must fail with an error (`code`, `message` in the chain, when
  // given) and leave the files alone.
  void ExpectRefused(const std::string &what, int code = 0, const std::string &message = "") {
    const std::string newBefore = ReadFileBytes(path("index0.new"));
    QWErrorClear();
    EXPECT_FALSE(Reopen(kPageCache)) << what;
    EXPECT_TRUE(QWErrorIsSet()) << what;
    if (code) {
      EXPECT_EQ(QWErrorCode(), code) << what << ": " << QWErrorMessage();
    }
    EXPECT_NE(std::string(QWErrorMessage()).find(message), std::string::npos) << QWErrorMessage();
    EXPECT_EQ(ReadFileBytes(path("index0.new")), newBefore) << what;
  }
};

TEST_F(LbsIndexFileTest, CreateAndFlushWriteExactBytes) {
  ASSERT_TRUE(Reopen(kPageCache)) << QWErrorMessage();
  EXPECT_EQ(ReadFileBytes(path("index0.new")), NewIndex(0, {}, EmptyList() + EmptyList() + EmptyList()));
  EXPECT_EQ(ReadFileBytes(path("index0.old")), OldIndex({}));
  EXPECT_EQ(FileBytes(path("data0")), 0u);
  EXPECT_FALSE(FileExists(path("index0.new.new").c_str()));
  EXPECT_FALSE(FileExists(path("index0.old.new").c_str()));
  MakeTwoBlockServer();
  const std::string freeOld = std::string("\x01", 1) + LE(6, 4) + "\x07\x06\x05\x04\x03\x02";
  EXPECT_EQ(ReadFileBytes(path("index0.new")), NewIndex(65536, {0, 1}, freeOld + EmptyList() + EmptyList()));
  EXPECT_EQ(ReadFileBytes(path("index0.old")), OldIndex({0, 1}));

  // Freeing block 0: its raw block waits on freeRawBlocksNew, the limit
  // drops the padding, which comes back, and the lists merge at the end.
  ASSERT_TRUE(Reopen(kPageCache)) << QWErrorMessage();
  LocalBlockServer0BlockFree(server.get(), 0);
  ASSERT_TRUE(Commit(server.get())) << QWErrorMessage();
  const std::string merged = std::string("\x01", 1) + LE(7, 4) + std::string("\x07\x06\x05\x04\x03\x02\x00", 7);
  const std::string freeBlocks = std::string("\x01", 1) + LE(1, 4) + std::string("\x00", 1);
  EXPECT_EQ(ReadFileBytes(path("index0.new")),
            NewIndex(65536, {INVALID_RAW_BLOCK_ID, 1}, merged + EmptyList() + freeBlocks));
  EXPECT_EQ(ReadFileBytes(path("index0.old")), OldIndex({INVALID_RAW_BLOCK_ID, 1}));
}

TEST_F(LbsIndexFileTest, ShortDataFileIsRefusedLongerAccepted) {
  MakeTwoBlockServer();
  ASSERT_EQ(FileTruncate(path("data0").c_str(), 57344), 1);
  ExpectRefused("short data file", 2,
                "IndexFileNewGenRead: cannot mount data file: file size mismatch (file size=57344  rsize=65536)");
  ASSERT_EQ(FileTruncate(path("data0").c_str(), 65536 + 3 * 8192), 1);
  ASSERT_TRUE(Reopen(kPageCache)) << QWErrorMessage();
  EXPECT_EQ(FileBytes(path("data0")), 65536u);  // what was never committed is cut off
  EXPECT_TRUE(BlockHolds(server.get(), 0, NEWGEN, 1));
  EXPECT_TRUE(BlockHolds(server.get(), 1, OLDGEN, 2));
}

TEST_F(LbsIndexFileTest, EveryTruncationOfTheIndexIsRefused) {
  MakeTwoBlockServer();
  for (const char *name : {"index0.new", "index0.old"}) {
    const std::string whole = ReadFileBytes(path(name));
    for (size_t length = 0; length < whole.size(); ++length) {
      WriteFileBytes(path(name), whole.substr(0, length));
      ExpectRefused(std::string(name) + " cut at " + std::to_string(length));
    }
    WriteFileBytes(path(name), whole);
  }
}

TEST_F(LbsIndexFileTest, InconsistentIndexesAreRefused) {
  MakeTwoBlockServer();
  const std::string lists = EmptyList() + EmptyList() + EmptyList();
  const auto list = Entries;
  const struct Case {
    const char *what;
    std::string newIndex, oldIndex;
    int code = 0;
    std::string message = "";
  } cases[] = {
      {"block size", LE(4096, 8) + NewIndex(65536, {0, 1}, lists).substr(8), OldIndex({0, 1}), 2,
       "could not open file \"" + path("index0.new") + "\": invalid block size: 4096"},
      {"map entry beyond the data file", NewIndex(65536, {0, 8}, lists), OldIndex({0, 8})},
      {"raw block used twice", NewIndex(65536, {1, 1}, lists), OldIndex({1})},
      {"free raw block beyond the data file", NewIndex(65536, {0, 1}, list({9}) + EmptyList() + EmptyList()),
       OldIndex({0, 1})},
      {"free raw block in use", NewIndex(65536, {0, 1}, list({1}) + EmptyList() + EmptyList()), OldIndex({0, 1})},
      {"raw block on both free lists", NewIndex(65536, {0, 1}, list({3}) + list({3}) + EmptyList()), OldIndex({0, 1})},
      {"free block still mapped", NewIndex(65536, {0, 1}, EmptyList() + EmptyList() + list({1})), OldIndex({0, 1})},
      {"free block beyond the map", NewIndex(65536, {0, 1}, EmptyList() + EmptyList() + list({2})), OldIndex({0, 1})},
      {"free block listed twice", NewIndex(65536, {INVALID_RAW_BLOCK_ID, 1}, list({0}) + EmptyList() + list({0, 0})),
       OldIndex({INVALID_RAW_BLOCK_ID, 1})},
      {"raw size not a whole file block", NewIndex(8192, {0}, lists), OldIndex({0})},
      {"old map beyond the data file", NewIndex(65536, {0, 1}, lists), OldIndex({0, 1, 12})},
      {"old map uses a raw block twice", NewIndex(65536, {0, 1}, lists), OldIndex({0, 0})},
      {"garbage width", NewIndex(65536, {0, 1}, std::string("\x09", 1) + LE(0, 4) + EmptyList() + EmptyList()),
       OldIndex({0, 1})},
      {"old index of records", NewIndex(65536, {0, 1}, lists), std::string("\x00", 1) + LE(0, 8)},
  };
  for (const Case &c : cases) {
    WriteFileBytes(path("index0.new"), c.newIndex);
    WriteFileBytes(path("index0.old"), c.oldIndex);
    ExpectRefused(c.what, c.code, c.message);
  }
}

TEST_F(LbsIndexFileTest, InconsistentFreeListsAreRepaired) {
  MakeTwoBlockServer();
  // Block 1 moves to raw block 5. freeRawBlocksNew holds raw block 1, which
  // the old generation does not use: it is free at once. Raw block 3 is on
  // no list: the flush's accounting check finds it.
  const auto list = Entries;
  std::string data = ReadFileBytes(path("data0"));
  data.replace(5 * 8192, 8192, data.substr(8192, 8192));
  WriteFileBytes(path("data0"), data);
  WriteFileBytes(path("index0.new"), NewIndex(65536, {0, 5}, list({7, 6, 4, 2}) + list({1}) + EmptyList()));
  WriteFileBytes(path("index0.old"), OldIndex({0, 5}));
  qwtest::MessageCapture capture;
  ASSERT_TRUE(Reopen(kPageCache)) << QWErrorMessage();
  EXPECT_TRUE(capture.contains("IndexFileNewGenRead: 1 free raw blocks were put on the list of their generation",
                               QW_LEVEL_WARNING));
  EXPECT_EQ(server->rwGen.freeRawBlocksNew.size(), 0u);
  EXPECT_EQ(server->rwGen.freeRawBlocksOld.size(), 5u);
  ASSERT_TRUE(Commit(server.get())) << QWErrorMessage();
  EXPECT_TRUE(capture.contains("VM: Block count must be fixed !", QW_LEVEL_PROGRESS));
  EXPECT_TRUE(capture.contains("VM: totCount = 2", QW_LEVEL_PROGRESS));
  EXPECT_TRUE(capture.contains("VM: freeNew = 0", QW_LEVEL_PROGRESS));
  EXPECT_TRUE(capture.contains("VM: freeOld = 5", QW_LEVEL_PROGRESS));
  EXPECT_TRUE(capture.contains("VM: finalRSize = 8", QW_LEVEL_PROGRESS));
  EXPECT_EQ(List(server->rwGen.freeRawBlocksOld), (std::vector<uint32_t>{7, 6, 4, 3, 2, 1}));
  EXPECT_TRUE(BlockHolds(server.get(), 0, NEWGEN, 1));
  EXPECT_TRUE(BlockHolds(server.get(), 1, NEWGEN, 2));
  // Once repaired, the next flush balances without help.
  capture.clear();
  ASSERT_TRUE(WriteBlock(server.get(), 1, 3));
  ASSERT_TRUE(Commit(server.get())) << QWErrorMessage();
  EXPECT_FALSE(capture.contains("VM: Block count must be fixed !"));
}

TEST_F(LbsIndexFileTest, CommitToleratesAnAlreadyCommittedIndex) {
  MakeTwoBlockServer();
  const std::string committed = ReadFileBytes(path("index0.new"));
  // Nothing pending: success, nothing touched.
  EXPECT_EQ(IndexFileCommitNew(dir().c_str(), "0"), 1);
  EXPECT_EQ(IndexFileCommitOld(dir().c_str(), "0"), 1);
  EXPECT_EQ(ReadFileBytes(path("index0.new")), committed);
  // Interrupted after the target was moved aside: recovered.
  ASSERT_EQ(FileRename(path("index0.new").c_str(), path("index0.new.old").c_str()), 1);
  EXPECT_EQ(IndexFileCommitNew(dir().c_str(), "0"), 1);
  EXPECT_EQ(ReadFileBytes(path("index0.new")), committed);
  // Pending: committed.
  WriteFileBytes(path("index0.new.new"), "pending");
  EXPECT_EQ(IndexFileCommitNew(dir().c_str(), "0"), 1);
  EXPECT_EQ(ReadFileBytes(path("index0.new")), "pending");
  EXPECT_FALSE(FileExists(path("index0.new.new").c_str()));
  EXPECT_FALSE(FileExists(path("index0.new.old").c_str()));
}

TEST_F(LbsIndexFileTest, RecoverOpenCommitsAPendingNewIndex) {
  MakeTwoBlockServer();
  ASSERT_TRUE(Reopen(kPageCache)) << QWErrorMessage();
  ASSERT_TRUE(WriteBlock(server.get(), 0, 40));
  ASSERT_EQ(LocalBlockServer0FlushStart(server.get(), STATUS_NO_SERIAL, STATUS_NO_SERIAL), 1);
  ASSERT_EQ(LocalBlockServer0FlushFileExec(server.get()), 1) << QWErrorMessage();
  server.reset();  // as if the process died before the disk commit
  EXPECT_TRUE(FileExists(path("index0.new.new").c_str()));
  server = Open(kPageCache);  // the pending files are ignored
  ASSERT_TRUE(server) << QWErrorMessage();
  EXPECT_TRUE(BlockHolds(server.get(), 0, NEWGEN, 1));
  server.reset();
  ASSERT_EQ(IndexFileCommitOld(dir().c_str(), "0"), 1);
  server = Open(kPageCache, STATUS_NO_SERIAL, VM_FLAG_RECOVER);  // commits index0.new.new
  ASSERT_TRUE(server) << QWErrorMessage();
  EXPECT_TRUE(BlockHolds(server.get(), 0, NEWGEN, 40));
  EXPECT_TRUE(BlockHolds(server.get(), 0, OLDGEN, 40));
}

TEST_F(LbsIndexFileTest, NewGenReadReplacesTheNewGeneration) {
  MakeTwoBlockServer();
  ASSERT_TRUE(Reopen(kPageCache)) << QWErrorMessage();
  LocalBlockServer0BlockFree(server.get(), 1);
  ASSERT_NE(NewBlock(server.get(), 9), INVALID_BLOCK_ID);
  // Re-read the committed index's content over the changed generation.
  QWChannel *channel = ChannelNew(0);
  ASSERT_EQ(ChannelOpenFile(channel, path("index0.new").c_str(), "r"), 1);
  uint64_t blockSize = 0;
  ASSERT_TRUE(qw::packed::ReadScalar(channel, 8, &blockSize));
  EXPECT_EQ(IndexFileNewGenRead(server.get(), channel), 1) << QWErrorMessage();
  ASSERT_EQ(ChannelClose(channel), 1);
  EXPECT_EQ(LocalBlockServer0BlockCount(server.get()), 2u);
  EXPECT_TRUE(BlockHolds(server.get(), 1, NEWGEN, 2));
  EXPECT_EQ(server->rwGen.freeBlocks.size(), 0u);
  // A truncated one fails and leaves the generation as it was.
  ASSERT_NE(NewBlock(server.get(), 10), INVALID_BLOCK_ID);
  const std::string whole = ReadFileBytes(path("index0.new"));
  WriteFileBytes(path("cut"), whole.substr(0, whole.size() - 3));
  channel = ChannelNew(0);
  ASSERT_EQ(ChannelOpenFile(channel, path("cut").c_str(), "r"), 1);
  ASSERT_TRUE(qw::packed::ReadScalar(channel, 8, &blockSize));
  EXPECT_EQ(IndexFileNewGenRead(server.get(), channel), 0);
  (void)ChannelClose(channel);
  EXPECT_EQ(LocalBlockServer0BlockCount(server.get()), 3u);
  EXPECT_TRUE(BlockHolds(server.get(), 2, NEWGEN, 10));
}

// Every file event reaches the log; a log of another block size is an assertion.
TEST_F(LbsIndexFileTest, ReplicationLogSeesEveryFileEvent) {
  struct Event {
    uint32_t type;
    std::string path;
    std::vector<uint64_t> list;
  };
  struct Recorder {
    std::vector<Event> events;
    uint32_t blockSize = 8192;
  } recorder;
  ReplicationLogOps ops{};
  ops.write = [](void *self, uint32_t type, uint32_t, uint32_t, const char *path, const uint64_t *list,
                 uint32_t count) -> int {
    static_cast<Recorder *>(self)->events.push_back({type, path, std::vector<uint64_t>(list, list + count)});
    return 1;
  };
  ops.getBlockSize = [](void *self) -> uint32_t { return static_cast<Recorder *>(self)->blockSize; };
  ReplicationLog *log = ReplicationLogNew(&ops, &recorder);
  ASSERT_NE(log, nullptr);
  {
    ServerPtr server = Open(kPageCache, STATUS_NO_SERIAL, 0, log);
    ASSERT_TRUE(server) << QWErrorMessage();
    auto created = [&](const std::string &name) {
      for (const Event &e : recorder.events)
        if (e.type == 8 && e.path == path(name)) return true;
      return false;
    };
    EXPECT_TRUE(created("data0") && created("index0.new.new") && created("index0.old.new"));
    recorder.events.clear();
    for (uint32_t i = 0; i < 3; ++i) ASSERT_EQ(NewBlock(server.get(), i), i);
    ASSERT_EQ(recorder.events.size(), 1u);  // the file grew for the read-write part
    EXPECT_EQ(recorder.events[0].type, 9u);
    EXPECT_TRUE(recorder.events[0].list.empty());
    recorder.events.clear();
    ASSERT_TRUE(Commit(server.get())) << QWErrorMessage();
    ASSERT_GE(recorder.events.size(), 3u);
    EXPECT_EQ(recorder.events[0].type, 9u);
    EXPECT_EQ(recorder.events[0].path, path("data0"));
    EXPECT_EQ(recorder.events[0].list, (std::vector<uint64_t>{0, 1, 2}));
    EXPECT_TRUE(created("index0.new.new") && created("index0.old.new"));
  }
  recorder.blockSize = 4096;
  ASSERT_EQ(DirectoryCreate(path("other").c_str()), 1);
  EXPECT_DEATH((void)OpenIn(path("other"), kPageCache, STATUS_NO_SERIAL, 0, log),
               "ReplicationLogGetBlockSize\\(log\\) == \\(UInt\\) blockSize");
  ReplicationLogClose(log);
}

}  // namespace
}  // namespace lbstest
