// Record encoding and checking, and the windowed reader of log files.
#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstring>

#include "platform/qwlog/log_internal.h"
#include "platform/qwutil/bytes.h"
#include "qwvm/qwlib.h"

namespace qw::log {
namespace {

constexpr size_t kWindowBytes = 256 << 10;

uint32_t Checksum(const unsigned char *header, uint64_t serial, const void *payload, uint32_t size) {
  unsigned char serialBytes[8];
  StoreLE64(serialBytes, serial);
  uint32_t crc = Crc32c(0, serialBytes, sizeof serialBytes);
  crc = Crc32c(crc, header + 4, kHeaderBytes - 4);
  return size ? Crc32c(crc, payload, size) : crc;
}

}  // namespace

void EncodeHeader(unsigned char *out, uint64_t serial, uint32_t type, uint64_t previous, uint32_t synced,
                  const void *payload, uint32_t size) {
  StoreLE32(out + 4, size);
  StoreLE32(out + 8, type);
  StoreLE64(out + 12, previous);
  StoreLE32(out + 20, synced);
  StoreLE32(out, Checksum(out, serial, payload, size));
}

RecordHeader DecodeHeader(const unsigned char *in) {
  RecordHeader header;
  header.crc = LoadLE32(in);
  header.size = LoadLE32(in + 4);
  header.type = LoadLE32(in + 8);
  header.previous = LoadLE64(in + 12);
  header.synced = LoadLE32(in + 20);
  return header;
}

void EncodeFileHeaderPayload(unsigned char *out, uint32_t number) {
  std::memcpy(out, kMagic, sizeof kMagic);
  StoreLE32(out + 8, kVersion);
  StoreLE32(out + 12, number);
}

std::string FileName(const std::string &dir, uint32_t number) {
  char name[32];
  std::snprintf(name, sizeof name, "/%08u.qwlog", number);
  return dir + name;
}

int BadRecord(const std::string &path, uint64_t serial, const char *reason) {
  return QWErrorThrow(kMalformedCode, QW_ERROR_CLASS_DATA,
                      "log file \"%s\": no valid record at serial %llu (file %u, offset %u): %s", path.c_str(),
                      static_cast<unsigned long long>(serial), LOG_SERIAL_FILE(serial), LOG_SERIAL_OFFSET(serial),
                      reason);
}

FileWindow::~FileWindow() {
  QWErrorSave();
  Close();
  QWErrorRestore();
}

int FileWindow::Open(const std::string &dir, uint32_t number) {
  if (!Close()) return 0;
  path_ = FileName(dir, number);
  if (!QWFileOpen(&file_, path_.c_str(), QWFILE_READ)) return 0;
  number_ = number;
  windowLength_ = 0;
  return Refresh();
}

int FileWindow::Close() {
  if (file_ == QWFILE_INVALID) return 1;
  QWFILE file = file_;
  file_ = QWFILE_INVALID;
  number_ = 0;
  windowLength_ = 0;
  return QWFileClose(file);
}

int FileWindow::Refresh() { return QWFileGetSize(file_, &size_); }

int FileWindow::Get(uint64_t offset, size_t n, const unsigned char **out) {
  if (offset >= windowStart_ && offset + n <= windowStart_ + windowLength_) {
    *out = window_.data() + (offset - windowStart_);
    return 1;
  }
  if (offset + n > size_) return -1;
  const size_t capacity = std::max(kWindowBytes, n);
  if (window_.size() < capacity) window_.resize(capacity);
  // Walking backwards, keep what lies before the offset in the window.
  uint64_t start = offset;
  if (offset < windowStart_ && offset + n > capacity) start = offset + n - capacity;
  else if (offset < windowStart_) start = 0;
  const size_t length = static_cast<size_t>(std::min<uint64_t>(capacity, size_ - start));
  size_t got = 0;
  windowLength_ = 0;
  if (!QWFileReadData(file_, start, window_.data(), length, &got)) return 0;
  windowStart_ = start;
  windowLength_ = got;
  if (offset + n > start + got) return -1;  // the file shrank under us
  *out = window_.data() + (offset - start);
  return 1;
}

Probe ProbeRecord(FileWindow &window, uint64_t offset, RecordHeader *header, const unsigned char **payload,
                  const char **reason) {
  if (offset == window.size()) return Probe::kEnd;
  const unsigned char *bytes = nullptr;
  int got = window.Get(offset, kHeaderBytes, &bytes);
  if (got == 0) return Probe::kIoError;
  if (got < 0) return *reason = "record header cut short", Probe::kBad;
  *header = DecodeHeader(bytes);
  if (header->type == 0) return *reason = "record type 0", Probe::kBad;
  if (header->size > LOG_MAX_RECORD_SIZE || header->size > window.size() - offset - kHeaderBytes)
    return *reason = "record cut short", Probe::kBad;
  got = window.Get(offset, kHeaderBytes + size_t(header->size), &bytes);
  if (got == 0) return Probe::kIoError;
  if (got < 0) return *reason = "record cut short", Probe::kBad;
  if (Checksum(bytes, Serial(window.number(), offset), bytes + kHeaderBytes, header->size) != header->crc)
    return *reason = "checksum mismatch", Probe::kBad;
  if (header->type == LOG_FILE_HEADER) {
    const unsigned char *p = bytes + kHeaderBytes;
    if (offset != 0 || header->size != kFileHeaderPayload || std::memcmp(p, kMagic, sizeof kMagic) != 0 ||
        LoadLE32(p + 8) != kVersion || LoadLE32(p + 12) != window.number())
      return *reason = "bad file header", Probe::kBad;
  } else if (offset == 0) {
    return *reason = "file does not start with a header", Probe::kBad;
  }
  *payload = bytes + kHeaderBytes;
  return Probe::kRecord;
}

}  // namespace qw::log
