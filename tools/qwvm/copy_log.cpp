// The log part of `qwvm copy`; see copy_log.h.
#include "tools/qwvm/copy_log.h"

#include <fcntl.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>

#include "qwvm/qwvm.h"
#include "tools/qwvm/copy_arena.h"

namespace qwtool {
namespace {

std::string LogFileName(const std::string &dir, uint32_t number) {
  char name[32];
  std::snprintf(name, sizeof name, "/%08u.qwlog", number);
  return dir + name;
}

struct OpenLog {
  QWLog *log = nullptr;
  LogReadContext *context = nullptr;
  ~OpenLog() {
    QWErrorSave();
    LogReadContextDelete(context);
    LogClose(log);
    QWErrorRestore();
  }
};

}  // namespace

bool ScanLog(const std::string &logDir, uint64_t from, LogScan *scan) {
  OpenLog open;
  open.log = LogOpen(logDir.c_str(), 1);
  if (!open.log) return QWErrorRethrow("cannot open the log \"%s\"", logDir.c_str()) != 0;
  open.context = LogReadContextNew(open.log);
  if (!open.context) return false;
  *scan = LogScan{};
  uint32_t type = 0, size = 0;
  uint64_t next = 0;
  if (!LogRead(open.context, from, &type, nullptr, &size, &next, nullptr))
    return QWErrorRethrow("the log \"%s\" has no record at the arena serial %llu", logDir.c_str(),
                          (unsigned long long)from) != 0;
  scan->fromNext = next;
  for (uint64_t serial = next; LogRead(open.context, serial, &type, nullptr, &size, &next, nullptr); serial = next) {
    if (type == LVM_CHECKPOINT) {
      scan->checkpoint = true;
      scan->checkpointNext = next;
    }
  }
  QWErrorClear();  // the readable end of the log
  return true;
}

bool CopyLogPrefix(const std::string &logDir, uint64_t first, uint64_t end, const std::string &toDir) {
  if (!DirectoryCreate(toDir.c_str())) return false;
  for (uint32_t number = LOG_SERIAL_FILE(first); number <= LOG_SERIAL_FILE(end); ++number) {
    const std::string from = LogFileName(logDir, number);
    const int fd = open(from.c_str(), O_RDONLY | O_CLOEXEC);
    // The file `end` points into may not have been started yet.
    if (fd < 0 && errno == ENOENT && number == LOG_SERIAL_FILE(end) && number > LOG_SERIAL_FILE(first)) break;
    if (fd < 0) return QWErrorThrowErrno(errno, "cannot open \"%s\"", from.c_str()) != 0;
    std::string bytes;
    const bool read = ReadWhole(fd, from, &bytes);
    close(fd);
    if (!read) return false;
    if (number == LOG_SERIAL_FILE(end)) {
      if (bytes.size() < LOG_SERIAL_OFFSET(end))
        return QWErrorThrow(EBADMSG, QW_ERROR_CLASS_DATA, "\"%s\" is shorter than its scanned records", from.c_str()) !=
               0;
      bytes.resize(LOG_SERIAL_OFFSET(end));
    }
    if (!WriteWhole(LogFileName(toDir, number), bytes)) return false;
  }
  return true;
}

bool ReadArenaSerial(const std::string &vmDir, uint64_t *serial) {
  VMArena *arena = VMArenaOpen(vmDir.c_str(), VM_FLAG_MAPPED | VM_FLAG_READ_ONLY, 1, STATUS_NO_SERIAL, STATUS_NO_SERIAL,
                               nullptr, nullptr);
  if (!arena) return false;
  VMAArrayHandle handle{};
  bool ok = VMAArrayInitFromPath(&handle, arena, "lvm", "serial") != 0;
  uint32_t end = 0;
  void *element =
      ok ? VMAArrayRange_(arena, handle.id[OLDGEN], 0, ARENA_MAX_BLOCK_SIZE, 0, &end, OLDGEN, 1, 8, 0) : nullptr;
  if (element) {
    const auto *bytes = static_cast<const unsigned char *>(element);
    *serial = 0;
    for (int i = 7; i >= 0; --i) *serial = *serial << 8 | bytes[i];
    VMAArrayRelease_(arena, handle.id[OLDGEN], element, 1);
  }
  ok = element != nullptr;
  if (!ok) QWErrorRethrow("cannot read the arena serial in \"%s\"", vmDir.c_str());
  QWErrorSave();
  VMArenaClose(arena);
  QWErrorRestore();
  return ok;
}

}  // namespace qwtool
