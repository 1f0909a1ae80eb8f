// The run block server's record. Shared by drbs.cpp (open, allocation,
// commit) and drbs_io.cpp (acquire, release and the background threads).
//
// State of a block-table entry, all under `mutex`:
//   free            address == nullptr, count == 0
//   read            address = a read-only map, read, count >= 1 (readers share)
//   written         address = a pool buffer, !read, count == 1
//   queued          address = the buffer, !read, count == 0: released, waiting
//                   for the sync thread, which writes it back and frees it.
// A queued block is waited for before it is acquired again, so a block is
// never read from its file while a newer copy sits in a buffer.
#pragma once

#include <atomic>
#include <cstdint>
#include <deque>
#include <memory>
#include <string>
#include <unordered_map>
#include <unordered_set>
#include <vector>

#include "qwvm/qwlib.h"
#include "qwvm/sort.h"
#include "vm/lbs/names.h"
#include "vm/sort/arena_vector.h"

namespace qw::sort {

// A platform mutex held for a scope.
using Lock = qw::vm::ScopedMutex;

struct BlockEntry {
  uint8_t *address = nullptr;
  uint32_t count = 0;
  bool read = true;
};

// Where block b lives.
struct BlockPlace {
  uint32_t file;
  uint64_t offset;
};

}  // namespace qw::sort

struct DRBServer {
  std::string directory;
  VMArena *arena = nullptr;
  uint32_t blockSize = 0;
  uint32_t fileCount = 0;
  bool readOnly = false;
  bool opened = false;  // every part made: the free-time checks apply
  std::vector<QWFILE> fds;

  qw::sort::ArenaVector<uint32_t> params;        // [0] blocks handed out, [1] room in the files
  qw::sort::ArenaVector<uint32_t> freeBlock;     // descending: the last is the lowest
  qw::sort::ArenaVector<uint32_t> newFreeBlock;  // freed since the last commit
  std::unordered_set<uint32_t> newFreeSet;       // the same numbers, to refuse double frees

  // Block table, pool and write-back state: under `mutex`; `changed` is
  // broadcast whenever a buffer returns to the pool or a block is written.
  QWMutex *mutex = nullptr;
  QWCondition *changed = nullptr;
  std::vector<qw::sort::BlockEntry> blocks;
  std::vector<uint8_t *> pool;  // free write buffers
  uint32_t poolAllocated = 0;
  uint32_t poolLimit = 1;
  uint32_t inFlight = 0;  // released written blocks not yet written back
  uint32_t loaded = 0, maxLoaded = 0;
  std::string syncError;  // the first write-back failure, reported at commit
  // Blocks whose write-back failed, with the failure: their file range holds
  // older bytes, so they are not read again until written anew.
  std::unordered_map<uint32_t, std::string> lost;

  // Queues of the background threads, each with its own mutex and condition.
  QWMutex *syncMutex = nullptr;
  QWCondition *syncCondition = nullptr;
  std::deque<uint32_t> syncQueue;
  QWMutex *prefetchMutex = nullptr;
  QWCondition *prefetchCondition = nullptr;
  std::deque<uint32_t> prefetchQueue;
  std::vector<QWThread *> syncThread, prefetchThread;
  std::atomic<bool> stop{false};

  QWMutex *allocMutex = nullptr;

  qw::sort::BlockPlace Place(uint32_t block) const {
    return {block % fileCount, uint64_t(block / fileCount) * blockSize};
  }
};

namespace qw::sort {
void *SyncThreadMain(void *server);
void *PrefetchThreadMain(void *server);
}  // namespace qw::sort
