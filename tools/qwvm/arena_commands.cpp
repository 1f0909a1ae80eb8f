// `qwvm check DIR` and `qwvm stat DIR`: inspecting an existing arena.
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>

#include "qwvm/qwvm.h"
#include "tools/qwvm/commands.h"

namespace qwtool {
namespace {

// Arena location and serials from the command line:
//   DIR [--serial OLD NEW]
struct ArenaArguments {
  std::string directory;
  uint64_t oldSerial = STATUS_NO_SERIAL;
  uint64_t newSerial = STATUS_NO_SERIAL;
  bool ok = false;
};

ArenaArguments ParseArenaArguments(int argc, char **argv, const char *command) {
  ArenaArguments parsed;
  if (argc < 1) {
    std::fprintf(stderr, "usage: qwvm %s DIR [--serial OLD NEW]\n", command);
    return parsed;
  }
  parsed.directory = argv[0];
  if (argc == 4 && std::strcmp(argv[1], "--serial") == 0) {
    parsed.oldSerial = std::strtoull(argv[2], nullptr, 10);
    parsed.newSerial = std::strtoull(argv[3], nullptr, 10);
  } else if (argc != 1) {
    std::fprintf(stderr, "usage: qwvm %s DIR [--serial OLD NEW]\n", command);
    return parsed;
  }
  parsed.ok = true;
  return parsed;
}

// Opens read-only; an interrupted commit can only be finished by a writable
// open, which the tool then does (and says so).
VMArena *OpenForInspection(const ArenaArguments &arguments, PageCache *cache) {
  const char *dir = arguments.directory.c_str();
  std::string marker = arguments.directory + "/committing";
  uint32_t flags = FileExists(marker.c_str()) ? 0 : VM_FLAG_READ_ONLY;
  if (flags == 0) std::printf("finishing an interrupted commit in \"%s\"\n", dir);
  VMArena *arena = VMArenaOpen(dir, flags, 1, arguments.oldSerial, arguments.newSerial, nullptr, cache);
  if (!arena) std::fprintf(stderr, "qwvm: cannot open the arena in \"%s\":\n%s\n", dir, QWErrorMessage());
  return arena;
}

// Runs `body` on the opened arena with a page cache; returns its status, or
// 1 when the arena cannot be opened and 2 on bad arguments.
template <typename Body>
int WithArena(int argc, char **argv, const char *command, Body body) {
  ArenaArguments arguments = ParseArenaArguments(argc, argv, command);
  if (!arguments.ok) return 2;
  PageCache *cache = PageCacheNew(64 << 20, 8192);
  if (!cache) {
    std::fprintf(stderr, "qwvm: %s\n", QWErrorMessage());
    return 1;
  }
  VMArena *arena = OpenForInspection(arguments, cache);
  int status = arena ? body(arena) : 1;
  if (arena) VMArenaClose(arena);
  PageCacheFree(cache);
  return status;
}

}  // namespace

int RunCheck(int argc, char **argv) {
  return WithArena(argc, argv, "check", [](VMArena *arena) {
    QWSetMessageThreshold(QW_LEVEL_DEBUG);  // clashes are reported at level 1
    int newClashes = VMArenaCheck(arena);
    int oldClashes = VMArenaCheckR(arena);
    QWSetMessageThreshold(QW_LEVEL_PROGRESS);
    std::printf("arena \"%s\": %u bucket(s)\n", VMArenaPath(arena), VMArenaBucketCount(arena));
    std::printf("  new generation:       %s\n", newClashes ? "CLASHES FOUND" : "clean");
    std::printf("  committed generation: %s\n", oldClashes ? "CLASHES FOUND" : "clean");
    if (newClashes || oldClashes) {
      std::printf("%d clash(es) found\n", newClashes + oldClashes);
      return 1;
    }
    std::printf("no clashes found\n");
    return 0;
  });
}

int RunStat(int argc, char **argv) {
  return WithArena(argc, argv, "stat", [](VMArena *arena) {
    std::printf("arena \"%s\"\n", VMArenaPath(arena));
    for (uint32_t i = 0; i < VMArenaBucketCount(arena); ++i) {
      std::printf("bucket %x:\n", i);
      std::fflush(stdout);
      LocalBlockServer0StatPrint(VMArenaBucketServer(arena, i));
    }
    std::printf("committed generation:\n");
    VMAArenaStatPrint(arena, OLDGEN);
    return 0;
  });
}

}  // namespace qwtool
