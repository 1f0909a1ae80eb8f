// Growable bit arrays: values packed at one width in a 64-bit arena array,
// widened by re-packing from the top down.
//
// Invariants (each generation): the array holds at least the two header
// elements; element 0 (the slice size s) is at most 64; the packed elements
// hold count * s bits: 2 + ceil(count * s / 64) <= length. A widening grows
// the array before it re-packs and stores the new s last, so values are
// always read at the width they were written with.
#include <algorithm>
#include <memory>

#include "qwvm/gbarray.h"
#include "util/endian.h"
#include "vm/olib/common/array_cursor.h"
#include "vm/olib/common/named_array.h"

#ifndef FALSE
#define FALSE 0
#endif

struct GBitArray {
  VMAArrayHandle handle;
};

// Names the assertion texts use.
using ULong = uint64_t;
inline constexpr uint32_t ULONG_BIT_SIZE = 64;
inline constexpr ULong ONE = 1;

namespace qw::gba {
namespace {

constexpr uint32_t kElementSize = 8;
constexpr uint32_t kHeader = 2;  // slice size, count

// Stored data broke a bound: tag the arena (when writable), then fail the
// assertion naming the bound.
#define GBA_STORED(arena, condition, text)                                   \
  do {                                                                       \
    if (!(condition)) {                                                      \
      if (!VMArenaIsReadOnly(arena)) VMArenaTagCorrupted(arena);             \
      QWAssertFail_((text), __FILE__, __LINE__);                             \
    }                                                                        \
  } while (0)

void CheckGeneration(uint32_t genID) {
  if (genID != NEWGEN && genID != OLDGEN) qwassert_(FALSE);
}

void CheckWrite(uint32_t genID) {
  CheckGeneration(genID);
  qwassert_(genID == NEWGEN);
}

inline uint64_t Mask(uint32_t bits) { return bits >= 64 ? ~uint64_t(0) : (uint64_t(1) << bits) - 1; }

// One generation of the array, read through a cursor.
class View {
 public:
  View(GBitArray *array, uint32_t genID, int read)
      : arena_(array->handle.arena), cursor_(array->handle, genID, read, kElementSize),
        length_(array->handle.id[genID] == VMA_NO_ARRAY
                    ? 0
                    : VMAArrayLength_(arena_, array->handle.id[genID], genID)) {}

  uint32_t length() const { return length_; }
  void SetLength(uint32_t length) { length_ = length; }

  [[nodiscard]] bool Load(uint32_t i, uint64_t *value) {
    const uint8_t *at = cursor_.At(i);
    if (!at) return false;
    *value = LoadLE64(at);
    return true;
  }
  [[nodiscard]] bool Store(uint32_t i, uint64_t value) {
    uint8_t *at = cursor_.At(i);
    if (!at) return false;
    StoreLE64(at, value);
    return true;
  }
  void Release() { cursor_.Release(); }

  // The header; an array without one (absent in this generation) is empty.
  [[nodiscard]] bool Header(uint32_t *sliceSize, uint64_t *count) {
    *sliceSize = 0;
    *count = 0;
    if (length_ == 0) return true;
    GBA_STORED(arena_, 1 < length_, "1 < __upBound__");
    uint64_t slice = 0;
    if (!Load(0, &slice) || !Load(1, count)) return false;
    GBA_STORED(arena_, slice <= ULONG_BIT_SIZE, "sliceSize <= ULONG_BIT_SIZE");
    *sliceSize = uint32_t(slice);
    return true;
  }

  // Value `index` at width s.
  [[nodiscard]] bool Read(uint64_t index, uint32_t s, uint64_t *value) {
    *value = 0;
    if (s == 0) return true;
    const uint64_t bit = index * s, longIndex = bit / 64;
    const uint32_t r = uint32_t(bit % 64);
    GBA_STORED(arena_, longIndex + 2 < length_, "((longIndex + 2)) < __arraylen__");
    uint64_t low = 0;
    if (!Load(uint32_t(longIndex + 2), &low)) return false;
    *value = (low >> r) & Mask(s);
    if (r + s > 64) {
      GBA_STORED(arena_, longIndex + 2 + 1 < length_, "((longIndex + 2 + 1)) < __arraylen__");
      uint64_t high = 0;
      if (!Load(uint32_t(longIndex + 3), &high)) return false;
      *value |= (high & Mask(r + s - 64)) << (64 - r);
    }
    return true;
  }

  // Writes `value` (fitting in s bits) at `index`.
  [[nodiscard]] bool Write(uint64_t index, uint32_t s, uint64_t value) {
    if (s == 0) return true;
    const uint64_t bit = index * s, longIndex = bit / 64;
    const uint32_t r = uint32_t(bit % 64);
    GBA_STORED(arena_, longIndex + 2 < length_, "longIndex + 2 < __upBound__");
    uint64_t low = 0;
    if (!Load(uint32_t(longIndex + 2), &low)) return false;
    low = (low & ~(Mask(s) << r)) | (value << r);
    if (!Store(uint32_t(longIndex + 2), low)) return false;
    if (r + s > 64) {
      GBA_STORED(arena_, longIndex + 2 + 1 < length_, "longIndex + 2 + 1 < __upBound__");
      uint64_t high = 0;
      if (!Load(uint32_t(longIndex + 3), &high)) return false;
      const uint32_t highBits = r + s - 64;
      high = (high & ~Mask(highBits)) | (value >> (64 - r));
      if (!Store(uint32_t(longIndex + 3), high)) return false;
    }
    return true;
  }

 private:
  VMArena *arena_;
  qw::olib::ArrayCursor cursor_;
  uint32_t length_;
};

// Appends zero elements until the array holds `elements`.
bool GrowTo(GBitArray *array, View *view, uint64_t elements) {
  if (elements > 0xFFFFFFFEull)
    return QWErrorThrow(75, QW_ERROR_CLASS_GENERAL, "growable bit array: %llu elements are too many",
                        static_cast<unsigned long long>(elements));
  static const uint8_t zeros[64 * kElementSize] = {};
  const VMAArrayHandle &h = array->handle;
  view->Release();  // growth may move the tail block the cursor holds
  while (view->length() < elements) {
    const uint32_t count = uint32_t(std::min<uint64_t>(elements - view->length(), sizeof zeros / kElementSize));
    if (!VMAArrayAppend_(h.arena, h.id[NEWGEN], int(h.locked[NEWGEN]), ARENA_MAX_BLOCK_SIZE, zeros, count, NEWGEN,
                         kElementSize))
      return QWErrorRethrow("cannot grow a growable bit array");
    view->SetLength(view->length() + count);
  }
  return true;
}

// Re-packs every value from width s to t (> s), last value first.
bool Widen(GBitArray *array, View *view, uint32_t s, uint64_t count, uint32_t t) {
  if (!GrowTo(array, view, (uint64_t(t) * count) / 64 + 3)) return false;
  for (uint64_t j = count; j-- > 0;) {
    uint64_t value = 0;
    if (!view->Read(j, s, &value) || !view->Write(j, t, value)) return false;
  }
  return view->Store(0, t);
}

void CheckFit(uint64_t bit, uint32_t sliceSize) {
  if ((bit & ~Mask(sliceSize)) != 0)
    QWAssertFail_("(bit & (~((ONE << ((ULong) sliceSize)) - 1))) == 0", __FILE__, __LINE__);
}

// Widens when `bits` exceeds the slice size; *s receives the width to write at.
bool WidenFor(GBitArray *array, View *view, uint32_t bits, uint32_t *s, uint64_t count) {
  if (bits <= *s) return true;
  if (!Widen(array, view, *s, count, bits)) return QWErrorRethrow("cannot widen a growable bit array");
  *s = bits;
  return true;
}

}  // namespace
}  // namespace qw::gba

using namespace qw::gba;

extern "C" {

QW_API GBitArray *GBitArrayNew(VMArena *arena, uint8_t **pathBuffer, const char *path, int *created, int locked) {
  const bool mayCreate = created && *created && !VMArenaIsReadOnly(arena);
  if (created) *created = 0;
  std::unique_ptr<GBitArray> array(new (std::nothrow) GBitArray{});
  if (!array) {
    QWErrorThrow(12, QW_ERROR_CLASS_SYSTEM, "out of memory for a growable bit array");
    return nullptr;
  }
  bool made = false;
  if (!qw::olib::OpenNamedArray(arena, pathBuffer, path, "/gBitArray/slice", 0, mayCreate, locked, &array->handle,
                                &made)) {
    QWErrorRethrow("cannot open growable bit array \"%s\"", path);
    return nullptr;
  }
  if (!VMArenaIsReadOnly(arena)) {
    View view(array.get(), NEWGEN, 0);
    if (!GrowTo(array.get(), &view, kHeader)) return nullptr;
  }
  if (created) *created = made ? 1 : 0;
  return array.release();
}

QW_API void GBitArrayFree(GBitArray *array) { std::default_delete<GBitArray>()(array); }

QW_API uint64_t GBitArraySize(GBitArray *array, uint32_t genID) {
  CheckGeneration(genID);
  View view(array, genID, 1);
  uint32_t s = 0;
  uint64_t count = 0;
  if (!view.Header(&s, &count)) return 0;
  return count;
}

QW_API uint32_t GBitArrayGet(GBitArray *array, uint64_t index, uint64_t *value, uint32_t genID) {
  CheckGeneration(genID);
  *value = 0;
  View view(array, genID, 1);
  uint32_t s = 0;
  uint64_t size = 0;
  if (!view.Header(&s, &size)) return GBITARRAY_ERROR;
  qwassert_(index < size);
  if (!view.Read(index, s, value)) return GBITARRAY_ERROR;
  return s;
}

QW_API int GBitArraySet(GBitArray *array, uint64_t index, uint64_t value, uint32_t bits, uint32_t genID) {
  CheckWrite(genID);
  const uint32_t bitsLength = bits;
  qwassert_(bitsLength <= ULONG_BIT_SIZE);
  View view(array, NEWGEN, 0);
  uint32_t s = 0;
  uint64_t size = 0;
  if (!view.Header(&s, &size)) return 0;
  qwassert_(index < size);
  CheckFit(value, bits > s ? bits : s);  // before anything changes
  if (!WidenFor(array, &view, bits, &s, size)) return 0;
  return view.Write(index, s, value) ? 1 : 0;
}

QW_API int GBitArrayAdd(GBitArray *array, uint64_t value, uint32_t bits, uint32_t genID) {
  CheckWrite(genID);
  const uint32_t bitsLength = bits;
  qwassert_(bitsLength <= ULONG_BIT_SIZE);
  View view(array, NEWGEN, 0);
  uint32_t s = 0;
  uint64_t size = 0;
  if ((view.length() < kHeader && !GrowTo(array, &view, kHeader)) || !view.Header(&s, &size)) return 0;
  CheckFit(value, bits > s ? bits : s);  // before anything changes
  if (!WidenFor(array, &view, bits, &s, size)) return 0;
  // Room for one more value: at most 64 bits, so one element at most.
  if (view.length() - kHeader < ((size + 1) * s) / 64 + 1 && !GrowTo(array, &view, view.length() + 1)) return 0;
  if (!view.Write(size, s, value) || !view.Store(1, size + 1)) return 0;
  return 1;
}

}  // extern "C"
