// The tour's small file store: a few files put, committed, and read back
// from a read-only reopen.
#include <cstdio>
#include <cstring>
#include <string>

#include "tools/qwvm/commands.h"

namespace qwtool {
namespace {

struct TourFile {
  const char *path;
  std::string bytes;
};

}  // namespace

int TourFiles(const char *directory) {
  const std::string storeDir = std::string(directory) + "/files";
  std::printf("\n5. Files: a small file store in an arena of its own\n");
  const TourFile files[] = {{"README", "qwvm keeps many small files in one arena.\n"},
                            {"data/zeros", std::string(20000, '\0')},
                            {"data/empty", ""}};
  SFS *store = SFSOpen(storeDir.c_str(), 1, 0, 2, nullptr);
  if (!store) return TourFail("SFSOpen");
  for (const TourFile &file : files) {
    SFSAcquire(store, 0);
    const uint32_t handle = SFSHandleGet(store, file.path, uint32_t(std::strlen(file.path)), 1, NEWGEN);
    const int written = SFSSet(store, handle, file.bytes.data(), uint32_t(file.bytes.size()));
    SFSRelease(store, 0);
    if (!written) return TourFail("SFSSet");
    std::printf("   put \"%s\": %zu bytes (file %u)\n", file.path, file.bytes.size(), handle >> 1);
  }
  if (!SFSCommit(store)) return TourFail("SFSCommit");
  SFSClose(store);
  store = SFSOpen(storeDir.c_str(), 0, 0, 2, nullptr);
  if (!store) return TourFail("SFSOpen (read-only)");
  uint8_t *bytes = nullptr;
  bool ok = true;
  for (const TourFile &file : files) {
    const uint32_t handle = SFSHandleGet(store, file.path, uint32_t(std::strlen(file.path)), 0, OLDGEN);
    ok = ok && handle != SFS_NO_HANDLE && SFSGetArray(store, handle, &bytes, 0) &&
         std::string(reinterpret_cast<const char *>(bytes), ArrayLength(bytes)) == file.bytes;
  }
  std::printf("   reopened read-only: %s\n", ok ? "every file reads back" : "a file did not read back");
  std::printf("   use it by hand: qwvm sfs %s ls; qwvm sfs %s get README\n", storeDir.c_str(), storeDir.c_str());
  ArrayFree(bytes);
  SFSClose(store);
  return ok ? 0 : 1;
}

}  // namespace qwtool
