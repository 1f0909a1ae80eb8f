// Buffered channels: sequential reading or writing of one file through a
// buffer, on top of the QWFile functions (so every disk access passes the
// fault seam there).
//
// Invariants:
//  - Closed: file == QWFILE_INVALID, start == begin == end == 0.
//  - Reading: buffer[begin, end) holds the file bytes from start + begin;
//    the logical position is start + begin.
//  - Writing: buffer[0, end) holds bytes not yet written, which belong at
//    file offset start; begin stays 0; the logical position is start + end.
#include <algorithm>
#include <cerrno>
#include <cstring>
#include <memory>
#include <new>
#include <string>
#include <vector>

#include "platform/qwlib/file_object.h"
#include "qwvm/qwfile.h"
#include "qwvm/qwlib.h"

struct QWChannel {
  enum class Mode { Closed, Read, Write };
  Mode mode = Mode::Closed;
  QWFILE file = QWFILE_INVALID;
  std::vector<unsigned char> buffer;
  uint64_t start = 0;
  size_t begin = 0;
  size_t end = 0;
};

namespace {

constexpr size_t kDefaultBufferSize = 64 * 1024;

bool Usable(QWChannel *channel, QWChannel::Mode mode) {
  if (channel && channel->mode == mode) return true;
  QWErrorThrow(EINVAL, QW_ERROR_CLASS_SYSTEM, "channel is not open for %s",
               mode == QWChannel::Mode::Read ? "reading" : "writing");
  return false;
}

// Refills an exhausted read buffer; false on error, end of file leaves it
// empty (begin == end) with no error.
bool Refill(QWChannel *channel) {
  channel->start += channel->end;
  channel->begin = channel->end = 0;
  size_t got = 0;
  if (!QWFileReadData(channel->file, channel->start, channel->buffer.data(), channel->buffer.size(), &got))
    return false;
  channel->end = got;
  return true;
}

// Reads up to `size` bytes; stops early only at the end of the file.
bool ReadUpTo(QWChannel *channel, unsigned char *out, size_t size, size_t *done) {
  *done = 0;
  while (*done < size) {
    if (channel->begin == channel->end) {
      // A request that would empty the buffer anyway skips the copy.
      if (size - *done >= channel->buffer.size()) {
        channel->start += channel->end;
        channel->begin = channel->end = 0;
        size_t got = 0;
        if (!QWFileReadData(channel->file, channel->start, out + *done, size - *done, &got)) return false;
        channel->start += got;
        *done += got;
        return true;
      }
      if (!Refill(channel)) return false;
      if (channel->end == 0) return true;  // end of file
    }
    const size_t take = std::min(size - *done, channel->end - channel->begin);
    std::memcpy(out + *done, channel->buffer.data() + channel->begin, take);
    channel->begin += take;
    *done += take;
  }
  return true;
}

bool FlushWrites(QWChannel *channel) {
  if (channel->end == 0) return true;
  if (!QWFileWriteData(channel->file, channel->start, channel->buffer.data(), channel->end)) return false;
  channel->start += channel->end;
  channel->end = 0;
  return true;
}

}  // namespace

extern "C" {

QW_API QWChannel *ChannelNew(size_t bufferSize) {
  try {
    auto channel = std::make_unique<QWChannel>();
    channel->buffer.resize(bufferSize == 0 ? kDefaultBufferSize : bufferSize);
    return channel.release();
  } catch (const std::bad_alloc &) {
    QWErrorThrow(ENOMEM, QW_ERROR_CLASS_SYSTEM, "could not create a channel of %zu bytes: out of memory", bufferSize);
    return nullptr;
  }
}

QW_API int ChannelOpenFile(QWChannel *channel, const char *path, const char *mode) {
  if (!channel || !path || !mode) return QWErrorThrow(EINVAL, QW_ERROR_CLASS_SYSTEM, "could not open channel: no path");
  if (channel->mode != QWChannel::Mode::Closed)
    return QWErrorThrow(EINVAL, QW_ERROR_CLASS_SYSTEM, "could not open channel on \"%s\": already open on \"%s\"", path,
                        channel->file->path.c_str());
  uint32_t fileMode;
  QWChannel::Mode channelMode = QWChannel::Mode::Write;
  if (std::strcmp(mode, "r") == 0) {
    fileMode = QWFILE_READ | QWFILE_READAHEAD;
    channelMode = QWChannel::Mode::Read;
  } else if (std::strcmp(mode, "w") == 0) {
    fileMode = QWFILE_WRITE | QWFILE_CREATE | QWFILE_TRUNCATE;
  } else if (std::strcmp(mode, "a") == 0) {
    fileMode = QWFILE_WRITE | QWFILE_CREATE;
  } else {
    return QWErrorThrow(EINVAL, QW_ERROR_CLASS_SYSTEM, "could not open channel on \"%s\": unknown mode \"%s\"", path,
                        mode);
  }
  QWFILE file = QWFILE_INVALID;
  if (!QWFileOpen(&file, path, fileMode)) return QWErrorRethrow("could not open channel on \"%s\"", path);
  uint64_t start = 0;
  if (std::strcmp(mode, "a") == 0 && !QWFileGetSize(file, &start)) {
    QWErrorSave();
    QWFileClose(file);
    QWErrorRestore();
    return QWErrorRethrow("could not open channel on \"%s\"", path);
  }
  channel->file = file;
  channel->mode = channelMode;
  channel->start = start;
  channel->begin = channel->end = 0;
  return 1;
}

QW_API int ChannelReadBuf(QWChannel *channel, void *buffer, size_t size) {
  if (!Usable(channel, QWChannel::Mode::Read)) return 0;
  size_t done = 0;
  if (!ReadUpTo(channel, static_cast<unsigned char *>(buffer), size, &done)) return 0;
  if (done < size)
    return QWErrorThrow(EIO, QW_ERROR_CLASS_SYSTEM, "unexpected end of file \"%s\"", channel->file->path.c_str());
  return 1;
}

QW_API int ChannelReadSome(QWChannel *channel, void *buffer, size_t size, size_t *bytesRead) {
  if (bytesRead) *bytesRead = 0;
  if (!Usable(channel, QWChannel::Mode::Read)) return 0;
  size_t done = 0;
  const int result = ReadUpTo(channel, static_cast<unsigned char *>(buffer), size, &done) ? 1 : 0;
  if (bytesRead) *bytesRead = done;
  return result;
}

QW_API int ChannelReadByte_(QWChannel *channel) {
  if (channel && channel->mode == QWChannel::Mode::Read && channel->begin < channel->end) [[likely]]
    return channel->buffer[channel->begin++];
  if (!Usable(channel, QWChannel::Mode::Read) || !Refill(channel) || channel->end == 0) return -1;
  return channel->buffer[channel->begin++];
}

QW_API int ChannelWriteBuf(QWChannel *channel, const void *buffer, size_t size) {
  if (!Usable(channel, QWChannel::Mode::Write)) return 0;
  const auto *bytes = static_cast<const unsigned char *>(buffer);
  const size_t room = channel->buffer.size() - channel->end;
  if (size <= room) {
    if (size) std::memcpy(channel->buffer.data() + channel->end, bytes, size);
    channel->end += size;
    return 1;
  }
  if (!FlushWrites(channel)) return 0;
  // Too large to be worth buffering: one direct write.
  if (size >= channel->buffer.size()) {
    if (!QWFileWriteData(channel->file, channel->start, bytes, size)) return 0;
    channel->start += size;
    return 1;
  }
  std::memcpy(channel->buffer.data(), bytes, size);
  channel->end = size;
  return 1;
}

QW_API int ChannelFlush(QWChannel *channel) {
  if (channel && channel->mode == QWChannel::Mode::Read) return 1;
  if (!Usable(channel, QWChannel::Mode::Write)) return 0;
  return FlushWrites(channel) ? 1 : 0;
}

QW_API int ChannelSync(QWChannel *channel) {
  if (!ChannelFlush(channel)) return 0;
  return QWFileSync(channel->file);
}

QW_API uint64_t ChannelTell(QWChannel *channel) {
  if (!channel || channel->mode == QWChannel::Mode::Closed) return 0;
  return channel->start + (channel->mode == QWChannel::Mode::Read ? channel->begin : channel->end);
}

QW_API const char *ChannelPath(QWChannel *channel) {
  if (!channel || channel->mode == QWChannel::Mode::Closed) return "";
  return channel->file->path.c_str();
}

QW_API int ChannelClose(QWChannel *channel) {
  if (!channel) return 1;
  std::unique_ptr<QWChannel> owned(channel);
  if (owned->mode == QWChannel::Mode::Closed) return 1;
  const std::string path = owned->file->path;
  const bool flushed = owned->mode != QWChannel::Mode::Write || FlushWrites(owned.get());
  if (!flushed) QWErrorSave();  // the flush failure is the one to report
  const bool closed = QWFileClose(owned->file) != 0;
  if (!flushed) QWErrorRestore();
  if (!flushed || !closed) return QWErrorRethrow("could not close channel on \"%s\"", path.c_str());
  return 1;
}

}  // extern "C"
