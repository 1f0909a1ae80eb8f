// `qwvm tour`: a walk through the storage services, printing what it does.
#include <cinttypes>
#include <cstdio>
#include <cstring>
#include <filesystem>
#include <string>
#include <vector>

#include "qwvm/qwvm.h"
#include "tools/qwvm/commands.h"

namespace qwtool {
namespace {

int Fail(const char *what) { return TourFail(what); }

struct TourBlock {
  uint64_t id;
  uint32_t size;
  std::string text;
};

bool WriteText(VMArena *arena, const TourBlock &block) {
  uint32_t size = 0;
  auto *bytes = static_cast<char *>(VMArenaDataAcquire(arena, block.id, 0, NEWGEN, 0, &size, nullptr));
  if (!bytes) return false;
  std::memset(bytes, 0, size);
  std::memcpy(bytes, block.text.data(), std::min<size_t>(size, block.text.size()));
  VMArenaDataRelease(arena, block.id, 0, bytes, 0, 0);
  return true;
}

std::string ReadText(VMArena *arena, uint64_t id, uint32_t generation) {
  uint32_t size = 0;
  auto *bytes = static_cast<char *>(VMArenaDataAcquire(arena, id, 0, generation, 1, &size, nullptr));
  if (!bytes) {
    QWErrorClear();
    return "(absent)";
  }
  std::string text(bytes, strnlen(bytes, size));
  VMArenaDataRelease(arena, id, 1, bytes, 0, 0);
  return text;
}

// The platform services every store stands on.
int TourPlatform(const std::string &directory) {
  std::printf("\n1. Platform: a status file with numbered parameters, written atomically\n");
  QWStatus *status = StatusNew();
  StatusSetParameter(status, 1, 42);
  StatusSetParameter(status, 99, 0);
  if (!StatusWrite(status, directory.c_str())) return Fail("StatusWrite");
  StatusFree(status);
  status = StatusRead(directory.c_str());
  if (!status) return Fail("StatusRead");
  std::printf("   wrote and read back %s/status: parameter 1 = %" PRIu64 "\n", directory.c_str(),
              StatusGetParameter(status, 1));
  StatusFree(status);
  return 0;
}

int TourArena(const std::string &directory, PageCache *cache) {
  std::string arenaDir = directory + "/arena";
  std::printf("\n2. Arena: create %s with 2 bucket servers (page-cache mode)\n", arenaDir.c_str());
  VMArena *arena = VMArenaOpen(arenaDir.c_str(), VM_FLAG_CREATE, 2, STATUS_NO_SERIAL, STATUS_NO_SERIAL, nullptr, cache);
  if (!arena) return Fail("VMArenaOpen");
  std::vector<TourBlock> blocks;
  for (uint32_t request : {20u, 100u, 600u, 3000u, 8192u}) {
    TourBlock block{INVALID_VMARENA_BLOCK_ID, 0, ""};
    block.id = VMArenaBlockNew(arena, 0, request, &block.size, 0);
    block.text = "block of " + std::to_string(request) + " bytes requested";
    if (block.id == INVALID_VMARENA_BLOCK_ID || !WriteText(arena, block)) return Fail("VMArenaBlockNew");
    uint32_t bucket = 0, serverBlock = 0, slot = 0;
    VMABlockInfoGet(arena, block.id, nullptr, &bucket, &serverBlock, &slot);
    std::printf("   allocated id 0x%" PRIx64 ": class size %u, bucket %u, server block %u, slot %u\n", block.id,
                block.size, bucket, serverBlock, slot);
    blocks.push_back(block);
  }
  std::printf("   before the commit the committed generation has: \"%s\"\n",
              ReadText(arena, blocks[0].id, OLDGEN).c_str());
  if (!VMArenaCommit(arena, nullptr, nullptr, 0)) return Fail("VMArenaCommit");
  std::printf("   committed; the committed generation now has: \"%s\"\n", ReadText(arena, blocks[0].id, OLDGEN).c_str());
  blocks[0].text = "rewritten after the commit";
  if (!WriteText(arena, blocks[0])) return Fail("write");
  std::printf("   copy-on-write: new generation \"%s\", old generation \"%s\"\n",
              ReadText(arena, blocks[0].id, NEWGEN).c_str(), ReadText(arena, blocks[0].id, OLDGEN).c_str());
  VMArenaClose(arena);
  std::printf("   closed without committing the rewrite\n");

  arena = VMArenaOpen(arenaDir.c_str(), 0, 2, STATUS_NO_SERIAL, STATUS_NO_SERIAL, nullptr, cache);
  if (!arena) return Fail("VMArenaOpen (reopen)");
  std::printf("   reopened; reading every block back from the committed generation:\n");
  int mismatches = 0;
  for (size_t i = 0; i < blocks.size(); ++i) {
    std::string expected = i == 0 ? "block of 20 bytes requested" : blocks[i].text;
    std::string got = ReadText(arena, blocks[i].id, OLDGEN);
    mismatches += got != expected;
    std::printf("   0x%" PRIx64 ": \"%s\"%s\n", blocks[i].id, got.c_str(), got == expected ? "" : "  <-- MISMATCH");
  }
  VMArenaClose(arena);
  if (mismatches) {
    std::fprintf(stderr, "qwvm tour: %d block(s) did not read back\n", mismatches);
    return 1;
  }
  return 0;
}

// Arrays by name: an arena array of u32 and a block-directory array of
// strings, committed, then found again by name after a reopen.
int TourArrays(const std::string &directory, PageCache *cache) {
  std::string arenaDir = directory + "/arena";
  std::printf("\n3. Arrays: named arrays inside the same arena\n");
  VMArena *arena = VMArenaOpen(arenaDir.c_str(), 0, 2, STATUS_NO_SERIAL, STATUS_NO_SERIAL, nullptr, cache);
  if (!arena) return Fail("VMArenaOpen");
  VMAArrayHandle squares;
  if (!VMAArrayInitFromPath(&squares, arena, "tour", "squares")) return Fail("VMAArrayInitFromPath");
  std::vector<uint32_t> values;
  for (uint32_t i = 0; i < 5000; ++i) values.push_back(i * i);
  if (!VMAArrayAppend_(arena, squares.id[NEWGEN], 0, ARENA_MAX_BLOCK_SIZE, values.data(), uint32_t(values.size()),
                       NEWGEN, sizeof(uint32_t)))
    return Fail("VMAArrayAppend_");
  std::printf("   arena array \"tour/squares\" (id %u): appended %zu squares\n", squares.id[NEWGEN], values.size());
  uint8_t *pathBuffer = nullptr;
  int created = 1;
  DBArray *words = DBArrayNew(arena, &pathBuffer, "tour/words", &created, 0, 4);
  if (!words) return Fail("DBArrayNew");
  const char *const texts[] = {"copy-on-write", "generations", "atomic commit", "block classes"};
  uint32_t handles[4];
  for (uint32_t i = 0; i < 4; ++i) {
    handles[i] = DBArrayAdd(words, i % 2, texts[i], uint32_t(std::strlen(texts[i])), NEWGEN);
    if (handles[i] == DBARRAY_INVALID_HANDLE) return Fail("DBArrayAdd");
    std::printf("   block-directory array \"tour/words\": bucket %u handle %u <- \"%s\"\n", i % 2, handles[i], texts[i]);
  }
  if (!VMArenaCommit(arena, nullptr, nullptr, 0)) return Fail("VMArenaCommit");
  DBArrayFree(words);
  VMArenaClose(arena);
  std::printf("   committed and closed\n");

  arena = VMArenaOpen(arenaDir.c_str(), VM_FLAG_READ_ONLY, 2, STATUS_NO_SERIAL, STATUS_NO_SERIAL, nullptr, cache);
  if (!arena) return Fail("VMArenaOpen (read-only)");
  if (!VMAArrayInitFromPath(&squares, arena, "tour", "squares")) return Fail("VMAArrayInitFromPath");
  uint32_t length = VMAArrayLength_(arena, squares.id[OLDGEN], OLDGEN);
  uint32_t end = 0;
  auto *last = static_cast<uint32_t *>(VMAArrayRange_(arena, squares.id[OLDGEN], 0, ARENA_MAX_BLOCK_SIZE, length - 1,
                                                      &end, OLDGEN, 1, sizeof(uint32_t), 0));
  if (!last) return Fail("VMAArrayRange_");
  std::printf("   reopened read-only: \"tour/squares\" has %u elements, the last is %u\n", length, *last);
  bool ok = length == values.size() && *last == values.back();
  VMAArrayRelease_(arena, squares.id[OLDGEN], last, 1);
  created = 0;
  words = DBArrayNew(arena, &pathBuffer, "tour/words", &created, 0, 4);
  if (!words) return Fail("DBArrayNew (reopen)");
  for (uint32_t i = 0; i < 4; ++i) {
    uint32_t size = 0;
    auto *bytes = static_cast<const char *>(DBArrayGet(words, i % 2, handles[i], OLDGEN, 1, &size));
    std::string got = bytes ? std::string(bytes, size) : "(absent)";
    if (bytes) DBArrayRelease(words, OLDGEN, 1, bytes);
    ok = ok && got == texts[i];
    std::printf("   bucket %u handle %u: \"%s\"\n", i % 2, handles[i], got.c_str());
  }
  DBArrayFree(words);
  ArrayFree(pathBuffer);
  VMArenaClose(arena);
  if (!ok) {
    std::fprintf(stderr, "qwvm tour: the arrays did not read back\n");
    return 1;
  }
  std::printf("   inspect it: qwvm check %s; qwvm stat %s\n", arenaDir.c_str(), arenaDir.c_str());
  return 0;
}

// The tour starts afresh each time, but only ever clears a directory that a
// previous tour made (it carries the file ".qwvm-tour").
bool PrepareTourDirectory(const std::string &directory) {
  namespace fs = std::filesystem;
  std::error_code error;
  std::string marker = directory + "/.qwvm-tour";
  if (fs::exists(directory) && !fs::is_empty(directory, error)) {
    if (!fs::exists(marker)) {
      std::fprintf(stderr, "qwvm tour: \"%s\" is not empty and was not made by a tour; choose another directory\n",
                   directory.c_str());
      return false;
    }
    fs::remove_all(directory, error);
  }
  if (!DirectoryCreate(directory.c_str())) return Fail("DirectoryCreate") == 0;
  QWFILE file = QWFILE_INVALID;
  if (!QWFileOpen(&file, marker.c_str(), QWFILE_WRITE | QWFILE_CREATE)) return Fail("QWFileOpen") == 0;
  QWFileClose(file);
  return true;
}

}  // namespace

int TourFail(const char *what) {
  std::fprintf(stderr, "qwvm tour: %s failed:\n%s\n", what, QWErrorMessage());
  return 1;
}

int RunTour(const char *directory) {
  std::printf("qwvm tour in \"%s\"\n", directory);
  if (!PrepareTourDirectory(directory)) return 1;
  PageCache *cache = PageCacheNew(16 << 20, 8192);
  if (!cache) return Fail("PageCacheNew");
  int status = TourPlatform(directory);
  if (status == 0) status = TourArena(directory, cache);
  if (status == 0) status = TourArrays(directory, cache);
  if (status == 0) status = TourStructures(directory, cache);
  if (status == 0) status = TourFiles(directory);
  if (status == 0) status = TourQueries(directory);
  if (status == 0) status = TourLogged(directory);
  if (status == 0) status = TourBox(directory);
  if (status == 0) status = TourStrTable(directory);
  PageCacheFree(cache);
  if (status == 0) std::printf("\ntour complete: everything read back as written\n");
  return status;
}

}  // namespace qwtool
