// Fuzzes the log reader: the input (after a selector byte) becomes the log
// files of a directory, cut into two files when the selector asks, and the
// log is opened read-only or writable (which cuts a torn tail). Opening may
// fail cleanly; a log that opens must read from its first record to its
// last forwards and back without crashing, and a writable one must take a
// record, flush it and show it as its last record after a reopen.
#include "fuzz_support.h"

namespace {

std::string directory;

std::string FileOf(uint32_t number) {
  char name[32];
  std::snprintf(name, sizeof name, "/%08u.qwlog", number);
  return directory + name;
}

// Reads every record forwards, then walks back over `previous` as far as
// there were records; returns the number read forwards.
uint64_t Walk(QWLog *log) {
  LogReadContext *context = LogReadContextNew(log);
  if (!context) std::abort();
  uint64_t serial = 0, records = 0;
  const uint64_t last = LogLastSerial(log);
  if (LogFirstSerial(context, 0, &serial)) {
    uint8_t payload[64];
    for (; serial <= last; ++records) {
      uint32_t type = 0, size = sizeof payload;
      if (!LogRead(context, serial, &type, payload, &size, &serial, nullptr)) break;
    }
  }
  uint64_t back = last;
  for (uint64_t steps = 0; steps <= records && back != LOG_NO_SERIAL; ++steps) {
    uint32_t type = 0, size = 0;
    if (!LogRead(context, back, &type, nullptr, &size, nullptr, &back)) break;
  }
  LogReadContextDelete(context);
  QWErrorClear();
  return records;
}

void Run(uint8_t selector, const uint8_t *data, size_t size) {
  ::unlink(FileOf(1).c_str());
  ::unlink(FileOf(2).c_str());
  size_t cut = size;
  if ((selector & 2) && size >= 2) cut = (size_t(data[0]) << 8 | data[1]) % size;
  qwfuzz::WriteAll(FileOf(1), data, cut);
  if (cut < size) qwfuzz::WriteAll(FileOf(2), data + cut, size - cut);
  const bool writable = selector & 1;
  QWLog *log = LogOpen_(directory.c_str(), !writable, LOG_MIN_FILE_SIZE);
  if (!log) return;
  Walk(log);
  if (writable) {
    if (!LogWrite(log, 7, "fuzz", 4, LOG_WRITE_FLUSH)) std::abort();
    const uint64_t serial = LogLastSerial(log);
    if (!LogClose(log)) std::abort();
    log = LogOpen(directory.c_str(), 1);
    if (!log || LogLastSerial(log) != serial) std::abort();
    Walk(log);
  }
  LogClose(log);
}

}  // namespace

extern "C" int LLVMFuzzerInitialize(int *, char ***) {
  directory = qwfuzz::Start("log");
  if (const std::string seeds = qwfuzz::SeedDir(); !seeds.empty()) {
    QWLog *log = LogOpen_(directory.c_str(), 0, LOG_MIN_FILE_SIZE);
    for (uint32_t i = 0; log && i < 40; ++i) {
      const std::string payload(i * 13 % 200, char('a' + i % 26));
      LogWrite(log, 3 + i % 13, payload.data(), uint32_t(payload.size()), i % 4 == 0 ? LOG_WRITE_FLUSH : 0);
    }
    LogClose(log);
    // Seed: selector 0 (read-only, one file), then the first log file.
    qwfuzz::WriteAll(seeds + "/seed-log", std::string(1, '\0') + qwfuzz::ReadAll(FileOf(1)));
    std::exit(0);
  }
  return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
  if (size == 0) return 0;
  Run(data[0], data + 1, size - 1);
  QWErrorClear();
  return 0;
}
