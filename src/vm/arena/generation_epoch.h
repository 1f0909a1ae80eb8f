// The old-generation epoch: a counter of the arena's changes of its
// committed generation (the memory step of a commit, a mount). Structures
// that keep copies of what they read from OLDGEN compare it to tell whether
// a copy is still current. It changes only while the generation lock is
// held exclusively, so a reader that holds it shared sees a steady value.
#pragma once

#include <cstdint>

#include "qwvm/vmarena.h"

namespace qw::vm {

uint64_t OldGenerationEpoch(const VMArena *arena);

}  // namespace qw::vm
