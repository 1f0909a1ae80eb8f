// Shared fixture of the structure tests: an arena whose structures are freed first, raw access to its named arrays, the
// data-error check, a byte pattern, and readers of the committed generation beside a writer.
#pragma once

#include <atomic>
#include <cstdint>
#include <cstring>
#include <filesystem>
#include <functional>
#include <random>
#include <string>
#include <thread>
#include <vector>

#include "qwvm/qwvm.h"
#include "support/arena_support.h"
#include "support/fault_support.h"
#include "support/platform_support.h"

namespace olibtest {

// A deterministic string of `length` bytes for (seed, length).
inline std::string Pattern(uint32_t seed, uint32_t length, uint32_t shift = 5) {
  std::string value(length, '\0');
  for (uint32_t i = 0; i < length; ++i) value[i] = char((seed * 131u + i * 7u + (i >> shift)) & 0xFF);
  return value;
}

// Little-endian `bytes` bytes at `at`.
inline uint64_t LE(const void *p, size_t at, unsigned bytes) {
  const auto *b = static_cast<const uint8_t *>(p) + at;
  uint64_t v = 0;
  for (unsigned i = bytes; i-- > 0;) v = v << 8 | b[i];
  return v;
}
inline uint64_t LE(const std::string &s, size_t at, unsigned bytes) { return LE(s.data(), at, bytes); }

// A call that returned `got` (expected: `want`, the call's failure value) and left error `code`.
template <typename T, typename U>
::testing::AssertionResult Fails(T got, U want, int code) {
  if (got != static_cast<T>(want)) return ::testing::AssertionFailure() << "returned " << got << ", wanted " << want;
  return qwtest::HasError(code);
}

class ArenaTest : public qwtest::ArenaDirTest {
 public:
  bool Tagged() const { return std::filesystem::exists(arenaDir() + "/corrupted"); }
  void MustOpenArena(uint32_t flags = VM_FLAG_CREATE) { ASSERT_TRUE(OpenArena(flags)) << QWErrorMessage(); }
  virtual void FreeStructures() {}
  void CloseAll() override {
    FreeStructures();
    CloseArena();
  }
  void Wipe() {
    CloseAll();
    std::filesystem::remove_all(arenaDir());
  }
  uint32_t Named(const std::string &name, uint32_t gen = NEWGEN) {
    int create = 0;
    return VMAArrayFind(arena, gen, name.data(), uint32_t(name.size()), 1, &create, 0, 0);
  }
  // Every element of array `id` (VMA_NO_ARRAY: none), `size` bytes each, little-endian.
  std::vector<uint64_t> Elements(uint32_t id, unsigned size, uint32_t gen = NEWGEN) {
    std::vector<uint64_t> values(id == VMA_NO_ARRAY ? 0 : VMAArrayLength_(arena, id, gen));
    for (uint32_t i = 0; i < values.size(); ++i) {
      uint32_t end = 0;
      void *at = VMAArrayRange_(arena, id, 0, 8192, i, &end, gen, 1, size, 0);
      EXPECT_NE(at, nullptr) << QWErrorMessage();
      if (!at) break;
      values[i] = LE(at, 0, size > 8 ? 8 : size);
      VMAArrayRelease_(arena, id, at, 1);
    }
    return values;
  }
  std::vector<uint64_t> Elements(const std::string &name, unsigned size, uint32_t gen = NEWGEN) {
    return Elements(Named(name, gen), size, gen);
  }
  // Overwrites `bytes` bytes at `offset` of element i (new generation).
  void Poke(uint32_t id, uint32_t i, unsigned size, unsigned offset, uint64_t value, unsigned bytes) {
    uint32_t end = 0;
    auto *at = static_cast<uint8_t *>(VMAArrayRange_(arena, id, 0, 8192, i, &end, NEWGEN, 0, size, 0));
    ASSERT_NE(at, nullptr) << QWErrorMessage();
    for (unsigned k = 0; k < bytes; ++k) at[offset + k] = uint8_t(value >> (8 * k));
    VMAArrayRelease_(arena, id, at, 0);
  }

  // The last call failed on stored damage: a data error (naming `named`), the arena tagged. The error is cleared unless
  // `keep`.
  void ExpectDataError(const char *named = nullptr, bool keep = false) {
    EXPECT_EQ(QWErrorClass(), QW_ERROR_CLASS_DATA) << QWErrorMessage();
    EXPECT_EQ(QWErrorCode(), 74) << QWErrorMessage();
    EXPECT_NE(std::string(QWErrorMessage()).find(named ? named : ""), std::string::npos) << QWErrorMessage();
    EXPECT_TRUE(Tagged());
    if (!keep) QWErrorClear();
  }
};

// `readers` threads call read(rng) (under the committed generation's lock when `arena` is given) while `write` runs,
// until it is done and `minReads` reads happened. Returns how many reads returned false.
inline uint32_t ReadersBesideWriter(VMArena *arena, uint32_t readers, uint32_t minReads,
                                    const std::function<bool(std::mt19937 &)> &read,
                                    const std::function<void()> &write) {
  std::atomic<bool> done{false};
  std::atomic<uint32_t> reads{0}, bad{0};
  std::vector<std::thread> threads;
  for (uint32_t t = 1; t <= readers; ++t)
    threads.emplace_back([&, t] {
      std::mt19937 rng(t);
      while (!done.load() || reads.load() < minReads) {
        if (arena) VMArenaOldGenAcquire(arena);
        const bool ok = read(rng);
        if (arena) VMArenaOldGenRelease(arena);
        bad += !ok;
        ++reads;
      }
    });
  write();
  done = true;
  for (std::thread &t : threads) t.join();
  return bad.load();
}

}  // namespace olibtest
