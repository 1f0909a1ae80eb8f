// The string table: a logged string dictionary for the ids and a box for
// the entries (varint key length, key, value).
#include <cstring>
#include <memory>
#include <string>
#include <vector>

#include "qwvm/lstrtable.h"
#include "util/varint.h"
#include "vm/lvm/box_internal.h"
#include "vm/lvm/lvm_internal.h"

struct LoggedStrTable {
  std::string dir;
  std::string dictArena;  // dir/dict/vm: the first arena a checkpoint commits
  LoggedStrDict *dict = nullptr;
  BoxLVM *box = nullptr;
  uint64_t *serials = nullptr;  // one per box bucket, reused by checkpoints
  QWRWLock *lock = nullptr;
  bool readOnly = false;
};

struct LoggedStrTableThreadData {
  LoggedStrDictThreadData *dict = nullptr;
  BoxLVMThreadData *box = nullptr;
  uint8_t *buffer = nullptr;  // qwlib growable byte array
  std::vector<uint8_t> entry;
};

struct LoggedStrTableEnumeration {
  LoggedStrTable *table = nullptr;
  LoggedStrDictEnumeration *ids = nullptr;
  LoggedStrTableThreadData *threadData = nullptr;
};

namespace {

// The box entry of `id`, split into its key and value; false when the id
// has no entry or an empty one. The box read must succeed.
bool ReadEntry(LoggedStrTable *table, LoggedStrTableThreadData *threadData, uint64_t id, const uint8_t **key,
               uint32_t *keyLength, const uint8_t **value, uint32_t *valueLength) {
  const int found = BoxLVMGet(table->box, threadData->box, uint32_t(id), &threadData->buffer);
  const bool check = found || !QWErrorIsSet();
  if (!check && QWErrorClass() == QW_ERROR_CLASS_DATA && !table->readOnly) {
    // Damaged stored data: mark the bucket's store before the assertion.
    BoxLVMBucket &bucket = *table->box->buckets[uint32_t(id) % table->box->bucketCount];
    VMArenaTagCorrupted(LoggedVMArenaGet(bucket.lvm));
  }
  qwassert_(check);
  const size_t size = found ? ArrayLength(threadData->buffer) : 0;
  if (size == 0) return false;
  const uint8_t *bytes = threadData->buffer;
  uint64_t length = 0;
  const size_t used = qw::VarintDecode(bytes, bytes + size, &length);
  if (used == 0 || length > size - used) return false;
  *key = bytes + used;
  *keyLength = uint32_t(length);
  *value = *key + length;
  *valueLength = uint32_t(size - used - length);
  return true;
}

bool JoinPath(const char *dir, const char *name, std::string *out) {
  *out = std::string(dir) + "/" + name;
  return out->size() <= 259 || QWErrorThrow(22, QW_ERROR_CLASS_GENERAL, "filename too long");
}

// A table stop fires when QWVMEXIT names the table's directory or its
// dictionary's arena directory.
void CrashPoint(const LoggedStrTable *table, const char *stop) {
  QWCrashPoint(stop, table->dir.c_str());
  QWCrashPoint(stop, table->dictArena.c_str());
}

bool Update(LoggedStrTable *table, uint64_t id, const void *entry, uint32_t size) {
  int isNew = 0, inError = 0;
  if (BoxLVMUpdate(table->box, uint32_t(id), 0, 0, entry, size, &isNew, &inError)) return true;
  if (inError) QWMessage(QW_LEVEL_ERROR, "BoxLVMUpdate failed");
  return false;
}

}  // namespace

extern "C" {

QW_API LoggedStrTable *LoggedStrTableOpen(const char *dir, uint32_t bucketCount, uint32_t arenaParameter,
                                          uint32_t stripeCount, int readOnly, PageCache *cache) {
  auto table = std::make_unique<LoggedStrTable>();
  std::string dictDir, boxDir;
  if (!JoinPath(dir, "dict", &dictDir) || !JoinPath(dir, "box", &boxDir)) return nullptr;
  table->dir = dir;
  table->dictArena = dictDir + "/vm";
  table->readOnly = readOnly != 0;
  table->lock = RWLockInit();
  if (!table->lock) return nullptr;
  table->dict = LoggedStrDictOpen(dictDir.c_str(), readOnly);
  if (table->dict)
    table->box = BoxLVMOpen(boxDir.c_str(), bucketCount, arenaParameter, stripeCount, readOnly ? 0 : 1, readOnly,
                            cache);
  if (!table->box) {
    QWErrorSave();
    LoggedStrTableClose(table.release(), 0);
    QWErrorRestore();
    return nullptr;
  }
  return table.release();
}

QW_API int LoggedStrTableClose(LoggedStrTable *table, int checkpoint) {
  if (!table) return 1;
  if (checkpoint && !table->readOnly && !LoggedStrTableCheckpoint(table, 0))
    QWMessage(QW_LEVEL_WARNING, "could not checkpoint the string table in %s: %s", table->dir.c_str(),
              QWErrorMessage());
  QWErrorSave();
  (void)LoggedStrDictClose(table->dict, 0);
  (void)BoxLVMClose(table->box, 0);
  QWErrorRestore();
  ArrayFree(table->serials);
  if (table->lock) RWLockDestroy(table->lock);
  delete table;
  return 1;
}

QW_API LoggedStrTableThreadData *LoggedStrTableThreadDataNew(void) {
  auto threadData = std::make_unique<LoggedStrTableThreadData>();
  threadData->dict = LoggedStrDictThreadDataNew();
  threadData->box = BoxLVMThreadDataNew();
  if (!threadData->dict || !threadData->box) {
    LoggedStrTableThreadDataFree(threadData.release());
    return nullptr;
  }
  return threadData.release();
}

QW_API void LoggedStrTableThreadDataFree(LoggedStrTableThreadData *threadData) {
  if (!threadData) return;
  LoggedStrDictThreadDataFree(threadData->dict);
  BoxLVMThreadDataFree(threadData->box);
  ArrayFree(threadData->buffer);
  delete threadData;
}

QW_API int LoggedStrTableGet(LoggedStrTable *table, LoggedStrTableThreadData *threadData, const void *key,
                             uint32_t length, const uint8_t **value, uint32_t *valueLength) {
  uint64_t id = LSTRDICT_NO_ID;
  if (!LoggedStrDictLookup(table->dict, threadData->dict, key, length, 0, &id) || id == LSTRDICT_NO_ID) return 0;
  const uint8_t *storedKey = nullptr;
  uint32_t storedLength = 0;
  if (!ReadEntry(table, threadData, id, &storedKey, &storedLength, value, valueLength)) return 0;
  // An id handed out again names another key's entry.
  return storedLength == length && std::memcmp(storedKey, key, length) == 0 ? 1 : 0;
}

QW_API int LoggedStrTableSet(LoggedStrTable *table, LoggedStrTableThreadData *threadData, const void *key,
                             uint32_t length, const void *value, uint32_t valueLength) {
  qw::lvm::HeldRW shared(table->lock, false);
  uint64_t id = LSTRDICT_NO_ID;
  if (!LoggedStrDictLookup(table->dict, threadData->dict, key, length, 1, &id)) return 0;
  if (id == LSTRDICT_NO_ID) return 1;  // the dictionary has reported it
  if (id > BOXLVM_NO_ID - 1) return QWErrorThrow(75, QW_ERROR_CLASS_GENERAL, "string table id %llu past the box's ids",
                                                 static_cast<unsigned long long>(id));
  std::vector<uint8_t> &entry = threadData->entry;
  if (entry.capacity() > (1u << 20)) std::vector<uint8_t>().swap(entry);
  entry.resize(qw::kVarintMaxBytes);
  entry.resize(qw::VarintEncode(entry.data(), length));
  const auto *keyBytes = static_cast<const uint8_t *>(key);
  const auto *valueBytes = static_cast<const uint8_t *>(value);
  entry.insert(entry.end(), keyBytes, keyBytes + length);
  if (valueLength) entry.insert(entry.end(), valueBytes, valueBytes + valueLength);
  return Update(table, id, entry.data(), uint32_t(entry.size())) ? 1 : 0;
}

QW_API int LoggedStrTableDelete(LoggedStrTable *table, LoggedStrTableThreadData *threadData, const void *key,
                                uint32_t length) {
  qw::lvm::HeldRW shared(table->lock, false);
  uint64_t id = LSTRDICT_NO_ID;
  if (!LoggedStrDictLookup(table->dict, threadData->dict, key, length, 0, &id)) return 0;
  if (id == LSTRDICT_NO_ID) return 1;
  // The entry is emptied, not removed: the id keeps a (dead) entry.
  if (!Update(table, id, nullptr, 0)) return 0;
  return LoggedStrDictDelete(table->dict, threadData->dict, key, length);
}

QW_API int LoggedStrTableCheckpoint(LoggedStrTable *table, int commit) {
  std::unique_ptr<qw::lvm::HeldRW> exclusive;
  if (commit) exclusive = std::make_unique<qw::lvm::HeldRW>(table->lock, true);
  CrashPoint(table, "lstrtablecheckpoint0");
  if (!BoxLVMSerialGet(table->box, &table->serials)) return 0;
  const uint64_t dictSerial = LoggedStrDictSerialGet(table->dict);
  CrashPoint(table, "lstrtablecheckpoint1");
  if (!LoggedStrDictCheckpoint(table->dict, commit, dictSerial)) return 0;
  CrashPoint(table, "lstrtablecheckpoint2");
  if (!BoxLVMCheckpoint(table->box, commit, &table->serials)) return 0;
  CrashPoint(table, "lstrtablecheckpoint3");
  return 1;
}

QW_API LoggedStrTableEnumeration *LoggedStrTableEnumerationNew(LoggedStrTable *table, const void *prefix,
                                                               uint32_t length) {
  auto enumeration = std::make_unique<LoggedStrTableEnumeration>();
  enumeration->table = table;
  enumeration->threadData = LoggedStrTableThreadDataNew();
  enumeration->ids = LoggedStrDictEnumerationNew(table->dict, prefix, length);
  if (!enumeration->threadData || !enumeration->ids) {
    LoggedStrTableEnumerationFree(enumeration.release());
    return nullptr;
  }
  return enumeration.release();
}

QW_API int LoggedStrTableEnumerationGetNext(LoggedStrTableEnumeration *enumeration, const uint8_t **key,
                                            uint32_t *keyLength, const uint8_t **value, uint32_t *valueLength) {
  uint64_t id = 0;
  while (LoggedStrDictEnumerationGetNext(enumeration->ids, &id))
    if (ReadEntry(enumeration->table, enumeration->threadData, id, key, keyLength, value, valueLength)) return 1;
  return 0;
}

QW_API void LoggedStrTableEnumerationFree(LoggedStrTableEnumeration *enumeration) {
  if (!enumeration) return;
  LoggedStrDictEnumerationFree(enumeration->ids);
  LoggedStrTableThreadDataFree(enumeration->threadData);
  delete enumeration;
}

}  // extern "C"
