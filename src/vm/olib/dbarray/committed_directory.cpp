#include "vm/olib/dbarray/committed_directory.h"

#include <algorithm>

#include "vm/arena/generation_epoch.h"

namespace qw::dba {
namespace {

bool Matches(const CommittedDirectory *copy, const DBArrayBucket &bucket, uint64_t epoch) {
  return copy && copy->epoch == epoch && copy->firstHandleId == bucket.firstHandle.id[OLDGEN] &&
         copy->dataBlocksId == bucket.dataBlocks.id[OLDGEN];
}

}  // namespace

uint32_t CommittedDirectory::BlockOf(uint32_t handle) const {
  if (firstHandles.empty() || handle / kDirectoryStride >= indexLength) return kNone;
  auto after = std::upper_bound(firstHandles.begin(), firstHandles.end(), handle);
  return uint32_t(after - firstHandles.begin()) - 1;  // firstHandles[0] == 0 <= handle
}

const CommittedDirectory *CommittedDirectories::Get(DBArray *array, uint32_t bucketIndex,
                                                    const DBArrayBucket &bucket) {
  Slot &slot = slots_[bucketIndex];
  const uint64_t epoch = vm::OldGenerationEpoch(array->arena);
  const CommittedDirectory *copy = slot.current.load(std::memory_order_acquire);
  if (Matches(copy, bucket, epoch)) return copy;
  std::lock_guard<std::mutex> lock(buildMutex_);
  copy = slot.current.load(std::memory_order_acquire);
  if (Matches(copy, bucket, epoch)) return copy;  // another reader built it
  return Build(array, bucketIndex, bucket, &slot, epoch);
}

const CommittedDirectory *CommittedDirectories::Build(DBArray *array, uint32_t bucketIndex,
                                                      const DBArrayBucket &bucket, Slot *slot, uint64_t epoch) {
  auto copy = std::make_unique<CommittedDirectory>();
  copy->epoch = epoch;
  copy->firstHandleId = bucket.firstHandle.id[OLDGEN];
  copy->dataBlocksId = bucket.dataBlocks.id[OLDGEN];
  Where where{array, bucketIndex, kNone};
  BucketShape shape;
  if (!ReadShape(where, bucket, OLDGEN, &shape)) return nullptr;
  copy->firstHandles.resize(shape.blockCount);
  copy->indexLength = shape.indexLength;
  U32Cursor firstHandles(bucket.firstHandle, array->locked[OLDGEN], OLDGEN, 1);
  for (uint32_t b = 0; b < shape.blockCount; ++b) {
    if (!firstHandles.Get(b, &copy->firstHandles[b])) return nullptr;
    where.block = b;
    if (b == 0 ? copy->firstHandles[0] != 0 : copy->firstHandles[b] <= copy->firstHandles[b - 1]) {
      Corrupted(where, "first handles rise strictly from 0");
      return nullptr;
    }
  }
  slot->previous = std::move(slot->owned);
  slot->owned = std::move(copy);
  slot->current.store(slot->owned.get(), std::memory_order_release);
  return slot->owned.get();
}

}  // namespace qw::dba
