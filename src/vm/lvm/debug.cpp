// Printing the records of a logged arena's log.
#include <cstdio>
#include <vector>

#include "platform/qwutil/bytes.h"
#include "qwvm/box.h"
#include "vm/lvm/lvm_internal.h"

namespace {

// Reads the record at `serial` again with its payload and prints it.
void PrintRecord(LogReadContext *context, uint64_t serial, uint32_t kind, uint32_t size) {
  std::vector<unsigned char> payload(size);
  uint32_t kindNew = 0;
  if (!LogRead(context, serial, &kindNew, payload.data(), &size, nullptr, nullptr)) return;
  qwassert_(kindNew == kind);
  if (kind >= BOX_UPDATE) BoxOpDebug(payload.data(), size, kind);
  else LoggedVMOpDebug(kind, payload.data(), size);
}

int Dump(const char *logPath, int withSizes) {
  QWLog *log = LogOpen(logPath, 1);
  if (log == nullptr) {
    QWMessage(QW_LEVEL_WARNING, "Could not open log in %s", logPath);
    return 0;
  }
  LogReadContext *context = LogReadContextNew(log);
  uint64_t serial = 0;
  int ok = context != nullptr && LogFirstSerial(context, 0, &serial);
  const uint64_t last = LogLastSerial(log);
  while (ok && serial <= last) {
    uint32_t type = 0, size = 0;
    uint64_t next = 0;
    if (!LogRead(context, serial, &type, nullptr, &size, &next, nullptr)) {
      ok = 0;
      break;
    }
    std::printf("file = %u, offset = %7u: ", LOG_SERIAL_FILE(serial), LOG_SERIAL_OFFSET(serial));
    if (withSizes) std::printf("[%u bytes] ", size);
    switch (type) {
      case LOG_FILE_HEADER: std::printf("FileHeader\n"); break;
      case LOG_FILE_TRAILER: std::printf("FileTrailer\n"); break;
      case LVM_CHECKPOINT:
      case LVM_RECYCLE_SET_NEW:
      case LVM_RECYCLE:
      case BOX_UPDATE:
      case BOX_DATA_EXTEND:
      case BOX_FP_GET_ID:
      case BOX_FP_INC_REF:
      case BOX_FP_DEC_REF: PrintRecord(context, serial, type, size); break;
      default: std::printf("<<< INVALID \n"); break;
    }
    serial = next;
  }
  std::fflush(stdout);
  if (!ok) QWErrorSave();
  const int deleted = LogReadContextDelete(context);
  const int closed = LogClose(log);
  if (!ok) QWErrorRestore();
  return ok && deleted && closed;
}

}  // namespace

extern "C" {

QW_API void LoggedVMOpDebug(uint32_t type, const void *payload, size_t size) {
  const auto size_ = static_cast<unsigned long>(size);
  switch (type) {
    case LVM_CHECKPOINT:
      if (size == 8) {
        const uint64_t serial = qw::LoadLE64(static_cast<const unsigned char *>(payload));
        std::printf("LVMCheckpoint(%u, %u)\n", uint32_t(serial >> 32), uint32_t(serial));
      } else if (size == 0) {
        std::printf("LVMCheckpoint()\n");
      } else {
        std::printf("LVMCheckpoint(*** invalid parm size %lu ***)\n", size_);
      }
      break;
    case LVM_RECYCLE_SET_NEW:
      if (size == 0) std::printf("LVMRecycleSetNew\n");
      else std::printf("LVMRecycleSetNew(*** invalid parm size %lu ***)\n", size_);
      break;
    case LVM_RECYCLE:
      if (size == 0) std::printf("LVMRecycle\n");
      else std::printf("LVMRecycle(*** invalid parm size %lu ***)\n", size_);
      break;
    default: std::printf("INVALID\n"); break;
  }
}

QW_API void LogDebug(const char *logPath) {
  if (!Dump(logPath, 0)) QWErrorClear();
}

QW_API int LogDebug_(const char *logPath, int withSizes) { return Dump(logPath, withSizes); }

}  // extern "C"
