// The part every arena-based workload shares: opening the arena (two
// buckets, no serials) around the workload's structures, committing the
// arena before them, and closing in the reverse order.
#pragma once

#include <cstring>
#include <string>

#include "fault/workloads.h"

namespace faulttest {

class ArenaWorkload : public Workload {
 public:
  explicit ArenaWorkload(uint32_t flags) : flags_(flags) {}

  bool Open(const std::string &directory, PageCache *cache, bool create) override {
    arena_ = VMArenaOpen(directory.c_str(), flags_ | (create ? VM_FLAG_CREATE : 0), 2, STATUS_NO_SERIAL,
                         STATUS_NO_SERIAL, nullptr, cache);
    if (!arena_) return false;
    if (!ArrayInit(pathBuffer_, 1, 64) || !OpenParts()) {
      QWErrorSave();
      Close();
      QWErrorRestore();
      return false;
    }
    return true;
  }
  bool Commit() override { return VMArenaCommit(arena_, nullptr, nullptr, 0) == 1 && CommitParts(); }
  void Close() override {
    CloseParts();
    if (arena_) VMArenaClose(arena_);
    arena_ = nullptr;
    ArrayFree(pathBuffer_);
    pathBuffer_ = nullptr;
  }

 protected:
  // The workload's structures on arena_ (created when missing).
  virtual bool OpenParts() = 0;
  // What a structure needs after the arena committed.
  virtual bool CommitParts() { return true; }
  // Frees the structures (any of them may be missing).
  virtual void CloseParts() = 0;

  // The path buffer holding `prefix` (what the structures' constructors want).
  uint8_t **PathBuffer(const char *prefix) {
    const size_t length = std::char_traits<char>::length(prefix);
    ArrayLengthSet(pathBuffer_, 0);
    if (!ArrayGrow(pathBuffer_, length)) return nullptr;
    std::memcpy(pathBuffer_, prefix, length);
    return &pathBuffer_;
  }

  uint32_t flags_;
  VMArena *arena_ = nullptr;
  uint8_t *pathBuffer_ = nullptr;
};

// A closed copy of workload `w` (its model; handles are null when closed).
template <typename T>
std::unique_ptr<Workload> CloneOf(const T &w) {
  return std::make_unique<T>(w);
}

}  // namespace faulttest
