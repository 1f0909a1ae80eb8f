// HashDelTable: open addressing with linear probing over one flat slot array.
//
// Invariants:
//  - slotCount is a power of two and live + tombstones < slotCount * 7 / 10,
//    so every probe sequence reaches a slot that is neither live nor a
//    tombstone;
//  - a slot is live when stamps[i] == 2 * epoch, a tombstone when it is
//    2 * epoch + 1, and free otherwise (stamps of earlier epochs included),
//    so advancing the epoch empties the table;
//  - epoch is in [1, kMaxEpoch]; passing the end wipes the stamps to 0.
#include <cstring>

#include "qwvm/qwdict.h"
#include "qwvm/qwlib.h"

namespace {

constexpr uint64_t kMinSlots = 16;
constexpr uint64_t kMaxSlots = uint64_t(1) << 40;
constexpr uint32_t kMaxEpoch = 0x7FFFFFFFu;

constexpr size_t RoundUp8(size_t n) { return (n + 7) & ~size_t(7); }

uint64_t Mix(uint64_t h) {
  h ^= h >> 31;
  h *= 0xBF58476D1CE4E5B9ull;
  h ^= h >> 29;
  h *= 0x94D049BB133111EBull;
  return h ^ (h >> 32);
}

uint64_t HashBytes(const uint8_t *key, size_t size) {
  uint64_t h = 0x9E3779B97F4A7C15ull ^ size;
  size_t i = 0;
  for (; i + 8 <= size; i += 8) {
    uint64_t chunk;
    std::memcpy(&chunk, key + i, 8);
    h = Mix(h ^ chunk);
  }
  if (i < size) {
    uint64_t chunk = 0;
    std::memcpy(&chunk, key + i, size - i);
    h = Mix(h ^ chunk ^ 0xFF);
  }
  return h;
}

// Smallest power-of-two slot count that holds `keys` under the load limit.
uint64_t SlotsFor(uint64_t keys) {
  uint64_t slots = kMinSlots;
  while (slots < kMaxSlots && keys * 10 >= slots * 7) slots <<= 1;
  return slots;
}

}  // namespace

struct HashDelTable {
  uint32_t keySize;
  uint32_t valueSize;
  size_t keyStride;  // key bytes rounded up to 8: where the value starts
  size_t stride;     // bytes per slot in `entries`
  uint64_t slotCount;
  uint64_t live;
  uint64_t tombstones;
  uint32_t epoch;
  uint32_t *stamps;
  uint8_t *entries;

  uint32_t LiveStamp() const { return epoch * 2; }
  uint32_t TombStamp() const { return epoch * 2 + 1; }
  uint8_t *Slot(uint64_t i) const { return entries + i * stride; }

  // The slot holding `key`, or (when absent) the slot an insert would use;
  // *present tells which.
  uint64_t Probe(const uint8_t *key, uint64_t hash, bool *present) const {
    const uint64_t mask = slotCount - 1;
    uint64_t reuse = UINT64_MAX;
    for (uint64_t i = hash & mask;; i = (i + 1) & mask) {
      const uint32_t stamp = stamps[i];
      if (stamp == LiveStamp()) {
        if (std::memcmp(Slot(i), key, keySize) == 0) {
          *present = true;
          return i;
        }
      } else if (stamp == TombStamp()) {
        if (reuse == UINT64_MAX) reuse = i;
      } else {
        *present = false;
        return reuse == UINT64_MAX ? i : reuse;
      }
    }
  }

  // Moves the live entries into a fresh array of `slots` slots.
  bool Rehash(uint64_t slots) {
    auto *newStamps = static_cast<uint32_t *>(Allocate(slots * sizeof(uint32_t)));
    auto *newEntries = newStamps ? static_cast<uint8_t *>(Allocate(slots * stride)) : nullptr;
    if (newEntries == nullptr) {
      UnAllocate(newStamps);
      return false;
    }
    const uint64_t mask = slots - 1;
    for (uint64_t i = 0; i < slotCount; ++i) {
      if (stamps[i] != LiveStamp()) continue;
      uint64_t j = HashBytes(Slot(i), keySize) & mask;
      while (newStamps[j] != 0) j = (j + 1) & mask;
      newStamps[j] = 2;  // live in epoch 1
      std::memcpy(newEntries + j * stride, Slot(i), stride);
    }
    UnAllocate(stamps);
    UnAllocate(entries);
    stamps = newStamps;
    entries = newEntries;
    slotCount = slots;
    tombstones = 0;
    epoch = 1;
    return true;
  }
};

extern "C" {

QW_API HashDelTable *HashDelTableNew(uint32_t keySize, uint32_t valueSize, uint64_t capacity) {
  if (keySize == 0 || keySize > HASHDEL_MAX_KEY_SIZE || valueSize > HASHDEL_MAX_VALUE_SIZE) {
    QWErrorThrow(22, QW_ERROR_CLASS_GENERAL, "HashDelTableNew: key size %u or value size %u out of range", keySize,
                 valueSize);
    return nullptr;
  }
  auto *table = static_cast<HashDelTable *>(Allocate(sizeof(HashDelTable)));
  if (table == nullptr) return nullptr;
  const size_t keyStride = RoundUp8(keySize);
  *table = HashDelTable{keySize, valueSize, keyStride, keyStride + RoundUp8(valueSize), 0, 0, 0, 1, nullptr, nullptr};
  if (!table->Rehash(SlotsFor(capacity))) {
    HashDelTableFree(table);
    return nullptr;
  }
  return table;
}

QW_API void HashDelTableFree(HashDelTable *table) {
  if (table == nullptr) return;
  UnAllocate(table->stamps);
  UnAllocate(table->entries);
  UnAllocate(table);
}

QW_API void *HashDelTableFind(HashDelTable *table, const void *key, uint32_t action, int *found) {
  if (found) *found = 0;
  if (action > HASHDEL_DELETE) {
    QWErrorThrow(22, QW_ERROR_CLASS_GENERAL, "HashDelTableFind: unknown action %u", action);
    return nullptr;
  }
  const auto *bytes = static_cast<const uint8_t *>(key);
  const uint64_t hash = HashBytes(bytes, table->keySize);
  bool present = false;
  uint64_t i = table->Probe(bytes, hash, &present);
  if (found) *found = present ? 1 : 0;
  if (action == HASHDEL_DELETE) {
    if (present) {
      table->stamps[i] = table->TombStamp();
      --table->live;
      ++table->tombstones;
    }
    return nullptr;
  }
  if (present) return table->Slot(i) + table->keyStride;
  if (action == HASHDEL_FIND) return nullptr;
  if ((table->live + table->tombstones + 1) * 10 >= table->slotCount * 7) {
    // Doubling when live entries need it, else dropping the tombstones.
    const uint64_t slots = SlotsFor(table->live + 1);
    if (slots >= kMaxSlots && (table->live + 1) * 10 >= kMaxSlots * 7) {
      QWErrorThrow(12, QW_ERROR_CLASS_SYSTEM, "HashDelTableFind: table full (%llu keys)",
                   static_cast<unsigned long long>(table->live));
      return nullptr;
    }
    if (!table->Rehash(slots > table->slotCount ? slots : table->slotCount)) return nullptr;
    i = table->Probe(bytes, hash, &present);
  }
  if (table->stamps[i] == table->TombStamp()) --table->tombstones;
  table->stamps[i] = table->LiveStamp();
  uint8_t *slot = table->Slot(i);
  std::memcpy(slot, bytes, table->keySize);
  std::memset(slot + table->keySize, 0, table->stride - table->keySize);
  ++table->live;
  return slot + table->keyStride;
}

QW_API int HashDelTableGrow(HashDelTable *table, uint64_t capacity) {
  const uint64_t slots = SlotsFor(capacity > table->live ? capacity : table->live);
  if (slots <= table->slotCount) return 1;
  return table->Rehash(slots) ? 1 : 0;
}

QW_API const void *HashDelTableKey(const HashDelTable *table, const void *value) {
  return static_cast<const uint8_t *>(value) - table->keyStride;
}

QW_API void *HashDelTableEnumerate(const HashDelTable *table, uint64_t *position) {
  for (uint64_t i = *position; i < table->slotCount; ++i) {
    if (table->stamps[i] == table->LiveStamp()) {
      *position = i + 1;
      return table->Slot(i) + table->keyStride;
    }
  }
  *position = table->slotCount;
  return nullptr;
}

QW_API void HashDelTableClear(HashDelTable *table) {
  table->live = 0;
  table->tombstones = 0;
  if (table->epoch < kMaxEpoch) {
    ++table->epoch;
    return;
  }
  std::memset(table->stamps, 0, table->slotCount * sizeof(uint32_t));
  table->epoch = 1;
}

QW_API uint64_t HashDelTableCount(const HashDelTable *table) { return table->live; }

}  // extern "C"
