// What the fuzz targets share: a silent start in a scratch directory, whole
// files read and written, and the seed directory QWVM_FUZZ_WRITE_SEEDS names.
#pragma once

#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <string>

#include "qwvm/qwvm.h"

namespace qwfuzz {

// The contents of `path` ("" when it cannot be read).
inline std::string ReadAll(const std::string &path) {
  std::string bytes;
  if (FILE *in = std::fopen(path.c_str(), "rb")) {
    char buffer[1 << 16];
    for (size_t n; (n = std::fread(buffer, 1, sizeof buffer, in)) > 0;) bytes.append(buffer, n);
    std::fclose(in);
  }
  return bytes;
}

// Replaces `path` with `size` bytes; aborts when it cannot.
inline void WriteAll(const std::string &path, const void *data, size_t size) {
  FILE *out = std::fopen(path.c_str(), "wb");
  if (!out || (size && std::fwrite(data, 1, size, out) != size)) std::abort();
  std::fclose(out);
}
inline void WriteAll(const std::string &path, const std::string &bytes) { WriteAll(path, bytes.data(), bytes.size()); }

// Silences the library's messages and makes a scratch directory, removed at
// exit: in memory (/dev/shm) when it can, since stores sync on every commit,
// else under /tmp. Aborts when it cannot.
inline std::string Start(const std::string &name) {
  QWSetMessageHandler([](void *, int, const char *, int, const char *) {}, nullptr, nullptr);
  std::string inMemory = "/dev/shm/qwvm-fuzz-" + name + "-XXXXXX", onDisk = "/tmp/qwvm-fuzz-" + name + "-XXXXXX";
  const char *root = mkdtemp(inMemory.data());
  if (!root) root = mkdtemp(onDisk.data());
  if (!root) std::abort();
  static std::string made;
  made = root;
  std::atexit([] {
    std::error_code ignored;
    std::filesystem::remove_all(made, ignored);
  });
  return made;
}

// The directory QWVM_FUZZ_WRITE_SEEDS names (created), or "": the target
// then writes its seeds there and exits.
inline std::string SeedDir() {
  const char *seeds = std::getenv("QWVM_FUZZ_WRITE_SEEDS");
  if (seeds) std::filesystem::create_directories(seeds);
  return seeds ? seeds : "";
}

}  // namespace qwfuzz
