// Replication log: the file log's exact layout, round trips over every record type and list size, torn and garbled
// tails, reopening after a torn tail, limits, a host's own implementation, and writes from several threads.
#include <thread>

#include "platform/checks.h"

namespace {

using qwtest::HasDataError;
using qwtest::ReadFileBytes;
using qwtest::WriteFileBytes;

struct Event {
  uint32_t type, a, b;
  std::string path;
  std::vector<uint64_t> list;
  bool operator==(const Event &o) const = default;
};
using Events = std::vector<Event>;

std::ostream &operator<<(std::ostream &out, const Event &e) {
  return out << "{" << e.type << "," << e.a << "," << e.b << ",\"" << e.path << "\"," << e.list.size() << " ids}";
}

int Collect(void *context, uint32_t type, uint32_t a, uint32_t b, const char *path, const uint64_t *list,
            uint32_t count) {
  EXPECT_EQ(list == nullptr, count == 0);
  static_cast<Events *>(context)->push_back({type, a, b, path, std::vector<uint64_t>(list, list + count)});
  return 1;
}

int WriteEvent(ReplicationLog *log, const Event &e) {
  return ReplicationLogWrite(log, e.type, e.a, e.b, e.path.c_str(), e.list.empty() ? nullptr : e.list.data(),
                             uint32_t(e.list.size()));
}

class ReplicationLogTest : public qwtest::FaultTempDirTest {
 protected:
  std::string logPath() const { return path("replication.log"); }
  ReplicationLog *Open(uint32_t blockSize = 8192) {
    ReplicationLog *log = ReplicationLogFileOpen(logPath().c_str(), blockSize);
    EXPECT_NE(log, nullptr) << QWErrorMessage();
    return log;
  }
  // Appends `events` in one opening of the log; returns the offset at which each record starts.
  std::vector<uint64_t> Append(const Events &events) {
    std::vector<uint64_t> starts;
    ReplicationLog *log = Open();
    for (size_t i = 0; log && i < events.size(); ++i) {
      starts.push_back(ReadFileBytes(logPath()).size());
      EXPECT_EQ(WriteEvent(log, events[i]), 1) << QWErrorMessage();
    }
    EXPECT_EQ(ReplicationLogClose(log), 1);
    return starts;
  }
  Events ReadAll(int expectedResult = 1) {
    Events events;
    QWErrorClear();
    EXPECT_EQ(ReplicationLogFileRead(logPath().c_str(), Collect, &events), expectedResult) << QWErrorMessage();
    return events;
  }
};

TEST_F(ReplicationLogTest, ExactLayoutOfOneRecord) {
  Append({{9, 0, 0, "ab", {0x0102030405060708ull}}});
  const std::string bytes = ReadFileBytes(logPath());
  const std::string body("\x09\0\0\0" "\0\0\0\0" "\0\0\0\0" "\x02\0\0\0" "\x01\0\0\0" "ab"
                         "\x08\x07\x06\x05\x04\x03\x02\x01", 30);
  ASSERT_EQ(bytes.size(), 16u + 8u + body.size());
  EXPECT_EQ(bytes.substr(0, 16), std::string("QWREPLOG\x01\0\0\0\0\x20\0\0", 16));
  EXPECT_EQ(bytes.substr(20, 4), std::string("\x1e\0\0\0", 4));  // body length 30
  EXPECT_EQ(bytes.substr(24), body);
}

TEST_F(ReplicationLogTest, RecordsRoundTripAcrossReopen) {
  std::mt19937_64 random(1);
  Events first, second;
  for (uint32_t count : {0u, 1u, 2u, 511u, 1023u, 1024u}) {
    Event changed{REPLICATION_FILE_CHANGED, 0, 0, dir() + "/block/data" + std::to_string(count), {}};
    for (uint32_t i = 0; i < count; ++i) changed.list.push_back(i % 7 == 0 ? ~0ull - i : random());
    first.push_back(changed);
  }
  first.push_back({REPLICATION_FILE_CREATED, 0, 0, dir() + "/block/index0.new.new", {}});
  first.push_back({REPLICATION_FILE_REMOVED, 0, 0, dir() + "/arena.old.17", {}});
  second = {{REPLICATION_FILE_CREATED, 0xFFFFFFFFu, 7, "", {}},
            {77, 1, 2, std::string(REPLICATION_LOG_MAX_PATH, 'p'), {42}}};
  ReplicationLog *log = Open();
  ASSERT_TRUE(log && ReplicationLogGetBlockSize(log) == 8192u);
  for (const Event &e : first) ASSERT_EQ(WriteEvent(log, e), 1) << QWErrorMessage();
  EXPECT_EQ(ReadAll(), first);  // each record is visible as soon as it is written
  ASSERT_EQ(ReplicationLogWrite(log, 10, 0, 0, nullptr, nullptr, 0), 1);  // a NULL path is recorded as ""
  first.push_back({10, 0, 0, "", {}});
  ASSERT_EQ(ReplicationLogClose(log), 1);
  Append(second);
  first.insert(first.end(), second.begin(), second.end());
  EXPECT_EQ(ReadAll(), first);
  uint32_t blockSize = 0;
  Events events;
  EXPECT_TRUE(ReplicationLogFileRead_(logPath().c_str(), &blockSize, Collect, &events) && blockSize == 8192u);
}

TEST_F(ReplicationLogTest, LimitsAndBadArguments) {
  ReplicationLog *log = Open(4096);
  ASSERT_NE(log, nullptr);
  std::vector<uint64_t> ids(REPLICATION_LOG_MAX_LIST + 1, 5);
  const std::string longPath(REPLICATION_LOG_MAX_PATH + 1, 'x');
  EXPECT_TRUE(qwtest::Fails(ReplicationLogWrite(log, 9, 0, 0, "f", ids.data(), uint32_t(ids.size())), 22));
  EXPECT_TRUE(qwtest::Fails(ReplicationLogWrite(log, 9, 0, 0, "f", nullptr, 3), 22));
  EXPECT_TRUE(qwtest::Fails(ReplicationLogWrite(log, 8, 0, 0, longPath.c_str(), nullptr, 0), 22));
  ASSERT_EQ(ReplicationLogClose(log), 1);
  EXPECT_TRUE(ReadAll().empty());  // refused writes left nothing behind
  EXPECT_TRUE(!ReplicationLogFileOpen(logPath().c_str(), 8192) && HasDataError());  // other block size
  EXPECT_TRUE(qwtest::Fails(ReplicationLogFileOpen(logPath().c_str(), 0), 22));
  WriteFileBytes(path("not-a-log"), "this is not a replication log file");
  EXPECT_TRUE(!ReplicationLogFileOpen(path("not-a-log").c_str(), 4096) && HasDataError());
  EXPECT_EQ(ReadFileBytes(path("not-a-log")), "this is not a replication log file");  // left alone
  Events events;
  EXPECT_TRUE(qwtest::Fails(ReplicationLogFileRead(path("missing").c_str(), Collect, &events), 2));
  EXPECT_EQ(ReplicationLogClose(nullptr), 1);
}

// Cutting the file anywhere inside the last record, or flipping any byte of a record, stops the reader at that record
// with a data error; the records before it are still delivered. Reopening drops a torn tail with a warning.
TEST_F(ReplicationLogTest, TornAndGarbledRecordsAreDetectedAndCut) {
  const Events events = {{8, 0, 0, "a", {}}, {9, 0, 0, "bb", {1, 2, 3}}, {10, 0, 0, "ccc", {}}};
  const std::vector<uint64_t> starts = Append(events);
  const std::string whole = ReadFileBytes(logPath());
  for (size_t cut = starts[2] + 1; cut < whole.size(); ++cut) {
    WriteFileBytes(logPath(), whole.substr(0, cut));
    EXPECT_EQ(ReadAll(0), Events(events.begin(), events.begin() + 2)) << "cut " << cut;
    EXPECT_TRUE(HasDataError());
    EXPECT_EQ(std::string(QWErrorMessage()),
              "replication log \"" + logPath() + "\": torn record at offset " + std::to_string(starts[2]));
  }
  WriteFileBytes(logPath(), whole.substr(0, starts[2]));  // a cut between records is a clean end
  EXPECT_EQ(ReadAll(1).size(), 2u);
  for (size_t i = starts[1]; i < starts[2]; ++i) {
    std::string garbled = whole;
    garbled[i] = char(garbled[i] ^ 0x20);
    WriteFileBytes(logPath(), garbled);
    EXPECT_EQ(ReadAll(0), Events(events.begin(), events.begin() + 1)) << "byte " << i;
    EXPECT_TRUE(HasDataError("at offset " + std::to_string(starts[1])));
  }
  for (size_t cut = 0; cut < 16; ++cut) {  // every cut inside the header
    WriteFileBytes(logPath(), whole.substr(0, cut));
    EXPECT_TRUE(ReadAll(0).empty() && HasDataError()) << "cut " << cut;
  }
  WriteFileBytes(logPath(), whole.substr(0, whole.size() - 2));
  {
    qwtest::MessageCapture capture;
    Append({{11, 0, 0, "after", {}}});
    EXPECT_TRUE(capture.contains("replication log \"" + logPath() + "\": dropped a torn tail of " +
                                     std::to_string(whole.size() - 2 - starts[2]) + " bytes at offset " +
                                     std::to_string(starts[2]),
                                 QW_LEVEL_WARNING));
  }
  EXPECT_EQ(ReadAll(), (Events{events[0], events[1], {11, 0, 0, "after", {}}}));
  WriteFileBytes(logPath(), "QWREP");  // a file cut inside its header is a creation cut short
  Append({});
  EXPECT_TRUE(ReadAll().empty());
}

// A failed append leaves the log refusing writes (they would land behind a partial record); reopening repairs it.
TEST_F(ReplicationLogTest, FailedWriteBreaksLogUntilReopened) {
  ReplicationLog *log = Open();
  ASSERT_TRUE(log && WriteEvent(log, {8, 0, 0, "one", {}}));
  qw::fault::FailNth(1, false, qw::fault::Bit(qw::fault::Op::Write), "replication.log");
  EXPECT_TRUE(qwtest::Fails(WriteEvent(log, {8, 0, 0, "two", {}}), 5));
  qw::fault::Disable();
  EXPECT_TRUE(qwtest::Fails(WriteEvent(log, {8, 0, 0, "three", {}}), -1, "is in error after a failed write"));
  ReplicationLogClose(log);
  Append({{8, 0, 0, "four", {}}});
  // What of "two" the channel still pushed out at close is whole or cut off at the reopen; "three" was never taken.
  const Events events = ReadAll();
  ASSERT_TRUE(events.size() == 2 || (events.size() == 3 && events[1].path == "two")) << events.size();
  EXPECT_EQ(events.front().path + events.back().path, "onefour");
}

// A host's own implementation: every call reaches it with the arguments as given, its failures come back through the
// error chain, close releases it; behind the log's mutex it need not be thread-safe itself.
struct HostLog {
  Events events;
  int blockSizeCalls = 0, closes = 0;
  bool fail = false;
};

const ReplicationLogOps kHostOps{
    [](void *self, uint32_t type, uint32_t a, uint32_t b, const char *path, const uint64_t *list, uint32_t count) {
      auto *host = static_cast<HostLog *>(self);
      return host->fail ? QWErrorThrow(28, QW_ERROR_CLASS_SYSTEM, "host log full")
                        : Collect(&host->events, type, a, b, path, list, count);
    },
    [](void *self) -> uint32_t { return ++static_cast<HostLog *>(self)->blockSizeCalls, 65536; },
    [](void *self) { return ++static_cast<HostLog *>(self)->closes, 1; }};

TEST(ReplicationLogOps, CustomImplementationIsCalled) {
  HostLog host;
  ReplicationLog *log = ReplicationLogNew(&kHostOps, &host);
  ASSERT_TRUE(log && ReplicationLogGetBlockSize(log) == 65536u);
  EXPECT_EQ(host.blockSizeCalls, 1);
  const uint64_t ids[] = {3, 1, 4};
  EXPECT_EQ(ReplicationLogWrite(log, 9, 5, 6, "/d/data0", ids, 3), 1);
  EXPECT_EQ(ReplicationLogWrite(log, 8, 0, 0, nullptr, ids, 0), 1);
  EXPECT_EQ(host.events, (Events{{9, 5, 6, "/d/data0", {3, 1, 4}}, {8, 0, 0, "", {}}}));
  host.fail = true;
  EXPECT_TRUE(qwtest::FailsExactly(ReplicationLogWrite(log, 10, 0, 0, "/d/x", nullptr, 0), 28,
                                   "host log full\nReplicationLogWrite: could not log event 10 for \"/d/x\""));
  EXPECT_TRUE(ReplicationLogClose(log) && host.closes == 1);
  const ReplicationLogOps noClose{kHostOps.write, kHostOps.getBlockSize, nullptr};
  ASSERT_NE(log = ReplicationLogNew(&noClose, &host), nullptr);
  EXPECT_TRUE(ReplicationLogClose(log) && host.closes == 1);
  const ReplicationLogOps incomplete{nullptr, kHostOps.getBlockSize, nullptr};
  EXPECT_TRUE(qwtest::Fails(ReplicationLogNew(&incomplete, &host), 22));
}

using ReplicationLogConcurrency = ReplicationLogTest;

// Threads writing to one file log and to a host's log: every record arrives whole, each thread's records in order.
TEST_F(ReplicationLogConcurrency, ConcurrentWritersToFileAndHostLogs) {
  HostLog host;
  ReplicationLog *logs[] = {Open(), ReplicationLogNew(&kHostOps, &host)};
  ASSERT_TRUE(logs[0] && logs[1]);
  constexpr uint32_t kThreads = 4, kRecords = 300;
  std::vector<std::thread> threads;
  for (uint32_t t = 0; t < kThreads; ++t)
    threads.emplace_back([&logs, t] {
      std::vector<uint64_t> ids(t * 100);
      for (uint32_t i = 0; i < kRecords; ++i) {
        for (auto &id : ids) id = uint64_t(t) << 32 | i;
        for (ReplicationLog *log : logs)
          EXPECT_EQ(ReplicationLogWrite(log, 9, t, i, "file", ids.data(), uint32_t(ids.size())), 1);
        EXPECT_EQ(ReplicationLogGetBlockSize(logs[1]), 65536u);
      }
    });
  for (auto &thread : threads) thread.join();
  ASSERT_EQ(ReplicationLogClose(logs[0]) + ReplicationLogClose(logs[1]), 2);
  EXPECT_EQ(host.blockSizeCalls, int(kThreads * kRecords));
  for (const Events &events : {ReadAll(), host.events}) {
    ASSERT_EQ(events.size(), size_t(kThreads) * kRecords);
    std::vector<uint32_t> next(kThreads, 0);
    for (const Event &e : events) {
      ASSERT_LT(e.a, kThreads);
      EXPECT_EQ(e.b, next[e.a]++);
      EXPECT_EQ(e.list, std::vector<uint64_t>(size_t(e.a) * 100, uint64_t(e.a) << 32 | e.b));
    }
  }
}

}  // namespace
