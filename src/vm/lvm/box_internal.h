// Internals of the box store shared by its source files: the box and bucket
// records, the metadata access of a bucket and its allocator space.
//
// Bucket invariants:
// - every unit of the data file below params[0] is in exactly one of: a block
//   mapped by "primMapping"/"secMapping", a persistent free list, a recycle
//   list (meta.blocks), or a block allocated by an update still running;
// - params[1] (total units) never exceeds the data file's size in units,
//   params[0] <= params[1], both multiples of 256;
// - params[2] counts the local indexes whose primary handle is not all ones;
// - a secondary id is either mapped by exactly one entry, on
//   "secMappingFreeList", or in freeListSecMappingNew[0 or 1].
// The metadata (params, free lists, mapping) changes only under the log
// mutex; the mapping also under the bucket lock held exclusively, so that
// readers holding it shared see a whole mapping.
#pragma once

#include <cstdint>
#include <memory>
#include <string>
#include <vector>

#include "qwvm/box.h"
#include "qwvm/boxdata.h"
#include "vm/lvm/boxalloc.h"

struct BoxRecycleLists {
  qw::box::RecycleLists lists;
};

// Scratch of one update stripe; buffers that grew past kScratchLimit
// elements are dropped before reuse.
struct BoxStripe {
  QWMutex *mutex = nullptr;  // made on first use
  std::vector<uint32_t> oldHandles, newHandles;
  std::vector<uint8_t> oldClasses, newClasses, record;
  BoxLVMDataFileThreadData *block = nullptr;
};

struct BoxLVMBucket {
  uint32_t readOnly = 0;
  uint32_t bucketCount = 1;
  uint32_t number = 0;
  std::string dir;  // <box>/bucket.N
  QWRWLock *lock = nullptr;
  LoggedVM *lvm = nullptr;
  BoxLVMMetadata meta{};
  std::vector<BoxStripe> stripes;
  BoxLVMDataFileThreadData *dataThreadData = nullptr;
  BoxLVMDataFile *data = nullptr;
  bool replaying = false;
  // Size classes whose persistent free list is known to be empty, so that
  // the allocator's search over the classes above the one it needs (up to
  // 255 lists) does not read each list's length in the arena. The lists
  // change only through BucketSpace, under the log mutex, which keeps these
  // bits exact; none is set when the bucket opens (nothing known yet).
  uint64_t emptyFreeLists[BOXLVM_SIZE_CLASSES / 64] = {};
};

struct BoxLVM {
  char dir[261];
  uint32_t readOnly;
  std::vector<std::unique_ptr<BoxLVMBucket>> buckets;
  uint32_t bucketCount;
};

namespace qw::box {

inline constexpr uint32_t kNoPrimary = 0xFFFFFFFFu;
// An entry of length 0 has no block: its primary handle is the even value
// that no block handle reaches (2 * (BOXLVM_HANDLE_MAXVALUE + 1)).
inline constexpr uint32_t kEmptyPrimary = 0xFFFFFFFEu;
inline constexpr size_t kScratchLimit = 10000;

// Builds "<a>/<b>" into *out; code 22 "filename too long" at 260 bytes or
// more.
[[nodiscard]] bool JoinPath(const std::string &a, const std::string &b, std::string *out);

// ---- buckets (boxbucket.cpp) ----
[[nodiscard]] std::unique_ptr<BoxLVMBucket> BoxLVMBucketInit(const char *dir, uint32_t number, uint32_t bucketCount,
                                                             uint32_t arenaParameter, uint32_t stripeCount,
                                                             int create, int readOnly, PageCache *cache);
[[nodiscard]] bool BoxLVMBucketDelete(std::unique_ptr<BoxLVMBucket> bucket);
uint32_t BoxLVMBucketSize(BoxLVMBucket &bucket);

// ---- updates and reads (boxupdate.cpp) ----
[[nodiscard]] bool BoxLVMBucketUpdate(BoxLVMBucket &bucket, uint32_t id, uint32_t reserved1, uint32_t reserved2,
                                      const void *data, uint32_t size, bool remove, int *isNew, int *inError);
// 1 found, 0 absent (no error) or failed (error set).
[[nodiscard]] int BoxLVMBucketGet(BoxLVMBucket &bucket, BoxLVMThreadData *threadData, uint32_t id, uint8_t **value,
                                  bool existsOnly);
// Re-applies a BOX_UPDATE record to the metadata (no data is written).
[[nodiscard]] bool ReplayUpdate(BoxLVMBucket &bucket, const uint8_t *payload, uint32_t size);

// ---- metadata (boxmetadata.cpp) ----
// The handles of local index `local` into *handles (emptied when there is no
// entry); *found tells which. Caller holds the bucket lock (either mode).
[[nodiscard]] bool BoxLVMBucketHandleGet(BoxLVMBucket &bucket, uint32_t local, std::vector<uint32_t> *handles,
                                         bool *found);
// Points local index `local` at `handles` (an entry when `present`, empty
// without handles; no entry otherwise), giving back the secondary id it used
// before. Caller holds the log mutex and the bucket lock exclusively.
[[nodiscard]] bool WriteMapping(BoxLVMBucket &bucket, uint32_t local, const std::vector<uint32_t> &handles,
                                bool present);
[[nodiscard]] bool ParamGet(BoxLVMBucket &bucket, uint32_t index, uint32_t *value);
[[nodiscard]] bool ParamSet(BoxLVMBucket &bucket, uint32_t index, uint32_t value);
// The checkpoint's two recycling steps on the in-memory lists.
void SetAsideFreed(BoxLVMBucket &bucket);
[[nodiscard]] bool RecycleSetAside(BoxLVMBucket &bucket);

// The allocator's view of a bucket: its free lists and params, the data file
// and the log (a BoxDataExtend record per growth).
class BucketSpace final : public BlockSpace {
 public:
  explicit BucketSpace(BoxLVMBucket &bucket) : bucket_(bucket) {}
  bool FreeListPop(uint32_t sizeClass, uint32_t *handle) override;
  bool FreeListPush(uint32_t sizeClass, uint32_t handle) override;
  uint32_t FreeListCandidate(uint32_t from) override;
  bool ParamGet(uint32_t index, uint32_t *value) override { return qw::box::ParamGet(bucket_, index, value); }
  bool ParamSet(uint32_t index, uint32_t value) override { return qw::box::ParamSet(bucket_, index, value); }
  bool GrowDataFile(uint32_t pages, uint32_t *newPages) override;
  bool LogExtension(uint32_t totalUnits) override;

 private:
  BoxLVMBucket &bucket_;
};

}  // namespace qw::box
