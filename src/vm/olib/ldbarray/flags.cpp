// The flag array: one bit per element, 1 for the external form. Read under
// the read side of flagLock, grown and changed under its write side, so that
// readers never meet the array while its blocks are being replaced.
#include <algorithm>
#include <cstring>

#include "vm/olib/ldbarray/flag_update.h"

namespace qw::ldba {
namespace {

constexpr uint32_t kFlagBlockSize = ARENA_MAX_BLOCK_SIZE;
constexpr uint64_t kMaxFlagBytes = 0xFFFFFFFFull;  // an arena array's length is 32-bit

class ReadLock {
 public:
  explicit ReadLock(QWRWLock *lock) : lock_(lock) { RWLockAcquireRead_(lock_); }
  ~ReadLock() { RWLockRelease_(lock_); }
  ReadLock(const ReadLock &) = delete;
  ReadLock &operator=(const ReadLock &) = delete;

 private:
  QWRWLock *lock_;
};

uint32_t FlagLength(const LDBArray *array, uint32_t genID) {
  const uint32_t id = array->flag.id[genID];
  return id == VMA_NO_ARRAY ? 0 : VMAArrayLength_(array->arena, id, genID);
}

}  // namespace

bool ReadFlag(LDBArray *array, uint32_t bucket, uint32_t handle, uint32_t genID, bool *flag, bool *present) {
  *flag = *present = false;
  const uint64_t g = GlobalNumber(array, bucket, handle);
  if (g / 8 >= kMaxFlagBytes) return true;
  const uint32_t byteIndex = uint32_t(g / 8);
  ReadLock lock(array->flagLock);
  if (byteIndex >= FlagLength(array, genID)) return true;
  uint32_t end = 0;
  const auto *byte = static_cast<const uint8_t *>(VMAArrayRange_(array->arena, array->flag.id[genID],
                                                                 int(array->locked[genID]), kFlagBlockSize,
                                                                 byteIndex, &end, genID, 1, 1, 0));
  if (!byte) return QWErrorRethrow("cannot read the flag of element %u of bucket %u", handle, bucket);
  *flag = (*byte >> (g % 8)) & 1;
  *present = true;
  VMAArrayRelease_(array->arena, array->flag.id[genID], const_cast<uint8_t *>(byte), 1);
  return true;
}

bool EnsureFlag(LDBArray *array, uint32_t bucket, uint32_t handle) {
  const uint64_t g = GlobalNumber(array, bucket, handle);
  if (g / 8 >= kMaxFlagBytes)
    return QWErrorThrow(75, QW_ERROR_CLASS_GENERAL, "large-element array: element %u of bucket %u has no flag",
                        handle, bucket);
  const uint32_t upBound = uint32_t(g / 8) + 1;
  static const uint8_t zeros[256] = {};
  FlagUpdate::WriteLock lock(array->flagLock);
  for (uint32_t length = FlagLength(array, NEWGEN); length < upBound;) {
    const uint32_t count = upBound - length < sizeof zeros ? upBound - length : uint32_t(sizeof zeros);
    if (!VMAArrayAppend_(array->arena, array->flag.id[NEWGEN], int(array->locked[NEWGEN]), kFlagBlockSize, zeros,
                         count, NEWGEN, 1))
      return QWErrorRethrow("cannot grow the flag array of a large-element array");
    length += count;
  }
  return true;
}

bool ClearFlags(LDBArray *array) {
  const uint32_t id = array->flag.id[NEWGEN];
  const int locked = int(array->locked[NEWGEN]);
  FlagUpdate::WriteLock lock(array->flagLock);
  const uint32_t length = FlagLength(array, NEWGEN);
  for (uint32_t i = 0, end = 0; i < length; i = end) {
    const auto *bytes = static_cast<const uint8_t *>(
        VMAArrayRange_(array->arena, id, locked, kFlagBlockSize, i, &end, NEWGEN, 1, 1, 0));
    if (!bytes) return QWErrorRethrow("cannot read the flag array of a large-element array");
    const bool set = std::any_of(bytes, bytes + (end - i), [](uint8_t byte) { return byte != 0; });
    VMAArrayRelease_(array->arena, id, const_cast<uint8_t *>(bytes), 1);
    if (!set) continue;  // a block shared with the committed generation stays shared
    auto *out = static_cast<uint8_t *>(
        VMAArrayRange_(array->arena, id, locked, kFlagBlockSize, i, &end, NEWGEN, 0, 1, 0));
    if (!out) return QWErrorRethrow("cannot clear the flag array of a large-element array");
    std::memset(out, 0, end - i);
    VMAArrayRelease_(array->arena, id, out, 0);
  }
  return true;
}

FlagUpdate::~FlagUpdate() { Release(); }

bool FlagUpdate::Prepare(LDBArray *array, uint32_t bucket, uint32_t handle, bool wanted) {
  array_ = array;
  const uint64_t g = GlobalNumber(array, bucket, handle);
  lock_.emplace(array->flagLock);
  if (g / 8 >= kMaxFlagBytes || g / 8 >= FlagLength(array, NEWGEN)) {
    lock_.reset();
    return Corrupted(array, bucket, handle, "handle / 8 < __upBound__");
  }
  const uint32_t byteIndex = uint32_t(g / 8);
  const uint8_t mask = uint8_t(1u << (g % 8));
  uint32_t end = 0;
  auto *byte = static_cast<uint8_t *>(VMAArrayRange_(array->arena, array->flag.id[NEWGEN],
                                                     int(array->locked[NEWGEN]), kFlagBlockSize, byteIndex, &end,
                                                     NEWGEN, 1, 1, 0));
  if (!byte) {
    lock_.reset();
    return QWErrorRethrow("cannot read the flag of element %u of bucket %u", handle, bucket);
  }
  const bool current = (*byte & mask) != 0;
  VMAArrayRelease_(array->arena, array->flag.id[NEWGEN], byte, 1);
  if (current == wanted) {
    lock_.reset();  // nothing to change: readers need not wait
    return true;
  }
  // Acquiring writable copies a block shared with the committed generation:
  // the one step that can fail happens before the caller changes anything.
  byte_ = static_cast<uint8_t *>(VMAArrayRange_(array->arena, array->flag.id[NEWGEN], int(array->locked[NEWGEN]),
                                                kFlagBlockSize, byteIndex, &end, NEWGEN, 0, 1, 0));
  if (!byte_) {
    lock_.reset();
    return QWErrorRethrow("cannot write the flag of element %u of bucket %u", handle, bucket);
  }
  mask_ = mask;
  wanted_ = wanted;
  return true;
}

void FlagUpdate::Commit() {
  if (byte_) *byte_ = wanted_ ? uint8_t(*byte_ | mask_) : uint8_t(*byte_ & ~mask_);
  Release();
}

void FlagUpdate::Release() {
  if (byte_) VMAArrayRelease_(array_->arena, array_->flag.id[NEWGEN], byte_, 0);
  byte_ = nullptr;
  lock_.reset();
}

}  // namespace qw::ldba
