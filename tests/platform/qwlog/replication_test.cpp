// Replication log: the file-backed log's exact layout and round trips over
// every record type and list size, torn and garbled tails, reopening after
// a torn tail, limits, a host's own implementation through the vtable, and
// writes from several threads.
#include <cstring>
#include <random>
#include <string>
#include <thread>
#include <vector>

#include "support/platform_support.h"

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
  // Appends `events` in one opening of the log; returns the offset at which
  // each record starts.
  std::vector<uint64_t> Append(const Events &events) {
    std::vector<uint64_t> starts;
    ReplicationLog *log = Open();
    for (size_t i = 0; log && i < events.size(); ++i) {
      const Event &e = events[i];
      starts.push_back(ReadFileBytes(logPath()).size());
      EXPECT_EQ(WriteEvent(log, e), 1) << QWErrorMessage();
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

  Events SampleEvents(uint32_t seed) {
    std::mt19937_64 random(seed);
    Events events;
    for (uint32_t count : {0u, 1u, 2u, 511u, 1023u, 1024u}) {
      Event changed{REPLICATION_FILE_CHANGED, 0, 0, dir() + "/block/data" + std::to_string(count), {}};
      for (uint32_t i = 0; i < count; ++i) changed.list.push_back(i % 7 == 0 ? ~0ull - i : random());
      events.push_back(changed);
    }
    events.push_back({REPLICATION_FILE_CREATED, 0, 0, dir() + "/block/index0.new.new", {}});
    events.push_back({REPLICATION_FILE_REMOVED, 0, 0, dir() + "/arena.old.17", {}});
    events.push_back({REPLICATION_FILE_CREATED, 0xFFFFFFFFu, 7, "", {}});
    events.push_back({77, 1, 2, std::string(REPLICATION_LOG_MAX_PATH, 'p'), {42}});
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
  const Events first = SampleEvents(1), second = SampleEvents(2);
  ReplicationLog *log = Open();
  ASSERT_NE(log, nullptr);
  EXPECT_EQ(ReplicationLogGetBlockSize(log), 8192u);
  for (const Event &e : first) ASSERT_EQ(WriteEvent(log, e), 1) << QWErrorMessage();
  EXPECT_EQ(ReadAll(), first);  // each record is visible as soon as it is written
  ASSERT_EQ(ReplicationLogClose(log), 1);
  Append(second);
  Events all = first;
  all.insert(all.end(), second.begin(), second.end());
  EXPECT_EQ(ReadAll(), all);
  uint32_t blockSize = 0;
  Events events;
  EXPECT_EQ(ReplicationLogFileRead_(logPath().c_str(), &blockSize, Collect, &events), 1);
  EXPECT_EQ(blockSize, 8192u);
  // A NULL path is recorded as "".
  log = Open();
  ASSERT_NE(log, nullptr);
  ASSERT_EQ(ReplicationLogWrite(log, 10, 0, 0, nullptr, nullptr, 0), 1);
  ASSERT_EQ(ReplicationLogClose(log), 1);
  EXPECT_EQ(ReadAll().back(), (Event{10, 0, 0, "", {}}));
}

TEST_F(ReplicationLogTest, LimitsAndBadArguments) {
  ReplicationLog *log = Open(4096);
  ASSERT_NE(log, nullptr);
  std::vector<uint64_t> ids(REPLICATION_LOG_MAX_LIST + 1, 5);
  const std::string longPath(REPLICATION_LOG_MAX_PATH + 1, 'x');
  EXPECT_EQ(ReplicationLogWrite(log, 9, 0, 0, "f", ids.data(), uint32_t(ids.size())), 0);
  EXPECT_EQ(QWErrorCode(), 22);
  EXPECT_EQ(ReplicationLogWrite(log, 9, 0, 0, "f", nullptr, 3), 0);
  EXPECT_EQ(QWErrorCode(), 22);
  EXPECT_EQ(ReplicationLogWrite(log, 8, 0, 0, longPath.c_str(), nullptr, 0), 0);
  EXPECT_EQ(QWErrorCode(), 22);
  ASSERT_EQ(ReplicationLogClose(log), 1);
  EXPECT_TRUE(ReadAll().empty());  // refused writes left nothing behind

  EXPECT_EQ(ReplicationLogFileOpen(logPath().c_str(), 8192), nullptr);  // other block size
  EXPECT_TRUE(HasDataError());
  EXPECT_EQ(ReplicationLogFileOpen(logPath().c_str(), 0), nullptr);
  EXPECT_EQ(QWErrorCode(), 22);
  const std::string notALog = "this is not a replication log file";
  WriteFileBytes(path("not-a-log"), notALog);
  EXPECT_EQ(ReplicationLogFileOpen(path("not-a-log").c_str(), 4096), nullptr);
  EXPECT_TRUE(HasDataError());
  EXPECT_EQ(ReadFileBytes(path("not-a-log")), notALog);  // left alone
  Events events;
  EXPECT_EQ(ReplicationLogFileRead(path("missing").c_str(), Collect, &events), 0);
  EXPECT_EQ(QWErrorCode(), 2);
  EXPECT_EQ(ReplicationLogClose(nullptr), 1);
}

// Cutting the file anywhere inside the last record, or flipping any byte of
// a record, stops the reader at that record with a data error; the records
// before it are still delivered.
TEST_F(ReplicationLogTest, TornAndGarbledRecordsAreDetected) {
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
  // A cut exactly between records is a clean end.
  WriteFileBytes(logPath(), whole.substr(0, starts[2]));
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
    ReadAll(0);
    EXPECT_TRUE(HasDataError()) << "cut " << cut;
  }
}

// Reopening after a crash cut off the end: the torn tail is dropped with a
// warning, so records appended afterwards are readable.
TEST_F(ReplicationLogTest, ReopenCutsTornTail) {
  const uint64_t keptEnd = Append({{8, 0, 0, "kept", {}}, {9, 0, 0, "torn", {1, 2, 3, 4}}})[1];
  const std::string whole = ReadFileBytes(logPath());
  WriteFileBytes(logPath(), whole.substr(0, whole.size() - 5));
  {
    qwtest::MessageCapture capture;
    Append({{10, 0, 0, "after", {}}});
    EXPECT_TRUE(capture.contains("replication log \"" + logPath() + "\": dropped a torn tail of " +
                                     std::to_string(whole.size() - 5 - keptEnd) + " bytes at offset " +
                                     std::to_string(keptEnd),
                                 QW_LEVEL_WARNING));
  }
  EXPECT_EQ(ReadAll(), (Events{{8, 0, 0, "kept", {}}, {10, 0, 0, "after", {}}}));
  // A file cut inside its header is a creation cut short: it starts afresh.
  WriteFileBytes(logPath(), "QWREP");
  Append({});
  EXPECT_TRUE(ReadAll().empty());
}

// A failed append leaves the log refusing further writes (they would land
// behind a partial record); reopening repairs it.
TEST_F(ReplicationLogTest, FailedWriteBreaksLogUntilReopened) {
  ReplicationLog *log = Open();
  ASSERT_NE(log, nullptr);
  ASSERT_EQ(WriteEvent(log, {8, 0, 0, "one", {}}), 1);
  qw::fault::Reset();
  qw::fault::FailNth(1, false, qw::fault::Bit(qw::fault::Op::Write), "replication.log");
  EXPECT_EQ(WriteEvent(log, {8, 0, 0, "two", {}}), 0);
  EXPECT_EQ(QWErrorCode(), 5);
  qw::fault::Disable();
  EXPECT_EQ(WriteEvent(log, {8, 0, 0, "three", {}}), 0);
  EXPECT_TRUE(qwtest::HasError(-1, "is in error after a failed write"));
  ReplicationLogClose(log);
  Append({{8, 0, 0, "four", {}}});
  // Whatever of "two" the channel still pushed out at close is either whole
  // or cut off at the reopen; "three" was never accepted.
  const Events events = ReadAll();
  ASSERT_GE(events.size(), 2u);
  ASSERT_LE(events.size(), 3u);
  EXPECT_EQ(events.front().path, "one");
  EXPECT_EQ(events.back().path, "four");
  EXPECT_TRUE(events.size() == 2 || events[1].path == "two");
}

// A host's own implementation: every call reaches it with the arguments as
// given, its failures come back through the error chain, close releases it.
struct HostLog {
  Events events;
  int blockSizeCalls = 0, closes = 0;
  bool fail = false;
};

int HostWrite(void *self, uint32_t type, uint32_t a, uint32_t b, const char *path, const uint64_t *list,
              uint32_t count) {
  auto *host = static_cast<HostLog *>(self);
  if (host->fail) return QWErrorThrow(28, QW_ERROR_CLASS_SYSTEM, "host log full");
  return Collect(&host->events, type, a, b, path, list, count);
}
uint32_t HostBlockSize(void *self) {
  ++static_cast<HostLog *>(self)->blockSizeCalls;
  return 65536;
}
int HostClose(void *self) {
  ++static_cast<HostLog *>(self)->closes;
  return 1;
}
const ReplicationLogOps kHostOps{HostWrite, HostBlockSize, HostClose};

TEST(ReplicationLogOps, CustomImplementationIsCalled) {
  HostLog host;
  ReplicationLog *log = ReplicationLogNew(&kHostOps, &host);
  ASSERT_NE(log, nullptr);
  EXPECT_EQ(ReplicationLogGetBlockSize(log), 65536u);
  EXPECT_EQ(host.blockSizeCalls, 1);
  const uint64_t ids[] = {3, 1, 4};
  EXPECT_EQ(ReplicationLogWrite(log, 9, 5, 6, "/d/data0", ids, 3), 1);
  EXPECT_EQ(ReplicationLogWrite(log, 8, 0, 0, nullptr, ids, 0), 1);
  EXPECT_EQ(host.events, (Events{{9, 5, 6, "/d/data0", {3, 1, 4}}, {8, 0, 0, "", {}}}));
  host.fail = true;
  EXPECT_EQ(ReplicationLogWrite(log, 10, 0, 0, "/d/x", nullptr, 0), 0);
  EXPECT_TRUE(qwtest::HasExactError(28, "host log full\nReplicationLogWrite: could not log event 10 for \"/d/x\""));
  EXPECT_EQ(ReplicationLogClose(log), 1);
  EXPECT_EQ(host.closes, 1);

  const ReplicationLogOps noClose{HostWrite, HostBlockSize, nullptr};
  log = ReplicationLogNew(&noClose, &host);
  ASSERT_NE(log, nullptr);
  EXPECT_EQ(ReplicationLogClose(log), 1);
  EXPECT_EQ(host.closes, 1);
  const ReplicationLogOps incomplete{nullptr, HostBlockSize, nullptr};
  EXPECT_EQ(ReplicationLogNew(&incomplete, &host), nullptr);
  EXPECT_EQ(QWErrorCode(), 22);
}

// ---- concurrency ----

using ReplicationLogConcurrency = ReplicationLogTest;

// Threads writing to one log: every record arrives whole, and each thread's
// records keep their order.
TEST_F(ReplicationLogConcurrency, ConcurrentWritersToFileLog) {
  ReplicationLog *log = Open();
  ASSERT_NE(log, nullptr);
  constexpr uint32_t kThreads = 4, kRecords = 300;
  std::vector<std::thread> threads;
  for (uint32_t t = 0; t < kThreads; ++t)
    threads.emplace_back([log, t] {
      std::vector<uint64_t> ids(t * 100);
      for (uint32_t i = 0; i < kRecords; ++i) {
        for (auto &id : ids) id = uint64_t(t) << 32 | i;
        EXPECT_EQ(ReplicationLogWrite(log, 9, t, i, "file", ids.data(), uint32_t(ids.size())), 1);
      }
    });
  for (auto &thread : threads) thread.join();
  ASSERT_EQ(ReplicationLogClose(log), 1);
  const Events events = ReadAll();
  ASSERT_EQ(events.size(), size_t(kThreads) * kRecords);
  std::vector<uint32_t> next(kThreads, 0);
  for (const Event &e : events) {
    ASSERT_LT(e.a, kThreads);
    EXPECT_EQ(e.b, next[e.a]++);
    EXPECT_EQ(e.list, std::vector<uint64_t>(size_t(e.a) * 100, uint64_t(e.a) << 32 | e.b));
  }
}

// A host implementation that is not thread-safe itself is still safe behind
// the log's mutex (ThreadSanitizer checks the vector's accesses).
TEST_F(ReplicationLogConcurrency, CallsIntoImplementationAreSerialised) {
  HostLog host;
  ReplicationLog *log = ReplicationLogNew(&kHostOps, &host);
  ASSERT_NE(log, nullptr);
  std::vector<std::thread> threads;
  for (uint32_t t = 0; t < 4; ++t)
    threads.emplace_back([log, t] {
      for (uint32_t i = 0; i < 500; ++i) {
        EXPECT_EQ(ReplicationLogWrite(log, 8, t, i, "f", nullptr, 0), 1);
        EXPECT_EQ(ReplicationLogGetBlockSize(log), 65536u);
      }
    });
  for (auto &thread : threads) thread.join();
  EXPECT_EQ(host.events.size(), 2000u);
  EXPECT_EQ(host.blockSizeCalls, 2000);
  EXPECT_EQ(ReplicationLogClose(log), 1);
}

}  // namespace
