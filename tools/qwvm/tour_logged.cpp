// The tour's logged step: a logged arena whose counters change in memory
// and in log records, survive a close without commit through the log, and
// are made durable by a committing checkpoint.
#include <cinttypes>
#include <cstdio>
#include <cstring>
#include <string>

#include "qwvm/qwvm.h"
#include "tools/qwvm/commands.h"

namespace qwtool {
namespace {

constexpr uint32_t kIncrement = 30;  // record type: counter index u32, delta u32
constexpr uint32_t kCounters = 4;

struct Counters {
  LoggedVM *lvm = nullptr;
  uint32_t array = VMA_NO_ARRAY;
  uint32_t replayed = 0;
};

bool Apply(Counters *counters, uint32_t index, uint32_t delta) {
  VMArena *arena = LoggedVMArenaGet(counters->lvm);
  uint32_t end = 0;
  auto *value = static_cast<uint64_t *>(
      VMAArrayRange_(arena, counters->array, 0, ARENA_MAX_BLOCK_SIZE, index, &end, NEWGEN, 0, 8, 0));
  if (!value) return false;
  *value += delta;
  VMAArrayRelease_(arena, counters->array, value, 0);
  return true;
}

int Replay(LogReadContext *context, uint64_t first, uint64_t last, void *self) {
  auto *counters = static_cast<Counters *>(self);
  for (uint64_t serial = first; serial <= last;) {
    uint32_t type = 0, payload[2] = {0, 0}, size = sizeof payload;
    uint64_t next = 0;
    if (!LogRead(context, serial, &type, payload, &size, &next, nullptr)) return 0;
    if (type == kIncrement) {
      if (size != sizeof payload || payload[0] >= kCounters || !Apply(counters, payload[0], payload[1])) return 0;
      ++counters->replayed;
    } else if (!LoggedVMProcessFun(counters->lvm, serial, type)) {
      return QWErrorRethrow("could not replay record type %u", type);
    }
    serial = next;
  }
  return 1;
}

bool Open(Counters *counters, const std::string &dir, bool create) {
  int created = 0;
  counters->lvm = LoggedVMOpen(dir.c_str(), 1, create, 0, &created, 0, 0, nullptr, nullptr, nullptr, Replay, counters);
  if (!counters->lvm || !LoggedVMRecover(counters->lvm)) return false;
  VMAArrayHandle handle;
  VMArena *arena = LoggedVMArenaGet(counters->lvm);
  if (!VMAArrayInitFromPath(&handle, arena, "tour", "counters")) return false;
  counters->array = handle.id[NEWGEN];
  const uint64_t zeros[kCounters] = {};
  return VMAArrayLength_(arena, counters->array, NEWGEN) != 0 ||
         (VMAArrayAppend_(arena, counters->array, 0, ARENA_MAX_BLOCK_SIZE, zeros, kCounters, NEWGEN, 8) &&
          LoggedVMCheckpoint(counters->lvm, 1, LVM_NO_SERIAL));
}

bool Add(Counters *counters, uint32_t index, uint32_t delta) {
  const uint64_t ticket = LoggedVMWriterAcquire(counters->lvm);
  if (ticket == LVM_NO_SERIAL) return false;
  const uint32_t payload[2] = {index, delta};
  LoggedVMAcquire(counters->lvm);
  const bool logged = LogWrite(LoggedVMLogGet(counters->lvm), kIncrement, payload, sizeof payload, 0);
  LoggedVMRelease(counters->lvm);
  const bool ok = logged && Apply(counters, index, delta);
  LoggedVMWriterRelease(counters->lvm, ticket);
  return ok;
}

std::string Values(Counters *counters) {
  std::string text;
  for (uint32_t i = 0; i < kCounters; ++i) {
    uint32_t end = 0;
    VMArena *arena = LoggedVMArenaGet(counters->lvm);
    auto *value = static_cast<uint64_t *>(
        VMAArrayRange_(arena, counters->array, 0, ARENA_MAX_BLOCK_SIZE, i, &end, NEWGEN, 1, 8, 0));
    if (!value) return "(unreadable)";
    text += (i ? " " : "") + std::to_string(*value);
    VMAArrayRelease_(arena, counters->array, value, 1);
  }
  return text;
}

void Close(Counters *counters) {
  if (!counters->lvm) return;
  LoggedVMClose(counters->lvm);
  UnAllocate(counters->lvm);
  counters->lvm = nullptr;
}

}  // namespace

int TourLogged(const char *directory) {
  const std::string dir = std::string(directory) + "/logged";
  std::printf("\n7. Logged arena: counters in %s whose changes are log records\n", dir.c_str());
  // The logged layer reports its commits; the tour prints its own lines.
  QWSetMessageThreshold(QW_LEVEL_WARNING);
  Counters counters;
  int status = 0;
  if (!Open(&counters, dir, true)) status = TourFail("opening the logged arena");
  for (uint32_t i = 0; status == 0 && i < 100; ++i)
    if (!Add(&counters, i % kCounters, i)) status = TourFail("logging an increment");
  if (status == 0 && !LoggedVMCheckpoint(counters.lvm, 0, LVM_NO_SERIAL)) status = TourFail("checkpoint");
  if (status == 0) {
    std::printf("   100 increments logged, a checkpoint flushed the log: counters %s\n", Values(&counters).c_str());
    Close(&counters);  // no commit: the arena on disk still holds zeros
    if (!Open(&counters, dir, false)) status = TourFail("reopening with recovery");
  }
  if (status == 0) {
    std::printf("   closed without commit and reopened: recovery replayed %u records: counters %s\n",
                counters.replayed, Values(&counters).c_str());
    if (!LoggedVMCheckpoint(counters.lvm, 1, LVM_NO_SERIAL)) status = TourFail("committing checkpoint");
  }
  if (status == 0)
    std::printf("   a committing checkpoint made them part of the arena\n"
                "   inspect it: qwvm lvm %s; qwvm log %s\n",
                dir.c_str(), dir.c_str());
  Close(&counters);
  QWSetMessageThreshold(QW_LEVEL_PROGRESS);
  return status;
}

}  // namespace qwtool
