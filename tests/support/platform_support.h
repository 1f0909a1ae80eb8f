// Helpers of the platform suites (files, channels, page cache, status and
// replication logs): a temporary directory whose fault seam is disarmed after
// each test, one-line checks of the calling thread's error chain, a channel
// opened for the length of one call, and the records of a log read back.
#pragma once

#include <functional>
#include <string>
#include <vector>

#include "platform/qwlib/fault.h"
#include "support/test_support.h"

namespace qwtest {

// TempDirTest whose TearDown also disarms every rule of the file seam.
class FaultTempDirTest : public TempDirTest {
 protected:
  void TearDown() override {
    qw::fault::Disable();
    TempDirTest::TearDown();
  }
};

// The error chain has code `code` (-1: any) and a message that is exactly
// `text` (Exact), begins with it (Prefix) or contains it (Contains).
enum class Match { Exact, Prefix, Contains };

inline ::testing::AssertionResult HasError(int code, const std::string &text = "", Match match = Match::Contains) {
  const std::string message = QWErrorMessage();
  const bool textOk = match == Match::Exact      ? message == text
                      : match == Match::Prefix   ? message.rfind(text, 0) == 0
                                                 : message.find(text) != std::string::npos;
  if (QWErrorIsSet() && (code < 0 || QWErrorCode() == code) && textOk) return ::testing::AssertionSuccess();
  return ::testing::AssertionFailure() << "error " << (QWErrorIsSet() ? QWErrorCode() : -2) << " \"" << message
                                       << "\", wanted " << code << " \"" << text << "\"";
}
inline ::testing::AssertionResult HasExactError(int code, const std::string &text) {
  return HasError(code, text, Match::Exact);
}
// A data-class error (a malformed file), whatever its code.
inline ::testing::AssertionResult HasDataError(const std::string &part = "") {
  if (QWErrorClass() != QW_ERROR_CLASS_DATA)
    return ::testing::AssertionFailure() << "class " << QWErrorClass() << ": " << QWErrorMessage();
  return HasError(-1, part);
}

// Opens `path` on a channel in `mode` ("r", "w", "a"), runs `body` on it and
// closes it, expecting the open and the close to succeed. Returns body's result.
inline int WithChannel(const std::string &path, const char *mode, const std::function<int(QWChannel *)> &body,
                       size_t bufferSize = 0) {
  QWChannel *channel = ChannelNew(bufferSize);
  EXPECT_EQ(ChannelOpenFile(channel, path.c_str(), mode), 1) << QWErrorMessage();
  const int result = body(channel);
  EXPECT_EQ(ChannelClose(channel), 1) << QWErrorMessage();
  return result;
}

// One record of a log (file headers and trailers left out).
struct LogRecord {
  uint64_t serial;
  uint32_t type;
  std::string payload;
  bool operator==(const LogRecord &) const = default;
};

// Every record of the log in `dir`, read forwards from a fresh read-only
// open; each record's previous serial must be the one read before it.
inline std::vector<LogRecord> ReadLogRecords(const std::string &dir) {
  QWLog *log = LogOpen(dir.c_str(), 1);
  EXPECT_NE(log, nullptr) << QWErrorMessage();
  if (!log) return {};
  LogReadContext *context = LogReadContextNew(log);
  std::vector<LogRecord> records;
  uint64_t serial = 0, last = 0;
  EXPECT_TRUE(LogFirstSerial(context, 0, &serial)) << QWErrorMessage();
  for (bool first = true; serial <= LogLastSerial(log); first = false) {
    std::string payload(4096, '\0');
    uint32_t type = 0, size = uint32_t(payload.size());
    uint64_t next = 0, prev = 0;
    if (!LogRead(context, serial, &type, payload.data(), &size, &next, &prev)) {
      ADD_FAILURE() << QWErrorMessage();
      break;
    }
    EXPECT_TRUE(first || prev == last) << serial;
    payload.resize(size);
    if (type > LOG_FILE_TRAILER) records.push_back({serial, type, payload});
    last = serial;
    serial = next;
  }
  LogReadContextDelete(context);
  LogClose(log);
  return records;
}

}  // namespace qwtest
