// Arena blocks of every size class, kept in an arena array of block ids: each
// round rewrites some blocks (copy on write), frees others (the array entry
// becomes 0) and adds new ones. Runs in page-cache and in mapped mode.
#include <algorithm>
#include <cstdio>

#include "fault/arena_workload.h"

namespace faulttest {
namespace {

constexpr char kIdsName[] = "fault/blocks";
constexpr uint32_t kClassSizes[] = {64, 88, 112, 128, 160, 256, 312, 512, 584, 744, 1024, 1632, 2048, 2728, 4096, 8192};
constexpr uint32_t kNewPerRound = 24;

class ArenaBlocks : public ArenaWorkload {
 public:
  using ArenaWorkload::ArenaWorkload;
  std::unique_ptr<Workload> Clone() const override { return CloneOf(*this); }

  bool Apply(uint32_t round) override {
    for (uint32_t i = 0; i < slots_.size(); ++i) {
      Slot &slot = slots_[i];
      if (slot.size == 0) continue;
      if (round > 1 && i % 5 == round % 5) {
        if (!Free(i)) return false;
      } else if (i % 4 == round % 4) {
        slot.round = round;
        if (!Write(IdAt(i, NEWGEN), slot)) return false;
      }
    }
    for (uint32_t k = 0; k < kNewPerRound; ++k) {
      const uint32_t wanted = kClassSizes[(k * 5 + round) % 16] - k % 7;
      uint32_t size = 0;
      const uint64_t id = VMArenaBlockNew(arena_, 0, wanted, &size, 0);
      if (!id) return false;
      const Slot slot{size, round, uint32_t(slots_.size())};
      if (!Write(id, slot) || !VMAArrayAppend_(arena_, ids_, 0, ARENA_MAX_BLOCK_SIZE, &id, 1, NEWGEN, 8))
        return false;
      slots_.push_back(slot);
    }
    return true;
  }

  std::string Dump(uint32_t gen) override {
    const uint32_t ids = gen == NEWGEN ? ids_ : Find(OLDGEN);
    if (ids == VMA_NO_ARRAY) return "error: no id array";
    std::string out;
    const uint32_t length = VMAArrayLength_(arena_, ids, gen);
    for (uint32_t i = 0; i < length; ++i) {
      const uint64_t id = IdAt(i, gen, ids);
      if (id == 0) {
        out += "-\n";
        continue;
      }
      uint32_t size = 0;
      const void *bytes = VMArenaDataAcquire(arena_, id, 0, gen, 1, &size, nullptr);
      if (!bytes) return "error: block " + std::to_string(id) + ": " + QWErrorMessage();
      out += Digest(bytes, size) + "\n";
      VMArenaDataRelease(arena_, id, 1, const_cast<void *>(bytes), 0, 0);
    }
    const int clashes = VMArenaCheck(arena_);
    if (clashes) out += "clashes " + std::to_string(clashes) + "\n";
    return out;
  }

  std::string ModelDump() const override {
    std::string out;
    for (const Slot &slot : slots_) {
      const std::string bytes = Content(slot.round, slot.index, slot.size);
      out += slot.size ? Digest(bytes.data(), bytes.size()) + "\n" : "-\n";
    }
    return out;
  }

 private:
  struct Slot {
    uint32_t size;  // 0: freed
    uint32_t round;
    uint32_t index;
  };

  bool OpenParts() override {
    ids_ = Find(NEWGEN);
    return ids_ != VMA_NO_ARRAY;
  }
  void CloseParts() override {}

  uint32_t Find(uint32_t gen) {
    int create = gen == NEWGEN;
    return VMAArrayFind(arena_, gen, kIdsName, sizeof kIdsName - 1, 0, gen == NEWGEN ? &create : nullptr, 0, 0);
  }

  uint64_t IdAt(uint32_t index, uint32_t gen, uint32_t ids = VMA_NO_ARRAY) {
    if (ids == VMA_NO_ARRAY) ids = ids_;
    uint32_t end = 0;
    const void *p = VMAArrayRange_(arena_, ids, 0, ARENA_MAX_BLOCK_SIZE, index, &end, gen, 1, 8, 0);
    if (!p) return 0;
    uint64_t id;
    std::memcpy(&id, p, 8);
    VMAArrayRelease_(arena_, ids, const_cast<void *>(p), 1);
    return id;
  }

  bool Write(uint64_t id, const Slot &slot) {
    uint32_t size = 0;
    void *bytes = VMArenaDataAcquire(arena_, id, 0, NEWGEN, 0, &size, nullptr);
    if (!bytes) return false;
    const std::string content = Content(slot.round, slot.index, slot.size);
    std::memcpy(bytes, content.data(), std::min<size_t>(size, content.size()));
    VMArenaDataRelease(arena_, id, 0, bytes, 0, 0);
    return true;
  }

  bool Free(uint32_t index) {
    const uint64_t id = IdAt(index, NEWGEN);
    const uint64_t none = 0;
    if (!id || !VMAArraySetRange_(arena_, ids_, 0, ARENA_MAX_BLOCK_SIZE, index, &none, 1, NEWGEN, 8)) return false;
    VMArenaBlockFree(arena_, id, 0);
    slots_[index].size = 0;
    return true;
  }

  uint32_t ids_ = VMA_NO_ARRAY;
  std::vector<Slot> slots_;
};

}  // namespace

std::unique_ptr<Workload> MakeArenaBlocksCached() { return std::make_unique<ArenaBlocks>(0); }
std::unique_ptr<Workload> MakeArenaBlocksMapped() { return std::make_unique<ArenaBlocks>(VM_FLAG_MAPPED); }

uint64_t Fnv(const void *data, size_t size) {
  uint64_t hash = 14695981039346656037ull;
  for (size_t i = 0; i < size; ++i) hash = (hash ^ static_cast<const uint8_t *>(data)[i]) * 1099511628211ull;
  return hash;
}

std::string Digest(const void *data, size_t size) {
  char text[48];
  std::snprintf(text, sizeof text, "%zu:%016llx", size, static_cast<unsigned long long>(Fnv(data, size)));
  return text;
}

std::string Content(uint32_t round, uint32_t index, uint32_t length) {
  std::string bytes(length, '\0');
  for (uint32_t i = 0; i < length; ++i) bytes[i] = char((i * 131 + round * 7 + index * 13 + (i >> 9)) & 0xFF);
  return bytes;
}

}  // namespace faulttest
