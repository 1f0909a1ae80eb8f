// Recovery of a logged arena and the replay of its own record types.
//
// After a crash the committed arena holds the effects of every record up to
// the arena serial A. The records after A up to the serial S named by the
// newest checkpoint record had their external data synced before that
// record, so they are replayed; records after S are not (their external
// data may be lost). The arena is then committed with the log's last serial
// so that nothing is replayed twice.
#include <cstdlib>
#include <string>

#include "platform/qwlog/log_internal.h"
#include "platform/qwutil/bytes.h"
#include "vm/lvm/lvm_internal.h"

namespace qw::lvm {

bool CommitArenaQuietly(VMArena *arena) {
  const char *saved = std::getenv("QWEXIT");
  const std::string keep = saved ? saved : "";
  QWSetEnvironmentVariable("QWEXIT", "");
  const bool ok = VMArenaCommit(arena, nullptr, nullptr, 1) != 0;
  QWSetEnvironmentVariable("QWEXIT", saved ? keep.c_str() : nullptr);
  return ok;
}

namespace {

constexpr uint64_t kProgressMilliseconds = 5000;

// Counts the records a replay reads and reports every few seconds.
struct Progress {
  const LoggedVM *lvm;
  uint64_t last;
  uint64_t records = 0;
  uint64_t reported;
};

void Observe(void *context, uint64_t serial) {
  auto *progress = static_cast<Progress *>(context);
  if (++progress->records % 1024 != 0) return;
  const uint64_t now = GetCurrentTimeMilliseconds();
  if (now - progress->reported < kProgressMilliseconds) return;
  progress->reported = now;
  QWMessage(QW_LEVEL_PROGRESS, "lvm: replayed %llu records in %s, at file %u offset %u of file %u offset %u",
            static_cast<unsigned long long>(progress->records), progress->lvm->path, LOG_SERIAL_FILE(serial),
            LOG_SERIAL_OFFSET(serial), LOG_SERIAL_FILE(progress->last), LOG_SERIAL_OFFSET(progress->last));
}

// Commits the arena with `serial` as its arena serial, with no crash stop
// firing meanwhile.
[[nodiscard]] int CommitQuietly(LoggedVM *lvm, uint64_t serial) {
  return ArenaSerialStore(lvm, serial) && CommitArenaQuietly(lvm->arena) ? 1 : QWErrorRethrow("could not commit arena");
}

[[nodiscard]] int RecoverWith(LoggedVM *lvm, LogReadContext *context, uint64_t arenaSerial, uint64_t last) {
  uint64_t first = 0;
  if (!LogFirstSerial(context, arenaSerial, &first)) {
    if (QWErrorCode() != 2 || QWErrorClass() != QW_ERROR_CLASS_GENERAL) return 0;
    QWErrorClear();  // nothing after the arena serial
    return 1;
  }
  uint32_t type = 0, size = 0;
  uint64_t start = 0;
  if (!LogRead(context, arenaSerial, &type, nullptr, &size, &start, nullptr))
    return QWErrorRethrow("could not skip first log entry");

  // The newest checkpoint record at or after start names the end.
  uint64_t cur = last, end = arenaSerial;
  bool found = false;
  while (cur != LOG_NO_SERIAL && cur >= start) {
    uint64_t curSerial = 0, previous = 0;
    unsigned char payload[sizeof curSerial];
    size = sizeof payload;
    if (!LogRead(context, cur, &type, payload, &size, nullptr, &previous))
      return QWErrorRethrow("could not read log while looking for checkpoint");
    if (type == LVM_CHECKPOINT) {
      qwassert_(size == sizeof(curSerial));
      curSerial = LoadLE64(payload);
      end = curSerial;
      found = true;
      break;
    }
    cur = previous;
  }
  if (!found && cur != LOG_NO_SERIAL) end = cur;  // below start: nothing to replay

  Progress progress{lvm, end, 0, GetCurrentTimeMilliseconds()};
  qw::log::SetReadObserver(context, Observe, &progress);
  const int replayed = lvm->replay == nullptr || lvm->replay(context, start, end, lvm->callbackContext);
  qw::log::SetReadObserver(context, nullptr, nullptr);
  if (!replayed) return QWErrorRethrow("could not process log");
  if (!Call(lvm->recycleSetNew, lvm->callbackContext)) return QWErrorRethrow("could not prepare recycling context");
  if (!Call(lvm->recycle, lvm->callbackContext)) return QWErrorRethrow("could not recycle freed blocks");
  return start > last || CommitQuietly(lvm, last);
}

}  // namespace
}  // namespace qw::lvm

using namespace qw::lvm;

extern "C" {

QW_API int LoggedVMRecover(LoggedVM *lvm) {
  uint64_t arenaSerial = 0;
  if (!ArenaSerialRead(lvm, &arenaSerial)) return 0;
  LogReadContext *context = LogReadContextNew(lvm->log);
  if (context == nullptr) return 0;
  const uint64_t last = LogLastSerial(lvm->log);
  QWMessage(QW_LEVEL_PROGRESS, "lvm: recovering in %s", lvm->path);
  if (!RecoverWith(lvm, context, arenaSerial, last)) {
    QWErrorSave();
    LogReadContextDelete(context);
    QWErrorRestore();
    return 0;
  }
  if (!LogReadContextDelete(context)) return QWErrorRethrow("could not delete log reader context");
  QWMessage(QW_LEVEL_PROGRESS, "lvm: recovered in %s", lvm->path);
  return 1;
}

QW_API int LoggedVMProcessFun(LoggedVM *lvm, uint64_t serial, uint32_t type) {
  (void)serial;
  switch (type) {
    case LOG_FILE_HEADER:
    case LOG_FILE_TRAILER:
    case LVM_CHECKPOINT:
      return 1;
    case LVM_RECYCLE_SET_NEW:
      return Call(lvm->recycleSetNew, lvm->callbackContext) ? 1 : QWErrorRethrow("failure in recycleSetNew callback");
    case LVM_RECYCLE:
      return Call(lvm->recycle, lvm->callbackContext) ? 1 : QWErrorRethrow("failure in recycle callback");
    default:
      return 0;
  }
}

}  // extern "C"
