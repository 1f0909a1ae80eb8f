// Fixture of the dictionary tests: an arena in a fresh directory that a test
// commits, closes and reopens, and a path buffer for the dictionaries.
#pragma once

#include <cstdint>
#include <string>

#include "qwvm/qwvm.h"
#include "support/test_support.h"

namespace dicttest {

class DictTest : public qwtest::CachedTempDirTest {
 protected:
  void SetUp() override {
    CachedTempDirTest::SetUp();
    OpenArena(VM_FLAG_CREATE);
  }
  void CloseAll() override { CloseArena(); }

  void OpenArena(uint32_t flags) {
    arena = VMArenaOpen(path("arena").c_str(), flags, 2, STATUS_NO_SERIAL, STATUS_NO_SERIAL, nullptr, cache);
    ASSERT_NE(arena, nullptr) << QWErrorMessage();
  }
  void CloseArena() {
    if (arena) VMArenaClose(arena);
    arena = nullptr;
  }
  // The caller frees its structures first, then reopens them.
  void ReopenArena(uint32_t flags = 0) {
    CloseArena();
    OpenArena(flags);
  }
  bool CommitArena() { return VMArenaCommit(arena, nullptr, nullptr, 0) == 1; }

  VMArena *arena = nullptr;
};

}  // namespace dicttest
