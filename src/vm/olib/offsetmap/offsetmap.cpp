// Offset maps: groups of 16 entries, the first stored absolutely, the other
// 15 as varint differences from their predecessors.
//
// Invariants (each generation), with n = lengthCodeIndex[0] entries and
// G = ceil(n / 16) groups: "offset" holds G entries, "lengthCodeIndex"
// 1 + G, and the differences of group g start at lengthCodeIndex[1 + g] and
// end where the next group's start (or the array's end). An add appends
// first and stores the new count last, cutting the arrays back on failure,
// so a failed add leaves the map as it was.
#include <memory>

#include "qwvm/offsetmap.h"
#include "util/endian.h"
#include "util/varint.h"
#include "vm/olib/common/array_cursor.h"
#include "vm/olib/common/named_array.h"

#ifndef FALSE
#define FALSE 0
#endif

struct OffsetMap {
  VMArena *arena;
  VMAArrayHandle lengthCodeIndex;  // 32-bit: count, then each group's first difference byte
  VMAArrayHandle offset;           // 64-bit: each group's first offset
  VMAArrayHandle lengthcode;       // bytes: the differences
};

// Names the assertion texts use.
inline constexpr uint64_t UINT_MAX_VALUE = 0xFFFFFFFFu;

namespace qw::om {
namespace {

constexpr uint32_t kGroup = 16;

void CheckGeneration(uint32_t genID) {
  if (genID != NEWGEN && genID != OLDGEN) qwassert_(FALSE);
}

uint32_t LengthOf(const VMAArrayHandle &handle, uint32_t genID) {
  return handle.id[genID] == VMA_NO_ARRAY ? 0 : VMAArrayLength_(handle.arena, handle.id[genID], genID);
}

// The entry count, or false with an error.
bool EntryCount(OffsetMap *map, uint32_t genID, uint32_t *count) {
  *count = 0;
  qw::olib::ArrayCursor index(map->lengthCodeIndex, genID, 1, 4);
  const uint8_t *at = index.At(0);
  if (!at) return false;
  *count = LoadLE32(at);
  return true;
}

// A read went past a stored array: corruption when the entry exists (the
// arena is tagged), a caller's entry number beyond the map otherwise; either
// way the assertion naming the bound fails.
[[noreturn]] void OutOfBounds(OffsetMap *map, uint32_t n, uint32_t genID, const char *text) {
  uint32_t count = 0;
  QWErrorSave();
  if (LengthOf(map->lengthCodeIndex, genID) > 0 && EntryCount(map, genID, &count) && n < count &&
      !VMArenaIsReadOnly(map->arena))
    VMArenaTagCorrupted(map->arena);
  QWErrorRestore();
  QWAssertFail_(text, __FILE__, __LINE__);
}

bool Corrupted(OffsetMap *map, const char *invariant) {
  if (!VMArenaIsReadOnly(map->arena)) VMArenaTagCorrupted(map->arena);
  return QWErrorThrow(74, QW_ERROR_CLASS_DATA, "corrupted offset map in \"%s\": %s does not hold",
                      VMArenaPath(map->arena), invariant);
}

bool Append(const VMAArrayHandle &handle, const void *data, uint32_t count, uint32_t elementSize) {
  return VMAArrayAppend_(handle.arena, handle.id[NEWGEN], int(handle.locked[NEWGEN]), ARENA_MAX_BLOCK_SIZE, data,
                         count, NEWGEN, elementSize) != 0;
}

// The array lengths before an add, restored when it fails.
struct Lengths {
  uint32_t index, offsets, bytes;
};

void Restore(OffsetMap *map, const Lengths &before) {
  QWErrorSave();
  const std::pair<const VMAArrayHandle *, std::pair<uint32_t, uint32_t>> arrays[] = {
      {&map->lengthCodeIndex, {before.index, 4}}, {&map->offset, {before.offsets, 8}},
      {&map->lengthcode, {before.bytes, 1}}};
  for (const auto &[handle, shape] : arrays)
    (void)VMAArrayLengthSet_(map->arena, handle->id[NEWGEN], shape.first, NEWGEN, shape.second);
  QWErrorRestore();
}

// Appends what entry n (the next one) needs: a new group's offset and start,
// or the difference from entry n - 1.
bool AppendEntry(OffsetMap *map, uint32_t n, uint64_t offset, const Lengths &before) {
  const uint32_t g = n / kGroup;
  if (n % kGroup == 0) {
    if (before.offsets != g || before.index != g + 1) return Corrupted(map, "groups == n / 16");
    uint8_t bytes[8];
    StoreLE64(bytes, offset);
    if (!Append(map->offset, bytes, 1, 8)) return false;
    StoreLE32(bytes, before.bytes);
    return Append(map->lengthCodeIndex, bytes, 1, 4);
  }
  if (before.offsets != g + 1 || before.index != g + 2) return Corrupted(map, "groups == n / 16 + 1");
  const uint64_t lastOffset = OffsetMapGet(map, n - 1, NEWGEN);
  if (lastOffset == OFFSETMAP_INVALID_OFFSET && QWErrorIsSet()) return false;
  qwassert_(offset >= lastOffset);
  qwassert_((offset - lastOffset) <= UINT_MAX_VALUE);
  const uint64_t d = offset - lastOffset;
  if (d == 0) return true;  // no byte at all: see the header
  uint8_t bytes[kVarintMaxBytes];
  return Append(map->lengthcode, bytes, uint32_t(VarintEncode(bytes, d)), 1);
}

// Adds the count 0 to a map whose index array is empty (a new map).
bool InitCount(OffsetMap *map) {
  if (VMArenaIsReadOnly(map->arena) || LengthOf(map->lengthCodeIndex, NEWGEN) > 0) return true;
  const uint8_t zero[4] = {};
  return Append(map->lengthCodeIndex, zero, 1, 4);
}

}  // namespace
}  // namespace qw::om

using namespace qw::om;
using qw::LoadLE32;
using qw::LoadLE64;
using qw::StoreLE32;

extern "C" {

QW_API OffsetMap *OffsetMapNew_(VMArena *arena, uint8_t **pathBuffer, const char *path, int scan, int *created,
                                int locked) {
  const bool mayCreate = created && *created && !VMArenaIsReadOnly(arena);
  if (created) *created = 0;
  std::unique_ptr<OffsetMap> map(new (std::nothrow) OffsetMap{arena, {}, {}, {}});
  if (!map) {
    QWErrorThrow(12, QW_ERROR_CLASS_SYSTEM, "out of memory for an offset map");
    return nullptr;
  }
  bool made = false;
  if (!qw::olib::OpenNamedArray(arena, pathBuffer, path, "/offsetMap/lengthCodeIndex", scan, mayCreate, locked,
                                &map->lengthCodeIndex, &made) ||
      !qw::olib::OpenNamedArray(arena, pathBuffer, path, "/offsetMap/offset", scan, mayCreate, locked, &map->offset,
                                &made) ||
      !qw::olib::OpenNamedArray(arena, pathBuffer, path, "/offsetMap/lengthcode", scan, mayCreate, locked,
                                &map->lengthcode, &made) ||
      !InitCount(map.get())) {
    QWErrorRethrow("cannot open offset map \"%s\"", path);
    return nullptr;
  }
  if (created) *created = made ? 1 : 0;
  return map.release();
}

QW_API OffsetMap *OffsetMapNew(VMArena *arena, uint8_t **pathBuffer, const char *path, int *created, int locked) {
  return OffsetMapNew_(arena, pathBuffer, path, 0, created, locked);
}

QW_API void OffsetMapFree(OffsetMap *map) { std::default_delete<OffsetMap>()(map); }

QW_API uint32_t OffsetMapAdd(OffsetMap *map, uint64_t offset) {
  const Lengths before{LengthOf(map->lengthCodeIndex, NEWGEN), LengthOf(map->offset, NEWGEN),
                       LengthOf(map->lengthcode, NEWGEN)};
  if (!(0 < before.index)) {
    if (!VMArenaIsReadOnly(map->arena)) VMArenaTagCorrupted(map->arena);
    QWAssertFail_("0 < __upBound__", __FILE__, __LINE__);
  }
  uint32_t n = 0;
  if (!EntryCount(map, NEWGEN, &n)) return OFFSETMAP_INVALID_ENTRY;
  if (n == OFFSETMAP_INVALID_ENTRY) {
    QWErrorThrow(75, QW_ERROR_CLASS_GENERAL, "offset map is full");
    return OFFSETMAP_INVALID_ENTRY;
  }
  bool ok = AppendEntry(map, n, offset, before);
  if (ok) {
    qw::olib::ArrayCursor index(map->lengthCodeIndex, NEWGEN, 0, 4);
    uint8_t *at = index.At(0);
    if ((ok = at != nullptr)) StoreLE32(at, n + 1);
  }
  if (!ok) {
    Restore(map, before);
    QWErrorRethrow("cannot add to an offset map");
    return OFFSETMAP_INVALID_ENTRY;
  }
  return n;
}

QW_API uint64_t OffsetMapGet(OffsetMap *map, uint32_t n, uint32_t genID) {
  CheckGeneration(genID);
  const uint32_t sub = n / kGroup, k = n % kGroup;
  if (!(sub < LengthOf(map->offset, genID))) OutOfBounds(map, n, genID, "((sub)) < __arraylen__");
  if (!(sub + 1 < LengthOf(map->lengthCodeIndex, genID))) OutOfBounds(map, n, genID, "((sub + 1)) < __arraylen__");
  uint64_t result = 0;
  uint32_t lengthCodeIndex = 0;
  {
    qw::olib::ArrayCursor offsets(map->offset, genID, 1, 8);
    qw::olib::ArrayCursor starts(map->lengthCodeIndex, genID, 1, 4);
    const uint8_t *first = offsets.At(sub), *start = first ? starts.At(sub + 1) : nullptr;
    if (!start) return OFFSETMAP_INVALID_OFFSET;
    result = LoadLE64(first);
    lengthCodeIndex = LoadLE32(start);
  }
  const uint32_t codeLength = LengthOf(map->lengthcode, genID);
  qw::olib::ArrayCursor code(map->lengthcode, genID, 1, 1);
  for (uint32_t i = 0; i < k; ++i) {
    uint64_t d = 0;
    for (uint32_t shift = 0;; shift += 7) {
      if (!(lengthCodeIndex < codeLength)) OutOfBounds(map, n, genID, "((lengthCodeIndex)) < __arraylen__");
      if (shift > 63) {
        Corrupted(map, "difference < 2^64");
        return OFFSETMAP_INVALID_OFFSET;
      }
      const uint8_t *byte = code.At(lengthCodeIndex++);
      if (!byte) return OFFSETMAP_INVALID_OFFSET;
      d |= uint64_t(*byte >> 1) << shift;
      if (!(*byte & 1)) break;
    }
    result += d;
  }
  return result;
}

}  // extern "C"
