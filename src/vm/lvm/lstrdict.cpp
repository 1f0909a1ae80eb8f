// The logged string dictionary: an ID tree in a logged arena, one log
// record per insertion or deletion, replayed by recovery.
#include <memory>
#include <string>
#include <vector>

#include "qwvm/idtree.h"
#include "qwvm/lstrtable.h"
#include "qwvm/qwfile.h"
#include "vm/lvm/lvm_internal.h"

struct LoggedStrDict {
  QWRWLock *lock = nullptr;
  LoggedVM *lvm = nullptr;
  IDTree *tree = nullptr;
  IDTreeThreadData *replayThreadData = nullptr;  // recovery's own scratch
  bool readOnly = false;
};

struct LoggedStrDictThreadData {
  std::vector<uint32_t> wide;
  IDTreeThreadData *tree = nullptr;
};

struct LoggedStrDictEnumeration {
  std::vector<uint64_t> ids;
  size_t next = 0;
};

namespace {

constexpr int kLvmInError = 101;
constexpr int kLvmErrorClass = 12;

// The key widened to one symbol per byte.
const std::vector<uint32_t> &Widen(LoggedStrDictThreadData *threadData, const void *key, uint32_t length) {
  const auto *bytes = static_cast<const uint8_t *>(key);
  if (threadData->wide.capacity() > 10000) std::vector<uint32_t>().swap(threadData->wide);
  threadData->wide.assign(bytes, bytes + length);
  return threadData->wide;
}

bool RefuseReadOnly(const LoggedStrDict *dict) {
  if (!dict->readOnly) return false;
  QWErrorThrow(13, QW_ERROR_CLASS_GENERAL, "cannot change a read-only string dictionary");
  return true;
}

bool AddKey(LoggedStrDict *dict, LoggedStrDictThreadData *threadData, const void *key, uint32_t length,
            uint64_t *id) {
  if (RefuseReadOnly(dict)) return false;
  const uint64_t ticket = LoggedVMWriterAcquire(dict->lvm);
  if (ticket == LVM_NO_SERIAL) return QWErrorThrow(kLvmInError, kLvmErrorClass, "LVM is in error, cannot update");
  const std::vector<uint32_t> &wide = Widen(threadData, key, length);
  bool ok = true;
  {
    qw::lvm::HeldRW exclusive(dict->lock, true);
    int created = 1;
    *id = IDTreeFind(dict->tree, threadData->tree, wide.data(), length, &created, 0, 1, NEWGEN);
    ok = *id != IDTREE_NO_ID;
    if (ok && created && !LogWrite(LoggedVMLogGet(dict->lvm), LSTRDICT_ADD, key, length, 0)) {
      QWErrorRethrow("could not write id creation to log");
      *id = LSTRDICT_NO_ID;
      ok = false;
    }
  }
  LoggedVMWriterRelease(dict->lvm, ticket);
  return ok;
}

bool FindKey(LoggedStrDict *dict, LoggedStrDictThreadData *threadData, const void *key, uint32_t length,
             uint64_t *id) {
  const uint64_t ticket = LoggedVMReaderAcquire(dict->lvm);
  const std::vector<uint32_t> &wide = Widen(threadData, key, length);
  {
    qw::lvm::HeldRW shared(dict->lock, false);
    QWErrorClear();  // an absent key leaves no error
    *id = IDTreeFind(dict->tree, threadData->tree, wide.data(), length, nullptr, 0, 1, NEWGEN);
  }
  LoggedVMReaderRelease(dict->lvm, ticket);
  return *id != IDTREE_NO_ID || !QWErrorIsSet();
}

int Replay(LogReadContext *context, uint64_t first, uint64_t last, void *callbackContext) {
  auto *dict = static_cast<LoggedStrDict *>(callbackContext);
  LoggedStrDictThreadData threadData;
  threadData.tree = dict->replayThreadData;
  std::vector<uint8_t> payload;
  for (uint64_t serial = first; serial <= last;) {
    uint32_t type = 0, size = 0;
    uint64_t next = 0;
    if (!LogRead(context, serial, &type, nullptr, &size, nullptr, nullptr)) return QWErrorRethrow("could not read log");
    payload.resize(size);
    if (!LogRead(context, serial, &type, payload.data(), &size, &next, nullptr))
      return QWErrorRethrow("could not read log");
    uint64_t id = 0;
    switch (type) {
      case 0: return QWErrorThrow(4, QW_ERROR_CLASS_DATA, "invalid log record encountered at serial 0x%llx",
                                  static_cast<unsigned long long>(serial));
      case LSTRDICT_ADD:
        if (!LoggedStrDictLookup(dict, &threadData, payload.data(), size, 1, &id))
          return QWErrorRethrow("could not replay entry addition");
        break;
      case LSTRDICT_DELETE:
        if (!LoggedStrDictDelete(dict, &threadData, payload.data(), size))
          return QWErrorRethrow("could not replay entry deletion");
        break;
      default:
        // A type of no one's raises no error of its own: this message starts
        // the chain then.
        QWErrorClear();
        if (!LoggedVMProcessFun(dict->lvm, serial, type)) {
          if (QWErrorIsSet()) return QWErrorRethrow("could not replay generic LVM operation");
          return QWErrorThrow(4, QW_ERROR_CLASS_DATA, "could not replay generic LVM operation");
        }
    }
    serial = next;
  }
  return 1;
}

// Commits the new arena (creation is not a checkpoint: no stop fires).
bool CommitCreated(LoggedStrDict *dict) {
  return qw::lvm::CommitArenaQuietly(LoggedVMArenaGet(dict->lvm)) || QWErrorRethrow("could not commit arena");
}

bool Open(LoggedStrDict *dict, const char *dir, int readOnly) {
  dict->readOnly = readOnly != 0;
  if (!readOnly && !DirectoryCreateDurably(dir)) return QWErrorRethrow("error creating directory %s", dir);
  int created = 0;
  dict->lvm = LoggedVMOpen(dir, 1, readOnly ? 0 : 1, readOnly, &created, 1, 0, nullptr, nullptr, nullptr, Replay, dict);
  if (!dict->lvm) return QWErrorRethrow("could not open underlying LVM");
  VMArena *arena = LoggedVMArenaGet(dict->lvm);
  qwassert_(arena != NULL);
  uint8_t *pathBuffer = nullptr;
  int treeCreated = readOnly ? 0 : 1;
  dict->tree = IDTreeNew(arena, &pathBuffer, "idtree", &treeCreated, 0);
  ArrayFree(pathBuffer);
  if (!dict->tree) return QWErrorRethrow("could not create underlying ID tree");
  if (readOnly) return true;
  if (!LoggedVMRecover(dict->lvm)) return QWErrorRethrow("unable to recover log");
  return !(created || treeCreated) || CommitCreated(dict);
}

void Release(LoggedStrDict *dict) {
  IDTreeFree(dict->tree);
  IDTreeThreadDataFree(dict->replayThreadData);
  if (dict->lock) RWLockDestroy(dict->lock);
  delete dict;
}

}  // namespace

extern "C" {

QW_API LoggedStrDict *LoggedStrDictOpen(const char *dir, int readOnly) {
  auto *dict = new LoggedStrDict;
  dict->lock = RWLockInit();
  dict->replayThreadData = IDTreeThreadDataNew();
  if (dict->lock && dict->replayThreadData && Open(dict, dir, readOnly)) return dict;
  QWErrorSave();
  LoggedVM *lvm = dict->lvm;
  Release(dict);
  if (lvm) {
    (void)LoggedVMClose(lvm);
    UnAllocate(lvm);
  }
  QWErrorRestore();
  return nullptr;
}

QW_API int LoggedStrDictClose(LoggedStrDict *dict, int checkpoint) {
  if (!dict) return 1;
  if (checkpoint == 1 && !LoggedStrDictCheckpoint(dict, 0, LVM_NO_SERIAL)) return QWErrorRethrow("could not checkpoint");
  // The tree goes before the arena it lives in.
  LoggedVM *lvm = dict->lvm;
  Release(dict);
  const int closed = LoggedVMClose(lvm);
  UnAllocate(lvm);
  return closed;
}

QW_API uint64_t LoggedStrDictSerialGet(LoggedStrDict *dict) { return LoggedVMSerialGet(dict->lvm); }

QW_API int LoggedStrDictCheckpoint(LoggedStrDict *dict, int commit, uint64_t serial) {
  return LoggedVMCheckpoint(dict->lvm, commit, serial);
}

QW_API LoggedStrDictThreadData *LoggedStrDictThreadDataNew(void) {
  auto threadData = std::make_unique<LoggedStrDictThreadData>();
  threadData->tree = IDTreeThreadDataNew();
  return threadData->tree ? threadData.release() : nullptr;
}

QW_API void LoggedStrDictThreadDataFree(LoggedStrDictThreadData *threadData) {
  if (!threadData) return;
  IDTreeThreadDataFree(threadData->tree);
  delete threadData;
}

QW_API int LoggedStrDictLookup(LoggedStrDict *dict, LoggedStrDictThreadData *threadData, const void *key,
                               uint32_t length, int create, uint64_t *id) {
  *id = LSTRDICT_NO_ID;
  if (length == 0) return 0;
  return (create ? AddKey(dict, threadData, key, length, id) : FindKey(dict, threadData, key, length, id)) ? 1 : 0;
}

QW_API int LoggedStrDictDelete(LoggedStrDict *dict, LoggedStrDictThreadData *threadData, const void *key,
                               uint32_t length) {
  if (length == 0 || RefuseReadOnly(dict)) return 0;
  const uint64_t ticket = LoggedVMWriterAcquire(dict->lvm);
  const std::vector<uint32_t> &wide = Widen(threadData, key, length);
  bool ok;
  {
    qw::lvm::HeldRW exclusive(dict->lock, true);
    QWErrorClear();
    const uint64_t id = IDTreeFind(dict->tree, threadData->tree, wide.data(), length, nullptr, 1, 1, NEWGEN);
    ok = id != IDTREE_NO_ID || !QWErrorIsSet();
    if (ok && !LogWrite(LoggedVMLogGet(dict->lvm), LSTRDICT_DELETE, key, length, 0))
      ok = QWErrorRethrow("could not write key deletion to log");
  }
  if (ticket != LVM_NO_SERIAL) LoggedVMWriterRelease(dict->lvm, ticket);
  return ok ? 1 : 0;
}

QW_API LoggedStrDictEnumeration *LoggedStrDictEnumerationNew(LoggedStrDict *dict, const void *prefix,
                                                             uint32_t length) {
  auto enumeration = std::make_unique<LoggedStrDictEnumeration>();
  const auto *bytes = static_cast<const uint8_t *>(prefix);
  const std::vector<uint32_t> wide(bytes, bytes + length);
  IDTreeEnumeration *walk = IDTreeEnumerationNew();
  if (!walk) return nullptr;
  const uint64_t ticket = LoggedVMReaderAcquire(dict->lvm);
  bool ok;
  {
    qw::lvm::HeldRW shared(dict->lock, false);
    QWErrorClear();
    ok = IDTreeEnumerationInit(dict->tree, walk, wide.data(), length, PITREE_DEPTH_UNLIMITED, NEWGEN) != 0;
    const uint32_t *atom = nullptr;
    uint32_t atomLength = 0;
    uint64_t id = 0;
    while (ok && IDTreeEnumerationGetNext(walk, &atom, &atomLength, &id)) {
      // The tree stores id + 1; a stored 0 is damage.
      const uint64_t value = id + 1;
      if (value == EMPTY_NODE_DATA && !dict->readOnly) VMArenaTagCorrupted(LoggedVMArenaGet(dict->lvm));
      qwassert_(value != EMPTY_NODE_DATA);
      enumeration->ids.push_back(id);
    }
    ok = ok && !QWErrorIsSet();
  }
  LoggedVMReaderRelease(dict->lvm, ticket);
  IDTreeEnumerationFree(walk);
  return ok ? enumeration.release() : nullptr;
}

QW_API int LoggedStrDictEnumerationGetNext(LoggedStrDictEnumeration *enumeration, uint64_t *id) {
  if (enumeration->next >= enumeration->ids.size()) return 0;
  *id = enumeration->ids[enumeration->next++];
  return 1;
}

QW_API void LoggedStrDictEnumerationFree(LoggedStrDictEnumeration *enumeration) { delete enumeration; }

}  // extern "C"
