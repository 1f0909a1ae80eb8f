// Fixture of the dictionary tests: the shared arena fixture, opened at set-up; a test frees its dictionaries, commits,
// reopens the arena and them.
#pragma once

#include "vm/olib/olib_fixture.h"

namespace dicttest {

class DictTest : public olibtest::ArenaTest {
 protected:
  void SetUp() override {
    ArenaTest::SetUp();
    MustOpenArena(VM_FLAG_CREATE);
  }
  void MustReopenArena(uint32_t flags = 0) { ASSERT_TRUE(ReopenArena(flags)) << QWErrorMessage(); }
};

}  // namespace dicttest
