// The ID tree record, shared by the string and fingerprint dictionaries.
#pragma once

#include <cstdint>

#include "qwvm/idtree.h"
#include "qwvm/pitree.h"
#include "qwvm/vmaarray.h"
#include "vm/olib/common/id_allocator.h"

struct IDTree {
  PITree *lookup;          // atom -> ID + 1
  VMAArrayHandle freeWID;  // u64 stack of holes
  VMAArrayHandle params;   // u64 counter
};

struct IDTreeThreadData {
  PITreeThreadData *piTreeThreadData;
  uint32_t *symbols;  // qwlib growable array: the atom being built
};

struct IDTreeEnumeration {
  PITreeEnumeration *walk;
  IDTree *tree;  // set by the last Init
};

namespace qw::idtree {

inline qw::olib::IdAllocator<uint64_t> Allocator(const IDTree *tree) {
  return qw::olib::IdAllocator<uint64_t>(tree->params, tree->freeWID);
}

// The thread data's symbol scratch, sized for `length` symbols.
[[nodiscard]] uint32_t *SymbolScratch(IDTreeThreadData *threadData, uint32_t length);

}  // namespace qw::idtree
