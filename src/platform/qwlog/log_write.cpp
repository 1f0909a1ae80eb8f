// Appending, group-committed flushing, rollover and truncation.
//
// A flush takes the buffered bytes, writes and syncs them outside the mutex
// and marks them durable; flushes that arrive meanwhile wait, and the first
// of them to wake takes everything buffered since, so that N concurrent
// flushers cost about two syncs, not N.
#include <algorithm>
#include <cerrno>
#include <new>

#include "platform/qwlog/log_internal.h"
#include "qwvm/qwlib.h"

namespace qw::log {

int CheckWritable(const QWLog *log, const char *function) {
  if (log->readOnly)
    return QWErrorThrow(EBADF, QW_ERROR_CLASS_GENERAL, "%s: log \"%s\" is read-only", function, log->dir.c_str());
  if (log->broken)
    return QWErrorThrow(EIO, QW_ERROR_CLASS_SYSTEM, "%s: log \"%s\" is in error after a failed write", function,
                        log->dir.c_str());
  return 1;
}

int PushLocked(QWLog *log, std::unique_lock<std::mutex> &lock) {
  log->flushDone.wait(lock, [log] { return !log->flushing; });
  if (log->buffer.empty()) return 1;
  if (!CheckWritable(log, "LogWrite")) return 0;
  if (!QWFileWriteData(log->current, log->writtenEnd, log->buffer.data(), log->buffer.size())) {
    log->broken = true;
    return QWErrorRethrow("could not write log file \"%s\"", QWFileGetPath(log->current));
  }
  log->writtenEnd += log->buffer.size();
  log->buffer.clear();
  return 1;
}

namespace {

// Appends a record to the buffer (the caller checked that it fits).
void Append(QWLog *log, uint32_t type, const void *payload, uint32_t size) {
  const uint64_t serial = Serial(log->lastFile, log->fileEnd);
  const uint32_t synced = LOG_SERIAL_FILE(log->durableEnd) == log->lastFile ? LOG_SERIAL_OFFSET(log->durableEnd) : 0;
  unsigned char header[kHeaderBytes];
  EncodeHeader(header, serial, type, log->lastSerial, synced, payload, size);
  log->buffer.insert(log->buffer.end(), header, header + kHeaderBytes);
  if (size) {
    const auto *bytes = static_cast<const unsigned char *>(payload);
    log->buffer.insert(log->buffer.end(), bytes, bytes + size);
  }
  log->fileEnd += kHeaderBytes + size;
  log->lastSerial = serial;
}

// Closes the newest file with a trailer, synced, and starts the next one.
[[nodiscard]] int Rollover(QWLog *log, std::unique_lock<std::mutex> &lock) {
  log->flushDone.wait(lock, [log] { return !log->flushing; });
  if (!CheckWritable(log, "LogWrite")) return 0;
  const uint64_t trailer = Serial(log->lastFile, log->fileEnd);
  Append(log, LOG_FILE_TRAILER, nullptr, 0);
  if (!PushLocked(log, lock)) return 0;
  const std::string path = QWFileGetPath(log->current);
  const int synced = QWFileSync(log->current);
  if (!synced) QWErrorSave();
  const int closed = QWFileClose(log->current);
  if (!synced) QWErrorRestore();
  log->current = QWFILE_INVALID;
  if (!synced || !closed || !StartFile(log, log->lastFile + 1, trailer)) {
    log->broken = true;
    return QWErrorRethrow("could not roll log \"%s\" over to a new file after \"%s\"", log->dir.c_str(),
                          path.c_str());
  }
  return 1;
}

int Write(QWLog *log, uint32_t type, const void *payload, uint32_t size) {
  std::unique_lock<std::mutex> lock(log->mutex);
  if (!CheckWritable(log, "LogWrite")) return 0;
  const uint64_t bytes = kHeaderBytes + uint64_t(size);
  if (log->fileEnd > kFileHeaderBytes && log->fileEnd + bytes + kTrailerBytes > log->sizeLimit &&
      !Rollover(log, lock))
    return 0;
  Append(log, type, payload, size);
  return log->buffer.size() < kPushBytes || log->flushing || PushLocked(log, lock);
}

int Flush(QWLog *log) {
  std::unique_lock<std::mutex> lock(log->mutex);
  const uint64_t target = log->EndPosition();
  std::vector<unsigned char> batch;
  while (log->durableEnd < target) {
    if (!CheckWritable(log, "LogFlush")) return 0;
    if (log->flushing) {
      log->flushDone.wait(lock);
      continue;
    }
    // Lead a flush of everything buffered so far.
    log->flushing = true;
    batch.swap(log->buffer);
    const uint64_t offset = log->writtenEnd, end = log->EndPosition();
    QWFILE file = log->current;
    log->writtenEnd += batch.size();
    lock.unlock();
    const int ok = (batch.empty() || QWFileWriteData(file, offset, batch.data(), batch.size())) && QWFileSync(file);
    lock.lock();
    log->flushing = false;
    if (ok) log->durableEnd = std::max(log->durableEnd, end);
    else log->broken = true;
    log->flushDone.notify_all();
    if (!ok) return QWErrorRethrow("could not flush log file \"%s\"", QWFileGetPath(file));
    batch.clear();
    if (log->buffer.empty()) batch.swap(log->buffer);  // keep the capacity
  }
  return 1;
}

int Truncate(QWLog *log, uint64_t serial) {
  std::unique_lock<std::mutex> lock(log->mutex);
  if (log->readOnly) return CheckWritable(log, "LogTruncate");
  if (serial > log->lastSerial)
    return QWErrorThrow(EINVAL, QW_ERROR_CLASS_GENERAL,
                        "LogTruncate: serial %llu lies beyond the last record %llu of log \"%s\"",
                        static_cast<unsigned long long>(serial), static_cast<unsigned long long>(log->lastSerial),
                        log->dir.c_str());
  const uint32_t keep = std::min(LOG_SERIAL_FILE(serial), log->lastFile);
  while (log->firstFile < keep) {
    // Oldest first, each removal durable before the next: never a gap.
    const std::string path = FileName(log->dir, log->firstFile);
    if (!FileRemove(path.c_str()) || !DirectorySync(log->dir.c_str()))
      return QWErrorRethrow("could not remove log file \"%s\"", path.c_str());
    ++log->firstFile;
  }
  return 1;
}

// Runs `body`, turning a failed allocation into an error.
template <typename Body>
int Guarded(const char *function, Body body) {
  try {
    return body();
  } catch (const std::bad_alloc &) {
    return QWErrorThrow(ENOMEM, QW_ERROR_CLASS_SYSTEM, "%s: out of memory", function);
  }
}

}  // namespace
}  // namespace qw::log

using namespace qw::log;

int LogWrite(QWLog *log, uint32_t type, const void *payload, uint32_t size, uint32_t flags) {
  if (type == 0 || size > LOG_MAX_RECORD_SIZE || (payload == nullptr && size != 0))
    return QWErrorThrow(EINVAL, QW_ERROR_CLASS_GENERAL, "LogWrite: invalid record (type %u, %u bytes)", type, size);
  if (!Guarded("LogWrite", [&] { return Write(log, type, payload, size); })) return 0;
  return (flags & LOG_WRITE_FLUSH) == 0 || LogFlush(log);
}

int LogFlush(QWLog *log) { return Guarded("LogFlush", [&] { return Flush(log); }); }

uint64_t LogLastSerial(QWLog *log) {
  std::lock_guard<std::mutex> guard(log->mutex);
  return log->lastSerial;
}

int LogTruncate(QWLog *log, uint64_t serial) { return Guarded("LogTruncate", [&] { return Truncate(log, serial); }); }
