// Arenas for tests: a fixture that keeps one arena at dir()/arena open in
// an access mode, and the table of modes for parameterised suites.
#pragma once

#include <cstdint>
#include <string>

#include "support/test_support.h"

namespace qwtest {

// An access mode of an arena: through the page cache or mapped.
struct ArenaMode {
  const char *name;
  uint32_t flags;  // added to every open
};
inline constexpr ArenaMode kArenaModes[] = {{"cache", 0}, {"mapped", VM_FLAG_MAPPED}};
// Test-name suffix of a mode parameter.
inline std::string ArenaModeName(const ::testing::TestParamInfo<ArenaMode> &info) { return info.param.name; }

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

// ArenaDirTest run in each mode: INSTANTIATE_TEST_SUITE_P(Modes, Suite,
// ::testing::ValuesIn(qwtest::kArenaModes), qwtest::ArenaModeName).
class ArenaModeTest : public ArenaDirTest, public ::testing::WithParamInterface<ArenaMode> {
 protected:
  void SetUp() override {
    modeFlags = GetParam().flags;
    ArenaDirTest::SetUp();
  }
};

}  // namespace qwtest
