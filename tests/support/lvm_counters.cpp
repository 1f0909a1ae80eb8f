#include "support/lvm_counters.h"

#include <cstring>

namespace qwtest {
namespace {

int RecycleSetNew(void *self) {
  auto *counters = static_cast<LoggedCounters *>(self);
  ++counters->recycleSetNewCalls;
  return counters->failRecycleSetNew ? QWErrorThrow(5, 0, "recycleSetNew refused") : 1;
}

int Recycle(void *self) {
  auto *counters = static_cast<LoggedCounters *>(self);
  ++counters->recycleCalls;
  return counters->failRecycle ? QWErrorThrow(5, 0, "recycle refused") : 1;
}

}  // namespace

bool LoggedCounters::Open(const std::string &dir, bool create, bool readOnly, int *created) {
  int made = 0;
  replayed = recycleSetNewCalls = recycleCalls = 0;
  lvm = LoggedVMOpen(dir.c_str(), 2, create, readOnly, &made, 0, 0, nullptr, RecycleSetNew, Recycle, Replay, this);
  if (created) *created = made;
  if (!lvm) return false;
  VMAArrayHandle handle;
  if (!VMAArrayInitFromPath(&handle, LoggedVMArenaGet(lvm), "counters", "values")) return false;
  array_ = handle.id[NEWGEN];
  VMArena *arena = LoggedVMArenaGet(lvm);
  if (!readOnly && VMAArrayLength_(arena, array_, NEWGEN) == 0) {
    const std::vector<uint64_t> zeros(kCount, 0);
    if (!VMAArrayAppend_(arena, array_, 0, ARENA_MAX_BLOCK_SIZE, zeros.data(), kCount, NEWGEN, 8)) return false;
  }
  return !made || Checkpoint(true);
}

bool LoggedCounters::Apply(uint32_t index, uint32_t delta) {
  std::lock_guard<std::mutex> lock(applying_);
  VMArena *arena = LoggedVMArenaGet(lvm);
  uint32_t end = 0;
  auto *value = static_cast<uint64_t *>(
      VMAArrayRange_(arena, array_, 0, ARENA_MAX_BLOCK_SIZE, index, &end, NEWGEN, 0, 8, 0));
  if (!value) return false;
  *value += delta;
  VMAArrayRelease_(arena, array_, value, 0);
  return true;
}

bool LoggedCounters::Add(uint32_t index, uint32_t delta) {
  const uint64_t ticket = LoggedVMWriterAcquire(lvm);
  if (ticket == LVM_NO_SERIAL) return QWErrorThrow(5, 0, "LVM is in error, cannot update");
  uint32_t payload[2] = {index, delta};
  LoggedVMAcquire(lvm);
  const bool logged = LogWrite(LoggedVMLogGet(lvm), kRecordType, payload, sizeof payload, 0) == 1;
  LoggedVMRelease(lvm);
  const bool ok = logged && Apply(index, delta);
  LoggedVMWriterRelease(lvm, ticket);
  return ok;
}

int LoggedCounters::Replay(LogReadContext *context, uint64_t first, uint64_t last, void *self) {
  auto *counters = static_cast<LoggedCounters *>(self);
  for (uint64_t serial = first; serial <= last;) {
    uint32_t type = 0, payload[2] = {0, 0}, size = sizeof payload;
    uint64_t next = 0;
    if (!LogRead(context, serial, &type, payload, &size, &next, nullptr)) return 0;
    if (type == kRecordType) {
      if (size != sizeof payload || payload[0] >= kCount)
        return QWErrorThrow(74, QW_ERROR_CLASS_DATA, "bad counter record");
      if (!counters->Apply(payload[0], payload[1])) return 0;
      ++counters->replayed;
    } else if (!LoggedVMProcessFun(counters->lvm, serial, type)) {
      return QWErrorIsSet() ? 0 : QWErrorThrow(2, 0, "could not replay record type %u", type);
    }
    serial = next;
  }
  return 1;
}

std::vector<uint64_t> LoggedCounters::Values() {
  std::vector<uint64_t> values;
  VMArena *arena = LoggedVMArenaGet(lvm);
  for (uint32_t i = 0; i < VMAArrayLength_(arena, array_, NEWGEN); ++i) {
    uint32_t end = 0;
    auto *value =
        static_cast<uint64_t *>(VMAArrayRange_(arena, array_, 0, ARENA_MAX_BLOCK_SIZE, i, &end, NEWGEN, 1, 8, 0));
    if (!value) return {};
    values.push_back(*value);
    VMAArrayRelease_(arena, array_, value, 1);
  }
  return values;
}

void LoggedCounters::Close() {
  if (!lvm) return;
  LoggedVMClose(lvm);
  UnAllocate(lvm);
  lvm = nullptr;
}

}  // namespace qwtest
