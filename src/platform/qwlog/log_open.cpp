// Opening a log: find its files, check the older ones' headers and
// trailers, scan the newest to its end and cut a torn tail (writable open).
#include <algorithm>
#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <new>
#include <vector>

#include "platform/qwlog/log_internal.h"
#include "platform/qwutil/bytes.h"
#include "qwvm/qwlib.h"

namespace qw::log {
namespace {

int ListFile(void *context, const char *name) {
  // NNNNNNNN.qwlog, eight decimal digits.
  if (std::strlen(name) != 14 || std::strcmp(name + 8, ".qwlog") != 0) return 0;
  uint32_t number = 0;
  for (int i = 0; i < 8; ++i) {
    if (name[i] < '0' || name[i] > '9') return 0;
    number = number * 10 + uint32_t(name[i] - '0');
  }
  static_cast<std::vector<uint32_t> *>(context)->push_back(number);
  return 0;
}

// The numbers of the log's files, ascending and without gaps.
[[nodiscard]] int ListFiles(const std::string &dir, std::vector<uint32_t> *numbers) {
  if (!DirectoryList(dir.c_str(), ListFile, numbers)) return QWErrorRethrow("could not list log \"%s\"", dir.c_str());
  std::sort(numbers->begin(), numbers->end());
  for (size_t i = 1; i < numbers->size(); ++i)
    if ((*numbers)[i] != (*numbers)[i - 1] + 1)
      return QWErrorThrow(kMalformedCode, QW_ERROR_CLASS_DATA, "log \"%s\": file \"%s\" is missing (files %u to %u)",
                          dir.c_str(), FileName(dir, (*numbers)[i - 1] + 1).c_str(), numbers->front(),
                          numbers->back());
  if (!numbers->empty() && numbers->front() == 0)
    return QWErrorThrow(kMalformedCode, QW_ERROR_CLASS_DATA, "log \"%s\": file number 0", dir.c_str());
  return 1;
}

// Whether a valid record after `damage` says that `damage` was durable.
bool DurableAfter(FileWindow &window, uint64_t damage) {
  for (uint64_t offset = damage + 1; offset + kHeaderBytes <= window.size(); ++offset) {
    const unsigned char *bytes = nullptr;
    if (window.Get(offset, kHeaderBytes, &bytes) != 1) return false;
    const RecordHeader header = DecodeHeader(bytes);
    if (header.type == 0 || header.synced <= damage || header.synced > offset) continue;
    RecordHeader again;
    const unsigned char *payload = nullptr;
    const char *reason = nullptr;
    if (ProbeRecord(window, offset, &again, &payload, &reason) == Probe::kRecord) return true;
  }
  return false;
}

// What the scan of the newest file found.
struct Tail {
  uint64_t lastSerial = LOG_NO_SERIAL;
  uint64_t end = 0;   // offset after the last valid record
  bool torn = false;  // bytes after `end` to cut
  bool trailer = false;
};

// Scans the newest file from its header. `previous` is the serial its header
// must name (the trailer of the file before; unchecked when that file is
// gone, LOG_NO_SERIAL for the first file of a log).
[[nodiscard]] int ScanNewest(FileWindow &window, uint64_t previous, bool previousKnown, Tail *tail) {
  uint64_t offset = 0;
  for (;;) {
    RecordHeader header;
    const unsigned char *payload = nullptr;
    const char *reason = nullptr;
    const Probe probe = ProbeRecord(window, offset, &header, &payload, &reason);
    if (probe == Probe::kIoError) return QWErrorRethrow("could not read log file \"%s\"", window.path().c_str());
    if (probe == Probe::kEnd) break;
    if (probe == Probe::kRecord && (offset > 0 || previousKnown) && header.previous != previous) {
      reason = "it does not follow the record before";
    } else if (probe == Probe::kRecord && !tail->trailer) {
      previous = tail->lastSerial = Serial(window.number(), offset);
      offset += kHeaderBytes + header.size;
      tail->end = offset;
      tail->trailer = header.type == LOG_FILE_TRAILER;
      continue;
    } else if (tail->trailer) {
      reason = "bytes after the file trailer";
    }
    if (DurableAfter(window, offset)) return BadRecord(window.path(), Serial(window.number(), offset), reason);
    tail->torn = true;
    break;
  }
  return 1;
}

// Checks the header and the trailer of a file that is not the newest; its
// trailer's serial goes to *trailer.
[[nodiscard]] int CheckOlder(FileWindow &window, uint64_t previous, bool previousKnown, uint64_t *trailer) {
  RecordHeader header;
  const unsigned char *payload = nullptr;
  const char *reason = nullptr;
  Probe probe = ProbeRecord(window, 0, &header, &payload, &reason);
  if (probe == Probe::kRecord && previousKnown && header.previous != previous)
    probe = Probe::kBad, reason = "it does not follow the record before";
  if (probe == Probe::kIoError) return QWErrorRethrow("could not read log file \"%s\"", window.path().c_str());
  if (probe != Probe::kRecord) return BadRecord(window.path(), Serial(window.number(), 0), reason ? reason : "empty");
  const uint64_t at = window.size() >= kFileHeaderBytes + kTrailerBytes ? window.size() - kTrailerBytes : 0;
  probe = ProbeRecord(window, at, &header, &payload, &reason);
  if (probe == Probe::kIoError) return QWErrorRethrow("could not read log file \"%s\"", window.path().c_str());
  if (probe != Probe::kRecord || header.type != LOG_FILE_TRAILER || header.size != 0)
    return BadRecord(window.path(), Serial(window.number(), at), "the file does not end with a trailer");
  *trailer = Serial(window.number(), at);
  return 1;
}

[[nodiscard]] int OpenLog(QWLog *log) {
  if (!FileExists(log->dir.c_str()))
    return QWErrorThrow(ENOENT, QW_ERROR_CLASS_SYSTEM, "log directory \"%s\" does not exist", log->dir.c_str());
  std::vector<uint32_t> numbers;
  if (!ListFiles(log->dir, &numbers)) return 0;
  if (numbers.empty()) {
    if (log->readOnly)
      return QWErrorThrow(ENOENT, QW_ERROR_CLASS_SYSTEM, "no log files in \"%s\"", log->dir.c_str());
    log->firstFile = 1;
    return StartFile(log, 1, LOG_NO_SERIAL);
  }
  log->firstFile = numbers.front();
  FileWindow window;
  uint64_t previous = LOG_NO_SERIAL;
  for (size_t i = 0; i + 1 < numbers.size(); ++i)
    if (!window.Open(log->dir, numbers[i]) || !CheckOlder(window, previous, i > 0 || numbers[i] == 1, &previous))
      return 0;
  const uint32_t newest = numbers.back();
  const bool previousKnown = numbers.size() > 1 || newest == 1;
  Tail tail;
  if (!window.Open(log->dir, newest) || !ScanNewest(window, previous, previousKnown, &tail)) return 0;
  const uint64_t size = window.size();
  if (!window.Close()) return 0;
  if (tail.lastSerial == LOG_NO_SERIAL) {
    // The newest file's header never became durable: a creation cut short.
    if (log->readOnly && numbers.size() == 1)
      return QWErrorThrow(ENOENT, QW_ERROR_CLASS_SYSTEM, "no log records in \"%s\"", log->dir.c_str());
    if (log->readOnly) {
      log->lastFile = newest - 1;
      log->lastSerial = previous;
      log->fileEnd = log->writtenEnd = LOG_SERIAL_OFFSET(previous) + kTrailerBytes;
      return 1;
    }
    return StartFile(log, newest, previousKnown ? previous : LOG_NO_SERIAL);
  }
  log->lastFile = newest;
  log->lastSerial = tail.lastSerial;
  log->fileEnd = log->writtenEnd = tail.end;
  if (log->readOnly) return 1;
  const std::string path = FileName(log->dir, newest);
  if (tail.torn)
    QWMessage(QW_LEVEL_WARNING, "log \"%s\": cut a torn tail of %llu bytes at offset %llu of \"%s\"",
              log->dir.c_str(), static_cast<unsigned long long>(size - tail.end),
              static_cast<unsigned long long>(tail.end), path.c_str());
  // Whatever the log shows from now on is durable, so that no serial handed
  // out can name a record a power loss would take back.
  if (!QWFileOpen(&log->current, path.c_str(), QWFILE_READ | QWFILE_WRITE) ||
      (tail.torn && !QWFileSetSize(log->current, tail.end)) || !QWFileSync(log->current) ||
      !DirectorySync(log->dir.c_str()))
    return QWErrorRethrow("could not prepare log file \"%s\" for writing", path.c_str());
  log->durableEnd = log->EndPosition();
  if (!tail.trailer) return 1;
  // A rollover stopped after the trailer: the next file is still to come.
  if (!QWFileClose(log->current)) return log->current = QWFILE_INVALID, 0;
  log->current = QWFILE_INVALID;
  return StartFile(log, newest + 1, tail.lastSerial);
}

}  // namespace

// Creates (or rewrites) file `number` holding just its header, synced and
// named durably. The handle stays open for writing.
int StartFile(QWLog *log, uint32_t number, uint64_t previous) {
  const std::string path = FileName(log->dir, number);
  QWFILE file = QWFILE_INVALID;
  unsigned char record[kFileHeaderBytes];
  EncodeFileHeaderPayload(record + kHeaderBytes, number);
  EncodeHeader(record, Serial(number, 0), LOG_FILE_HEADER, previous, 0, record + kHeaderBytes, kFileHeaderPayload);
  if (!QWFileOpen(&file, path.c_str(), QWFILE_READ | QWFILE_WRITE | QWFILE_CREATE | QWFILE_TRUNCATE) ||
      !QWFileWriteData(file, 0, record, sizeof record) || !QWFileSync(file) || !DirectorySync(log->dir.c_str())) {
    QWErrorSave();
    QWFileClose(file);
    QWErrorRestore();
    return QWErrorRethrow("could not start log file \"%s\"", path.c_str());
  }
  log->current = file;
  log->lastFile = number;
  log->fileEnd = log->writtenEnd = kFileHeaderBytes;
  log->lastSerial = Serial(number, 0);
  log->durableEnd = log->EndPosition();
  return 1;
}

}  // namespace qw::log

using namespace qw::log;

QWLog *LogOpen(const char *path, int readOnly) { return LogOpen_(path, readOnly, 0); }

QWLog *LogOpen_(const char *path, int readOnly, uint64_t fileSizeLimit) {
  if (fileSizeLimit == 0) fileSizeLimit = LOG_DEFAULT_FILE_SIZE;
  if (fileSizeLimit < LOG_MIN_FILE_SIZE || fileSizeLimit > LOG_MAX_FILE_SIZE) {
    QWErrorThrow(EINVAL, QW_ERROR_CLASS_GENERAL, "LogOpen: file size limit %llu out of range",
                 static_cast<unsigned long long>(fileSizeLimit));
    return nullptr;
  }
  try {
    auto log = std::make_unique<QWLog>();
    log->dir = path;
    log->readOnly = readOnly != 0;
    log->sizeLimit = fileSizeLimit;
    if (OpenLog(log.get())) {
      if (log->readOnly) log->durableEnd = log->EndPosition();  // nothing to flush
      return log.release();
    }
    QWErrorSave();
    QWFileClose(log->current);
    QWErrorRestore();
    QWErrorRethrow("could not open log in \"%s\"", path);
  } catch (const std::bad_alloc &) {
    QWErrorThrow(ENOMEM, QW_ERROR_CLASS_SYSTEM, "LogOpen: out of memory");
  }
  return nullptr;
}

int LogClose(QWLog *log) {
  if (log == nullptr) return 1;
  std::unique_ptr<QWLog> owned(log);
  int ok = log->readOnly || log->broken ? 1 : LogFlush(log);
  if (log->current != QWFILE_INVALID) {
    if (!ok) QWErrorSave();
    const int closed = QWFileClose(log->current);
    if (!ok) QWErrorRestore();
    ok = ok && closed;
  }
  return ok;
}

int LogFiles(QWLog *log, uint32_t *firstFile, uint32_t *lastFile, uint64_t *bytes) {
  uint32_t first, last;
  {
    std::lock_guard<std::mutex> guard(log->mutex);
    first = log->firstFile;
    last = log->lastFile;
  }
  if (firstFile) *firstFile = first;
  if (lastFile) *lastFile = last;
  uint64_t total = 0;
  for (uint32_t number = first; bytes && number <= last; ++number) {
    uint64_t size = 0;
    if (!FileSize(FileName(log->dir, number).c_str(), &size)) return 0;
    total += size;
  }
  if (bytes) *bytes = total;
  return 1;
}
