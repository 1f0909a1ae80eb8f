// The replication log handle: argument checks and a mutex in front of an
// implementation's vtable (the file-backed one or a host's).
#include <cerrno>
#include <cstring>
#include <memory>
#include <mutex>
#include <new>

#include "qwvm/qwlib.h"
#include "platform/qwlog/replication_sync.h"
#include "qwvm/qwlog.h"

struct ReplicationLog {
  ReplicationLogOps ops{};
  void *self = nullptr;
  std::mutex mutex;  // serialises calls into the implementation
  int (*sync)(void *self) = nullptr;  // the file-backed log's sync; none for a host's
};

namespace qw {
void ReplicationLogSetSync(ReplicationLog *log, int (*sync)(void *self)) { log->sync = sync; }
}  // namespace qw

ReplicationLog *ReplicationLogNew(const ReplicationLogOps *ops, void *self) {
  if (ops == nullptr || ops->write == nullptr || ops->getBlockSize == nullptr) {
    QWErrorThrow(EINVAL, QW_ERROR_CLASS_GENERAL, "ReplicationLogNew: implementation without write or getBlockSize");
    return nullptr;
  }
  try {
    auto log = std::make_unique<ReplicationLog>();
    log->ops = *ops;
    log->self = self;
    return log.release();
  } catch (const std::bad_alloc &) {
    QWErrorThrow(ENOMEM, QW_ERROR_CLASS_SYSTEM, "ReplicationLogNew: out of memory");
    return nullptr;
  }
}

int ReplicationLogWrite(ReplicationLog *log, uint32_t type, uint32_t a, uint32_t b, const char *path,
                        const uint64_t *list, uint32_t count) {
  if (count > REPLICATION_LOG_MAX_LIST)
    return QWErrorThrow(EINVAL, QW_ERROR_CLASS_GENERAL,
                        "ReplicationLogWrite: list of %u ids is over the limit of %u per record", count,
                        REPLICATION_LOG_MAX_LIST);
  if (count > 0 && list == nullptr)
    return QWErrorThrow(EINVAL, QW_ERROR_CLASS_GENERAL, "ReplicationLogWrite: %u ids but no list", count);
  if (path == nullptr) path = "";
  if (std::strlen(path) > REPLICATION_LOG_MAX_PATH)
    return QWErrorThrow(EINVAL, QW_ERROR_CLASS_GENERAL, "ReplicationLogWrite: path over %u bytes",
                        REPLICATION_LOG_MAX_PATH);
  std::lock_guard<std::mutex> guard(log->mutex);
  if (!log->ops.write(log->self, type, a, b, path, count > 0 ? list : nullptr, count))
    return QWErrorRethrow("ReplicationLogWrite: could not log event %u for \"%s\"", type, path);
  return 1;
}

int ReplicationLogSync(ReplicationLog *log) {
  std::lock_guard<std::mutex> guard(log->mutex);
  if (log->sync == nullptr || log->sync(log->self)) return 1;
  return QWErrorRethrow("ReplicationLogSync: could not sync the log");
}

uint32_t ReplicationLogGetBlockSize(ReplicationLog *log) {
  std::lock_guard<std::mutex> guard(log->mutex);
  return log->ops.getBlockSize(log->self);
}

int ReplicationLogClose(ReplicationLog *log) {
  if (log == nullptr) return 1;
  std::unique_ptr<ReplicationLog> owned(log);
  if (owned->ops.close != nullptr && !owned->ops.close(owned->self))
    return QWErrorRethrow("ReplicationLogClose: could not close the log");
  return 1;
}
