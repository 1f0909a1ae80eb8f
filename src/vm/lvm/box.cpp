// The box: open and close over its status file and buckets, checkpoints,
// the per-id calls handed to the bucket of the id, thread data, and the
// printers of box log records.
#include <cstdio>
#include <cstring>
#include <string>
#include <vector>

#include "qwvm/qwfile.h"
#include "util/endian.h"
#include "vm/lvm/box_internal.h"
#include "vm/lvm/boxrecord.h"

using namespace qw::box;

namespace {

BoxLVMBucket &BucketOf(BoxLVM *box, uint32_t id) { return *box->buckets[id % box->bucketCount]; }

// Reads the bucket count from the status file of `dir`, writing it there
// first for a new box. 0 with an error.
uint32_t StoredBucketCount(const char *dir, uint32_t bucketCount, int create) {
  if (create && !DirectoryCreateDurably(dir)) {
    QWErrorRethrow("Could not write status in %s", dir);
    return 0;
  }
  QWStatus *status = StatusRead_(dir, create ? STATUS_READ_MISSING_OK : 0u);
  if (!status) {
    QWErrorRethrow("Could not read status in %s", dir);
    return 0;
  }
  uint64_t stored = StatusGetParameter(status, BOXLVM_STATUS_BUCKETS);
  if (stored == 0 && create) {
    if (!StatusSetParameter(status, BOXLVM_STATUS_BUCKETS, bucketCount) || !StatusWrite(status, dir)) {
      StatusFree(status);
      QWErrorRethrow("Could not write status in %s", dir);
      return 0;
    }
    stored = bucketCount;
  }
  StatusFree(status);
  if (stored > 0xFFFF) {
    QWErrorThrow(74, QW_ERROR_CLASS_DATA, "the status in %s names %llu buckets", dir,
                 static_cast<unsigned long long>(stored));
    return 0;
  }
  if (stored == 0) QWAssertFail_("bucketCount != 0", __FILE__, __LINE__);
  return uint32_t(stored);
}

void DeleteBuckets(BoxLVM *box) {
  QWErrorSave();
  for (auto &bucket : box->buckets) (void)BoxLVMBucketDelete(std::move(bucket));
  box->buckets.clear();
  QWErrorRestore();
}

}  // namespace

extern "C" {

QW_API BoxLVM *BoxLVMOpen(const char *dir, uint32_t bucketCount, uint32_t arenaParameter, uint32_t stripeCount,
                          int create, int readOnly, PageCache *cache) {
  qwassert_(dir != NULL);
  qwassert_(!create || !readOnly);
  if (std::strlen(dir) >= 260) {
    QWErrorThrow(22, QW_ERROR_CLASS_GENERAL, "filename too long");
    return nullptr;
  }
  const uint32_t count = StoredBucketCount(dir, bucketCount, create);
  if (count == 0) return nullptr;
  auto box = std::make_unique<BoxLVM>();
  std::snprintf(box->dir, sizeof box->dir, "%s", dir);
  box->readOnly = readOnly ? 1 : 0;
  box->bucketCount = count;
  for (uint32_t n = 0; n < count; ++n) {
    auto bucket = BoxLVMBucketInit(dir, n, count, arenaParameter, stripeCount, create, readOnly, cache);
    if (!bucket) {
      QWErrorRethrow("Could not create bucket number %d", int(n));
      DeleteBuckets(box.get());
      return nullptr;
    }
    box->buckets.push_back(std::move(bucket));
  }
  return box.release();
}

QW_API int BoxLVMClose(BoxLVM *box, int checkpoint) {
  if (!box) return 1;
  if (!box->readOnly && checkpoint && !BoxLVMCheckpoint(box, 0, nullptr)) {
    QWErrorRethrow("Could not checkpoint BoxLVM before closing");
    return 0;
  }
  bool ok = true;
  for (auto &bucket : box->buckets) {
    if (ok) {
      ok = BoxLVMBucketDelete(std::move(bucket));
    } else {
      QWErrorSave();
      (void)BoxLVMBucketDelete(std::move(bucket));
      QWErrorRestore();
    }
  }
  delete box;
  return ok ? 1 : 0;
}

QW_API uint32_t BoxLVMBucketCount(BoxLVM *box) { return box->bucketCount; }

QW_API int BoxLVMSerialGet(BoxLVM *box, uint64_t **serials) {
  if (*serials && ArrayCapacity(*serials) > kScratchLimit) ArrayFree(*serials);
  if (!*serials && !ArrayInit(*serials, sizeof(uint64_t), box->bucketCount)) return 0;
  (void)ArrayLengthSet(*serials, 0);
  for (auto &bucket : box->buckets)
    if (!ArrayAppend(*serials, LoggedVMSerialGet(bucket->lvm))) return 0;
  return 1;
}

QW_API int BoxLVMCheckpoint(BoxLVM *box, int commit, uint64_t **serials) {
  if (box->readOnly) return QWErrorThrow(13, QW_ERROR_CLASS_GENERAL, "cannot checkpoint in read-only mode");
  if (serials != nullptr && ArrayLength(*serials) != box->buckets.size())
    QWAssertFail_("serial == NULL || ArrayLength(*serial) == ArrayLength(blvm->bucket)", __FILE__, __LINE__);
  for (size_t n = 0; n < box->buckets.size(); ++n) {
    const uint64_t upTo = serials ? (*serials)[n] : LVM_NO_SERIAL;
    if (!LoggedVMCheckpoint(box->buckets[n]->lvm, commit, upTo)) return 0;
  }
  return 1;
}

QW_API uint64_t BoxLVMSize(BoxLVM *box) {
  uint64_t total = 0;
  for (auto &bucket : box->buckets) total += BoxLVMBucketSize(*bucket);
  return total;
}

QW_API int BoxLVMUpdate(BoxLVM *box, uint32_t id, uint32_t reserved1, uint32_t reserved2, const void *data,
                        uint32_t size, int *isNew, int *inError) {
  return BoxLVMBucketUpdate(BucketOf(box, id), id, reserved1, reserved2, data, size, false, isNew, inError) ? 1 : 0;
}

QW_API int BoxLVMRemove(BoxLVM *box, uint32_t id, int *inError) {
  return BoxLVMBucketUpdate(BucketOf(box, id), id, 0, 0, nullptr, 0, true, nullptr, inError) ? 1 : 0;
}

QW_API int BoxLVMGet(BoxLVM *box, BoxLVMThreadData *threadData, uint32_t id, uint8_t **value) {
  qwassert_(threadData != NULL && value != NULL);
  return BoxLVMBucketGet(BucketOf(box, id), threadData, id, value, false);
}

QW_API int BoxLVMExists(BoxLVM *box, uint32_t id) {
  return BoxLVMBucketGet(BucketOf(box, id), nullptr, id, nullptr, true);
}

QW_API int BoxLVMThreadDataInit(BoxLVMThreadData *threadData) {
  threadData->block = BoxLVMDataFileThreadDataNew();
  return threadData->block != nullptr;
}

QW_API void BoxLVMThreadDataDelete(BoxLVMThreadData *threadData) {
  BoxLVMDataFileThreadDataFree(threadData->block);
  threadData->block = nullptr;
}

QW_API BoxLVMThreadData *BoxLVMThreadDataNew(void) {
  auto *threadData = static_cast<BoxLVMThreadData *>(Allocate(sizeof(BoxLVMThreadData)));
  if (threadData && !BoxLVMThreadDataInit(threadData)) {
    UnAllocate(threadData);
    return nullptr;
  }
  return threadData;
}

QW_API void BoxLVMThreadDataFree(BoxLVMThreadData *threadData) {
  if (!threadData) return;
  BoxLVMThreadDataDelete(threadData);
  UnAllocate(threadData);
}

QW_API void BoxOpDebug(const void *record, uint32_t size, uint32_t type) {
  const auto *bytes = static_cast<const uint8_t *>(record);
  switch (type) {
    case BOX_FP_GET_ID:
      if (size == 12) std::printf("BoxFPGetId %llu, %d\n", (unsigned long long)qw::LoadLE64(bytes), int(qw::LoadLE32(bytes + 8)));
      else std::printf("BoxFPGetId(*** invalid parm size %u ***)\n", size);
      return;
    case BOX_FP_INC_REF:
    case BOX_FP_DEC_REF:
      if (size == 4) std::printf(type == BOX_FP_INC_REF ? "BoxFPIncRef %d\n" : "BoxFPDecRef %d\n", int(qw::LoadLE32(bytes)));
      else std::printf("%s(*** invalid parm size %u ***)\n", type == BOX_FP_INC_REF ? "BoxFPIncRef" : "BoxFPDecRef", size);
      return;
    default: break;
  }
  std::string text;
  const int formatted = FormatBoxRecord(type, bytes, size, &text);
  if (formatted < 0) {
    LoggedVMOpDebug(type, record, size);
    return;
  }
  if (formatted == 0) {
    text = std::string(type == BOX_UPDATE ? "BoxUpdate" : "BoxDataExtend") + "(*** " + QWErrorMessage() + " ***)\n";
    QWErrorClear();
  }
  std::fputs(text.c_str(), stdout);
}

QW_API int BoxOpLogRead(LogReadContext *context, uint64_t serial, uint32_t *type, uint8_t **payload,
                        uint64_t *next) {
  uint32_t kind = 0, size = 0;
  if (!LogRead(context, serial, &kind, nullptr, &size, nullptr, nullptr))
    return QWErrorRethrow("could not read log operation");
  if (!*payload && !ArrayInit(*payload, 1, size ? size : 1)) return 0;
  if (!ArrayLengthSet(*payload, size)) return 0;
  uint32_t got = size;
  if (!LogRead(context, serial, &kind, *payload, &got, next, nullptr))
    return QWErrorRethrow(kind == BOX_UPDATE ? "could not read BOX_UPDATE log operation" : "could not read log operation");
  if (type) *type = kind;
  BoxUpdate update;
  uint32_t total = 0;
  if (kind == BOX_UPDATE && !DecodeBoxUpdate(*payload, size, &update))
    return QWErrorRethrow("could not decompact BOX_UPDATE log operation");
  if (kind == BOX_DATA_EXTEND && !DecodeBoxDataExtend(*payload, size, &total))
    return QWErrorRethrow("could not decompact BoxDataExtend log operation");
  return 1;
}

}  // extern "C"
