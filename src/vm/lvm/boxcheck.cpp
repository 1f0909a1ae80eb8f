// Inspection of a box: the read-only consistency check of every bucket and
// the space measure of one bucket (qwvm/box.h).
//
// The check gathers, per bucket, every block it can name (the mapped blocks
// read from the data file, the persistent free lists, the in-memory recycle
// lists) as spans of units, sorts them and walks them once: a span starting
// inside the one before is an overlap (or the same block twice), a hole
// between spans is space nothing accounts for. Nothing here writes or tags:
// metadata is read through the cell accessors and the secondary lists
// directly, never through the paths of the update code that tag damage.
#include <algorithm>
#include <cstdarg>
#include <cstdio>
#include <new>
#include <string>
#include <vector>

#include "vm/lvm/box_internal.h"
#include "vm/lvm/boxdata.h"
#include "vm/olib/common/cells.h"

namespace qw::box {
namespace {

using olib::CellCount;
using olib::CellGet;

enum class Owner : uint8_t { kEntry, kFreeList, kRecycle };

// A run of units that one owner claims. units == 0: a mapped block whose
// header could not be read (its length is unknown).
struct Span {
  uint32_t handle, units;
  Owner owner;
  uint32_t what;  // entry id, or size class for the lists
  uint32_t part;
};

std::string Describe(const Span &span) {
  char text[96];
  switch (span.owner) {
    case Owner::kEntry:
      std::snprintf(text, sizeof text, "part %u of id %u", span.part, span.what);
      break;
    case Owner::kFreeList:
      std::snprintf(text, sizeof text, "the free list of class %u", span.what);
      break;
    case Owner::kRecycle:
      std::snprintf(text, sizeof text, "the recycle list of class %u", span.what);
      break;
  }
  return text;
}

class BucketCheck {
 public:
  BucketCheck(BoxLVMBucket &bucket, BoxLVMDataFileThreadData *block, BoxLVMCheckReport report, void *context,
              uint64_t *faults)
      : bucket_(bucket), meta_(bucket.meta), block_(block), report_(report), context_(context), faults_(faults) {}

  void Run() {
    if (!CheckParams()) return;
    const uint32_t secCount = LDBArraySize(meta_.secMapping, 0, NEWGEN);
    secUsers_.assign(secCount, kUnused);
    secFree_.assign(secCount, 0);
    CheckMapping();
    CheckFreeLists();
    CheckSecondaryIds();
    CheckCoverage();
  }

 private:
  static constexpr uint32_t kUnused = 0xFFFFFFFFu;

#if defined(__GNUC__)
  __attribute__((format(printf, 2, 3)))
#endif
  void Fault(const char *format, ...) {
    char line[1024];
    int at = std::snprintf(line, sizeof line, "bucket %u: ", bucket_.number);
    va_list args;
    va_start(args, format);
    std::vsnprintf(line + at, sizeof line - size_t(at), format, args);
    va_end(args);
    ++*faults_;
    if (report_) report_(context_, bucket_.number, line);
  }

  // The error that failed a read, as the fault's cause (and cleared).
  std::string Cause() {
    std::string cause = QWErrorIsSet() ? QWErrorMessage() : "unknown error";
    std::replace(cause.begin(), cause.end(), '\n', ' ');
    QWErrorClear();
    return cause;
  }

  bool CheckParams() {
    const uint32_t count = CellCount(meta_.params, NEWGEN);
    if (count != 3) {
      Fault("params has %u elements instead of 3", count);
      if (count < 3) return false;
    }
    if (!CellGet(meta_.params, kParamUsedUnits, NEWGEN, &used_) ||
        !CellGet(meta_.params, kParamTotalUnits, NEWGEN, &total_) ||
        !CellGet(meta_.params, kParamEntries, NEWGEN, &entries_)) {
      Fault("cannot read params: %s", Cause().c_str());
      return false;
    }
    const int64_t bytes = bucket_.data ? BoxLVMDataFileSize(bucket_.data) : -1;
    if (bytes < 0) {
      Fault("cannot get the data file size: %s", Cause().c_str());
      return false;
    }
    const uint64_t fileUnits = uint64_t(bytes) / BOXLVM_UNIT_SIZE;
    if (used_ % BOXLVM_PAGEUNITS != 0 || total_ % BOXLVM_PAGEUNITS != 0)
      Fault("params[0] = %u and params[1] = %u must be multiples of %u", used_, total_, BOXLVM_PAGEUNITS);
    if (used_ > total_) Fault("params[0] = %u units used exceeds params[1] = %u units in total", used_, total_);
    if (total_ > fileUnits)
      Fault("params[1] = %u units exceeds the data file's %llu units (%lld bytes)", total_,
            static_cast<unsigned long long>(fileUnits), static_cast<long long>(bytes));
    // Blocks are read only below what is both used and in the file.
    readLimit_ = uint32_t(std::min<uint64_t>(used_, fileUnits));
    return true;
  }

  void CheckMapping() {
    const uint32_t length = CellCount(meta_.primMapping, NEWGEN);
    uint32_t mapped = 0;
    std::vector<uint32_t> handles;
    for (uint32_t local = 0; local < length; ++local) {
      uint32_t primary = kNoPrimary;
      const uint32_t id = local * bucket_.bucketCount + bucket_.number;
      if (!CellGet(meta_.primMapping, local, NEWGEN, &primary)) {
        Fault("cannot read the mapping of id %u: %s", id, Cause().c_str());
        continue;
      }
      if (primary == kNoPrimary) continue;
      ++mapped;
      if (primary == kEmptyPrimary) continue;  // an empty entry has no block
      if (primary % 2 == 0) {
        handles.assign(1, primary / 2);
      } else if (!ReadSecondary(id, primary / 2, &handles)) {
        continue;
      }
      CheckEntry(id, handles);
    }
    if (mapped != entries_) Fault("params[2] counts %u entries but %u are mapped", entries_, mapped);
  }

  // Entry `id`'s block list s, recording the use of s.
  bool ReadSecondary(uint32_t id, uint32_t s, std::vector<uint32_t> *handles) {
    if (s >= secUsers_.size()) {
      Fault("id %u: secondary id %u is past the %zu block lists", id, s, secUsers_.size());
      return false;
    }
    if (secUsers_[s] != kUnused) Fault("secondary id %u is used by both id %u and id %u", s, secUsers_[s], id);
    secUsers_[s] = id;
    uint8_t *bytes = nullptr;
    const bool ok = LDBArrayGetArray(meta_.secMapping, 0, s, &bytes, 0, NEWGEN) != 0;
    const size_t length = ArrayLength(bytes);
    if (ok) {
      handles->resize(length / 4);
      for (size_t i = 0; i < handles->size(); ++i) (*handles)[i] = LoadLE32(bytes + 4 * i);
    }
    ArrayFree(bytes);
    if (!ok) {
      Fault("id %u: cannot read secondary id %u: %s", id, s, Cause().c_str());
      return false;
    }
    if (length % 4 != 0 || handles->size() < 2) {
      Fault("id %u: secondary id %u holds %zu bytes, not a list of two or more handles", id, s, length);
      return false;
    }
    return true;
  }

  void CheckEntry(uint32_t id, const std::vector<uint32_t> &handles) {
    for (size_t i = 0; i < handles.size(); ++i) {
      const uint32_t handle = handles[i], part = uint32_t(i);
      const uint32_t next = i + 1 < handles.size() ? handles[i + 1] : BOXLVM_NO_HANDLE;
      if (handle >= readLimit_) {
        Fault("id %u: part %u at handle %u lies past the %u units in use", id, part, handle, readLimit_);
        continue;
      }
      uint32_t sizeClass = kUnused, length = 0;
      if (!BoxLVMDataBlockReadDecode(bucket_.data, block_, handle, 1, id, part, next, nullptr, nullptr, nullptr,
                                     nullptr, &sizeClass, &length, nullptr)) {
        Fault("id %u: part %u at handle %u: %s", id, part, handle, Cause().c_str());
        // The class is known when only the checksum or the length failed.
        const uint32_t units = sizeClass == kUnused ? 0 : std::min(sizeClass + 1, UnitsToPageEnd(handle));
        spans_.push_back({handle, units, Owner::kEntry, id, part});
        continue;
      }
      // A version 0 header is the smaller one: a block too small even for it
      // is wrong whatever its version.
      const uint32_t units = sizeClass + 1;
      if (units > UnitsToPageEnd(handle) || BOXLVM_BLOCK_HEADER_SIZE + length > units * BOXLVM_UNIT_SIZE)
        Fault("id %u: part %u at handle %u: class %u cannot hold %u bytes inside its page", id, part, handle,
              sizeClass, length);
      spans_.push_back({handle, std::min(units, UnitsToPageEnd(handle)), Owner::kEntry, id, part});
    }
  }

  void AddFree(Owner owner, uint32_t sizeClass, uint32_t handle) {
    const Span span{handle, sizeClass + 1, owner, sizeClass, 0};
    if (handle >= used_ || span.units > UnitsToPageEnd(handle)) {
      Fault("handle %u on %s lies past the %u units in use or crosses its page", handle, Describe(span).c_str(),
            used_);
      return;
    }
    spans_.push_back(span);
  }

  void CheckFreeLists() {
    for (uint32_t c = 0; c < BOXLVM_SIZE_CLASSES; ++c) {
      const uint32_t count = CellCount(meta_.freeList[c], NEWGEN);
      for (uint32_t i = 0; i < count; ++i) {
        uint32_t handle = 0;
        if (!CellGet(meta_.freeList[c], i, NEWGEN, &handle)) {
          Fault("cannot read element %u of the free list of class %u: %s", i, c, Cause().c_str());
          break;
        }
        AddFree(Owner::kFreeList, c, handle);
      }
    }
    if (meta_.blocks)
      meta_.blocks->lists.ForEach([&](uint32_t c, uint32_t handle) { AddFree(Owner::kRecycle, c, handle); });
  }

  void FreeSecondary(uint32_t s, const char *where) {
    if (s >= secFree_.size()) {
      Fault("secondary id %u on %s is past the %zu block lists", s, where, secFree_.size());
      return;
    }
    if (secUsers_[s] != kUnused) Fault("secondary id %u is used by id %u and also on %s", s, secUsers_[s], where);
    if (secFree_[s]++ != 0) Fault("secondary id %u is free more than once (again on %s)", s, where);
  }

  void CheckSecondaryIds() {
    const uint32_t count = CellCount(meta_.secMappingFreeList, NEWGEN);
    for (uint32_t i = 0; i < count; ++i) {
      uint32_t s = 0;
      if (!CellGet(meta_.secMappingFreeList, i, NEWGEN, &s)) {
        Fault("cannot read element %u of secMappingFreeList: %s", i, Cause().c_str());
        break;
      }
      FreeSecondary(s, "secMappingFreeList");
    }
    for (const uint32_t *ids : meta_.freeListSecMappingNew)
      for (size_t i = 0; i < ArrayLength(ids); ++i) FreeSecondary(ids[i], "the recycle list of secondary ids");
    for (size_t s = 0; s < secUsers_.size(); ++s)
      if (secUsers_[s] == kUnused && secFree_[s] == 0) Fault("secondary id %zu is neither used nor free", s);
  }

  void CheckCoverage() {
    std::sort(spans_.begin(), spans_.end(), [](const Span &a, const Span &b) {
      return a.handle != b.handle ? a.handle < b.handle : a.owner < b.owner;
    });
    uint32_t end = 0;           // first unit past the spans so far
    const Span *last = nullptr;  // the span that reaches `end`
    for (const Span &span : spans_) {
      if (last && span.handle < end) {
        if (span.handle == last->handle)
          Fault("handle %u is in both %s and %s", span.handle, Describe(*last).c_str(), Describe(span).c_str());
        else
          Fault("handle %u (%s) overlaps handle %u (%s)", span.handle, Describe(span).c_str(), last->handle,
                Describe(*last).c_str());
      } else if (span.handle > end && !(last && last->units == 0)) {
        Fault("units %u to %u are neither mapped nor free", end, span.handle - 1);
      }
      const uint32_t spanEnd = span.handle + std::max(span.units, 1u);
      if (spanEnd > end || !last) {
        end = std::max(end, spanEnd);
        last = &span;
      }
    }
    if (end < used_ && !(last && last->units == 0)) Fault("units %u to %u are neither mapped nor free", end, used_ - 1);
  }

  BoxLVMBucket &bucket_;
  BoxLVMMetadata &meta_;
  BoxLVMDataFileThreadData *block_;  // the check's own block buffer
  BoxLVMCheckReport report_;
  void *context_;
  uint64_t *faults_;
  uint32_t used_ = 0, total_ = 0, entries_ = 0, readLimit_ = 0;
  std::vector<Span> spans_;
  std::vector<uint32_t> secUsers_;  // per secondary id: the id using it
  std::vector<uint8_t> secFree_;    // per secondary id: times found free
};

// The bucket's log mutex (metadata changes only under it), then its bucket
// lock shared (the mapping), in the bucket's lock order.
class MetadataHeld {
 public:
  explicit MetadataHeld(BoxLVMBucket &bucket) : bucket_(bucket) {
    LoggedVMAcquire(bucket_.lvm);
    RWLockAcquireRead_(bucket_.lock);
  }
  ~MetadataHeld() {
    RWLockRelease_(bucket_.lock);
    LoggedVMRelease(bucket_.lvm);
  }
  MetadataHeld(const MetadataHeld &) = delete;
  MetadataHeld &operator=(const MetadataHeld &) = delete;

 private:
  BoxLVMBucket &bucket_;
};

}  // namespace
}  // namespace qw::box

using namespace qw::box;

extern "C" {

QW_API int BoxLVMCheck(BoxLVM *box, BoxLVMCheckReport report, void *context, uint64_t *faults) {
  uint64_t scratch = 0;
  if (!faults) faults = &scratch;
  *faults = 0;
  BoxLVMDataFileThreadData *block = BoxLVMDataFileThreadDataNew();
  bool ok = block != nullptr;
  try {
    for (size_t n = 0; ok && n < box->buckets.size(); ++n) {
      MetadataHeld held(*box->buckets[n]);
      BucketCheck(*box->buckets[n], block, report, context, faults).Run();
    }
  } catch (const std::bad_alloc &) {
    ok = false;
  }
  BoxLVMDataFileThreadDataFree(block);
  return ok || QWErrorThrow(12, QW_ERROR_CLASS_SYSTEM, "out of memory while checking the box in %s", box->dir);
}

QW_API int BoxLVMBucketStatGet(BoxLVM *box, uint32_t bucket, BoxLVMBucketStat *stat) {
  if (bucket >= box->buckets.size())
    return QWErrorThrow(22, QW_ERROR_CLASS_GENERAL, "no bucket %u in a box of %zu", bucket, box->buckets.size());
  BoxLVMBucket &b = *box->buckets[bucket];
  *stat = BoxLVMBucketStat{};
  MetadataHeld held(b);
  uint32_t params[3] = {};
  for (uint32_t i = 0; i < 3; ++i)
    if (!ParamGet(b, i, &params[i])) return QWErrorRethrow("cannot read the params of bucket %u", bucket);
  stat->usedUnits = params[kParamUsedUnits];
  stat->totalUnits = params[kParamTotalUnits];
  stat->entries = params[kParamEntries];
  const int64_t bytes = BoxLVMDataFileSize(b.data);
  if (bytes < 0) return QWErrorRethrow("cannot measure the data file of bucket %u", bucket);
  stat->fileBytes = uint64_t(bytes);
  for (uint32_t c = 0; c < BOXLVM_SIZE_CLASSES; ++c) {
    const uint32_t count = qw::olib::CellCount(b.meta.freeList[c], NEWGEN);
    stat->freeBlocks += count;
    stat->freeUnits += uint64_t(count) * (c + 1);
  }
  b.meta.blocks->lists.ForEach([&](uint32_t c, uint32_t) {
    ++stat->freeBlocks;
    stat->freeUnits += c + 1;
  });
  return 1;
}

}  // extern "C"
