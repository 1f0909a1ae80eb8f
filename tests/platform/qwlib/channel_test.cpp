// Buffered channels: round trips across buffer sizes, reads at the end of
// the file, append and truncate modes, misuse, and failed flushes.
#include <algorithm>
#include <cerrno>
#include <cstring>
#include <random>

#include "support/platform_support.h"

namespace {

using qwtest::HasExactError;
using qwtest::ReadFileBytes;
using qwtest::WriteFileBytes;

class ChannelTest : public qwtest::FaultTempDirTest {
 protected:
  QWChannel *Open(const std::string &name, const char *mode, size_t bufferSize = 0) {
    QWChannel *channel = ChannelNew(bufferSize);
    EXPECT_NE(channel, nullptr);
    EXPECT_EQ(ChannelOpenFile(channel, path(name).c_str(), mode), 1) << QWErrorMessage();
    return channel;
  }
};

std::string RandomBytes(std::mt19937 &random, size_t size) {
  std::string bytes(size, '\0');
  for (char &c : bytes) c = char(random());
  return bytes;
}

// Writes in random pieces (some larger than the buffer), then reads back in
// random pieces mixing ReadBuf, ReadSome and ReadByte_, for several buffers.
TEST_F(ChannelTest, RoundTripAcrossBufferSizes) {
  const size_t bufferSizes[] = {1, 7, 64, 4096, 0};
  std::mt19937 random(77);
  for (size_t bufferSize : bufferSizes) {
    SCOPED_TRACE(bufferSize);
    const std::string content = RandomBytes(random, 200000);
    QWChannel *writer = Open("data", "w", bufferSize);
    for (size_t at = 0; at < content.size();) {
      const size_t piece = std::min(content.size() - at, size_t(random() % 9000));
      ASSERT_EQ(ChannelWriteBuf(writer, content.data() + at, piece), 1) << QWErrorMessage();
      at += piece;
      ASSERT_EQ(ChannelTell(writer), at);
    }
    ASSERT_EQ(ChannelClose(writer), 1) << QWErrorMessage();
    ASSERT_EQ(ReadFileBytes(path("data")), content);

    QWChannel *reader = Open("data", "r", bufferSize);
    std::string back;
    while (back.size() < content.size()) {
      const int how = int(random() % 3);
      const size_t piece = std::min(content.size() - back.size(), size_t(random() % 9000));
      std::string bytes(piece, '\0');
      if (how == 0) {
        ASSERT_EQ(ChannelReadBuf(reader, bytes.data(), piece), 1) << QWErrorMessage();
      } else if (how == 1) {
        size_t got = 0;
        ASSERT_EQ(ChannelReadSome(reader, bytes.data(), piece, &got), 1);
        ASSERT_EQ(got, piece);  // enough data remains
      } else {
        for (char &c : bytes) {
          const int value = ChannelReadByte_(reader);
          ASSERT_GE(value, 0);
          c = char(value);
        }
      }
      back += bytes;
      ASSERT_EQ(ChannelTell(reader), back.size());
    }
    EXPECT_EQ(back, content);
    QWErrorClear();
    EXPECT_EQ(ChannelReadByte_(reader), -1);
    EXPECT_FALSE(QWErrorIsSet());
    EXPECT_EQ(ChannelClose(reader), 1);
  }
}

TEST_F(ChannelTest, EndOfFileBehaviour) {
  WriteFileBytes(path("empty"), "");
  EXPECT_EQ(qwtest::WithChannel(path("empty"), "r", [](QWChannel *c) { return ChannelReadByte_(c); }, 16), -1);
  EXPECT_FALSE(QWErrorIsSet());
  WriteFileBytes(path("short"), "0123456789");
  QWChannel *channel = Open("short", "r", 4);
  char buffer[32];
  size_t got = 0;
  ASSERT_EQ(ChannelReadSome(channel, buffer, 6, &got), 1);
  EXPECT_EQ(std::string(buffer, got), "012345");
  ASSERT_EQ(ChannelReadSome(channel, buffer, 32, &got), 1);
  EXPECT_EQ(std::string(buffer, got), "6789");
  ASSERT_EQ(ChannelReadSome(channel, buffer, 32, &got), 1);
  EXPECT_EQ(got, 0u);
  EXPECT_EQ(ChannelClose(channel), 1);

  channel = Open("short", "r", 4);
  ASSERT_EQ(ChannelReadBuf(channel, buffer, 3), 1);
  EXPECT_EQ(ChannelReadBuf(channel, buffer, 8), 0);
  EXPECT_TRUE(HasExactError(5, "unexpected end of file \"" + path("short") + "\""));
  EXPECT_EQ(ChannelClose(channel), 1);
}

TEST_F(ChannelTest, AppendAndTruncateModes) {
  WriteFileBytes(path("log"), "first;");
  QWChannel *channel = Open("log", "a");
  EXPECT_EQ(ChannelTell(channel), 6u);
  ASSERT_EQ(ChannelWriteBuf(channel, "second;", 7), 1);
  EXPECT_EQ(ChannelTell(channel), 13u);
  ASSERT_EQ(ChannelClose(channel), 1);
  EXPECT_EQ(ReadFileBytes(path("log")), "first;second;");

  channel = Open("fresh", "a");  // append creates a missing file
  ASSERT_EQ(ChannelWriteBuf(channel, "x", 1), 1);
  ASSERT_EQ(ChannelClose(channel), 1);
  EXPECT_EQ(ReadFileBytes(path("fresh")), "x");

  channel = Open("log", "w");
  EXPECT_EQ(ReadFileBytes(path("log")), "");
  ASSERT_EQ(ChannelWriteBuf(channel, "over", 4), 1);
  ASSERT_EQ(ChannelSync(channel), 1);  // durable and visible before close
  EXPECT_EQ(ReadFileBytes(path("log")), "over");
  EXPECT_STREQ(ChannelPath(channel), path("log").c_str());
  ASSERT_EQ(ChannelClose(channel), 1);
}

TEST_F(ChannelTest, MisuseGivesErrors) {
  QWChannel *channel = ChannelNew(0);
  EXPECT_STREQ(ChannelPath(channel), "");
  EXPECT_EQ(ChannelTell(channel), 0u);
  char byte = 0;
  QWErrorClear();
  EXPECT_EQ(ChannelReadBuf(channel, &byte, 1), 0);
  EXPECT_EQ(QWErrorCode(), EINVAL);
  EXPECT_EQ(ChannelReadByte_(channel), -1);
  EXPECT_TRUE(QWErrorIsSet());

  EXPECT_EQ(ChannelOpenFile(channel, path("f").c_str(), "rw"), 0);
  EXPECT_EQ(QWErrorCode(), EINVAL);
  EXPECT_EQ(ChannelOpenFile(channel, path("missing").c_str(), "r"), 0);
  EXPECT_TRUE(HasExactError(ENOENT, "could not open file \"" + path("missing") + "\": " + std::strerror(ENOENT) +
                                        "\ncould not open channel on \"" + path("missing") + "\""));

  ASSERT_EQ(ChannelOpenFile(channel, path("f").c_str(), "w"), 1);
  EXPECT_EQ(ChannelOpenFile(channel, path("g").c_str(), "w"), 0);  // already open
  EXPECT_EQ(QWErrorCode(), EINVAL);
  EXPECT_EQ(ChannelReadBuf(channel, &byte, 1), 0);  // a writing channel does not read
  EXPECT_EQ(QWErrorCode(), EINVAL);
  EXPECT_EQ(ChannelClose(channel), 1);
  EXPECT_EQ(ChannelClose(nullptr), 1);

  WriteFileBytes(path("r"), "abc");
  channel = Open("r", "r");
  EXPECT_EQ(ChannelWriteBuf(channel, "x", 1), 0);
  EXPECT_EQ(QWErrorCode(), EINVAL);
  EXPECT_EQ(ChannelFlush(channel), 1);  // nothing to flush when reading
  EXPECT_EQ(ChannelClose(channel), 1);
  EXPECT_EQ(ReadFileBytes(path("r")), "abc");
}

// A flush that fails at close still frees the channel and reports the flush
// error first; a failed explicit flush keeps the bytes for a retry.
TEST_F(ChannelTest, FailedFlushKeepsBytesAndCloseReportsIt) {
  namespace fault = qw::fault;
  QWChannel *channel = Open("f", "w", 64);
  ASSERT_EQ(ChannelWriteBuf(channel, "payload", 7), 1);
  fault::Reset();
  fault::FailNth(1, false, fault::Bit(fault::Op::Write));
  EXPECT_EQ(ChannelFlush(channel), 0);
  EXPECT_EQ(QWErrorCode(), 5);
  EXPECT_EQ(ReadFileBytes(path("f")), "");
  ASSERT_EQ(ChannelFlush(channel), 1) << QWErrorMessage();  // the rule fired once
  EXPECT_EQ(ReadFileBytes(path("f")), "payload");
  EXPECT_EQ(ChannelTell(channel), 7u);

  ASSERT_EQ(ChannelWriteBuf(channel, "more", 4), 1);
  fault::FailPath(path("f").c_str(), fault::Bit(fault::Op::Write));
  EXPECT_EQ(ChannelClose(channel), 0);
  EXPECT_TRUE(HasExactError(5, "injected I/O error in write \"" + path("f") + "\"\ncould not write file \"" + path("f") +
                                   "\" at offset 7\ncould not close channel on \"" + path("f") + "\""));
  EXPECT_EQ(ReadFileBytes(path("f")), "payload");
}

}  // namespace
