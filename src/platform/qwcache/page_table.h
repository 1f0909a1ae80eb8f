// The index of one cache shard: page key -> frame number.
//
// Open addressing with linear probing over a power-of-two slot array sized at
// least twice the shard's frame count, so the load factor stays at or below
// one half and a probe rarely leaves its first cache line. Deletion shifts
// the following run back instead of leaving tombstones, so lookups of absent
// keys stay short however long the cache runs.
//
// Invariants: every key is present at most once; between a key's home slot
// and its actual slot there is no empty slot.
//
// Changes are made under the shard mutex. The hit path Finds without it: the
// slots are atomics, so a racing change shows it a slot's key with another
// entry's frame, or hides a key that is being moved by an erase. Its callers
// check the frame it names and fall back to the locked path.
#pragma once

#include <atomic>
#include <cstdint>
#include <memory>

namespace qw::cache {

// 64-bit mix (the finaliser of MurmurHash3): cheap, and spreads the file id
// and the neighbouring page numbers over both the shard and the slot bits.
inline uint64_t MixKey(uint64_t key) {
  key ^= key >> 33;
  key *= 0xff51afd7ed558ccdULL;
  key ^= key >> 33;
  key *= 0xc4ceb9fe1a85ec53ULL;
  key ^= key >> 33;
  return key;
}

class PageTable {
 public:
  static constexpr uint32_t kAbsent = UINT32_MAX;

  // Sizes the (empty) table for a shard of `maxEntries` frames.
  void Init(uint32_t maxEntries) {
    uint32_t capacity = 16;
    while (capacity < 2 * maxEntries) capacity *= 2;
    mask_ = capacity - 1;
    slots_ = std::make_unique<Slot[]>(capacity);
  }

  // The frame holding `key`, or kAbsent. `hash` is MixKey(key). Exact under
  // the shard mutex; without it a hint (see above). It gives up after one
  // pass over the table, which a changing table could otherwise prolong.
  [[nodiscard]] uint32_t Find(uint64_t key, uint64_t hash) const {
    uint32_t i = Home(hash);
    for (uint32_t step = 0; step <= mask_; ++step, i = (i + 1) & mask_) {
      const Slot &slot = slots_[i];
      const uint32_t frame = slot.frame.load(kRelaxed);
      if (frame == kAbsent) return kAbsent;
      if (slot.key.load(kRelaxed) == key) return frame;
    }
    return kAbsent;
  }

  // Adds a key that is not present. Never fails: the table has room for
  // every frame of its shard.
  void Insert(uint64_t key, uint64_t hash, uint32_t frame) {
    uint32_t i = Home(hash);
    while (slots_[i].frame.load(kRelaxed) != kAbsent) i = (i + 1) & mask_;
    Put(i, key, frame);
  }

  // Removes a key that is present.
  void Erase(uint64_t key, uint64_t hash) {
    uint32_t hole = Home(hash);
    while (slots_[hole].key.load(kRelaxed) != key || slots_[hole].frame.load(kRelaxed) == kAbsent)
      hole = (hole + 1) & mask_;
    // Backward shift: move later entries of the run into the hole whenever
    // the hole lies on their way from their home slot.
    for (uint32_t next = (hole + 1) & mask_; slots_[next].frame.load(kRelaxed) != kAbsent; next = (next + 1) & mask_) {
      const uint64_t nextKey = slots_[next].key.load(kRelaxed);
      uint32_t home = Home(MixKey(nextKey));
      bool holeOnPath = ((next - home) & mask_) >= ((next - hole) & mask_);
      if (holeOnPath) {
        Put(hole, nextKey, slots_[next].frame.load(kRelaxed));
        hole = next;
      }
    }
    Put(hole, 0, kAbsent);
  }

 private:
  static constexpr auto kRelaxed = std::memory_order_relaxed;

  struct Slot {
    std::atomic<uint64_t> key{0};
    std::atomic<uint32_t> frame{kAbsent};
  };

  void Put(uint32_t i, uint64_t key, uint32_t frame) {
    slots_[i].key.store(key, kRelaxed);
    slots_[i].frame.store(frame, kRelaxed);
  }

  // The low bits pick the slot; the shard was picked by the high bits.
  uint32_t Home(uint64_t hash) const { return static_cast<uint32_t>(hash) & mask_; }

  std::unique_ptr<Slot[]> slots_;
  uint32_t mask_ = 0;
};

}  // namespace qw::cache
