// A small structure of the tests' own on a logged arena: an array of 16
// counters whose changes are increments, each logged as one record (type
// 30: index u32, delta u32) and replayed by recovery. The lvm tests and the
// fault campaign drive it and compare it with a plain vector.
#pragma once

#include <cstdint>
#include <mutex>
#include <string>
#include <vector>

#include "qwvm/qwvm.h"

namespace qwtest {

class LoggedCounters {
 public:
  static constexpr uint32_t kRecordType = 30;
  static constexpr uint32_t kCount = 16;

  LoggedCounters() = default;
  LoggedCounters(const LoggedCounters &) = delete;
  LoggedCounters &operator=(const LoggedCounters &) = delete;
  ~LoggedCounters() { Close(); }

  // LoggedVMOpen with the counters' callbacks; a new store commits at once
  // (as an owner does) so that its arena serial is durable.
  bool Open(const std::string &dir, bool create, bool readOnly = false, int *created = nullptr);
  bool Recover() { return LoggedVMRecover(lvm) == 1; }
  // One increment inside a writer section: logged, then applied.
  bool Add(uint32_t index, uint32_t delta);
  bool Checkpoint(bool commit) { return LoggedVMCheckpoint(lvm, commit, LVM_NO_SERIAL) == 1; }
  // The counters of NEWGEN; empty (error set) on failure.
  std::vector<uint64_t> Values();
  void Close();

  LoggedVM *lvm = nullptr;
  uint32_t replayed = 0, recycleSetNewCalls = 0, recycleCalls = 0;
  bool failRecycleSetNew = false, failRecycle = false;

 private:
  static int Replay(LogReadContext *context, uint64_t first, uint64_t last, void *self);
  bool Apply(uint32_t index, uint32_t delta);
  uint32_t array_ = VMA_NO_ARRAY;
  std::mutex applying_;  // the structure's own lock: writers share array blocks
};

}  // namespace qwtest
