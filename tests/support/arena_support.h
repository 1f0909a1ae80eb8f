// Arenas for tests: a fixture that keeps one arena at dir()/arena open in
// an access mode (each suite keeps its own table of modes).
#pragma once

#include <cstdint>
#include <string>

#include "support/test_support.h"

namespace qwtest {

// CachedTempDirTest with an arena at arenaDir() opened in `modeFlags`.
// Subclasses that keep structures override CloseAll: close them, then call
// ArenaDirTest::CloseAll().
class ArenaDirTest : public CachedTempDirTest {
 protected:
  void CloseAll() override { CloseArena(); }
  // Opens arenaDir() with flags | modeFlags into `arena`; false (error chain
  // set) when it fails. Usable in a child process.
  [[nodiscard]] bool OpenArena(uint32_t flags = 0, uint32_t buckets = 2) {
    arena = VMArenaOpen(arenaDir().c_str(), flags | modeFlags, buckets, STATUS_NO_SERIAL, STATUS_NO_SERIAL, nullptr,
                        cache);
    return arena != nullptr;
  }
  void CloseArena() {
    if (arena) VMArenaClose(arena);
    arena = nullptr;
  }
  [[nodiscard]] bool ReopenArena(uint32_t flags = 0) {
    CloseArena();
    return OpenArena(flags);
  }
  [[nodiscard]] bool CommitArena() { return VMArenaCommit(arena, nullptr, nullptr, 0) == 1; }
  std::string arenaDir() const { return path("arena"); }

  VMArena *arena = nullptr;
  uint32_t modeFlags = 0;
};

}  // namespace qwtest
