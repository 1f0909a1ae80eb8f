// Read contexts: records by serial, forwards and backwards.
#include <algorithm>
#include <cerrno>
#include <cstring>
#include <new>

#include "platform/qwlog/log_internal.h"
#include "qwvm/qwlib.h"

struct LogReadContext {
  QWLog *log = nullptr;
  qw::log::FileWindow window;
  void (*observe)(void *, uint64_t) = nullptr;
  void *observeContext = nullptr;
};

namespace qw::log {
namespace {

// The extent of the log as a reader sees it now.
struct View {
  uint32_t first, last;
  uint64_t end;  // offset after the last record of the last file
};

// Takes the view; a read in the newest file of a writable log first hands
// the buffered records to the file system so that the reader sees them.
[[nodiscard]] int TakeView(QWLog *log, uint32_t file, View *view) {
  std::unique_lock<std::mutex> lock(log->mutex);
  if (!log->readOnly && file == log->lastFile && (log->writtenEnd < log->fileEnd || log->flushing) &&
      !PushLocked(log, lock))
    return 0;
  *view = {log->firstFile, log->lastFile, log->fileEnd};
  return 1;
}

int NoRecord(const QWLog *log, uint64_t serial, const char *where) {
  return QWErrorThrow(ENOENT, QW_ERROR_CLASS_GENERAL, "no log record %s serial %llu (file %u, offset %u) in \"%s\"",
                      where, static_cast<unsigned long long>(serial), LOG_SERIAL_FILE(serial),
                      LOG_SERIAL_OFFSET(serial), log->dir.c_str());
}

// Reads and checks the record at `serial`; its payload stays valid until
// the context reads again.
[[nodiscard]] int ReadAt(LogReadContext *context, uint64_t serial, RecordHeader *header,
                         const unsigned char **payload) {
  QWLog *log = context->log;
  const uint32_t file = LOG_SERIAL_FILE(serial), offset = LOG_SERIAL_OFFSET(serial);
  View view;
  if (!TakeView(log, file, &view)) return 0;
  if (file < view.first || file > view.last || (file == view.last && offset >= view.end))
    return NoRecord(log, serial, "at");
  FileWindow &window = context->window;
  if (window.number() != file && !window.Open(log->dir, file))
    return QWErrorRethrow("could not read log file \"%s\"", FileName(log->dir, file).c_str());
  if (file == view.last && window.size() < view.end && !window.Refresh()) return 0;
  const char *reason = nullptr;
  switch (ProbeRecord(window, offset, header, payload, &reason)) {
    case Probe::kRecord: return 1;
    case Probe::kEnd: return NoRecord(log, serial, "at");
    case Probe::kBad: return BadRecord(window.path(), serial, reason);
    case Probe::kIoError: break;
  }
  return QWErrorRethrow("could not read log file \"%s\"", window.path().c_str());
}

uint64_t NextSerial(uint64_t serial, const RecordHeader &header) {
  if (header.type == LOG_FILE_TRAILER) return Serial(LOG_SERIAL_FILE(serial) + 1, 0);
  return serial + kHeaderBytes + header.size;
}

int FirstSerial(LogReadContext *context, uint64_t from, uint64_t *first) {
  View view;
  if (!TakeView(context->log, LOG_SERIAL_FILE(from), &view)) return 0;
  if (from > Serial(view.last, view.end) || (from == Serial(view.last, view.end)))
    return NoRecord(context->log, from, "at or after");
  RecordHeader header;
  const unsigned char *payload = nullptr;
  // Most callers name a record: try it before walking its file.
  uint64_t serial = std::max(from, Serial(view.first, 0));
  if (ReadAt(context, serial, &header, &payload)) return *first = serial, 1;
  if (QWErrorCode() != ENOENT && QWErrorClass() != QW_ERROR_CLASS_DATA) return 0;
  QWErrorClear();
  for (serial = Serial(LOG_SERIAL_FILE(serial), 0); serial < from; serial = NextSerial(serial, header))
    if (!ReadAt(context, serial, &header, &payload)) return 0;
  if (!ReadAt(context, serial, &header, &payload)) return 0;
  *first = serial;
  return 1;
}

}  // namespace

void SetReadObserver(LogReadContext *context, void (*observe)(void *, uint64_t), void *observeContext) {
  context->observe = observe;
  context->observeContext = observeContext;
}

}  // namespace qw::log

using namespace qw::log;

LogReadContext *LogReadContextNew(QWLog *log) {
  auto *context = new (std::nothrow) LogReadContext;
  if (context == nullptr) {
    QWErrorThrow(ENOMEM, QW_ERROR_CLASS_SYSTEM, "LogReadContextNew: out of memory");
    return nullptr;
  }
  context->log = log;
  return context;
}

int LogReadContextDelete(LogReadContext *context) {
  if (context == nullptr) return 1;
  const int closed = context->window.Close();
  delete context;
  return closed;
}

int LogFirstSerial(LogReadContext *context, uint64_t from, uint64_t *first) {
  try {
    return FirstSerial(context, from, first);
  } catch (const std::bad_alloc &) {
    return QWErrorThrow(ENOMEM, QW_ERROR_CLASS_SYSTEM, "LogFirstSerial: out of memory");
  }
}

int LogRead(LogReadContext *context, uint64_t serial, uint32_t *type, void *buffer, uint32_t *size, uint64_t *next,
            uint64_t *previous) {
  RecordHeader header;
  const unsigned char *payload = nullptr;
  try {
    if (!ReadAt(context, serial, &header, &payload)) return 0;
  } catch (const std::bad_alloc &) {
    return QWErrorThrow(ENOMEM, QW_ERROR_CLASS_SYSTEM, "LogRead: out of memory");
  }
  if (context->observe) context->observe(context->observeContext, serial);
  if (type) *type = header.type;
  if (buffer && size) std::memcpy(buffer, payload, std::min(*size, header.size));
  if (size) *size = header.size;
  if (next) *next = NextSerial(serial, header);
  if (previous) *previous = header.previous;
  return 1;
}
