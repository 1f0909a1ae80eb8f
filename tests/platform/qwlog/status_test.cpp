// Status files: round trips against a std::map model, the exact text layout, missing and garbled files, the status.new
// recovery rule and injected I/O failures. (Power lost at each sync of a write is the fault campaign's, through the box
// workloads that create their status files.)
#include <cstdio>
#include <map>

#include "platform/checks.h"

namespace {

using Parameters = std::map<uint32_t, uint64_t>;
using qwtest::ReadFileBytes;
using qwtest::WriteFileBytes;

// CRC-32C computed bit by bit, independent of the library's table version.
uint32_t ReferenceCrc32c(const std::string &bytes) {
  uint32_t crc = 0xFFFFFFFFu;
  for (unsigned char c : bytes) {
    crc ^= c;
    for (int k = 0; k < 8; ++k) crc = (crc & 1) ? (crc >> 1) ^ 0x82F63B78u : crc >> 1;
  }
  return ~crc;
}

// `text` followed by its end line ("end <count> <crc>"), the checksum in `crcFormat`.
std::string WithEnd(const std::string &text, size_t count, const char *crcFormat = "%08x") {
  char crc[16];
  std::snprintf(crc, sizeof crc, crcFormat, ReferenceCrc32c(text));
  return text + "end " + std::to_string(count) + " " + crc + "\n";
}

std::string ExpectedFile(const Parameters &parameters) {
  std::string text = "qwvm status 1\n";
  for (const auto &[number, value] : parameters) text += std::to_string(number) + " " + std::to_string(value) + "\n";
  return WithEnd(text, parameters.size());
}

struct StatusDeleter {
  void operator()(QWStatus *status) const { StatusFree(status); }
};
using StatusPtr = std::unique_ptr<QWStatus, StatusDeleter>;

Parameters All(const StatusPtr &status) {
  Parameters all;
  auto collect = [](void *context, uint32_t number, uint64_t value) {
    (*static_cast<Parameters *>(context))[number] = value;
    return 1;
  };
  EXPECT_EQ(StatusEnumerate(status.get(), collect, &all), 1);
  return all;
}

class StatusTest : public qwtest::FaultTempDirTest {
 protected:
  // Removes the status and any leftover, then writes `parameters` unless empty.
  void Start(const Parameters &parameters) {
    FileRemove(path("status").c_str());
    FileRemove(path("status.new").c_str());
    QWErrorClear();
    if (parameters.empty()) return;
    StatusPtr status(StatusNew());
    for (const auto &[number, value] : parameters) ASSERT_EQ(StatusSetParameter(status.get(), number, value), 1);
    ASSERT_EQ(StatusWrite(status.get(), dir().c_str()), 1) << QWErrorMessage();
  }
  StatusPtr Read() { return StatusPtr(StatusRead(dir().c_str())); }
  void ExpectMalformed(const std::string &label) {
    QWErrorClear();
    EXPECT_EQ(Read(), nullptr) << label;
    EXPECT_TRUE(qwtest::HasDataError()) << label;
    EXPECT_TRUE(qwtest::HasError(74, "malformed status file \"" + dir() + "/status\": ", qwtest::Match::Prefix))
        << label;
  }
};

TEST_F(StatusTest, RoundTripMatchesModelAndExactText) {
  ASSERT_EQ(ReferenceCrc32c("123456789"), 0xE3069283u);  // the reference itself
  std::mt19937_64 random(5);
  Parameters model;
  StatusPtr status(StatusNew());
  ASSERT_TRUE(status && StatusGetParameter(status.get(), 99) == 0u);
  for (int round = 0; round < 40; ++round) {
    ASSERT_EQ(StatusWrite(status.get(), dir().c_str()), 1) << QWErrorMessage();
    EXPECT_EQ(ReadFileBytes(path("status")), ExpectedFile(model));
    EXPECT_FALSE(FileExists(path("status.new").c_str()));
    StatusPtr back = Read();
    ASSERT_NE(back, nullptr) << QWErrorMessage();
    EXPECT_EQ(All(back), model);
    for (const auto &[number, value] : model) EXPECT_EQ(StatusGetParameter(back.get(), number), value);
    EXPECT_EQ(StatusGetParameter(back.get(), 12345678u), model.count(12345678u) ? model[12345678u] : 0u);
    for (int k = 0; k < 5; ++k) {
      uint32_t number = round % 3 == 0 ? uint32_t(random() % 200) : uint32_t(random());
      uint64_t value = random() % 4 == 0 ? 0 : random();
      if (k == 0) number = UINT32_MAX, value = UINT64_MAX;
      ASSERT_EQ(StatusSetParameter(status.get(), number, value), 1);
      model[number] = value;
    }
  }
}

TEST_F(StatusTest, MissingFileAndLeftoverStatusNew) {
  EXPECT_TRUE(qwtest::FailsExactly(Read(), 2, "no status file in \"" + dir() + "\""));
  auto ExpectEmptyWhenMissingOk = [&] {
    StatusPtr empty(StatusRead_(dir().c_str(), STATUS_READ_MISSING_OK));
    ASSERT_NE(empty, nullptr);
    EXPECT_TRUE(All(empty).empty());
  };
  QWErrorClear();
  ExpectEmptyWhenMissingOk();
  EXPECT_FALSE(QWErrorIsSet());
  EXPECT_TRUE(qwtest::Fails(StatusRead((dir() + "/no/such/dir").c_str()), 2));
  EXPECT_TRUE(qwtest::Fails(StatusWrite(StatusPtr(StatusNew()).get(), (dir() + "/no/such/dir").c_str()), -1));

  // A complete status.new without status: the rename was lost, use it.
  Start({{5, 50}});
  ASSERT_EQ(FileRename(path("status").c_str(), path("status.new").c_str()), 1);
  StatusPtr recovered = Read();
  ASSERT_TRUE(recovered && StatusGetParameter(recovered.get(), 5) == 50u) << QWErrorMessage();
  // An incomplete one without status: the first write never finished.
  const std::string complete = ReadFileBytes(path("status.new"));
  WriteFileBytes(path("status.new"), complete.substr(0, complete.size() - 3));
  EXPECT_TRUE(qwtest::Fails(Read(), 2));
  ExpectEmptyWhenMissingOk();
  // Beside a status, a leftover status.new (complete or not) is ignored.
  Start({{5, 51}});
  WriteFileBytes(path("status.new"), complete);
  StatusPtr current = Read();
  ASSERT_TRUE(current && StatusGetParameter(current.get(), 5) == 51u);
}

TEST_F(StatusTest, GarbledFilesAreRejected) {
  const std::string body = "qwvm status 1\n7 70\n9 90\n", whole = WithEnd(body, 2);
  const std::pair<const char *, std::string> cases[] = {
      {"other format", WithEnd("qwvm status 2\n", 0)},
      {"wrong count", WithEnd(body, 3)},
      {"upper-case checksum", WithEnd(body, 2, "%08X")},
      {"data after end", whole + "x"},
      {"out of order", WithEnd("qwvm status 1\n9 90\n7 70\n", 2)},
      {"duplicate", WithEnd("qwvm status 1\n7 70\n7 71\n", 2)},
      {"number too large", WithEnd("qwvm status 1\n4294967296 1\n", 1)},
      {"value too large", WithEnd("qwvm status 1\n1 18446744073709551616\n", 1)},
      {"negative value", WithEnd("qwvm status 1\n1 -1\n", 1)},
      {"three fields", WithEnd("qwvm status 1\n1 2 3\n", 1)},
      {"blank line", WithEnd("qwvm status 1\n\n", 0)},
      {"hex value", WithEnd("qwvm status 1\n1 0x10\n", 1)},
      {"binary garbage", std::string("\0\xff\x10qwvm", 7)},
  };
  for (const auto &[label, content] : cases) {
    WriteFileBytes(path("status"), content);
    ExpectMalformed(label);
  }
  // Every single flipped bit and every truncation of a valid file (so an empty file, a missing end line or newline, a
  // wrong checksum) is caught.
  Start({{1, 11}, {98, 4}, {99, 1}, {4000000000u, 18446744073709551615ull}});
  const std::string valid = ReadFileBytes(path("status"));
  for (size_t i = 0; i < valid.size(); ++i) {
    for (int bit = 0; bit < 8; ++bit) {
      std::string garbled = valid;
      garbled[i] = char(garbled[i] ^ (1 << bit));
      WriteFileBytes(path("status"), garbled);
      ExpectMalformed("bit " + std::to_string(bit) + " of byte " + std::to_string(i));
    }
    WriteFileBytes(path("status"), valid.substr(0, i));
    ExpectMalformed("cut at " + std::to_string(i));
  }
}

// Each file operation of a write failing in turn: the write reports it, the previous status stays readable, unchanged.
TEST_F(StatusTest, InjectedFailuresLeaveOldStatus) {
  StatusPtr next(StatusNew());
  ASSERT_EQ(StatusSetParameter(next.get(), 1, 200), 1);
  uint64_t operations = 0;
  for (uint64_t n = 0; n <= operations; ++n) {  // n = 0 counts the operations
    Start({{1, 100}});
    qw::fault::Reset();
    if (n > 0) qw::fault::FailNth(n, false);
    const int result = StatusWrite(next.get(), dir().c_str());
    if (n == 0) operations = qw::fault::OperationCount();
    qw::fault::Disable();
    ASSERT_GE(operations, 5u);  // open, write, sync, close, rename, dirsync
    if (n == 0) continue;
    EXPECT_TRUE(qwtest::Fails(result, 5)) << "failing operation " << n;
    StatusPtr back = Read();
    ASSERT_NE(back, nullptr) << "failing operation " << n << ": " << QWErrorMessage();
    // Only the directory sync comes after the rename: then the new value is in place, merely not known to be durable.
    const uint64_t value = StatusGetParameter(back.get(), 1);
    EXPECT_TRUE(value == 100 || (value == 200 && n == operations)) << "operation " << n << " value " << value;
  }
}

}  // namespace
