// `qwvm sfs DIR put PATH FILE | get PATH | ls [PREFIX]`: use and inspect a
// small file store by hand. `put` creates the store when it is missing and
// commits; `get` and `ls` read the committed state of an existing store.
#include <cstdio>
#include <cstring>
#include <fstream>
#include <iterator>
#include <string>
#include <vector>

#include "qwvm/qwvm.h"
#include "tools/qwvm/commands.h"

namespace qwtool {
namespace {

int Fail(const char *what) { return FailWithChain("sfs", what); }

int SfsUsage(FILE *out = stderr) {
  std::fprintf(out,
               "usage: qwvm sfs DIR put PATH FILE   store FILE's bytes at PATH (creates the store) and commit\n"
               "       qwvm sfs DIR get PATH        write the file at PATH to standard output\n"
               "       qwvm sfs DIR ls [PREFIX]     list the files (under PREFIX) with their sizes\n");
  return out == stderr ? 2 : 0;
}

int Put(SFS *store, const std::string &path, const char *file) {
  std::ifstream in(file, std::ios::binary);
  if (!in) {
    std::fprintf(stderr, "qwvm sfs: cannot read \"%s\"\n", file);
    return 1;
  }
  const std::vector<char> bytes((std::istreambuf_iterator<char>(in)), std::istreambuf_iterator<char>());
  if (bytes.size() > 0x7FFFFFFFu) {
    std::fprintf(stderr, "qwvm sfs: \"%s\" is too large for a small file store\n", file);
    return 1;
  }
  if (!SFSAcquire(store, 0)) return Fail("cannot lock the store");
  const uint32_t handle = SFSHandleGet(store, path.data(), uint32_t(path.size()), 1, NEWGEN);
  const int written = handle != SFS_NO_HANDLE && SFSSet(store, handle, bytes.data(), uint32_t(bytes.size()));
  SFSRelease(store, 0);
  if (!written) return Fail(("cannot store \"" + path + "\"").c_str());
  if (!SFSCommit(store)) return Fail("cannot commit");
  std::printf("%s: %zu bytes (file %u)\n", path.c_str(), bytes.size(), handle >> 1);
  return 0;
}

int Get(SFS *store, const std::string &path) {
  SFSAcquire(store, 1);
  const uint32_t handle = SFSHandleGet(store, path.data(), uint32_t(path.size()), 0, OLDGEN);
  uint8_t *bytes = nullptr;
  int status = 0;
  if (handle == SFS_NO_HANDLE) {
    status = QWErrorIsSet() ? Fail("lookup failed") : 1;
    if (status == 1 && !QWErrorIsSet()) std::fprintf(stderr, "qwvm sfs: no file \"%s\"\n", path.c_str());
  } else if (!SFSGetArray(store, handle, &bytes, 0)) {
    status = Fail("cannot read the file");
  } else {
    std::fwrite(bytes, 1, ArrayLength(bytes), stdout);
  }
  SFSRelease(store, 1);
  ArrayFree(bytes);
  return status;
}

int List(SFS *store, const std::string &prefix) {
  SFSAcquire(store, 1);
  const int ok = SFSList(
      store, prefix.data(), uint32_t(prefix.size()), OLDGEN,
      [](void *context, const char *path, uint32_t, uint32_t handle) {
        uint32_t end = 0, length = 0;
        const void *data = SFSGet(static_cast<SFS *>(context), handle, 0, &end, &length);
        if (data) SFSDataRelease(static_cast<SFS *>(context), handle, data);
        std::printf("%10u  %s\n", length, path);
        return 1;
      },
      store);
  SFSRelease(store, 1);
  return ok ? 0 : Fail("cannot list the store");
}

}  // namespace

int RunSfs(int argc, char **argv) {
  if (argc == 1 && (std::string(argv[0]) == "--help" || std::string(argv[0]) == "help")) return SfsUsage(stdout);
  if (argc < 2) return SfsUsage();
  const std::string directory = argv[0], verb = argv[1];
  const bool put = verb == "put";
  if (!(put && argc == 4) && !(verb == "get" && argc == 3) && !(verb == "ls" && argc <= 3)) return SfsUsage();
  SFS *store = SFSOpen(directory.c_str(), put ? 1 : 0, 0, 2, nullptr);
  if (!store) return Fail(("cannot open the store in \"" + directory + "\"").c_str());
  int status;
  if (put) {
    status = Put(store, argv[2], argv[3]);
  } else if (verb == "get") {
    status = Get(store, argv[2]);
  } else {
    status = List(store, argc == 3 ? argv[2] : "");
  }
  SFSClose(store);
  return status;
}

}  // namespace qwtool
