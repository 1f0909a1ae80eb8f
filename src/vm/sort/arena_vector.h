// Typed access to the plain arena arrays the sorter and its block server keep
// their bookkeeping in: element counts, single elements, appends and
// truncation, all in NEWGEN unless a generation is named.
#pragma once

#include <cstdint>
#include <cstring>
#include <string>

#include "qwvm/qwlib.h"
#include "qwvm/vmaarray.h"
#include "vm/olib/common/named_array.h"

namespace qw::sort {

template <class T>
class ArenaVector {
 public:
  // Finds or makes base + "/" + name (base alone when name is NULL). False
  // with an error (code 2 when missing on a read-only arena).
  [[nodiscard]] bool Open(VMArena *arena, const std::string &base, const char *name) {
    bool made = false;
    return qw::olib::OpenNamedArray(arena, base, name, 0, 0, &handle_, &made);
  }
  [[nodiscard]] bool Valid() const { return handle_.arena != nullptr && handle_.id[NEWGEN] != VMA_NO_ARRAY; }
  [[nodiscard]] uint32_t Length(uint32_t genID = NEWGEN) const {
    return handle_.id[genID] == VMA_NO_ARRAY ? 0 : VMAArrayLength_(handle_.arena, handle_.id[genID], genID);
  }
  // Element i (below the length); false with an error when unreadable.
  [[nodiscard]] bool Get(uint32_t i, T *value, uint32_t genID = NEWGEN) const {
    uint32_t end = 0;
    void *at = VMAArrayRange_(handle_.arena, handle_.id[genID], 0, ARENA_MAX_BLOCK_SIZE, i, &end, genID, 1, sizeof(T), 0);
    if (!at) return false;
    std::memcpy(value, at, sizeof(T));
    VMAArrayRelease_(handle_.arena, handle_.id[genID], at, 1);
    return true;
  }
  [[nodiscard]] bool Set(uint32_t i, const T &value) {
    return VMAArraySetRange_(handle_.arena, handle_.id[NEWGEN], 0, ARENA_MAX_BLOCK_SIZE, i, &value, 1, NEWGEN,
                             sizeof(T)) != 0;
  }
  [[nodiscard]] bool Append(const T *values, uint32_t count) {
    return count == 0 || VMAArrayAppend_(handle_.arena, handle_.id[NEWGEN], 0, ARENA_MAX_BLOCK_SIZE, values, count,
                                         NEWGEN, sizeof(T)) != 0;
  }
  [[nodiscard]] bool Append(const T &value) { return Append(&value, 1); }
  // Shortens the array (never grows it).
  [[nodiscard]] bool Truncate(uint32_t length) {
    return VMAArrayLengthSet_(handle_.arena, handle_.id[NEWGEN], length, NEWGEN, sizeof(T)) != 0;
  }
  // Frees every block: the array is empty and holds no storage.
  [[nodiscard]] bool Clear() {
    return VMAArrayClear_(handle_.arena, handle_.id[NEWGEN], 0, NEWGEN) != 0;
  }
  const VMAArrayHandle &handle() const { return handle_; }

 private:
  VMAArrayHandle handle_{};
};

}  // namespace qw::sort
