// SyncRound (design in sync_round.h).
#include "platform/qwlib/sync_round.h"

#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <condition_variable>
#include <exception>
#include <mutex>
#include <thread>
#include <utility>

#include "qwvm/qwlib.h"

namespace qw {
namespace {

// An error chain carried from a worker thread to the caller.
struct CarriedError {
  bool failed = false;
  int code = 0;
  int errorClass = 0;
  std::string chain;  // QWErrorMessage(): innermost first, one message per line
};

void RunItem(const std::function<int()> &sync, CarriedError *out) {
  if (sync()) return;
  out->failed = true;
  out->code = QWErrorCode();
  out->errorClass = QWErrorClass();
  out->chain = QWErrorMessage();
  QWErrorClear();
}

void Rethrow(const CarriedError &error) {
  size_t start = 0;
  bool first = true;
  while (start <= error.chain.size()) {
    size_t end = error.chain.find('\n', start);
    if (end == std::string::npos) end = error.chain.size();
    const std::string line = error.chain.substr(start, end - start);
    if (first)
      QWErrorThrow(error.code, error.errorClass, "%s", line.c_str());
    else
      QWErrorRethrow("%s", line.c_str());
    first = false;
    start = end + 1;
  }
}

// The items of one round being run: item 0 on the caller, the others on
// whichever worker (or the caller) takes them first.
struct Batch {
  const std::vector<const std::function<int()> *> *syncs;
  CarriedError *errors;
  size_t next = 1;     // the next item nobody has taken
  size_t running = 0;  // taken by a worker, not finished
  std::condition_variable finished;

  bool Exhausted() const { return next == syncs->size(); }
};

// The process's sync workers (see sync_round.h). Never destroyed: workers
// may still be parked in it while the process exits.
class SyncWorkers {
 public:
  static SyncWorkers &OfThisProcess() {
    static std::atomic<SyncWorkers *> current{nullptr};
    const pid_t pid = getpid();
    SyncWorkers *workers = current.load(std::memory_order_acquire);
    while (workers == nullptr || workers->pid_ != pid) {
      // First use, or the first in a child of fork(): the parent's workers
      // did not come along, and its lock may have been held when it forked.
      // The parent's object stays reachable from the new one.
      auto *fresh = new SyncWorkers(pid, workers);
      if (current.compare_exchange_strong(workers, fresh, std::memory_order_acq_rel)) return *fresh;
      delete fresh;  // another thread of this process installed one first
    }
    return *workers;
  }

  void Run(const std::vector<const std::function<int()> *> &syncs, CarriedError *errors) {
    if (syncs.empty()) return;
    Batch batch;
    batch.syncs = &syncs;
    batch.errors = errors;
    std::unique_lock<std::mutex> lock(mutex_);
    if (!batch.Exhausted()) {
      open_.push_back(&batch);
      StartWorkers(syncs.size() - 1);
      work_.notify_all();
    }
    lock.unlock();
    RunItem(*syncs[0], &errors[0]);
    lock.lock();
    // What no worker has taken yet runs here.
    while (!batch.Exhausted()) {
      const size_t index = Take(&batch);
      lock.unlock();
      RunItem(*syncs[index], &errors[index]);
      lock.lock();
    }
    batch.finished.wait(lock, [&batch] { return batch.running == 0; });
  }

 private:
  static constexpr size_t kMaxWorkers = 64;

  SyncWorkers(pid_t pid, SyncWorkers *parent) : pid_(pid), parent_(parent) {}

  // Takes the next item of `batch` (under the lock).
  size_t Take(Batch *batch) {
    const size_t index = batch->next++;
    if (batch->Exhausted()) open_.erase(std::find(open_.begin(), open_.end(), batch));
    return index;
  }

  // Makes sure `wanted` workers can start at once (under the lock); fewer
  // when threads cannot be had.
  void StartWorkers(size_t wanted) {
    for (size_t idle = idle_; idle < wanted && workers_ < kMaxWorkers; ++idle, ++workers_) {
      try {
        std::thread(&SyncWorkers::Work, this).detach();
      } catch (const std::exception &) {
        return;
      }
    }
  }

  void Work() {
    std::unique_lock<std::mutex> lock(mutex_);
    for (;;) {
      if (open_.empty()) {
        ++idle_;
        work_.wait(lock);
        --idle_;
        continue;
      }
      Batch *batch = open_.front();
      const size_t index = Take(batch);
      ++batch->running;
      lock.unlock();
      RunItem(*(*batch->syncs)[index], &batch->errors[index]);
      lock.lock();
      if (--batch->running == 0 && batch->Exhausted()) batch->finished.notify_one();
    }
  }

  const pid_t pid_;
  SyncWorkers *const parent_;  // kept reachable, never used
  std::mutex mutex_;
  std::condition_variable work_;
  std::vector<Batch *> open_;  // batches with items nobody has taken
  size_t idle_ = 0;            // workers parked on work_
  size_t workers_ = 0;         // started
};

}  // namespace

void SyncRound::AddFile(QWFILE file, std::string failure) {
  items_.push_back({[file] { return QWFileSync(file); }, std::move(failure), {}});
}

void SyncRound::AddChannel(QWChannel *channel, std::string failure) {
  items_.push_back({[channel] { return ChannelSync(channel); }, std::move(failure), {}});
}

void SyncRound::AddDirectory(const std::string &path, std::string failure) {
  for (const Item &item : items_)
    if (item.directory == path) return;
  items_.push_back({[path] { return DirectorySync(path.c_str()); }, std::move(failure), path});
}

void SyncRound::Add(std::function<int()> sync, std::string failure) {
  items_.push_back({std::move(sync), std::move(failure), {}});
}

bool SyncRound::Run() {
  std::vector<Item> items;
  items.swap(items_);
  std::vector<CarriedError> errors(items.size());
  std::vector<const std::function<int()> *> syncs;
  syncs.reserve(items.size());
  for (const Item &item : items) syncs.push_back(&item.sync);
  SyncWorkers::OfThisProcess().Run(syncs, errors.data());
  for (size_t i = 0; i < errors.size(); ++i) {
    if (!errors[i].failed) continue;
    Rethrow(errors[i]);
    if (!items[i].failure.empty()) QWErrorRethrow("%s", items[i].failure.c_str());
    return false;
  }
  return true;
}

}  // namespace qw
