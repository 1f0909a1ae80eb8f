#include "arena_fixture.h"

namespace arenatest {
namespace {

uint8_t PatternByte(uint32_t tag, uint64_t id, uint32_t i) {
  return uint8_t((tag * 131u) ^ (id * 2654435761u >> 7) ^ (i * 31u));
}

}  // namespace

void ArenaTest::SetUp() {
  qwtest::TempDirTest::SetUp();
  cache = PageCacheNew(4 << 20, 8192);
  ASSERT_NE(cache, nullptr);
}

void ArenaTest::TearDown() {
  PageCacheFree(cache);
  qwtest::TempDirTest::TearDown();
}

VMArena *ArenaTest::Open(const Mode &mode, uint32_t flags, uint32_t buckets, const std::string &directory) {
  uint64_t oldSerial = mode.serialised ? serialOld : STATUS_NO_SERIAL;
  uint64_t newSerial = mode.serialised ? serialNew : STATUS_NO_SERIAL;
  return VMArenaOpen((directory.empty() ? arenaDir() : directory).c_str(), mode.flags | flags, buckets, oldSerial,
                     newSerial, nullptr, cache);
}

void Fill(VMArena *arena, uint64_t id, uint32_t tag) {
  uint32_t size = 0;
  auto *bytes = static_cast<uint8_t *>(VMArenaDataAcquire(arena, id, 0, NEWGEN, 0, &size, nullptr));
  ASSERT_NE(bytes, nullptr) << QWErrorMessage();
  for (uint32_t i = 0; i < size; ++i) bytes[i] = PatternByte(tag, id, i);
  VMArenaDataRelease(arena, id, 0, bytes, 0, 0);
}

bool Holds(VMArena *arena, uint64_t id, uint32_t generation, uint32_t tag) {
  uint32_t size = 0;
  auto *bytes = static_cast<uint8_t *>(VMArenaDataAcquire(arena, id, 0, generation, 1, &size, nullptr));
  if (!bytes) return false;
  bool same = true;
  for (uint32_t i = 0; i < size && same; ++i) same = bytes[i] == PatternByte(tag, id, i);
  VMArenaDataRelease(arena, id, 1, bytes, 0, 0);
  return same;
}

bool Commit(VMArena *arena, uint64_t *serialOld, uint64_t *serialNew) {
  uint64_t o = 0, n = 0;
  if (!VMArenaCommit(arena, &o, &n, 0)) return false;
  if (o != STATUS_NO_SERIAL) {
    *serialOld = o;
    *serialNew = n;
  }
  return true;
}

}  // namespace arenatest
