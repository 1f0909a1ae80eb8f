// Serial-numbered log: round trips forwards and backwards over rollover, torn tails at every cut and garble of the last
// record, damage anywhere else as an error naming file and serial, truncation crashed at each of its syncs, and group
// commit. (Power loss at every sync of a writing log is the fault campaign's, through its logged workloads.)
#include <barrier>
#include <filesystem>
#include <thread>

#include "platform/qwutil/bytes.h"
#include "support/fault_support.h"
#include "platform/checks.h"

namespace {

namespace fs = std::filesystem;

using Record = qwtest::LogRecord;

class LogTest : public qwtest::FaultTempDirTest {
 protected:
  std::string logDir() const { return path("log"); }
  qwtest::MessageCapture capture;
  std::string file(uint32_t n) const {
    char name[32];
    std::snprintf(name, sizeof name, "/%08u.qwlog", n);
    return logDir() + name;
  }

  QWLog *Open(int readOnly = 0, uint64_t limit = 4096) {
    fs::create_directories(logDir());
    QWLog *log = LogOpen_(logDir().c_str(), readOnly, limit);
    EXPECT_NE(log, nullptr) << QWErrorMessage();
    return log;
  }

  // Writes records first..last-1 (type 3 + i % 5), flushing every `flushEvery`.
  std::vector<Record> Write(QWLog *log, uint32_t first, uint32_t last, uint32_t flushEvery = 1) {
    std::vector<Record> written;
    for (uint32_t i = first; i < last; ++i) {
      const std::string payload(i * 37 % 700, char('a' + i % 26));
      const uint32_t flags = (i + 1) % flushEvery == 0 ? LOG_WRITE_FLUSH : 0;
      EXPECT_TRUE(LogWrite(log, 3 + i % 5, payload.data(), uint32_t(payload.size()), flags)) << QWErrorMessage();
      written.push_back({LogLastSerial(log), 3 + i % 5, payload});
    }
    return written;
  }

  std::vector<Record> ReadAll() { return qwtest::ReadLogRecords(logDir()); }
};

TEST_F(LogTest, RecordsRoundTripAcrossRolloverAndReopen) {
  QWLog *log = Open();
  std::vector<Record> written = Write(log, 0, 60, 7);
  ASSERT_TRUE(LogClose(log)) << QWErrorMessage();
  log = Open();  // appends after the reopened end
  const std::vector<Record> more = Write(log, 60, 80, 3);
  written.insert(written.end(), more.begin(), more.end());
  uint32_t first = 0, last = 0;
  ASSERT_TRUE(LogFiles(log, &first, &last, nullptr) && LogClose(log));
  EXPECT_EQ(first, 1u);
  EXPECT_GT(last, 5u);  // 80 records of up to 700 bytes in 4 KiB files
  EXPECT_EQ(ReadAll(), written);
  for (uint32_t n = first; n <= last; ++n) EXPECT_LE(fs::file_size(file(n)), 4096u) << n;

  // LogFirstSerial finds the record at or after any serial.
  log = Open(1);
  LogReadContext *context = LogReadContextNew(log);
  const uint64_t serial = written[40].serial;
  uint64_t found = 0;
  EXPECT_TRUE(LogFirstSerial(context, serial - 1, &found) && found == serial) << QWErrorMessage();
  EXPECT_TRUE(LogFirstSerial(context, serial + 1, &found) && found == written[41].serial);
  uint32_t type = 0, size = 0;
  EXPECT_TRUE(!LogRead(context, serial + 1, &type, nullptr, &size, nullptr, nullptr) &&
              qwtest::HasDataError("no valid record at serial " + std::to_string(serial + 1)));
  EXPECT_TRUE(qwtest::Fails(LogRead(context, LogLastSerial(log) + 1000, &type, nullptr, &size, nullptr, nullptr), 2));
  EXPECT_TRUE(qwtest::Fails(LogFirstSerial(context, LOG_NO_SERIAL - 1, &found), 2));
  LogReadContextDelete(context);
  LogClose(log);
}

TEST_F(LogTest, RecordsHaveTheDocumentedLayout) {
  QWLog *log = Open();
  ASSERT_TRUE(LogWrite(log, 7, "abc", 3, LOG_WRITE_FLUSH) && LogClose(log)) << QWErrorMessage();
  const std::string bytes = qwtest::ReadFileBytes(file(1));
  ASSERT_EQ(bytes.size(), 40u + 24 + 3);
  const auto *p = reinterpret_cast<const unsigned char *>(bytes.data());
  EXPECT_EQ(std::string(bytes.data() + 24, 8), std::string("QWVMLOG\0", 8));  // the file header's payload
  EXPECT_EQ(qw::LoadLE32(p + 32), 1u);                                        // version
  EXPECT_EQ(qw::LoadLE32(p + 36), 1u);                                        // file number
  const unsigned char *r = p + 40;  // size, type, previous (the header at serial 1 << 32), synced, payload
  EXPECT_EQ(std::vector<uint64_t>({qw::LoadLE32(r + 4), qw::LoadLE32(r + 8), qw::LoadLE64(r + 12),
                                   qw::LoadLE32(r + 20)}),
            std::vector<uint64_t>({3, 7, uint64_t(1) << 32, 40}));
  EXPECT_EQ(std::string(bytes.data() + 64, 3), "abc");
  unsigned char serial[8];
  qw::StoreLE64(serial, (uint64_t(1) << 32) | 40);
  EXPECT_EQ(qw::LoadLE32(r), qw::Crc32c(qw::Crc32c(qw::Crc32c(0, serial, 8), r + 4, 20), r + 24, 3));
}

TEST_F(LogTest, ATornLastRecordIsCutAtEveryCutAndGarble) {
  QWLog *log = Open(0, 1 << 20);
  const std::vector<Record> written = Write(log, 1, 6);
  ASSERT_TRUE(LogClose(log));
  const std::string original = qwtest::ReadFileBytes(file(1));
  const uint64_t lastStart = LOG_SERIAL_OFFSET(written.back().serial);
  const uint64_t stride = qwtest::SweepStride(5);
  for (uint64_t at = lastStart; at < original.size(); ++at) {
    if (!qwtest::InSweep(at, lastStart, original.size() - 1, stride)) continue;
    std::string garbled = original;
    garbled[at] = char(garbled[at] ^ 0x40);
    for (const std::string &damaged : {original.substr(0, at), garbled}) {
      qwtest::WriteFileBytes(file(1), damaged);
      SCOPED_TRACE("byte " + std::to_string(at) + (damaged.size() == original.size() ? " flipped" : " cut"));
      capture.clear();
      log = Open();
      ASSERT_NE(log, nullptr);
      EXPECT_EQ(LogLastSerial(log), written[written.size() - 2].serial);
      EXPECT_EQ(capture.contains("log \"" + logDir() + "\": cut a torn tail of " +
                                     std::to_string(damaged.size() - lastStart) + " bytes at offset " +
                                     std::to_string(lastStart) + " of \"" + file(1) + "\"",
                                 QW_LEVEL_WARNING),
                damaged.size() > lastStart);
      EXPECT_EQ(fs::file_size(file(1)), lastStart);
      std::vector<Record> expected(written.begin(), written.end() - 1);
      expected.push_back(Write(log, 6, 7)[0]);  // appends where the torn record was
      ASSERT_TRUE(LogClose(log));
      EXPECT_EQ(expected.back().serial, written.back().serial);
      EXPECT_EQ(ReadAll(), expected);
    }
  }
}

TEST_F(LogTest, DamageBeforeTheTornTailIsAnErrorNamingFileAndSerial) {
  QWLog *log = Open();
  const std::vector<Record> written = Write(log, 0, 40);  // several files, every record flushed
  uint32_t last = 0;
  ASSERT_TRUE(LogFiles(log, nullptr, &last, nullptr) && last >= 3 && LogClose(log));
  const Record *middleOfNewest = nullptr;
  for (const Record &r : written)
    if (LOG_SERIAL_FILE(r.serial) == last && !middleOfNewest) middleOfNewest = &r;
  ASSERT_TRUE(middleOfNewest && middleOfNewest != &written.back());
  const struct {
    uint32_t file;
    uint64_t offset;  // byte flipped; UINT64_MAX removes the file
    bool failsAtOpen;
  } cases[] = {
      {last, LOG_SERIAL_OFFSET(middleOfNewest->serial) + 30, true},  // a flushed record of the newest file
      {1, LOG_SERIAL_OFFSET(written[1].serial) + 30, false},         // a record inside an older file
      {2, 5, true},                                                  // the header of an older file
      {1, fs::file_size(file(1)) - 3, true},                         // the trailer of an older file
      {2, UINT64_MAX, true},                                         // a file in the middle is missing
  };
  fs::copy(logDir(), path("snapshot"));
  for (const auto &c : cases) {
    SCOPED_TRACE(testing::Message() << c.file << " " << c.offset);
    fs::remove_all(logDir());
    fs::copy(path("snapshot"), logDir());
    std::string bytes = qwtest::ReadFileBytes(file(c.file));
    if (c.offset == UINT64_MAX) fs::remove(file(c.file));
    else qwtest::WriteFileBytes(file(c.file), bytes.replace(c.offset, 1, 1, char(bytes[c.offset] ^ 1)));
    QWErrorClear();
    QWLog *damaged = LogOpen_(logDir().c_str(), 0, 4096);
    if (damaged) {
      LogReadContext *context = LogReadContextNew(damaged);
      uint64_t serial = 0;
      uint32_t type = 0, size = 0;
      ASSERT_TRUE(LogFirstSerial(context, 0, &serial));
      while (LogRead(context, serial, &type, nullptr, &size, &serial, nullptr)) {
      }
      LogReadContextDelete(context);
      LogClose(damaged);
    }
    EXPECT_EQ(damaged == nullptr, c.failsAtOpen) << QWErrorMessage();
    EXPECT_TRUE(qwtest::HasDataError(file(c.file)));
  }
}

TEST_F(LogTest, TruncateRemovesWholeFilesAndSurvivesACrashAtEachSync) {
  QWLog *log = Open();
  const std::vector<Record> written = Write(log, 0, 40, 4);
  ASSERT_TRUE(LogClose(log));
  const Record &keep = written[30];
  fs::copy(logDir(), path("snapshot"));
  log = Open();
  qw::fault::Reset();
  ASSERT_TRUE(LogTruncate(log, keep.serial)) << QWErrorMessage();
  const uint64_t syncs = qw::fault::SyncCount();
  qw::fault::Disable();
  uint32_t first = 0;
  ASSERT_TRUE(LogFiles(log, &first, nullptr, nullptr) && first == LOG_SERIAL_FILE(keep.serial));
  EXPECT_TRUE(qwtest::Fails(LogTruncate(log, LogLastSerial(log) + 1), 22));
  ASSERT_TRUE(LogClose(log));
  EXPECT_EQ(syncs, uint64_t(first - 1)) << "one directory sync per removed file";

  for (uint64_t n = 1; n <= syncs + 1; ++n) {
    SCOPED_TRACE("crash at sync " + std::to_string(n));
    fs::remove_all(logDir());
    fs::copy(path("snapshot"), logDir());
    QWLog *l = nullptr;
    const qwtest::PowerLossRun run = qwtest::PowerLossChild(
        n, {qw::fault::PowerLoss::Drop}, [&] { return (l = LogOpen_(logDir().c_str(), 0, 4096)) != nullptr; },
        [&] { return LogTruncate(l, keep.serial) == 1; });
    ASSERT_EQ(run.status, n <= syncs ? 1 : 2) << run.out;
    std::vector<Record> after = ReadAll();
    ASSERT_FALSE(after.empty());
    EXPECT_LE(after.front().serial, keep.serial);  // whole files before `keep` may be left
    after.erase(after.begin(), std::find(after.begin(), after.end(), keep));
    EXPECT_EQ(after, std::vector<Record>(written.begin() + 30, written.end()));
  }
}

using LogConcurrencyTest = LogTest;

TEST_F(LogConcurrencyTest, ConcurrentFlushersShareOneSync) {
  QWLog *log = Open(0, LOG_MAX_FILE_SIZE);
  ASSERT_NE(log, nullptr);
  constexpr int kRounds = 200;
  std::barrier sync(2);
  qw::fault::Reset();
  auto flusher = [&](uint32_t type) {
    for (int i = 0; i < kRounds; ++i) {
      // Both records are buffered before either flush starts: the leading flush covers both, the other must not sync.
      EXPECT_TRUE(LogWrite(log, type, "0123456789", 10, 0));
      sync.arrive_and_wait();
      EXPECT_TRUE(LogFlush(log));
      sync.arrive_and_wait();
    }
  };
  std::thread a(flusher, 3), b(flusher, 4);
  a.join();
  b.join();
  EXPECT_EQ(qw::fault::SyncCount(), uint64_t(kRounds));
  qw::fault::Disable();
  EXPECT_TRUE(LogClose(log));
}

}  // namespace
