// Shared fixture of the arena tests: a page cache, arena open helpers in
// each access mode, and a model of block contents.
#pragma once

#include <cstdint>
#include <cstring>
#include <map>
#include <random>
#include <string>
#include <vector>

#include "qwvm/vmarena.h"
#include "support/test_support.h"

namespace arenatest {

// How an arena is opened in a test.
struct Mode {
  const char *name;
  uint32_t flags;    // VM_FLAG_MAPPED and friends
  bool serialised;   // serials 0,0 at creation instead of STATUS_NO_SERIAL
};

inline const Mode kModes[] = {
    {"cache", 0, false},
    {"cache_serial", 0, true},
    {"mapped", VM_FLAG_MAPPED, false},
    {"mapped_serial", VM_FLAG_MAPPED, true},
    {"extents", VM_FLAG_MAPPED | VM_FLAG_EXTENTS, false},
};

class ArenaTest : public qwtest::TempDirTest {
 protected:
  void SetUp() override;
  void TearDown() override;

  // Opens dir()/arena (or `directory`) with the mode's flags plus `flags`;
  // serialised modes open the serials in serialOld/serialNew.
  VMArena *Open(const Mode &mode, uint32_t flags = VM_FLAG_CREATE, uint32_t buckets = 2,
                const std::string &directory = "");
  std::string arenaDir() const { return path("arena"); }

  PageCache *cache = nullptr;
  uint64_t serialOld = 0, serialNew = 0;
};

// Fills an arena block with bytes derived from (tag, id).
void Fill(VMArena *arena, uint64_t id, uint32_t tag);
// True when the block in `generation` holds exactly the bytes of Fill(tag).
bool Holds(VMArena *arena, uint64_t id, uint32_t generation, uint32_t tag);
// Commits and keeps the serials of the fixture in step.
bool Commit(VMArena *arena, uint64_t *serialOld, uint64_t *serialNew);

}  // namespace arenatest
