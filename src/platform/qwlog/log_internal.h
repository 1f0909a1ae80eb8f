// The serial-numbered log (format in qwlog.h): record encoding, the open
// log's state, and the helpers its three source files share.
//
// State of an open writable log, all under `mutex`:
//  - files firstFile..lastFile exist; lastFile is open in `current`;
//  - [0, writtenEnd) of the newest file reached the file system, the bytes
//    [writtenEnd, fileEnd) wait in `buffer` (or in the buffer a running
//    flush took, while `flushing` is set);
//  - every record before durableEnd (a serial-ordered position) is synced;
//  - once `broken` is set (a write or sync failed) nothing more is written:
//    the file may end in a partial record that only a reopen cuts away.
// Invariants: writtenEnd <= fileEnd; durableEnd <= Position(lastFile,
// writtenEnd) unless a flush is running; only the flushing thread writes
// outside the mutex, and nobody else writes while `flushing` is set.
#pragma once

#include <condition_variable>
#include <cstdint>
#include <mutex>
#include <string>
#include <vector>

#include "qwvm/qwfile.h"
#include "qwvm/qwlog.h"

namespace qw::log {

inline constexpr uint32_t kHeaderBytes = 24;
inline constexpr uint32_t kFileHeaderPayload = 16;
inline constexpr uint32_t kFileHeaderBytes = kHeaderBytes + kFileHeaderPayload;
inline constexpr uint32_t kTrailerBytes = kHeaderBytes;
inline constexpr uint32_t kVersion = 1;
inline constexpr char kMagic[8] = {'Q', 'W', 'V', 'M', 'L', 'O', 'G', '\0'};
// Buffered records go to the file once this many bytes wait.
inline constexpr size_t kPushBytes = 1 << 20;

inline uint64_t Serial(uint32_t file, uint64_t offset) { return (uint64_t(file) << 32) | offset; }

// A decoded record header.
struct RecordHeader {
  uint32_t crc = 0, size = 0, type = 0, synced = 0;
  uint64_t previous = LOG_NO_SERIAL;
};

// Encodes the header of a record at `serial` (with its checksum).
void EncodeHeader(unsigned char *out, uint64_t serial, uint32_t type, uint64_t previous, uint32_t synced,
                  const void *payload, uint32_t size);
RecordHeader DecodeHeader(const unsigned char *in);
// The 16-byte payload of file `number`'s header.
void EncodeFileHeaderPayload(unsigned char *out, uint32_t number);

std::string FileName(const std::string &dir, uint32_t number);

// Raises the data error of a bad record in `path` at `serial`; returns 0.
int BadRecord(const std::string &path, uint64_t serial, const char *reason);

// A read-only handle on one log file with a read-ahead window.
class FileWindow {
 public:
  FileWindow() = default;
  FileWindow(const FileWindow &) = delete;
  FileWindow &operator=(const FileWindow &) = delete;
  ~FileWindow();

  // Opens file `number` of `dir`; 0 with an error (code 2 when missing).
  [[nodiscard]] int Open(const std::string &dir, uint32_t number);
  // Closes it (nothing when closed); 0 with an error when close failed.
  int Close();
  // Reads the file size again (the newest file of a writable log grows).
  [[nodiscard]] int Refresh();
  // `n` bytes at `offset`: 1 with *out pointing at them (valid until the
  // next Get), -1 when the file ends before, 0 with an I/O error.
  int Get(uint64_t offset, size_t n, const unsigned char **out);

  bool open() const { return file_ != QWFILE_INVALID; }
  uint32_t number() const { return number_; }
  uint64_t size() const { return size_; }
  const std::string &path() const { return path_; }

 private:
  QWFILE file_ = QWFILE_INVALID;
  uint32_t number_ = 0;
  uint64_t size_ = 0;
  std::string path_;
  std::vector<unsigned char> window_;
  uint64_t windowStart_ = 0;
  size_t windowLength_ = 0;
};

// What lies at an offset of a log file.
enum class Probe { kRecord, kEnd, kBad, kIoError };

// Reads and checks the record at `offset` of the window's file: kRecord
// with *header and *payload (valid until the next Get), kEnd when the file
// ends exactly there, kBad with *reason, kIoError with the error set.
Probe ProbeRecord(FileWindow &window, uint64_t offset, RecordHeader *header, const unsigned char **payload,
                  const char **reason);

}  // namespace qw::log

struct QWLog {
  std::string dir;
  bool readOnly = false;
  uint64_t sizeLimit = LOG_DEFAULT_FILE_SIZE;

  std::mutex mutex;
  std::condition_variable flushDone;  // signalled when a flush ends
  uint32_t firstFile = 1, lastFile = 1;
  QWFILE current = QWFILE_INVALID;
  uint64_t fileEnd = 0;     // where the next record of the newest file goes
  uint64_t writtenEnd = 0;  // bytes of the newest file handed to the file system
  uint64_t lastSerial = LOG_NO_SERIAL;
  uint64_t durableEnd = 0;  // serial-ordered position up to which all is synced
  bool flushing = false;
  bool broken = false;
  std::vector<unsigned char> buffer;

  uint64_t EndPosition() const { return qw::log::Serial(lastFile, fileEnd); }
};

namespace qw::log {

// Writes the buffered bytes to the newest file (no sync); waits first for a
// running flush. Returns 1, or 0 with an error (the log is then broken).
[[nodiscard]] int PushLocked(QWLog *log, std::unique_lock<std::mutex> &lock);
// Creates (or rewrites) file `number` holding just its header whose
// predecessor is `previous`, synced and named durably, and makes it the
// newest file, open for writing. Returns 1, or 0 with an error.
[[nodiscard]] int StartFile(QWLog *log, uint32_t number, uint64_t previous);
// Calls observe(observeContext, serial) for every record the context reads
// (for progress reports of long replays); NULL stops it.
void SetReadObserver(LogReadContext *context, void (*observe)(void *, uint64_t), void *observeContext);
// Fails with the log's standing error when it cannot be written.
[[nodiscard]] int CheckWritable(const QWLog *log, const char *function);

}  // namespace qw::log
