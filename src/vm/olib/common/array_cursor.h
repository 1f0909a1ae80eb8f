// Sequential access to an arena array of fixed-size elements: keeps one
// acquired range and reuses it while the indexes stay inside it, so that
// neighbouring elements cost one acquisition. Used by the small structures
// of vm/olib that keep their state in plain arrays.
#pragma once

#include <cstdint>

#include "qwvm/qwlib.h"
#include "qwvm/vmaarray.h"

namespace qw::olib {

class ArrayCursor {
 public:
  // `read` 0 gives writable elements (NEWGEN only).
  ArrayCursor(const VMAArrayHandle &handle, uint32_t genID, int read, uint32_t elementSize)
      : arena_(handle.arena), id_(handle.id[genID]), locked_(int(handle.locked[genID])), genID_(genID),
        read_(read), elementSize_(elementSize) {}
  ~ArrayCursor() { Release(); }
  ArrayCursor(const ArrayCursor &) = delete;
  ArrayCursor &operator=(const ArrayCursor &) = delete;

  // Address of element i (below the array's length), or nullptr with an
  // error.
  [[nodiscard]] uint8_t *At(uint32_t i) {
    if (held_ && i >= first_ && i < end_) return base_ + uint64_t(i - first_) * elementSize_;
    Release();
    uint32_t end = 0;
    auto *address = static_cast<uint8_t *>(
        VMAArrayRange_(arena_, id_, locked_, ARENA_MAX_BLOCK_SIZE, i, &end, genID_, read_, elementSize_, 0));
    if (!address) {
      QWErrorRethrow("cannot read element %u of array %u", i, id_);
      return nullptr;
    }
    // A block holds a whole number of elements from a multiple of the
    // elements per block on, so its range starts there.
    const uint32_t perBlock = ARENA_MAX_BLOCK_SIZE / elementSize_;
    held_ = address;
    first_ = i - i % perBlock;
    base_ = address - uint64_t(i - first_) * elementSize_;
    end_ = end;
    return address;
  }
  void Release() {
    if (!held_) return;
    VMAArrayRelease_(arena_, id_, held_, read_);
    held_ = base_ = nullptr;
    first_ = end_ = 0;
  }

 private:
  VMArena *arena_;
  uint32_t id_;
  int locked_;
  uint32_t genID_;
  int read_;
  uint32_t elementSize_;
  uint8_t *base_ = nullptr;
  uint8_t *held_ = nullptr;
  uint32_t first_ = 0, end_ = 0;
};

}  // namespace qw::olib
