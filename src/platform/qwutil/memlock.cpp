// The process-wide memory lock and the registry of memory-lock enumerators
// (design in qwutil.h).
//
// The memory lock is a ticket lock: MemoryLockAcquire draws the next ticket
// and waits until it is served, so waiters get the lock first-come
// first-served and a pass that releases and re-acquires in
// MemoryLockPeriodicRelease queues behind whoever was waiting.
//   Invariants (under TicketLock::mutex):
//     serving <= nextTicket; the lock is held iff nextTicket > serving and
//     then `owner` is the holder; nextTicket - serving - 1 threads wait.
//
// The registry is a list of entries, each with a unique sequence number.
//   Invariants (under Registry::mutex):
//     an entry with running == true is being called by exactly one thread,
//     `runner`, outside the mutex (a second pass skips it); an entry is
//     erased only when not running: at once when unregistered idle, by the
//     unregistering thread after the run ends, or by EndRun when the run
//     unregistered its own entry. A removed entry is never claimed again.
//     The mutex is never held while an enumerator runs.
#include <algorithm>
#include <condition_variable>
#include <cstdint>
#include <list>
#include <mutex>
#include <new>
#include <thread>
#include <vector>

#include "qwvm/qwutil.h"

namespace {

constexpr int kCanceled = 125;  // ECANCELED

struct TicketLock {
  std::mutex mutex;
  std::condition_variable served;
  uint64_t nextTicket = 0;
  uint64_t serving = 0;
  std::thread::id owner;
  uint64_t stopEpoch = 0;  // advanced by MemoryLockStop
};

// The pass this thread is running, if any: MemoryLockStop ends the passes
// whose starting epoch is older than the current one.
struct PassState {
  bool inPass = false;
  uint64_t epoch = 0;
};
thread_local PassState currentPass;

TicketLock &MemoryLockState() {
  static TicketLock lock;
  return lock;
}

struct Enumerator {
  MemoryEnumLockFunction callback = nullptr;
  void *context = nullptr;
  uint64_t sequence = 0;
  bool running = false;
  bool removed = false;
  bool removedByRunner = false;  // unregistered from inside its own run
  std::thread::id runner;
};

struct Registry {
  std::mutex mutex;
  std::condition_variable runEnded;
  std::list<Enumerator> entries;
  uint64_t nextSequence = 0;
};

Registry &RegistryState() {
  static Registry registry;
  return registry;
}

bool HeldByCaller(TicketLock &lock) {
  return lock.nextTicket > lock.serving && lock.owner == std::this_thread::get_id();
}

// Claims the entry with this sequence number for running, or returns null
// when it was unregistered meanwhile or is running in another pass right
// now (a pass can start while another one lets it in at a periodic release;
// the running one is already applying that enumerator).
Enumerator *ClaimForRun(Registry &registry, uint64_t sequence) {
  std::lock_guard<std::mutex> guard(registry.mutex);
  for (Enumerator &entry : registry.entries) {
    if (entry.sequence != sequence) continue;
    if (entry.removed || entry.running) return nullptr;
    entry.running = true;
    entry.runner = std::this_thread::get_id();
    return &entry;
  }
  return nullptr;
}

// Ends a run. An entry unregistered by another thread is erased by that
// thread once it sees the run ended; one unregistered by its own run is
// erased here.
void EndRun(Registry &registry, Enumerator *entry) {
  std::lock_guard<std::mutex> guard(registry.mutex);
  entry->running = false;
  entry->runner = std::thread::id();
  if (entry->removedByRunner) {
    registry.entries.remove_if([entry](const Enumerator &e) { return &e == entry; });
    return;
  }
  registry.runEnded.notify_all();
}

std::vector<uint64_t> SnapshotSequences(Registry &registry) {
  std::lock_guard<std::mutex> guard(registry.mutex);
  std::vector<uint64_t> sequences;
  sequences.reserve(registry.entries.size());
  for (const Enumerator &entry : registry.entries)
    if (!entry.removed) sequences.push_back(entry.sequence);
  return sequences;
}

bool StopRequested() {
  if (!currentPass.inPass) return false;
  TicketLock &lock = MemoryLockState();
  std::lock_guard<std::mutex> guard(lock.mutex);
  return lock.stopEpoch != currentPass.epoch;
}

// Runs every enumerator of the snapshot; the caller holds the memory lock.
int RunEnumerators(const std::vector<uint64_t> &sequences) {
  Registry &registry = RegistryState();
  int ok = 1;
  for (uint64_t sequence : sequences) {
    if (StopRequested()) {
      if (ok) QWErrorThrow(kCanceled, QW_ERROR_CLASS_GENERAL, "memory lock pass stopped");
      return 0;
    }
    Enumerator *entry = ClaimForRun(registry, sequence);
    if (entry == nullptr) continue;
    // A failure is kept as the pass's error; later failures go to clean-up.
    if (!ok) QWErrorSave();
    const int result = entry->callback(entry->context);
    if (!ok) QWErrorRestore();
    EndRun(registry, entry);
    if (!result && ok) {
      QWErrorRethrow("MemoryLockApplyAll: an enumerator failed");
      ok = 0;
    }
  }
  return ok;
}

}  // namespace

int MemoryEnumLock(MemoryEnumLockFunction callback, void *context) {
  qwassert_(callback != NULL);
  Registry &registry = RegistryState();
  try {
    std::lock_guard<std::mutex> guard(registry.mutex);
    Enumerator entry;
    entry.callback = callback;
    entry.context = context;
    entry.sequence = registry.nextSequence++;
    registry.entries.push_back(entry);
  } catch (const std::bad_alloc &) {
    return QWErrorThrow(12, QW_ERROR_CLASS_SYSTEM, "MemoryEnumLock: out of memory");
  }
  return 1;
}

int MemoryEnumUnLock(MemoryEnumLockFunction callback, void *context) {
  Registry &registry = RegistryState();
  std::unique_lock<std::mutex> guard(registry.mutex);
  auto it = std::find_if(registry.entries.begin(), registry.entries.end(), [&](const Enumerator &entry) {
    return !entry.removed && entry.callback == callback && entry.context == context;
  });
  if (it == registry.entries.end())
    return QWErrorThrow(2, QW_ERROR_CLASS_GENERAL, "MemoryEnumUnLock: enumerator not registered");
  it->removed = true;
  if (it->running && it->runner == std::this_thread::get_id()) {
    it->removedByRunner = true;  // EndRun erases it
    return 1;
  }
  if (it->running) {
    // The running pass needs the memory lock back between entries; waiting
    // for it while holding that lock would never end.
    {
      TicketLock &lock = MemoryLockState();
      std::lock_guard<std::mutex> lockGuard(lock.mutex);
      qwassert_(!HeldByCaller(lock));
    }
    registry.runEnded.wait(guard, [&] { return !it->running; });
  }
  registry.entries.erase(it);
  return 1;
}

void MemoryLockAcquire(void) {
  TicketLock &lock = MemoryLockState();
  std::unique_lock<std::mutex> guard(lock.mutex);
  qwassert_(!HeldByCaller(lock));
  const uint64_t ticket = lock.nextTicket++;
  lock.served.wait(guard, [&] { return lock.serving == ticket; });
  lock.owner = std::this_thread::get_id();
}

void MemoryLockRelease(void) {
  TicketLock &lock = MemoryLockState();
  std::lock_guard<std::mutex> guard(lock.mutex);
  qwassert_(HeldByCaller(lock));
  lock.owner = std::thread::id();
  ++lock.serving;
  lock.served.notify_all();
}

int MemoryLockPeriodicRelease(int force) {
  if (StopRequested()) return 0;
  TicketLock &lock = MemoryLockState();
  bool yield = false;
  {
    std::lock_guard<std::mutex> guard(lock.mutex);
    const bool someoneWaits = lock.nextTicket - lock.serving > 1;
    yield = HeldByCaller(lock) && (someoneWaits || force);
  }
  if (yield) {
    MemoryLockRelease();
    MemoryLockAcquire();
  }
  return StopRequested() ? 0 : 1;
}

void MemoryLockStop(void) {
  TicketLock &lock = MemoryLockState();
  std::lock_guard<std::mutex> guard(lock.mutex);
  ++lock.stopEpoch;
}

int MemoryLockApplyAll(void) {
  qwassert_(!currentPass.inPass);
  {
    TicketLock &lock = MemoryLockState();
    std::lock_guard<std::mutex> guard(lock.mutex);
    currentPass.epoch = lock.stopEpoch;
  }
  currentPass.inPass = true;
  MemoryLockAcquire();
  int ok = 0;
  try {
    ok = RunEnumerators(SnapshotSequences(RegistryState()));
  } catch (const std::bad_alloc &) {
    ok = QWErrorThrow(12, QW_ERROR_CLASS_SYSTEM, "MemoryLockApplyAll: out of memory");
  }
  MemoryLockRelease();
  currentPass.inPass = false;
  return ok;
}
