// The tour's box step: a few entries, one small and one spanning several
// blocks, stored in a box of two buckets, checkpointed, read back after a
// reopen and checked.
#include <cinttypes>
#include <cstdio>
#include <string>
#include <vector>

#include "qwvm/qwvm.h"
#include "tools/qwvm/commands.h"

namespace qwtool {
namespace {

struct TourEntry {
  uint32_t id;
  std::string value;
};

std::vector<TourEntry> Entries() {
  std::string large;
  for (uint32_t i = 0; large.size() < 20000; ++i) large += "line " + std::to_string(i) + " of a long value\n";
  return {{1, "a small value"}, {2, large}, {7, "another bucket's entry"}};
}

uint32_t Blocks(size_t size) { return uint32_t((size + BOXLVM_MAX_BLOCK_DATA - 1) / BOXLVM_MAX_BLOCK_DATA); }

int Store(BoxLVM *box, const std::vector<TourEntry> &entries) {
  for (const TourEntry &entry : entries) {
    if (!BoxLVMUpdate(box, entry.id, 0, 0, entry.value.data(), uint32_t(entry.value.size()), nullptr, nullptr))
      return TourFail("BoxLVMUpdate");
    std::printf("   id %u -> bucket %u: %zu bytes in %u block%s\n", entry.id, entry.id % BoxLVMBucketCount(box),
                entry.value.size(), Blocks(entry.value.size()), Blocks(entry.value.size()) == 1 ? "" : "s");
  }
  if (!BoxLVMCheckpoint(box, 1, nullptr)) return TourFail("BoxLVMCheckpoint");
  std::printf("   a committing checkpoint synced the data files and committed the metadata\n");
  return 0;
}

int ReadBack(BoxLVM *box, const std::vector<TourEntry> &entries) {
  BoxLVMThreadData *threadData = BoxLVMThreadDataNew();
  if (!threadData) return TourFail("BoxLVMThreadDataNew");
  uint8_t *value = nullptr;
  int mismatches = 0, status = 0;
  for (const TourEntry &entry : entries) {
    if (!BoxLVMGet(box, threadData, entry.id, &value)) {
      status = TourFail("BoxLVMGet");
      break;
    }
    const bool same = std::string(value, value + ArrayLength(value)) == entry.value;
    mismatches += !same;
    std::printf("   id %u: %zu bytes%s\n", entry.id, size_t(ArrayLength(value)), same ? ", as stored" : "  <-- MISMATCH");
  }
  ArrayFree(value);
  BoxLVMThreadDataFree(threadData);
  if (status == 0 && mismatches) {
    std::fprintf(stderr, "qwvm tour: %d box entr%s did not read back\n", mismatches, mismatches == 1 ? "y" : "ies");
    status = 1;
  }
  return status;
}

}  // namespace

int TourBox(const char *directory) {
  const std::string dir = std::string(directory) + "/box";
  std::printf("\n8. Box: a key/value store in %s, 2 buckets, each a logged arena and a data file\n", dir.c_str());
  QWSetMessageThreshold(QW_LEVEL_WARNING);
  const std::vector<TourEntry> entries = Entries();
  BoxLVM *box = BoxLVMOpen(dir.c_str(), 2, 1, 1, 1, 0, nullptr);
  int status = box ? Store(box, entries) : TourFail("BoxLVMOpen");
  if (box && !BoxLVMClose(box, 0) && status == 0) status = TourFail("BoxLVMClose");
  box = nullptr;
  if (status == 0 && !(box = BoxLVMOpen(dir.c_str(), 2, 1, 1, 0, 1, nullptr))) status = TourFail("BoxLVMOpen (reopen)");
  if (status == 0) {
    std::printf("   reopened read-only: %" PRIu64 " entries; reading them back, every block checksummed:\n",
                BoxLVMSize(box));
    status = ReadBack(box, entries);
  }
  uint64_t faults = 0;
  if (status == 0 && !BoxLVMCheck(box, nullptr, nullptr, &faults)) status = TourFail("BoxLVMCheck");
  if (status == 0) {
    std::printf("   BoxLVMCheck: %" PRIu64 " faults\n   inspect it: qwvm box %s stat; qwvm box %s check\n", faults,
                dir.c_str(), dir.c_str());
    if (faults) status = 1;
  }
  if (box) BoxLVMClose(box, 0);
  QWSetMessageThreshold(QW_LEVEL_PROGRESS);
  return status;
}

}  // namespace qwtool
