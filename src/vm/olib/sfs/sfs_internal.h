// The small file store record.
#pragma once

#include "qwvm/ldbarray.h"
#include "qwvm/pathdict.h"
#include "qwvm/sfs.h"
#include "qwvm/vmaarray.h"
#include "vm/olib/common/id_allocator.h"

struct SFS {
  VMArena *arena;
  PathDict *path;         // path -> file ID + 1
  LDBArray *file;         // bucket 0, record i: the bytes of file i
  QWMutex *mutex;         // the writer lock
  VMAArrayHandle params;  // u32: the next file ID never handed out
  VMAArrayHandle free;    // u32 stack of free file IDs
};

namespace qw::sfs {

inline qw::olib::IdAllocator<uint32_t> FileIds(const SFS *store) {
  return qw::olib::IdAllocator<uint32_t>(store->params, store->free);
}

inline uint32_t GenerationOf(uint32_t handle) { return (handle & 1) ? NEWGEN : OLDGEN; }
inline uint32_t FileOf(uint32_t handle) { return handle >> 1; }

}  // namespace qw::sfs
