// Checks shared by the dictionaries: generation arguments, changes only in
// NEWGEN, and assertions that tag the arena when stored data is at fault.
#pragma once

#include <cstdint>

#include "qwvm/qwlib.h"
#include "qwvm/vmarena.h"

namespace qw::olib {

// Anything but NEWGEN and OLDGEN fails the assertion "FALSE".
inline void CheckGeneration(uint32_t genID) {
  if (genID != NEWGEN && genID != OLDGEN) QWAssertFail_("FALSE", __FILE__, __LINE__);
}

// Changes are allowed only in NEWGEN.
inline void CheckNewGeneration(uint32_t genID) {
  if (genID != NEWGEN) QWAssertFail_("genID == NEWGEN", __FILE__, __LINE__);
}

// Stored data broke an invariant: tag the arena (unless read-only), then
// fail the assertion with the invariant's text.
[[noreturn]] inline void CorruptAssert(VMArena *arena, const char *expression, const char *file, int line) {
  if (!VMArenaIsReadOnly(arena)) VMArenaTagCorrupted(arena);
  QWAssertFail_(expression, file, line);
}

}  // namespace qw::olib

// A caller-side assertion whose text names the caller's arguments.
#define OLIB_ASSERT_TEXT(condition, text) \
  ((condition) ? (void)0 : QWAssertFail_((text), __FILE__, __LINE__))
