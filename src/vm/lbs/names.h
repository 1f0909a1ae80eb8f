// File names of a block server, and small helpers shared by its sources.
#pragma once

#include <cstdint>
#include <string>

#include "qwvm/qwlib.h"

namespace qw::vm {

// printf into a std::string.
std::string StringPrintf(const char *format, ...) QW_PRINTF(1, 2);

// directory/data<suffix>
std::string DataFilePath(const std::string &directory, const std::string &suffix);
// "index<suffix>.new" or "index<suffix>.old": the name FileAtomicCommit and
// FileAtomicRecover work on.
std::string IndexFileName(const std::string &suffix, const char *kind);
// The committed index: directory/index<suffix><kind> for an unserialised
// server (serial STATUS_NO_SERIAL), directory/index<suffix><kind>.<serial>
// otherwise. `kind` is ".new" or ".old".
std::string IndexFilePath(const std::string &directory, const std::string &suffix, const char *kind, uint64_t serial);
// Where a flush writes the index: directory/index<suffix><kind>.new when
// unserialised (renamed into place by the disk commit), else IndexFilePath.
std::string IndexFileFlushPath(const std::string &directory, const std::string &suffix, const char *kind,
                               uint64_t serial);

// Locks a qwlib mutex for the scope.
class ScopedMutex {
 public:
  explicit ScopedMutex(QWMutex *mutex) : mutex_(mutex) { MutexAcquire(mutex_); }
  ~ScopedMutex() { MutexRelease(mutex_); }
  ScopedMutex(const ScopedMutex &) = delete;
  ScopedMutex &operator=(const ScopedMutex &) = delete;

 private:
  QWMutex *mutex_;
};

// Runs clean-up steps after each other, keeping the first error: once a step
// has failed, later steps run with the error state saved and restored.
class FirstError {
 public:
  template <typename Step>
  void Run(Step &&step) {
    if (ok_) {
      ok_ = step();
    } else {
      QWErrorSave();
      (void)step();
      QWErrorRestore();
    }
  }
  bool ok() const { return ok_; }

 private:
  bool ok_ = true;
};

}  // namespace qw::vm
