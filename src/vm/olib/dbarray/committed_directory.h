// Copies of the committed generation's directories, one per bucket.
//
// A read of OLDGEN has to find the block of a handle: through the index
// array and the firstHandle array, two arena acquisitions before the data
// block's own. The committed generation cannot change under a reader, so
// each bucket's committed firstHandle array is copied into memory on first
// use and searched there; a read then acquires only its data block.
//
// A copy is current while the arena's old-generation epoch and the bucket's
// OLDGEN array ids are those it was built from; otherwise the next reader
// builds a new one (under the cache's mutex). Readers load the copy without
// a lock: the epoch moves only while the generation lock is held
// exclusively, so a copy that matches the epoch stays in place for as long
// as its reader holds the generation (the arena's rule for OLDGEN readers
// beside a committer). A replaced copy is kept until the next replacement,
// for a reader that loaded it just before.
#pragma once

#include <atomic>
#include <cstdint>
#include <memory>
#include <mutex>
#include <vector>

#include "vm/olib/dbarray/dbarray_internal.h"

namespace qw::dba {

struct CommittedDirectory {
  uint64_t epoch = 0;
  uint32_t firstHandleId = 0, dataBlocksId = 0;
  std::vector<uint32_t> firstHandles;  // of each committed block; rises strictly from 0
  uint32_t indexLength = 0;            // entries of the committed index array

  // The block holding `handle` (the last one whose first handle is <= it),
  // or kNone past the directory (as the index array would tell).
  uint32_t BlockOf(uint32_t handle) const;
};

class CommittedDirectories {
 public:
  explicit CommittedDirectories(size_t buckets) : slots_(buckets) {}

  // The current copy of the bucket's committed directory, built when stale;
  // nullptr with an error (the arena tagged corrupted when the stored
  // directory breaks its invariants).
  const CommittedDirectory *Get(DBArray *array, uint32_t bucketIndex, const DBArrayBucket &bucket);

 private:
  struct Slot {
    std::atomic<const CommittedDirectory *> current{nullptr};
    std::unique_ptr<CommittedDirectory> owned, previous;
  };
  const CommittedDirectory *Build(DBArray *array, uint32_t bucketIndex, const DBArrayBucket &bucket, Slot *slot,
                                  uint64_t epoch);

  std::vector<Slot> slots_;
  std::mutex buildMutex_;
};

}  // namespace qw::dba
