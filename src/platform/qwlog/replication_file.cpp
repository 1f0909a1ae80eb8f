// The file-backed replication log and its reader (format in qwlog.h).
//
// Invariant of an open log: the file holds the header and whole, valid
// records only, except for a record being written right now; open cuts a
// torn tail left by a crash before it appends, so that new records never
// follow garbage that a reader would stop at.
#include <cerrno>
#include <cstring>
#include <memory>
#include <new>
#include <string>
#include <string_view>
#include <vector>

#include "platform/qwlog/replication_sync.h"
#include "platform/qwutil/bytes.h"
#include "qwvm/qwfile.h"
#include "qwvm/qwlib.h"
#include "qwvm/qwlog.h"

namespace {

constexpr char kMagic[8] = {'Q', 'W', 'R', 'E', 'P', 'L', 'O', 'G'};
constexpr uint32_t kVersion = 1;
constexpr size_t kHeaderBytes = 16;
constexpr size_t kFrameBytes = 8;  // crc + length
constexpr size_t kFixedBodyBytes = 20;
constexpr size_t kMaxBodyBytes = kFixedBodyBytes + REPLICATION_LOG_MAX_PATH + 8 * size_t(REPLICATION_LOG_MAX_LIST);

using ChannelPtr = std::unique_ptr<QWChannel, decltype(&ChannelClose)>;

ChannelPtr OpenChannel(const std::string &path, const char *mode) {
  ChannelPtr channel(ChannelNew(0), &ChannelClose);
  if (channel && !ChannelOpenFile(channel.get(), path.c_str(), mode)) channel.reset();
  return channel;
}

// Closes a channel whose work failed, keeping the first error.
void Abandon(ChannelPtr &channel) {
  QWErrorSave();
  channel.reset();
  QWErrorRestore();
}

int Malformed(const std::string &path, const char *what, uint64_t offset) {
  return QWErrorThrow(qw::kMalformedCode, QW_ERROR_CLASS_DATA, "replication log \"%s\": %s at offset %llu",
                      path.c_str(), what, static_cast<unsigned long long>(offset));
}

// One decoded record; path and ids point into the reader's buffer.
struct Record {
  uint32_t type, a, b, count;
  std::string_view path;
  const unsigned char *ids;
};

// Sequential reader over a log file. Next() answers 1 with a record, 0 at
// the clean end of the file, -1 on a torn record (error set, offset of the
// record's start in tornOffset) or an I/O error.
class LogReader {
 public:
  explicit LogReader(std::string path) : path_(std::move(path)), channel_(nullptr, &ChannelClose) {}

  [[nodiscard]] int Open(uint32_t *blockSize) {
    channel_ = OpenChannel(path_, "r");
    if (!channel_) return QWErrorRethrow("could not open replication log \"%s\"", path_.c_str());
    unsigned char header[kHeaderBytes];
    size_t got = 0;
    if (!qw::ChannelReadUpTo(channel_.get(), header, sizeof header, &got))
      return QWErrorRethrow("could not read replication log \"%s\"", path_.c_str());
    if (got < sizeof header || std::memcmp(header, kMagic, sizeof kMagic) != 0 || qw::LoadLE32(header + 8) != kVersion)
      return Malformed(path_, "not a replication log header", 0);
    *blockSize = qw::LoadLE32(header + 12);
    offset_ = kHeaderBytes;
    return 1;
  }

  int Next(Record *record) {
    unsigned char frame[kFrameBytes];
    size_t got = 0;
    if (!qw::ChannelReadUpTo(channel_.get(), frame, sizeof frame, &got)) return IoFailure();
    if (got == 0) return 0;
    if (got < sizeof frame) return Torn("torn record");
    const uint32_t crc = qw::LoadLE32(frame);
    const uint32_t length = qw::LoadLE32(frame + 4);
    if (length < kFixedBodyBytes || length > kMaxBodyBytes) return Torn("torn record (bad length)");
    body_.resize(length);
    if (!qw::ChannelReadUpTo(channel_.get(), body_.data(), length, &got)) return IoFailure();
    if (got < length) return Torn("torn record");
    if (crc != qw::Crc32c(qw::Crc32c(0, frame + 4, 4), body_.data(), length)) return Torn("torn record (checksum)");
    if (!Decode(record)) return Torn("torn record (layout)");
    offset_ += kFrameBytes + length;
    return 1;
  }

  uint64_t offset() const { return offset_; }

 private:
  bool Decode(Record *record) const {
    const unsigned char *p = body_.data();
    record->type = qw::LoadLE32(p);
    record->a = qw::LoadLE32(p + 4);
    record->b = qw::LoadLE32(p + 8);
    const uint32_t pathLength = qw::LoadLE32(p + 12);
    record->count = qw::LoadLE32(p + 16);
    if (pathLength > REPLICATION_LOG_MAX_PATH || record->count > REPLICATION_LOG_MAX_LIST) return false;
    if (body_.size() != kFixedBodyBytes + pathLength + 8 * size_t(record->count)) return false;
    record->path = std::string_view(reinterpret_cast<const char *>(p + kFixedBodyBytes), pathLength);
    if (record->path.find('\0') != std::string_view::npos) return false;
    record->ids = p + kFixedBodyBytes + pathLength;
    return true;
  }

  int IoFailure() {
    QWErrorRethrow("could not read replication log \"%s\"", path_.c_str());
    return -1;
  }

  int Torn(const char *what) {
    Malformed(path_, what, offset_);
    return -1;
  }

  std::string path_;
  ChannelPtr channel_;
  uint64_t offset_ = 0;
  std::vector<unsigned char> body_;
};

// ---- the file-backed implementation ----

struct FileLog {
  ChannelPtr channel{nullptr, &ChannelClose};
  uint32_t blockSize = 0;
  bool broken = false;                // a write failed part-way: the file may end in a torn record
  std::vector<unsigned char> buffer;  // one encoded record, reused
};

int FileLogWrite(void *self, uint32_t type, uint32_t a, uint32_t b, const char *path, const uint64_t *list,
                 uint32_t count) {
  auto *log = static_cast<FileLog *>(self);
  // Appending after a partial record would hide every later record from
  // readers; reopening the log cuts the torn tail and clears this.
  if (log->broken)
    return QWErrorThrow(EIO, QW_ERROR_CLASS_SYSTEM, "replication log \"%s\" is in error after a failed write",
                        ChannelPath(log->channel.get()));
  const size_t pathLength = std::strlen(path);
  const size_t length = kFixedBodyBytes + pathLength + 8 * size_t(count);
  try {
    log->buffer.resize(kFrameBytes + length);
  } catch (const std::bad_alloc &) {
    return QWErrorThrow(ENOMEM, QW_ERROR_CLASS_SYSTEM, "replication log: out of memory");
  }
  unsigned char *p = log->buffer.data();
  qw::StoreLE32(p + 4, uint32_t(length));
  unsigned char *body = p + kFrameBytes;
  qw::StoreLE32(body, type);
  qw::StoreLE32(body + 4, a);
  qw::StoreLE32(body + 8, b);
  qw::StoreLE32(body + 12, uint32_t(pathLength));
  qw::StoreLE32(body + 16, count);
  std::memcpy(body + kFixedBodyBytes, path, pathLength);
  for (uint32_t i = 0; i < count; ++i) qw::StoreLE64(body + kFixedBodyBytes + pathLength + 8 * size_t(i), list[i]);
  qw::StoreLE32(p, qw::Crc32c(0, p + 4, 4 + length));
  const char *file = ChannelPath(log->channel.get());
  if (!ChannelWriteBuf(log->channel.get(), p, kFrameBytes + length) || !ChannelFlush(log->channel.get())) {
    log->broken = true;
    return QWErrorRethrow("could not append to replication log \"%s\"", file);
  }
  return 1;
}

uint32_t FileLogGetBlockSize(void *self) { return static_cast<FileLog *>(self)->blockSize; }

int FileLogClose(void *self) {
  std::unique_ptr<FileLog> log(static_cast<FileLog *>(self));
  QWChannel *channel = log->channel.release();
  return ChannelClose(channel);
}

// Records are handed to the system as they are written; this makes them
// durable (ReplicationLogSync).
int FileLogSync(void *self) {
  auto *log = static_cast<FileLog *>(self);
  if (ChannelSync(log->channel.get())) return 1;
  return QWErrorRethrow("could not sync replication log \"%s\"", ChannelPath(log->channel.get()));
}

constexpr ReplicationLogOps kFileLogOps = {FileLogWrite, FileLogGetBlockSize, FileLogClose};

// Checks an existing log and cuts a torn tail; returns 1, or 0 with an error.
[[nodiscard]] int PrepareExisting(const std::string &path, uint32_t blockSize) {
  LogReader reader(path);
  uint32_t storedBlockSize = 0;
  if (!reader.Open(&storedBlockSize)) return 0;
  if (storedBlockSize != blockSize)
    return QWErrorThrow(qw::kMalformedCode, QW_ERROR_CLASS_DATA,
                        "replication log \"%s\" has block size %u, not %u", path.c_str(), storedBlockSize, blockSize);
  Record record;
  int step;
  while ((step = reader.Next(&record)) == 1) {
  }
  if (step == 0) return 1;
  if (QWErrorClass() != QW_ERROR_CLASS_DATA) return 0;  // an I/O error, not a torn tail
  uint64_t size = 0;
  if (!FileSize(path.c_str(), &size)) return 0;
  QWErrorClear();
  QWMessage(QW_LEVEL_WARNING, "replication log \"%s\": dropped a torn tail of %llu bytes at offset %llu", path.c_str(),
            static_cast<unsigned long long>(size - reader.offset()), static_cast<unsigned long long>(reader.offset()));
  return FileTruncate(path.c_str(), reader.offset());
}

[[nodiscard]] int WriteHeader(const std::string &path, uint32_t blockSize) {
  ChannelPtr channel = OpenChannel(path, "w");
  if (!channel) return 0;
  unsigned char header[kHeaderBytes];
  std::memcpy(header, kMagic, sizeof kMagic);
  qw::StoreLE32(header + 8, kVersion);
  qw::StoreLE32(header + 12, blockSize);
  if (!ChannelWriteBuf(channel.get(), header, sizeof header) || !ChannelSync(channel.get())) {
    Abandon(channel);
    return 0;
  }
  return ChannelClose(channel.release());
}

ReplicationLog *OpenFileLog(const std::string &path, uint32_t blockSize) {
  uint64_t size = 0;
  const bool exists = FileExists(path.c_str()) && FileSize(path.c_str(), &size);
  // A file shorter than its header is a creation cut short: start afresh.
  const int prepared = exists && size >= kHeaderBytes ? PrepareExisting(path, blockSize) : WriteHeader(path, blockSize);
  if (!prepared) return nullptr;
  auto log = std::make_unique<FileLog>();
  log->blockSize = blockSize;
  log->channel = OpenChannel(path, "a");
  if (!log->channel) return nullptr;
  ReplicationLog *handle = ReplicationLogNew(&kFileLogOps, log.get());
  if (handle == nullptr) return nullptr;
  qw::ReplicationLogSetSync(handle, FileLogSync);
  log.release();
  return handle;
}

int ReadFileLog(const std::string &path, uint32_t *blockSize, ReplicationLogVisitor visit, void *context) {
  LogReader reader(path);
  uint32_t storedBlockSize = 0;
  if (!reader.Open(&storedBlockSize)) return 0;
  if (blockSize != nullptr) *blockSize = storedBlockSize;
  std::vector<uint64_t> ids;
  std::string recordPath;
  Record record;
  int step;
  while ((step = reader.Next(&record)) == 1) {
    ids.resize(record.count);
    for (uint32_t i = 0; i < record.count; ++i) ids[i] = qw::LoadLE64(record.ids + 8 * size_t(i));
    recordPath.assign(record.path);
    if (!visit(context, record.type, record.a, record.b, recordPath.c_str(), record.count ? ids.data() : nullptr,
               record.count))
      return 0;
  }
  return step == 0 ? 1 : 0;
}

}  // namespace

ReplicationLog *ReplicationLogFileOpen(const char *path, uint32_t blockSize) {
  if (blockSize == 0) {
    QWErrorThrow(EINVAL, QW_ERROR_CLASS_GENERAL, "ReplicationLogFileOpen: block size 0");
    return nullptr;
  }
  try {
    ReplicationLog *log = OpenFileLog(path, blockSize);
    if (log == nullptr) QWErrorRethrow("ReplicationLogFileOpen: could not open \"%s\"", path);
    return log;
  } catch (const std::bad_alloc &) {
    QWErrorThrow(ENOMEM, QW_ERROR_CLASS_SYSTEM, "ReplicationLogFileOpen: out of memory");
    return nullptr;
  }
}

int ReplicationLogFileRead(const char *path, ReplicationLogVisitor visit, void *context) {
  return ReplicationLogFileRead_(path, nullptr, visit, context);
}

int ReplicationLogFileRead_(const char *path, uint32_t *blockSize, ReplicationLogVisitor visit, void *context) {
  try {
    return ReadFileLog(path, blockSize, visit, context);
  } catch (const std::bad_alloc &) {
    return QWErrorThrow(ENOMEM, QW_ERROR_CLASS_SYSTEM, "ReplicationLogFileRead: out of memory");
  }
}
