// A change of one element's flag, prepared before the element changes and
// committed after it: Prepare takes flagLock for writing and, when the bit
// must change, acquires its byte writable (copying a committed block: the
// only step that can fail); Commit writes the bit. Destroying an uncommitted
// update leaves the bit as it was.
#pragma once

#include <optional>

#include "vm/olib/ldbarray/ldbarray_internal.h"

namespace qw::ldba {

class FlagUpdate {
 public:
  class WriteLock {
   public:
    explicit WriteLock(QWRWLock *lock) : lock_(lock) { RWLockAcquireWrite_(lock_); }
    ~WriteLock() { RWLockRelease_(lock_); }
    WriteLock(const WriteLock &) = delete;
    WriteLock &operator=(const WriteLock &) = delete;

   private:
    QWRWLock *lock_;
  };

  FlagUpdate() = default;
  ~FlagUpdate();
  FlagUpdate(const FlagUpdate &) = delete;
  FlagUpdate &operator=(const FlagUpdate &) = delete;

  // False with an error (a missing flag byte is corruption). When the bit
  // already has the wanted value the lock is given up at once.
  [[nodiscard]] bool Prepare(LDBArray *array, uint32_t bucket, uint32_t handle, bool wanted);
  void Commit();

 private:
  void Release();

  LDBArray *array_ = nullptr;
  std::optional<WriteLock> lock_;
  uint8_t *byte_ = nullptr;
  uint8_t mask_ = 0;
  bool wanted_ = false;
};

}  // namespace qw::ldba
