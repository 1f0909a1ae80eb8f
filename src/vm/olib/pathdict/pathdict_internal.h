// The path dictionary's records and the steps its lookups and walks share.
//
// Invariants (NEWGEN, between calls):
//  - every handle h stored in "atomLookup" (as h + 1) is below the counter
//    in "params" and not on "freeAtom";
//  - element h >> 3 of bucket h & 7 of "atom" holds the text of handle h;
//  - every atom of "pathLookup" is a multiple of five symbols, each below
//    128, and decodes to handles that are in "atomLookup".
#pragma once

#include <cstdint>

#include "qwvm/ldbarray.h"
#include "qwvm/pathdict.h"
#include "qwvm/pitree.h"
#include "qwvm/vmaarray.h"
#include "vm/olib/common/id_allocator.h"

inline constexpr uint32_t kAtomBuckets = 8;
inline constexpr uint32_t kNoAtomHandle = 0xFFFFFFFEu;

struct PathDict {
  VMArena *arena;
  VMAArrayHandle params;  // u32: the next handle never handed out
  PITree *atomLookup;     // component bytes -> handle + 1
  LDBArray *p_atom;       // texts of the handles
  PITree *pathLookup;     // handle symbols -> the caller's value
  VMAArrayHandle freeAtom;  // u32 stack of free handles
};

struct PathDictThreadData {
  PITreeThreadData *piTree;
  LDBArrayThreadData *ldbArray;
  uint32_t *spans;    // qwlib growable: (start, length) of each component
  uint32_t *handles;  // qwlib growable: the components' handles
  uint32_t *symbols;  // qwlib growable: symbols of a component or a path
};

namespace qw::pathdict {

inline qw::olib::IdAllocator<uint32_t> Atoms(const PathDict *dict) {
  return qw::olib::IdAllocator<uint32_t>(dict->params, dict->freeAtom);
}

// Cuts `path` into components (threadData->spans). False with an error on a
// component longer than PATHDICT_MAX_COMPONENT or when memory runs out.
[[nodiscard]] bool SplitPath(PathDictThreadData *threadData, const char *path, uint32_t pathLength);

// Number of components found by the last SplitPath.
inline uint32_t ComponentCount(const PathDictThreadData *threadData) {
  return uint32_t(ArrayLength(threadData->spans) / 2);
}

// Maps every component to its existing handle in genID (threadData->handles).
// False when one is unknown (no error set) or on failure (error set).
[[nodiscard]] bool ResolveComponents(PathDict *dict, PathDictThreadData *threadData, const char *path,
                                     uint32_t genID);

// Encodes threadData->handles as symbols (threadData->symbols), five per
// handle, least significant 7 bits first. Returns the symbol count, or
// UINT32_MAX when memory runs out.
[[nodiscard]] uint32_t EncodeHandles(PathDictThreadData *threadData);

// Empties the scratch arrays, giving back any that grew past 10000 entries.
[[nodiscard]] bool ResetScratch(PathDictThreadData *threadData);

}  // namespace qw::pathdict
