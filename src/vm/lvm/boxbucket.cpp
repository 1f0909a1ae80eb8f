// A box bucket's life: init (directories, logged arena, metadata, recovery,
// the data file), delete, and the callbacks its logged arena calls at
// checkpoints and during recovery.
#include <algorithm>
#include <string>
#include <vector>

#include "qwvm/qwfile.h"
#include "util/endian.h"
#include "vm/lvm/box_internal.h"
#include "vm/lvm/lvm_internal.h"
#include "vm/lvm/boxrecord.h"
#include "vm/olib/common/cells.h"

namespace qw::box {
namespace {

constexpr uint32_t kStripeLimit = 1024;

BoxLVMBucket *Of(void *context) { return static_cast<BoxLVMBucket *>(context); }

int SyncExternal(void *context) {
  BoxLVMBucket *bucket = Of(context);
  if (!bucket->data)
    return QWErrorThrow(5, QW_ERROR_CLASS_DATA, "no data file open in %s", bucket->dir.c_str());
  return BoxLVMDataSync(bucket->data);
}

int RecycleSetNew(void *context) {
  SetAsideFreed(*Of(context));
  return 1;
}

int Recycle(void *context) {
  BoxLVMBucket *bucket = Of(context);
  RWLockAcquireWrite_(bucket->lock);
  const bool ok = RecycleSetAside(*bucket);
  RWLockRelease_(bucket->lock);
  return ok ? 1 : 0;
}

// Applies one record read at `serial` (its payload in `payload`).
bool ReplayRecord(BoxLVMBucket &bucket, uint64_t serial, uint32_t type, const std::vector<uint8_t> &payload) {
  switch (type) {
    case BOX_UPDATE:
      if (ReplayUpdate(bucket, payload.data(), uint32_t(payload.size()))) return true;
      QWMessage(QW_LEVEL_WARNING, "a block update replay failed");
      return QWErrorRethrow("could not process update log entry");
    case BOX_DATA_EXTEND: {
      uint32_t total = 0;
      if (!DecodeBoxDataExtend(payload.data(), payload.size(), &total) ||
          !ParamSet(bucket, BOXLVM_PARAM_TOTAL_UNITS, total))
        return QWErrorRethrow("could not process data file extension log entry");
      return true;
    }
    default:
      if (LoggedVMProcessFun(bucket.lvm, serial, type)) return true;
      if (QWErrorIsSet()) return QWErrorRethrow("could not process generic log entry");
      return QWErrorThrow(4, QW_ERROR_CLASS_DATA, "could not process generic log entry (type %u)", type);
  }
}

int Replay(LogReadContext *context, uint64_t first, uint64_t last, void *callbackContext) {
  BoxLVMBucket &bucket = *Of(callbackContext);
  bucket.replaying = true;
  std::vector<uint8_t> payload(64);
  bool ok = true;
  for (uint64_t serial = first; ok && serial <= last;) {
    uint32_t type = 0, size = uint32_t(payload.size());
    uint64_t next = 0;
    ok = LogRead(context, serial, &type, payload.data(), &size, &next, nullptr) != 0;
    if (ok && size > payload.size()) {
      payload.resize(size);
      ok = LogRead(context, serial, &type, payload.data(), &size, &next, nullptr) != 0;
    }
    if (!ok) {
      QWErrorRethrow("could not decode log entry");
      break;
    }
    payload.resize(size);
    ok = ReplayRecord(bucket, serial, type, payload);
    payload.resize(payload.capacity());
    serial = next;
  }
  bucket.replaying = false;
  return ok ? 1 : 0;
}

bool MakeDirectory(const std::string &path, const char *failure) {
  return DirectoryCreateDurably(path.c_str()) || QWErrorRethrow("%s", failure);
}

// Commits the new arena (creation is not a checkpoint: no stop fires).
bool CommitCreated(BoxLVMBucket &bucket) {
  return qw::lvm::CommitArenaQuietly(LoggedVMArenaGet(bucket.lvm)) ||
         QWErrorRethrow("could not commit metadata arena");
}

// Boxes written before the entry count was kept have two params: count the
// mapped local indexes once.
bool UpgradeEntryCount(BoxLVMBucket &bucket) {
  const VMAArrayHandle &params = bucket.meta.params;
  if (olib::CellCount(params, NEWGEN) != 2) return true;
  const VMAArrayHandle &mapping = bucket.meta.primMapping;
  const uint32_t length = olib::CellCount(mapping, NEWGEN);
  QWMessage(QW_LEVEL_PROGRESS, "initializing documents count (%i mapping entries)", int(length));
  uint32_t count = 0;
  for (uint32_t local = 0; local < length; ++local) {
    uint32_t primary = 0;
    if (!olib::CellGet(mapping, local, NEWGEN, &primary)) return false;
    if (primary != kNoPrimary) ++count;
  }
  if (!olib::CellAppend(params, count)) return false;
  if (olib::CellCount(params, NEWGEN) != 3)
    QWAssertFail_("VMAArrayLength(bucket->meta.params, NEWGEN) == 3", __FILE__, __LINE__);
  if (BoxLVMBucketSize(bucket) != count) QWAssertFail_("LoggedVMGetSize(bucket) == count", __FILE__, __LINE__);
  QWMessage(QW_LEVEL_PROGRESS, "initialized documents count to %i", int(count));
  return true;
}

bool OpenMetadata(BoxLVMBucket &bucket, int create, int readOnly, bool lvmCreated) {
  bucket.meta.arena = LoggedVMArenaGet(bucket.lvm);
  int metaCreated = 0;
  if (!BoxLVMMetadataInit(&bucket.meta, "bucket", create, readOnly, &metaCreated)) return false;
  if (!readOnly && !LoggedVMRecover(bucket.lvm)) return QWErrorRethrow("could not recover metadata for BoxLVM");
  if ((lvmCreated || metaCreated) && !readOnly && !CommitCreated(bucket)) return false;
  return readOnly || UpgradeEntryCount(bucket);
}

bool OpenDataFile(BoxLVMBucket &bucket, const std::string &dataDir, int create, int readOnly, PageCache *cache) {
  uint32_t total = 0;
  if (!ParamGet(bucket, BOXLVM_PARAM_TOTAL_UNITS, &total)) return false;
  bucket.data = BoxLVMDataFileOpen(dataDir.c_str(), total >> 8, create, readOnly, 0, 0, 0, cache);
  return bucket.data != nullptr || QWErrorRethrow("could not open bucket datafile");
}

bool InitBucket(BoxLVMBucket &bucket, const char *dir, uint32_t number, uint32_t arenaParameter,
                uint32_t stripeCount, int create, int readOnly, PageCache *cache) {
  if (QWForcedError("BoxLVMBucketInit", 0, QW_ERROR_CLASS_SYSTEM)) return false;
  bucket.lock = RWLockInit();
  bucket.stripes = std::vector<BoxStripe>(stripeCount == 0 ? 1 : std::min(stripeCount, kStripeLimit));
  bucket.dataThreadData = BoxLVMDataFileThreadDataNew();
  if (!bucket.lock || !bucket.dataThreadData)
    return QWErrorThrow(12, QW_ERROR_CLASS_SYSTEM, "out of memory for a box bucket");
  std::string name = "bucket." + std::to_string(number), dataDir;
  if (!JoinPath(dir, name, &bucket.dir) || !JoinPath(bucket.dir, "data", &dataDir)) return false;
  if (create && (!MakeDirectory(bucket.dir, "could not create bucket directory") ||
                 !MakeDirectory(dataDir, "could not create data directory")))
    return false;
  int lvmCreated = 0;
  bucket.lvm = LoggedVMOpen(bucket.dir.c_str(), arenaParameter, create, readOnly, &lvmCreated, 0, 0, SyncExternal,
                            RecycleSetNew, Recycle, Replay, &bucket);
  if (!bucket.lvm) return QWErrorRethrow("could not create LoggedVM");
  if (!OpenMetadata(bucket, create, readOnly, lvmCreated != 0))
    return QWErrorRethrow("could not initialize metadata for bucket");
  return OpenDataFile(bucket, dataDir, create, readOnly, cache);
}

}  // namespace

uint32_t BoxLVMBucketSize(BoxLVMBucket &bucket) {
  uint32_t count = 0;
  if (!ParamGet(bucket, BOXLVM_PARAM_ENTRIES, &count)) return 0;
  return count;
}

std::unique_ptr<BoxLVMBucket> BoxLVMBucketInit(const char *dir, uint32_t number, uint32_t bucketCount,
                                               uint32_t arenaParameter, uint32_t stripeCount, int create,
                                               int readOnly, PageCache *cache) {
  auto bucket = std::make_unique<BoxLVMBucket>();
  bucket->readOnly = readOnly ? 1 : 0;
  bucket->bucketCount = bucketCount;
  bucket->number = number;
  if (InitBucket(*bucket, dir, number, arenaParameter, stripeCount, create, readOnly, cache)) return bucket;
  QWErrorSave();
  (void)BoxLVMBucketDelete(std::move(bucket));
  QWErrorRestore();
  return nullptr;
}

bool BoxLVMBucketDelete(std::unique_ptr<BoxLVMBucket> bucket) {
  if (!bucket) return true;
  bool ok = true;
  if (bucket->data && !BoxLVMDataClose(bucket->data)) ok = false;
  bucket->data = nullptr;
  BoxLVMMetadataFree(&bucket->meta);
  if (bucket->lvm) {
    if (ok) {
      ok = LoggedVMClose(bucket->lvm) != 0;
    } else {
      QWErrorSave();
      (void)LoggedVMClose(bucket->lvm);
      QWErrorRestore();
    }
    UnAllocate(bucket->lvm);
  }
  for (BoxStripe &stripe : bucket->stripes) {
    if (stripe.mutex) MutexDestroy(stripe.mutex);
    BoxLVMDataFileThreadDataFree(stripe.block);
  }
  BoxLVMDataFileThreadDataFree(bucket->dataThreadData);
  if (bucket->lock) RWLockDestroy(bucket->lock);
  return ok;
}

}  // namespace qw::box
