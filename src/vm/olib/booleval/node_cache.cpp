// NodeEntryCache: a direct-mapped cache of decoded atom-node entries.
//
// Slot i holds one (key, entry) pair; the slot of a key is its hash masked.
// Slot i is guarded by stripe i % kStripes. Entries are immutable and shared
// (std::shared_ptr), so a reader keeps using an entry that a writer has just
// replaced.
#include <new>

#include "vm/olib/booleval/booleval_internal.h"

namespace {

constexpr uint32_t kStripes = 64;
constexpr uint64_t kNoKey = UINT64_MAX;  // atomID all ones never occurs

struct Slot {
  uint64_t key = kNoKey;
  std::shared_ptr<const qw::booleval::NodeEntry> entry;
};

// Keys are atomID << 32 | sub: every bit must reach the low bits.
uint64_t SlotOf(uint64_t key, uint64_t mask) {
  key ^= key >> 31;
  key *= 0xBF58476D1CE4E5B9ull;
  key ^= key >> 29;
  return key & mask;
}

}  // namespace

struct NodeEntryCache {
  uint64_t mask = 0;
  std::vector<Slot> slots;
  QWMutex *stripes[kStripes] = {};
};

namespace qw::booleval {

std::shared_ptr<const NodeEntry> CacheGet(NodeEntryCache *cache, uint64_t key) {
  const uint64_t i = SlotOf(key, cache->mask);
  QWMutex *stripe = cache->stripes[i % kStripes];
  MutexAcquire(stripe);
  std::shared_ptr<const NodeEntry> entry = cache->slots[i].key == key ? cache->slots[i].entry : nullptr;
  MutexRelease(stripe);
  return entry;
}

void CachePut(NodeEntryCache *cache, uint64_t key, std::shared_ptr<const NodeEntry> entry) {
  const uint64_t i = SlotOf(key, cache->mask);
  QWMutex *stripe = cache->stripes[i % kStripes];
  MutexAcquire(stripe);
  cache->slots[i].key = key;
  cache->slots[i].entry.swap(entry);
  MutexRelease(stripe);
  // The replaced entry (now in `entry`) is released outside the stripe.
}

}  // namespace qw::booleval

extern "C" {

QW_API NodeEntryCache *NodeEntryCacheInit(uint32_t slots) {
  uint64_t count = kStripes;
  while (count < slots) count <<= 1;
  NodeEntryCache *cache = new (std::nothrow) NodeEntryCache;
  const int ok = cache && qw::booleval::Guarded("NodeEntryCacheInit", [&] {
                   cache->slots.resize(count);
                   cache->mask = count - 1;
                   return 1;
                 });
  for (uint32_t i = 0; ok && i < kStripes; ++i) cache->stripes[i] = MutexInit();
  if (!ok) {
    if (cache == nullptr) QWErrorThrow(12, QW_ERROR_CLASS_SYSTEM, "NodeEntryCacheInit: out of memory");
    delete cache;
    return nullptr;
  }
  return cache;
}

QW_API void NodeEntryCacheReInit(NodeEntryCache *cache) {
  for (uint64_t i = 0; i < cache->slots.size(); ++i) {
    QWMutex *stripe = cache->stripes[i % kStripes];
    MutexAcquire(stripe);
    cache->slots[i] = Slot{};
    MutexRelease(stripe);
  }
}

QW_API void NodeEntryCacheFree(NodeEntryCache *cache) {
  if (cache == nullptr) return;
  for (QWMutex *stripe : cache->stripes) {
    if (stripe) MutexDestroy(stripe);
  }
  delete cache;
}

}  // extern "C"
