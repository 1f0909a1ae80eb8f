// The block-directory array record and the helpers its files share.
//
// Invariants of a bucket (in each generation; DBArrayCheck verifies them):
//  - The data block array and the firstHandle array have the same length,
//    the block count. firstHandle[0] == 0 and firstHandle rises strictly:
//    block b holds the handles firstHandle[b] .. firstHandle[b + 1] - 1 (the
//    last block up to the bucket's size - 1), at least one.
//  - The index array has ceil(size / 64) entries; entry i names a block
//    whose first handle is <= 64 * i (the block holding handle 64 * i or an
//    earlier one: lookups walk forward from it).
//  - Each data block satisfies the format of block_format.h.
// A change keeps every invariant whenever it returns, also after a failure
// (a failed change leaves the bucket as it was, or with blocks merged or
// split but equivalent).
#pragma once

#include <cstdint>

#include "qwvm/dbarray.h"
#include "qwvm/qwlib.h"
#include "qwvm/vmaarray.h"

// One bucket: its three arrays.
struct DBArrayBucket {
  VMAArrayHandle dataBlocks;   // block array (maximum block size 4096)
  VMAArrayHandle index;        // 32-bit: entry i, block where handle 64 * i is searched from
  VMAArrayHandle firstHandle;  // 32-bit: entry b, first handle of block b
  DBArray *owner;
};

struct DBArray {
  VMArena *arena;
  DBArrayBucket *bucket;  // qwlib growable array, one record per bucket
  uint32_t compact;       // merge blocks after an add or a resize
  uint32_t maxBlocks;     // new blocks at 4096 bytes instead of 64
  uint32_t locked[2];     // per generation: passed to the arena as arrayLocked
};

// Names used by the invariant texts reported on failure.
using UShort = uint16_t;
inline constexpr uint32_t HEADER_SIZE = 4;

namespace qw::dba {

inline constexpr uint32_t kIndexStride = 8;       // one in-block index entry per 8 elements
inline constexpr uint32_t kDirectoryStride = 64;  // one index-array entry per 64 handles
inline constexpr uint32_t kSmallBlockSize = 64;
inline constexpr uint32_t kArrayBlockSize = ARENA_MAX_BLOCK_SIZE;  // ordinary arrays' block size
inline constexpr uint32_t kNone = 0xFFFFFFFFu;                     // "no block", "no handle"
inline constexpr int kCorruptCode = 74;                             // EBADMSG

// Where an inconsistency was found, for its message.
struct Where {
  DBArray *array;
  uint32_t bucket;
  uint32_t block;  // kNone when not about one block
};

// Tags the arena corrupted unless it is read-only.
void TagCorrupted(VMArena *arena);

// Tags the arena and raises a data error naming the broken invariant.
// Returns false.
bool Corrupted(const Where &where, const char *invariant);

// Stored data must satisfy `expression`; otherwise the enclosing function
// (returning bool) reports corruption and returns false.
#define DBA_REQUIRE(where, expression) \
  do {                                 \
    if (!(expression)) return qw::dba::Corrupted((where), #expression); \
  } while (0)

// An internal invariant: tag the arena, then fail the assertion.
#define DBA_ASSERT(arena, expression)                   \
  do {                                                  \
    if (!(expression)) {                                \
      qw::dba::TagCorrupted(arena);                     \
      QWAssertFail_(#expression, __FILE__, __LINE__);   \
    }                                                   \
  } while (0)

// The generation argument: "FALSE" for anything but NEWGEN and OLDGEN.
void CheckGeneration(uint32_t genID);

// The bucket record of `bucketIndex` ("bucketIndex < ArrayLength(array->bucket)").
DBArrayBucket *BucketOf(DBArray *array, uint32_t bucketIndex);

// True when the bucket has all three arrays in genID (a bucket made since
// the last commit has none in OLDGEN).
inline bool BucketPresent(const DBArrayBucket &bucket, uint32_t genID) {
  return bucket.dataBlocks.id[genID] != VMA_NO_ARRAY && bucket.index.id[genID] != VMA_NO_ARRAY &&
         bucket.firstHandle.id[genID] != VMA_NO_ARRAY;
}

inline uint32_t VMABlockArrayBlockCount(const VMAArrayHandle &handle, uint32_t genID) {
  return VMABlockArrayBlockCount_(handle.arena, handle.id[genID], genID);
}

inline uint32_t ArrayLengthOf(const VMAArrayHandle &handle, uint32_t genID) {
  return VMAArrayLength_(handle.arena, handle.id[genID], genID);
}

// The sizes of a bucket: block count (checked against firstHandle) and
// index-array length.
struct BucketShape {
  uint32_t blockCount = 0;
  uint32_t indexLength = 0;
};
[[nodiscard]] bool ReadShape(const Where &where, const DBArrayBucket &bucket, uint32_t genID, BucketShape *shape);

// Sequential access to a 32-bit arena array: keeps one acquired range and
// reuses it while the indexes stay inside it. Values are little-endian.
class U32Cursor {
 public:
  U32Cursor(const VMAArrayHandle &handle, int locked, uint32_t genID, int read)
      : arena_(handle.arena), id_(handle.id[genID]), locked_(locked), genID_(genID), read_(read) {}
  ~U32Cursor() { Release(); }
  U32Cursor(const U32Cursor &) = delete;
  U32Cursor &operator=(const U32Cursor &) = delete;

  // Address of element i (< the array's length), or nullptr with an error.
  [[nodiscard]] uint8_t *At(uint32_t i);
  [[nodiscard]] bool Get(uint32_t i, uint32_t *value);
  [[nodiscard]] bool Set(uint32_t i, uint32_t value);
  void Release();

 private:
  VMArena *arena_;
  uint32_t id_;
  int locked_;
  uint32_t genID_;
  int read_;
  uint8_t *base_ = nullptr;  // address of element first_
  uint8_t *held_ = nullptr;  // what VMAArrayRange_ returned
  uint32_t first_ = 0, end_ = 0;
};

// One data block held through the arena; released on destruction.
class HeldBlock {
 public:
  HeldBlock() = default;
  ~HeldBlock() { Release(); }
  HeldBlock(const HeldBlock &) = delete;
  HeldBlock &operator=(const HeldBlock &) = delete;

  // Acquires block n of the bucket; false with an error.
  [[nodiscard]] bool Acquire(DBArray *array, const DBArrayBucket &bucket, uint32_t n, uint32_t genID, int read);
  void Release();
  // Hands the hold to the caller (who releases with DBArrayRelease).
  uint8_t *Detach() {
    uint8_t *bytes = bytes_;
    bytes_ = nullptr;
    return bytes;
  }
  uint8_t *bytes() const { return bytes_; }
  uint32_t size() const { return size_; }

 private:
  VMArena *arena_ = nullptr;
  uint32_t arrayId_ = VMA_NO_ARRAY;
  int read_ = 1;
  uint8_t *bytes_ = nullptr;
  uint32_t size_ = 0;
};

// Finds the block holding `handle`: *block is kNone when the handle lies
// past the directory. The forward walk from the directory entry also yields
// the block's first handle, and (when asked) the first handle of the next
// block, kNone for the last block. False with an error when the bucket is
// inconsistent.
[[nodiscard]] bool FindBlock(DBArray *array, uint32_t bucketIndex, const DBArrayBucket &bucket, uint32_t genID,
                             uint32_t handle, uint32_t *block, uint32_t *firstOfBlock, BucketShape *shape,
                             uint32_t *nextFirst = nullptr);

// The first handle of block b.
[[nodiscard]] bool FirstHandleOf(DBArray *array, const DBArrayBucket &bucket, uint32_t genID, uint32_t b,
                                 uint32_t *handle0);

// The bucket's size (next handle) in genID.
[[nodiscard]] bool BucketSize(DBArray *array, uint32_t bucketIndex, const DBArrayBucket &bucket, uint32_t genID,
                              uint32_t *size);

// Directory maintenance after a merge of block b with b + 1 (entries naming
// b + 1 or later move down by one) and after a split of block b at
// `splitHandle` (entries from the split handle on that name b or earlier
// move to b + 1).
[[nodiscard]] bool DirectoryAfterMerge(DBArray *array, uint32_t bucketIndex, const DBArrayBucket &bucket,
                                       uint32_t b);
[[nodiscard]] bool DirectoryAfterSplit(DBArray *array, const DBArrayBucket &bucket, uint32_t b,
                                       uint32_t splitHandle);

// Block size changes (resize.cpp). Resize grows or shrinks block b to hold
// `total` bytes, moving its index to the new end. *tooBig is set when the
// total is above DBARRAY_MAX_BLOCK_SIZE (nothing changes then).
[[nodiscard]] bool ResizeBlock(DBArray *array, uint32_t bucketIndex, const DBArrayBucket &bucket, uint32_t b,
                               uint32_t total, bool growing, bool *tooBig);
// Splits block b near the middle of its data.
[[nodiscard]] bool SplitBlock(DBArray *array, uint32_t bucketIndex, const DBArrayBucket &bucket, uint32_t b);
// The compaction step around block b: merges b - 1 with its successor while
// that succeeds, then b with its successor. *merged reports any merge.
[[nodiscard]] bool CompactAround(DBArray *array, uint32_t bucketIndex, const DBArrayBucket &bucket, uint32_t b,
                                 bool *merged);
// The compaction step after a change that is complete already: a failure is
// reported as a warning (the bucket stays consistent) rather than failing
// the change. Returns whether blocks were merged.
bool CompactOrWarn(DBArray *array, uint32_t bucketIndex, const DBArrayBucket &bucket, uint32_t b);
// The size of a new data block that must hold at least `needed` bytes.
uint32_t NewBlockSize(const DBArray *array, uint32_t needed);

}  // namespace qw::dba
