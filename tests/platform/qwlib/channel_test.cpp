// Buffered channels: round trips across buffer sizes, end of file, append and truncate, misuse, failed flushes.
#include <cerrno>
#include <cstring>

#include "platform/checks.h"

namespace {

using qwtest::HasExactError;
using qwtest::ReadFileBytes;

class ChannelTest : public qwtest::FaultTempDirTest {
 protected:
  QWChannel *Open(const std::string &name, const char *mode, size_t bufferSize = 0) {
    QWChannel *channel = ChannelNew(bufferSize);
    EXPECT_EQ(ChannelOpenFile(channel, path(name).c_str(), mode), 1) << QWErrorMessage();
    return channel;
  }
};

// Writes in random pieces (some larger than the buffer), then reads back in random pieces mixing ReadBuf, ReadSome and
// ReadByte_, for several buffers.
TEST_F(ChannelTest, RoundTripAcrossBufferSizes) {
  std::mt19937 random(77);
  for (size_t bufferSize : {1, 7, 64, 4096, 0}) {
    SCOPED_TRACE(bufferSize);
    std::string content(200000, '\0'), back;
    for (char &c : content) c = char(random());
    QWChannel *channel = Open("data", "w", bufferSize);
    for (size_t at = 0, piece; at < content.size(); at += piece) {
      piece = std::min(content.size() - at, size_t(random() % 9000));
      ASSERT_EQ(ChannelWriteBuf(channel, content.data() + at, piece), 1) << QWErrorMessage();
      ASSERT_EQ(ChannelTell(channel), at + piece);
    }
    ASSERT_EQ(ChannelClose(channel), 1) << QWErrorMessage();
    ASSERT_EQ(ReadFileBytes(path("data")), content);
    channel = Open("data", "r", bufferSize);
    while (back.size() < content.size()) {
      const int how = int(random() % 3);
      std::string bytes(std::min(content.size() - back.size(), size_t(random() % 9000)), '\0');
      size_t got = 0;
      ASSERT_TRUE(how != 0 || ChannelReadBuf(channel, bytes.data(), bytes.size())) << QWErrorMessage();
      // ReadSome gets all it asks for while enough data remains.
      ASSERT_TRUE(how != 1 || (ChannelReadSome(channel, bytes.data(), bytes.size(), &got) && got == bytes.size()));
      for (size_t i = 0; how == 2 && i < bytes.size(); ++i) {
        const int value = ChannelReadByte_(channel);
        ASSERT_GE(value, 0);
        bytes[i] = char(value);
      }
      back += bytes;
      ASSERT_EQ(ChannelTell(channel), back.size());
    }
    EXPECT_EQ(back, content);
    QWErrorClear();
    EXPECT_EQ(ChannelReadByte_(channel), -1);  // the end, without an error
    EXPECT_FALSE(QWErrorIsSet());
    EXPECT_EQ(ChannelClose(channel), 1);
  }
}

TEST_F(ChannelTest, EndOfFileAppendAndTruncate) {
  qwtest::WriteFileBytes(path("short"), "0123456789");
  QWChannel *channel = Open("short", "r", 4);
  char buffer[32];
  size_t got = 0;
  for (const char *expected : {"012345", "6789", ""}) {
    ASSERT_EQ(ChannelReadSome(channel, buffer, 6, &got), 1);
    EXPECT_EQ(std::string(buffer, got), expected);
  }
  EXPECT_EQ(ChannelClose(channel), 1);
  channel = Open("short", "r", 4);
  ASSERT_EQ(ChannelReadBuf(channel, buffer, 3), 1);
  EXPECT_EQ(ChannelReadBuf(channel, buffer, 8), 0);
  EXPECT_TRUE(HasExactError(5, "unexpected end of file \"" + path("short") + "\""));
  EXPECT_EQ(ChannelClose(channel), 1);

  channel = Open("short", "a");
  EXPECT_EQ(ChannelTell(channel), 10u);
  ASSERT_EQ(ChannelWriteBuf(channel, "ab", 2), 1);
  EXPECT_EQ(ChannelTell(channel), 12u);
  ASSERT_EQ(ChannelClose(channel), 1);
  EXPECT_EQ(ReadFileBytes(path("short")), "0123456789ab");
  channel = Open("fresh", "a");  // append creates a missing file
  ASSERT_EQ(ChannelWriteBuf(channel, "x", 1) + ChannelClose(channel), 2);
  EXPECT_EQ(ReadFileBytes(path("fresh")), "x");
  channel = Open("short", "w");
  EXPECT_EQ(ReadFileBytes(path("short")), "");
  ASSERT_EQ(ChannelWriteBuf(channel, "over", 4), 1);
  ASSERT_EQ(ChannelSync(channel), 1);  // durable and visible before close
  EXPECT_EQ(ReadFileBytes(path("short")), "over");
  EXPECT_STREQ(ChannelPath(channel), path("short").c_str());
  ASSERT_EQ(ChannelClose(channel), 1);
}

TEST_F(ChannelTest, MisuseGivesErrors) {
  QWChannel *channel = ChannelNew(0);
  EXPECT_STREQ(ChannelPath(channel), "");
  EXPECT_EQ(ChannelTell(channel), 0u);
  char byte = 0;
  QWErrorClear();
  EXPECT_TRUE(qwtest::Fails(ChannelReadBuf(channel, &byte, 1), EINVAL));
  EXPECT_EQ(ChannelReadByte_(channel), -1);
  EXPECT_TRUE(QWErrorIsSet());
  EXPECT_TRUE(qwtest::Fails(ChannelOpenFile(channel, path("f").c_str(), "rw"), EINVAL));
  EXPECT_EQ(ChannelOpenFile(channel, path("missing").c_str(), "r"), 0);
  EXPECT_TRUE(HasExactError(ENOENT, "could not open file \"" + path("missing") + "\": " + std::strerror(ENOENT) +
                                        "\ncould not open channel on \"" + path("missing") + "\""));
  ASSERT_EQ(ChannelOpenFile(channel, path("f").c_str(), "w"), 1);
  EXPECT_EQ(ChannelOpenFile(channel, path("g").c_str(), "w"), 0);  // already open
  EXPECT_EQ(QWErrorCode(), EINVAL);
  EXPECT_EQ(ChannelReadBuf(channel, &byte, 1), 0);  // a writing channel does not read
  EXPECT_EQ(QWErrorCode(), EINVAL);
  EXPECT_EQ(ChannelClose(channel) + ChannelClose(nullptr), 2);
  channel = Open("f", "r");
  EXPECT_TRUE(qwtest::Fails(ChannelWriteBuf(channel, "x", 1), EINVAL));
  EXPECT_EQ(ChannelFlush(channel), 1);  // nothing to flush when reading
  EXPECT_EQ(ChannelClose(channel), 1);
  EXPECT_EQ(ReadFileBytes(path("f")), "");
}

// A flush that fails at close still frees the channel and reports the flush error first; a failed explicit flush keeps
// the bytes for a retry.
TEST_F(ChannelTest, FailedFlushKeepsBytesAndCloseReportsIt) {
  namespace fault = qw::fault;
  QWChannel *channel = Open("f", "w", 64);
  ASSERT_EQ(ChannelWriteBuf(channel, "payload", 7), 1);
  fault::Reset();
  fault::FailNth(1, false, fault::Bit(fault::Op::Write));
  EXPECT_TRUE(qwtest::Fails(ChannelFlush(channel), 5));
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
