// DBArrayCheck: verifies every bucket and block of a block-directory array
// without changing it. Buckets are checked by worker threads; each bucket's
// findings are kept apart and reported afterwards in bucket order, so the
// output does not depend on the threads' timing.
#include <algorithm>
#include <atomic>
#include <cstdarg>
#include <cstdio>
#include <string>
#include <vector>

#include "vm/olib/dbarray/block_format.h"

namespace qw::dba {
namespace {

constexpr uint32_t kMaxWorkers = 4;

struct BucketReport {
  uint32_t blockCount = 0;
  std::vector<std::string> problems;
};

// What is wrong with one block; the first kind found, in this order, is
// the block's report.
enum class Fault { kNone, kBlockSize, kData, kDataSize, kIndex, kElementCount };

class BucketChecker {
 public:
  BucketChecker(DBArray *array, uint32_t bucketIndex, uint32_t genID, BucketReport *report)
      : array_(array), bucket_(array->bucket[bucketIndex]), bucketIndex_(bucketIndex), genID_(genID),
        report_(report) {}

  void Run();

 private:
  void Report(const char *format, ...) QW_PRINTF(2, 3);
  bool ReadFirstHandles(uint32_t length);
  // Checks block b; returns its element count, or kNone when unreadable.
  uint32_t CheckBlock(uint32_t b, uint32_t handle0, uint32_t nextHandle0);
  void CheckDirectory(uint32_t blockCount, uint32_t size);

  DBArray *array_;
  const DBArrayBucket &bucket_;
  uint32_t bucketIndex_;
  uint32_t genID_;
  BucketReport *report_;
  std::vector<uint32_t> firstHandles_;
};

void BucketChecker::Report(const char *format, ...) {
  char text[512];
  va_list args;
  va_start(args, format);
  std::vsnprintf(text, sizeof text, format, args);
  va_end(args);
  report_->problems.emplace_back(text);
}

bool BucketChecker::ReadFirstHandles(uint32_t length) {
  U32Cursor cursor(bucket_.firstHandle, array_->locked[genID_], genID_, 1);
  firstHandles_.resize(length);
  for (uint32_t b = 0; b < length; ++b) {
    if (!cursor.Get(b, &firstHandles_[b])) {
      firstHandles_.resize(b);
      return false;
    }
  }
  return true;
}

// Walks the elements of a block whose header fits, checking each index
// entry against the walk.
struct Walk {
  Fault fault = Fault::kNone;
  uint32_t count = 0;
  uint32_t lastOffset = 0;
  uint32_t subIndex = 0;
};

Walk WalkBlock(const BlockView &block) {
  Walk walk;
  const uint32_t indexSize = block.indexSize(), dataSize = block.dataSize();
  uint32_t offset = 0;
  while (offset < dataSize) {
    if (walk.count > 0 && walk.count % kIndexStride == 0 && walk.fault == Fault::kNone) {
      const uint32_t k = walk.count / kIndexStride;
      if (k > indexSize || block.Entry(k) != offset) {
        walk.fault = Fault::kIndex;
        walk.subIndex = k;
      }
    }
    const uint8_t *in = block.data() + offset;
    const uint32_t room = dataSize - offset;
    uint64_t length = 0;
    const size_t prefixBytes = VarintDecode(in, in + std::min<uint32_t>(room, 2), &length);
    if (prefixBytes == 0 || length > DBARRAY_MAX_ELEMENT_SIZE) {
      walk.fault = Fault::kData;
      return walk;
    }
    offset += uint32_t(prefixBytes + length);
    ++walk.count;
  }
  walk.lastOffset = offset;
  if (offset != dataSize) {
    walk.fault = Fault::kDataSize;
    return walk;
  }
  const uint32_t needed = walk.count == 0 ? 0 : (walk.count - 1) / kIndexStride;
  if (walk.fault == Fault::kNone && indexSize > needed) {
    walk.fault = Fault::kIndex;
    walk.subIndex = needed + 1;
  }
  return walk;
}

uint32_t BucketChecker::CheckBlock(uint32_t b, uint32_t handle0, uint32_t nextHandle0) {
  VMArena *arena = array_->arena;
  const uint32_t arrayId = bucket_.dataBlocks.id[genID_];
  const int bucketIndex = int(bucketIndex_), block = int(b);
  uint32_t physBucket = kNone, physID = kNone;
  const uint64_t id = VMABlockArrayBlockIDGet_(arena, arrayId, b, genID_);
  if (!VMABlockInfoGet(arena, id, nullptr, &physBucket, &physID, nullptr)) QWErrorClear();
  uint32_t size = 0;
  auto *bytes = static_cast<uint8_t *>(VMABlockArrayGet_(arena, arrayId, array_->locked[genID_], b, genID_, 1, &size));
  if (!bytes) {
    QWErrorClear();
    Report("bucketIndex = %d: Invalid data in block number %d, physBucket = %d, physID = %d", bucketIndex, block,
           int(physBucket), int(physID));
    return kNone;
  }
  BlockView view(bytes, size);
  uint32_t count = kNone;
  if (size > DBARRAY_MAX_BLOCK_SIZE || !view.HeaderFits()) {
    Report("bucketIndex = %d: Invalid block size in block number %d ! indexSize = %d, dataSize = %d, "
           "physBucket = %d, physID = %d",
           bucketIndex, block, int(view.indexSize()), int(view.dataSize()), int(physBucket), int(physID));
  } else {
    const Walk walk = WalkBlock(view);
    const uint32_t handle = handle0 + walk.count;
    const bool countWrong = walk.count == 0 || (nextHandle0 != kNone && handle != nextHandle0);
    if (walk.fault == Fault::kData)
      Report("bucketIndex = %d: Invalid data in block number %d, physBucket = %d, physID = %d", bucketIndex, block,
             int(physBucket), int(physID));
    else if (walk.fault == Fault::kDataSize)
      Report("bucketIndex = %d: Invalid data size in block number %d ! lastOffset = %d, dataSize = %d, "
             "physBucket = %d, physID = %d",
             bucketIndex, block, int(walk.lastOffset), int(view.dataSize()), int(physBucket), int(physID));
    else if (walk.fault == Fault::kIndex)
      Report("bucketIndex = %d: Invalid index in block number %d ! subIndex = %d, physBucket = %d, physID = %d",
             bucketIndex, block, int(walk.subIndex), int(physBucket), int(physID));
    else if (countWrong && handle0 != kNone)
      Report("bucketIndex = %d: Invalid element count in block number %d ! handle = %d, handle0 = %d, "
             "physBucket = %d, physID = %d",
             bucketIndex, block, int(handle), int(handle0), int(physBucket), int(physID));
    if (walk.fault == Fault::kNone || walk.fault == Fault::kIndex) count = walk.count;
  }
  VMAArrayRelease_(arena, arrayId, bytes, 1);
  return count;
}

void BucketChecker::CheckDirectory(uint32_t blockCount, uint32_t size) {
  const uint32_t indexLength = ArrayLengthOf(bucket_.index, genID_);
  const uint32_t expected = size == 0 ? 0 : (size - 1) / kDirectoryStride + 1;
  if (size != kNone && indexLength != expected)
    Report("bucketIndex = %d: Invalid directory length ! indexLength = %d, handleCount = %d", int(bucketIndex_),
           int(indexLength), int(size));
  U32Cursor cursor(bucket_.index, array_->locked[genID_], genID_, 1);
  for (uint32_t i = 0; i < indexLength; ++i) {
    uint32_t entry = 0;
    if (!cursor.Get(i, &entry)) {
      QWErrorClear();
      Report("bucketIndex = %d: Invalid directory entry %d ! block = %d", int(bucketIndex_), int(i), -1);
      return;
    }
    // An entry may name an earlier block than the one holding its handle,
    // never a later one.
    const bool known = entry < firstHandles_.size();
    if (entry >= blockCount || (known && firstHandles_[entry] > i * kDirectoryStride))
      Report("bucketIndex = %d: Invalid directory entry %d ! block = %d", int(bucketIndex_), int(i), int(entry));
  }
}

void BucketChecker::Run() {
  if (!BucketPresent(bucket_, genID_)) return;
  const uint32_t blockCount = VMABlockArrayBlockCount(bucket_.dataBlocks, genID_);
  const uint32_t length = ArrayLengthOf(bucket_.firstHandle, genID_);
  report_->blockCount = blockCount;
  if (!ReadFirstHandles(length)) QWErrorClear();
  const uint32_t known = uint32_t(firstHandles_.size());
  if (known != blockCount)
    Report("bucketIndex = %d: handle0A is invalid in block %d", int(bucketIndex_), int(std::min(known, blockCount)));
  uint32_t size = blockCount == 0 ? 0 : kNone;
  for (uint32_t b = 0; b < blockCount; ++b) {
    const uint32_t handle0 = b < known ? firstHandles_[b] : kNone;
    if (b < known && (b == 0 ? handle0 != 0 : handle0 <= firstHandles_[b - 1]))
      Report("bucketIndex = %d: handle0A is invalid in block %d", int(bucketIndex_), int(b));
    const uint32_t next = b + 1 < known ? firstHandles_[b + 1] : kNone;
    const uint32_t count = CheckBlock(b, handle0, next);
    if (b + 1 == blockCount && count != kNone && handle0 != kNone) size = handle0 + count;
  }
  CheckDirectory(blockCount, size);
}

struct CheckJob {
  DBArray *array;
  uint32_t genID;
  std::vector<BucketReport> *reports;
  std::atomic<uint32_t> next{0};
};

void *CheckWorker(void *argument) {
  auto *job = static_cast<CheckJob *>(argument);
  const uint32_t count = uint32_t(job->reports->size());
  for (uint32_t n = job->next.fetch_add(1); n < count; n = job->next.fetch_add(1))
    BucketChecker(job->array, n, job->genID, &(*job->reports)[n]).Run();
  return nullptr;
}

}  // namespace
}  // namespace qw::dba

using namespace qw::dba;

extern "C" {

QW_API uint32_t DBArrayCheck(DBArray *array, uint32_t genID) {
  CheckGeneration(genID);
  const uint32_t bucketCount = uint32_t(ArrayLength(array->bucket));
  std::vector<BucketReport> reports(bucketCount);
  CheckJob job{array, genID, &reports};
  const uint32_t workers = bucketCount > 1 ? std::min(bucketCount, kMaxWorkers) : 0;
  std::vector<QWThread *> threads;
  for (uint32_t i = 0; i < workers; ++i) {
    QWThread *thread = ThreadCreate(CheckWorker, &job);
    if (!thread) {  // fewer workers: the calling thread helps below
      QWErrorClear();
      break;
    }
    threads.push_back(thread);
  }
  CheckWorker(&job);
  for (QWThread *thread : threads) (void)ThreadJoin(thread, nullptr);

  uint32_t problems = 0;
  for (uint32_t n = 0; n < bucketCount; ++n) {
    QWMessage(QW_LEVEL_DEBUG, "bucketIndex = %d: blockCount = %d\n", int(n), int(reports[n].blockCount));
    for (const std::string &problem : reports[n].problems) QWMessage(QW_LEVEL_WARNING, "%s", problem.c_str());
    problems += uint32_t(reports[n].problems.size());
  }
  QWMessage(QW_LEVEL_PROGRESS, "Done !\n");
  return problems;
}

}  // extern "C"
