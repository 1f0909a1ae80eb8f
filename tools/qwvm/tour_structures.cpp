// The tour's trees: an integer B-tree and a path dictionary in the tour's
// arena, committed, then read back from a read-only reopen.
#include <cstdio>
#include <cstring>
#include <string>

#include "tools/qwvm/commands.h"

namespace qwtool {
namespace {

constexpr uint64_t kKeys = 20000;
const char *const kPaths[] = {"etc/hosts", "usr/bin/ls", "usr/bin/cat", "usr/lib/libqwvm.so", "var/log/syslog"};

bool FillTrees(VMArena *arena, uint8_t **pathBuffer) {
  BTree *tree = BTreeNew(arena, "tour", "squares-by-key", 0, 8, 4);
  if (!tree) return TourFail("BTreeNew") == 0;
  for (uint64_t k = 0; k < kKeys; ++k) BTreeFind(tree, k * 3, k, BTREE_NO_KEY, 1, 0, 0, NEWGEN);
  std::printf("   B-tree \"tour/squares-by-key\": %llu keys 0, 3, 6, ... with value key / 3\n",
              (unsigned long long)kKeys);
  BTreeFree(tree, 8);
  PathDict *paths = PathDictNew(arena, pathBuffer, "files", nullptr, 0);
  PathDictThreadData *threadData = PathDictThreadDataNew();
  if (!paths || !threadData) return TourFail("PathDictNew") == 0;
  uint64_t value = 1;
  for (const char *path : kPaths) PathDictFind(paths, threadData, path, uint32_t(std::strlen(path)), value++, NEWGEN, 1, 0);
  std::printf("   path dictionary \"files\": %zu paths, values 1 to %zu\n", std::size(kPaths), std::size(kPaths));
  PathDictThreadDataFree(threadData);
  PathDictFree(paths);
  return true;
}

bool ReadTrees(VMArena *arena, uint8_t **pathBuffer) {
  BTree *tree = BTreeNew(arena, "tour", "squares-by-key", 0, 8, 4);
  if (!tree) return TourFail("BTreeNew (reopen)") == 0;
  uint64_t below = 0, above = 0;
  const uint64_t hit = BTreeFind(tree, 2997, 0, BTREE_NO_KEY, 0, 0, 0, OLDGEN);
  const uint64_t prev = BTreePrevKey(tree, 3001, &below, OLDGEN), next = BTreeNextKey(tree, 3001, &above, OLDGEN);
  std::printf("   B-tree: key 2997 -> %llu; around 3001: %llu -> %llu and %llu -> %llu\n", (unsigned long long)hit,
              (unsigned long long)prev, (unsigned long long)below, (unsigned long long)next,
              (unsigned long long)above);
  BTreeFree(tree, 8);
  bool ok = hit == 999 && prev == 3000 && next == 3003;
  PathDict *paths = PathDictNew(arena, pathBuffer, "files", nullptr, 0);
  PathDictEnumeration *walk = PathDictEnumerationNew();
  if (!paths || !walk) return TourFail("PathDictNew (reopen)") == 0;
  ok = ok && PathDictEnumerationInit(paths, walk, "/usr/", 5, PATHDICT_DEPTH_UNLIMITED, OLDGEN);
  const char *path;
  uint32_t length, found = 0;
  uint64_t value;
  while (PathDictEnumerationGetNext(walk, &path, &length, &value)) {
    std::printf("   path dictionary under \"/usr/\": %s -> %llu\n", path, (unsigned long long)value);
    ++found;
  }
  PathDictEnumerationFree(walk);
  PathDictFree(paths);
  return ok && found == 3;
}

}  // namespace

int TourStructures(const char *directory, PageCache *cache) {
  const std::string arenaDir = std::string(directory) + "/arena";
  std::printf("\n4. Trees: an integer B-tree and a path dictionary\n");
  VMArena *arena = VMArenaOpen(arenaDir.c_str(), 0, 2, STATUS_NO_SERIAL, STATUS_NO_SERIAL, nullptr, cache);
  if (!arena) return TourFail("VMArenaOpen");
  uint8_t *pathBuffer = nullptr;
  bool ok = FillTrees(arena, &pathBuffer);
  if (ok && !VMArenaCommit(arena, nullptr, nullptr, 0)) ok = TourFail("VMArenaCommit") == 0;
  VMArenaClose(arena);
  if (ok) std::printf("   committed and closed\n");
  arena = ok ? VMArenaOpen(arenaDir.c_str(), VM_FLAG_READ_ONLY, 2, STATUS_NO_SERIAL, STATUS_NO_SERIAL, nullptr, cache)
             : nullptr;
  if (ok && !arena) ok = TourFail("VMArenaOpen (read-only)") == 0;
  ok = ok && ReadTrees(arena, &pathBuffer);
  if (arena) VMArenaClose(arena);
  ArrayFree(pathBuffer);
  if (!ok) std::fprintf(stderr, "qwvm tour: the trees did not read back\n");
  return ok ? 0 : 1;
}

}  // namespace qwtool
