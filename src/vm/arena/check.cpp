// Arena check and statistics: read-only diagnostics of an open arena.
//
// A check collects one record per reference to an arena block (from the
// arrays' block lists and, in the new generation, the size-class free lists),
// sorts them by (global block, slot) and walks the runs of one global block:
// two references to the same slot, or two size classes carved out of the
// same server block, are clashes.
#include <algorithm>
#include <cinttypes>
#include <cstdio>
#include <string>
#include <vector>

#include "qwvm/vmaarray.h"
#include "vm/arena/arena.h"

namespace qw::vm {
namespace {

struct CheckRecord {
  uint32_t globalBlock;
  int32_t arrayIndex;  // -1: a free-list entry
  int32_t blockIndex;
  uint8_t slot;        // printed as "index"
  uint8_t sizeClass;   // printed as "r"
};

CheckRecord Decode(uint64_t id, int32_t arrayIndex, int32_t blockIndex) {
  uint32_t sizeClass = uint32_t(id & 0xF);
  uint32_t bits = SlotBits(sizeClass);
  return {uint32_t(id >> (4 + bits)), arrayIndex, blockIndex, uint8_t((id >> 4) & ((1u << bits) - 1)),
          uint8_t(sizeClass)};
}

void Report(const char *format, const CheckRecord &a, const CheckRecord &b) {
  QWMessage(QW_LEVEL_DEBUG, format, a.globalBlock, b.globalBlock, a.arrayIndex, b.arrayIndex, a.blockIndex,
            b.blockIndex, a.slot, b.slot, a.sizeClass, b.sizeClass);
}

// The ordering of both checks; comparing two references to one server block
// already reports what it sees.
int CompareRecords(const void *left, const void *right, void *) {
  const auto &a = *static_cast<const CheckRecord *>(left);
  const auto &b = *static_cast<const CheckRecord *>(right);
  if (a.globalBlock != b.globalBlock) return a.globalBlock < b.globalBlock ? -1 : 1;
  if (a.sizeClass != b.sizeClass)
    Report("r block clash !!!\n blockID = %d, %d\n arrayIndex = %d, %d\n blockIndex = %d, %d\n index = %d, %d,\n r = %d, %d\n",
           a, b);
  if (a.slot == b.slot)
    Report("hard block clash !!!\n blockID = %d, %d\n arrayIndex = %d, %d\n blockIndex = %d, %d\n index = %d, %d\n, r = %d, %d\n",
           a, b);
  return a.slot < b.slot ? -1 : a.slot > b.slot ? 1 : 0;
}

void SortRecords(std::vector<CheckRecord> &records) {
  QSort(records.data(), records.size(), sizeof(CheckRecord), CompareRecords, nullptr);
}

std::vector<CheckRecord> NewGenerationRecords(VMArena *arena) {
  std::vector<CheckRecord> records;
  for (uint64_t a = 0; a < FArrayLength(&arena->arrays); ++a) {
    const auto *array = static_cast<const ArrayRecord *>(FArrayNth(&arena->arrays, a));
    if (!array->blockID.initialised) continue;
    for (uint64_t b = 0; b < FArrayLength(&array->blockID); ++b)
      records.push_back(Decode(*static_cast<uint64_t *>(FArrayNth(&array->blockID, b)), int32_t(a), int32_t(b)));
  }
  for (uint32_t i = 0; i < kLargestClass; ++i) {
    const uint64_t *list = arena->classes[i].freeList;
    for (size_t k = 0; k < ArrayLength(list); ++k) {
      CheckRecord record = Decode(list[k], -1, 0);
      uint32_t r = record.sizeClass;
      qwassert_(r == i);
      records.push_back(record);
    }
  }
  return records;
}

std::vector<CheckRecord> OldGenerationRecords(VMArena *arena) {
  std::vector<CheckRecord> records;
  const OldView &view = arena->view;
  for (uint32_t a = 0; a < view.ArrayCount(); ++a)
    for (uint32_t k = view.starts[a]; k < view.starts[a + 1]; ++k)
      records.push_back(Decode(view.blockIds[k], int32_t(a), int32_t(k - view.starts[a])));
  return records;
}

// Bytes of a block up to its last non-zero byte.
uint64_t TouchedBytes(VMArena *arena, uint64_t id, uint32_t generation) {
  uint32_t size = 0;
  auto *bytes = static_cast<const uint8_t *>(VMArenaDataAcquire(arena, id, 0, generation, 1, &size, nullptr));
  if (!bytes) {
    QWErrorClear();
    return 0;
  }
  uint32_t touched = size;
  while (touched > 0 && bytes[touched - 1] == 0) --touched;
  VMArenaDataRelease(arena, id, 1, const_cast<uint8_t *>(bytes), 0, 0);
  return touched;
}

std::vector<uint64_t> BlocksOf(VMArena *arena, uint32_t arrayId, uint32_t generation) {
  std::vector<uint64_t> blocks;
  if (generation == OLDGEN) {
    const OldView &view = arena->view;
    if (arrayId < view.ArrayCount()) blocks.assign(view.blockIds + view.starts[arrayId], view.blockIds + view.starts[arrayId + 1]);
  } else {
    const auto *array = static_cast<const ArrayRecord *>(FArrayNth(&arena->arrays, arrayId));
    if (array->blockID.initialised)
      for (uint64_t b = 0; b < FArrayLength(&array->blockID); ++b)
        blocks.push_back(*static_cast<uint64_t *>(FArrayNth(&array->blockID, b)));
  }
  return blocks;
}

// Names of arrays 1, 2, ... as kept in array 0 (NUL-terminated, in id order).
std::vector<std::string> ArrayNames(VMArena *arena, uint32_t generation) {
  std::vector<std::string> names(1);
  uint32_t length = VMAArrayLength_(arena, 0, generation);
  std::string current;
  for (uint32_t index = 0; index < length;) {
    uint32_t end = index;
    auto *bytes = static_cast<const char *>(
        VMAArrayRange_(arena, 0, 0, ARENA_MAX_BLOCK_SIZE, index, &end, generation, 1, 1, 0));
    if (!bytes) break;
    for (uint32_t i = index; i < end; ++i) {
      if (bytes[i - index] == '\0') {
        names.push_back(current);
        current.clear();
      } else {
        current.push_back(bytes[i - index]);
      }
    }
    VMAArrayRelease_(arena, 0, const_cast<char *>(bytes), 1);
    index = end;
  }
  return names;
}

}  // namespace
}  // namespace qw::vm

using namespace qw::vm;

extern "C" {

QW_API int VMArenaCheck(VMArena *arena) {
  MutexAcquire(arena->mutexes.newGen);
  std::vector<CheckRecord> records = NewGenerationRecords(arena);
  MutexRelease(arena->mutexes.newGen);
  SortRecords(records);
  int clashes = 0;
  for (size_t first = 0; first < records.size();) {
    size_t end = first + 1;
    while (end < records.size() && records[end].globalBlock == records[first].globalBlock) ++end;
    for (size_t k = first + 1; k < end; ++k) {
      if (records[k].sizeClass != records[first].sizeClass) {
        Report("enum r block clash !!!\n blockID = %d, %d\n arrayIndex = %d, %d\n blockIndex = %d, %d\n index = %d, %d,\n r = %d, %d\n",
               records[first], records[k]);
        ++clashes;
      }
      if (records[k].slot == records[k - 1].slot) {
        Report("enum hard block clash !!!\n blockID = %d, %d\n arrayIndex = %d, %d\n blockIndex = %d, %d\n index = %d, %d\n, r = %d, %d\n",
               records[k - 1], records[k]);
        ++clashes;
      }
    }
    first = end;
  }
  return clashes;
}

QW_API int VMArenaCheckR(VMArena *arena) {
  VMArenaOldGenAcquire(arena);
  std::vector<CheckRecord> records = OldGenerationRecords(arena);
  VMArenaOldGenRelease(arena);
  SortRecords(records);
  int clashes = 0;
  for (size_t k = 1; k < records.size(); ++k) {
    const CheckRecord &previous = records[k - 1], &record = records[k];
    if (record.globalBlock == previous.globalBlock && record.slot == previous.slot) {
      QWMessage(QW_LEVEL_DEBUG, "## block clash !!! arrayIndex = %d, %d, blockIndex = %d, %d", previous.arrayIndex,
                record.arrayIndex, previous.blockIndex, record.blockIndex);
      ++clashes;
    }
  }
  return clashes;
}

QW_API void VMAArenaStatPrint(VMArena *arena, uint32_t generation) {
  if (generation != NEWGEN && generation != OLDGEN) qwassert_(FALSE);
  if (generation == OLDGEN) VMArenaOldGenAcquire(arena);
  std::vector<std::string> names = ArrayNames(arena, generation);
  uint32_t arrayCount = generation == OLDGEN ? arena->view.ArrayCount() : uint32_t(FArrayLength(&arena->arrays));
  uint64_t totalSize = 0;
  for (uint32_t a = 0; a < arrayCount; ++a) {
    // Only the name service's own arrays are named, and the closing quote
    // ends no line: the output keeps this established shape exactly.
    if (a > 0 && a < names.size() && names[a].rfind("#name", 0) == 0)
      std::printf("# id = %d\nname = \"%s\"", int(a), names[a].c_str());
    std::vector<uint64_t> blocks = BlocksOf(arena, a, generation);
    uint64_t size = 0, touched = 0, largest = 0;
    for (uint64_t id : blocks) {
      uint64_t classSize = kClassSizes[id & 0xF];
      size += classSize;
      largest = std::max(largest, classSize);
      touched += TouchedBytes(arena, id, generation);
    }
    totalSize += size;
    std::printf("length = %u\n", VMAArrayLength_(arena, a, generation));
    std::printf("block count = %" PRIu64 ", ", uint64_t(blocks.size()));
    std::printf("max block size = %" PRIu64 ", ", largest);
    if (!blocks.empty()) {
      std::printf("average per block = %" PRIu64 "\n", size / blocks.size());
      std::printf("size = %" PRIu64 ", touched = %" PRIu64 ", %f %%\n", size, touched, 100.0 * double(touched) / double(size));
    } else {
      std::printf("size = %" PRIu64 ", touched = %" PRIu64, size, touched);
    }
  }
  if (generation == OLDGEN) VMArenaOldGenRelease(arena);
  std::printf("totalSize = %" PRIu64 "\n", totalSize);
  std::printf("Dumping free lists\n");
  MutexAcquire(arena->mutexes.newGen);
  for (uint32_t c = 0; c < ARENA_SIZE_CLASS_COUNT; ++c)
    std::printf("size = %d, free = %u\n", int(kClassSizes[c]), unsigned(ArrayLength(arena->classes[c].freeList)));
  MutexRelease(arena->mutexes.newGen);
  std::fflush(stdout);
}

}  // extern "C"
