// Inspecting a plain arena: opening it for `qwvm check` and `qwvm stat`,
// checking both generations for shared blocks and printing its statistics.
#include <cstdio>
#include <string>
#include <vector>

#include "qwvm/qwvm.h"
#include "tools/qwvm/commands.h"

namespace qwtool {

// Opens read-only; an interrupted commit can only be finished by a writable
// open, which the tool then does (and says so).
VMArena *OpenArenaForInspection(const std::string &dir, uint64_t oldSerial, uint64_t newSerial, PageCache *cache) {
  const std::string marker = dir + "/committing";
  const uint32_t flags = FileExists(marker.c_str()) ? 0 : VM_FLAG_READ_ONLY;
  if (flags == 0) std::printf("finishing an interrupted commit in \"%s\"\n", dir.c_str());
  return VMArenaOpen(dir.c_str(), flags, 1, oldSerial, newSerial, nullptr, cache);
}

uint64_t CheckArenaGenerations(VMArena *arena, std::vector<std::string> *faults) {
  QWSetMessageThreshold(QW_LEVEL_DEBUG);  // the clashes themselves are level-1 messages
  const int clashes[2] = {VMArenaCheck(arena), VMArenaCheckR(arena)};
  QWSetMessageThreshold(QW_LEVEL_WARNING);
  const char *const names[2] = {"new generation", "committed generation"};
  for (int g = 0; g < 2; ++g)
    if (clashes[g]) faults->push_back(std::string(names[g]) + ": " + std::to_string(clashes[g]) + " block clash(es)");
  return uint64_t(clashes[0]) + uint64_t(clashes[1]);
}

void PrintArenaStat(VMArena *arena) {
  std::printf("arena \"%s\"\n", VMArenaPath(arena));
  for (uint32_t i = 0; i < VMArenaBucketCount(arena); ++i) {
    std::printf("bucket %x:\n", i);
    std::fflush(stdout);
    LocalBlockServer0StatPrint(VMArenaBucketServer(arena, i));
  }
  std::printf("committed generation:\n");
  VMAArenaStatPrint(arena, OLDGEN);
}

}  // namespace qwtool
