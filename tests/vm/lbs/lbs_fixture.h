// Block server tests: servers opened on the test directory in each access
// mode, the arena's commit sequence, and self-checking block contents (a seed
// and the bytes it determines).
#pragma once

#include <cstring>
#include <map>
#include <memory>

#include "qwvm/vmarena.h"
#include "support/test_support.h"
#include "vm/lbs/local_block_server.h"
#include "vm/lbs/server.h"

namespace lbstest {

using namespace qw::vm;

// Through the page cache, mapped, or mapped with the read-write part in extent files.
struct Mode {
  const char *name;
  uint32_t flags;
};
inline const Mode kPageCache{"PageCache", 0}, kMapped{"Mapped", VM_FLAG_MAPPED},
    kExtents{"Extents", VM_FLAG_MAPPED | VM_FLAG_EXTENTS};
inline const Mode kModes[] = {kPageCache, kMapped, kExtents};
inline std::string ModeName(const ::testing::TestParamInfo<Mode> &info) { return info.param.name; }

struct ServerCloser {
  void operator()(LocalBlockServer0 *server) const { (void)LocalBlockServer0Close(server); }
};
using ServerPtr = std::unique_ptr<LocalBlockServer0, ServerCloser>;

inline void FillPattern(void *block, uint32_t seed) {
  auto *bytes = static_cast<uint8_t *>(block);
  std::memcpy(bytes, &seed, 4);
  uint32_t x = seed * 2654435761u + 12345u;
  for (uint32_t at = 4; at < kServerBlockSize; at += 4) {
    x = x * 1664525u + 1013904223u;
    std::memcpy(bytes + at, &x, 4);
  }
}

// The seed of a block filled by FillPattern; false when it is not such a pattern.
inline bool PatternSeed(const void *block, uint32_t *seed) {
  alignas(8) static thread_local uint8_t expected[kServerBlockSize];
  std::memcpy(seed, block, 4);
  FillPattern(expected, *seed);
  return std::memcmp(expected, block, kServerBlockSize) == 0;
}

inline std::vector<uint32_t> List(const QwArray<uint32_t> &list) {
  return std::vector<uint32_t>(list.p, list.p + list.size());
}

class LbsTest : public qwtest::CachedTempDirTest {
 protected:
  LbsTest() { cacheBytes = 8 << 20; }
  void CloseAll() override { server.reset(); }
  bool Reopen(const Mode &mode, uint64_t serial = STATUS_NO_SERIAL, uint32_t extraFlags = 0) {
    server.reset();
    return bool(server = Open(mode, serial, extraFlags));
  }
  ServerPtr Open(Mode mode, uint64_t serial = STATUS_NO_SERIAL, uint32_t extraFlags = 0,
                 ReplicationLog *log = nullptr) {
    return OpenIn(dir(), mode, serial, extraFlags, log);
  }
  ServerPtr OpenIn(const std::string &directory, Mode mode, uint64_t serial = STATUS_NO_SERIAL, uint32_t extraFlags = 0,
                   ReplicationLog *log = nullptr) {
    return ServerPtr(LocalBlockServer0Open_(directory.c_str(), "0", mode.flags | extraFlags, kServerBlockSize,
                                            kFileBlockSize, kMinBlockCount, serial, serial, log, cache));
  }

 public:
  // The arena's sequence: mapping flush, start, execute, disk and memory commit, stop.
  static bool Commit(LocalBlockServer0 *server) {
    uint64_t oldSerial = STATUS_NO_SERIAL, newSerial = STATUS_NO_SERIAL;
    if (server->serial_old != STATUS_NO_SERIAL) {
      oldSerial = server->serial_old + 1;
      newSerial = server->serial_new + 1;
    }
    (void)LocalBlockServer0MappingFlush(server, 1);
    const bool ok = LocalBlockServer0FlushStart(server, oldSerial, newSerial) &&
                    LocalBlockServer0FlushFileExec(server) && LocalBlockServer0CommitDisk(server) &&
                    LocalBlockServer0CommitMemory(server);
    LocalBlockServer0FlushStop(server);
    return ok;
  }

  static ::testing::AssertionResult WriteBlock(LocalBlockServer0 *server, uint32_t block, uint32_t seed) {
    const uint32_t raw = LocalBlockServer0RawIdWrite(server, block);
    if (raw == INVALID_RAW_BLOCK_ID) return ::testing::AssertionFailure() << "no raw block for " << block;
    void *memory = LocalBlockServer0RawBlockGet(server, raw);
    if (!memory) return ::testing::AssertionFailure() << QWErrorMessage();
    FillPattern(memory, seed);
    LocalBlockServer0RawBlockRelease(server, memory, 1, 0, 0);
    return ::testing::AssertionSuccess();
  }

  static ::testing::AssertionResult ReadBlock(LocalBlockServer0 *server, uint32_t block, uint32_t generation,
                                              uint32_t *seed) {
    const uint32_t raw = LocalBlockServer0RawIdRead(server, block, generation);
    if (raw == INVALID_RAW_BLOCK_ID) return ::testing::AssertionFailure() << "block " << block << " has no raw block";
    void *memory = LocalBlockServer0RawBlockGet(server, raw);
    if (!memory) return ::testing::AssertionFailure() << QWErrorMessage();
    const bool valid = PatternSeed(memory, seed);
    LocalBlockServer0RawBlockRelease(server, memory, 0, 0, 0);
    if (!valid) return ::testing::AssertionFailure() << "block " << block << " (raw " << raw << ") is garbled";
    return ::testing::AssertionSuccess();
  }

  static ::testing::AssertionResult BlockHolds(LocalBlockServer0 *server, uint32_t block, uint32_t generation,
                                               uint32_t seed) {
    uint32_t found = 0;
    ::testing::AssertionResult read = ReadBlock(server, block, generation, &found);
    if (!read) return read;
    if (found != seed)
      return ::testing::AssertionFailure() << "block " << block << " holds seed " << found << ", not " << seed;
    return ::testing::AssertionSuccess();
  }

  static uint32_t NewBlock(LocalBlockServer0 *server, uint32_t seed) {
    const uint32_t block = LocalBlockServer0BlockNew(server, 0);
    if (block != INVALID_BLOCK_ID && !WriteBlock(server, block, seed)) return INVALID_BLOCK_ID;
    return block;
  }

  // Seeds of every allocated block of a generation; false when one is unreadable or garbled.
  static bool Snapshot(LocalBlockServer0 *server, uint32_t generation, std::map<uint32_t, uint32_t> *model) {
    model->clear();
    const uint32_t count =
        generation == NEWGEN ? LocalBlockServer0BlockCount(server) : LocalBlockServer0OldBlockCount(server);
    for (uint32_t block = 0; block < count; ++block) {
      if (LocalBlockServer0RawIdRead(server, block, generation) == INVALID_RAW_BLOCK_ID) continue;
      uint32_t seed = 0;
      if (!ReadBlock(server, block, generation, &seed)) return false;
      (*model)[block] = seed;
    }
    return true;
  }

  static uint64_t FileBytes(const std::string &path) {
    uint64_t size = 0;
    return FileSize(path.c_str(), &size) ? size : ~uint64_t{0};
  }

 protected:
  ServerPtr server;  // the server of Reopen
};

// Little-endian bytes of an integer.
inline std::string LE(uint64_t value, unsigned bytes) {
  std::string out;
  for (unsigned i = 0; i < bytes; ++i) out.push_back(char((value >> (8 * i)) & 0xFF));
  return out;
}

}  // namespace lbstest
