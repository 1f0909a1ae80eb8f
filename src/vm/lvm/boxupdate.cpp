// Updating and reading one entry of a box bucket, and the replay of a
// logged update.
//
// An update runs in four steps, each under the locks it names:
//   1. stripe mutex + writer ticket: read the old entry's handles (bucket
//      lock shared) and their classes (block headers);
//   2. log mutex: count, free the old blocks into the recycle lists,
//      allocate the new ones (a BoxDataExtend record when the file grows),
//      log the BOX_UPDATE record;
//   3. no lock: write the value into the new blocks;
//   4. log mutex + bucket lock exclusive: point the mapping at them.
// Replay repeats step 2 from the record (without logging) and step 4: the
// allocator is deterministic, so it picks the same blocks. A failure after
// step 2 has changed the metadata leaves memory ahead of what the log can
// rebuild: the bucket is put in error (no update, no checkpoint) until it is
// reopened and recovered from its log.
#include <cstring>
#include <string>
#include <vector>

#include "vm/lvm/box_internal.h"
#include "vm/lvm/boxrecord.h"
#include "vm/lvm/lvm_internal.h"

namespace qw::box {
namespace {

constexpr int kBoxInError = 6;

// The writer ticket of an update, given back on every path.
class WriterTicket {
 public:
  explicit WriterTicket(LoggedVM *lvm) : lvm_(lvm), ticket_(LoggedVMWriterAcquire(lvm)) {}
  ~WriterTicket() {
    if (ok()) LoggedVMWriterRelease(lvm_, ticket_);
  }
  WriterTicket(const WriterTicket &) = delete;
  WriterTicket &operator=(const WriterTicket &) = delete;
  bool ok() const { return ticket_ != LVM_NO_SERIAL; }

 private:
  LoggedVM *lvm_;
  uint64_t ticket_;
};

class LogMutex {
 public:
  explicit LogMutex(LoggedVM *lvm) : lvm_(lvm) { LoggedVMAcquire(lvm_); }
  ~LogMutex() { LoggedVMRelease(lvm_); }
  LogMutex(const LogMutex &) = delete;
  LogMutex &operator=(const LogMutex &) = delete;

 private:
  LoggedVM *lvm_;
};

template <class T>
void ResetScratch(std::vector<T> &v) {
  if (v.capacity() > kScratchLimit) std::vector<T>().swap(v);
  v.clear();
}

uint32_t LocalIndex(const BoxLVMBucket &bucket, uint32_t id) { return id / bucket.bucketCount; }

// Step 1: the old entry's handles and, from their headers, their classes.
bool ReadOldEntry(BoxLVMBucket &bucket, BoxStripe &stripe, uint32_t id, bool *found) {
  {
    qw::lvm::HeldRW shared(bucket.lock, false);
    if (!BoxLVMBucketHandleGet(bucket, LocalIndex(bucket, id), &stripe.oldHandles, found)) return false;
  }
  for (const uint32_t handle : stripe.oldHandles) {
    uint32_t sizeClass = 0;
    if (!BoxLVMDataBlockSizeGet(bucket.data, handle, &sizeClass))
      return QWErrorRethrow("could not get size of block %i for entry %i", int(handle), int(id));
    stripe.oldClasses.push_back(uint8_t(sizeClass));
  }
  return true;
}

// Step 2 without the record: the count, the old blocks, the new ones.
bool ReallocateBlocks(BoxLVMBucket &bucket, const std::vector<uint32_t> &oldHandles,
                const std::vector<uint8_t> &oldClasses, bool remove, bool existed, uint32_t size,
                std::vector<uint32_t> *newHandles, std::vector<uint8_t> *newClasses) {
  if (remove || !existed) {
    uint32_t count = 0;
    if (!ParamGet(bucket, BOXLVM_PARAM_ENTRIES, &count) ||
        !ParamSet(bucket, BOXLVM_PARAM_ENTRIES, remove ? count - 1 : count + 1))
      return false;
  }
  for (size_t i = 0; i < oldHandles.size(); ++i)
    if (!bucket.meta.blocks->lists.Free(oldClasses[i], oldHandles[i])) return false;
  BucketSpace space(bucket);
  return AllocateEntry(space, remove ? 0 : size, bucket.replaying, newHandles, newClasses);
}

bool LogUpdate(BoxLVMBucket &bucket, BoxStripe &stripe, uint32_t id, bool remove, uint32_t size) {
  BoxUpdate update;
  update.id = id;
  update.remove = remove;
  update.oldClasses = stripe.oldClasses;
  update.sizeNew = remove ? 0 : size;
  EncodeBoxUpdate(update, &stripe.record);
  if (!LogWrite(LoggedVMLogGet(bucket.lvm), BOX_UPDATE, stripe.record.data(), uint32_t(stripe.record.size()), 0))
    return QWErrorRethrow("could not log block allocation operation");
  return true;
}

// Step 3: part i into new block i, chained to block i + 1.
bool WriteParts(BoxLVMBucket &bucket, BoxStripe &stripe, uint32_t id, const uint8_t *data, uint32_t size,
                uint32_t reserved1, uint32_t reserved2) {
  if (!stripe.block && !(stripe.block = BoxLVMDataFileThreadDataNew()))
    return QWErrorThrow(12, QW_ERROR_CLASS_SYSTEM, "out of memory for a block buffer");
  const size_t parts = stripe.newHandles.size();
  for (size_t i = 0; i < parts; ++i) {
    const uint32_t next = i + 1 < parts ? stripe.newHandles[i + 1] : BOXLVM_NO_HANDLE;
    const uint32_t part = uint32_t(i);
    if (!BoxLVMDataBlockEncodeWrite(bucket.data, stripe.block, stripe.newHandles[i], PartLength(size, part),
                                    data + size_t(part) * BOXLVM_MAX_BLOCK_DATA, stripe.newClasses[i], id, part,
                                    next, reserved1, reserved2))
      return QWErrorRethrow("could not write data for part %i", int(part));
  }
  return true;
}

bool PutInError(BoxLVMBucket &bucket) {
  LoggedVMWriterSetError(bucket.lvm);
  return false;
}

}  // namespace

bool BoxLVMBucketUpdate(BoxLVMBucket &bucket, uint32_t id, uint32_t reserved1, uint32_t reserved2,
                        const void *data, uint32_t size, bool remove, int *isNew, int *inError) {
  int isNewScratch = 0, inErrorScratch = 0;
  if (!isNew) isNew = &isNewScratch;
  if (!inError) inError = &inErrorScratch;
  *inError = 0;
  if (bucket.readOnly) return QWErrorThrow(13, QW_ERROR_CLASS_GENERAL, "Cannot update in readOnly mode");
  if (remove) *isNew = 0;
  if (!remove && size > 0 && !data) return QWErrorThrow(22, QW_ERROR_CLASS_GENERAL, "no data for entry %u", id);
  const uint32_t local = LocalIndex(bucket, id);
  BoxStripe &stripe = bucket.stripes[local % bucket.stripes.size()];
  qw::lvm::Held stripeHeld(MutexInit_(&stripe.mutex));
  WriterTicket ticket(bucket.lvm);
  if (!ticket.ok()) return QWErrorThrow(kBoxInError, QW_ERROR_CLASS_DATA, "Box is in error, cannot update");
  for (auto *v : {&stripe.oldHandles, &stripe.newHandles}) ResetScratch(*v);
  for (auto *v : {&stripe.oldClasses, &stripe.newClasses, &stripe.record}) ResetScratch(*v);

  bool existed = false;
  if (!ReadOldEntry(bucket, stripe, id, &existed))
    return QWErrorRethrow("could not get data about old entry for id %i", int(id));
  if (remove && !existed) return QWErrorThrow(2, QW_ERROR_CLASS_GENERAL, "cannot remove non-existing entry");
  if (!remove) *isNew = existed ? 0 : 1;
  {
    LogMutex logMutex(bucket.lvm);
    if (!ReallocateBlocks(bucket, stripe.oldHandles, stripe.oldClasses, remove, existed, size, &stripe.newHandles,
                    &stripe.newClasses)) {
      QWErrorRethrow("could not reallocate blocks for entry %i", int(id));
      return PutInError(bucket);
    }
    if (!LogUpdate(bucket, stripe, id, remove, size)) {
      *inError = 1;
      return PutInError(bucket);
    }
  }
  if (!WriteParts(bucket, stripe, id, static_cast<const uint8_t *>(data), size, reserved1, reserved2)) {
    const std::string cause = QWErrorMessage();
    QWMessage(QW_LEVEL_WARNING, "failed writing data to disk");
    PutInError(bucket);
    return QWErrorThrow(kBoxInError, QW_ERROR_CLASS_DATA, "could not write block to disk : %s", cause.c_str());
  }
  LogMutex logMutex(bucket.lvm);
  qw::lvm::HeldRW exclusive(bucket.lock, true);
  if (!WriteMapping(bucket, local, stripe.newHandles, !remove)) {
    QWErrorRethrow("could not write mapping for entry %i", int(id));
    return PutInError(bucket);
  }
  return true;
}

bool ReplayUpdate(BoxLVMBucket &bucket, const uint8_t *payload, uint32_t size) {
  BoxUpdate update;
  if (!DecodeBoxUpdate(payload, size, &update)) return false;
  const uint32_t local = LocalIndex(bucket, update.id);
  std::vector<uint32_t> oldHandles, newHandles;
  std::vector<uint8_t> newClasses;
  bool existed = false;
  if (!BoxLVMBucketHandleGet(bucket, local, &oldHandles, &existed)) return false;
  if (oldHandles.size() != update.oldClasses.size() || (update.remove && !existed))
    return QWErrorThrow(4, QW_ERROR_CLASS_DATA,
                        "the update of entry %u names %zu old blocks where the mapping holds %zu", update.id,
                        update.oldClasses.size(), oldHandles.size());
  if (!ReallocateBlocks(bucket, oldHandles, update.oldClasses, update.remove, existed, update.sizeNew, &newHandles,
                  &newClasses))
    return false;
  return WriteMapping(bucket, local, newHandles, !update.remove);
}

int BoxLVMBucketGet(BoxLVMBucket &bucket, BoxLVMThreadData *threadData, uint32_t id, uint8_t **value,
                    bool existsOnly) {
  thread_local std::vector<uint32_t> handles;
  ResetScratch(handles);
  if (value) {
    if (!*value && !ArrayInit(*value, 1, 64)) return 0;
    if (ArrayCapacity(*value) > kScratchLimit * 100) {
      ArrayFree(*value);
      if (!ArrayInit(*value, 1, 64)) return 0;
    }
    (void)ArrayLengthSet(*value, 0);
  }
  const uint64_t ticket = LoggedVMReaderAcquire(bucket.lvm);
  bool found = false, ok;
  {
    qw::lvm::HeldRW shared(bucket.lock, false);
    ok = BoxLVMBucketHandleGet(bucket, LocalIndex(bucket, id), &handles, &found);
  }
  for (size_t i = 0; ok && found && !existsOnly && i < handles.size(); ++i) {
    const uint32_t next = i + 1 < handles.size() ? handles[i + 1] : BOXLVM_NO_HANDLE;
    uint32_t length = 0;
    const uint8_t *bytes = nullptr;
    ok = BoxLVMDataBlockReadDecode(bucket.data, threadData->block, handles[i], 1, id, uint32_t(i), next, nullptr,
                                   nullptr, nullptr, nullptr, nullptr, &length, &bytes) != 0;
    if (!ok) {
      QWErrorRethrow("BoxLVMBucketGet: data read failed");
      break;
    }
    const size_t at = ArrayLength(*value);
    ok = ArrayGrow(*value, length) != 0;
    if (ok) std::memcpy(*value + at, bytes, length);
  }
  LoggedVMReaderRelease(bucket.lvm, ticket);
  if (ok && !found) QWErrorClear();  // absent, not failed
  return ok && found ? 1 : 0;
}

}  // namespace qw::box
